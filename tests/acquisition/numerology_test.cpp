// The numerology of each mode and guard pair as a change of pair builds it: its share of the arena,
// both transforms rebuilt, the designed periods of the tracking loops and the statistics, and the
// tables taken from the standard (the transmitter agrees with them end to end).
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "acquisition/numerology.h"
#include "numeric/dft.h"
#include "shell/receiver_state.h"

namespace zfn {
namespace {

// Engine memory as the engine's set-up leaves it: the work arena and the mode record; the plans
// released again at the end.
struct EngineMemory {
  std::vector<uint8_t> arena = std::vector<uint8_t>(WORK_ARENA_BYTES);

  EngineMemory() {
    engine.arenaBase = arena.data();
    engine.arenaNext = arena.data();
    engine.arenaFree = WORK_ARENA_BYTES;
    engine.arenaAfterInit = arena.data();
    engine.arenaFreeAfterInit = WORK_ARENA_BYTES;
    engine.modeGuard = &engine.modeGuardRecord;
    engine.modeIndexLast = -1;
  }
  ~EngineMemory() {
    if (engine.modeIndexLast != -1) FreeDftPlans();
    engine.modeIndexLast = -1;
    engine.arenaBase = engine.arenaNext = engine.arenaAfterInit = engine.arenaAfterNumerology = nullptr;
  }
};

// Sets up the numerology of pair mode*4 + guard from the init mark, as a change of pair does.
void SetUpPair(int index) {
  engine.modeGuard->mode = static_cast<uint8_t>(index / 4);
  engine.modeGuard->guard = static_cast<uint8_t>(index % 4);
  engine.arenaNext = engine.arenaAfterInit;
  engine.arenaFree = engine.arenaFreeAfterInit;
  ASSERT_EQ(SetUpNumerology(engine.modeIndexLast == -1 ? 1 : 0), 1);
  engine.modeIndexLast = index;
}

// Every pair, from mode 3 guard 1/4 down to mode 1 guard 1/32.
TEST(Numerology, EveryPairRebuildsItsTransformsAndPeriodsInItsShareOfTheArena) {
  constexpr int STAT_FRAMES[12] = {19, 18, 17, 16, 9, 9, 9, 8, 5, 5, 4, 4};
  EngineMemory memory;
  for (int index = 11; index >= 0; --index) {
    SCOPED_TRACE("pair " + std::to_string(index));
    const int mode = index / 4;
    SetUpPair(index);
    EXPECT_EQ(engine.arenaNext, engine.arenaAfterNumerology);
    EXPECT_EQ(engine.statFrames, STAT_FRAMES[index]);
    EXPECT_EQ(engine.settleSymbols, (std::array{16320, 8160, 4080}[mode]));
    EXPECT_EQ(engine.clockFrames, (std::array{16, 8, 4}[mode]));
    EXPECT_EQ(engine.guardScanStart, engine.settleSymbols + 100);
    // An impulse at sample 1 puts exp(-j*2*pi/4) = -j into bin n/4 of either transform.
    const int nfft = 256 << mode;
    for (int quarter = 0; quarter < 2; ++quarter) {
      const int n = quarter ? nfft / 4 : nfft;
      std::vector<float> v(2 * n, 0.0f);
      v[2] = 1.0f;
      ASSERT_EQ(quarter ? TransformQuarter(v.data(), -1) : TransformFull(v.data(), -1), 1);
      EXPECT_NEAR(v[2 * (n / 4) + 1], -1.0f, 1e-6) << "quarter " << quarter;
    }
  }
}

// Segment 0's AC and TMCC carriers (ARIB STD-B31 tables 3-10, 3-11), and the pilot PRBS of the
// lower, received and upper segments: first sixteen outputs w at the first carrier of each (one
// continuous run across the band), w = 1 is -0.75.
TEST(Numerology, FixedCarriersAndPilotSignsOfTheStandard) {
  const std::vector<int> FIXED[3] = {{35, 49, 79, -1}, {23, 98, 101, 118, 136, 178, -1},
                                     {7, 89, 101, 131, 206, 209, 226, 244, 286, 349, 377, 407, -1}};
  const char* firstOutputs[3][3] = {
      {"0101111010000100", "0100001001101001", "0010000100010100"},
      {"0001101000001110", "1001000111011010", "0010010000010110"},
      {"0110110011111011", "1101000010010010", "1011110011101001"},
  };
  EngineMemory memory;
  for (int mode = 0; mode < 3; ++mode) {
    for (size_t i = 0; i < FIXED[mode].size(); ++i) EXPECT_EQ(FIXED_CARRIERS_BY_MODE[mode][i], FIXED[mode][i]) << mode;
    SetUpPair(mode * 4 + 3);
    for (int segment = 0; segment < 3; ++segment)
      for (int i = 0; i < 16; ++i)
        EXPECT_EQ(engine.pilotSign[segment * engine.ncarrier + i], firstOutputs[mode][segment][i] == '1' ? -0.75f : 0.75f)
            << "mode " << mode << " segment " << segment << " i " << i;
  }
}

}  // namespace
}  // namespace zfn
