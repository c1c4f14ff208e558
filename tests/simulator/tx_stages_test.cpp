// Stage facts of the transmitter that the end-to-end cases cannot pin down, because the receiver
// could share the mistake: the puncturing and generators of the convolutional code, the TMCC word
// against a worked example, and the carrier randomisation, the one table the transmitter takes
// from the receiver. The receiver's own tables (pilots, AC and TMCC carriers) are checked against
// the standard beside the receiver; these end-to-end proves the transmitter agrees with.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include "simulator/tx_random.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {
namespace {

TEST(TransmitterCoding, ConvolutionalCodeAndPuncturing) {
  // Reference: the mother code written from the generator polynomials, then the kept bits.
  const char* keepX[5] = {"1", "10", "101", "10101", "1000101"};
  const char* keepY[5] = {"1", "11", "110", "11010", "1111010"};
  Rng rng(7);
  std::vector<uint8_t> bytes(97);
  for (auto& b : bytes) b = static_cast<uint8_t>(rng.Next());
  std::vector<int> u;  // input bits, u[t]
  for (uint8_t b : bytes)
    for (int i = 7; i >= 0; --i) u.push_back((b >> i) & 1);
  auto at = [&](int t) { return t < 0 ? 0 : u[static_cast<size_t>(t)]; };
  for (int rate = 0; rate < 5; ++rate) {
    std::vector<uint8_t> got(bytes.size() * 16), want;
    const int n = ConvolutionalEncoder(rate).EncodeBytes(bytes, got.data());
    const int period = static_cast<int>(std::strlen(keepX[rate]));
    for (int t = 0; t < static_cast<int>(u.size()); ++t) {
      const int x = at(t) ^ at(t - 1) ^ at(t - 2) ^ at(t - 3) ^ at(t - 6);  // 171 octal
      const int y = at(t) ^ at(t - 2) ^ at(t - 3) ^ at(t - 5) ^ at(t - 6);  // 133 octal
      if (keepX[rate][t % period] == '1') want.push_back(static_cast<uint8_t>(x));
      if (keepY[rate][t % period] == '1') want.push_back(static_cast<uint8_t>(y));
    }
    ASSERT_EQ(n, static_cast<int>(want.size())) << rate;
    EXPECT_TRUE(std::equal(want.begin(), want.end(), got.begin())) << rate;
  }
}

// The usual Mode 3 word (layer A QPSK 2/3 I code 3, layer B 64QAM 3/4 I code 2): sync words of
// even and odd frames, segment type 000, B20..B203 as hex with B20 the top bit, and the system and
// partial reception bits where the standard puts them.
TEST(TransmitterTmcc, WordOfAWorkedExample) {
  TmccContent c;
  c.layerA = {1, 1, 3, 1};
  c.layerB = {3, 2, 2, 12};
  const auto even = BuildTmccWord(c, false), odd = BuildTmccWord(c, true);
  const char* hex = "3d258b4b3fff258b4b3ffffffcafa0673eb9cb6ea3e296";
  for (int i = 0; i < 184; ++i) {
    const char ch = hex[i / 4];
    EXPECT_EQ(even[20 + i], ((ch <= '9' ? ch - '0' : ch - 'a' + 10) >> (3 - i % 4)) & 1) << "bit B" << 20 + i;
  }
  const char* w0 = "0011010111101110";
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(even[1 + i], w0[i] - '0');
    EXPECT_EQ(odd[1 + i], 1 - (w0[i] - '0'));
  }
  EXPECT_EQ(even[17] | even[18] | even[19], 0);
  c.systemId = 2;
  c.partialReception = false;
  const auto other = BuildTmccWord(c, false);
  EXPECT_EQ((std::vector<int>{other[20], other[21], other[27]}), (std::vector<int>{1, 0, 0}));
}

// The randomisation tables are permutations; Mode 1's starts 80, 93, 63 and fixes slot 15 only.
TEST(TransmitterFrame, RandomisationTablesArePermutations) {
  for (int mode = 1; mode <= 3; ++mode) {
    const auto t = RandomisationTable(mode);
    ASSERT_EQ(static_cast<int>(t.size()), NumbersOfMode(mode).nd);
    std::vector<int> v(t.begin(), t.end()), id(t.size());
    std::sort(v.begin(), v.end());
    std::iota(id.begin(), id.end(), 0);
    EXPECT_EQ(v, id) << mode;
  }
  const auto t1 = RandomisationTable(1);
  EXPECT_EQ(std::vector<int>(t1.begin(), t1.begin() + 3), (std::vector<int>{80, 93, 63}));
  int fixedPoints = 0;
  for (size_t i = 0; i < t1.size(); ++i) fixedPoints += static_cast<size_t>(t1[i]) == i ? 1 : 0;
  EXPECT_EQ(fixedPoints, 1);
  EXPECT_EQ(t1[15], 15);
}

}  // namespace
}  // namespace zfn::sim
