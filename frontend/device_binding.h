#pragma once
// Run-time binding of the sample sources: the device access library and the simulator.
#include <cstdint>

#include "frontend/sample_source_contract.h"

namespace zfn {

struct DeviceBinding {
  void* library;
  ZfnBdaFilterInitFn BDAFilterInit;
  ZfnBdaFilterReleaseFn BDAFilterRelease;
  ZfnSetFrequencyFn Set_Frequency;
  ZfnSetBandwidthFn Set_Bandwidth;
  ZfnDeviceUpdateFn DeviceUpdate;
  ZfnDemodByteReadFn Demod_Byte_Read;
  ZfnDemodByteWriteFn Demod_Byte_Write;
  ZfnGetDataFn GetData;
  ZfnSetDabEventHandleFn SetDABEventHandle;
  ZfnReleaseDabEventHandleFn ReleaseDABEventHandle;
  ZfnGetTunerTypeFn Get_TunerType;
};

struct SimulatorBinding {
  void* library;
  SimSetEventHandleFn SetEventHandle;
  SimStartFn BDA_Start_simulate;
  SimGetDataFn GetData;
  SimStopFn BDA_Stop_simulate;
};

extern DeviceBinding deviceBinding;
extern SimulatorBinding simulatorBinding;

int32_t BindDeviceLibrary();        // 1 bound, 0 absent or incomplete
void UnbindDeviceLibrary();
int32_t BindSimulator(int* event);  // 0 started, -1 failed

}  // namespace zfn
