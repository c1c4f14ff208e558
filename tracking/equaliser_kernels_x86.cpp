// The equaliser's arithmetic with four (SSE2) or eight (AVX2) carriers per register; the same
// products, sums and quotients as the scalar reference in the same order, the decision by
// comparison masks (a NaN compares false and takes the positive outer level, as in the reference).
// The QAM decisions step down from the outer level through the boundaries in turn: the boundaries
// are ordered, so the masks that hold for a value are the first ones, as many as the scalar
// slicer counts. The carriers are read pair by pair through the table and parted into real and
// imaginary registers. The carriers past the last whole register go through the scalar reference.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "tracking/equaliser_kernels.h"

namespace zfn {

namespace {
constexpr float QPSK_LEVEL = 0.707107f;

EqualiserRows Tail(const EqualiserRows& rows, int32_t from) {
  return {rows.r, rows.g, rows.rAt + from, rows.gAt + from, rows.eq + 2 * from, rows.power + from, rows.noise + from, rows.count - from, rows.bitsPerCarrier,
          rows.sums};
}

// Carriers a and b of the table, each an interleaved pair, in one register.
__attribute__((target("sse2"))) inline __m128 TwoPairs(const float* base, const int16_t* at, int32_t a, int32_t b) {
  const __m128 low = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(base + at[a])));
  return _mm_loadh_pi(low, reinterpret_cast<const __m64*>(base + at[b]));
}

// Four carriers of the table, real and imaginary parts apart.
__attribute__((target("sse2"))) inline void FourSse2(const float* base, const int16_t* at, __m128& re, __m128& im) {
  const __m128 a = TwoPairs(base, at, 0, 1), b = TwoPairs(base, at, 2, 3);
  re = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  im = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}

// Eight: carriers 0, 1, 4, 5 and 2, 3, 6, 7 side by side, so the in-lane shuffles put them in order.
__attribute__((target("avx2"))) inline void EightAvx2(const float* base, const int16_t* at, __m256& re, __m256& im) {
  const __m256 a = _mm256_insertf128_ps(_mm256_castps128_ps256(TwoPairs(base, at, 0, 1)), TwoPairs(base, at, 4, 5), 1);
  const __m256 b = _mm256_insertf128_ps(_mm256_castps128_ps256(TwoPairs(base, at, 2, 3)), TwoPairs(base, at, 6, 7), 1);
  re = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  im = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}

// The lane sums combined as (0+4 + 2+6) + (1+5 + 3+7) and added to the sums, when there were blocks.
__attribute__((target("sse2"))) float Combine(__m128 low, __m128 high) {
  const __m128 pairs = _mm_add_ps(low, high);                      // 0+4, 1+5, 2+6, 3+7
  const __m128 halves = _mm_add_ps(pairs, _mm_movehl_ps(pairs, pairs));  // (0+4)+(2+6), (1+5)+(3+7)
  return _mm_cvtss_f32(_mm_add_ss(halves, _mm_shuffle_ps(halves, halves, 1)));
}

__attribute__((target("sse2"))) void AddLanes(const EqualiserRows& rows, int32_t blocks, __m128 powerLow,
                                              __m128 powerHigh, __m128 noiseLow, __m128 noiseHigh) {
  if (rows.sums == nullptr || blocks == 0) return;
  rows.sums[0] += Combine(powerLow, powerHigh);
  rows.sums[1] += Combine(noiseLow, noiseHigh);
}

// The levels and boundaries of slicers.h: levels from the top down; the value takes level k + 1
// of the list where it passes boundary k (v <= b for the upper half, v < b below zero).
struct QamDecision {
  int32_t count;
  float levels[8];
  float boundaries[7];
};
constexpr QamDecision QAM16_REAL = {4, {0.9486833f, 0.3162278f, -0.3162278f, -0.9486832f}, {0.6324555f, 0.0f, -0.6324555f}};
constexpr QamDecision QAM16_IMAG = {4, {0.9486832f, 0.3162278f, -0.3162278f, -0.9486832f}, {0.6324555f, 0.0f, -0.6324555f}};
constexpr QamDecision QAM64 = {8,
                               {1.08012345f, 0.77151675f, 0.46291f, 0.15430335f, -0.15430335f, -0.46291f,
                                -0.77151675f, -1.08012345f},
                               {0.9258201f, 0.6172134f, 0.3086067f, 0.0f, -0.3086067f, -0.6172134f, -0.9258201f}};

