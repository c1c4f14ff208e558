// Frame synchronisation: differential BPSK of the TMCC carriers over 219 symbols, the search for
// the 16-bit sync word (ARIB STD-B31 clause 3.15.4), TMCC decoding, and the hand-over to tracking.
#include <cmath>

#include "acquisition/acquisition.h"
#include "numeric/dft.h"
#include "shell/block_scheduler.h"
#include "shell/stages.h"
#include "shell/work_arena.h"

namespace zfn {

namespace {

// The TMCC sync word w0 = 0011 0101 1110 1110, bit 0 as -1 and bit 1 as +1. Alternate frames carry
// its inverse; the magnitude search finds both.
constexpr int32_t SYNC_PATTERN[16] = {-1, -1, +1, +1, -1, +1, -1, +1, +1, +1, +1, -1, +1, +1, +1, -1};

// TMCC carriers of a differential segment as transform bins, in the order of tmccPrev (ARIB
// STD-B31 tables 3-10 to 3-12).
constexpr int32_t TMCC_BINS_MODE1[] = {251};
constexpr int32_t TMCC_BINS_MODE2[] = {70, 427};
constexpr int32_t TMCC_BINS_MODE3[] = {70, 133, 909, 939};
constexpr const int32_t* TMCC_BINS_BY_MODE[3] = {TMCC_BINS_MODE1, TMCC_BINS_MODE2, TMCC_BINS_MODE3};
constexpr int32_t TMCC_COUNT_BY_MODE[3] = {1, 2, 4};

// Start of the sync word in tmccRe/tmccIm: the largest correlation magnitude, later u on ties.
int32_t FindSyncWord() {
  const ReceiverState& e = engine;
  float best = 0.0f;
  int32_t bestU = 0;
  for (int32_t u = 0; u < TMCC_FRAME_BITS; ++u) {
    float a = 0.0f;
    float b = 0.0f;
    for (int32_t i = 0; i < 16; ++i) {
      a += e.tmccRe[u + i] * static_cast<float>(SYNC_PATTERN[i]);
      b += e.tmccIm[u + i] * static_cast<float>(SYNC_PATTERN[i]);
    }
    const float v = std::sqrt(a * a + b * b);
    if (v >= best) {
      best = v;
      bestU = u;
    }
  }
  return bestU;
}

}  // namespace

int32_t RunFrameSync() {
  ReceiverState& e = engine;
  const int32_t mode = e.modeGuard->mode;
  const int32_t* bins = TMCC_BINS_BY_MODE[mode];
  const int32_t carriers = TMCC_COUNT_BY_MODE[mode];
  if (e.frameSymbolsLeft <= 0) return 0;

  while (e.frameSymbolsLeft > 0) {
    const int32_t j = FRAME_CAPTURE_SYMBOLS - e.frameSymbolsLeft;
    if (CutSampleSpan(e.symbolBody, 2 * e.nfft) == 0) return 0;
    e.readPos += 2 * e.nsymbol;
    RotateByNco(e.symbolBody, e.symbolBody, e.nfft, e.ncoPhase, e.ncoStep);
    AdvanceNcoPhaseBySymbol();
    DftiComputeForward(e.fftPlan, e.symbolBody);  // status ignored by design

    // The carriers are added with equal weight after the differential.
    float re = 0.0f;
    float im = 0.0f;
    for (int32_t c = 0; c < carriers; ++c) {
      const float curRe = e.symbolBody[2 * bins[c]];
      const float curIm = e.symbolBody[2 * bins[c] + 1];
      re += curRe * e.tmccPrevRe[c] + curIm * e.tmccPrevIm[c];
      im += curIm * e.tmccPrevRe[c] - curRe * e.tmccPrevIm[c];
      e.tmccPrevRe[c] = curRe;
      e.tmccPrevIm[c] = curIm;
    }
    e.tmccRe[j] = re;
    e.tmccIm[j] = im;
    e.tmccBits[j] = re > 0.0f ? -1 : +1;  // no phase change is bit 0
    --e.frameSymbolsLeft;
  }

  const int32_t u = FindSyncWord();
  for (int32_t k = 0; k < TMCC_FRAME_BITS; ++k) e.tmccFrame[k] = e.tmccBits[(u + k) % TMCC_FRAME_BITS];

  const int32_t result = DecodeTmcc(e.tmccFrame);
  if (result == 1) return 1;  // clean, and the broadcast has no service for this receiver
  if (result == 3) {
    e.tmccFailed = 1;
    return 0;
  }

  // Capture index j holds frame symbol j - u + 1 (the sync word starts at bit 1), so the symbol
  // after the last capture is number 220 - u.
  int32_t n = FRAME_CAPTURE_SYMBOLS + 1 - u;
  e.spPhase = n % 4;
  // Tracking copies nwork samples that begin nmargin ahead of the span.
  e.readPos -= 2 * e.nmargin;
  // The rest of this block is skipped, but its symbols are numbered.
  while (e.readPos < BLOCK_FLOATS) {
    e.readPos += 2 * e.nsymbol;
    e.spPhase = (e.spPhase + 1) % 4;
    n = (n % TMCC_FRAME_BITS) + 1;
  }
  e.symbolIndex = n % TMCC_FRAME_BITS;
  e.readPos -= BLOCK_FLOATS;
  return 1;
}

}  // namespace zfn
