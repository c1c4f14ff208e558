// The tracking stage on a generated ISDB-T segment signal: constellations, SNR against C/N, the
// timing loop under a sample clock offset, the frequency loop, echoes inside the guard interval.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "shell/receiver_state.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

constexpr int64_t FIRST_SYMBOL = 4;

double ErrorDb(const test::SegmentSignal& signal, const test::SymbolWalker& walker) {
  // ProcessSymbol hands over the symbol three before the one just read.
  return 10.0 * std::log10(test::EqualiserErrorPower(signal, walker.handedOver()));
}

struct Case {
  int mode, guard, bits;
};

class CleanConstellation : public ::testing::TestWithParam<Case> {};

TEST_P(CleanConstellation, CarriersSitOnTheirPoints) {
  const Case c = GetParam();
  test::PrepareEngine(c.mode, c.guard, c.bits);
  test::ChannelModel clean;
  test::SegmentSignal signal(c.mode, c.guard, c.bits, clean);
  test::SymbolWalker walker(signal, FIRST_SYMBOL);
  walker.Run(60);
  double worst = -200.0;
  for (int i = 0; i < 8; ++i) {
    walker.Step();
    worst = std::max(worst, ErrorDb(signal, walker));
  }
  EXPECT_LT(worst, -30.0);
  EXPECT_GT(engine.snrDb, 30.0f);
  EXPECT_EQ(walker.timingSum(), 0);
}

std::string CaseName(const ::testing::TestParamInfo<Case>& info) {
  const Case& c = info.param;
  return "Mode" + std::to_string(c.mode + 1) + "_guard" + std::to_string(c.guard) + "_bits" + std::to_string(c.bits);
}

INSTANTIATE_TEST_SUITE_P(AllModes, CleanConstellation,
                         ::testing::Values(Case{0, 2, 2}, Case{0, 0, 4}, Case{0, 3, 6}, Case{1, 1, 2},
                                           Case{1, 2, 4}, Case{1, 3, 6}, Case{2, 2, 2}, Case{2, 0, 4},
                                           Case{2, 3, 6}),
                         CaseName);

}  // namespace
}  // namespace zfn

