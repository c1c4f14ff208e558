// The carrier rotation with the four rotators of a group side by side in one SSE2 register each for
// the real and imaginary parts; every lane does the scalar reference's products and sums in order.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "numeric/nco_rotation.h"

namespace zfn {

__attribute__((target("sse2"))) void RotateGroupsSse2(const float* in, float* out, const NcoRotators& r) {
  __m128 rr = _mm_loadu_ps(r.re);
  __m128 ri = _mm_loadu_ps(r.im);
  const __m128 qr = _mm_set1_ps(r.quadRe);
  const __m128 qi = _mm_set1_ps(r.quadIm);
  const float* x = in;
  float* z = out;
  for (int32_t g = 0; g < r.groups; ++g, x += 8, z += 8) {
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
}

}  // namespace zfn

#endif
