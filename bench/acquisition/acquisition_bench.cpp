// Cost of the two single-block acquisition stages against the 59.22 ms that one block lasts, and
// the signal time from a retune to tracking for every mode and guard, on our own transmitter.
//
//   build/bin/acquisition_bench
//
// block_percent: time of one call as a percentage of the block's duration (60160 samples at
// 64/63 MHz); the counter is shown with a unit suffix, which is to be read as a plain number.
// blocks, signal_ms: blocks handled from the retune to the block that entered tracking.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "shell/block_scheduler.h"
#include "shell/stages.h"
#include "shell/sync_driver.h"
#include "simulator/transmitter.h"

namespace zfn {
namespace {

constexpr double BLOCK_SECONDS = BLOCK_SAMPLES / (64e6 / 63.0);

std::unique_ptr<sim::SignalGenerator> MakeBroadcast(int index, double offsetHz) {
  sim::BroadcastConfig b;
  b.mode = index / 4 + 1;
  b.guard = index % 4;
  sim::ChannelConfig c;
  c.carrierOffsetHz = offsetHz;
  c.noise = true;
  c.cnDb = 20;
  std::string error;
  auto gen = sim::SignalGenerator::Create(b, c, sim::MakeTestPatternSource(1), &error);
  if (!gen) std::fprintf(stderr, "transmitter: %s\n", error.c_str());
  return gen;
}

void SetBlockFraction(benchmark::State& state) {
  // seconds / (iterations * value): with value = block / 100, the percentage of the block's time.
  state.counters["block_percent"] = benchmark::Counter(
      BLOCK_SECONDS / 100.0, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Loads the engine with one converted block of the broadcast.
void LoadBlock(sim::SignalGenerator& gen, std::vector<uint8_t>& raw) {
  gen.GenerateBytes(raw.data(), raw.size());
  ConvertBlock(raw.data(), engine.sampleBlock);
}

// Twelve hypotheses of the cyclic prefix correlation, the fractional offset and the grid point.
void BM_DetectModeAndGuard(benchmark::State& state) {
  const int index = static_cast<int>(state.range(0));
  auto gen = MakeBroadcast(index, 31000.0);
  if (!gen || SyncDriverOpen(nullptr, nullptr) != 1) {
    state.SkipWithError("set-up failed");
    return;
  }
  std::vector<uint8_t> raw(RAW_BLOCK_BYTES);
  LoadBlock(*gen, raw);
  DetectModeAndGuard();  // the first call builds the numerology; the timed ones find the same pair
  for (auto _ : state) {
    DetectModeAndGuard();
    benchmark::DoNotOptimize(engine.readPos);
  }
  SetBlockFraction(state);
  SyncDriverClose();
}

// Eight symbols: rotation, transform, differentials and the offset search.
void BM_RunCoarseSync(benchmark::State& state) {
  const int index = static_cast<int>(state.range(0));
  auto gen = MakeBroadcast(index, 31000.0);
  if (!gen || SyncDriverOpen(nullptr, nullptr) != 1) {
    state.SkipWithError("set-up failed");
    return;
  }
  std::vector<uint8_t> raw(RAW_BLOCK_BYTES);
  LoadBlock(*gen, raw);
  DetectModeAndGuard();
  const int32_t readPos = engine.readPos;
  const float ncoStep = engine.ncoStep;
  LoadBlock(*gen, raw);
  for (auto _ : state) {
    engine.readPos = readPos;
    engine.ncoStep = ncoStep;
    engine.ncoPhase = 0.0f;
    RunCoarseSync();
    benchmark::DoNotOptimize(engine.ncoStep);
  }
  SetBlockFraction(state);
  SyncDriverClose();
}

// Blocks and milliseconds of signal from a retune to tracking (C/N 20 dB, +31 kHz offset); the
// time per iteration is the CPU time of the whole acquisition, signal generation included.
void BM_RetuneToTracking(benchmark::State& state) {
  const int index = static_cast<int>(state.range(0));
  int blocks = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto gen = MakeBroadcast(index, 31000.0);
    std::vector<uint8_t> raw(RAW_BLOCK_BYTES);
    state.ResumeTiming();
    if (!gen || SyncDriverOpen(nullptr, nullptr) != 1) {
      state.SkipWithError("set-up failed");
      return;
    }
    SyncDriverRetune();
    blocks = 0;
    while (SyncDriverBlockState() != BLOCK_TRACKING && blocks < 30) {
      gen->GenerateBytes(raw.data(), raw.size());
      SyncDriverFeed(raw.data(), raw.size());
      ++blocks;
    }
    SyncDriverClose();
  }
  state.counters["blocks"] = blocks;
  state.counters["signal_ms"] = blocks * BLOCK_SECONDS * 1e3;
}

void AllPairs(benchmark::internal::Benchmark* b) {
  for (int index = 0; index < 12; ++index) b->Arg(index);
}

BENCHMARK(BM_DetectModeAndGuard)->Arg(0)->Arg(11)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RunCoarseSync)->Arg(0)->Arg(11)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RetuneToTracking)->Apply(AllPairs)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zfn

BENCHMARK_MAIN();
