// The byte to float conversion of a block with AVX2: eight groups of four bytes per step. Every
// value is exact, (byte - 127) / 128, as in the scalar reference.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "shell/block_scheduler.h"
#include "shell/shell_fields.h"

namespace zfn {

__attribute__((target("avx2"))) void ConvertBlockAvx2(const uint8_t* raw, float* samples) {
  const __m256i low = _mm256_set1_epi32(0xFF);
  const __m256i zero = _mm256_set1_epi32(127);
  const __m256 scale = _mm256_set1_ps(0.0078125f);
  constexpr int32_t STEP = 8;
  constexpr int32_t PREFETCH_AHEAD = 4096;  // bytes; a prefetch past the block's end is harmless
  static_assert(BLOCK_SAMPLES % STEP == 0);
  for (int32_t k = 0; k < BLOCK_SAMPLES; k += STEP) {
    // The block is usually read straight from the page cache, page by scattered page, where the
    // processor's own prefetch stops at every page edge: ask for the bytes a while ahead. They are
    // read once, so they are fetched past the caches the engine's own tables and rows live in.
    _mm_prefetch(reinterpret_cast<const char*>(raw + 4 * k + PREFETCH_AHEAD), _MM_HINT_NTA);
    const __m256i groups = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(raw + 4 * k));
    const __m256i i = _mm256_sub_epi32(_mm256_and_si256(groups, low), zero);
    const __m256i q = _mm256_sub_epi32(_mm256_and_si256(_mm256_srli_epi32(groups, 8), low), zero);
    const __m256 fi = _mm256_mul_ps(_mm256_cvtepi32_ps(i), scale);
    const __m256 fq = _mm256_mul_ps(_mm256_cvtepi32_ps(q), scale);
    // Within each half: samples 0, 1 | 4, 5 and 2, 3 | 6, 7, then the halves in order.
    const __m256 first = _mm256_unpacklo_ps(fi, fq);
    const __m256 second = _mm256_unpackhi_ps(fi, fq);
    _mm256_storeu_ps(samples + 2 * k, _mm256_permute2f128_ps(first, second, 0x20));
    _mm256_storeu_ps(samples + 2 * k + 8, _mm256_permute2f128_ps(first, second, 0x31));
  }
}

}  // namespace zfn

#endif
