#pragma once
// Soft demapping of QPSK carriers: every real value v of the equalised carriers (re, im, re, im, ...)
// gives the soft bit of 16 - v, floored and clamped to 0..31, a NaN the neutral 16. Value by value,
// so every variant gives the scalar reference's bytes bit for bit.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

// `soft` may lie at or in front of `values` (the decoder keeps the soft bits in front of the carriers
// they come from): a value is read before any soft bit at or beyond its place is written.
void DemapQpskScalar(const float* values, uint8_t* soft, int32_t count);
#if defined(__x86_64__) || defined(__i386__)
void DemapQpskAvx2(const float* values, uint8_t* soft, int32_t count);
#endif
void DemapQpskWith(VectorIsa isa, const float* values, uint8_t* soft, int32_t count);

}  // namespace zfn
