// The filter across carriers with two complex values per SSE2 register, and with four per AVX2
// register. Each product and sum is the same single rounding as the scalar reference gives, in
// the same order; a - b is computed as a + (-b), which is exact in IEEE arithmetic. Both variants
// first lay out, once per row, everything that does not depend on the taps: the real parts of the
// row duplicated and the imaginary parts as (-im, im), so that a product with the taps is two
// multiplications and one addition; the correlations c of every window with the windows one and
// two entries before, beside g = -step c; and (AVX2) the QPSK decision targets. The SSE2 variant
// forms an entry's output (lanes 0, 1) and error (lanes 2, 3) side by side in one register; the
// AVX2 variant forms the error in all four complex lanes of a register, the form the tap update
// takes, with c and g broadcast as they are loaded, and the output apart. The chain from entry to
// entry then holds one complex multiply-add and one addition, and the taps an entry's window
// multiplies are those from before the two entries before it. The AVX2 variant runs whole pilot
// periods (adapt, adapt, adapt, pilot) unrolled, so that it neither branches on the pilot nor
// forms products with the error of an entry that did not adapt.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <climits>

#include "tracking/carrier_filter.h"
#include "tracking/complex32.h"
#include "tracking/slicers.h"

namespace zfn {

namespace {

constexpr int32_t ROW_FLOATS = 2 * CARRIER_FILTER_MAX_ENTRIES + 16;

// The per-row layout shared by both variants; the arrays hold two floats per entry, at 2m.
struct RowLayout {
  alignas(32) float re2[ROW_FLOATS];   // (re, re) of every entry
  alignas(32) float im2[ROW_FLOATS];   // (-im, im)
  alignas(32) float lags[ROW_FLOATS];  // row[j] * conj(row[j - lag]) at j, zeros past the row
  // The correlation c of entry m's window with the window `lag` entries before ([lag - 1]), and
  // g = -step c, four floats per entry at 4m: (c.re, c.re, g.re, g.re) and (-c.im, c.im, -g.im,
  // g.im). The output and the error of an entry are then formed side by side in one register.
  alignas(32) float corrRe[2][2 * ROW_FLOATS], corrIm[2][2 * ROW_FLOATS];
  alignas(32) float targets[ROW_FLOATS];
};

// One complex value, the upper half zero. The load takes any alignment of a float.
__attribute__((target("sse2"))) inline __m128 LoadPair(const float* at) {
  return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(at)));
}

// b * e as the reference forms it, from (b.re, b.re), (-b.im, b.im), e and e swapped, for the two
// complex values b of the register (the correlation and the gain of the layout) with the same e.
__attribute__((target("sse2"))) inline __m128 ProductPairs(const float* re, const float* im, __m128 e, __m128 swapped) {
  return _mm_add_ps(_mm_mul_ps(_mm_load_ps(re), e), _mm_mul_ps(_mm_load_ps(im), swapped));
}

// The output (lanes 0, 1) and the error (lanes 2, 3) of entry m from the tap product q, the
// target-side term s (lanes 0, 1) and the errors of the two entries before, each as (re, im, re,
// im) and swapped: (x + p2) + p1, each term only if that entry adapted.
__attribute__((target("sse2"), always_inline)) inline __m128 OutputAndError(bool adapted1, bool adapted2, const RowLayout& layout, int32_t m,
                                                                            __m128 q, __m128 s, __m128 err1, __m128 swapped1, __m128 err2,
                                                                            __m128 swapped2) {
  __m128 x = _mm_movelh_ps(q, s);
  if (adapted2) x = _mm_add_ps(x, ProductPairs(layout.corrRe[1] + 4 * m, layout.corrIm[1] + 4 * m, err2, swapped2));
  if (adapted1) x = _mm_add_ps(x, ProductPairs(layout.corrRe[0] + 4 * m, layout.corrIm[0] + 4 * m, err1, swapped1));
  return x;
}

