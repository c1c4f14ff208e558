#pragma once
// DeviceState: the shell's process-wide record, zero at load, one instance. Beside it the
// ControlBlock, the five words between the API callers and the demodulation thread, and the
// ThreadTable of the three engine threads.
#include <atomic>
#include <cstdint>
#include <mutex>

#include "include/zfnisdbt.h"
#include "platform/auto_reset_event.h"
#include "platform/thread.h"
#include "shell/relaxed_word.h"

namespace zfn {

struct DebugParaBlock;

struct ControlBlock {
  RelaxedWord<int32_t> retuneRequest;  // set by RetuneReset, consumed by ProcessPendingBlocks
  RelaxedWord<int32_t> tuningNow;      // 1 while the tuner changes: no block is consumed
  RelaxedWord<int32_t> word2;          // zeroed only
  RelaxedWord<int32_t> word3;          // zeroed only
  RelaxedWord<float> lastSnrDb;        // copy of snrDb, written by signal quality estimation
};

// Demodulation, reception and packet thread, each with its id and handle.
struct ThreadTable {
  uint64_t demodulationId;
  platform::Thread demodulation;
  uint64_t receptionId;
  platform::Thread reception;
  uint64_t packetId;
  platform::Thread packet;
};

struct DeviceState {
  int32_t deviceBound;                  // 1 from a successful bind of the device library to close
  platform::AutoResetEvent dataEvent;   // set by the sample source whenever data can be fetched
  int32_t dataEventRegistered;          // dataEvent is registered with the device library
  RelaxedWord<int32_t> running;         // the threads run; the device is open exactly when non-zero
  int32_t simulationMode;               // set only by debug command 5; non-zero: simulator source
  int32_t tunerType;                    // written by the device library at open
  platform::AutoResetEvent blockEvent;  // reception -> demodulation; named platform::BLOCK_EVENT_NAME
  platform::AutoResetEvent controlLock; // the lock around the ControlBlock: take = wait, release = set
  platform::AutoResetEvent packetEvent; // wakes the packet thread
  // packetEvent set since the packet thread last started a drain: a packet handed over meanwhile
  // need not set it again (the event carries no count, and each setting costs a system call).
  std::atomic<bool> packetWakePending;
  std::mutex packetRingLock;            // guards the TsPacketRing
  RelaxedWord<ZFISDBT_TsCallback> tsCallback;  // read at each delivery on the packet thread
  RelaxedWord<ZFISDBT_AcCallback> acCallback;  // stored, never called
  uint8_t* captureRing;                 // 3 raw blocks, allocated as the last step of open
  DebugParaBlock* debugPara;            // the status block while open, else null
  ControlBlock* control;                // set at open
  ThreadTable* threads;                 // set at open
};

extern DeviceState device;
extern ControlBlock controlBlock;
extern ThreadTable threadTable;

// Capture ring: three raw blocks.
constexpr int32_t CAPTURE_RING_BYTES = 3 * 240640;

}  // namespace zfn
