// Viterbi decoder: vector kernels against the scalar reference, noise-free decoding of the
// transmitter's code with its fixed delay of 64 bits across calls, the tie rule and normalisation.
// Depuncturing at every rate is tested with the transmitter's encoder in transmitter_chain_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "decoder/viterbi.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "simulator/tx_stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

using test::Random;

std::vector<ViterbiKernel> AvailableKernels() {
  std::vector<ViterbiKernel> kernels;
  for (ViterbiKernel k : {ViterbiKernel::SCALAR, ViterbiKernel::SSE2, ViterbiKernel::AVX2}) {
    if (ViterbiKernelAvailable(k)) kernels.push_back(k);
  }
  return kernels;
}

void ExpectSameTrellis(const ViterbiTrellis& a, const ViterbiTrellis& b, const char* what) {
  ASSERT_EQ(0, std::memcmp(a.pathMetrics, b.pathMetrics, sizeof a.pathMetrics)) << what;
  ASSERT_EQ(a.metricBank, b.metricBank) << what;
  ASSERT_EQ(a.viterbiRestart, b.viterbiRestart) << what;
  ASSERT_EQ(0, std::memcmp(a.decisionHistory, b.decisionHistory, sizeof a.decisionHistory)) << what;
}

// Soft pairs of several kinds: plain random values 0..31, the neutral 16 almost everywhere (ties),
// random hard extremes, noisy values around random bits, a true code sequence at full strength, and
// bytes outside 0..31, whose branch costs wrap and drive the metrics into saturation at once (a clean
// code sequence alone takes the far states up to about 248 only). The kernels agree on every input.
std::vector<uint16_t> MakePairs(Random& random, int32_t count, int kind, sim::ConvolutionalEncoder& encoder) {
  std::vector<uint16_t> pairs(static_cast<size_t>(count));
  if (kind == 4) {
    std::vector<uint8_t> message(static_cast<size_t>((count + 7) / 8));
    for (auto& b : message) b = static_cast<uint8_t>(random.Next());
    std::vector<uint8_t> coded(message.size() * 16);
    encoder.EncodeBytes(message, coded.data());
    for (int32_t i = 0; i < count; ++i) {
      uint32_t h = coded[2 * static_cast<size_t>(i)] * 31u, l = coded[2 * static_cast<size_t>(i) + 1] * 31u;
      if (random.Below(50) == 0) h = random.Below(32);
      pairs[static_cast<size_t>(i)] = static_cast<uint16_t>(h << 8 | l);
    }
    return pairs;
  }
  for (auto& pair : pairs) {
    uint32_t h = 0, l = 0;
    switch (kind) {
      case 0:
        h = random.Below(32);
        l = random.Below(32);
        break;
      case 1:
        h = l = 16;
        if (random.Below(8) == 0) h = random.Below(32);
        break;
      case 5:
        h = random.Below(256);
        l = random.Below(256);
        break;
      case 2:
        h = random.Below(2) * 31;
        l = random.Below(2) * 31;
        break;
      default: {
        const uint32_t x = random.Below(2), y = random.Below(2);
        const int32_t nh = static_cast<int32_t>(x * 31) + static_cast<int32_t>(random.Below(13)) - 6;
        const int32_t nl = static_cast<int32_t>(y * 31) + static_cast<int32_t>(random.Below(13)) - 6;
        h = static_cast<uint32_t>(std::clamp(nh, 0, 31));
        l = static_cast<uint32_t>(std::clamp(nl, 0, 31));
        break;
      }
    }
    pair = static_cast<uint16_t>(h << 8 | l);
  }
  return pairs;
}

TEST(Viterbi, VectorKernelsEqualScalarReference) {
  const std::vector<ViterbiKernel> kernels = AvailableKernels();
  ASSERT_FALSE(kernels.empty());
  bool sawSaturation = false;
  for (ViterbiKernel kernel : kernels) {
    if (kernel == ViterbiKernel::SCALAR) continue;
    Random random(static_cast<uint64_t>(kernel) + 11);
    auto reference = std::make_unique<ViterbiTrellis>();
    auto vector = std::make_unique<ViterbiTrellis>();
    std::vector<uint16_t> pairStore(VITERBI_MAX_STEPS + 16);
    sim::ConvolutionalEncoder encoder(0);
    std::vector<uint8_t> outReference(VITERBI_MAX_STEPS / 8 + 64), outVector(VITERBI_MAX_STEPS / 8 + 64);
    for (int call = 0; call < 400; ++call) {
      // Lengths over the whole range, with small and odd ones, and every alignment of input and output.
      int32_t count = static_cast<int32_t>(random.Below(VITERBI_MAX_STEPS + 1));
      if (call % 4 == 1) count = static_cast<int32_t>(random.Below(130));
      if (call == 7) count = VITERBI_MAX_STEPS;
      const int32_t pairOffset = static_cast<int32_t>(random.Below(16));
      const int32_t outOffset = static_cast<int32_t>(random.Below(32));
      const std::vector<uint16_t> pairs = MakePairs(random, count, static_cast<int>(random.Below(6)), encoder);
      std::copy(pairs.begin(), pairs.end(), pairStore.begin() + pairOffset);
      std::fill(outReference.begin(), outReference.end(), 0xA5);
      std::fill(outVector.begin(), outVector.end(), 0xA5);
      if (call % 97 == 0) reference->viterbiRestart = vector->viterbiRestart = 1;
      ViterbiDecodeScalar(*reference, pairStore.data() + pairOffset, count, outReference.data() + outOffset);
      ViterbiRun(*vector, kernel, pairStore.data() + pairOffset, count, outVector.data() + outOffset);
      ASSERT_EQ(outReference, outVector) << ViterbiKernelName(kernel) << " call " << call << " count " << count;
      ExpectSameTrellis(*reference, *vector, ViterbiKernelName(kernel));
      for (int b = 0; b < 2; ++b) {
        sawSaturation |= std::count(reference->pathMetrics[b], reference->pathMetrics[b] + 64, 255) > 0;
      }
    }
  }
  if (kernels.size() > 1) {
    EXPECT_TRUE(sawSaturation) << "the random input never saturated a metric";
  }
}

