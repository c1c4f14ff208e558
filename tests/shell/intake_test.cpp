// Sample intake: assembly of arbitrary reads into blocks, the ring of four, and the walk of
// symbols across block edges.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "shell/block_ring.h"
#include "shell/block_scheduler.h"
#include "shell/receiver_state.h"

namespace zfn {
namespace {

uint8_t StreamByte(int64_t k) { return static_cast<uint8_t>((k * 2654435761ll) >> 11); }

void AddBlock(const uint8_t* block, void* self) {
  static_cast<std::vector<std::vector<uint8_t>>*>(self)->emplace_back(block, block + RAW_BLOCK_BYTES);
}

// Reads of any length 1..SOURCE_READ_BYTES, starting with the edge cases (a read ending exactly at
// a block edge; one byte short, then a full request completing two blocks and keeping 7 bytes),
// then random ones including short reads of a few bytes: the same block stream every time.
TEST(BlockAssembly, AnyReadLengthGivesTheSameBlockStream) {
  constexpr int64_t kBlocks = 12;
  constexpr int64_t kBytes = kBlocks * RAW_BLOCK_BYTES + 12345;  // ends inside a block
  std::vector<uint8_t> stream(kBytes);
  for (int64_t k = 0; k < kBytes; ++k) stream[k] = StreamByte(k);
  for (uint32_t seed : {1u, 2u, 3u}) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int32_t> length(1, SOURCE_READ_BYTES);
    std::vector<uint8_t> assembly(RAW_BLOCK_BYTES);
    BlockAssembler assembler;
    assembler.Reset(assembly.data());
    std::vector<std::vector<uint8_t>> blocks;
    auto feed = [&](int64_t at, int64_t n) { return assembler.Append(stream.data() + at, n, AddBlock, &blocks); };
    EXPECT_EQ(feed(0, RAW_BLOCK_BYTES), 1);
    EXPECT_EQ(assembler.remaining, RAW_BLOCK_BYTES);
    EXPECT_EQ(feed(RAW_BLOCK_BYTES, RAW_BLOCK_BYTES - 1), 0);
    EXPECT_EQ(feed(2 * RAW_BLOCK_BYTES - 1, SOURCE_READ_BYTES), 2);
    EXPECT_EQ(assembler.remaining, RAW_BLOCK_BYTES - 7);
    int64_t at = 2 * RAW_BLOCK_BYTES - 1 + SOURCE_READ_BYTES;
    while (at < kBytes) {
      int64_t n = (rng() % 4 == 0) ? 1 + rng() % 7 : length(rng);
      if (n > kBytes - at) n = kBytes - at;
      feed(at, n);
      at += n;
    }
    ASSERT_EQ(blocks.size(), static_cast<size_t>(kBlocks)) << "seed " << seed;
    for (int64_t b = 0; b < kBlocks; ++b) {
      ASSERT_EQ(0, std::memcmp(blocks[b].data(), stream.data() + b * RAW_BLOCK_BYTES, RAW_BLOCK_BYTES))
          << "block " << b << " seed " << seed;
    }
    EXPECT_EQ(assembler.remaining, RAW_BLOCK_BYTES - 12345);
  }
}

void Publish(uint8_t tag) { BlockRingPublish(std::vector<uint8_t>(RAW_BLOCK_BYTES, tag).data()); }
int Take() {
  std::vector<uint8_t> block(RAW_BLOCK_BYTES, 0);
  return BlockRingTakeNext(block.data()) ? block[RAW_BLOCK_BYTES - 1] : -1;
}

TEST(BlockRing, InOrderLapsAndTheJumpToTheNewest) {
  ASSERT_EQ(BlockRingAlloc(), 1);
  Publish(1);
  Publish(2);
  EXPECT_EQ(Take(), 1);
  EXPECT_EQ(Take(), 2);
  EXPECT_EQ(Take(), -1);
  // Six blocks while the reader sleeps: the writer laps, the reader finds the newest two.
  for (uint8_t tag = 3; tag <= 8; ++tag) Publish(tag);
  EXPECT_EQ(Take(), 7);
  EXPECT_EQ(Take(), 8);
  EXPECT_EQ(Take(), -1);
  EXPECT_EQ(blockRing.writeCount, 8u);
  EXPECT_EQ(blockRing.readCount, 4u);
  // A lap of exactly four looks empty until the next block.
  for (uint8_t tag = 9; tag <= 12; ++tag) Publish(tag);
  EXPECT_EQ(Take(), -1);
  Publish(13);
  EXPECT_EQ(Take(), 13);
  // The jump takes the newest; the next block follows in order.
  for (uint8_t tag = 14; tag <= 16; ++tag) Publish(tag);
  std::vector<uint8_t> block(RAW_BLOCK_BYTES);
  BlockRingTakeNewest(block.data());
  EXPECT_EQ(block[0], 16);
  EXPECT_EQ(blockRing.readCount, blockRing.writeCount);
  EXPECT_EQ(Take(), -1);
  Publish(17);
  EXPECT_EQ(Take(), 17);
  BlockRingFree();
  EXPECT_EQ(BlockRingFree(), 1) << "safe twice";
  EXPECT_EQ(blockRing.slots[3], nullptr);
}

// --- The walk of symbols across block edges -------------------------------------------------

// Every float of a block holds its absolute position in the stream, so a symbol tells exactly
// where it was cut from.
class SymbolWalk : public testing::Test {
 protected:
  static constexpr int32_t kNsymbol = 1056;  // Mode 3, guard 1/32
  static constexpr int32_t S = 2 * kNsymbol;

