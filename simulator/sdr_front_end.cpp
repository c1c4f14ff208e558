// The generic-SDR front end: what a USB SDR tuned like the design's device delivers at
// 2031746 samples/s, unsigned 8-bit I/Q.
//
// The broadcast is synthesised whole (13 segments) at four times the device rate, where it fits
// with room for the transmitter's band-limiting filter, which runs on across symbol edges as a
// real transmitter's does: each guard interval then holds the filter's response to the previous
// symbol's end and is no longer an exact copy of the symbol's end. The channel (multipath, the
// carrier offset) and thermal noise act at that rate, then the SDR's anti-alias filter and its
// decimation to the device rate, the sample clock offset, and the analogue faults of a direct
// conversion receiver: DC offset, I/Q gain and phase imbalance. The bytes are a mid-rise
// quantiser around 127.5 (byte b stands for b - 127.5), clipped at 0 and 255. USB transfers are
// lost whole, now and then, when set.
//
// The two filters' delays are taken out: sample n of the output lies at sample n of the
// broadcast, as with the device front end.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "simulator/channel_model.h"
#include "simulator/transmitter.h"
#include "simulator/tx_ofdm.h"

namespace zfn::sim {

namespace {

constexpr int kOversample = 4;
constexpr double kFastRateHz = kOversample * kBroadcastRateHz;
constexpr double kPi = 3.141592653589793;

// Transmitter: flat over the band (+-2.79 MHz), 45 dB down from 3.6 MHz. Beyond 1.11 MHz the SDR's
// filter rules; the transmitter's filter matters here for what it does across symbol edges.
std::vector<float> TransmitTaps() { return KaiserLowpass(3.2e6 / kFastRateHz, 0.8e6 / kFastRateHz, 45.0); }

// The SDR's anti-alias filter and decimation, in two stages: to twice the device rate (flat to
// 1.11 MHz, 55 dB down from 2.95 MHz, which would fold onto that), then to the device rate (flat
// to 0.92 MHz, 6 dB down at the device's Nyquist frequency 1.016 MHz, 55 dB from 1.11 MHz).
std::vector<float> FirstStageTaps() { return KaiserLowpass(2.03e6 / kFastRateHz, 1.84e6 / kFastRateHz, 55.0); }
std::vector<float> SecondStageTaps() {
  return KaiserLowpass(0.25, 0.19e6 / (2 * kBroadcastRateHz), 55.0);
}

// A filter that halves the rate, fed in pieces of any length: an odd sample waits for the next
// piece. Its first inputs are dropped as many as the filters before it and itself delay, so that
// output k lies at sample 2k of the undelayed stream.
class Halver {
 public:
  Halver(const std::vector<float>& taps, int delayBefore, int maxBlock)
      : fir_(taps, 2, maxBlock + 2), skip_(delayBefore + fir_.Delay()), buf_(static_cast<size_t>(maxBlock + 2)) {}
  int Delay() const { return fir_.Delay(); }
  const FirFilter& Filter() const { return fir_; }
  int Process(const std::complex<float>* in, int count, std::complex<float>* out) {
    const int skipped = std::min(skip_, count);
    skip_ -= skipped;
    std::memcpy(static_cast<void*>(buf_.data() + carried_), in + skipped,
                sizeof(std::complex<float>) * static_cast<size_t>(count - skipped));
    const int total = carried_ + count - skipped;
    const int even = total / 2 * 2;
    fir_.Process(buf_.data(), even, out);
    carried_ = total - even;
    if (carried_ > 0) buf_[0] = buf_[static_cast<size_t>(even)];
    return even / 2;
  }

 private:
  FirFilter fir_;
  int skip_;
  int carried_ = 0;
  std::vector<std::complex<float>> buf_;
};

class SdrGenerator final : public SymbolStreamGenerator {
 public:
  SdrGenerator(const BroadcastConfig& b, const ChannelConfig& c, std::unique_ptr<PacketSource> source)
      : SymbolStreamGenerator(b, c, std::move(source), 0.0, kOversample),
        fastSamples_(synth_.SymbolSamples()),
        ns_(fastSamples_ / kOversample),
        transmit_(TransmitTaps(), 1, fastSamples_),
        first_(FirstStageTaps(), TransmitDelay(), fastSamples_),
        second_(SecondStageTaps(), 0, 2 * ns_ + 64),
        multipath_(c, fastSamples_, kFastRateHz),
        fast_(c, NoiseVariance(), 1.0, kFastRateHz),
        resampler_(c.clockPpm, 2 * ns_ + 2),
        lossRng_(c.seed ^ 0x05B7A45Full) {
    scale_ = ComputeScale();
    const double g = std::pow(10.0, c.iqGainDb / 40.0);
    const double p = c.iqPhaseDeg * kPi / 180.0;
    gainI_ = static_cast<float>(g * scale_);
    qFromQ_ = static_cast<float>(std::cos(p) / g * scale_);
    qFromI_ = static_cast<float>(std::sin(p) / g * scale_);
    work_.resize(static_cast<size_t>(fastSamples_));
    half_.resize(static_cast<size_t>(2 * ns_ + 64));
    ready_.resize(static_cast<size_t>(2 * ns_ + 64));
    scratch_.resize(4096);
  }

