// zfnisdbt decode: offline decoding of a capture (the device byte stream that capture files and
// `zfnisdbt generate` write) through the synchronous driver, as fast as the processor goes. A capture
// file is mapped four blocks at a time and the engine converts each block where it lies in the page
// cache; standard input and SDR recordings are read in chunks. A summary goes to standard error, and
// with --json one JSON object to the last line of standard output (of standard error when the stream
// itself goes to standard output).
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "frontend/conditioning.h"
#include "shell/shell_fields.h"
#include "tools/command_registry.h"
#include "tools/offline_decoder.h"
#include "tools/process_memory.h"

namespace zfn::tools {
namespace {

// One block per read: the kernel's copy lands in a buffer that is still in the cache from the last
// block, and the engine converts the block from there. Reads of several blocks at once cost the copy
// twice over, into memory that the engine's own work has pushed out of the cache in between.
constexpr size_t READ_CHUNK = static_cast<size_t>(RAW_BLOCK_BYTES);

// A capture file is mapped this many blocks at a time: 4 blocks are a whole number of 4 KiB pages,
// so every window starts on a page and on a block edge. Mapping takes the kernel's copy out of the
// path (the engine converts the block where it lies in the page cache). Each mapping has a fixed
// cost of its own, which 4 blocks share; the mapped part of the file counts as resident, so the
// window stays small (0.9 MiB).
constexpr size_t MAP_WINDOW = 4 * static_cast<size_t>(RAW_BLOCK_BYTES);

struct Options {
  std::string input;
  std::string output;  // empty: discard, "-": standard output
  bool json = false;
  bool asDesigned = false;  // the designed behaviour instead of the refinements
  bool sdr = false;  // --front-end sdr: unsigned 8-bit I/Q of a generic SDR, conditioned first
};

volatile sig_atomic_t stopRequested = 0;
void OnStopSignal(int) { stopRequested = 1; }

// A capture cut short while it is mapped (another program truncates it) makes the pages past its new
// end fault with SIGBUS. The handler puts a zero page in place of the one that faulted, so the engine
// reads zeros instead of dying, and marks the input as changed: the loop stops after the window.
volatile sig_atomic_t inputShrank = 0;
size_t pageBytes = 4096;
void OnInputFault(int, siginfo_t* info, void*) {
  const uintptr_t page = reinterpret_cast<uintptr_t>(info->si_addr) & ~(static_cast<uintptr_t>(pageBytes) - 1);
  if (mmap(reinterpret_cast<void*>(page), pageBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) ==
      MAP_FAILED) {
    signal(SIGBUS, SIG_DFL);  // nothing to put there: the fault repeats and ends the process
  }
  inputShrank = 1;
}

// Usage to standard error with the error, or the help to standard output without one.
int Usage(const char* error) {
  if (error != nullptr) std::fprintf(stderr, "zfnisdbt decode: %s\n", error);
  std::fprintf(error != nullptr ? stderr : stdout,
               "usage: zfnisdbt decode INPUT [--front-end device|sdr] [--output FILE|-] [--json] [--as-designed]\n"
               "  INPUT            capture file (device byte stream, 240640-byte blocks), or - for standard input\n"
               "  --front-end sdr  INPUT is a generic SDR's recording: unsigned 8-bit I/Q at 2031746 samples/s,\n"
               "                   centred on the channel; it is conditioned as the device library does\n"
               "                   (default device: the design device's stream)\n"
               "  --output FILE|-  write the transport stream to FILE, or to standard output\n"
               "  --json           print the statistics as one JSON object on the last line of standard\n"
               "                   output (of standard error when --output is -)\n"
               "  --as-designed    the designed tracking and lock judgement, without the refinements\n"
               "The speed is signal seconds over the process's processor time (user and system) from the first\n"
               "read to the last block, reading and writing included.\n"
               "Ctrl-C stops after the current chunk: the stream keeps whole packets and the summary is printed.\n"
               "exit status: 0 decoded (also when interrupted), 1 input or output failed, 2 usage\n");
  return 2;
}

struct OutputFile {
  FILE* file = nullptr;
  bool failed = false;
  int error = 0;
};

void WriteStream(const uint8_t* data, int32_t length, void* context) {
  auto* out = static_cast<OutputFile*>(context);
  if (out->file == nullptr || out->failed) return;
  if (std::fwrite(data, 1, static_cast<size_t>(length), out->file) != static_cast<size_t>(length)) {
    out->failed = true;
    out->error = errno;
  }
}

double CpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Reads up to length bytes, retrying short reads; -1 on error.
ssize_t ReadFull(int fd, uint8_t* buffer, size_t length) {
  size_t got = 0;
  while (got < length) {
    const ssize_t n = read(fd, buffer + got, length - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

struct MemoryKb {
  int64_t beforeOpen = -1;  // VmRSS with the read buffer taken, before the engine is built
  int64_t atEnd = -1;       // VmRSS after the last block, the engine still open
  int64_t peak = -1;        // VmHWM then
};

void PrintJson(FILE* to, const OfflineDecodeStats& s, double signalSeconds, double cpuSeconds, int64_t trailing,
               const MemoryKb& memory, bool refined) {
  const bool tracked = s.firstTrackingBlock >= 0;
  std::fprintf(to, "{\"signal_seconds\":%.6f,\"cpu_seconds\":%.6f,\"realtime_factor\":%.3f,", signalSeconds, cpuSeconds,
               cpuSeconds > 0 ? signalSeconds / cpuSeconds : 0.0);
  std::fprintf(to, "\"blocks\":%lld,\"trailing_bytes\":%lld,\"packets\":%lld,", static_cast<long long>(s.blocks),
               static_cast<long long>(trailing), static_cast<long long>(s.packetsDelivered));
  std::fprintf(to, "\"rs_ok\":%lld,\"rs_corrected\":%lld,\"rs_failed\":%lld,", static_cast<long long>(s.all.ok),
               static_cast<long long>(s.all.corrected), static_cast<long long>(s.all.failed));
  std::fprintf(to, "\"rs_failed_streaming\":%lld,\"tracking_losses\":%d,", static_cast<long long>(s.streaming.failed),
               s.trackingLosses);
  std::fprintf(to, "\"resync_low_snr\":%d,\"resync_early\":%d,\"resync_stream\":%d,\"frame_sync_restarts\":%d,",
               s.resyncLowSnr, s.resyncEarlyFail, s.resyncStreamFail, s.tmccFailures);
  if (tracked) {
    std::fprintf(to, "\"first_tracking_seconds\":%.3f,", static_cast<double>(s.firstTrackingBlock + 1) * BlockSeconds());
  } else {
    std::fprintf(to, "\"first_tracking_seconds\":null,");
  }
  std::fprintf(to, "\"rss_before_open_kb\":%lld,\"rss_end_kb\":%lld,\"rss_peak_kb\":%lld,",
               static_cast<long long>(memory.beforeOpen), static_cast<long long>(memory.atEnd),
               static_cast<long long>(memory.peak));
  std::fprintf(to, "\"final_state\":\"%s\",\"behaviour\":\"%s\",", BlockStateWord(s.finalState),
               refined ? "refined" : "designed");
  if (tracked) {
    std::fprintf(to, "\"mode\":%d,\"guard\":\"%s\",\"modulation\":\"%s\",\"code_rate\":\"%s\",\"interleave\":%d,",
                 s.mode, GuardName(s.guard), ModulationName(s.modulation), CodeRateName(s.codeRate), s.interleave);
    // JSON has no NaN or infinity: a value that is not a number is null.
    if (std::isfinite(s.snrDb)) {
      std::fprintf(to, "\"snr_db\":%.2f}\n", static_cast<double>(s.snrDb));
    } else {
      std::fprintf(to, "\"snr_db\":null}\n");
    }
  } else {
    std::fprintf(to, "\"mode\":null,\"guard\":null,\"modulation\":null,\"code_rate\":null,\"interleave\":null,\"snr_db\":null}\n");
  }
  std::fflush(to);
}

int Run(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      Usage(nullptr);
      return 0;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--as-designed") {
      o.asDesigned = true;
    } else if (a == "--front-end") {
      const std::string v = i + 1 < argc ? argv[i + 1] : "";
      if (v != "sdr" && v != "device") return Usage("--front-end needs device or sdr");
      o.sdr = v == "sdr";
      ++i;
    } else if (a == "--output") {
      if (i + 1 >= argc || argv[i + 1][0] == '\0') return Usage("--output needs a file name or -");
      o.output = argv[++i];
    } else if (a.size() > 1 && a[0] == '-') {
      return Usage(("unknown option '" + a + "'").c_str());
    } else if (o.input.empty()) {
      o.input = a;
    } else {
      return Usage("only one input file");
    }
  }
  if (o.input.empty()) return Usage("no input file");

  // The input: a regular file is checked for its length first; standard input is taken as it comes.
  const bool fromStdin = o.input == "-";
  const char* name = fromStdin ? "standard input" : o.input.c_str();
  int fd = STDIN_FILENO;
  int64_t expectedBytes = -1;
  struct stat inputStat {};
  if (!fromStdin) {
    fd = open(o.input.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      std::fprintf(stderr, "zfnisdbt decode: cannot open '%s': %s\n", name, std::strerror(errno));
      return 1;
    }
    struct stat& st = inputStat;
    if (fstat(fd, &st) != 0) {
      std::fprintf(stderr, "zfnisdbt decode: cannot read '%s': %s\n", name, std::strerror(errno));
      close(fd);
      return 1;
    }
    if (S_ISDIR(st.st_mode)) {
      std::fprintf(stderr, "zfnisdbt decode: '%s' is a directory, not a capture file\n", name);
      close(fd);
      return 1;
    }
    if (S_ISREG(st.st_mode)) {
      expectedBytes = st.st_size;
      if (expectedBytes == 0) {
        std::fprintf(stderr, "zfnisdbt decode: '%s' is empty\n", name);
        close(fd);
        return 1;
      }
      if (expectedBytes < RAW_BLOCK_BYTES) {
        std::fprintf(stderr, "zfnisdbt decode: '%s' is truncated: %lld bytes, less than one block of %d bytes\n", name,
                     static_cast<long long>(expectedBytes), RAW_BLOCK_BYTES);
        close(fd);
        return 1;
      }
    }
  }

  OutputFile out;
  FILE* report = stdout;
  if (o.output == "-") {
    out.file = stdout;
    report = stderr;  // the stream owns standard output
  } else if (!o.output.empty()) {
    // Opening the output truncates it: it must not be the capture being read.
    struct stat outputStat {};
    if (!fromStdin && stat(o.output.c_str(), &outputStat) == 0 && outputStat.st_dev == inputStat.st_dev &&
        outputStat.st_ino == inputStat.st_ino) {
      std::fprintf(stderr, "zfnisdbt decode: the output '%s' is the input itself; it would be overwritten\n",
                   o.output.c_str());
      close(fd);
      return 1;
    }
    out.file = std::fopen(o.output.c_str(), "wb");
    if (out.file == nullptr) {
      std::fprintf(stderr, "zfnisdbt decode: cannot write '%s': %s\n", o.output.c_str(), std::strerror(errno));
      if (fd != STDIN_FILENO) close(fd);
      return 1;
    }
  }

  std::vector<uint8_t> chunk(READ_CHUNK);
  std::memset(chunk.data(), 0, chunk.size());  // resident before the baseline is taken
  MemoryKb memory;
  memory.beforeOpen = ProcessMemoryKb("VmRSS");

  // The engine reads the switch of the refinements when the driver opens.
  setenv("ZFNISDBT_REFINED", o.asDesigned ? "0" : "1", 1);

  // A generic SDR's recording goes through the device library's conditioning first: same byte
  // count out as in (two bytes per device sample), whole groups of four.
  std::unique_ptr<SdrConditioner> conditioner;
  std::vector<uint8_t> conditioned;
  size_t carried = 0;  // a byte of an I/Q pair cut by the chunk boundary waits in front of the chunk
  if (o.sdr) {
    conditioner = std::make_unique<SdrConditioner>();
    SdrConditionerReset(*conditioner);
    conditioned.resize(chunk.size() + 4);
  }

  OfflineDecoder decoder;
  if (!decoder.Open(&WriteStream, &out)) {
    std::fprintf(stderr, "zfnisdbt decode: the engine could not be built (memory, or already in use)\n");
    if (fd != STDIN_FILENO) close(fd);
    if (out.file != nullptr && out.file != stdout) {
      std::fclose(out.file);
      std::remove(o.output.c_str());
    }
    return 1;
  }

  int64_t bytesRead = 0;
  bool readFailed = false;
  int readError = 0;
  const double cpuStart = CpuSeconds();
  // A stop signal ends the loop between chunks; reads and writes are restarted, not cut short.
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // A regular capture of the device stream is mapped window by window; whatever cannot be mapped is
  // read instead, from where the mapping stopped.
  bool mapped = expectedBytes > 0 && !o.sdr;
  pageBytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (mapped && (pageBytes == 0 || MAP_WINDOW % pageBytes != 0)) mapped = false;
  if (mapped) {
    struct sigaction fault {};
    fault.sa_sigaction = OnInputFault;
    fault.sa_flags = SA_SIGINFO;
    sigemptyset(&fault.sa_mask);
    sigaction(SIGBUS, &fault, nullptr);
  }
  while (mapped && !out.failed && stopRequested == 0 && inputShrank == 0 && bytesRead < expectedBytes) {
    const size_t length =
        static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(MAP_WINDOW), expectedBytes - bytesRead));
    void* window = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, static_cast<off_t>(bytesRead));
    if (window == MAP_FAILED) break;
    decoder.Feed(static_cast<const uint8_t*>(window), length);
    munmap(window, length);
    if (inputShrank == 0) bytesRead += static_cast<int64_t>(length);
  }
  if (mapped) {
    signal(SIGBUS, SIG_DFL);
    if (inputShrank == 0 && lseek(fd, static_cast<off_t>(bytesRead), SEEK_SET) != static_cast<off_t>(bytesRead)) {
      readFailed = true;
      readError = errno;
    }
  }
  while (!readFailed && inputShrank == 0 && !out.failed && stopRequested == 0) {
    const ssize_t n = ReadFull(fd, chunk.data() + carried, chunk.size() - carried);
    if (n < 0) {
      readFailed = true;
      readError = errno;
      break;
    }
    if (n == 0) break;
    bytesRead += n;
    if (!o.sdr) {
      decoder.Feed(chunk.data(), static_cast<size_t>(n));
      continue;
    }
    const size_t have = carried + static_cast<size_t>(n);
    const size_t bytes = SdrConditionU8(*conditioner, chunk.data(), have / 2, conditioned.data());
    decoder.Feed(conditioned.data(), bytes);
    carried = have % 2;
    if (carried != 0) chunk[0] = chunk[have - 1];
  }
  const double cpuSeconds = CpuSeconds() - cpuStart;
  const int64_t trailing = static_cast<int64_t>(decoder.PendingBytes());
  memory.atEnd = ProcessMemoryKb("VmRSS");
  memory.peak = ProcessMemoryKb("VmHWM");
  decoder.Close();
  if (fd != STDIN_FILENO) close(fd);

