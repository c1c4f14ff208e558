// Viterbi decoder: vector kernels against the scalar reference, bit for bit, and noise-free decoding of
// the transmitter's code with its fixed delay of 64 bits across calls. Depuncturing at every rate is
// proven by the end-to-end tests, which run every code rate.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "decoder/viterbi.h"
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

// Soft pairs at full strength (0 for a 0 bit, 31 for a 1) of the transmitter's rate 1/2 code of
// `count / 8` random bytes (X in the high byte, Y in the low byte).
std::vector<uint16_t> CodedPairs(Random& random, int32_t count, std::vector<uint8_t>* message = nullptr) {
  std::vector<uint8_t> bytes(static_cast<size_t>((count + 7) / 8));
  for (auto& b : bytes) b = static_cast<uint8_t>(random.Next());
  sim::ConvolutionalEncoder encoder(0);
  std::vector<uint8_t> coded(bytes.size() * 16);
  encoder.EncodeBytes(bytes, coded.data());
  std::vector<uint16_t> pairs(static_cast<size_t>(count));
  for (size_t i = 0; i < pairs.size(); ++i) pairs[i] = static_cast<uint16_t>((coded[2 * i] * 31) << 8 | coded[2 * i + 1] * 31);
  if (message != nullptr) *message = bytes;
  return pairs;
}

// Soft pairs of several kinds: plain random values 0..31, the neutral 16 almost everywhere (ties),
// random hard extremes, noisy values around random bits, a true code sequence with a few wrong soft
// bits, and bytes outside 0..31, whose branch costs wrap and drive the metrics into saturation at once
// (a clean code sequence alone takes the far states up to about 248 only).
std::vector<uint16_t> MakePairs(Random& random, int32_t count, uint32_t kind) {
  if (kind == 4) {
    std::vector<uint16_t> pairs = CodedPairs(random, count);
    for (auto& p : pairs) {
      if (random.Below(50) == 0) p = static_cast<uint16_t>(random.Below(32) << 8 | (p & 0xFF));
    }
    return pairs;
  }
  std::vector<uint16_t> pairs(static_cast<size_t>(count));
  for (auto& pair : pairs) {
    auto soft = [&]() -> uint32_t {
      switch (kind) {
        case 0: return random.Below(32);
        case 1: return random.Below(8) == 0 ? random.Below(32) : 16;
        case 2: return random.Below(2) * 31;
        case 3: return static_cast<uint32_t>(std::clamp(static_cast<int32_t>(random.Below(2) * 31 + random.Below(13)) - 6, 0, 31));
        default: return random.Below(256);
      }
    };
    const uint32_t h = soft();
    pair = static_cast<uint16_t>(h << 8 | soft());
  }
  return pairs;
}

TEST(Viterbi, VectorKernelsEqualScalarReference) {
  const std::vector<ViterbiKernel> kernels = AvailableKernels();
  ASSERT_FALSE(kernels.empty());
  bool sawSaturation = false;
  for (ViterbiKernel kernel : kernels) {
    if (kernel == ViterbiKernel::SCALAR) continue;
    const char* name = ViterbiKernelName(kernel);
    Random random(static_cast<uint64_t>(kernel) + 11);
    auto reference = std::make_unique<ViterbiTrellis>();
    auto vector = std::make_unique<ViterbiTrellis>();
    std::vector<uint16_t> pairStore(VITERBI_MAX_STEPS + 16);
    std::vector<uint8_t> outReference(VITERBI_MAX_STEPS / 8 + 64), outVector(outReference.size());
    for (int call = 0; call < 400; ++call) {
      // Lengths over the whole range, with small and odd ones, and every alignment of input and output.
      int32_t count = static_cast<int32_t>(random.Below(call % 4 == 1 ? 130 : VITERBI_MAX_STEPS + 1));
      if (call == 7) count = VITERBI_MAX_STEPS;
      const int32_t pairOffset = static_cast<int32_t>(random.Below(16));
      const int32_t outOffset = static_cast<int32_t>(random.Below(32));
      const std::vector<uint16_t> pairs = MakePairs(random, count, random.Below(6));
      std::copy(pairs.begin(), pairs.end(), pairStore.begin() + pairOffset);
      std::fill(outReference.begin(), outReference.end(), 0xA5);
      std::fill(outVector.begin(), outVector.end(), 0xA5);
      if (call % 97 == 0) reference->viterbiRestart = vector->viterbiRestart = 1;
      ViterbiDecodeScalar(*reference, pairStore.data() + pairOffset, count, outReference.data() + outOffset);
      ViterbiRun(*vector, kernel, pairStore.data() + pairOffset, count, outVector.data() + outOffset);
      ASSERT_EQ(outReference, outVector) << name << " call " << call << " count " << count;
      ASSERT_EQ(0, std::memcmp(reference->pathMetrics, vector->pathMetrics, sizeof vector->pathMetrics)) << name;
      ASSERT_EQ(reference->metricBank, vector->metricBank) << name;
      ASSERT_EQ(reference->viterbiRestart, vector->viterbiRestart) << name;
      ASSERT_EQ(0, std::memcmp(reference->decisionHistory, vector->decisionHistory, sizeof vector->decisionHistory)) << name;
      for (int b = 0; b < 2; ++b) sawSaturation |= std::count(reference->pathMetrics[b], reference->pathMetrics[b] + 64, 255) > 0;
    }
  }
  if (kernels.size() > 1) {
    EXPECT_TRUE(sawSaturation) << "the random input never saturated a metric";
  }
}

// A count outside 0..VITERBI_MAX_STEPS leaves trellis and output alone; noise-free input comes back
// 64 bits (8 bytes) late, with no slip at the call boundaries.
TEST(Viterbi, BadCountIgnoredAndNoiseFreeSequenceComesBackEightBytesLate) {
  for (ViterbiKernel kernel : AvailableKernels()) {
    auto trellis = std::make_unique<ViterbiTrellis>();
    std::vector<uint16_t> neutral(VITERBI_MAX_STEPS + 8, 0x1010);
    std::vector<uint8_t> untouched(400, 0x5A);
    ViterbiRun(*trellis, kernel, neutral.data(), VITERBI_MAX_STEPS + 8, untouched.data());
    ViterbiRun(*trellis, kernel, neutral.data(), -8, untouched.data());
    EXPECT_EQ(1, trellis->viterbiRestart);
    EXPECT_EQ(std::vector<uint8_t>(400, 0x5A), untouched);

    Random random(5);
    std::vector<uint8_t> message, decoded;
    const std::vector<uint16_t> pairs = CodedPairs(random, 3000 * 8, &message);
    const int32_t callSteps[] = {96, 168, 672, 2016, 1536, 384, 1008};  // whole bytes per call
    for (size_t step = 0, call = 0; step < pairs.size(); ++call) {
      const int32_t count = std::min<int32_t>(callSteps[call % 7], static_cast<int32_t>(pairs.size() - step));
      std::vector<uint8_t> out(static_cast<size_t>(count / 8));
      ViterbiRun(*trellis, kernel, pairs.data() + step, count, out.data());
      decoded.insert(decoded.end(), out.begin(), out.end());
      step += static_cast<size_t>(count);
    }
    ASSERT_EQ(message.size(), decoded.size());
    for (size_t i = 8; i < decoded.size(); ++i) {
      ASSERT_EQ(message[i - 8], decoded[i]) << ViterbiKernelName(kernel) << " byte " << i;
    }
  }
}

}  // namespace
}  // namespace zfn
