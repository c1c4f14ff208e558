// Transmit-direction stages of one ISDB-T layer. See tx_stages.h.
#include "simulator/tx_stages.h"

#include <algorithm>
#include <cmath>

#include "simulator/tx_random.h"

namespace zfn::sim {

ModeNumbers NumbersOfMode(int mode) {
  const int r = 1 << (mode - 1);
  ModeNumbers m{};
  m.mode = mode;
  m.nc = 108 * r;
  m.nd = 96 * r;
  m.n1 = 256 * r;
  m.spacingHz = (64e6 / 63.0) / m.n1;
  return m;
}

int BitsPerCarrier(int modulationCode) {
  switch (modulationCode) {
    case 1: return 2;
    case 2: return 4;
    case 3: return 6;
    default: return 0;
  }
}

int RateNumerator(int codeRate) {
  static constexpr int kNum[5] = {1, 2, 3, 5, 7};
  return kNum[codeRate];
}
int RateDenominator(int codeRate) {
  static constexpr int kDen[5] = {2, 3, 4, 6, 8};
  return kDen[codeRate];
}

int InterleaveLength(int interleave, int mode) {
  if (interleave == 0) return 0;
  // Index 1, 2, 3 give 4, 8, 16 symbols in Mode 1, half that in Mode 2, a quarter in Mode 3.
  return (2 << interleave) >> (mode - 1);
}

int InterleaveAdjustment(int length) { return (204 - (95 * length) % 204) % 204; }

// ---------------------------------------------------------------------------------------------
RsEncoder::RsEncoder() {
  int x = 1;
  for (int i = 0; i < 255; ++i) {
    exp_[i] = static_cast<uint8_t>(x);
    exp_[i + 255] = static_cast<uint8_t>(x);
    log_[x] = i;
    x <<= 1;
    if (x & 0x100) x ^= 0x11D;
  }
  exp_[510] = exp_[0];
  exp_[511] = exp_[1];
  log_[0] = 0;
  // gen = product over i of (x + 2^i), built up one factor at a time, lowest power first.
  gen_.fill(0);
  gen_[0] = 1;
  for (int i = 0; i < 16; ++i) {
    const uint8_t root = exp_[i];
    for (int j = i + 1; j >= 1; --j) gen_[j] = static_cast<uint8_t>(gen_[j - 1] ^ Mul(gen_[j], root));
    gen_[0] = Mul(gen_[0], root);
  }
}

uint8_t RsEncoder::Mul(uint8_t a, uint8_t b) const {
  if (a == 0 || b == 0) return 0;
  return exp_[log_[a] + log_[b]];
}

void RsEncoder::Encode(const uint8_t* packet, uint8_t* unit) const {
  std::array<uint8_t, 16> p{};  // remainder, p[15] the highest power
  for (int m = 0; m < kPacketBytes; ++m) {
    const uint8_t fb = packet[m] ^ p[15];
    for (int i = 15; i >= 1; --i) p[i] = static_cast<uint8_t>(p[i - 1] ^ Mul(fb, gen_[i]));
    p[0] = Mul(fb, gen_[0]);
  }
  std::copy(packet, packet + kPacketBytes, unit);
  for (int i = 0; i < 16; ++i) unit[kPacketBytes + i] = p[15 - i];
}

// ---------------------------------------------------------------------------------------------
uint8_t DispersalPrbs::NextByte() {
  unsigned out = 0;
  for (int i = 0; i < 8; ++i) {
    const unsigned bit = ((reg_ >> 13) ^ (reg_ >> 14)) & 1u;
    reg_ = static_cast<uint16_t>(((reg_ << 1) | bit) & 0x7FFF);
    out = (out << 1) | bit;
  }
  return static_cast<uint8_t>(out);
}

// ---------------------------------------------------------------------------------------------
ByteInterleaver::ByteInterleaver() {
  int at = 0;
  for (int b = 0; b < 12; ++b) {
    start_[b] = at;
    at += 17 * b;
  }
}

uint8_t ByteInterleaver::Push(uint8_t in) {
  const int b = branch_;
  branch_ = branch_ == 11 ? 0 : branch_ + 1;
  if (b == 0) return in;
  uint8_t& cell = store_[start_[b] + pos_[b]];
  const uint8_t out = cell;
  cell = in;
  pos_[b] = pos_[b] + 1 == 17 * b ? 0 : pos_[b] + 1;
  return out;
}

void ByteInterleaver::Fill(uint8_t value) { store_.fill(value); }

// ---------------------------------------------------------------------------------------------
ConvolutionalEncoder::ConvolutionalEncoder(int codeRate) {
  // Puncturing patterns of ARIB STD-B31, as kept X and Y per input bit of one period.
  static constexpr const char* kX[5] = {"1", "10", "101", "10101", "1000101"};
  static constexpr const char* kY[5] = {"1", "11", "110", "11010", "1111010"};
  const char* x = kX[codeRate];
  const char* y = kY[codeRate];
  period_ = 0;
  for (; x[period_] != 0; ++period_) {
    keepX_[period_] = static_cast<uint8_t>(x[period_] == '1');
    keepY_[period_] = static_cast<uint8_t>(y[period_] == '1');
  }
}

int ConvolutionalEncoder::EncodeBytes(std::span<const uint8_t> bytes, uint8_t* out) {
  int n = 0;
  for (uint8_t byte : bytes) {
    for (int i = 7; i >= 0; --i) {
      const uint32_t reg = (static_cast<uint32_t>((byte >> i) & 1u) << 6) | state_;
      // 171 octal: current input and delays 1, 2, 3, 6; 133 octal: current and delays 2, 3, 5, 6.
      const uint8_t xbit = static_cast<uint8_t>(__builtin_parity(reg & 0x79u));
      const uint8_t ybit = static_cast<uint8_t>(__builtin_parity(reg & 0x5Bu));
      state_ = reg >> 1;
      if (keepX_[phase_]) out[n++] = xbit;
      if (keepY_[phase_]) out[n++] = ybit;
      phase_ = phase_ + 1 == period_ ? 0 : phase_ + 1;
    }
  }
  return n;
}

// ---------------------------------------------------------------------------------------------
BitInterleaver::BitInterleaver(int bitsPerCarrier, int carriersPerSymbol) : q_(bitsPerCarrier) {
  int at = 0;
  for (int b = 0; b < q_; ++b) {
    len_[b] = 2 * carriersPerSymbol - 120 + 120 * b / (q_ - 1);
    start_[b] = at;
    at += len_[b];
  }
  store_.assign(static_cast<size_t>(at), 0);
}

void BitInterleaver::Process(const uint8_t* in, uint8_t* out, int count) {
  for (int b = 0; b < q_; ++b) {
    uint8_t* line = store_.data() + start_[b];
    const int len = len_[b];
    int pos = pos_[b];
    for (int c = 0; c < count; ++c) {
      const uint8_t v = line[pos];
      line[pos] = in[c * q_ + b];
      out[c * q_ + b] = v;
      pos = pos + 1 == len ? 0 : pos + 1;
    }
    pos_[b] = pos;
  }
}

void BitInterleaver::FillRandom(uint64_t seed) {
  Rng rng(seed);
  for (auto& v : store_) v = static_cast<uint8_t>(rng.Next() & 1u);
}

// ---------------------------------------------------------------------------------------------
Mapper::Mapper(int bitsPerCarrier) : q_(bitsPerCarrier) {
  const int perAxis = q_ / 2;
  const float norm = q_ == 2 ? 1.0f / std::sqrt(2.0f) : q_ == 4 ? 1.0f / std::sqrt(10.0f) : 1.0f / std::sqrt(42.0f);
  // Gray levels on one axis, indexed by the axis bits with the first bit as MSB.
  static constexpr int kLevels1[2] = {1, -1};
  static constexpr int kLevels2[4] = {3, 1, -3, -1};              // 00 01 10 11
  static constexpr int kLevels3[8] = {7, 5, 1, 3, -7, -5, -1, -3};  // 000 001 010 011 100 101 110 111
  const int* levels = perAxis == 1 ? kLevels1 : perAxis == 2 ? kLevels2 : kLevels3;
  table_.resize(static_cast<size_t>(1) << q_);
  for (unsigned idx = 0; idx < table_.size(); ++idx) {
    unsigned iBits = 0, qBits = 0;
    for (int b = 0; b < q_; ++b) {
      const unsigned bit = (idx >> (q_ - 1 - b)) & 1u;  // b0 is the MSB of the index
      if (b % 2 == 0) iBits = (iBits << 1) | bit;
      else qBits = (qBits << 1) | bit;
    }
    table_[idx] = {levels[iBits] * norm, levels[qBits] * norm};
  }
}

std::complex<float> Mapper::Map(const uint8_t* bits) const {
  unsigned idx = 0;
  for (int b = 0; b < q_; ++b) idx = (idx << 1) | bits[b];
  return table_[idx];
}

// ---------------------------------------------------------------------------------------------
TimeInterleaver::TimeInterleaver(int carriers, int length, int adjustment)
    : carriers_(carriers), delay_(carriers), start_(carriers), pos_(carriers, 0) {
  int at = 0;
  for (int i = 0; i < carriers; ++i) {
    delay_[i] = length == 0 ? 0 : length * ((5 * i) % 96) + adjustment;
    start_[i] = at;
    at += delay_[i];
  }
  store_.assign(static_cast<size_t>(at), {0.0f, 0.0f});
}

void TimeInterleaver::Process(const std::complex<float>* in, std::complex<float>* out) {
  for (int i = 0; i < carriers_; ++i) {
    const int len = delay_[i];
    if (len == 0) {
      out[i] = in[i];
      continue;
    }
    std::complex<float>& cell = store_[static_cast<size_t>(start_[i] + pos_[i])];
    out[i] = cell;
    cell = in[i];
    pos_[i] = pos_[i] + 1 == len ? 0 : pos_[i] + 1;
  }
}

// ---------------------------------------------------------------------------------------------
// Mode-1 AC1 and TMCC carriers of the coherent segments, by segment number (ARIB STD-B31,
// tables for synchronous modulation). The Mode 2 and Mode 3 tables are these thirteen patterns
// in frequency order, repeated and cut into blocks of two or four.
namespace {
struct Mode1Pattern {
  int ac[2];
  int tmcc;
};
constexpr Mode1Pattern kMode1[13] = {
    {{35, 79}, 49}, {{74, 100}, 47}, {{76, 97}, 31}, {{20, 40}, 44},  {{4, 89}, 83},
    {{11, 101}, 86}, {{40, 89}, 61}, {{61, 100}, 17}, {{8, 64}, 85},  {{53, 83}, 25},
    {{7, 89}, 101},  {{10, 28}, 70}, {{98, 101}, 23},
};
constexpr int kSegmentAtPosition[13] = {11, 9, 7, 5, 3, 1, 0, 2, 4, 6, 8, 10, 12};
}  // namespace

int PositionOfSegment(int segment) {
  for (int p = 0; p < 13; ++p)
    if (kSegmentAtPosition[p] == segment) return p;
  return -1;
}

SegmentCarriers CarriersOfSegment(int mode, int segment) {
  const int r = 1 << (mode - 1);
  const int p = PositionOfSegment(segment);
  SegmentCarriers out;
  for (int t = 0; t < r; ++t) {
    const Mode1Pattern& pat = kMode1[kSegmentAtPosition[(r * p + t) % 13]];
    out.ac.push_back(pat.ac[0] + 108 * t);
    out.ac.push_back(pat.ac[1] + 108 * t);
    out.tmcc.push_back(pat.tmcc + 108 * t);
  }
  std::sort(out.ac.begin(), out.ac.end());
  std::sort(out.tmcc.begin(), out.tmcc.end());
  return out;
}

std::vector<uint8_t> PilotSequence(int mode) {
  const int nc = NumbersOfMode(mode).nc;
  std::vector<uint8_t> w(static_cast<size_t>(13 * nc + 1));
  unsigned reg = 0x7FF;  // r1 in bit 0 .. r11 in bit 10
  for (auto& bit : w) {
    bit = static_cast<uint8_t>((reg >> 10) & 1u);
    const unsigned fb = ((reg >> 8) ^ (reg >> 10)) & 1u;
    reg = ((reg << 1) | fb) & 0x7FFu;
  }
  return w;
}

// ---------------------------------------------------------------------------------------------
void TmccParity(const uint8_t* bits, uint8_t* parity) {
  // g(x) = x^82 + x^77 + x^76 + x^71 + x^67 + x^66 + x^56 + x^52 + x^48 + x^40 + x^36 + x^34
  //        + x^24 + x^22 + x^18 + x^10 + x^4 + 1 (ARIB STD-B31).
  static constexpr int kTerms[] = {77, 76, 71, 67, 66, 56, 52, 48, 40, 36, 34, 24, 22, 18, 10, 4, 0};
  std::array<uint8_t, 82> g{};
  for (int t : kTerms) g[t] = 1;
  std::array<uint8_t, 82> r{};  // r[81] the highest power
  for (int i = 0; i < 102; ++i) {
    const uint8_t fb = bits[i] ^ r[81];
    for (int j = 81; j >= 1; --j) r[j] = static_cast<uint8_t>(r[j - 1] ^ (fb & g[j]));
    r[0] = static_cast<uint8_t>(fb & g[0]);
  }
  for (int i = 0; i < 82; ++i) parity[i] = r[81 - i];
}

std::array<uint8_t, 204> BuildTmccWord(const TmccContent& c, bool oddFrame) {
  std::array<uint8_t, 204> b{};
  int at = 0;
  auto put = [&](unsigned value, int width) {
    for (int i = width - 1; i >= 0; --i) b[at++] = static_cast<uint8_t>((value >> i) & 1u);
  };
  auto putLayer = [&](const LayerTmcc& l) {
    put(static_cast<unsigned>(l.modulation), 3);
    put(static_cast<unsigned>(l.codeRate), 3);
    put(static_cast<unsigned>(l.interleave), 3);
    put(static_cast<unsigned>(l.segments), 4);
  };
  put(0, 1);                                   // B0: differential reference
  put(oddFrame ? 0xCA11u : 0x35EEu, 16);       // B1-B16: sync word w0 / w1
  put(0, 3);                                   // B17-B19: coherent segment
  put(static_cast<unsigned>(c.systemId), 2);   // B20-B21
  put(0xF, 4);                                 // B22-B25: no parameter switch
  put(0, 1);                                   // B26: no emergency alarm
  put(c.partialReception ? 1u : 0u, 1);        // B27
  putLayer(c.layerA);                          // B28-B40
  putLayer(c.layerB);                          // B41-B53
  putLayer(c.layerC);                          // B54-B66
  put(c.partialReception ? 1u : 0u, 1);        // B67: next = current
  putLayer(c.layerA);                          // B68-B80
  putLayer(c.layerB);                          // B81-B93
  putLayer(c.layerC);                          // B94-B106
  put(0x7, 3);                                 // B107-B109: not connected transmission
  put(0xFFF, 12);                              // B110-B121: reserved
  TmccParity(b.data() + 20, b.data() + 122);
  return b;
}

}  // namespace zfn::sim
