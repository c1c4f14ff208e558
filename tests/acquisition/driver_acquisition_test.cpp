// Acquisition through the synchronous driver: device bytes in, block states out, the block state
// machine of the shell driving the real stages.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "shell/sync_driver.h"
#include "synthetic_segment.h"

namespace zfn {
namespace {

class DriverAcquisition : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(SyncDriverOpen(nullptr, nullptr), 1);
    SyncDriverRetune();
  }
  void TearDown() override { SyncDriverClose(); }

  // Feeds one block and returns the state it left.
  int32_t Feed(const std::vector<uint8_t>& bytes) {
    SyncDriverFeed(bytes.data(), bytes.size());
    return SyncDriverBlockState();
  }
  int32_t FeedModel(test::SegmentGenerator& gen) {
    gen.NextBlock(samples_.data());
    test::ToDeviceBytes(samples_.data(), bytes_.data());
    return Feed(bytes_);
  }

  std::vector<float> samples_ = std::vector<float>(BLOCK_FLOATS);
  std::vector<uint8_t> bytes_ = std::vector<uint8_t>(RAW_BLOCK_BYTES);
};

test::SegmentSignal Broadcast(int index, const test::TmccFields& fields) {
  test::SegmentSignal s;
  s.mode = index / 4;
  s.guard = index % 4;
  s.offsetCarriers = 3.4;
  s.lead = 100;
  s.firstSymbol = 150;
  s.amplitude = 0.3;
  s.tmcc = test::TmccWordWith(fields);
  return s;
}

// Damage to TMCC in the bits the receiver reads: up to eight errors are repaired on the way.
TEST_F(DriverAcquisition, DamagedTmccWordIsRepaired) {
  test::SegmentSignal s = Broadcast(8, {0, 1, 3, 4, 2});
  for (int p : {0, 3, 8, 12, 16, 20}) s.tmcc[p] ^= 1;
  test::SegmentGenerator gen(s);
  int32_t state = BLOCK_MODE_DETECT;
  for (int b = 0; b < 8 && state != BLOCK_TRACKING; ++b) state = FeedModel(gen);
  ASSERT_EQ(state, BLOCK_TRACKING);
  EXPECT_EQ(SyncDriverEngine().layerParams->modulation, 3);
  EXPECT_EQ(SyncDriverEngine().layerParams->codeRate, 4);
  EXPECT_EQ(SyncDriverEngine().layerParams->interleave, 2);
}

// A word that is not a codeword and, after the repair, names a reserved modulation is rejected,
// and acquisition starts again on the next block; it goes on so as long as the word is sent.
TEST_F(DriverAcquisition, UnrepairableTmccWordRestartsAcquisition) {
  test::SegmentSignal s = Broadcast(1, {0, 1, 1, 1, 1});
  s.tmcc = test::TmccWordWith({0, 1, 1, 1, 1});
  // Twelve errors in the first 21 bits are beyond the repair; make the modulation field 111.
  for (int p : {8, 9, 10, 2, 3, 4, 5, 6, 17, 18, 19, 20}) s.tmcc[p] ^= 1;
  s.tmcc[8] = s.tmcc[9] = s.tmcc[10] = 1;
  test::SegmentGenerator gen(s);
  int restarts = 0;
  int32_t previous = BLOCK_MODE_DETECT;
  for (int b = 0; b < 12; ++b) {
    const int32_t state = FeedModel(gen);
    ASSERT_NE(state, BLOCK_TRACKING);
    ASSERT_NE(state, BLOCK_NO_SIGNAL);
    if (previous == BLOCK_FRAME_SYNC && state == BLOCK_COARSE_SYNC) ++restarts;
    previous = state;
  }
  EXPECT_GE(restarts, 2);
}

// No broadcast: all-zero bytes, the zero level, and noise cycle through acquisition without end.
TEST_F(DriverAcquisition, ZerosAndNoiseCycleThroughAcquisition) {
  {
    // The zero level: mode 1, guard 1/32 is taken (the lowest index of twelve equal metrics), its
    // capture fits in one block, the word fails, and the restart detects again on that same newest
    // block: two blocks per round.
    std::vector<uint8_t> bytes(RAW_BLOCK_BYTES, 127);
    for (int b = 0; b < 8; ++b) EXPECT_EQ(Feed(bytes), b % 2 == 0 ? BLOCK_COARSE_SYNC : BLOCK_FRAME_SYNC) << "block " << b;
  }
  {
    // All-zero bytes are a constant at the negative full scale: the running sums round
    // differently per hypothesis, so any pair may come out, and the word fails all the same.
    SyncDriverRetune();
    std::vector<uint8_t> bytes(RAW_BLOCK_BYTES, 0);
    int restarts = 0;
    int32_t previous = BLOCK_MODE_DETECT;
    for (int b = 0; b < 12; ++b) {
      const int32_t state = Feed(bytes);
      ASSERT_TRUE(state == BLOCK_COARSE_SYNC || state == BLOCK_FRAME_SYNC) << "block " << b;
      if (state == BLOCK_COARSE_SYNC && previous != BLOCK_MODE_DETECT) ++restarts;
      previous = state;
    }
    EXPECT_GE(restarts, 2);
  }
  // Noise: the words are random. Only a clean word can declare no service (a chance of 2^-82),
  // but a repaired random word may pass as receivable; tracking then ends only through the
  // decoder's statistics, so here the engine is retuned whenever it got there.
  std::mt19937 rng(9);
  std::vector<uint8_t> bytes(RAW_BLOCK_BYTES);
  int restarts = 0;
  int32_t previous = SyncDriverBlockState();
  for (int b = 0; b < 30; ++b) {
    // Sum of two uniform bytes: a triangular noise around 127 with a spread of about 40 steps.
    for (auto& v : bytes) {
      const uint32_t r = rng();
      v = static_cast<uint8_t>(((r & 0xFF) + ((r >> 8) & 0xFF)) / 2);
    }
    const int32_t state = Feed(bytes);
    ASSERT_NE(state, BLOCK_NO_SIGNAL);
    if (state == BLOCK_COARSE_SYNC && previous != BLOCK_MODE_DETECT) ++restarts;
    if (state == BLOCK_TRACKING) SyncDriverRetune();
    previous = state;
  }
  EXPECT_GE(restarts, 3);
}

}  // namespace
}  // namespace zfn
