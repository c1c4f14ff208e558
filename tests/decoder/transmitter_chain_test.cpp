// The decoder against our transmitter's forward stages (a separate library written in the transmit
// direction): each inverse stage on its own, then the whole layer chain from packets to carrier
// symbols, decoded by SymbolSink into the TsPacketRing with the alignment the design promises.
#include <gtest/gtest.h>

#include <array>
#include <complex>
#include <cstring>
#include <memory>
#include <vector>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "decoder/reed_solomon.h"
#include "decoder/viterbi.h"
#include "shell/device_state.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "simulator/transmitter.h"
#include "simulator/tx_ofdm.h"
#include "simulator/tx_stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

using test::Random;

class AgainstTransmitter : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(1, BuildRsTables()); }
  static void TearDownTestSuite() { FreeRsTables(); }
  // A fresh engine arena with the packet stage, then decoder set-up for a layer given in the
  // transmitter's terms (mode 1..3, TMCC modulation code).
  static void SetUpLayer(int mode, int modulation, int codeRate, int interleave) {
    test::ResetEngineArena();
    SetUpTransportOutput();
    engine.tsResetRequest = 0;
    engine.tsResetPhase = 3;
    device.packetEvent.Close();
    engine.bitsPerCarrier = 0;
    test::SetLayer(static_cast<uint8_t>(mode - 1), static_cast<uint8_t>(modulation), static_cast<uint8_t>(codeRate),
                   static_cast<uint8_t>(interleave));
    ASSERT_EQ(1, SetUpDecoder());
  }
};

TEST_F(AgainstTransmitter, DispersalAndByteInterleaverOfTheTransmitter) {
  SetUpLayer(1, 1, 0, 0);  // 12 packets per frame
  Random random(2);
  std::vector<std::array<uint8_t, 204>> units;
  for (int b = 0; b < 40; ++b) {
    std::array<uint8_t, 204> unit{};
    for (int i = 0; i < 203; ++i) unit[i] = static_cast<uint8_t>(random.Next());
    unit[203] = 0x47;
    units.push_back(unit);
  }
  // The derandomiser against the transmitter's scrambler, block for block: the scrambler restarts
  // at the first unit of each frame, which is the block with count 1.
  sim::DispersalPrbs prbs;
  for (int b = 0; b < 30; ++b) {
    if (b % 12 == 1) prbs.Reset();
    std::array<uint8_t, 204> unit = units[static_cast<size_t>(b)];
    std::array<uint8_t, 204> scrambled = unit;
    for (int i = 0; i < 203; ++i) scrambled[i] ^= prbs.NextByte();
    prbs.NextByte();
    Derandomise(scrambled.data(), 204);
    if (b >= 1) {
      ASSERT_EQ(unit, scrambled) << "block " << b;
    }
  }
  // The deinterleaver against the transmitter's interleaver: eleven blocks late.
  sim::ByteInterleaver forward;
  for (int b = 0; b < 40; ++b) {
    std::array<uint8_t, 204> air{}, out{};
    for (int i = 0; i < 204; ++i) air[i] = forward.Push(units[static_cast<size_t>(b)][i]);
    DeinterleaveBytes(air.data(), out.data());
    if (b >= 11) {
      ASSERT_EQ(units[static_cast<size_t>(b - 11)], out) << "block " << b;
    }
  }
}

TEST_F(AgainstTransmitter, ConvolutionalEncoderOfTheTransmitterAtEveryRate) {
  for (int rate = 0; rate < 5; ++rate) {
    SetUpLayer(1, 1, rate, 0);  // 192 coded bits per symbol
    sim::ConvolutionalEncoder encoder(rate);
    const int32_t bytesPerSymbol = decoder.depuncturedLength / 16;
    Random random(static_cast<uint64_t>(rate) + 3);
    std::vector<uint8_t> message, decoded;
    std::vector<uint8_t> coded(192 + 16);
    for (int s = 0; s < 50; ++s) {
      std::vector<uint8_t> bytes(static_cast<size_t>(bytesPerSymbol));
      for (auto& b : bytes) b = static_cast<uint8_t>(random.Next());
      message.insert(message.end(), bytes.begin(), bytes.end());
      ASSERT_EQ(192, encoder.EncodeBytes(bytes, coded.data()));
      for (int i = 0; i < 192; ++i) decoder.bitStream[i] = static_cast<uint8_t>(coded[static_cast<size_t>(i)] * 31);
      ViterbiDecode(DepunctureAndPack(), decoder.depuncturedLength / 2, decoder.decodedBytes);
      decoded.insert(decoded.end(), decoder.decodedBytes, decoder.decodedBytes + bytesPerSymbol);
    }
    for (size_t i = 8; i < decoded.size(); ++i) {
      ASSERT_EQ(message[i - 8], decoded[i]) << "rate " << rate << " byte " << i;
    }
  }
}

