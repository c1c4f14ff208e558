// The whole chain from packets to device bytes. See transmitter.h.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "simulator/channel_model.h"
#include "simulator/transmitter.h"
#include "simulator/tx_ofdm.h"

namespace zfn::sim {

constexpr int64_t kMaxDropBytes = 40634920;  // ten seconds of the device stream, 4063492 bytes a second

int PacketsPerFrame(const BroadcastConfig& b) {
  // T = 12 * q * R * 2^(mode-1) packets per frame for one segment (ARIB STD-B31).
  return 12 * BitsPerCarrier(b.modulation) * RateNumerator(b.codeRate) * (1 << (b.mode - 1)) / RateDenominator(b.codeRate);
}

int EngineSamplesPerSymbol(const BroadcastConfig& b) {
  const int n1 = NumbersOfMode(b.mode).n1;
  return n1 + GuardSamples(n1, b.guard);
}

double SymbolSeconds(const BroadcastConfig& b) { return EngineSamplesPerSymbol(b) / kEngineRateHz; }
double FrameSeconds(const BroadcastConfig& b) { return kFrameSymbols * SymbolSeconds(b); }
double LayerBitRate(const BroadcastConfig& b) { return PacketsPerFrame(b) * kPacketBytes * 8.0 / FrameSeconds(b); }

std::string CheckConfig(const BroadcastConfig& b, const ChannelConfig& c) {
  if (b.mode < 1 || b.mode > 3) return "mode must be 1, 2 or 3";
  if (b.guard < 0 || b.guard > 3) return "guard must be one of 1/32, 1/16, 1/8, 1/4";
  if (b.modulation < 1 || b.modulation > 3) return "modulation must be QPSK, 16QAM or 64QAM";
  if (b.neighbourModulation < 1 || b.neighbourModulation > 3) return "neighbour modulation must be QPSK, 16QAM or 64QAM";
  if (b.codeRate < 0 || b.codeRate > 4) return "code rate must be one of 1/2, 2/3, 3/4, 5/6, 7/8";
  for (int bit : b.tmccFlips)
    if (bit < 0 || bit > 183) return "TMCC bits to flip must lie in 0..183";
  if (b.interleave < 0 || b.interleave > 3) return "interleave must be an index 0 to 3";
  if (b.systemId < 0 || b.systemId > 3) return "system identification must be 0 to 3";
  if (!(b.deviceFilterHz >= 250e3)) return "device filter must pass at least 250 kHz";
  if (!(c.cnDb >= -20 && c.cnDb <= 100)) return "C/N must be between -20 and 100 dB";
  if (!(std::fabs(c.carrierOffsetHz) <= 110e3)) return "carrier offset must be within +-110000 Hz";
  if (!(std::fabs(c.clockPpm) <= 1000)) return "clock offset must be within +-1000 ppm";
  if (!(c.dopplerHz >= 0 && c.dopplerHz <= 2000)) return "Doppler frequency must be 0 to 2000 Hz";
  for (const auto& e : c.echoes) {
    if (!(e.delayUs >= 0 && e.delayUs <= 300)) return "echo delay must be 0 to 300 microseconds";
    if (!(e.gainDb >= -60 && e.gainDb <= 10)) return "echo gain must be -60 to +10 dB";
    if (!std::isfinite(e.phaseDeg)) return "echo phase must be a number of degrees";
  }
  if (!(c.rmsLevel >= 1 && c.rmsLevel <= 120)) return "RMS level must be 1 to 120 steps";
  if (c.dropEveryBytes < 0 || c.dropBytes < 0) return "drop counts must not be negative";
  if (c.dropBytes > 0 && c.dropEveryBytes < 4) return "dropping needs an interval of at least 4 bytes";
  // Lost bytes are generated and thrown away: a bound keeps one loss to seconds of work.
  if (c.dropBytes > kMaxDropBytes) return "at most 40634920 bytes (ten seconds of signal) can be lost at once";
  if (c.frontEnd == FrontEnd::Sdr) {
    if (c.dropBytes > 0) return "the SDR front end loses whole transfers (transfer loss), not dropped bytes";
    if (!(std::fabs(c.dcI) <= 100 && std::fabs(c.dcQ) <= 100)) return "DC offset must be within +-100 steps";
    if (!(std::fabs(c.iqGainDb) <= 6)) return "I/Q gain imbalance must be within +-6 dB";
    if (!(std::fabs(c.iqPhaseDeg) <= 30)) return "I/Q phase imbalance must be within +-30 degrees";
    if (c.transferLossOneIn < 0 || c.transferLossOneIn == 1 || c.transferBytes < 0 || c.transferBytes % 2 != 0 ||
        (c.transferLossOneIn > 0 && c.transferBytes < 2))
      return "transfer loss needs an even transfer size in bytes and a chance of one in 2 or more";
  } else if (c.transferLossOneIn > 0) {
    return "transfer loss belongs to the SDR front end";
  }
  return {};
}

std::vector<uint8_t> SignalGenerator::GenerateSeconds(double seconds) {
  const auto samples = static_cast<size_t>(std::llround(seconds * kEngineRateHz));
  std::vector<uint8_t> bytes(samples * kBytesPerEngineSample);
  GenerateBytes(bytes.data(), bytes.size());
  return bytes;
}

SymbolStreamGenerator::SymbolStreamGenerator(const BroadcastConfig& b, const ChannelConfig& c,
                                             std::unique_ptr<PacketSource> source, double filterShiftHz,
                                             int oversample)
    : b_(b),
      c_(c),
      source_(std::move(source)),
      chain_(b, source_.get()),
      synth_(b, filterShiftHz, oversample),
      symbol_(static_cast<size_t>(synth_.SymbolSamples())),
      slots_(static_cast<size_t>(NumbersOfMode(b.mode).nd)) {
  // The chain's first carrier symbol belongs to symbol 202: run two symbols before frame 0.
  chain_.NextSymbol(slots_.data());
  chain_.NextSymbol(slots_.data());
}

double SymbolStreamGenerator::LayerBitRate() const { return zfn::sim::LayerBitRate(b_); }

void SymbolStreamGenerator::GenerateSamples(std::complex<float>* out, size_t count) {
  size_t done = 0;
  while (done < count) {
    while (readyPos_ == readyFill_) {
      chain_.NextSymbol(slots_.data());
      synth_.Synthesise(frame_, n_, slots_.data(), symbol_.data());
      if (++n_ == kFrameSymbols) {
        n_ = 0;
        ++frame_;
      }
      readyPos_ = 0;
      readyFill_ = static_cast<size_t>(ProcessSymbol());
    }
    const size_t take = std::min(count - done, readyFill_ - readyPos_);
    std::memcpy(static_cast<void*>(out + done), ready_.data() + readyPos_, sizeof(std::complex<float>) * take);
    readyPos_ += take;
    done += take;
  }
}

namespace {

class Generator final : public SymbolStreamGenerator {
 public:
  Generator(const BroadcastConfig& b, const ChannelConfig& c, std::unique_ptr<PacketSource> source)
      : SymbolStreamGenerator(b, c, std::move(source), -c.carrierOffsetHz, 1),
        ns_(synth_.SymbolSamples()),
        multipath_(c, ns_),
        resampler_(c.clockPpm, ns_),
        noiseTaps_(DeviceNoiseTaps(b)),
        front_(c, NoiseVariance(c), ComputeScale(c), kBroadcastRateHz * (1.0 + c.clockPpm * 1e-6), &noiseTaps_,
               2 * ns_ + 64) {
    filtered_.resize(static_cast<size_t>(ns_));
    ready_.resize(static_cast<size_t>(2 * ns_ + 64));
    scratch_.resize(4096);
    scratchBytes_.resize(2 * scratch_.size());
  }

