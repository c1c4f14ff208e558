#pragma once
// Seeded pseudo-random numbers for the simulator: xoshiro256** for bits, and a small table of
// Gaussian values for noise; the noise stage adds two draws per component, which an 8-bit
// receiver cannot tell from true Gaussian noise and keeps noise far faster than real time.
#include <array>
#include <cmath>
#include <cstdint>

namespace zfn::sim {

class Rng {
 public:
  explicit Rng(uint64_t seed) {
    uint64_t z = seed;
    for (auto& s : s_) {
      z += 0x9E3779B97F4A7C15ull;  // splitmix64 to spread the seed
      uint64_t x = z;
      x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
      x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
      s = x ^ (x >> 31);
    }
  }
  uint64_t Next() {
    const uint64_t result = Rotl(s_[1] * 5, 7) * 9;
    const uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = Rotl(s_[3], 45);
    return result;
  }
  // Uniform in [0, 1).
  double Uniform() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }
  // Standard normal, Box-Muller (for set-up, not for per-sample noise).
  double Normal() {
    double u1 = Uniform();
    while (u1 <= 0.0) u1 = Uniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * Uniform());
  }

 private:
  static uint64_t Rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
  std::array<uint64_t, 4> s_{};
};

// Quantiles of the standard normal distribution at the midpoints of kGaussianTableSize
// equal-probability cells, scaled to unit variance; uniform 12-bit indices draw from it.
constexpr int kGaussianTableSize = 4096;
const float* GaussianTable();

}  // namespace zfn::sim
