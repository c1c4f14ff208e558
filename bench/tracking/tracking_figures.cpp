// Figures of the tracking loops on our transmitter's broadcast through the synchronous driver:
//   snr     snrDb against the true C/N of segment 0, 5 to 25 dB (Mode 3, 1/8, QPSK)
//   clock   the clock estimate of the settle count against the device's offset, +-10 and +-30 ppm
//   drift [seconds] [v]  where the transform span sits in the guard interval over a minute, 0 and
//           +-30 ppm; with v, the last blocks before a loss of tracking
//   echo [seconds] [v]   the same with an echo 20 us late at -3 dB
//   hold MODE GUARD SECONDS CN SEED...   per seed, how long tracking holds with no clock offset,
//           where the span entered, where it sat at the filter pair scan, which pair, its range
//   sweep MODE GUARD CN SEED   the span held by hand at places across the guard interval: snrDb
//           of each interpolation pair there, and the gate's early-late difference per symbol
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
#include "tracking_test_support.h"

namespace {

using namespace zfn;

// A QPSK 2/3 broadcast (interleave index 2) through white noise (none at cnDb 0), a device clock
// `ppm` off and optionally an echo 3 dB down, fed into the synchronous driver.
class Run : public test::DriverRun {
 public:
  Run(int mode, double cnDb, double ppm, uint64_t seed, double echoUs = 0.0, int guard = 2)
      : DriverRun(Broadcast(mode, guard, seed), Channel(cnDb, ppm, seed, echoUs)), ppm_(ppm) {
    if (!Ok()) {
      std::fprintf(stderr, "cannot start: %s\n", Error().c_str());
      std::exit(1);
    }
  }
  bool Acquire() { return DriverRun::Acquire(40); }
  bool Tracking() const { return SyncDriverBlockState() == BLOCK_TRACKING; }
  double SpanOffset() const { return DriverRun::SpanOffset(ppm_); }
  // Start of the first transform span of tracking, read in the block after acquisition.
  double EntryOffset() const {
    const double rx = static_cast<double>(Fed()) + engine.readPos / 2 + engine.nmargin;
    return std::fmod(rx / (1.0 + ppm_ * 1e-6), engine.nsymbol);
  }

