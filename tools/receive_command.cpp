// zfnisdbt receive: a host of the receiver library, using nothing but its public interface.
// Opens the device (or the simulator), tunes, reports the status once a second, writes the
// transport stream it receives, and closes cleanly after the given time or on SIGINT/SIGTERM.
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "tools/command_registry.h"
#include "tools/process_memory.h"
#include "tools/sdr_diagnosis.h"
#include "zfnisdbt.h"

namespace {

volatile sig_atomic_t stopRequested = 0;
void OnStopSignal(int) { stopRequested = 1; }

FILE* output = nullptr;
std::atomic<int64_t> bytesReceived{0};
std::atomic<bool> writeFailed{false};

// Runs on the library's packet thread.
void OnTransportStream(const uint8_t* data, int32_t length) {
  if (data == nullptr || length <= 0) return;
  bytesReceived += length;
  if (output != nullptr && !writeFailed.load() &&
      std::fwrite(data, 1, static_cast<size_t>(length), output) != static_cast<size_t>(length)) {
    writeFailed = true;
  }
}

struct Options {
  bool simulate = false;
  int32_t frequencyKHz = 473143;  // UHF channel 13
  int64_t seconds = 0;            // 0: until interrupted
  std::string outputPath;         // empty: discard, "-": standard output
  bool capture = false;           // raw samples to BBStore<n> in the current directory
  std::string probeDirectory;     // non-empty: pictures of the reception through the probe bridge
  bool memory = false;            // resident memory in the reports
};

int Usage(const char* error) {
  if (error != nullptr) std::fprintf(stderr, "zfnisdbt receive: %s\n", error);
  std::fprintf(stderr,
               "usage: zfnisdbt receive [--simulate] [--frequency KHZ] [--seconds N] [--output FILE|-] [--capture]\n"
               "                        [--probe DIR] [--memory]\n"
               "  --simulate        take samples from the simulator library libBDA_simu.so\n"
               "  --frequency KHZ   channel centre frequency in kHz (default 473143)\n"
               "  --seconds N       stop after N seconds (default: run until Ctrl-C)\n"
               "  --output FILE|-   write the transport stream to FILE, or to standard output\n"
               "  --capture         record the raw samples to BBStore<n> in the current directory\n"
               "  --probe DIR       write pictures and numbers of the reception into DIR once a frame\n"
               "                    (through libISDBT_MatlabWrap.so)\n"
               "  --memory          report resident memory (VmRSS, peak VmHWM) before open and every second\n");
  return 2;
}

bool ParseInteger(const char* text, int64_t low, int64_t high, int64_t* value) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text, &end, 10);
  if (errno != 0 || *end != '\0' || v < low || v > high) return false;
  *value = v;
  return true;
}

// 0 parsed, otherwise the exit status of a usage error.
int ParseOptions(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    int64_t v = 0;
    if (a == "--simulate") {
      o->simulate = true;
    } else if (a == "--memory") {
      o->memory = true;
    } else if (a == "--frequency") {
      if (!ParseInteger(next, 1, 3000000, &v)) return Usage("--frequency needs a frequency in kHz (1..3000000)");
      o->frequencyKHz = static_cast<int32_t>(v);
      ++i;
    } else if (a == "--seconds") {
      if (!ParseInteger(next, 1, 100000000, &v)) return Usage("--seconds needs a whole number of seconds, 1 or more");
      o->seconds = v;
      ++i;
    } else if (a == "--output") {
      if (next == nullptr || *next == '\0') return Usage("--output needs a file name or -");
      o->outputPath = next;
      ++i;
    } else if (a == "--capture") {
      o->capture = true;
    } else if (a == "--probe") {
      if (next == nullptr || *next == '\0') return Usage("--probe needs a directory");
      o->probeDirectory = next;
      ++i;
    } else if (a == "--help" || a == "-h") {
      Usage(nullptr);
      return 1;
    } else {
      return Usage(("unknown option '" + a + "'").c_str());
    }
  }
  return 0;
}

const char* BlockStateName(int32_t state) {
  switch (state) {
    case -2: return "NO_SIGNAL";
    case -1: return "IDLE";
    case 0: return "MODE_DETECT";
    case 1: return "COARSE_SYNC";
    case 2: return "FRAME_SYNC";
    case 3: return "TRACKING";
    default: return "?";
  }
}

float WordAsFloat(int32_t word) {
  float f;
  std::memcpy(&f, &word, sizeof f);
  return f;
}

void ReportMemory(FILE* to) {
  std::fprintf(to, " rss=%lldkB peak=%lldkB", static_cast<long long>(zfn::tools::ProcessMemoryKb("VmRSS")),
               static_cast<long long>(zfn::tools::ProcessMemoryKb("VmHWM")));
}

