#pragma once
// DeviceState: the shell's process-wide record, zero at load, one instance.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

// Needed early by tracking; owned by shell
// The twelve status words a developer can read; words are floats or ints as the word's meaning says,
// stored as their 32-bit patterns.
struct DebugParaBlock {
  RelaxedWord<int32_t> word[12];
};

struct DeviceState {
  int32_t deviceBound;
  int dataEvent;  // eventfd, set by the sample source
  int32_t dataEventRegistered;
  RelaxedWord<int32_t> running;
  int32_t simulationMode;
  int32_t tunerType;
  // The shell adds its events, locks, callbacks and the capture ring here.

  // Needed early by tracking; owned by shell
  DebugParaBlock* debugPara;  // the status words while open, else null
};

extern DeviceState device;

}  // namespace zfn