// The tree of seven products held two per register in v[0..3], the pad of v[3] still to be set:
// lanes 0 and 1 of the result. The pad is -0, which leaves p3 exactly as it is (x + -0 = x).
__attribute__((target("sse2"))) inline __m128 TreeSumPairs(const __m128 (&v)[4], __m128 lowPair, __m128 negativeZeroHigh) {
  const __m128 last = _mm_or_ps(_mm_and_ps(v[3], lowPair), negativeZeroHigh);
  const __m128 sums = _mm_add_ps(_mm_add_ps(v[0], v[2]), _mm_add_ps(v[1], last));
  return _mm_add_ps(sums, _mm_movehl_ps(sums, sums));
}

// The correlations of one lag, two entries per register, and the row's duplicated parts.
__attribute__((target("sse2"))) void LayOutRowSse2(RowLayout& layout, const CarrierFilterPass& pass) {
  const __m128 signEven = _mm_castsi128_ps(_mm_set_epi32(0, INT32_MIN, 0, INT32_MIN));
  const __m128 signOdd = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, 0, INT32_MIN, 0));
  const __m128 gain = _mm_set1_ps(-pass.step);
  const float* in = pass.in;
  const int32_t n = pass.n;
  for (int32_t j = 0; j + 2 <= n; j += 2) {
    const __m128 a = _mm_loadu_ps(in + 2 * j);
    _mm_store_ps(layout.re2 + 2 * j, _mm_shuffle_ps(a, a, _MM_SHUFFLE(2, 2, 0, 0)));
    _mm_store_ps(layout.im2 + 2 * j, _mm_xor_ps(_mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 3, 1, 1)), signEven));
  }
  if (n % 2 != 0) {
    layout.re2[2 * n - 2] = layout.re2[2 * n - 1] = in[2 * n - 2];
    layout.im2[2 * n - 2] = -in[2 * n - 1];
    layout.im2[2 * n - 1] = in[2 * n - 1];
  }
  for (int32_t m = 3; m <= n - 5; ++m) {
    const bool adapts = (m & 3) != pass.pilotPhase;
    Store(layout.targets, m, adapts ? DecisionTarget(Load(pass.oldest, 3 * m), Load(in, m), pass.bitsPerCarrier) : Cx{0.0f, 0.0f});
  }
  for (int32_t lag = 1; lag <= 2; ++lag) {
    float* lags = layout.lags;
    // (a.re b.re + a.im b.im, a.im b.re - a.re b.im)
    int32_t j = lag;
    for (; j + 2 <= n; j += 2) {
      const __m128 a = _mm_loadu_ps(in + 2 * j);
      const __m128 b = _mm_loadu_ps(in + 2 * (j - lag));
      const __m128 ar = _mm_shuffle_ps(a, a, _MM_SHUFFLE(2, 2, 0, 0));
      const __m128 ai = _mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 3, 1, 1));
      const __m128 bs = _mm_shuffle_ps(b, b, _MM_SHUFFLE(2, 3, 0, 1));
      _mm_storeu_ps(lags + 2 * j, _mm_add_ps(_mm_xor_ps(_mm_mul_ps(ar, b), signOdd), _mm_mul_ps(ai, bs)));
    }
    for (; j < n; ++j) Store(lags, j, MulConj(Load(in, j), Load(in, j - lag)));
    for (j = n; j < n + 4; ++j) Store(lags, j, Cx{0.0f, 0.0f});
    for (int32_t m = 3 + lag; m <= n - 5; m += 2) {
      const float* q = lags + 2 * (m - 3);
      __m128 p[7];
      for (int32_t k = 0; k < 7; ++k) p[k] = _mm_loadu_ps(q + 2 * k);
      const __m128 c = _mm_add_ps(_mm_add_ps(_mm_add_ps(p[0], p[4]), _mm_add_ps(p[2], p[6])),
                                  _mm_add_ps(_mm_add_ps(p[1], p[5]), p[3]));
      const __m128 g = _mm_mul_ps(gain, c);
      // (c.re, c.re) of both entries beside (g.re, g.re), and the imaginary parts.
      const __m128 cr = _mm_shuffle_ps(c, c, _MM_SHUFFLE(2, 2, 0, 0)), gr = _mm_shuffle_ps(g, g, _MM_SHUFFLE(2, 2, 0, 0));
      const __m128 ci = _mm_xor_ps(_mm_shuffle_ps(c, c, _MM_SHUFFLE(3, 3, 1, 1)), signEven);
      const __m128 gi = _mm_xor_ps(_mm_shuffle_ps(g, g, _MM_SHUFFLE(3, 3, 1, 1)), signEven);
      float* re = layout.corrRe[lag - 1] + 4 * m;
      float* im = layout.corrIm[lag - 1] + 4 * m;
      _mm_store_ps(re, _mm_movelh_ps(cr, gr));
      _mm_store_ps(re + 4, _mm_movehl_ps(gr, cr));
      _mm_store_ps(im, _mm_movelh_ps(ci, gi));
      _mm_store_ps(im + 4, _mm_movehl_ps(gi, ci));
    }
  }
}

