// Test build of the simulator library: a deterministic byte stream behind the four simulator
// functions, with settings from the environment or from TestSim_ calls. See test_simulator_control.h.
#include <cstdlib>

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
  zfn_test::FunctionCalls<kFunctionCount> functions{kFunctionNames};
  int eventFd = -1;
  bool eventSet = false, started = false;

  void ResetFromEnvironment() {
    stream = zfn_test::ByteStream{};
    functions.Clear(true);
    if (const char* rate = std::getenv("ZFN_TESTSIM_BYTE_RATE")) stream.bytesPerSecond = std::max(0ll, std::atoll(rate));
    functions.Fail(std::getenv("ZFN_TESTSIM_FAIL"), 0, -1);
    stream.Restart();
  }
  SimulatorModel() { ResetFromEnvironment(); }
};

SimulatorModel model;
zfn_test::EventTicker ticker;  // destroyed first at unload, which joins its thread

auto Locked(auto action) { return zfn_test::Locked(model, action); }

}  // namespace

ZFN_SIM_EXPORT int32_t SetEventHandle(int* event) {
  return Locked([=] {
    if (model.functions.Fails(kSetEvent) || event == nullptr) return -1;
    model.eventFd = *event;
    model.eventSet = true;
    return 0;
  });
}

ZFN_SIM_EXPORT int32_t BDA_Start_simulate(void) {
  return Locked([] {
    if (model.functions.Fails(kStart) || !model.eventSet) return -1;
    model.stream.Restart();
    model.started = true;
    ticker.Start(model.eventFd);
    return 0;
  });
}

ZFN_SIM_EXPORT int32_t GetData(uint8_t* buffer, int32_t* length) {
  return Locked([=] {
    const bool fails = model.functions.Fails(kGetData);
    if (length == nullptr) return -1;
    *length = 0;
    if (fails) return -1;
    if (model.started) *length = model.stream.Serve(buffer, zfn_test::kMaxRead);
    return 0;
  });
}

ZFN_SIM_EXPORT int32_t BDA_Stop_simulate(void) {
  return Locked([] {
    if (model.functions.Fails(kStop)) return -1;
    model.started = false;
    ticker.Stop();
    return 0;
  });
}

ZFN_SIM_EXPORT void TestSim_Reset(void) { Locked([] { model.ResetFromEnvironment(); }); }

ZFN_SIM_EXPORT int32_t TestSim_FailFunction(const char* name) {
  return Locked([=] { return model.functions.Fail(name, 0, -1) ? 1 : 0; });
}

ZFN_SIM_EXPORT void TestSim_ClearFailures(void) { Locked([] { model.functions.Clear(false); }); }

ZFN_SIM_EXPORT void TestSim_SetReadLength(int32_t length, uint32_t seed, int32_t keepGroupsOfFour) {
  Locked([=] { model.stream.SetReadLength(length, seed, keepGroupsOfFour); });
}

ZFN_SIM_EXPORT void TestSim_SetByteRate(int64_t bytesPerSecond) {
  Locked([=] { model.stream.bytesPerSecond = std::max<int64_t>(bytesPerSecond, 0); });
}

ZFN_SIM_EXPORT uint8_t TestSim_PatternByte(int64_t k) { return zfn_test::PatternByte(static_cast<uint64_t>(k)); }

ZFN_SIM_EXPORT int32_t TestSim_CallCount(const char* name) {
  return Locked([=] {
    const int f = model.functions.Index(name);
    return f < 0 ? -1 : model.functions.counts[f];
  });
}

ZFN_SIM_EXPORT int32_t TestSim_Started(void) { return Locked([] { return model.started ? 1 : 0; }); }

ZFN_SIM_EXPORT int32_t TestSim_EventThreadRunning(void) { return ticker.Running() ? 1 : 0; }
