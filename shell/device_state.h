#pragma once
// DeviceState: the shell's process-wide record, zero at load, one instance.
#include <cstdint>

#include <mutex>

#include "shell/relaxed_word.h"

namespace zfn {

// Needed early by decoder; owned by shell
// Receiver of the transport stream: pointer to the data and its byte count (24064), packet thread.
using TsCallbackFn = void (*)(uint8_t* data, int32_t length);
// The record shared with the plotting bridge; the decoder writes only ratesCell.
struct MatlabProbe {
  double* carrierRe;
  double* carrierIm;
  int32_t fillIndex;
  double* snrCell;
  double* frequencyCell;
  void* reserved5;
  void* reserved6;
  double* ratesCell;  // packetErrorRate, byteErrorRate, packetFailRate
  double* channelRe;
  double* channelIm;
  double* slotRe;
  double* slotIm;
  double* timingProfile;
  double* jumpList;
  double* stateCell;
  double* channelStateCell;
  int* updateEvent;
};
// End of the block needed early by decoder

struct DeviceState {
  int32_t deviceBound;
  int dataEvent;  // eventfd, set by the sample source
  int32_t dataEventRegistered;
  RelaxedWord<int32_t> running;
  int32_t simulationMode;
  int32_t tunerType;
  // The shell adds its events, locks, callbacks and the capture ring here.

  // Needed early by decoder; owned by shell
  int packetEvent;             // eventfd: wakes the packet thread
  std::mutex packetRingLock;   // guards the TsPacketRing indices and the writer's slot copy
  RelaxedWord<TsCallbackFn> tsCallback;
  RelaxedWord<uint32_t>* debugPara;  // the twelve status words while open, else null
  MatlabProbe* matlabProbe;
};

extern DeviceState device;

}  // namespace zfn
