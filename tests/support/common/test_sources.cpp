// Test builds of the two sample-source libraries, from this one file: the device access library
// (see test_device_control.h) and, with ZFN_TEST_SIMULATOR, the simulator library (see
// test_simulator_control.h). Both record what the receiver asks of them, fail on request, serve a
// known byte stream, and signal the receiver's data event from a thread of their own.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frontend/sample_source_contract.h"
#include "tests/support/test_device/test_device_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"

#define ZFN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using Clock = std::chrono::steady_clock;
constexpr int32_t kMaxRead = 240648;  // the receiver's read request, and the most one call may give

// Byte k of the deterministic pattern: a multiplicative hash of the position, so that any run of a
// few bytes tells where in the stream it came from.
uint8_t PatternByte(uint64_t k) { return static_cast<uint8_t>((k * 2654435761ull) >> 13); }

#ifdef ZFN_TEST_SIMULATOR
#define CONTROL(name) TestSim_##name
constexpr const char* kFunctions[] = {"SetEventHandle", "BDA_Start_simulate", "GetData", "BDA_Stop_simulate"};
#else
#define CONTROL(name) TestDevice_##name
#ifndef ZFN_TEST_DEVICE_FLAVOUR
#define ZFN_TEST_DEVICE_FLAVOUR "testdevice"
#endif
constexpr const char* kFunctions[] = {
    "ZFN_BDAFilterInit",   "ZFN_BDAFilterRelease", "ZFN_Set_Frequency",     "ZFN_Set_Bandwidth",
    "ZFN_DeviceUpdate",    "ZFN_Demod_Byte_Read",  "ZFN_Demod_Byte_Write",  "ZFN_GetData",
    "ZFN_SetDABEventHandle", "ZFN_ReleaseDABEventHandle", "ZFN_Get_TunerType"};
#endif
constexpr int kFunctionCount = std::size(kFunctions);

// Pacing of the stream at load and after a reset: unpaced, or the simulator's from the environment.
int64_t DefaultByteRate() {
#ifdef ZFN_TEST_SIMULATOR
  if (const char* rate = std::getenv("ZFN_TESTSIM_BYTE_RATE")) return std::max(0ll, std::atoll(rate));
#endif
  return 0;
}

int FunctionIndex(const char* name) {
  for (int f = 0; name != nullptr && f < kFunctionCount; ++f)
    if (std::strcmp(name, kFunctions[f]) == 0) return f;
  return -1;
}

struct Model {
  std::vector<std::string> calls;  // as text lines, see test_device_control.h
  struct Rule {
    bool active = false;
    int32_t fromCall = 0, count = 0, seen = 0;
  } rules[kFunctionCount];
  int32_t counts[kFunctionCount] = {};
  uint8_t registers[2][256] = {};
  bool initialised = false, eventRegistered = false;
  int eventFd = -1;

  // The stream: the pattern, or a buffer given by the test (served once, or round and round).
  std::vector<uint8_t> buffer;
  bool useBuffer = false, loop = false, keepGroupsOfFour = true;
  uint64_t position = 0;           // bytes served since the last Restart
  uint64_t loseBytes = 0;          // lost before the next byte served
  int32_t fixedLength = kMaxRead;  // bytes per call; 0 = random 1..kMaxRead
  uint32_t seed = 1, rngState = 1;
  int64_t bytesPerSecond = DefaultByteRate();  // 0 = as much as each call asks
  // A stall serves nothing (the events go on) and the pacing does not make up for it afterwards.
  Clock::time_point startTime = Clock::now(), stallUntil{};

