#pragma once
// Fields of the engine record written by symbol tracking that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct TrackingFields {
  // Needed early by shell and decoder; owned by tracking
  RelaxedWord<float> snrDb;            // read by the quality status on the caller's thread
  RelaxedWord<int32_t> decodeStage;    // 0, 1 or 2; read by the lock status and the packet thread
  int8_t snrFailed;
  int8_t timingEnabled;
  int32_t timingStep;                  // samples, may be negative
  RelaxedWord<int32_t> symbolCount;    // symbols since tracking began; read by the packet thread
  float* equalisedCarriers;            // ndata complex values, hand-over to SymbolSink
};

}  // namespace zfn
