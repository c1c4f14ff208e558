#include "tracking_test_support.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "acquisition/numerology.h"
#include "decoder/decoder_state.h"
#include "shell/engine_memory.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "shell/sync_driver.h"
#include "tracking/slicers.h"
#include "tracking/tracker_state.h"

namespace zfn::test {

void PrepareNumerology(int mode, int guard) {
  // One engine for the whole test program; each case rewinds the arena and sets up the numerology.
  if (engine.arenaBase == nullptr && EngineInit() != 1) std::abort();  // no engine memory
  ArenaRewindToInit();
  engine.modeGuard->mode = static_cast<uint8_t>(mode);
  engine.modeGuard->guard = static_cast<uint8_t>(guard);
  const int32_t firstTime = engine.modeIndexLast == -1 ? 1 : 0;
  if (SetUpNumerology(firstTime) != 1) std::abort();
  engine.modeIndexLast = mode * 4 + guard;
}

void PrepareEngine(int mode, int guard, int bitsPerCarrier) {
  LoadParameterSet(PARAM_DEFAULTS);
  PrepareNumerology(mode, guard);
  engine.ncoStep = 0.0f;
  engine.ncoPhase = 0.0f;
  engine.symbolIndex = 0;
  engine.spPhase = 0;
  engine.snrDb = 0.0f;
  engine.timingEnabled = 1;
  engine.bitsPerCarrier = bitsPerCarrier;
  decoder.startupSymbols = 95;
  engine.clockWritePending = 0;
  SetUpTracking();
}

BroadcastStream::BroadcastStream(int mode, int guard, int bitsPerCarrier, const sim::ChannelConfig& channel,
                                 uint64_t seed) {
  // TMCC modulation code: 1 QPSK, 2 16QAM, 3 64QAM.
  const sim::BroadcastConfig b{.mode = mode + 1, .guard = guard, .modulation = bitsPerCarrier / 2, .codeRate = 1,
                               .interleave = 2, .seed = seed};
  std::string error;
  generator_ = sim::SignalGenerator::Create(b, channel, sim::MakeTestPatternSource(seed), &error);
  if (!generator_) {
    std::fprintf(stderr, "transmitter: %s\n", error.c_str());
    std::abort();
  }
}

void BroadcastStream::EnsureSamples(int64_t samples) {
  constexpr int64_t CHUNK = 8192;  // engine samples per generator call
  while (Size() < samples) {
    device_.resize(2 * CHUNK);
    generator_->GenerateSamples(device_.data(), device_.size());
    for (int64_t i = 0; i < CHUNK; ++i) stream_.push_back(device_[static_cast<size_t>(2 * i)] * 0.0078125f);
  }
}

void BroadcastStream::DropBefore(int64_t at) {
  const int64_t n = at - dropped_;
  if (n <= 0) return;
  stream_.erase(stream_.begin(), stream_.begin() + n);
  dropped_ = at;
}

SymbolWalker::SymbolWalker(BroadcastStream& stream, int64_t firstSymbol)
    : stream_(stream), readPos_(firstSymbol * engine.nsymbol - 1) {
  engine.symbolIndex = static_cast<int32_t>(firstSymbol % 204);
  engine.spPhase = static_cast<int32_t>(firstSymbol % 4);
}

void SymbolWalker::Step() { StepWithForcedTiming(INT32_MIN); }

void SymbolWalker::StepWithForcedTiming(int forcedStep) {
  const int nwork = engine.nwork;
  stream_.EnsureSamples(readPos_ + nwork + 1);
  std::memcpy(engine.symbolBuffer, stream_.Samples(readPos_), sizeof(float) * 2 * static_cast<size_t>(nwork));
  ProcessSymbol();
  if (forcedStep != INT32_MIN) engine.timingStep = forcedStep;
  readPos_ += engine.nsymbol + engine.timingStep;
  stream_.DropBefore(readPos_ - 4 * engine.nsymbol);
  engine.symbolIndex = (engine.symbolIndex + 1) % 204;
  engine.spPhase = (engine.spPhase + 1) % 4;
}

double DecisionErrorDb() {
  double sum = 0.0;
  const int bits = engine.bitsPerCarrier;
  for (int k = 0; k < engine.ndata; ++k) {
    float re = engine.equalisedCarriers[2 * k], im = engine.equalisedCarriers[2 * k + 1];
    if (bits == 2) {
      const float w = engine.qpskSoftTarget > 0.0f ? tracker.softWeight[k] : 8.0f;
      re /= w;
      im /= w;
    }
    const Cx d = SliceCarrier({re, im}, bits);
    sum += (re - d.re) * (re - d.re) + (im - d.im) * (im - d.im);
  }
  return 10.0 * std::log10(sum / engine.ndata + 1e-30);
}

DriverRun::DriverRun(const sim::BroadcastConfig& broadcast, const sim::ChannelConfig& channel) {
  gen_ = sim::SignalGenerator::Create(broadcast, channel, sim::MakeTestPatternSource(broadcast.seed), &error_);
  ok_ = gen_ != nullptr && SyncDriverOpen(nullptr, nullptr) == 1;
  if (ok_) SyncDriverRetune();
  bytes_.resize(RAW_BLOCK_BYTES);
}

DriverRun::~DriverRun() {
  if (ok_) SyncDriverClose();
}

bool DriverRun::Acquire(int limit) {
  for (int i = 0; i < limit && ok_; ++i) {
    Feed();
    if (SyncDriverBlockState() == BLOCK_TRACKING) return true;
  }
  return false;
}

void DriverRun::Feed() {
  gen_->GenerateBytes(bytes_.data(), bytes_.size());
  SyncDriverFeed(bytes_.data(), bytes_.size());
  fed_ += BLOCK_SAMPLES;
}

double DriverRun::SpanOffset(double ppm) const {
  // The read position counts from the start of the last block while a symbol straddles its end,
  // and from the start of the next block when the last step carried it beyond.
  const int64_t base = engine.straddleFlag != 0 ? fed_ - BLOCK_SAMPLES : fed_;
  const double rx = static_cast<double>(base) + engine.readPos / 2 + engine.nmargin;
  return std::fmod(rx / (1.0 + ppm * 1e-6), engine.nsymbol);
}

int DriverRun::BlocksOf(double seconds) { return static_cast<int>(seconds * 64e6 / 63.0 / BLOCK_SAMPLES) + 1; }

}  // namespace zfn::test
