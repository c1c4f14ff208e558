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

std::vector<uint8_t> NullPacket() {
  std::vector<uint8_t> p(188, 0xFF);
  p[0] = 0x47;
  p[1] = 0x1F;
  p[2] = 0xFF;
  p[3] = 0x10;
  return p;
}

TEST(TransmitterCoding, DispersalSequenceAndNullPacketVectors) {
  DispersalPrbs prbs;
  const uint8_t expected[] = {0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8, 0xA3, 0x93, 0xC9, 0x68, 0xB7, 0x73, 0xB3, 0x29, 0xAA, 0xF5};
  for (uint8_t e : expected) EXPECT_EQ(prbs.NextByte(), e);

  // RS parity of the null packet, and its syndromes at 2^0 .. 2^15 by Horner's rule.
  RsEncoder rs;
  std::vector<uint8_t> unit(204);
  const auto null = NullPacket();
  rs.Encode(null.data(), unit.data());
  const uint8_t parity[] = {0x43, 0xBF, 0x42, 0xC1, 0xE1, 0x18, 0xF8, 0x7F, 0x23, 0x90, 0xBA, 0x66, 0x7D, 0xA8, 0x62, 0x6E};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(unit[188 + i], parity[i]) << i;
  auto mul = [](unsigned a, unsigned b) {  // shift-and-add in GF(256), 0x11D
    unsigned r = 0;
    while (b) {
      if (b & 1) r ^= a;
      a <<= 1;
      if (a & 0x100) a ^= 0x11D;
      b >>= 1;
    }
    return r;
  };
  unsigned root = 1;
  for (int i = 0; i < 16; ++i) {
    unsigned s = 0;
    for (uint8_t byte : unit) s = mul(s, root) ^ byte;
    EXPECT_EQ(s, 0u) << "syndrome " << i;
    root = mul(root, 2);
  }

  // The null packet as the first packet of a frame, after dispersal.
  DispersalPrbs frame;
  std::vector<uint8_t> out(unit);
  for (int i = 1; i < 204; ++i) out[i] ^= frame.NextByte();
  const uint8_t head[] = {0x47, 0x1C, 0x09, 0x18, 0xCB, 0xCF, 0x47, 0x5C, 0x6C, 0x36, 0x97, 0x48, 0x8C, 0x4C, 0xD6, 0x55};
  const uint8_t tail[] = {0xDE, 0x20, 0x0F, 0x82, 0x4E, 0x91, 0x19, 0x4B, 0x65, 0x29, 0x2D, 0xF3, 0x0C, 0xD7, 0x45, 0x6C};
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(out[i], head[i]) << i;
    EXPECT_EQ(out[188 + i], tail[i]) << i;
  }
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
  // One OFDM symbol's worth of bytes (T per symbol) fills exactly the data carriers with whole
  // puncturing periods, in every mode, modulation and rate.
  for (int mode = 1; mode <= 3; ++mode)
    for (int mod = 1; mod <= 3; ++mod)
      for (int rate = 0; rate < 5; ++rate) {
        const int q = BitsPerCarrier(mod);
        const int t = 12 * q * RateNumerator(rate) * (1 << (mode - 1)) / RateDenominator(rate);
        ConvolutionalEncoder enc(rate);
        std::vector<uint8_t> in(static_cast<size_t>(t)), out(static_cast<size_t>(t) * 16);
        EXPECT_EQ(enc.EncodeBytes(in, out.data()), NumbersOfMode(mode).nd * q);
        EXPECT_EQ(enc.Phase(), 0);
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
  const char* hex = "3d258b4b3fff258b4b3ffffffcafa0673eb9cb6ea3e296";
  for (int i = 0; i < 184; ++i) {
    const char ch = hex[i / 4];
    const int nibble = ch <= '9' ? ch - '0' : ch - 'a' + 10;
    EXPECT_EQ(even[20 + i], (nibble >> (3 - i % 4)) & 1) << "bit B" << 20 + i;
  }
  const auto odd = BuildTmccWord(c, true);
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
  // The sequence at the first carrier of segment 1 (the receiver starts its table there), and of
  // segments 0 and 2.
  const char* seg1[3] = {"0101111010000100", "0001101000001110", "0110110011111011"};
  const char* seg0[3] = {"0100001001101001", "1001000111011010", "1101000010010010"};
  const char* seg2[3] = {"0010000100010100", "0010010000010110", "1011110011101001"};
  for (int mode = 1; mode <= 3; ++mode) {
    const auto w = PilotSequence(mode);
    const int nc = NumbersOfMode(mode).nc;
    for (int i = 0; i < 16; ++i) {
      EXPECT_EQ(w[static_cast<size_t>(5 * nc + i)], seg1[mode - 1][i] - '0') << mode;
      EXPECT_EQ(w[static_cast<size_t>(6 * nc + i)], seg0[mode - 1][i] - '0') << mode;
      EXPECT_EQ(w[static_cast<size_t>(7 * nc + i)], seg2[mode - 1][i] - '0') << mode;
    }
    EXPECT_EQ(w.back(), mode == 1 ? 1 : 0);  // upper band edge
  }
  // Segment 0's carriers that hold neither data nor scattered pilots, as the receiver lists them.
  const std::vector<int> fixed[3] = {{35, 49, 79}, {23, 98, 101, 118, 136, 178},
                                     {7, 89, 101, 131, 206, 209, 226, 244, 286, 349, 377, 407}};
  const std::vector<int> tmcc[3] = {{49}, {23, 178}, {101, 131, 286, 349}};
  for (int mode = 1; mode <= 3; ++mode) {
    const auto s = CarriersOfSegment(mode, 0);
    std::vector<int> all(s.ac);
    all.insert(all.end(), s.tmcc.begin(), s.tmcc.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, fixed[mode - 1]);
    EXPECT_EQ(s.tmcc, tmcc[mode - 1]);
  }
  const auto s3 = CarriersOfSegment(3, 3);
  EXPECT_EQ(s3.ac, (std::vector<int>{11, 101, 128, 148, 290, 316, 359, 403}));
  EXPECT_EQ(s3.tmcc, (std::vector<int>{86, 152, 263, 373}));
  const auto s4 = CarriersOfSegment(3, 4);
  EXPECT_EQ(s4.ac, (std::vector<int>{35, 79, 184, 205, 220, 305, 364, 413}));
  EXPECT_EQ(s4.tmcc, (std::vector<int>{49, 139, 299, 385}));
  const auto m2s1 = CarriersOfSegment(2, 1);
  EXPECT_EQ(m2s1.ac, (std::vector<int>{8, 64, 115, 197}));
  EXPECT_EQ(m2s1.tmcc, (std::vector<int>{85, 209}));
  // No AC or TMCC carrier on a multiple of 3, so the data count is the same in every symbol.
  for (int mode = 1; mode <= 3; ++mode) {
    for (int seg = 0; seg < 13; ++seg) {
      const auto s = CarriersOfSegment(mode, seg);
      for (int j : s.ac) EXPECT_NE(j % 3, 0);
      for (int j : s.tmcc) EXPECT_NE(j % 3, 0);
    }
  }
  // Randomisation tables are permutations; Mode 1 starts 80, 93, 63 and fixes slot 15 only.
  for (int mode = 1; mode <= 3; ++mode) {
    const auto t = RandomisationTable(mode);
    std::vector<int> v(t.begin(), t.end());
    std::sort(v.begin(), v.end());
    std::vector<int> id(v.size());
    std::iota(id.begin(), id.end(), 0);
    EXPECT_EQ(v, id);
  }
  const auto t1 = RandomisationTable(1);
  EXPECT_EQ(t1[0], 80);
  EXPECT_EQ(t1[2], 63);
  int fixedPoints = 0;
  for (size_t i = 0; i < t1.size(); ++i) fixedPoints += static_cast<size_t>(t1[i]) == i ? 1 : 0;
  EXPECT_EQ(fixedPoints, 1);
  EXPECT_EQ(t1[15], 15);
}

