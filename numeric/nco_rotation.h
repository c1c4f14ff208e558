#pragma once
// The carrier rotation kernel: samples times exp(j(phase + n step)), in groups of four samples. The
// four rotators of a group are worked out once from two trigonometric evaluations and then advance
// by the product with the rotator of four steps; every variant does the same products and sums in
// the same order, so they agree bit for bit.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

struct NcoRotators {
  float re[4];    // rotators of samples 0..3 of the first group
  float im[4];
  float quadRe;   // the advance of four samples
  float quadIm;
  int32_t groups; // (count + 3) / 4, at least one
};

NcoRotators MakeNcoRotators(int32_t count, double phase, double step);

// The kernels: groups * 4 complex samples, interleaved re, im, read from `in` and written to `out`
// (the same buffer rotates in place; other buffers must not overlap).
void RotateGroupsScalar(const float* in, float* out, const NcoRotators& r);
#if defined(__x86_64__) || defined(__i386__)
void RotateGroupsSse2(const float* in, float* out, const NcoRotators& r);
#endif

// One call with a given variant (a set the processor lacks falls back to the best it has).
void RotateByNcoWith(VectorIsa isa, const float* in, float* out, int32_t count, double phase, double step);

}  // namespace zfn
