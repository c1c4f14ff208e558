#pragma once
// Pieces shared by the test sample sources: the byte stream they serve and the thread that signals
// the receiver's data event. The stream is used under the owning library's lock; the ticker has a
// lock of its own.
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
#include <vector>

namespace zfn_test {

constexpr int32_t kMaxRead = 240648;  // the receiver's read request, and the most one call may give

// Byte k of the deterministic pattern: a multiplicative hash of the position, so that any run of a
// few bytes tells where in the stream it came from.
inline uint8_t PatternByte(uint64_t k) { return static_cast<uint8_t>((k * 2654435761ull) >> 13); }

struct ByteStream {
  std::vector<uint8_t> buffer;  // used when useBuffer, else the pattern
  bool useBuffer = false, loop = false, keepGroupsOfFour = true;
  uint64_t position = 0;           // bytes served since the last Restart
  int32_t fixedLength = kMaxRead;  // bytes per call; 0 = random 1..kMaxRead
  uint32_t seed = 1, rngState = 1;
  int64_t bytesPerSecond = 0;  // 0 = as much as each call asks
  std::chrono::steady_clock::time_point startTime{};
  // Faults: bytes lost before the next byte served, and a stall (no byte served, the events go on)
  // that the pacing does not make up for afterwards.
  uint64_t loseBytes = 0;
  std::chrono::steady_clock::time_point stallUntil{};

  void Stall(int32_t milliseconds) {
    stallUntil = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    startTime += std::chrono::milliseconds(milliseconds);
  }

  void Restart() {
    position = 0;
    rngState = seed != 0 ? seed : 1;
    startTime = std::chrono::steady_clock::now();
  }

  void SetReadLength(int32_t length, uint32_t newSeed, int32_t groupsOfFour) {
    fixedLength = length > 0 ? length : 0;
    seed = newSeed;
    rngState = newSeed != 0 ? newSeed : 1;
    keepGroupsOfFour = groupsOfFour != 0;
  }

  int32_t NextLength(int32_t capacity) {
    int64_t want = fixedLength;
    if (want == 0) {  // xorshift32: the same lengths on every platform for a given seed
      rngState ^= rngState << 13;
      rngState ^= rngState >> 17;
      rngState ^= rngState << 5;
      want = 1 + static_cast<int64_t>(rngState % kMaxRead);
    }
    want = std::min<int64_t>(want, capacity);
    if (bytesPerSecond > 0) {
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime).count();
      const int64_t allowed = static_cast<int64_t>(seconds * static_cast<double>(bytesPerSecond)) -
                              static_cast<int64_t>(position);
      want = std::clamp<int64_t>(allowed, 0, want);
    }
    if (keepGroupsOfFour) want -= want % 4;
    return static_cast<int32_t>(want);
  }

  // Copies the next bytes into out (capacity bytes at most) and returns how many.
  int32_t Serve(uint8_t* out, int32_t capacity) {
    if (out == nullptr || capacity <= 0) return 0;
    if (std::chrono::steady_clock::now() < stallUntil) return 0;
    position += loseBytes;
    loseBytes = 0;
    const int32_t length = NextLength(capacity);
    int32_t served = 0;
    while (served < length) {
      if (!useBuffer) {
        out[served++] = PatternByte(position++);
        continue;
      }
      const uint64_t offset = loop && !buffer.empty() ? position % buffer.size() : position;
      if (offset >= buffer.size()) break;
      const int32_t piece = static_cast<int32_t>(
          std::min<uint64_t>(static_cast<uint64_t>(length - served), buffer.size() - offset));
      std::memcpy(out + served, buffer.data() + offset, static_cast<size_t>(piece));
      served += piece;
      position += static_cast<uint64_t>(piece);
    }
    return served;
  }
};

// A thread that writes the 8-byte value 1 to the registered eventfd every few milliseconds until
// stopped. Stop joins it, so no write happens after Stop returns. Start and Stop are called under
// the owning library's lock; Running and Signalled may be called from anywhere.
class EventTicker {
 public:
  void Start(int eventFd, int32_t periodMs) {
    Stop();
    signalled_ = 0;
    running_ = true;
    thread_ = std::jthread([this, eventFd, periodMs](std::stop_token stop) {
      std::mutex unshared;
      std::unique_lock<std::mutex> hold(unshared);
      std::condition_variable_any wake;
      const uint64_t one = 1;
      const auto period = std::chrono::milliseconds(std::max(periodMs, 1));
      while (!wake.wait_for(hold, stop, period, [&stop] { return stop.stop_requested(); })) {
        if (write(eventFd, &one, sizeof one) == static_cast<ssize_t>(sizeof one)) ++signalled_;
      }
    });
  }

  void Stop() {
    thread_ = std::jthread{};  // asks the thread to stop and joins it
    running_ = false;
  }

  bool Running() const { return running_; }
  int64_t Signalled() const { return signalled_; }

 private:
  std::atomic<bool> running_{false};
  std::atomic<int64_t> signalled_{0};
  std::jthread thread_;  // last: joined before the counters go
};

}  // namespace zfn_test