__attribute__((target("avx2"))) __m256 SliceAvx2(__m256 v, const QamDecision& q) {
  __m256 d = _mm256_set1_ps(q.levels[0]);
  for (int32_t k = 0; k + 1 < q.count; ++k) {
    const __m256 b = _mm256_set1_ps(q.boundaries[k]);
    const __m256 past = q.boundaries[k] >= 0.0f ? _mm256_cmp_ps(v, b, _CMP_LE_OQ) : _mm256_cmp_ps(v, b, _CMP_LT_OQ);
    d = _mm256_blendv_ps(d, _mm256_set1_ps(q.levels[k + 1]), past);
  }
  return d;
}

// Four carriers; returns their powers and errors for the lane sums.
__attribute__((target("sse2"))) void QpskFourSse2(const EqualiserRows& rows, int32_t i, __m128& power, __m128& noise) {
  const __m128 zero = _mm_setzero_ps();
  const __m128 plus = _mm_set1_ps(QPSK_LEVEL);
  const __m128 minus = _mm_set1_ps(-QPSK_LEVEL);
  __m128 gr, gi, rr, ri;
  FourSse2(rows.g, rows.gAt + i, gr, gi);
  FourSse2(rows.r, rows.rAt + i, rr, ri);
  const __m128 p = _mm_add_ps(_mm_mul_ps(gr, gr), _mm_mul_ps(gi, gi));
  const __m128 ere = _mm_div_ps(_mm_add_ps(_mm_mul_ps(rr, gr), _mm_mul_ps(ri, gi)), p);
  const __m128 eim = _mm_div_ps(_mm_sub_ps(_mm_mul_ps(ri, gr), _mm_mul_ps(rr, gi)), p);
  _mm_storeu_ps(rows.eq + 2 * i, _mm_unpacklo_ps(ere, eim));
  _mm_storeu_ps(rows.eq + 2 * i + 4, _mm_unpackhi_ps(ere, eim));
  _mm_storeu_ps(rows.power + i, p);
  const __m128 leRe = _mm_cmple_ps(ere, zero), leIm = _mm_cmple_ps(eim, zero);
  const __m128 dre = _mm_or_ps(_mm_and_ps(leRe, minus), _mm_andnot_ps(leRe, plus));
  const __m128 dim = _mm_or_ps(_mm_and_ps(leIm, minus), _mm_andnot_ps(leIm, plus));
  const __m128 nre = _mm_sub_ps(rr, _mm_sub_ps(_mm_mul_ps(dre, gr), _mm_mul_ps(dim, gi)));
  const __m128 nim = _mm_sub_ps(ri, _mm_add_ps(_mm_mul_ps(dre, gi), _mm_mul_ps(dim, gr)));
  const __m128 n = _mm_add_ps(_mm_mul_ps(nre, nre), _mm_mul_ps(nim, nim));
  _mm_storeu_ps(rows.noise + i, n);
  power = p;
  noise = n;
}

}  // namespace

// Blocks of eight carriers as two steps of four, lanes 0-3 and 4-7 of the sums apart.
__attribute__((target("sse2"))) void EqualiseQpskSse2(const EqualiserRows& given) {
  const EqualiserRows rows = given;  // a copy the stores cannot touch: its pointers stay in registers
  __m128 powerLow = _mm_setzero_ps(), powerHigh = powerLow, noiseLow = powerLow, noiseHigh = powerLow;
  int32_t i = 0;
  for (; i + 8 <= rows.count; i += 8) {
    __m128 p, n;
    QpskFourSse2(rows, i, p, n);
    powerLow = _mm_add_ps(powerLow, p);
    noiseLow = _mm_add_ps(noiseLow, n);
    QpskFourSse2(rows, i + 4, p, n);
    powerHigh = _mm_add_ps(powerHigh, p);
    noiseHigh = _mm_add_ps(noiseHigh, n);
  }
  AddLanes(rows, i / 8, powerLow, powerHigh, noiseLow, noiseHigh);
  EqualiseQpskScalar(Tail(rows, i));
}

