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
};

}  // namespace zfn
