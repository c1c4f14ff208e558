#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "acquisition/numerology.h"
#include "engine_memory.h"

namespace zfn {
namespace {

// Sets up the numerology of pair mode*4 + guard from the init mark, as a change of pair does.
void SetUpPair(int index) {
  engine.modeGuard->mode = static_cast<uint8_t>(index / 4);
  engine.modeGuard->guard = static_cast<uint8_t>(index % 4);
  engine.arenaNext = engine.arenaAfterInit;
  engine.arenaFree = engine.arenaFreeAfterInit;
  ASSERT_EQ(SetUpNumerology(engine.modeIndexLast == -1 ? 1 : 0), 1);
  engine.modeIndexLast = index;
}

// Every pair, from mode 3 guard 1/4 down to mode 1 guard 1/32: the tabled lengths of one segment
// at 64/63 MHz, and both transforms rebuilt for the new lengths.
TEST(Numerology, AllTwelvePairsGiveTheirTablesAndTransforms) {
  struct Expected {
    int nfft, nguard, nsymbol, nmargin, statFrames;
  };
  constexpr Expected EXPECTED[12] = {
      {256, 8, 264, 4, 19},     {256, 16, 272, 8, 18},    {256, 32, 288, 16, 17},    {256, 64, 320, 32, 16},
      {512, 16, 528, 8, 9},     {512, 32, 544, 16, 9},    {512, 64, 576, 32, 9},     {512, 128, 640, 64, 8},
      {1024, 32, 1056, 16, 5},  {1024, 64, 1088, 32, 5},  {1024, 128, 1152, 64, 4},  {1024, 256, 1280, 128, 4},
  };
  // Segment 0's AC and TMCC carriers (ARIB STD-B31 tables 3-10, 3-11), terminated by -1.
  const std::vector<int> FIXED[3] = {{35, 49, 79, -1}, {23, 98, 101, 118, 136, 178, -1},
                                     {7, 89, 101, 131, 206, 209, 226, 244, 286, 349, 377, 407, -1}};
  test::EngineMemory memory;
  for (int index = 11; index >= 0; --index) {
    SCOPED_TRACE("pair " + std::to_string(index));
    const int mode = index / 4;
    SetUpPair(index);
    const Expected& x = EXPECTED[index];
    EXPECT_EQ(engine.nfft, x.nfft);
    EXPECT_EQ(engine.nguard, x.nguard);
    EXPECT_EQ(engine.nsymbol, x.nsymbol);
    EXPECT_EQ(engine.nmargin, x.nmargin);
    EXPECT_EQ(engine.nmarginHalf, x.nmargin / 2);
    EXPECT_EQ(engine.nwork, x.nsymbol);
    EXPECT_EQ(engine.statFrames, x.statFrames);
    EXPECT_EQ(engine.ncarrier, (std::array{108, 216, 432}[mode]));
    EXPECT_EQ(engine.ndata, (std::array{96, 192, 384}[mode]));
    EXPECT_EQ(engine.nspan, (std::array{180, 360, 720}[mode]));
    EXPECT_EQ(engine.ngrid, (std::array{9, 18, 36}[mode]));
    EXPECT_EQ(engine.nscatter, (std::array{36, 72, 144}[mode]));
    EXPECT_EQ(engine.nspanGrid, (std::array{15, 30, 60}[mode]));
    EXPECT_EQ(engine.nquarter, x.nfft / 4);
    EXPECT_EQ(engine.ntrack, mode == 2 ? 12 : 6);
    EXPECT_EQ(engine.settleSymbols, (std::array{16320, 8160, 4080}[mode]));
    EXPECT_EQ(engine.guardScanStart, engine.settleSymbols + 100);
    EXPECT_EQ(engine.clockFrames, (std::array{16, 8, 4}[mode]));
    EXPECT_EQ(engine.statNextSymbol, 0);
    EXPECT_EQ(PILOT_START_BY_MODE[mode], (std::array{72, 144, 288}[mode]));
    for (size_t i = 0; i < FIXED[mode].size(); ++i) EXPECT_EQ(FIXED_CARRIERS_BY_MODE[mode][i], FIXED[mode][i]);
    EXPECT_EQ(engine.arenaNext, engine.arenaAfterNumerology);

    // An impulse at sample 1 puts exp(-j*2*pi/4) = -j into bin n/4 of either transform.
    for (int quarter = 0; quarter < 2; ++quarter) {
      const int n = quarter ? x.nfft / 4 : x.nfft;
      std::vector<float> v(2 * n, 0.0f);
      v[2] = 1.0f;
      ASSERT_EQ(quarter ? TransformQuarter(v.data(), -1) : TransformFull(v.data(), -1), 1);
      EXPECT_NEAR(v[2 * (n / 4) + 1], -1.0f, 1e-6) << "quarter " << quarter;
    }
  }
}

// Pilot PRBS of the lower, received and upper segments: first sixteen outputs w at the first
// carrier of each (ARIB STD-B31: one continuous run across the band), w = 1 is -0.75.
TEST(Numerology, PilotSignsFollowTheBandWideSequence) {
  test::EngineMemory memory;
  const char* firstOutputs[3][3] = {
      {"0101111010000100", "0100001001101001", "0010000100010100"},
      {"0001101000001110", "1001000111011010", "0010010000010110"},
      {"0110110011111011", "1101000010010010", "1011110011101001"},
  };
  for (int mode = 0; mode < 3; ++mode) {
    SetUpPair(mode * 4 + 3);
    for (int segment = 0; segment < 3; ++segment)
      for (int i = 0; i < 16; ++i)
        EXPECT_EQ(engine.pilotSign[segment * engine.ncarrier + i], firstOutputs[mode][segment][i] == '1' ? -0.75f : 0.75f)
            << "mode " << mode << " segment " << segment << " i " << i;
  }
}

}  // namespace
}  // namespace zfn
