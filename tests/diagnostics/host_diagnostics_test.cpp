// Capture and probe as a host drives them: the public header and libZFNISDBT.so only, the test
// simulator as sample source and the test bridge, all found through LD_LIBRARY_PATH.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/diagnostics/diagnostics_support.h"
#include "tests/support/test_bridge/test_bridge_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"
#include "zfnisdbt.h"

namespace {

using zfn_test::WaitFor;

constexpr int64_t BLOCK = 240640;
constexpr int64_t REAL_TIME_BYTES = 4063492;  // 1015873 engine samples per second, four bytes each

// Which block of the simulator's stream a captured block is, from `from` on, or -1 if it is none.
int64_t StreamBlock(const uint8_t* block, int64_t from) {
  for (int64_t k = from; k < from + 2000; ++k) {
    int64_t i = 0;
    while (i < BLOCK && block[i] == TestSim_PatternByte(k * BLOCK + i)) ++i;
    if (i == BLOCK) return k;
    if (i >= 64) return -1;
  }
  return -1;
}

// The capture is the received stream in whole blocks (reads of random lengths cut blocks across
// them), none lost at real time; the file numbers go on over close and open: file 1 with the
// device open again, file 2 with it closed (the thread ends at once). Each test runs in a process
// of its own: the first start writes file 0.
TEST(HostDiagnostics, CaptureWritesTheReceivedStreamInWholeBlocksInFilesNumberedOverCloseAndOpen) {
  TestSim_Reset();
  TestSim_SetReadLength(0, 5, 1);
  TestSim_SetByteRate(REAL_TIME_BYTES);
  zfn_test::ScratchDirectory scratch(true);
  ASSERT_EQ(ZFISDBT_DebugCMD(5, 1), 1);
  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  ASSERT_EQ(ZFISDBT_DebugCMD(6, 1), 1);
  EXPECT_TRUE(WaitFor([] { std::error_code e; return std::filesystem::file_size("BBStore0", e) >= 4 * BLOCK; }, 5000));
  EXPECT_EQ(ZFISDBT_DebugCMD(6, 0), 1);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  const std::vector<uint8_t> bytes = zfn_test::ReadBytes("BBStore0");
  ASSERT_EQ(bytes.size() % BLOCK, 0u) << "only whole blocks";
  ASSERT_GE(bytes.size(), static_cast<size_t>(4 * BLOCK));
  for (int64_t at = 0, previous = -1; at < static_cast<int64_t>(bytes.size()); at += BLOCK) {
    const int64_t k = StreamBlock(bytes.data() + at, previous + 1);
    ASSERT_TRUE(k >= 0 && (previous < 0 || k == previous + 1)) << "block " << k << " after " << previous;
    previous = k;
  }
  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  for (int32_t value : {1, 0}) EXPECT_EQ(ZFISDBT_DebugCMD(6, value), 1);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  for (int32_t value : {1, 0}) EXPECT_EQ(ZFISDBT_DebugCMD(6, value), 1);
  EXPECT_TRUE(std::filesystem::exists("BBStore1") && std::filesystem::exists("BBStore2"));
  EXPECT_FALSE(std::filesystem::exists("BBStore3"));
}

// Acquisition reports each block's state through the record and its event; an unload while blocks
// flow, then on again with no record: the engine carries on unharmed and nothing reaches the
// destroyed record.
TEST(HostDiagnostics, TheProbeFollowsAcquisitionAndSurvivesItsUnloadWhileRunning) {
  TestSim_Reset();
  TestSim_SetByteRate(REAL_TIME_BYTES);
  TestBridge_Reset();
  ASSERT_EQ(ZFISDBT_DebugCMD(1, 1), 1);
  ASSERT_NE(TestBridge_Record(), nullptr);
  ASSERT_EQ(ZFISDBT_DebugCMD(5, 1), 1);
  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  ASSERT_EQ(ZFISDBT_SetFrequency(557143), 1);
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
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 0), 1);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 2), 1);
}

}  // namespace
