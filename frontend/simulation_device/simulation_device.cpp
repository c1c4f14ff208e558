// The simulation build of the device access library. Simulation mode binds the device library even
// though the samples come from the simulator, and the running engine still sends its demodulator
// writes (sample clock corrections, reset pulses) through it. This build offers all eleven
// functions with no hardware behind them: register reads and writes go to a register file and
// succeed, the device itself never opens (so device mode fails its open cleanly with result 2),
// and there are never any samples.
#include <cstdint>
#include <cstring>
#include <atomic>
#include <mutex>

#include "frontend/sample_source_contract.h"

#define ZFN_DEVICE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr int32_t kPages = 2;
constexpr int32_t kAddresses = 256;

// Reads and writes come from the demodulation thread and the API caller's thread at once.
std::mutex registerLock;
uint8_t registers[kPages][kAddresses];
std::atomic<int32_t> tunedFrequencyKHz{0};

bool ValidAccess(int32_t page, int32_t address, int32_t byteCount, const uint8_t* bytes) {
  return bytes != nullptr && page >= 0 && page < kPages && address >= 0 && byteCount >= 1 && byteCount <= 4 &&
         address + byteCount <= kAddresses;
}

}  // namespace

ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterInit(int32_t) { return 0; }  // no hardware to find
ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterRelease(int32_t) { return 1; }
ZFN_DEVICE_EXPORT int32_t ZFN_Set_Frequency(int32_t frequencyKHz) {
  tunedFrequencyKHz.store(frequencyKHz, std::memory_order_relaxed);
  return 1;
}

// Beyond the receiver's function list: the frequency the tuner was last set to, in kHz as
// ZFN_Set_Frequency received it (the wanted channel + 600), 0 before any. The simulator asks it
// which channel it should be broadcasting on.
ZFN_DEVICE_EXPORT int32_t ZFN_TunedFrequencyKHz(void) { return tunedFrequencyKHz.load(std::memory_order_relaxed); }
ZFN_DEVICE_EXPORT int32_t ZFN_Set_Bandwidth(int32_t) { return 1; }
ZFN_DEVICE_EXPORT int32_t ZFN_DeviceUpdate(void) { return 1; }

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Read(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  if (!ValidAccess(page, address, byteCount, bytes)) return 0;
  std::lock_guard<std::mutex> hold(registerLock);
  std::memcpy(bytes, &registers[page][address], static_cast<size_t>(byteCount));
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Write(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  if (!ValidAccess(page, address, byteCount, bytes)) return 0;
  std::lock_guard<std::mutex> hold(registerLock);
  std::memcpy(&registers[page][address], bytes, static_cast<size_t>(byteCount));
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_GetData(uint8_t*, int32_t, int32_t* length, int32_t*) {
  if (length != nullptr) *length = 0;
  return 1;
}

// Nothing ever signals the event: there is no data to announce.
ZFN_DEVICE_EXPORT int32_t ZFN_SetDABEventHandle(int* event) { return event != nullptr ? 1 : 0; }
ZFN_DEVICE_EXPORT int32_t ZFN_ReleaseDABEventHandle(int*) { return 1; }

ZFN_DEVICE_EXPORT int32_t ZFN_Get_TunerType(int32_t* tunerType) {
  if (tunerType == nullptr) return 0;
  *tunerType = 0;
  return 1;
}

// The exported functions must match the contract the receiver binds them with.
namespace {
[[maybe_unused]] constexpr ZfnBdaFilterInitFn kCheckInit = &ZFN_BDAFilterInit;
[[maybe_unused]] constexpr ZfnBdaFilterReleaseFn kCheckRelease = &ZFN_BDAFilterRelease;
[[maybe_unused]] constexpr ZfnSetFrequencyFn kCheckFrequency = &ZFN_Set_Frequency;
[[maybe_unused]] constexpr ZfnSetBandwidthFn kCheckBandwidth = &ZFN_Set_Bandwidth;
[[maybe_unused]] constexpr ZfnDeviceUpdateFn kCheckUpdate = &ZFN_DeviceUpdate;
[[maybe_unused]] constexpr ZfnDemodByteReadFn kCheckRead = &ZFN_Demod_Byte_Read;
[[maybe_unused]] constexpr ZfnDemodByteWriteFn kCheckWrite = &ZFN_Demod_Byte_Write;
[[maybe_unused]] constexpr ZfnGetDataFn kCheckGetData = &ZFN_GetData;
[[maybe_unused]] constexpr ZfnSetDabEventHandleFn kCheckSetEvent = &ZFN_SetDABEventHandle;
[[maybe_unused]] constexpr ZfnReleaseDabEventHandleFn kCheckReleaseEvent = &ZFN_ReleaseDABEventHandle;
[[maybe_unused]] constexpr ZfnGetTunerTypeFn kCheckTunerType = &ZFN_Get_TunerType;
}  // namespace
