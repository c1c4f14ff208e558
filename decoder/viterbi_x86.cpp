// Vector kernels of the Viterbi decoder for x86: SSE2 (16 states per vector, four passes per step) and
// AVX2 (32 states per vector, two passes per step), the latter compiled with a target attribute and
// chosen at run time. Both keep the metrics in registers over a call and give exactly the output and
// trellis of the scalar reference.
//
// The butterfly in the metric order (state s at position s xor 15): new positions 0..15 come from old
// positions 8..15 (predecessor top bit 0) and 40..47 (top bit 1), 16..31 from 0..7 and 32..39, 32..47
// from 24..31 and 56..63, 48..63 from 16..23 and 48..55, each old byte doubled into two adjacent new
// positions. Branch costs repeat in runs of four positions: with m = (c01, c10, c11, c00),
// n = (c10, c01, c00, c11), q = (c00, c11, c10, c01), r = (c11, c00, c01, c10), positions 0..31 take
// m n n m from top bit 0 and n m m n from top bit 1, positions 32..63 take q r r q and r q q r.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <bit>
#include <cstring>

#include "decoder/viterbi.h"

namespace zfn {

namespace {

constexpr int32_t NORMALISE_ABOVE = 150;

struct StepCosts {
  uint32_t m, n, q, r;
};

// The four cost patterns of a step, each four bytes, lowest position first.
constexpr StepCosts CostsOf(uint16_t pair) {
  const uint32_t h = pair >> 8;
  const uint32_t l = pair & 0xFF;
  const uint32_t c00 = (h + l) & 0xFF;
  const uint32_t c01 = (h + (31 - l)) & 0xFF;
  const uint32_t c10 = ((31 - h) + l) & 0xFF;
  const uint32_t c11 = ((31 - h) + (31 - l)) & 0xFF;
  return {c01 | c10 << 8 | c11 << 16 | c00 << 24, c10 | c01 << 8 | c00 << 16 | c11 << 24,
          c00 | c11 << 8 | c10 << 16 | c01 << 24, c11 | c00 << 8 | c01 << 16 | c10 << 24};
}

// The four branch costs of a step as bytes c00, c01, c10, c11 (by hypothesised XY), lowest first.
constexpr uint32_t BranchCostsOf(uint32_t pair) {
  const uint32_t h = (pair >> 8) & 0xFF;
  const uint32_t l = pair & 0xFF;
  return ((h + l) & 0xFF) | ((h + (31 - l)) & 0xFF) << 8 | (((31 - h) + l) & 0xFF) << 16 | (((31 - h) + (31 - l)) & 0xFF) << 24;
}

// The soft bits of the demapper lie in 0..31, so the costs of nearly every step come from this
// table, indexed by h * 32 + l; other pairs are worked out as they come.
struct CostTable {
  uint32_t costs[1024];
};

constexpr CostTable MakeCostTable() {
  CostTable t{};
  for (uint32_t h = 0; h < 32; ++h) {
    for (uint32_t l = 0; l < 32; ++l) t.costs[h * 32 + l] = BranchCostsOf(h << 8 | l);
  }
  return t;
}

constexpr CostTable COST_TABLE = MakeCostTable();

__attribute__((target("sse2"))) inline __m128i Sse2Min16(__m128i v) {
  v = _mm_min_epu8(v, _mm_srli_si128(v, 8));
  v = _mm_min_epu8(v, _mm_srli_si128(v, 4));
  v = _mm_min_epu8(v, _mm_srli_si128(v, 2));
  v = _mm_min_epu8(v, _mm_srli_si128(v, 1));
  return v;
}

// The least of the 64 bytes of a and b in every byte: pairs of bytes into words (the high byte of
// each word becomes 0), the two lanes into one, then the least of eight words.
__attribute__((target("avx2"))) inline __m256i Avx2LeastOf(__m256i a, __m256i b) {
  __m256i both = _mm256_min_epu8(a, b);
  both = _mm256_min_epu8(both, _mm256_srli_epi16(both, 8));
  const __m128i words = _mm_min_epu16(_mm256_castsi256_si128(both), _mm256_extracti128_si256(both, 1));
  return _mm256_broadcastb_epi8(_mm_minpos_epu16(words));
}

}  // namespace

__attribute__((target("sse2"))) void ViterbiDecodeSse2(ViterbiTrellis& trellis, const uint16_t* pairs, int32_t count,
                                                       uint8_t* output) {
  if (count < 0 || count > VITERBI_MAX_STEPS) return;
  ViterbiBeginCall(trellis);
  if (count > 0) {
    uint8_t* banks = &trellis.pathMetrics[0][0];
    int32_t bank = trellis.metricBank;
    const uint8_t* old = banks + 64 * (bank ^ 1);
    __m128i o0 = _mm_load_si128(reinterpret_cast<const __m128i*>(old));
    __m128i o1 = _mm_load_si128(reinterpret_cast<const __m128i*>(old + 16));
    __m128i o2 = _mm_load_si128(reinterpret_cast<const __m128i*>(old + 32));
    __m128i o3 = _mm_load_si128(reinterpret_cast<const __m128i*>(old + 48));
    __m128i n0 = o0, n1 = o1, n2 = o2, n3 = o3;
    uint16_t* decisions = trellis.decisionHistory + 4 * VITERBI_TRACEBACK;
    for (int32_t i = 0; i < count; ++i) {
      const StepCosts c = CostsOf(pairs[i]);
      const __m128i mn = _mm_unpacklo_epi32(_mm_cvtsi32_si128(static_cast<int>(c.m)), _mm_cvtsi32_si128(static_cast<int>(c.n)));
      const __m128i qr = _mm_unpacklo_epi32(_mm_cvtsi32_si128(static_cast<int>(c.q)), _mm_cvtsi32_si128(static_cast<int>(c.r)));
      const __m128i low0 = _mm_shuffle_epi32(mn, _MM_SHUFFLE(0, 1, 1, 0));   // m n n m
      const __m128i low1 = _mm_shuffle_epi32(mn, _MM_SHUFFLE(1, 0, 0, 1));   // n m m n
      const __m128i high0 = _mm_shuffle_epi32(qr, _MM_SHUFFLE(0, 1, 1, 0));  // q r r q
      const __m128i high1 = _mm_shuffle_epi32(qr, _MM_SHUFFLE(1, 0, 0, 1));  // r q q r

      __m128i a = _mm_adds_epu8(_mm_unpackhi_epi8(o0, o0), low0);
      __m128i b = _mm_adds_epu8(_mm_unpackhi_epi8(o2, o2), low1);
      n0 = _mm_min_epu8(a, b);
      uint64_t packed = static_cast<uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, n0)));
      a = _mm_adds_epu8(_mm_unpacklo_epi8(o0, o0), low0);
      b = _mm_adds_epu8(_mm_unpacklo_epi8(o2, o2), low1);
      n1 = _mm_min_epu8(a, b);
      packed |= static_cast<uint64_t>(static_cast<uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, n1)))) << 16;
      a = _mm_adds_epu8(_mm_unpackhi_epi8(o1, o1), high0);
      b = _mm_adds_epu8(_mm_unpackhi_epi8(o3, o3), high1);
      n2 = _mm_min_epu8(a, b);
      packed |= static_cast<uint64_t>(static_cast<uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, n2)))) << 32;
      a = _mm_adds_epu8(_mm_unpacklo_epi8(o1, o1), high0);
      b = _mm_adds_epu8(_mm_unpacklo_epi8(o3, o3), high1);
      n3 = _mm_min_epu8(a, b);
      packed |= static_cast<uint64_t>(static_cast<uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, n3)))) << 48;
      std::memcpy(decisions + 4 * i, &packed, sizeof packed);

      if ((_mm_cvtsi128_si32(n2) & 0xFF) > NORMALISE_ABOVE) {
        const __m128i least = Sse2Min16(_mm_min_epu8(_mm_min_epu8(n0, n1), _mm_min_epu8(n2, n3)));
        const __m128i sub = _mm_set1_epi8(static_cast<char>(_mm_cvtsi128_si32(least) & 0xFF));
        n0 = _mm_subs_epu8(n0, sub);
        n1 = _mm_subs_epu8(n1, sub);
        n2 = _mm_subs_epu8(n2, sub);
        n3 = _mm_subs_epu8(n3, sub);
      }
      if (i + 1 < count) {
        o0 = n0;
        o1 = n1;
        o2 = n2;
        o3 = n3;
      }
      bank ^= 1;
    }
    // The bank written last holds the newest metrics, the other one those read by the last step.
    uint8_t* newest = banks + 64 * (bank ^ 1);
    uint8_t* previous = banks + 64 * bank;
    _mm_store_si128(reinterpret_cast<__m128i*>(newest), n0);
    _mm_store_si128(reinterpret_cast<__m128i*>(newest + 16), n1);
    _mm_store_si128(reinterpret_cast<__m128i*>(newest + 32), n2);
    _mm_store_si128(reinterpret_cast<__m128i*>(newest + 48), n3);
    _mm_store_si128(reinterpret_cast<__m128i*>(previous), o0);
    _mm_store_si128(reinterpret_cast<__m128i*>(previous + 16), o1);
    _mm_store_si128(reinterpret_cast<__m128i*>(previous + 32), o2);
    _mm_store_si128(reinterpret_cast<__m128i*>(previous + 48), o3);
    trellis.metricBank = static_cast<uint8_t>(bank);
  }
  ViterbiTraceBack(trellis, count, output);
}

