// Unit cases of the tracking stage where an end-to-end run cannot point at the fault: slicers on
// their boundaries, interpolation against the direct convolution, the timing gate, the clock
// decision, the low-SNR and channel watches, a forced timing jump on our transmitter's broadcast
// walked symbol by symbol, and bad input.
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

// Boundaries belong to the inner level on the positive side and to the outer one on the negative
// side; the real 16QAM outer level carries its own last digit.
TEST(Slicers, BoundariesAreOneSided) {
  const float b16 = 0.6324555f, up = std::nextafter(b16, 1.0f);
  const float qpsk[][2] = {{0.0f, -0.707107f}, {-0.0f, -0.707107f}, {1e-30f, 0.707107f}, {-5.0f, -0.707107f}};
  for (const auto& c : qpsk) EXPECT_EQ(SliceQpsk(c[0]), c[1]) << c[0];
  const float qam16[][3] = {{0.0f, 1, -0.3162278f}, {-b16, 1, -0.3162278f}, {std::nextafter(-b16, -1.0f), 1, -0.9486832f},
                            {b16, 1, 0.3162278f},   {up, 1, 0.9486833f},    {up, 0, 0.9486832f}, {1e-20f, 0, 0.3162278f}};
  for (const auto& c : qam16) EXPECT_EQ(SliceQam16(c[0], c[1] != 0), c[2]) << c[0];
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

// Interpolation through the transform domain equals the direct convolution of each pair: the
// 22-tap prototype moved to the pair's delay centre.
TEST(Interpolation, TransformDomainEqualsDirectConvolution) {
  static const double proto[22] = {0.00423477171, -0.00729786139, 0.0114604617, -0.017027922, 0.0244664252, -0.0345678665,
                                   0.0488457084,  -0.0706450343,  0.109106451,  -0.200961366, 0.824599922,  0.412442684,
                                   -0.160936832,  0.0956356823,   -0.0643827766, 0.0455048978, -0.0326677859, 0.0233595725,
                                   -0.0163860545, 0.0110998377,   -0.00710848952, 0.00414792122};
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
      const auto tap = [&](int l) { return proto[l] * std::polar(1.0, -6.283185307179 * delays[q] * (31 - 3 * l)); };
      for (int i = 0; i < 4 * engine.ngrid; ++i) {
        std::complex<double> low = 0.0, high = 0.0;
        for (int l = 0; l < 22; ++l) {  // 0.8246 lands on go + i, 0.4124 on go + i + 1
          low += tap(l) * row[go + i - 10 + l];
          high += std::conj(tap(l)) * row[go + i + 11 - l];
        }
        SCOPED_TRACE(::testing::Message() << "mode " << mode << " pair " << q << " i " << i);
        ASSERT_NEAR(std::abs(plane(3 * i) - row[go + i]), 0.0, 1e-6);
        ASSERT_NEAR(std::abs(plane(3 * i + 1) - low), 0.0, 2e-5);
        ASSERT_NEAR(std::abs(plane(3 * i + 2) - high), 0.0, 2e-5);
      }
    }
  }
}

TEST(TimingGate, DeadZoneCases) {
  const struct {
    float early, late;
    int32_t maxStep, deadZone, step;
  } cases[] = {
      {5.0f, 5.0f, 1, 0, 0},   {1.0f, 1.05f, 1, 0, 0},  // K = 0: both sides the same entry; g = 0
      {0.19f, 0.0f, 1, 0, 1},  {0.0f, 0.19f, 1, 0, -1}, // truncation toward zero
      {0.1f, 0.0f, 1, 1, 1},                            // dead zone 1 and step 1: g of 1 steps
      {0.1f, 0.0f, 2, 1, 0},   {0.0f, 0.1f, 2, 1, 0},   // step 2: g of 1 gives none, g of 2 the full step
      {0.2f, 0.0f, 2, 1, 2},   {0.0f, 0.2f, 2, 1, -2},
      {0.1f, 0.0f, 2, 2, 2},   {0.0f, 0.5f, 2, 7, -2},  // a dead zone at or above the step size is ignored
      {1e30f, 0.0f, 3, 0, 3},  {0.0f, 1e30f, 3, 0, -3}, {std::nanf(""), 0.0f, 3, 0, 0},  // stay defined
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DecideTimingStep(c.early, c.late, 10.0f, c.maxStep, c.deadZone), c.step)
        << c.early << " " << c.late << " " << c.maxStep << " " << c.deadZone;
  }
}

