// Test build of the simulator library: a deterministic byte stream behind the four simulator
// functions, with settings from the environment or from TestSim_ calls. See test_simulator_control.h.
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

struct SimulatorModel {
  std::mutex lock;
  zfn_test::ByteStream stream;
  bool fails[kFunctionCount] = {};
  int32_t callCounts[kFunctionCount] = {};
  int32_t eventPeriodMs = 5;
  int eventFd = -1;
  bool eventSet = false;
  bool started = false;

  int32_t FunctionIndex(const char* name) const {
    if (name == nullptr) return -1;
    for (int32_t f = 0; f < kFunctionCount; ++f) {
      if (std::strcmp(name, kFunctionNames[f]) == 0) return f;
    }
    return -1;
  }

  void ResetFromEnvironmentLocked() {
    stream = zfn_test::ByteStream{};
    for (bool& fail : fails) fail = false;
    for (int32_t& count : callCounts) count = 0;
    eventPeriodMs = 5;
    zfn_test::ApplyStreamEnvironment("ZFN_TESTSIM_", stream, eventPeriodMs);
    const int32_t failing = FunctionIndex(std::getenv("ZFN_TESTSIM_FAIL"));
    if (failing >= 0) fails[failing] = true;
    stream.Restart();
  }

  SimulatorModel() { ResetFromEnvironmentLocked(); }
};

SimulatorModel model;
zfn_test::EventTicker ticker;  // destroyed first at unload, which joins its thread

}  // namespace

ZFN_SIM_EXPORT int32_t SetEventHandle(int* event) {
  std::lock_guard<std::mutex> hold(model.lock);
  ++model.callCounts[kSetEvent];
  if (model.fails[kSetEvent] || event == nullptr) return -1;
  model.eventFd = *event;
  model.eventSet = true;
  return 0;
}

ZFN_SIM_EXPORT int32_t BDA_Start_simulate(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  ++model.callCounts[kStart];
  if (model.fails[kStart] || !model.eventSet) return -1;
  model.stream.Restart();
  model.started = true;
  ticker.Start(model.eventFd, model.eventPeriodMs);
  return 0;
}

ZFN_SIM_EXPORT int32_t GetData(uint8_t* buffer, int32_t* length) {
  std::lock_guard<std::mutex> hold(model.lock);
  ++model.callCounts[kGetData];
  if (length == nullptr) return -1;
  *length = 0;
  if (model.fails[kGetData]) return -1;
  if (model.started) *length = model.stream.Serve(buffer, zfn_test::kMaxRead);
  return 0;
}

ZFN_SIM_EXPORT int32_t BDA_Stop_simulate(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  ++model.callCounts[kStop];
  if (model.fails[kStop]) return -1;
  model.started = false;
  ticker.Stop();
  return 0;
}

ZFN_SIM_EXPORT void TestSim_Reset(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.ResetFromEnvironmentLocked();
}

ZFN_SIM_EXPORT int32_t TestSim_FailFunction(const char* name) {
  std::lock_guard<std::mutex> hold(model.lock);
  const int32_t f = model.FunctionIndex(name);
  if (f < 0) return 0;
  model.fails[f] = true;
  return 1;
}

ZFN_SIM_EXPORT void TestSim_ClearFailures(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  for (bool& fail : model.fails) fail = false;
}

ZFN_SIM_EXPORT void TestSim_SetReadLength(int32_t length, uint32_t seed, int32_t keepGroupsOfFour) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.stream.fixedLength = length > 0 ? length : 0;
  model.stream.seed = seed;
  model.stream.rngState = seed != 0 ? seed : 1;
  model.stream.keepGroupsOfFour = keepGroupsOfFour != 0;
}

ZFN_SIM_EXPORT void TestSim_SetByteRate(int64_t bytesPerSecond) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.stream.bytesPerSecond = bytesPerSecond > 0 ? bytesPerSecond : 0;
}

ZFN_SIM_EXPORT void TestSim_SetEventPeriod(int32_t milliseconds) {
  std::lock_guard<std::mutex> hold(model.lock);
  model.eventPeriodMs = milliseconds > 0 ? milliseconds : 1;
}

ZFN_SIM_EXPORT uint8_t TestSim_PatternByte(int64_t k) { return zfn_test::PatternByte(static_cast<uint64_t>(k)); }

ZFN_SIM_EXPORT int64_t TestSim_BytesServed(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  return static_cast<int64_t>(model.stream.position);
}

ZFN_SIM_EXPORT int32_t TestSim_CallCount(const char* name) {
  std::lock_guard<std::mutex> hold(model.lock);
  const int32_t f = model.FunctionIndex(name);
  return f < 0 ? -1 : model.callCounts[f];
}

ZFN_SIM_EXPORT int32_t TestSim_Started(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  return model.started ? 1 : 0;
}

ZFN_SIM_EXPORT int32_t TestSim_EventThreadRunning(void) { return ticker.Running() ? 1 : 0; }

ZFN_SIM_EXPORT int64_t TestSim_EventsSignalled(void) { return ticker.Signalled(); }
