// Unit cases of the tracking stage: slicers, filter design and interpolation, the equaliser's walk
// over the data carriers, the timing gate, the clock decision and the low-SNR watch.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "numeric/dft.h"
#include "tracking/slicers.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

using cf = std::complex<float>;

constexpr float INTERP_PROTOTYPE_SUM = 1.00292f;
const float DELAYS[5] = {0.1666667f, 0.20833333f, 0.125f, 0.25f, 0.08333333f};

// The i-th tap of a pair as designed: prototype moved to delay d.
std::complex<double> DesignedTap(int i, double d) {
  static const double proto[22] = {
      0.00423477171, -0.00729786139, 0.0114604617, -0.017027922, 0.0244664252, -0.0345678665,
      0.0488457084,  -0.0706450343,  0.109106451,  -0.200961366, 0.824599922,  0.412442684,
      -0.160936832,  0.0956356823,   -0.0643827766, 0.0455048978, -0.0326677859, 0.0233595725,
      -0.0163860545, 0.0110998377,   -0.00710848952, 0.00414792122};
  return proto[i] * std::polar(1.0, -6.283185307179 * d * (31 - 3 * i));
}

TEST(Slicers, QpskBoundary) {
  EXPECT_EQ(SliceQpsk(0.0f), -0.707107f);
  EXPECT_EQ(SliceQpsk(-0.0f), -0.707107f);
  EXPECT_EQ(SliceQpsk(1e-30f), 0.707107f);
  EXPECT_EQ(SliceQpsk(-5.0f), -0.707107f);
}

TEST(Slicers, Qam16BoundariesAreOneSided) {
  EXPECT_EQ(SliceQam16(0.0f, true), -0.3162278f);
  EXPECT_EQ(SliceQam16(-0.6324555f, true), -0.3162278f);
  EXPECT_EQ(SliceQam16(std::nextafter(-0.6324555f, -1.0f), true), -0.9486832f);
  EXPECT_EQ(SliceQam16(0.6324555f, true), 0.3162278f);
  EXPECT_EQ(SliceQam16(std::nextafter(0.6324555f, 1.0f), true), 0.9486833f);
  EXPECT_EQ(SliceQam16(std::nextafter(0.6324555f, 1.0f), false), 0.9486832f);
  EXPECT_EQ(SliceQam16(1e-20f, false), 0.3162278f);
}

TEST(Slicers, Qam64BoundariesAreOneSided) {
  const struct {
    float v, level;
  } cases[] = {
      {0.0f, -0.15430335f},         {-0.3086067f, -0.15430335f},
      {std::nextafter(-0.3086067f, -1.0f), -0.46291f},
      {-0.6172134f, -0.46291f},     {std::nextafter(-0.6172134f, -1.0f), -0.77151675f},
      {-0.9258201f, -0.77151675f},  {std::nextafter(-0.9258201f, -2.0f), -1.08012345f},
      {1e-20f, 0.15430335f},        {0.3086067f, 0.15430335f},
      {std::nextafter(0.3086067f, 1.0f), 0.46291f},
      {0.6172134f, 0.46291f},       {std::nextafter(0.6172134f, 1.0f), 0.77151675f},
      {0.9258201f, 0.77151675f},    {std::nextafter(0.9258201f, 2.0f), 1.08012345f},
  };
  for (const auto& c : cases) EXPECT_EQ(SliceQam64(c.v), c.level) << "v = " << c.v;
}

TEST(Slicers, DecisionTargetGivesTheChannelThatTheCarrierImplies) {
  const Cx g{0.6f, -0.3f};
  const Cx sent16{0.3162278f, -0.9486832f};
  const Cx r16 = sent16 * g;
  const Cx t16 = DecisionTarget(r16, g, 4);
  EXPECT_NEAR(t16.re, g.re, 1e-5f);
  EXPECT_NEAR(t16.im, g.im, 1e-5f);
  // QPSK: the target is R * conj(d), with no division by the power of d (which is 1 anyway).
  const Cx q{-0.707107f, 0.707107f};
  const Cx t4 = DecisionTarget(q * g, g, 2);
  EXPECT_NEAR(t4.re, g.re, 1e-5f);
  EXPECT_NEAR(t4.im, g.im, 1e-5f);
}

