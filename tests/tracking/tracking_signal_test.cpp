// The tracking stage on our transmitter's broadcast, walked symbol by symbol with the read position
// under the test's control: a forced timing jump through the rotator and the estimator's re-basing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "shell/receiver_state.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

// A forced step of the read position in the steady state (Mode 2, 16QAM, a static echo), after a
// symbol from which a step can take effect:
// - without carrier offset, steps of +-2: the estimator derotates the pilots of the four symbols read
//   at the new position back to the old timing, re-bases its rows at the fourth, and the equalised
//   carriers stay clean all the way through; the frequency loop rests in the first symbol;
// - under a 20 kHz carrier offset (the rotator turning 0.12 rad per sample; more would fold
//   neighbouring carriers that the simulated device filter passes onto the segment), steps of +-6:
//   the rotator's phase moves on by the skipped or repeated samples, so the rotated samples of the new
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
    if (offset) {
      walker.StepWithForcedTiming(0);
      // Symbol n0: the step's samples, then the symbol's, at an unchanged frequency.
      double expected = std::fmod(phase + (step + engine.nsymbol) * static_cast<double>(ncoStep), TWO_PI);
      if (expected < 0.0) expected += TWO_PI;
      EXPECT_NEAR(engine.ncoPhase, expected, 2e-3);
      EXPECT_EQ(engine.ncoStep, ncoStep);
      // The equalised symbols from three before the jump to four after it.
      double sum = 0.0, worst = -100.0;
      for (int i = 0; i < 8; ++i) {
        const double e = test::DecisionErrorDb();
        sum += e;
        worst = std::max(worst, e);
        walker.StepWithForcedTiming(0);
      }
      EXPECT_LT(sum / 8.0, -16.0);
      EXPECT_LT(worst, -13.5);
      continue;
    }
    const int expectedStage[5] = {2, 3, 4, 6, 0};
    const int expectedAge[5] = {1, 1, 1, 1, 2};
    for (int i = 0; i < 5; ++i) {
      const float before = engine.ncoStep;
      walker.StepWithForcedTiming(0);
      SCOPED_TRACE(::testing::Message() << "symbol n0 + " << i);
      EXPECT_EQ(tracker.jumpStage, expectedStage[i]);
      EXPECT_EQ(tracker.jumpAge, expectedAge[i]);
      EXPECT_EQ(tracker.jumpAmount, step);
      EXPECT_EQ(tracker.jumpInForce, i < 4 ? step : 0);
      EXPECT_EQ(tracker.jumpPending, i == 0 ? 1 : 0);
      if (i == 0) {
        EXPECT_EQ(engine.ncoStep, before);
      }
      EXPECT_LT(test::DecisionErrorDb(), -18.0);
    }
  }
}

}  // namespace
}  // namespace zfn
