// Reed-Solomon RS(204,188): tables, the light parity check, correction of up to 8 byte errors in data
// and parity, and every failure code of the full decoder on constructed patterns.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <vector>

#include "decoder/reed_solomon.h"
#include "shell/stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

using Packet = std::array<uint8_t, 204>;
using test::Random;

class ReedSolomon : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(1, BuildRsTables()); }
  static void TearDownTestSuite() { FreeRsTables(); }

  static Packet RandomCodeword(Random& random) {
    Packet p;
    for (int i = 0; i < 188; ++i) p[i] = static_cast<uint8_t>(random.Next());
    p[0] = 0x47;
    test::RsEncode(p.data());
    return p;
  }

  // Distinct random positions in [first, last].
  static std::vector<int> Positions(Random& random, int n, int first, int last) {
    std::set<int> chosen;
    while (static_cast<int>(chosen.size()) < n) chosen.insert(first + static_cast<int>(random.Below(static_cast<uint32_t>(last - first + 1))));
    return {chosen.begin(), chosen.end()};
  }
};

TEST_F(ReedSolomon, TablesAndEncoderAgreeWithTheStandard) {
  // The generator from its roots equals the coefficients the decoder carries.
  const std::vector<uint8_t> g = test::PolyFromRoots(0, 15);
  ASSERT_EQ(17u, g.size());
  for (int j = 0; j < 16; ++j) {
    EXPECT_EQ(RS_GENERATOR[j], g[j]) << j;
  }
  EXPECT_EQ(1, g[16]);
  // Null packet: 47 1F FF 10 and 184 bytes FF.
  Packet p{};
  p[0] = 0x47, p[1] = 0x1F, p[2] = 0xFF, p[3] = 0x10;
  std::fill(p.begin() + 4, p.begin() + 188, 0xFF);
  test::RsEncode(p.data());
  const uint8_t parity[16] = {0x43, 0xBF, 0x42, 0xC1, 0xE1, 0x18, 0xF8, 0x7F, 0x23, 0x90, 0xBA, 0x66, 0x7D, 0xA8, 0x62, 0x6E};
  EXPECT_EQ(0, std::memcmp(parity, p.data() + 188, 16));
  EXPECT_EQ(RS_OK, CheckRsParity(p.data()));
  EXPECT_EQ(RS_OK, DecodeRs(p.data()));
  // Multiplication and division tables against bitwise field arithmetic.
  for (int a = 0; a < 256; a += 7) {
    for (int b = 1; b < 256; b += 5) {
      ASSERT_EQ(test::GfMul(static_cast<uint8_t>(a), static_cast<uint8_t>(b)), rsTablesRef->mulTable[a * 256 + b]);
      const uint8_t q = rsTablesRef->divTable[a * 256 + b];
      ASSERT_EQ(a, test::GfMul(q, static_cast<uint8_t>(b)));
    }
  }
  EXPECT_EQ(0, rsTablesRef->divTable[5 * 256 + 0]);
}

TEST_F(ReedSolomon, ParityCheckFindsButNeverCorrects) {
  Random random(1);
  Packet p = RandomCodeword(random);
  EXPECT_EQ(RS_OK, CheckRsParity(p.data()));
  p[100] ^= 0x10;
  const Packet before = p;
  EXPECT_EQ(RS_PARITY_WRONG, CheckRsParity(p.data()));
  EXPECT_EQ(before, p);
}

TEST_F(ReedSolomon, CorrectsUpToEightDataErrors) {
  Random random(2);
  for (int errors = 0; errors <= 8; ++errors) {
    for (int trial = 0; trial < 150; ++trial) {
      const Packet clean = RandomCodeword(random);
      Packet p = clean;
      for (int at : Positions(random, errors, 0, 187)) p[at] ^= static_cast<uint8_t>(1 + random.Below(255));
      const int32_t result = DecodeRs(p.data());
      ASSERT_EQ(errors == 0 ? RS_OK : RS_CORRECTED, result) << errors << " errors, trial " << trial;
      ASSERT_EQ(clean, p) << errors << " errors, trial " << trial;
    }
  }
}

