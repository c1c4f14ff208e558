// libBDA_simu.so: the simulator sample source. It produces the device byte stream in real time
// from our transmitter and channel model, or plays a capture file in a loop, and signals the
// receiver's eventfd whenever data has arrived, about every 10 ms.
//
// A producer thread generates ahead of real time into a bounded ring; a pacer thread releases the
// bytes as a device would deliver them (at 2 bytes per device sample, times the speed factor) and
// sets the event. GetData hands over what has arrived, at most 240648 bytes and always whole groups
// of four. When the host stops reading, the ring fills and, like a device, the source drops the
// oldest bytes (in whole groups of four) rather than falling behind real time.
#include <dlfcn.h>
#include <fftw3.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "frontend/sample_source_contract.h"
#include "simulator/default_programme.h"
#include "simulator/sim_options.h"
#include "simulator/transmitter.h"

#define ZFN_EXPORT extern "C" __attribute__((visibility("default")))

namespace zfn::sim {
namespace {

constexpr int64_t kChunk = 32768;              // bytes generated per step, a multiple of 4
constexpr int64_t kRingBytes = 64 * kChunk;   // about half a second of the stream
constexpr int32_t kMaxRead = 240648;
constexpr auto kTick = std::chrono::milliseconds(10);

struct Settings {
  BroadcastConfig broadcast;
  ChannelConfig channel;
  std::string tsPath;
  std::string capturePath;
  double speed = 1.0;
  std::vector<int32_t> channelsKHz;  // empty: the broadcast is on every frequency
};

// "KHZ[,KHZ...]": the frequencies (wanted channel centres) that carry the broadcast.
std::string ParseChannels(const std::string& v, std::vector<int32_t>& out) {
  out.clear();
  size_t at = 0;
  while (at <= v.size()) {
    const size_t comma = std::min(v.find(',', at), v.size());
    const std::string item = v.substr(at, comma - at);
    char* end = nullptr;
    const long k = std::strtol(item.c_str(), &end, 10);
    if (item.empty() || *end != 0 || k < 1 || k > 3000000) return "'" + item + "' is not a frequency in kHz";
    out.push_back(static_cast<int32_t>(k));
    at = comma + 1;
  }
  return {};
}

// The frequency the device library's tuner was last set to (the wanted channel + 600 kHz), 0 when
// unknown. The receiver binds the device library in simulation too and, in simulation mode 2,
// tunes through it; the library tells its tuned frequency through one extra export.
int32_t TunedFrequencyKHz() {
  static int32_t (*tuned)(void) = nullptr;
  if (tuned == nullptr) {
    void* library = dlopen("libZFNACCESS.so", RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) return 0;
    tuned = reinterpret_cast<int32_t (*)(void)>(dlsym(library, "ZFN_TunedFrequencyKHz"));
    dlclose(library);  // only drops the reference NOLOAD took; the receiver keeps it loaded
    if (tuned == nullptr) return 0;
  }
  return tuned();
}

// Reads the ZFNISDBT_SIM_* variables; empty result on success, else the reason.
std::string ReadSettings(Settings& s) {
  auto get = [](const char* name) -> const char* {
    const char* v = std::getenv(name);
    return v != nullptr && *v != 0 ? v : nullptr;
  };
  std::string err;
  auto with = [&](const char* name, auto parse) {
    if (!err.empty()) return;
    if (const char* v = get(name)) {
      const std::string problem = parse(std::string(v));
      if (!problem.empty()) err = std::string(name) + ": " + problem;
    }
  };
  Settings& t = s;
  with("ZFNISDBT_SIM_MODE", [&](const std::string& v) { return ParseMode(v, t.broadcast); });
  with("ZFNISDBT_SIM_GUARD", [&](const std::string& v) { return ParseGuard(v, t.broadcast); });
  with("ZFNISDBT_SIM_MODULATION", [&](const std::string& v) { return ParseModulation(v, t.broadcast.modulation); });
  with("ZFNISDBT_SIM_CODE_RATE", [&](const std::string& v) { return ParseCodeRate(v, t.broadcast); });
  with("ZFNISDBT_SIM_INTERLEAVE", [&](const std::string& v) { return ParseInterleave(v, t.broadcast); });
  with("ZFNISDBT_SIM_PARTIAL_RECEPTION", [&](const std::string& v) { return ParseBool(v, t.broadcast.partialReception); });
  with("ZFNISDBT_SIM_SYSTEM_ID", [&](const std::string& v) { return ParseSystemId(v, t.broadcast); });
  with("ZFNISDBT_SIM_NEIGHBOUR_MODULATION", [&](const std::string& v) { return ParseModulation(v, t.broadcast.neighbourModulation); });
  with("ZFNISDBT_SIM_DEVICE_FILTER", [&](const std::string& v) -> std::string {
    if (v == "narrow") t.broadcast.wideDeviceFilter = false;
    else if (v == "wide") t.broadcast.wideDeviceFilter = true;
    else return "must be narrow or wide, not '" + v + "'";
    return {};
  });
  with("ZFNISDBT_SIM_CN", [&](const std::string& v) { return ParseCn(v, t.channel); });
  with("ZFNISDBT_SIM_CARRIER_OFFSET", [&](const std::string& v) { return ParseNumber(v, t.channel.carrierOffsetHz); });
  with("ZFNISDBT_SIM_CLOCK_PPM", [&](const std::string& v) { return ParseNumber(v, t.channel.clockPpm); });
  with("ZFNISDBT_SIM_ECHO", [&](const std::string& v) { return ParseEchoes(v, t.channel); });
  with("ZFNISDBT_SIM_DOPPLER", [&](const std::string& v) { return ParseNumber(v, t.channel.dopplerHz); });
  with("ZFNISDBT_SIM_PROFILE", [&](const std::string& v) { return ParseProfile(v, t.channel); });
  with("ZFNISDBT_SIM_LEVEL", [&](const std::string& v) { return ParseNumber(v, t.channel.rmsLevel); });
  with("ZFNISDBT_SIM_DROP", [&](const std::string& v) { return ParseDrop(v, t.channel); });
  with("ZFNISDBT_SIM_FRONT_END", [&](const std::string& v) { return ParseFrontEnd(v, t.channel); });
  with("ZFNISDBT_SIM_TRANSMIT_FILTER", [&](const std::string& v) { return ParseBool(v, t.channel.transmitFilter); });
  with("ZFNISDBT_SIM_DC", [&](const std::string& v) { return ParsePair(v, t.channel.dcI, t.channel.dcQ); });
  with("ZFNISDBT_SIM_IQ_IMBALANCE", [&](const std::string& v) { return ParsePair(v, t.channel.iqGainDb, t.channel.iqPhaseDeg); });
  with("ZFNISDBT_SIM_TRANSFER_LOSS", [&](const std::string& v) { return ParseTransferLoss(v, t.channel); });
  with("ZFNISDBT_SIM_SEED", [&](const std::string& v) -> std::string {
    long long seed = 0;
    if (!ParseInteger(v, seed).empty() || seed < 0) return "must be a whole number of at least 0, not '" + v + "'";
    t.broadcast.seed = static_cast<uint64_t>(seed);
    t.channel.seed = static_cast<uint64_t>(seed) + 1;
    return {};
  });
  with("ZFNISDBT_SIM_SPEED", [&](const std::string& v) -> std::string {
    if (!ParseNumber(v, t.speed).empty() || !(t.speed > 0 && t.speed <= 1000)) return "must be a number above 0 and at most 1000, not '" + v + "'";
    return {};
  });
  with("ZFNISDBT_SIM_CHANNELS", [&](const std::string& v) { return ParseChannels(v, t.channelsKHz); });
  if (const char* v = get("ZFNISDBT_SIM_TS")) t.tsPath = v;
  if (const char* v = get("ZFNISDBT_SIM_CAPTURE")) t.capturePath = v;
  if (!err.empty()) return err;
  return CheckConfig(t.broadcast, t.channel);
}

// Where the bytes come from: the generator or a capture file.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual void Fill(uint8_t* out, size_t count) = 0;
};

class GeneratorSource final : public ByteSource {
 public:
  explicit GeneratorSource(std::unique_ptr<SignalGenerator> g) : g_(std::move(g)) {}
  void Fill(uint8_t* out, size_t count) override { g_->GenerateBytes(out, count); }

