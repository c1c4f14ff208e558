// The carrier rotation with the rotators of four samples side by side in one register each for the
// real and imaginary parts: SSE2 keeps the two chains in two register pairs, AVX2 in one pair of
// eight lanes. Every lane does the scalar reference's products and sums in order.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "numeric/nco_rotation.h"

namespace zfn {

namespace {

// One group of four samples from x to z with the rotators (rr, ri); the rotators then advance by
// (qr, qi).
__attribute__((target("sse2"))) inline void RotateGroupSse2(const float* x, float* z, __m128& rr, __m128& ri,
                                                            __m128 qr, __m128 qi) {
  const __m128 a = _mm_loadu_ps(x);
  const __m128 b = _mm_loadu_ps(x + 4);
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

}  // namespace

__attribute__((target("sse2"))) void RotateGroupsSse2(const float* in, float* out, const NcoRotators& r) {
  __m128 evenRe = _mm_loadu_ps(r.re);
  __m128 evenIm = _mm_loadu_ps(r.im);
  __m128 oddRe = _mm_loadu_ps(r.re + 4);
  __m128 oddIm = _mm_loadu_ps(r.im + 4);
  const __m128 qr = _mm_set1_ps(r.octRe);
  const __m128 qi = _mm_set1_ps(r.octIm);
  int32_t g = 0;
  for (; g + 2 <= r.groups; g += 2) {
    RotateGroupSse2(in + 8 * g, out + 8 * g, evenRe, evenIm, qr, qi);
    RotateGroupSse2(in + 8 * g + 8, out + 8 * g + 8, oddRe, oddIm, qr, qi);
  }
  if (g < r.groups) RotateGroupSse2(in + 8 * g, out + 8 * g, evenRe, evenIm, qr, qi);
}

// Eight samples at a time: the shuffles of AVX2 work within each half of a register, so the lanes
// hold samples 0, 1, 4, 5 | 2, 3, 6, 7 of the two groups, and the rotators are loaded in that order.
__attribute__((target("avx2"))) void RotateGroupsAvx2(const float* in, float* out, const NcoRotators& r) {
  __m256 rr = _mm256_setr_ps(r.re[0], r.re[1], r.re[4], r.re[5], r.re[2], r.re[3], r.re[6], r.re[7]);
  __m256 ri = _mm256_setr_ps(r.im[0], r.im[1], r.im[4], r.im[5], r.im[2], r.im[3], r.im[6], r.im[7]);
  const __m256 qr = _mm256_set1_ps(r.octRe);
  const __m256 qi = _mm256_set1_ps(r.octIm);
  int32_t g = 0;
  for (; g + 2 <= r.groups; g += 2) {
    const float* x = in + 8 * g;
    float* z = out + 8 * g;
    const __m256 a = _mm256_loadu_ps(x);
    const __m256 b = _mm256_loadu_ps(x + 8);
    const __m256 xr = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    const __m256 xi = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
    const __m256 yr = _mm256_sub_ps(_mm256_mul_ps(xr, rr), _mm256_mul_ps(xi, ri));
    const __m256 yi = _mm256_add_ps(_mm256_mul_ps(xr, ri), _mm256_mul_ps(xi, rr));
    _mm256_storeu_ps(z, _mm256_unpacklo_ps(yr, yi));
    _mm256_storeu_ps(z + 8, _mm256_unpackhi_ps(yr, yi));
    const __m256 nr = _mm256_sub_ps(_mm256_mul_ps(rr, qr), _mm256_mul_ps(ri, qi));
    ri = _mm256_add_ps(_mm256_mul_ps(rr, qi), _mm256_mul_ps(ri, qr));
    rr = nr;
  }
  if (g < r.groups) {
    // The last, even group: the rotators of samples 0..3, from the low lanes of each half.
    const __m128 lowRe = _mm256_castps256_ps128(rr), highRe = _mm256_extractf128_ps(rr, 1);
    const __m128 lowIm = _mm256_castps256_ps128(ri), highIm = _mm256_extractf128_ps(ri, 1);
    __m128 evenRe = _mm_shuffle_ps(lowRe, highRe, _MM_SHUFFLE(1, 0, 1, 0));
    __m128 evenIm = _mm_shuffle_ps(lowIm, highIm, _MM_SHUFFLE(1, 0, 1, 0));
    RotateGroupSse2(in + 8 * g, out + 8 * g, evenRe, evenIm, _mm256_castps256_ps128(qr), _mm256_castps256_ps128(qi));
  }
}

}  // namespace zfn

#endif
