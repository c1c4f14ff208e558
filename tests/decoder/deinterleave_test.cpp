// Decoder set-up lengths and arena order, the frequency permutations, and the soft demapper's
// floor-and-clamp rule and Gray levels. Time and bit deinterleavers are tested against the
// transmitter's interleavers in transmitter_chain_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "decoder/frequency_deinterleave_tables.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

void SetUpLayer(uint8_t mode, uint8_t modulation, uint8_t codeRate, uint8_t interleave) {
  test::ResetEngineArena();
  test::SetLayer(mode, modulation, codeRate, interleave);
  engine.bitsPerCarrier = 0;
  ASSERT_EQ(1, SetUpDecoder());
}

TEST(DecoderSetUp, LengthsAndArenaOrder) {
  // Mode 1, QPSK, rate 1/2: C = 192, no depunctured region, 12 packets per frame.
  SetUpLayer(0, 1, 0, 0);
  EXPECT_EQ(2, engine.bitsPerCarrier);
  EXPECT_EQ(192, decoder.depuncturedLength);
  EXPECT_EQ(12, decoder.packetsPerFrame);
  EXPECT_EQ(0, decoder.startupSymbols);
  EXPECT_EQ(0, decoder.interleaveDepth);
  EXPECT_EQ(engine.arenaBase, decoder.softBits);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(decoder.freqDeint), decoder.softBits);  // first run: on top of each other
  EXPECT_EQ(reinterpret_cast<uint8_t*>(decoder.timeDeint), decoder.softBits + 96 * 8);
  EXPECT_EQ(decoder.bitDelay120, decoder.softBits + 2 * 96 * 8);
  EXPECT_EQ(decoder.bitStream, decoder.bitDelay120 + 120);
  EXPECT_EQ(decoder.decodedBytes, decoder.bitStream + 192);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(decoder.softPairs), decoder.decodedBytes + 96);
  EXPECT_EQ(decoder.byteDelayStore, reinterpret_cast<uint8_t*>(decoder.softPairs) + 192);
  EXPECT_EQ(decoder.byteDelayBranch[10], decoder.byteDelayStore + 1105);
  EXPECT_EQ(engine.arenaNext, decoder.byteDelayStore + 1122);
  EXPECT_EQ(WORK_ARENA_BYTES - (engine.arenaNext - engine.arenaBase), engine.arenaFree);

  // A second run from the same place: softBits now keeps the distance of the previous bit count.
  engine.arenaNext = engine.arenaBase;
  engine.layerParamsRecord.modulation = 2;
  ASSERT_EQ(1, SetUpDecoder());
  EXPECT_EQ(reinterpret_cast<uint8_t*>(decoder.freqDeint), decoder.softBits + 96 * 2);
  EXPECT_EQ(4, engine.bitsPerCarrier);
  EXPECT_EQ(decoder.bitDelay80, decoder.bitDelay120 + 120);
  EXPECT_EQ(decoder.bitDelay40, decoder.bitDelay80 + 80);
  EXPECT_EQ(decoder.bitStream, decoder.bitDelay40 + 40);

  // Mode 2 with time interleaving code 1: depth 2, two groups, 36480 floats of delay store.
  SetUpLayer(1, 1, 1, 1);
  EXPECT_EQ(2, decoder.interleaveDepth);
  EXPECT_EQ(2, decoder.interleaveGroups);
  EXPECT_EQ(190, decoder.startupSymbols);
  EXPECT_EQ(95 * 2 * 2, decoder.timeLineLength[0]);
  EXPECT_EQ(91 * 2 * 2, decoder.timeLineLength[1]);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(decoder.timeDelayStore), reinterpret_cast<uint8_t*>(decoder.timeDeint) + 192 * 8);
  EXPECT_EQ(decoder.bitDelay120, reinterpret_cast<uint8_t*>(decoder.timeDelayStore + 36480));
  EXPECT_EQ(384 * 4 / 3, decoder.depuncturedLength);
  EXPECT_EQ(128, decoder.punctureGroups);
  EXPECT_EQ(decoder.depunctured, decoder.bitStream + 384);

  // Mode 3, 64QAM, rate 7/8: C = 2304, 4032 depunctured soft bits, 252 packets per frame.
  SetUpLayer(2, 3, 4, 3);
  EXPECT_EQ(6, engine.bitsPerCarrier);
  EXPECT_EQ(4032, decoder.depuncturedLength);
  EXPECT_EQ(252, decoder.packetsPerFrame);
  EXPECT_EQ(4, decoder.interleaveDepth);
  EXPECT_EQ(decoder.bitDelay96, decoder.bitDelay120 + 120);
  EXPECT_EQ(decoder.bitDelay24, decoder.bitDelay48 + 48);
  EXPECT_EQ(1, decoder.viterbiRestart);
}

TEST(FrequencyDeinterleaver, TablesArePermutationsAndUndoTheTransmitterMapping) {
  const std::vector<std::vector<int32_t>> tables = {{FREQ_DEINT_MODE1.begin(), FREQ_DEINT_MODE1.end()},
                                                    {FREQ_DEINT_MODE2.begin(), FREQ_DEINT_MODE2.end()},
                                                    {FREQ_DEINT_MODE3.begin(), FREQ_DEINT_MODE3.end()}};
  for (uint8_t mode = 0; mode < 3; ++mode) {
    const std::vector<int32_t>& table = tables[mode];
    std::vector<int32_t> sorted = table;
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 0; i < sorted.size(); ++i) {
      ASSERT_EQ(static_cast<int32_t>(i), sorted[i]);
    }
    SetUpLayer(mode, 1, 0, 0);
    const int32_t ndata = engine.ndata;
    // The transmitter writes input carrier i to data slot table[i].
    std::vector<float> air(static_cast<size_t>(2 * ndata));
    for (int32_t i = 0; i < ndata; ++i) {
      air[2 * table[i]] = static_cast<float>(i);
      air[2 * table[i] + 1] = -static_cast<float>(i);
    }
    engine.equalisedCarriers = air.data();
    DeinterleaveFrequency();
    for (int32_t i = 0; i < ndata; ++i) {
      ASSERT_EQ(static_cast<float>(i), decoder.freqDeint[2 * i]);
      ASSERT_EQ(-static_cast<float>(i), decoder.freqDeint[2 * i + 1]);
    }
  }
  // Mode 1's only fixed point is slot 15.
  for (int32_t i = 0; i < 96; ++i) {
    EXPECT_EQ(i == 15, FREQ_DEINT_MODE1[i] == i) << i;
  }
}

