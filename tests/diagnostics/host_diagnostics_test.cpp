// Capture and probe as a host drives them: the public header and libZFNISDBT.so only, the test
// simulator as sample source and the test bridge, all found through LD_LIBRARY_PATH. The cases skip
// themselves while the debug command does not offer capture or the probe.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/diagnostics/diagnostics_support.h"
#include "tests/support/test_bridge/test_bridge_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"
#include "zfnisdbt.h"

namespace {

using zfn_test::ReadBytes;
using zfn_test::ScratchDirectory;
using zfn_test::WaitFor;

constexpr int64_t BLOCK = 240640;
constexpr int64_t REAL_TIME_BYTES = 4063492;  // 1015873 engine samples per second, four bytes each

// Which block of the simulator's stream a captured block is, or -1 if it is none.
int64_t StreamBlock(const uint8_t* block, int64_t from) {
  for (int64_t k = from; k < from + 2000; ++k) {
    bool same = true;
    for (int64_t i = 0; i < 64 && same; ++i) same = block[i] == TestSim_PatternByte(k * BLOCK + i);
    if (!same) continue;
    for (int64_t i = 0; i < BLOCK; ++i)
      if (block[i] != TestSim_PatternByte(k * BLOCK + i)) return -1;
    return k;
  }
  return -1;
}

TEST(HostDiagnostics, CaptureWritesTheReceivedStreamInWholeBlocksInFilesNumberedOverCloseAndOpen) {
  TestSim_Reset();
  TestSim_SetReadLength(0, 5, 1);  // random lengths: blocks are cut across reads
  TestSim_SetByteRate(REAL_TIME_BYTES);
  ScratchDirectory scratch(true);
  ASSERT_EQ(ZFISDBT_DebugCMD(5, 1), 1);
  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  ASSERT_EQ(ZFISDBT_DebugCMD(6, 1), 1);
  // Each test runs in a process of its own: this start writes file 0.
  const std::string name = "BBStore0";
  EXPECT_TRUE(WaitFor([&] { return zfn_test::FileSize(name) >= 4 * BLOCK; }, 5000));
  EXPECT_EQ(ZFISDBT_DebugCMD(6, 0), 1);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);

  const std::vector<uint8_t> bytes = ReadBytes(name);
  ASSERT_EQ(bytes.size() % BLOCK, 0u) << "only whole blocks";
  ASSERT_GE(bytes.size(), static_cast<size_t>(4 * BLOCK));
  int64_t previous = -1;
  for (size_t at = 0; at < bytes.size(); at += BLOCK) {
    const int64_t k = StreamBlock(bytes.data() + at, previous + 1);
    ASSERT_GE(k, 0) << "block at byte " << at << " is no block of the stream";
    EXPECT_TRUE(previous < 0 || k == previous + 1)
        << "block " << k << " after " << previous << ": a real-time stream loses no block on this disk";
    previous = k;
  }

  // The numbers go on over close and open: file 1 with the device open again, file 2 with it
  // closed (the thread ends at once).
  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  ASSERT_EQ(ZFISDBT_DebugCMD(6, 1), 1);
  EXPECT_EQ(ZFISDBT_DebugCMD(6, 0), 1);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  ASSERT_EQ(ZFISDBT_DebugCMD(6, 1), 1);
  EXPECT_EQ(ZFISDBT_DebugCMD(6, 0), 1);
  for (const char* file : {"BBStore1", "BBStore2"}) EXPECT_TRUE(zfn_test::FileExists(file)) << file;
  EXPECT_FALSE(zfn_test::FileExists("BBStore3"));
}

TEST(HostDiagnostics, TheProbeFollowsAcquisitionAndSurvivesItsUnloadWhileRunning) {
  TestSim_Reset();
  TestSim_SetByteRate(REAL_TIME_BYTES);
  TestBridge_Reset();
  ASSERT_EQ(ZFISDBT_DebugCMD(1, 1), 1);
  ASSERT_NE(TestBridge_Record(), nullptr);
  ASSERT_EQ(ZFISDBT_DebugCMD(5, 1), 1);
  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  ASSERT_EQ(ZFISDBT_SetFrequency(557143), 1);
  // Acquisition reports each block's state through the record and its event.
  EXPECT_TRUE(TestBridge_WaitUpdates(3, 5000));
  const double state = *TestBridge_Record()->stateCell;
  EXPECT_TRUE(state >= -2.0 && state <= 2.0) << state;

  // Unload while blocks flow, then on again with no record: the engine must carry on unharmed.
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 2), 1);
  EXPECT_EQ(TestBridge_Record(), nullptr);
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 1), 1);
  const int64_t updates = TestBridge_Updates();
  EXPECT_TRUE(WaitFor([] {
    int32_t words[ZFISDBT_PARA_WORDS] = {};
    return ZFISDBT_DebugGetParaValue(words) == 1 && words[5] == 2;
  }, 5000));
  EXPECT_EQ(TestBridge_Updates(), updates) << "nothing reaches a destroyed record";
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 0), 1);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  EXPECT_EQ(ZFISDBT_DebugCMD(1, 2), 1);
}

}  // namespace