class InterpolationTest : public ::testing::TestWithParam<int> {};

TEST_P(InterpolationTest, DesignedPairsHoldTheShiftedPrototype) {
  const int mode = GetParam();
  test::PrepareEngine(mode, 2, 2);
  const int nq = engine.nquarter;
  double sum = 0.0;
  for (int i = 0; i < 22; ++i) sum += DesignedTap(i, 0.0).real();
  EXPECT_NEAR(sum, INTERP_PROTOTYPE_SUM, 1e-5);
  for (int q = 0; q < INTERP_PAIRS; ++q) {
    std::vector<float> low(tracker.interpLow + q * INTERP_BLOCK * 2, tracker.interpLow + q * INTERP_BLOCK * 2 + 2 * nq);
    std::vector<float> high(tracker.interpHigh + q * INTERP_BLOCK * 2, tracker.interpHigh + q * INTERP_BLOCK * 2 + 2 * nq);
    // Forward transform undoes the design's backward one: nquarter times the block, the taps.
    TransformQuarter(low.data(), -1);
    TransformQuarter(high.data(), -1);
    for (int j = 0; j < nq; ++j) {
      const std::complex<double> wantLow = j < 22 ? DesignedTap(21 - j, DELAYS[q]) : 0.0;
      const std::complex<double> wantHigh = j < 22 ? std::conj(DesignedTap(j, DELAYS[q])) : 0.0;
      EXPECT_NEAR(low[2 * j], wantLow.real(), 2e-6) << "pair " << q << " entry " << j;
      EXPECT_NEAR(low[2 * j + 1], wantLow.imag(), 2e-6);
      EXPECT_NEAR(high[2 * j], wantHigh.real(), 2e-6);
      EXPECT_NEAR(high[2 * j + 1], wantHigh.imag(), 2e-6);
    }
  }
}

// Each pair interpolates a single path at its own delay centre almost exactly, at one third and two
// thirds of the row spacing: the passband sits on the delay.
TEST_P(InterpolationTest, PairPassesAPathAtItsDelayCentre) {
  const int mode = GetParam();
  test::PrepareEngine(mode, 2, 2);
  engine.symbolCount = 8;
  const int n = engine.nspan / 3;
  for (int q = 0; q < INTERP_PAIRS; ++q) {
    tracker.interpBankLow = tracker.interpLow + q * INTERP_BLOCK * 2;
    tracker.interpBankHigh = tracker.interpHigh + q * INTERP_BLOCK * 2;
    // Channel of a path at delay d (fraction of the useful symbol), on span carrier index 3*m.
    const auto channel = [&](double spanIndex) { return std::polar(1.0, -6.283185307179 * DELAYS[q] * spanIndex); };
    for (int m = 0; m < n; ++m) {
      const auto h = channel(3.0 * m);
      tracker.interpRow[2 * m] = static_cast<float>(h.real());
      tracker.interpRow[2 * m + 1] = static_cast<float>(h.imag());
    }
    InterpolateChannel();
    double worst = 0.0;
    for (int c = 0; c < engine.ncarrier; ++c) {
      const auto want = channel(tracker.segmentOffset + c);
      const std::complex<double> got(tracker.channelPlanes[c], tracker.channelPlanes[engine.ncarrier + c]);
      worst = std::max(worst, std::abs(got - want));
    }
    EXPECT_LT(worst, 0.02) << "pair " << q;
  }
}

