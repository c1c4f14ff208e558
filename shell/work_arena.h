#pragma once
// Taking buffers from the work arena: the caller gets arenaNext and the pool moves on by the size.
// No alignment step (every buffer is a whole number of 4-byte words) and no per-item release, except
// for ArenaTakeAligned: rows that a transform works on in place start on a cache line, so the
// transform's plan for aligned data serves them.
#include <cstddef>
#include <cstdint>

#include "shell/receiver_state.h"

namespace zfn {

inline uint8_t* ArenaTakeBytes(int32_t bytes) {
  uint8_t* p = engine.arenaNext;
  engine.arenaNext += bytes;
  engine.arenaFree -= bytes;
  return p;
}

template <class T>
T* ArenaTake(int32_t count) {
  return reinterpret_cast<T*>(ArenaTakeBytes(count * static_cast<int32_t>(sizeof(T))));
}

constexpr int32_t ARENA_LINE = 64;

template <class T>
T* ArenaTakeAligned(int32_t count) {
  const auto at = reinterpret_cast<uintptr_t>(engine.arenaNext);
  ArenaTakeBytes(static_cast<int32_t>((ARENA_LINE - at % ARENA_LINE) % ARENA_LINE));
  return ArenaTake<T>(count);
}

}  // namespace zfn
