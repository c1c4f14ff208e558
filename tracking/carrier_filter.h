#pragma once
// The adaptive filter across carriers: seven complex taps over the row of channel estimates on every
// third carrier, adapted after each entry whose carrier is a data carrier of the oldest symbol. The
// taps change from entry to entry, so the pass is one chain. To keep that chain short, an entry's
// output is formed from the taps as they stood before the two entries before it, plus the errors
// of those entries times the correlations of the row over the window with their windows,
// c_l = sum in(m)[k] conj(in(m-l)[k]); the error, step * (target - output), is expanded the same
// way: err(m) = (step (target - P) - step c2 err(m-2)) - step c1 err(m-1), the terms of entries
// that did not adapt left out. The taps, their products and the correlations then lie off the
// chain from entry to entry, which keeps one complex multiply-add and one addition. Every sum of
// seven products is taken as ((p0 + p4) + (p2 + p6)) + ((p1 + p5) + p3), the tree that a window
// held as entries (0..3) and (4..6, pad) gives; the vector variants keep every product and sum of
// the scalar reference in its order.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

// The vector variants keep the lag-one products of a row on the stack; longer rows (none in any
// mode: the widest span has 240 entries) go to the scalar reference.
constexpr int32_t CARRIER_FILTER_MAX_ENTRIES = 256;

struct CarrierFilterPass {
  const float* in;      // the row before the filter, n complex entries
  float* out;           // entries 3 .. n-5 are written
  float* taps;          // 7 complex taps, adapted in place
  const float* oldest;  // carrier slot of the oldest symbol: entry m sits at carrier 3m
  int32_t n;
  int32_t pilotPhase;   // entries with (m & 3) == pilotPhase are pilots: no adaption
  int32_t bitsPerCarrier;
  float step;
};

void FilterCarrierRowScalar(const CarrierFilterPass& pass);
#if defined(__x86_64__) || defined(__i386__)
void FilterCarrierRowSse2(const CarrierFilterPass& pass);
void FilterCarrierRowAvx2(const CarrierFilterPass& pass);
#endif
void FilterCarrierRowWith(VectorIsa isa, const CarrierFilterPass& pass);

}  // namespace zfn
