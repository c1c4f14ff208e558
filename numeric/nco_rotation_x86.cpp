// The carrier rotation with the rotators of four samples side by side in one register each for the
// real and imaginary parts: SSE2 keeps the four chains in four register pairs, AVX2 in two pairs of
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

// Four groups a step, one register pair per chain; the groups past the last whole step go
// through the reference with the chains as they stand.
__attribute__((target("sse2"))) void RotateGroupsSse2(const float* in, float* out, const NcoRotators& r) {
  __m128 re[NCO_CHAINS], im[NCO_CHAINS];
  for (int32_t c = 0; c < NCO_CHAINS; ++c) {
    re[c] = _mm_loadu_ps(r.re + 4 * c);
    im[c] = _mm_loadu_ps(r.im + 4 * c);
  }
  const __m128 qr = _mm_set1_ps(r.advanceRe);
  const __m128 qi = _mm_set1_ps(r.advanceIm);
  int32_t g = 0;
  for (; g + NCO_CHAINS <= r.groups; g += NCO_CHAINS) {
    for (int32_t c = 0; c < NCO_CHAINS; ++c) RotateGroupSse2(in + 8 * (g + c), out + 8 * (g + c), re[c], im[c], qr, qi);
  }
  if (g == r.groups) return;
  alignas(16) float rotRe[4 * NCO_CHAINS], rotIm[4 * NCO_CHAINS];
  for (int32_t c = 0; c < NCO_CHAINS; ++c) {
    _mm_store_ps(rotRe + 4 * c, re[c]);
    _mm_store_ps(rotIm + 4 * c, im[c]);
  }
  RotateGroupsFrom(in, out, r, rotRe, rotIm, g);
}

// Sixteen samples a step, two chains of two groups in a register each: the shuffles of AVX2 work
// within each half of a register, so the lanes hold samples 0, 1, 4, 5 | 2, 3, 6, 7 of the two
// groups, and the rotators are loaded in that order (and stored back so for the last groups).
namespace {

constexpr int32_t LANE_SAMPLE[8] = {0, 1, 4, 5, 2, 3, 6, 7};

__attribute__((target("avx2"))) inline __m256 LanesOf(const float* v) {
  return _mm256_setr_ps(v[0], v[1], v[4], v[5], v[2], v[3], v[6], v[7]);
}

__attribute__((target("avx2"))) inline void RotateTwoGroupsAvx2(const float* x, float* z, __m256& rr, __m256& ri,
                                                               __m256 qr, __m256 qi) {
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

}  // namespace

__attribute__((target("avx2"))) void RotateGroupsAvx2(const float* in, float* out, const NcoRotators& r) {
  __m256 lowRe = LanesOf(r.re), lowIm = LanesOf(r.im);          // chains 0 and 1
  __m256 highRe = LanesOf(r.re + 8), highIm = LanesOf(r.im + 8);  // chains 2 and 3
  const __m256 qr = _mm256_set1_ps(r.advanceRe);
  const __m256 qi = _mm256_set1_ps(r.advanceIm);
  int32_t g = 0;
  for (; g + NCO_CHAINS <= r.groups; g += NCO_CHAINS) {
    RotateTwoGroupsAvx2(in + 8 * g, out + 8 * g, lowRe, lowIm, qr, qi);
    RotateTwoGroupsAvx2(in + 8 * g + 16, out + 8 * g + 16, highRe, highIm, qr, qi);
  }
  if (g == r.groups) return;
  alignas(32) float lanes[4][8];
  _mm256_store_ps(lanes[0], lowRe);
  _mm256_store_ps(lanes[1], lowIm);
  _mm256_store_ps(lanes[2], highRe);
  _mm256_store_ps(lanes[3], highIm);
  float rotRe[4 * NCO_CHAINS], rotIm[4 * NCO_CHAINS];
  for (int32_t l = 0; l < 8; ++l) {
    rotRe[LANE_SAMPLE[l]] = lanes[0][l];
    rotIm[LANE_SAMPLE[l]] = lanes[1][l];
    rotRe[8 + LANE_SAMPLE[l]] = lanes[2][l];
    rotIm[8 + LANE_SAMPLE[l]] = lanes[3][l];
  }
  RotateGroupsFrom(in, out, r, rotRe, rotIm, g);
}

}  // namespace zfn

#endif
