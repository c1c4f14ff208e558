// ProcessSymbol per mode on our transmitter's broadcast, in steady state (channel watch, adaption
// and frequency loop running). Besides the time per symbol, `load` is the fraction of one symbol's
// duration at 1015873 samples per second that the call takes: the goal is below 0.02.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace {

constexpr double SAMPLE_RATE = 1015873.07;
constexpr int RECORDED = 64;  // symbols cycled through

void ProcessSymbolBench(benchmark::State& state) {
  using namespace zfn;
  const int mode = static_cast<int>(state.range(0));
  const int guard = static_cast<int>(state.range(1));
  const int bits = 4;
  test::PrepareEngine(mode, guard, bits);
  sim::ChannelConfig channel;
  channel.noise = true;
  channel.cnDb = 25.0;
  channel.echoes = {sim::EchoPath{10.0, -8.0, 30.0}};
  test::BroadcastStream stream(mode, guard, bits, channel);
  test::SymbolWalker walker(stream, 4);
  walker.Run(40);

  // Record the symbols that the read position would take, then hold the timing still.
  const int nwork = engine.nwork;
  std::vector<float> recorded(static_cast<size_t>(2 * nwork * RECORDED));
  int64_t pos = walker.readPos();
  stream.EnsureSamples(pos + static_cast<int64_t>(engine.nsymbol) * (RECORDED + 1));
  for (int i = 0; i < RECORDED; ++i, pos += engine.nsymbol)
    std::memcpy(recorded.data() + 2 * nwork * i, stream.Samples(pos), sizeof(float) * 2 * nwork);
  engine.symbolCount = engine.settleSymbols;  // from here on everything runs
  engine.spPhase = 0;

  int i = 0;
  for (auto _ : state) {
    std::memcpy(engine.symbolBuffer, recorded.data() + 2 * nwork * i, sizeof(float) * 2 * nwork);
    ProcessSymbol();
    benchmark::DoNotOptimize(engine.equalisedCarriers[0]);
    engine.symbolIndex = (engine.symbolIndex + 1) % 204;
    engine.spPhase = (engine.spPhase + 1) & 3;
    i = (i + 1) % RECORDED;
  }
  const double symbolSeconds = engine.nsymbol / SAMPLE_RATE;
  state.counters["load"] = benchmark::Counter(symbolSeconds, benchmark::Counter::kIsIterationInvariantRate |
                                                                 benchmark::Counter::kInvert);
  state.SetLabel("Mode " + std::to_string(mode + 1) + ", guard 1/" + std::to_string(32 >> guard));
}

}  // namespace

BENCHMARK(ProcessSymbolBench)->Args({0, 0})->Args({0, 3})->Args({1, 2})->Args({2, 0})->Args({2, 3});