// Bit interleaving with its adjustment and the receiver's deinterleaving delay every bit by exactly
// two OFDM symbols; the mapper's points come back as their bits through the demapper.
TEST_F(AgainstTransmitter, BitInterleaverAndMapperOfTheTransmitter) {
  for (int mode = 1; mode <= 3; ++mode) {
    for (int modulation = 1; modulation <= 3; ++modulation) {
      SetUpLayer(mode, modulation, 0, 0);
      const int32_t nd = engine.ndata;
      const int32_t q = engine.bitsPerCarrier;
      sim::BitInterleaver interleaver(q, nd);
      const sim::Mapper mapper(q);
      Random random(static_cast<uint64_t>(mode * 10 + modulation));
      std::vector<std::vector<uint8_t>> sent;
      std::vector<uint8_t> delayed(static_cast<size_t>(nd * q));
      std::vector<float> carriers(static_cast<size_t>(2 * nd));
      for (int s = 0; s < 6; ++s) {
        std::vector<uint8_t> bits(static_cast<size_t>(nd * q));
        for (auto& b : bits) b = static_cast<uint8_t>(random.Below(2));
        sent.push_back(bits);
        interleaver.Process(bits.data(), delayed.data(), nd);
        const float gain = q == 2 ? 8.0f : 1.0f;  // QPSK arrives with the equaliser's fixed gain
        for (int c = 0; c < nd; ++c) {
          const std::complex<float> point = mapper.Map(&delayed[static_cast<size_t>(c * q)]);
          carriers[2 * c] = point.real() * gain;
          carriers[2 * c + 1] = point.imag() * gain;
        }
        DemapSoft(carriers.data());
        DeinterleaveBits();
        if (s < 2) continue;
        for (int i = 0; i < nd * q; ++i) {
          ASSERT_EQ(sent[static_cast<size_t>(s - 2)][static_cast<size_t>(i)], decoder.bitStream[i] >= 16 ? 1 : 0)
              << "mode " << mode << " q " << q << " symbol " << s << " bit " << i;
        }
      }
    }
  }
}

// Time interleaving with its adjustment A and the receiver's deinterleaving: every carrier is late by
// 95 * I + A symbols, a whole number of frames.
TEST_F(AgainstTransmitter, TimeInterleaverOfTheTransmitter) {
  for (int mode = 1; mode <= 3; ++mode) {
    SetUpLayer(mode, 1, 0, 2);
    const int32_t nd = engine.ndata;
    const int length = sim::InterleaveLength(2, mode);
    ASSERT_EQ(length, decoder.interleaveDepth);
    const int total = 95 * length + sim::InterleaveAdjustment(length);
    ASSERT_EQ(0, total % 204);
    sim::TimeInterleaver interleaver(nd, length, sim::InterleaveAdjustment(length));
    Random random(static_cast<uint64_t>(mode));
    std::vector<std::vector<std::complex<float>>> sent;
    std::vector<std::complex<float>> air(static_cast<size_t>(nd));
    std::vector<float> in(static_cast<size_t>(2 * nd)), out(static_cast<size_t>(2 * nd));
    for (int t = 0; t < total + 20; ++t) {
      std::vector<std::complex<float>> symbol(static_cast<size_t>(nd));
      for (auto& v : symbol) v = {static_cast<float>(random.Below(100)), static_cast<float>(random.Below(100))};
      sent.push_back(symbol);
      interleaver.Process(symbol.data(), air.data());
      for (int c = 0; c < nd; ++c) {
        in[2 * c] = air[static_cast<size_t>(c)].real();
        in[2 * c + 1] = air[static_cast<size_t>(c)].imag();
      }
      DeinterleaveTime(in.data(), out.data());
      if (t < total) continue;
      for (int c = 0; c < nd; ++c) {
        ASSERT_EQ(sent[static_cast<size_t>(t - total)][static_cast<size_t>(c)], std::complex<float>(out[2 * c], out[2 * c + 1]))
            << "mode " << mode << " t " << t << " carrier " << c;
      }
    }
  }
}

// The whole layer chain of the transmitter (packets, RS, dispersal, byte delay adjustment, byte
// interleaving, convolutional code and puncturing, bit interleaving, mapping, time interleaving,
// carrier randomisation) into SymbolSink, symbol by symbol, with the symbol index that the block
// scheduler would give (the equalised carriers lag the symbol just read by three). The decoder starts
// at symbol 0 of the first frame after its time deinterleaver has filled, and block b of the ring (0
// being the one that takes the 8 older bytes) then holds transmitted packet b - T - 1, RS-clean.
//
// The transmitter starts as if it had been on the air: its byte delay adjustment and byte
// interleaver hold dispersed null packets, so every rate decodes from the first block on.

