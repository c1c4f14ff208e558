// One side of the timing gate: the reference and the choice of variant. The reference's carriers
// are independent lanes and the compiler may vectorise them; its sums over the carriers stay in
// carrier order.
#include "tracking/timing_gate_kernels.h"

namespace zfn {

void SlideGateSideScalar(const GateSide& side) {
  float terms[GATE_MAX_SPAN][GATE_CARRIERS];
  float tr[GATE_CARRIERS];
  float ti[GATE_CARRIERS];
  for (int32_t c = 0; c < GATE_CARRIERS; ++c) {
    tr[c] = side.startRe[c];
    ti[c] = side.startIm[c];
  }
  const float* x = side.x;
  for (int32_t d = 0; d < side.span; ++d) {
    const int32_t at = d * side.direction;
    const float dr = x[2 * (side.inAt + at)] - x[2 * (side.outAt + at)];
    const float di = x[2 * (side.inAt + at) + 1] - x[2 * (side.outAt + at) + 1];
    const float* wr = side.wRe[d];
    const float* wi = side.wIm[d];
    for (int32_t c = 0; c < GATE_CARRIERS; ++c) {
      const float nr = tr[c] + (dr * wr[c] - di * wi[c]);
      ti[c] = ti[c] + (dr * wi[c] + di * wr[c]);
      tr[c] = nr;
    }
    float* pr = side.rowsRe + d * side.ntrack;
    float* pi = side.rowsIm + d * side.ntrack;
    for (int32_t c = 0; c < side.ntrack; ++c) {
      const float er = tr[c] - side.sign[c] * pr[c];
      const float ei = ti[c] - side.sign[c] * pi[c];
      terms[d][c] = er * er + ei * ei;
      pr[c] = tr[c];
      pi[c] = ti[c];
    }
  }
  for (int32_t d = 0; d < side.span; ++d) {
    float sum = 0.0f;
    for (int32_t c = 0; c < side.ntrack; ++c) sum += terms[d][c];
    side.profile[d * side.direction] = sum;
  }
}

void SlideGateSideWith(VectorIsa isa, const GateSide& side) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2) && side.ntrack == GATE_CARRIERS) {
    SlideGateSideAvx2(side);
    return;
  }
#endif
  SlideGateSideScalar(side);
}

}  // namespace zfn