 private:
  std::unique_ptr<SignalGenerator> g_;
};

class CaptureSource final : public ByteSource {
 public:
  explicit CaptureSource(FILE* f) : f_(f) {}
  ~CaptureSource() override { std::fclose(f_); }
  void Fill(uint8_t* out, size_t count) override {
    size_t done = 0;
    int rewinds = 0;
    while (done < count) {
      const size_t got = std::fread(out + done, 1, count - done, f_);
      done += got;
      if (done < count) {
        if (++rewinds > 2) {  // the file went away or shrank to nothing: fill with the zero level
          std::memset(out + done, 127, count - done);
          return;
        }
        std::rewind(f_);
      }
    }
  }

 private:
  FILE* f_;
};

std::unique_ptr<ByteSource> OpenSource(const Settings& s, std::string& err) {
  if (!s.capturePath.empty()) {
    FILE* f = std::fopen(s.capturePath.c_str(), "rb");
    if (f == nullptr) {
      err = "ZFNISDBT_SIM_CAPTURE: cannot open '" + s.capturePath + "'";
      return nullptr;
    }
    std::fseek(f, 0, SEEK_END);
    const long size = std::ftell(f);
    std::rewind(f);
    if (size < 4 || size % 4 != 0) {
      std::fclose(f);
      err = "ZFNISDBT_SIM_CAPTURE: '" + s.capturePath + "' is not a capture (empty or not whole groups of four bytes)";
      return nullptr;
    }
    return std::make_unique<CaptureSource>(f);
  }
  std::unique_ptr<PacketSource> packets;
  std::string path = s.tsPath;
  if (path.empty()) path = DefaultProgrammePath(reinterpret_cast<const void*>(&OpenSource));
  if (!path.empty()) {
    std::string why;
    packets = OpenTsFile(path, LayerBitRate(s.broadcast), &why);
    if (!packets) {
      err = "ZFNISDBT_SIM_TS: " + why;
      return nullptr;
    }
  } else {
    packets = MakeTestPatternSource(s.broadcast.seed);
  }
  std::string why;
  auto g = SignalGenerator::Create(s.broadcast, s.channel, std::move(packets), &why);
  if (!g) {
    err = why;
    return nullptr;
  }
  return std::make_unique<GeneratorSource>(std::move(g));
}

class Simulator {
 public:
  int32_t SetEvent(int* event) {
    if (event == nullptr) return -1;
    std::lock_guard<std::mutex> lock(apiLock_);
    eventPtr_ = event;
    return 0;
  }

