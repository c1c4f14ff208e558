// The tracking stage on our transmitter's broadcast, walked symbol by symbol with the read position
// under the test's control: a forced timing jump through the estimator's re-basing, and a whole
// tracking run to the decoder hand-over.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "decoder/decoder_state.h"
#include "shell/receiver_state.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

// A step of the read position: the estimator derotates the pilots of the four symbols read at the
// new position back to the old timing, re-bases its rows at the fourth, and the equalised carriers
// stay clean all the way through; the frequency loop rests in the first symbol.
TEST(TimingJump, EstimatorIsRebasedWithoutAGlitch) {
  for (int step : {2, -2}) {
    test::PrepareEngine(1, 2, 4);
    sim::ChannelConfig channel;
    channel.echoes = {sim::EchoPath{8.0, -10.0, 40.0}};
    test::BroadcastStream stream(1, 2, 4, channel);
    test::SymbolWalker walker(stream, 4);
    // Run into the steady state and up to a symbol after which a step can take effect.
    walker.Run(60);
    while ((engine.symbolIndex + 1) % 8 != 0) walker.Step();
    walker.StepWithForcedTiming(step);
    const int expectedStage[5] = {2, 3, 4, 6, 0};
    const int expectedAge[5] = {1, 1, 1, 1, 2};
    for (int i = 0; i < 5; ++i) {
      const float ncoStep = engine.ncoStep;
      walker.StepWithForcedTiming(0);
      SCOPED_TRACE(::testing::Message() << "step " << step << ", symbol n0 + " << i);
      EXPECT_EQ(tracker.jumpStage, expectedStage[i]);
      EXPECT_EQ(tracker.jumpAge, expectedAge[i]);
      EXPECT_EQ(tracker.jumpAmount, step);
      EXPECT_EQ(tracker.jumpInForce, i < 4 ? step : 0);
      EXPECT_EQ(tracker.jumpPending, i == 0 ? 1 : 0);
      if (i == 0) {
        EXPECT_EQ(engine.ncoStep, ncoStep);
      }
      EXPECT_LT(test::DecisionErrorDb(), -18.0);
    }
  }
}

// A step of the read position under a large carrier offset (20 kHz, the rotator turning 0.12 rad
// per sample; more would fold neighbouring carriers that the simulated device filter passes onto
// the segment): the rotator's phase moves on by the skipped or repeated samples, so the rotated
// samples of the new position continue those of the old one; a phase error of the step (0.74 rad
// here) would show in the symbols equalised across the jump.
TEST(TimingJump, RotatorPhaseRunsOnOverTheSkippedSamples) {
  constexpr double OFFSET_HZ = 20000.0;
  for (int step : {6, -6}) {
    test::PrepareEngine(1, 2, 4);
    sim::ChannelConfig channel;
    channel.carrierOffsetHz = OFFSET_HZ;
    channel.echoes = {sim::EchoPath{8.0, -10.0, 40.0}};
    test::BroadcastStream stream(1, 2, 4, channel);
    engine.ncoStep = static_cast<float>(-6.283185307179 * OFFSET_HZ / (64e6 / 63.0));
    test::SymbolWalker walker(stream, 4);
    walker.Run(60);
    while ((engine.symbolIndex + 1) % 8 != 0) walker.Step();
    walker.StepWithForcedTiming(step);
    const double phase = engine.ncoPhase;
    const double ncoStep = engine.ncoStep;
    walker.StepWithForcedTiming(0);
    SCOPED_TRACE(::testing::Message() << "step " << step);
    // Symbol n0: the step's samples, then the symbol's, at an unchanged frequency.
    double expected = std::fmod(phase + (step + engine.nsymbol) * ncoStep, 6.283185307179);
    if (expected < 0.0) expected += 6.283185307179;
    EXPECT_NEAR(engine.ncoPhase, expected, 2e-3);
    EXPECT_EQ(engine.ncoStep, static_cast<float>(ncoStep));
    // The equalised symbols from three before the jump to four after it: about -17 dB on average
    // and -15 dB at worst here; with the phase left behind, -14 dB and -10.5 dB.
    double sum = 0.0, worst = -100.0;
    for (int i = 0; i < 8; ++i) {
      const double e = test::DecisionErrorDb();
      sum += e;
      worst = std::max(worst, e);
      walker.StepWithForcedTiming(0);
    }
    EXPECT_LT(sum / 8.0, -16.0);
    EXPECT_LT(worst, -13.5);
  }
}

// A whole tracking run to the decoder hand-over in Mode 3: the clock decision at the settle count,
// the watch, the five-way scan of the filter pairs and the decode stages.
TEST(Schedule, LongRunWithClockOffset) {
  test::PrepareEngine(2, 2, 2);
  sim::ChannelConfig channel;
  channel.noise = true;
  channel.cnDb = 25.0;
  channel.clockPpm = 30.0;
  test::BroadcastStream stream(2, 2, 2, channel);
  test::SymbolWalker walker(stream, 4);
  engine.clockWritePending = 0;
  const int scan = engine.guardScanStart;
  walker.Run(scan);
  EXPECT_EQ(engine.decodeStage, DECODE_EARLY);
  EXPECT_EQ(tracker.channelWatchOn, 1);
  // A device clock 30 ppm fast makes the symbols 30 ppm longer in samples: the read position
  // steps later, the estimate is +30 ppm, and the front end is told to correct by -30 ppm.
  EXPECT_EQ(engine.clockWritePending, 1);
  EXPECT_NEAR(tracker.clockPpmApplied, 30.0, 6.0);
  walker.Step();
  EXPECT_EQ(engine.decodeStage, DECODE_SCAN);
  EXPECT_EQ(tracker.scanStep, 1);
  walker.Run(20);
  EXPECT_EQ(tracker.scanStep, 0);
  int best = 0;
  for (int q = 1; q < INTERP_PAIRS; ++q)
    if (tracker.scanScore[q] > tracker.scanScore[best]) best = q;
  EXPECT_EQ(tracker.interpBankLow, tracker.interpLow + best * INTERP_BLOCK * 2);
  EXPECT_EQ(tracker.interpBankHigh, tracker.interpHigh + best * INTERP_BLOCK * 2);
  for (int q = 0; q < INTERP_PAIRS; ++q) EXPECT_GT(tracker.scanScore[q], 4 * 12.0f);
  walker.Run(204 + decoder.startupSymbols - 21);
  EXPECT_EQ(engine.decodeStage, DECODE_SCAN);
  walker.Step();
  EXPECT_EQ(engine.decodeStage, DECODE_STREAM);
  EXPECT_GT(engine.snrDb, 14.0f);
}

}  // namespace
}  // namespace zfn