  // Counts and logs the call and tells whether it is one of those told to fail: calls fromCall ..
  // fromCall + count - 1, counted from the request (count < 0: all from fromCall on).
  bool Fails(int f, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    char line[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    calls.emplace_back(line);
    ++counts[f];
    Rule& r = rules[f];
    const int32_t call = r.seen++;
    return r.active && call >= r.fromCall && (r.count < 0 || call - r.fromCall < r.count);
  }

  // Copies the next bytes into out (capacity bytes at most) and returns how many.
  int32_t Serve(uint8_t* out, int32_t capacity) {
    if (!initialised || out == nullptr || capacity <= 0 || Clock::now() < stallUntil) return 0;
    position += std::exchange(loseBytes, 0);
    int64_t want = fixedLength;
    if (want == 0) {  // xorshift32: the same lengths on every platform for a given seed
      rngState ^= rngState << 13;
      rngState ^= rngState >> 17;
      rngState ^= rngState << 5;
      want = 1 + static_cast<int64_t>(rngState % kMaxRead);
    }
    want = std::min<int64_t>(want, capacity);
    if (bytesPerSecond > 0) {
      const double seconds = std::chrono::duration<double>(Clock::now() - startTime).count();
      want = std::clamp<int64_t>(static_cast<int64_t>(seconds * static_cast<double>(bytesPerSecond)) -
                                     static_cast<int64_t>(position), 0, want);
    }
    if (keepGroupsOfFour) want -= want % 4;
    int32_t served = 0;
    for (; served < want; ++served, ++position) {
      const uint64_t at = loop && !buffer.empty() ? position % buffer.size() : position;
      if (useBuffer && at >= buffer.size()) break;
      out[served] = useBuffer ? buffer[at] : PatternByte(position);
    }
    return served;
  }
};

std::mutex lock;
Model model;

// Writes the 8-byte value 1 to the registered eventfd every 5 ms from a thread of its own, started
// and stopped under the lock; stopping joins it, so no write happens after. Declared after the
// model so that an unload joins the thread first; the thread touches only the eventfd.
std::jthread ticker;

void RunTicker(bool run) {
  ticker = !run ? std::jthread{} : std::jthread([eventFd = model.eventFd](std::stop_token stop) {
    for (const uint64_t one = 1; !stop.stop_requested();) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      (void)!write(eventFd, &one, sizeof one);  // a full or closed eventfd: the next tick tries again
    }
  });
}

auto Locked(auto action) {
  std::lock_guard<std::mutex> hold(lock);
  return action();
}

int32_t Fail(const char* name, int32_t fromCall, int32_t count) {
  const int f = FunctionIndex(name);
  if (f >= 0) Locked([=] { model.rules[f] = Model::Rule{true, fromCall, count, 0}; });
  return f >= 0 ? 1 : 0;
}

bool StartEvents(int* event) {
  if (event == nullptr) return false;
  model.eventFd = *event;  // copied now: the thread never reads the caller's word
  model.eventRegistered = true;
  if (model.initialised) RunTicker(true);
  return true;
}

// Starts the stream at byte 0, with the events if registered.
bool Open() {
  model.initialised = true;
  model.position = 0;
  model.rngState = model.seed;
  model.startTime = Clock::now();
  RunTicker(model.eventRegistered);
  return true;
}

void Close(bool releaseEvent) {
  (releaseEvent ? model.eventRegistered : model.initialised) = false;
  RunTicker(false);
}

}  // namespace

#ifdef ZFN_TEST_SIMULATOR
// ---- The simulator functions: 0, or -1 on failure ------------------------------------------------

ZFN_EXPORT int32_t SetEventHandle(int* event) {
  return Locked([=] { return model.Fails(0, "SetEventHandle") || !StartEvents(event) ? -1 : 0; });
}
ZFN_EXPORT int32_t BDA_Start_simulate(void) {
  return Locked([] { return model.Fails(1, "BDA_Start_simulate") || !model.eventRegistered || !Open() ? -1 : 0; });
}
ZFN_EXPORT int32_t GetData(uint8_t* buffer, int32_t* length) {
  return Locked([=] {
    const bool fails = model.Fails(2, "GetData");
    if (length != nullptr) *length = fails ? 0 : model.Serve(buffer, kMaxRead);
    return fails || length == nullptr ? -1 : 0;
  });
}
ZFN_EXPORT int32_t BDA_Stop_simulate(void) {
  return Locked([] { return model.Fails(3, "BDA_Stop_simulate") ? -1 : (Close(false), 0); });
}

