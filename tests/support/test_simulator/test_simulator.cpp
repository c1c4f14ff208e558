// Test build of the simulator library: a deterministic byte stream behind the four simulator
// functions, with settings from the environment or from TestSim_ calls. See test_simulator_control.h.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "frontend/sample_source_contract.h"
#include "tests/support/common/test_byte_stream.h"
#include "tests/support/test_simulator/test_simulator_control.h"

#define ZFN_SIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

enum Function { kSetEvent, kStart, kGetData, kStop, kFunctionCount };
constexpr const char* kFunctionNames[kFunctionCount] = {"SetEventHandle", "BDA_Start_simulate", "GetData",
                                                        "BDA_Stop_simulate"};

int32_t FunctionIndex(const char* name) {
  for (int32_t f = 0; name != nullptr && f < kFunctionCount; ++f) {
    if (std::strcmp(name, kFunctionNames[f]) == 0) return f;
  }
  return -1;
}

struct SimulatorModel {
  std::mutex lock;
  zfn_test::ByteStream stream;
  bool fails[kFunctionCount] = {};
  int32_t callCounts[kFunctionCount] = {};
  int eventFd = -1;
  bool eventSet = false, started = false;

  void ResetFromEnvironmentLocked() {
    stream = zfn_test::ByteStream{};
    std::fill(std::begin(fails), std::end(fails), false);
    std::fill(std::begin(callCounts), std::end(callCounts), 0);
    if (const char* rate = std::getenv("ZFN_TESTSIM_BYTE_RATE")) stream.bytesPerSecond = std::max(0ll, std::atoll(rate));
    const int32_t failing = FunctionIndex(std::getenv("ZFN_TESTSIM_FAIL"));
    if (failing >= 0) fails[failing] = true;
    stream.Restart();
  }

  // Counts the call and tells whether it is to fail.
  bool Fails(Function function) {
    ++callCounts[function];
    return fails[function];
  }

  SimulatorModel() { ResetFromEnvironmentLocked(); }
};

SimulatorModel model;
zfn_test::EventTicker ticker;  // destroyed first at unload, which joins its thread

}  // namespace

ZFN_SIM_EXPORT int32_t SetEventHandle(int* event) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Fails(kSetEvent) || event == nullptr) return -1;
  model.eventFd = *event;
  model.eventSet = true;
  return 0;
}

ZFN_SIM_EXPORT int32_t BDA_Start_simulate(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Fails(kStart) || !model.eventSet) return -1;
  model.stream.Restart();
  model.started = true;
  ticker.Start(model.eventFd, 5);
  return 0;
}

ZFN_SIM_EXPORT int32_t GetData(uint8_t* buffer, int32_t* length) {
  std::lock_guard<std::mutex> hold(model.lock);
  const bool fails = model.Fails(kGetData);
  if (length == nullptr) return -1;
  *length = 0;
  if (fails) return -1;
  if (model.started) *length = model.stream.Serve(buffer, zfn_test::kMaxRead);
  return 0;
}

ZFN_SIM_EXPORT int32_t BDA_Stop_simulate(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  if (model.Fails(kStop)) return -1;
  model.started = false;
  ticker.Stop();
  return 0;
}

template <class Action>
auto Locked(Action action) {
  std::lock_guard<std::mutex> hold(model.lock);
  return action();
}

ZFN_SIM_EXPORT void TestSim_Reset(void) { Locked([] { model.ResetFromEnvironmentLocked(); }); }

ZFN_SIM_EXPORT int32_t TestSim_FailFunction(const char* name) {
  const int32_t f = FunctionIndex(name);
  if (f >= 0) Locked([f] { model.fails[f] = true; });
  return f >= 0 ? 1 : 0;
}

ZFN_SIM_EXPORT void TestSim_ClearFailures(void) {
  Locked([] { std::fill(std::begin(model.fails), std::end(model.fails), false); });
}

ZFN_SIM_EXPORT void TestSim_SetReadLength(int32_t length, uint32_t seed, int32_t keepGroupsOfFour) {
  Locked([=] { model.stream.SetReadLength(length, seed, keepGroupsOfFour); });
}

ZFN_SIM_EXPORT void TestSim_SetByteRate(int64_t bytesPerSecond) {
  Locked([=] { model.stream.bytesPerSecond = std::max<int64_t>(bytesPerSecond, 0); });
}

ZFN_SIM_EXPORT uint8_t TestSim_PatternByte(int64_t k) { return zfn_test::PatternByte(static_cast<uint64_t>(k)); }

ZFN_SIM_EXPORT int64_t TestSim_BytesServed(void) { return Locked([] { return static_cast<int64_t>(model.stream.position); }); }

ZFN_SIM_EXPORT int32_t TestSim_CallCount(const char* name) {
  const int32_t f = FunctionIndex(name);
  return f < 0 ? -1 : Locked([f] { return model.callCounts[f]; });
}

ZFN_SIM_EXPORT int32_t TestSim_Started(void) { return Locked([] { return model.started ? 1 : 0; }); }

ZFN_SIM_EXPORT int32_t TestSim_EventThreadRunning(void) { return ticker.Running() ? 1 : 0; }