struct ChainCase {
  int mode, modulation, codeRate, interleave;
  double noise;  // standard deviation of Gaussian noise on each carrier component, unit-power scale
};

class LayerChainDecoding : public AgainstTransmitter, public ::testing::WithParamInterface<ChainCase> {};

TEST_P(LayerChainDecoding, PacketsComeOutAlignedAndClean) {
  const ChainCase c = GetParam();
  sim::BroadcastConfig b;
  b.mode = c.mode;
  b.modulation = c.modulation;
  b.codeRate = c.codeRate;
  b.interleave = c.interleave;
  b.seed = 7;
  auto source = sim::MakeTestPatternSource(11);
  sim::LayerChain chain(b, source.get());
  std::vector<uint8_t> transmitted;
  chain.SetRecord(&transmitted);
  SetUpLayer(c.mode, c.modulation, c.codeRate, c.interleave);
  const int t = decoder.packetsPerFrame;
  ASSERT_EQ(chain.PacketsPerFrame(), t);
  const int32_t nd = engine.ndata;
  std::vector<std::complex<float>> slots(static_cast<size_t>(nd));
  std::vector<float> carriers(static_cast<size_t>(2 * nd));
  engine.equalisedCarriers = carriers.data();
  const float gain = engine.bitsPerCarrier == 2 ? 8.0f : 1.0f;
  Random random(5);
  auto gaussian = [&random]() {
    double sum = 0;
    for (int k = 0; k < 12; ++k) sum += static_cast<double>(random.Below(1u << 20)) / (1u << 20);
    return sum - 6.0;
  };

  const int frames = chain.InterleaveFrames() + 3;
  uint32_t lastWrite = engine.ringWrite;
  int block = 0;  // blocks handed over so far; 0 is the one that takes the 8 older bytes
  int checked = 0, corrected = 0;
  for (int k = 0; k < 204 * frames + 2; ++k) {
    chain.NextSymbol(slots.data());
    for (int i = 0; i < nd; ++i) {
      const double nre = c.noise > 0 ? c.noise * gaussian() : 0.0;
      const double nim = c.noise > 0 ? c.noise * gaussian() : 0.0;
      carriers[2 * i] = static_cast<float>((slots[static_cast<size_t>(i)].real() + nre) * gain);
      carriers[2 * i + 1] = static_cast<float>((slots[static_cast<size_t>(i)].imag() + nim) * gain);
    }
    const int symbol = (202 + k) % 204;  // the chain's first symbol is symbol 202 of the frame before
    engine.symbolIndex = (symbol + 3) % 204;
    SymbolSink();
    // At most two blocks per symbol: read them before the ring can lap.
    const uint32_t fresh = (engine.ringWrite + TS_RING_SLOTS - lastWrite) % TS_RING_SLOTS;
    for (uint32_t f = 0; f < fresh; ++f, ++block) {
      const int j = block - t - 1;
      if (j < 0) continue;
      uint8_t packet[204];
      std::memcpy(packet, engine.ringSlots + 204 * ((lastWrite + 1 + f) % TS_RING_SLOTS), 204);
      const int32_t result = DecodeRs(packet);
      ASSERT_TRUE(result == RS_OK || (c.noise > 0 && result == RS_CORRECTED)) << "block " << block << " result " << result;
      corrected += result == RS_CORRECTED;
      ASSERT_LE(static_cast<size_t>(j + 1) * 188, transmitted.size());
      ASSERT_EQ(0, std::memcmp(transmitted.data() + 188 * static_cast<size_t>(j), packet, 188)) << "packet " << j;
      ++checked;
    }
    lastWrite = engine.ringWrite;
  }
  EXPECT_GE(checked, t);
  if (c.noise > 0) {
    EXPECT_GT(corrected, 0) << "the noise was too weak to test correction";
  }
}

INSTANTIATE_TEST_SUITE_P(Layers, LayerChainDecoding,
                         ::testing::Values(ChainCase{1, 1, 0, 0, 0.0}, ChainCase{1, 2, 1, 1, 0.0}, ChainCase{2, 3, 2, 1, 0.0},
                                           ChainCase{3, 1, 1, 3, 0.0}, ChainCase{3, 3, 4, 0, 0.0}, ChainCase{1, 3, 4, 0, 0.0}, ChainCase{3, 2, 4, 1, 0.0}, ChainCase{2, 1, 3, 2, 0.0},
                                           ChainCase{1, 1, 1, 2, 0.45}, ChainCase{2, 2, 0, 1, 0.24}));

}  // namespace
}  // namespace zfn
