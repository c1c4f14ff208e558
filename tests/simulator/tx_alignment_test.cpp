// End to end through a notional receiver written here from the standard: plain DFT of the
// engine-rate samples, segment 0's data carriers, the complementary de-interleaving delays only,
// hard decisions, the inverse of the convolutional code, byte de-interleaving with branch 0 at the
// frame start, energy dispersal restarted at the frame start. It must find the transmitted packets,
// frame by frame, exactly where the transmitter says they are.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <deque>
#include <vector>

#include "simulator/transmitter.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {
namespace {

struct Case {
  int mode, guard, modulation, codeRate, interleave;
};

class NotionalReceiver {
 public:
  explicit NotionalReceiver(const BroadcastConfig& b) : b_(b) {
    const ModeNumbers mn = NumbersOfMode(b.mode);
    n1_ = mn.n1;
    nc_ = mn.nc;
    nd_ = mn.nd;
    q_ = BitsPerCarrier(b.modulation);
    i_ = InterleaveLength(b.interleave, b.mode);
    static const std::vector<int> kFixed[3] = {{35, 49, 79}, {23, 98, 101, 118, 136, 178},
                                               {7, 89, 101, 131, 206, 209, 226, 244, 286, 349, 377, 407}};
    fixed_ = kFixed[b.mode - 1];
    twiddle_.resize(static_cast<size_t>(n1_));
    for (int n = 0; n < n1_; ++n) twiddle_[static_cast<size_t>(n)] = std::polar(1.0, -2.0 * M_PI * n / n1_);
    for (int c = 0; c < nd_; ++c) timeLines_.emplace_back(static_cast<size_t>(i_ * (95 - (5 * c) % 96)), std::complex<double>{});
    for (int k = 0; k < q_; ++k) bitLines_.emplace_back(static_cast<size_t>(120 - 120 * k / (q_ - 1)), uint8_t{0});
    for (int k = 0; k < 12; ++k) byteLines_.emplace_back(static_cast<size_t>(17 * (11 - k)), uint8_t{0});
  }

  std::complex<double> Bin(const std::complex<double>* x, int j) const {
    const int bin = ((j - nc_ / 2) % n1_ + n1_) % n1_;
    std::complex<double> sum = 0;
    for (int n = 0; n < n1_; ++n) sum += x[n] * twiddle_[static_cast<size_t>((static_cast<int64_t>(bin) * n) % n1_)];
    return sum;
  }

  // One symbol of frame symbol number n; appends its de-interleaved coded bits to bits_.
  void Symbol(const std::complex<double>* x, int n) {
    std::vector<std::complex<double>> slots;
    double pilotSum = 0;
    int pilots = 0;
    for (int j = 0; j < nc_; ++j) {
      if (j % 12 == 3 * (n % 4)) {
        pilotSum += std::abs(Bin(x, j));
        ++pilots;
        continue;
      }
      if (std::find(fixed_.begin(), fixed_.end(), j) != fixed_.end()) continue;
      slots.push_back(Bin(x, j));
    }
    ASSERT_EQ(static_cast<int>(slots.size()), nd_);
    const double gain = pilotSum / pilots / (4.0 / 3.0);
    const auto table = RandomisationTable(b_.mode);
    const double unit = q_ == 2 ? std::sqrt(2.0) : q_ == 4 ? std::sqrt(10.0) : std::sqrt(42.0);
    for (int i = 0; i < nd_; ++i) {
      std::complex<double> v = slots[table[static_cast<size_t>(i)]];
      auto& line = timeLines_[static_cast<size_t>(i)];
      if (!line.empty()) {
        line.push_back(v);
        v = line.front();
        line.pop_front();
      }
      const double a = v.real() / gain * unit, c = v.imag() / gain * unit;
      uint8_t bits[6];
      bits[0] = a < 0;
      bits[1] = c < 0;
      if (q_ >= 4) {
        bits[2] = std::fabs(a) < (q_ == 4 ? 2 : 4);
        bits[3] = std::fabs(c) < (q_ == 4 ? 2 : 4);
      }
      if (q_ == 6) {
        bits[4] = std::fabs(std::fabs(a) - 4) < 2;
        bits[5] = std::fabs(std::fabs(c) - 4) < 2;
      }
      for (int k = 0; k < q_; ++k) {
        auto& bl = bitLines_[static_cast<size_t>(k)];
        uint8_t out = bits[k];
        if (!bl.empty()) {
          bl.push_back(bits[k]);
          out = bl.front();
          bl.pop_front();
        }
        bits_.push_back(out);
      }
    }
  }