  void SetUp() override {
    samples_.assign(BLOCK_FLOATS, 0.0f);
    buffer_.assign(S + 64, -1.0f);
    engine.sampleBlock = samples_.data();
    engine.symbolBuffer = buffer_.data();
    engine.nsymbol = kNsymbol;
    engine.nwork = kNsymbol;
    engine.straddleFlag = 0;
    engine.straddleFloats = 0;
    engine.timingStep = 0;
    engine.symbolIndex = 0;
    engine.spPhase = 0;
    self_ = this;
    symbolStepHandler = Record;
  }
  void TearDown() override {
    symbolStepHandler = SymbolStep;
    engine.sampleBlock = nullptr;
    engine.symbolBuffer = nullptr;
  }
  static void Record() {
    const float first = self_->buffer_[0];
    for (int32_t i = 1; i < S; ++i) {
      if (self_->buffer_[i] != first + static_cast<float>(i)) {
        ++self_->broken_;
        break;
      }
    }
    self_->starts_.push_back(static_cast<int64_t>(first));
    engine.timingStep = self_->stepFor_ ? self_->stepFor_(self_->starts_.size() - 1) : 0;
  }
  void WalkBlocks(int64_t from, int64_t to) {
    for (int64_t block = from; block < to; ++block) {
      for (int32_t i = 0; i < BLOCK_FLOATS; ++i) samples_[i] = static_cast<float>(block * BLOCK_FLOATS + i);
      WalkSymbols();
    }
  }
  // Every symbol whole, each N + 2 * step floats after the last.
  void ExpectTheArithmetic(int64_t first) const {
    EXPECT_EQ(broken_, 0);
    std::vector<int64_t> expected;
    for (size_t k = 0; k < starts_.size(); ++k) {
      expected.push_back(first);
      first += S + 2 * (stepFor_ ? stepFor_(k) : 0);
    }
    EXPECT_EQ(starts_, expected);
  }

  std::vector<float> samples_;
  std::vector<float> buffer_;
  std::vector<int64_t> starts_;
  int broken_ = 0;
  std::function<int32_t(size_t)> stepFor_;
  static SymbolWalk* self_;
};
SymbolWalk* SymbolWalk::self_ = nullptr;

TEST_F(SymbolWalk, SymbolEndingExactlyAtTheBlockEndTakesTheStraddlePathWithNothingToAppend) {
  const int32_t start = BLOCK_FLOATS - 56 * S;  // 56 symbols fill the block to its last float
  engine.readPos = start;
  WalkBlocks(0, 1);
  EXPECT_EQ(starts_.size(), 55u) << "the last symbol of the block waits for the next block";
  EXPECT_EQ(engine.straddleFlag, 1);
  EXPECT_EQ(engine.straddleFloats, S);
  WalkBlocks(1, 2);
  ASSERT_GE(starts_.size(), 57u);
  EXPECT_EQ(starts_[55], BLOCK_FLOATS - S) << "the held symbol comes first in the next block";
  EXPECT_EQ(starts_[56], BLOCK_FLOATS) << "then the symbol at the very start of the new block";
  ExpectTheArithmetic(start);
}

TEST_F(SymbolWalk, NegativeStepAfterAStraddleBuildsTheNextSymbolFromTheHeldTail) {
  // The symbol before the edge straddles with only 4 floats in the new block; its step of -4
  // samples (-8 floats) puts the next start 4 floats before the new block.
  const int32_t straddleStart = BLOCK_FLOATS - (S - 4);
  const int32_t first = straddleStart - 10 * S;
  engine.readPos = first;
  const size_t straddler = 10;
  stepFor_ = [straddler](size_t k) { return k == straddler ? -4 : (k == straddler + 1 ? 3 : 0); };
  WalkBlocks(0, 1);
  EXPECT_EQ(engine.straddleFlag, 1);
  EXPECT_EQ(engine.straddleFloats, S - 4);
  WalkBlocks(1, 3);
  ASSERT_GT(starts_.size(), straddler + 2);
  EXPECT_EQ(starts_[straddler], straddleStart);
  EXPECT_EQ(starts_[straddler + 1], BLOCK_FLOATS - 4) << "starts in the previous block";
  ExpectTheArithmetic(first);
}

TEST_F(SymbolWalk, RandomStepsOverManyEdgesFollowTheArithmetic) {
  std::mt19937 rng(7);
  std::vector<int32_t> steps(4000);
  for (auto& s : steps) s = (rng() % 3 == 0) ? static_cast<int32_t>(rng() % 33) - 16 : 0;
  stepFor_ = [&steps](size_t k) { return steps[k % steps.size()]; };
  engine.readPos = 100;
  WalkBlocks(0, 30);
  ExpectTheArithmetic(100);
  EXPECT_GT(starts_.size(), 1650u);
}

}  // namespace
}  // namespace zfn
