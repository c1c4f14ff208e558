#pragma once
// One side of the timing gate: sliding sums over the samples just outside the transform span, one
// per fixed carrier, and the profile of their distance from the last symbol's sums. The sums T start
// at the carriers' values and take, at step d, the difference of the sample entering and the one
// leaving times the multiplier of d; the profile at d is the sum over the carriers of |T - S P|^2
// against the last symbol's sums P of row d (S the carrier's sign turn), each added in carrier order,
// and row d then takes T. Every variant does the reference's products and sums in its order.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

constexpr int32_t GATE_CARRIERS = 12;   // the most fixed carriers the gate follows
constexpr int32_t GATE_MAX_SPAN = 128;  // the most steps of one side (the largest nmargin)

struct GateSide {
  const float (*wRe)[GATE_CARRIERS];  // row d: the multipliers of step d, carrier by carrier
  const float (*wIm)[GATE_CARRIERS];
  const float* startRe;  // the carriers' values, GATE_CARRIERS of them (zeros past ntrack)
  const float* startIm;
  const float* sign;     // S, ntrack of them
  const float* x;        // the samples, interleaved re, im
  int32_t span;          // steps d = 0 .. span - 1
  int32_t inAt;          // sample entering at d = 0, and the one leaving; both move by `direction`
  int32_t outAt;
  int32_t direction;
  float* rowsRe;         // the rows P, ntrack floats each, from the side's first row
  float* rowsIm;
  int32_t ntrack;
  float* profile;        // profile[d * direction] takes step d's sum
};

void SlideGateSideScalar(const GateSide& side);
#if defined(__x86_64__) || defined(__i386__)
void SlideGateSideAvx2(const GateSide& side);  // all GATE_CARRIERS carriers in one and a half registers
#endif
void SlideGateSideWith(VectorIsa isa, const GateSide& side);

}  // namespace zfn