  // Bytes of the device stream, two per device sample. Losses are counted in bytes, so an odd loss
  // moves the stream by one byte: the second byte of a sample is then carried to the next call.
  void GenerateBytes(uint8_t* out, size_t count) override {
    size_t done = 0;
    const int64_t every = c_.dropBytes > 0 ? c_.dropEveryBytes : 0;
    while (done < count) {
      if (every > 0 && sinceDrop_ == every) {
        DiscardBytes(c_.dropBytes);
        sinceDrop_ = 0;
      }
      size_t want = count - done;
      if (every > 0) want = std::min<size_t>(want, static_cast<size_t>(every - sinceDrop_));
      size_t made = 0;
      if (hasCarry_) {
        out[done] = carry_;
        hasCarry_ = false;
        made = 1;
      } else if (want == 1) {
        out[done] = NextSampleBytes()[0];
        made = 1;
        hasCarry_ = true;
      } else {
        const size_t samples = std::min(want, scratchBytes_.size()) / 2;
        GenerateSamples(scratch_.data(), samples);
        QuantiseToBytes(scratch_.data(), static_cast<int>(samples), out + done);
        made = samples * 2;
      }
      done += made;
      sinceDrop_ += static_cast<int64_t>(made);
    }
  }

  int DeviceSamplesPerSymbol() const override { return ns_; }
  double Segment0Power() const override { return synth_.Segment0Power() * multipath_.PowerGain(); }
  double TotalPower() const override { return synth_.TotalPower() * multipath_.PowerGain(); }
  double ByteScale() const override { return ComputeScale(c_); }

