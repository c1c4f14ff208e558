// Depuncturing of rate 2/3: scalar reference and the choice of variant.
#include "decoder/depuncture_kernels.h"

namespace zfn {

// Kept scalar on purpose: the reference the vector variant is compared with and measured against.
__attribute__((optimize("no-tree-vectorize"))) void DepunctureTwoThirdsScalar(const uint8_t* bits, uint16_t* pairs,
                                                                             int32_t groups) {
  constexpr uint32_t NEUTRAL = 16;
  for (int32_t g = 0; g < groups; ++g) {
    pairs[2 * g] = static_cast<uint16_t>(bits[3 * g] << 8 | bits[3 * g + 1]);
    pairs[2 * g + 1] = static_cast<uint16_t>(NEUTRAL << 8 | bits[3 * g + 2]);
  }
}

void DepunctureTwoThirdsWith(VectorIsa isa, const uint8_t* bits, uint16_t* pairs, int32_t groups) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    DepunctureTwoThirdsAvx2(bits, pairs, groups);
    return;
  }
#endif
  DepunctureTwoThirdsScalar(bits, pairs, groups);
}

}  // namespace zfn
