#pragma once
// The carrier rotation kernel: samples times exp(j(phase + n step)), in groups of four samples. The
// rotators of the first eight samples are worked out once from two trigonometric evaluations; the
// groups take turns between two chains of rotators (even groups the rotators of samples 0..3, odd
// groups those of 4..7), each advancing by the product with the rotator of eight steps. The two
// chains do not wait on each other. Every variant does the same products and sums in the same
// order, so they agree bit for bit.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

struct NcoRotators {
  float re[8];    // rotators of samples 0..7: the first group of each chain
  float im[8];
  float octRe;    // the advance of eight samples
  float octIm;
  int32_t groups; // (count + 3) / 4, at least one
};

NcoRotators MakeNcoRotators(int32_t count, double phase, double step);

// The kernels: groups * 4 complex samples, interleaved re, im, read from `in` and written to `out`
// (the same buffer rotates in place; other buffers must not overlap).
void RotateGroupsScalar(const float* in, float* out, const NcoRotators& r);
#if defined(__x86_64__) || defined(__i386__)
void RotateGroupsSse2(const float* in, float* out, const NcoRotators& r);
void RotateGroupsAvx2(const float* in, float* out, const NcoRotators& r);
#endif

// One call with a given variant (a set the processor lacks falls back to the best it has).
void RotateByNcoWith(VectorIsa isa, const float* in, float* out, int32_t count, double phase, double step);

}  // namespace zfn
