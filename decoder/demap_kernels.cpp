// Soft demapping of QPSK: scalar reference and the choice of variant.
#include "decoder/demap_kernels.h"

#include "decoder/decoder_stages.h"

namespace zfn {

// Kept scalar on purpose: the reference the vector variant is compared with and measured against.
__attribute__((optimize("no-tree-vectorize"))) void DemapQpskScalar(const float* values, uint8_t* soft,
                                                                    int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    const float v = values[i];
    soft[i] = SoftBit(16.0f - v);
  }
}

void DemapQpskWith(VectorIsa isa, const float* values, uint8_t* soft, int32_t count) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    DemapQpskAvx2(values, soft, count);
    return;
  }
#endif
  DemapQpskScalar(values, soft, count);
}

}  // namespace zfn