void ReportStatus(FILE* to, int64_t second, bool memory) {
  int32_t present = 0, locked = 0, quality = 0;
  const int32_t presentAnswer = ZFISDBT_GetSignalPresent(&present);
  const int32_t lockAnswer = ZFISDBT_GetSignalLock(&locked);
  ZFISDBT_GetSignalQuality(&quality);
  int32_t w[ZFISDBT_PARA_WORDS] = {};
  const bool haveWords = ZFISDBT_DebugGetParaValue(w) == 1;
  std::fprintf(to, "[%4llds] present=%s lock=%s quality=%d", static_cast<long long>(second),
               presentAnswer == 1 ? (present ? "yes" : "no") : "not-sure",
               lockAnswer == 1 ? (locked ? "yes" : "no") : "not-sure", quality);
  if (haveWords) {
    std::fprintf(to, " state=%s mode/guard=%d snr=%.1fdB offset=%.3f PER=%.4f failed/s=%.0f", BlockStateName(w[5]),
                 w[3], WordAsFloat(w[0]), WordAsFloat(w[1]), WordAsFloat(w[8]), WordAsFloat(w[11]));
  }
  std::fprintf(to, " bytes=%lld", static_cast<long long>(bytesReceived.load()));
  if (memory) ReportMemory(to);
  std::fprintf(to, "\n");
  std::fflush(to);
}

int RunReceive(int argc, char** argv) {
  Options o;
  if (const int status = ParseOptions(argc, argv, &o); status != 0) return status == 1 ? 0 : status;

  FILE* report = stdout;
  if (o.outputPath == "-") {
    output = stdout;
    report = stderr;  // the stream owns standard output
  } else if (!o.outputPath.empty()) {
    output = std::fopen(o.outputPath.c_str(), "wb");
    if (output == nullptr) {
      std::fprintf(stderr, "zfnisdbt receive: cannot write '%s': %s\n", o.outputPath.c_str(), std::strerror(errno));
      return 1;
    }
  }

  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  if (o.memory) {
    std::fprintf(report, "zfnisdbt receive: before open:");
    ReportMemory(report);
    std::fprintf(report, "\n");
  }
  ZFISDBT_SetTSCallBack(OnTransportStream);
  if (o.simulate) ZFISDBT_DebugCMD(5, 1);
  const int32_t opened = ZFISDBT_OpenDevice();
  if (opened != 1) {
    // A half-open receiver (simulator or last allocation failed) is taken down by close.
    ZFISDBT_CloseDevice();
    if (opened == 2) {
      std::fprintf(stderr, "zfnisdbt receive: the device library found no device (open result 2)\n");
      zfn::tools::ExplainNoDevice(stderr);
    } else if (o.simulate) {
      std::fprintf(stderr,
                   "zfnisdbt receive: open failed: libZFNACCESS.so and libBDA_simu.so must both be found "
                   "(LD_LIBRARY_PATH), and the simulator must start\n");
    } else {
      std::fprintf(stderr,
                   "zfnisdbt receive: open failed: libZFNACCESS.so not found or incomplete, or the device "
                   "could not be programmed\n");
    }
    if (output != nullptr && output != stdout) {
      std::fclose(output);
      std::remove(o.outputPath.c_str());  // nothing was received: leave no empty file behind
    }
    return 1;
  }
  std::fprintf(report, "zfnisdbt receive: open (%s), tuning %d kHz\n", o.simulate ? "simulator" : "device",
               o.frequencyKHz);
  if (o.capture && ZFISDBT_DebugCMD(6, 1) != 1) {
    std::fprintf(stderr, "zfnisdbt receive: the capture could not start (is the current directory writable?)\n");
  }
  if (!o.probeDirectory.empty()) {
    // The bridge finds its directory in the environment; the command's result does not tell whether
    // the bridge loaded, so its own line on standard error is what reports a failure.
    setenv("ZFNISDBT_PROBE_DIR", o.probeDirectory.c_str(), 1);
    ZFISDBT_DebugCMD(1, 1);
  }
  if (ZFISDBT_SetFrequency(o.frequencyKHz) != 1) {
    std::fprintf(stderr, "zfnisdbt receive: tuning to %d kHz failed\n", o.frequencyKHz);
  }

  const auto start = std::chrono::steady_clock::now();
  int64_t reported = 0;
  while (stopRequested == 0 && !writeFailed.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int64_t elapsed =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    if (elapsed > reported) {
      reported = elapsed;
      ReportStatus(report, elapsed, o.memory);
    }
    if (o.seconds > 0 && elapsed >= o.seconds) break;
  }

  if (o.capture) ZFISDBT_DebugCMD(6, 0);
  if (!o.probeDirectory.empty()) ZFISDBT_DebugCMD(1, 2);
  ZFISDBT_CloseDevice();  // the packet thread has ended: no more writes after this
  int status = 0;
  if (writeFailed.load()) {
    std::fprintf(stderr, "zfnisdbt receive: writing the stream failed: %s\n", std::strerror(errno));
    status = 1;
  }
  if (output != nullptr) {
    if (std::fflush(output) != 0) status = 1;
    if (output != stdout && std::fclose(output) != 0) status = 1;
    output = nullptr;
  }
  std::fprintf(report, "zfnisdbt receive: closed, %lld bytes of transport stream%s\n",
               static_cast<long long>(bytesReceived.load()), stopRequested ? " (interrupted)" : "");
  return status;
}

const bool registered = zfn::tools::RegisterCommand(
    {"receive", "receive [--simulate] [--frequency KHZ] [--seconds N] [--output FILE|-] [--capture] [--probe DIR] [--memory]",
     RunReceive});

}  // namespace
