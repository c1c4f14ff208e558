// Reed-Solomon RS(204,188) against our transmitter's encoder: the light parity check, correction
// of up to 8 byte errors in data and parity, and every failure code of the full decoder on constructed
// patterns.
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

  Packet Codeword() {
    Packet p;
    for (int i = 0; i < 188; ++i) p[i] = static_cast<uint8_t>(random.Next());
    p[0] = 0x47;
    test::RsEncode(p.data());
    return p;
  }
  // Errors at n distinct random positions in [first, last].
  void Spoil(Packet& p, int n, int first, int last) {
    std::set<int> chosen;
    while (static_cast<int>(chosen.size()) < n) chosen.insert(first + static_cast<int>(random.Below(static_cast<uint32_t>(last - first + 1))));
    for (int at : chosen) p[at] ^= static_cast<uint8_t>(1 + random.Below(255));
  }

  Random random{2};
};

TEST_F(ReedSolomon, TablesNullPacketAndParityCheck) {
  // Null packet 47 1F FF 10, 184 bytes FF: its parity as the standard gives it.
  Packet p{};
  p[0] = 0x47, p[1] = 0x1F, p[2] = 0xFF, p[3] = 0x10;
  std::fill(p.begin() + 4, p.begin() + 188, 0xFF);
  test::RsEncode(p.data());
  const uint8_t parity[16] = {0x43, 0xBF, 0x42, 0xC1, 0xE1, 0x18, 0xF8, 0x7F, 0x23, 0x90, 0xBA, 0x66, 0x7D, 0xA8, 0x62, 0x6E};
  EXPECT_EQ(0, std::memcmp(parity, p.data() + 188, 16));
  EXPECT_EQ(RS_OK, CheckRsParity(p.data()));
  EXPECT_EQ(RS_OK, DecodeRs(p.data()));
  // The light check finds an error but never corrects it.
  p[100] ^= 0x10;
  const Packet before = p;
  EXPECT_EQ(RS_PARITY_WRONG, CheckRsParity(p.data()));
  EXPECT_EQ(before, p);
  // Division by zero gives zero.
  EXPECT_EQ(0, rsTablesRef->divTable[5 * 256 + 0]);
}

// 0 to 8 data errors are corrected, always including the first and last data byte in some trials;
// parity errors are found but the parity bytes are left as they came.
TEST_F(ReedSolomon, CorrectsUpToEightErrors) {
  for (int errors = 0; errors <= 8; ++errors) {
    for (int trial = 0; trial < 150; ++trial) {
      const Packet clean = Codeword();
      Packet p = clean;
      if (errors == 1 && trial < 2) {
        p[trial == 0 ? 0 : 187] ^= 0x5A;
      } else {
        Spoil(p, errors, 0, 187);
      }
      ASSERT_EQ(errors == 0 ? RS_OK : RS_CORRECTED, DecodeRs(p.data())) << errors << " errors, trial " << trial;
      ASSERT_EQ(clean, p) << errors << " errors, trial " << trial;
    }
    if (errors == 0) continue;
    Packet p = Codeword();
    Spoil(p, errors, 188, 203);
    const Packet received = p;
    ASSERT_EQ(RS_CORRECTED, DecodeRs(p.data())) << errors << " parity errors";
    EXPECT_EQ(received, p) << errors << " parity errors";
  }
  // Mixed: data errors repaired, the parity error left.
  const Packet clean = Codeword();
  Packet p = clean;
  p[5] ^= 1, p[77] ^= 0xFF, p[190] ^= 3;
  ASSERT_EQ(RS_CORRECTED, DecodeRs(p.data()));
  EXPECT_EQ(0, std::memcmp(clean.data(), p.data(), 188));
  EXPECT_EQ(clean[190] ^ 3, p[190]);
}

// Nine or more errors: the packet is left exactly as received, with every failure code. Random
// patterns give too few roots or a root in the shortened part; two constructed ones give the others:
// - parity pattern (x + 2^0)...(x + 2^14): syndromes 0..14 zero, 15 not, so the locator length
//   reaches 16 with a locator of degree 0;
// - one data error (a locator of degree 1, discrepancies 0 from then on while the auxiliary
//   polynomial climbs to x^10) plus parity pattern (x + 2^0)...(x + 2^10): a discrepancy at syndrome
//   11 meets the auxiliary polynomial at its last coefficient.
TEST_F(ReedSolomon, TooManyErrorsFailUnchangedWithEachCode) {
  std::set<int32_t> seen;
  for (int trial = 0; trial < 3000; ++trial) {
    Packet p = Codeword();
    Spoil(p, 9 + static_cast<int>(random.Below(40)), 0, 203);
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

  const struct {
    int lastRoot, dataError;
    int32_t expected;
  } constructed[] = {{14, -1, RS_DEGREE_MISMATCH}, {10, 60, RS_DISCREPANCY_LEFT}};
  for (const auto& c : constructed) {
    const std::vector<uint8_t> e = test::PolyFromRoots(0, c.lastRoot);
    Packet p = Codeword();
    if (c.dataError >= 0) p[c.dataError] ^= 0x33;
    for (size_t i = 0; i < e.size(); ++i) p[203 - i] ^= e[i];
    const Packet received = p;
    EXPECT_EQ(c.expected, DecodeRs(p.data()));
    EXPECT_EQ(received, p);
  }
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
