#pragma once
// Hard decisions on one real component of an equalised carrier, and the channel value that a
// received carrier implies through its decision. The levels are those of the ISDB-T mappings
// (ARIB STD-B31 3.12.3) at mean power 1; the boundary tests are deliberately one-sided.
#include <cstdint>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "tracking/complex32.h"

namespace zfn {

// The QPSK levels are +-QPSK_DECISION_LEVEL on each component.
constexpr float QPSK_DECISION_LEVEL = 0.707107f;

// Each level is picked by counting the boundaries the value lies beyond: the comparisons give 0
// or 1 and no branch depends on the (random) data. Every comparison fails for a NaN, which thus
// takes the positive outer level.
// The QPSK decision lies on the chain of every decision-directed adaption: on x86 it is the mask of
// one comparison laid on the sign of the level (the two levels are each other's negation), a few
// cycles shorter than the table look-up.
inline float SliceQpsk(float v) {
#if defined(__SSE2__)
  const __m128 beyond = _mm_cmple_ss(_mm_set_ss(v), _mm_setzero_ps());
  return _mm_cvtss_f32(_mm_xor_ps(_mm_set_ss(QPSK_DECISION_LEVEL), _mm_and_ps(beyond, _mm_set_ss(-0.0f))));
#else
  constexpr float LEVELS[2] = {-QPSK_DECISION_LEVEL, QPSK_DECISION_LEVEL};
  return LEVELS[1 - (v <= 0.0f)];
#endif
}

// The positive outer level of the real component carries a last digit of its own.
inline float SliceQam16(float v, bool realPart) {
  constexpr float LEVELS[2][4] = {{-0.9486832f, -0.3162278f, 0.3162278f, 0.9486832f},
                                  {-0.9486832f, -0.3162278f, 0.3162278f, 0.9486833f}};
  const int index = 3 - (v <= 0.6324555f) - (v <= 0.0f) - (v < -0.6324555f);
  return LEVELS[realPart ? 1 : 0][index];
}

inline float SliceQam64(float v) {
  constexpr float LEVELS[8] = {-1.08012345f, -0.77151675f, -0.46291f,    -0.15430335f,
                               0.15430335f,  0.46291f,     0.77151675f, 1.08012345f};
  const int index = 7 - (v <= 0.9258201f) - (v <= 0.6172134f) - (v <= 0.3086067f) - (v <= 0.0f) -
                    (v < -0.3086067f) - (v < -0.6172134f) - (v < -0.9258201f);
  return LEVELS[index];
}

// Hard decision on both components, by the bits per carrier of the layer (2, 4, 6; anything else
// is taken as QPSK).
inline Cx SliceCarrier(Cx e, int32_t bitsPerCarrier) {
  if (bitsPerCarrier == 4) return {SliceQam16(e.re, true), SliceQam16(e.im, false)};
  if (bitsPerCarrier == 6) return {SliceQam64(e.re), SliceQam64(e.im)};
  return {SliceQpsk(e.re), SliceQpsk(e.im)};
}

// The channel that received carrier r implies when its decision is taken against channel g.
// QPSK decisions have unit power and are not divided by it. No guard against g = 0.
inline Cx DecisionTarget(Cx r, Cx g, int32_t bitsPerCarrier) {
  if (bitsPerCarrier != 4 && bitsPerCarrier != 6) {
    const Cx z = MulConj(r, g);
    return MulConj(r, Cx{SliceQpsk(z.re), SliceQpsk(z.im)});
  }
  const float pg = Norm(g);
  const Cx rg = MulConj(r, g);
  const Cx d = SliceCarrier(Cx{rg.re / pg, rg.im / pg}, bitsPerCarrier);
  const float pd = Norm(d);
  const Cx rd = MulConj(r, d);
  return {rd.re / pd, rd.im / pd};
}

}  // namespace zfn
