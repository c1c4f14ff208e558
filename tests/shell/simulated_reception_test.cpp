// Reception from the project's own simulator through the shared library, as a host sees it: lock,
// packets in the callback, a retune in the middle, close. Skipped where the simulator library is
// not built (libBDA_simu.so in the library folder).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "lifecycle_support.h"
#include "zfnisdbt.h"

namespace {

std::atomic<int64_t> packets{0};
std::atomic<int64_t> packetsWithoutSync{0};
std::atomic<int64_t> deliveries{0};
std::atomic<bool> countSync{false};

void OnPackets(const uint8_t* data, int32_t length) {
  deliveries += 1;
  if (length != 24064) return;
  packets += length / 188;
  if (!countSync.load()) return;
  for (int32_t p = 0; p < length; p += 188) packetsWithoutSync += data[p] != 0x47;
}

int32_t Lock() {
  int32_t locked = 0;
  return ZFISDBT_GetSignalLock(&locked) == 1 && locked == 1;
}

TEST(SimulatedReception, LocksDeliversAndLocksAgainAfterARetune) {
  ASSERT_EQ(ZFISDBT_SetTSCallBack(OnPackets), 1);
  ZFISDBT_DebugCMD(5, 1);
  if (ZFISDBT_OpenDevice() != 1) {
    ZFISDBT_CloseDevice();
    GTEST_SKIP() << "no simulator library in the search path";
  }
  ASSERT_EQ(ZFISDBT_SetFrequency(473143), 1);
  const auto t0 = std::chrono::steady_clock::now();
  ASSERT_TRUE(zfn_test::WaitFor(Lock, 20000)) << "no lock within 20 s";
  const auto locked = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
  std::printf("lock after %lld ms\n", static_cast<long long>(locked.count()));

  // From lock on, every delivered packet starts with its sync byte.
  ASSERT_TRUE(zfn_test::WaitFor([] { return deliveries.load() >= 1; }, 10000));
  countSync = true;
  const int64_t before = packets.load();
  ASSERT_TRUE(zfn_test::WaitFor([before] { return packets.load() >= before + 256; }, 20000));
  EXPECT_EQ(packetsWithoutSync.load(), 0);

  // A retune starts acquisition over: no lock until the engine has tracked again.
  countSync = false;
  ASSERT_EQ(ZFISDBT_SetFrequency(473143), 1);
  // The status words tell at once; the block state follows with the next block.
  int32_t words[ZFISDBT_PARA_WORDS] = {};
  ASSERT_EQ(ZFISDBT_DebugGetParaValue(words), 1);
  EXPECT_NE(words[5], 3) << "no longer tracking";
  EXPECT_TRUE(zfn_test::WaitFor([] {
    int32_t present = 5;
    return ZFISDBT_GetSignalPresent(&present) == 0;
  })) << "acquisition starts over";
  ASSERT_TRUE(zfn_test::WaitFor(Lock, 20000)) << "no lock again within 20 s";
  const int64_t again = packets.load();
  ASSERT_TRUE(zfn_test::WaitFor([again] { return packets.load() >= again + 128; }, 20000));

  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  const int64_t atClose = deliveries.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(deliveries.load(), atClose) << "nothing is delivered after close";
}

}  // namespace
