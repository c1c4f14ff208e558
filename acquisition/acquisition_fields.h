#pragma once
// Fields of the engine record written by acquisition: numerology, detection, coarse and frame synchronisation, TMCC.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct AcquisitionFields {

  // Needed early by decoder; owned by acquisition
  int32_t ndata;            // data carriers per symbol: 96, 192, 384
  int32_t symbolIndex;      // 0..203, position in the frame of the symbol just read
  int32_t statFrames;       // 204-symbol frames in about one second
  RelaxedWord<int32_t> statNextSymbol;  // end of the statistics period; also written by the packet thread
};

}  // namespace zfn