// Right after set-up every delay line holds zeros: only carrier 19 of each group of 96 comes through.
TEST(TimeDeinterleaver, FirstSymbolPassesOnlyCarrierNineteen) {
  SetUpLayer(2, 1, 0, 1);  // Mode 3, depth 1, four groups
  std::vector<float> in(2 * 384, 1.5f), out(2 * 384, -1.0f);
  DeinterleaveTime(in.data(), out.data());
  for (int32_t c = 0; c < 384; ++c) {
    ASSERT_EQ(c % 96 == 19 ? 1.5f : 0.0f, out[2 * c]) << c;
    ASSERT_EQ(c % 96 == 19 ? 1.5f : 0.0f, out[2 * c + 1]) << c;
  }
}

std::vector<uint8_t> Demap(int32_t bits, float re, float im) {
  engine.bitsPerCarrier = bits;
  std::vector<float> carriers(static_cast<size_t>(2 * engine.ndata), 0.0f);
  carriers[0] = re;
  carriers[1] = im;
  DemapSoft(carriers.data());
  return {decoder.softBits, decoder.softBits + bits};
}

TEST(SoftDemapper, FloorAndClampOnTheBoundaries) {
  SetUpLayer(0, 3, 0, 0);  // room for 6 soft bits per carrier
  EXPECT_EQ((std::vector<uint8_t>{16, 16}), Demap(2, 0.0f, -0.0f));
  EXPECT_EQ((std::vector<uint8_t>{15, 16}), Demap(2, 0.5f, -0.5f));      // S(15.5) = 15, S(16.5) = 16
  EXPECT_EQ((std::vector<uint8_t>{0, 31}), Demap(2, 16.0f, -15.0f));     // S(0) = 0, S(31) = 31
  EXPECT_EQ((std::vector<uint8_t>{0, 31}), Demap(2, 16.5f, -16.5f));     // S(-0.5) = 0, S(32.5) = 31
  EXPECT_EQ((std::vector<uint8_t>{0, 30}), Demap(2, 15.5f, -14.5f));     // S(0.5) = 0, S(30.5) = 30
  EXPECT_EQ((std::vector<uint8_t>{0, 31}), Demap(2, 1e30f, -1e30f));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ((std::vector<uint8_t>{16, 0}), Demap(2, nan, std::numeric_limits<float>::infinity()));
  // A zero carrier (what the time deinterleaver gives before its lines fill).
  EXPECT_EQ((std::vector<uint8_t>{16, 16, 24, 24}), Demap(4, 0.0f, 0.0f));
  EXPECT_EQ((std::vector<uint8_t>{16, 16, 31, 31, 8, 8}), Demap(6, 0.0f, 0.0f));
}

// Constellation points of unit mean power give the Gray-mapped bits of ARIB STD-B31 as hard decisions.
TEST(SoftDemapper, QamLevelsGiveTheirGrayBits) {
  SetUpLayer(0, 3, 0, 0);
  // 16QAM, one axis: bits (first, second) for the levels +3, +1, -1, -3.
  const int levels16[4] = {3, 1, -1, -3};
  const int bits16[4][2] = {{0, 0}, {0, 1}, {1, 1}, {1, 0}};
  for (int k = 0; k < 4; ++k) {
    const float v = static_cast<float>(levels16[k] / std::sqrt(10.0));
    const std::vector<uint8_t> soft = Demap(4, v, -v);
    EXPECT_EQ(bits16[k][0], soft[0] >= 16) << levels16[k];
    EXPECT_EQ(bits16[k][1], soft[2] >= 16) << levels16[k];
    EXPECT_EQ(bits16[3 - k][0], soft[1] >= 16) << -levels16[k];
    EXPECT_EQ(bits16[3 - k][1], soft[3] >= 16) << -levels16[k];
  }
  // 64QAM: 000 +7, 001 +5, 011 +3, 010 +1, 110 -1, 111 -3, 101 -5, 100 -7.
  const int levels64[8] = {7, 5, 3, 1, -1, -3, -5, -7};
  const int bits64[8][3] = {{0, 0, 0}, {0, 0, 1}, {0, 1, 1}, {0, 1, 0}, {1, 1, 0}, {1, 1, 1}, {1, 0, 1}, {1, 0, 0}};
  for (int k = 0; k < 8; ++k) {
    const float v = static_cast<float>(levels64[k] / std::sqrt(42.0));
    const std::vector<uint8_t> soft = Demap(6, v, v);
    for (int b = 0; b < 3; ++b) {
      EXPECT_EQ(bits64[k][b], soft[2 * b] >= 16) << "level " << levels64[k] << " bit " << b;
      EXPECT_EQ(bits64[k][b], soft[2 * b + 1] >= 16) << "level " << levels64[k] << " bit " << b;
    }
  }
}

}  // namespace
}  // namespace zfn
