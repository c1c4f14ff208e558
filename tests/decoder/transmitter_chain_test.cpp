// The decoder against our transmitter's forward stages (a separate library written in the transmit
// direction): each inverse stage on its own, the soft demapper's boundaries, then the layer chain
// from packets to carrier symbols into SymbolSink on its own, without tracking: where the end-to-end
// tests see a wrong stream, these cases say which decoder stage made it.
#include <gtest/gtest.h>

#include <array>
#include <complex>
#include <cstring>
#include <limits>
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
  // The dispersal sequence from its start state, on the block with count 1 (the sync position, last
  // in the block, is not XORed), then the derandomiser against the transmitter's scrambler, block
  // for block: the scrambler restarts at the first unit of each frame, the block with count 1.
  decoder.packetInFrame = 1;
  uint8_t zeros[204] = {};
  Derandomise(zeros, 204);
  const uint8_t first[6] = {0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8};
  EXPECT_EQ(0, std::memcmp(first, zeros, 6));
  EXPECT_EQ(0, zeros[203]);
  EXPECT_EQ(2, decoder.packetInFrame);
  decoder.packetInFrame = 0;
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

std::vector<uint8_t> Demap(int32_t bits, float re, float im) {
  engine.bitsPerCarrier = bits;
  std::vector<float> carriers(static_cast<size_t>(2 * engine.ndata), 0.0f);
  carriers[0] = re;
  carriers[1] = im;
  DemapSoft(carriers.data());
  return {decoder.softBits, decoder.softBits + bits};
}

// A QPSK component x gives the soft bit S(16 - x), S(v) = floor(v) clamped to 0..31: the boundaries,
// values far out, NaN and infinity; and a zero carrier (what the time deinterleaver gives before its
// lines fill) at every modulation.
TEST_F(AgainstTransmitter, SoftDemapperFloorAndClampOnTheBoundaries) {
  SetUpLayer(1, 3, 0, 0);  // room for 6 soft bits per carrier
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  const struct {
    int32_t bits;
    float re, im;
    std::vector<uint8_t> soft;
  } cases[] = {
      {2, 0.0f, -0.0f, {16, 16}},    {2, 0.5f, -0.5f, {15, 16}},     // S(15.5) = 15, S(16.5) = 16
      {2, 16.0f, -15.0f, {0, 31}},   {2, 16.5f, -16.5f, {0, 31}},    // S(0) = 0, S(31) = 31; S(-0.5), S(32.5)
      {2, 15.5f, -14.5f, {0, 30}},   {2, 1e30f, -1e30f, {0, 31}},    // S(0.5) = 0, S(30.5) = 30
      {2, nan, inf, {16, 0}},        {4, 0.0f, 0.0f, {16, 16, 24, 24}},
      {6, 0.0f, 0.0f, {16, 16, 31, 31, 8, 8}},
  };
  for (const auto& c : cases) EXPECT_EQ(c.soft, Demap(c.bits, c.re, c.im)) << c.bits << " bits, " << c.re << ", " << c.im;
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
    std::vector<uint8_t> in(static_cast<size_t>(2 * nd)), out(static_cast<size_t>(2 * nd));  // QPSK: 2 soft bits
    for (int t = 0; t < total + 20; ++t) {
      std::vector<std::complex<float>> symbol(static_cast<size_t>(nd));
      for (auto& v : symbol) v = {static_cast<float>(random.Below(100)), static_cast<float>(random.Below(100))};
      sent.push_back(symbol);
      interleaver.Process(symbol.data(), air.data());
      for (int c = 0; c < nd; ++c) {
        in[2 * c] = static_cast<uint8_t>(air[static_cast<size_t>(c)].real());
        in[2 * c + 1] = static_cast<uint8_t>(air[static_cast<size_t>(c)].imag());
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

// The largest symbol (two blocks at once) and the deepest time interleaving; every layer
// configuration, with and without noise, runs end to end.
TEST_F(AgainstTransmitter, LayerChainPacketsComeOutAlignedAndClean) {
  for (const sim::BroadcastConfig& b : {sim::BroadcastConfig{.mode = 3, .modulation = 3, .codeRate = 4, .interleave = 0, .seed = 7},
                                        sim::BroadcastConfig{.mode = 3, .modulation = 1, .codeRate = 1, .interleave = 3, .seed = 7}}) {
    SCOPED_TRACE(::testing::Message() << "mode " << b.mode << " modulation " << b.modulation << " interleave " << b.interleave);
    auto source = sim::MakeTestPatternSource(11);
    sim::LayerChain chain(b, source.get());
    std::vector<uint8_t> transmitted;
    chain.SetRecord(&transmitted);
    SetUpLayer(b.mode, b.modulation, b.codeRate, b.interleave);
    const int t = decoder.packetsPerFrame;
    ASSERT_EQ(chain.PacketsPerFrame(), t);
    const int32_t nd = engine.ndata;
    std::vector<std::complex<float>> slots(static_cast<size_t>(nd));
    std::vector<float> carriers(static_cast<size_t>(2 * nd));
    engine.equalisedCarriers = carriers.data();
    const float gain = engine.bitsPerCarrier == 2 ? 8.0f : 1.0f;
    uint32_t lastWrite = engine.ringWrite;
    int block = 0, checked = 0;  // blocks handed over so far; 0 is the one that takes the 8 older bytes
    for (int k = 0; k < 204 * (chain.InterleaveFrames() + 3) + 2; ++k) {
      chain.NextSymbol(slots.data());
      for (int i = 0; i < nd; ++i) {
        carriers[2 * i] = slots[static_cast<size_t>(i)].real() * gain;
        carriers[2 * i + 1] = slots[static_cast<size_t>(i)].imag() * gain;
      }
      engine.symbolIndex = (202 + k + 3) % 204;  // the chain's first symbol is symbol 202 of the frame before
      SymbolSink();
      // At most two blocks per symbol: read them before the ring can lap.
      const uint32_t fresh = (engine.ringWrite + TS_RING_SLOTS - lastWrite) % TS_RING_SLOTS;
      for (uint32_t f = 0; f < fresh; ++f, ++block) {
        const int j = block - t - 1;
        if (j < 0) continue;
        uint8_t packet[204];
        std::memcpy(packet, engine.ringSlots + 204 * ((lastWrite + 1 + f) % TS_RING_SLOTS), 204);
        ASSERT_EQ(RS_OK, DecodeRs(packet)) << "block " << block;
        ASSERT_LE(static_cast<size_t>(j + 1) * 188, transmitted.size());
        ASSERT_EQ(0, std::memcmp(transmitted.data() + 188 * static_cast<size_t>(j), packet, 188)) << "packet " << j;
        ++checked;
      }
      lastWrite = engine.ringWrite;
    }
    EXPECT_GE(checked, t);
  }
}

}  // namespace
}  // namespace zfn
