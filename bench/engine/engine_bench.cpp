// The whole engine on one core: a capture of the common broadcast (Mode 3, guard 1/8, QPSK 2/3,
// I = 4, C/N 20 dB) from our transmitter, decoded through the synchronous driver from the first
// block (acquisition included) to the last packet. Reports seconds of signal per second of
// processor time. Built a second time as engine_stage_bench, with the stage wrappers linked in,
// it also prints the share of each stage.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/bench_machine.h"
#include "simulator/transmitter.h"
#include "tools/offline_decoder.h"
#ifdef ZFN_STAGE_SHARES
#include "bench/engine/stage_timing.h"
#endif

namespace zfn {
namespace {

constexpr int CAPTURE_BLOCKS = 256;  // 15.2 s
constexpr size_t BLOCK_BYTES = 240640;

const std::vector<uint8_t>& Capture() {
  static const std::vector<uint8_t> capture = [] {
    sim::BroadcastConfig b;
    sim::ChannelConfig c;
    c.noise = true;
    c.cnDb = 20;
    std::string error;
    auto gen = sim::SignalGenerator::Create(b, c, sim::MakeTestPatternSource(1), &error);
    std::vector<uint8_t> bytes(CAPTURE_BLOCKS * BLOCK_BYTES);
    if (gen) gen->GenerateBytes(bytes.data(), bytes.size());
    return bytes;
  }();
  return capture;
}

double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

double signalTotal = 0, cpuTotal = 0;
int64_t packetsLastRun = 0, failedLastRun = 0;
#ifdef ZFN_STAGE_SHARES
uint64_t feedTicks = 0;
#endif

void BM_WholeEngine(benchmark::State& state) {
  const std::vector<uint8_t>& capture = Capture();
  const double signalSeconds = CAPTURE_BLOCKS * tools::BlockSeconds();
#ifdef ZFN_STAGE_SHARES
  bench::ResetStages();
  feedTicks = 0;
#endif
  signalTotal = cpuTotal = 0;
  for (auto _ : state) {
    tools::OfflineDecoder decoder;
    if (!decoder.Open(nullptr, nullptr)) {
      state.SkipWithError("the engine could not be built");
      return;
    }
    const double start = ThreadCpuSeconds();
#ifdef ZFN_STAGE_SHARES
    const uint64_t startTicks = bench::StageTicks();
#endif
    decoder.Feed(capture.data(), capture.size());
#ifdef ZFN_STAGE_SHARES
    feedTicks += bench::StageTicks() - startTicks;
#endif
    cpuTotal += ThreadCpuSeconds() - start;
    signalTotal += signalSeconds;
    decoder.Close();
    if (decoder.Stats().firstTrackingBlock < 0) {
      state.SkipWithError("the engine never tracked the capture");
      return;
    }
    packetsLastRun = decoder.Stats().packetsDelivered;
    failedLastRun = decoder.Stats().streaming.failed;
  }
  // Seconds of signal per second of this thread's processor time, over the timed feeding only.
  state.counters["x_real_time"] = cpuTotal > 0 ? signalTotal / cpuTotal : 0.0;
}
BENCHMARK(BM_WholeEngine)->Unit(benchmark::kMillisecond)->MinTime(2.0);

#ifdef ZFN_STAGE_SHARES
void PrintStageShares() {
  using namespace bench;
  const StageTotals& s = Stages();
  // The wrapped calls' own ticks; the whole run's ticks are the feeding time, on the same counter.
  const auto& t = s.ticks;
  const double transform = static_cast<double>(t[STAGE_TRANSFORM_TRACKING]);
  const double estimation = static_cast<double>(t[STAGE_ESTIMATION]);
  const double equalisation = static_cast<double>(t[STAGE_EQUALISATION]);
  const double rotation = static_cast<double>(t[STAGE_ROTATION]);
  const double timing = static_cast<double>(t[STAGE_TIMING]);
  const double symbolRest = static_cast<double>(t[STAGE_PROCESS_SYMBOL]) - transform - estimation - equalisation - rotation - timing;
  const double viterbi = static_cast<double>(t[STAGE_VITERBI]);
  const double byteStage = static_cast<double>(t[STAGE_BYTE_STAGE]);
  const double sinkRest = static_cast<double>(t[STAGE_SYMBOL_SINK]) - viterbi - byteStage;
  const double rs = static_cast<double>(t[STAGE_REED_SOLOMON]);
  const double total = static_cast<double>(feedTicks);
  const double rest = total - static_cast<double>(t[STAGE_PROCESS_SYMBOL]) - static_cast<double>(t[STAGE_SYMBOL_SINK]) - rs;
  struct Row {
    const char* name;
    double ticks;
  };
  const Row rows[] = {
      {"transform (symbol DFT)", transform},
      {"channel estimation (pilots, filters)", estimation},
      {"interpolation and equalisation", equalisation},
      {"carrier rotation", rotation},
      {"timing loop", timing},
      {"rest of the symbol driver", symbolRest},
      {"deinterleaving and demapping", sinkRest},
      {"Viterbi", viterbi},
      {"byte stage", byteStage},
      {"Reed-Solomon", rs},
      {"acquisition, block conversion and the rest", rest},
  };
  std::printf("\nShare of each stage in the whole engine (processor cycles):\n");
  for (const Row& r : rows) std::printf("  %-44s %5.1f %%\n", r.name, total > 0 ? 100.0 * r.ticks / total : 0.0);
}
#endif

}  // namespace
}  // namespace zfn

int main(int argc, char** argv) {
  std::printf("Machine: %s\n", zfn::bench::MachineLine().c_str());
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zfn::Capture();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (zfn::cpuTotal > 0) {
    std::printf("\nWhole engine, Mode 3, 1/8, QPSK 2/3, I = 4, C/N 20 dB: %.1f x real time on one core "
                "(%.1f s of signal in %.2f s of processor time; %lld packets, %lld failed after start-up per run)\n",
                zfn::signalTotal / zfn::cpuTotal, zfn::signalTotal, zfn::cpuTotal,
                static_cast<long long>(zfn::packetsLastRun), static_cast<long long>(zfn::failedLastRun));
  }
#ifdef ZFN_STAGE_SHARES
  zfn::PrintStageShares();
#endif
  return 0;
}
