// The hand-vectorised kernels of the symbol path, every variant this processor runs, on the sizes
// of the common broadcast (Mode 3): the rotation of one symbol's span, the filter across carriers
// over one row, the QPSK equaliser over one symbol's data carriers, the time filter with held taps
// over one row of pilot groups, the QPSK soft weighting, the finite check of the loop state, one side of the timing gate, the QPSK soft demapping of one
// symbol. Prints each variant's speed-up
// over the scalar reference at the end of the run. The Viterbi kernels are in decoder_bench.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_machine.h"
#include "decoder/demap_kernels.h"
#include "numeric/nco_rotation.h"
#include "numeric/vector_isa.h"
#include "tracking/carrier_filter.h"
#include "tracking/equaliser_kernels.h"
#include "tracking/timing_gate_kernels.h"

namespace zfn {
namespace {

constexpr int32_t ROTATED_SAMPLES = 1152;
constexpr int32_t FILTER_ENTRIES = 240;  // the row of the whole span of Mode 3 (720 carriers), as the engine filters it
constexpr int32_t DATA_CARRIERS = 384;
constexpr int32_t DATA_SPAN = 432;  // carriers of the segment, the scattered pilots among them

// The equaliser's tables: where the data carriers lie in a carrier slot (every 12th a pilot), or
// (channel) their channel in the three interpolated rows.
std::vector<int16_t> CarrierTable(bool channel) {
  std::vector<int16_t> at;
  for (int32_t c = 0; c < DATA_SPAN && static_cast<int32_t>(at.size()) < DATA_CARRIERS; ++c) {
    if (c % 12 == 0) continue;
    at.push_back(static_cast<int16_t>(channel ? 2 * ((c % 3) * (DATA_SPAN / 3) + c / 3) : 2 * c));
  }
  return at;
}

std::vector<float> Values(size_t count, uint64_t seed) {
  std::vector<float> v(count);
  for (auto& x : v) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    x = static_cast<float>(static_cast<int64_t>(seed >> 40) % 2000 - 1000) / 700.0f;
  }
  return v;
}

bool Skip(benchmark::State& state, VectorIsa isa) {
  if (VectorIsaAvailable(isa)) {
    state.SetLabel(VectorIsaName(isa));
    return false;
  }
  state.SkipWithError("not available on this processor");
  return true;
}

void BM_Rotation(benchmark::State& state, VectorIsa isa) {
  if (Skip(state, isa)) return;
  std::vector<float> x = Values(2 * ROTATED_SAMPLES, 1);
  for (auto _ : state) {
    RotateByNcoWith(isa, x.data(), x.data(), ROTATED_SAMPLES, 0.3, 1e-4);  // |rotator| 1: the values stay bounded
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * ROTATED_SAMPLES);
}

void BM_CarrierFilter(benchmark::State& state, VectorIsa isa) {
  if (Skip(state, isa)) return;
  const std::vector<float> row = Values(2 * FILTER_ENTRIES, 2), oldest = Values(6 * FILTER_ENTRIES, 3);
  std::vector<float> out(2 * FILTER_ENTRIES), taps(14, 0.0f);
  for (auto _ : state) {
    std::fill(taps.begin(), taps.end(), 0.0f);
    taps[6] = 1.0f;
    FilterCarrierRowWith(isa, {row.data(), out.data(), taps.data(), oldest.data(), FILTER_ENTRIES, 1, 2, 0.01f});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * FILTER_ENTRIES);
}

void BM_Equaliser(benchmark::State& state, VectorIsa isa) {
  if (Skip(state, isa)) return;
  const std::vector<float> r = Values(2 * DATA_SPAN, 4), g = Values(2 * DATA_SPAN, 5);
  const std::vector<int16_t> rAt = CarrierTable(false), gAt = CarrierTable(true);
  std::vector<float> eq(2 * DATA_CARRIERS), power(DATA_CARRIERS), noise(DATA_CARRIERS);
  float sums[2] = {};
  for (auto _ : state) {
    EqualiseQpskWith(isa, {r.data(), g.data(), rAt.data(), gAt.data(), eq.data(), power.data(), noise.data(),
                           DATA_CARRIERS, 2, sums});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * DATA_CARRIERS);
}

void BM_QamEqualiser(benchmark::State& state, VectorIsa isa) {  // 64QAM: the longest decision
  if (Skip(state, isa)) return;
  const std::vector<float> r = Values(2 * DATA_SPAN, 4), g = Values(2 * DATA_SPAN, 5);
  const std::vector<int16_t> rAt = CarrierTable(false), gAt = CarrierTable(true);
  std::vector<float> eq(2 * DATA_CARRIERS), power(DATA_CARRIERS), noise(DATA_CARRIERS);
  float sums[2] = {};
  for (auto _ : state) {
    EqualiseQamWith(isa, {r.data(), g.data(), rAt.data(), gAt.data(), eq.data(), power.data(), noise.data(),
                          DATA_CARRIERS, 6, sums});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * DATA_CARRIERS);
}

void BM_BankProducts(benchmark::State& state, VectorIsa isa) {  // nquarter of mode 3
  if (Skip(state, isa)) return;
  constexpr int32_t ENTRIES = 256;
  const std::vector<float> x = Values(2 * ENTRIES, 7), low = Values(2 * ENTRIES, 8), high = Values(2 * ENTRIES, 9);
  std::vector<float> zLow(2 * ENTRIES), zHigh(2 * ENTRIES);
  for (auto _ : state) {
    MultiplyBanksWith(isa, {x.data(), low.data(), high.data(), zLow.data(), zHigh.data(), ENTRIES});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * ENTRIES);
}

void BM_HeldTimeFilter(benchmark::State& state, VectorIsa isa) {  // one row of pilot groups
  if (Skip(state, isa)) return;
  constexpr int32_t GROUPS = 60;
  const std::vector<float> x0 = Values(8 * GROUPS, 10), x1 = Values(8 * GROUPS, 11), x2 = Values(8 * GROUPS, 12);
  std::vector<float> out(8 * GROUPS);
  HeldTimeFilter rows{x0.data(), x1.data(), x2.data(), out.data(), GROUPS, 1, {}, {}};
  const std::vector<float> taps = Values(48, 13);
  for (int32_t k = 0; k < 3; ++k) {
    for (int32_t f = 0; f < 8; ++f) {
      rows.re[k][f] = taps[8 * k + f];
      rows.im[k][f] = taps[24 + 8 * k + f];
    }
  }
  for (auto _ : state) {
    FilterHeldWith(isa, rows);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * GROUPS);
}

void BM_SoftWeighting(benchmark::State& state, VectorIsa isa) {  // one symbol's data carriers
  if (Skip(state, isa)) return;
  const std::vector<float> power = Values(DATA_CARRIERS, 20);
  std::vector<float> weight(DATA_CARRIERS), eq = Values(2 * DATA_CARRIERS, 21);
  for (auto _ : state) {
    WeighCarriersWith(isa, power.data(), 1.0f, weight.data(), eq.data(), DATA_CARRIERS);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * DATA_CARRIERS);
}

void BM_FiniteCheck(benchmark::State& state, VectorIsa isa) {  // the loop state checked every symbol
  if (Skip(state, isa)) return;
  const std::vector<float> v = Values(1650, 14);
  for (auto _ : state) benchmark::DoNotOptimize(AllFiniteWith(isa, v.data(), static_cast<int32_t>(v.size())));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(v.size()));
}

