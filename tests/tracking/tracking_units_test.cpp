// Unit cases of the tracking stage: slicers on their boundaries, interpolation against the direct
// convolution, the equaliser's walk over the data carriers, the timing gate,
// the clock decision, the low-SNR and channel watches, the loop's smallest step, and bad input.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>
#include <random>
#include <vector>

#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/slicers.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

// Slicer levels: boundaries belong to the inner level on the positive side and to the outer one on
// the negative side; the real 16QAM outer level carries its own last digit.
TEST(Slicers, BoundariesAreOneSided) {
  EXPECT_EQ(SliceQpsk(0.0f), -0.707107f);
  EXPECT_EQ(SliceQpsk(-0.0f), -0.707107f);
  EXPECT_EQ(SliceQpsk(1e-30f), 0.707107f);
  EXPECT_EQ(SliceQpsk(-5.0f), -0.707107f);
  const float b16 = 0.6324555f;
  const struct {
    float v;
    bool realPart;
    float level;
  } qam16[] = {{0.0f, true, -0.3162278f},  {-b16, true, -0.3162278f}, {std::nextafter(-b16, -1.0f), true, -0.9486832f},
               {b16, true, 0.3162278f},    {std::nextafter(b16, 1.0f), true, 0.9486833f},
               {std::nextafter(b16, 1.0f), false, 0.9486832f}, {1e-20f, false, 0.3162278f}};
  for (const auto& c : qam16) EXPECT_EQ(SliceQam16(c.v, c.realPart), c.level) << "v = " << c.v;
  const float bounds[3] = {0.3086067f, 0.6172134f, 0.9258201f};
  const float levels[4] = {0.15430335f, 0.46291f, 0.77151675f, 1.08012345f};
  EXPECT_EQ(SliceQam64(0.0f), -levels[0]);
  EXPECT_EQ(SliceQam64(1e-20f), levels[0]);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(SliceQam64(bounds[i]), levels[i]) << i;
    EXPECT_EQ(SliceQam64(std::nextafter(bounds[i], 2.0f)), levels[i + 1]) << i;
    EXPECT_EQ(SliceQam64(-bounds[i]), -levels[i]) << i;
    EXPECT_EQ(SliceQam64(std::nextafter(-bounds[i], -2.0f)), -levels[i + 1]) << i;
  }
}

// The i-th tap of a pair as designed: the 22-tap prototype moved to delay d.
std::complex<double> DesignedTap(int i, double d) {
  static const double proto[22] = {
      0.00423477171, -0.00729786139, 0.0114604617, -0.017027922, 0.0244664252, -0.0345678665,
      0.0488457084,  -0.0706450343,  0.109106451,  -0.200961366, 0.824599922,  0.412442684,
      -0.160936832,  0.0956356823,   -0.0643827766, 0.0455048978, -0.0326677859, 0.0233595725,
      -0.0163860545, 0.0110998377,   -0.00710848952, 0.00414792122};
  return proto[i] * std::polar(1.0, -6.283185307179 * d * (31 - 3 * i));
}

// Interpolation through the transform domain equals the direct 22-tap convolution of each pair.
TEST(Interpolation, TransformDomainEqualsDirectConvolution) {
  const float delays[INTERP_PAIRS] = {0.1666667f, 0.20833333f, 0.125f, 0.25f, 0.08333333f};
  for (int mode = 0; mode < 3; ++mode) {
    test::PrepareEngine(mode, 1, 2);
    engine.symbolCount = 8;
    const int n = engine.nspan / 3, nc = engine.ncarrier, go = tracker.gridOffset;
    std::mt19937 rng(7 + mode);
    std::normal_distribution<float> g(0.0f, 1.0f);
    for (int q = 0; q < INTERP_PAIRS; ++q) {
      tracker.interpBankLow = tracker.interpLow + q * INTERP_BLOCK * 2;
      tracker.interpBankHigh = tracker.interpHigh + q * INTERP_BLOCK * 2;
      std::vector<std::complex<double>> row(n);
      for (int m = 0; m < n; ++m) {
        row[m] = {g(rng), g(rng)};
        tracker.interpRow[2 * m] = static_cast<float>(row[m].real());
        tracker.interpRow[2 * m + 1] = static_cast<float>(row[m].imag());
      }
      InterpolateChannel();
      const auto plane = [nc](int c) { return std::complex<double>(tracker.channelPlanes[c], tracker.channelPlanes[nc + c]); };
      for (int i = 0; i < 4 * engine.ngrid; ++i) {
        std::complex<double> low = 0.0, high = 0.0;
        for (int l = 0; l < 22; ++l) {
          // Taps weight row entries go + i - 10 + l; 0.8246 lands on go + i, 0.4124 on go + i + 1.
          low += DesignedTap(l, delays[q]) * row[go + i - 10 + l];
          high += std::conj(DesignedTap(l, delays[q])) * row[go + i + 11 - l];
        }
        SCOPED_TRACE(::testing::Message() << "mode " << mode << " pair " << q << " i " << i);
        ASSERT_NEAR(std::abs(plane(3 * i) - row[go + i]), 0.0, 1e-6);
        ASSERT_NEAR(std::abs(plane(3 * i + 1) - low), 0.0, 2e-5);
        ASSERT_NEAR(std::abs(plane(3 * i + 2) - high), 0.0, 2e-5);
      }
    }
  }
}

