// TMCC: the shortened difference-set code's syndrome and majority repair, and the decoder's verdict
// on words of every kind.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "acquisition/acquisition.h"
#include "shell/receiver_state.h"
#include "simulator/tx_stages.h"

namespace zfn::test {
namespace {

using TmccWord = std::array<uint8_t, TMCC_WORD_BITS>;

// Words B20..B203 of our transmitter's TMCC encoder, whose parity is checked against a worked word
// beside it: random information bits, or a broadcast-like word with one segment in layer A.
TmccWord RandomWord(std::mt19937& rng) {
  TmccWord w{};
  for (int i = 0; i < TMCC_INFO_BITS; ++i) w[i] = rng() & 1;
  sim::TmccParity(w.data(), w.data() + TMCC_INFO_BITS);
  return w;
}

struct TmccFields {
  int system;  // two bits: 0 television, 1 sound, 2 and 3 reserved
  int partial;
  int modulation, codeRate, interleave;
};

TmccWord TmccWordWith(const TmccFields& x) {
  sim::TmccContent c;
  c.systemId = x.system;
  c.partialReception = x.partial != 0;
  c.layerA = {x.modulation, x.codeRate, x.interleave, 1};
  const auto b = sim::BuildTmccWord(c, false);
  TmccWord w{};
  std::copy(b.begin() + 20, b.end(), w.begin());
  return w;
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
  engine.layerParams = &engine.layerParamsRecord;
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
    const LayerParams& l = *engine.layerParams;
    EXPECT_EQ((std::vector<int>{engine.tmccAccepted, engine.tmccRepeat, l.modulation, l.codeRate, l.interleave}),
              (std::vector<int>{c.accepted == -1 ? 7 : c.accepted, 0, c.fields.modulation, c.fields.codeRate, c.fields.interleave}));
  }
}

}  // namespace
}  // namespace zfn::test
