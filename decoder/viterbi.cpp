// Viterbi decoder: the plain scalar reference, the traceback shared by the vector kernels, and the
// choice of kernel at run time.
#include "decoder/viterbi.h"

#include <bit>
#include <cstring>

namespace zfn {

namespace {

constexpr uint8_t NORMALISE_ABOVE = 150;  // tested on the metric at position 32 only (state 47)
constexpr int32_t NORMALISE_POSITION = 32;

// The hypothesised outputs XY (as 2X + Y) of the two transitions into each state s: from p = s / 2 and
// from q = p + 32, with input bit u = s mod 2. X = u^p0^p1^p2^p5 (171 octal), Y = u^p1^p2^p4^p5 (133).
struct Branches {
  uint8_t fromP[64];
  uint8_t fromQ[64];
};

constexpr uint8_t OutputsOf(uint32_t u, uint32_t p) {
  auto bit = [p](int k) { return (p >> k) & 1u; };
  const uint32_t x = u ^ bit(0) ^ bit(1) ^ bit(2) ^ bit(5);
  const uint32_t y = u ^ bit(1) ^ bit(2) ^ bit(4) ^ bit(5);
  return static_cast<uint8_t>(x * 2 + y);
}

constexpr Branches MakeBranches() {
  Branches b{};
  for (uint32_t s = 0; s < 64; ++s) {
    b.fromP[s] = OutputsOf(s & 1, s >> 1);
    b.fromQ[s] = OutputsOf(s & 1, (s >> 1) + 32);
  }
  return b;
}

constexpr Branches BRANCHES = MakeBranches();

inline uint8_t SaturatingAdd(uint8_t a, uint8_t b) {
  const int32_t sum = a + b;
  return static_cast<uint8_t>(sum > 255 ? 255 : sum);
}

// Copies the decisions of the last 64 steps of this call in front of the first step of the next.
void CarryDecisions(ViterbiTrellis& trellis, int32_t count) {
  std::memmove(trellis.decisionHistory, trellis.decisionHistory + 4 * count, sizeof(uint16_t) * 4 * VITERBI_TRACEBACK);
}

// First position of the smallest metric of a bank; a later position wins only when strictly smaller.
int32_t BestPosition(const uint8_t* bank) {
  int32_t best = 0;
  for (int32_t position = 1; position < 64; ++position) {
    if (bank[position] < bank[best]) best = position;
  }
  return best;
}

}  // namespace

void ViterbiBeginCall(ViterbiTrellis& trellis) {
  if (trellis.viterbiRestart != 0) {
    trellis.metricBank = 0;
    std::memset(trellis.pathMetrics[1], 0, 64);
    trellis.viterbiRestart = 0;
  }
}

void ViterbiTraceBack(ViterbiTrellis& trellis, int32_t count, uint8_t* output) {
  ViterbiTraceBackFrom(trellis, BestPosition(trellis.pathMetrics[trellis.metricBank ^ 1]), count, output);
}

void ViterbiTraceBackFrom(ViterbiTrellis& trellis, int32_t best, int32_t count, uint8_t* output) {
  // The walk keeps the state's position t = s xor 15, two steps at a time. The decision of s is bit t
  // of the step's four words read as one little-endian 64-bit word, and the predecessor's position
  // is ((t >> 1) xor 8) with that decision x as bit 5. With the word turned left by 5, a right turn by
  // t brings the bit to bit 5 at once. The decision of the step before is bit ((t >> 1) xor 8) + x of
  // its word: with the bytes of each 16-bit word swapped (the xor 8) and the word turned left by 5,
  // a right turn by t >> 1, which does not wait for x, and then by x brings it to bit 5. So two steps
  // of the walk take five dependent operations.
  // The start state is the position number of the best metric as it stands, without the xor with 15.
  uint32_t t = static_cast<uint32_t>(best) ^ 15;
  const uint16_t* history = trellis.decisionHistory;
  int32_t step = VITERBI_TRACEBACK + count - 1;
  auto back2 = [history](int32_t at, uint32_t position) -> uint32_t {
    uint64_t newer, older;
    std::memcpy(&newer, history + 4 * at, sizeof newer);
    std::memcpy(&older, history + 4 * (at - 1), sizeof older);
    constexpr uint64_t LOW_BYTES = 0x00FF00FF00FF00FFull;
    older = std::rotl(((older >> 8) & LOW_BYTES) | ((older & LOW_BYTES) << 8), 5);
    const uint64_t x = std::rotr(std::rotl(newer, 5), static_cast<int>(position)) & 32;
    const uint64_t turned = std::rotr(older, static_cast<int>(position >> 1));
    const uint32_t second = static_cast<uint32_t>(std::rotr(turned, static_cast<int>(x))) & 32;
    return ((position >> 2) ^ 12) | static_cast<uint32_t>(x >> 1) | second;
  };
  for (int32_t k = 0; k < VITERBI_TRACEBACK; k += 2, step -= 2) t = back2(step, t);
  const int32_t bytes = count / 8;
  for (int32_t i = 0; i < bytes; ++i) {
    // The state's bit 0 is the decoded bit, and a state holds the decoded bits of its own step and
    // of the five before it (the predecessor is the state shifted right): the byte is the state of
    // its last step and two bits of the state six steps earlier.
    const uint32_t last = t ^ 15;
    t = back2(step, t);
    t = back2(step - 2, t);
    t = back2(step - 4, t);
    const uint32_t earlier = t ^ 15;
    t = back2(step - 6, t);
    step -= 8;
    output[bytes - 1 - i] = static_cast<uint8_t>((last & 63) | (earlier & 3) << 6);
  }
  CarryDecisions(trellis, count);
}

void ViterbiDecodeScalar(ViterbiTrellis& trellis, const uint16_t* pairs, int32_t count, uint8_t* output) {
  if (count < 0 || count > VITERBI_MAX_STEPS) return;
  ViterbiBeginCall(trellis);
  uint16_t* decisions = trellis.decisionHistory + 4 * VITERBI_TRACEBACK;
  for (int32_t i = 0; i < count; ++i) {
    const uint8_t h = static_cast<uint8_t>(pairs[i] >> 8);
    const uint8_t l = static_cast<uint8_t>(pairs[i]);
    // Branch cost by hypothesised XY: the soft value for a 0, 31 minus it for a 1.
    const uint8_t cost[4] = {static_cast<uint8_t>(h + l), static_cast<uint8_t>(h + (31 - l)),
                             static_cast<uint8_t>((31 - h) + l), static_cast<uint8_t>((31 - h) + (31 - l))};
    const uint8_t* old = trellis.pathMetrics[trellis.metricBank ^ 1];
    uint8_t* now = trellis.pathMetrics[trellis.metricBank];
    uint16_t words[4] = {0, 0, 0, 0};
    for (uint32_t s = 0; s < 64; ++s) {
      const uint32_t p = s >> 1;  // predecessor with top bit 0
      const uint32_t q = p + 32;  // predecessor with top bit 1
      const uint8_t fromP = SaturatingAdd(old[p ^ 15], cost[BRANCHES.fromP[s]]);
      const uint8_t fromQ = SaturatingAdd(old[q ^ 15], cost[BRANCHES.fromQ[s]]);
      const uint8_t best = fromP < fromQ ? fromP : fromQ;
      now[s ^ 15] = best;
      const uint32_t decision = fromQ == best ? 1u : 0u;  // ties go to q
      words[s / 16] = static_cast<uint16_t>(words[s / 16] | decision << (15 - s % 16));
    }
    std::memcpy(decisions + 4 * i, words, sizeof words);
    if (trellis.normaliseEveryFourth != 0) {
      if (i % 4 == 3) {
        uint8_t least = old[0];
        for (int32_t k = 1; k < 64; ++k) least = old[k] < least ? old[k] : least;
        for (int32_t k = 0; k < 64; ++k) now[k] = static_cast<uint8_t>(now[k] - least);
      }
    } else if (now[NORMALISE_POSITION] > NORMALISE_ABOVE) {
      uint8_t least = now[0];
      for (int32_t k = 1; k < 64; ++k) least = now[k] < least ? now[k] : least;
      for (int32_t k = 0; k < 64; ++k) now[k] = static_cast<uint8_t>(now[k] - least);
    }
    trellis.metricBank ^= 1;
  }

  // Traceback over the packed decisions, 64 steps of warm-up, then count / 8 bytes from the end.
  uint32_t s = static_cast<uint32_t>(BestPosition(trellis.pathMetrics[trellis.metricBank ^ 1]));
  int32_t step = VITERBI_TRACEBACK + count - 1;
  auto back = [&trellis](uint32_t state, int32_t at) {
    const uint32_t d = (trellis.decisionHistory[4 * at + state / 16] >> (15 - state % 16)) & 1u;
    return state / 2 + 32 * d;
  };
  for (int32_t k = 0; k < VITERBI_TRACEBACK; ++k) s = back(s, step--);
  const int32_t bytes = count / 8;
  for (int32_t i = 0; i < bytes; ++i) {
    uint32_t byte = 0;
    for (int32_t k = 0; k < 8; ++k) {
      byte |= (s % 2) << k;
      s = back(s, step--);
    }
    output[bytes - 1 - i] = static_cast<uint8_t>(byte);
  }
  CarryDecisions(trellis, count);
}

void ViterbiRun(ViterbiTrellis& trellis, ViterbiKernel kernel, const uint16_t* pairs, int32_t count, uint8_t* output) {
  if (!ViterbiKernelAvailable(kernel)) kernel = BestViterbiKernel();
  switch (kernel) {
#if defined(__x86_64__) || defined(__i386__)
    case ViterbiKernel::AVX2:
      ViterbiDecodeAvx2(trellis, pairs, count, output);
      return;
    case ViterbiKernel::SSE2:
      ViterbiDecodeSse2(trellis, pairs, count, output);
      return;
#endif
    default:
      ViterbiDecodeScalar(trellis, pairs, count, output);
      return;
  }
}

void ViterbiDecode(const uint16_t* pairs, int32_t count, uint8_t* output) {
  ViterbiRun(decoder, ActiveVectorIsa(), pairs, count, output);
}

}  // namespace zfn
