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

namespace {

// a * b for the two complex values of each register.
__attribute__((target("sse2"))) inline __m128 MulPairs(__m128 a, __m128 b, __m128 signEven) {
  const __m128 ar = _mm_shuffle_ps(a, a, _MM_SHUFFLE(2, 2, 0, 0));
  const __m128 ai = _mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 3, 1, 1));
  const __m128 bs = _mm_shuffle_ps(b, b, _MM_SHUFFLE(2, 3, 0, 1));
  // (ar br - ai bi, ar bi + ai br)
  return _mm_add_ps(_mm_mul_ps(ar, b), _mm_xor_ps(_mm_mul_ps(ai, bs), signEven));
}

// The tree of seven products held two per register in v[0..3], the pad of v[3] still to be set:
// lanes 0 and 1 of the result.
__attribute__((target("sse2"))) inline __m128 TreeSumPairs(const __m128 (&v)[4], __m128 lowPair, __m128 negativeZeroHigh) {
  const __m128 last = _mm_or_ps(_mm_and_ps(v[3], lowPair), negativeZeroHigh);
  const __m128 sums = _mm_add_ps(_mm_add_ps(v[0], v[1]), _mm_add_ps(v[2], last));
  return _mm_add_ps(sums, _mm_movehl_ps(sums, sums));
}

}  // namespace

__attribute__((target("sse2"))) void FilterCarrierRowSse2(const CarrierFilterPass& pass) {
  const __m128 signEven = _mm_castsi128_ps(_mm_set_epi32(0, INT32_MIN, 0, INT32_MIN));
  const __m128 signOdd = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, 0, INT32_MIN, 0));
  const __m128 lowPair = _mm_castsi128_ps(_mm_set_epi32(0, 0, -1, -1));
  const __m128 step = _mm_set1_ps(pass.step);
  const __m128 negativeZeroHigh = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, INT32_MIN, 0, 0));
  const int32_t n = pass.n;
  // The lag-one products row[j] * conj(row[j-1]) at j, computed once for the seven windows that
  // hold each of them: (a.re b.re + a.im b.im, a.im b.re - a.re b.im).
  alignas(16) float lagProducts[2 * CARRIER_FILTER_MAX_ENTRIES + 4];
  for (int32_t j = 1; j + 1 < n; j += 2) {
    const __m128 a = _mm_loadu_ps(pass.in + 2 * j);
    const __m128 b = _mm_loadu_ps(pass.in + 2 * (j - 1));
    const __m128 ar = _mm_shuffle_ps(a, a, _MM_SHUFFLE(2, 2, 0, 0));
    const __m128 ai = _mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 3, 1, 1));
    const __m128 bs = _mm_shuffle_ps(b, b, _MM_SHUFFLE(2, 3, 0, 1));
    _mm_storeu_ps(lagProducts + 2 * j, _mm_add_ps(_mm_xor_ps(_mm_mul_ps(ar, b), signOdd), _mm_mul_ps(ai, bs)));
  }
  if (n % 2 == 0 && n >= 2) Store(lagProducts, n - 1, MulConj(Load(pass.in, n - 1), Load(pass.in, n - 2)));
  // The lag-one correlation over the windows of entries m and m+1 (the last reads entry n-1), and
  // (-im, re) of it.
  alignas(16) float corr[2 * CARRIER_FILTER_MAX_ENTRIES + 4], corrTurned[2 * CARRIER_FILTER_MAX_ENTRIES + 4];
  for (int32_t m = 4; m <= n - 5; m += 2) {
    const float* q = lagProducts + 2 * (m - 3);
    __m128 p[7];
    for (int32_t k = 0; k < 7; ++k) p[k] = _mm_loadu_ps(q + 2 * k);
    const __m128 c = _mm_add_ps(_mm_add_ps(_mm_add_ps(p[0], p[2]), _mm_add_ps(p[4], p[6])),
                                _mm_add_ps(_mm_add_ps(p[1], p[3]), p[5]));
    _mm_store_ps(corr + 2 * m, c);
    _mm_store_ps(corrTurned + 2 * m, _mm_xor_ps(_mm_shuffle_ps(c, c, _MM_SHUFFLE(2, 3, 0, 1)), signEven));
  }

  __m128 tp[4];
  for (int32_t v = 0; v < 3; ++v) tp[v] = _mm_loadu_ps(pass.taps + 4 * v);
  tp[3] = _mm_setr_ps(pass.taps[12], pass.taps[13], 0.0f, 0.0f);
  __m128 lagged[4] = {tp[0], tp[1], tp[2], tp[3]};
  bool adaptedBefore = false;
  __m128 errRe = _mm_setzero_ps(), errIm = _mm_setzero_ps();  // the previous error, each part twice
  for (int32_t m = 3; m <= n - 5; ++m) {
    // Entries m-3 .. m+4; m+4 <= n-1 stays inside the row.
    const float* row = pass.in + 2 * (m - 3);
    __m128 in[4], prod[4];
    for (int32_t v = 0; v < 4; ++v) in[v] = _mm_loadu_ps(row + 4 * v);
    for (int32_t v = 0; v < 4; ++v) prod[v] = MulPairs(in[v], lagged[v], signEven);
    __m128 w = TreeSumPairs(prod, lowPair, negativeZeroHigh);
    if (adaptedBefore) {
      // err * c = (er cr - ei ci, er ci + ei cr)
      const __m128 c = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(corr + 2 * m));
      const __m128 cTurned = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(corrTurned + 2 * m));
      w = _mm_add_ps(w, _mm_add_ps(_mm_mul_ps(errRe, c), _mm_mul_ps(errIm, cTurned)));
    }
    _mm_storel_pi(reinterpret_cast<__m64*>(pass.out + 2 * m), w);
    for (int32_t v = 0; v < 4; ++v) lagged[v] = tp[v];
    adaptedBefore = (m & 3) != pass.pilotPhase;  // carrier 3*m of the oldest symbol is a pilot
    if (!adaptedBefore) continue;
    // Sliced against the unfiltered estimate, the error taken against the filtered one:
    // step * (target - w) in lanes 0 and 1, as the scalar reference computes it per component.
    const Cx r = Load(pass.oldest, 3 * m);
    const Cx target = DecisionTarget(r, Load(pass.in, m), pass.bitsPerCarrier);
    const __m128 err = _mm_mul_ps(step, _mm_sub_ps(_mm_setr_ps(target.re, target.im, 0.0f, 0.0f), w));
    errRe = _mm_shuffle_ps(err, err, _MM_SHUFFLE(0, 0, 0, 0));
    errIm = _mm_shuffle_ps(err, err, _MM_SHUFFLE(1, 1, 1, 1));
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

