// The ring of four blocks, and the walk of symbols across block edges. (The assembly of reads of
// any length into blocks is checked through the reception thread in the lifecycle cases.)
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "shell/block_ring.h"
#include "shell/block_scheduler.h"
#include "shell/receiver_state.h"

namespace zfn {
namespace {

void Publish(uint8_t tag) { BlockRingPublish(std::vector<uint8_t>(RAW_BLOCK_BYTES, tag).data()); }
int Take() {
  std::vector<uint8_t> block(RAW_BLOCK_BYTES, 0);
  return BlockRingTakeNext(block.data()) ? block[RAW_BLOCK_BYTES - 1] : -1;
}

// Publishes blocks first..last, then takes until empty: the tags taken.
std::vector<int> PublishThenTake(uint8_t first, uint8_t last) {
  for (uint8_t tag = first; tag <= last; ++tag) Publish(tag);
  std::vector<int> taken;
  for (int t = Take(); t != -1; t = Take()) taken.push_back(t);
  return taken;
}

TEST(BlockRing, InOrderLapsAndTheJumpToTheNewest) {
  ASSERT_EQ(BlockRingAlloc(), 1);
  EXPECT_EQ(PublishThenTake(1, 2), (std::vector<int>{1, 2}));
  // Six blocks while the reader sleeps: the writer laps, the reader finds the newest two.
  EXPECT_EQ(PublishThenTake(3, 8), (std::vector<int>{7, 8}));
  EXPECT_EQ(blockRing.writeCount * 10 + blockRing.readCount, 84u);
  // A lap of exactly four looks empty until the next block.
  EXPECT_EQ(PublishThenTake(9, 12), std::vector<int>{});
  EXPECT_EQ(PublishThenTake(13, 13), std::vector<int>{13});
  // The jump takes the newest; the next block follows in order.
  for (uint8_t tag = 14; tag <= 16; ++tag) Publish(tag);
  std::vector<uint8_t> block(RAW_BLOCK_BYTES);
  BlockRingTakeNewest(block.data());
  EXPECT_EQ(block[0], 16);
  EXPECT_EQ(PublishThenTake(17, 17), std::vector<int>{17});
  BlockRingFree();
  EXPECT_EQ(BlockRingFree(), 1) << "safe twice";
  EXPECT_EQ(blockRing.slots[3], nullptr);
}

// Every float of a block holds its absolute position in the stream, so a symbol tells exactly
// where it was cut from: every symbol must be whole, each 2 N + 2 step floats after the last.
constexpr int32_t kNsymbol = 1056;  // Mode 3, guard 1/32
constexpr int32_t S = 2 * kNsymbol;
struct Walk {
  std::vector<float> buffer = std::vector<float>(S + 64, -1.0f);
  std::vector<int64_t> starts;
  std::vector<int32_t> steps;
  int broken = 0;
};
Walk* walk = nullptr;

void RecordSymbol() {
  const float first = walk->buffer[0];
  for (int32_t i = 1; i < S; ++i) {
    if (walk->buffer[i] != first + static_cast<float>(i)) {
      ++walk->broken;
      break;
    }
  }
  walk->starts.push_back(static_cast<int64_t>(first));
  engine.timingStep = walk->steps[(walk->starts.size() - 1) % walk->steps.size()];
}

// Two walks: one where 56 symbols fill the first block to its last float (the last takes the
// straddle path with nothing to append, and comes first in the next block), then random steps of
// -16..16 samples over 30 block edges; and one where symbol 10 straddles with only 4 floats in the
// next block and a step of -4 samples puts symbol 11's start in the previous block, built from the
// held tail.
TEST(SymbolWalk, AcrossBlockEdgesEverySymbolIsWholeAndFollowsTheSteps) {
  std::vector<float> samples(BLOCK_FLOATS);
  std::mt19937 rng(7);
  for (const int64_t first : {int64_t{BLOCK_FLOATS} - 56 * S, int64_t{BLOCK_FLOATS} - (S - 4) - 10 * S}) {
    const bool straddleCase = first != BLOCK_FLOATS - 56 * S;
    Walk w;
    walk = &w;
    w.steps.assign(straddleCase ? 12 : 4000, 0);
    for (size_t k = 56; k < w.steps.size(); ++k) w.steps[k] = rng() % 3 == 0 ? static_cast<int32_t>(rng() % 33) - 16 : 0;
    if (straddleCase) w.steps[10] = -4, w.steps[11] = 3;
    engine.sampleBlock = samples.data();
    engine.symbolBuffer = w.buffer.data();
    engine.nsymbol = engine.nwork = kNsymbol;
    engine.straddleFlag = engine.straddleFloats = engine.timingStep = engine.symbolIndex = engine.spPhase = 0;
    engine.readPos = static_cast<int32_t>(first);
    symbolStepHandler = RecordSymbol;
    for (int64_t block = 0; block < (straddleCase ? 3 : 30); ++block) {
      for (int32_t i = 0; i < BLOCK_FLOATS; ++i) samples[i] = static_cast<float>(block * BLOCK_FLOATS + i);
      WalkSymbols();
      if (block > 0) continue;
      EXPECT_EQ(w.starts.size(), straddleCase ? 10u : 55u) << "the straddling symbol waits for the next block";
      EXPECT_EQ(engine.straddleFlag, 1);
      EXPECT_EQ(engine.straddleFloats, straddleCase ? S - 4 : S);
    }
    symbolStepHandler = SymbolStep;
    engine.sampleBlock = engine.symbolBuffer = nullptr;
    EXPECT_EQ(w.broken, 0);
    ASSERT_GT(w.starts.size(), straddleCase ? 60u : 1650u);
    EXPECT_EQ(w.starts[straddleCase ? 11 : 56], straddleCase ? BLOCK_FLOATS - 4 : BLOCK_FLOATS);
    int64_t expected = first;
    for (size_t k = 0; k < w.starts.size(); expected += S + 2 * w.steps[k % w.steps.size()], ++k)
      ASSERT_EQ(w.starts[k], expected) << "symbol " << k;
  }
}

}  // namespace
}  // namespace zfn
