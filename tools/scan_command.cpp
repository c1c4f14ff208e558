// zfnisdbt scan: tunes every channel of a band through the public library and lists the ones that
// carry a broadcast, with its parameters and the services named in its PSI/SI. A channel counts as
// found only when its PAT and SDT have been received: a receiver that locks on noise for a moment
// does not make a channel. Empty channels are left as soon as acquisition has had its time.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tools/channel_plan.h"
#include "tools/command_registry.h"
#include "tools/host_session.h"
#include "tools/ts_services.h"
#include "zfnisdbt.h"

namespace zfn::tools {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Detection, coarse sync and up to five blocks of frame sync take at most seven blocks of 59 ms;
// a channel that has not reached tracking within this after acquisition began holds nothing
// receivable.
constexpr milliseconds ACQUISITION_BUDGET{900};
// From the start of tracking until PAT and SDT are in: the time deinterleaver's delay (up to
// about 0.5 s), one delivery of 128 packets and the SDT's repetition (at most 2 s on air).
constexpr milliseconds PSI_BUDGET{4000};
// After PAT and SDT: a little longer for the PMTs and the NIT, which repeats more slowly.
constexpr milliseconds TABLES_GRACE{500};
constexpr milliseconds POLL{25};

volatile sig_atomic_t stopRequested = 0;
void OnStopSignal(int) { stopRequested = 1; }

// The packet thread parses the PSI itself (the scan writes no stream). A new tune bumps the epoch;
// the packet thread then starts the reader afresh before it takes the next packets.
// readerEpoch tells which epoch the reader's contents belong to.
TsServiceReader* reader = nullptr;
std::atomic<int32_t> epoch{0}, readerEpoch{0};

void OnTransportStream(const uint8_t* data, int32_t length) {
  if (data == nullptr || length <= 0 || reader == nullptr) return;
  const int32_t now = epoch.load(std::memory_order_acquire);
  if (now != readerEpoch.load(std::memory_order_relaxed)) {
    reader->Reset();
    readerEpoch.store(now, std::memory_order_release);
  }
  reader->Push(data, static_cast<size_t>(length));
}

struct Options {
  SourceOptions source;
  std::string band = "japan";
  int32_t first = 0, last = 0;  // 0: the whole band
  bool json = false;
};

const char SYNOPSIS[] = "scan [--simulate] [--band japan|brazil] [--channels FIRST-LAST] [--json] [--device ARGS] ...";

void Help(FILE* to) {
  std::fprintf(to,
               "usage: zfnisdbt scan [--simulate] [--band japan|brazil] [--channels FIRST-LAST] [--json]\n"
               "                     [--device ARGS] [--gain G] [--ppm P] [--as-designed]\n"
               "Tunes every channel of the band and lists those that carry a one-segment broadcast: frequency,\n"
               "channel, mode and guard, layer parameters, signal quality, SNR, the network name and the\n"
               "services (id and name), read from the received stream's PAT, PMT, SDT and NIT.\n"
               "Progress goes to standard error.\n"
               "  --band B              japan (UHF 13..62, default) or brazil (UHF 14..69, also the rest of\n"
               "                        South America)\n"
               "  --channels FIRST-LAST only these channels of the band (or one: --channels N)\n"
               "  --json                one JSON object on the last line of standard output:\n"
               "                        {\"band\":..,\"channels\":[{\"frequency_khz\":..,\"channel\":..,\n"
               "                        \"service_name\":..,\"services\":[..],..}]}\n"
               "%s"
               "In simulation, ZFNISDBT_SIM_CHANNELS=KHZ[,KHZ...] puts the broadcast on those frequencies only.\n"
               "exit status: 0 scanned (also when nothing was found), 1 open failed, 2 usage\n",
               SOURCE_OPTIONS_HELP);
}

int Usage(const char* error) {
  std::fprintf(stderr, "zfnisdbt scan: %s\nusage: zfnisdbt %s\n(zfnisdbt scan --help for more)\n", error, SYNOPSIS);
  return 2;
}

int ParseOptions(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    if (const int taken = ParseSourceOption("scan", argc, argv, &i, &o->source); taken != 0) {
      if (taken < 0) return 2;
    } else if (a == "--json") {
      o->json = true;
    } else if (a == "--band") {
      if (next == nullptr || !FindBand(next)) return Usage("--band needs japan or brazil");
      o->band = next;
      ++i;
    } else if (a == "--channels") {
      int first = 0, last = 0, used = 0;
      if (next == nullptr) return Usage("--channels needs FIRST-LAST");
      if (std::sscanf(next, "%d-%d%n", &first, &last, &used) == 2 && next[used] == '\0') {
      } else if (std::sscanf(next, "%d%n", &first, &used) == 1 && next[used] == '\0') {
        last = first;
      } else {
        return Usage("--channels needs FIRST-LAST or one channel number");
      }
      o->first = first;
      o->last = last;
      ++i;
    } else if (a == "--help" || a == "-h") {
      Help(stdout);
      return -1;
    } else {
      return Usage(("unknown option '" + a + "'").c_str());
    }
  }
  const ChannelBand band = *FindBand(o->band);
  if (o->first == 0) {
    o->first = band.first;
    o->last = band.last;
  }
  if (o->first < band.first || o->last > band.last || o->first > o->last) {
    char text[96];
    std::snprintf(text, sizeof text, "--channels %d-%d is not within the %s band (%d..%d)", o->first, o->last,
                  o->band.c_str(), band.first, band.last);
    return Usage(text);
  }
  return 0;
}

