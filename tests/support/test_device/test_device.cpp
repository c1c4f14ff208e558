// Test build of the device access library: records what the receiver asks of the device, serves a
// known byte stream, and fails on request. See test_device_control.h.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "frontend/sample_source_contract.h"
#include "tests/support/common/test_byte_stream.h"
#include "tests/support/test_device/test_device_control.h"

#define ZFN_DEVICE_EXPORT extern "C" __attribute__((visibility("default")))

#ifndef ZFN_TEST_DEVICE_FLAVOUR
#define ZFN_TEST_DEVICE_FLAVOUR "testdevice"
#endif

namespace {

enum Function { kInit, kRelease, kSetFrequency, kSetBandwidth, kUpdate, kRead, kWrite, kGetData, kSetEvent,
                kReleaseEvent, kTunerType, kFunctionCount };

constexpr const char* kFunctionNames[kFunctionCount] = {
    "ZFN_BDAFilterInit",   "ZFN_BDAFilterRelease", "ZFN_Set_Frequency",     "ZFN_Set_Bandwidth",
    "ZFN_DeviceUpdate",    "ZFN_Demod_Byte_Read",  "ZFN_Demod_Byte_Write",  "ZFN_GetData",
    "ZFN_SetDABEventHandle", "ZFN_ReleaseDABEventHandle", "ZFN_Get_TunerType"};

struct FailRule {
  bool active = false;
  int32_t fromCall = 0, count = 0;
  int64_t callsSinceSet = 0;
};

struct Access {
  int32_t isWrite, page, address, byteCount;
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
  bool initialised = false, eventRegistered = false;
  int eventFd = -1;

  void ResetLocked() {
    calls.clear();
    accesses.clear();
    std::fill(std::begin(failures), std::end(failures), FailRule{});
    tunerType = 1;
    std::memset(registers, 0, sizeof registers);
    stream = zfn_test::ByteStream{};
    eventPeriodMs = 5;
    stream.Restart();
  }

  DeviceModel() { ResetLocked(); }