// Each carrier of the oldest slot carries its own number; the output must be exactly the data
// carriers in ascending order (no pilot, no fixed carrier), and nothing beyond ndata may be written.
TEST(Equaliser, TakesExactlyTheDataCarriersInEveryModeAndPilotPhase) {
  for (int mode = 0; mode < 3; ++mode) {
    for (int s = 0; s < 4; ++s) {
      SCOPED_TRACE(::testing::Message() << "mode " << mode + 1 << " pilot phase " << s);
      test::PrepareEngine(mode, 0, 4);
      engine.symbolCount = 8;
      engine.spPhase = (s + 3) % 4;  // the oldest symbol has the pilot phase one ahead
      float* slot = tracker.carrierRing + tracker.carrierRingNext * tracker.carrierRingStride;
      for (int e = 0; e < engine.nspan; ++e) {
        slot[2 * e] = static_cast<float>(e - tracker.segmentOffset);
        slot[2 * e + 1] = 0.5f;
      }
      for (int c = 0; c < engine.ncarrier; ++c) {
        tracker.channelPlanes[c] = 1.0f;
        tracker.channelPlanes[engine.ncarrier + c] = 0.0f;
      }
      const int ndata = engine.ndata;
      for (int i = 0; i < 2 * ndata; ++i) tracker.spareCarriers[i] = -7.0f;
      EqualiseCarriers();
      const std::vector<int> want = test::DataCarriers(mode, s);
      ASSERT_EQ(static_cast<int>(want.size()), ndata);
      for (int k = 0; k < ndata; ++k) {
        ASSERT_EQ(engine.equalisedCarriers[2 * k], static_cast<float>(want[k])) << "k " << k;
        ASSERT_EQ(engine.equalisedCarriers[2 * k + 1], 0.5f);
      }
      for (int i = 0; i < 2 * ndata; ++i) ASSERT_EQ(tracker.spareCarriers[i], -7.0f);
    }
  }
}

TEST(TimingGate, DeadZoneCases) {
  const struct {
    float early, late;
    int32_t maxStep, deadZone, step;
  } cases[] = {
      {5.0f, 5.0f, 1, 0, 0},          // K = 0: both sides the same entry
      {1.0f, 1.05f, 1, 0, 0},         // g = 0 with dead zone 0 and step 1
      {0.19f, 0.0f, 1, 0, 1},         // truncation toward zero
      {0.0f, 0.19f, 1, 0, -1},
      {0.1f, 0.0f, 1, 1, 1},          // dead zone 1 and step 1: g of 1 steps
      {0.1f, 0.0f, 2, 1, 0},          // step 2: g of 1 gives none, g of 2 the full step
      {0.0f, 0.1f, 2, 1, 0},
      {0.2f, 0.0f, 2, 1, 2},
      {0.0f, 0.2f, 2, 1, -2},
      {0.1f, 0.0f, 2, 2, 2},          // dead zone at or above the step size is ignored
      {0.0f, 0.5f, 2, 7, -2},
      {1e30f, 0.0f, 3, 0, 3},         // beyond the integer range and NaN stay defined
      {0.0f, 1e30f, 3, 0, -3},
      {std::nanf(""), 0.0f, 3, 0, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DecideTimingStep(c.early, c.late, 10.0f, c.maxStep, c.deadZone), c.step)
        << c.early << " " << c.late << " " << c.maxStep << " " << c.deadZone;
  }
}