  int32_t Start() {
    std::lock_guard<std::mutex> lock(apiLock_);
    StopLocked();
    Settings s;
    std::string err = ReadSettings(s);
    std::unique_ptr<ByteSource> source;
    if (err.empty()) source = OpenSource(s, err);
    if (!source) {
      std::fprintf(stderr, "BDA_simu: %s\n", err.c_str());
      return -1;
    }
    eventFd_ = eventPtr_ != nullptr ? *eventPtr_ : -1;
    source_ = std::move(source);
    speed_ = s.speed;
    channelsKHz_ = s.channelsKHz;
    tunedKHz_ = -1;
    noiseState_ = s.broadcast.seed * 2654435761u + 1;
    ring_.assign(static_cast<size_t>(kRingBytes), 127);
    produced_ = arrived_ = consumed_ = 0;
    running_.store(true);
    producer_ = std::thread([this] { Produce(); });
    pacer_ = std::thread([this] { Pace(); });
    return 0;
  }

  int32_t Stop() {
    std::lock_guard<std::mutex> lock(apiLock_);
    StopLocked();
    return 0;
  }

  int32_t Get(uint8_t* buffer, int32_t* length) {
    if (length == nullptr) return -1;
    *length = 0;
    if (buffer == nullptr) return -1;
    std::unique_lock<std::mutex> lock(ringLock_);
    if (!running_.load()) return -1;
    int64_t take = std::min<int64_t>(arrived_ - consumed_, kMaxRead) / 4 * 4;
    const int64_t at = consumed_ % kRingBytes;
    const int64_t first = std::min(take, kRingBytes - at);
    std::memcpy(buffer, ring_.data() + at, static_cast<size_t>(first));
    std::memcpy(buffer + first, ring_.data(), static_cast<size_t>(take - first));
    consumed_ += take;
    lock.unlock();
    space_.notify_one();
    *length = static_cast<int32_t>(take);
    return 0;
  }

  ~Simulator() {
    std::lock_guard<std::mutex> lock(apiLock_);
    StopLocked();
  }

 private:
  void StopLocked() {
    if (!running_.load() && !producer_.joinable()) return;
    {
      std::lock_guard<std::mutex> lock(ringLock_);
      running_.store(false);
    }
    space_.notify_all();
    if (producer_.joinable()) producer_.join();
    if (pacer_.joinable()) pacer_.join();
    source_.reset();
    std::vector<uint8_t>().swap(ring_);
  }