  int status = 0;
  if (out.file != nullptr) {
    if (std::fflush(out.file) != 0 && !out.failed) {
      out.failed = true;
      out.error = errno;
    }
    if (out.file != stdout && std::fclose(out.file) != 0 && !out.failed) {
      out.failed = true;
      out.error = errno;
    }
  }
  if (out.failed) {
    std::fprintf(stderr, "zfnisdbt decode: writing the stream failed: %s\n", std::strerror(out.error));
    status = 1;
  }
  if (readFailed) {
    std::fprintf(stderr, "zfnisdbt decode: reading '%s' failed after %lld bytes: %s\n", name,
                 static_cast<long long>(bytesRead), std::strerror(readError));
    status = 1;
  }
  if (stopRequested != 0) {
    std::fprintf(stderr, "zfnisdbt decode: interrupted after %lld bytes\n", static_cast<long long>(bytesRead));
  } else if (inputShrank != 0) {
    std::fprintf(stderr, "zfnisdbt decode: '%s' was cut short while it was read (%lld bytes expected)\n", name,
                 static_cast<long long>(expectedBytes));
  } else if (expectedBytes >= 0 && !readFailed && !out.failed && bytesRead != expectedBytes) {
    std::fprintf(stderr, "zfnisdbt decode: '%s' changed while it was read (%lld bytes expected, %lld read)\n", name,
                 static_cast<long long>(expectedBytes), static_cast<long long>(bytesRead));
  }