void BM_GateSide(benchmark::State& state, VectorIsa isa) {  // one side of the timing gate, Mode 3 guard 1/8
  if (Skip(state, isa)) return;
  constexpr int32_t SPAN = 64;
  const std::vector<float> wRe = Values(GATE_MAX_SPAN * GATE_CARRIERS, 15), wIm = Values(GATE_MAX_SPAN * GATE_CARRIERS, 16);
  const std::vector<float> start = Values(2 * GATE_CARRIERS, 17), x = Values(2 * 1200, 18), sign(GATE_CARRIERS, 1.0f);
  std::vector<float> rows = Values(2 * SPAN * GATE_CARRIERS, 19), profile(SPAN);
  using Row = const float(*)[GATE_CARRIERS];
  const GateSide side{reinterpret_cast<Row>(wRe.data()), reinterpret_cast<Row>(wIm.data()), start.data(),
                      start.data() + GATE_CARRIERS, sign.data(), x.data(), SPAN, 1088, 64, 1, rows.data(),
                      rows.data() + SPAN * GATE_CARRIERS, GATE_CARRIERS, profile.data()};
  for (auto _ : state) {
    SlideGateSideWith(isa, side);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * SPAN);
}

void BM_QpskDemap(benchmark::State& state, VectorIsa isa) {
  if (Skip(state, isa)) return;
  std::vector<float> values = Values(2 * DATA_CARRIERS, 6);
  for (float& v : values) v *= 12.0f;
  std::vector<uint8_t> soft(2 * DATA_CARRIERS);
  for (auto _ : state) {
    DemapQpskWith(isa, values.data(), soft.data(), 2 * DATA_CARRIERS);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * DATA_CARRIERS);
}

BENCHMARK_CAPTURE(BM_Rotation, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_Rotation, sse2, VectorIsa::SSE2);
BENCHMARK_CAPTURE(BM_Rotation, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_CarrierFilter, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_CarrierFilter, sse2, VectorIsa::SSE2);
BENCHMARK_CAPTURE(BM_CarrierFilter, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_Equaliser, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_Equaliser, sse2, VectorIsa::SSE2);
BENCHMARK_CAPTURE(BM_Equaliser, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_QamEqualiser, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_QamEqualiser, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_BankProducts, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_BankProducts, sse2, VectorIsa::SSE2);
BENCHMARK_CAPTURE(BM_BankProducts, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_HeldTimeFilter, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_HeldTimeFilter, sse2, VectorIsa::SSE2);
BENCHMARK_CAPTURE(BM_HeldTimeFilter, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_SoftWeighting, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_SoftWeighting, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_FiniteCheck, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_FiniteCheck, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_GateSide, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_GateSide, avx2, VectorIsa::AVX2);
BENCHMARK_CAPTURE(BM_QpskDemap, scalar, VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_QpskDemap, avx2, VectorIsa::AVX2);

// Collects the rates and prints every variant's speed-up over the scalar reference of its kernel.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      auto it = run.counters.find("items_per_second");
      if (it != run.counters.end()) rates_[run.benchmark_name()] = it->second.value;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const auto& [name, rate] : rates_) {
      const size_t slash = name.find('/');
      const std::string kernel = name.substr(0, slash);
      const auto scalar = rates_.find(kernel + "/scalar");
      if (scalar == rates_.end() || name == scalar->first) continue;
      std::printf("%s: %.2fx scalar\n", name.c_str(), rate / scalar->second);
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
  benchmark::AddCustomContext("machine", zfn::bench::MachineLine());
  zfn::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
