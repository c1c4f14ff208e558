#pragma once
// Fields of the engine record written by channel decoding and transport output that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct DecoderFields {
  // Needed early by shell; owned by decoder
  RelaxedWord<uint8_t> tsResetRequest{1};  // 1: the packet stage must start over
  RelaxedWord<uint8_t> tsResetPhase{3};    // 3: the ring may be written; 2: a reset is pending
  RelaxedWord<int32_t> goodFrameRun;
  RelaxedWord<int32_t> badFrameRun;
  RelaxedWord<int32_t> anyGoodMark;
  RelaxedWord<int8_t> earlyFailMark;
  RelaxedWord<int8_t> streamFailMark;

  // Needed early by tracking; owned by decoder
  int32_t bitsPerCarrier;   // 2, 4 or 6 for the layer received
  int32_t startupSymbols;   // the decoder's delay in symbols before it looks for the start point
  RelaxedWord<int32_t> failsThisSecond{-1};
};

}  // namespace zfn
