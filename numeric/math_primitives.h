#pragma once
// Scalar functions the stages call: double precision in and out; the stages round to float.
#include <cmath>

namespace zfn {

// The one constant of 2*pi in all phase handling.
constexpr double TWO_PI = 6.283185307179;

inline double SinD(double x) { return std::sin(x); }
inline double CosD(double x) { return std::cos(x); }
inline void SinCosD(double x, double* s, double* c) {
  *s = std::sin(x);
  *c = std::cos(x);
}
inline double Atan2D(double y, double x) { return std::atan2(y, x); }
inline double Log10D(double x) { return std::log10(x); }

// Four lanes of single precision sine and cosine, used only to build filter tables.
inline void SinCos4F(const float x[4], float s[4], float c[4]) {
  for (int i = 0; i < 4; ++i) {
    s[i] = std::sin(x[i]);
    c[i] = std::cos(x[i]);
  }
}

}  // namespace zfn