namespace zfn {
namespace {

double MeanSnr(test::SymbolWalker& walker, int symbols) {
  double sum = 0.0;
  for (int i = 0; i < symbols; ++i) {
    walker.Step();
    sum += engine.snrDb;
  }
  return sum / symbols;
}

// The measured SNR follows C/N. On a good signal it sits below C/N by the noise of the channel
// estimate (about 2 dB); on a poor one the decisions are taken on the noisy carriers themselves, so
// the noise is under-measured and dense constellations read high. It never reads far below C/N.
TEST(Snr, FollowsCarrierToNoise) {
  for (int mode = 0; mode < 3; ++mode) {
    for (int bits : {2, 4, 6}) {
      double last = -100.0;
      for (double cn = 5.0; cn <= 25.0; cn += 5.0) {
        test::PrepareEngine(mode, 2, bits);
        test::ChannelModel channel;
        channel.cnDb = cn;
        channel.seed = 11;
        test::SegmentSignal signal(mode, 2, bits, channel);
        test::SymbolWalker walker(signal, 4);
        walker.Run(40);
        const double snr = MeanSnr(walker, 80);
        SCOPED_TRACE(::testing::Message() << "mode " << mode << " bits " << bits << " C/N " << cn << " snr " << snr);
        EXPECT_GT(snr, cn - 3.0);
        if (bits == 2 || cn >= 20.0) {
          EXPECT_LT(snr, cn + 1.0);
        }
        EXPECT_GT(snr, last);
        last = snr;
      }
    }
  }
}

// Offset of the read position from the start of the symbol it lies in, in samples.
double ReadOffset(const test::SymbolWalker& walker, double ppm) {
  const double t = static_cast<double>(walker.readPos() + 1) * (1.0 + ppm * 1e-6) / engine.nsymbol;
  return (t - std::round(t)) * engine.nsymbol;
}

// A sample clock off by 30 ppm drifts the symbols by more than the room on either side of the
// transform span; the timing loop follows, the span stays inside the guard interval and the
// constellation stays clean.
TEST(TimingLoop, FollowsSampleClockOffset) {
  const struct {
    int mode, guard, symbols;
  } cases[] = {{0, 2, 4000}, {1, 1, 1500}, {2, 1, 1500}};
  for (const auto& c : cases) {
    for (double ppm : {30.0, -30.0}) {
      test::PrepareEngine(c.mode, c.guard, 4);
      test::ChannelModel channel;
      channel.cnDb = 30.0;
      channel.clockPpm = ppm;
      test::SegmentSignal signal(c.mode, c.guard, 4, channel);
      test::SymbolWalker walker(signal, 4);
      walker.Run(20);
      double worst = 100.0;
      for (int i = 20; i < c.symbols; ++i) {
        walker.Step();
        worst = std::min<double>(worst, engine.snrDb);
      }
      const double drift = -ppm * 1e-6 * engine.nsymbol * c.symbols;
      const double room = engine.nmargin;
      SCOPED_TRACE(::testing::Message() << "mode " << c.mode << " ppm " << ppm << " drift " << drift << " steps "
                                        << walker.timingSum());
      ASSERT_GT(std::fabs(drift), room);
      EXPECT_NEAR(static_cast<double>(walker.timingSum()), drift, room);
      EXPECT_LT(std::fabs(ReadOffset(walker, ppm)), room);
      EXPECT_GT(worst, 20.0);
    }
  }
}

TEST(FrequencyLoop, RemovesResidualOffset) {
  for (int mode : {1, 2}) {
    for (double offset : {0.05, -0.1}) {
      test::PrepareEngine(mode, 2, 2);
      test::ChannelModel channel;
      channel.cnDb = 25.0;
      channel.carrierOffset = offset;
      test::SegmentSignal signal(mode, 2, 2, channel);
      test::SymbolWalker walker(signal, 4);
      const auto residual = [&] { return offset + engine.nfft * engine.ncoStep / 6.283185307179; };
      walker.Run(16);
      EXPECT_EQ(engine.ncoStep, 0.0f);  // the loop starts at symbol 16
      walker.Run(1200);
      SCOPED_TRACE(::testing::Message() << "mode " << mode << " offset " << offset << " residual " << residual());
      if (mode == 2) {
        EXPECT_LT(std::fabs(residual()), 0.002);
      } else {
        EXPECT_LT(std::fabs(residual()), 0.5 * std::fabs(offset));
      }
      EXPECT_GT(engine.snrDb, 15.0f);
    }
  }
}

// An echo inside the guard interval: the channel estimate follows it; an echo late in the guard
// pushes the span later, away from the interference of the previous symbol.
TEST(Echo, InsideGuardIsFollowed) {
  const struct {
    int mode, guard;
    double fraction;
  } cases[] = {{2, 2, 0.25}, {2, 2, 0.75}, {1, 3, 0.5}, {0, 3, 0.8}};
  for (const auto& c : cases) {
    test::PrepareEngine(c.mode, c.guard, 4);
    test::ChannelModel channel;
    channel.cnDb = 30.0;
    channel.echoDelay = static_cast<int>(engine.nguard * c.fraction);
    channel.echoGain = std::polar(0.5, 1.0);
    test::SegmentSignal signal(c.mode, c.guard, 4, channel);
    test::SymbolWalker walker(signal, 4);
    walker.Run(400);
    const double snr = MeanSnr(walker, 300);
    SCOPED_TRACE(::testing::Message() << "mode " << c.mode << " echo " << channel.echoDelay << " snr " << snr
                                      << " steps " << walker.timingSum());
    EXPECT_GT(snr, 20.0);
    // Room before the span: nmargin - 1 samples of guard; an echo later than that needs a later span.
    if (channel.echoDelay > engine.nmargin) {
      EXPECT_GE(walker.timingSum(), channel.echoDelay - engine.nmargin - 4);
    }
  }
}

// A whole tracking run to the decoder hand-over in Mode 3: the clock decision at the settle count,
// the watch, the five-way scan of the filter pairs and the decode stages.
TEST(Schedule, LongRunWithClockOffset) {
  test::PrepareEngine(2, 2, 2);
  test::ChannelModel channel;
  channel.cnDb = 25.0;
  channel.clockPpm = 30.0;
  test::SegmentSignal signal(2, 2, 2, channel);
  test::SymbolWalker walker(signal, 4);
  engine.clockWritePending = 0;
  const int scan = engine.guardScanStart;
  walker.Run(scan);
  EXPECT_EQ(engine.decodeStage, DECODE_EARLY);
  EXPECT_EQ(tracker.channelWatchOn, 1);
  // The drift is seen as steps of the read position and handed to the front end with its sign.
  EXPECT_EQ(engine.clockWritePending, 1);
  EXPECT_NEAR(tracker.clockPpmApplied, -30.0, 6.0);
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
  for (int q = 0; q < INTERP_PAIRS; ++q) EXPECT_GT(tracker.scanScore[q], 4 * 18.0f);
  walker.Run(204 + engine.startupSymbols - 21);
  EXPECT_EQ(engine.decodeStage, DECODE_SCAN);
  walker.Step();
  EXPECT_EQ(engine.decodeStage, DECODE_STREAM);
  EXPECT_GT(engine.snrDb, 20.0f);
}

// A step of the read position: the estimator derotates the pilots of the four symbols read at the
// new position back to the old timing, re-bases its rows at the fourth, and the equalised carriers
// stay clean all the way through; the frequency loop rests in the first symbol.
TEST(TimingJump, EstimatorIsRebasedWithoutAGlitch) {
  for (int step : {2, -2}) {
    test::PrepareEngine(1, 2, 4);
    test::ChannelModel channel;
    channel.cnDb = 200.0;
    channel.echoDelay = 9;
    channel.echoGain = {0.3, -0.2};
    test::SegmentSignal signal(1, 2, 4, channel);
    test::SymbolWalker walker(signal, 4);
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
      EXPECT_LT(ErrorDb(signal, walker), -30.0);
    }
  }
}

}  // namespace
}  // namespace zfn
