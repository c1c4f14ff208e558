#pragma once
// Test support for the tracking stage: engine set-up for a mode and guard, and a walk of our
// transmitter's broadcast symbol by symbol into ProcessSymbol, the way the block loop does it, with
// the read position under the test's control.
#include <complex>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "simulator/transmitter.h"

namespace zfn::test {

// Work arena, parameter defaults, numerology of (mode, guard) and the tracking set-up, with the
// decoder fields that tracking reads (bits per carrier, decoder delay).
void PrepareEngine(int mode, int guard, int bitsPerCarrier);

// Numerology only (arena rewound), no tracking set-up.
void PrepareNumerology(int mode, int guard);

// The broadcast at the engine's rate: every second device sample, scaled as the byte conversion
// scales it (1/128 per step), without quantisation. Sample 0 is the start of symbol 0 of a frame.
class BroadcastStream {
 public:
  BroadcastStream(int mode, int guard, int bitsPerCarrier, const sim::ChannelConfig& channel, uint64_t seed = 3);

  void EnsureSamples(int64_t samples);
  const std::complex<float>* Samples(int64_t at) const { return stream_.data() + (at - dropped_); }
  int64_t Size() const { return static_cast<int64_t>(stream_.size()) + dropped_; }
  void DropBefore(int64_t at);  // keeps memory small on long runs

 private:
  std::unique_ptr<sim::SignalGenerator> generator_;
  std::vector<std::complex<float>> device_;
  std::vector<std::complex<float>> stream_;
  int64_t dropped_ = 0;
};

// Walks the stream: copies nwork samples at the read position into the symbol buffer, runs
// ProcessSymbol, moves the read position by nsymbol + timingStep and advances the frame position.
class SymbolWalker {
 public:
  // Starts on symbol `firstSymbol` (a multiple of 4 below 204), one sample ahead of its start, as
  // acquisition leaves the read position.
  SymbolWalker(BroadcastStream& stream, int64_t firstSymbol);
  void Step();
  // As Step, but the read position then moves by `forcedStep` instead of the loop's decision.
  void StepWithForcedTiming(int forcedStep);
  void Run(int symbols) {
    for (int i = 0; i < symbols; ++i) Step();
  }
  int64_t readPos() const { return readPos_; }

 private:
  BroadcastStream& stream_;
  int64_t readPos_;
};

// Our transmitter's broadcast fed block by block through the synchronous driver, as the engine
// sees a capture.
class DriverRun {
 public:
  DriverRun(const sim::BroadcastConfig& broadcast, const sim::ChannelConfig& channel);
  ~DriverRun();
  DriverRun(const DriverRun&) = delete;
  DriverRun& operator=(const DriverRun&) = delete;

  bool Ok() const { return ok_; }
  const std::string& Error() const { return error_; }
  // Feeds blocks until tracking; false if it is not reached within `limit` blocks.
  bool Acquire(int limit);
  void Feed();
  int64_t Fed() const { return fed_; }  // engine samples fed so far
  // Start of the next transform span within its symbol, in samples of the broadcast, for a device
  // clock `ppm` off.
  double SpanOffset(double ppm) const;
  // Blocks that hold `seconds` of signal.
  static int BlocksOf(double seconds);

 private:
  std::unique_ptr<sim::SignalGenerator> gen_;
  std::vector<uint8_t> bytes_;
  int64_t fed_ = 0;
  bool ok_ = false;
  std::string error_;
};

// Mean squared distance, in dB, of the last equalised carriers from their hard decisions (QPSK
// weighting undone).
double DecisionErrorDb();

}  // namespace zfn::test
