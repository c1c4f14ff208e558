// Vector kernels of the Viterbi decoder for x86: SSE2 (16 states per vector, four passes per step) and
// AVX2 (32 states per vector, two passes per step), the latter compiled with a target attribute and
// chosen at run time, each with the designed normalisation and the scheduled one. Both keep the
// metrics in registers over a call and give exactly the output and trellis of the scalar reference.
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
#include <type_traits>

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

// The four branch costs of a step as bytes c00, c01, c10, c11 (by hypothesised XY), lowest first,
// then the cheaper of each complementary pair as bytes min(c01, c10), min(c00, c11).
constexpr uint64_t BranchCostsOf(uint32_t pair) {
  const uint32_t h = (pair >> 8) & 0xFF;
  const uint32_t l = pair & 0xFF;
  const uint32_t c00 = (h + l) & 0xFF, c01 = (h + (31 - l)) & 0xFF, c10 = ((31 - h) + l) & 0xFF;
  const uint32_t c11 = ((31 - h) + (31 - l)) & 0xFF;
  const uint64_t cheaper = (c01 < c10 ? c01 : c10) | (c00 < c11 ? c00 : c11) << 8;
  return (c00 | c01 << 8 | c10 << 16 | c11 << 24) | cheaper << 32;
}

// The soft bits of the demapper lie in 0..31, so the costs of nearly every step come from this
// table, indexed by h * 32 + l; other pairs are worked out as they come.
struct CostTable {
  uint64_t costs[1024];
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

// The least of the 32 bytes of v in every byte.
__attribute__((target("avx2"))) inline __m256i Avx2LeastBroadcast(__m256i v) {
  __m128i half = _mm_min_epu8(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  half = _mm_min_epu8(half, _mm_srli_epi16(half, 8));
  return _mm256_broadcastb_epi8(_mm_minpos_epu16(half));
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
    // The loop is made once for each normalisation, so that neither tests which one it runs.
    auto steps = [&](auto scheduledRule) {
      constexpr bool scheduled = decltype(scheduledRule)::value;
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

        // The designed test subtracts the least new metric, the schedule the least of the step before
        // (no new metric lies below it, so the saturating subtraction is exact there too).
        if (scheduled ? (i & 3) == 3 : (_mm_cvtsi128_si32(n2) & 0xFF) > NORMALISE_ABOVE) {
          const __m128i least = scheduled ? Sse2Min16(_mm_min_epu8(_mm_min_epu8(o0, o1), _mm_min_epu8(o2, o3)))
                                          : Sse2Min16(_mm_min_epu8(_mm_min_epu8(n0, n1), _mm_min_epu8(n2, n3)));
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
    };
    if (trellis.normaliseEveryFourth != 0) {
      steps(std::true_type{});
    } else {
      steps(std::false_type{});
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

namespace {

// The metrics of a run of steps in registers: lo and hi the positions 0..31 and 32..63 read by the
// last step, newLo and newHi those it wrote.
struct Avx2Metrics {
  __m256i lo, hi, newLo, newHi;
};

// Vector A holds positions 0..15 and 32..47 of a step's new metrics, vector B positions 16..31 and
// 48..63; both take costs (m n n m | q r r q) from top bit 0 and (n m m n | r q q r) from top bit 1.
// Byte k of the step's cost word is the cost of hypothesised XY = k: m = 1 2 3 0, n = 2 1 0 3,
// q = 0 3 2 1, r = 3 0 1 2.
alignas(32) constexpr uint8_t PICK_TOP0[32] = {1, 2, 3, 0, 2, 1, 0, 3, 2, 1, 0, 3, 1, 2, 3, 0,
                                               0, 3, 2, 1, 3, 0, 1, 2, 3, 0, 1, 2, 0, 3, 2, 1};

__attribute__((target("avx2"))) inline __m256i Avx2Load(const uint8_t* table) {
  return _mm256_load_si256(reinterpret_cast<const __m256i*>(table));
}

// The step's branch costs, the eight bytes of BranchCostsOf in every eight bytes.
__attribute__((target("avx2"))) inline __m256i Avx2Costs(uint32_t pair) {
  const uint64_t word = (pair & 0xE0E0) == 0 ? COST_TABLE.costs[((pair >> 3) & 0x3E0) | (pair & 0x1F)] : BranchCostsOf(pair);
  return _mm256_set1_epi64x(static_cast<long long>(word));
}

// Add-compare-select of one step: A and B of the new metrics, the decisions stored at `at`.
__attribute__((target("avx2"))) inline void Avx2Butterflies(__m256i lo, __m256i hi, __m256i costs, __m256i pickTop0,
                                                            uint16_t* at, __m256i& va, __m256i& vb) {
  // The costs from top bit 1 are those of the complementary outputs: c00 + c11 = c01 + c10 = 62,
  // modulo 256 as the bytes are worked out, for any pair.
  const __m256i cost0 = _mm256_shuffle_epi8(costs, pickTop0);
  const __m256i cost1 = _mm256_sub_epi8(_mm256_set1_epi8(62), cost0);
  __m256i a = _mm256_adds_epu8(_mm256_unpackhi_epi8(lo, lo), cost0);
  __m256i b = _mm256_adds_epu8(_mm256_unpackhi_epi8(hi, hi), cost1);
  va = _mm256_min_epu8(a, b);
  const uint32_t da = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(b, va)));
  a = _mm256_adds_epu8(_mm256_unpacklo_epi8(lo, lo), cost0);
  b = _mm256_adds_epu8(_mm256_unpacklo_epi8(hi, hi), cost1);
  vb = _mm256_min_epu8(a, b);
  const uint32_t db = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(b, vb)));
  // Words in position order: A low half, B low half, A high half, B high half.
  const uint64_t packed = static_cast<uint64_t>(da & 0xFFFF) | static_cast<uint64_t>(db & 0xFFFF) << 16 |
                          static_cast<uint64_t>(da >> 16) << 32 | static_cast<uint64_t>(db >> 16) << 48;
  std::memcpy(at, &packed, sizeof packed);
}

// Position 32 is byte 16 of A: above 150 when that byte less 23 still has its top bit.
__attribute__((target("avx2"))) inline __m256i Avx2AboveTest(__m256i va) {
  return _mm256_subs_epu8(va, _mm256_set1_epi8(static_cast<char>(NORMALISE_ABOVE + 1 - 128)));
}

// The steps with the normalisation decided by a branch on the metric at position 32, the least
// searched only when it is taken. Exact on every input.
__attribute__((target("avx2"))) Avx2Metrics Avx2StepsBranching(Avx2Metrics m, const uint16_t* pairs, int32_t count,
                                                                uint16_t* decisions) {
  const __m256i pickTop0 = Avx2Load(PICK_TOP0);
  for (int32_t i = 0; i < count; ++i) {
    __m256i va, vb;
    Avx2Butterflies(m.lo, m.hi, Avx2Costs(pairs[i]), pickTop0, decisions + 4 * i, va, vb);
    m.newLo = _mm256_permute2x128_si256(va, vb, 0x20);
    m.newHi = _mm256_permute2x128_si256(va, vb, 0x31);
    const uint32_t above = static_cast<uint32_t>(_mm256_movemask_epi8(Avx2AboveTest(va)));
    if ((above & 0x10000) != 0) {
      const __m256i sub = Avx2LeastOf(va, vb);
      m.newLo = _mm256_subs_epu8(m.newLo, sub);
      m.newHi = _mm256_subs_epu8(m.newHi, sub);
    }
    if (i + 1 < count) {
      m.lo = m.newLo;
      m.hi = m.newHi;
    }
  }
  return m;
}

// The same steps without a branch. The test at position 32 comes out true irregularly, every few
// steps on a real signal, and a mispredicted branch costs more than finding the least on every
// step, as long as that search stays off the chain from one step's metrics to the next. It does,
// one step ahead: every state leads to two states with complementary outputs, so the least new
// metric of a step is the least over the states before it of metric plus the cheaper of its two
// branch costs (saturating); and the metrics before it are those of the step before, less the
// amount that step subtracted. So the least of step i comes from the unnormalised metrics of step
// i - 1, searched while step i runs, less what step i - 1 subtracted.
//
// That is exact as long as the search does not saturate, and it never does when every soft bit
// lies in 0..31 and the least metric before the call is at most 150: the cheaper branch then costs
// at most 31, after every step the least metric is 0 (normalised) or at most the metric at
// position 32, at most 150, and the search, two steps on from such metrics, gives at most 150 + 62.
// The caller sees to both; only input far outside 0..31 takes the branching steps.
__attribute__((target("avx2"))) Avx2Metrics Avx2StepsAhead(Avx2Metrics m, const uint16_t* pairs, int32_t count,
                                                           uint16_t* decisions) {
  const __m256i pickTop0 = Avx2Load(PICK_TOP0);
  // The cheaper branch out of position t (state t xor 15), as bytes of A and B: min(c01, c10) when
  // bits 0 and 4 of t agree, else min(c00, c11) (bytes 4 and 5 of the cost words).
  const __m256i pickA = _mm256_setr_epi8(4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5,  //
                                         4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5);
  const __m256i pickB = _mm256_setr_epi8(5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4,  //
                                         5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4, 5, 4);
  // Zero, hidden from the compiler so that the selection below stays one blend.
  __m256i zero = _mm256_setzero_si256();
  asm("" : "+x"(zero));
  // The metrics before the first step as A and B, nothing subtracted from them.
  __m256i previousA = _mm256_permute2x128_si256(m.lo, m.hi, 0x20);
  __m256i previousB = _mm256_permute2x128_si256(m.lo, m.hi, 0x31);
  __m256i previousSub = zero;
  for (int32_t i = 0; i < count; ++i) {
    const __m256i costs = _mm256_set1_epi64x(static_cast<long long>(COST_TABLE.costs[((pairs[i] >> 3) & 0x3E0) | (pairs[i] & 0x1F)]));
    const __m256i leastA = _mm256_shuffle_epi8(costs, pickA);
    const __m256i leastB = _mm256_shuffle_epi8(costs, pickB);
    const __m256i reach = _mm256_min_epu8(_mm256_adds_epu8(previousA, leastA), _mm256_adds_epu8(previousB, leastB));
    const __m256i least = _mm256_subs_epu8(Avx2LeastBroadcast(reach), previousSub);

    __m256i va, vb;
    Avx2Butterflies(m.lo, m.hi, costs, pickTop0, decisions + 4 * i, va, vb);
    const __m256i above = Avx2AboveTest(va);
    const __m256i aboveAll = _mm256_shuffle_epi8(_mm256_permute2x128_si256(above, above, 0x11), _mm256_setzero_si256());
    const __m256i sub = _mm256_blendv_epi8(zero, least, aboveAll);
    m.newLo = _mm256_subs_epu8(_mm256_permute2x128_si256(va, vb, 0x20), sub);
    m.newHi = _mm256_subs_epu8(_mm256_permute2x128_si256(va, vb, 0x31), sub);
    previousA = va;
    previousB = vb;
    previousSub = sub;
    if (i + 1 < count) {
      m.lo = m.newLo;
      m.hi = m.newHi;
    }
  }
  return m;
}

// The steps with the scheduled normalisation, four at a time: the fourth subtracts the least metric
// of the third, which is searched while the fourth step runs. Exact on every input.
__attribute__((target("avx2"))) Avx2Metrics Avx2StepsScheduled(Avx2Metrics m, const uint16_t* pairs, int32_t count,
                                                              uint16_t* decisions) {
  const __m256i pickTop0 = Avx2Load(PICK_TOP0);
  __m256i va, vb;
  int32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    for (int32_t k = 0; k < 3; ++k) {
      Avx2Butterflies(m.lo, m.hi, Avx2Costs(pairs[i + k]), pickTop0, decisions + 4 * (i + k), va, vb);
      m.lo = _mm256_permute2x128_si256(va, vb, 0x20);
      m.hi = _mm256_permute2x128_si256(va, vb, 0x31);
    }
    const __m256i least = Avx2LeastOf(va, vb);
    Avx2Butterflies(m.lo, m.hi, Avx2Costs(pairs[i + 3]), pickTop0, decisions + 4 * (i + 3), va, vb);
    m.newLo = _mm256_sub_epi8(_mm256_permute2x128_si256(va, vb, 0x20), least);
    m.newHi = _mm256_sub_epi8(_mm256_permute2x128_si256(va, vb, 0x31), least);
    if (i + 4 < count) {
      m.lo = m.newLo;
      m.hi = m.newHi;
    }
  }
  for (; i < count; ++i) {
    Avx2Butterflies(m.lo, m.hi, Avx2Costs(pairs[i]), pickTop0, decisions + 4 * i, va, vb);
    m.newLo = _mm256_permute2x128_si256(va, vb, 0x20);
    m.newHi = _mm256_permute2x128_si256(va, vb, 0x31);
    if (i + 1 < count) {
      m.lo = m.newLo;
      m.hi = m.newHi;
    }
  }
  return m;
}

// Whether the steps without a branch are exact on this call: every soft bit in 0..31 and the least
// metric before it at most 150.
__attribute__((target("avx2"))) bool Avx2AheadExact(const Avx2Metrics& m, const uint16_t* pairs, int32_t count) {
  if ((_mm_cvtsi128_si32(_mm256_castsi256_si128(Avx2LeastOf(m.lo, m.hi))) & 0xFF) > NORMALISE_ABOVE) return false;
  __m256i high = _mm256_setzero_si256();
  int32_t i = 0;
  for (; i + 16 <= count; i += 16) high = _mm256_or_si256(high, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pairs + i)));
  uint32_t rest = 0;
  for (; i < count; ++i) rest |= pairs[i];
  return _mm256_testz_si256(high, _mm256_set1_epi16(static_cast<short>(0xE0E0))) != 0 && (rest & 0xE0E0) == 0;
}

}  // namespace

