#pragma once
// Test support for the tracking stage: engine set-up for a mode and guard, and an ISDB-T segment
// signal with a simple channel (echo, carrier offset, sample clock offset, noise) that the tests
// walk symbol by symbol into ProcessSymbol the way the block loop does.
#include <complex>
#include <cstdint>
#include <random>
#include <vector>

namespace zfn::test {

// Work arena, parameter defaults, numerology of (mode, guard) and the tracking set-up, with the
// decoder fields that tracking reads (bits per carrier, decoder delay).
void PrepareEngine(int mode, int guard, int bitsPerCarrier);

// Numerology only (arena rewound), no tracking set-up.
void PrepareNumerology(int mode, int guard);

struct ChannelModel {
  double cnDb = 200.0;          // carrier to noise per data carrier
  double carrierOffset = 0.0;   // in carrier spacings
  double clockPpm = 0.0;        // transmitter clock faster than the receiver by this much
  int echoDelay = 0;            // samples
  std::complex<double> echoGain{0.0, 0.0};
  uint32_t seed = 1;
};

class SegmentSignal {
 public:
  SegmentSignal(int mode, int guard, int bitsPerCarrier, const ChannelModel& channel);

  // Appends whole symbols to the sample stream until it holds at least `samples` samples.
  void EnsureSamples(int64_t samples);
  const std::complex<float>* Samples(int64_t at);
  int64_t Size() const { return static_cast<int64_t>(stream_.size()) + dropped_; }
  // Drop samples before `at` to keep memory small on long runs.
  void DropBefore(int64_t at);

  // Transmitted value of segment carrier c in symbol m (data, pilot or fixed carrier).
  std::complex<float> Sent(int64_t m, int c) const;

 private:
  void AppendSymbol();
  bool IsContinual(int t) const;

  int mode_, guard_, bits_;
  int nfft_, nguard_, nsym_, ncarrier_;
  ChannelModel channel_;
  std::mt19937 rng_;
  std::vector<std::complex<float>> stream_;
  int64_t dropped_ = 0;
  int64_t symbols_ = 0;        // symbols generated
  double txTime_ = 0.0;        // transmitter time of the next receiver sample, in samples
  int64_t rxSample_ = 0;       // index of the next receiver sample
  std::vector<std::vector<std::complex<float>>> sent_;  // per symbol (ring), segment carriers
  std::vector<std::complex<float>> echoTail_;
  std::vector<float> pilotSign_;
  std::vector<float> continualPrev_;
};

// Walks the stream: copies nwork samples at the read position into the symbol buffer, runs
// ProcessSymbol, moves the read position by nsymbol + timingStep and advances the frame position.
class SymbolWalker {
 public:
  // Starts on symbol `firstSymbol` (a multiple of 4), one sample ahead of its start.
  SymbolWalker(SegmentSignal& signal, int64_t firstSymbol);
  void Step();
  // As Step, but the read position then moves by `forcedStep` instead of the loop's decision.
  void StepWithForcedTiming(int forcedStep);
  void Run(int symbols) {
    for (int i = 0; i < symbols; ++i) Step();
  }
  int64_t readPos() const { return readPos_; }
  int64_t timingSum() const { return timingSum_; }
  int64_t symbolsRun() const { return run_; }
  // Number of the symbol whose equalised carriers the last step handed over.
  int64_t handedOver() const { return first_ + run_ - 1 - 3; }

 private:
  SegmentSignal& signal_;
  int64_t first_;
  int64_t readPos_;
  int64_t timingSum_ = 0;
  int64_t run_ = 0;
};

// Mean squared distance of the equalised carriers from their transmitted values (QPSK weighting
// undone), for the symbol `m` that the last ProcessSymbol handed over.
double EqualiserErrorPower(const SegmentSignal& signal, int64_t m);

// The data carriers of the segment for a symbol of pilot phase s, in ascending order.
std::vector<int> DataCarriers(int mode, int s);

}  // namespace zfn::test
