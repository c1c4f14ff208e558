// Cost per block of the shell's own work on the demodulation and reception threads: the byte to
// float conversion, the assembly of source reads, and the symbol walk (with an empty symbol step).
// A block lasts 59.22 ms of signal; these are the parts of that budget the shell spends.
#include <benchmark/benchmark.h>

#include <vector>

#include "shell/block_ring.h"
#include "shell/block_scheduler.h"
#include "shell/receiver_state.h"

namespace {

void BM_ConvertBlock(benchmark::State& state, zfn::VectorIsa isa) {
  if (!zfn::VectorIsaAvailable(isa)) {
    state.SkipWithError("not available on this processor");
    return;
  }
  std::vector<uint8_t> raw(zfn::RAW_BLOCK_BYTES);
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(i * 13);
  std::vector<float> samples(zfn::BLOCK_FLOATS);
  for (auto _ : state) {
    zfn::ConvertBlockWith(isa, raw.data(), samples.data());
    benchmark::DoNotOptimize(samples.data());
  }
  state.SetBytesProcessed(state.iterations() * zfn::RAW_BLOCK_BYTES);
}
BENCHMARK_CAPTURE(BM_ConvertBlock, scalar, zfn::VectorIsa::SCALAR);
BENCHMARK_CAPTURE(BM_ConvertBlock, avx2, zfn::VectorIsa::AVX2);

void IgnoreBlock(const uint8_t* block, void*) { benchmark::DoNotOptimize(block); }

void BM_AssembleReads(benchmark::State& state) {
  const int32_t readLength = static_cast<int32_t>(state.range(0));
  std::vector<uint8_t> read(zfn::SOURCE_READ_BYTES, 7);
  std::vector<uint8_t> assembly(zfn::RAW_BLOCK_BYTES);
  zfn::BlockAssembler assembler;
  assembler.Reset(assembly.data());
  for (auto _ : state) assembler.Append(read.data(), readLength, IgnoreBlock, nullptr);
  state.SetBytesProcessed(state.iterations() * readLength);
}
BENCHMARK(BM_AssembleReads)->Arg(4096)->Arg(zfn::SOURCE_READ_BYTES);

void EmptyStep() {}

void BM_WalkSymbols(benchmark::State& state) {
  const int32_t nsymbol = static_cast<int32_t>(state.range(0));
  std::vector<float> samples(zfn::BLOCK_FLOATS, 0.5f);
  std::vector<float> buffer(2 * nsymbol);
  zfn::engine.sampleBlock = samples.data();
  zfn::engine.symbolBuffer = buffer.data();
  zfn::engine.nsymbol = nsymbol;
  zfn::engine.nwork = nsymbol;
  zfn::engine.timingStep = 0;
  zfn::engine.readPos = 0;
  zfn::engine.straddleFlag = 0;
  zfn::symbolStepHandler = EmptyStep;
  for (auto _ : state) zfn::WalkSymbols();
  zfn::symbolStepHandler = zfn::SymbolStep;
  zfn::engine.sampleBlock = nullptr;
  zfn::engine.symbolBuffer = nullptr;
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WalkSymbols)->Arg(264)->Arg(1280);

}  // namespace