// The clock statistic over one tracking run (Mode 3, 1280 samples per symbol) with a step every
// `every1` symbols in the first span and `every2` in the second: two spans that agree within 15
// percent and lie above 15 ppm are applied (one sample per 40 symbols is 19.5 ppm).
TEST(ClockOffset, AgreeingSpansAboveFifteenPpmAreApplied) {
  test::PrepareNumerology(2, 3);
  const struct {
    int every1, every2, sign;
    bool applied;
  } cases[] = {{40, 40, -1, true}, {40, 60, 1, false}, {40, 30, 1, true}, {30, 60, 1, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.every1 << ", " << c.every2);
    engine.clockWritePending = 0;
    tracker.clockDriftSum = 0.0f;
    const int frames = engine.clockFrames;
    for (int count = 0; count <= 1020 * frames; ++count) {
      engine.symbolCount = count;
      const int every = count < 612 * frames ? c.every1 : c.every2;
      engine.timingStep = (count % every == 0) ? c.sign : 0;
      MeasureClockOffset();
    }
    const float first = c.sign * 1e6f / (c.every1 * 1280.0f), second = c.sign * 1e6f / (c.every2 * 1280.0f);
    EXPECT_NEAR(tracker.clockPpmFirst, first, 0.5f);
    EXPECT_NEAR(tracker.clockPpmSecond, second, 0.5f);
    EXPECT_EQ(engine.clockWritePending, c.applied ? 1 : 0);
    if (c.applied) {
      EXPECT_NEAR(tracker.clockPpmApplied, (first + second) / 2, 0.5f);
    } else {
      EXPECT_EQ(tracker.clockPpmApplied, 0.0f);
    }
  }
}

TEST(LowSnrWatch, CountsAndBoundaries) {
  test::PrepareEngine(0, 0, 2);
  engine.decodeStage = DECODE_EARLY;
  const auto watch = [](int32_t symbol, float snr, int times = 1) {
    engine.symbolCount = symbol;
    engine.snrDb = snr;
    for (int i = 0; i < times; ++i) WatchLowSnr();
  };
  watch(50, 0.0f);
  EXPECT_EQ(tracker.snrLowCount, 0);  // 50 is not yet watched
  watch(51, 2.0f);
  watch(51, 4.0f);
  EXPECT_EQ(tracker.snrLowCount, 0);
  EXPECT_EQ(tracker.snrHighCount, 0);
  // 19 high ones, then 101 low ones: the mark is set; then a 20th high clears the counters only.
  watch(51, 4.5f, 19);
  watch(51, 1.0f, 100);
  EXPECT_EQ(engine.snrFailed, 0);
  watch(51, 1.0f);
  EXPECT_EQ(engine.snrFailed, 1);
  watch(51, 10.0f);
  EXPECT_EQ(tracker.snrLowCount, 0);
  EXPECT_EQ(tracker.snrHighCount, 0);
  EXPECT_EQ(engine.snrFailed, 1);
  engine.decodeStage = DECODE_SCAN;  // not watched outside the early decode stage
  watch(51, 1.0f);
  EXPECT_EQ(tracker.snrLowCount, 0);
}

