// The library as a host uses it: only the public header and libZFNISDBT.so, with the test builds
// of the sample sources found through LD_LIBRARY_PATH.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "lifecycle_support.h"
#include "tests/support/test_device/test_device_control.h"
#include "zfnisdbt.h"

namespace {

using zfn_test::LogCapture;
using zfn_test::WaitFor;

void OnPackets(const uint8_t*, int32_t) {}
void OnAc(void) {}

// RetuneReset writes -1 to the block state word; the first block handled after the retune writes
// its state there, whatever acquisition makes of the test stream.
bool BlockHandledSinceRetune() {
  int32_t words[ZFISDBT_PARA_WORDS] = {};
  return ZFISDBT_DebugGetParaValue(words) == 1 && words[5] != -1;
}

TEST(HostLibrary, LifecycleWithExactLogLines) {
  TestDevice_Reset();
  TestDevice_SetByteRate(4063492);
  LogCapture log;
  int32_t* para = nullptr;
  int32_t words[ZFISDBT_PARA_WORDS];
  EXPECT_EQ(ZFISDBT_DebugGetParaPtr(&para) + ZFISDBT_DebugGetParaValue(words), 0);
  EXPECT_EQ(ZFISDBT_SetTSCallBack(OnPackets) * 10 + ZFISDBT_SetTSCallBack(nullptr), 10);
  EXPECT_EQ(ZFISDBT_SetACCallBack(OnAc) * 10 + ZFISDBT_SetACCallBack(nullptr), 10);
  // A retune before open fails, except in simulation.
  EXPECT_EQ(ZFISDBT_SetFrequency(500000), 0);
  EXPECT_EQ((std::vector<int32_t>{ZFISDBT_DebugCMD(5, 1), ZFISDBT_SetFrequency(500000), ZFISDBT_DebugCMD(5, 0)}),
            (std::vector<int32_t>{1, 1, 1}));
  EXPECT_EQ(ZFISDBT_StartAC() + ZFISDBT_StopAC(), 2);

  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  ASSERT_EQ(ZFISDBT_DebugGetParaPtr(&para), 1);
  ASSERT_NE(para, nullptr);
  EXPECT_EQ(ZFISDBT_SetFrequency(557143), 1);
  // Right after the retune the engine has handled no block of the new channel yet: acquisition
  // takes three blocks at least (about 180 ms) before any status can be sure.
  int32_t present = 7, locked = 7, quality = 7;
  const std::vector<int32_t> results{ZFISDBT_GetSignalPresent(&present), ZFISDBT_GetSignalLock(&locked),
                                     ZFISDBT_GetSignalQuality(&quality)};
  EXPECT_EQ(results, (std::vector<int32_t>{0, 0, 1}));
  EXPECT_EQ((std::vector<int32_t>{present, locked, quality}), (std::vector<int32_t>{7, 0, 0}));
  ASSERT_EQ(ZFISDBT_DebugGetParaValue(words), 1);
  EXPECT_EQ(words[10], -1) << "status words of a new acquisition (channel state unknown)";
  EXPECT_TRUE(WaitFor(BlockHandledSinceRetune)) << "blocks are handled";
  // The words change under the host's eyes: read them as the atomic words they are.
  EXPECT_NE(__atomic_load_n(&para[5], __ATOMIC_RELAXED), -1) << "the pointer shows the live block";

  EXPECT_EQ(ZFISDBT_GetSignalPresent(nullptr) + ZFISDBT_DebugGetParaValue(nullptr), 0);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  EXPECT_EQ(ZFISDBT_DebugGetParaPtr(&para), 0);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);

  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  EXPECT_EQ(ZFISDBT_SetFrequency(473143), 1);
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);

  // The golden log holds the lines without their prefix, several to a line, split by " | ".
  std::ifstream golden(ZFN_API_LOG_GOLDEN);
  std::string compact, line;
  while (std::getline(golden, line)) compact += (compact.empty() ? "" : " | ") + line;
  EXPECT_EQ(log.Lines(), zfn_test::ApiLines(compact));
}

}  // namespace
