// The SDR stream of the device library. SoapySDR gives complex floats at a rate the device offers;
// the reader thread brings them to the device rate of the design (2031746 samples/s, corrected by
// the sample clock word), shifts them by the IF word's departure from the nominal 600 kHz,
// conditions them into the device byte stream, steers the SDR's gain by the conditioning's advice,
// and keeps the bytes in a fixed ring. Everything is allocated at open; nothing while samples flow.
#include "frontend/sdr_device/sdr_stream.h"

#include <SoapySDR/Device.hpp>
#include <SoapySDR/Errors.hpp>
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Logger.hpp>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <liquid/liquid.h>

#include "frontend/conditioning.h"
#include "frontend/sdr_device/sdr_choice.h"

namespace zfn::sdr {

namespace {

using Complex = std::complex<float>;
using Clock = std::chrono::steady_clock;

constexpr size_t READ_SAMPLES = 16384;       // one read: 8 ms at the device rate
constexpr long READ_TIMEOUT_US = 100000;     // the reader sees a stop request within this
constexpr auto DEAD_AFTER = std::chrono::milliseconds(500);  // no samples this long: the device stopped
constexpr auto ERROR_PAUSE = std::chrono::milliseconds(10);  // between reads that fail at once
constexpr size_t RING_BYTES = size_t{1} << 22;  // about one second of the device byte stream

// Resampler: a polyphase filter bank of semi-length 8 taps, 60 dB stop band, 32 phases. Its pass
// band reaches 0.45 of the lower of the two rates, well beyond what the conditioning keeps.
constexpr unsigned RESAMPLER_M = 8;
constexpr size_t HISTORY = 2 * RESAMPLER_M;  // input kept from the read before
constexpr float RESAMPLER_STOPBAND_DB = 60.0f;
constexpr unsigned RESAMPLER_PHASES = 32;
// Below this departure from 1 the rates are the same and the samples pass unfiltered.
constexpr double SAME_RATIO = 0.5e-6;
constexpr double MAX_CLOCK_WORD = 8192.0;  // the 14-bit word's largest magnitude

// Gain steering by the conditioning's advice (the change of the SDR's gain that brings its input
// to the level the conditioning wants, and a step down at once while the converter clips): judged
// every GAIN_WINDOW_SAMPLES (0.1 s), acted on when at least GAIN_HYSTERESIS_DB, at most
// GAIN_STEP_LIMIT_DB at a time; the window after a change is left out, since samples taken before
// the SDR applied it are still arriving.
constexpr double GAIN_HYSTERESIS_DB = 4.0;
constexpr double GAIN_STEP_LIMIT_DB = 12.0;
constexpr size_t GAIN_WINDOW_SAMPLES = 200000;

struct GainLoop {
  bool on;
  double gainDb;
  SoapySDR::Range range;
  size_t samples;  // since the last judgement
  bool settling;
};

struct ByteRing {
  std::mutex lock;
  std::vector<uint8_t> bytes;
  uint64_t written;
  uint64_t read;
};

struct SdrStream {
  SoapySDR::Device* device = nullptr;
  SoapySDR::Stream* stream = nullptr;
  std::mutex controlLock;  // control calls to the device: tuning from the caller, gain from the reader
  std::thread reader;
  std::atomic<bool> stopRequest{false};
  std::atomic<bool> stopped{false};

  double deviceRate = 0.0;  // the stream's rate as the device reports it
  double ppm = 0.0;
  std::atomic<uint32_t> ifWord{0};
  std::atomic<int32_t> clockWord{0};
  std::atomic<uint32_t> retunes{0};

  // Reader-only state.
  std::vector<Complex> input;      // HISTORY samples of the read before, then the new read
  std::vector<Complex> output;     // at the device rate
  std::vector<uint8_t> conditioned;
  resamp_crcf resampler = nullptr;
  bool resampling = false;
  double ratio = 1.0;
  double ncoPhase = 0.0;
  SdrConditioner conditioner{};
  GainLoop gain{};