__attribute__((target("avx2"))) void ViterbiDecodeAvx2(ViterbiTrellis& trellis, const uint16_t* pairs, int32_t count,
                                                       uint8_t* output) {
  if (count < 0 || count > VITERBI_MAX_STEPS) return;
  ViterbiBeginCall(trellis);
  if (count > 0) {
    uint8_t* banks = &trellis.pathMetrics[0][0];
    int32_t bank = trellis.metricBank;
    const uint8_t* old = banks + 64 * (bank ^ 1);
    // Metrics in bank order: lo = positions 0..31, hi = positions 32..63.
    __m256i lo = _mm256_load_si256(reinterpret_cast<const __m256i*>(old));
    __m256i hi = _mm256_load_si256(reinterpret_cast<const __m256i*>(old + 32));
    __m256i newLo = lo, newHi = hi;
    // Vector A holds positions 0..15 and 32..47, vector B positions 16..31 and 48..63; both take costs
    // (m n n m | q r r q) from top bit 0 and (n m m n | r q q r) from top bit 1.
    // Byte k of the step's cost word is the cost of hypothesised XY = k: m = 1 2 3 0, n = 2 1 0 3,
    // q = 0 3 2 1, r = 3 0 1 2.
    const __m256i pickTop0 = _mm256_setr_epi8(1, 2, 3, 0, 2, 1, 0, 3, 2, 1, 0, 3, 1, 2, 3, 0,  //
                                              0, 3, 2, 1, 3, 0, 1, 2, 3, 0, 1, 2, 0, 3, 2, 1);
    const __m256i pickTop1 = _mm256_setr_epi8(2, 1, 0, 3, 1, 2, 3, 0, 1, 2, 3, 0, 2, 1, 0, 3,  //
                                              3, 0, 1, 2, 0, 3, 2, 1, 0, 3, 2, 1, 3, 0, 1, 2);
    const __m256i normaliseAbove = _mm256_set1_epi8(static_cast<char>(NORMALISE_ABOVE + 1));
    uint16_t* decisions = trellis.decisionHistory + 4 * VITERBI_TRACEBACK;
    for (int32_t i = 0; i < count; ++i) {
      const uint32_t pair = pairs[i];
      const uint32_t word = (pair & 0xE0E0) == 0 ? COST_TABLE.costs[((pair >> 3) & 0x3E0) | (pair & 0x1F)] : BranchCostsOf(pair);
      const __m256i costs = _mm256_set1_epi32(static_cast<int>(word));
      const __m256i cost0 = _mm256_shuffle_epi8(costs, pickTop0);
      const __m256i cost1 = _mm256_shuffle_epi8(costs, pickTop1);

      __m256i a = _mm256_adds_epu8(_mm256_unpackhi_epi8(lo, lo), cost0);
      __m256i b = _mm256_adds_epu8(_mm256_unpackhi_epi8(hi, hi), cost1);
      const __m256i va = _mm256_min_epu8(a, b);
      const uint32_t da = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(b, va)));
      a = _mm256_adds_epu8(_mm256_unpacklo_epi8(lo, lo), cost0);
      b = _mm256_adds_epu8(_mm256_unpacklo_epi8(hi, hi), cost1);
      const __m256i vb = _mm256_min_epu8(a, b);
      const uint32_t db = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(b, vb)));
      // Words in position order: A low half, B low half, A high half, B high half.
      const uint64_t packed = static_cast<uint64_t>(da & 0xFFFF) | static_cast<uint64_t>(db & 0xFFFF) << 16 |
                              static_cast<uint64_t>(da >> 16) << 32 | static_cast<uint64_t>(db >> 16) << 48;
      std::memcpy(decisions + 4 * i, &packed, sizeof packed);
      newLo = _mm256_permute2x128_si256(va, vb, 0x20);
      newHi = _mm256_permute2x128_si256(va, vb, 0x31);

      // Position 32 is byte 16 of A: tested there, before the lanes are regrouped, so that the rare
      // normalisation is known a few cycles earlier.
      const __m256i aboveBytes = _mm256_cmpeq_epi8(_mm256_max_epu8(va, normaliseAbove), va);
      const uint32_t above = static_cast<uint32_t>(_mm256_movemask_epi8(aboveBytes));
      if ((above & 0x10000) != 0) {
        // The least metric from A and B, while the lanes are regrouped.
        const __m256i sub = Avx2LeastOf(va, vb);
        newLo = _mm256_subs_epu8(newLo, sub);
        newHi = _mm256_subs_epu8(newHi, sub);
      }
      if (i + 1 < count) {
        lo = newLo;
        hi = newHi;
      }
      bank ^= 1;
    }
    uint8_t* newest = banks + 64 * (bank ^ 1);
    uint8_t* previous = banks + 64 * bank;
    _mm256_store_si256(reinterpret_cast<__m256i*>(newest), newLo);
    _mm256_store_si256(reinterpret_cast<__m256i*>(newest + 32), newHi);
    _mm256_store_si256(reinterpret_cast<__m256i*>(previous), lo);
    _mm256_store_si256(reinterpret_cast<__m256i*>(previous + 32), hi);
    trellis.metricBank = static_cast<uint8_t>(bank);
    // The first position of the least newest metric starts the traceback.
    const __m256i least = Avx2LeastOf(newLo, newHi);
    const uint32_t whereLo = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(newLo, least)));
    const uint32_t whereHi = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(newHi, least)));
    const uint64_t where = whereLo | static_cast<uint64_t>(whereHi) << 32;
    ViterbiTraceBackFrom(trellis, std::countr_zero(where), count, output);
    return;
  }
  ViterbiTraceBack(trellis, count, output);
}

}  // namespace zfn

#endif
