#pragma once
// The adaptive filter across carriers: seven complex taps over the row of channel estimates on every
// third carrier, adapted after each entry whose carrier is a data carrier of the oldest symbol. The
// taps change from entry to entry, so the pass is one chain; the SSE2 variant holds two complex
// values per register and keeps every product and sum of the scalar reference in its order. The
// seven products of an entry are summed as ((p0 + p2) + (p4 + p6)) + ((p1 + p3) + p5), the tree
// that two values per register give.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

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
#endif
void FilterCarrierRowWith(VectorIsa isa, const CarrierFilterPass& pass);

}  // namespace zfn
