// Benchmarks of the channel decoder: Viterbi trellis steps per second of every kernel this processor
// runs, with the speed-up of each vector kernel over the scalar reference printed at the end of the
// run, Reed-Solomon decoding per packet (clean, corrected, uncorrectable), rate 2/3 depuncturing
// per variant, and the whole per-symbol decoder.
//
// The Viterbi runs read the soft pairs that the engine itself gives the decoder: at start-up the
// program decodes short captures of our transmitter (the common broadcast, Mode 3, QPSK 2/3, at
// C/N 20 dB and 7 dB) through the synchronous driver, with the linker sending the engine's calls of
// ViterbiDecode through a wrapper that records them (--wrap, see CMakeLists.txt). How often the
// metrics are normalised, and how that falls, depends on such input, not on random pairs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_machine.h"
#include "decoder/decoder_state.h"
#include "decoder/depuncture_kernels.h"
#include "decoder/reed_solomon.h"
#include "decoder/viterbi.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "simulator/transmitter.h"
#include "tools/offline_decoder.h"

namespace zfn {

// The engine's calls of the decoder, while a capture is being recorded: their pairs, one call after
// the other, and the call lengths.
struct RecordedCalls {
  std::vector<uint16_t> pairs;
  std::vector<int32_t> counts;
};
RecordedCalls* recording = nullptr;

}  // namespace zfn

void RealViterbiDecode(const uint16_t* pairs, int32_t count, uint8_t* output) asm("__real__ZN3zfn13ViterbiDecodeEPKtiPh");
void RecordingViterbiDecode(const uint16_t* pairs, int32_t count, uint8_t* output) asm("__wrap__ZN3zfn13ViterbiDecodeEPKtiPh");
void RecordingViterbiDecode(const uint16_t* pairs, int32_t count, uint8_t* output) {
  if (zfn::recording != nullptr && count > 0) {
    zfn::recording->pairs.insert(zfn::recording->pairs.end(), pairs, pairs + count);
    zfn::recording->counts.push_back(count);
  }
  RealViterbiDecode(pairs, count, output);
}

