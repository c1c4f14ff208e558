// TMCC: the shortened difference-set code's syndrome and majority repair, and the decoder's verdict
// on words of every kind. The bit positions of a worked word are checked with the transmitter.
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "acquisition/acquisition.h"
#include "engine_memory.h"

namespace zfn::test {
namespace {

using TmccWord = std::array<uint8_t, TMCC_WORD_BITS>;
using TmccInfo = std::array<uint8_t, TMCC_INFO_BITS>;

// The 102 information bits are w[0..101] (w[0] the highest degree); the parity w[102..183] is the
// remainder of info(x) * x^82 divided by g(x).
TmccWord EncodeTmcc(const TmccInfo& info) {
  constexpr int G_TERMS[] = {82, 77, 76, 71, 67, 66, 56, 52, 48, 40, 36, 34, 24, 22, 18, 10, 4, 0};
  std::vector<uint8_t> r(TMCC_WORD_BITS, 0);  // r[i] is the coefficient of x^(183 - i)
  for (int i = 0; i < TMCC_INFO_BITS; ++i) r[i] = info[i];
  for (int i = 0; i < TMCC_INFO_BITS; ++i) {
    if (!r[i]) continue;
    for (int t : G_TERMS) r[i + 82 - t] ^= 1;  // subtract x^(101 - i) * g(x)
  }
  TmccWord w{};
  for (int i = 0; i < TMCC_INFO_BITS; ++i) w[i] = info[i];
  for (int i = TMCC_INFO_BITS; i < TMCC_WORD_BITS; ++i) w[i] = r[i];
  return w;
}

struct TmccFields {
  int system;  // two bits: 0 television, 1 sound, 2 and 3 reserved
  int partial;
  int modulation, codeRate, interleave;
};

// A broadcast-like word: countdown 1111, one segment in layer A, layers B and C unused.
TmccWord TmccWordWith(const TmccFields& x) {
  TmccInfo info{};
  for (auto& b : info) b = 1;
  info[0] = (x.system >> 1) & 1;
  info[1] = x.system & 1;
  info[6] = 0;  // no emergency alarm
  info[7] = static_cast<uint8_t>(x.partial);
  for (int b = 0; b < 3; ++b) {
    info[8 + b] = (x.modulation >> (2 - b)) & 1;
    info[11 + b] = (x.codeRate >> (2 - b)) & 1;
    info[14 + b] = (x.interleave >> (2 - b)) & 1;
  }
  for (int b = 0; b < 4; ++b) info[17 + b] = (1 >> (3 - b)) & 1;  // 0001: one segment
  return EncodeTmcc(info);
}

TmccWord RandomWord(std::mt19937& rng) {
  TmccInfo info{};
  for (auto& b : info) b = rng() & 1;
  return EncodeTmcc(info);
}

// A frame of 204 hard bits for DecodeTmcc: frame bit B(k+1) at index k, B20.. the word.
std::array<int8_t, 204> Frame(const TmccWord& w) {
  std::array<int8_t, 204> f{};
  for (int k = 0; k < 19; ++k) f[k] = (k % 3) ? 1 : -1;  // sync and segment type: not read
  for (int i = 0; i < TMCC_WORD_BITS; ++i) f[19 + i] = w[i] ? 1 : -1;
  return f;
}

// Codewords have a zero syndrome, any single error is seen; errors in the parity alone leave the
// word untouched by the majority repair; up to eight errors in the first 21 positions are all
// repaired, and eight spread over the whole word leave those 21 right.
TEST(TmccCode, SyndromeAndMajorityRepairOnConstructedWords) {
  std::mt19937 rng(1);
  for (int trial = 0; trial < 80; ++trial) {
    const TmccWord clean = RandomWord(rng);
    TmccWord w = clean;
    EXPECT_EQ(TmccSyndrome(w.data()), 0);
    EXPECT_EQ(TmccMajorityCorrect(w.data()), 2);
    EXPECT_EQ(w, clean);
    const int errors = 1 + trial % 8;
    switch (trial / 8 % 3) {
      case 0:  // parity only
        for (int e = 0; e < errors; ++e) w[TMCC_INFO_BITS + rng() % (TMCC_WORD_BITS - TMCC_INFO_BITS)] ^= 1;
        break;
      case 1:  // distinct positions among the first 21
        for (int placed = 0; placed < errors;) {
          const int p = static_cast<int>(rng() % 21);
          if (w[p] == clean[p]) w[p] ^= 1, ++placed;
        }
        break;
      default:  // anywhere
        for (int e = 0; e < 8; ++e) w[rng() % TMCC_WORD_BITS] ^= 1;
    }
    const TmccWord damaged = w;
    if (w != clean) {
      EXPECT_EQ(TmccSyndrome(w.data()), 1) << "trial " << trial;
    }
    TmccMajorityCorrect(w.data());
    for (int i = 0; i < TMCC_WORD_BITS; ++i)
      EXPECT_EQ(w[i], i < 21 ? clean[i] : damaged[i]) << "trial " << trial << " bit " << i;
  }
}

TEST(DecodeTmcc, VerdictsForCleanAndCorrectedWords) {
  EngineMemory memory;
  struct Case {
    TmccFields fields;
    std::vector<int> damage;  // flipped word bits
    int result;
    int accepted;  // -1: untouched
  };
  const Case cases[] = {
      {{0, 1, 1, 2, 3}, {}, 2, 1},      // television with partial reception
      {{0, 0, 1, 2, 3}, {}, 1, 0},      // television without it: not receivable
      {{1, 0, 0, 4, 2}, {}, 2, 1},      // sound broadcast: receivable without the flag
      {{2, 1, 1, 1, 1}, {}, 1, 0},      // system 10: not receivable whatever the flag
      {{3, 1, 1, 1, 1}, {}, 1, 0},
      {{0, 1, 4, 1, 1}, {}, 3, -1},     // modulation out of range, though clean
      {{0, 1, 1, 5, 1}, {}, 3, -1},     // code rate 5
      {{0, 1, 1, 1, 4}, {}, 3, -1},     // interleave 4
      {{0, 1, 3, 4, 3}, {150}, 4, 1},   // corrected and receivable
      {{0, 0, 3, 4, 3}, {150}, 3, 0},   // a corrected word may not declare no service
      {{0, 1, 2, 1, 2}, {0, 9, 16}, 4, 1},  // damage in the parameter bits is repaired first
  };
  for (const Case& c : cases) {
    TmccWord w = TmccWordWith(c.fields);
    for (int p : c.damage) w[p] ^= 1;
    engine.tmccAccepted = 7;
    engine.tmccRepeat = 5;
    EXPECT_EQ(DecodeTmcc(Frame(w).data()), c.result) << "system " << c.fields.system << " modulation " << c.fields.modulation;
    EXPECT_EQ(engine.tmccAccepted, c.accepted == -1 ? 7 : c.accepted);
    EXPECT_EQ(engine.tmccRepeat, 0);
    EXPECT_EQ(engine.layerParams->modulation, c.fields.modulation);
    EXPECT_EQ(engine.layerParams->codeRate, c.fields.codeRate);
    EXPECT_EQ(engine.layerParams->interleave, c.fields.interleave);
  }
}

}  // namespace
}  // namespace zfn::test
