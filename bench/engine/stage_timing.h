#pragma once
// Time spent in the engine's stages, gathered by wrappers that the linker puts around the stage
// functions in the stage-share benchmark only (see stage_timing.cpp); no other program has them.
#include <cstdint>

namespace zfn::bench {

enum StageClock : int {
  STAGE_TRANSFORM_TRACKING,  // the symbol transform inside ProcessSymbol
  STAGE_TRANSFORM_OTHER,     // transforms of acquisition
  STAGE_ROTATION,            // carrier rotator
  STAGE_ESTIMATION,          // channel estimation: pilots, filters in time and across carriers
  STAGE_EQUALISATION,        // interpolation of the channel between the pilots, equalisation
  STAGE_TIMING,              // timing loop
  STAGE_PROCESS_SYMBOL,      // all of ProcessSymbol (inclusive)
  STAGE_VITERBI,
  STAGE_BYTE_STAGE,
  STAGE_SYMBOL_SINK,         // all of SymbolSink (inclusive)
  STAGE_REED_SOLOMON,
  STAGE_COUNT
};

struct StageTotals {
  uint64_t ticks[STAGE_COUNT];
  uint64_t calls[STAGE_COUNT];
};

StageTotals& Stages();
uint64_t StageTicks();  // the counter the wrappers read
void ResetStages();

}  // namespace zfn::bench