// Four complex values per AVX2 register. The seven entries of a window are held as (0, 1, 4, 5) and
// (2, 3, 6, pad): the sum of the two registers gives (p0 + p2, p1 + p3 | p4 + p6, p5 + pad), the sum
// of its halves the two inner sums of the tree, in the same order as above. Everything that does
// not depend on the taps is laid out once per row, four entries at a time: the real and the
// imaginary parts of the row, each duplicated (a window is then two loads rather than shuffles),
// the lag-one correlation of every window, and the decision targets.
namespace {

__attribute__((target("avx2"))) inline __m256 LoadWindow(const float* at) {
  // complex values 0, 1 and 4, 5 from `at`
  return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(at)), _mm_loadu_ps(at + 8), 1);
}

__attribute__((target("avx2"))) inline __m128 TreeSumWindow(__m256 first, __m256 second, __m256 negativeZero) {
  const __m256 sums = _mm256_add_ps(first, _mm256_blend_ps(second, negativeZero, 0xC0));
  const __m128 inner = _mm_add_ps(_mm256_castps256_ps128(sums), _mm256_extractf128_ps(sums, 1));
  return _mm_add_ps(inner, _mm_movehl_ps(inner, inner));
}

// a * conj(b) for four complex values: (a.re b.re + a.im b.im, a.im b.re - a.re b.im).
__attribute__((target("avx2"))) inline __m256 MulConjQuad(__m256 a, __m256 b, __m256 signOdd) {
  const __m256 bs = _mm256_permute_ps(b, _MM_SHUFFLE(2, 3, 0, 1));
  return _mm256_add_ps(_mm256_xor_ps(_mm256_mul_ps(_mm256_moveldup_ps(a), b), signOdd),
                       _mm256_mul_ps(_mm256_movehdup_ps(a), bs));
}

