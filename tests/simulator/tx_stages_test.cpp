// Stage facts of the transmitter: known sequences and test vectors of ISDB-T, codes checked by
// independent arithmetic, and every interleaver followed by its inverse written here.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <cstring>
#include <deque>
#include <numeric>
#include <vector>

#include "simulator/tx_random.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {
namespace {

TEST(TransmitterCoding, DispersalSequenceAndNullPacketParity) {
  DispersalPrbs prbs;
  const uint8_t expected[] = {0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8, 0xA3, 0x93, 0xC9, 0x68, 0xB7, 0x73, 0xB3, 0x29, 0xAA, 0xF5};
  for (uint8_t e : expected) EXPECT_EQ(prbs.NextByte(), e);
  // RS(204,188) parity of the null packet.
  std::vector<uint8_t> null(188, 0xFF), unit(204);
  null[0] = 0x47;
  null[1] = 0x1F;
  null[3] = 0x10;
  RsEncoder().Encode(null.data(), unit.data());
  const uint8_t parity[] = {0x43, 0xBF, 0x42, 0xC1, 0xE1, 0x18, 0xF8, 0x7F, 0x23, 0x90, 0xBA, 0x66, 0x7D, 0xA8, 0x62, 0x6E};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(unit[188 + i], parity[i]) << i;
}

TEST(TransmitterCoding, ConvolutionalCodeAndPuncturing) {
  // Reference: the mother code written from the generator polynomials, then the kept bits.
  const char* keepX[5] = {"1", "10", "101", "10101", "1000101"};
  const char* keepY[5] = {"1", "11", "110", "11010", "1111010"};
  Rng rng(7);
  std::vector<uint8_t> bytes(97);
  for (auto& b : bytes) b = static_cast<uint8_t>(rng.Next());
  for (int rate = 0; rate < 5; ++rate) {
    ConvolutionalEncoder enc(rate);
    std::vector<uint8_t> got(bytes.size() * 16);
    const int n = enc.EncodeBytes(bytes, got.data());
    std::vector<int> u;  // input bits, u[t]
    for (uint8_t b : bytes)
      for (int i = 7; i >= 0; --i) u.push_back((b >> i) & 1);
    auto at = [&](int t) { return t < 0 ? 0 : u[static_cast<size_t>(t)]; };
    std::vector<uint8_t> want;
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

// Independent polynomial long division over GF(2), highest degree first.
bool DivisibleByTmccGenerator(const std::vector<int>& bits) {
  std::vector<int> g(83, 0);
  for (int e : {82, 77, 76, 71, 67, 66, 56, 52, 48, 40, 36, 34, 24, 22, 18, 10, 4, 0}) g[82 - e] = 1;
  std::vector<int> r(bits);
  for (size_t i = 0; i + 83 <= r.size(); ++i)
    if (r[i])
      for (int j = 0; j < 83; ++j) r[i + j] ^= g[j];
  return std::all_of(r.end() - 82, r.end(), [](int v) { return v == 0; });
}

TEST(TransmitterTmcc, WordLayoutParityAndSyncWords) {
  // The usual Japanese Mode 3 word: layer A QPSK 2/3 I code 3, layer B 64QAM 3/4 I code 2.
  TmccContent c;
  c.layerA = {1, 1, 3, 1};
  c.layerB = {3, 2, 2, 12};
  const auto even = BuildTmccWord(c, false);
  const auto odd = BuildTmccWord(c, true);
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
  // Zero syndrome for a spread of contents, including a refused broadcast.
  for (int sys = 0; sys < 4; ++sys)
    for (int pr = 0; pr < 2; ++pr)
      for (int mod = 1; mod <= 3; ++mod) {
        TmccContent t;
        t.systemId = sys;
        t.partialReception = pr == 1;
        t.layerA = {mod, (sys + mod) % 5, (mod + pr) % 4, 1};
        const auto w = BuildTmccWord(t, (sys & 1) != 0);
        EXPECT_EQ(w[20], sys >> 1);
        EXPECT_EQ(w[21], sys & 1);
        EXPECT_EQ(w[27], pr);
        std::vector<int> cw(w.begin() + 20, w.end());
        EXPECT_TRUE(DivisibleByTmccGenerator(cw));
        cw[50] ^= 1;
        EXPECT_FALSE(DivisibleByTmccGenerator(cw));
      }
}

TEST(TransmitterFrame, PilotSequenceAndCarrierTables) {
  const char* band40 = "1111111111100000000011000000011110000011";
  const auto w1 = PilotSequence(1);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(w1[static_cast<size_t>(i)], band40[i] - '0');
  // The sequence at the first carrier of segments 1, 0 and 2 (the receiver's table starts at
  // segment 1), and segment 0's AC and TMCC carriers.
  const char* first16[3][3] = {{"0101111010000100", "0100001001101001", "0010000100010100"},
                               {"0001101000001110", "1001000111011010", "0010010000010110"},
                               {"0110110011111011", "1101000010010010", "1011110011101001"}};
  const std::vector<int> fixed[3] = {{35, 49, 79}, {23, 98, 101, 118, 136, 178},
                                     {7, 89, 101, 131, 206, 209, 226, 244, 286, 349, 377, 407}};
  const std::vector<int> tmcc[3] = {{49}, {23, 178}, {101, 131, 286, 349}};
  for (int mode = 1; mode <= 3; ++mode) {
    const auto w = PilotSequence(mode);
    const int nc = NumbersOfMode(mode).nc;
    for (int k = 0; k < 3; ++k)
      for (int i = 0; i < 16; ++i) EXPECT_EQ(w[static_cast<size_t>((5 + k) * nc + i)], first16[mode - 1][k][i] - '0') << mode;
    EXPECT_EQ(w.back(), mode == 1 ? 1 : 0);  // upper band edge
    const auto s = CarriersOfSegment(mode, 0);
    std::vector<int> all(s.ac);
    all.insert(all.end(), s.tmcc.begin(), s.tmcc.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, fixed[mode - 1]);
    EXPECT_EQ(s.tmcc, tmcc[mode - 1]);
    // The randomisation tables are permutations.
    const auto t = RandomisationTable(mode);
    std::vector<int> v(t.begin(), t.end()), id(t.size());
    std::sort(v.begin(), v.end());
    std::iota(id.begin(), id.end(), 0);
    EXPECT_EQ(v, id);
  }
  const auto t1 = RandomisationTable(1);  // Mode 1 starts 80, 93, 63 and fixes slot 15 only
  EXPECT_EQ(t1[0], 80);
  EXPECT_EQ(t1[1], 93);
  EXPECT_EQ(t1[2], 63);
  EXPECT_EQ(t1[15], 15);
  int fixedPoints = 0;
  for (size_t i = 0; i < t1.size(); ++i) fixedPoints += static_cast<size_t>(t1[i]) == i ? 1 : 0;
  EXPECT_EQ(fixedPoints, 1);
}

// The receiver's de-interleaving delay line of `length` entries: in one, out the oldest.
template <class T>
struct DelayLine {
  std::deque<T> line;
  explicit DelayLine(int length) : line(static_cast<size_t>(length), T{}) {}
  T operator()(T v) {
    line.push_back(v);
    const T out = line.front();
    line.pop_front();
    return out;
  }
};

TEST(TransmitterInterleavers, EachFollowedByItsInverseGivesTheInputBack) {
  Rng rng(11);
  // Bytes: de-interleaver branch b holds 17*(11-b) bytes; together 11 units of 204 bytes.
  ByteInterleaver bytes;
  std::vector<DelayLine<uint8_t>> branches;
  for (int b = 0; b < 12; ++b) branches.emplace_back(17 * (11 - b));
  std::vector<uint8_t> in(204 * 30);
  for (auto& v : in) v = static_cast<uint8_t>(rng.Next());
  for (size_t i = 0; i < in.size(); ++i) {
    const uint8_t out = branches[i % 12](bytes.Push(in[i]));
    if (i >= 11 * 204) {
      ASSERT_EQ(out, in[i - 11 * 204]) << i;
    }
  }
  // Bits: the receiver delays position b by 120 - d_b carrier symbols; the total is 2*D.
  for (int q : {2, 4, 6})
    for (int d : {96, 384}) {
      BitInterleaver il(q, d);
      std::vector<DelayLine<uint8_t>> de;
      for (int b = 0; b < q; ++b) de.emplace_back(120 - 120 * b / (q - 1));
      const size_t n = static_cast<size_t>(8 * d * q), delay = static_cast<size_t>(2 * d * q);
      std::vector<uint8_t> bits(n), mid(n);
      for (auto& v : bits) v = static_cast<uint8_t>(rng.Next() & 1);
      for (size_t s = 0; s < n; s += static_cast<size_t>(d * q)) il.Process(&bits[s], &mid[s], d);
      for (size_t i = 0; i < n; ++i) {
        const uint8_t out = de[i % static_cast<size_t>(q)](mid[i]);
        if (i >= delay) {
          ASSERT_EQ(out, bits[i - delay]) << q << " " << d;
        }
      }
    }
  // Time: the receiver delays carrier i by I*(95 - (5i mod 96)); the total is a whole number of
  // frames.
  EXPECT_EQ(InterleaveAdjustment(1), 109);
  EXPECT_EQ(InterleaveAdjustment(4), 28);
  EXPECT_EQ(InterleaveAdjustment(16), 112);
  for (int mode = 1; mode <= 3; ++mode)
    for (int idx = 0; idx < 4; ++idx) {
      const int nd = NumbersOfMode(mode).nd;
      const int len = InterleaveLength(idx, mode);
      const int total = 95 * len + InterleaveAdjustment(len);
      EXPECT_EQ(total % 204, 0);
      TimeInterleaver il(nd, len, InterleaveAdjustment(len));
      std::vector<DelayLine<std::complex<float>>> de;
      for (int i = 0; i < nd; ++i) de.emplace_back(len * (95 - (5 * i) % 96));
      std::deque<std::vector<std::complex<float>>> sent;
      std::vector<std::complex<float>> symbol(static_cast<size_t>(nd)), mid(symbol.size());
      for (int s = 0; s < total + 5; ++s) {
        for (auto& v : symbol) v = {static_cast<float>(rng.Uniform()), static_cast<float>(s)};
        sent.push_back(symbol);
        il.Process(symbol.data(), mid.data());
        for (int i = 0; i < nd; ++i) {
          const auto v = de[static_cast<size_t>(i)](mid[static_cast<size_t>(i)]);
          if (s >= total) {
            ASSERT_EQ(v, sent.front()[static_cast<size_t>(i)]) << mode << " " << idx;
          }
        }
        if (s >= total) sent.pop_front();
      }
    }
}

TEST(TransmitterMapping, UnitMeanPowerAndLevels) {
  for (int q : {2, 4, 6}) {
    Mapper m(q);
    double power = 0;
    for (unsigned i = 0; i < (1u << q); ++i) power += std::norm(m.MapIndex(i));
    EXPECT_NEAR(power / (1u << q), 1.0, 1e-6) << q;
  }
  // First bit gives the sign of I, second the sign of Q; 64QAM 000 is +7.
  Mapper m64(6);
  const uint8_t zeros[6] = {0, 0, 0, 0, 0, 0};
  EXPECT_NEAR(m64.Map(zeros).real(), 7 / std::sqrt(42.0), 1e-6);
  const uint8_t b1[6] = {1, 0, 1, 0, 0, 0};  // I bits 110 -> -1
  EXPECT_NEAR(m64.Map(b1).real(), -1 / std::sqrt(42.0), 1e-6);
  Mapper m16(4);
  const uint8_t c1[4] = {0, 1, 1, 0};  // I bits 01 -> +1, Q bits 10 -> -3
  EXPECT_NEAR(m16.Map(c1).real(), 1 / std::sqrt(10.0), 1e-6);
  EXPECT_NEAR(m16.Map(c1).imag(), -3 / std::sqrt(10.0), 1e-6);
}

}  // namespace
}  // namespace zfn::sim
