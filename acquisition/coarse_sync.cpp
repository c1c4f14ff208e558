// Coarse synchronisation: the integer carrier offset from the scattered pilots. A scattered pilot
// moves three carriers up from one symbol to the next (ARIB STD-B31 clause 3.13.1), so the product
// of span entry i in one symbol with the conjugate of entry i+3 in the next cancels the channel
// phase and leaves the known product of two neighbouring pilot signs wherever i is a pilot carrier.
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "acquisition/acquisition.h"
#include "acquisition/numerology.h"
#include "numeric/dft.h"
#include "numeric/math_primitives.h"
#include "shell/stages.h"
#include "shell/work_arena.h"

namespace zfn {

void RotateByNco(float* samples, int32_t count, double phase, double step) {
  int32_t groups = (count + 3) / 4;
  if (groups < 1) groups = 1;
  // Two trigonometric evaluations; the rotators of n = 0..3 and of four steps follow by products.
  const float r0Re = static_cast<float>(CosD(phase));
  const float r0Im = static_cast<float>(SinD(phase));
  const float sRe = static_cast<float>(CosD(step));
  const float sIm = static_cast<float>(SinD(step));
  float rotRe[4];
  float rotIm[4];
  rotRe[0] = r0Re;
  rotIm[0] = r0Im;
  for (int i = 1; i < 4; ++i) {
    rotRe[i] = rotRe[i - 1] * sRe - rotIm[i - 1] * sIm;
    rotIm[i] = rotRe[i - 1] * sIm + rotIm[i - 1] * sRe;
  }
  const float r4Re = rotRe[3] * sRe - rotIm[3] * sIm;
  const float r4Im = rotRe[3] * sIm + rotIm[3] * sRe;
  const float norm0 = r0Re * r0Re + r0Im * r0Im;
  const float quadRe = (r4Re * r0Re + r4Im * r0Im) / norm0;
  const float quadIm = (r4Im * r0Re - r4Re * r0Im) / norm0;

  float* z = samples;
#if defined(__SSE2__)
  // The four rotators side by side in one register each for the real and imaginary parts; every
  // lane does the scalar products and sums below in the same order.
  __m128 rr = _mm_loadu_ps(rotRe);
  __m128 ri = _mm_loadu_ps(rotIm);
  const __m128 qr = _mm_set1_ps(quadRe);
  const __m128 qi = _mm_set1_ps(quadIm);
  for (int32_t g = 0; g < groups; ++g, z += 8) {
    const __m128 a = _mm_loadu_ps(z);
    const __m128 b = _mm_loadu_ps(z + 4);
    const __m128 xr = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 xi = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
    const __m128 yr = _mm_sub_ps(_mm_mul_ps(xr, rr), _mm_mul_ps(xi, ri));
    const __m128 yi = _mm_add_ps(_mm_mul_ps(xr, ri), _mm_mul_ps(xi, rr));
    _mm_storeu_ps(z, _mm_unpacklo_ps(yr, yi));
    _mm_storeu_ps(z + 4, _mm_unpackhi_ps(yr, yi));
    const __m128 nr = _mm_sub_ps(_mm_mul_ps(rr, qr), _mm_mul_ps(ri, qi));
    ri = _mm_add_ps(_mm_mul_ps(rr, qi), _mm_mul_ps(ri, qr));
    rr = nr;
  }
#else
  for (int32_t g = 0; g < groups; ++g, z += 8) {
    for (int i = 0; i < 4; ++i) {
      const float xRe = z[2 * i];
      const float xIm = z[2 * i + 1];
      z[2 * i] = xRe * rotRe[i] - xIm * rotIm[i];
      z[2 * i + 1] = xRe * rotIm[i] + xIm * rotRe[i];
      const float nRe = rotRe[i] * quadRe - rotIm[i] * quadIm;
      rotIm[i] = rotRe[i] * quadIm + rotIm[i] * quadRe;
      rotRe[i] = nRe;
    }
  }
#endif
}

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

// One symbol from the grid point: copy, rotate onto the carrier grid, transform in place.
void CoarseSymbolStep() {
  ReceiverState& e = engine;
  std::memcpy(e.symbolBody, e.sampleBlock + e.readPos, sizeof(float) * 2 * static_cast<size_t>(e.nfft));
  e.readPos += 2 * e.nsymbol;
  RotateByNco(e.symbolBody, e.nfft, e.ncoPhase, e.ncoStep);
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

  if (e.forceCarrierOffset != 0) {
    e.ncoStep = static_cast<float>(static_cast<double>(e.ncoStep) - e.forcedCarrierOffset * TWO_PI / e.nfft);
    e.readPos += e.nguard;
    FinishCoarseSync();
    return;
  }

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