namespace zfn {
namespace {

constexpr size_t BLOCK_BYTES = 240640;
constexpr int RECORDED_BLOCKS = 40;  // 2.4 s of signal, of which about 2 s tracked

// The decoder's input from the engine on a capture of the common broadcast at the given C/N.
const RecordedCalls& EngineCalls(double cnDb) {
  static std::map<double, RecordedCalls> calls;
  auto found = calls.find(cnDb);
  if (found != calls.end()) return found->second;
  RecordedCalls& record = calls[cnDb];
  sim::BroadcastConfig broadcast;
  sim::ChannelConfig channel;
  channel.noise = true;
  channel.cnDb = cnDb;
  std::string error;
  auto generator = sim::SignalGenerator::Create(broadcast, channel, sim::MakeTestPatternSource(1), &error);
  if (!generator) return record;
  std::vector<uint8_t> capture(RECORDED_BLOCKS * BLOCK_BYTES);
  generator->GenerateBytes(capture.data(), capture.size());
  tools::OfflineDecoder engineDecoder;
  if (!engineDecoder.Open(nullptr, nullptr)) return record;
  recording = &record;
  engineDecoder.Feed(capture.data(), capture.size());
  recording = nullptr;
  engineDecoder.Close();
  return record;
}

// Noisy soft pairs around a random code sequence: what one symbol of a real signal looks like.
std::vector<uint16_t> NoisyPairs(int32_t count, uint64_t seed) {
  std::vector<uint16_t> pairs(static_cast<size_t>(count));
  uint64_t s = seed;
  auto next = [&s]() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
  };
  for (auto& p : pairs) {
    const int h = static_cast<int>((next() & 1) * 31) + static_cast<int>(next() % 13) - 6;
    const int l = static_cast<int>((next() & 1) * 31) + static_cast<int>(next() % 13) - 6;
    p = static_cast<uint16_t>((h < 0 ? 0 : h > 31 ? 31 : h) << 8 | (l < 0 ? 0 : l > 31 ? 31 : l));
  }
  return pairs;
}

// One call per OFDM symbol: 2016 trellis steps for the largest layer (Mode 3, 64QAM, rate 7/8) and
// 96 for a small one on noisy random pairs; the engine's own calls of the usual one-segment layer
// (Mode 3, QPSK 2/3, 512 steps) at 20 dB and 7 dB, in their order, on one continuing trellis. Each
// with the designed normalisation and with the refinements' schedule.
void BM_Viterbi(benchmark::State& state, ViterbiKernel kernel) {
  if (!ViterbiKernelAvailable(kernel)) {
    state.SkipWithError("kernel not available on this processor");
    return;
  }
  const bool engineInput = state.range(0) == 0;
  const int32_t value = static_cast<int32_t>(state.range(1));
  RecordedCalls random;
  if (!engineInput) {
    random.pairs = NoisyPairs(value, 12345);
    random.counts = {value};
  }
  const RecordedCalls& calls = engineInput ? EngineCalls(value) : random;
  if (calls.counts.empty()) {
    state.SkipWithError("the engine gave the decoder nothing");
    return;
  }
  auto trellis = std::make_unique<ViterbiTrellis>();
  const bool scheduled = state.range(2) != 0;
  trellis->normaliseEveryFourth = scheduled ? 1 : 0;
  std::vector<uint8_t> out(VITERBI_MAX_STEPS / 8);
  size_t call = 0, at = 0;
  int64_t steps = 0;
  for (auto _ : state) {
    const int32_t count = calls.counts[call];
    ViterbiRun(*trellis, kernel, calls.pairs.data() + at, count, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
    steps += count;
    at += static_cast<size_t>(count);
    if (++call == calls.counts.size()) call = at = 0;
  }
  state.SetItemsProcessed(steps);
  state.SetLabel(std::string(ViterbiKernelName(kernel)) + (engineInput ? ", the engine's pairs" : ", random pairs") +
                 (scheduled ? ", scheduled normalisation" : ""));
}
// Arguments: 0 and the C/N in dB of the engine's input, or 1 and the steps per call of random pairs;
// then 0 for the designed normalisation, 1 for the scheduled one.
void ViterbiArgs(benchmark::internal::Benchmark* b) {
  for (int64_t scheduled : {0, 1}) b->Args({0, 20, scheduled})->Args({0, 7, scheduled})->Args({1, 2016, scheduled})->Args({1, 96, scheduled});
}
BENCHMARK_CAPTURE(BM_Viterbi, scalar, ViterbiKernel::SCALAR)->Apply(ViterbiArgs);
BENCHMARK_CAPTURE(BM_Viterbi, sse2, ViterbiKernel::SSE2)->Apply(ViterbiArgs);
BENCHMARK_CAPTURE(BM_Viterbi, avx2, ViterbiKernel::AVX2)->Apply(ViterbiArgs);

// Reed-Solomon per packet: 0 clean (one encoder pass), 1 with 8 data errors (full correction), 2 with
// 20 errors (fails).
void BM_DecodeRs(benchmark::State& state) {
  if (rsTablesRef == nullptr && BuildRsTables() == 0) {
    state.SkipWithError("tables");
    return;
  }
  uint8_t clean[204];
  for (int i = 0; i < 188; ++i) clean[i] = static_cast<uint8_t>(i * 37 + 11);
  // Parity: correct the zero parity by decoding once, then take the corrected packet's re-encoding
  // from the decoder's own view: errors only in parity are reported but not repaired, so build the
  // codeword by searching the parity through CheckRsParity instead.
  std::memset(clean + 188, 0, 16);
  {
    // Systematic encoding by long division over GF(256) with the tables' multiply.
    uint8_t rem[16] = {};
    for (int m = 0; m < 188; ++m) {
      const uint8_t t = static_cast<uint8_t>(clean[m] ^ rem[15]);
      std::memmove(rem + 1, rem, 15);
      rem[0] = 0;
      for (int j = 0; j < 16; ++j) rem[j] ^= rsTablesRef->mulTable[t * 256 + RS_GENERATOR[j]];
    }
    for (int i = 0; i < 16; ++i) clean[203 - i] = rem[i];
  }
  if (CheckRsParity(clean) != RS_OK) {
    state.SkipWithError("encoding");
    return;
  }
  uint8_t received[204];
  std::memcpy(received, clean, 204);
  const int errors = state.range(0) == 0 ? 0 : state.range(0) == 1 ? 8 : 20;
  for (int k = 0; k < errors; ++k) received[5 + 9 * k] ^= static_cast<uint8_t>(0x5A + k);
  uint8_t work[204];
  int32_t result = 0;
  for (auto _ : state) {
    std::memcpy(work, received, 204);
    result = DecodeRs(work);
    benchmark::DoNotOptimize(work);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(result == RS_OK ? "clean" : result == RS_CORRECTED ? "8 errors corrected" : "20 errors, uncorrectable");
}
BENCHMARK(BM_DecodeRs)->Arg(0)->Arg(1)->Arg(2);

// Rate 2/3 depuncturing of one symbol of the usual layer (Mode 3 QPSK: 256 periods), each variant;
// compare the scalar and vector lines.
void BM_DepunctureTwoThirds(benchmark::State& state, VectorIsa isa) {
  if (!VectorIsaAvailable(isa)) {
    state.SkipWithError("variant not available on this processor");
    return;
  }
  constexpr int32_t GROUPS = 256;
  std::vector<uint8_t> bits(3 * GROUPS);
  for (size_t i = 0; i < bits.size(); ++i) bits[i] = static_cast<uint8_t>(i * 7 % 32);
  std::vector<uint16_t> pairs(2 * GROUPS);
  for (auto _ : state) {
    DepunctureTwoThirdsWith(isa, bits.data(), pairs.data(), GROUPS);
    benchmark::DoNotOptimize(pairs.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * GROUPS);
  state.SetLabel(VectorIsaName(isa));
}
BENCHMARK_CAPTURE(BM_DepunctureTwoThirds, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_DepunctureTwoThirds, avx2, VectorIsa::AVX2);

// The whole per-symbol decoder (deinterleaving, demapping, Viterbi, byte stage, ring hand-over) for
// the largest layer, Mode 3 64QAM 7/8 with the longest time interleaving, and the usual one-segment
// layer, Mode 3 QPSK 2/3. Real time in Mode 3 is about 880 symbols per second (guard 1/8).
void BM_SymbolSink(benchmark::State& state) {
  std::vector<uint8_t> arena(static_cast<size_t>(WORK_ARENA_BYTES));
  engine.arenaBase = engine.arenaNext = arena.data();
  engine.arenaFree = WORK_ARENA_BYTES;
  engine.modeGuard = &engine.modeGuardRecord;
  engine.layerParams = &engine.layerParamsRecord;
  engine.modeGuardRecord.mode = 2;
  engine.ndata = 384;
  const bool qam = state.range(0) == 1;
  engine.layerParamsRecord = {static_cast<uint8_t>(qam ? 3 : 1), static_cast<uint8_t>(qam ? 4 : 1), 3};
  SetUpTransportOutput();
  engine.tsResetRequest = 0;
  SetUpDecoder();
  std::vector<float> carriers(2 * 384);
  uint64_t s = 99;
  for (auto& v : carriers) {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    v = static_cast<float>(static_cast<int64_t>(s >> 40) % 2000 - 1000) / 700.0f;
  }
  engine.equalisedCarriers = carriers.data();
  int32_t index = 0;
  for (auto _ : state) {
    engine.symbolIndex = index;
    SymbolSink();
    index = index == 203 ? 0 : index + 1;
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(qam ? "Mode 3 64QAM 7/8, symbols" : "Mode 3 QPSK 2/3, symbols");
  engine.arenaBase = engine.arenaNext = nullptr;
}
BENCHMARK(BM_SymbolSink)->Arg(0)->Arg(1);

// Collects the steps per second of the Viterbi runs and prints each vector kernel's speed-up.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const std::string name = run.benchmark_name();
      if (name.rfind("BM_Viterbi/", 0) != 0) continue;
      auto it = run.counters.find("items_per_second");
      if (it != run.counters.end()) rates_[name] = it->second.value;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const char* input : {"0/20", "0/7", "1/2016", "1/96"}) {
      const std::string scalar = std::string("BM_Viterbi/scalar/") + input;
      if (rates_.count(scalar) == 0) continue;
      if (input[0] == '0') std::printf("Viterbi, the engine's calls at %s dB", input + 2);
      else std::printf("Viterbi, random pairs, %s steps per call", input + 2);
      std::printf(": scalar %.1f M steps/s", rates_[scalar] / 1e6);
      for (const char* kernel : {"sse2", "avx2"}) {
        const std::string name = std::string("BM_Viterbi/") + kernel + "/" + input;
        if (rates_.count(name) == 0) continue;
        std::printf(", %s %.1f M steps/s (%.1fx scalar)", kernel, rates_[name] / 1e6, rates_[name] / rates_[scalar]);
      }
      std::printf("\n");
    }
  }

 private:
  std::map<std::string, double> rates_;
};

}  // namespace
}  // namespace zfn

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::AddCustomContext("cpu_model", zfn::bench::CpuModel());
  benchmark::AddCustomContext("viterbi_best_kernel", zfn::ViterbiKernelName(zfn::BestViterbiKernel()));
  zfn::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