  ByteRing ring;
  std::mutex eventLock;
  int eventDescriptor = -1;
};

SdrStream sdr;

double Ratio(int32_t clockWord) {
  const double out = DEVICE_SAMPLE_RATE_HZ * (1.0 + static_cast<double>(clockWord) * CLOCK_WORD_SCALE);
  return out / (sdr.deviceRate * (1.0 + sdr.ppm * 1e-6));
}

void SignalData() {
  std::lock_guard<std::mutex> hold(sdr.eventLock);
  if (sdr.eventDescriptor < 0) return;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t w = write(sdr.eventDescriptor, &one, sizeof one);
}

// Appends whole groups of four; the oldest bytes give way when the fetcher falls behind.
void PushBytes(const uint8_t* bytes, size_t count) {
  if (count == 0) return;
  ByteRing& r = sdr.ring;
  std::lock_guard<std::mutex> hold(r.lock);
  const size_t capacity = r.bytes.size();
  if (count > capacity) {
    bytes += count - capacity;
    count = capacity;
  }
  const uint64_t room = capacity - (r.written - r.read);
  if (count > room) r.read += count - room;
  const size_t at = static_cast<size_t>(r.written % capacity);
  const size_t first = std::min(count, capacity - at);
  std::memcpy(r.bytes.data() + at, bytes, first);
  std::memcpy(r.bytes.data(), bytes + first, count - first);
  r.written += count;
}

void SetGain(double db) {
  std::lock_guard<std::mutex> hold(sdr.controlLock);
  try {
    sdr.device->setGain(SOAPY_SDR_RX, 0, db);
  } catch (...) {
  }
}

void SteerGain(size_t n) {
  GainLoop& g = sdr.gain;
  if (!g.on) return;
  g.samples += n;
  if (g.samples < GAIN_WINDOW_SAMPLES) return;
  g.samples = 0;
  if (g.settling) {
    g.settling = false;
    return;
  }
  const double advice = SdrGainAdviceDb(sdr.conditioner);
  if (std::fabs(advice) < GAIN_HYSTERESIS_DB) return;
  double next = std::clamp(g.gainDb + std::clamp(advice, -GAIN_STEP_LIMIT_DB, GAIN_STEP_LIMIT_DB),
                           g.range.minimum(), g.range.maximum());
  if (g.range.step() > 0.0) {
    next = g.range.minimum() + std::round((next - g.range.minimum()) / g.range.step()) * g.range.step();
  }
  if (next == g.gainDb) return;
  SetGain(next);
  SdrConditionerGainChanged(sdr.conditioner, static_cast<float>(next - g.gainDb));
  g.gainDb = next;
  g.settling = true;
}

// Brings `n` new samples (after the history in sdr.input) to the device rate; returns how many.
size_t ToDeviceRate(size_t n) {
  const double ratio = Ratio(sdr.clockWord.load(std::memory_order_relaxed));
  const bool resample = std::fabs(ratio - 1.0) > SAME_RATIO;
  unsigned produced = 0;
  if (resample) {
    if (!sdr.resampling) {
      // From the unfiltered path: the filter is primed with the history, so that its delay of
      // RESAMPLER_M samples continues where the delayed pass-through stopped.
      resamp_crcf_reset(sdr.resampler);
      resamp_crcf_set_rate(sdr.resampler, static_cast<float>(ratio));
      resamp_crcf_execute_block(sdr.resampler, sdr.input.data(), HISTORY, sdr.output.data(), &produced);
    } else if (ratio != sdr.ratio) {
      resamp_crcf_set_rate(sdr.resampler, static_cast<float>(ratio));
    }
    resamp_crcf_execute_block(sdr.resampler, sdr.input.data() + HISTORY, static_cast<unsigned>(n),
                              sdr.output.data(), &produced);
  } else {
    // The same delay as the filter's, so that a change of path neither repeats nor skips samples.
    std::copy_n(sdr.input.data() + HISTORY - RESAMPLER_M, n, sdr.output.data());
    produced = static_cast<unsigned>(n);
  }
  sdr.resampling = resample;
  sdr.ratio = ratio;
  std::copy_n(sdr.input.data() + n, HISTORY, sdr.input.data());
  return produced;
}

// The IF word's departure from the nominal shift, as a rotation at the device rate.
void ShiftByIfWord(Complex* x, size_t n) {
  const int64_t departure =
      static_cast<int64_t>(sdr.ifWord.load(std::memory_order_relaxed)) - static_cast<int64_t>(NOMINAL_IF_WORD);
  if (departure == 0) return;
  const double step = 6.283185307179586 * static_cast<double>(departure) * IF_WORD_HZ / DEVICE_SAMPLE_RATE_HZ;
  Complex rotor = std::polar(1.0f, static_cast<float>(sdr.ncoPhase));
  const Complex turn = std::polar(1.0f, static_cast<float>(step));
  for (size_t k = 0; k < n; ++k) {
    x[k] *= rotor;
    rotor *= turn;
  }
  sdr.ncoPhase = std::fmod(sdr.ncoPhase + step * static_cast<double>(n), 6.283185307179586);
}

void ReadLoop() {
  auto lastSamples = Clock::now();
  uint32_t retunesSeen = sdr.retunes.load();
  bool restart = true;
  while (!sdr.stopRequest.load(std::memory_order_relaxed)) {
    void* buffers[1] = {sdr.input.data() + HISTORY};
    int flags = 0;
    long long timeNs = 0;
    int n = SOAPY_SDR_STREAM_ERROR;
    try {
      n = sdr.device->readStream(sdr.stream, buffers, READ_SAMPLES, flags, timeNs, READ_TIMEOUT_US);
    } catch (...) {
      // A driver that throws is a stream that errs.
    }
    const auto now = Clock::now();
    if (n <= 0) {
      if (n == SOAPY_SDR_OVERFLOW) {
        // Samples were lost, but the device lives (the conditioning needs no restart for that).
        lastSamples = now;
        continue;
      }
      if (now - lastSamples > DEAD_AFTER) break;
      if (n != SOAPY_SDR_TIMEOUT && n != 0) std::this_thread::sleep_for(ERROR_PAUSE);
      continue;
    }
    lastSamples = now;
    const uint32_t retunes = sdr.retunes.load();
    if (retunes != retunesSeen) {
      retunesSeen = retunes;
      restart = true;
    }
    if (restart) {
      SdrConditionerReset(sdr.conditioner);
      restart = false;
    }
    const size_t produced = ToDeviceRate(static_cast<size_t>(n));
    ShiftByIfWord(sdr.output.data(), produced);
    const size_t bytes = SdrConditionFloat(sdr.conditioner, reinterpret_cast<const float*>(sdr.output.data()),
                                           produced, sdr.conditioned.data());
    SteerGain(produced);
    if (bytes == 0) continue;
    PushBytes(sdr.conditioned.data(), bytes);
    SignalData();
  }
  // The device stopped delivering (or close asked): what is left is not announced any more.
  {
    std::lock_guard<std::mutex> hold(sdr.ring.lock);
    sdr.ring.read = sdr.ring.written;
  }
  sdr.stopped.store(true);
}

SoapySDR::Device* MakeDevice(const std::string& args) {
  if (!args.empty()) return SoapySDR::Device::make(args);
  const SoapySDR::KwargsList found = FindDefaultDevices();
  return found.empty() ? nullptr : SoapySDR::Device::make(found.front());
}

void SetUpGain(const SdrSettings& s) {
  GainLoop& g = sdr.gain;
  g = GainLoop{};
  g.range = sdr.device->getGainRange(SOAPY_SDR_RX, 0);
  const bool adjustable = g.range.maximum() > g.range.minimum();
  if (sdr.device->hasGainMode(SOAPY_SDR_RX, 0)) sdr.device->setGainMode(SOAPY_SDR_RX, 0, false);
  if (!s.autoGain) {
    sdr.device->setGain(SOAPY_SDR_RX, 0, std::clamp(s.gainDb, g.range.minimum(), g.range.maximum()));
    return;
  }
  if (!adjustable) return;
  g.on = true;
  g.gainDb = 0.5 * (g.range.minimum() + g.range.maximum());
  if (g.range.step() > 0.0) {
    g.gainDb = g.range.minimum() + std::round((g.gainDb - g.range.minimum()) / g.range.step()) * g.range.step();
  }
  sdr.device->setGain(SOAPY_SDR_RX, 0, g.gainDb);
}

void ReleaseAll() {
  if (sdr.device != nullptr) {
    if (sdr.stream != nullptr) {
      try {
        sdr.device->deactivateStream(sdr.stream);
        sdr.device->closeStream(sdr.stream);
      } catch (...) {
      }
    }
    try {
      SoapySDR::Device::unmake(sdr.device);
    } catch (...) {
    }
  }
  sdr.device = nullptr;
  sdr.stream = nullptr;
  if (sdr.resampler != nullptr) resamp_crcf_destroy(sdr.resampler);
  sdr.resampler = nullptr;
  sdr.input = {};
  sdr.output = {};
  sdr.conditioned = {};
  sdr.ring.bytes = {};
}

}  // namespace

bool SdrOpen(const SdrSettings& settings) {
  if (sdr.device != nullptr) return false;
  // The SDR drivers' own messages stay quiet: the receiver's library writes only its own lines.
  SoapySDR::setLogLevel(SOAPY_SDR_CRITICAL);
  try {
    sdr.device = MakeDevice(settings.deviceArgs);
    if (sdr.device == nullptr) return false;
    const double rate = ChooseStreamRate(sdr.device->listSampleRates(SOAPY_SDR_RX, 0),
                                         sdr.device->getSampleRateRange(SOAPY_SDR_RX, 0));
    if (rate == 0.0) {
      ReleaseAll();
      return false;
    }
    sdr.device->setSampleRate(SOAPY_SDR_RX, 0, rate);
    sdr.deviceRate = sdr.device->getSampleRate(SOAPY_SDR_RX, 0);
    if (!(sdr.deviceRate > 0.0)) sdr.deviceRate = rate;
    sdr.ppm = settings.ppm;
    SetUpGain(settings);
    sdr.stream = sdr.device->setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32, {0});
  } catch (...) {
    ReleaseAll();
    return false;
  }

