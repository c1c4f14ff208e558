// The plotting bridge libISDBT_MatlabWrap.so: owns the probe record that the receiver fills, and on
// each update event draws a picture (constellation, channel, timing profile, status) and writes the
// numbers as CSV files into the directory named by ZFNISDBT_PROBE_DIR, replacing the previous set.
//
// The receiver loads it by plain name when debug command 1 turns the probe on; put build/lib on
// LD_LIBRARY_PATH for that.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include "shell/matlab_probe.h"
#include "tools/probe_bridge/probe_picture.h"

#define BRIDGE_EXPORT extern "C" __attribute__((visibility("default")))

namespace probe_bridge {

using zfn::MatlabProbe;

constexpr const char* PROBE_DIR_VARIABLE = "ZFNISDBT_PROBE_DIR";
constexpr double ABSENT = std::numeric_limits<double>::quiet_NaN();

void Release();

struct Bridge {
  // A host may end with the bridge still showing: the worker is stopped and joined on the way out
  // instead of being destroyed while joinable.
  ~Bridge() { Release(); }

  bool initialised = false;
  std::string directory;
  MatlabProbe record{};
  std::unique_ptr<double[]> storage;  // every array of the record, one after the other
  int stopEvent = -1;
  std::thread worker;
  ProbeSnapshot snapshot;
  uint64_t updates = 0;
};

Bridge bridge;

namespace {

// An eventfd that is never descriptor 0, which the record reserves for "no event".
int CreateEvent() {
  int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd == 0) {
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    close(fd);
    fd = moved;
  }
  return fd;
}

void CloseEvent(int& fd) {
  if (fd > 0) close(fd);
  fd = -1;
}

bool TakeEvent(int fd) {
  uint64_t value = 0;
  return read(fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value);
}

// The receiver stores into the record while this thread may read it: both sides use relaxed atomic
// accesses, so a read that overlaps a write sees old or new values and is no data race.
double Get(double* cell) { return std::atomic_ref<double>(*cell).load(std::memory_order_relaxed); }
void Put(double* cell, double value) { std::atomic_ref<double>(*cell).store(value, std::memory_order_relaxed); }

// The receiver writes channel, slot and timing arrays without a count: their lengths follow from
// the mode. The bridge marks them absent before each set, so the filled length is the run of
// entries before the first mark.
size_t FilledLength(double* array, size_t capacity) {
  size_t n = 0;
  while (n < capacity && !std::isnan(Get(array + n))) ++n;
  return n;
}

void MarkAbsent(double* array, size_t capacity) {
  for (size_t i = 0; i < capacity; ++i) Put(array + i, ABSENT);
}

void Copy(std::vector<double>& target, double* source, size_t n) {
  target.resize(n);
  for (size_t i = 0; i < n; ++i) target[i] = Get(source + i);
}

void TakeSnapshot() {
  MatlabProbe& r = bridge.record;
  ProbeSnapshot& s = bridge.snapshot;
  const int32_t fill = std::atomic_ref<int32_t>(r.fillIndex).load(std::memory_order_relaxed);
  const size_t carriers = fill < 0 ? 0 : std::min<size_t>(static_cast<size_t>(fill), zfn::PROBE_CARRIER_CAPACITY);
  Copy(s.carrierRe, r.carrierRe, carriers);
  Copy(s.carrierIm, r.carrierIm, carriers);
  const size_t channel = std::min(FilledLength(r.channelRe, zfn::PROBE_CHANNEL_CAPACITY),
                                  FilledLength(r.channelIm, zfn::PROBE_CHANNEL_CAPACITY));
  Copy(s.channelRe, r.channelRe, channel);
  Copy(s.channelIm, r.channelIm, channel);
  const size_t slot = std::min(FilledLength(r.slotRe, zfn::PROBE_SLOT_CAPACITY),
                               FilledLength(r.slotIm, zfn::PROBE_SLOT_CAPACITY));
  Copy(s.slotRe, r.slotRe, slot);
  Copy(s.slotIm, r.slotIm, slot);
  Copy(s.timingProfile, r.timingProfile, FilledLength(r.timingProfile, zfn::PROBE_TIMING_CAPACITY));
  const double jumpCount = Get(r.jumpList);
  const size_t jumps = std::isfinite(jumpCount) && jumpCount > 0
                           ? std::min<size_t>(static_cast<size_t>(jumpCount), zfn::PROBE_JUMP_STEPS)
                           : 0;
  Copy(s.jumps, r.jumpList + 1, jumps);
  s.snrDb = Get(r.snrCell);
  s.frequencyOffset = Get(r.frequencyCell);
  for (int i = 0; i < 3; ++i) s.rates[i] = Get(r.ratesCell + i);
  s.blockState = Get(r.stateCell);
  s.channelState = Get(r.channelStateCell);
  s.update = ++bridge.updates;

  MarkAbsent(r.channelRe, zfn::PROBE_CHANNEL_CAPACITY);
  MarkAbsent(r.channelIm, zfn::PROBE_CHANNEL_CAPACITY);
  MarkAbsent(r.slotRe, zfn::PROBE_SLOT_CAPACITY);
  MarkAbsent(r.slotIm, zfn::PROBE_SLOT_CAPACITY);
  MarkAbsent(r.timingProfile, zfn::PROBE_TIMING_CAPACITY);
}

void Run() {
  for (;;) {
    pollfd waits[2] = {{bridge.stopEvent, POLLIN, 0}, {bridge.record.updateEvent, POLLIN, 0}};
    const int r = poll(waits, 2, -1);
    if (r < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (waits[0].revents != 0) return;
    if ((waits[1].revents & POLLIN) != 0 && TakeEvent(bridge.record.updateEvent)) {
      bool written = false;
      try {
        TakeSnapshot();
        written = WriteProbeFiles(bridge.directory, bridge.snapshot);
      } catch (const std::exception&) {
        // Out of memory for the copy or the picture: this update is skipped, the next may fit.
      }
      if (!written) {
        std::fprintf(stderr, "ISDBT_MatlabWrap: could not write the probe files in %s\n", bridge.directory.c_str());
      }
    }
  }
}

}  // namespace

void Release() {
  if (bridge.worker.joinable()) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(bridge.stopEvent, &one, sizeof one);
    bridge.worker.join();
  }
  CloseEvent(bridge.stopEvent);
  CloseEvent(bridge.record.updateEvent);
  bridge.record = MatlabProbe{};
  bridge.storage.reset();
  bridge.initialised = false;
}

}  // namespace probe_bridge

