#pragma once
// Fields of the engine record written by acquisition: numerology, detection, coarse and frame synchronisation, TMCC.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct AcquisitionFields {
  // Needed early by shell; owned by acquisition
  int32_t nsymbol;       // complex samples from one symbol start to the next
  int32_t nwork;         // complex samples copied per symbol in tracking
  float* symbolBuffer;   // complex float[nsymbol + 2*nmargin], in the work arena
  float ncoStep;         // radians per sample
  float ncoPhase;        // radians in [0, 2*pi)
  float tmccPrevRe[4];   // TMCC carriers of the previous symbol
  float tmccPrevIm[4];
  int32_t tmccAccepted;  // 1: the broadcast is receivable
  int32_t tmccRepeat;
  RelaxedWord<int32_t> tmccFailed;  // 1: restart acquisition
};

}  // namespace zfn
