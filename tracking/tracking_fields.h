#pragma once
// Fields of the engine record written by symbol tracking that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct TrackingFields {
  // Needed early by shell; owned by tracking
  RelaxedWord<float> snrDb;            // read by the quality status on the caller's thread
  RelaxedWord<int32_t> decodeStage;    // 0, 1 or 2; read by the lock status
  int8_t snrFailed;
  int8_t timingEnabled;
  int32_t timingStep;                  // samples, may be negative
  int32_t symbolCount;
};

}  // namespace zfn
