// Sensitivity in white noise: for each C/N of a sweep, our transmitter's common broadcast (Mode 3,
// guard 1/8, QPSK 2/3, I = 4) with fixed seeds through the channel model into the engine, block by
// block through the synchronous driver. Prints the packet error rate after Reed-Solomon from the
// moment the lock judgement watches the stream (the start-up before it is not counted), and the
// lowest C/N at which the whole measurement (by default 60 s after the start-up) is quasi error
// free: no packet left uncorrected, none missing, tracking never lost. The start-up may take as
// long as the measurement; a point that has not reached the stream judgement by then fails.
//
// With --no-resync the engine's automatic return to acquisition is switched off (as debug command 7
// with value 0 does), which shows what the decoding chain achieves apart from the lock judgement.
// With --front-end sdr the stream is a generic SDR's (the whole broadcast, wide anti-alias filter,
// DC offset, I/Q imbalance, 8-bit converter) put through the device library's conditioning, block
// by block, as `zfnisdbt decode --front-end sdr` does. --mode, --guard, --code-rate, --interleave,
// --carrier-offset and --clock-ppm choose another layer and channel; --no-transmit-filter leaves out
// the generic SDR stream's transmit filter, whose run across symbol edges makes the guard interval
// differ from the end of the symbol, as with real transmitters.
//
//   sensitivity_sweep [--from DB] [--to DB] [--step DB] [--seconds S] [--seed N] [--no-resync]
//                     [--front-end device|sdr] [--mode M] [--guard 0..3] [--code-rate 0..4]
//                     [--interleave 0..3] [--carrier-offset HZ] [--clock-ppm PPM] [--no-transmit-filter]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_machine.h"
#include "frontend/conditioning.h"
#include "shell/receiver_state.h"
#include "simulator/transmitter.h"
#include "tools/offline_decoder.h"

namespace {

constexpr size_t BLOCK_BYTES = 240640;

struct Point {
  double cnDb = 0;
  bool streamed = false;  // the lock judgement watched the stream at some point
  double measuredSeconds = 0;
  int64_t expected = 0;   // packets the layer carries in the measured time
  int64_t decoded = 0, corrected = 0, failed = 0, missing = 0;
  int32_t losses = 0;       // tracking lost after the stream was first judged
  int32_t startLosses = 0;  // before it: failed acquisitions of the start-up
  int32_t lowSnr = 0, earlyFail = 0, streamFail = 0, tmccFail = 0;
  double per = 1.0;
  bool qef = false;
  float snrDb = 0;
};

struct Setting {
  zfn::sim::BroadcastConfig broadcast;  // Mode 3, 1/8, QPSK 2/3, I = 4
  double carrierOffsetHz = 0, clockPpm = 0;
  bool sdr = false;
  bool transmitFilter = true;  // generic SDR: the transmitter's band filter across symbol edges
};


Point RunPoint(const Setting& setting, double cnDb, double seconds, uint64_t seed, bool resync) {
  Point p;
  p.cnDb = cnDb;
  zfn::sim::BroadcastConfig b = setting.broadcast;
  b.seed = seed;
  zfn::sim::ChannelConfig c;
  c.noise = true;
  c.cnDb = cnDb;
  c.seed = seed + 1;
  c.carrierOffsetHz = setting.carrierOffsetHz;
  c.clockPpm = setting.clockPpm;
  if (setting.sdr) c.frontEnd = zfn::sim::FrontEnd::Sdr;  // the simulator's defaults for DC and imbalance
  c.transmitFilter = setting.transmitFilter;
  std::string error;
  auto gen = zfn::sim::SignalGenerator::Create(b, c, zfn::sim::MakeTestPatternSource(seed), &error);
  if (!gen) {
    std::fprintf(stderr, "sensitivity_sweep: %s\n", error.c_str());
    std::exit(1);
  }
  zfn::tools::OfflineDecoder decoder;
  if (!decoder.Open(nullptr, nullptr)) {
    std::fprintf(stderr, "sensitivity_sweep: the engine could not be built\n");
    std::exit(1);
  }
  if (!resync) zfn::engine.autoResync = 0;
  // The start-up is given as long as the measurement; the measurement runs its full length after it.
  const int64_t measureBlocks = static_cast<int64_t>(std::ceil(seconds / zfn::tools::BlockSeconds()));
  std::vector<uint8_t> block(BLOCK_BYTES), conditioned(BLOCK_BYTES + 4);
  auto conditioner = std::make_unique<zfn::SdrConditioner>();
  zfn::SdrConditionerReset(*conditioner);
  for (;;) {
    const zfn::tools::OfflineDecodeStats& now = decoder.Stats();
    if (now.firstStreamBlock >= 0 ? now.blocks - now.firstStreamBlock - 1 >= measureBlocks : now.blocks >= measureBlocks) break;
    gen->GenerateBytes(block.data(), block.size());
    if (setting.sdr) {
      decoder.Feed(conditioned.data(), zfn::SdrConditionU8(*conditioner, block.data(), BLOCK_BYTES / 2, conditioned.data()));
    } else {
      decoder.Feed(block.data(), block.size());
    }
  }
  decoder.Close();
  const zfn::tools::OfflineDecodeStats& s = decoder.Stats();
  p.losses = s.lossesAfterStream;
  p.startLosses = s.trackingLosses - s.lossesAfterStream;
  p.lowSnr = s.resyncLowSnr;
  p.earlyFail = s.resyncEarlyFail;
  p.streamFail = s.resyncStreamFail;
  p.tmccFail = s.tmccFailures;
  p.snrDb = s.snrDb;
  if (s.firstStreamBlock >= 0) {
    p.streamed = true;
    // Packets of the blocks after the one in which the stream was first judged; those drained
    // after that block are counted as decoded too, so a clean run has decoded >= expected.
    p.measuredSeconds = static_cast<double>(s.blocks - s.firstStreamBlock - 1) * zfn::tools::BlockSeconds();
    p.expected = static_cast<int64_t>(p.measuredSeconds * gen->LayerBitRate() / (188.0 * 8.0));
    p.decoded = s.streaming.Total();
    p.corrected = s.streaming.corrected;
    p.failed = s.streaming.failed;
    p.missing = std::max<int64_t>(0, p.expected - p.decoded);
    p.per = p.expected > 0 ? static_cast<double>(p.failed + p.missing) / static_cast<double>(p.expected) : 1.0;
    // A frame's worth of packets is the slack of counting by blocks.
    p.qef = p.failed == 0 && p.losses == 0 && p.missing <= gen->PacketsPerFrame();
  }
  return p;
}

bool ParseDouble(const char* text, double* v) {
  if (text == nullptr) return false;
  char* end = nullptr;
  *v = std::strtod(text, &end);
  return end != text && *end == '\0' && std::isfinite(*v);
}

}  // namespace