// The state carried from entry to entry: the taps two per register now, one adaption behind and
// two behind (tap 7 is never stored); the errors of the two entries before, as (re, im, re, im).
struct ChainSse2 {
  __m128 taps[4], before1[4], before2[4];
  __m128 err1, err2;
};

// One entry m, as FilterEntryAvx2 below.
__attribute__((target("sse2"), always_inline)) inline void FilterEntrySse2(bool adapts, bool adapted1, bool adapted2, ChainSse2& c,
                                                                           const RowLayout& layout, float* out, int32_t m, __m128 step) {
  const __m128 lowPair = _mm_castsi128_ps(_mm_set_epi32(0, 0, -1, -1));
  const __m128 negativeZeroHigh = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, INT32_MIN, 0, 0));
  // Entries m-3 .. m+4 laid out; m+4 <= n-1 stays inside the row. in * taps: (ar tr + (-ai) ti,
  // ar ti + ai tr)
  const int32_t b = 2 * (m - 3);
  __m128 ar[4], ai[4], prod[4];
  for (int32_t v = 0; v < 4; ++v) {
    ar[v] = _mm_loadu_ps(layout.re2 + b + 4 * v);
    ai[v] = _mm_loadu_ps(layout.im2 + b + 4 * v);
    prod[v] = _mm_add_ps(_mm_mul_ps(ar[v], c.before2[v]), _mm_mul_ps(ai[v], _mm_shuffle_ps(c.before2[v], c.before2[v], _MM_SHUFFLE(2, 3, 0, 1))));
  }
  const __m128 q = TreeSumPairs(prod, lowPair, negativeZeroHigh);
  // A pilot entry forms its output only; its error lanes are not used.
  const __m128 s = adapts ? _mm_mul_ps(step, _mm_sub_ps(LoadPair(layout.targets + 2 * m), q)) : q;
  const __m128 both = OutputAndError(adapted1, adapted2, layout, m, q, s, c.err1, _mm_shuffle_ps(c.err1, c.err1, _MM_SHUFFLE(2, 3, 0, 1)),
                                     c.err2, _mm_shuffle_ps(c.err2, c.err2, _MM_SHUFFLE(2, 3, 0, 1)));
  _mm_storel_pi(reinterpret_cast<__m64*>(out + 2 * m), both);
  for (int32_t v = 0; v < 4; ++v) {
    c.before2[v] = c.before1[v];
    c.before1[v] = c.taps[v];
  }
  c.err2 = c.err1;
  if (!adapts) return;
  c.err1 = _mm_shuffle_ps(both, both, _MM_SHUFFLE(3, 2, 3, 2));
  // taps + conj(in) * err: (ir er + (-ii)(-ei), ir ei + ii (-er))
  const __m128 ei = _mm_xor_ps(_mm_shuffle_ps(both, both, _MM_SHUFFLE(2, 3, 2, 3)), _mm_set1_ps(-0.0f));
  for (int32_t v = 0; v < 4; ++v) c.taps[v] = _mm_add_ps(c.taps[v], _mm_add_ps(_mm_mul_ps(ar[v], c.err1), _mm_mul_ps(ai[v], ei)));
}

}  // namespace