TEST_P(InterpolationTest, TransformDomainEqualsDirectConvolution) {
  const int mode = GetParam();
  test::PrepareEngine(mode, 1, 2);
  engine.symbolCount = 8;
  const int n = engine.nspan / 3;
  const int nc = engine.ncarrier;
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
    const int go = tracker.gridOffset;
    for (int i = 0; i < 4 * engine.ngrid; ++i) {
      std::complex<double> low = 0.0, high = 0.0;
      for (int l = 0; l < 22; ++l) {
        // Taps weight row entries go + i - 10 + l; 0.8246 lands on go + i, 0.4124 on go + i + 1.
        low += DesignedTap(l, DELAYS[q]) * row[go + i - 10 + l];
        high += std::conj(DesignedTap(l, DELAYS[q])) * row[go + i + 11 - l];
      }
      const std::complex<double> c0(tracker.channelPlanes[3 * i], tracker.channelPlanes[nc + 3 * i]);
      const std::complex<double> c1(tracker.channelPlanes[3 * i + 1], tracker.channelPlanes[nc + 3 * i + 1]);
      const std::complex<double> c2(tracker.channelPlanes[3 * i + 2], tracker.channelPlanes[nc + 3 * i + 2]);
      EXPECT_NEAR(std::abs(c0 - row[go + i]), 0.0, 1e-6);
      EXPECT_NEAR(std::abs(c1 - low), 0.0, 2e-5) << "pair " << q << " i " << i;
      EXPECT_NEAR(std::abs(c2 - high), 0.0, 2e-5) << "pair " << q << " i " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, InterpolationTest, ::testing::Values(0, 1, 2),
                         [](const ::testing::TestParamInfo<int>& p) { return "Mode" + std::to_string(p.param + 1); });

class EqualiserWalkTest : public ::testing::TestWithParam<std::tuple<int, int>> {};

// Each carrier of the oldest slot carries its own number; the output must be exactly the data
// carriers in ascending order, and nothing beyond ndata may be written.
TEST_P(EqualiserWalkTest, TakesExactlyTheDataCarriers) {
  const auto [mode, s] = GetParam();
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
    EXPECT_EQ(engine.equalisedCarriers[2 * k], static_cast<float>(want[k])) << "k " << k;
    EXPECT_EQ(engine.equalisedCarriers[2 * k + 1], 0.5f);
  }
  for (int i = 0; i < 2 * ndata; ++i) ASSERT_EQ(tracker.spareCarriers[i], -7.0f);
}

INSTANTIATE_TEST_SUITE_P(ModesAndPhases, EqualiserWalkTest,
                         ::testing::Combine(::testing::Values(0, 1, 2), ::testing::Values(0, 1, 2, 3)),
                         [](const ::testing::TestParamInfo<std::tuple<int, int>>& p) {
                           return "Mode" + std::to_string(std::get<0>(p.param) + 1) + "_pilotPhase" +
                                  std::to_string(std::get<1>(p.param));
                         });

TEST(Equaliser, QpskSoftWeightAndFixedGain) {
  test::PrepareEngine(0, 0, 2);
  engine.symbolCount = 8;
  float* slot = tracker.carrierRing + tracker.carrierRingNext * tracker.carrierRingStride;
  // Channel 2 everywhere, carriers slightly off their points: known noise.
  for (int e = 0; e < engine.nspan; ++e) {
    slot[2 * e] = 2.0f * 0.707107f + 0.1f;
    slot[2 * e + 1] = 2.0f * 0.707107f;
  }
  for (int c = 0; c < engine.ncarrier; ++c) {
    tracker.channelPlanes[c] = 2.0f;
    tracker.channelPlanes[engine.ncarrier + c] = 0.0f;
  }
  EqualiseCarriers();
  // noise per carrier 0.01; first average is half of it.
  EXPECT_NEAR(tracker.noiseAvg, 0.005f, 1e-5f);
  EXPECT_NEAR(tracker.softWeight[0], 4.0f * 4.0f / 0.005f, 1.0f);
  EXPECT_NEAR(engine.snrDb, 10.0 * std::log10(4.0 / 0.01), 1e-3);
  EXPECT_EQ(controlBlock.lastSnrDb.load(), engine.snrDb.load());
  const float e0 = (2.0f * 0.707107f + 0.1f) / 2.0f;
  EXPECT_NEAR(engine.equalisedCarriers[0], e0 * tracker.softWeight[0], 0.5f);

  engine.qpskSoftTarget = 0.0f;
  const float keep = tracker.noiseAvg;
  EqualiseCarriers();
  EXPECT_EQ(tracker.noiseAvg, keep);
  EXPECT_NEAR(engine.equalisedCarriers[0], e0 * 8.0f, 1e-5f);
}

