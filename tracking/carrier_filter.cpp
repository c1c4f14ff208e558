// The filter across carriers: scalar reference and the choice of variant.
#include "tracking/carrier_filter.h"

#include "tracking/complex32.h"
#include "tracking/slicers.h"

namespace zfn {

namespace {

// The seven products of an entry summed as a tree rather than one after the other.
Cx TreeSum(const Cx (&p)[7]) { return ((p[0] + p[2]) + (p[4] + p[6])) + ((p[1] + p[3]) + p[5]); }

}  // namespace

void FilterCarrierRowScalar(const CarrierFilterPass& pass) {
  // The taps live in locals for the pass: they change from entry to entry, and the rows they
  // multiply may not alias them. `lagged` holds them one adaption behind `taps`.
  Cx taps[7], lagged[7];
  for (int32_t k = 0; k < 7; ++k) taps[k] = lagged[k] = Load(pass.taps, k);
  bool adaptedBefore = false;  // whether the previous entry adapted the taps, with this error
  Cx errBefore{0.0f, 0.0f};
  for (int32_t m = 3; m <= pass.n - 5; ++m) {
    Cx in[7];
    for (int32_t k = 0; k < 7; ++k) in[k] = Load(pass.in, m - 3 + k);
    Cx p[7];
    for (int32_t k = 0; k < 7; ++k) p[k] = in[k] * lagged[k];
    Cx w = TreeSum(p);
    if (adaptedBefore) {
      // The previous adaption added conj(row window before) * err to every tap, so it adds err
      // times the lag-one correlation of the row over the window to the output.
      Cx c[7];
      for (int32_t k = 0; k < 7; ++k) c[k] = MulConj(in[k], Load(pass.in, m - 4 + k));
      w = w + errBefore * TreeSum(c);
    }
    Store(pass.out, m, w);
    for (int32_t k = 0; k < 7; ++k) lagged[k] = taps[k];
    adaptedBefore = (m & 3) != pass.pilotPhase;  // carrier 3*m of the oldest symbol is a pilot
    if (!adaptedBefore) continue;
    // Sliced against the unfiltered estimate, the error taken against the filtered one.
    const Cx r = Load(pass.oldest, 3 * m);
    errBefore = pass.step * (DecisionTarget(r, in[3], pass.bitsPerCarrier) - w);
    for (int32_t k = 0; k < 7; ++k) taps[k] = taps[k] + Conj(in[k]) * errBefore;
  }
  for (int32_t k = 0; k < 7; ++k) Store(pass.taps, k, taps[k]);
}

void FilterCarrierRowWith(VectorIsa isa, const CarrierFilterPass& pass) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && pass.n <= CARRIER_FILTER_MAX_ENTRIES && VectorIsaAvailable(VectorIsa::AVX2)) {
    FilterCarrierRowAvx2(pass);
    return;
  }
  if (isa != VectorIsa::SCALAR && pass.n <= CARRIER_FILTER_MAX_ENTRIES && VectorIsaAvailable(VectorIsa::SSE2)) {
    FilterCarrierRowSse2(pass);
    return;
  }
#endif
  FilterCarrierRowScalar(pass);
}

}  // namespace zfn