ZFN_EXPORT int32_t TestSim_FailFunction(const char* name) { return Fail(name, 0, -1); }
ZFN_EXPORT int32_t TestSim_CallCount(const char* name) {
  const int f = FunctionIndex(name);
  return f < 0 ? -1 : Locked([f] { return model.counts[f]; });
}
ZFN_EXPORT int32_t TestSim_Started(void) { return Locked([] { return model.initialised ? 1 : 0; }); }

#else
// ---- The device functions: 1, or 0 on failure ----------------------------------------------------

ZFN_EXPORT int32_t ZFN_BDAFilterInit(int32_t zero) {
  return Locked([=] { return !model.Fails(0, "ZFN_BDAFilterInit %d", zero) && Open() ? 1 : 0; });
}
ZFN_EXPORT int32_t ZFN_BDAFilterRelease(int32_t zero) {
  return Locked([=] { return model.Fails(1, "ZFN_BDAFilterRelease %d", zero) ? 0 : (Close(false), 1); });
}
ZFN_EXPORT int32_t ZFN_Set_Frequency(int32_t frequencyKHz) {
  return Locked([=] { return model.Fails(2, "ZFN_Set_Frequency %d", frequencyKHz) ? 0 : 1; });
}
ZFN_EXPORT int32_t ZFN_Set_Bandwidth(int32_t bandwidthMHz) {
  return Locked([=] { return model.Fails(3, "ZFN_Set_Bandwidth %d", bandwidthMHz) ? 0 : 1; });
}
ZFN_EXPORT int32_t ZFN_DeviceUpdate(void) {
  return Locked([] { return model.Fails(4, "ZFN_DeviceUpdate") ? 0 : 1; });
}

int32_t RegisterAccess(bool isWrite, int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  std::lock_guard<std::mutex> hold(lock);
  const bool valid = bytes != nullptr && page >= 0 && page < 2 && address >= 0 && byteCount >= 1 && byteCount <= 4 &&
                     address + byteCount <= 256;
  char hex[16] = "";
  for (int32_t i = 0; isWrite && valid && i < byteCount; ++i) std::snprintf(hex + 3 * i, 4, " %02x", bytes[i]);
  if (model.Fails(isWrite ? 6 : 5, "ZFN_Demod_Byte_%s %d %02x %d%s", isWrite ? "Write" : "Read", page, address & 0xFF,
                  byteCount, hex) || !valid) {
    return 0;
  }
  uint8_t* cell = &model.registers[page][address];
  std::copy_n(isWrite ? bytes : cell, byteCount, isWrite ? cell : bytes);
  return 1;
}
ZFN_EXPORT int32_t ZFN_Demod_Byte_Read(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  return RegisterAccess(false, page, address, byteCount, bytes);
}
ZFN_EXPORT int32_t ZFN_Demod_Byte_Write(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  return RegisterAccess(true, page, address, byteCount, bytes);
}

ZFN_EXPORT int32_t ZFN_GetData(uint8_t* buffer, int32_t bufferSize, int32_t* length, int32_t* aux) {
  return Locked([=] {
    const bool fails = model.Fails(7, "ZFN_GetData %d %d", bufferSize, aux != nullptr ? *aux : -1);
    if (length != nullptr) *length = fails ? 0 : model.Serve(buffer, bufferSize);
    return fails || length == nullptr ? 0 : 1;
  });
}
ZFN_EXPORT int32_t ZFN_SetDABEventHandle(int* event) {
  return Locked([=] { return !model.Fails(8, "ZFN_SetDABEventHandle") && StartEvents(event) ? 1 : 0; });
}
ZFN_EXPORT int32_t ZFN_ReleaseDABEventHandle(int* /*event*/) {
  return Locked([] { return model.Fails(9, "ZFN_ReleaseDABEventHandle") ? 0 : (Close(true), 1); });
}
#ifndef ZFN_TEST_DEVICE_WITHOUT_TUNER_TYPE
ZFN_EXPORT int32_t ZFN_Get_TunerType(int32_t* tunerType) {
  return Locked([=] {
    if (model.Fails(10, "ZFN_Get_TunerType") || tunerType == nullptr) return 0;
    *tunerType = 1;
    return 1;
  });
}
#endif

