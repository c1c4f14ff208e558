// Packet frames against OFDM frames, through a notional receiver written here from the standard:
// plain DFT of the engine-rate samples, segment 0's data carriers, the complementary
// de-interleaving delays only, hard QPSK decisions, the inverse of the rate 1/2 convolutional code,
// byte de-interleaving with branch 0 at the frame start, energy dispersal restarted at the frame
// start. It must find the transmitted packets, frame by frame, exactly where the transmitter says
// they are. That the receiver delivers them is proven end to end elsewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <cstring>
#include <deque>
#include <vector>

#include "simulator/transmitter.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {
namespace {

template <class T>
T Delay(std::deque<T>& line, T v) {
  if (line.empty()) return v;
  line.push_back(v);
  const T out = line.front();
  line.pop_front();
  return out;
}

class NotionalReceiver {
 public:
  explicit NotionalReceiver(const BroadcastConfig& b) : mode_(b.mode) {  // Mode 1, QPSK 1/2
    const ModeNumbers mn = NumbersOfMode(b.mode);
    n1_ = mn.n1;
    nc_ = mn.nc;
    nd_ = mn.nd;
    const int len = InterleaveLength(b.interleave, b.mode);
    for (int c = 0; c < nd_; ++c) timeLines_.emplace_back(static_cast<size_t>(len * (95 - (5 * c) % 96)), std::complex<double>{});
    bitLines_.emplace_back(120, uint8_t{0});  // QPSK: the first bit waits 120 carriers, the second none
    bitLines_.emplace_back();
    for (int k = 0; k < 12; ++k) byteLines_.emplace_back(static_cast<size_t>(17 * (11 - k)), uint8_t{0});
  }

  std::complex<double> Bin(const std::complex<double>* x, int j) const {
    const int bin = ((j - nc_ / 2) % n1_ + n1_) % n1_;
    std::complex<double> sum = 0;
    for (int n = 0; n < n1_; ++n) sum += x[n] * std::polar(1.0, -2.0 * M_PI * ((static_cast<int64_t>(bin) * n) % n1_) / n1_);
    return sum;
  }

  // One symbol of frame symbol number n; appends its de-interleaved coded bits to bits_.
  void Symbol(const std::complex<double>* x, int n) {
    std::vector<std::complex<double>> slots;
    for (int j = 0; j < nc_; ++j)
      if (j % 12 != 3 * (n % 4) && std::find(fixed_.begin(), fixed_.end(), j) == fixed_.end()) slots.push_back(Bin(x, j));
    ASSERT_EQ(static_cast<int>(slots.size()), nd_);
    const auto table = RandomisationTable(mode_);
    for (int i = 0; i < nd_; ++i) {
      const std::complex<double> v = Delay(timeLines_[static_cast<size_t>(i)], slots[static_cast<size_t>(table[static_cast<size_t>(i)])]);
      bits_.push_back(Delay(bitLines_[0], static_cast<uint8_t>(v.real() < 0)));
      bits_.push_back(Delay(bitLines_[1], static_cast<uint8_t>(v.imag() < 0)));
    }
  }

  // Inverse of the code over one frame's bits: the bytes of the byte interleaver output. The
  // inverse is recursive, so it needs the encoder's state. Coding began two symbols before the
  // frame before the first packet frame (the bit delays): the first two symbols of that frame
  // still hold what the bit delay lines held before, and the encoder's state behind them follows
  // from bytes that are a broadcast's like any others. So that state is found: the one of the 64
  // under which the following bits obey the code.
  std::vector<uint8_t> DecodeFrame(bool restart) {
    std::vector<uint8_t> bytes;
    size_t from = 0;
    if (restart) {
      from = std::min(bits_.size(), static_cast<size_t>(4 * nd_));
      int ignored = 0;
      Invert(0, 0, from, &bytes, &ignored);
      int fewest = 1 << 30;
      for (unsigned state = 0; state < 64; ++state) {
        int violations = 0;
        Invert(state, from, std::min(bits_.size(), from + 4096), nullptr, &violations);
        if (violations < fewest) fewest = violations, history_ = state;
      }
      violations_ = 0;
    }
    history_ = Invert(history_, from, bits_.size(), &bytes, &violations_);
    bits_.clear();
    return bytes;
  }

