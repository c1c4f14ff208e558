// Tracking of our own transmitter's broadcast through the synchronous driver: device bytes of the
// whole chain (segments 3, 1, 0, 2, 4, channel, quantiser) into the engine's block state machine,
// from acquisition into tracking and on: snrDb against C/N, the frequency and timing loops with the
// clock decision, the channel watch on static echoes and under fading, and when each of them starts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "frontend/device_binding.h"
#include "shell/receiver_state.h"
#include "shell/sync_driver.h"
#include "simulator/transmitter.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

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

// What acquisition leaves of the carrier offset, the frequency loop takes out.
TEST(DriverTracking, FrequencyLoopRemovesResidualOffset) {
  for (double hz : {1234.5, -3000.0}) {
    sim::ChannelConfig ch = Channel();
    ch.carrierOffsetHz = hz;
    DriverRun run(Layer(2), ch);
    ASSERT_TRUE(run.Acquire(40));
    const auto residual = [&] { return hz * engine.nfft / (64e6 / 63.0) + engine.ncoStep * engine.nfft / 6.283185307179; };
    const double atEntry = residual();
    for (int i = 0; i < 12; ++i) run.Feed();
    SCOPED_TRACE(::testing::Message() << hz << " Hz: " << atEntry << " carriers at entry, " << residual() << " after");
    EXPECT_LT(std::fabs(residual()), 0.003);
    EXPECT_LT(std::fabs(residual()), 0.25 * std::fabs(atEntry));
    EXPECT_GT(engine.snrDb, 18.0f);
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
// the packet statistics restart every four frames.
TEST(DriverTracking, ChannelWatchOnStaticEchoesAndUnderFading) {
  const struct {
    const char* name;
    std::vector<sim::EchoPath> echoes;
    double dopplerHz;
    int expected;
  } cases[] = {
      {"static echoes", {sim::EchoPath{12.0, -6.0, 40.0}, sim::EchoPath{45.0, -12.0, 200.0}}, 0.0, CHANNEL_SLOW},
      {"TU6 20 Hz", {}, 20.0, CHANNEL_FAST},
      {"TU6 40 Hz", {}, 40.0, CHANNEL_FAST},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    sim::ChannelConfig ch = Channel(25.0);
    ch.echoes = k.echoes;
    ch.dopplerHz = k.dopplerHz;
    DriverRun run(Layer(2), ch);
    ASSERT_TRUE(run.Acquire(40));
    // The settle count (4080) falls before the timing loop's stage 1 (5000); until then the loop
    // steps at most every eight symbols, the jump age seldom returns to 0, and the 12-symbol lag is
    // measured only now and then: its average takes hundreds of symbols to rise.
    int32_t firstSlow = -1;
    double errorSum = 0.0;
    int measured = 0, clean = 0;
    while (engine.symbolCount < 5400) {
      run.Feed();
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
    EXPECT_TRUE(k.expected == CHANNEL_SLOW ? firstSlow >= 4080 + 128 : firstSlow == -1);
    // A deep fade of the whole segment spoils a symbol now and then; the mean and four symbols in
    // five stay well inside.
    EXPECT_LT(errorSum / measured, -12.0);
    EXPECT_GE(clean, measured * 4 / 5);
  }
}

}  // namespace
}  // namespace zfn