// Eight carriers at a time: the QPSK decision by selection, or the QAM levels stepped through.
template <bool Qam>
__attribute__((target("avx2"))) void EqualiseAvx2(const EqualiserRows& given) {
  const EqualiserRows rows = given;  // a copy the stores cannot touch: its pointers stay in registers
  const __m256 zero = _mm256_setzero_ps();
  const __m256 plus = _mm256_set1_ps(QPSK_LEVEL);
  const __m256 minus = _mm256_set1_ps(-QPSK_LEVEL);
  const QamDecision& real = rows.bitsPerCarrier == 6 ? QAM64 : QAM16_REAL;
  const QamDecision& imag = rows.bitsPerCarrier == 6 ? QAM64 : QAM16_IMAG;
  __m256 powerLanes = _mm256_setzero_ps(), noiseLanes = powerLanes;
  int32_t i = 0;
  for (; i + 8 <= rows.count; i += 8) {
    __m256 gr, gi, rr, ri;
    EightAvx2(rows.g, rows.gAt + i, gr, gi);
    EightAvx2(rows.r, rows.rAt + i, rr, ri);
    const __m256 p = _mm256_add_ps(_mm256_mul_ps(gr, gr), _mm256_mul_ps(gi, gi));
    const __m256 ere = _mm256_div_ps(_mm256_add_ps(_mm256_mul_ps(rr, gr), _mm256_mul_ps(ri, gi)), p);
    const __m256 eim = _mm256_div_ps(_mm256_sub_ps(_mm256_mul_ps(ri, gr), _mm256_mul_ps(rr, gi)), p);
    // Interleaved: the in-lane unpacks give carriers 0,1,4,5 and 2,3,6,7; the lane swap puts them in order.
    const __m256 lo = _mm256_unpacklo_ps(ere, eim), hi = _mm256_unpackhi_ps(ere, eim);
    _mm256_storeu_ps(rows.eq + 2 * i, _mm256_permute2f128_ps(lo, hi, 0x20));
    _mm256_storeu_ps(rows.eq + 2 * i + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
    _mm256_storeu_ps(rows.power + i, p);
    __m256 dre, dim;
    if constexpr (Qam) {
      dre = SliceAvx2(ere, real);
      dim = SliceAvx2(eim, imag);
    } else {
      dre = _mm256_blendv_ps(plus, minus, _mm256_cmp_ps(ere, zero, _CMP_LE_OQ));
      dim = _mm256_blendv_ps(plus, minus, _mm256_cmp_ps(eim, zero, _CMP_LE_OQ));
    }
    const __m256 nre = _mm256_sub_ps(rr, _mm256_sub_ps(_mm256_mul_ps(dre, gr), _mm256_mul_ps(dim, gi)));
    const __m256 nim = _mm256_sub_ps(ri, _mm256_add_ps(_mm256_mul_ps(dre, gi), _mm256_mul_ps(dim, gr)));
    const __m256 n = _mm256_add_ps(_mm256_mul_ps(nre, nre), _mm256_mul_ps(nim, nim));
    _mm256_storeu_ps(rows.noise + i, n);
    powerLanes = _mm256_add_ps(powerLanes, p);
    noiseLanes = _mm256_add_ps(noiseLanes, n);
  }
  AddLanes(rows, i / 8, _mm256_castps256_ps128(powerLanes), _mm256_extractf128_ps(powerLanes, 1),
           _mm256_castps256_ps128(noiseLanes), _mm256_extractf128_ps(noiseLanes, 1));
  if constexpr (Qam) {
    EqualiseQamScalar(Tail(rows, i));
  } else {
    EqualiseQpskScalar(Tail(rows, i));
  }
}

void EqualiseQpskAvx2(const EqualiserRows& rows) { EqualiseAvx2<false>(rows); }

void EqualiseQamAvx2(const EqualiserRows& rows) {
  if (rows.bitsPerCarrier != 4 && rows.bitsPerCarrier != 6) {  // the slicer takes anything else as QPSK
    EqualiseQamScalar(rows);
    return;
  }
  EqualiseAvx2<true>(rows);
}

// The bank products, four (SSE2) or eight (AVX2) entries per register: parted into real and
// imaginary registers, multiplied as the reference does, and interleaved again. In AVX2 the parting
// works within each half, carriers 0, 1, 4, 5 and 2, 3, 6, 7, and the interleaving undoes it.
namespace {

BankProducts BanksFrom(const BankProducts& rows, int32_t from) {
  return {rows.x + 2 * from, rows.low + 2 * from, rows.high + 2 * from, rows.zLow + 2 * from,
          rows.zHigh + 2 * from, rows.count - from};
}

__attribute__((target("sse2"))) inline void PartSse2(const float* p, __m128& re, __m128& im) {
  const __m128 a = _mm_loadu_ps(p), b = _mm_loadu_ps(p + 4);
  re = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  im = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}

__attribute__((target("sse2"))) inline void ProductSse2(__m128 xr, __m128 xi, const float* bank, float* z) {
  __m128 br, bi;
  PartSse2(bank, br, bi);
  const __m128 re = _mm_sub_ps(_mm_mul_ps(xr, br), _mm_mul_ps(xi, bi));
  const __m128 im = _mm_add_ps(_mm_mul_ps(xr, bi), _mm_mul_ps(xi, br));
  _mm_storeu_ps(z, _mm_unpacklo_ps(re, im));
  _mm_storeu_ps(z + 4, _mm_unpackhi_ps(re, im));
}

__attribute__((target("avx2"))) inline void PartAvx2(const float* p, __m256& re, __m256& im) {
  const __m256 a = _mm256_loadu_ps(p), b = _mm256_loadu_ps(p + 8);
  re = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  im = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}

__attribute__((target("avx2"))) inline void ProductAvx2(__m256 xr, __m256 xi, const float* bank, float* z) {
  __m256 br, bi;
  PartAvx2(bank, br, bi);
  const __m256 re = _mm256_sub_ps(_mm256_mul_ps(xr, br), _mm256_mul_ps(xi, bi));
  const __m256 im = _mm256_add_ps(_mm256_mul_ps(xr, bi), _mm256_mul_ps(xi, br));
  _mm256_storeu_ps(z, _mm256_unpacklo_ps(re, im));
  _mm256_storeu_ps(z + 8, _mm256_unpackhi_ps(re, im));
}

}  // namespace

__attribute__((target("sse2"))) void MultiplyBanksSse2(const BankProducts& rows) {
  int32_t i = 0;
  for (; i + 4 <= rows.count; i += 4) {
    __m128 xr, xi;
    PartSse2(rows.x + 2 * i, xr, xi);
    ProductSse2(xr, xi, rows.low + 2 * i, rows.zLow + 2 * i);
    ProductSse2(xr, xi, rows.high + 2 * i, rows.zHigh + 2 * i);
  }
  MultiplyBanksScalar(BanksFrom(rows, i));
}

__attribute__((target("avx2"))) void MultiplyBanksAvx2(const BankProducts& rows) {
  int32_t i = 0;
  for (; i + 8 <= rows.count; i += 8) {
    __m256 xr, xi;
    PartAvx2(rows.x + 2 * i, xr, xi);
    ProductAvx2(xr, xi, rows.low + 2 * i, rows.zLow + 2 * i);
    ProductAvx2(xr, xi, rows.high + 2 * i, rows.zHigh + 2 * i);
  }
  MultiplyBanksScalar(BanksFrom(rows, i));
}

// The held time filter, half a group (SSE2) or a whole group (AVX2) per register: the swapped
// pairs by an in-lane shuffle, the products and sums as the reference's.
namespace {

__attribute__((target("sse2"))) inline __m128 HeldTermSse2(const float* x, const float* re, const float* im) {
  const __m128 v = _mm_loadu_ps(x);
  const __m128 swapped = _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 3, 0, 1));
  return _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(re), v), _mm_mul_ps(_mm_loadu_ps(im), swapped));
}

