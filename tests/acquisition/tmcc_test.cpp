#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "acquisition/acquisition.h"
#include "engine_memory.h"
#include "tmcc_words.h"

namespace zfn {
namespace {

using Word = test::TmccWord;
constexpr auto Encode = test::EncodeTmcc;

std::array<uint8_t, TMCC_INFO_BITS> RandomInfo(std::mt19937& rng) {
  std::array<uint8_t, TMCC_INFO_BITS> info{};
  for (auto& b : info) b = rng() & 1;
  return info;
}

TEST(TmccCode, CodewordsHaveZeroSyndromeAndAnyErrorIsSeen) {
  std::mt19937 rng(1);
  for (int trial = 0; trial < 50; ++trial) {
    Word w = Encode(RandomInfo(rng));
    EXPECT_EQ(TmccSyndrome(w.data()), 0);
    const int position = static_cast<int>(rng() % TMCC_WORD_BITS);
    w[position] ^= 1;
    EXPECT_EQ(TmccSyndrome(w.data()), 1) << "error at " << position;
  }
}

// The two worked TMCC words of the transmitter facts (layer A QPSK 2/3, interleave code 3,
// partial reception, television), B20..B203 as hex with B20 the top bit.
Word FromHex(const char* hex) {
  Word w{};
  for (int i = 0; i < TMCC_WORD_BITS; ++i) {
    const char ch = hex[i / 4];
    const int nibble = ch <= '9' ? ch - '0' : ch - 'a' + 10;
    w[i] = (nibble >> (3 - i % 4)) & 1;
  }
  return w;
}

TEST(TmccCode, BroadcastWordsAreCodewordsAndDecode) {
  test::EngineMemory memory;
  for (const char* hex : {"3d258b4b3fff258b4b3ffffffcafa0673eb9cb6ea3e296", "3d258fffffff258ffffffffffe0a31ed7d853d0954964b"}) {
    const Word w = FromHex(hex);
    EXPECT_EQ(TmccSyndrome(w.data()), 0) << hex;
    std::array<int8_t, 204> frame{};
    for (int i = 0; i < TMCC_WORD_BITS; ++i) frame[19 + i] = w[i] ? 1 : -1;
    EXPECT_EQ(DecodeTmcc(frame.data()), 2);
    EXPECT_EQ(engine.tmccAccepted, 1);
    EXPECT_EQ(engine.layerParams->modulation, 1);
    EXPECT_EQ(engine.layerParams->codeRate, 1);
    EXPECT_EQ(engine.layerParams->interleave, 3);
  }
}

// Errors in the parity only: the first 21 bits are left as they are.
TEST(TmccCode, MajorityLeavesCleanLeadingBitsAlone) {
  std::mt19937 rng(2);
  for (int trial = 0; trial < 20; ++trial) {
    const Word clean = Encode(RandomInfo(rng));
    Word w = clean;
    EXPECT_EQ(TmccMajorityCorrect(w.data()), 2);
    EXPECT_EQ(w, clean);
    for (int e = 0; e < 1 + trial % 8; ++e) w[TMCC_INFO_BITS + rng() % (TMCC_WORD_BITS - TMCC_INFO_BITS)] ^= 1;
    const Word damaged = w;
    EXPECT_EQ(TmccSyndrome(w.data()), 1);
    EXPECT_EQ(TmccMajorityCorrect(w.data()), 2);
    EXPECT_EQ(w, damaged);  // nothing in 0..20 changed, and nothing beyond is touched
  }
}

// Up to eight errors in the first 21 positions are all repaired; bits behind 20 stay as received.
TEST(TmccCode, MajorityRepairsUpToEightErrorsInTheLeadingBits) {
  std::mt19937 rng(3);
  for (int errors = 1; errors <= 8; ++errors) {
    for (int trial = 0; trial < 10; ++trial) {
      const Word clean = Encode(RandomInfo(rng));
      Word w = clean;
      int placed = 0;
      while (placed < errors) {
        const int p = static_cast<int>(rng() % 21);
        if (w[p] != clean[p]) continue;
        w[p] ^= 1;
        ++placed;
      }
      TmccMajorityCorrect(w.data());
      EXPECT_EQ(w, clean) << errors << " errors, trial " << trial;
    }
  }
  // Errors spread over the whole word (at most eight): the leading 21 come out right.
  for (int trial = 0; trial < 20; ++trial) {
    const Word clean = Encode(RandomInfo(rng));
    Word w = clean;
    for (int e = 0; e < 8; ++e) w[rng() % TMCC_WORD_BITS] ^= 1;
    TmccMajorityCorrect(w.data());
    for (int i = 0; i < 21; ++i) EXPECT_EQ(w[i], clean[i]) << "trial " << trial << " bit " << i;
  }
}

// A frame of 204 hard bits for DecodeTmcc from a word: frame bit B(k+1) at index k, B20.. = word.
std::array<int8_t, 204> Frame(const Word& w) {
  std::array<int8_t, 204> f{};
  for (int k = 0; k < 19; ++k) f[k] = (k % 3) ? 1 : -1;  // sync and segment type: not read
  for (int i = 0; i < TMCC_WORD_BITS; ++i) f[19 + i] = w[i] ? 1 : -1;
  f[203] = -1;
  return f;
}

struct Fields {
  int system;  // two bits, w[0] w[1]
  int partial;
  int modulation, codeRate, interleave;
};

Word WordWith(const Fields& x) {
  std::array<uint8_t, TMCC_INFO_BITS> info{};
  info[0] = (x.system >> 1) & 1;
  info[1] = x.system & 1;
  info[7] = static_cast<uint8_t>(x.partial);
  for (int b = 0; b < 3; ++b) {
    info[8 + b] = (x.modulation >> (2 - b)) & 1;
    info[11 + b] = (x.codeRate >> (2 - b)) & 1;
    info[14 + b] = (x.interleave >> (2 - b)) & 1;
  }
  for (int i = 17; i < TMCC_INFO_BITS; ++i) info[i] = (i * 7) % 5 == 0;  // the other fields: filler
  return Encode(info);
}

TEST(DecodeTmcc, VerdictsForCleanAndCorrectedWords) {
  test::EngineMemory memory;
  struct Case {
    Fields fields;
    bool damageParity;
    int result;
    int accepted;  // -1: untouched
  };
  const Case cases[] = {
      {{0, 1, 1, 2, 3}, false, 2, 1},   // television with partial reception
      {{0, 0, 1, 2, 3}, false, 1, 0},   // television without it: not receivable
      {{1, 0, 0, 4, 2}, false, 2, 1},   // sound broadcast: receivable without the flag
      {{2, 1, 1, 1, 1}, false, 1, 0},   // system 10: not receivable whatever the flag
      {{3, 1, 1, 1, 1}, false, 1, 0},
      {{0, 1, 4, 1, 1}, false, 3, -1},  // modulation out of range, though clean
      {{0, 1, 1, 5, 1}, false, 3, -1},  // code rate 5
      {{0, 1, 1, 1, 4}, false, 3, -1},  // interleave 4
      {{0, 1, 3, 4, 3}, true, 4, 1},    // corrected and receivable
      {{0, 0, 3, 4, 3}, true, 3, 0},    // a corrected word may not declare no service
  };
  for (const Case& c : cases) {
    Word w = WordWith(c.fields);
    if (c.damageParity) w[150] ^= 1;
    engine.tmccAccepted = 7;
    engine.tmccRepeat = 5;
    const auto frame = Frame(w);
    EXPECT_EQ(DecodeTmcc(frame.data()), c.result) << "system " << c.fields.system << " modulation " << c.fields.modulation;
    EXPECT_EQ(engine.tmccAccepted, c.accepted == -1 ? 7 : c.accepted);
    EXPECT_EQ(engine.tmccRepeat, 0);
    EXPECT_EQ(engine.layerParams->modulation, c.fields.modulation);
    EXPECT_EQ(engine.layerParams->codeRate, c.fields.codeRate);
    EXPECT_EQ(engine.layerParams->interleave, c.fields.interleave);
  }
  // Damage in the parameter bits themselves is repaired before parsing.
  Word w = WordWith({0, 1, 2, 1, 2});
  w[0] ^= 1;
  w[9] ^= 1;
  w[16] ^= 1;
  const auto frame = Frame(w);
  EXPECT_EQ(DecodeTmcc(frame.data()), 4);
  EXPECT_EQ(engine.layerParams->modulation, 2);
  EXPECT_EQ(engine.layerParams->codeRate, 1);
  EXPECT_EQ(engine.layerParams->interleave, 2);
}

}  // namespace
}  // namespace zfn