ZFN_EXPORT int32_t TestDevice_CallCount(void) { return Locked([] { return static_cast<int32_t>(model.calls.size()); }); }
ZFN_EXPORT int32_t TestDevice_GetCall(int32_t index, char* text, int32_t capacity) {
  return Locked([&] {
    if (index < 0 || static_cast<size_t>(index) >= model.calls.size()) return -1;
    const std::string& line = model.calls[static_cast<size_t>(index)];
    if (text != nullptr && capacity > 0) std::snprintf(text, static_cast<size_t>(capacity), "%s", line.c_str());
    return static_cast<int32_t>(line.size());
  });
}
ZFN_EXPORT int32_t TestDevice_AccessCount(void) {
  return Locked([] { return static_cast<int32_t>(model.counts[5] + model.counts[6]); });
}
ZFN_EXPORT void TestDevice_SetRegister(int32_t page, int32_t address, uint8_t value) {
  if (page >= 0 && page < 2 && address >= 0 && address < 256) Locked([=] { model.registers[page][address] = value; });
}
ZFN_EXPORT int32_t TestDevice_SetStreamBuffer(const uint8_t* data, int64_t size, int32_t loop) {
  if (size < 0 || (data == nullptr && size > 0)) return 0;
  Locked([=] {
    model.buffer.assign(data, data + size);
    model.useBuffer = true;
    model.loop = loop != 0;
    model.position = 0;
  });
  return 1;
}
ZFN_EXPORT void TestDevice_LoseBytes(int64_t count) {
  Locked([=] { model.loseBytes += static_cast<uint64_t>(std::max<int64_t>(count, 0)); });
}
ZFN_EXPORT void TestDevice_Stall(int32_t milliseconds) {
  Locked([=] {
    model.stallUntil = Clock::now() + std::chrono::milliseconds(std::max(milliseconds, 0));
    model.startTime += std::chrono::milliseconds(std::max(milliseconds, 0));
  });
}
ZFN_EXPORT int64_t TestDevice_BytesServed(void) { return Locked([] { return static_cast<int64_t>(model.position); }); }
ZFN_EXPORT const char* TestDevice_Flavour(void) { return ZFN_TEST_DEVICE_FLAVOUR; }
ZFN_EXPORT int32_t TestDevice_FailFunction(const char* name, int32_t fromCall, int32_t count) {
  return Fail(name, fromCall, count);
}
#endif

// ---- Controls of both ----------------------------------------------------------------------------

// Settings and logs back to the state at load; the open state and a running event thread stay.
ZFN_EXPORT void CONTROL(Reset)(void) {
  Locked([] {
    Model fresh;
    fresh.initialised = model.initialised, fresh.eventRegistered = model.eventRegistered, fresh.eventFd = model.eventFd;
    model = std::move(fresh);
  });
}
ZFN_EXPORT void CONTROL(ClearFailures)(void) {
  Locked([] { std::fill(std::begin(model.rules), std::end(model.rules), Model::Rule{}); });
}
ZFN_EXPORT void CONTROL(SetReadLength)(int32_t length, uint32_t seed, int32_t keepGroupsOfFour) {
  Locked([=] {
    model.fixedLength = std::max(length, 0);
    model.seed = model.rngState = seed != 0 ? seed : 1;
    model.keepGroupsOfFour = keepGroupsOfFour != 0;
  });
}
ZFN_EXPORT void CONTROL(SetByteRate)(int64_t bytesPerSecond) {
  Locked([=] { model.bytesPerSecond = std::max<int64_t>(bytesPerSecond, 0); });
}
ZFN_EXPORT uint8_t CONTROL(PatternByte)(int64_t k) { return PatternByte(static_cast<uint64_t>(k)); }
ZFN_EXPORT int32_t CONTROL(EventThreadRunning)(void) { return Locked([] { return ticker.joinable() ? 1 : 0; }); }
