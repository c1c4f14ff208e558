// Tracking of our own transmitter's broadcast through the synchronous driver: device bytes of the
// whole chain (segments 3, 1, 0, 2, 4, channel, quantiser) into the engine's block state machine,
// from acquisition into tracking and on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "frontend/device_binding.h"
#include "shell/receiver_state.h"
#include "shell/sync_driver.h"
#include "simulator/transmitter.h"
#include "tracking/slicers.h"
#include "tracking/tracker_state.h"

namespace zfn {
namespace {

struct Broadcast {
  int mode = 2, guard = 2;  // receiver numbering: mode 0..2, guard 0..3
  int modulation = 1;       // TMCC code: 1 QPSK, 2 16QAM, 3 64QAM
  double cnDb = 0;      // 0: no noise
  double offsetHz = 0;
  double clockPpm = 0;
  std::vector<sim::EchoPath> echoes;
  double filterHz = 780e3;
  double rms = 28;
  double dopplerHz = 0;  // > 0: Rayleigh fading on the typical-urban profile
};

// Drives one broadcast through the driver; Track() feeds blocks while tracking.
class DriverRun {
 public:
  explicit DriverRun(const Broadcast& c, uint64_t seed = 5) {
    sim::BroadcastConfig b;
    b.mode = c.mode + 1;
    b.guard = c.guard;
    b.modulation = c.modulation;
    b.codeRate = 1;
    b.interleave = 2;
    b.seed = seed;
    b.deviceFilterHz = c.filterHz;
    sim::ChannelConfig ch;
    ch.rmsLevel = c.rms;
    ch.noise = c.cnDb > 0;
    ch.cnDb = c.cnDb;
    ch.carrierOffsetHz = c.offsetHz;
    ch.clockPpm = c.clockPpm;
    ch.echoes = c.echoes;
    ch.dopplerHz = c.dopplerHz;
    ch.seed = seed + 1;
    std::string error;
    gen_ = sim::SignalGenerator::Create(b, ch, sim::MakeTestPatternSource(seed), &error);
    EXPECT_TRUE(gen_) << error;
    EXPECT_EQ(SyncDriverOpen(nullptr, nullptr), 1);
    SyncDriverRetune();
    bytes_.resize(RAW_BLOCK_BYTES);
  }
  ~DriverRun() { SyncDriverClose(); }

