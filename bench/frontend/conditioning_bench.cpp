// Processor cost of the SDR channel conditioning per second of signal, against the engine's: a
// generic SDR's recording of the common broadcast (Mode 3, guard 1/8, QPSK 2/3, I = 4, C/N 20 dB,
// carrier offset -11 kHz, clock -15 ppm) from our transmitter, conditioned in reads of one block as
// `zfnisdbt decode --front-end sdr` does, and the conditioned stream decoded by the engine through
// the synchronous driver, acquisition included. Both on one core, in one run.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_machine.h"
#include "frontend/conditioning.h"
#include "simulator/transmitter.h"
#include "tools/offline_decoder.h"

namespace zfn {
namespace {

constexpr int CAPTURE_BLOCKS = 128;  // 7.6 s
constexpr size_t BLOCK_BYTES = 240640;

const std::vector<uint8_t>& Recording() {
  static const std::vector<uint8_t> recording = [] {
    sim::BroadcastConfig b;
    sim::ChannelConfig c;
    c.frontEnd = sim::FrontEnd::Sdr;
    c.noise = true;
    c.cnDb = 20;
    c.carrierOffsetHz = -11000;
    c.clockPpm = -15;
    std::string error;
    auto gen = sim::SignalGenerator::Create(b, c, sim::MakeTestPatternSource(1), &error);
    std::vector<uint8_t> bytes(CAPTURE_BLOCKS * BLOCK_BYTES);
    if (gen) gen->GenerateBytes(bytes.data(), bytes.size());
    return bytes;
  }();
  return recording;
}

double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

struct Cost {
  double signal = 0, cpu = 0;
  double MsPerSignalSecond() const { return signal > 0 ? 1000.0 * cpu / signal : 0.0; }
};
Cost conditioning, conditioningPlain, engineCost;
std::vector<uint8_t> conditioned;

size_t ConditionAll(SdrConditioner& c, const std::vector<uint8_t>& in, uint8_t* out) {
  size_t written = 0;
  for (size_t at = 0; at < in.size(); at += BLOCK_BYTES) {
    written += SdrConditionU8(c, in.data() + at, BLOCK_BYTES / 2, out + written);
  }
  return written;
}

// Argument 1: the build of the loops that the processor chooses; 0: the baseline build.
void BM_Conditioning(benchmark::State& state) {
  const bool chosen = state.range(0) == 1;
  const std::vector<uint8_t>& in = Recording();
  auto c = std::make_unique<SdrConditioner>();
  std::vector<uint8_t> out(in.size() + 4);
  Cost& cost = chosen ? conditioning : conditioningPlain;
  cost = Cost{};
  for (auto _ : state) {
    SdrConditionerReset(*c);
    if (!chosen) c->vectorKind = SDR_VECTOR_PLAIN;
    const double start = ThreadCpuSeconds();
    const size_t written = ConditionAll(*c, in, out.data());
    cost.cpu += ThreadCpuSeconds() - start;
    cost.signal += CAPTURE_BLOCKS * tools::BlockSeconds();
    benchmark::DoNotOptimize(written);
  }
  state.counters["x_real_time"] = cost.cpu > 0 ? cost.signal / cost.cpu : 0.0;
}
BENCHMARK(BM_Conditioning)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_EngineOnConditioned(benchmark::State& state) {
  if (conditioned.empty()) {
    auto c = std::make_unique<SdrConditioner>();
    SdrConditionerReset(*c);
    conditioned.resize(Recording().size() + 4);
    conditioned.resize(ConditionAll(*c, Recording(), conditioned.data()));
  }
  engineCost = Cost{};
  for (auto _ : state) {
    tools::OfflineDecoder decoder;
    if (!decoder.Open(nullptr, nullptr)) {
      state.SkipWithError("the engine could not be built");
      return;
    }
    const double start = ThreadCpuSeconds();
    decoder.Feed(conditioned.data(), conditioned.size());
    engineCost.cpu += ThreadCpuSeconds() - start;
    engineCost.signal += static_cast<double>(decoder.Stats().blocks) * tools::BlockSeconds();
    decoder.Close();
    if (decoder.Stats().firstTrackingBlock < 0) {
      state.SkipWithError("the engine never tracked the conditioned recording");
      return;
    }
  }
  state.counters["x_real_time"] = engineCost.cpu > 0 ? engineCost.signal / engineCost.cpu : 0.0;
}
BENCHMARK(BM_EngineOnConditioned)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
}  // namespace zfn

int main(int argc, char** argv) {
  std::printf("Machine: %s\n", zfn::bench::MachineLine().c_str());
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zfn::Recording();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  const double c = zfn::conditioning.MsPerSignalSecond(), e = zfn::engineCost.MsPerSignalSecond();
  const double p = zfn::conditioningPlain.MsPerSignalSecond();
  if (c > 0 && e > 0) {
    std::printf("\nProcessor time per second of signal, one core: conditioning %.2f ms (2031746 samples; "
                "build chosen: %s), engine %.2f ms; conditioning / engine = %.2f\n", c,
                [] {
                  zfn::SdrConditioner probe;
                  zfn::SdrConditionerReset(probe);
                  return probe.vectorKind == zfn::SDR_VECTOR_AVX2 ? "AVX2" : "baseline";
                }(), e, c / e);
  }
  if (c > 0 && p > 0) std::printf("Baseline build of the loops: %.2f ms, %.2f x the time of the chosen build\n", p, p / c);
  return 0;
}
