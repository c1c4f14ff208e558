// Mode and guard detection under the developer override, on our transmitter's broadcast. That
// detection finds every pair on air is proven by the acquisition cases, which run every pair.
#include <gtest/gtest.h>

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

// The developer override measures its own pair only; a pair that does not exist is ignored.
TEST(GuardCorrelation, ForcedPairIsMeasuredAloneAndInvalidPairsAreIgnored) {
  test::EngineMemory memory;
  sim::BroadcastConfig b;  // pair 6: mode 2, guard 1/8
  b.mode = 2;
  b.guard = 2;
  std::string error;
  auto g = sim::SignalGenerator::Create(b, sim::ChannelConfig{}, sim::MakeTestPatternSource(1), &error);
  ASSERT_TRUE(g) << error;
  std::vector<uint8_t> bytes(RAW_BLOCK_BYTES);
  g->GenerateBytes(bytes.data(), bytes.size());
  for (int i = 0; i < BLOCK_FLOATS; ++i) memory.block[i] = (bytes[4 * (i / 2) + i % 2] - 127) / 128.0f;
  engine.forceModeGuard = 1;
  engine.forcedMode = 1;
  engine.forcedGuard = 1;  // not the pair on air
  for (float& m : engine.guardMetric) m = -1.0f;
  DetectModeAndGuard();
  EXPECT_EQ(engine.modeIndexLast, 5);
  EXPECT_EQ(engine.nsymbol, 544);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(engine.guardMetric[i] == -1.0f, i != 5) << i;
  EXPECT_GE(engine.readPos, 0);
  EXPECT_LT(engine.readPos, 2 * 544);
  engine.forcedMode = 3;
  DetectModeAndGuard();
  EXPECT_EQ(engine.modeIndexLast, 6);
  // A new pair: the arena went back to the init mark and the numerology was built anew there.
  EXPECT_EQ(reinterpret_cast<uint8_t*>(engine.pilotSign), engine.arenaAfterInit);
  EXPECT_EQ(engine.nsymbol, 576);
  // The same pair again: no set-up, the arena only rewinds to the numerology mark.
  const DftPlan planBefore = engine.fftPlan;
  engine.arenaNext += 1000;
  DetectModeAndGuard();
  EXPECT_EQ(engine.fftPlan, planBefore);
  EXPECT_EQ(engine.arenaNext, engine.arenaAfterNumerology);
  engine.forceModeGuard = 0;
}

}  // namespace
}  // namespace zfn
