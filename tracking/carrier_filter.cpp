// The filter across carriers: scalar reference and the choice of variant.
#include "tracking/carrier_filter.h"

#include "tracking/complex32.h"
#include "tracking/slicers.h"

namespace zfn {

namespace {

// The seven products of an entry summed as a tree rather than one after the other.
Cx TreeSum(const Cx (&p)[7]) { return ((p[0] + p[4]) + (p[2] + p[6])) + ((p[1] + p[5]) + p[3]); }

// b * e, each part as the vector variants form it: (b.re e.re + (-b.im) e.im, b.re e.im + b.im e.re).
Cx Product(Cx b, Cx e) { return {b.re * e.re + (-b.im) * e.im, b.re * e.im + b.im * e.re}; }

// The correlation of the window of entry m with the window `lag` entries before it.
Cx LagCorrelation(const float* row, int32_t m, int32_t lag) {
  Cx c[7];
  for (int32_t k = 0; k < 7; ++k) c[k] = MulConj(Load(row, m - 3 + k), Load(row, m - 3 - lag + k));
  return TreeSum(c);
}

}  // namespace

void FilterCarrierRowScalar(const CarrierFilterPass& pass) {
  // The taps live in locals for the pass: they change from entry to entry, and the rows they
  // multiply may not alias them. `before1` holds them one adaption behind `taps`, `before2` two.
  Cx taps[7], before1[7], before2[7];
  for (int32_t k = 0; k < 7; ++k) taps[k] = before1[k] = before2[k] = Load(pass.taps, k);
  // The errors of the two entries before, step included, and whether those entries adapted.
  Cx err1{0.0f, 0.0f}, err2{0.0f, 0.0f};
  bool adapted1 = false, adapted2 = false;
  const float negativeStep = -pass.step;
  for (int32_t m = 3; m <= pass.n - 5; ++m) {
    Cx in[7];
    for (int32_t k = 0; k < 7; ++k) in[k] = Load(pass.in, m - 3 + k);
    Cx p[7];
    for (int32_t k = 0; k < 7; ++k) p[k] = in[k] * before2[k];
    const Cx q = TreeSum(p);
    // The adaptions since `before2` each added conj(row window then) * err to every tap, so they
    // add err times the correlation of this window with that one to the output.
    const bool adapts = (m & 3) != pass.pilotPhase;  // carrier 3*m of the oldest symbol is no pilot
    Cx output = q;
    // Sliced against the unfiltered estimate, the error taken against the filtered one: step *
    // (target - output), with the output expanded as above, so that the error of the entry before
    // enters last, by one complex multiply-add.
    Cx err = adapts ? pass.step * (DecisionTarget(Load(pass.oldest, 3 * m), in[3], pass.bitsPerCarrier) - q) : Cx{0.0f, 0.0f};
    if (adapted2) {
      const Cx c2 = LagCorrelation(pass.in, m, 2);
      output = output + Product(c2, err2);
      if (adapts) err = err + Product(negativeStep * c2, err2);
    }
    if (adapted1) {
      const Cx c1 = LagCorrelation(pass.in, m, 1);
      output = output + Product(c1, err1);
      if (adapts) err = err + Product(negativeStep * c1, err1);
    }
    Store(pass.out, m, output);
    for (int32_t k = 0; k < 7; ++k) {
      before2[k] = before1[k];
      before1[k] = taps[k];
      if (adapts) taps[k] = taps[k] + Conj(in[k]) * err;
    }
    err2 = err1;
    adapted2 = adapted1;
    err1 = err;
    adapted1 = adapts;
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
