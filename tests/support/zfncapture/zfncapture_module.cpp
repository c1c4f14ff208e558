// A SoapySDR module for the tests: an SDR that plays a capture file (unsigned 8-bit I/Q, two bytes
// per sample, at 2031746 samples/s, the raw format of common SDR tools) with the behaviour of the
// SDR API: rates offered, a gain range that scales the signal ahead of an 8-bit converter (which
// clips), a tuner whose frequency moves the recorded band, pacing at the stream rate with overflow
// when the reader falls behind, and a stream error at the end of the file. Loaded through
// SOAPY_SDR_PLUGIN_PATH; driver name "zfncapture".
//
// Arguments:
//   path=FILE         the capture (required)
//   rates=R1,R2,...   the sample rates offered (default 1024000,2031746,2048000,2400000); the
//                     capture is resampled to the rate chosen
//   speed=X           pacing: X times real time (default 1); 0 delivers as fast as read
//   buffer=S          seconds of stream the device holds before it overflows (default 0.25)
//   gain_ref=DB       the gain at which the capture plays at its recorded level (default 25, the
//                     middle of the 0..50 dB range)
//   center=HZ         the frequency the capture was recorded at: tuning elsewhere shifts it by the
//                     difference; without it tuning changes nothing
//   fail_after=S      after S seconds of stream the device "is unplugged": every read fails
//                     (fail_mode=error, SOAPY_SDR_STREAM_ERROR) or times out (fail_mode=timeout)
#include <SoapySDR/Device.hpp>
#include <SoapySDR/Errors.hpp>
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Registry.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <liquid/liquid.h>

namespace {

using Complex = std::complex<float>;
using Clock = std::chrono::steady_clock;

constexpr double FILE_RATE_HZ = 2031746.0;
constexpr double BUFFER_SECONDS = 0.25;  // what the device holds before it overflows, by default
constexpr double GAIN_MAX_DB = 50.0;

std::string Arg(const SoapySDR::Kwargs& args, const std::string& key, const std::string& otherwise) {
  const auto it = args.find(key);
  return it == args.end() ? otherwise : it->second;
}

double NumberArg(const SoapySDR::Kwargs& args, const std::string& key, double otherwise) {
  const auto it = args.find(key);
  if (it == args.end()) return otherwise;
  try {
    return std::stod(it->second);
  } catch (...) {
    throw std::runtime_error("zfncapture: bad number for " + key + ": " + it->second);
  }
}

class CaptureDevice : public SoapySDR::Device {
 public:
  explicit CaptureDevice(const SoapySDR::Kwargs& args) {
    path_ = Arg(args, "path", "");
    file_ = std::fopen(path_.c_str(), "rb");
    if (file_ == nullptr) throw std::runtime_error("zfncapture: cannot open " + path_);
    std::stringstream list(Arg(args, "rates", "1024000,2031746,2048000,2400000"));
    for (std::string item; std::getline(list, item, ',');) {
      try {
        rates_.push_back(std::stod(item));
      } catch (...) {
        std::fclose(file_);
        throw std::runtime_error("zfncapture: bad rate " + item);
      }
    }
    speed_ = NumberArg(args, "speed", 1.0);
    bufferSeconds_ = NumberArg(args, "buffer", BUFFER_SECONDS);
    gainRef_ = NumberArg(args, "gain_ref", GAIN_MAX_DB / 2);
    gain_ = GAIN_MAX_DB / 2;
    hasCenter_ = args.count("center") != 0;
    center_ = NumberArg(args, "center", 0.0);
    failAfter_ = NumberArg(args, "fail_after", -1.0);
    failByTimeout_ = Arg(args, "fail_mode", "error") == "timeout";
    rate_ = rates_.empty() ? FILE_RATE_HZ : rates_.front();
  }
  ~CaptureDevice() override {
    if (resampler_ != nullptr) resamp_crcf_destroy(resampler_);
    std::fclose(file_);
  }

