#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "acquisition/acquisition.h"

namespace zfn {
namespace {

// Against a direct rotation: counts are rounded up to groups of four, and nothing beyond is touched.
TEST(RotateByNco, MatchesDirectRotationInGroupsOfFour) {
  std::mt19937 rng(5);
  std::normal_distribution<float> gauss;
  struct Case {
    int count;
    double phase, step;
  };
  for (const Case& c : {Case{258, 1.0, 0.013}, Case{1024, 6.2, -0.0061}, Case{1, 0.5, 0.3}, Case{0, 0.0, 0.1},
                        Case{1280, 3.0, 3.1}}) {
    const int rotated = std::max(4, (c.count + 3) / 4 * 4);
    std::vector<float> x(2 * (rotated + 4));
    for (float& v : x) v = gauss(rng);
    std::vector<float> y = x;
    RotateByNco(y.data(), c.count, c.phase, c.step);
    for (int n = 0; n < rotated; ++n) {
      const std::complex<double> expected =
          std::complex<double>(x[2 * n], x[2 * n + 1]) * std::polar(1.0, c.phase + n * c.step);
      EXPECT_NEAR(y[2 * n], expected.real(), 2e-4) << "count " << c.count << " n " << n;
      EXPECT_NEAR(y[2 * n + 1], expected.imag(), 2e-4) << "count " << c.count << " n " << n;
    }
    for (int n = rotated; n < rotated + 4; ++n) {
      EXPECT_EQ(y[2 * n], x[2 * n]);
      EXPECT_EQ(y[2 * n + 1], x[2 * n + 1]);
    }
  }
}

}  // namespace
}  // namespace zfn