__attribute__((target("sse2"))) void FilterCarrierRowSse2(const CarrierFilterPass& pass) {
  const __m128 step = _mm_set1_ps(pass.step);
  const int32_t n = pass.n, pilotPhase = pass.pilotPhase;
  RowLayout layout;
  LayOutRowSse2(layout, pass);

  ChainSse2 c;
  for (int32_t v = 0; v < 3; ++v) c.taps[v] = _mm_loadu_ps(pass.taps + 4 * v);
  c.taps[3] = _mm_setr_ps(pass.taps[12], pass.taps[13], 0.0f, 0.0f);
  for (int32_t v = 0; v < 4; ++v) c.before1[v] = c.before2[v] = c.taps[v];
  c.err1 = c.err2 = _mm_setzero_ps();
  // As FilterCarrierRowAvx2 below: single entries, whole pilot periods, single entries.
  int32_t m = 3;
  bool adapted1 = false, adapted2 = false;
  for (; m <= n - 5 && !(m >= 5 && (m & 3) == ((pilotPhase + 1) & 3)); ++m) {
    const bool adapts = (m & 3) != pilotPhase;  // carrier 3*m of the oldest symbol is no pilot
    FilterEntrySse2(adapts, adapted1, adapted2, c, layout, pass.out, m, step);
    adapted2 = adapted1;
    adapted1 = adapts;
  }
  for (; m + 3 <= n - 5; m += 4) {
    FilterEntrySse2(true, false, true, c, layout, pass.out, m, step);
    FilterEntrySse2(true, true, false, c, layout, pass.out, m + 1, step);
    FilterEntrySse2(true, true, true, c, layout, pass.out, m + 2, step);
    FilterEntrySse2(false, true, true, c, layout, pass.out, m + 3, step);
    adapted1 = false;
    adapted2 = true;
  }
  for (; m <= n - 5; ++m) {
    const bool adapts = (m & 3) != pilotPhase;
    FilterEntrySse2(adapts, adapted1, adapted2, c, layout, pass.out, m, step);
    adapted2 = adapted1;
    adapted1 = adapts;
  }
  for (int32_t v = 0; v < 3; ++v) _mm_storeu_ps(pass.taps + 4 * v, c.taps[v]);
  pass.taps[12] = _mm_cvtss_f32(c.taps[3]);
  pass.taps[13] = _mm_cvtss_f32(_mm_shuffle_ps(c.taps[3], c.taps[3], _MM_SHUFFLE(1, 1, 1, 1)));
}