// Pilot history rows that do not change turn a fast channel slow at exactly the 128th good symbol;
// pilots that change completely from symbol to symbol (every lag regresses to 0) turn a slow one
// fast after ten.
TEST(ChannelWatch, SlowAfter128GoodSymbolsFastAfterTenBad) {
  test::PrepareEngine(2, 2, 2);
  const int groups = engine.nspanGrid;
  for (int r = 0; r < PILOT_HISTORY_ROWS; ++r) {
    float* row = tracker.pilotHistory + r * tracker.pilotHistoryStride;
    for (int p = 0; p < groups; ++p) {
      row[p] = (p % 3 == 0) ? 1.0f : -0.5f;
      row[groups + p] = (p % 2 == 0) ? 0.5f : 0.8f;
    }
  }
  const auto next = [] {
    tracker.pilotHistorySlot = (tracker.pilotHistorySlot + 1) % PILOT_HISTORY_ROWS;
    tracker.pilotHistoryNow = tracker.pilotHistory + tracker.pilotHistorySlot * tracker.pilotHistoryStride;
  };
  engine.channelState = CHANNEL_FAST;
  tracker.jumpAge = 0;
  int good = 0;
  for (int calls = 0; engine.channelState == CHANNEL_FAST && calls < 5000; ++calls) {
    next();
    const int goodBefore = tracker.watchGood;
    WatchChannelChange();
    if (engine.channelState == CHANNEL_FAST) {
      good = tracker.watchGood;
      EXPECT_GE(good, goodBefore);
    }
  }
  EXPECT_EQ(engine.channelState, CHANNEL_SLOW);
  EXPECT_EQ(tracker.channelStatePrev, CHANNEL_FAST);
  EXPECT_EQ(good, 127);  // the 128th good symbol made the change
  EXPECT_EQ(tracker.watchGood, 0);
  EXPECT_EQ(tracker.watchBad, 0);
  EXPECT_EQ(tracker.smoothNew, engine.mixWeightSlow);
  EXPECT_EQ(tracker.smoothOld, 1.0f - engine.mixWeightSlow);
  for (int l = 0; l < 3; ++l) {
    EXPECT_GT(tracker.lagTapAvg[l], 0.5f);
    EXPECT_LE(tracker.lagTap[l], 1.0f);
  }

  // From a fresh start (lag averages at 0) on a slow channel.
  test::PrepareEngine(2, 2, 2);
  engine.channelState = CHANNEL_SLOW;
  tracker.jumpAge = 0;
  std::mt19937 rng(3);
  std::normal_distribution<float> g(0.0f, 1.0f);
  for (int i = 0; i < 10; ++i) {
    next();
    for (int p = 0; p < 2 * groups; ++p) tracker.pilotHistoryNow[p] = g(rng);
    EXPECT_EQ(engine.channelState, CHANNEL_SLOW);
    WatchChannelChange();
  }
  EXPECT_EQ(engine.channelState, CHANNEL_FAST);
  EXPECT_EQ(tracker.smoothNew, engine.mixWeightFast);
  EXPECT_EQ(tracker.watchBad, 0);
}

// The loop's smallest step is one sample (Mode 1, guard 1/32: floor(8/32) = 0 is raised to 1); then
// samples that are not numbers, and stage values from a parameter file out of all range: tracking
// goes on without a crash, a hang or a step outside the buffer.
TEST(BadInput, SmallestStepNonFiniteSamplesAndAbsurdStageValues) {
  test::PrepareEngine(0, 0, 2);
  test::BroadcastStream clean(0, 0, 2, sim::ChannelConfig{});
  test::SymbolWalker(clean, 4).Step();
  EXPECT_EQ(tracker.timingSpan, 1);
  EXPECT_EQ(tracker.timingMaxStep, 1);
  EXPECT_EQ(tracker.timingPeriod, 8);
  EXPECT_EQ(tracker.timingDeadZone, 0);

  test::PrepareEngine(0, 2, 2);
  engine.stageSpanFraction[0] = std::numeric_limits<float>::infinity();
  engine.stageStepFraction[0] = 1e30f;
  engine.stageUpdatePeriod[0] = 0;
  test::BroadcastStream stream(0, 2, 2, sim::ChannelConfig{});
  test::SymbolWalker walker(stream, 4);
  walker.Step();
  EXPECT_EQ(tracker.timingSpan, engine.nmargin);
  EXPECT_EQ(tracker.timingMaxStep, engine.nguard);
  walker.Run(20);
  const float bad[2] = {std::nanf(""), std::numeric_limits<float>::infinity()};
  for (int i = 0; i < 40; ++i) {
    for (int k = 0; k < 2 * engine.nwork; ++k) engine.symbolBuffer[k] = bad[(i + k) & 1];
    ProcessSymbol();
    EXPECT_EQ(engine.timingStep, 0);  // no period: no step
    engine.symbolIndex = (engine.symbolIndex + 1) % 204;
    engine.spPhase = (engine.spPhase + 1) % 4;
  }
  EXPECT_GE(engine.ncoPhase, 0.0f);
  EXPECT_LT(engine.ncoPhase, 6.2831855f);
}

}  // namespace
}  // namespace zfn
