#pragma once
// The adaptive filter across carriers: seven complex taps over the row of channel estimates on every
// third carrier, adapted after each entry whose carrier is a data carrier of the oldest symbol. The
// taps change from entry to entry, so the pass is one chain. To keep that chain short, an entry's
// output is formed from the taps one adaption behind plus the last error times the lag-one
// correlation of the row over the window, sum in(m)[k] conj(in(m-1)[k]): both sums lie off the
// chain, which keeps one complex multiply-add, the subtraction from the target and the step. Every
// sum of seven products is taken as ((p0 + p2) + (p4 + p6)) + ((p1 + p3) + p5), the tree that two
// values per register give; the vector variants keep every product and sum of the scalar
// reference in its order.
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
