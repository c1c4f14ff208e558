#pragma once
// Fields of the engine record written by acquisition: numerology, detection, coarse and frame synchronisation, TMCC.
#include <cstdint>

#include "numeric/dft.h"
#include "shell/relaxed_word.h"

namespace zfn {

constexpr int32_t FRAME_CAPTURE_SYMBOLS = 219;  // 204 + 15: every start of the sync word fully correlated
constexpr int32_t TMCC_FRAME_BITS = 204;
constexpr int32_t MAX_TMCC_CARRIERS = 4;
constexpr int32_t MAX_TRACK_BINS = 12;
constexpr int32_t MODE_GUARD_COUNT = 12;

struct AcquisitionFields {
  // Numerology of the detected mode and guard, written only by SetUpNumerology.
  int32_t nfft;
  int32_t nguard;
  int32_t nsymbol;
  int32_t ncarrier;
  int32_t ndata;
  int32_t nspan;
  int32_t ngrid;
  int32_t nscatter;
  int32_t nspanGrid;
  int32_t nquarter;
  int32_t nmargin;
  int32_t nmarginHalf;
  int32_t nwork;
  int32_t ntrack;
  int32_t settleSymbols;
  int32_t clockFrames;
  int32_t statFrames;
  RelaxedWord<int32_t> statNextSymbol;  // end of the statistics period; the packet thread writes it too
  DftPlan fftPlan;
  DftPlan quarterPlan;
  float* pilotSign;          // [3*ncarrier], +-0.75, over the segments below, received and above
  float* pilotDiff0;         // [nspanGrid] products of neighbouring pilots, +-0.5625
  float* pilotDiff1;
  float* pilotDiff2;
  const int32_t* trackBins;  // [ntrack] transform bins followed by the timing tracker
  float trackSin[MAX_TRACK_BINS];
  float trackCos[MAX_TRACK_BINS];
  float* symbolBuffer;       // complex [nsymbol + 2*nmargin]
  float* symbolBody;         // symbolBuffer + nmargin complex samples: the nfft transformed in place
  float* marginProfile;      // [2*nmargin + 1]
  float* marginRe;           // [(2*nmargin + 1) * ntrack]
  float* marginIm;

  // Mode and guard detection.
  float guardMetric[MODE_GUARD_COUNT];
  int32_t guardPeak[MODE_GUARD_COUNT];

  // Carrier rotator, shared with tracking's frequency loop.
  float ncoStep;   // radians per complex sample
  float ncoPhase;  // radians at the first sample of the next symbol, in [0, 2*pi)

  // Frame synchronisation and TMCC.
  int32_t frameSymbolsLeft;
  float tmccPrevRe[MAX_TMCC_CARRIERS];
  float tmccPrevIm[MAX_TMCC_CARRIERS];
  int8_t tmccBits[FRAME_CAPTURE_SYMBOLS];
  float tmccRe[FRAME_CAPTURE_SYMBOLS];
  float tmccIm[FRAME_CAPTURE_SYMBOLS];
  int8_t tmccFrame[TMCC_FRAME_BITS];
  RelaxedWord<int32_t> tmccFailed;  // 1: restart acquisition
  int32_t tmccAccepted;
  int32_t tmccRepeat;
};

}  // namespace zfn