  std::string getDriverKey() const override { return "zfncapture"; }
  std::string getHardwareKey() const override { return "capture"; }
  size_t getNumChannels(const int direction) const override { return direction == SOAPY_SDR_RX ? 1 : 0; }
  std::vector<std::string> listAntennas(const int, const size_t) const override { return {"RX"}; }
  std::string getAntenna(const int, const size_t) const override { return "RX"; }

  std::vector<std::string> getStreamFormats(const int, const size_t) const override { return {SOAPY_SDR_CF32}; }
  std::string getNativeStreamFormat(const int, const size_t, double& fullScale) const override {
    fullScale = 1.0;
    return SOAPY_SDR_CF32;
  }
  SoapySDR::Stream* setupStream(const int direction, const std::string& format, const std::vector<size_t>& channels,
                                const SoapySDR::Kwargs&) override {
    if (direction != SOAPY_SDR_RX || format != SOAPY_SDR_CF32) throw std::runtime_error("zfncapture: RX CF32 only");
    if (channels.size() > 1 || (channels.size() == 1 && channels[0] != 0)) throw std::runtime_error("zfncapture: one channel");
    return reinterpret_cast<SoapySDR::Stream*>(this);
  }
  void closeStream(SoapySDR::Stream*) override {}
  size_t getStreamMTU(SoapySDR::Stream*) const override { return 16384; }
  int activateStream(SoapySDR::Stream*, const int, const long long, const size_t) override {
    std::lock_guard<std::mutex> hold(lock_);
    start_ = Clock::now();
    delivered_ = 0;
    active_ = true;
    return 0;
  }
  int deactivateStream(SoapySDR::Stream*, const int, const long long) override {
    active_ = false;
    return 0;
  }

  int readStream(SoapySDR::Stream*, void* const* buffs, const size_t numElems, int& flags, long long& timeNs,
                 const long timeoutUs) override {
    flags = 0;
    timeNs = 0;
    std::unique_lock<std::mutex> hold(lock_);
    if (!active_) return SOAPY_SDR_STREAM_ERROR;
    if (failAfter_ >= 0 && static_cast<double>(delivered_) >= failAfter_ * rate_) failed_ = true;
    if (failed_) {
      if (!failByTimeout_) return SOAPY_SDR_STREAM_ERROR;
      hold.unlock();
      std::this_thread::sleep_for(std::chrono::microseconds(timeoutUs));
      return SOAPY_SDR_TIMEOUT;
    }
    size_t wanted = numElems;
    if (speed_ > 0) {
      const auto deadline = Clock::now() + std::chrono::microseconds(timeoutUs);
      int64_t due = Due();
      if (due - static_cast<int64_t>(delivered_) > static_cast<int64_t>(bufferSeconds_ * rate_)) {
        // The reader fell behind: the device's buffer ran over and its oldest samples are gone.
        Skip(static_cast<size_t>(due - static_cast<int64_t>(delivered_)) - static_cast<size_t>(bufferSeconds_ * rate_ / 2));
        ++overflows_;
        return SOAPY_SDR_OVERFLOW;
      }
      // Whole transfers, as a USB device delivers them: a read waits for all it asked for.
      while (due < static_cast<int64_t>(delivered_ + numElems)) {
        if (Clock::now() >= deadline) break;
        hold.unlock();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        hold.lock();
        due = Due();
      }
      while (due <= static_cast<int64_t>(delivered_)) {
        if (Clock::now() >= deadline) return SOAPY_SDR_TIMEOUT;
        hold.unlock();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        hold.lock();
        due = Due();
      }
      wanted = std::min(numElems, static_cast<size_t>(due - static_cast<int64_t>(delivered_)));
    }
    Complex* out = static_cast<Complex*>(buffs[0]);
    const size_t got = Produce(out, wanted);
    if (got == 0) {
      failed_ = true;  // end of the capture: the stream ends as an unplugged device's does
      return SOAPY_SDR_STREAM_ERROR;
    }
    Condition(out, got);
    delivered_ += got;
    return static_cast<int>(got);
  }