// Four complex values per AVX2 register. The seven entries of a window are held as (0, 1, 2, 3) and
// (4, 5, 6, pad): the sum of the two registers gives (p0 + p4, p1 + p5 | p2 + p6, p3 + pad), the sum
// of its halves the two inner sums of the tree, in the same order as above. The error of an entry
// is formed in all four complex lanes of a register at once, so that the tap update takes it as it
// is; the correlations and gains it is multiplied with are then single floats broadcast as they
// are loaded, and the layout holds them as plain complex values, four entries to a register.
namespace {

// The AVX2 layout, two floats per entry at 2m: the row as (re, re) and (-im, im), the
// correlations c of entry m's window with the windows one and two entries before, g = -step c, and
// the decision targets.
struct RowLayoutAvx2 {
  alignas(32) float re2[ROW_FLOATS];
  alignas(32) float im2[ROW_FLOATS];
  alignas(32) float lags[ROW_FLOATS];  // row[j] * conj(row[j - lag]) at j, zeros past the row
  alignas(32) float corr[2][ROW_FLOATS], gain[2][ROW_FLOATS];
  alignas(32) float targets[ROW_FLOATS];
};

// a * conj(b) for four complex values: (a.re b.re + a.im b.im, a.im b.re - a.re b.im).
__attribute__((target("avx2"))) inline __m256 MulConjQuad(__m256 a, __m256 b, __m256 signOdd) {
  const __m256 bs = _mm256_permute_ps(b, _MM_SHUFFLE(2, 3, 0, 1));
  return _mm256_add_ps(_mm256_xor_ps(_mm256_mul_ps(_mm256_moveldup_ps(a), b), signOdd),
                       _mm256_mul_ps(_mm256_movehdup_ps(a), bs));
}

__attribute__((target("avx2"))) void LayOutRowAvx2(RowLayoutAvx2& layout, const CarrierFilterPass& pass) {
  const __m256 signEven = _mm256_castsi256_ps(_mm256_set1_epi64x(static_cast<int64_t>(0x80000000u)));
  const __m256 signOdd = _mm256_castsi256_ps(_mm256_set1_epi64x(INT64_MIN));
  const __m256 negativeZero = _mm256_set1_ps(-0.0f);
  const __m256 gain = _mm256_set1_ps(-pass.step);
  const float* in = pass.in;
  const int32_t n = pass.n, bits = pass.bitsPerCarrier;
  int32_t j = 0;
  for (; j + 4 <= n; j += 4) {
    const __m256 a = _mm256_loadu_ps(in + 2 * j);
    const __m256 im = _mm256_movehdup_ps(a);
    _mm256_store_ps(layout.re2 + 2 * j, _mm256_moveldup_ps(a));
    _mm256_store_ps(layout.im2 + 2 * j, _mm256_xor_ps(im, signEven));
  }
  for (; j < n; ++j) {
    layout.re2[2 * j] = layout.re2[2 * j + 1] = in[2 * j];
    layout.im2[2 * j] = -in[2 * j + 1];
    layout.im2[2 * j + 1] = in[2 * j + 1];
  }
  for (int32_t lag = 1; lag <= 2; ++lag) {
    float* lags = layout.lags;
    // a * conj(b) = (a.re, a.re) * (b.re, -b.im) + (-a.im, a.im) * (-b.im, b.re), from the laid-out a.
    for (j = lag; j + 4 <= n; j += 4) {
      const __m256 b = _mm256_xor_ps(_mm256_loadu_ps(in + 2 * (j - lag)), signOdd);
      const __m256 product = _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(layout.re2 + 2 * j), b),
                                           _mm256_mul_ps(_mm256_loadu_ps(layout.im2 + 2 * j), _mm256_permute_ps(b, _MM_SHUFFLE(2, 3, 0, 1))));
      _mm256_storeu_ps(lags + 2 * j, product);
    }
    for (; j < n; ++j) Store(lags, j, MulConj(Load(in, j), Load(in, j - lag)));
    for (j = n; j < n + 8; ++j) Store(lags, j, Cx{0.0f, 0.0f});
    // Entries m .. m+3; the windows past the last filtered entry read the zeros.
    for (int32_t m = 3 + lag; m <= n - 5; m += 4) {
      const float* q = lags + 2 * (m - 3);
      __m256 p[7];
      for (int32_t k = 0; k < 7; ++k) p[k] = _mm256_loadu_ps(q + 2 * k);
      const __m256 c = _mm256_add_ps(_mm256_add_ps(_mm256_add_ps(p[0], p[4]), _mm256_add_ps(p[2], p[6])),
                                     _mm256_add_ps(_mm256_add_ps(p[1], p[5]), p[3]));
      _mm256_storeu_ps(layout.corr[lag - 1] + 2 * m, c);
      _mm256_storeu_ps(layout.gain[lag - 1] + 2 * m, _mm256_mul_ps(gain, c));
    }
  }
  // Decision targets of entries m .. m+3: the QPSK ones four at a time, as DecisionTarget forms them.
  int32_t m0 = 3;
  if (bits != 4 && bits != 6) {
    const __m256 level = _mm256_set1_ps(0.707107f);
    for (; m0 + 3 <= n - 5; m0 += 4) {
      const float* o = pass.oldest + 6 * m0;
      const __m128 rLow = _mm_loadh_pi(LoadPair(o), reinterpret_cast<const __m64*>(o + 6));
      const __m128 rHigh = _mm_loadh_pi(LoadPair(o + 12), reinterpret_cast<const __m64*>(o + 18));
      const __m256 r = _mm256_insertf128_ps(_mm256_castps128_ps256(rLow), rHigh, 1);
      const __m256 z = MulConjQuad(r, _mm256_loadu_ps(in + 2 * m0), signOdd);
      const __m256 beyond = _mm256_cmp_ps(z, _mm256_setzero_ps(), _CMP_LE_OQ);
      const __m256 d = _mm256_xor_ps(level, _mm256_and_ps(beyond, negativeZero));
      _mm256_storeu_ps(layout.targets + 2 * m0, MulConjQuad(r, d, signOdd));
    }
  }
  for (int32_t m = m0; m <= n - 5; ++m) {
    const bool adapts = (m & 3) != pass.pilotPhase;
    Store(layout.targets, m, adapts ? DecisionTarget(Load(pass.oldest, 3 * m), Load(in, m), bits) : Cx{0.0f, 0.0f});
  }
}