 private:
  double NoiseVariance(const ChannelConfig& c) const {
    if (!c.noise) return 0.0;
    // C over segment 0's 6/14 MHz, N of white noise over the same band.
    const double c0 = synth_.Segment0Power() * multipath_.PowerGain();
    return c0 * (kBroadcastRateHz / (6e6 / 14.0)) / std::pow(10.0, c.cnDb / 10.0);
  }
  double ComputeScale(const ChannelConfig& c) const {
    double noiseGain = noiseTaps_.empty() ? 1.0 : 0.0;  // of the device filter on the noise
    for (float t : noiseTaps_) noiseGain += static_cast<double>(t) * t;
    const double power = synth_.TotalPower() * multipath_.PowerGain() + NoiseVariance(c) * noiseGain;
    return c.rmsLevel / std::sqrt(power / 2.0);
  }

  int ProcessSymbol() override {
    std::complex<float>* x = symbol_.data();
    if (multipath_.Active()) {
      multipath_.Process(symbol_.data(), filtered_.data(), ns_);
      x = filtered_.data();
    }
    int made = ns_;
    if (resampler_.Active()) {
      resampler_.Push(x, ns_);
      made = resampler_.Produce(ready_.data(), static_cast<int>(ready_.size()));
    } else {
      std::memcpy(static_cast<void*>(ready_.data()), x, sizeof(std::complex<float>) * static_cast<size_t>(ns_));
    }
    front_.Process(ready_.data(), made);
    return made;
  }

  // One device sample as its two bytes; the second is kept as the carry.
  const uint8_t* NextSampleBytes() {
    GenerateSamples(scratch_.data(), 1);
    QuantiseToBytes(scratch_.data(), 1, sampleBytes_);
    carry_ = sampleBytes_[1];
    return sampleBytes_;
  }

  void DiscardBytes(int64_t bytes) {
    if (hasCarry_ && bytes > 0) {
      hasCarry_ = false;
      bytes -= 1;
    }
    Discard(bytes / 2 * 2);
    if (bytes % 2 != 0) {
      NextSampleBytes();
      hasCarry_ = true;
    }
  }

  void Discard(int64_t bytes) {
    while (bytes > 0) {
      const size_t samples = std::min<size_t>(scratch_.size(), static_cast<size_t>(bytes / 2));
      GenerateSamples(scratch_.data(), samples);
      bytes -= static_cast<int64_t>(samples * 2);
    }
  }

  int ns_;
  MultipathFilter multipath_;
  ClockResampler resampler_;
  std::vector<float> noiseTaps_;
  FrontEndStage front_;
  std::vector<std::complex<float>> filtered_, scratch_;
  std::vector<uint8_t> scratchBytes_;
  int64_t sinceDrop_ = 0;
  uint8_t sampleBytes_[2] = {};
  uint8_t carry_ = 0;
  bool hasCarry_ = false;
};

}  // namespace

std::unique_ptr<SignalGenerator> SignalGenerator::Create(const BroadcastConfig& b, const ChannelConfig& c,
                                                         std::unique_ptr<PacketSource> source, std::string* error) {
  const std::string problem = CheckConfig(b, c);
  if (!problem.empty()) {
    if (error != nullptr) *error = problem;
    return nullptr;
  }
  if (!source) source = MakeNullSource();
  if (c.frontEnd == FrontEnd::Sdr) return MakeSdrGenerator(b, c, std::move(source));
  return std::make_unique<Generator>(b, c, std::move(source));
}

}  // namespace zfn::sim
