// Frame capture across a block edge, stage by stage on the compact segment model, where the symbol
// grid can be placed to the sample.
#include <gtest/gtest.h>

#include "engine_memory.h"
#include "shell/stages.h"
#include "synthetic_segment.h"

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
    engine.arenaNext += 4000;  // as if tracking had taken buffers on an earlier attempt
    RunCoarseSync();
    // Its scratch lay above the numerology mark and is given back to the mark.
    EXPECT_EQ(engine.arenaNext, engine.arenaAfterNumerology);
    EXPECT_EQ(engine.arenaFree, engine.arenaFreeAfterNumerology);
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
