// Figures of the tracking loops on our transmitter's broadcast through the synchronous driver:
//   snr     snrDb against the true C/N of segment 0, 5 to 25 dB (Mode 3, 1/8, QPSK)
//   clock   the clock estimate of the settle count against the device's offset, +-10 and +-30 ppm
//   drift [seconds] [v]  where the transform span sits in the guard interval over a minute, 0 and
//           +-30 ppm; with v, the last blocks before a loss of tracking
//   echo [seconds] [v]   the same with an echo 20 us late at -3 dB
// With no argument it prints the first two.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "shell/receiver_state.h"
#include "shell/sync_driver.h"
#include "simulator/transmitter.h"
#include "tracking/tracker_state.h"

namespace {

using namespace zfn;

class Run {
 public:
  Run(int mode, double cnDb, double ppm, uint64_t seed, double echoUs = 0.0) : ppm_(ppm) {
    sim::BroadcastConfig b;
    b.mode = mode + 1;
    b.guard = 2;
    b.modulation = 1;
    b.codeRate = 1;
    b.interleave = 2;
    b.seed = seed;
    sim::ChannelConfig ch;
    ch.noise = cnDb > 0;
    ch.cnDb = cnDb;
    ch.clockPpm = ppm;
    ch.seed = seed + 1;
    if (echoUs > 0.0) ch.echoes = {sim::EchoPath{echoUs, -3.0, 50.0}};
    std::string error;
    gen_ = sim::SignalGenerator::Create(b, ch, sim::MakeTestPatternSource(seed), &error);
    if (!gen_ || SyncDriverOpen(nullptr, nullptr) != 1) {
      std::fprintf(stderr, "cannot start: %s\n", error.c_str());
      std::exit(1);
    }
    SyncDriverRetune();
    bytes_.resize(RAW_BLOCK_BYTES);
  }
  ~Run() { SyncDriverClose(); }
  bool Acquire() {
    for (int i = 0; i < 40; ++i) {
      Feed();
      if (SyncDriverBlockState() == BLOCK_TRACKING) {
        const int code = engine.layerParams->modulation;
        engine.bitsPerCarrier = code <= 1 ? 2 : code == 2 ? 4 : 6;
        return true;
      }
    }
    return false;
  }
  void Feed() {
    gen_->GenerateBytes(bytes_.data(), bytes_.size());
    SyncDriverFeed(bytes_.data(), bytes_.size());
    fed_ += BLOCK_SAMPLES;
  }
  bool Tracking() const { return SyncDriverBlockState() == BLOCK_TRACKING; }
  // Start of the next transform span within its symbol, in samples of the broadcast.
  double SpanOffset() const {
    const double rx = static_cast<double>(fed_ - BLOCK_SAMPLES) + engine.readPos / 2 + engine.nmargin;
    return std::fmod(rx / (1.0 + ppm_ * 1e-6), engine.nsymbol);
  }

 private:
  std::unique_ptr<sim::SignalGenerator> gen_;
  std::vector<uint8_t> bytes_;
  int64_t fed_ = 0;
  double ppm_;
};

int BlocksOf(double seconds) { return static_cast<int>(seconds * 64e6 / 63.0 / BLOCK_SAMPLES) + 1; }

void Snr() {
  std::printf("C/N dB   snrDb mean   min    max    (Mode 3, 1/8, QPSK; 20 blocks after acquisition)\n");
  for (double cn = 5.0; cn <= 25.0; cn += 2.5) {
    Run run(2, cn, 0.0, 11);
    if (!run.Acquire()) {
      std::printf("%6.1f   no acquisition\n", cn);
      continue;
    }
    double sum = 0, lo = 1e9, hi = -1e9;
    for (int i = 0; i < 20; ++i) {
      run.Feed();
      const double s = engine.snrDb;
      sum += s;
      lo = std::min(lo, s);
      hi = std::max(hi, s);
    }
    std::printf("%6.1f   %8.2f   %6.2f %6.2f   offset %+.2f dB\n", cn, sum / 20, lo, hi, sum / 20 - cn);
  }
}

void Clock() {
  std::printf("clock estimates at the settle count, ppm (first span, second span -> applied; error of applied)\n");
  for (int mode : {0, 2}) {
    for (double ppm : {10.0, -10.0, 30.0, -30.0}) {
      std::printf("Mode %d %+4.0f ppm:", mode + 1, ppm);
      double worst = 0.0;
      for (uint64_t seed : {5, 7, 9, 11}) {
        Run run(mode, 20.0, ppm, seed);
        if (!run.Acquire()) {
          std::printf("  no acquisition");
          continue;
        }
        while (run.Tracking() && engine.symbolCount <= engine.settleSymbols) run.Feed();
        const double mean = 0.5 * (tracker.clockPpmFirst + tracker.clockPpmSecond);
        worst = std::max(worst, std::fabs(mean - ppm));
        std::printf("  %+6.2f %+6.2f -> %+6.2f", tracker.clockPpmFirst, tracker.clockPpmSecond, tracker.clockPpmApplied);
      }
      std::printf("   worst error of the mean %.2f\n", worst);
    }
  }
}

void Drift(double seconds, bool verbose, double echoUs) {
  std::printf("span start in the guard interval (samples), Mode 1, 1/8 (guard 32), every 5 s");
  if (echoUs > 0.0) std::printf("; echo of %.1f us (%.1f samples) at -3 dB", echoUs, echoUs * 64.0 / 63.0);
  std::printf("\n");
  for (double ppm : {0.0, 30.0, -30.0}) {
    Run run(0, 20.0, ppm, 5, echoUs);
    if (!run.Acquire()) continue;
    std::printf("%+5.0f ppm:", ppm);
    const int every = BlocksOf(5.0);
    const int blocks = BlocksOf(seconds);
    std::vector<std::string> recent;
    for (int i = 0; i < blocks; ++i) {
      run.Feed();
      if (!run.Tracking()) {
        std::printf("  lost at %.1f s%s", i * static_cast<double>(BLOCK_SAMPLES) * 63.0 / 64e6, verbose ? "\n" : "");
        if (verbose)
          for (auto& r : recent) std::printf("%s\n", r.c_str());
        break;
      }
      double off = run.SpanOffset();
      if (off > engine.nsymbol / 2) off -= engine.nsymbol;  // before the guard interval: negative
      char line[200];
      std::snprintf(line, sizeof line, "symbol %d span %.1f snrDb %.1f gate early %g late %g step %d pair %d", engine.symbolCount.load(), off, engine.snrDb.load(), tracker.timingAcc[engine.nmargin - tracker.timingSpan], tracker.timingAcc[engine.nmargin + tracker.timingSpan], engine.timingStep, static_cast<int>((tracker.interpBankLow - tracker.interpLow) / (INTERP_BLOCK * 2)));
      recent.push_back(line);
      if (recent.size() > 12) recent.erase(recent.begin());
      if (i % every == every - 1) std::printf(" %6.1f", off);
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what.empty() || what == "snr") Snr();
  if (what.empty() || what == "clock") Clock();
  if (what == "drift") Drift(argc > 2 ? std::atof(argv[2]) : 60.0, argc > 3, 0.0);
  if (what == "echo") Drift(argc > 2 ? std::atof(argv[2]) : 60.0, argc > 3, 20.0);
  return 0;
}
