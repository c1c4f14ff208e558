#pragma once
// The carrier rotation kernel: samples times exp(j(phase + n step)), in groups of four samples. The
// rotators of the first sixteen samples are worked out once from two trigonometric evaluations; the
// groups take turns between four chains of rotators (group g the rotators of samples 4 (g mod 4) ..
// 4 (g mod 4) + 3), each advancing by the product with the rotator of sixteen steps. The chains do
// not wait on each other. Every variant does the same products and sums in the same order, so they
// agree bit for bit.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

constexpr int32_t NCO_CHAINS = 4;

struct NcoRotators {
  float re[4 * NCO_CHAINS];  // rotators of samples 0..15: the first group of each chain
  float im[4 * NCO_CHAINS];
  float advanceRe;           // the advance of sixteen samples
  float advanceIm;
  int32_t groups;            // (count + 3) / 4, at least one
};

NcoRotators MakeNcoRotators(int32_t count, double phase, double step);

// The kernels: groups * 4 complex samples, interleaved re, im, read from `in` and written to `out`
// (the same buffer rotates in place; other buffers must not overlap).
void RotateGroupsScalar(const float* in, float* out, const NcoRotators& r);
// Groups first .. r.groups - 1 (first a multiple of NCO_CHAINS) with the chains' rotators as they
// stand in rotRe, rotIm (sample order); the vector variants finish with it.
void RotateGroupsFrom(const float* in, float* out, const NcoRotators& r, float* rotRe, float* rotIm, int32_t first);
#if defined(__x86_64__) || defined(__i386__)
void RotateGroupsSse2(const float* in, float* out, const NcoRotators& r);
void RotateGroupsAvx2(const float* in, float* out, const NcoRotators& r);
#endif

// One call with a given variant (a set the processor lacks falls back to the best it has).
void RotateByNcoWith(VectorIsa isa, const float* in, float* out, int32_t count, double phase, double step);

}  // namespace zfn