using probe_bridge::bridge;

// Starts the bridge: the output directory, the record and its arrays, the events. -1 on failure.
BRIDGE_EXPORT int32_t MATLAB_Initial(void) {
  if (bridge.initialised) return 0;
  const char* directory = std::getenv(probe_bridge::PROBE_DIR_VARIABLE);
  struct stat st {};
  if (directory == nullptr || directory[0] == '\0') {
    std::fprintf(stderr, "ISDBT_MatlabWrap: set %s to the directory for the probe pictures\n",
                 probe_bridge::PROBE_DIR_VARIABLE);
    return -1;
  }
  if (stat(directory, &st) != 0 || !S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "ISDBT_MatlabWrap: %s=%s is not a directory\n", probe_bridge::PROBE_DIR_VARIABLE, directory);
    return -1;
  }
  bridge.directory = directory;

  constexpr size_t total = 2 * zfn::PROBE_CARRIER_CAPACITY + 1 + 1 + zfn::PROBE_RATES +
                           2 * zfn::PROBE_CHANNEL_CAPACITY + 2 * zfn::PROBE_SLOT_CAPACITY +
                           zfn::PROBE_TIMING_CAPACITY + zfn::PROBE_JUMP_CAPACITY + 1 + 1;
  bridge.storage.reset(new (std::nothrow) double[total]);
  if (!bridge.storage) return -1;
  for (size_t i = 0; i < total; ++i) bridge.storage[i] = 0.0;
  double* next = bridge.storage.get();
  auto take = [&next](size_t n) {
    double* p = next;
    next += n;
    return p;
  };
  zfn::MatlabProbe& r = bridge.record;
  r = zfn::MatlabProbe{};
  r.carrierRe = take(zfn::PROBE_CARRIER_CAPACITY);
  r.carrierIm = take(zfn::PROBE_CARRIER_CAPACITY);
  r.snrCell = take(1);
  r.frequencyCell = take(1);
  r.ratesCell = take(zfn::PROBE_RATES);
  r.channelRe = take(zfn::PROBE_CHANNEL_CAPACITY);
  r.channelIm = take(zfn::PROBE_CHANNEL_CAPACITY);
  r.slotRe = take(zfn::PROBE_SLOT_CAPACITY);
  r.slotIm = take(zfn::PROBE_SLOT_CAPACITY);
  r.timingProfile = take(zfn::PROBE_TIMING_CAPACITY);
  r.jumpList = take(zfn::PROBE_JUMP_CAPACITY);
  r.stateCell = take(1);
  r.channelStateCell = take(1);
  probe_bridge::MarkAbsent(r.channelRe, zfn::PROBE_CHANNEL_CAPACITY);
  probe_bridge::MarkAbsent(r.channelIm, zfn::PROBE_CHANNEL_CAPACITY);
  probe_bridge::MarkAbsent(r.slotRe, zfn::PROBE_SLOT_CAPACITY);
  probe_bridge::MarkAbsent(r.slotIm, zfn::PROBE_SLOT_CAPACITY);
  probe_bridge::MarkAbsent(r.timingProfile, zfn::PROBE_TIMING_CAPACITY);

  r.updateEvent = probe_bridge::CreateEvent();
  bridge.stopEvent = probe_bridge::CreateEvent();
  if (r.updateEvent < 0 || bridge.stopEvent < 0) {
    probe_bridge::Release();
    return -1;
  }
  bridge.initialised = true;
  return 0;
}

// Hands the record to the receiver and starts showing what arrives in it.
BRIDGE_EXPORT int32_t MATLAB_Show(zfn::MatlabProbe** probe) {
  if (probe == nullptr || !bridge.initialised) return -1;
  if (!bridge.worker.joinable()) {
    try {
      bridge.worker = std::thread(probe_bridge::Run);
    } catch (const std::exception&) {
      *probe = nullptr;  // nothing would show the data: the receiver takes this as a failed load
      return -1;
    }
  }
  *probe = &bridge.record;
  return 0;
}

// Stops showing and frees the record.
BRIDGE_EXPORT int32_t MATLAB_Destroy(void) {
  probe_bridge::Release();
  return 0;
}
