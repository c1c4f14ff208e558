#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "acquisition/acquisition.h"
#include "acquisition/numerology.h"
#include "engine_memory.h"
#include "numeric/dft.h"
#include "shell/stages.h"
#include "simulator/transmitter.h"

namespace zfn {
namespace {

using cd = std::complex<double>;

// One block of engine samples of our transmitter's broadcast of pair `index`, the first whole
// symbol `lead` samples in.
void FillBlock(std::vector<float>& block, int index, int lead, double offsetHz) {
  sim::BroadcastConfig b;
  b.mode = index / 4 + 1;
  b.guard = index % 4;
  sim::ChannelConfig c;
  c.carrierOffsetHz = offsetHz;
  std::string error;
  auto g = sim::SignalGenerator::Create(b, c, sim::MakeTestPatternSource(1), &error);
  ASSERT_TRUE(g) << error;
  const int nsymbol = sim::EngineSamplesPerSymbol(b);
  std::vector<uint8_t> bytes(4 * static_cast<size_t>((nsymbol - lead) % nsymbol + BLOCK_SAMPLES));
  g->GenerateBytes(bytes.data(), bytes.size());
  const uint8_t* p = bytes.data() + bytes.size() - RAW_BLOCK_BYTES;
  for (int i = 0; i < BLOCK_FLOATS; ++i) block[i] = (p[4 * (i / 2) + i % 2] - 127) / 128.0f;
}

// The running sum against a direct computation of the four-period profile, in double precision.
TEST(GuardCorrelation, RunningSumMatchesDirectProfile) {
  test::EngineMemory memory;
  for (int index : {0, 6, 11}) {
    SCOPED_TRACE("pair " + std::to_string(index));
    FillBlock(memory.block, index, 100 + 37 * index, 0.001 / (2 * M_PI) * sim::kEngineRateHz);
    const int n = NFFT_BY_MODE_GUARD[index];
    const int g = NGUARD_BY_MODE_GUARD[index];
    const int s = n + g;
    const float* x = memory.block.data();
    auto sample = [&](int i) { return cd(x[2 * i], x[2 * i + 1]); };
    std::vector<double> mag(s);
    for (int k = 0; k < s; ++k) {
      cd acc = 0;
      for (int pass = 0; pass < 4; ++pass) {
        const int m = pass * s + k;
        for (int i = m + 1; i <= m + g; ++i) acc += sample(i) * std::conj(sample(i + n));
      }
      mag[k] = std::norm(acc);
    }
    int peak = 0;
    for (int k = 1; k < s; ++k) if (mag[k] > mag[peak]) peak = k;
    const int a = (n + peak) % s;
    const int b = (g + peak) % s;
    double inner = 0;
    double total = 0;
    for (int k = 0; k < s; ++k) {
      total += mag[k];
      const bool onArc = a < b ? (k >= a && k < b) : (k < b || k >= a);
      if (onArc) inner += mag[k];
    }
    const double metric = (s - 2.0 * g) * (inner / (total - inner)) / (2.0 * g);

    MeasureGuardCorrelation(x, index / 4, index % 4);
    EXPECT_EQ(engine.guardPeak[index], peak);
    EXPECT_NEAR(engine.guardMetric[index], metric, 1e-3 * metric);
    // The peak lies one sample ahead of a guard interval start; on random data the edge of the
    // correlation window may pick up a sample more or less.
    const int lead = 100 + 37 * index;
    const int miss = (peak - (lead - 1) + 4 * s) % s;
    EXPECT_TRUE(miss <= 2 || miss >= s - 2) << "peak " << peak;
  }
}

// A new pair builds its numerology from the init mark; the same pair again only rewinds the arena.
TEST(GuardCorrelation, NumerologyIsBuiltOnlyForANewPair) {
  test::EngineMemory memory;
  FillBlock(memory.block, 5, 77, 0.0);
  DetectModeAndGuard();
  EXPECT_EQ(engine.modeIndexLast, 5);
  EXPECT_EQ(engine.nsymbol, 544);
  EXPECT_GE(engine.readPos, 0);
  EXPECT_LT(engine.readPos, 2 * 544);
  FillBlock(memory.block, 6, 77, 0.0);
  DetectModeAndGuard();
  EXPECT_EQ(engine.modeIndexLast, 6);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(engine.pilotSign), engine.arenaAfterInit);
  EXPECT_EQ(engine.nsymbol, 576);
  const DftPlan planBefore = engine.fftPlan;
  engine.arenaNext += 1000;
  DetectModeAndGuard();
  EXPECT_EQ(engine.fftPlan, planBefore);
  EXPECT_EQ(engine.arenaNext, engine.arenaAfterNumerology);
}

}  // namespace
}  // namespace zfn