__attribute__((target("avx2"))) void ViterbiDecodeAvx2(ViterbiTrellis& trellis, const uint16_t* pairs, int32_t count,
                                                       uint8_t* output) {
  if (count < 0 || count > VITERBI_MAX_STEPS) return;
  ViterbiBeginCall(trellis);
  if (count > 0) {
    uint8_t* banks = &trellis.pathMetrics[0][0];
    int32_t bank = trellis.metricBank;
    const uint8_t* old = banks + 64 * (bank ^ 1);
    // Metrics in bank order: lo = positions 0..31, hi = positions 32..63.
    Avx2Metrics m;
    m.lo = _mm256_load_si256(reinterpret_cast<const __m256i*>(old));
    m.hi = _mm256_load_si256(reinterpret_cast<const __m256i*>(old + 32));
    m.newLo = m.lo;
    m.newHi = m.hi;
    uint16_t* decisions = trellis.decisionHistory + 4 * VITERBI_TRACEBACK;
    if (trellis.normaliseEveryFourth != 0) {
      m = Avx2StepsScheduled(m, pairs, count, decisions);
    } else {
      m = Avx2AheadExact(m, pairs, count) ? Avx2StepsAhead(m, pairs, count, decisions)
                                          : Avx2StepsBranching(m, pairs, count, decisions);
    }
    if ((count & 1) != 0) bank ^= 1;
    uint8_t* newest = banks + 64 * (bank ^ 1);
    uint8_t* previous = banks + 64 * bank;
    _mm256_store_si256(reinterpret_cast<__m256i*>(newest), m.newLo);
    _mm256_store_si256(reinterpret_cast<__m256i*>(newest + 32), m.newHi);
    _mm256_store_si256(reinterpret_cast<__m256i*>(previous), m.lo);
    _mm256_store_si256(reinterpret_cast<__m256i*>(previous + 32), m.hi);
    trellis.metricBank = static_cast<uint8_t>(bank);
    // The first position of the least newest metric starts the traceback.
    const __m256i least = Avx2LeastOf(m.newLo, m.newHi);
    const uint32_t whereLo = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(m.newLo, least)));
    const uint32_t whereHi = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(m.newHi, least)));
    const uint64_t where = whereLo | static_cast<uint64_t>(whereHi) << 32;
    ViterbiTraceBackFrom(trellis, std::countr_zero(where), count, output);
    return;
  }
  ViterbiTraceBack(trellis, count, output);
}

}  // namespace zfn

#endif
