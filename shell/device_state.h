#pragma once
// DeviceState: the shell's process-wide record, zero at load, one instance.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct DeviceState {
  int32_t deviceBound;
  int dataEvent;  // eventfd, set by the sample source
  int32_t dataEventRegistered;
  RelaxedWord<int32_t> running;
  int32_t simulationMode;
  int32_t tunerType;
  // The shell adds its events, locks, callbacks and the capture ring here.
};

extern DeviceState device;

}  // namespace zfn
