// Acquisition through the synchronous driver: device bytes in, block states out, the block state
// machine of the shell driving the real stages.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
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
  // A mode 1 or 3 broadcast of the segment model whose TMCC word has the given bits flipped.
  void StartModel(int index, const test::TmccFields& fields, std::initializer_list<int> flips) {
    test::SegmentSignal s;
    s.mode = index / 4;
    s.guard = index % 4;
    s.offsetCarriers = 3.4;
    s.lead = 100;
    s.firstSymbol = 150;
    s.amplitude = 0.3;
    s.tmcc = test::TmccWordWith(fields);
    for (int p : flips) s.tmcc[p] ^= 1;
    gen_ = std::make_unique<test::SegmentGenerator>(s);
  }
  int32_t FeedModel() {
    gen_->NextBlock(samples_.data());
    test::ToDeviceBytes(samples_.data(), bytes_.data());
    return Feed(bytes_);
  }
  // Feeds `blocks` blocks of `next`; counts the restarts of acquisition (coarse sync after frame
  // sync or tracking) and fails on a block state outside `allowed`. Tracking is retuned.
  template <class Next>
  int CountRestarts(int blocks, Next next, std::initializer_list<int32_t> allowed) {
    int restarts = 0;
    int32_t previous = SyncDriverBlockState();
    for (int b = 0; b < blocks; ++b) {
      const int32_t state = next();
      EXPECT_NE(std::find(allowed.begin(), allowed.end(), state), allowed.end()) << "block " << b << " state " << state;
      if (state == BLOCK_COARSE_SYNC && (previous == BLOCK_FRAME_SYNC || previous == BLOCK_TRACKING)) ++restarts;
      if (state == BLOCK_TRACKING) SyncDriverRetune();
      previous = state;
    }
    return restarts;
  }

  std::unique_ptr<test::SegmentGenerator> gen_;
  std::vector<float> samples_ = std::vector<float>(BLOCK_FLOATS);
  std::vector<uint8_t> bytes_ = std::vector<uint8_t>(RAW_BLOCK_BYTES);
};

// A corrupted TMCC word: six errors in the bits the receiver reads are repaired on the way; eleven
// errors in the first 21 bits, which leave a reserved modulation, are beyond the repair: the word
// is rejected and acquisition starts again on the next block, for as long as the word is sent.
TEST_F(DriverAcquisition, CorruptedTmccWordIsRepairedOrRejected) {
  StartModel(8, {0, 1, 3, 4, 2}, {0, 3, 8, 12, 16, 20});
  int32_t state = BLOCK_MODE_DETECT;
  for (int b = 0; b < 8 && state != BLOCK_TRACKING; ++b) state = FeedModel();
  ASSERT_EQ(state, BLOCK_TRACKING);
  EXPECT_EQ(SyncDriverEngine().layerParams->modulation, 3);
  EXPECT_EQ(SyncDriverEngine().layerParams->codeRate, 4);
  EXPECT_EQ(SyncDriverEngine().layerParams->interleave, 2);

  SyncDriverRetune();
  StartModel(1, {0, 1, 1, 1, 1}, {8, 9, 2, 3, 4, 5, 6, 17, 18, 19, 20});  // modulation 001 to 111
  EXPECT_GE(CountRestarts(12, [&] { return FeedModel(); }, {BLOCK_COARSE_SYNC, BLOCK_FRAME_SYNC}), 2);
}

// No broadcast: the zero level, all-zero bytes and noise cycle through acquisition without end.
TEST_F(DriverAcquisition, ZerosAndNoiseCycleThroughAcquisition) {
  // The zero level: mode 1, guard 1/32 is taken (the lowest index of twelve equal metrics), its
  // capture fits in one block, the word fails, and the restart detects again on that same newest
  // block: two blocks per round.
  const std::vector<uint8_t> level(RAW_BLOCK_BYTES, 127);
  for (int b = 0; b < 8; ++b) EXPECT_EQ(Feed(level), b % 2 == 0 ? BLOCK_COARSE_SYNC : BLOCK_FRAME_SYNC) << "block " << b;
  // All-zero bytes are a constant at the negative full scale: the running sums round differently
  // per hypothesis, so any pair may come out, and the word fails all the same.
  SyncDriverRetune();
  const std::vector<uint8_t> zeros(RAW_BLOCK_BYTES, 0);
  EXPECT_GE(CountRestarts(12, [&] { return Feed(zeros); }, {BLOCK_COARSE_SYNC, BLOCK_FRAME_SYNC}), 2);
  // Noise: the words are random. Only a clean word can declare no service (a chance of 2^-82),
  // but a repaired random word may pass as receivable; tracking then ends only through the
  // decoder's statistics, so the engine is retuned whenever it got there.
  std::mt19937 rng(9);
  auto noise = [&] {
    // Sum of two uniform bytes: a triangular noise around 127 with a spread of about 40 steps.
    for (auto& v : bytes_) {
      const uint32_t r = rng();
      v = static_cast<uint8_t>(((r & 0xFF) + ((r >> 8) & 0xFF)) / 2);
    }
    return Feed(bytes_);
  };
  EXPECT_GE(CountRestarts(30, noise, {BLOCK_MODE_DETECT, BLOCK_COARSE_SYNC, BLOCK_FRAME_SYNC, BLOCK_TRACKING}), 3);
}

}  // namespace
}  // namespace zfn
