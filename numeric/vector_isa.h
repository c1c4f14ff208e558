#pragma once
// The instruction sets of the hand-vectorised kernels. Every kernel has a plain scalar reference that
// is always compiled, and variants for the sets below; the variant is chosen at run time from what
// the processor has, capped by the environment variable ZFN_VECTOR ("scalar", "sse2" or "avx2") or by
// SetVectorIsaCap (benchmarks compare the variants in one run that way). Every variant gives the
// scalar reference's output bit for bit.
#include <cstdint>

namespace zfn {

enum class VectorIsa : int32_t { SCALAR = 0, SSE2 = 1, AVX2 = 2 };
constexpr int32_t VECTOR_ISA_COUNT = 3;

bool VectorIsaAvailable(VectorIsa isa);
VectorIsa BestVectorIsa();  // the best set of this processor, without any cap
// The set the kernels use now: the best one, capped. Read once per kernel call; cheap.
VectorIsa ActiveVectorIsa();
// Caps the sets from now on (the processor's limit still applies). Not for use while samples flow
// on another thread: benchmarks and tests only.
void SetVectorIsaCap(VectorIsa cap);
const char* VectorIsaName(VectorIsa isa);

}  // namespace zfn