struct Found {
  int32_t channel = 0, frequencyKHz = 0;
  ReceiverStatus status;
  StreamServices services;
};

// Tunes one channel and waits no longer than it takes to know. True with *found filled when the
// channel carries a broadcast whose PAT and SDT came in.
bool ScanChannel(int32_t frequencyKHz, Found* found) {
  if (ZFISDBT_SetFrequency(frequencyKHz) != 1) return false;
  const Clock::time_point tuned = Clock::now();
  Clock::time_point acquisitionSince{}, trackingSince{}, lastTracking{}, tablesSince{};
  bool acquiring = false, tracking = false, tables = false;
  for (;;) {
    std::this_thread::sleep_for(POLL);
    if (stopRequested != 0) return false;
    const Clock::time_point now = Clock::now();
    const ReceiverStatus s = ReadReceiverStatus();
    if (s.present == 0 && s.state == -2) return false;  // a clean TMCC word of a signal we cannot take
    if (s.state == 3 && !tracking) {
      // Packets delivered from here on come from this tune: the retune has emptied the
      // receiver's packet path before acquisition could reach tracking again.
      epoch.fetch_add(1, std::memory_order_release);
      tracking = true;
      trackingSince = lastTracking = now;
    }
    if (!tracking) {
      // The budget counts from the first block handled after the tune (a busy machine may
      // take a while to get there), and never more than a few budgets from the tune.
      if (s.state != -1 && !acquiring) {
        acquiring = true;
        acquisitionSince = now;
      }
      if ((acquiring && now - acquisitionSince > ACQUISITION_BUDGET) || now - tuned > 4 * ACQUISITION_BUDGET) return false;
      continue;
    }
    // What the reader holds counts once it has started afresh for this epoch.
    const bool fresh = readerEpoch.load(std::memory_order_acquire) == epoch.load(std::memory_order_relaxed);
    const StreamServices services = fresh ? reader->Snapshot() : StreamServices{};
    const bool complete = services.havePat && services.haveSdt;
    if (complete && !tables) {
      tables = true;
      tablesSince = now;
    }
    if (tables) {
      bool allPmts = true;
      for (const ServiceInfo& v : services.services) allPmts = allPmts && !v.streamTypes.empty();
      if ((allPmts && services.haveNit) || now - tablesSince > TABLES_GRACE) {
        found->frequencyKHz = frequencyKHz;
        found->status = s;
        found->services = services;
        return true;
      }
      continue;
    }
    if (now - trackingSince > PSI_BUDGET) return false;
    // Tracking that was lost and not found again within an acquisition's time was a moment of
    // lock on noise.
    if (s.state == 3) lastTracking = now;
    else if (now - lastTracking > ACQUISITION_BUDGET) return false;
  }
}

