// Test build of the device access library: records what the receiver asks of the device, serves a
// known byte stream, and fails on request. See test_device_control.h.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "frontend/sample_source_contract.h"
#include "tests/support/common/test_byte_stream.h"
#include "tests/support/test_device/test_device_control.h"

#define ZFN_DEVICE_EXPORT extern "C" __attribute__((visibility("default")))

#ifndef ZFN_TEST_DEVICE_FLAVOUR
#define ZFN_TEST_DEVICE_FLAVOUR "testdevice"
#endif

namespace {

enum Function {
  kInit,
  kRelease,
  kSetFrequency,
  kSetBandwidth,
  kUpdate,
  kRead,
  kWrite,
  kGetData,
  kSetEvent,
  kReleaseEvent,
  kTunerType,
  kFunctionCount
};

constexpr const char* kFunctionNames[kFunctionCount] = {
    "ZFN_BDAFilterInit",   "ZFN_BDAFilterRelease", "ZFN_Set_Frequency",     "ZFN_Set_Bandwidth",
    "ZFN_DeviceUpdate",    "ZFN_Demod_Byte_Read",  "ZFN_Demod_Byte_Write",  "ZFN_GetData",
    "ZFN_SetDABEventHandle", "ZFN_ReleaseDABEventHandle", "ZFN_Get_TunerType"};

struct FailRule {
  bool active = false;
  int32_t fromCall = 0;
  int32_t count = 0;
  int64_t callsSinceSet = 0;
};

struct Access {
  int32_t isWrite;
  int32_t page;
  int32_t address;
  int32_t byteCount;
  uint8_t bytes[4];
  int32_t succeeded;
};

constexpr int32_t kPages = 2;
constexpr int32_t kAddresses = 256;

struct DeviceModel {
  std::mutex lock;
  std::vector<std::string> calls;
  std::vector<Access> accesses;
  FailRule failures[kFunctionCount];
  int32_t tunerType = 1;
  uint8_t registers[kPages][kAddresses] = {};
  zfn_test::ByteStream stream;
  int32_t eventPeriodMs = 5;
  bool initialised = false;
  bool eventRegistered = false;
  int eventFd = -1;

  void ResetLocked() {
    calls.clear();
    accesses.clear();
    for (FailRule& rule : failures) rule = FailRule{};
    tunerType = 1;
    std::memset(registers, 0, sizeof registers);
    stream = zfn_test::ByteStream{};
    eventPeriodMs = 5;
    zfn_test::ApplyStreamEnvironment("ZFN_TESTDEVICE_", stream, eventPeriodMs);
    if (const char* type = std::getenv("ZFN_TESTDEVICE_TUNER_TYPE")) tunerType = std::atoi(type);
    if (const char* name = std::getenv("ZFN_TESTDEVICE_FAIL")) {
      for (int32_t f = 0; f < kFunctionCount; ++f) {
        if (std::strcmp(name, kFunctionNames[f]) == 0) failures[f] = FailRule{true, 0, -1, 0};
      }
    }
    stream.Restart();
  }

  DeviceModel() { ResetLocked(); }

  // Counts the call and tells whether it is one of those told to fail.
  bool FailsNow(Function function) {
    FailRule& rule = failures[function];
    const int64_t call = rule.callsSinceSet++;
    if (!rule.active || call < rule.fromCall) return false;
    return rule.count < 0 || call < static_cast<int64_t>(rule.fromCall) + rule.count;
  }