__attribute__((target("avx2"))) inline __m128 LoadPair(const float* at) {
  return _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(at));
}

}  // namespace

__attribute__((target("avx2"))) void FilterCarrierRowAvx2(const CarrierFilterPass& pass) {
  const __m256 signEven = _mm256_castsi256_ps(_mm256_set1_epi64x(static_cast<int64_t>(0x80000000u)));
  const __m256 signOdd = _mm256_castsi256_ps(_mm256_set1_epi64x(INT64_MIN));
  const __m256 negativeZero = _mm256_set1_ps(-0.0f);
  const __m128 step = _mm_set1_ps(pass.step);
  const float* in = pass.in;
  const float* oldest = pass.oldest;
  float* out = pass.out;
  const int32_t n = pass.n, pilotPhase = pass.pilotPhase, bits = pass.bitsPerCarrier;
  constexpr int32_t SIZE = 2 * CARRIER_FILTER_MAX_ENTRIES + 16;
  alignas(32) float re2[SIZE], im2[SIZE], lagProducts[SIZE], corr[SIZE], corrTurned[SIZE], targets[SIZE];
  int32_t j = 0;
  for (; j + 4 <= n; j += 4) {
    const __m256 a = _mm256_loadu_ps(in + 2 * j);
    _mm256_store_ps(re2 + 2 * j, _mm256_moveldup_ps(a));
    _mm256_store_ps(im2 + 2 * j, _mm256_movehdup_ps(a));
  }
  for (; j < n; ++j) {
    re2[2 * j] = re2[2 * j + 1] = in[2 * j];
    im2[2 * j] = im2[2 * j + 1] = in[2 * j + 1];
  }
  // row[j] * conj(row[j-1]) at j; zeros past the row, which only the windows past the last
  // filtered entry read.
  for (j = 1; j + 4 <= n; j += 4) {
    _mm256_storeu_ps(lagProducts + 2 * j, MulConjQuad(_mm256_loadu_ps(in + 2 * j), _mm256_loadu_ps(in + 2 * (j - 1)), signOdd));
  }
  for (; j < n; ++j) Store(lagProducts, j, MulConj(Load(in, j), Load(in, j - 1)));
  for (j = n; j < n + 8; ++j) Store(lagProducts, j, Cx{0.0f, 0.0f});
  // The lag-one correlation over the window of entries m .. m+3, and (-im, re) of it.
  for (int32_t m = 4; m <= n - 5; m += 4) {
    const float* q = lagProducts + 2 * (m - 3);
    __m256 p[7];
    for (int32_t k = 0; k < 7; ++k) p[k] = _mm256_loadu_ps(q + 2 * k);
    const __m256 c = _mm256_add_ps(_mm256_add_ps(_mm256_add_ps(p[0], p[2]), _mm256_add_ps(p[4], p[6])),
                                   _mm256_add_ps(_mm256_add_ps(p[1], p[3]), p[5]));
    _mm256_storeu_ps(corr + 2 * m, c);
    _mm256_storeu_ps(corrTurned + 2 * m, _mm256_xor_ps(_mm256_permute_ps(c, _MM_SHUFFLE(2, 3, 0, 1)), signEven));
  }
  // Decision targets of entries m .. m+3: the QPSK ones four at a time, as DecisionTarget forms them.
  int32_t m0 = 3;
  if (bits != 4 && bits != 6) {
    const __m256 level = _mm256_set1_ps(0.707107f);
    for (; m0 + 3 <= n - 5; m0 += 4) {
      const float* o = oldest + 6 * m0;
      const __m128 rLow = _mm_loadh_pi(LoadPair(o), reinterpret_cast<const __m64*>(o + 6));
      const __m128 rHigh = _mm_loadh_pi(LoadPair(o + 12), reinterpret_cast<const __m64*>(o + 18));
      const __m256 r = _mm256_insertf128_ps(_mm256_castps128_ps256(rLow), rHigh, 1);
      const __m256 z = MulConjQuad(r, _mm256_loadu_ps(in + 2 * m0), signOdd);
      const __m256 beyond = _mm256_cmp_ps(z, _mm256_setzero_ps(), _CMP_LE_OQ);
      const __m256 d = _mm256_xor_ps(level, _mm256_and_ps(beyond, negativeZero));
      _mm256_storeu_ps(targets + 2 * m0, MulConjQuad(r, d, signOdd));
    }
  }
  for (int32_t m = m0; m <= n - 5; ++m) {
    if ((m & 3) != pilotPhase) Store(targets, m, DecisionTarget(Load(oldest, 3 * m), Load(in, m), bits));
  }

  // Taps (0, 1, 4, 5) and (2, 3, 6, 0).
  __m256 tp0 = LoadWindow(pass.taps);
  __m256 tp1 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(pass.taps + 4)), LoadPair(pass.taps + 12), 1);
  __m256 lagged0 = tp0, lagged1 = tp1;
  bool adaptedBefore = false;
  __m128 errRe = _mm_setzero_ps(), errIm = _mm_setzero_ps();
  for (int32_t m = 3; m <= n - 5; ++m) {
    const int32_t b = 2 * (m - 3);
    const __m256 ar0 = LoadWindow(re2 + b), ar1 = LoadWindow(re2 + b + 4);
    const __m256 ai0 = LoadWindow(im2 + b), ai1 = LoadWindow(im2 + b + 4);
    // in * taps: (ar tr - ai ti, ar ti + ai tr)
    const __m256 prod0 = _mm256_add_ps(_mm256_mul_ps(ar0, lagged0),
                                       _mm256_xor_ps(_mm256_mul_ps(ai0, _mm256_permute_ps(lagged0, _MM_SHUFFLE(2, 3, 0, 1))), signEven));
    const __m256 prod1 = _mm256_add_ps(_mm256_mul_ps(ar1, lagged1),
                                       _mm256_xor_ps(_mm256_mul_ps(ai1, _mm256_permute_ps(lagged1, _MM_SHUFFLE(2, 3, 0, 1))), signEven));
    __m128 w = TreeSumWindow(prod0, prod1, negativeZero);
    if (adaptedBefore) {
      // err * c = (er cr - ei ci, er ci + ei cr)
      w = _mm_add_ps(w, _mm_add_ps(_mm_mul_ps(errRe, LoadPair(corr + 2 * m)), _mm_mul_ps(errIm, LoadPair(corrTurned + 2 * m))));
    }
    _mm_storel_pi(reinterpret_cast<__m64*>(out + 2 * m), w);
    lagged0 = tp0;
    lagged1 = tp1;
    adaptedBefore = (m & 3) != pilotPhase;  // carrier 3*m of the oldest symbol is a pilot
    if (!adaptedBefore) continue;
    const __m128 err = _mm_mul_ps(step, _mm_sub_ps(LoadPair(targets + 2 * m), w));
    errRe = _mm_shuffle_ps(err, err, _MM_SHUFFLE(0, 0, 0, 0));
    errIm = _mm_shuffle_ps(err, err, _MM_SHUFFLE(1, 1, 1, 1));
    // taps + conj(in) * err: (ir er + ii ei, ir ei - ii er)
    const __m128 e1 = _mm_shuffle_ps(err, err, _MM_SHUFFLE(1, 0, 1, 0));
    const __m128 e2 = _mm_shuffle_ps(err, err, _MM_SHUFFLE(0, 1, 0, 1));
    const __m256 er = _mm256_insertf128_ps(_mm256_castps128_ps256(e1), e1, 1);
    const __m256 ei = _mm256_insertf128_ps(_mm256_castps128_ps256(e2), e2, 1);
    tp0 = _mm256_add_ps(tp0, _mm256_add_ps(_mm256_mul_ps(ar0, er), _mm256_xor_ps(_mm256_mul_ps(ai0, ei), signOdd)));
    tp1 = _mm256_add_ps(tp1, _mm256_add_ps(_mm256_mul_ps(ar1, er), _mm256_xor_ps(_mm256_mul_ps(ai1, ei), signOdd)));
  }
  _mm_storeu_ps(pass.taps, _mm256_castps256_ps128(tp0));
  _mm_storeu_ps(pass.taps + 4, _mm256_castps256_ps128(tp1));
  _mm_storeu_ps(pass.taps + 8, _mm256_extractf128_ps(tp0, 1));
  _mm_storel_pi(reinterpret_cast<__m64*>(pass.taps + 12), _mm256_extractf128_ps(tp1, 1));
}

}  // namespace zfn

#endif
