// The probe as a host drives it: the public header and libZFNISDBT.so only, the test simulator as
// sample source and the test bridge, all found through LD_LIBRARY_PATH.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "tests/diagnostics/diagnostics_support.h"
#include "tests/support/test_bridge/test_bridge_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"
#include "zfnisdbt.h"

namespace {

using zfn_test::WaitFor;

constexpr int64_t REAL_TIME_BYTES = 4063492;  // 1015873 engine samples per second, four bytes each

// Acquisition reports each block's state through the record and its event; an unload while blocks
// flow, then on again with no record: the engine carries on unharmed and nothing reaches the
// destroyed record.
TEST(HostDiagnostics, TheProbeFollowsAcquisitionAndSurvivesItsUnloadWhileRunning) {
  TestSim_Reset();
  TestSim_SetByteRate(REAL_TIME_BYTES);
  TestBridge_Reset();
  ASSERT_EQ(ZFISDBT_DebugCMD(1, 1), 1);
  ASSERT_NE(TestBridge_Record(), nullptr);
  // In order (a braced list is evaluated left to right): simulation, open, tune.
  ASSERT_EQ((std::vector<int32_t>{ZFISDBT_DebugCMD(5, 1), ZFISDBT_OpenDevice(), ZFISDBT_SetFrequency(557143)}),
            (std::vector<int32_t>{1, 1, 1}));
  EXPECT_TRUE(TestBridge_WaitUpdates(3, 5000));
  const double state = *TestBridge_Record()->stateCell;
  EXPECT_TRUE(state >= -2.0 && state <= 2.0) << state;
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 2), 1);
  EXPECT_EQ(TestBridge_Record(), nullptr);
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 1), 1);
  const int64_t updates = TestBridge_Updates();
  EXPECT_TRUE(WaitFor([] {
    int32_t words[ZFISDBT_PARA_WORDS] = {};
    return ZFISDBT_DebugGetParaValue(words) == 1 && words[5] == 2;
  }, 5000));
  EXPECT_EQ(TestBridge_Updates(), updates);
  EXPECT_EQ((std::vector<int32_t>{ZFISDBT_DebugCMD(1, 0), ZFISDBT_CloseDevice(), ZFISDBT_DebugCMD(1, 2)}),
            (std::vector<int32_t>{1, 1, 1}));
}

}  // namespace