void PrintFound(const Found& f) {
  const ReceiverStatus& s = f.status;
  std::printf("channel %d  %d kHz  Mode %d %s", f.channel, f.frequencyKHz, s.mode, GuardText(s.guard));
  if (s.layerKnown) {
    std::printf("  %s %s I=%d", ModulationText(s.modulation), CodeRateText(s.codeRate),
                InterleaveLength(s.mode, s.interleave));
  }
  std::printf("  quality %d  SNR %.1f dB\n", s.quality, static_cast<double>(s.snrDb));
  std::printf("  network: %s  transport stream id %d\n",
              f.services.networkName.empty() ? "(no NIT)" : f.services.networkName.c_str(),
              f.services.transportStreamId);
  for (const ServiceInfo& v : f.services.services) {
    std::printf("  service %d: \"%s\"", v.id, v.name.c_str());
    if (!v.provider.empty()) std::printf(" from \"%s\"", v.provider.c_str());
    std::printf(" (PMT PID %d, stream types", v.pmtPid);
    for (int32_t t : v.streamTypes) std::printf(" 0x%02x", t);
    std::printf(")\n");
  }
}

void PrintJson(const std::string& band, const std::vector<Found>& all) {
  std::printf("{\"band\":\"%s\",\"channels\":[", band.c_str());
  for (size_t k = 0; k < all.size(); ++k) {
    const Found& f = all[k];
    const ReceiverStatus& s = f.status;
    std::printf("%s{\"frequency_khz\":%d,\"channel\":%d,\"quality\":%d", k ? "," : "", f.frequencyKHz, f.channel,
                s.quality);
    PrintBroadcastJson(stdout, s);
    const std::string firstName = f.services.services.empty() || f.services.services[0].name.empty()
                                      ? "null"
                                      : JsonString(f.services.services[0].name);
    std::printf(",\"network_name\":%s,\"transport_stream_id\":%d,\"service_name\":%s,\"services\":[",
                f.services.networkName.empty() ? "null" : JsonString(f.services.networkName).c_str(),
                f.services.transportStreamId, firstName.c_str());
    for (size_t j = 0; j < f.services.services.size(); ++j) {
      const ServiceInfo& v = f.services.services[j];
      std::printf("%s{\"id\":%d,\"name\":%s,\"provider\":%s,\"type\":%d,\"pmt_pid\":%d,\"stream_types\":[", j ? "," : "",
                  v.id, v.name.empty() ? "null" : JsonString(v.name).c_str(),
                  v.provider.empty() ? "null" : JsonString(v.provider).c_str(), v.type, v.pmtPid);
      for (size_t t = 0; t < v.streamTypes.size(); ++t) std::printf("%s%d", t ? "," : "", v.streamTypes[t]);
      std::printf("]}");
    }
    std::printf("]}");
  }
  std::printf("]}\n");
}

int Run(int argc, char** argv) {
  Options o;
  if (const int status = ParseOptions(argc, argv, &o); status != 0) return status < 0 ? 0 : status;
  const ChannelBand band = *FindBand(o.band);

  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  TsServiceReader services;
  reader = &services;
  ZFISDBT_SetTSCallBack(OnTransportStream);
  if (!OpenReceiver("scan", o.source, true)) {
    reader = nullptr;
    return 1;
  }
  std::fprintf(stderr, "zfnisdbt scan: %s band, channels %d to %d\n", o.band.c_str(), o.first, o.last);
  std::vector<Found> found;
  const Clock::time_point start = Clock::now();
  for (int32_t channel = o.first; channel <= o.last && stopRequested == 0; ++channel) {
    const int32_t khz = ChannelFrequencyKHz(band, channel);
    std::fprintf(stderr, "zfnisdbt scan: channel %d (%d kHz) ...", channel, khz);
    std::fflush(stderr);
    Found f;
    if (ScanChannel(khz, &f)) {
      f.channel = channel;
      const std::string name = f.services.services.empty() ? "" : f.services.services[0].name;
      std::fprintf(stderr, " found, %zu service%s%s%s%s\n", f.services.services.size(),
                   f.services.services.size() == 1 ? "" : "s", name.empty() ? "" : " \"", name.c_str(),
                   name.empty() ? "" : "\"");
      if (!o.json) PrintFound(f);
      std::fflush(stdout);
      found.push_back(std::move(f));
    } else {
      std::fprintf(stderr, "%s\n", stopRequested ? " interrupted" : " nothing");
    }
  }
  ZFISDBT_CloseDevice();
  reader = nullptr;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::fprintf(stderr, "zfnisdbt scan: %zu channel%s found in %.1f s%s\n", found.size(), found.size() == 1 ? "" : "s",
               seconds, stopRequested ? " (interrupted)" : "");
  if (o.json) PrintJson(o.band, found);
  return 0;
}

const bool registered = RegisterCommand({"scan", SYNOPSIS, Run});

}  // namespace
}  // namespace zfn::tools
