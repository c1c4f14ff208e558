// The filter across carriers with two complex values per SSE2 register. Each product and sum is
// the same single rounding as the complex operators of the scalar reference give, in the same
// order: the products of taps 0..7 lie in four registers, two per register; the sum of the first
// two registers and of the last two gives (p0 + p2, p1 + p3) and (p4 + p6, p5 + pad), and the pad
// is -0, which leaves p5 exactly as it is (x + -0 = x for every x). a - b is computed as a + (-b),
// which is exact in IEEE arithmetic. Tap 7 is never stored.
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
  const __m128 lowPair = _mm_castsi128_ps(_mm_set_epi32(0, 0, -1, -1));
  const __m128 step = _mm_set1_ps(pass.step);
  const __m128 negativeZeroHigh = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, INT32_MIN, 0, 0));
  __m128 tp[4];
  for (int32_t v = 0; v < 3; ++v) tp[v] = _mm_loadu_ps(pass.taps + 4 * v);
  tp[3] = _mm_setr_ps(pass.taps[12], pass.taps[13], 0.0f, 0.0f);
  for (int32_t m = 3; m <= pass.n - 5; ++m) {
    // Entries m-3 .. m+4; m+4 <= n-1 stays inside the row.
    const float* row = pass.in + 2 * (m - 3);
    __m128 in[4];
    for (int32_t v = 0; v < 4; ++v) in[v] = _mm_loadu_ps(row + 4 * v);
    __m128 prod[4];
    for (int32_t v = 0; v < 4; ++v) {
      const __m128 ar = _mm_shuffle_ps(in[v], in[v], _MM_SHUFFLE(2, 2, 0, 0));
      const __m128 ai = _mm_shuffle_ps(in[v], in[v], _MM_SHUFFLE(3, 3, 1, 1));
      const __m128 bs = _mm_shuffle_ps(tp[v], tp[v], _MM_SHUFFLE(2, 3, 0, 1));
      // (ar br - ai bi, ar bi + ai br) for both values
      prod[v] = _mm_add_ps(_mm_mul_ps(ar, tp[v]), _mm_xor_ps(_mm_mul_ps(ai, bs), signEven));
    }
    prod[3] = _mm_or_ps(_mm_and_ps(prod[3], lowPair), negativeZeroHigh);
    const __m128 sums = _mm_add_ps(_mm_add_ps(prod[0], prod[1]), _mm_add_ps(prod[2], prod[3]));
    const __m128 w = _mm_add_ps(sums, _mm_movehl_ps(sums, sums));
    _mm_storel_pi(reinterpret_cast<__m64*>(pass.out + 2 * m), w);
    if ((m & 3) == pass.pilotPhase) continue;  // carrier 3*m of the oldest symbol is a pilot
    // Sliced against the unfiltered estimate, the error taken against the filtered one.
    // The error stays in the register: step * (target - w) in lanes 0 and 1, as the scalar
    // reference computes it per component.
    const Cx r = Load(pass.oldest, 3 * m);
    const Cx target = DecisionTarget(r, Load(pass.in, m), pass.bitsPerCarrier);
    const __m128 err = _mm_mul_ps(step, _mm_sub_ps(_mm_setr_ps(target.re, target.im, 0.0f, 0.0f), w));
    // taps + conj(in) * err: (ir er + ii ei, ir ei - ii er)
    const __m128 er = _mm_shuffle_ps(err, err, _MM_SHUFFLE(1, 0, 1, 0));
    const __m128 ei = _mm_shuffle_ps(err, err, _MM_SHUFFLE(0, 1, 0, 1));
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
