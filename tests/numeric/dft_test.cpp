#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <utility>
#include <vector>

#include <fftw3.h>

#include "numeric/dft.h"
#include "numeric/dft_wisdom.h"
#include "shell/receiver_state.h"

namespace zfn {
namespace {

// Forward has a negative exponent and no scaling, on aligned and misaligned data alike; backward
// after forward multiplies by n. From one row into another gives the same values as in place and
// leaves the row taken from as it was. The wisdom kept with the code must still be one this FFTW
// takes (it names AVX codelets): a stale one would leave the slower estimated plans in force.
TEST(Dft, MatchesDirectTransformAtAnyAlignment) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx")) {
    EXPECT_EQ(fftwf_import_wisdom_from_string(DFT_WISDOM), 1);
  }
#endif
  for (int n : {64, 256, 1024}) {
    DftPlan plan = nullptr;
    ASSERT_EQ(DftiCreateDescriptor(&plan, DFTI_SINGLE, DFTI_COMPLEX, 1, n), DFTI_NO_ERROR);
    ASSERT_EQ(DftiCommitDescriptor(plan), DFTI_NO_ERROR);
    std::mt19937 rng(n);
    std::normal_distribution<float> gauss;
    std::vector<float> x(2 * n);
    for (float& v : x) v = gauss(rng);
    std::vector<float> aligned(2 * n);
    // Offsets of the row taken from and the row written; 2 floats: 8-byte aligned only, as arena
    // buffers may be. A written row of the same alignment as the row transformed in place holds
    // the same values.
    for (auto [offset, outOffset] : {std::pair{0, 0}, std::pair{2, 2}, std::pair{2, 0}}) {
      std::vector<float> buffer(2 * n + 4);
      std::copy(x.begin(), x.end(), buffer.begin() + offset);
      float* data = buffer.data() + offset;
      std::vector<float> rowOut(2 * n + 4);
      ASSERT_EQ(DftiComputeForwardOutOfPlace(plan, data, rowOut.data() + outOffset), DFTI_NO_ERROR);
      ASSERT_TRUE(std::equal(x.begin(), x.end(), data));
      ASSERT_EQ(DftiComputeForward(plan, data), DFTI_NO_ERROR);
      if (offset == 0) std::copy(data, data + 2 * n, aligned.begin());
      const float* same = offset == outOffset ? data : aligned.data();
      EXPECT_TRUE(std::equal(same, same + 2 * n, rowOut.begin() + outOffset)) << "n " << n << " offset " << offset;
      for (int k = 0; k < n; ++k) {
        std::complex<double> direct = 0;
        for (int i = 0; i < n; ++i)
          direct += std::complex<double>(x[2 * i], x[2 * i + 1]) * std::polar(1.0, -2.0 * M_PI * ((static_cast<long>(k) * i) % n) / n);
        EXPECT_NEAR(data[2 * k], direct.real(), 1e-3 * std::sqrt(n)) << "n " << n << " bin " << k << " offset " << offset;
        EXPECT_NEAR(data[2 * k + 1], direct.imag(), 1e-3 * std::sqrt(n)) << "n " << n << " bin " << k;
      }
      ASSERT_EQ(DftiComputeBackward(plan, data), DFTI_NO_ERROR);
      for (int i = 0; i < 2 * n; ++i) EXPECT_NEAR(data[i], n * x[i], 1e-3 * n);
    }
    EXPECT_EQ(DftiFreeDescriptor(&plan), DFTI_NO_ERROR);
    EXPECT_EQ(plan, nullptr);
  }
}

TEST(Dft, BadUseGivesStatusesNotCrashes) {
  DftPlan plan = nullptr;
  EXPECT_NE(DftiCreateDescriptor(&plan, 36, DFTI_COMPLEX, 1, 256), DFTI_NO_ERROR);  // double precision
  EXPECT_EQ(plan, nullptr);
  EXPECT_NE(DftiCreateDescriptor(&plan, DFTI_SINGLE, DFTI_COMPLEX, 1, 0), DFTI_NO_ERROR);
  EXPECT_NE(DftiFreeDescriptor(&plan), DFTI_NO_ERROR);
  float data[8] = {};
  EXPECT_NE(DftiComputeForward(nullptr, data), DFTI_NO_ERROR);
  ASSERT_EQ(DftiCreateDescriptor(&plan, DFTI_SINGLE, DFTI_COMPLEX, 1, 4), DFTI_NO_ERROR);
  EXPECT_NE(DftiComputeForward(plan, data), DFTI_NO_ERROR);  // not committed
  EXPECT_EQ(DftiErrorClass(DftiComputeForward(plan, data), DFTI_NO_ERROR), 0);
  EXPECT_EQ(DftiFreeDescriptor(&plan), DFTI_NO_ERROR);
}

// The engine's two transforms: 1 with a plan, 0 without; -1 forward (shown for every size beside
// the numerology), anything else backward: an impulse at sample 1 puts exp(+j*2*pi/4) = j into bin 16.
TEST(Dft, EngineTransformsGoBackwardAndReportMissingPlans) {
  float data[2 * 64] = {};
  EXPECT_EQ(TransformFull(data, -1), 0);
  EXPECT_EQ(TransformQuarter(data, 1), 0);
  ASSERT_EQ(DftiCreateDescriptor(&engine.quarterPlan, DFTI_SINGLE, DFTI_COMPLEX, 1, 64), DFTI_NO_ERROR);
  ASSERT_EQ(DftiCommitDescriptor(engine.quarterPlan), DFTI_NO_ERROR);
  data[2] = 1.0f;
  ASSERT_EQ(TransformQuarter(data, 7), 1);
  EXPECT_NEAR(data[2 * 16 + 1], 1.0f, 1e-6);
  FreeDftPlans();
  EXPECT_EQ(engine.quarterPlan, nullptr);
  FreeDftPlans();  // nothing left: harmless
}

}  // namespace
}  // namespace zfn
