// zfnisdbt receive: a host of the receiver library, using nothing but its public interface (and
// reading the transport stream it receives for the names of its services). Opens the device (or
// the simulator), tunes, reports the status once a second, writes the stream through a writer
// thread of its own to a file, standard output or UDP, and closes cleanly after the given time or
// on SIGINT/SIGTERM.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "tools/channel_plan.h"
#include "tools/command_registry.h"
#include "tools/host_session.h"
#include "tools/process_memory.h"
#include "tools/stream_output.h"
#include "zfnisdbt.h"

namespace zfn::tools {
namespace {

volatile sig_atomic_t stopRequested = 0;
void OnStopSignal(int) { stopRequested = 1; }

StreamOutput* stream = nullptr;

// Runs on the library's packet thread: hands the packets to the writer thread and returns.
void OnTransportStream(const uint8_t* data, int32_t length) {
  if (data == nullptr || length <= 0 || stream == nullptr) return;
  stream->Push(data, static_cast<size_t>(length));
}

struct Options {
  SourceOptions source;
  int32_t frequencyKHz = 473143;  // UHF channel 13
  int32_t channel = 0;            // with the band: sets the frequency
  std::string band = "japan";
  int64_t seconds = 0;            // 0: until interrupted
  std::string outputPath;         // empty: none, "-": standard output
  std::string udp;                // HOST:PORT
  bool json = false;              // status as JSON lines
  bool capture = false;           // raw samples to BBStore0 in the current directory
  std::string probeDirectory;     // non-empty: pictures of the reception through the probe bridge
  bool memory = false;            // resident memory in the reports
};

const char SYNOPSIS[] =
    "receive [--simulate] [--channel N [--band japan|brazil] | --frequency KHZ] [--seconds N]\n"
    "                 [--output FILE|-] [--udp HOST:PORT] [--json] [--capture] [--probe DIR] [--memory]\n"
    "                 [--device ARGS] [--gain G] [--ppm P] [--as-designed]";

void Help(FILE* to) {
  std::fprintf(to,
               "usage: zfnisdbt %s\n"
               "Receives a channel and writes its transport stream; reports the reception once a second.\n"
               "  --channel N       UHF channel of the band (japan 13..62, brazil 14..69)\n"
               "  --band B          japan (default) or brazil (also the rest of South America)\n"
               "  --frequency KHZ   centre frequency of the one-segment service in kHz (default 473143,\n"
               "                    channel 13 of japan)\n"
               "  --seconds N       stop after N seconds (default: run until Ctrl-C)\n"
               "  --output FILE|-   write the transport stream to FILE, or to standard output (the reports\n"
               "                    then go to standard error)\n"
               "  --udp HOST:PORT   send the stream as UDP datagrams of 7 packets (1316 bytes)\n"
               "  --json            the once-a-second status as JSON lines, and a JSON summary at the end\n"
               "  --capture         record the raw samples to BBStore0 in the current directory (refused\n"
               "                    when that file exists)\n"
               "  --probe DIR       draw the reception into DIR/probe.png once a frame\n"
               "                    (through libISDBT_MatlabWrap.so)\n"
               "  --memory          report resident memory (VmRSS, peak VmHWM) before open and every second\n"
               "%s"
               "The stream goes through a buffer of %zu MB on a writer thread: a reader that falls further\n"
               "behind loses whole calls of 128 packets, counted as dropped in the status and summary.\n"
               "exit status: 0 received (also without lock), 1 open, tuning or writing failed, 2 usage\n",
               SYNOPSIS, SOURCE_OPTIONS_HELP, StreamOutput::RING_BYTES >> 20);
}

int Usage(const char* error) {
  std::fprintf(stderr, "zfnisdbt receive: %s\n", error);
  std::fprintf(stderr, "usage: zfnisdbt %s\n(zfnisdbt receive --help for more)\n", SYNOPSIS);
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

// 0 parsed, -1 help shown, otherwise the exit status of a usage error.
int ParseOptions(int argc, char** argv, Options* o) {
  bool frequencyGiven = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    int64_t v = 0;
    if (const int taken = ParseSourceOption("receive", argc, argv, &i, &o->source); taken != 0) {
      if (taken < 0) return 2;
    } else if (a == "--memory") {
      o->memory = true;
    } else if (a == "--json") {
      o->json = true;
    } else if (a == "--frequency") {
      if (!ParseInteger(next, 1, 3000000, &v)) return Usage("--frequency needs a frequency in kHz (1..3000000)");
      o->frequencyKHz = static_cast<int32_t>(v);
      frequencyGiven = true;
      ++i;
    } else if (a == "--channel") {
      if (!ParseInteger(next, 1, 200, &v)) return Usage("--channel needs a channel number");
      o->channel = static_cast<int32_t>(v);
      ++i;
    } else if (a == "--band") {
      if (next == nullptr || !FindBand(next)) return Usage("--band needs japan or brazil");
      o->band = next;
      ++i;
    } else if (a == "--seconds") {
      if (!ParseInteger(next, 1, 100000000, &v)) return Usage("--seconds needs a whole number of seconds, 1 or more");
      o->seconds = v;
      ++i;
    } else if (a == "--output") {
      if (next == nullptr || *next == '\0') return Usage("--output needs a file name or -");
      o->outputPath = next;
      ++i;
    } else if (a == "--udp") {
      if (next == nullptr || *next == '\0') return Usage("--udp needs HOST:PORT");
      o->udp = next;
      ++i;
    } else if (a == "--capture") {
      o->capture = true;
    } else if (a == "--probe") {
      if (next == nullptr || *next == '\0') return Usage("--probe needs a directory");
      o->probeDirectory = next;
      ++i;
    } else if (a == "--help" || a == "-h") {
      Help(stdout);
      return -1;
    } else {
      return Usage(("unknown option '" + a + "'").c_str());
    }
  }
  if (o->channel != 0) {
    if (frequencyGiven) return Usage("give --channel or --frequency, not both");
    const ChannelBand band = *FindBand(o->band);
    if (o->channel < band.first || o->channel > band.last) {
      char text[96];
      std::snprintf(text, sizeof text, "channel %d is not in the %s band (%d..%d)", o->channel, o->band.c_str(),
                    band.first, band.last);
      return Usage(text);
    }
    o->frequencyKHz = ChannelFrequencyKHz(band, o->channel);
  }
  return 0;
}

void ReportMemory(FILE* to) {
  std::fprintf(to, " rss=%lldkB peak=%lldkB", static_cast<long long>(ProcessMemoryKb("VmRSS")),
               static_cast<long long>(ProcessMemoryKb("VmHWM")));
}

// The first service's name, or the service ids when no name is known yet.
std::string ServicesText(const StreamServices& s) {
  std::string text;
  for (const ServiceInfo& v : s.services) {
    if (!text.empty()) text.append(",");
    if (v.name.empty()) {
      text.append("#").append(std::to_string(v.id));
    } else {
      text.append("\"").append(v.name).append("\"");
    }
  }
  return text;
}

std::string ServicesJson(const StreamServices& s) {
  std::string text = "[";
  for (const ServiceInfo& v : s.services) {
    if (text.size() > 1) text.append(",");
    text.append("{\"id\":").append(std::to_string(v.id)).append(",\"name\":");
    text.append(v.name.empty() ? std::string("null") : JsonString(v.name)).append("}");
  }
  return text + "]";
}

void ReportStatus(FILE* to, int64_t second, const Options& o) {
  const ReceiverStatus s = ReadReceiverStatus();
  const StreamServices services = stream->Services().Snapshot();
  const long long packets = stream->BytesReceived() / 188, dropped = stream->PacketsDropped();
  if (o.json) {
    std::fprintf(to, "{\"seconds\":%lld,\"frequency_khz\":%d,\"present\":%s,\"lock\":%s,\"quality\":%d",
                 static_cast<long long>(second), o.frequencyKHz,
                 s.present < 0 ? "null" : s.present ? "true" : "false", s.lock < 0 ? "null" : s.lock ? "true" : "false",
                 s.quality);
    PrintBroadcastJson(to, s);
    std::fprintf(to, ",\"packets\":%lld,\"dropped\":%lld,\"network\":%s,\"services\":%s", packets, dropped,
                 services.networkName.empty() ? "null" : JsonString(services.networkName).c_str(),
                 ServicesJson(services).c_str());
    if (o.memory) {
      std::fprintf(to, ",\"rss_kb\":%lld,\"peak_kb\":%lld", static_cast<long long>(ProcessMemoryKb("VmRSS")),
                   static_cast<long long>(ProcessMemoryKb("VmHWM")));
    }
    std::fprintf(to, "}\n");
  } else {
    const char* const yesNo[] = {"not-sure", "no", "yes"};
    std::fprintf(to, "[%4llds] present=%s lock=%s quality=%d", static_cast<long long>(second), yesNo[s.present + 1],
                 yesNo[s.lock + 1], s.quality);
    PrintBroadcastText(to, s);
    std::fprintf(to, " packets=%lld", packets);
    if (dropped != 0) std::fprintf(to, " dropped=%lld", dropped);
    if (!services.services.empty()) std::fprintf(to, " services=%s", ServicesText(services).c_str());
    if (o.memory) ReportMemory(to);
    std::fprintf(to, "\n");
  }
  std::fflush(to);
}

int Run(int argc, char** argv) {
  Options o;
  if (const int status = ParseOptions(argc, argv, &o); status != 0) return status < 0 ? 0 : status;

  // The library's capture writes BBStore0 in the current directory of a fresh process and
  // replaces what is there.
  if (o.capture && access("BBStore0", F_OK) == 0) {
    std::fprintf(stderr,
                 "zfnisdbt receive: BBStore0 exists in the current directory and the capture would replace "
                 "it; move it away or run from another directory\n");
    return 1;
  }

  FILE* report = stdout;
  int fd = -1;
  if (o.outputPath == "-") {
    fd = STDOUT_FILENO;
    report = stderr;  // the stream owns standard output
  } else if (!o.outputPath.empty()) {
    fd = open(o.outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
      std::fprintf(stderr, "zfnisdbt receive: cannot write '%s': %s\n", o.outputPath.c_str(), std::strerror(errno));
      return 1;
    }
  }
  auto closeOutput = [&](bool removeIt) {
    if (fd >= 0 && fd != STDOUT_FILENO) {
      close(fd);
      if (removeIt) std::remove(o.outputPath.c_str());  // nothing was received: leave no empty file behind
    }
    fd = -1;
  };

  StreamOutput output;
  std::string error;
  if (!output.Start(fd, o.udp, &error)) {
    std::fprintf(stderr, "zfnisdbt receive: %s\n", error.c_str());
    closeOutput(true);
    return 1;
  }
  stream = &output;

  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a reader that goes away is a write error, reported as such

  if (o.memory) {
    std::fprintf(report, "zfnisdbt receive: before open:");
    ReportMemory(report);
    std::fprintf(report, "\n");
  }
  ZFISDBT_SetTSCallBack(OnTransportStream);
  // With ZFNISDBT_SIM_CHANNELS the simulator broadcasts on some frequencies only, and learns the
  // tuned one from the device library: the tuning path of simulation mode 2.
  const bool tunedSimulation = std::getenv("ZFNISDBT_SIM_CHANNELS") != nullptr;
  if (!OpenReceiver("receive", o.source, tunedSimulation)) {
    output.Finish();
    stream = nullptr;
    closeOutput(true);
    return 1;
  }
  std::fprintf(report, "zfnisdbt receive: open (%s), tuning %d kHz", o.source.simulate ? "simulator" : "device",
               o.frequencyKHz);
  if (o.channel != 0) std::fprintf(report, " (channel %d, %s)", o.channel, o.band.c_str());
  std::fprintf(report, "\n");
  if (o.capture && ZFISDBT_DebugCMD(6, 1) != 1) {
    std::fprintf(stderr, "zfnisdbt receive: the capture could not start (is the current directory writable?)\n");
  }
  if (!o.probeDirectory.empty()) {
    // The bridge finds its directory in the environment; the command's result does not tell whether
    // the bridge loaded, so its own line on standard error is what reports a failure.
    setenv("ZFNISDBT_PROBE_DIR", o.probeDirectory.c_str(), 1);
    // The command succeeds whether or not the bridge loaded; a bridge that cannot be loaded at all
    // is named here, or no picture would come and nothing would say why.
    if (NameUnloadableLibrary("receive", "libISDBT_MatlabWrap.so")) {
      ZFISDBT_DebugCMD(1, 1);
    } else {
      std::fprintf(stderr, "zfnisdbt receive: --probe draws nothing without the plotting bridge\n");
    }
  }
  int status = 0;
  if (ZFISDBT_SetFrequency(o.frequencyKHz) != 1) {
    std::fprintf(stderr, "zfnisdbt receive: tuning to %d kHz failed\n", o.frequencyKHz);
    status = 1;
  }

  const auto start = std::chrono::steady_clock::now();
  int64_t reported = 0;
  while (status == 0 && stopRequested == 0 && output.WriteError() == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int64_t elapsed =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    if (elapsed > reported) {
      reported = elapsed;
      ReportStatus(report, elapsed, o);
    }
    if (o.seconds > 0 && elapsed >= o.seconds) break;
  }

  const ReceiverStatus last = ReadReceiverStatus();
  if (o.capture) {
    ZFISDBT_DebugCMD(6, 0);
    // With the refinements the library ends a capture at its last whole block when the disk falls
    // behind or refuses a write, and says so here; the file never has a hole.
    const int32_t whole = ZFISDBT_DebugCMD(6, 2);
    if (whole != 1) {
      std::fprintf(stderr, "zfnisdbt receive: the capture is incomplete: %s; BBStore0 ends at the last whole block\n",
                   whole == 0 ? "the disk did not keep up and blocks were lost" : "writing it failed");
      status = 1;
    }
  }
  if (!o.probeDirectory.empty()) ZFISDBT_DebugCMD(1, 2);
  ZFISDBT_CloseDevice();  // the packet thread has ended: nothing more comes in
  output.Finish();        // what the ring holds is written out
  stream = nullptr;

  if (const int e = output.WriteError(); e != 0) {
    std::fprintf(stderr, "zfnisdbt receive: writing the stream failed: %s\n", std::strerror(e));
    status = 1;
  }
  if (fd >= 0 && fd != STDOUT_FILENO && close(fd) != 0 && status == 0) {
    std::fprintf(stderr, "zfnisdbt receive: closing '%s' failed: %s\n", o.outputPath.c_str(), std::strerror(errno));
    status = 1;
  }
  fd = -1;
  if (const int e = output.SendError(); e != 0) {
    std::fprintf(stderr, "zfnisdbt receive: sending to %s failed: %s\n", o.udp.c_str(), std::strerror(e));
  }
  const StreamServices services = output.Services().Snapshot();
  const long long packets = output.BytesReceived() / 188, dropped = output.PacketsDropped();
  std::fprintf(report, "zfnisdbt receive: closed, %lld packets received, %lld written, %lld dropped", packets,
               static_cast<long long>(output.BytesWritten() / 188), dropped);
  if (last.overruns != 0) std::fprintf(report, ", %d overruns in the library", last.overruns);
  if (!services.services.empty()) std::fprintf(report, "; services %s", ServicesText(services).c_str());
  std::fprintf(report, "%s\n", stopRequested ? " (interrupted)" : "");
  if (o.json) {
    std::fprintf(report, "{\"summary\":true,\"frequency_khz\":%d,\"packets\":%lld,\"written\":%lld,\"dropped\":%lld,"
                 "\"overruns\":%d,\"interrupted\":%s,\"network\":%s,\"services\":%s}\n",
                 o.frequencyKHz, packets, static_cast<long long>(output.BytesWritten() / 188), dropped, last.overruns,
                 stopRequested ? "true" : "false",
                 services.networkName.empty() ? "null" : JsonString(services.networkName).c_str(),
                 ServicesJson(services).c_str());
  }
  std::fflush(report);
  return status;
}

const bool registered = RegisterCommand({"receive",
                                         "receive [--simulate] [--channel N [--band B] | --frequency KHZ] [--seconds N] "
                                         "[--output FILE|-] [--udp HOST:PORT] [--json] ...",
                                         Run});

}  // namespace
}  // namespace zfn::tools
