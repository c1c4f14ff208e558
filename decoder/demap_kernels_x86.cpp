// Soft demapping of QPSK with 32 values per step: the same subtraction and the same selections as
// the scalar reference (a value below zero takes 0, above 31 takes 31, a NaN fails both comparisons
// and takes 16), truncation to integers, then packing to bytes. The 32 values are read before their
// 32 soft bits are written, so soft bits in front of the values never overwrite one not yet read.
// The values past the last whole step go through the scalar reference.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "decoder/demap_kernels.h"

namespace zfn {

namespace {

__attribute__((target("avx2"))) __m256i SoftBitsAvx2(__m256 v) {
  const __m256 zero = _mm256_setzero_ps();
  const __m256 top = _mm256_set1_ps(31.0f);
  __m256 c = _mm256_sub_ps(_mm256_set1_ps(16.0f), v);
  c = _mm256_blendv_ps(c, zero, _mm256_cmp_ps(c, zero, _CMP_LT_OQ));
  c = _mm256_blendv_ps(c, top, _mm256_cmp_ps(c, top, _CMP_GT_OQ));
  c = _mm256_blendv_ps(_mm256_set1_ps(16.0f), c, _mm256_cmp_ps(c, c, _CMP_EQ_OQ));
  return _mm256_cvttps_epi32(c);
}

}  // namespace

__attribute__((target("avx2"))) void DemapQpskAvx2(const float* values, uint8_t* soft, int32_t count) {
  // The packs work within each 128-bit lane: the four groups of four come out as a0 b0 c0 d0 a1 b1
  // c1 d1 (32-bit words); the permutation puts them back in order.
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  int32_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m256i a = SoftBitsAvx2(_mm256_loadu_ps(values + i));
    const __m256i b = SoftBitsAvx2(_mm256_loadu_ps(values + i + 8));
    const __m256i c = SoftBitsAvx2(_mm256_loadu_ps(values + i + 16));
    const __m256i d = SoftBitsAvx2(_mm256_loadu_ps(values + i + 24));
    const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(soft + i), _mm256_permutevar8x32_epi32(bytes, order));
  }
  DemapQpskScalar(values + i, soft + i, count - i);
}

}  // namespace zfn

#endif
