#pragma once
// Fields of the engine record written by acquisition: numerology, detection, coarse and frame synchronisation, TMCC.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct AcquisitionFields {

  // Needed early by tracking; owned by acquisition
  // Numerology of the mode and guard in force.
  int32_t nfft, nguard, nsymbol, ncarrier, ndata, nspan, ngrid, nscatter, nspanGrid, nquarter;
  int32_t nmargin, nmarginHalf, nwork, ntrack, settleSymbols, clockFrames;
  float* pilotSign;          // 3*ncarrier signs of the scattered pilots, +-0.75
  const int32_t* trackBins;  // ntrack transform bins of the fixed carriers
  float trackSin[12];
  float trackCos[12];
  float* symbolBuffer;       // nsymbol + 2*nmargin complex samples
  float* symbolBody;         // symbolBuffer + nmargin complex samples
  float* marginProfile;      // 2*nmargin + 1
  float* marginRe;           // (2*nmargin + 1) * ntrack
  float* marginIm;
  // Carrier rotator and position in the frame.
  float ncoStep;             // radians per complex sample
  float ncoPhase;            // radians, [0, 2*pi)
  int32_t symbolIndex;       // 0..203
  int32_t spPhase;           // 0..3
};

}  // namespace zfn
