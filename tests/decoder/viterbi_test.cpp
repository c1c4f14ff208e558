// Viterbi decoder: noise-free decoding of the transmitter's code with its fixed delay of 64 bits across
// calls, by every kernel; their equality with the scalar reference is tested with the other vector
// kernels. Depuncturing at every rate is proven by the end-to-end tests, which run every code rate.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "decoder/viterbi.h"
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

// A count outside 0..VITERBI_MAX_STEPS leaves trellis and output alone; noise-free input comes back
// 64 bits (8 bytes) late, with no slip at the call boundaries, under either normalisation.
TEST(Viterbi, BadCountIgnoredAndNoiseFreeSequenceComesBackEightBytesLate) {
  for (ViterbiKernel kernel : AvailableKernels()) {
    for (uint8_t scheduled : {0, 1}) {
      auto trellis = std::make_unique<ViterbiTrellis>();
      trellis->normaliseEveryFourth = scheduled;
      std::vector<uint16_t> neutral(VITERBI_MAX_STEPS + 8, 0x1010);
      std::vector<uint8_t> untouched(400, 0x5A);
      ViterbiRun(*trellis, kernel, neutral.data(), VITERBI_MAX_STEPS + 8, untouched.data());
      ViterbiRun(*trellis, kernel, neutral.data(), -8, untouched.data());
      EXPECT_EQ(1, trellis->viterbiRestart);
      EXPECT_EQ(std::vector<uint8_t>(400, 0x5A), untouched);

      Random random(5);
      std::vector<uint8_t> message, decoded;
      const std::vector<uint16_t> pairs = test::CodedPairs(random, 3000 * 8, &message);
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
        ASSERT_EQ(message[i - 8], decoded[i])
            << ViterbiKernelName(kernel) << " scheduled " << int{scheduled} << " byte " << i;
      }
    }
  }
}

}  // namespace
}  // namespace zfn
