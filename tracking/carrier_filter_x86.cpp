// The filter across carriers with two complex values per SSE2 register. Each product and sum is
// the same single rounding as the complex operators of the scalar reference give, in the same
// order: the output sums the seven products from tap 0 on, and a - b is computed as a + (-b), which
// is exact in IEEE arithmetic. Tap 7 is padding; its product is never summed and it is never stored.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <climits>

#include "tracking/carrier_filter.h"
#include "tracking/complex32.h"
#include "tracking/slicers.h"

namespace zfn {

__attribute__((target("sse2"))) void FilterCarrierRowSse2(const CarrierFilterPass& pass) {
  const __m128 signEven = _mm_castsi128_ps(_mm_set_epi32(0, INT32_MIN, 0, INT32_MIN));
  const __m128 signOdd = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, 0, INT32_MIN, 0));
  __m128 tp[4];
  for (int32_t v = 0; v < 3; ++v) tp[v] = _mm_loadu_ps(pass.taps + 4 * v);
  tp[3] = _mm_setr_ps(pass.taps[12], pass.taps[13], 0.0f, 0.0f);
  for (int32_t m = 3; m <= pass.n - 5; ++m) {
    // Entries m-3 .. m+4; m+4 <= n-1 stays inside the row.
    const float* row = pass.in + 2 * (m - 3);
    __m128 in[4];
    for (int32_t v = 0; v < 4; ++v) in[v] = _mm_loadu_ps(row + 4 * v);
    __m128 w = _mm_setzero_ps();
    for (int32_t v = 0; v < 4; ++v) {
      const __m128 ar = _mm_shuffle_ps(in[v], in[v], _MM_SHUFFLE(2, 2, 0, 0));
      const __m128 ai = _mm_shuffle_ps(in[v], in[v], _MM_SHUFFLE(3, 3, 1, 1));
      const __m128 bs = _mm_shuffle_ps(tp[v], tp[v], _MM_SHUFFLE(2, 3, 0, 1));
      // (ar br - ai bi, ar bi + ai br) for both values
      const __m128 prod = _mm_add_ps(_mm_mul_ps(ar, tp[v]), _mm_xor_ps(_mm_mul_ps(ai, bs), signEven));
      w = _mm_add_ps(w, prod);
      if (v < 3) w = _mm_add_ps(w, _mm_movehl_ps(prod, prod));
    }
    _mm_storel_pi(reinterpret_cast<__m64*>(pass.out + 2 * m), w);
    if ((m & 3) == pass.pilotPhase) continue;  // carrier 3*m of the oldest symbol is a pilot
    // Sliced against the unfiltered estimate, the error taken against the filtered one.
    const Cx wc{_mm_cvtss_f32(w), _mm_cvtss_f32(_mm_shuffle_ps(w, w, _MM_SHUFFLE(1, 1, 1, 1)))};
    const Cx r = Load(pass.oldest, 3 * m);
    const Cx err = pass.step * (DecisionTarget(r, Load(pass.in, m), pass.bitsPerCarrier) - wc);
    // taps + conj(in) * err: (ir er + ii ei, ir ei - ii er)
    const __m128 er = _mm_setr_ps(err.re, err.im, err.re, err.im);
    const __m128 ei = _mm_setr_ps(err.im, err.re, err.im, err.re);
    for (int32_t v = 0; v < 4; ++v) {
      const __m128 ar = _mm_shuffle_ps(in[v], in[v], _MM_SHUFFLE(2, 2, 0, 0));
      const __m128 ai = _mm_shuffle_ps(in[v], in[v], _MM_SHUFFLE(3, 3, 1, 1));
      const __m128 c = _mm_add_ps(_mm_mul_ps(ar, er), _mm_xor_ps(_mm_mul_ps(ai, ei), signOdd));
      tp[v] = _mm_add_ps(tp[v], c);
    }
  }
  for (int32_t v = 0; v < 3; ++v) _mm_storeu_ps(pass.taps + 4 * v, tp[v]);
  pass.taps[12] = _mm_cvtss_f32(tp[3]);
  pass.taps[13] = _mm_cvtss_f32(_mm_shuffle_ps(tp[3], tp[3], _MM_SHUFFLE(1, 1, 1, 1)));
}

}  // namespace zfn

#endif