__attribute__((target("avx2"))) inline __m256 HeldTermAvx2(const float* x, __m256 re, __m256 im) {
  const __m256 v = _mm256_loadu_ps(x);
  return _mm256_add_ps(_mm256_mul_ps(re, v), _mm256_mul_ps(im, _mm256_permute_ps(v, _MM_SHUFFLE(2, 3, 0, 1))));
}

inline void PassExact(const HeldTimeFilter& rows, int32_t p) {
  const int32_t at = 8 * p + 2 * rows.exact;
  rows.out[at] = rows.x0[at];
  rows.out[at + 1] = rows.x0[at + 1];
}

}  // namespace

__attribute__((target("sse2"))) void FilterHeldSse2(const HeldTimeFilter& given) {
  const HeldTimeFilter rows = given;
  for (int32_t p = 0; p < rows.groups; ++p) {
    for (int32_t h = 0; h < 8; h += 4) {
      const int32_t at = 8 * p + h;
      const __m128 sum = _mm_add_ps(_mm_add_ps(HeldTermSse2(rows.x0 + at, rows.re[0] + h, rows.im[0] + h),
                                               HeldTermSse2(rows.x1 + at, rows.re[1] + h, rows.im[1] + h)),
                                    HeldTermSse2(rows.x2 + at, rows.re[2] + h, rows.im[2] + h));
      _mm_storeu_ps(rows.out + at, sum);
    }
    PassExact(rows, p);
  }
}