TEST(Viterbi, OutOfRangeCountLeavesEverythingAlone) {
  for (ViterbiKernel kernel : AvailableKernels()) {
    auto trellis = std::make_unique<ViterbiTrellis>();
    std::vector<uint16_t> pairs(VITERBI_MAX_STEPS + 8, 0x1010);
    std::vector<uint8_t> out(400, 0x5A);
    ViterbiRun(*trellis, kernel, pairs.data(), VITERBI_MAX_STEPS + 8, out.data());
    ViterbiRun(*trellis, kernel, pairs.data(), -8, out.data());
    EXPECT_EQ(1, trellis->viterbiRestart);
    EXPECT_EQ(std::vector<uint8_t>(400, 0x5A), out);
  }
}

// Noise-free input: soft 0 for a 0 bit and 31 for a 1. The output of the calls, joined, is the input
// 64 bits (8 bytes) late, with no slip at the call boundaries.
TEST(Viterbi, NoiseFreeSequenceComesBackEightBytesLate) {
  for (ViterbiKernel kernel : AvailableKernels()) {
    Random random(5);
    std::vector<uint8_t> message(3000);
    for (auto& b : message) b = static_cast<uint8_t>(random.Next());
    sim::ConvolutionalEncoder encoder(0);  // rate 1/2: X, Y of every input bit
    std::vector<uint8_t> coded(message.size() * 16);
    encoder.EncodeBytes(message, coded.data());
    auto trellis = std::make_unique<ViterbiTrellis>();
    std::vector<uint8_t> decoded;
    const int32_t callSteps[] = {96, 168, 672, 2016, 1536, 384, 1008};  // whole bytes per call
    size_t step = 0;
    for (int call = 0; step < coded.size() / 2; ++call) {
      const int32_t count = std::min<int32_t>(callSteps[call % 7], static_cast<int32_t>(coded.size() / 2 - step));
      std::vector<uint16_t> pairs(static_cast<size_t>(count));
      for (int32_t i = 0; i < count; ++i) {
        pairs[i] = static_cast<uint16_t>((coded[2 * (step + i)] * 31) << 8 | coded[2 * (step + i) + 1] * 31);
      }
      std::vector<uint8_t> out(static_cast<size_t>(count / 8));
      ViterbiRun(*trellis, kernel, pairs.data(), count, out.data());
      decoded.insert(decoded.end(), out.begin(), out.end());
      step += static_cast<size_t>(count);
    }
    ASSERT_EQ(message.size(), decoded.size());
    for (size_t i = 8; i < decoded.size(); ++i) {
      ASSERT_EQ(message[i - 8], decoded[i]) << ViterbiKernelName(kernel) << " byte " << i;
    }
  }
}

// With all metrics equal and H = L = 16, the costs 31 of c01 and c10 tie, and so do all candidates of
// equal cost: the decision then names the predecessor with top bit 1.
TEST(Viterbi, TiesGoToThePredecessorWithTopBitOne) {
  for (ViterbiKernel kernel : AvailableKernels()) {
    auto trellis = std::make_unique<ViterbiTrellis>();
    const uint16_t pair = 16 << 8 | 16;
    uint8_t out[1];
    ViterbiRun(*trellis, kernel, &pair, 1, out);
    const uint8_t cost[4] = {32, 31, 31, 30};
    for (uint32_t s = 0; s < 64; ++s) {
      auto outputs = [](uint32_t u, uint32_t p) {
        auto bit = [p](int k) { return (p >> k) & 1; };
        return ((u ^ bit(0) ^ bit(1) ^ bit(2) ^ bit(5)) << 1) | (u ^ bit(1) ^ bit(2) ^ bit(4) ^ bit(5));
      };
      const uint8_t fromP = cost[outputs(s & 1, s >> 1)];
      const uint8_t fromQ = cost[outputs(s & 1, (s >> 1) + 32)];
      // The decisions of the one step were carried to the front of the history.
      const uint32_t word = trellis->decisionHistory[4 * (VITERBI_TRACEBACK - 1) + s / 16];
      const uint32_t decision = (word >> (15 - s % 16)) & 1;
      EXPECT_EQ(fromQ <= fromP ? 1u : 0u, decision) << ViterbiKernelName(kernel) << " state " << s;
      EXPECT_EQ(std::min(fromP, fromQ), trellis->pathMetrics[0][s ^ 15]);
    }
  }
}

// All soft bits neutral: every step adds 30 to 32 to every metric, so the test at position 32 fires
// within six steps and the metrics fall back by their minimum.
TEST(Viterbi, NormalisationFiresWithinSixNeutralSteps) {
  for (ViterbiKernel kernel : AvailableKernels()) {
    auto trellis = std::make_unique<ViterbiTrellis>();
    const uint16_t pair = 16 << 8 | 16;
    uint8_t out[1];
    int fired = 0;
    for (int step = 1; step <= 6 && fired == 0; ++step) {
      ViterbiRun(*trellis, kernel, &pair, 1, out);
      const uint8_t* bank = trellis->pathMetrics[trellis->metricBank ^ 1];
      if (*std::min_element(bank, bank + 64) == 0) fired = step;
    }
    EXPECT_GE(fired, 5) << ViterbiKernelName(kernel);
    EXPECT_LE(fired, 6) << ViterbiKernelName(kernel);
  }
}

}  // namespace
}  // namespace zfn