  // Runs the inverse over the pairs X, Y of bits [from, to) from state `history`; returns the
  // state after them, appends whole bytes to `bytes` if given and counts the steps where X and Y
  // disagree.
  unsigned Invert(unsigned history, size_t from, size_t to, std::vector<uint8_t>* bytes, int* violations) const {
    unsigned byte = 0;
    for (size_t at = from; at + 2 <= to; at += 2) {
      auto u = [&](int d) { return (history >> (d - 1)) & 1u; };
      const unsigned bit = bits_[at] ^ u(1) ^ u(2) ^ u(3) ^ u(6);          // 171 octal
      if ((bits_[at + 1] ^ u(2) ^ u(3) ^ u(5) ^ u(6)) != bit) ++*violations;  // 133 octal
      history = ((history << 1) | bit) & 0x3F;
      byte = (byte << 1) | bit;
      if ((at - from) % 16 == 14 && bytes != nullptr) bytes->push_back(static_cast<uint8_t>(byte)), byte = 0;
    }
    return history;
  }

  // Byte de-interleaving, branch = byte count from the frame start mod 12.
  void Deinterleave(std::vector<uint8_t>& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = Delay(byteLines_[i % 12], bytes[i]);
  }

  int violations_ = 0;

 private:
  int mode_, n1_, nc_, nd_;
  std::vector<int> fixed_ = {35, 49, 79};  // Mode 1: AC and TMCC carriers of segment 0
  std::vector<std::deque<std::complex<double>>> timeLines_;
  std::vector<std::deque<uint8_t>> bitLines_, byteLines_;
  std::vector<uint8_t> bits_;
  unsigned history_ = 0;
};

// Mode 1, guard 1/4, QPSK 1/2, I = 4.
TEST(TransmitterAlignment, NotionalReceiverFindsThePacketsFromTheFrameStart) {
  BroadcastConfig b;
  b.mode = 1;
  b.guard = 3;
  b.modulation = 1;
  b.codeRate = 0;
  b.interleave = 1;
  ChannelConfig ch;
  ch.rmsLevel = 20;
  std::string error;
  auto gen = SignalGenerator::Create(b, ch, MakeTestPatternSource(5), &error);
  ASSERT_TRUE(gen) << error;
  gen->RecordPackets(true);
  const int t = gen->PacketsPerFrame();
  const int64_t first = gen->ReceiverFrameOfPacket(0);
  const int64_t frames = first + 2;
  const int nse = EngineSamplesPerSymbol(b);
  const int n1 = NumbersOfMode(b.mode).n1;
  std::vector<uint8_t> bytes(static_cast<size_t>(frames * 204 * nse * 4));
  gen->GenerateBytes(bytes.data(), bytes.size());
  NotionalReceiver rx(b);
  std::vector<std::complex<double>> x(static_cast<size_t>(n1));
  std::vector<uint8_t> prbs(static_cast<size_t>(t * 204));  // its start is checked against the standard
  DispersalPrbs dispersal;
  for (auto& v : prbs) v = dispersal.NextByte();
  // The time de-interleaver's own delay is not counted: its output of frame f belongs to frame f
  // of the notional receiver. Coded frame 0 starts at the frame before the first packet frame.
  for (int64_t f = 0; f < frames; ++f) {
    for (int n = 0; n < 204; ++n) {
      const size_t start = static_cast<size_t>(((f * 204 + n) * nse + nse - n1) * 4);
      for (int k = 0; k < n1; ++k) x[static_cast<size_t>(k)] = {bytes[start + 4 * k] - 127.0, bytes[start + 4 * k + 1] - 127.0};
      rx.Symbol(x.data(), n);
    }
    auto frameBytes = rx.DecodeFrame(f == first - 1);
    if (f < first - 1) continue;
    ASSERT_EQ(static_cast<int>(frameBytes.size()), t * 204);
    rx.Deinterleave(frameBytes);
    if (f < first) continue;
    const auto& sent = gen->TransmittedPackets();
    for (int u = 0; u < t; ++u) {
      uint8_t packet[188];
      const uint8_t* unit = &frameBytes[static_cast<size_t>(u * 204)];
      packet[0] = unit[203];
      for (int i = 1; i < 188; ++i) packet[i] = unit[i - 1] ^ prbs[static_cast<size_t>(u * 204 + i - 1)];
      const size_t j = static_cast<size_t>((f - first) * t + u);
      ASSERT_GE(sent.size(), (j + 1) * 188);
      ASSERT_EQ(0, std::memcmp(packet, &sent[j * 188], 188)) << "frame " << f << " unit " << u;
      EXPECT_EQ(gen->ReceiverFrameOfPacket(static_cast<int64_t>(j)), f);
    }
  }
  EXPECT_EQ(rx.violations_, 0);
}

}  // namespace
}  // namespace zfn::sim
