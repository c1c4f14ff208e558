// A long run of the receiver as a host drives it, in simulation: retunes at a fixed period, a close
// and an open at a longer one (each open takes the next transmission mode), and now and then a
// callback that takes 300 ms a call for two seconds. Once a second it samples resident memory,
// threads and descriptors; after every retune and open it times the way back to lock. It prints a
// summary and fails (exit 1) when lock did not come back within 20 s, or when threads or
// descriptors are not back at their first values after the last close.
//   soak_host [--minutes M] [--retune SECONDS] [--reopen SECONDS] [--slow SECONDS]
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "zfnisdbt.h"

namespace {

std::atomic<bool> slow{false};
std::atomic<int64_t> deliveries{0};

void OnPackets(const uint8_t*, int32_t) {
  deliveries.fetch_add(1);
  if (slow.load()) std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

int Entries(const char* dir) {
  int n = 0;
  if (DIR* d = opendir(dir)) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

long ResidentKb() {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (f == nullptr) return -1;
  char line[256];
  long kb = -1;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, "VmRSS:", 6) == 0) kb = std::strtol(line + 6, nullptr, 10);
  }
  std::fclose(f);
  return kb;
}

bool Locked() {
  int32_t locked = 0;
  return ZFISDBT_GetSignalLock(&locked) == 1 && locked == 1;
}

double Seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

int main(int argc, char** argv) {
  double minutes = 60, retuneSeconds = 30, reopenSeconds = 300, slowSeconds = 97;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const double v = std::atof(argv[i + 1]);
    if (flag == "--minutes") minutes = v;
    else if (flag == "--retune") retuneSeconds = v;
    else if (flag == "--reopen") reopenSeconds = v;
    else if (flag == "--slow") slowSeconds = v;
    else {
      std::fprintf(stderr, "usage: soak_host [--minutes M] [--retune S] [--reopen S] [--slow S]\n");
      return 2;
    }
  }
  setenv("ZFNISDBT_SIM_INTERLEAVE", "1", 1);
  const int threads0 = Entries("/proc/self/task"), fds0 = Entries("/proc/self/fd");
  const long rss0 = ResidentKb();
  ZFISDBT_SetTSCallBack(OnPackets);

  int mode = 3, opens = 0, retunes = 0, lockFailures = 0;
  long rssOpen = -1, rssMax = 0;
  double worstRegain = 0;
  auto open = [&] {
    setenv("ZFNISDBT_SIM_MODE", std::to_string(mode).c_str(), 1);
    mode = mode % 3 + 1;
    ZFISDBT_DebugCMD(5, 1);
    opens += 1;
    return ZFISDBT_OpenDevice() == 1 && ZFISDBT_SetFrequency(473143) == 1;
  };
  if (!open()) {
    std::fprintf(stderr, "soak: open failed\n");
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  auto since = start, lastRetune = start, lastReopen = start, lastSlow = start;
  bool waitingForLock = true;
  for (int tick = 0;; ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto now = std::chrono::steady_clock::now();
    if (Seconds(now - start) > minutes * 60) break;
    if (waitingForLock && Locked()) {
      worstRegain = std::max(worstRegain, Seconds(now - since));
      waitingForLock = false;
    } else if (waitingForLock && Seconds(now - since) > 20) {
      lockFailures += 1;
      waitingForLock = false;
      std::fprintf(stderr, "soak: no lock 20 s after a retune or open\n");
    }
    if (tick % 10 == 0) {
      const long rss = ResidentKb();
      if (rssOpen < 0 && Seconds(now - start) > 10) rssOpen = rss;
      rssMax = std::max(rssMax, rss);
    }
    if (!slow.load() && Seconds(now - lastSlow) > slowSeconds) {
      slow = true;
      lastSlow = now;
    } else if (slow.load() && Seconds(now - lastSlow) > 2) {
      slow = false;
    }
    if (Seconds(now - lastReopen) > reopenSeconds) {
      slow = false;
      ZFISDBT_CloseDevice();
      if (!open()) {
        std::fprintf(stderr, "soak: open failed\n");
        return 1;
      }
      lastReopen = lastRetune = since = now;
      waitingForLock = true;
    } else if (Seconds(now - lastRetune) > retuneSeconds) {
      ZFISDBT_SetFrequency(473143);
      retunes += 1;
      lastRetune = since = now;
      waitingForLock = true;
    }
  }
  int32_t words[ZFISDBT_PARA_WORDS] = {};
  ZFISDBT_DebugGetParaValue(words);
  const long rssEnd = ResidentKb();
  ZFISDBT_CloseDevice();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const int threads1 = Entries("/proc/self/task"), fds1 = Entries("/proc/self/fd");
  std::printf(
      "soak: %.1f min, %d opens, %d retunes, %lld deliveries; resident memory %ld kB before open, %ld kB 10 s in, "
      "%ld kB at the end, %ld kB at most; threads %d -> %d, descriptors %d -> %d after close; worst lock regain "
      "%.2f s, %d without lock in 20 s\n",
      minutes, opens, retunes, static_cast<long long>(deliveries.load()), rss0, rssOpen, rssEnd, rssMax, threads0,
      threads1, fds0, fds1, worstRegain, lockFailures);
  return lockFailures == 0 && threads1 == threads0 && fds1 == fds0 ? 0 : 1;
}