  // Inverse of the punctured code over one frame's bits; bytes of the byte interleaver output.
  // The inverse is recursive, so it needs the encoder's state. Coding began two symbols before
  // the frame before the first packet frame (the bit delays): the first two symbols of that frame
  // still hold what the bit delay lines held before, and the encoder's state behind them follows
  // from bytes that are a broadcast's like any others. So that state is found: the one of the 64
  // under which the following bits obey the code.
  std::vector<uint8_t> DecodeFrame(bool restart) {
    std::vector<uint8_t> bytes;
    size_t from = 0;
    if (restart) {
      from = std::min<size_t>(bits_.size(), static_cast<size_t>(2 * nd_ * q_));
      int ignored = 0;
      Invert(0, 0, from, &bytes, &ignored);
      int fewest = -1;
      unsigned best = 0;
      for (unsigned state = 0; state < 64; ++state) {
        int violations = 0;
        Invert(state, from, std::min<size_t>(bits_.size(), from + 4096), nullptr, &violations);
        if (fewest < 0 || violations < fewest) {
          fewest = violations;
          best = state;
        }
      }
      history_ = best;
      codeViolations_ = 0;
    }
    history_ = Invert(history_, from, bits_.size(), &bytes, &codeViolations_);
    bits_.clear();
    return bytes;
  }

  // Runs the inverse over bits [from, to) from state `history` and puncturing phase 0; returns the
  // state after them, appends whole bytes to `bytes` if given and counts the steps where X and Y
  // disagree.
  unsigned Invert(unsigned history, size_t from, size_t to, std::vector<uint8_t>* bytes, int* violations) const {
    static const char* kX[5] = {"1", "10", "101", "10101", "1000101"};
    static const char* kY[5] = {"1", "11", "110", "11010", "1111010"};
    const char* kx = kX[b_.codeRate];
    const char* ky = kY[b_.codeRate];
    const int period = static_cast<int>(std::strlen(kx));
    size_t at = from;
    int phase = 0;
    unsigned byte = 0;
    int nbits = 0;
    while (at < to) {
      auto u = [&](int d) { return (history >> (d - 1)) & 1u; };
      const unsigned xPart = u(1) ^ u(2) ^ u(3) ^ u(6);
      const unsigned yPart = u(2) ^ u(3) ^ u(5) ^ u(6);
      int x = -1, y = -1;
      if (kx[phase] == '1') x = bits_[at++];
      if (ky[phase] == '1') {
        if (at == to) break;
        y = bits_[at++];
      }
      const unsigned bit = x >= 0 ? (static_cast<unsigned>(x) ^ xPart) : (static_cast<unsigned>(y) ^ yPart);
      if (x >= 0 && y >= 0 && (static_cast<unsigned>(y) ^ yPart) != bit) ++*violations;
      history = ((history << 1) | bit) & 0x3F;
      phase = (phase + 1) % period;
      byte = (byte << 1) | bit;
      if (++nbits == 8) {
        if (bytes != nullptr) bytes->push_back(static_cast<uint8_t>(byte));
        byte = 0;
        nbits = 0;
      }
    }
    if (bytes != nullptr) {
      EXPECT_EQ(phase, 0);
    }
    return history;
  }

  // Byte de-interleaving, branch = byte count from the frame start mod 12.
  void Deinterleave(std::vector<uint8_t>& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) {
      auto& line = byteLines_[i % 12];
      if (line.empty()) continue;
      line.push_back(bytes[i]);
      bytes[i] = line.front();
      line.pop_front();
    }
  }

  int codeViolations_ = 0;

 private:
  BroadcastConfig b_;
  int n1_, nc_, nd_, q_, i_;
  std::vector<int> fixed_;
  std::vector<std::complex<double>> twiddle_;
  std::vector<std::deque<std::complex<double>>> timeLines_;
  std::vector<std::deque<uint8_t>> bitLines_;
  std::vector<std::deque<uint8_t>> byteLines_;
  std::vector<uint8_t> bits_;
  unsigned history_ = 0;
};

