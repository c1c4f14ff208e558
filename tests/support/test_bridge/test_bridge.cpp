// Test build of the plotting bridge: records its calls and counts the receiver's update events.
// See test_bridge_control.h.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "tests/support/common/probe_arrays.h"
#include "tests/support/test_bridge/test_bridge_control.h"

#define ZFN_BRIDGE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct BridgeModel {
  // Stops the counting thread and closes the update event.
  void StopCounter() {
    counter = std::jthread{};
    if (updateEvent > 0) close(updateEvent);
    updateEvent = -1;
  }

  std::mutex lock;
  std::atomic<int32_t> initialCalls{0}, showCalls{0}, destroyCalls{0};
  std::atomic<int64_t> updates{0};
  bool failInitial = false, nullRecord = false;
  zfn_test::ProbeArrays arrays;
  zfn::MatlabProbe* handed = nullptr;
  int updateEvent = -1;
  std::jthread counter;  // last: a process that ends with the bridge shown joins it first
};

BridgeModel model;

// Counts the update events until asked to stop (looked at every few milliseconds).
void CountUpdates(std::stop_token stop, int updateEvent) {
  while (!stop.stop_requested()) {
    pollfd wait{updateEvent, POLLIN, 0};
    uint64_t value = 0;
    if (poll(&wait, 1, 5) > 0 && read(updateEvent, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
      model.updates += 1;
    }
  }
}

}  // namespace

ZFN_BRIDGE_EXPORT int32_t MATLAB_Initial(void) {
  model.initialCalls += 1;
  std::lock_guard<std::mutex> guard(model.lock);
  return model.failInitial ? -1 : 0;
}

ZFN_BRIDGE_EXPORT int32_t MATLAB_Show(zfn::MatlabProbe** probe) {
  model.showCalls += 1;
  std::lock_guard<std::mutex> guard(model.lock);
  if (model.nullRecord) {
    *probe = nullptr;
    return 0;
  }
  model.StopCounter();
  model.arrays.Reset();
  // Descriptor 0 means "no event" in the record: never hand it over.
  model.updateEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (model.updateEvent == 0) {
    model.updateEvent = dup(0);
    close(0);
  }
  model.arrays.record.updateEvent = model.updateEvent;
  model.counter = std::jthread(CountUpdates, model.updateEvent);
  *probe = model.handed = &model.arrays.record;
  return 0;
}

ZFN_BRIDGE_EXPORT int32_t MATLAB_Destroy(void) {
  model.destroyCalls += 1;
  std::lock_guard<std::mutex> guard(model.lock);
  model.StopCounter();
  model.arrays.record = zfn::MatlabProbe{};
  model.handed = nullptr;
  return 0;
}

ZFN_BRIDGE_EXPORT void TestBridge_Reset(void) {
  std::lock_guard<std::mutex> guard(model.lock);
  model.failInitial = model.nullRecord = false;
  model.initialCalls = model.showCalls = model.destroyCalls = 0;
  model.updates = 0;
}

ZFN_BRIDGE_EXPORT void TestBridge_FailInitial(int32_t fail) {
  std::lock_guard<std::mutex> guard(model.lock);
  model.failInitial = fail != 0;
}

ZFN_BRIDGE_EXPORT void TestBridge_NullRecord(int32_t null) {
  std::lock_guard<std::mutex> guard(model.lock);
  model.nullRecord = null != 0;
}

ZFN_BRIDGE_EXPORT int32_t TestBridge_Calls(const char* name) {
  if (name == nullptr) return -1;
  if (std::strcmp(name, "MATLAB_Initial") == 0) return model.initialCalls;
  if (std::strcmp(name, "MATLAB_Show") == 0) return model.showCalls;
  if (std::strcmp(name, "MATLAB_Destroy") == 0) return model.destroyCalls;
  return -1;
}

ZFN_BRIDGE_EXPORT int64_t TestBridge_Updates(void) { return model.updates; }

ZFN_BRIDGE_EXPORT int32_t TestBridge_WaitUpdates(int64_t count, int32_t timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (model.updates < count) {
    if (std::chrono::steady_clock::now() >= deadline) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return 1;
}

ZFN_BRIDGE_EXPORT zfn::MatlabProbe* TestBridge_Record(void) {
  std::lock_guard<std::mutex> guard(model.lock);
  return model.handed;
}
