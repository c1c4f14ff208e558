#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "acquisition/numerology.h"
#include "engine_memory.h"

namespace zfn {
namespace {

struct Expected {
  int nfft, nguard, nsymbol, nmargin, statFrames;
};
// The numerology of one segment at 64/63 MHz by mode*4 + guard.
constexpr Expected EXPECTED[12] = {
    {256, 8, 264, 4, 19},     {256, 16, 272, 8, 18},    {256, 32, 288, 16, 17},    {256, 64, 320, 32, 16},
    {512, 16, 528, 8, 9},     {512, 32, 544, 16, 9},    {512, 64, 576, 32, 9},     {512, 128, 640, 64, 8},
    {1024, 32, 1056, 16, 5},  {1024, 64, 1088, 32, 5},  {1024, 128, 1152, 64, 4},  {1024, 256, 1280, 128, 4},
};

void SetPair(int index) {
  engine.modeGuard->mode = static_cast<uint8_t>(index / 4);
  engine.modeGuard->guard = static_cast<uint8_t>(index % 4);
}

// Every pair: the tabled lengths, the derived ones, and exactly the arena use of the layout.
TEST(Numerology, AllTwelvePairsGiveTheirTablesAndArenaLayout) {
  test::EngineMemory memory;
  for (int index = 0; index < 12; ++index) {
    SCOPED_TRACE("pair " + std::to_string(index));
    const int mode = index / 4;
    SetPair(index);
    engine.arenaNext = engine.arenaAfterInit;
    engine.arenaFree = engine.arenaFreeAfterInit;
    ASSERT_EQ(SetUpNumerology(engine.modeIndexLast == -1 ? 1 : 0), 1);
    engine.modeIndexLast = index;
    const Expected& x = EXPECTED[index];
    EXPECT_EQ(engine.nfft, x.nfft);
    EXPECT_EQ(engine.nguard, x.nguard);
    EXPECT_EQ(engine.nsymbol, x.nsymbol);
    EXPECT_EQ(engine.nmargin, x.nmargin);
    EXPECT_EQ(engine.nmarginHalf, x.nmargin / 2);
    EXPECT_EQ(engine.nwork, engine.nsymbol);  // with these tables the copy is one symbol
    EXPECT_EQ(engine.statFrames, x.statFrames);
    EXPECT_EQ(engine.ncarrier, 108 << mode);
    EXPECT_EQ(engine.ndata, 96 << mode);
    EXPECT_EQ(engine.nspan, 180 << mode);
    EXPECT_EQ(engine.ngrid, 9 << mode);
    EXPECT_EQ(engine.nscatter, 36 << mode);
    EXPECT_EQ(engine.nspanGrid, 15 << mode);
    EXPECT_EQ(engine.nquarter, x.nfft / 4);
    EXPECT_EQ(engine.ntrack, mode == 2 ? 12 : 6);
    EXPECT_EQ(engine.settleSymbols, 4080 << (2 - mode));
    EXPECT_EQ(engine.guardScanStart, (4080 << (2 - mode)) + 100);
    EXPECT_EQ(engine.clockFrames, 4 << (2 - mode));
    EXPECT_EQ(engine.statNextSymbol, 0);
    // ndata = ncarrier - scattered pilots - fixed carriers.
    int fixed = 0;
    while (FIXED_CARRIERS_BY_MODE[mode][fixed] >= 0) ++fixed;
    EXPECT_EQ(engine.ndata, engine.ncarrier - engine.ngrid - fixed);

    // Layout upward from the init mark: pilotSign, three pilotDiff, symbolBuffer, margin arrays.
    const int m2 = 2 * x.nmargin + 1;
    const int tables = 12 * engine.ncarrier + engine.nspan;
    const int rest = 8 * (x.nsymbol + 2 * x.nmargin) + 4 * m2 + 8 * m2 * engine.ntrack;
    EXPECT_EQ(reinterpret_cast<uint8_t*>(engine.pilotSign), engine.arenaAfterInit);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(engine.symbolBuffer), engine.arenaAfterInit + tables);
    EXPECT_EQ(engine.symbolBody, engine.symbolBuffer + 2 * x.nmargin);
    EXPECT_EQ(engine.arenaAfterNumerology, engine.arenaAfterInit + tables + rest);
    EXPECT_EQ(engine.arenaFreeAfterNumerology, WORK_ARENA_BYTES - tables - rest);
    EXPECT_EQ(engine.arenaNext, engine.arenaAfterNumerology);

    for (int i = 0; i < engine.ntrack; ++i) {
      const double angle = engine.trackBins[i] * 6.283185307179 / engine.nfft;
      EXPECT_FLOAT_EQ(engine.trackSin[i], static_cast<float>(std::sin(angle)));
      EXPECT_FLOAT_EQ(engine.trackCos[i], static_cast<float>(std::cos(angle)));
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
    SCOPED_TRACE("mode " + std::to_string(mode));
    SetPair(mode * 4 + 3);
    engine.arenaNext = engine.arenaAfterInit;
    engine.arenaFree = engine.arenaFreeAfterInit;
    ASSERT_EQ(SetUpNumerology(engine.modeIndexLast == -1 ? 1 : 0), 1);
    engine.modeIndexLast = mode * 4 + 3;
    for (int segment = 0; segment < 3; ++segment) {
      for (int i = 0; i < 16; ++i) {
        const float expected = firstOutputs[mode][segment][i] == '1' ? -0.75f : 0.75f;
        EXPECT_EQ(engine.pilotSign[segment * engine.ncarrier + i], expected) << "segment " << segment << " i " << i;
      }
    }
    const int start = PILOT_START_BY_MODE[mode];
    EXPECT_EQ(start, engine.ncarrier - (engine.nspan - engine.ncarrier) / 2);
    for (int p = 0; p < engine.nspanGrid; ++p) {
      const float* s = engine.pilotSign + start + 12 * p;
      EXPECT_EQ(engine.pilotDiff0[p], s[0] * s[3]);
      EXPECT_EQ(engine.pilotDiff1[p], s[3] * s[6]);
      EXPECT_EQ(engine.pilotDiff2[p], s[6] * s[9]);
      EXPECT_EQ(std::fabs(engine.pilotDiff0[p]), 0.5625f);
    }
  }
}

// From mode 3 guard 1/4 to mode 1 guard 1/32: both descriptors are rebuilt for the new lengths.
TEST(Numerology, ChangeOfModeRebuildsBothDescriptors) {
  test::EngineMemory memory;
  SetPair(11);
  ASSERT_EQ(SetUpNumerology(1), 1);
  engine.modeIndexLast = 11;
  SetPair(0);
  engine.arenaNext = engine.arenaAfterInit;
  engine.arenaFree = engine.arenaFreeAfterInit;
  ASSERT_EQ(SetUpNumerology(0), 1);
  EXPECT_EQ(engine.nsymbol, 264);
  EXPECT_EQ(engine.nwork, 264);
  EXPECT_EQ(engine.ntrack, 6);
  // An impulse at sample 1 of 256 (and of 64) puts exp(-j*2*pi/4) = -j into bin n/4.
  std::vector<float> full(2 * 256, 0.0f);
  full[2] = 1.0f;
  ASSERT_EQ(TransformFull(full.data(), -1), 1);
  EXPECT_NEAR(full[2 * 64 + 1], -1.0f, 1e-6);
  std::vector<float> quarter(2 * 64, 0.0f);
  quarter[2] = 1.0f;
  ASSERT_EQ(TransformQuarter(quarter.data(), -1), 1);
  EXPECT_NEAR(quarter[2 * 16 + 1], -1.0f, 1e-6);
}

}  // namespace
}  // namespace zfn
