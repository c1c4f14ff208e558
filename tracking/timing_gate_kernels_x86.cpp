// One side of the timing gate with the twelve carriers in one AVX2 register (carriers 0..7) and
// one SSE register (8..11): the reference's products and sums lane by lane; the sums over the
// carriers are added one by one in carrier order, as the reference adds them.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "tracking/timing_gate_kernels.h"

namespace zfn {

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
  for (int32_t d = 0; d < side.span; ++d) {
    float sum = 0.0f;
    for (int32_t c = 0; c < GATE_CARRIERS; ++c) sum += terms[d][c];
    side.profile[d * side.direction] = sum;
  }
}

}  // namespace zfn

#endif