TEST_F(ReedSolomon, ErrorsInParityAreFoundButNotRepaired) {
  Random random(3);
  for (int errors = 1; errors <= 8; ++errors) {
    const Packet clean = RandomCodeword(random);
    Packet p = clean;
    for (int at : Positions(random, errors, 188, 203)) p[at] ^= static_cast<uint8_t>(1 + random.Below(255));
    const Packet received = p;
    ASSERT_EQ(RS_CORRECTED, DecodeRs(p.data())) << errors;
    EXPECT_EQ(received, p) << "parity bytes are left as they came";
  }
  // Mixed: data errors repaired, the parity error left.
  const Packet clean = RandomCodeword(random);
  Packet p = clean;
  p[5] ^= 1, p[77] ^= 0xFF, p[190] ^= 3;
  ASSERT_EQ(RS_CORRECTED, DecodeRs(p.data()));
  EXPECT_EQ(0, std::memcmp(clean.data(), p.data(), 188));
  EXPECT_EQ(clean[190] ^ 3, p[190]);
}

TEST_F(ReedSolomon, FirstAndLastDataByte) {
  Random random(4);
  for (int at : {0, 187}) {
    const Packet clean = RandomCodeword(random);
    Packet p = clean;
    p[at] ^= 0x5A;
    ASSERT_EQ(RS_CORRECTED, DecodeRs(p.data())) << at;
    EXPECT_EQ(clean, p) << at;
  }
}

// Nine or more errors: the packet is left exactly as received, with -5 (too few roots) or -6 (a root in
// the shortened part) for random patterns.
TEST_F(ReedSolomon, TooManyErrorsFailUnchanged) {
  Random random(5);
  std::set<int32_t> seen;
  for (int trial = 0; trial < 3000; ++trial) {
    const int errors = 9 + static_cast<int>(random.Below(40));
    Packet p = RandomCodeword(random);
    for (int at : Positions(random, errors, 0, 203)) p[at] ^= static_cast<uint8_t>(1 + random.Below(255));
    const Packet received = p;
    const int32_t result = DecodeRs(p.data());
    if (result == RS_CORRECTED) continue;  // a pattern close enough to another codeword
    ASSERT_TRUE(result == RS_ROOT_COUNT || result == RS_ROOT_SHORTENED || result == RS_DEGREE_MISMATCH ||
                result == RS_DISCREPANCY_LEFT)
        << result;
    ASSERT_EQ(received, p) << "trial " << trial;
    seen.insert(result);
  }
  EXPECT_TRUE(seen.count(RS_ROOT_COUNT));
  EXPECT_TRUE(seen.count(RS_ROOT_SHORTENED));
}

// Parity pattern c * (x + 2^0)...(x + 2^14): syndromes 0..14 are zero, syndrome 15 is not, so the
// locator length reaches 16 with a locator of degree 0.
TEST_F(ReedSolomon, LocatorLongerThanItsDegreeGivesMinusThree) {
  Random random(6);
  const std::vector<uint8_t> e = test::PolyFromRoots(0, 14);  // degree 15: sixteen coefficients
  Packet p = RandomCodeword(random);
  for (int i = 0; i < 16; ++i) p[203 - i] ^= e[i];
  const Packet received = p;
  EXPECT_EQ(RS_DEGREE_MISMATCH, DecodeRs(p.data()));
  EXPECT_EQ(received, p);
}

// One data error gives a locator of degree 1 and discrepancies 0 from then on, while the auxiliary
// polynomial climbs to x^10; a parity pattern (x + 2^0)...(x + 2^10) adds a discrepancy at syndrome
// 11, which meets the auxiliary polynomial at its last coefficient.
TEST_F(ReedSolomon, DiscrepancyAfterTheAuxiliaryRanOutGivesMinusTwo) {
  Random random(7);
  const std::vector<uint8_t> e = test::PolyFromRoots(0, 10);  // degree 11
  Packet p = RandomCodeword(random);
  p[60] ^= 0x33;
  for (size_t i = 0; i < e.size(); ++i) p[203 - i] ^= e[i];
  const Packet received = p;
  EXPECT_EQ(RS_DISCREPANCY_LEFT, DecodeRs(p.data()));
  EXPECT_EQ(received, p);
}

TEST(ReedSolomonTables, FreeIsSafeWithoutTablesAndDecodingWithoutTablesFails) {
  FreeRsTables();
  FreeRsTables();
  EXPECT_EQ(nullptr, rsTablesRef);
  uint8_t p[204] = {};
  EXPECT_EQ(RS_PARITY_WRONG, DecodeRs(p));
  EXPECT_EQ(RS_PARITY_WRONG, CheckRsParity(p));
}

}  // namespace
}  // namespace zfn