  void Log(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char line[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    calls.emplace_back(line);
  }
};

DeviceModel model;
// Declared after the model so that it is destroyed first: an unload joins the thread before
// anything it could touch goes away. The thread itself touches only the eventfd.
zfn_test::EventTicker ticker;

void StartTickerIfReady() {
  if (model.initialised && model.eventRegistered) ticker.Start(model.eventFd, model.eventPeriodMs);
}

bool ValidAccess(int32_t page, int32_t address, int32_t byteCount, const uint8_t* bytes) {
  return bytes != nullptr && page >= 0 && page < kPages && address >= 0 && byteCount >= 1 && byteCount <= 4 &&
         address + byteCount <= kAddresses;
}

std::string HexBytes(const uint8_t* bytes, int32_t count) {
  std::string text;
  char piece[4];
  for (int32_t i = 0; i < count; ++i) {
    std::snprintf(piece, sizeof piece, " %02x", bytes[i]);
    text += piece;
  }
  return text;
}

int32_t RegisterAccess(bool isWrite, int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  std::lock_guard<std::mutex> hold(model.lock);
  const bool valid = ValidAccess(page, address, byteCount, bytes);
  if (isWrite) {
    model.Log("ZFN_Demod_Byte_Write %d %02x %d%s", page, address & 0xFF, byteCount,
              valid ? HexBytes(bytes, byteCount).c_str() : "");
  } else {
    model.Log("ZFN_Demod_Byte_Read %d %02x %d", page, address & 0xFF, byteCount);
  }
  const bool fails = model.FailsNow(isWrite ? kWrite : kRead);
  Access access{isWrite ? 1 : 0, page, address, byteCount, {}, 0};
  if (valid && !fails) {
    uint8_t* cell = &model.registers[page][address];
    if (isWrite) {
      std::memcpy(cell, bytes, static_cast<size_t>(byteCount));
    } else {
      std::memcpy(bytes, cell, static_cast<size_t>(byteCount));
    }
    access.succeeded = 1;
  }
  if (valid && isWrite) std::memcpy(access.bytes, bytes, static_cast<size_t>(byteCount));
  if (valid && !isWrite && access.succeeded) std::memcpy(access.bytes, bytes, static_cast<size_t>(byteCount));
  model.accesses.push_back(access);
  return access.succeeded;
}

}  // namespace

// ---- The device functions ------------------------------------------------------------------------

ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterInit(int32_t zero) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_BDAFilterInit %d", zero);
  if (model.FailsNow(kInit)) return 0;
  model.initialised = true;
  model.stream.Restart();
  StartTickerIfReady();
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterRelease(int32_t zero) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_BDAFilterRelease %d", zero);
  if (model.FailsNow(kRelease)) return 0;
  model.initialised = false;
  ticker.Stop();
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Set_Frequency(int32_t frequencyKHz) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_Set_Frequency %d", frequencyKHz);
  return model.FailsNow(kSetFrequency) ? 0 : 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Set_Bandwidth(int32_t bandwidthMHz) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_Set_Bandwidth %d", bandwidthMHz);
  return model.FailsNow(kSetBandwidth) ? 0 : 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_DeviceUpdate(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_DeviceUpdate");
  return model.FailsNow(kUpdate) ? 0 : 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Read(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  return RegisterAccess(false, page, address, byteCount, bytes);
}

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Write(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  return RegisterAccess(true, page, address, byteCount, bytes);
}

ZFN_DEVICE_EXPORT int32_t ZFN_GetData(uint8_t* buffer, int32_t bufferSize, int32_t* length, int32_t* aux) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_GetData %d %d", bufferSize, aux != nullptr ? *aux : -1);
  if (length == nullptr) return 0;
  *length = 0;
  if (model.FailsNow(kGetData)) return 0;
  if (model.initialised) *length = model.stream.Serve(buffer, bufferSize);
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_SetDABEventHandle(int* event) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_SetDABEventHandle");
  if (model.FailsNow(kSetEvent) || event == nullptr) return 0;
  // The descriptor is copied now: the thread never reads the caller's word.
  model.eventFd = *event;
  model.eventRegistered = true;
  StartTickerIfReady();
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_ReleaseDABEventHandle(int* event) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_ReleaseDABEventHandle");
  if (model.FailsNow(kReleaseEvent)) return 0;
  model.eventRegistered = false;
  ticker.Stop();
  return 1;
}

#ifndef ZFN_TEST_DEVICE_WITHOUT_TUNER_TYPE
ZFN_DEVICE_EXPORT int32_t ZFN_Get_TunerType(int32_t* tunerType) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.Log("ZFN_Get_TunerType");
  if (model.FailsNow(kTunerType) || tunerType == nullptr) return 0;
  *tunerType = model.tunerType;
  return 1;
}
#endif

// ---- Control -------------------------------------------------------------------------------------

ZFN_DEVICE_EXPORT void TestDevice_Reset(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.ResetLocked();
}

ZFN_DEVICE_EXPORT int32_t TestDevice_CallCount(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  return static_cast<int32_t>(model.calls.size());
}

ZFN_DEVICE_EXPORT int32_t TestDevice_GetCall(int32_t index, char* text, int32_t capacity) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (index < 0 || static_cast<size_t>(index) >= model.calls.size()) return -1;
  const std::string& line = model.calls[static_cast<size_t>(index)];
  if (text != nullptr && capacity > 0) std::snprintf(text, static_cast<size_t>(capacity), "%s", line.c_str());
  return static_cast<int32_t>(line.size());
}

ZFN_DEVICE_EXPORT int32_t TestDevice_AccessCount(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  return static_cast<int32_t>(model.accesses.size());
}

