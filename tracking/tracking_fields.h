#pragma once
// Fields of the engine record written by symbol tracking that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct TrackingFields {

  // Needed early by decoder; owned by tracking
  float* equalisedCarriers;              // ndata complex values, hand-over to SymbolSink
  RelaxedWord<int32_t> symbolCount;      // symbols since tracking began; read by the packet thread
  RelaxedWord<int32_t> decodeStage;      // 0, 1 or 2; read by the packet thread and the lock status
};

}  // namespace zfn
