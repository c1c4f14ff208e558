#pragma once
// Fields of the engine record written by channel decoding and transport output that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct DecoderFields {

  // Needed early by tracking; owned by decoder
  int32_t bitsPerCarrier;   // 2, 4 or 6 for the layer received
  int32_t startupSymbols;   // the decoder's delay in symbols before it looks for the start point
  RelaxedWord<int32_t> failsThisSecond{-1};
};

}  // namespace zfn