  // Room for the largest ratio that the clock word and the crystal correction can ask.
  const double maxRatio = DEVICE_SAMPLE_RATE_HZ * (1.0 + MAX_CLOCK_WORD * CLOCK_WORD_SCALE) /
                          (sdr.deviceRate * (1.0 - std::fabs(sdr.ppm) * 1e-6));
  const size_t maxOutput = static_cast<size_t>(std::ceil(static_cast<double>(READ_SAMPLES + HISTORY) * maxRatio)) + 8;
  sdr.input.assign(HISTORY + READ_SAMPLES, Complex{});
  sdr.output.assign(maxOutput, Complex{});
  sdr.conditioned.assign(2 * maxOutput + 2, 0);
  {
    std::lock_guard<std::mutex> hold(sdr.ring.lock);
    sdr.ring.bytes.assign(RING_BYTES, 0);
    sdr.ring.written = 0;
    sdr.ring.read = 0;
  }
  const double ratio = Ratio(sdr.clockWord.load());
  const float cutoff = 0.45f * static_cast<float>(std::min(1.0, ratio));
  sdr.resampler = resamp_crcf_create(static_cast<float>(ratio), RESAMPLER_M, cutoff, RESAMPLER_STOPBAND_DB,
                                     RESAMPLER_PHASES);
  sdr.resampling = false;
  sdr.ratio = 1.0;
  sdr.ncoPhase = 0.0;
  SdrConditionerReset(sdr.conditioner);

