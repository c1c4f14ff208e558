#pragma once
// A small, independent model of the centre segment for stage tests: scattered pilots from the
// band-wide PRBS, DBPSK TMCC and AC carriers, random QPSK data (a third of each neighbouring segment
// too), cyclic prefix and a carrier offset, produced block by block at the working rate. It knows where every symbol starts,
// which the checks of the frame position need. The full transmitter is tested elsewhere.
#include <cmath>
#include <complex>
#include <cstdint>
#include <random>
#include <vector>

#include "acquisition/numerology.h"
#include "numeric/dft.h"
#include "shell/shell_fields.h"
#include "tmcc_words.h"

namespace zfn::test {

struct SegmentSignal {
  int mode = 0;
  int guard = 0;
  double offsetCarriers = 0;  // carrier spacings, positive: spectrum higher
  int lead = 0;               // samples of the first whole symbol's start into block 0
  int firstSymbol = 0;        // frame symbol number of that symbol
  double amplitude = 0.1;     // scale of the time samples (data carriers of unit power)
  TmccWord tmcc{};
  unsigned seed = 1;
};

class SegmentGenerator {
 public:
  explicit SegmentGenerator(const SegmentSignal& p)
      : p_(p), rng_(p.seed), n_(NFFT_BY_MODE_GUARD[p.mode * 4 + p.guard]), g_(NGUARD_BY_MODE_GUARD[p.mode * 4 + p.guard]),
        nc_(NCARRIER_BY_MODE[p.mode]) {
    DftiCreateDescriptor(&plan_, DFTI_SINGLE, DFTI_COMPLEX, 1, n_);
    DftiCommitDescriptor(plan_);
    // PRBS x^11 + x^9 + 1 over segments 1, 0, 2, from the register state at segment 1's first carrier.
    uint8_t r[11];
    for (int i = 0; i < 11; ++i) r[i] = PILOT_PRBS_INIT[p.mode][i];
    prbs_.resize(3 * nc_);
    for (int t = 0; t < 3 * nc_; ++t) {
      prbs_[t] = r[10];
      const uint8_t f = r[8] ^ r[10];
      for (int k = 10; k > 0; --k) r[k] = r[k - 1];
      r[0] = f;
    }
    static constexpr int TMCC1[] = {49}, TMCC2[] = {23, 178}, TMCC3[] = {101, 131, 286, 349};
    static constexpr int AC1[] = {35, 79}, AC2[] = {98, 101, 118, 136}, AC3[] = {7, 89, 206, 209, 226, 244, 377, 407};
    const int* tm[] = {TMCC1, TMCC2, TMCC3};
    const int* ac[] = {AC1, AC2, AC3};
    role_.assign(nc_, 0);
    for (int i = 0; i < (1 << p.mode); ++i) role_[tm[p.mode][i]] = 1;
    for (int i = 0; i < (2 << p.mode); ++i) role_[ac[p.mode][i]] = 2;
    differential_.assign(nc_, 0);
    // Symbols before the first whole one: start one symbol early so the block is full from sample 0.
    position_ = p.lead - (n_ + g_);
    symbolNumber_ = (p.firstSymbol + 203) % 204;
    if (symbolNumber_ == 203) frameParity_ = 1;
    // Differential state for that symbol: run the chain up to it.
    for (int s = 0; s <= symbolNumber_; ++s) AdvanceDifferential(s);
  }
  ~SegmentGenerator() { DftiFreeDescriptor(&plan_); }
  SegmentGenerator(const SegmentGenerator&) = delete;
  SegmentGenerator& operator=(const SegmentGenerator&) = delete;

  // Frame number of symbol k (k = 0 the first whole one).
  int FrameNumber(long k) const { return static_cast<int>((p_.firstSymbol + k) % 204); }