ZFN_DEVICE_EXPORT int32_t TestDevice_GetAccess(int32_t index, int32_t* isWrite, int32_t* page, int32_t* address,
                                               int32_t* byteCount, uint8_t* bytes, int32_t* succeeded) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (index < 0 || static_cast<size_t>(index) >= model.accesses.size()) return 0;
  const Access& access = model.accesses[static_cast<size_t>(index)];
  if (isWrite != nullptr) *isWrite = access.isWrite;
  if (page != nullptr) *page = access.page;
  if (address != nullptr) *address = access.address;
  if (byteCount != nullptr) *byteCount = access.byteCount;
  if (bytes != nullptr) std::memcpy(bytes, access.bytes, sizeof access.bytes);
  if (succeeded != nullptr) *succeeded = access.succeeded;
  return 1;
}

ZFN_DEVICE_EXPORT int32_t TestDevice_FailFunction(const char* name, int32_t fromCall, int32_t count) {
  if (name == nullptr) return 0;
  std::lock_guard<std::mutex> hold(model.lock);
  for (int32_t f = 0; f < kFunctionCount; ++f) {
    if (std::strcmp(name, kFunctionNames[f]) == 0) {
      model.failures[f] = FailRule{true, fromCall, count, 0};
      return 1;
    }
  }
  return 0;
}

ZFN_DEVICE_EXPORT void TestDevice_ClearFailures(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  for (FailRule& rule : model.failures) rule = FailRule{};
}

ZFN_DEVICE_EXPORT void TestDevice_SetTunerType(int32_t tunerType) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.tunerType = tunerType;
}

ZFN_DEVICE_EXPORT int32_t TestDevice_GetTunerType(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  return model.tunerType;
}

ZFN_DEVICE_EXPORT void TestDevice_SetRegister(int32_t page, int32_t address, uint8_t value) {
  if (page < 0 || page >= kPages || address < 0 || address >= kAddresses) return;
  std::lock_guard<std::mutex> hold(model.lock);
  model.registers[page][address] = value;
}

ZFN_DEVICE_EXPORT int32_t TestDevice_GetRegister(int32_t page, int32_t address) {
  if (page < 0 || page >= kPages || address < 0 || address >= kAddresses) return -1;
  std::lock_guard<std::mutex> hold(model.lock);
  return model.registers[page][address];
}

ZFN_DEVICE_EXPORT int32_t TestDevice_SetStreamBuffer(const uint8_t* data, int64_t size, int32_t loop) {
  if (size < 0 || (data == nullptr && size > 0)) return 0;
  std::lock_guard<std::mutex> hold(model.lock);
  model.stream.buffer.assign(data, data + size);
  model.stream.useBuffer = true;
  model.stream.loop = loop != 0;
  model.stream.position = 0;
  return 1;
}

ZFN_DEVICE_EXPORT void TestDevice_UsePattern(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.stream.useBuffer = false;
  model.stream.buffer.clear();
  model.stream.position = 0;
}

ZFN_DEVICE_EXPORT uint8_t TestDevice_PatternByte(int64_t k) { return zfn_test::PatternByte(static_cast<uint64_t>(k)); }

ZFN_DEVICE_EXPORT void TestDevice_SetReadLength(int32_t length, uint32_t seed, int32_t keepGroupsOfFour) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.stream.fixedLength = length > 0 ? length : 0;
  model.stream.seed = seed;
  model.stream.rngState = seed != 0 ? seed : 1;
  model.stream.keepGroupsOfFour = keepGroupsOfFour != 0;
}

ZFN_DEVICE_EXPORT void TestDevice_SetByteRate(int64_t bytesPerSecond) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.stream.bytesPerSecond = bytesPerSecond > 0 ? bytesPerSecond : 0;
}

ZFN_DEVICE_EXPORT void TestDevice_SetEventPeriod(int32_t milliseconds) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.eventPeriodMs = milliseconds > 0 ? milliseconds : 1;
}

ZFN_DEVICE_EXPORT int64_t TestDevice_BytesServed(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  return static_cast<int64_t>(model.stream.position);
}

ZFN_DEVICE_EXPORT int64_t TestDevice_EventsSignalled(void) { return ticker.Signalled(); }

ZFN_DEVICE_EXPORT int32_t TestDevice_EventThreadRunning(void) { return ticker.Running() ? 1 : 0; }

ZFN_DEVICE_EXPORT const char* TestDevice_Flavour(void) { return ZFN_TEST_DEVICE_FLAVOUR; }