  std::vector<std::string> listGains(const int, const size_t) const override { return {"LNA"}; }
  bool hasGainMode(const int, const size_t) const override { return false; }
  SoapySDR::Range getGainRange(const int, const size_t) const override { return SoapySDR::Range(0.0, GAIN_MAX_DB, 1.0); }
  SoapySDR::Range getGainRange(const int, const size_t, const std::string&) const override {
    return SoapySDR::Range(0.0, GAIN_MAX_DB, 1.0);
  }
  void setGain(const int, const size_t, const double value) override {
    std::lock_guard<std::mutex> hold(lock_);
    gain_ = std::clamp(value, 0.0, GAIN_MAX_DB);
  }
  void setGain(const int direction, const size_t channel, const std::string&, const double value) override {
    setGain(direction, channel, value);
  }
  double getGain(const int, const size_t) const override {
    std::lock_guard<std::mutex> hold(lock_);
    return gain_;
  }
  double getGain(const int, const size_t, const std::string&) const override { return getGain(0, 0); }

  std::vector<std::string> listFrequencies(const int, const size_t) const override { return {"RF"}; }
  SoapySDR::RangeList getFrequencyRange(const int, const size_t) const override { return {SoapySDR::Range(24e6, 1766e6)}; }
  SoapySDR::RangeList getFrequencyRange(const int, const size_t, const std::string&) const override {
    return {SoapySDR::Range(24e6, 1766e6)};
  }
  void setFrequency(const int, const size_t, const double frequency, const SoapySDR::Kwargs&) override {
    std::lock_guard<std::mutex> hold(lock_);
    frequency_ = frequency;
  }
  void setFrequency(const int direction, const size_t channel, const std::string&, const double frequency,
                    const SoapySDR::Kwargs& args) override {
    setFrequency(direction, channel, frequency, args);
  }
  double getFrequency(const int, const size_t) const override {
    std::lock_guard<std::mutex> hold(lock_);
    return frequency_;
  }
  double getFrequency(const int, const size_t, const std::string&) const override { return getFrequency(0, 0); }

  std::vector<double> listSampleRates(const int, const size_t) const override { return rates_; }
  SoapySDR::RangeList getSampleRateRange(const int, const size_t) const override {
    SoapySDR::RangeList ranges;
    for (const double r : rates_) ranges.emplace_back(r, r);
    return ranges;
  }
  void setSampleRate(const int, const size_t, const double rate) override {
    std::lock_guard<std::mutex> hold(lock_);
    if (std::none_of(rates_.begin(), rates_.end(), [rate](double r) { return std::fabs(r - rate) < 0.5; })) {
      throw std::runtime_error("zfncapture: rate not offered");
    }
    rate_ = rate;
    if (resampler_ != nullptr) resamp_crcf_destroy(resampler_);
    resampler_ = nullptr;
    if (std::fabs(rate_ - FILE_RATE_HZ) > 0.5) {
      const float r = static_cast<float>(rate_ / FILE_RATE_HZ);
      resampler_ = resamp_crcf_create(r, 8, 0.45f * std::min(1.0f, r), 60.0f, 32);
    }
  }
  double getSampleRate(const int, const size_t) const override {
    std::lock_guard<std::mutex> hold(lock_);
    return rate_;
  }

 private:
  int64_t Due() const {
    return static_cast<int64_t>(std::chrono::duration<double>(Clock::now() - start_).count() * rate_ * speed_);
  }

  // Samples of the capture at the file rate, full scale 1.0; 0 at its end.
  size_t ReadFile(Complex* out, size_t count) {
    bytes_.resize(2 * count);
    const size_t got = std::fread(bytes_.data(), 2, count, file_);
    for (size_t k = 0; k < got; ++k) {
      out[k] = Complex((static_cast<float>(bytes_[2 * k]) - 127.5f) / 127.5f,
                       (static_cast<float>(bytes_[2 * k + 1]) - 127.5f) / 127.5f);
    }
    return got;
  }