__attribute__((target("avx2"))) void FilterHeldAvx2(const HeldTimeFilter& given) {
  const HeldTimeFilter rows = given;
  const __m256 re0 = _mm256_loadu_ps(rows.re[0]), im0 = _mm256_loadu_ps(rows.im[0]);
  const __m256 re1 = _mm256_loadu_ps(rows.re[1]), im1 = _mm256_loadu_ps(rows.im[1]);
  const __m256 re2 = _mm256_loadu_ps(rows.re[2]), im2 = _mm256_loadu_ps(rows.im[2]);
  // The floats of the exact entry take x0's by selection.
  const __m256i lane = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
  const __m256 exact = _mm256_castsi256_ps(_mm256_cmpeq_epi32(lane, _mm256_set1_epi32(rows.exact)));
  for (int32_t p = 0; p < rows.groups; ++p) {
    const int32_t at = 8 * p;
    const __m256 x0 = _mm256_loadu_ps(rows.x0 + at);
    const __m256 sum = _mm256_add_ps(_mm256_add_ps(HeldTermAvx2(rows.x0 + at, re0, im0), HeldTermAvx2(rows.x1 + at, re1, im1)),
                                     HeldTermAvx2(rows.x2 + at, re2, im2));
    _mm256_storeu_ps(rows.out + at, _mm256_blendv_ps(sum, x0, exact));
  }
}

// Eight carriers a step: their weights spread onto the interleaved pairs by in-lane unpacks and one
// lane exchange (the order that the equaliser's stores undo).
__attribute__((target("avx2"))) void WeighCarriersAvx2(const float* power, float ratio, float* weight, float* eq,
                                                      int32_t count) {
  const __m256 r = _mm256_set1_ps(ratio);
  int32_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 w = _mm256_mul_ps(_mm256_loadu_ps(power + i), r);
    _mm256_storeu_ps(weight + i, w);
    const __m256 low = _mm256_unpacklo_ps(w, w), high = _mm256_unpackhi_ps(w, w);  // 0 0 1 1 4 4 5 5 | 2 2 3 3 6 6 7 7
    _mm256_storeu_ps(eq + 2 * i, _mm256_mul_ps(_mm256_loadu_ps(eq + 2 * i), _mm256_permute2f128_ps(low, high, 0x20)));
    _mm256_storeu_ps(eq + 2 * i + 8, _mm256_mul_ps(_mm256_loadu_ps(eq + 2 * i + 8), _mm256_permute2f128_ps(low, high, 0x31)));
  }
  WeighCarriersScalar(power + i, ratio, weight + i, eq + 2 * i, count - i);
}

// Thirty-two floats a step in four registers, the rest through the reference.
__attribute__((target("avx2"))) bool AllFiniteAvx2(const float* v, int32_t count) {
  __m256 a = _mm256_setzero_ps(), b = a, c = a, d = a;
  int32_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m256 x0 = _mm256_loadu_ps(v + i), x1 = _mm256_loadu_ps(v + i + 8);
    const __m256 x2 = _mm256_loadu_ps(v + i + 16), x3 = _mm256_loadu_ps(v + i + 24);
    a = _mm256_or_ps(a, _mm256_sub_ps(x0, x0));
    b = _mm256_or_ps(b, _mm256_sub_ps(x1, x1));
    c = _mm256_or_ps(c, _mm256_sub_ps(x2, x2));
    d = _mm256_or_ps(d, _mm256_sub_ps(x3, x3));
  }
  for (; i + 8 <= count; i += 8) {
    const __m256 x = _mm256_loadu_ps(v + i);
    a = _mm256_or_ps(a, _mm256_sub_ps(x, x));
  }
  const __m256i all = _mm256_castps_si256(_mm256_or_ps(_mm256_or_ps(a, b), _mm256_or_ps(c, d)));
  return _mm256_testz_si256(all, all) != 0 && AllFiniteScalar(v + i, count - i);
}

}  // namespace zfn

#endif