  void Produce() {
    std::vector<uint8_t> chunk(static_cast<size_t>(kChunk));
    for (;;) {
      int64_t at;
      bool onAir = true;
      {
        std::unique_lock<std::mutex> lock(ringLock_);
        space_.wait(lock, [&] { return !running_.load() || produced_ + kChunk <= consumed_ + kRingBytes; });
        if (!running_.load()) return;
        if (!channelsKHz_.empty()) {
          // A retune discards what was made ahead for the old frequency, as a tuner would.
          const int32_t tuned = TunedFrequencyKHz();
          if (tuned != tunedKHz_) {
            tunedKHz_ = tuned;
            produced_ = (arrived_ + kChunk - 1) / kChunk * kChunk;  // chunks stay aligned to the ring
          }
          onAir = std::find(channelsKHz_.begin(), channelsKHz_.end(), tuned - 600) != channelsKHz_.end();
        }
        at = produced_;
      }
      // The region [at, at + kChunk) is neither readable nor read until produced_ moves on.
      if (onAir) {
        source_->Fill(ring_.data() + at % kRingBytes, static_cast<size_t>(kChunk));
      } else {
        FillNoise(ring_.data() + at % kRingBytes, static_cast<size_t>(kChunk));
      }
      std::lock_guard<std::mutex> lock(ringLock_);
      produced_ = at + kChunk;
    }
  }

  void Pace() {
    const double bytesPerSecond = 2.0 * kDeviceNominalRateHz * speed_;
    const auto start = std::chrono::steady_clock::now();
    auto next = start;
    while (running_.load()) {
      next += kTick;
      std::this_thread::sleep_until(next);
      const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      const auto target = static_cast<int64_t>(elapsed * bytesPerSecond) / 4 * 4;
      bool signal = false;
      {
        std::lock_guard<std::mutex> lock(ringLock_);
        if (!running_.load()) break;
        // A host that does not read: the ring is full and real time has moved on. Drop the
        // oldest bytes, as a device overrun would, so the producer can go on.
        if (target > produced_ && produced_ + kChunk > consumed_ + kRingBytes)
          consumed_ = std::min(arrived_, produced_ + kChunk - kRingBytes);
        const int64_t reach = std::min(target, produced_);
        if (reach > arrived_) {
          arrived_ = reach;
          signal = true;
        }
      }
      space_.notify_one();
      if (signal && eventFd_ >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = ::write(eventFd_, &one, sizeof one);
      }
    }
  }

  // An empty channel: white noise in both byte components around 127, a sum of four uniform
  // values (near Gaussian), about 28 steps RMS like the default signal level.
  void FillNoise(uint8_t* out, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      int sum = 0;
      for (int k = 0; k < 4; ++k) {
        noiseState_ ^= noiseState_ << 13;
        noiseState_ ^= noiseState_ >> 7;
        noiseState_ ^= noiseState_ << 17;
        sum += static_cast<int>(noiseState_ % 49) - 24;
      }
      out[i] = static_cast<uint8_t>(std::clamp(127 + sum, 0, 255));
    }
  }

  std::mutex apiLock_;
  std::vector<int32_t> channelsKHz_;
  int32_t tunedKHz_ = -1;
  uint64_t noiseState_ = 1;
  int* eventPtr_ = nullptr;
  int eventFd_ = -1;
  std::unique_ptr<ByteSource> source_;
  double speed_ = 1.0;
  std::mutex ringLock_;
  std::condition_variable space_;
  std::vector<uint8_t> ring_;
  int64_t produced_ = 0, arrived_ = 0, consumed_ = 0;
  std::atomic<bool> running_{false};
  std::thread producer_, pacer_;
};

Simulator& Instance() {
  static Simulator simulator;
  return simulator;
}

}  // namespace
}  // namespace zfn::sim

ZFN_EXPORT int32_t SetEventHandle(int* event) { return zfn::sim::Instance().SetEvent(event); }

ZFN_EXPORT int32_t BDA_Start_simulate(void) {
  // The receiver plans its transforms on its own threads; make FFTW's planner safe for that.
  fftwf_make_planner_thread_safe();
  return zfn::sim::Instance().Start();
}

ZFN_EXPORT int32_t GetData(uint8_t* buffer, int32_t* length) { return zfn::sim::Instance().Get(buffer, length); }

ZFN_EXPORT int32_t BDA_Stop_simulate(void) { return zfn::sim::Instance().Stop(); }

// The functions must match the contract's types.
static_assert(std::is_same_v<decltype(&SetEventHandle), SimSetEventHandleFn>);
static_assert(std::is_same_v<decltype(&BDA_Start_simulate), SimStartFn>);
static_assert(std::is_same_v<decltype(&GetData), SimGetDataFn>);
static_assert(std::is_same_v<decltype(&BDA_Stop_simulate), SimStopFn>);