  // Logs the call and tells whether it is one of those told to fail.
  bool Call(Function function, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    char line[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    calls.emplace_back(line);
    FailRule& rule = failures[function];
    const int64_t call = rule.callsSinceSet++;
    if (!rule.active || call < rule.fromCall) return false;
    return rule.count < 0 || call < static_cast<int64_t>(rule.fromCall) + rule.count;
  }
};

DeviceModel model;
// Declared after the model so that it is destroyed first: an unload joins the thread before
// anything it could touch goes away. The thread itself touches only the eventfd.
zfn_test::EventTicker ticker;

void StartTickerIfReady() {
  if (model.initialised && model.eventRegistered) ticker.Start(model.eventFd, model.eventPeriodMs);
}

int32_t RegisterAccess(bool isWrite, int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  std::lock_guard<std::mutex> hold(model.lock);
  const bool valid = bytes != nullptr && page >= 0 && page < kPages && address >= 0 && byteCount >= 1 &&
                     byteCount <= 4 && address + byteCount <= kAddresses;
  std::string hex;
  for (int32_t i = 0; isWrite && valid && i < byteCount; ++i) {
    char piece[4];
    std::snprintf(piece, sizeof piece, " %02x", bytes[i]);
    hex += piece;
  }
  const bool fails = model.Call(isWrite ? kWrite : kRead, "ZFN_Demod_Byte_%s %d %02x %d%s", isWrite ? "Write" : "Read",
                                page, address & 0xFF, byteCount, hex.c_str());
  Access access{isWrite ? 1 : 0, page, address, byteCount, {}, valid && !fails ? 1 : 0};
  if (access.succeeded) {
    uint8_t* cell = &model.registers[page][address];
    std::memcpy(isWrite ? cell : bytes, isWrite ? bytes : cell, static_cast<size_t>(byteCount));
  }
  if (valid && (isWrite || access.succeeded)) std::memcpy(access.bytes, bytes, static_cast<size_t>(byteCount));
  model.accesses.push_back(access);
  return access.succeeded;
}

}  // namespace

// ---- The device functions ------------------------------------------------------------------------

ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterInit(int32_t zero) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Call(kInit, "ZFN_BDAFilterInit %d", zero)) return 0;
  model.initialised = true;
  model.stream.Restart();
  StartTickerIfReady();
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterRelease(int32_t zero) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Call(kRelease, "ZFN_BDAFilterRelease %d", zero)) return 0;
  model.initialised = false;
  ticker.Stop();
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Set_Frequency(int32_t frequencyKHz) {
  std::lock_guard<std::mutex> hold(model.lock);
  return model.Call(kSetFrequency, "ZFN_Set_Frequency %d", frequencyKHz) ? 0 : 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Set_Bandwidth(int32_t bandwidthMHz) {
  std::lock_guard<std::mutex> hold(model.lock);
  return model.Call(kSetBandwidth, "ZFN_Set_Bandwidth %d", bandwidthMHz) ? 0 : 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_DeviceUpdate(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  return model.Call(kUpdate, "ZFN_DeviceUpdate") ? 0 : 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Read(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  return RegisterAccess(false, page, address, byteCount, bytes);
}

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Write(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  return RegisterAccess(true, page, address, byteCount, bytes);
}

ZFN_DEVICE_EXPORT int32_t ZFN_GetData(uint8_t* buffer, int32_t bufferSize, int32_t* length, int32_t* aux) {
  std::lock_guard<std::mutex> hold(model.lock);
  const bool fails = model.Call(kGetData, "ZFN_GetData %d %d", bufferSize, aux != nullptr ? *aux : -1);
  if (length == nullptr) return 0;
  *length = 0;
  if (fails) return 0;
  if (model.initialised) *length = model.stream.Serve(buffer, bufferSize);
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_SetDABEventHandle(int* event) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Call(kSetEvent, "ZFN_SetDABEventHandle") || event == nullptr) return 0;
  model.eventFd = *event;  // copied now: the thread never reads the caller's word
  model.eventRegistered = true;
  StartTickerIfReady();
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_ReleaseDABEventHandle(int* /*event*/) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Call(kReleaseEvent, "ZFN_ReleaseDABEventHandle")) return 0;
  model.eventRegistered = false;
  ticker.Stop();
  return 1;
}

#ifndef ZFN_TEST_DEVICE_WITHOUT_TUNER_TYPE
ZFN_DEVICE_EXPORT int32_t ZFN_Get_TunerType(int32_t* tunerType) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Call(kTunerType, "ZFN_Get_TunerType") || tunerType == nullptr) return 0;
  *tunerType = model.tunerType;
  return 1;
}
#endif

// ---- Control -------------------------------------------------------------------------------------

namespace {
template <class Action>
auto Locked(Action action) {
  std::lock_guard<std::mutex> hold(model.lock);
  return action();
}
bool ValidCell(int32_t page, int32_t address) { return page >= 0 && page < kPages && address >= 0 && address < kAddresses; }
}  // namespace

ZFN_DEVICE_EXPORT void TestDevice_Reset(void) { Locked([] { model.ResetLocked(); }); }

ZFN_DEVICE_EXPORT int32_t TestDevice_CallCount(void) { return Locked([] { return static_cast<int32_t>(model.calls.size()); }); }

ZFN_DEVICE_EXPORT int32_t TestDevice_GetCall(int32_t index, char* text, int32_t capacity) {
  return Locked([&] {
    if (index < 0 || static_cast<size_t>(index) >= model.calls.size()) return -1;
    const std::string& line = model.calls[static_cast<size_t>(index)];
    if (text != nullptr && capacity > 0) std::snprintf(text, static_cast<size_t>(capacity), "%s", line.c_str());
    return static_cast<int32_t>(line.size());
  });
}

ZFN_DEVICE_EXPORT int32_t TestDevice_AccessCount(void) {
  return Locked([] { return static_cast<int32_t>(model.accesses.size()); });
}