  // Feeds blocks until tracking; false if it is not reached within `limit` blocks.
  bool Acquire(int limit) {
    for (int i = 0; i < limit && gen_; ++i) {
      Feed();
      if (SyncDriverBlockState() == BLOCK_TRACKING) {
        // The decoder set-up gives the equaliser its bits per carrier.
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
  // Engine samples fed before the current block.
  int64_t FedBefore() const { return fed_ - BLOCK_SAMPLES; }
  // Blocks that hold `seconds` of signal.
  static int BlocksOf(double seconds) { return static_cast<int>(seconds * 64e6 / 63.0 / BLOCK_SAMPLES) + 1; }

 private:
  std::unique_ptr<sim::SignalGenerator> gen_;
  std::vector<uint8_t> bytes_;
  int64_t fed_ = 0;
};

// Mean squared distance of the last symbol's equalised carriers from their hard decisions.
double DecisionErrorDb() {
  double sum = 0.0;
  const int bits = engine.bitsPerCarrier;
  for (int k = 0; k < engine.ndata; ++k) {
    float re = engine.equalisedCarriers[2 * k], im = engine.equalisedCarriers[2 * k + 1];
    if (bits == 2) {
      const float w = engine.qpskSoftTarget > 0.0f ? tracker.softWeight[k] : 8.0f;
      re /= w;
      im /= w;
    }
    const Cx d = SliceCarrier({re, im}, bits);
    sum += (re - d.re) * (re - d.re) + (im - d.im) * (im - d.im);
  }
  return 10.0 * std::log10(sum / engine.ndata + 1e-30);
}

// Span start of the next symbol in broadcast samples (before the device clock), and the number of
// engine samples fed so far.
double SpanOffsetInSymbol(int64_t samplesFed, double ppm) {
  // The read position counts from the start of the last block while a symbol straddles its end,
  // and from the start of the next block when the last step carried it beyond.
  const int64_t base = engine.straddleFlag != 0 ? samplesFed : samplesFed + BLOCK_SAMPLES;
  const double rx = static_cast<double>(base) + engine.readPos / 2 + engine.nmargin;
  const double tx = rx / (1.0 + ppm * 1e-6);
  return std::fmod(tx, engine.nsymbol);
}

double CarrierSpacingHz() { return 64e6 / 63.0 / engine.nfft; }

std::string Describe(const Broadcast& c) {
  return "Mode " + std::to_string(c.mode + 1) + " guard " + std::to_string(c.guard) + " modulation " +
         std::to_string(c.modulation);
}

// A clean broadcast: every modulation in every mode sits on its constellation, block after block.
TEST(DriverTracking, CleanConstellationsInAllModes) {
  for (int mode = 0; mode < 3; ++mode) {
    for (int modulation : {1, 2, 3}) {
      Broadcast c;
      c.mode = mode;
      c.modulation = modulation;
      SCOPED_TRACE(Describe(c));
      DriverRun run(c);
      ASSERT_TRUE(run.Acquire(40));
      double sum = 0.0;
      for (int i = 0; i < 3; ++i) {
        run.Feed();
        ASSERT_EQ(SyncDriverBlockState(), BLOCK_TRACKING);
        EXPECT_GT(engine.snrDb, 15.0f);
        EXPECT_LT(DecisionErrorDb(), -15.0);
        sum += engine.snrDb;
      }
      EXPECT_GT(sum / 3.0, 17.0);
    }
  }
}

// snrDb against the C/N of the broadcast over segment 0. It reads below C/N by the device noise
// that folds onto the segment when every second device sample is dropped (3 dB) and by the noise
// of the channel estimate (about 2 dB), and rises with C/N.
TEST(DriverTracking, SnrFollowsCarrierToNoise) {
  double last = -100.0;
  for (double cn = 5.0; cn <= 25.0; cn += 5.0) {
    Broadcast c;
    c.mode = 2;
    c.modulation = 1;
    c.cnDb = cn;
    DriverRun run(c);
    ASSERT_TRUE(run.Acquire(40));
    double sum = 0.0;
    for (int i = 0; i < 6; ++i) {
      run.Feed();
      sum += engine.snrDb;
    }
    const double snr = sum / 6.0;
    SCOPED_TRACE(::testing::Message() << "C/N " << cn << " snrDb " << snr);
    EXPECT_GT(snr, cn - 6.5);
    EXPECT_LT(snr, cn - 2.0);
    EXPECT_GT(snr, last + 2.5);
    last = snr;
  }
}

// The device clock 30 ppm off: over 30 blocks the symbols drift by 54 samples, more than the
// guard interval of 32; the timing loop keeps the transform span inside the guard interval.
TEST(DriverTracking, TimingFollowsSampleClockOffset) {
  for (double ppm : {30.0, -30.0}) {
    Broadcast c;
    c.mode = 1;
    c.guard = 1;
    c.modulation = 2;
    c.clockPpm = ppm;
    DriverRun run(c);
    ASSERT_TRUE(run.Acquire(40));
    for (int i = 0; i < 30; ++i) {
      run.Feed();
      if (i % 5 != 4) continue;
      SCOPED_TRACE(::testing::Message() << "ppm " << ppm << " block " << i);
      ASSERT_EQ(SyncDriverBlockState(), BLOCK_TRACKING);
      const double offset = SpanOffsetInSymbol(run.FedBefore(), ppm);
      EXPECT_GE(offset, 0.0);
      EXPECT_LT(offset, engine.nguard);
      EXPECT_GT(engine.snrDb, 15.0f);
    }
  }
}

// What acquisition leaves of the carrier offset, the frequency loop takes out.
TEST(DriverTracking, FrequencyLoopRemovesResidualOffset) {
  for (double hz : {1234.5, -3000.0}) {
    Broadcast c;
    c.mode = 2;
    c.modulation = 1;
    c.offsetHz = hz;
    DriverRun run(c);
    ASSERT_TRUE(run.Acquire(40));
    const auto residual = [&] { return hz / CarrierSpacingHz() + engine.ncoStep * engine.nfft / 6.283185307179; };
    const double atEntry = residual();
    for (int i = 0; i < 12; ++i) run.Feed();
    SCOPED_TRACE(::testing::Message() << hz << " Hz: " << atEntry << " carriers at entry, " << residual() << " after");
    EXPECT_LT(std::fabs(residual()), 0.003);
    EXPECT_LT(std::fabs(residual()), 0.25 * std::fabs(atEntry));
    EXPECT_GT(engine.snrDb, 18.0f);
  }
}

// Echoes inside the guard interval and short of the span's place at entry to tracking (the middle
// of the guard): the channel estimate follows them, and the span stays clear of the previous
// symbol's echo.
TEST(DriverTracking, EchoesInsideTheGuardAreFollowed) {
  for (double us : {20.0, 60.0}) {
    Broadcast c;
    c.mode = 2;
    c.guard = 2;
    c.modulation = 2;
    c.echoes = {sim::EchoPath{us, -6.0, 60.0}};
    DriverRun run(c);
    ASSERT_TRUE(run.Acquire(40));
    for (int i = 0; i < 2; ++i) run.Feed();
    const double delay = us * 1e-6 * 64e6 / 63.0;
    for (int i = 0; i < 3; ++i) {
      run.Feed();
      SCOPED_TRACE(::testing::Message() << "echo " << us << " us, block " << i);
      EXPECT_GT(engine.snrDb, 15.0f);
      EXPECT_GE(SpanOffsetInSymbol(run.FedBefore(), 0.0), delay);
      EXPECT_LT(SpanOffsetInSymbol(run.FedBefore(), 0.0), engine.nguard);
    }
  }
}


// ---------------------------------------------------------------------------------------------
// The device clock +-30 ppm off over a whole tracking run: the span stays inside the guard
// interval block after block through the change of the loop's stage at symbol 5000 (period 8 to
// 32) and on after the clock decision, and the decision's estimate is the true offset. The
// driver binds no device library: the correction is written into nothing (the front end reports a
// failed access, which the tracker ignores), so the loop must go on following the whole offset.
struct ClockRun {
  double lowest = 1e9, highest = -1e9;  // span start within the symbol, samples
  int32_t periodAfter = 0;
  float first = 0, second = 0, applied = 0;
  int32_t writePending = 0;
  int32_t symbols = 0;
  int32_t settle = 0;
  int32_t nguard = 0;
  float snrMin = 1e9f;
};

ClockRun RunWithClockOffset(int mode, double ppm, double seconds) {
  Broadcast c;
  c.mode = mode;
  c.guard = 2;
  c.modulation = 1;
  c.cnDb = 20.0;
  c.clockPpm = ppm;
  DriverRun run(c);
  ClockRun r;
  EXPECT_TRUE(run.Acquire(40));
  EXPECT_EQ(deviceBinding.Demod_Byte_Write, nullptr);
  engine.clockWritePending = 0;
  const int blocks = DriverRun::BlocksOf(seconds);
  for (int i = 0; i < blocks; ++i) {
    run.Feed();
    if (SyncDriverBlockState() != BLOCK_TRACKING) {
      ADD_FAILURE() << "left tracking at block " << i << ", symbol " << engine.symbolCount;
      break;
    }
    const double offset = SpanOffsetInSymbol(run.FedBefore(), ppm);
    r.lowest = std::min(r.lowest, offset);
    r.highest = std::max(r.highest, offset);
    if (engine.symbolCount > engine.settleSymbols + 60) r.snrMin = std::min(r.snrMin, engine.snrDb.load());
  }
  r.periodAfter = tracker.timingPeriod;
  r.first = tracker.clockPpmFirst;
  r.second = tracker.clockPpmSecond;
  r.applied = tracker.clockPpmApplied;
  r.writePending = engine.clockWritePending;
  r.symbols = engine.symbolCount;
  r.settle = engine.settleSymbols;
  r.nguard = engine.nguard;
  return r;
}

void ExpectClockRun(const ClockRun& r, double ppm) {
  SCOPED_TRACE(::testing::Message() << ppm << " ppm: span " << r.lowest << " .. " << r.highest << ", estimates "
                                    << r.first << ", " << r.second << ", applied " << r.applied);
  EXPECT_GE(r.lowest, 0.0);
  EXPECT_LT(r.highest, r.nguard);
  EXPECT_EQ(r.periodAfter, 32);
  // A span's estimate is off by the span's own movement inside the guard interval over the span
  // (up to about ten ppm, the loop having no preferred place inside it); the applied value, their
  // mean, by the movement over both, here under 2 ppm.
  EXPECT_NEAR(r.first, ppm, 10.0);
  EXPECT_NEAR(r.second, ppm, 10.0);
  EXPECT_NEAR(r.applied, ppm, 4.0);
  EXPECT_EQ(r.writePending, 1);
  EXPECT_GT(r.snrMin, 10.0f);
}

// Mode 1 reaches both events soonest: symbol 5000 after 1.4 s and the clock decision (symbol
// 16320) after 4.6 s of signal. From there nothing in the loop changes with the symbol count, so
// six seconds cover every state of the loop that a minute does.
TEST(DriverTracking, ClockOffsetFollowedThroughTheStagesAndEstimated) {
  for (double ppm : {30.0, -30.0}) {
    const ClockRun r = RunWithClockOffset(0, ppm, 6.0);
    EXPECT_GT(r.symbols, r.settle + 3000);
    ExpectClockRun(r, ppm);
  }
}

// The same over a full minute of signal (about four seconds of processor time). With the device clock slow the clock pushes the span toward the next symbol, and the late
// side of the gate, which sees that symbol at once, holds it inside the guard interval.
TEST(DriverTracking, SlowClockFollowedForAMinute) {
  const ClockRun r = RunWithClockOffset(0, -30.0, 60.0);
  ExpectClockRun(r, -30.0);
}

// Known to fail, kept to reproduce them (--gtest_also_run_disabled_tests).
//
// Device clock fast: the clock pushes the span toward the previous symbol. Once the span starts
// there, the early side of the gate (a sliding transform) grows with the interference, and so does
// the late side, whose multiplier -exp(+j theta) is not that of a sliding transform, so that its
// sums add to the interference instead of taking it out: the late side reads larger, the gate steps
// earlier still, and after about 30 s the span is 60 samples into the previous symbol and the
// receiver resynchronises. The same broadcast with the conjugate multiplier exp(-j theta) on the
// late side is held for the minute; other seeds of this broadcast are held with either.
TEST(DriverTracking, DISABLED_FastClockFollowedForAMinute) {
  const ClockRun r = RunWithClockOffset(0, 30.0, 60.0);
  ExpectClockRun(r, 30.0);
}

// No clock offset: inside the guard interval the gate sees the same on both sides, so the span
// wanders over the whole guard interval by steps of one sample. A pair passes a path whose delay
// behind the span's start lies within 0.15 of the useful symbol of the pair's delay centre: in
// Mode 1 with guard 1/8, pair 1 (0.208) needs the path 15 samples or more behind, pair 3 (0.25) 26
// or more, pair 0 (0.167) 5 or more, while pairs 2 and 4 take any place in the guard interval. The
// scan picks among the pairs that pass where the span happens to be, on four symbols each; after
// a pick of pair 1 or 3 the span wanders on towards the end of the guard interval, snrDb falls to
// 3-7 dB and the receiver resynchronises (here after 42 s; seeds 1 to 8 of
// `tracking_figures hold 1 2 120 20`: seven lost, after 6 to 94 s; `tracking_figures sweep 1 2`
// shows the pairs against the span's place).
TEST(DriverTracking, DISABLED_NoClockOffsetHeldForAMinute) {
  Broadcast c;
  c.mode = 0;
  c.guard = 2;
  c.modulation = 1;
  c.cnDb = 20.0;
  DriverRun run(c);
  ASSERT_TRUE(run.Acquire(40));
  const int blocks = DriverRun::BlocksOf(60.0);
  for (int i = 0; i < blocks; ++i) {
    run.Feed();
    ASSERT_EQ(SyncDriverBlockState(), BLOCK_TRACKING) << "block " << i << ", symbol " << engine.symbolCount;
  }
}

// The channel watch from the settle count on, Mode 3: on a channel of static echoes inside the
// guard interval it turns CHANNEL_SLOW once 128 symbols were judged steady; under Rayleigh fading
// on the typical-urban profile at 20 to 40 Hz the lagged pilots decorrelate and it stays
// CHANNEL_FAST. Either way the equalised QPSK carriers stay well inside their decision regions
// (the boundary is 0.707 from each point, -3 dB in squared distance).
TEST(DriverTracking, ChannelWatchOnStaticEchoesAndUnderFading) {
  struct Case {
    const char* name;
    std::vector<sim::EchoPath> echoes;
    double dopplerHz;
    int expected;
  };
  const Case cases[] = {
      {"static echoes", {sim::EchoPath{12.0, -6.0, 40.0}, sim::EchoPath{45.0, -12.0, 200.0}}, 0.0, CHANNEL_SLOW},
      {"TU6 20 Hz", {}, 20.0, CHANNEL_FAST},
      {"TU6 40 Hz", {}, 40.0, CHANNEL_FAST},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    Broadcast c;
    c.mode = 2;
    c.guard = 2;
    c.modulation = 1;
    c.cnDb = 25.0;
    c.echoes = k.echoes;
    c.dopplerHz = k.dopplerHz;
    DriverRun run(c);
    ASSERT_TRUE(run.Acquire(40));
    const int32_t settle = engine.settleSymbols;
    // In Mode 3 the settle count (4080) falls before the timing loop's stage 1 (5000); until then
    // the loop steps at most every eight symbols, the jump age seldom returns to 0, and the
    // 12-symbol lag is measured only now and then: its average takes hundreds of symbols to rise.
    const int32_t steadyFrom = std::max(settle, 5000);
    int32_t firstSlow = -1;
    double errorSum = 0.0;
    int measured = 0, clean = 0;
    while (engine.symbolCount < steadyFrom + 400) {
      run.Feed();
      ASSERT_EQ(SyncDriverBlockState(), BLOCK_TRACKING) << "symbol " << engine.symbolCount;
      if (engine.symbolCount >= settle && engine.channelState == CHANNEL_SLOW && firstSlow < 0)
        firstSlow = engine.symbolCount;
      if (engine.symbolCount > 100) {  // one symbol per block
        const double e = DecisionErrorDb();
        errorSum += e;
        clean += e < -8.0 ? 1 : 0;
        ++measured;
      }
    }
    SCOPED_TRACE(::testing::Message() << "first seen slow at symbol " << firstSlow << ", decision error mean "
                                      << errorSum / measured << " dB, " << clean << " of " << measured
                                      << " symbols below -8 dB; lag averages " << tracker.lagTapAvg[0] << ", "
                                      << tracker.lagTapAvg[1] << ", " << tracker.lagTapAvg[2]);
    EXPECT_EQ(engine.channelState, k.expected);
    if (k.expected == CHANNEL_SLOW) {
      EXPECT_GE(firstSlow, settle + 128);
    } else {
      EXPECT_EQ(firstSlow, -1);
    }
    // A deep fade of the whole segment spoils a symbol now and then; the mean and four symbols
    // in five stay well inside.
    EXPECT_LT(errorSum / measured, -12.0);
    EXPECT_GE(clean, measured * 4 / 5);
  }
}

}  // namespace
}  // namespace zfn
