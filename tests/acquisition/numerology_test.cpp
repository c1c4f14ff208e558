// The numerology of each mode and guard pair as a change of pair builds it: its share of the arena,
// both transforms rebuilt, the designed periods of the tracking loops and the statistics, and the
// tables taken from the standard (the transmitter agrees with them end to end).
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "acquisition/numerology.h"
#include "numeric/dft.h"
#include "shell/receiver_state.h"
#include "tests/tracking/tracking_test_support.h"

namespace zfn {
namespace {

// Every pair, from mode 3 guard 1/4 down to mode 1 guard 1/32.
TEST(Numerology, EveryPairRebuildsItsTransformsAndPeriodsInItsShareOfTheArena) {
  constexpr int STAT_FRAMES[12] = {19, 18, 17, 16, 9, 9, 9, 8, 5, 5, 4, 4};
  for (int index = 11; index >= 0; --index) {
    SCOPED_TRACE("pair " + std::to_string(index));
    const int mode = index / 4;
    test::PrepareNumerology(mode, index % 4);
    EXPECT_EQ(engine.arenaNext, engine.arenaAfterNumerology);
    EXPECT_EQ((std::array{engine.statFrames, engine.settleSymbols, engine.clockFrames, engine.guardScanStart}),
              (std::array{STAT_FRAMES[index], std::array{16320, 8160, 4080}[mode], std::array{16, 8, 4}[mode], engine.settleSymbols + 100}));
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

// The pilot PRBS of the lower, received and upper segments: first sixteen outputs w at the first
// carrier of each (one continuous run across the band), w = 1 is -0.75. (Segment 0's AC and TMCC
// carriers are proven end to end against the transmitter's own table of them.)
TEST(Numerology, PilotSignsOfTheStandard) {
  const char* firstOutputs[3][3] = {
      {"0101111010000100", "0100001001101001", "0010000100010100"},
      {"0001101000001110", "1001000111011010", "0010010000010110"},
      {"0110110011111011", "1101000010010010", "1011110011101001"},
  };
  for (int mode = 0; mode < 3; ++mode) {
    test::PrepareNumerology(mode, 3);
    for (int segment = 0; segment < 3; ++segment)
      for (int i = 0; i < 16; ++i)
        EXPECT_EQ(engine.pilotSign[segment * engine.ncarrier + i], firstOutputs[mode][segment][i] == '1' ? -0.75f : 0.75f)
            << "mode " << mode << " segment " << segment << " i " << i;
  }
}

}  // namespace
}  // namespace zfn