TEST(TransmitterInterleavers, EachFollowedByItsInverseGivesTheInputBack) {
  Rng rng(11);
  // Bytes: de-interleaver branch b holds 17*(11-b) bytes; together 11 units of 204 bytes.
  {
    ByteInterleaver il;
    std::vector<std::deque<uint8_t>> de(12);
    for (int b = 0; b < 12; ++b) de[static_cast<size_t>(b)].assign(static_cast<size_t>(17 * (11 - b)), 0);
    std::vector<uint8_t> in(204 * 30), out;
    for (auto& v : in) v = static_cast<uint8_t>(rng.Next());
    for (size_t i = 0; i < in.size(); ++i) {
      auto& line = de[i % 12];
      line.push_back(il.Push(in[i]));
      out.push_back(line.front());
      line.pop_front();
    }
    const size_t delay = 11 * 204;
    for (size_t i = delay; i < in.size(); ++i) ASSERT_EQ(out[i], in[i - delay]) << i;
  }
  // Bits: the receiver delays position b by 120 - d_b carrier symbols; the total is 2*D.
  for (int q : {2, 4, 6})
    for (int d : {96, 384}) {
      BitInterleaver il(q, d);
      std::vector<std::deque<uint8_t>> de(static_cast<size_t>(q));
      for (int b = 0; b < q; ++b) de[static_cast<size_t>(b)].assign(static_cast<size_t>(120 - 120 * b / (q - 1)), 0);
      const int symbols = 8;
      std::vector<uint8_t> in(static_cast<size_t>(symbols * d * q)), mid(in.size()), out(in.size());
      for (auto& v : in) v = static_cast<uint8_t>(rng.Next() & 1);
      for (int s = 0; s < symbols; ++s) il.Process(&in[static_cast<size_t>(s * d * q)], &mid[static_cast<size_t>(s * d * q)], d);
      for (size_t c = 0; c < in.size() / static_cast<size_t>(q); ++c)
        for (int b = 0; b < q; ++b) {
          auto& line = de[static_cast<size_t>(b)];
          line.push_back(mid[c * static_cast<size_t>(q) + static_cast<size_t>(b)]);
          out[c * static_cast<size_t>(q) + static_cast<size_t>(b)] = line.front();
          line.pop_front();
        }
      const size_t delay = static_cast<size_t>(2 * d * q);
      for (size_t i = delay; i < in.size(); ++i) ASSERT_EQ(out[i], in[i - delay]) << q << " " << d;
    }
  // Time: the receiver delays carrier i by I*(95 - (5i mod 96)); the total is a whole number of
  // frames.
  for (int mode = 1; mode <= 3; ++mode) {
    for (int idx = 0; idx < 4; ++idx) {
      const int nd = NumbersOfMode(mode).nd;
      const int len = InterleaveLength(idx, mode);
      const int adj = InterleaveAdjustment(len);
      EXPECT_EQ((95 * len + adj) % 204, 0);
      TimeInterleaver il(nd, len, adj);
      const int total = 95 * len + adj;
      const int symbols = total + 5;
      std::vector<std::deque<std::complex<float>>> de(static_cast<size_t>(nd));
      for (int i = 0; i < nd; ++i) de[static_cast<size_t>(i)].assign(static_cast<size_t>(len * (95 - (5 * i) % 96)), {});
      std::vector<std::vector<std::complex<float>>> in(static_cast<size_t>(symbols), std::vector<std::complex<float>>(static_cast<size_t>(nd)));
      std::vector<std::complex<float>> mid(static_cast<size_t>(nd));
      for (int s = 0; s < symbols; ++s) {
        for (auto& v : in[static_cast<size_t>(s)]) v = {static_cast<float>(rng.Uniform()), static_cast<float>(s)};
        il.Process(in[static_cast<size_t>(s)].data(), mid.data());
        for (int i = 0; i < nd; ++i) {
          auto& line = de[static_cast<size_t>(i)];
          line.push_back(mid[static_cast<size_t>(i)]);
          const auto v = line.front();
          line.pop_front();
          if (s >= total) {
            ASSERT_EQ(v, in[static_cast<size_t>(s - total)][static_cast<size_t>(i)]) << mode << " " << idx;
          }
        }
      }
    }
  }
  EXPECT_EQ(InterleaveAdjustment(1), 109);
  EXPECT_EQ(InterleaveAdjustment(4), 28);
  EXPECT_EQ(InterleaveAdjustment(16), 112);
}

TEST(TransmitterMapping, UnitMeanPowerAndGrayLevels) {
  for (int q : {2, 4, 6}) {
    Mapper m(q);
    double power = 0;
    for (unsigned i = 0; i < (1u << q); ++i) power += std::norm(m.MapIndex(i));
    EXPECT_NEAR(power / (1u << q), 1.0, 1e-6) << q;
    // Neighbouring levels on an axis differ in exactly one bit.
    for (unsigned a = 0; a < (1u << q); ++a)
      for (unsigned b = 0; b < (1u << q); ++b) {
        const auto d = m.MapIndex(a) - m.MapIndex(b);
        const double step = q == 2 ? 2 / std::sqrt(2.0) : q == 4 ? 2 / std::sqrt(10.0) : 2 / std::sqrt(42.0);
        if (std::abs(std::abs(d) - step) < 1e-5) {
          EXPECT_EQ(__builtin_popcount(a ^ b), 1);
        }
      }
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
