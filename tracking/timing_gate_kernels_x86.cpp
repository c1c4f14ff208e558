// One side of the timing gate with the twelve carriers in one AVX2 register (carriers 0..7) and
// one SSE register (8..11): the reference's products and sums lane by lane; the sums over the
// carriers are added one by one in carrier order, as the reference adds them, for eight steps at once.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "tracking/timing_gate_kernels.h"

namespace zfn {

namespace {

// The terms of steps 0..7 (twelve carriers each) turned into twelve registers, carrier c of the
// eight steps in register c: an 8 x 8 turn of carriers 0..7 and a 4 x 8 turn of carriers 8..11.
__attribute__((target("avx2"))) inline void TurnEightSteps(const float (*terms)[GATE_CARRIERS], __m256 (&carriers)[GATE_CARRIERS]) {
  __m256 r[8], t[8], u[8];
  for (int32_t j = 0; j < 8; ++j) r[j] = _mm256_loadu_ps(terms[j]);
  for (int32_t j = 0; j < 8; j += 2) {
    t[j] = _mm256_unpacklo_ps(r[j], r[j + 1]);      // carriers 0, 1 | 4, 5 of steps j, j + 1
    t[j + 1] = _mm256_unpackhi_ps(r[j], r[j + 1]);  // carriers 2, 3 | 6, 7
  }
  for (int32_t j = 0; j < 8; j += 4) {
    u[j] = _mm256_shuffle_ps(t[j], t[j + 2], _MM_SHUFFLE(1, 0, 1, 0));      // carrier 0 | 4 of steps j .. j + 3
    u[j + 1] = _mm256_shuffle_ps(t[j], t[j + 2], _MM_SHUFFLE(3, 2, 3, 2));  // carrier 1 | 5
    u[j + 2] = _mm256_shuffle_ps(t[j + 1], t[j + 3], _MM_SHUFFLE(1, 0, 1, 0));  // carrier 2 | 6
    u[j + 3] = _mm256_shuffle_ps(t[j + 1], t[j + 3], _MM_SHUFFLE(3, 2, 3, 2));  // carrier 3 | 7
  }
  for (int32_t c = 0; c < 4; ++c) {
    carriers[c] = _mm256_permute2f128_ps(u[c], u[c + 4], 0x20);
    carriers[c + 4] = _mm256_permute2f128_ps(u[c], u[c + 4], 0x31);
  }
  // Carriers 8..11: steps j and j + 4 side by side, then the 4 x 4 turn within each half.
  __m256 h[4];
  for (int32_t j = 0; j < 4; ++j) h[j] = _mm256_loadu2_m128(terms[j + 4] + 8, terms[j] + 8);
  const __m256 low01 = _mm256_unpacklo_ps(h[0], h[1]), high01 = _mm256_unpackhi_ps(h[0], h[1]);
  const __m256 low23 = _mm256_unpacklo_ps(h[2], h[3]), high23 = _mm256_unpackhi_ps(h[2], h[3]);
  carriers[8] = _mm256_shuffle_ps(low01, low23, _MM_SHUFFLE(1, 0, 1, 0));
  carriers[9] = _mm256_shuffle_ps(low01, low23, _MM_SHUFFLE(3, 2, 3, 2));
  carriers[10] = _mm256_shuffle_ps(high01, high23, _MM_SHUFFLE(1, 0, 1, 0));
  carriers[11] = _mm256_shuffle_ps(high01, high23, _MM_SHUFFLE(3, 2, 3, 2));
}

}  // namespace

__attribute__((target("avx2"))) void SlideGateSideAvx2(const GateSide& given) {
  const GateSide side = given;  // a copy the stores cannot touch: its pointers stay in registers
  static_assert(GATE_CARRIERS == 12, "carriers 0..7 and 8..11");
  float terms[GATE_MAX_SPAN][GATE_CARRIERS];
  __m256 trLow = _mm256_loadu_ps(side.startRe), tiLow = _mm256_loadu_ps(side.startIm);
  __m128 trHigh = _mm_loadu_ps(side.startRe + 8), tiHigh = _mm_loadu_ps(side.startIm + 8);
  const __m256 signLow = _mm256_loadu_ps(side.sign);
  const __m128 signHigh = _mm_loadu_ps(side.sign + 8);
  const float* x = side.x;
  for (int32_t d = 0; d < side.span; ++d) {
    const int32_t at = d * side.direction;
    const float dr = x[2 * (side.inAt + at)] - x[2 * (side.outAt + at)];
    const float di = x[2 * (side.inAt + at) + 1] - x[2 * (side.outAt + at) + 1];
    const __m256 drLow = _mm256_set1_ps(dr), diLow = _mm256_set1_ps(di);
    const __m128 drHigh = _mm256_castps256_ps128(drLow), diHigh = _mm256_castps256_ps128(diLow);
    const __m256 wrLow = _mm256_loadu_ps(side.wRe[d]), wiLow = _mm256_loadu_ps(side.wIm[d]);
    const __m128 wrHigh = _mm_loadu_ps(side.wRe[d] + 8), wiHigh = _mm_loadu_ps(side.wIm[d] + 8);
    const __m256 nrLow = _mm256_add_ps(trLow, _mm256_sub_ps(_mm256_mul_ps(drLow, wrLow), _mm256_mul_ps(diLow, wiLow)));
    tiLow = _mm256_add_ps(tiLow, _mm256_add_ps(_mm256_mul_ps(drLow, wiLow), _mm256_mul_ps(diLow, wrLow)));
    trLow = nrLow;
    const __m128 nrHigh = _mm_add_ps(trHigh, _mm_sub_ps(_mm_mul_ps(drHigh, wrHigh), _mm_mul_ps(diHigh, wiHigh)));
    tiHigh = _mm_add_ps(tiHigh, _mm_add_ps(_mm_mul_ps(drHigh, wiHigh), _mm_mul_ps(diHigh, wrHigh)));
    trHigh = nrHigh;
    float* pr = side.rowsRe + d * GATE_CARRIERS;
    float* pi = side.rowsIm + d * GATE_CARRIERS;
    const __m256 erLow = _mm256_sub_ps(trLow, _mm256_mul_ps(signLow, _mm256_loadu_ps(pr)));
    const __m256 eiLow = _mm256_sub_ps(tiLow, _mm256_mul_ps(signLow, _mm256_loadu_ps(pi)));
    const __m128 erHigh = _mm_sub_ps(trHigh, _mm_mul_ps(signHigh, _mm_loadu_ps(pr + 8)));
    const __m128 eiHigh = _mm_sub_ps(tiHigh, _mm_mul_ps(signHigh, _mm_loadu_ps(pi + 8)));
    _mm256_storeu_ps(terms[d], _mm256_add_ps(_mm256_mul_ps(erLow, erLow), _mm256_mul_ps(eiLow, eiLow)));
    _mm_storeu_ps(terms[d] + 8, _mm_add_ps(_mm_mul_ps(erHigh, erHigh), _mm_mul_ps(eiHigh, eiHigh)));
    _mm256_storeu_ps(pr, trLow);
    _mm_storeu_ps(pr + 8, trHigh);
    _mm256_storeu_ps(pi, tiLow);
    _mm_storeu_ps(pi + 8, tiHigh);
  }
  // The sums over the carriers, eight steps at a time: the terms of eight steps turned so that a
  // register holds one carrier of each step, then added carrier after carrier, as the reference
  // adds them for each step alone.
  int32_t d = 0;
  for (; d + 8 <= side.span; d += 8) {
    __m256 carriers[GATE_CARRIERS];
    TurnEightSteps(terms + d, carriers);
    __m256 sum = _mm256_setzero_ps();
    for (int32_t c = 0; c < GATE_CARRIERS; ++c) sum = _mm256_add_ps(sum, carriers[c]);
    if (side.direction > 0) {
      _mm256_storeu_ps(side.profile + d, sum);
    } else {
      // profile[-d - 7 .. -d] takes the steps d + 7 .. d.
      const __m256 reversed = _mm256_permutevar8x32_ps(sum, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
      _mm256_storeu_ps(side.profile - d - 7, reversed);
    }
  }
  for (; d < side.span; ++d) {
    float sum = 0.0f;
    for (int32_t c = 0; c < GATE_CARRIERS; ++c) sum += terms[d][c];
    side.profile[d * side.direction] = sum;
  }
}

}  // namespace zfn

#endif
