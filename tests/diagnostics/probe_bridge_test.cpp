// Debug command 1 against the test build of the plotting bridge (found by plain name through
// LD_LIBRARY_PATH): loading, its failures, the unload that leaves bridgeLoaded set, and the
// engine's fill reaching the bridge through the record and its update event.
#include <gtest/gtest.h>

#include <vector>

#include "shell/diagnostics.h"
#include "shell/probe_bridge.h"
#include "shell/receiver_state.h"
#include "tests/support/test_bridge/test_bridge_control.h"
#include "tracking/probe_fill.h"

namespace zfn {
namespace {

class ProbeBridge : public ::testing::Test {
 protected:
  void SetUp() override { Clear(); }
  void TearDown() override { Clear(); }
  static void Clear() {
    if (probeBridge.library != nullptr || matlabProbe != nullptr) UnloadProbeBridge();
    probeBridge = ProbeBridgeState{};
    probeEnable = 0;
    engine.probeActive = 0;
    engine.jumpListCount = 0;
    TestBridge_Reset();
  }
  static void ExpectCalls(int32_t initial, int32_t show, int32_t destroy) {
    EXPECT_EQ(TestBridge_Calls("MATLAB_Initial"), initial);
    EXPECT_EQ(TestBridge_Calls("MATLAB_Show"), show);
    EXPECT_EQ(TestBridge_Calls("MATLAB_Destroy"), destroy);
  }
};

TEST_F(ProbeBridge, AFailedLoadSetsNoFlagSoTheNextAttemptTriesAgainAndOffKeepsTheBridge) {
  TestBridge_FailInitial(1);
  EXPECT_EQ(DebugProbeCommand(1), 1) << "the command succeeds even when the bridge does not";
  EXPECT_EQ(probeEnable, 0);
  EXPECT_EQ(probeBridge.bridgeLoaded, 0);
  EXPECT_NE(probeBridge.library, nullptr) << "the library stays loaded";
  ExpectCalls(1, 0, 0);

  TestBridge_FailInitial(0);
  TestBridge_NullRecord(1);
  EXPECT_EQ(DebugProbeCommand(1), 1);
  EXPECT_EQ(probeEnable, 0) << "a null record is a failed load";
  EXPECT_EQ(matlabProbe, nullptr);
  EXPECT_EQ(probeBridge.bridgeLoaded, 0);

  TestBridge_NullRecord(0);
  EXPECT_EQ(DebugProbeCommand(1), 1);
  EXPECT_EQ(probeEnable, 1);
  EXPECT_EQ(probeBridge.bridgeLoaded, 1);
  EXPECT_EQ(matlabProbe, TestBridge_Record());
  ExpectCalls(3, 2, 0);

  // On again does nothing, off keeps the bridge, other values do nothing, on needs no new load.
  for (const int32_t value : {1, 0, 3, -1}) EXPECT_EQ(DebugProbeCommand(value), 1) << value;
  EXPECT_EQ(probeEnable, 0);
  EXPECT_NE(matlabProbe, nullptr) << "off keeps the bridge";
  EXPECT_EQ(DebugProbeCommand(1), 1);
  EXPECT_EQ(probeEnable, 1);
  ExpectCalls(3, 2, 0);
}

// (What the engine then does with the probe on and no record is a case of the fill.)
TEST_F(ProbeBridge, UnloadLeavesBridgeLoadedSetSoOnAgainLoadsNothing) {
  ASSERT_EQ(DebugProbeCommand(1), 1);
  ASSERT_EQ(DebugProbeCommand(2), 1);
  EXPECT_EQ(probeEnable, 0);
  EXPECT_EQ(matlabProbe, nullptr);
  EXPECT_EQ(probeBridge.library, nullptr);
  EXPECT_EQ(probeBridge.bridgeLoaded, 1) << "the unload does not clear the flag";
  ExpectCalls(1, 1, 1);

  // On again after the unload: the flag short-cuts the load, the probe is on with no record.
  EXPECT_EQ(DebugProbeCommand(1), 1);
  EXPECT_EQ(probeEnable, 1);
  EXPECT_EQ(matlabProbe, nullptr);
  ExpectCalls(1, 1, 1);

  // A second unload in a row calls nothing in the released library.
  EXPECT_EQ(DebugProbeCommand(2), 1);
  ExpectCalls(1, 1, 1);
  EXPECT_EQ(probeEnable, 0);
}

TEST_F(ProbeBridge, TheEngineFillReachesTheBridgeWithOneUpdatePerFrame) {
  ASSERT_EQ(DebugProbeCommand(1), 1);
  ASSERT_NE(matlabProbe, nullptr);
  engine.probeActive = probeEnable;
  engine.probeDecimation = 1;
  engine.probeRewind = 1;

  constexpr int32_t ndata = 96;
  std::vector<float> carriers(2 * ndata, 0.5f);
  std::vector<float> planes(2 * 108, 1.0f), slot(2 * 180, 0.0f), acc(257, 0.0f);
  const ProbeFrameInput frame{20.0f, 256, 0.0f, std::span<const float>(planes).first(108),
                              std::span<const float>(planes).subspan(108), slot, acc, 0, 4, 0,
                              BLOCK_TRACKING};
  // The event is auto-reset: sets close together merge, so each frame waits for its update.
  for (int32_t f = 1; f <= 2; ++f) {
    for (int32_t s = 0; s < 204; ++s) {
      ProbeBeginSymbol(s);
      ProbeStoreCarriers(s, carriers, 4, 0.0f, {});
      ProbeFinishFrame(s, frame);
    }
    EXPECT_TRUE(TestBridge_WaitUpdates(f, 2000));
  }
  EXPECT_EQ(TestBridge_Updates(), 2);
  const MatlabProbe* record = TestBridge_Record();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->fillIndex, 101 * ndata);
  EXPECT_DOUBLE_EQ(record->carrierRe[101 * ndata - 1], 0.5);  // 16QAM: as equalised
  EXPECT_DOUBLE_EQ(*record->snrCell, 20.0);
  EXPECT_DOUBLE_EQ(record->channelRe[107], 1.0);
  EXPECT_DOUBLE_EQ(*record->stateCell, BLOCK_TRACKING);

  ProbeStoreBlockState(BLOCK_FRAME_SYNC);
  EXPECT_TRUE(TestBridge_WaitUpdates(3, 2000));
  EXPECT_DOUBLE_EQ(*record->stateCell, BLOCK_FRAME_SYNC);
}

}  // namespace
}  // namespace zfn