  const OfflineDecodeStats& s = decoder.Stats();
  if (s.blocks == 0 && !readFailed) {
    // Only standard input gets here: a file is checked for its length before decoding.
    if (bytesRead == 0) {
      std::fprintf(stderr, "zfnisdbt decode: '%s' is empty\n", name);
    } else {
      std::fprintf(stderr, "zfnisdbt decode: '%s' is truncated: %lld bytes, less than one block of %d bytes\n", name,
                   static_cast<long long>(bytesRead), RAW_BLOCK_BYTES);
    }
    if (!o.output.empty() && o.output != "-") std::remove(o.output.c_str());  // nothing was decoded into it
    return 1;
  }
  const double signalSeconds = static_cast<double>(s.blocks) * BlockSeconds();
  if (trailing != 0) {
    std::fprintf(stderr, "zfnisdbt decode: the last %lld bytes are not a whole block of %d bytes and were not decoded\n",
                 static_cast<long long>(trailing), RAW_BLOCK_BYTES);
  }
  std::fprintf(stderr, "zfnisdbt decode: %lld blocks, %.2f s of signal in %.2f s of processor time (%.1f x real time)\n",
               static_cast<long long>(s.blocks), signalSeconds, cpuSeconds,
               cpuSeconds > 0 ? signalSeconds / cpuSeconds : 0.0);
  if (s.firstTrackingBlock >= 0) {
    std::fprintf(stderr, "zfnisdbt decode: Mode %d, guard %s, %s %s, interleave index %d, SNR %.1f dB, state %s\n", s.mode,
                 GuardName(s.guard), ModulationName(s.modulation), CodeRateName(s.codeRate), s.interleave,
                 static_cast<double>(s.snrDb), BlockStateWord(s.finalState));
  } else {
    std::fprintf(stderr, "zfnisdbt decode: no lock: the engine never reached tracking (state %s)\n",
                 BlockStateWord(s.finalState));
  }
  std::fprintf(stderr, "zfnisdbt decode: %lld packets delivered; Reed-Solomon %lld clean, %lld corrected, %lld failed\n",
               static_cast<long long>(s.packetsDelivered), static_cast<long long>(s.all.ok),
               static_cast<long long>(s.all.corrected), static_cast<long long>(s.all.failed));
  if (o.json) PrintJson(report, s, signalSeconds, cpuSeconds, trailing, memory, !o.asDesigned);
  return status;
}

const bool registered =
    RegisterCommand({"decode", "decode INPUT [--front-end device|sdr] [--output FILE|-] [--json] [--as-designed]", Run});

}  // namespace
}  // namespace zfn::tools