// The clock statistic of Mode 3 (1280 samples per symbol, frames of four) with a step every
// `every1` symbols in the first span (symbols 816 to 2448) and `every2` in the second (to 4080): two
// spans that agree within 15 percent and lie above 15 ppm are applied at symbol 4080 exactly (one
// sample per 40 symbols is 19.5 ppm).
TEST(ClockOffset, AgreeingSpansAboveFifteenPpmAreAppliedAtTheEndOfTheSecondSpan) {
  test::PrepareNumerology(2, 3);
  const struct {
    int every1, every2, sign;
    bool applied;
  } cases[] = {{40, 40, -1, true}, {40, 60, 1, false}, {40, 30, 1, true}, {30, 60, 1, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.every1 << ", " << c.every2);
    engine.clockWritePending = 0;
    tracker.clockDriftSum = 0.0f;
    for (int count = 0; count <= 4080; ++count) {
      EXPECT_EQ(engine.clockWritePending, 0) << count;
      engine.symbolCount = count;
      engine.timingStep = (count % (count < 2448 ? c.every1 : c.every2) == 0) ? c.sign : 0;
      MeasureClockOffset();
    }
    const float first = c.sign * 1e6f / (c.every1 * 1280.0f), second = c.sign * 1e6f / (c.every2 * 1280.0f);
    EXPECT_NEAR(tracker.clockPpmFirst, first, 0.5f);
    EXPECT_NEAR(tracker.clockPpmSecond, second, 0.5f);
    EXPECT_EQ(engine.clockWritePending, c.applied ? 1 : 0);
    EXPECT_NEAR(tracker.clockPpmApplied, c.applied ? (first + second) / 2 : 0.0f, 0.5f);
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
  EXPECT_EQ(tracker.snrLowCount + tracker.snrHighCount, 0);
  // 19 high ones, then 101 low ones: the mark is set; then a 20th high clears the counters only.
  watch(51, 4.5f, 19);
  watch(51, 1.0f, 100);
  EXPECT_EQ(engine.snrFailed, 0);
  watch(51, 1.0f);
  EXPECT_EQ(engine.snrFailed, 1);
  watch(51, 10.0f);
  EXPECT_EQ(tracker.snrLowCount + tracker.snrHighCount, 0);
  EXPECT_EQ(engine.snrFailed, 1);
  engine.decodeStage = DECODE_SCAN;  // not watched outside the early decode stage
  watch(51, 1.0f);
  EXPECT_EQ(tracker.snrLowCount, 0);
}

// Pilot history rows that do not change turn a fast channel slow at exactly the 128th good symbol;
// pilots that change completely from symbol to symbol turn a slow one fast after ten.
TEST(ChannelWatch, SlowAfter128GoodSymbolsFastAfterTenBad) {
  const auto next = [] {
    tracker.pilotHistorySlot = (tracker.pilotHistorySlot + 1) % PILOT_HISTORY_ROWS;
    tracker.pilotHistoryNow = tracker.pilotHistory + tracker.pilotHistorySlot * tracker.pilotHistoryStride;
  };
  for (const int32_t from : {CHANNEL_FAST, CHANNEL_SLOW}) {
    SCOPED_TRACE(from);
    test::PrepareEngine(2, 2, 2);
    const int groups = engine.nspanGrid;
    for (int r = 0; r < PILOT_HISTORY_ROWS; ++r) {
      for (int p = 0; p < groups; ++p) {
        tracker.pilotHistory[r * tracker.pilotHistoryStride + p] = (p % 3 == 0) ? 1.0f : -0.5f;
        tracker.pilotHistory[r * tracker.pilotHistoryStride + groups + p] = (p % 2 == 0) ? 0.5f : 0.8f;
      }
    }
    engine.channelState = from;
    tracker.jumpAge = 0;
    std::mt19937 rng(3);
    std::normal_distribution<float> g(0.0f, 1.0f);
    int calls = 0, goodBefore = 0;
    for (; engine.channelState == from && calls < 5000; ++calls) {
      next();
      goodBefore = tracker.watchGood;
      if (from == CHANNEL_SLOW)
        for (int p = 0; p < 2 * groups; ++p) tracker.pilotHistoryNow[p] = g(rng);
      WatchChannelChange();
    }
    EXPECT_EQ(from == CHANNEL_FAST ? goodBefore : calls, from == CHANNEL_FAST ? 127 : 10);
    EXPECT_EQ(tracker.channelStatePrev, from);
    EXPECT_EQ(tracker.watchGood + tracker.watchBad, 0);
    const float weight = from == CHANNEL_FAST ? engine.mixWeightSlow : engine.mixWeightFast;
    EXPECT_EQ(tracker.smoothNew, weight);
    EXPECT_EQ(tracker.smoothOld, 1.0f - weight);
  }
}

// A forced step of the read position in the steady state (Mode 2, 16QAM, a static echo), after a
// symbol from which a step can take effect:
// - without carrier offset, steps of +-2: the estimator derotates the pilots of the four symbols read
//   at the new position back to the old timing, re-bases its rows at the fourth, and the equalised
//   carriers stay clean all the way through; the frequency loop rests in the first symbol;
// - under a 20 kHz carrier offset (the rotator turning 0.12 rad per sample), steps of +-6: the
//   rotator's phase moves on by the skipped or repeated samples, so the rotated samples of the new
//   position continue those of the old one. A phase error of the step (0.74 rad here) would show in
//   the symbols equalised across the jump: about -17 dB on average and -15 dB at worst here; with the
//   phase left behind, -14 dB and -10.5 dB.
TEST(TimingJump, PhaseContinuesAndTheEstimatorIsRebased) {
  constexpr double OFFSET_HZ = 20000.0, TWO_PI = 6.283185307179;
  for (int step : {2, -2, 6, -6}) {
    const bool offset = std::abs(step) == 6;
    SCOPED_TRACE(::testing::Message() << "step " << step);
    test::PrepareEngine(1, 2, 4);
    sim::ChannelConfig channel;
    channel.carrierOffsetHz = offset ? OFFSET_HZ : 0.0;
    channel.echoes = {sim::EchoPath{8.0, -10.0, 40.0}};
    test::BroadcastStream stream(1, 2, 4, channel);
    if (offset) engine.ncoStep = static_cast<float>(-TWO_PI * OFFSET_HZ / (64e6 / 63.0));
    test::SymbolWalker walker(stream, 4);
    walker.Run(60);
    while ((engine.symbolIndex + 1) % 8 != 0) walker.Step();
    walker.StepWithForcedTiming(step);
    const double phase = engine.ncoPhase;
    const float ncoStep = engine.ncoStep;
    walker.StepWithForcedTiming(0);
    EXPECT_EQ(engine.ncoStep, ncoStep) << "the frequency loop rests in the first symbol";
    if (offset) {  // symbol n0: the step's samples, then the symbol's, at an unchanged frequency
      double expected = std::fmod(phase + (step + engine.nsymbol) * static_cast<double>(ncoStep), TWO_PI);
      EXPECT_NEAR(engine.ncoPhase, expected < 0.0 ? expected + TWO_PI : expected, 2e-3);
    }
    // The equalised symbols from the jump to seven after it.
    double sum = 0.0, worst = -100.0;
    for (int i = 0; i < 8; ++i) {
      const double e = test::DecisionErrorDb();
      sum += e;
      worst = std::max(worst, e);
      walker.StepWithForcedTiming(0);
    }
    EXPECT_LT(sum / 8.0, offset ? -16.0 : -18.0);
    EXPECT_LT(worst, offset ? -13.5 : -18.0);
  }
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
