// Test build of the plotting bridge: records its calls and counts the receiver's update events.
// See test_bridge_control.h.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "tests/support/common/probe_arrays.h"
#include "tests/support/test_bridge/test_bridge_control.h"

#define ZFN_BRIDGE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct BridgeModel {
  std::mutex lock;
  int32_t initialCalls = 0, showCalls = 0, destroyCalls = 0;
  int64_t updates = 0;
  bool failInitial = false, nullRecord = false;
  zfn_test::ProbeArrays arrays;
  zfn::MatlabProbe* handed = nullptr;
  int updateEvent = -1;

  // Takes the update event if it was set (sets close together merge into one), under the lock.
  void TakeUpdate() {
    uint64_t value = 0;
    if (updateEvent >= 0 && read(updateEvent, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) ++updates;
  }
  void CloseEvent() {
    if (updateEvent >= 0) close(updateEvent);
    updateEvent = -1;
  }
} model;

auto Locked(auto action) {
  std::lock_guard<std::mutex> hold(model.lock);
  return action();
}

}  // namespace

ZFN_BRIDGE_EXPORT int32_t MATLAB_Initial(void) {
  return Locked([] { return ++model.initialCalls, model.failInitial ? -1 : 0; });
}

ZFN_BRIDGE_EXPORT int32_t MATLAB_Show(zfn::MatlabProbe** probe) {
  std::lock_guard<std::mutex> hold(model.lock);
  ++model.showCalls;
  if (model.nullRecord) {
    *probe = nullptr;
    return 0;
  }
  model.CloseEvent();
  model.arrays.Reset();
  // Descriptor 0 means "no event" in the record: never hand it over.
  model.updateEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (model.updateEvent == 0) {
    model.updateEvent = dup(0);
    close(0);
  }
  model.arrays.record.updateEvent = model.updateEvent;
  *probe = model.handed = &model.arrays.record;
  return 0;
}

ZFN_BRIDGE_EXPORT int32_t MATLAB_Destroy(void) {
  std::lock_guard<std::mutex> hold(model.lock);
  ++model.destroyCalls;
  model.TakeUpdate();
  model.CloseEvent();
  model.arrays.record = zfn::MatlabProbe{};
  model.handed = nullptr;
  return 0;
}

ZFN_BRIDGE_EXPORT void TestBridge_Reset(void) {
  Locked([] {
    model.failInitial = model.nullRecord = false;
    model.initialCalls = model.showCalls = model.destroyCalls = 0;
    model.updates = 0;
  });
}

ZFN_BRIDGE_EXPORT void TestBridge_FailInitial(int32_t fail) { Locked([=] { model.failInitial = fail != 0; }); }

ZFN_BRIDGE_EXPORT void TestBridge_NullRecord(int32_t null) { Locked([=] { model.nullRecord = null != 0; }); }

ZFN_BRIDGE_EXPORT int32_t TestBridge_Calls(const char* name) {
  return Locked([=] {
    for (auto [function, calls] : {std::pair{"MATLAB_Initial", model.initialCalls}, {"MATLAB_Show", model.showCalls},
                                   {"MATLAB_Destroy", model.destroyCalls}})
      if (name != nullptr && std::strcmp(name, function) == 0) return calls;
    return -1;
  });
}

ZFN_BRIDGE_EXPORT int64_t TestBridge_Updates(void) { return Locked([] { return model.TakeUpdate(), model.updates; }); }

ZFN_BRIDGE_EXPORT int32_t TestBridge_WaitUpdates(int64_t count, int32_t timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (TestBridge_Updates() < count) {
    if (std::chrono::steady_clock::now() >= deadline) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return 1;
}

ZFN_BRIDGE_EXPORT zfn::MatlabProbe* TestBridge_Record(void) { return Locked([] { return model.handed; }); }