ZFN_DEVICE_EXPORT int32_t TestDevice_GetAccess(int32_t index, int32_t* isWrite, int32_t* page, int32_t* address,
                                               int32_t* byteCount, uint8_t* bytes, int32_t* succeeded) {
  return Locked([&] {
    if (index < 0 || static_cast<size_t>(index) >= model.accesses.size()) return 0;
    const Access& access = model.accesses[static_cast<size_t>(index)];
    for (auto [out, value] : {std::pair{isWrite, access.isWrite}, {page, access.page}, {address, access.address},
                              {byteCount, access.byteCount}, {succeeded, access.succeeded}}) {
      if (out != nullptr) *out = value;
    }
    if (bytes != nullptr) std::memcpy(bytes, access.bytes, sizeof access.bytes);
    return 1;
  });
}

ZFN_DEVICE_EXPORT int32_t TestDevice_FailFunction(const char* name, int32_t fromCall, int32_t count) {
  return Locked([&] {
    for (int32_t f = 0; name != nullptr && f < kFunctionCount; ++f) {
      if (std::strcmp(name, kFunctionNames[f]) == 0) {
        model.failures[f] = FailRule{true, fromCall, count, 0};
        return 1;
      }
    }
    return 0;
  });
}

ZFN_DEVICE_EXPORT void TestDevice_ClearFailures(void) {
  Locked([] { std::fill(std::begin(model.failures), std::end(model.failures), FailRule{}); });
}

ZFN_DEVICE_EXPORT void TestDevice_SetTunerType(int32_t tunerType) { Locked([=] { model.tunerType = tunerType; }); }

ZFN_DEVICE_EXPORT void TestDevice_SetRegister(int32_t page, int32_t address, uint8_t value) {
  if (ValidCell(page, address)) Locked([=] { model.registers[page][address] = value; });
}

ZFN_DEVICE_EXPORT int32_t TestDevice_GetRegister(int32_t page, int32_t address) {
  return ValidCell(page, address) ? Locked([=] { return static_cast<int32_t>(model.registers[page][address]); }) : -1;
}

ZFN_DEVICE_EXPORT int32_t TestDevice_SetStreamBuffer(const uint8_t* data, int64_t size, int32_t loop) {
  if (size < 0 || (data == nullptr && size > 0)) return 0;
  Locked([=] {
    model.stream.buffer.assign(data, data + size);
    model.stream.useBuffer = true;
    model.stream.loop = loop != 0;
    model.stream.position = 0;
  });
  return 1;
}

ZFN_DEVICE_EXPORT uint8_t TestDevice_PatternByte(int64_t k) { return zfn_test::PatternByte(static_cast<uint64_t>(k)); }

ZFN_DEVICE_EXPORT void TestDevice_SetReadLength(int32_t length, uint32_t seed, int32_t keepGroupsOfFour) {
  Locked([=] { model.stream.SetReadLength(length, seed, keepGroupsOfFour); });
}

ZFN_DEVICE_EXPORT void TestDevice_SetByteRate(int64_t bytesPerSecond) {
  Locked([=] { model.stream.bytesPerSecond = std::max<int64_t>(bytesPerSecond, 0); });
}

ZFN_DEVICE_EXPORT void TestDevice_LoseBytes(int64_t count) {
  Locked([=] { model.stream.loseBytes += static_cast<uint64_t>(std::max<int64_t>(count, 0)); });
}

ZFN_DEVICE_EXPORT void TestDevice_Stall(int32_t milliseconds) {
  Locked([=] { model.stream.Stall(std::max(milliseconds, 0)); });
}

ZFN_DEVICE_EXPORT void TestDevice_SetEventPeriod(int32_t milliseconds) {
  Locked([=] { model.eventPeriodMs = std::max(milliseconds, 1); });
}

ZFN_DEVICE_EXPORT int64_t TestDevice_BytesServed(void) {
  return Locked([] { return static_cast<int64_t>(model.stream.position); });
}

ZFN_DEVICE_EXPORT int64_t TestDevice_EventsSignalled(void) { return ticker.Signalled(); }

ZFN_DEVICE_EXPORT int32_t TestDevice_EventThreadRunning(void) { return ticker.Running() ? 1 : 0; }

ZFN_DEVICE_EXPORT const char* TestDevice_Flavour(void) { return ZFN_TEST_DEVICE_FLAVOUR; }
