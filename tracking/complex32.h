#pragma once
// Complex arithmetic on interleaved 32-bit floats, written out so that no library slow path for
// infinities enters the per-symbol loops.
#include <cstdint>

namespace zfn {

struct Cx {
  float re;
  float im;
};

inline Cx Load(const float* p, int32_t i) { return {p[2 * i], p[2 * i + 1]}; }
inline void Store(float* p, int32_t i, Cx v) {
  p[2 * i] = v.re;
  p[2 * i + 1] = v.im;
}
inline Cx operator+(Cx a, Cx b) { return {a.re + b.re, a.im + b.im}; }
inline Cx operator-(Cx a, Cx b) { return {a.re - b.re, a.im - b.im}; }
inline Cx operator*(Cx a, Cx b) { return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re}; }
inline Cx operator*(float s, Cx a) { return {s * a.re, s * a.im}; }
inline Cx Conj(Cx a) { return {a.re, -a.im}; }
// a * conj(b)
inline Cx MulConj(Cx a, Cx b) { return {a.re * b.re + a.im * b.im, a.im * b.re - a.re * b.im}; }
inline float Norm(Cx a) { return a.re * a.re + a.im * a.im; }

}  // namespace zfn
