// Generation speed of the device byte stream, as a factor of real time on one core.
#include <benchmark/benchmark.h>

#include <vector>

#include "simulator/transmitter.h"

namespace {

using zfn::sim::BroadcastConfig;
using zfn::sim::ChannelConfig;

void Run(benchmark::State& state, BroadcastConfig b, ChannelConfig c) {
  std::string error;
  auto gen = zfn::sim::SignalGenerator::Create(b, c, zfn::sim::MakeTestPatternSource(1), &error);
  if (!gen) {
    state.SkipWithError(error.c_str());
    return;
  }
  constexpr double kSeconds = 0.5;
  std::vector<uint8_t> bytes(static_cast<size_t>(kSeconds * zfn::sim::kEngineRateHz) * zfn::sim::kBytesPerEngineSample);
  for (auto _ : state) {
    gen->GenerateBytes(bytes.data(), bytes.size());
    benchmark::DoNotOptimize(bytes.data());
  }
  // Seconds of signal per second of processing: the real-time factor.
  state.counters["realtime_factor"] = benchmark::Counter(kSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
}

BroadcastConfig Mode3() {
  BroadcastConfig b;  // Mode 3, 1/8, QPSK 2/3, I = 4
  return b;
}

void BM_Mode3Clean(benchmark::State& state) { Run(state, Mode3(), {}); }

void BM_Mode3Awgn(benchmark::State& state) {
  ChannelConfig c;
  c.noise = true;
  c.cnDb = 15;
  Run(state, Mode3(), c);
}

void BM_Mode3AwgnOffsets(benchmark::State& state) {
  ChannelConfig c;
  c.noise = true;
  c.cnDb = 15;
  c.carrierOffsetHz = 35000;
  c.clockPpm = 20;
  Run(state, Mode3(), c);
}

void BM_Mode3Tu6Fading(benchmark::State& state) {
  ChannelConfig c;
  c.noise = true;
  c.cnDb = 20;
  c.dopplerHz = 70;
  Run(state, Mode3(), c);
}

void BM_Mode3_64QamWideFilter(benchmark::State& state) {
  BroadcastConfig b = Mode3();
  b.modulation = 3;
  b.codeRate = 4;
  b.wideDeviceFilter = true;
  ChannelConfig c;
  c.noise = true;
  c.cnDb = 25;
  Run(state, b, c);
}

// A generic SDR: the whole band at four times the rate through the transmit and anti-alias
// filters, with the default DC offset and imbalance.
void BM_Mode3SdrAwgnOffsets(benchmark::State& state) {
  ChannelConfig c;
  c.frontEnd = zfn::sim::FrontEnd::Sdr;
  c.noise = true;
  c.cnDb = 15;
  c.carrierOffsetHz = 35000;
  c.clockPpm = 20;
  Run(state, Mode3(), c);
}

BENCHMARK(BM_Mode3Clean)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mode3Awgn)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mode3AwgnOffsets)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mode3Tu6Fading)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mode3_64QamWideFilter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mode3SdrAwgnOffsets)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