// Dispersal PRBS written bit by bit: x^15 + x^14 + 1, start 100101010000000.
std::vector<uint8_t> DispersalBytes(int count) {
  int s[16] = {0, 1, 0, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0};  // s[1..15]
  std::vector<uint8_t> out;
  for (int i = 0; i < count; ++i) {
    int v = 0;
    for (int k = 0; k < 8; ++k) {
      const int o = s[14] ^ s[15];
      for (int j = 15; j > 1; --j) s[j] = s[j - 1];
      s[1] = o;
      v = (v << 1) | o;
    }
    out.push_back(static_cast<uint8_t>(v));
  }
  return out;
}

void RunCase(const Case& c) {
  BroadcastConfig b;
  b.mode = c.mode;
  b.guard = c.guard;
  b.modulation = c.modulation;
  b.codeRate = c.codeRate;
  b.interleave = c.interleave;
  ChannelConfig ch;
  ch.rmsLevel = 20;
  std::string error;
  auto gen = SignalGenerator::Create(b, ch, MakeTestPatternSource(5), &error);
  ASSERT_TRUE(gen) << error;
  gen->RecordPackets(true);
  const int t = gen->PacketsPerFrame();
  const int64_t first = gen->ReceiverFrameOfPacket(0);
  const int checked = 2;
  const int64_t frames = first + checked;
  const int nse = EngineSamplesPerSymbol(b);
  const int n1 = NumbersOfMode(b.mode).n1;
  const int ng = nse - n1;
  std::vector<uint8_t> bytes(static_cast<size_t>(frames * 204 * nse * 4));
  gen->GenerateBytes(bytes.data(), bytes.size());
  NotionalReceiver rx(b);
  std::vector<std::complex<double>> x(static_cast<size_t>(n1));
  const auto prbs = DispersalBytes(t * 204);
  // The time de-interleaver's own delay is not counted: its output of frame f belongs to frame f
  // of the notional receiver. Coded frame 0 starts at the frame before the first packet frame.
  for (int64_t f = 0; f < frames; ++f) {
    for (int n = 0; n < 204; ++n) {
      const size_t start = static_cast<size_t>(((f * 204 + n) * nse + ng) * 4);
      for (int k = 0; k < n1; ++k)
        x[static_cast<size_t>(k)] = {bytes[start + 4 * k] - 127.0, bytes[start + 4 * k + 1] - 127.0};
      rx.Symbol(x.data(), n);
    }
    auto frameBytes = rx.DecodeFrame(f == first - 1);
    if (f < first - 1) continue;
    ASSERT_EQ(static_cast<int>(frameBytes.size()), t * 204);
    rx.Deinterleave(frameBytes);
    if (f < first) continue;
    const auto& sent = gen->TransmittedPackets();
    const int64_t packetFrame = f - first;
    for (int u = 0; u < t; ++u) {
      uint8_t packet[188];
      const uint8_t* unit = &frameBytes[static_cast<size_t>(u * 204)];
      packet[0] = unit[203];
      for (int i = 1; i < 188; ++i) packet[i] = unit[i - 1] ^ prbs[static_cast<size_t>(u * 204 + i - 1)];
      const size_t j = static_cast<size_t>(packetFrame * t + u);
      ASSERT_GE(sent.size(), (j + 1) * 188);
      ASSERT_EQ(0, std::memcmp(packet, &sent[j * 188], 188))
          << "mode " << c.mode << " frame " << f << " unit " << u << " first bytes " << int(packet[0]) << " " << int(packet[1]);
      EXPECT_EQ(gen->ReceiverFrameOfPacket(static_cast<int64_t>(j)), f);
    }
  }
  EXPECT_EQ(rx.codeViolations_, 0);
}

TEST(TransmitterAlignment, NotionalReceiverFindsThePacketsFromTheFrameStart) {
  RunCase({1, 3, 1, 0, 1});  // Mode 1, 1/4, QPSK 1/2, I = 4
  RunCase({1, 0, 2, 2, 0});  // Mode 1, 1/32, 16QAM 3/4, no time interleaving
  RunCase({2, 1, 3, 4, 2});  // Mode 2, 1/16, 64QAM 7/8, I = 4
  RunCase({3, 2, 1, 1, 3});  // Mode 3, 1/8, QPSK 2/3, I = 4: the common broadcast
}

}  // namespace
}  // namespace zfn::sim
