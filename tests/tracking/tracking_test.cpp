// The tracking stage. Unit cases where an end-to-end run cannot point at the fault: slicers on their
// boundaries, interpolation against the direct convolution, the timing gate, the clock decision, the
// low-SNR and channel watches, a forced timing jump on our transmitter's broadcast walked symbol by
// symbol, and bad input. Then our transmitter's broadcast through the synchronous driver: device
// bytes of the whole chain (segments 3, 1, 0, 2, 4, channel, quantiser) into the engine's block
// state machine, from acquisition into tracking and on: snrDb against C/N, the frequency and timing
// loops with the clock decision, the channel watch on static echoes and under fading, and when each
// of them starts.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <limits>
#include <random>
#include <vector>

#include "frontend/device_binding.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "shell/sync_driver.h"
#include "simulator/transmitter.h"
#include "tracking/slicers.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

// Boundaries belong to the inner level on the positive side and to the outer one on the negative
// side; the real 16QAM outer level carries its own last digit.
TEST(Slicers, BoundariesAreOneSided) {
  const float b16 = 0.6324555f, up = std::nextafter(b16, 1.0f);
  const float qpsk[][2] = {{0.0f, -0.707107f}, {-0.0f, -0.707107f}, {1e-30f, 0.707107f}, {-5.0f, -0.707107f}, {NAN, 0.707107f}};
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
      PlaceChannelOnPlanes();
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
    EXPECT_EQ((std::array{tracker.channelStatePrev, tracker.watchGood, tracker.watchBad}), (std::array{from, 0, 0}));
    const float weight = from == CHANNEL_FAST ? engine.mixWeightSlow : engine.mixWeightFast;
    EXPECT_EQ((std::array{tracker.smoothNew, tracker.smoothOld}), (std::array{weight, 1.0f - weight}));
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
  EXPECT_EQ((std::array{tracker.timingSpan, tracker.timingMaxStep, tracker.timingPeriod, tracker.timingDeadZone}),
            (std::array{1, 1, 8, 0}));

  test::PrepareEngine(0, 2, 2);
  engine.stageSpanFraction[0] = std::numeric_limits<float>::infinity();
  engine.stageStepFraction[0] = 1e30f;
  engine.stageUpdatePeriod[0] = 0;
  test::BroadcastStream stream(0, 2, 2, sim::ChannelConfig{});
  test::SymbolWalker walker(stream, 4);
  walker.Step();
  EXPECT_EQ((std::array{tracker.timingSpan, tracker.timingMaxStep}), (std::array{engine.nmargin, engine.nguard}));
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

using test::DriverRun;

// White noise at `cnDb` over segment 0 (none at 0), and a broadcast of code rate 2/3 and time
// interleaving 2 (receiver numbering: mode 0..2, guard 0..3; modulation: TMCC code, 1 is QPSK).
sim::ChannelConfig Channel(double cnDb = 0.0) {
  sim::ChannelConfig ch;
  ch.noise = cnDb > 0;
  ch.cnDb = cnDb;
  ch.seed = 6;
  return ch;
}

sim::BroadcastConfig Layer(int mode) {
  return {.mode = mode + 1, .guard = 2, .modulation = 1, .codeRate = 1, .interleave = 2, .seed = 5};
}

// snrDb against the C/N of the broadcast over segment 0. The device filter keeps out the noise that
// would fold onto the segment when every second device sample is dropped, so it reads below C/N by
// the noise of the channel estimate (1 to 2 dB; near 4 dB at 25 dB, where the neighbour carriers
// that the device filter lets fold beside the segment begin to count), and rises with C/N.
TEST(DriverTracking, SnrFollowsCarrierToNoise) {
  double last = -100.0;
  for (double cn = 5.0; cn <= 25.0; cn += 5.0) {
    DriverRun run(Layer(2), Channel(cn));
    ASSERT_TRUE(run.Acquire(40));
    double sum = 0.0;
    for (int i = 0; i < 6; ++i, sum += engine.snrDb) run.Feed();
    const double snr = sum / 6.0;
    SCOPED_TRACE(::testing::Message() << "C/N " << cn << " snrDb " << snr);
    EXPECT_GT(snr, cn - 4.5);
    EXPECT_LT(snr, cn);
    EXPECT_GT(snr, last + 2.5);
    last = snr;
  }
}

// The device clock off by `ppm` over a whole tracking run in Mode 1, guard 1/8, which reaches both
// events soonest: the change of the loop's stage at symbol 5000 (period 8 to 32) after 1.4 s and the
// clock decision at symbol 1020 * 16 = 16320 after 4.6 s of signal; from there nothing in the loop
// changes with the symbol count, so six seconds cover every state of the loop that a minute does.
// The span stays inside the guard interval block after block, the decision comes at its symbol with
// the true offset, and the packet statistics restart every 17 frames. The driver binds no device
// library: the correction is written into nothing (the front end reports a failed access, which the
// tracker ignores), so the loop must go on following the whole offset.
void ExpectClockOffsetFollowed(double ppm, double seconds) {
  SCOPED_TRACE(::testing::Message() << ppm << " ppm");
  sim::ChannelConfig ch = Channel(20.0);
  ch.clockPpm = ppm;
  DriverRun run(Layer(0), ch);
  ASSERT_TRUE(run.Acquire(40));
  EXPECT_EQ(deviceBinding.Demod_Byte_Write, nullptr);
  engine.clockWritePending = 0;
  double lowest = 1e9, highest = -1e9;  // span start within the symbol, samples
  float snrMin = 1e9f;
  for (int i = 0; i < DriverRun::BlocksOf(seconds); ++i) {
    run.Feed();
    ASSERT_EQ(SyncDriverBlockState(), BLOCK_TRACKING) << "block " << i << ", symbol " << engine.symbolCount;
    const double offset = run.SpanOffset(ppm);
    lowest = std::min(lowest, offset);
    highest = std::max(highest, offset);
    if (engine.symbolCount > 16380) snrMin = std::min(snrMin, engine.snrDb.load());
    EXPECT_TRUE(engine.symbolCount >= 16320 || engine.clockWritePending == 0) << engine.symbolCount;
    EXPECT_EQ(engine.statNextSymbol % (17 * 204), 0) << engine.statNextSymbol;
    EXPECT_GT(engine.statNextSymbol + 17 * 204, engine.symbolCount);
  }
  SCOPED_TRACE(::testing::Message() << "span " << lowest << " .. " << highest << ", estimates " << tracker.clockPpmFirst
                                    << ", " << tracker.clockPpmSecond << ", applied " << tracker.clockPpmApplied);
  EXPECT_GT(engine.symbolCount, 19000);
  EXPECT_GE(lowest, 0.0);
  EXPECT_LT(highest, engine.nguard);
  EXPECT_EQ(tracker.timingPeriod, 32);
  // A span's estimate is off by the span's own movement inside the guard interval over the span
  // (up to about ten ppm, the loop having no preferred place inside it); the applied value, their
  // mean, by the movement over both, here under 2 ppm.
  EXPECT_NEAR(tracker.clockPpmFirst, ppm, 10.0);
  EXPECT_NEAR(tracker.clockPpmSecond, ppm, 10.0);
  EXPECT_NEAR(tracker.clockPpmApplied, ppm, 4.0);
  EXPECT_EQ(engine.clockWritePending, 1);
  EXPECT_GT(snrMin, 10.0f);
}

TEST(DriverTracking, ClockOffsetFollowedThroughTheStagesAndEstimated) {
  for (double ppm : {30.0, -30.0}) ExpectClockOffsetFollowed(ppm, 6.0);
}

// Over a full minute of signal, a device clock 30 ppm slow is held too (checked with this function
// at 60 s: about 17 s of run time, too long for every build): the clock pushes the span toward the
// next symbol, and the late side of the gate, which sees that symbol at once, holds it inside the
// guard interval.
//
// Known to fail over a minute, kept to reproduce them (--gtest_also_run_disabled_tests):
// - Device clock fast (this case): the clock pushes the span toward the previous symbol. Once the
//   span starts there, the early side of the gate (a sliding transform) grows with the interference,
//   and so does the late side, whose multiplier -exp(+j theta) is not that of a sliding transform, so
//   that its sums add to the interference instead of taking it out: the late side reads larger, the
//   gate steps earlier still, and after about 30 s the span is 60 samples into the previous symbol
//   and the receiver resynchronises. The same broadcast with the conjugate multiplier exp(-j theta)
//   on the late side is held for the minute; other seeds of this broadcast are held with either.
// - No clock offset, Mode 1, guard 1/8: inside the guard interval the gate sees the same on both
//   sides, so the span wanders over the whole guard interval by steps of one sample. A pair passes a
//   path whose delay behind the span's start lies within 0.15 of the useful symbol of the pair's
//   delay centre: pair 1 (0.208) needs the path 15 samples or more behind, pair 3 (0.25) 26 or more,
//   pair 0 (0.167) 5 or more, while pairs 2 and 4 take any place in the guard interval. The scan
//   picks among the pairs that pass where the span happens to be; after a pick of pair 1 or 3 the
//   span wanders on towards the end of the guard interval, snrDb falls to 3-7 dB and the receiver
//   resynchronises (seeds 1 to 8 of `tracking_figures hold 1 2 120 20`: seven lost, after 6 to
//   94 s; `tracking_figures sweep 1 2` shows the pairs against the span's place). Refined
//   (ZFNISDBT_REFINED=1), the pair follows the channel's mean delay and seeds 1 to 4 hold 60 s.
// Refined, the late side is a sliding transform too: tracking holds for the minute, the span kept
// within a sample of the guard's start (at most 0.74 samples before it, which this check counts
// as outside).
TEST(DriverTracking, DISABLED_FastClockFollowedForAMinute) { ExpectClockOffsetFollowed(30.0, 60.0); }

// The channel watch of Mode 3, guard 1/8, switched on at symbol 4080 (the settle count): on a
// channel of static echoes inside the guard interval it turns CHANNEL_SLOW once 128 symbols were
// judged steady; under Rayleigh fading on the typical-urban profile at 20 to 40 Hz the lagged pilots
// decorrelate and it stays CHANNEL_FAST. Either way the equalised QPSK carriers stay well inside
// their decision regions (the boundary is 0.707 from each point, -3 dB in squared distance), and
// the packet statistics restart every four frames. Under a carrier offset, what acquisition leaves of
// it the frequency loop takes out within twelve blocks.
TEST(DriverTracking, ChannelWatchOnStaticEchoesAndUnderFading) {
  const struct {
    const char* name;
    std::vector<sim::EchoPath> echoes;
    double dopplerHz, offsetHz;
    int expected;
  } cases[] = {
      {"static echoes", {sim::EchoPath{12.0, -6.0, 40.0}, sim::EchoPath{45.0, -12.0, 200.0}}, 0.0, 1234.5, CHANNEL_SLOW},
      {"TU6 20 Hz", {}, 20.0, -3000.0, CHANNEL_FAST},
      {"TU6 40 Hz", {}, 40.0, 0.0, CHANNEL_FAST},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    sim::ChannelConfig ch = Channel(25.0);
    ch.echoes = k.echoes;
    ch.dopplerHz = k.dopplerHz;
    ch.carrierOffsetHz = k.offsetHz;
    DriverRun run(Layer(2), ch);
    ASSERT_TRUE(run.Acquire(40));
    // What acquisition leaves of the carrier offset (in carriers), the frequency loop takes out.
    const auto residual = [&] { return k.offsetHz * engine.nfft / (64e6 / 63.0) + engine.ncoStep * engine.nfft / 6.283185307179; };
    const double atEntry = residual();
    // The settle count (4080) falls before the timing loop's stage 1 (5000); until then the loop
    // steps at most every eight symbols, the jump age seldom returns to 0, and the 12-symbol lag is
    // measured only now and then: its average takes hundreds of symbols to rise.
    int32_t firstSlow = -1;
    double errorSum = 0.0;
    int measured = 0, clean = 0, blocks = 0;
    double afterTwelve = 0.0;
    while (engine.symbolCount < 5400) {
      run.Feed();
      if (++blocks == 12) afterTwelve = residual();
      ASSERT_EQ(SyncDriverBlockState(), BLOCK_TRACKING) << "symbol " << engine.symbolCount;
      const int32_t count = engine.symbolCount;
      EXPECT_TRUE((count >= 4080 && count <= 4140) || tracker.channelWatchOn == (count > 4080 ? 1 : 0)) << count;
      EXPECT_EQ(engine.statNextSymbol % (4 * 204), 0) << engine.statNextSymbol;
      if (engine.symbolCount >= 4080 && engine.channelState == CHANNEL_SLOW && firstSlow < 0) firstSlow = engine.symbolCount;
      if (engine.symbolCount > 100) {  // one symbol per block
        const double e = test::DecisionErrorDb();
        errorSum += e;
        clean += e < -8.0 ? 1 : 0;
        ++measured;
      }
    }
    SCOPED_TRACE(::testing::Message() << "first seen slow at symbol " << firstSlow << ", decision error mean "
                                      << errorSum / measured << " dB, " << clean << " of " << measured
                                      << " symbols below -8 dB");
    EXPECT_EQ(engine.channelState, k.expected);
    EXPECT_TRUE(k.offsetHz == 0.0 || (std::fabs(afterTwelve) < 0.003 && std::fabs(afterTwelve) < 0.25 * std::fabs(atEntry)))
        << atEntry << " carriers at entry, " << afterTwelve << " twelve blocks later";
    EXPECT_TRUE(k.expected == CHANNEL_SLOW ? firstSlow >= 4080 + 128 : firstSlow == -1);
    // A deep fade of the whole segment spoils a symbol now and then; the mean and four symbols in
    // five stay well inside.
    EXPECT_LT(errorSum / measured, -12.0);
    EXPECT_GE(clean, measured * 4 / 5);
  }
}

}  // namespace
}  // namespace zfn
