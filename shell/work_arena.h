#pragma once
// Taking buffers from the work arena: the caller gets arenaNext and the pool moves on by the size.
// No alignment step (every buffer is a whole number of 4-byte words) and no per-item release.
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

}  // namespace zfn
