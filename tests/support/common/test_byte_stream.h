#pragma once
// Pieces shared by the test sample sources: the byte stream they serve and the thread that signals
// the receiver's data event. Both are used under the owning library's own lock, except the ticker,
// which has a lock of its own.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <mutex>
#include <thread>
#include <vector>

namespace zfn_test {

constexpr int32_t kMaxRead = 240648;  // the receiver's read request, and the most one call may give

// Byte k of the deterministic pattern. A multiplicative hash of the position, so that any run of a
// few bytes tells where in the stream it came from.
inline uint8_t PatternByte(uint64_t k) { return static_cast<uint8_t>((k * 2654435761ull) >> 13); }

// The bytes a source hands out, call by call.
struct ByteStream {
  std::vector<uint8_t> buffer;  // used when useBuffer, else the pattern
  bool useBuffer = false;
  bool loop = false;
  uint64_t position = 0;         // bytes served since the last Restart
  int32_t fixedLength = kMaxRead;  // bytes per call; 0 = random 1..kMaxRead
  uint32_t seed = 1;
  uint32_t rngState = 1;
  bool keepGroupsOfFour = true;
  int64_t bytesPerSecond = 0;  // 0 = as much as each call asks
  std::chrono::steady_clock::time_point startTime{};

  void Restart() {
    position = 0;
    rngState = seed != 0 ? seed : 1;
    startTime = std::chrono::steady_clock::now();
  }

  uint32_t NextRandom() {  // xorshift32: the same lengths on every platform for a given seed
    uint32_t x = rngState;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    rngState = x;
    return x;
  }

  int32_t NextLength(int32_t capacity) {
    int64_t want = fixedLength > 0 ? fixedLength : 1 + static_cast<int64_t>(NextRandom() % kMaxRead);
    if (want > capacity) want = capacity;
    if (bytesPerSecond > 0) {
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime).count();
      const int64_t allowed = static_cast<int64_t>(seconds * static_cast<double>(bytesPerSecond)) -
                              static_cast<int64_t>(position);
      if (want > allowed) want = allowed > 0 ? allowed : 0;
    }
    if (keepGroupsOfFour) want -= want % 4;
    return static_cast<int32_t>(want);
  }

  // Copies the next bytes into out (capacity bytes at most) and returns how many.
  int32_t Serve(uint8_t* out, int32_t capacity) {
    if (out == nullptr || capacity <= 0) return 0;
    int32_t length = NextLength(capacity);
    if (!useBuffer) {
      for (int32_t i = 0; i < length; ++i) out[i] = PatternByte(position + static_cast<uint64_t>(i));
      position += static_cast<uint64_t>(length);
      return length;
    }
    int32_t served = 0;
    while (served < length && !buffer.empty()) {
      uint64_t offset = position;
      if (loop) offset %= buffer.size();
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

// Stream settings from the environment, each variable named prefix + suffix:
//   READ_LENGTH  bytes per call, or "random" for 1..240648 (default 240648)
//   SEED         seed of the random lengths (default 1)
//   UNALIGNED    1: do not round lengths down to groups of four
//   BYTE_RATE    pace the stream to this many bytes per second (default unpaced)
//   PERIOD_MS    event period in milliseconds (default 5)
inline void ApplyStreamEnvironment(const char* prefix, ByteStream& stream, int32_t& periodMs) {
  auto get = [prefix](const char* suffix) { return std::getenv((std::string(prefix) + suffix).c_str()); };
  if (const char* length = get("READ_LENGTH")) {
    stream.fixedLength = std::strcmp(length, "random") == 0 ? 0 : std::atoi(length);
    if (stream.fixedLength < 0) stream.fixedLength = kMaxRead;
  }
  if (const char* seed = get("SEED")) stream.seed = static_cast<uint32_t>(std::strtoul(seed, nullptr, 10));
  if (const char* unaligned = get("UNALIGNED")) stream.keepGroupsOfFour = std::atoi(unaligned) == 0;
  if (const char* rate = get("BYTE_RATE")) stream.bytesPerSecond = std::max<int64_t>(0, std::atoll(rate));
  if (const char* period = get("PERIOD_MS")) periodMs = std::atoi(period) > 0 ? std::atoi(period) : 5;
}

// A thread that writes the 8-byte value 1 to the registered eventfd every few milliseconds until
// stopped. Stop joins it, so no write happens after Stop returns.
class EventTicker {
 public:
  ~EventTicker() { Stop(); }

  void Start(int eventFd, int32_t periodMs) {
    Stop();
    std::lock_guard<std::mutex> hold(lock_);
    stopping_ = false;
    signalled_ = 0;
    thread_ = std::thread([this, eventFd, periodMs] { Run(eventFd, periodMs); });
  }

  void Stop() {
    std::thread finishing;
    {
      std::lock_guard<std::mutex> hold(lock_);
      stopping_ = true;
      finishing = std::move(thread_);
    }
    wake_.notify_all();
    if (finishing.joinable()) finishing.join();
  }

  bool Running() {
    std::lock_guard<std::mutex> hold(lock_);
    return thread_.joinable();
  }

  int64_t Signalled() {
    std::lock_guard<std::mutex> hold(lock_);
    return signalled_;
  }

 private:
  void Run(int eventFd, int32_t periodMs) {
    std::unique_lock<std::mutex> hold(lock_);
    const auto period = std::chrono::milliseconds(periodMs > 0 ? periodMs : 1);
    while (!wake_.wait_for(hold, period, [this] { return stopping_; })) {
      const uint64_t one = 1;
      hold.unlock();
      const ssize_t written = write(eventFd, &one, sizeof one);
      hold.lock();
      if (written == static_cast<ssize_t>(sizeof one)) ++signalled_;
    }
  }

  std::mutex lock_;
  std::condition_variable wake_;
  std::thread thread_;
  bool stopping_ = false;
  int64_t signalled_ = 0;
};

}  // namespace zfn_test
