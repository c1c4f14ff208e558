#pragma once
// Pieces shared by the test sample sources: the calls of their functions (counted, failing on
// request), the byte stream they serve and the thread that signals the receiver's data event. The
// calls and the stream are used under the owning library's lock; the ticker has a lock of its own.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <stop_token>
#include <thread>
#include <utility>
#include <vector>

namespace zfn_test {

using Clock = std::chrono::steady_clock;
constexpr int32_t kMaxRead = 240648;  // the receiver's read request, and the most one call may give

// Byte k of the deterministic pattern: a multiplicative hash of the position, so that any run of a
// few bytes tells where in the stream it came from.
inline uint8_t PatternByte(uint64_t k) { return static_cast<uint8_t>((k * 2654435761ull) >> 13); }

// The functions of a library by name: each call counted, and calls fromCall .. fromCall + count - 1
// (counted from the request; count < 0: all from fromCall on) made to fail.
template <int N>
struct FunctionCalls {
  const char* const* names;
  struct Rule {
    bool active = false;
    int32_t fromCall = 0, count = 0;
  } rules[N] = {};
  int32_t counts[N] = {}, sinceRule[N] = {};

  int Index(const char* name) const {
    for (int f = 0; name != nullptr && f < N; ++f)
      if (std::strcmp(name, names[f]) == 0) return f;
    return -1;
  }
  bool Fail(const char* name, int32_t fromCall, int32_t count) {
    const int f = Index(name);
    if (f >= 0) rules[f] = {true, fromCall, count}, sinceRule[f] = 0;
    return f >= 0;
  }
  void Clear(bool counts) {
    std::fill(std::begin(rules), std::end(rules), Rule{});
    if (counts) std::fill(std::begin(this->counts), std::end(this->counts), 0);
  }
  // Counts the call and tells whether it is to fail.
  bool Fails(int f) {
    ++counts[f];
    const int32_t call = sinceRule[f]++;
    const Rule& r = rules[f];
    return r.active && call >= r.fromCall && (r.count < 0 || call - r.fromCall < r.count);
  }
};

struct ByteStream {
  std::vector<uint8_t> buffer;  // used when useBuffer, else the pattern
  bool useBuffer = false, loop = false, keepGroupsOfFour = true;
  uint64_t position = 0;           // bytes served since the last Restart
  uint64_t loseBytes = 0;          // lost before the next byte served
  int32_t fixedLength = kMaxRead;  // bytes per call; 0 = random 1..kMaxRead
  uint32_t seed = 1, rngState = 1;
  int64_t bytesPerSecond = 0;  // 0 = as much as each call asks
  // A stall serves nothing (the events go on) and the pacing does not make up for it afterwards.
  Clock::time_point startTime{}, stallUntil{};

  void Stall(int32_t milliseconds) {
    stallUntil = Clock::now() + std::chrono::milliseconds(milliseconds);
    startTime += std::chrono::milliseconds(milliseconds);
  }
  void Restart() {
    position = 0;
    rngState = seed != 0 ? seed : 1;
    startTime = Clock::now();
  }
  void SetReadLength(int32_t length, uint32_t newSeed, int32_t groupsOfFour) {
    fixedLength = std::max(length, 0);
    seed = newSeed;
    rngState = newSeed != 0 ? newSeed : 1;
    keepGroupsOfFour = groupsOfFour != 0;
  }

  // Copies the next bytes into out (capacity bytes at most) and returns how many.
  int32_t Serve(uint8_t* out, int32_t capacity) {
    if (out == nullptr || capacity <= 0 || Clock::now() < stallUntil) return 0;
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

// A thread that writes the 8-byte value 1 to the registered eventfd every 5 ms until stopped.
// Stop joins it, so no write happens after Stop returns. Start and Stop are called under the owning
// library's lock; Running may be called from anywhere.
class EventTicker {
 public:
  void Start(int eventFd) {
    Stop();
    running_ = true;
    thread_ = std::jthread([eventFd](std::stop_token stop) {
      std::mutex unshared;
      std::unique_lock<std::mutex> hold(unshared);
      std::condition_variable_any wake;
      const uint64_t one = 1;
      while (!wake.wait_for(hold, stop, std::chrono::milliseconds(5), [&stop] { return stop.stop_requested(); })) {
        (void)!write(eventFd, &one, sizeof one);  // a full or closed eventfd: the next tick tries again
      }
    });
  }
  void Stop() {
    thread_ = std::jthread{};  // asks the thread to stop and joins it
    running_ = false;
  }
  bool Running() const { return running_; }

 private:
  std::atomic<bool> running_{false};
  std::jthread thread_;  // last: joined before the flag goes
};

// Runs `action` under the model's lock.
template <class Model, class Action>
auto Locked(Model& model, Action action) {
  std::lock_guard<std::mutex> hold(model.lock);
  return action();
}

}  // namespace zfn_test
