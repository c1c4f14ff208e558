#include "shell/lifecycle.h"

#include <chrono>
#include <cstdlib>
#include <thread>

#include "frontend/device_binding.h"
#include "shell/block_ring.h"
#include "shell/block_scheduler.h"
#include "shell/capture.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/engine_memory.h"
#include "shell/fault_injection.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"

namespace zfn {

DeviceState device;
ControlBlock controlBlock;
ThreadTable threadTable;
RelaxedWord<int32_t> injectedFault;

namespace {

constexpr auto TUNER_SETTLE_TIME = std::chrono::milliseconds(200);

// The simulator was started by this open and not yet stopped: its pacer writes to dataEvent until
// BDA_Stop_simulate, so every way out of open and close stops it before the event closes.
bool simulatorStarted = false;

// True on one of the receiver's own threads. Close and open there would join the thread that is
// calling them (the transport stream callback runs on the packet thread).
bool OnReceiverThread() {
  const uint64_t self = static_cast<uint64_t>(pthread_self());
  return (threadTable.packet.Exists() && threadTable.packet.Id() == self) ||
         (threadTable.demodulation.Exists() && threadTable.demodulation.Id() == self) ||
         (threadTable.reception.Exists() && threadTable.reception.Id() == self);
}

// Refinement: the stream has stopped (no block arrives) or the demodulation thread has stopped
// taking blocks. The status functions then answer no signal instead of their last values.
bool StreamStalled() {
  if (engine.refined == 0 || device.running == 0 || engine.blockState == BLOCK_IDLE) return false;
  const int64_t now = SteadyMilliseconds();
  return now - lastBlockArrivalMs.load() > STREAM_STALL_MS || now - lastBlockTakenMs.load() > STREAM_STALL_MS;
}

bool StartThread(platform::Thread& thread, uint64_t& id, void (*entry)(), ShellFault fault) {
  if (FaultInjected(fault)) return false;
  if (!thread.Start(entry)) return false;
  id = thread.Id();
  return true;
}

void JoinThread(platform::Thread& thread, uint64_t& id) {
  if (!thread.Exists()) return;
  thread.Join();
  id = 0;
}

// Releases what open took, in the one order that open's failure path and close share: threads and
// engine, the sample source, the data event, the capture ring, the device library. A failed open
// stops the simulator it started and releases what it took of the device; close goes by the sample
// source that simulationMode names: the simulator is stopped, or the device released.
void ReleaseDevice(bool closing) {
  device.running = 0;
  // The reception thread outlives the engine, so that the ring stays valid for its writer until the
  // writer is gone. packetRingLock is a mutex of static storage: nothing to delete.
  JoinThread(threadTable.packet, threadTable.packetId);
  JoinThread(threadTable.demodulation, threadTable.demodulationId);
  EngineFree();
  device.controlLock.Close();
  device.packetEvent.Close();
  JoinThread(threadTable.reception, threadTable.receptionId);
  BlockRingFree();
  device.blockEvent.Close();
  const bool simulated = device.simulationMode != 0;
  if (closing ? simulated : simulatorStarted) {
    // The simulator library stays loaded for the life of the process.
    simulatorStarted = false;
    if (simulatorBinding.BDA_Stop_simulate != nullptr) simulatorBinding.BDA_Stop_simulate();
  }
  if (!closing || !simulated) {
    if (device.dataEventRegistered != 0) {
      deviceBinding.ReleaseDABEventHandle(device.dataEvent.DescriptorAddress());
      device.dataEventRegistered = 0;
    }
    if (device.deviceBound != 0) deviceBinding.BDAFilterRelease(0);
    device.tunerType = 0;
  }
  device.dataEvent.Close();
  device.debugPara = nullptr;
  CaptureRingFree();
  UnbindDeviceLibrary();
  device.deviceBound = 0;
}

// The one unwinding path of a failed open, whichever step failed.
int32_t UnwindOpen(int32_t result) {
  ReleaseDevice(false);
  LogMessage("ISDBT API: <-- OPEN DAB DEVICE Fail\n");
  return result;
}

bool TakeControlLock() { return device.controlLock.Wait(platform::WAIT_INFINITE); }
void ReleaseControlLock() { device.controlLock.Set(); }

}  // namespace

void ClearControlBlock() {
  controlBlock.retuneRequest = 0;
  controlBlock.tuningNow = 0;
  controlBlock.word2 = 0;
  controlBlock.word3 = 0;
  controlBlock.lastSnrDb = 0.0f;
}

void RetuneReset() {
  // tuningNow is cleared and retuneRequest raised in one locked step, so that the demodulation
  // thread sees both at once.
  controlBlock.tuningNow = 0;
  controlBlock.word2 = 0;
  controlBlock.lastSnrDb = 0.0f;
  controlBlock.word3 = 0;
  controlBlock.retuneRequest = 1;

  DebugParaBlock& para = debugParaBlock;
  para.SetFloat(7, 0.0f);
  para.SetInt(6, 0);
  para.SetInt(4, 0);
  para.SetFloat(1, 0.0f);
  para.SetInt(5, -1);
  para.SetFloat(8, 0.0f);
  para.SetFloat(9, 0.0f);
  para.SetFloat(0, 0.0f);
  para.SetInt(2, 0);
  para.SetInt(3, -1);
  para.SetInt(10, -1);
  para.SetFloat(11, -1.0f);
  MarkStreamProgress();
}

int32_t OpenDevice() {
  LogMessage("ISDBT API: --> Device On\n");
  if (device.running != 0 || OnReceiverThread()) {
    // A second open over a live one would start every thread again over the running state: refused,
    // and the open device is left as it is.
    LogMessage("ISDBT API: <-- OPEN DAB DEVICE Fail\n");
    return 0;
  }
  device.control = &controlBlock;
  device.threads = &threadTable;
  threadTable.demodulation.Forget();
  threadTable.reception.Forget();
  threadTable.packet.Forget();

  if (BindDeviceLibrary() == 0) return UnwindOpen(0);
  device.deviceBound = 1;
  if (FaultInjected(ShellFault::DataEvent) || !device.dataEvent.Create()) return UnwindOpen(0);

  if (device.simulationMode != 0) {
    // A simulator that does not start leaves everything as it is: no unwinding.
    if (BindSimulator(device.dataEvent.DescriptorAddress()) == -1) return 0;
    simulatorStarted = true;
  } else {
    if (deviceBinding.BDAFilterInit(0) == 0) return UnwindOpen(2);
    if (deviceBinding.SetDABEventHandle(device.dataEvent.DescriptorAddress()) == 0) return UnwindOpen(0);
    device.dataEventRegistered = 1;
    if (deviceBinding.Get_TunerType(&device.tunerType) == 0) return UnwindOpen(0);
  }
  if (device.simulationMode == 0 && ProgramDemodulator() == 0) return UnwindOpen(0);

  MarkStreamProgress();
  device.running = 1;
  if (BlockRingAlloc() == 0) return UnwindOpen(0);
  if (FaultInjected(ShellFault::BlockEvent) || !device.blockEvent.Create()) return UnwindOpen(0);
  if (!StartThread(threadTable.reception, threadTable.receptionId, ReceptionThread,
                   ShellFault::ReceptionThread)) {
    return UnwindOpen(0);
  }
  if (FaultInjected(ShellFault::PacketEvent) || !device.packetEvent.Create()) return UnwindOpen(0);
  if (!StartThread(threadTable.packet, threadTable.packetId, PacketThread, ShellFault::PacketThread)) {
    return UnwindOpen(0);
  }
  ClearControlBlock();
  if (EngineInit() == 0) return UnwindOpen(0);
  // Created signalled: the lock starts free.
  if (FaultInjected(ShellFault::ControlLock) || !device.controlLock.Create(true)) return UnwindOpen(0);
  if (!StartThread(threadTable.demodulation, threadTable.demodulationId, DemodulationThread,
                   ShellFault::DemodulationThread)) {
    return UnwindOpen(0);
  }

  device.debugPara = &debugParaBlock;
  // Failing this last allocation leaves threads and device running; close unwinds them.
  if (CaptureRingAlloc() == 0) return 0;

  LogMessage("ISDBT API: <-- OPEN DAB DEVICE SUCCEED\n");
  return 1;
}

int32_t CloseDevice() {
  LogMessage("ISDBT API: --> ISDBT_DeviceOff()\n");
  if (device.running == 0) {
    LogMessage("ISDBT API: <-- ZFISDBT_OpenDevice() has not been invoked,  ISDBT_DeviceOff() OK\n");
    return 1;
  }
  if (OnReceiverThread()) {
    // From inside the transport stream callback: the packet thread cannot join itself, and the
    // engine it is running in must not be freed under it. Refused; the device stays open.
    LogMessage("ISDBT API: <-- ISDBT_DeviceOff() refused on a receiver thread\n");
    return 0;
  }
  ReleaseDevice(true);
  device.simulationMode = 0;
  captureOn = 0;
  LogMessage("ISDBT API: <-- ISDBT_DeviceOff() OK\n");
  return 1;
}

int32_t SetFrequency(int32_t frequencyKHz) {
  LogMessage("ISDBT API: --> Set frequency %d and bandwidth\n", frequencyKHz);
  if (device.simulationMode == 1) {
    // The simulator has no tuner: the frequency has no effect, acquisition just starts over.
    if (TakeControlLock()) {
      RetuneReset();
      ReleaseControlLock();
    }
    LogMessage("ISDBT API: <-- Set frequency and bandwidth OK\n");
    return 1;
  }
  if (device.running == 0) {
    LogMessage("ISDBT API: <-- Set frequency Fail\n");
    return 0;
  }
  if (device.dataEventRegistered == 0) {
    // Late registration with the device library (not reached after a successful device open).
    ClearControlBlock();
    if (deviceBinding.SetDABEventHandle(device.dataEvent.DescriptorAddress()) == 0) {
      LogMessage("ISDBT API: <-- Set frequency Fail\n");
      return 0;
    }
    device.dataEventRegistered = 1;
    if (ProgramDemodulator() == 0) {
      LogMessage("ISDBT API: <-- Set frequency Fail\n");
      return 0;
    }
  }
  // From here the demodulation thread consumes no block until RetuneReset.
  controlBlock.tuningNow = 1;
  // A tuner failure does not fail the retune: the lock status then tells of no signal.
  TuneFrontEnd(frequencyKHz, 6, 0);
  std::this_thread::sleep_for(TUNER_SETTLE_TIME);  // samples of the settling time are dropped
  if (TakeControlLock()) {
    RetuneReset();
    ReleaseControlLock();
  }
  LogMessage("ISDBT API: <-- Set frequency %d OK\n", frequencyKHz);
  return 1;
}

int32_t SignalPresentStatus() {
  if (StreamStalled()) return -1;
  const int32_t state = engine.blockState;
  if (state == BLOCK_NO_SIGNAL) return -1;
  if (state == BLOCK_TRACKING) return 1;
  return 0;
}

int32_t SignalLockStatus() {
  if (StreamStalled()) return -1;
  if (engine.blockState != BLOCK_TRACKING) return 0;
  if (engine.decodeStage == DECODE_STREAM) {
    if (engine.goodFrameRun > LOCK_GOOD_RUN_ABOVE && engine.badFrameRun < LOCK_BAD_RUN_BELOW) return 1;
    if (engine.badFrameRun > NO_LOCK_BAD_RUN_ABOVE) return -1;
    return 0;
  }
  return engine.anyGoodMark == 1 ? 1 : 0;
}

int32_t SignalQualityStatus() {
  const float snr = engine.snrDb;
  if (StreamStalled()) return 0;
  if (engine.blockState != BLOCK_TRACKING || !(snr > 0.0f)) return 0;
  constexpr float THRESHOLD_DB[5] = {6.0f, 8.0f, 10.0f, 15.0f, 20.0f};
  constexpr int32_t QUALITY[5] = {20, 40, 60, 80, 100};
  for (int i = 4; i >= 0; --i) {
    if (snr > THRESHOLD_DB[i]) return QUALITY[i];
  }
  return 0;
}

int32_t GetSignalPresent(int32_t* present) {
  if (present == nullptr) return 0;
  LogMessage("ISDBT API: --> GetSignalPresent\n");
  const int32_t status = SignalPresentStatus();
  if (status == 1) {
    *present = 1;
    LogMessage("ISDBT API: <-- Signal Present\n");
    return 1;
  }
  if (status == -1) {
    *present = 0;
    LogMessage("ISDBT API: <-- Signal Not Present\n");
    return 1;
  }
  // Not sure: the caller's word is left as it was.
  LogMessage("ISDBT API: <-- GetSignalPresent: Not Sure\n");
  return 0;
}

int32_t GetSignalLock(int32_t* locked) {
  if (locked == nullptr) return 0;
  LogMessage("ISDBT API: --> GetSignalLock\n");
  const int32_t status = SignalLockStatus();
  if (status == 1) {
    *locked = 1;
    LogMessage("ISDBT API: <-- Signal Lock\n");
    return 1;
  }
  if (status == -1) {
    *locked = 0;
    LogMessage("ISDBT API: <-- Signal Not Lock\n");
    return 1;
  }
  // Not sure: unlike the presence status, the caller's word is written with 0.
  *locked = 0;
  LogMessage("ISDBT API: <-- GetSignalLock: Not Sure\n");
  return 0;
}

int32_t GetSignalQuality(int32_t* quality) {
  if (quality == nullptr) return 0;
  LogMessage("ISDBT API: --> GetSignalQuality\n");
  const int32_t value = SignalQualityStatus();
  *quality = value;
  LogMessage("ISDBT API: <-- Signal Quality %d\n", value);
  return 1;
}

int32_t SetTsCallback(ZFISDBT_TsCallback callback) {
  if (callback == nullptr) {
    LogMessage("ISDBT API: <--> Set TS CallBack Fail\n");
    return 0;
  }
  device.tsCallback = callback;
  LogMessage("ISDBT API: <--> Set TS CallBack OK\n");
  return 1;
}

int32_t SetAcCallback(ZFISDBT_AcCallback callback) {
  if (callback == nullptr) {
    LogMessage("ISDBT API: <--> Set AC CallBack Fail\n");
    return 0;
  }
  device.acCallback = callback;
  LogMessage("ISDBT API: <--> Set AC CallBack OK\n");
  return 1;
}

}  // namespace zfn