TEST(Equaliser, IdleBeforeSymbolEight) {
  test::PrepareEngine(0, 0, 2);
  engine.symbolCount = 7;
  engine.snrDb = 0.0f;
  engine.equalisedCarriers[0] = 123.0f;
  InterpolateChannel();
  EqualiseCarriers();
  EXPECT_EQ(engine.equalisedCarriers[0], 123.0f);
  EXPECT_EQ(engine.snrDb.load(), 0.0f);
}

TEST(TimingGate, DeadZoneCases) {
  // K = 0: both sides are the same entry, no step.
  EXPECT_EQ(DecideTimingStep(5.0f, 5.0f, 10.0f, 1, 0), 0);
  // g = 0 with dead zone 0 and step 1: no step.
  EXPECT_EQ(DecideTimingStep(1.0f, 1.0f + 0.05f, 10.0f, 1, 0), 0);
  // Truncation toward zero.
  EXPECT_EQ(DecideTimingStep(0.19f, 0.0f, 10.0f, 1, 0), 1);
  EXPECT_EQ(DecideTimingStep(0.0f, 0.19f, 10.0f, 1, 0), -1);
  // Dead zone 1 and step 1: the dead zone does nothing, g of 1 steps.
  EXPECT_EQ(DecideTimingStep(0.1f, 0.0f, 10.0f, 1, 1), 1);
  // With a step of 2 a g of 1 gives none, a g of 2 the full step.
  EXPECT_EQ(DecideTimingStep(0.1f, 0.0f, 10.0f, 2, 1), 0);
  EXPECT_EQ(DecideTimingStep(0.0f, 0.1f, 10.0f, 2, 1), 0);
  EXPECT_EQ(DecideTimingStep(0.2f, 0.0f, 10.0f, 2, 1), 2);
  EXPECT_EQ(DecideTimingStep(0.0f, 0.2f, 10.0f, 2, 1), -2);
  // Dead zone at or above the step size is ignored altogether.
  EXPECT_EQ(DecideTimingStep(0.1f, 0.0f, 10.0f, 2, 2), 2);
  EXPECT_EQ(DecideTimingStep(0.0f, 0.5f, 10.0f, 2, 7), -2);
  // Values beyond the integer range and NaN stay defined.
  EXPECT_EQ(DecideTimingStep(1e30f, 0.0f, 10.0f, 3, 0), 3);
  EXPECT_EQ(DecideTimingStep(0.0f, 1e30f, 10.0f, 3, 0), -3);
  EXPECT_EQ(DecideTimingStep(std::nanf(""), 0.0f, 10.0f, 3, 0), 0);
}

// Runs the symbol counts of one tracking run through the clock statistic with a step every
// `every` symbols.
void RunClockStatistic(int every1, int every2, int sign) {
  tracker.clockDriftSum = 0.0f;
  const int frames = engine.clockFrames;
  for (int count = 0; count <= 1020 * frames; ++count) {
    engine.symbolCount = count;
    const int every = count < 612 * frames ? every1 : every2;
    engine.timingStep = (count % every == 0) ? sign : 0;
    MeasureClockOffset();
  }
}

