// Choice of the kernels' instruction set at run time.
#include "numeric/vector_isa.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace zfn {

namespace {

constexpr const char* CAP_VARIABLE = "ZFN_VECTOR";
constexpr int32_t NOT_CHOSEN = -1;

std::atomic<int32_t> activeIsa{NOT_CHOSEN};

VectorIsa CapFromEnvironment() {
  const char* value = std::getenv(CAP_VARIABLE);
  if (value == nullptr) return VectorIsa::AVX2;
  for (int32_t i = 0; i < VECTOR_ISA_COUNT; ++i) {
    if (std::strcmp(value, VectorIsaName(static_cast<VectorIsa>(i))) == 0) return static_cast<VectorIsa>(i);
  }
  return VectorIsa::AVX2;  // an unknown name caps nothing
}

VectorIsa Capped(VectorIsa cap) {
  const VectorIsa best = BestVectorIsa();
  return static_cast<int32_t>(cap) < static_cast<int32_t>(best) ? cap : best;
}

}  // namespace

bool VectorIsaAvailable(VectorIsa isa) {
  switch (isa) {
    case VectorIsa::SCALAR:
      return true;
#if defined(__x86_64__) || defined(__i386__)
    case VectorIsa::SSE2:
      return __builtin_cpu_supports("sse2");
    case VectorIsa::AVX2:
      return __builtin_cpu_supports("avx2");
#endif
    default:
      return false;
  }
}

VectorIsa BestVectorIsa() {
  if (VectorIsaAvailable(VectorIsa::AVX2)) return VectorIsa::AVX2;
  if (VectorIsaAvailable(VectorIsa::SSE2)) return VectorIsa::SSE2;
  return VectorIsa::SCALAR;
}

VectorIsa ActiveVectorIsa() {
  int32_t isa = activeIsa.load(std::memory_order_relaxed);
  if (isa == NOT_CHOSEN) {
    isa = static_cast<int32_t>(Capped(CapFromEnvironment()));
    activeIsa.store(isa, std::memory_order_relaxed);
  }
  return static_cast<VectorIsa>(isa);
}

void SetVectorIsaCap(VectorIsa cap) { activeIsa.store(static_cast<int32_t>(Capped(cap)), std::memory_order_relaxed); }

const char* VectorIsaName(VectorIsa isa) {
  switch (isa) {
    case VectorIsa::SSE2:
      return "sse2";
    case VectorIsa::AVX2:
      return "avx2";
    default:
      return "scalar";
  }
}

}  // namespace zfn