int main(int argc, char** argv) {
  double from = 4, to = 10, step = 0.5, seconds = 60, seedValue = 1;
  double mode = 3, guard = 2, codeRate = 1, interleave = 3;
  Setting setting;
  bool resync = true;
  const char* usage =
      "usage: sensitivity_sweep [--from DB] [--to DB] [--step DB] [--seconds S] [--seed N] [--no-resync]\n"
      "                         [--front-end device|sdr] [--mode M] [--guard 0..3] [--code-rate 0..4]\n"
      "                         [--interleave 0..3] [--carrier-offset HZ] [--clock-ppm PPM] [--no-transmit-filter]\n";
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--no-resync") {
      resync = false;
      continue;
    }
    if (a == "--no-transmit-filter") {
      setting.transmitFilter = false;
      continue;
    }
    if (a == "--front-end" && i + 1 < argc && (std::strcmp(argv[i + 1], "sdr") == 0 || std::strcmp(argv[i + 1], "device") == 0)) {
      setting.sdr = std::strcmp(argv[++i], "sdr") == 0;
      continue;
    }
    double* target = a == "--from" ? &from : a == "--to" ? &to : a == "--step" ? &step
                   : a == "--seconds" ? &seconds : a == "--seed" ? &seedValue : a == "--mode" ? &mode
                   : a == "--guard" ? &guard : a == "--code-rate" ? &codeRate : a == "--interleave" ? &interleave
                   : a == "--carrier-offset" ? &setting.carrierOffsetHz : a == "--clock-ppm" ? &setting.clockPpm : nullptr;
    if (target == nullptr || !ParseDouble(i + 1 < argc ? argv[i + 1] : nullptr, target)) {
      std::fprintf(stderr, "%s", usage);
      return 2;
    }
    ++i;
  }
  if (!(step > 0) || !(seconds > 1) || to < from || seedValue < 0) {
    std::fprintf(stderr, "sensitivity_sweep: need step > 0, seconds > 1, to >= from, seed >= 0\n");
    return 2;
  }
  setting.broadcast.mode = static_cast<int>(mode);
  setting.broadcast.guard = static_cast<int>(guard);
  setting.broadcast.codeRate = static_cast<int>(codeRate);
  setting.broadcast.interleave = static_cast<int>(interleave);
  {
    zfn::sim::ChannelConfig check;
    check.carrierOffsetHz = setting.carrierOffsetHz;
    check.clockPpm = setting.clockPpm;
    const std::string error = zfn::sim::CheckConfig(setting.broadcast, check);
    if (!error.empty()) {
      std::fprintf(stderr, "sensitivity_sweep: %s\n", error.c_str());
      return 2;
    }
  }
  const auto seed = static_cast<uint64_t>(seedValue);
  static const char* const guards[] = {"1/32", "1/16", "1/8", "1/4"};
  static const char* const rates[] = {"1/2", "2/3", "3/4", "5/6", "7/8"};
  const zfn::sim::BroadcastConfig& b = setting.broadcast;
  std::printf("# Sensitivity in white noise: Mode %d, guard %s, QPSK %s, I index %d; carrier offset %.0f Hz, clock %.1f ppm; "
              "%s front end; %.0f s after the start-up per point, seed %llu%s\n",
              b.mode, guards[b.guard], rates[b.codeRate], b.interleave, setting.carrierOffsetHz, setting.clockPpm,
              setting.sdr ? "generic SDR through the conditioning" : "design device", seconds,
              static_cast<unsigned long long>(seed), resync ? "" : "; automatic resync off");
  std::printf("# Machine: %s\n", zfn::bench::MachineLine().c_str());
  std::printf("# PER after Reed-Solomon, counted from the moment the lock judgement watches the stream.\n");
  std::printf("# losses: tracking lost after that moment; start-up: before it. Requests to re-acquire by cause:\n"
              "# low SNR watch / early packet judgement / stream judgement; TMCC: words refused in frame sync.\n");
  std::printf("%6s %8s %9s %9s %9s %8s %7s %6s %11s %5s %8s %12s %5s\n", "C/N_dB", "SNR_dB", "measured_s", "packets",
              "corrected", "failed", "missing", "losses", "PER", "QEF", "start-up", "snr/early/st", "TMCC");
  std::fflush(stdout);
  double lowestQef = NAN;
  double lowestFromWhichAllQef = NAN;
  const int points = static_cast<int>(std::floor((to - from) / step + 1e-9)) + 1;
  for (int k = 0; k < points; ++k) {
    const double cn = from + k * step;
    const Point p = RunPoint(setting, cn, seconds, seed, resync);
    if (p.streamed) {
      std::printf("%6.1f %8.2f %9.1f %9lld %9lld %8lld %7lld %6d %11.3e %5s", p.cnDb, static_cast<double>(p.snrDb),
                  p.measuredSeconds, static_cast<long long>(p.decoded), static_cast<long long>(p.corrected),
                  static_cast<long long>(p.failed), static_cast<long long>(p.missing), p.losses, p.per,
                  p.qef ? "yes" : "no");
    } else {
      std::printf("%6.1f %8s %9s %9s %9s %8s %7s %6d %11s %5s", p.cnDb, "-", "-", "-", "-", "-", "-", p.losses,
                  "no stream", "no");
    }
    const std::string causes =
        std::to_string(p.lowSnr) + "/" + std::to_string(p.earlyFail) + "/" + std::to_string(p.streamFail);
    std::printf(" %8d %12s %5d\n", p.startLosses, causes.c_str(), p.tmccFail);
    std::fflush(stdout);
    if (p.qef && std::isnan(lowestQef)) lowestQef = cn;
    if (p.qef && std::isnan(lowestFromWhichAllQef)) lowestFromWhichAllQef = cn;
    if (!p.qef) lowestFromWhichAllQef = NAN;
  }
  if (std::isnan(lowestQef)) {
    std::printf("# No point of the sweep was quasi error free.\n");
  } else {
    std::printf("# Lowest quasi-error-free C/N: %.1f dB (every point from %.1f dB up is quasi error free)\n", lowestQef,
                lowestFromWhichAllQef);
    if (b.mode == 3 && b.guard == 2 && b.codeRate == 1) {
      std::printf("# Against the 6.6 dB required for this mode (BER 2e-4 after Viterbi): %+.1f dB\n", lowestFromWhichAllQef - 6.6);
    }
  }
  return 0;
}
