// The filter across carriers: scalar reference and the choice of variant.
#include "tracking/carrier_filter.h"

#include "tracking/complex32.h"
#include "tracking/slicers.h"

namespace zfn {

void FilterCarrierRowScalar(const CarrierFilterPass& pass) {
  // The taps live in locals for the pass: they change from entry to entry, and the rows they
  // multiply may not alias them.
  Cx taps[7];
  for (int32_t k = 0; k < 7; ++k) taps[k] = Load(pass.taps, k);
  for (int32_t m = 3; m <= pass.n - 5; ++m) {
    Cx in[7];
    for (int32_t k = 0; k < 7; ++k) in[k] = Load(pass.in, m - 3 + k);
    Cx p[7];
    for (int32_t k = 0; k < 7; ++k) p[k] = in[k] * taps[k];
    // The seven products summed as a tree rather than one after the other: the taps change with
    // every entry, so this sum lies on the chain from one entry to the next.
    const Cx w = ((p[0] + p[2]) + (p[4] + p[6])) + ((p[1] + p[3]) + p[5]);
    Store(pass.out, m, w);
    if ((m & 3) == pass.pilotPhase) continue;  // carrier 3*m of the oldest symbol is a pilot
    // Sliced against the unfiltered estimate, the error taken against the filtered one.
    const Cx r = Load(pass.oldest, 3 * m);
    const Cx err = pass.step * (DecisionTarget(r, in[3], pass.bitsPerCarrier) - w);
    for (int32_t k = 0; k < 7; ++k) taps[k] = taps[k] + Conj(in[k]) * err;
  }
  for (int32_t k = 0; k < 7; ++k) Store(pass.taps, k, taps[k]);
}

void FilterCarrierRowWith(VectorIsa isa, const CarrierFilterPass& pass) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa != VectorIsa::SCALAR && VectorIsaAvailable(VectorIsa::SSE2)) {
    FilterCarrierRowSse2(pass);
    return;
  }
#endif
  FilterCarrierRowScalar(pass);
}

}  // namespace zfn