TEST(ClockOffset, AgreeingSpansAboveFifteenPpmAreApplied) {
  test::PrepareNumerology(2, 3);
  engine.clockWritePending = 0;
  // One sample per 40 symbols of 1280 samples: 19.5 ppm.
  RunClockStatistic(40, 40, -1);
  const float expected = -1.0f / (40.0f * 1280.0f) * 1e6f;
  EXPECT_NEAR(tracker.clockPpmFirst, expected, 0.5f);
  EXPECT_NEAR(tracker.clockPpmSecond, expected, 0.5f);
  EXPECT_NEAR(tracker.clockPpmApplied, expected, 0.5f);
  EXPECT_EQ(engine.clockWritePending, 1);
}

TEST(ClockOffset, DisagreeingOrSmallSpansAreNot) {
  test::PrepareNumerology(2, 3);
  engine.clockWritePending = 0;
  RunClockStatistic(40, 60, 1);  // 19.5 and 13 ppm
  EXPECT_EQ(engine.clockWritePending, 0);
  EXPECT_EQ(tracker.clockPpmApplied, 0.0f);
  RunClockStatistic(40, 30, 1);  // 19.5 and 26 ppm: 14 percent apart
  EXPECT_EQ(engine.clockWritePending, 1);
  EXPECT_GT(tracker.clockPpmApplied, 19.0f);
  engine.clockWritePending = 0;
  RunClockStatistic(30, 60, 1);  // 26 and 13: too far apart
  EXPECT_EQ(engine.clockWritePending, 0);
  EXPECT_EQ(tracker.clockPpmApplied, 0.0f);
}

TEST(LowSnrWatch, CountsAndBoundaries) {
  test::PrepareEngine(0, 0, 2);
  engine.decodeStage = DECODE_EARLY;
  engine.symbolCount = 50;
  engine.snrDb = 0.0f;
  WatchLowSnr();
  EXPECT_EQ(tracker.snrLowCount, 0);  // 50 is not yet watched
  engine.symbolCount = 51;
  engine.snrDb = 2.0f;
  WatchLowSnr();
  engine.snrDb = 4.0f;
  WatchLowSnr();
  EXPECT_EQ(tracker.snrLowCount, 0);
  EXPECT_EQ(tracker.snrHighCount, 0);
  // 19 high ones, then 101 low ones: the mark is set; then a 20th high clears the counters only.
  engine.snrDb = 4.5f;
  for (int i = 0; i < 19; ++i) WatchLowSnr();
  engine.snrDb = 1.0f;
  for (int i = 0; i < 100; ++i) WatchLowSnr();
  EXPECT_EQ(engine.snrFailed, 0);
  WatchLowSnr();
  EXPECT_EQ(engine.snrFailed, 1);
  engine.snrDb = 10.0f;
  WatchLowSnr();
  EXPECT_EQ(tracker.snrLowCount, 0);
  EXPECT_EQ(tracker.snrHighCount, 0);
  EXPECT_EQ(engine.snrFailed, 1);
  // Not watched outside the early decode stage.
  engine.decodeStage = DECODE_SCAN;
  engine.snrDb = 1.0f;
  WatchLowSnr();
  EXPECT_EQ(tracker.snrLowCount, 0);
}