  // `count` samples at the stream rate, fewer at the end of the capture.
  size_t Produce(Complex* out, size_t count) {
    if (resampler_ == nullptr) return ReadFile(out, count);
    size_t made = 0;
    while (made < count) {
      if (pending_.empty()) {
        fileChunk_.resize(4096);
        const size_t got = ReadFile(fileChunk_.data(), fileChunk_.size());
        if (got == 0) break;
        pending_.resize(static_cast<size_t>(std::ceil(static_cast<double>(got) * rate_ / FILE_RATE_HZ)) + 4);
        unsigned produced = 0;
        resamp_crcf_execute_block(resampler_, fileChunk_.data(), static_cast<unsigned>(got), pending_.data(), &produced);
        pending_.resize(produced);
        pendingAt_ = 0;
      }
      const size_t take = std::min(count - made, pending_.size() - pendingAt_);
      std::copy_n(pending_.data() + pendingAt_, take, out + made);
      made += take;
      pendingAt_ += take;
      if (pendingAt_ == pending_.size()) pending_.clear();
    }
    return made;
  }

  void Skip(size_t samples) {
    pending_.clear();
    const long fileSamples = static_cast<long>(static_cast<double>(samples) * FILE_RATE_HZ / rate_);
    std::fseek(file_, 2 * fileSamples, SEEK_CUR);
    delivered_ += samples;
  }

  // The tuner's shift, the gain and the 8-bit converter.
  void Condition(Complex* x, size_t n) {
    const float scale = static_cast<float>(std::pow(10.0, (gain_ - gainRef_) / 20.0));
    const double shift = hasCenter_ && frequency_ != 0.0 ? center_ - frequency_ : 0.0;
    const double step = 6.283185307179586 * shift / rate_;
    for (size_t k = 0; k < n; ++k) {
      Complex v = x[k] * scale;
      if (step != 0.0) {
        v *= std::polar(1.0f, static_cast<float>(phase_));
        phase_ = std::fmod(phase_ + step, 6.283185307179586);
      }
      const auto adc = [](float c) { return (std::clamp(std::nearbyint(c * 127.5f + 127.5f), 0.0f, 255.0f) - 127.5f) / 127.5f; };
      x[k] = Complex(adc(v.real()), adc(v.imag()));
    }
  }

  mutable std::mutex lock_;
  std::string path_;
  std::FILE* file_ = nullptr;
  std::vector<double> rates_;
  double rate_ = FILE_RATE_HZ;
  double speed_ = 1.0;
  double bufferSeconds_ = BUFFER_SECONDS;
  double gain_ = 25.0;
  double gainRef_ = 25.0;
  bool hasCenter_ = false;
  double center_ = 0.0;
  double frequency_ = 0.0;
  double phase_ = 0.0;
  double failAfter_ = -1.0;
  bool failByTimeout_ = false;
  bool failed_ = false;
  bool active_ = false;
  Clock::time_point start_{};
  uint64_t delivered_ = 0;
  uint64_t overflows_ = 0;
  resamp_crcf resampler_ = nullptr;
  std::vector<uint8_t> bytes_;
  std::vector<Complex> fileChunk_;
  std::vector<Complex> pending_;
  size_t pendingAt_ = 0;
};

// Found only when asked for by a path: never among the SDRs of a plain search.
SoapySDR::KwargsList FindCapture(const SoapySDR::Kwargs& args) {
  if (args.count("path") == 0) return {};
  SoapySDR::Kwargs found = args;
  found["driver"] = "zfncapture";
  found["label"] = "capture " + args.at("path");
  return {found};
}

SoapySDR::Device* MakeCapture(const SoapySDR::Kwargs& args) { return new CaptureDevice(args); }

const SoapySDR::Registry registration("zfncapture", &FindCapture, &MakeCapture, SOAPY_SDR_ABI_VERSION);

}  // namespace
