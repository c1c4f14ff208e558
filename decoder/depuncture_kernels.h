#pragma once
// Depuncturing of the rate 2/3 inner code, the code rate of the common one-segment broadcast: every
// period of three soft bits X1 Y1 Y2 (ARIB STD-B31 puncturing of rate 2/3) becomes the two trellis
// steps (X1, Y1) and (neutral 16, Y2), packed as 16-bit pairs with X in the high byte. Byte moves
// only, so every variant gives the scalar reference's pairs bit for bit.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

// groups periods: 3 * groups soft bits in, 2 * groups pairs out (bits and pairs apart).
void DepunctureTwoThirdsScalar(const uint8_t* bits, uint16_t* pairs, int32_t groups);
#if defined(__x86_64__) || defined(__i386__)
void DepunctureTwoThirdsAvx2(const uint8_t* bits, uint16_t* pairs, int32_t groups);
#endif
void DepunctureTwoThirdsWith(VectorIsa isa, const uint8_t* bits, uint16_t* pairs, int32_t groups);

}  // namespace zfn
