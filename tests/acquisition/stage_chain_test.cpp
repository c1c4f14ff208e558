// Detection, coarse sync and frame sync in sequence, as the block loop runs them, on the compact
// segment model: mode and guard, carrier offset, frame position and TMCC for every pair.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "engine_memory.h"
#include "shell/stages.h"
#include "synthetic_segment.h"

namespace zfn {
namespace {

enum class Outcome { Tracking, NoSignal, Restart, StillCapturing };

struct Attempt {
  Outcome outcome;
  long nextBlock;  // index of the first block tracking would take
};

// One acquisition attempt from a fresh block, as the block state machine drives it.
Attempt Acquire(test::SegmentGenerator& gen, std::vector<float>& block, long& blocksTaken) {
  engine.ncoPhase = 0;
  for (int i = 0; i < MAX_TMCC_CARRIERS; ++i) engine.tmccPrevRe[i] = engine.tmccPrevIm[i] = 0;
  engine.straddleFlag = 0;
  engine.tmccFailed = 0;
  engine.tmccAccepted = 0;
  gen.NextBlock(block.data());
  ++blocksTaken;
  DetectModeAndGuard();
  gen.NextBlock(block.data());
  ++blocksTaken;
  RunCoarseSync();
  for (int b = 0; b < 6; ++b) {
    gen.NextBlock(block.data());
    ++blocksTaken;
    if (RunFrameSync() == 1) return {engine.tmccAccepted ? Outcome::Tracking : Outcome::NoSignal, blocksTaken};
    if (engine.tmccFailed) return {Outcome::Restart, blocksTaken};
  }
  return {Outcome::StillCapturing, blocksTaken};
}

struct ChainCase {
  int index;  // mode*4 + guard
  double offsetCarriers;
  double noiseSigma;
  test::TmccFields fields;
};

std::string Name(const ::testing::TestParamInfo<ChainCase>& info) {
  const ChainCase& c = info.param;
  std::string name = "pair" + std::to_string(c.index) + "_offset" + std::to_string(static_cast<int>(std::lround(c.offsetCarriers * 10)));
  for (char& ch : name) if (ch == '-') ch = 'm';
  return name + (c.noiseSigma > 0 ? "_noisy" : "_clean") + "_" + std::to_string(info.index);
}

class StageChain : public ::testing::TestWithParam<ChainCase> {};

TEST_P(StageChain, FindsModeOffsetFrameAndTmcc) {
  const ChainCase& c = GetParam();
  test::EngineMemory memory;
  test::SegmentSignal s;
  s.mode = c.index / 4;
  s.guard = c.index % 4;
  s.offsetCarriers = c.offsetCarriers;
  s.noiseSigma = c.noiseSigma;
  s.lead = 17 + 29 * c.index;
  s.firstSymbol = (61 * c.index + 5) % 204;
  s.tmcc = test::TmccWordWith(c.fields);
  s.seed = 1000u + static_cast<unsigned>(c.index);
  test::SegmentGenerator gen(s);
  long taken = 0;
  const Attempt run = Acquire(gen, memory.block, taken);

  EXPECT_EQ(engine.modeGuard->mode * 4 + engine.modeGuard->guard, c.index);
  const double found = -engine.ncoStep * engine.nfft / 6.283185307179;
  EXPECT_NEAR(found, c.offsetCarriers, 0.2);
  ASSERT_EQ(run.outcome, Outcome::Tracking);
  EXPECT_EQ(engine.layerParams->modulation, c.fields.modulation);
  EXPECT_EQ(engine.layerParams->codeRate, c.fields.codeRate);
  EXPECT_EQ(engine.layerParams->interleave, c.fields.interleave);

  // The span of the first tracked symbol lies in the guard of the symbol that symbolIndex names.
  EXPECT_GE(engine.readPos, 0);
  EXPECT_LT(engine.readPos, 2 * engine.nsymbol);
  const long spanStart = run.nextBlock * BLOCK_SAMPLES + engine.readPos / 2 + engine.nmargin;
  const long k = (spanStart - s.lead) / engine.nsymbol;
  const long into = spanStart - gen.SymbolStart(k);
  EXPECT_GE(into, 0);
  EXPECT_LT(into, engine.nguard);
  EXPECT_EQ(engine.symbolIndex, gen.FrameNumber(k));
  EXPECT_EQ(engine.spPhase, engine.symbolIndex % 4);
}

// Offsets at both ends of each mode's search range (-ncarrier/4 .. ncarrier/4 - 2 carriers), with
// fractional parts, and a spread of TMCC parameters; C/N 10 dB on a sample of the pairs.
std::vector<ChainCase> Cases() {
  std::vector<ChainCase> cases;
  const double tenDb = std::sqrt(1.0 / 20.0);
  for (int index = 0; index < 12; ++index) {
    const int half = 27 << (index / 4);
    const test::TmccFields f{0, 1, index % 4, index % 5, (index / 3) % 4};
    cases.push_back({index, -half + 0.3, 0.0, f});
    cases.push_back({index, half - 2 - 0.35, 0.0, f});
    cases.push_back({index, 0.2 - 3.0 * index, index % 3 == 0 ? tenDb : 0.0, {1, 0, 3 - index % 4, 4 - index % 5, 3 - index % 4}});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(AllPairs, StageChain, ::testing::ValuesIn(Cases()), Name);

}  // namespace
}  // namespace zfn

namespace zfn {
namespace {

// A capture span that ends exactly on the block's last float takes the split path with nothing
// left for the next block, and the frame comes out right all the same.
TEST(FrameCapture, SpanEndingExactlyAtTheBlockEdgeIsSplitWithAnEmptySecondPart) {
  test::EngineMemory memory;
  test::SegmentSignal s;
  s.mode = 0;
  s.guard = 3;  // 219 symbols of 320 samples cross one block edge
  s.offsetCarriers = 2.3;
  s.firstSymbol = 40;
  s.tmcc = test::TmccWordWith({0, 1, 1, 2, 3});
  // Where the grid falls after coarse sync for a first lead, then move the lead so that a
  // symbol's span ends on sample 60159 of the capture's first block.
  int lead = 10;
  for (int pass = 0; pass < 2; ++pass) {
    s.lead = lead;
    test::SegmentGenerator gen(s);
    engine.ncoPhase = 0;
    engine.straddleFlag = 0;
    engine.tmccFailed = 0;
    for (int i = 0; i < MAX_TMCC_CARRIERS; ++i) engine.tmccPrevRe[i] = engine.tmccPrevIm[i] = 0;
    gen.NextBlock(memory.block.data());
    DetectModeAndGuard();
    gen.NextBlock(memory.block.data());
    RunCoarseSync();
    const int nsymbol = engine.nsymbol;
    const int shortBy = ((BLOCK_SAMPLES - engine.nfft - engine.readPos / 2) % nsymbol + nsymbol) % nsymbol;
    if (pass == 0) {
      lead = (lead + shortBy) % nsymbol;
      continue;
    }
    ASSERT_EQ(shortBy, 0);
    gen.NextBlock(memory.block.data());
    ASSERT_EQ(RunFrameSync(), 0);
    EXPECT_EQ(engine.straddleFlag, 1);
    EXPECT_EQ(engine.straddleFloats, 2 * engine.nfft);
    gen.NextBlock(memory.block.data());
    ASSERT_EQ(RunFrameSync(), 1);
    EXPECT_EQ(engine.tmccAccepted, 1);
    EXPECT_EQ(engine.layerParams->codeRate, 2);
    const long spanStart = 4L * BLOCK_SAMPLES + engine.readPos / 2 + engine.nmargin;
    const long k = (spanStart - s.lead) / nsymbol;
    EXPECT_EQ(engine.symbolIndex, gen.FrameNumber(k));
  }
}

}  // namespace
}  // namespace zfn