  try {
    if (sdr.resampler == nullptr || sdr.device->activateStream(sdr.stream) != 0) {
      ReleaseAll();
      return false;
    }
  } catch (...) {
    ReleaseAll();
    return false;
  }
  sdr.stopRequest.store(false);
  sdr.stopped.store(false);
  try {
    sdr.reader = std::thread(ReadLoop);
  } catch (...) {
    ReleaseAll();
    return false;
  }
  return true;
}

void SdrClose() {
  sdr.stopRequest.store(true);
  if (sdr.reader.joinable()) sdr.reader.join();
  ReleaseAll();
  sdr.stopped.store(false);
}

bool SdrIsOpen() { return sdr.device != nullptr; }

bool SdrTune(int32_t tunerKHz) {
  if (sdr.device == nullptr) return true;  // nothing to tune: simulation binds the library too
  const double channelHz = static_cast<double>(tunerKHz) * 1000.0 - NOMINAL_IF_WORD * IF_WORD_HZ;
  // A crystal that runs fast by ppm puts every frequency that much higher: ask that much lower.
  const double asked = channelHz / (1.0 + sdr.ppm * 1e-6);
  try {
    std::lock_guard<std::mutex> hold(sdr.controlLock);
    sdr.device->setFrequency(SOAPY_SDR_RX, 0, asked);
  } catch (...) {
    return false;
  }
  sdr.retunes.fetch_add(1);
  return true;
}

void SdrSetIfWord(uint32_t word) { sdr.ifWord.store(word, std::memory_order_relaxed); }
void SdrSetClockWord(int32_t word) { sdr.clockWord.store(word, std::memory_order_relaxed); }

void SdrSetEvent(int descriptor) {
  std::lock_guard<std::mutex> hold(sdr.eventLock);
  sdr.eventDescriptor = descriptor;
}

int32_t SdrFetch(uint8_t* buffer, int32_t size) {
  if (sdr.stopped.load() || size < 4) return 0;
  ByteRing& r = sdr.ring;
  std::lock_guard<std::mutex> hold(r.lock);
  if (r.bytes.empty()) return 0;
  const size_t capacity = r.bytes.size();
  const size_t count = std::min(static_cast<size_t>(r.written - r.read), static_cast<size_t>(size) & ~size_t{3});
  const size_t at = static_cast<size_t>(r.read % capacity);
  const size_t first = std::min(count, capacity - at);
  std::memcpy(buffer, r.bytes.data() + at, first);
  std::memcpy(buffer + first, r.bytes.data(), count - first);
  r.read += count;
  return static_cast<int32_t>(count);
}

}  // namespace zfn::sdr
