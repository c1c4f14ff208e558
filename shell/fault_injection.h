#pragma once
// Deliberate failures of the shell's own resources, for the tests of the open and close paths:
// allocations, events and threads that the system would refuse only under memory or descriptor
// exhaustion. Nothing sets a fault outside the tests, and an unset fault costs one compare.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

enum class ShellFault : int32_t {
  None = 0,
  DataEvent,
  RingReadBuffer,
  RingAssemblyBuffer,
  RingSlot,
  BlockEvent,
  ReceptionThread,
  PacketEvent,
  PacketThread,
  ArenaAlloc,
  SampleBlockAlloc,
  ControlLock,
  DemodulationThread,
  CaptureRing,
};

extern RelaxedWord<int32_t> injectedFault;

inline bool FaultInjected(ShellFault fault) {
  return injectedFault.load() == static_cast<int32_t>(fault);
}

}  // namespace zfn