// The state carried from entry to entry: the taps (0, 1, 2, 3) and (4, 5, 6, pad) now, one
// adaption behind and two behind; the errors of the two entries before in every complex lane, and
// beside each the same with its parts swapped, (im, re).
struct ChainAvx2 {
  __m256 taps0, taps1, before10, before11, before20, before21;
  __m256 err1, err2, swapped1, swapped2;
};

// b * e for the correlation or gain b of `lag` at entry m, from e and e swapped: (b.re e.re - b.im
// e.im, b.re e.im + b.im e.re), which is the reference's b.re e.re + (-b.im) e.im in the real part
// (x - y is x + (-y), and (-b.im) e.im = -(b.im e.im)).
__attribute__((target("avx2"), always_inline)) inline __m256 ProductBroadcast(const float* b, __m256 e, __m256 swapped) {
  return _mm256_addsub_ps(_mm256_mul_ps(_mm256_broadcast_ss(b), e), _mm256_mul_ps(_mm256_broadcast_ss(b + 1), swapped));
}
__attribute__((target("avx2"), always_inline)) inline __m128 ProductBroadcast(const float* b, __m128 e, __m128 swapped) {
  return _mm_addsub_ps(_mm_mul_ps(_mm_broadcast_ss(b), e), _mm_mul_ps(_mm_broadcast_ss(b + 1), swapped));
}

// What the output of an entry is formed from: its tap product and the errors of the two entries
// before it.
struct EntryOutputAvx2 {
  __m128 q;
  __m256 err1, swapped1, err2, swapped2;
};