TEST(SetUp, ArenaOrderAndSizes) {
  test::PrepareNumerology(1, 2);
  uint8_t* base = engine.arenaNext;
  const int32_t freeBefore = engine.arenaFree;
  LoadParameterSet(PARAM_DEFAULTS);
  engine.bitsPerCarrier = 2;
  SetUpTracking();
  const int nspan = engine.nspan, row = nspan / 3;
  const auto at = [&](const float* p) { return reinterpret_cast<const uint8_t*>(p) - base; };
  EXPECT_EQ(at(tracker.carrierRing), 0);
  EXPECT_EQ(at(tracker.channelPlanes), 32 * nspan);
  EXPECT_EQ(at(engine.equalisedCarriers), at(tracker.channelPlanes) + 8 * engine.ncarrier);
  EXPECT_EQ(at(tracker.spareCarriers), at(engine.equalisedCarriers) + 8 * engine.ndata);
  EXPECT_EQ(at(tracker.pastRow1), at(tracker.spareCarriers) + 8 * engine.ndata);
  EXPECT_EQ(at(tracker.pilotRow), at(tracker.pastRow1) + 3 * 8 * row);
  EXPECT_EQ(at(tracker.timeTaps), at(tracker.pilotRow) + 8 * row);
  EXPECT_EQ(at(tracker.freqTaps), at(tracker.timeTaps) + 72);
  EXPECT_EQ(at(tracker.spectrumA), at(tracker.freqTaps) + 56);
  EXPECT_EQ(at(tracker.spectrumB), at(tracker.spectrumA) + 8 * engine.nsymbol);
  EXPECT_EQ(at(tracker.pilotHistory), at(tracker.spectrumB) + 8 * engine.nsymbol);
  const int32_t used = 32 * nspan + 8 * engine.ncarrier + 16 * engine.ndata + 32 * row + 72 + 56 +
                       16 * engine.nsymbol + 4 * 13 * (nspan / 12) * 2;
  EXPECT_EQ(freeBefore - engine.arenaFree, used);
  // Mode constants and the by-mode stage table.
  EXPECT_EQ(tracker.segmentOffset, 72);
  EXPECT_EQ(tracker.gridOffset, 24);
  EXPECT_EQ(tracker.spanCentre, -180);
  EXPECT_EQ(tracker.ceStepA, 0.0002f);
  EXPECT_EQ(tracker.timeTaps[0], 1.0f);
  EXPECT_EQ(tracker.timeTaps[2], 0.0f);
  EXPECT_EQ(tracker.freqTaps[6], 1.0f);
  EXPECT_EQ(engine.decodeStage, DECODE_EARLY);
}

TEST(Schedule, SmallestStepIsOneSample) {
  test::PrepareEngine(0, 0, 2);  // nguard 8: floor(8/32) = 0 is raised to 1
  test::BroadcastStream stream(0, 0, 2, sim::ChannelConfig{});
  test::SymbolWalker walker(stream, 4);
  walker.Step();
  EXPECT_EQ(tracker.timingSpan, 1);
  EXPECT_EQ(tracker.timingMaxStep, 1);
  EXPECT_EQ(tracker.timingPeriod, 8);
  EXPECT_EQ(tracker.timingDeadZone, 0);
}

TEST(Schedule, StagesTapsAndScan) {
  test::PrepareEngine(2, 0, 2);  // Mode 3, guard 1/32: step fraction 1/16 in stage 0
  test::BroadcastStream stream(2, 0, 2, sim::ChannelConfig{});
  test::SymbolWalker walker(stream, 4);
  walker.Step();
  EXPECT_EQ(tracker.timingSpan, 4);      // floor(32/8)
  EXPECT_EQ(tracker.timingMaxStep, 2);   // floor(32/16)
  EXPECT_EQ(tracker.rotateCount, 1024 + 8);
  EXPECT_EQ(tracker.rotateStart, 12);
  EXPECT_EQ(engine.timingEnabled, 0);
  walker.Run(8);  // counts 1..8
  EXPECT_EQ(engine.timingEnabled, 1);
  EXPECT_EQ(tracker.timeTaps[0], engine.interpTapsC[0]);
  EXPECT_EQ(tracker.timeTaps[12], engine.interpTapsA[0]);

  // Status words of every symbol.
  DebugParaBlock* keep = device.debugPara;
  device.debugPara = &debugParaBlock;
  engine.channelState = CHANNEL_FAST;
  engine.failsThisSecond = 7;
  walker.Step();
  EXPECT_EQ(debugParaBlock.Float(0), engine.snrDb.load());
  EXPECT_NEAR(debugParaBlock.Float(1), engine.nfft * engine.ncoStep / 6.283185307179, 1e-9);
  EXPECT_EQ(debugParaBlock.Int(10), CHANNEL_FAST);
  EXPECT_EQ(debugParaBlock.Float(11), 7.0f);
  device.debugPara = keep;
  engine.failsThisSecond = -1;
}

