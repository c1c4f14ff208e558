// A SoapySDR module for the tests: an SDR that plays a capture file (unsigned 8-bit I/Q, two bytes
// per sample, at 2031746 samples/s, the raw format of common SDR tools) with the behaviour of the
// SDR API: rates offered, a gain range that scales the signal ahead of an 8-bit converter (which
// clips), a tuner whose frequency moves the recorded band, pacing at the stream rate in whole
// transfers, and a stream error at the end of the file. Loaded through
// SOAPY_SDR_PLUGIN_PATH; driver name "zfncapture". Only what the device library calls is served;
// SoapySDR's defaults give the rest (no gain mode, rate ranges from the rates listed).
//
// Arguments:
//   path=FILE         the capture (required)
//   rates=R1,R2,...   the sample rates offered (default 1024000,2031746,2048000,2400000); the
//                     capture is resampled to the rate chosen
//   speed=X           pacing: X times real time (default 1); 0 delivers as fast as read
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
#include <cstdio>
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
constexpr double GAIN_MAX_DB = 50.0;
constexpr double TWO_PI = 6.283185307179586;

class CaptureDevice : public SoapySDR::Device {
 public:
  explicit CaptureDevice(const SoapySDR::Kwargs& args) : args_(args) {
    std::stringstream list(Arg("rates", "1024000,2031746,2048000,2400000"));
    for (std::string item; std::getline(list, item, ',');) rates_.push_back(Number(item, "rate"));
    speed_ = Number(Arg("speed", "1"), "speed");
    gainRef_ = Number(Arg("gain_ref", "25"), "gain_ref");
    center_ = Number(Arg("center", "0"), "center");
    failAfter_ = Number(Arg("fail_after", "-1"), "fail_after");
    failByTimeout_ = Arg("fail_mode", "error") == "timeout";
    rate_ = rates_.empty() ? FILE_RATE_HZ : rates_.front();
    file_ = std::fopen(Arg("path", "").c_str(), "rb");
    if (file_ == nullptr) throw std::runtime_error("zfncapture: cannot open " + Arg("path", ""));
  }
  ~CaptureDevice() override {
    if (resampler_ != nullptr) resamp_crcf_destroy(resampler_);
    std::fclose(file_);
  }

