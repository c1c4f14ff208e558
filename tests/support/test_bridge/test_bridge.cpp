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

#include "tests/support/test_bridge/test_bridge_control.h"

#define ZFN_BRIDGE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using zfn::MatlabProbe;

struct BridgeModel {
  // A process that ends with the bridge shown: stop the counter rather than destroy it running.
  ~BridgeModel() {
    if (counter.joinable()) {
      const uint64_t one = 1;
      [[maybe_unused]] const ssize_t n = write(stopEvent, &one, sizeof one);
      counter.join();
    }
  }

  std::mutex lock;
  std::atomic<int32_t> initialCalls{0}, showCalls{0}, destroyCalls{0};
  std::atomic<int64_t> updates{0};
  bool failInitial = false;
  bool nullRecord = false;
  bool noEvent = false;
  MatlabProbe record{};
  MatlabProbe* handed = nullptr;
  double carrierRe[zfn::PROBE_CARRIER_CAPACITY], carrierIm[zfn::PROBE_CARRIER_CAPACITY];
  double snr, frequency, rates[zfn::PROBE_RATES], state, channelState;
  double channelRe[zfn::PROBE_CHANNEL_CAPACITY], channelIm[zfn::PROBE_CHANNEL_CAPACITY];
  double slotRe[zfn::PROBE_SLOT_CAPACITY], slotIm[zfn::PROBE_SLOT_CAPACITY];
  double timing[zfn::PROBE_TIMING_CAPACITY], jumps[zfn::PROBE_JUMP_CAPACITY];
  int updateEvent = -1;
  int stopEvent = -1;
  std::thread counter;
};

BridgeModel model;

int NewEvent() {
  int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd == 0) {  // descriptor 0 means "no event" in the record
    const int moved = dup(fd);
    close(fd);
    fd = moved;
  }
  return fd;
}

void CountUpdates(int updateEvent, int stopEvent) {
  for (;;) {
    pollfd waits[2] = {{stopEvent, POLLIN, 0}, {updateEvent, POLLIN, 0}};
    if (poll(waits, updateEvent > 0 ? 2 : 1, -1) < 0) continue;
    if (waits[0].revents != 0) return;
    uint64_t value = 0;
    if (read(updateEvent, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) model.updates += 1;
  }
}

void StopCounterLocked() {
  if (model.counter.joinable()) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(model.stopEvent, &one, sizeof one);
    model.counter.join();
  }
  if (model.updateEvent > 0) close(model.updateEvent);
  if (model.stopEvent > 0) close(model.stopEvent);
  model.updateEvent = -1;
  model.stopEvent = -1;
}

}  // namespace

ZFN_BRIDGE_EXPORT int32_t MATLAB_Initial(void) {
  model.initialCalls += 1;
  std::lock_guard<std::mutex> guard(model.lock);
  return model.failInitial ? -1 : 0;
}

ZFN_BRIDGE_EXPORT int32_t MATLAB_Show(MatlabProbe** probe) {
  model.showCalls += 1;
  std::lock_guard<std::mutex> guard(model.lock);
  if (model.nullRecord) {
    *probe = nullptr;
    return 0;
  }
  StopCounterLocked();
  MatlabProbe& r = model.record;
  r = MatlabProbe{};
  r.carrierRe = model.carrierRe;
  r.carrierIm = model.carrierIm;
  r.snrCell = &model.snr;
  r.frequencyCell = &model.frequency;
  r.ratesCell = model.rates;
  r.channelRe = model.channelRe;
  r.channelIm = model.channelIm;
  r.slotRe = model.slotRe;
  r.slotIm = model.slotIm;
  r.timingProfile = model.timing;
  r.jumpList = model.jumps;
  r.stateCell = &model.state;
  r.channelStateCell = &model.channelState;
  if (!model.noEvent) {
    model.updateEvent = NewEvent();
    r.updateEvent = model.updateEvent;
  }
  model.stopEvent = NewEvent();
  model.counter = std::thread(CountUpdates, model.updateEvent, model.stopEvent);
  model.handed = &r;
  *probe = &r;
  return 0;
}

ZFN_BRIDGE_EXPORT int32_t MATLAB_Destroy(void) {
  model.destroyCalls += 1;
  std::lock_guard<std::mutex> guard(model.lock);
  StopCounterLocked();
  model.record = MatlabProbe{};
  model.handed = nullptr;
  return 0;
}

ZFN_BRIDGE_EXPORT void TestBridge_Reset(void) {
  std::lock_guard<std::mutex> guard(model.lock);
  model.failInitial = model.nullRecord = model.noEvent = false;
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

ZFN_BRIDGE_EXPORT void TestBridge_NoEvent(int32_t none) {
  std::lock_guard<std::mutex> guard(model.lock);
  model.noEvent = none != 0;
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

ZFN_BRIDGE_EXPORT MatlabProbe* TestBridge_Record(void) {
  std::lock_guard<std::mutex> guard(model.lock);
  return model.handed;
}