// Fills every row of the pilot history with the same pilots: a channel that does not change.
void SteadyPilotHistory() {
  const int groups = engine.nspanGrid;
  for (int r = 0; r < PILOT_HISTORY_ROWS; ++r) {
    float* row = tracker.pilotHistory + r * tracker.pilotHistoryStride;
    for (int p = 0; p < groups; ++p) {
      row[p] = (p % 3 == 0) ? 1.0f : -0.5f;
      row[groups + p] = (p % 2 == 0) ? 0.5f : 0.8f;
    }
  }
}

TEST(ChannelWatch, ASteadyChannelTurnsSlowAtExactly128GoodSymbols) {
  test::PrepareEngine(2, 2, 2);
  SteadyPilotHistory();
  engine.channelState = CHANNEL_FAST;
  tracker.jumpAge = 0;
  int good = 0, calls = 0;
  while (engine.channelState == CHANNEL_FAST && calls < 5000) {
    tracker.pilotHistorySlot = (tracker.pilotHistorySlot + 1) % PILOT_HISTORY_ROWS;
    tracker.pilotHistoryNow = tracker.pilotHistory + tracker.pilotHistorySlot * tracker.pilotHistoryStride;
    const int goodBefore = tracker.watchGood;
    WatchChannelChange();
    ++calls;
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
}

TEST(ChannelWatch, LagsShortenAfterAJumpAndNothingMovesInItsFirstSymbols) {
  test::PrepareEngine(2, 2, 2);
  SteadyPilotHistory();
  engine.channelState = CHANNEL_FAST;
  tracker.jumpAge = 1;
  WatchChannelChange();
  EXPECT_EQ(tracker.watchBad + tracker.watchGood, 0);
  EXPECT_EQ(tracker.lagTapAvg[0], 0.0f);
  tracker.jumpAge = 2;  // one lag only
  WatchChannelChange();
  EXPECT_GT(tracker.lagTap[0], 0.0f);
  EXPECT_EQ(tracker.lagTap[1], 0.0f);
  EXPECT_EQ(tracker.lagTap[2], 0.0f);
  EXPECT_EQ(tracker.watchBad, 1);  // lag averages below their floors
  tracker.jumpAge = 3;  // two lags
  WatchChannelChange();
  EXPECT_GT(tracker.lagTap[1], 0.0f);
  EXPECT_EQ(tracker.lagTap[2], 0.0f);
}

TEST(ChannelWatch, TenBadSymbolsTurnASlowChannelFast) {
  test::PrepareEngine(2, 2, 2);
  engine.channelState = CHANNEL_SLOW;
  tracker.jumpAge = 0;
  // Pilots that change completely from symbol to symbol: every lag regresses to 0.
  std::mt19937 rng(3);
  std::normal_distribution<float> g(0.0f, 1.0f);
  for (int i = 0; i < 10; ++i) {
    tracker.pilotHistorySlot = (tracker.pilotHistorySlot + 1) % PILOT_HISTORY_ROWS;
    tracker.pilotHistoryNow = tracker.pilotHistory + tracker.pilotHistorySlot * tracker.pilotHistoryStride;
    for (int p = 0; p < 2 * engine.nspanGrid; ++p) tracker.pilotHistoryNow[p] = g(rng);
    EXPECT_EQ(engine.channelState, CHANNEL_SLOW);
    WatchChannelChange();
  }
  EXPECT_EQ(engine.channelState, CHANNEL_FAST);
  EXPECT_EQ(tracker.smoothNew, engine.mixWeightFast);
  EXPECT_EQ(tracker.watchBad, 0);
}

// Samples that are not numbers, and stage values from a parameter file out of all range: tracking
// goes on without a crash, a hang or a step outside the buffer.
TEST(BadInput, NonFiniteSamplesAndAbsurdStageValues) {
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
