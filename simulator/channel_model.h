#pragma once
// The channel between our transmitter and the device: multipath (static echoes, Rayleigh fading on
// a standard profile), the device's sample clock offset (fractional resampling), its carrier
// frequency offset, and white Gaussian noise. All of it on complex samples at the device rate,
// seeded, nothing allocated after construction.
#include <complex>
#include <cstdint>
#include <memory>
#include <vector>

#include "simulator/transmitter.h"
#include "simulator/tx_random.h"

namespace zfn::sim {

// Linear-phase lowpass taps: a Kaiser-windowed sinc 6 dB down at `cutoff`, with the transition
// `transition` wide around it and `attenuationDb` beyond; both in cycles per sample. Unit DC gain,
// odd length.
std::vector<float> KaiserLowpass(double cutoff, double transition, double attenuationDb);

// FIR filter with real taps on complex samples, optionally keeping one output in `decimation`.
// Output k is the filter's output at input k * decimation, that is the input delayed by
// (Length() - 1) / 2 samples; the history runs on across calls.
class FirFilter {
 public:
  FirFilter(const std::vector<float>& taps, int decimation, int maxBlock);
  int Length() const { return length_; }
  int Delay() const { return (length_ - 1) / 2; }
  // count (a multiple of the decimation, at most maxBlock) inputs, count / decimation outputs.
  void Process(const std::complex<float>* in, int count, std::complex<float>* out);
  // Power gain of white noise (the sum of the squared taps) and of a tone at f cycles per sample.
  double NoiseGain() const;
  double PowerResponse(double f) const;

 private:
  std::vector<float> taps_;  // reversed, with zeros around them up to a multiple of eight
  int length_, decimation_, history_ = 0;
  std::vector<std::vector<float>> re_, im_;  // per phase of the decimation: history then block
};

// Time-varying tapped delay line of the multipath paths.
class MultipathFilter {
 public:
  MultipathFilter(const ChannelConfig& c, int maxBlock, double rateHz = kBroadcastRateHz);
  bool Active() const { return active_; }
  double PowerGain() const { return powerGain_; }
  void Process(const std::complex<float>* in, std::complex<float>* out, int count);

 private:
  struct Path {
    double delay;      // device samples
    double power;      // mean power
    std::complex<double> gain;  // static gain (or current fading gain)
    bool fading;
    std::vector<std::complex<double>> phasorsI, phasorsQ, stepsI, stepsQ;
    std::vector<double> kernel;  // interpolation taps of the path's delay, taps_ long
  };
  void UpdateGains();
  void BuildTaps(std::vector<std::complex<float>>& h) const;
  void NextAnchor();

  bool active_ = false;
  bool fading_ = false;
  double powerGain_ = 1.0;
  int base_ = 0;  // fixed delay so that fractional delays can be interpolated
  int taps_ = 1;
  int updateCounter_ = 0;
  int anchorUpdates_ = 1;  // tap updates from one evaluation of the fading gains to the next
  int sinceAnchor_ = 0;
  std::vector<Path> paths_;
  std::vector<std::complex<float>> h_;      // taps of the present update
  std::vector<std::complex<float>> hStep_;  // change of the taps per update up to the next anchor
  std::vector<float> workRe_, workIm_;  // history then current block, real and imaginary planes
};

// Fractional resampler for the device clock: output sample n is the input at n / (1 + ppm*1e-6).
class ClockResampler {
 public:
  ClockResampler(double ppm, int maxBlock);
  bool Active() const { return active_; }
  // Appends input; then Produce() makes as many outputs as the input allows, up to count.
  void Push(const std::complex<float>* in, int count);
  int Produce(std::complex<float>* out, int count);

 private:
  bool active_;
  static constexpr int kTaps = 16;
  static constexpr int kPhases = 512;
  uint64_t step_;       // input samples per output, 32.32 fixed point
  uint64_t frac_ = 0;   // position of the next output inside the buffer, 32.32 fixed point
  std::vector<float> table_;  // (kPhases + 1) x kTaps
  std::vector<std::complex<float>> buf_;
  int fill_ = 0;
};

// Carrier offset, noise and the scale to byte steps, in place, at rateHz. The noise has
// noiseVariance (before scaling) per sample as white noise; with noiseFilter it then passes that
// filter (the receiver's own filter, behind which thermal noise is band-limited).
class FrontEndStage {
 public:
  FrontEndStage(const ChannelConfig& c, double noiseVariance, double scale, double rateHz,
                const std::vector<float>* noiseFilter = nullptr, int maxBlock = 0);
  void Process(std::complex<float>* x, int count);

 private:
  std::unique_ptr<FirFilter> noiseFilter_;
  std::vector<std::complex<float>> noise_;
  double phaseStep_;  // radians per sample
  double phase_ = 0;
  bool rotate_;
  float noiseSigma_;  // per component, in the scaled units
  float scale_;
  Rng rng_;
  const float* gauss_;
};

// Eight-bit quantisation: round, clip to 0..255 around 127.
void QuantiseToBytes(const std::complex<float>* x, int count, uint8_t* out);

// The device front end's noise filter: the device filter's band (cutoff from DC) with a sharp
// edge, nothing of what lies 20 kHz beyond it; empty when the filter is wide.
std::vector<float> DeviceNoiseTaps(const BroadcastConfig& b);

// The generic-SDR front end (FrontEnd::Sdr); see sdr_front_end.cpp.
std::unique_ptr<SignalGenerator> MakeSdrGenerator(const BroadcastConfig& b, const ChannelConfig& c,
                                                  std::unique_ptr<PacketSource> source);

}  // namespace zfn::sim