  void GenerateBytes(uint8_t* out, size_t count) override {
    const bool losing = c_.transferLossOneIn > 0 && c_.transferBytes > 0;
    const auto transfer = static_cast<size_t>(c_.transferBytes);
    size_t done = 0;
    while (count - done >= 2) {
      size_t want = count - done;
      if (losing) {
        // At each transfer's start, the chance to lose it whole (and the next, and so on).
        if (inTransfer_ == 0)
          while (lossRng_.Uniform() * static_cast<double>(c_.transferLossOneIn) < 1.0) {
            Discard(transfer / 2);
            ++lost_;
          }
        want = std::min(want, transfer - inTransfer_);
      }
      const size_t samples = std::min(want / 2, scratch_.size());
      GenerateSamples(scratch_.data(), samples);
      const float* v = reinterpret_cast<const float*>(scratch_.data());
      for (size_t n = 0; n < 2 * samples; ++n)
        out[done + n] = static_cast<uint8_t>(static_cast<int>(std::min(std::max(v[n] + 128.0f, 0.0f), 255.0f)));
      done += 2 * samples;
      if (losing) inTransfer_ = (inTransfer_ + 2 * samples) % transfer;
    }
  }

  int DeviceSamplesPerSymbol() const override { return ns_; }
  double Segment0Power() const override { return synth_.Segment0Power() * multipath_.PowerGain(); }
  double TotalPower() const override { return signalPower_; }
  double ByteScale() const override { return scale_; }
  int64_t TransfersLost() const override { return lost_; }

 private:
  int TransmitDelay() const { return c_.transmitFilter ? transmit_.Delay() : 0; }

  // White noise at the fast rate whose density gives the C/N over segment 0's 6/14 MHz.
  double NoiseVariance() const {
    if (!c_.noise) return 0.0;
    return Segment0Power() * (kFastRateHz / (6e6 / 14.0)) / std::pow(10.0, c_.cnDb / 10.0);
  }

  // The scale that puts each component at the RMS level: the power of every carrier through the
  // filters (where the carrier offset puts it against the SDR's), and the noise's.
  double ComputeScale() {
    const auto& bins = synth_.BinPowers();
    const int m = synth_.TransformSize();
    const FirFilter& first = first_.Filter();
    const FirFilter& second = second_.Filter();
    auto sdr = [&](double f) { return first.PowerResponse(f) * second.PowerResponse(2 * f); };
    double power = 0;
    for (int bin = 0; bin < m; ++bin) {
      const double p = bins[static_cast<size_t>(bin)];
      if (p == 0.0) continue;
      const double f = static_cast<double>(bin < m / 2 ? bin : bin - m) / m;
      const double tx = c_.transmitFilter ? transmit_.PowerResponse(f) : 1.0;
      power += p * tx * sdr(f + c_.carrierOffsetHz / kFastRateHz);
    }
    signalPower_ = power * multipath_.PowerGain();
    // White noise through both stages: the second sees the first's output at half the rate.
    double noiseGain = 0;
    constexpr int kPoints = 4096;
    for (int i = 0; i < kPoints; ++i) noiseGain += sdr((i + 0.5) / kPoints - 0.5) / kPoints;
    return c_.rmsLevel / std::sqrt((signalPower_ + NoiseVariance() * noiseGain) / 2.0);
  }

  int ProcessSymbol() override {
    std::complex<float>* x = symbol_.data();
    if (c_.transmitFilter) transmit_.Process(x, fastSamples_, x);
    if (multipath_.Active()) {
      multipath_.Process(x, work_.data(), fastSamples_);
      x = work_.data();
    }
    fast_.Process(x, fastSamples_);
    // The SDR: first stage, its own sample clock (at twice the device rate, where the band it
    // keeps lies well inside the resampler's flat passband), second stage.
    int made = first_.Process(x, fastSamples_, half_.data());
    std::complex<float>* y = half_.data();
    if (resampler_.Active()) {
      resampler_.Push(y, made);
      made = resampler_.Produce(work_.data(), static_cast<int>(work_.size()));
      y = work_.data();
    }
    made = second_.Process(y, made, ready_.data());
    // The receiver's analogue faults and its gain, in byte steps around 127.5.
    const auto dc = std::complex<float>(static_cast<float>(c_.dcI), static_cast<float>(c_.dcQ));
    for (int k = 0; k < made; ++k) {
      const float i = ready_[static_cast<size_t>(k)].real(), q = ready_[static_cast<size_t>(k)].imag();
      ready_[static_cast<size_t>(k)] = std::complex<float>(gainI_ * i, qFromQ_ * q + qFromI_ * i) + dc;
    }
    return made;
  }

  void Discard(size_t samples) {
    while (samples > 0) {
      const size_t n = std::min(scratch_.size(), samples);
      GenerateSamples(scratch_.data(), n);
      samples -= n;
    }
  }

  int fastSamples_, ns_;
  FirFilter transmit_;
  Halver first_, second_;
  MultipathFilter multipath_;
  FrontEndStage fast_;
  ClockResampler resampler_;
  Rng lossRng_;
  double scale_ = 1, signalPower_ = 0;
  float gainI_ = 1, qFromQ_ = 1, qFromI_ = 0;
  std::vector<std::complex<float>> work_, half_, scratch_;
  size_t inTransfer_ = 0;
  int64_t lost_ = 0;
};

}  // namespace

std::unique_ptr<SignalGenerator> MakeSdrGenerator(const BroadcastConfig& b, const ChannelConfig& c,
                                                  std::unique_ptr<PacketSource> source) {
  return std::make_unique<SdrGenerator>(b, c, std::move(source));
}

}  // namespace zfn::sim
