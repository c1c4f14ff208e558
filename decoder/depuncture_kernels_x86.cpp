// Depuncturing of rate 2/3 with eight periods per step: each 128-bit lane takes four periods (12
// soft bits) and one byte shuffle lays them out as the little-endian pairs Y1 X1, Y2 and a zero
// byte that the neutral value fills. A lane's load reaches 4 bytes past its periods, so the steps
// stop while such a read would leave the soft bits; the periods after them go through the scalar
// reference.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "decoder/depuncture_kernels.h"

namespace zfn {

__attribute__((target("avx2"))) void DepunctureTwoThirdsAvx2(const uint8_t* bits, uint16_t* pairs, int32_t groups) {
  const __m256i order = _mm256_setr_epi8(1, 0, 2, -1, 4, 3, 5, -1, 7, 6, 8, -1, 10, 9, 11, -1,  //
                                         1, 0, 2, -1, 4, 3, 5, -1, 7, 6, 8, -1, 10, 9, 11, -1);
  const __m256i neutral = _mm256_set1_epi32(16 << 24);
  int32_t g = 0;
  for (; 3 * g + 12 + 16 <= 3 * groups; g += 8) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bits + 3 * g));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bits + 3 * g + 12));
    const __m256i periods = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
    const __m256i laid = _mm256_or_si256(_mm256_shuffle_epi8(periods, order), neutral);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(pairs + 2 * g), laid);
  }
  DepunctureTwoThirdsScalar(bits + 3 * g, pairs + 2 * g, groups - g);
}

}  // namespace zfn

#endif