// Entry m up to its output: its tap product, its error and the adaption of the taps.
__attribute__((target("avx2"), always_inline)) inline EntryOutputAvx2 AdaptEntryAvx2(bool adapts, bool adapted1, bool adapted2, ChainAvx2& c,
                                                                                    const RowLayoutAvx2& layout, int32_t m, __m128 step) {
  const int32_t b = 2 * (m - 3), at = 2 * m;
  // The pad of the second register is -0 in every part of the row, so that the pad of the taps stays
  // +0 through every adaption (+0 + (-0 e + -0 e') = +0 for a finite error; once an error is not
  // finite, the taps and outputs after it are not finite in the reference either) and its product
  // is -0 + -0 = -0, which leaves p3 as it is (x + -0 = x): the pad is set off the chain, on the
  // loaded row.
  const __m256 negativeZero = _mm256_set1_ps(-0.0f);
  const __m256 ar0 = _mm256_loadu_ps(layout.re2 + b), ar1 = _mm256_blend_ps(_mm256_loadu_ps(layout.re2 + b + 8), negativeZero, 0xC0);
  const __m256 ai0 = _mm256_loadu_ps(layout.im2 + b), ai1 = _mm256_blend_ps(_mm256_loadu_ps(layout.im2 + b + 8), negativeZero, 0xC0);
  // in * taps: (ar tr + (-ai) ti, ar ti + ai tr)
  const __m256 prod0 = _mm256_add_ps(_mm256_mul_ps(ar0, c.before20), _mm256_mul_ps(ai0, _mm256_permute_ps(c.before20, _MM_SHUFFLE(2, 3, 0, 1))));
  const __m256 prod1 = _mm256_add_ps(_mm256_mul_ps(ar1, c.before21), _mm256_mul_ps(ai1, _mm256_permute_ps(c.before21, _MM_SHUFFLE(2, 3, 0, 1))));
  const __m256 sums = _mm256_add_ps(prod0, prod1);
  const __m128 inner = _mm_add_ps(_mm256_castps256_ps128(sums), _mm256_extractf128_ps(sums, 1));
  const __m128 q = _mm_add_ps(inner, _mm_movehl_ps(inner, inner));
  c.before20 = c.before10;
  c.before21 = c.before11;
  c.before10 = c.taps0;
  c.before11 = c.taps1;
  const __m256 err1 = c.err1, swapped1 = c.swapped1, err2 = c.err2, swapped2 = c.swapped2;
  c.err2 = err1;
  c.swapped2 = swapped1;
  // The error first, as it is on the chain; the output after it.
  if (adapts) {
    const __m128 s = _mm_mul_ps(step, _mm_sub_ps(LoadPair(layout.targets + at), q));
    __m256 err = _mm256_castpd_ps(_mm256_broadcastsd_pd(_mm_castps_pd(s)));
    if (adapted2) err = _mm256_add_ps(err, ProductBroadcast(layout.gain[1] + at, err2, swapped2));
    if (adapted1) err = _mm256_add_ps(err, ProductBroadcast(layout.gain[0] + at, err1, swapped1));
    const __m256 swapped = _mm256_permute_ps(err, _MM_SHUFFLE(2, 3, 0, 1));
    c.err1 = err;
    c.swapped1 = swapped;
    // taps + conj(in) * err: (ir er - (-ii) ei, ir ei + (-ii) er), as the reference forms it
    const __m256 an0 = _mm256_moveldup_ps(ai0), an1 = _mm256_moveldup_ps(ai1);  // (-ii, -ii), the pad -0
    c.taps0 = _mm256_add_ps(c.taps0, _mm256_addsub_ps(_mm256_mul_ps(ar0, err), _mm256_mul_ps(an0, swapped)));
    c.taps1 = _mm256_add_ps(c.taps1, _mm256_addsub_ps(_mm256_mul_ps(ar1, err), _mm256_mul_ps(an1, swapped)));
  }
  return {q, err1, swapped1, err2, swapped2};
}

__attribute__((target("avx2"), always_inline)) inline void OutputEntryAvx2(const EntryOutputAvx2& e, bool adapted1, bool adapted2,
                                                                           const RowLayoutAvx2& layout, float* out, int32_t m) {
  const int32_t at = 2 * m;
  __m128 output = e.q;
  if (adapted2) output = _mm_add_ps(output, ProductBroadcast(layout.corr[1] + at, _mm256_castps256_ps128(e.err2), _mm256_castps256_ps128(e.swapped2)));
  if (adapted1) output = _mm_add_ps(output, ProductBroadcast(layout.corr[0] + at, _mm256_castps256_ps128(e.err1), _mm256_castps256_ps128(e.swapped1)));
  _mm_storel_pi(reinterpret_cast<__m64*>(out + at), output);
}