  // Fills one block of BLOCK_SAMPLES complex samples, continuing the stream.
  void NextBlock(float* block) {
    for (long i = 0; i < BLOCK_SAMPLES; ++i) {
      const long absolute = blockStart_ + i;
      while (absolute >= position_ + n_ + g_ || !haveSymbol_) {
        if (haveSymbol_) {
          position_ += n_ + g_;
          symbolNumber_ = (symbolNumber_ + 1) % 204;
          if (symbolNumber_ == 0) frameParity_ ^= 1;
          AdvanceDifferential(symbolNumber_);
        }
        MakeSymbol();
        haveSymbol_ = true;
      }
      const int u = static_cast<int>(absolute - position_ - g_ + n_) % n_;
      std::complex<double> v(symbol_[2 * u], symbol_[2 * u + 1]);
      v *= std::polar(1.0, 2 * M_PI * p_.offsetCarriers * static_cast<double>(absolute) / n_);
      block[2 * i] = static_cast<float>(v.real() * p_.amplitude);
      block[2 * i + 1] = static_cast<float>(v.imag() * p_.amplitude);
    }
    blockStart_ += BLOCK_SAMPLES;
  }

 private:
  // TMCC bit B_s of the current frame (sync word inverted in odd frames); AC sends all ones.
  int TmccBit(int s) const {
    static constexpr uint8_t SYNC[16] = {0, 0, 1, 1, 0, 1, 0, 1, 1, 1, 1, 0, 1, 1, 1, 0};
    if (s == 0) return 0;
    if (s <= 16) return SYNC[s - 1] ^ frameParity_;
    if (s <= 19) return 0;  // coherent segment
    return p_.tmcc[s - 20];
  }
  void AdvanceDifferential(int s) {
    for (int c = 0; c < nc_; ++c) {
      if (!role_[c]) continue;
      const int bit = role_[c] == 1 ? TmccBit(s) : 1;
      differential_[c] = s == 0 ? prbs_[nc_ + c] : differential_[c] ^ bit;
    }
  }
  void MakeSymbol() {
    std::vector<float>& x = symbol_;
    x.assign(2 * n_, 0.0f);
    const int spPosition = 3 * (symbolNumber_ % 4);
    const float unit = static_cast<float>(1.0 / std::sqrt(2.0));
    for (int t = nc_ - nc_ / 3; t < 2 * nc_ + nc_ / 3; ++t) {
      const int local = t % nc_;
      const int bin = ((t - 3 * nc_ / 2) % n_ + n_) % n_;
      float re = 0, im = 0;
      if (local % 12 == spPosition) {
        re = prbs_[t] ? -4.0f / 3 : 4.0f / 3;
      } else if (t >= nc_ && t < 2 * nc_ && role_[local]) {
        re = differential_[local] ? -4.0f / 3 : 4.0f / 3;
      } else {
        re = (rng_() & 1) ? unit : -unit;
        im = (rng_() & 1) ? unit : -unit;
      }
      x[2 * bin] = re;
      x[2 * bin + 1] = im;
    }
    DftiComputeBackward(plan_, x.data());
    const float norm = static_cast<float>(1.0 / std::sqrt(static_cast<double>(n_)));
    for (float& v : x) v *= norm;
  }

  SegmentSignal p_;
  std::mt19937 rng_;
  int n_, g_, nc_;
  DftPlan plan_ = nullptr;
  std::vector<uint8_t> prbs_;
  std::vector<uint8_t> role_;  // 0 data or pilot, 1 TMCC, 2 AC (segment 0 only)
  std::vector<uint8_t> differential_;
  std::vector<float> symbol_;
  long position_ = 0;
  long blockStart_ = 0;
  int symbolNumber_ = 0;
  int frameParity_ = 0;
  bool haveSymbol_ = false;
};

// Device bytes of one block: per engine sample I and Q as bytes (zero level 127, 128 steps per
// unit), then the discarded second device sample.
inline void ToDeviceBytes(const float* samples, uint8_t* bytes) {
  for (int i = 0; i < BLOCK_SAMPLES; ++i) {
    for (int k = 0; k < 2; ++k) {
      const double level = std::nearbyint(samples[2 * i + k] * 128.0 + 127.0);
      bytes[4 * i + k] = static_cast<uint8_t>(level < 0 ? 0 : level > 255 ? 255 : level);
    }
    bytes[4 * i + 2] = 127;
    bytes[4 * i + 3] = 127;
  }
}

}  // namespace zfn::test
