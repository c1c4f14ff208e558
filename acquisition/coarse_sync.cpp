// Coarse synchronisation: the integer carrier offset from the scattered pilots. A scattered pilot
// moves three carriers up from one symbol to the next (ARIB STD-B31 clause 3.13.1), so the product
// of span entry i in one symbol with the conjugate of entry i+3 in the next cancels the channel
// phase and leaves the known product of two neighbouring pilot signs wherever i is a pilot carrier.
#include <cstring>

#include "acquisition/acquisition.h"
#include "acquisition/numerology.h"
#include "numeric/dft.h"
#include "numeric/math_primitives.h"
#include "shell/block_scheduler.h"
#include "shell/stages.h"
#include "shell/work_arena.h"

namespace zfn {

void AdvanceNcoPhaseBySymbol() {
  const float advanced = engine.ncoPhase + static_cast<float>(engine.nsymbol) * engine.ncoStep;
  double wrapped = advanced;
  while (wrapped >= TWO_PI) wrapped -= TWO_PI;
  while (wrapped < 0.0) wrapped += TWO_PI;
  engine.ncoPhase = static_cast<float>(wrapped);
}

namespace {

struct SpanPair {
  float* re;
  float* im;
};

// One symbol from the grid point: cut, rotate onto the carrier grid, transform in place. The eight
// symbols of coarse sync start within two symbols of the block's start, so they never cross its end.
void CoarseSymbolStep() {
  ReceiverState& e = engine;
  CutSampleSpan(e.symbolBody, 2 * e.nfft);
  e.readPos += 2 * e.nsymbol;
  RotateByNco(e.symbolBody, e.symbolBody, e.nfft, e.ncoPhase, e.ncoStep);
  AdvanceNcoPhaseBySymbol();
  DftiComputeForward(e.fftPlan, e.symbolBody);  // status ignored by design
}

// spanStage entry i is bin (i - nspan/2) mod nfft, split into re and im.
void ExtractSpan(float* spanStage, SpanPair out) {
  const ReceiverState& e = engine;
  const int32_t half = e.nspan / 2;
  std::memcpy(spanStage, e.symbolBody + 2 * (e.nfft - half), sizeof(float) * 2 * static_cast<size_t>(half));
  std::memcpy(spanStage + 2 * half, e.symbolBody, sizeof(float) * 2 * static_cast<size_t>(half));
  for (int32_t i = 0; i < e.nspan; ++i) {
    out.re[i] = spanStage[2 * i];
    out.im[i] = spanStage[2 * i + 1];
  }
}

// target[searchHalf + i] = prev[i] * conj(cur[i + 3]); cur's three tail entries are zero.
void FormDifferential(SpanPair prev, SpanPair cur, SpanPair target, int32_t searchHalf) {
  const int32_t nspan = engine.nspan;
  float* tRe = target.re + searchHalf;
  float* tIm = target.im + searchHalf;
  for (int32_t i = 0; i < nspan; ++i) {
    tRe[i] = cur.re[i + 3] * prev.re[i] + cur.im[i + 3] * prev.im[i];
    tIm[i] = cur.re[i + 3] * prev.im[i] - cur.im[i + 3] * prev.re[i];
  }
}

void FinishCoarseSync() {
  ReceiverState& e = engine;
  while (e.readPos < BLOCK_FLOATS) e.readPos += 2 * e.nsymbol;
  e.readPos -= BLOCK_FLOATS;
  e.frameSymbolsLeft = FRAME_CAPTURE_SYMBOLS;
}

}  // namespace

void RunCoarseSync() {
  ReceiverState& e = engine;
  const int32_t mode = e.modeGuard->mode;
  const int32_t searchHalf = CARRIER_SEARCH_HALF_BY_MODE[mode];

  // Scratch above the numerology mark; arenaFree is left alone and the mark restored at the end.
  const int32_t diffLength = e.nspan + 12 + 2 * searchHalf;
  const int32_t spanLength = e.nspan + 3;
  SpanPair diff[3];
  for (SpanPair& d : diff) {
    d.re = reinterpret_cast<float*>(e.arenaNext);
    e.arenaNext += sizeof(float) * diffLength;
    d.im = reinterpret_cast<float*>(e.arenaNext);
    e.arenaNext += sizeof(float) * diffLength;
    std::memset(d.re, 0, sizeof(float) * diffLength);
    std::memset(d.im, 0, sizeof(float) * diffLength);
  }
  SpanPair span[2];
  for (SpanPair& s : span) {
    s.re = reinterpret_cast<float*>(e.arenaNext);
    e.arenaNext += sizeof(float) * spanLength;
    s.im = reinterpret_cast<float*>(e.arenaNext);
    e.arenaNext += sizeof(float) * spanLength;
    std::memset(s.re, 0, sizeof(float) * spanLength);
    std::memset(s.im, 0, sizeof(float) * spanLength);
  }
  auto* spanStage = reinterpret_cast<float*>(e.arenaNext);
  e.arenaNext += sizeof(float) * 2 * e.nspan;

  // The transform span moves from the grid point to (one sample short of) the guard's middle.
  e.readPos += e.nguard;

  // Symbols 0..3 fill the three differentials: oldest, middle, newest.
  int32_t oldest = 0;
  int32_t middle = 1;
  int32_t newest = 2;
  int32_t current = 0;
  CoarseSymbolStep();
  ExtractSpan(spanStage, span[current]);
  for (int32_t symbol = 1; symbol < 4; ++symbol) {
    CoarseSymbolStep();
    current ^= 1;
    ExtractSpan(spanStage, span[current]);
    FormDifferential(span[current ^ 1], span[current], diff[symbol - 1], searchHalf);
  }

  // Symbols 4..7: four passes, one per scattered pilot phase, each correlating the three
  // differentials with the pilot products at every trial offset.
  const int32_t grid = e.nspanGrid;
  float best = 0.0f;
  int32_t bestK = 0;
  for (int32_t q = 0; q < 4; ++q) {
    CoarseSymbolStep();
    const SpanPair o = diff[oldest];
    const SpanPair m = diff[middle];
    const SpanPair w = diff[newest];
    for (int32_t k = 0; k <= 2 * searchHalf - 2; ++k) {
      float sumRe = 0.0f;
      float sumIm = 0.0f;
      for (int32_t p = 0; p < grid; ++p) {
        const int32_t j = k + 12 * p;
        sumRe += o.re[j] * e.pilotDiff0[p] + m.re[j + 3] * e.pilotDiff1[p] + w.re[j + 6] * e.pilotDiff2[p];
        sumIm += o.im[j] * e.pilotDiff0[p] + m.im[j + 3] * e.pilotDiff1[p] + w.im[j + 6] * e.pilotDiff2[p];
      }
      const float metric = sumRe * sumRe + sumIm * sumIm;
      if (metric > best) {
        best = metric;
        bestK = k;
      }
    }
    current ^= 1;
    ExtractSpan(spanStage, span[current]);
    if (q < 3) {
      FormDifferential(span[current ^ 1], span[current], diff[oldest], searchHalf);
      const int32_t written = oldest;
      oldest = middle;
      middle = newest;
      newest = written;
    } else {
      e.ncoStep = static_cast<float>(static_cast<double>(e.ncoStep) - (bestK - searchHalf) * TWO_PI / e.nfft);
    }
  }

  e.arenaNext = e.arenaAfterNumerology;
  e.arenaFree = e.arenaFreeAfterNumerology;
  FinishCoarseSync();
}

}  // namespace zfn
