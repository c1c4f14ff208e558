#pragma once
// The channel between our transmitter and the device: multipath (static echoes, Rayleigh fading on
// a standard profile), the device's sample clock offset (fractional resampling), its carrier
// frequency offset, and white Gaussian noise. All of it on complex samples at the device rate,
// seeded, nothing allocated after construction.
#include <complex>
#include <cstdint>
#include <vector>

#include "simulator/transmitter.h"
#include "simulator/tx_random.h"

namespace zfn::sim {

// Time-varying tapped delay line of the multipath paths.
class MultipathFilter {
 public:
  MultipathFilter(const ChannelConfig& c, int maxBlock);
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

// Carrier offset, noise and the scale to byte steps, in place.
class FrontEndStage {
 public:
  FrontEndStage(const ChannelConfig& c, double noiseVariance, double scale);
  void Process(std::complex<float>* x, int count);

 private:
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

}  // namespace zfn::sim