  SoapySDR::Stream* setupStream(const int direction, const std::string& format, const std::vector<size_t>& channels,
                                const SoapySDR::Kwargs&) override {
    if (direction != SOAPY_SDR_RX || format != SOAPY_SDR_CF32 || channels.size() > 1 || (channels.size() == 1 && channels[0] != 0))
      throw std::runtime_error("zfncapture: one RX channel in CF32 only");
    return reinterpret_cast<SoapySDR::Stream*>(this);
  }
  void closeStream(SoapySDR::Stream*) override {}
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
    failed_ = failed_ || (failAfter_ >= 0 && static_cast<double>(delivered_) >= failAfter_ * rate_);
    if (failed_ && !failByTimeout_) return SOAPY_SDR_STREAM_ERROR;
    if (failed_) {
      hold.unlock();
      std::this_thread::sleep_for(std::chrono::microseconds(timeoutUs));
      return SOAPY_SDR_TIMEOUT;
    }
    size_t wanted = numElems;
    if (speed_ > 0) {
      const auto deadline = Clock::now() + std::chrono::microseconds(timeoutUs);
      const auto due = [this] { return static_cast<int64_t>(Seconds(start_) * rate_ * speed_) - delivered_; };
      // Whole transfers, as a USB device delivers them: a read waits for all it asked for.
      while (due() < static_cast<int64_t>(numElems) && Clock::now() < deadline) {
        hold.unlock();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        hold.lock();
      }
      if (due() <= 0) return SOAPY_SDR_TIMEOUT;
      wanted = std::min(numElems, static_cast<size_t>(due()));
    }
    Complex* out = static_cast<Complex*>(buffs[0]);
    const size_t got = Produce(out, wanted);
    failed_ = got == 0;  // end of the capture: the stream ends as an unplugged device's does
    if (failed_) return SOAPY_SDR_STREAM_ERROR;
    Condition(out, got);
    delivered_ += static_cast<int64_t>(got);
    return static_cast<int>(got);
  }

  SoapySDR::Range getGainRange(const int, const size_t) const override { return SoapySDR::Range(0.0, GAIN_MAX_DB, 1.0); }
  void setGain(const int, const size_t, const double value) override {
    std::lock_guard<std::mutex> hold(lock_);
    gain_ = std::clamp(value, 0.0, GAIN_MAX_DB);
  }
  void setFrequency(const int, const size_t, const double frequency, const SoapySDR::Kwargs&) override {
    std::lock_guard<std::mutex> hold(lock_);
    frequency_ = frequency;
  }
  std::vector<double> listSampleRates(const int, const size_t) const override { return rates_; }
  void setSampleRate(const int, const size_t, const double rate) override {
    std::lock_guard<std::mutex> hold(lock_);
    if (std::none_of(rates_.begin(), rates_.end(), [rate](double r) { return std::fabs(r - rate) < 0.5; })) {
      throw std::runtime_error("zfncapture: rate not offered");
    }
    rate_ = rate;
    if (resampler_ != nullptr) resamp_crcf_destroy(resampler_);
    resampler_ = nullptr;
    const float r = static_cast<float>(rate_ / FILE_RATE_HZ);
    if (std::fabs(rate_ - FILE_RATE_HZ) > 0.5) resampler_ = resamp_crcf_create(r, 8, 0.45f * std::min(1.0f, r), 60.0f, 32);
  }
  double getSampleRate(const int, const size_t) const override {
    std::lock_guard<std::mutex> hold(lock_);
    return rate_;
  }

 private:
  std::string Arg(const std::string& key, const std::string& otherwise) const {
    const auto it = args_.find(key);
    return it == args_.end() ? otherwise : it->second;
  }
  static double Number(const std::string& text, const std::string& what) {
    try {
      return std::stod(text);
    } catch (...) {
      throw std::runtime_error("zfncapture: bad " + what + ": " + text);
    }
  }
  static double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

  // Samples of the capture at the file rate, full scale 1.0; 0 at its end.
  size_t ReadFile(Complex* out, size_t count) {
    bytes_.resize(2 * count);
    const size_t got = std::fread(bytes_.data(), 2, count, file_);
    for (size_t k = 0; k < got; ++k) out[k] = Complex(bytes_[2 * k] - 127.5f, bytes_[2 * k + 1] - 127.5f) / 127.5f;
    return got;
  }

  // `count` samples at the stream rate, fewer at the end of the capture.
  size_t Produce(Complex* out, size_t count) {
    if (resampler_ == nullptr) return ReadFile(out, count);
    size_t made = 0;
    while (made < count) {
      if (pendingAt_ == pending_.size()) {
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
    }
    return made;
  }

  // The tuner's shift, the gain and the 8-bit converter.
  void Condition(Complex* x, size_t n) {
    const float scale = static_cast<float>(std::pow(10.0, (gain_ - gainRef_) / 20.0));
    const double shift = args_.count("center") != 0 && frequency_ != 0.0 ? center_ - frequency_ : 0.0;
    const double step = TWO_PI * shift / rate_;
    const auto adc = [](float c) { return (std::clamp(std::nearbyint(c * 127.5f + 127.5f), 0.0f, 255.0f) - 127.5f) / 127.5f; };
    for (size_t k = 0; k < n; ++k) {
      Complex v = x[k] * scale;
      if (step != 0.0) {
        v *= std::polar(1.0f, static_cast<float>(phase_));
        phase_ = std::fmod(phase_ + step, TWO_PI);
      }
      x[k] = Complex(adc(v.real()), adc(v.imag()));
    }
  }

  const SoapySDR::Kwargs args_;
  mutable std::mutex lock_;
  std::FILE* file_ = nullptr;
  std::vector<double> rates_;
  double rate_, speed_, gainRef_, center_, failAfter_;
  double gain_ = GAIN_MAX_DB / 2, frequency_ = 0.0, phase_ = 0.0;
  bool failByTimeout_, failed_ = false, active_ = false;
  Clock::time_point start_{};
  int64_t delivered_ = 0;
  resamp_crcf resampler_ = nullptr;
  std::vector<uint8_t> bytes_;
  std::vector<Complex> fileChunk_, pending_;
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