// One entry m. Whether it adapts and whether the two before it did are constants where the caller
// unrolls a pilot period, so that no product with an error that is not there is formed.
__attribute__((target("avx2"), always_inline)) inline void FilterEntryAvx2(bool adapts, bool adapted1, bool adapted2, ChainAvx2& c,
                                                                           const RowLayoutAvx2& layout, float* out, int32_t m, __m128 step) {
  OutputEntryAvx2(AdaptEntryAvx2(adapts, adapted1, adapted2, c, layout, m, step), adapted1, adapted2, layout, out, m);
}

}  // namespace

__attribute__((target("avx2"))) void FilterCarrierRowAvx2(const CarrierFilterPass& pass) {
  const __m128 step = _mm_set1_ps(pass.step);
  const int32_t n = pass.n, pilotPhase = pass.pilotPhase;
  float* const out = pass.out;
  RowLayoutAvx2 layout;
  LayOutRowAvx2(layout, pass);

  ChainAvx2 c;
  c.taps0 = _mm256_loadu_ps(pass.taps);
  c.taps1 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(pass.taps + 8)), LoadPair(pass.taps + 12), 1);
  c.before10 = c.before20 = c.taps0;
  c.before11 = c.before21 = c.taps1;
  c.err1 = c.err2 = c.swapped1 = c.swapped2 = _mm256_setzero_ps();
  // Entry by entry up to the first that follows a pilot with an adapting entry before the pilot;
  // then whole pilot periods (adapt, adapt, adapt, pilot); then the rest entry by entry.
  int32_t m = 3;
  bool adapted1 = false, adapted2 = false;
  for (; m <= n - 5 && !(m >= 5 && (m & 3) == ((pilotPhase + 1) & 3)); ++m) {
    const bool adapts = (m & 3) != pilotPhase;  // carrier 3*m of the oldest symbol is no pilot
    FilterEntryAvx2(adapts, adapted1, adapted2, c, layout, out, m, step);
    adapted2 = adapted1;
    adapted1 = adapts;
  }
  for (; m + 3 <= n - 5; m += 4) {
    // The output of each entry after the next entry's adaption.
    const EntryOutputAvx2 e0 = AdaptEntryAvx2(true, false, true, c, layout, m, step);
    const EntryOutputAvx2 e1 = AdaptEntryAvx2(true, true, false, c, layout, m + 1, step);
    OutputEntryAvx2(e0, false, true, layout, out, m);
    const EntryOutputAvx2 e2 = AdaptEntryAvx2(true, true, true, c, layout, m + 2, step);
    OutputEntryAvx2(e1, true, false, layout, out, m + 1);
    const EntryOutputAvx2 e3 = AdaptEntryAvx2(false, true, true, c, layout, m + 3, step);
    OutputEntryAvx2(e2, true, true, layout, out, m + 2);
    OutputEntryAvx2(e3, true, true, layout, out, m + 3);
    adapted1 = false;
    adapted2 = true;
  }
  for (; m <= n - 5; ++m) {
    const bool adapts = (m & 3) != pilotPhase;
    FilterEntryAvx2(adapts, adapted1, adapted2, c, layout, out, m, step);
    adapted2 = adapted1;
    adapted1 = adapts;
  }
  _mm256_storeu_ps(pass.taps, c.taps0);
  _mm_storeu_ps(pass.taps + 8, _mm256_castps256_ps128(c.taps1));
  _mm_storel_pi(reinterpret_cast<__m64*>(pass.taps + 12), _mm256_extractf128_ps(c.taps1, 1));
}

}  // namespace zfn

#endif
