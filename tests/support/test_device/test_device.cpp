// Test build of the device access library: records what the receiver asks of the device, serves a
// known byte stream, and fails on request. See test_device_control.h.
#include <cstdarg>
#include <cstdio>
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

enum Function { kInit, kRelease, kSetFrequency, kSetBandwidth, kUpdate, kRead, kWrite, kGetData, kSetEvent,
                kReleaseEvent, kTunerType, kFunctionCount };
constexpr const char* kFunctionNames[kFunctionCount] = {
    "ZFN_BDAFilterInit",   "ZFN_BDAFilterRelease", "ZFN_Set_Frequency",     "ZFN_Set_Bandwidth",
    "ZFN_DeviceUpdate",    "ZFN_Demod_Byte_Read",  "ZFN_Demod_Byte_Write",  "ZFN_GetData",
    "ZFN_SetDABEventHandle", "ZFN_ReleaseDABEventHandle", "ZFN_Get_TunerType"};

struct DeviceModel {
  std::mutex lock;
  std::vector<std::string> calls;
  zfn_test::FunctionCalls<kFunctionCount> functions{kFunctionNames};
  uint8_t registers[2][256] = {};
  zfn_test::ByteStream stream;
  bool initialised = false, eventRegistered = false;
  int eventFd = -1;

  // Logs the call and tells whether it is one of those told to fail.
  bool Call(Function function, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    char line[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    calls.emplace_back(line);
    return functions.Fails(function);
  }
};

DeviceModel model;
// Declared after the model so that it is destroyed first: an unload joins the thread before
// anything it could touch goes away. The thread itself touches only the eventfd.
zfn_test::EventTicker ticker;

auto Locked(auto action) { return zfn_test::Locked(model, action); }

void StartTickerIfReady() {
  if (model.initialised && model.eventRegistered) ticker.Start(model.eventFd);
}

int32_t RegisterAccess(bool isWrite, int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  std::lock_guard<std::mutex> hold(model.lock);
  const bool valid = bytes != nullptr && page >= 0 && page < 2 && address >= 0 && byteCount >= 1 && byteCount <= 4 &&
                     address + byteCount <= 256;
  std::string hex;
  for (int32_t i = 0; isWrite && valid && i < byteCount; ++i) {
    char piece[4];
    std::snprintf(piece, sizeof piece, " %02x", bytes[i]);
    hex += piece;
  }
  const bool fails = model.Call(isWrite ? kWrite : kRead, "ZFN_Demod_Byte_%s %d %02x %d%s", isWrite ? "Write" : "Read",
                                page, address & 0xFF, byteCount, hex.c_str());
  if (!valid || fails) return 0;
  uint8_t* cell = &model.registers[page][address];
  std::copy_n(isWrite ? bytes : cell, byteCount, isWrite ? cell : bytes);
  return 1;
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
  return Locked([=] { return model.Call(kSetFrequency, "ZFN_Set_Frequency %d", frequencyKHz) ? 0 : 1; });
}

ZFN_DEVICE_EXPORT int32_t ZFN_Set_Bandwidth(int32_t bandwidthMHz) {
  return Locked([=] { return model.Call(kSetBandwidth, "ZFN_Set_Bandwidth %d", bandwidthMHz) ? 0 : 1; });
}

ZFN_DEVICE_EXPORT int32_t ZFN_DeviceUpdate(void) {
  return Locked([] { return model.Call(kUpdate, "ZFN_DeviceUpdate") ? 0 : 1; });
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
  *tunerType = 1;
  return 1;
}
#endif

// ---- Control -------------------------------------------------------------------------------------

ZFN_DEVICE_EXPORT void TestDevice_Reset(void) {
  Locked([] {
    model.calls.clear();
    model.functions.Clear(true);
    std::fill_n(&model.registers[0][0], sizeof model.registers, 0);
    model.stream = zfn_test::ByteStream{};
    model.stream.Restart();
  });
}

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
  return Locked([] {
    return static_cast<int32_t>(std::count_if(model.calls.begin(), model.calls.end(),
                                               [](const std::string& c) { return c.rfind("ZFN_Demod_Byte_", 0) == 0; }));
  });
}

ZFN_DEVICE_EXPORT int32_t TestDevice_FailFunction(const char* name, int32_t fromCall, int32_t count) {
  return Locked([&] { return model.functions.Fail(name, fromCall, count) ? 1 : 0; });
}

ZFN_DEVICE_EXPORT void TestDevice_ClearFailures(void) {
  Locked([] { model.functions.Clear(false); });
}

ZFN_DEVICE_EXPORT void TestDevice_SetRegister(int32_t page, int32_t address, uint8_t value) {
  if (page >= 0 && page < 2 && address >= 0 && address < 256) Locked([=] { model.registers[page][address] = value; });
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

ZFN_DEVICE_EXPORT int64_t TestDevice_BytesServed(void) {
  return Locked([] { return static_cast<int64_t>(model.stream.position); });
}

ZFN_DEVICE_EXPORT int32_t TestDevice_EventThreadRunning(void) { return ticker.Running() ? 1 : 0; }

ZFN_DEVICE_EXPORT const char* TestDevice_Flavour(void) { return ZFN_TEST_DEVICE_FLAVOUR; }