 private:
  static sim::BroadcastConfig Broadcast(int mode, int guard, uint64_t seed) {
    sim::BroadcastConfig b;
    b.mode = mode + 1;
    b.guard = guard;
    b.modulation = 1;
    b.codeRate = 1;
    b.interleave = 2;
    b.seed = seed;
    return b;
  }
  static sim::ChannelConfig Channel(double cnDb, double ppm, uint64_t seed, double echoUs) {
    sim::ChannelConfig ch;
    ch.noise = cnDb > 0;
    ch.cnDb = cnDb;
    ch.clockPpm = ppm;
    ch.seed = seed + 1;
    if (echoUs > 0.0) ch.echoes = {sim::EchoPath{echoUs, -3.0, 50.0}};
    return ch;
  }
  double ppm_;
};

int BlocksOf(double seconds) { return test::DriverRun::BlocksOf(seconds); }

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

// How long tracking holds: for each seed, the span at the entry to tracking, where it sat when the
// filter pair was chosen, the pair, the span's range over the run, and the symbol count at the
// first loss of tracking.
void Hold(int mode, int guard, double seconds, double cnDb, const std::vector<uint64_t>& seeds) {
  std::printf("Mode %d, guard index %d, C/N %.0f dB, up to %.0f s; span start in the guard interval, samples\n",
              mode + 1, guard, cnDb, seconds);
  for (uint64_t seed : seeds) {
    Run run(mode, cnDb, 0.0, seed, 0.0, guard);
    if (!run.Acquire()) {
      std::printf("seed %2llu: no acquisition\n", static_cast<unsigned long long>(seed));
      continue;
    }
    auto place = [&] {
      double off = run.SpanOffset();
      if (off > engine.nsymbol / 2) off -= engine.nsymbol;
      return off;
    };
    double entry = run.EntryOffset();
    if (entry > engine.nsymbol / 2) entry -= engine.nsymbol;
    double atScan = 0.0, lo = 1e9, hi = -1e9, snrSum = 0.0;
    int pair = -1, snrCount = 0;
    const int blocks = BlocksOf(seconds);
    int lostAt = -1;
    for (int i = 0; i < blocks; ++i) {
      run.Feed();
      if (!run.Tracking()) {
        lostAt = i;
        break;
      }
      const double off = place();
      lo = std::min(lo, off);
      hi = std::max(hi, off);
      if (pair < 0 && engine.symbolCount > engine.guardScanStart + 20) {
        atScan = off;
        pair = static_cast<int>((tracker.interpBankLow - tracker.interpLow) / (INTERP_BLOCK * 2));
      }
      if (engine.symbolCount > 16) {
        snrSum += engine.snrDb;
        ++snrCount;
      }
    }
    const int32_t lastCount = engine.symbolCount;
    std::printf("seed %2llu: entry %6.1f  scan %6.1f pair %2d  range %6.1f .. %6.1f  mean snrDb %5.1f  ",
                static_cast<unsigned long long>(seed), entry, atScan, pair, lo, hi,
                snrCount ? snrSum / snrCount : 0.0);
    if (lostAt >= 0) {
      std::printf("lost after %d symbols (%.1f s)\n", lastCount, lostAt * static_cast<double>(BLOCK_SAMPLES) * 63.0 / 64e6);
    } else {
      std::printf("held %d symbols\n", lastCount);
    }
    std::fflush(stdout);
  }
}

// The span held at places across the guard interval (the gate's gain at 0, the read position moved
// by hand between blocks): per place, snrDb of each interpolation pair, and the mean per-symbol
// difference of the gate's two sides (early minus late).
void Sweep(int mode, int guard, double cnDb, uint64_t seed) {
  Run run(mode, cnDb, 0.0, seed, 0.0, guard);
  if (!run.Acquire()) return;
  engine.guardScanStart = 1 << 30;
  char* text = nullptr;
  size_t size = 0;
  FILE* log = open_memstream(&text, &size);
  tracker.snrLog = log;
  auto place = [&] {
    double off = run.SpanOffset();
    if (off > engine.nsymbol / 2) off -= engine.nsymbol;
    return off;
  };
  auto block = [&](int pair) {
    tracker.timingGain = 0.0f;
    if (pair >= 0) {
      tracker.interpBankLow = tracker.interpLow + pair * INTERP_BLOCK * 2;
      tracker.interpBankHigh = tracker.interpHigh + pair * INTERP_BLOCK * 2;
    }
    std::fflush(log);
    const size_t from = size;
    run.Feed();
    std::fflush(log);
    double sum = 0;
    int n = 0;
    for (const char* c = text + from; c < text + size;) {
      char* end = nullptr;
      const double v = std::strtod(c, &end);
      if (end == c) break;
      if (v > -39.0) {
        sum += v;
        ++n;
      }
      c = end;
    }
    return n ? sum / n : 0.0;
  };
  for (int i = 0; i < 3; ++i) block(-1);
  const int h = engine.nmargin;
  const int k = tracker.timingSpan;
  std::printf("Mode %d guard index %d C/N %.0f: nguard %d, gate half width %d\n", mode + 1, guard, cnDb,
              engine.nguard, k);
  std::printf("span   snrDb pair 0     1     2     3     4    early-late per symbol\n");
  const int stride = std::max(1, engine.nguard / 16);
  for (int target = -stride; target <= engine.nguard + stride; target += stride) {
    // Move the span while no symbol straddles the block edge and the new place stays in the block.
    int delta = 0;
    for (int tries = 0; tries < 20; ++tries) {
      delta = target - static_cast<int>(std::lround(place()));
      const int32_t moved = engine.readPos + 2 * delta;
      if (engine.straddleFlag == 0 && moved >= 0 && moved + 2 * engine.nwork < BLOCK_FLOATS) break;
      block(-1);
    }
    engine.readPos += 2 * delta;
    engine.ncoPhase = engine.ncoPhase + static_cast<float>(delta) * engine.ncoStep;
    block(-1);
    block(-1);
    const float e0 = tracker.timingAcc[h - k], l0 = tracker.timingAcc[h + k];
    const int32_t c0 = engine.symbolCount;
    double snr[INTERP_PAIRS];
    for (int q = 0; q < INTERP_PAIRS; ++q) snr[q] = block(q);
    const double diff = (static_cast<double>(tracker.timingAcc[h - k]) - e0 - (static_cast<double>(tracker.timingAcc[h + k]) - l0)) /
                        (engine.symbolCount - c0);
    const double at = place();
    if (std::fabs(at - target) > 0.5) {
      std::printf("%5.1f   (the span moved while measured)\n", at);
      continue;
    }
    std::printf("%5.1f  ", at);
    for (double v : snr) std::printf(" %5.1f", v);
    std::printf("   %+9.3f\n", diff);
  }
  tracker.snrLog = nullptr;
  std::fclose(log);
  std::free(text);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what.empty() || what == "snr") Snr();
  if (what.empty() || what == "clock") Clock();
  if (what == "drift") Drift(argc > 2 ? std::atof(argv[2]) : 60.0, argc > 3, 0.0);
  if (what == "hold") {
    // hold MODE GUARD SECONDS CN SEED...
    const int mode = argc > 2 ? std::atoi(argv[2]) - 1 : 2;
    const int guard = argc > 3 ? std::atoi(argv[3]) : 2;
    const double seconds = argc > 4 ? std::atof(argv[4]) : 60.0;
    const double cn = argc > 5 ? std::atof(argv[5]) : 25.0;
    std::vector<uint64_t> seeds;
    for (int i = 6; i < argc; ++i) seeds.push_back(std::strtoull(argv[i], nullptr, 10));
    if (seeds.empty()) seeds = {1, 2, 3, 4, 5, 6};
    Hold(mode, guard, seconds, cn, seeds);
  }
  if (what == "sweep")
    Sweep(argc > 2 ? std::atoi(argv[2]) - 1 : 2, argc > 3 ? std::atoi(argv[3]) : 2, argc > 4 ? std::atof(argv[4]) : 25.0,
          argc > 5 ? std::strtoull(argv[5], nullptr, 10) : 1);
  if (what == "echo") Drift(argc > 2 ? std::atof(argv[2]) : 60.0, argc > 3, 20.0);
  return 0;
}
