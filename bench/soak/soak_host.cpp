// A long run of the receiver as a host drives it, in simulation: retunes at a fixed period, a close
// and an open at a longer one (each open takes the next transmission mode), and now and then a
// callback that takes 300 ms a call for two seconds. Once a second it samples resident memory;
// after every retune and open it times the way back to lock. It prints a summary and fails (exit 1)
// when lock did not come back within 20 s, or when threads or descriptors are not back at their
// first values after the last close.
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
  char line[256];
  long kb = -1;
  while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr)
    if (std::strncmp(line, "VmRSS:", 6) == 0) kb = std::strtol(line + 6, nullptr, 10);
  if (f != nullptr) std::fclose(f);
  return kb;
}

}  // namespace

int main(int argc, char** argv) {
  const char* names[] = {"--minutes", "--retune", "--reopen", "--slow"};
  double values[] = {60, 30, 300, 97};  // minutes; seconds between retunes, reopens, slow spells
  for (int i = 1; i < argc; i += 2) {
    const auto* name = std::find_if(std::begin(names), std::end(names), [&](const char* n) { return !std::strcmp(n, argv[i]); });
    if (name == std::end(names) || i + 1 >= argc) {
      std::fprintf(stderr, "usage: soak_host [--minutes M] [--retune S] [--reopen S] [--slow S]\n");
      return 2;
    }
    values[name - names] = std::atof(argv[i + 1]);
  }
  setenv("ZFNISDBT_SIM_INTERLEAVE", "1", 1);
  const int threads0 = Entries("/proc/self/task"), fds0 = Entries("/proc/self/fd");
  const long rss0 = ResidentKb();
  ZFISDBT_SetTSCallBack([](const uint8_t*, int32_t) {
    deliveries.fetch_add(1);
    if (slow.load()) std::this_thread::sleep_for(std::chrono::milliseconds(300));
  });
  int mode = 3, opens = 0, retunes = 0, lockFailures = 0;
  long rssOpen = -1, rssMax = 0;
  double worstRegain = 0;
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  auto since = start, lastRetune = start, lastReopen = start, lastSlow = start;
  const auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
  bool waitingForLock = true;
  for (int tick = 0;; ++tick) {
    if (tick == 0 || seconds(Clock::now() - lastReopen) > values[2]) {  // a close and an open
      slow = false;
      if (tick > 0) ZFISDBT_CloseDevice();
      setenv("ZFNISDBT_SIM_MODE", std::to_string(mode).c_str(), 1);
      mode = mode % 3 + 1;
      ZFISDBT_DebugCMD(5, 1);
      opens += 1;
      if (ZFISDBT_OpenDevice() != 1 || ZFISDBT_SetFrequency(473143) != 1) {
        std::fprintf(stderr, "soak: open failed\n");
        return 1;
      }
      lastReopen = lastRetune = since = Clock::now();
      waitingForLock = true;
    } else if (seconds(Clock::now() - lastRetune) > values[1]) {
      ZFISDBT_SetFrequency(473143);
      retunes += 1;
      lastRetune = since = Clock::now();
      waitingForLock = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto now = Clock::now();
    if (seconds(now - start) > values[0] * 60) break;
    int32_t locked = 0;
    if (waitingForLock && ZFISDBT_GetSignalLock(&locked) == 1 && locked == 1) {
      worstRegain = std::max(worstRegain, seconds(now - since));
      waitingForLock = false;
    } else if (waitingForLock && seconds(now - since) > 20) {
      lockFailures += 1;
      waitingForLock = false;
      std::fprintf(stderr, "soak: no lock 20 s after a retune or open\n");
    }
    if (tick % 10 == 0) {
      const long rss = ResidentKb();
      if (rssOpen < 0 && seconds(now - start) > 10) rssOpen = rss;
      rssMax = std::max(rssMax, rss);
    }
    if (slow.load() ? seconds(now - lastSlow) > 2 : seconds(now - lastSlow) > values[3]) {
      slow = !slow.load();
      lastSlow = slow.load() ? now : lastSlow;
    }
  }
  const long rssEnd = ResidentKb();
  ZFISDBT_CloseDevice();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const int threads1 = Entries("/proc/self/task"), fds1 = Entries("/proc/self/fd");
  std::printf(
      "soak: %.1f min, %d opens, %d retunes, %lld deliveries; resident memory %ld kB before open, %ld kB 10 s in, "
      "%ld kB at the end, %ld kB at most; threads %d -> %d, descriptors %d -> %d after close; worst lock regain "
      "%.2f s, %d without lock in 20 s\n",
      values[0], opens, retunes, static_cast<long long>(deliveries.load()), rss0, rssOpen, rssEnd, rssMax, threads0,
      threads1, fds0, fds1, worstRegain, lockFailures);
  return lockFailures == 0 && threads1 == threads0 && fds1 == fds0 ? 0 : 1;
}
