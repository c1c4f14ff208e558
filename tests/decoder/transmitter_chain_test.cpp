// The decoder against our transmitter's forward stages (a separate library written in the transmit
// direction): each inverse stage on its own, and the soft demapper's boundaries. Where the end-to-end
// tests see a wrong stream, these cases say which decoder stage made it.
#include <gtest/gtest.h>

#include <array>
#include <complex>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "shell/device_state.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "simulator/tx_stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

using test::Random;

class AgainstTransmitter : public ::testing::Test {
 protected:
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

// Random units of `size` values below `range` through a transmitter stage and the decoder's inverse
// (`through`): each comes out exactly `delay` units late.
template <class T, class Through>
void ExpectBackLate(int units, int delay, size_t size, uint32_t range, Random& random, Through through) {
  std::vector<std::vector<T>> sent;
  for (int u = 0; u < units; ++u) {
    std::vector<T> in(size);
    for (auto& v : in) {
      if constexpr (std::is_same_v<T, std::complex<float>>) {
        v = {static_cast<float>(random.Below(range)), static_cast<float>(random.Below(range))};
      } else {
        v = static_cast<T>(random.Below(range));
      }
    }
    sent.push_back(in);
    const std::vector<T> out = through(in);
    if (u >= delay) {
      ASSERT_EQ(sent[static_cast<size_t>(u - delay)], out) << "unit " << u;
    }
  }
}

// The dispersal sequence from its start state on the block with count 1 (the sync position, last in
// the block, is not XORed); then the derandomiser against the transmitter's scrambler, which
// restarts at the first unit of each frame, and the byte deinterleaver against the transmitter's
// interleaver, eleven blocks late.
TEST_F(AgainstTransmitter, DispersalAndByteInterleaverOfTheTransmitter) {
  SetUpLayer(1, 1, 0, 0);  // 12 packets per frame
  Random random(2);
  decoder.packetInFrame = 1;
  uint8_t zeros[204] = {};
  Derandomise(zeros, 204);
  const uint8_t first[6] = {0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8};
  EXPECT_EQ(0, std::memcmp(first, zeros, 6));
  EXPECT_EQ(0, zeros[203]);
  EXPECT_EQ(2, decoder.packetInFrame);
  decoder.packetInFrame = 1;
  sim::DispersalPrbs prbs;
  int unit = 0;
  ExpectBackLate<uint8_t>(30, 0, 204, 256, random, [&](std::vector<uint8_t> v) {
    if (unit++ % 12 == 0) prbs.Reset();
    for (int i = 0; i < 203; ++i) v[static_cast<size_t>(i)] ^= prbs.NextByte();
    prbs.NextByte();
    Derandomise(v.data(), 204);
    return v;
  });
  sim::ByteInterleaver forward;
  ExpectBackLate<uint8_t>(40, 11, 204, 256, random, [&](const std::vector<uint8_t>& v) {
    std::vector<uint8_t> air(204), out(204);
    for (size_t i = 0; i < 204; ++i) air[i] = forward.Push(v[i]);
    DeinterleaveBytes(air.data(), out.data());
    return out;
  });
}

// Bit interleaving with its adjustment and the receiver's deinterleaving delay every bit by exactly
// two OFDM symbols; the mapper's points come back as their bits through the demapper.
TEST_F(AgainstTransmitter, BitInterleaverAndMapperOfTheTransmitter) {
  for (int mode = 1; mode <= 3; ++mode) {
    for (int modulation = 1; modulation <= 3; ++modulation) {
      SCOPED_TRACE(::testing::Message() << "mode " << mode << " modulation " << modulation);
      SetUpLayer(mode, modulation, 0, 0);
      const int32_t nd = engine.ndata, q = engine.bitsPerCarrier;
      sim::BitInterleaver interleaver(q, nd);
      const sim::Mapper mapper(q);
      Random random(static_cast<uint64_t>(mode * 10 + modulation));
      std::vector<uint8_t> delayed(static_cast<size_t>(nd * q));
      std::vector<float> carriers(static_cast<size_t>(2 * nd));
      const float gain = q == 2 ? 8.0f : 1.0f;  // QPSK arrives with the equaliser's fixed gain
      ExpectBackLate<uint8_t>(6, 2, static_cast<size_t>(nd * q), 2, random, [&](const std::vector<uint8_t>& bits) {
        interleaver.Process(bits.data(), delayed.data(), nd);
        for (int c = 0; c < nd; ++c) {
          const std::complex<float> point = mapper.Map(&delayed[static_cast<size_t>(c * q)]);
          carriers[2 * c] = point.real() * gain;
          carriers[2 * c + 1] = point.imag() * gain;
        }
        DemapSoft(carriers.data());
        DeinterleaveBits();
        std::vector<uint8_t> out(bits.size());
        for (size_t i = 0; i < out.size(); ++i) out[i] = decoder.bitStream[i] >= 16 ? 1 : 0;
        return out;
      });
    }
  }
}

// Time interleaving with its adjustment A and the receiver's deinterleaving: every carrier is late by
// 95 * I + A symbols, a whole number of frames.
TEST_F(AgainstTransmitter, TimeInterleaverOfTheTransmitter) {
  for (int mode = 1; mode <= 3; ++mode) {
    SCOPED_TRACE(::testing::Message() << "mode " << mode);
    SetUpLayer(mode, 1, 0, 2);
    const int32_t nd = engine.ndata;
    const int length = sim::InterleaveLength(2, mode);
    ASSERT_EQ(length, decoder.interleaveDepth);
    const int total = 95 * length + sim::InterleaveAdjustment(length);
    ASSERT_EQ(0, total % 204);
    sim::TimeInterleaver interleaver(nd, length, sim::InterleaveAdjustment(length));
    Random random(static_cast<uint64_t>(mode));
    std::vector<std::complex<float>> air(static_cast<size_t>(nd));
    std::vector<std::complex<float>> out(static_cast<size_t>(nd));
    ExpectBackLate<std::complex<float>>(total + 20, total, static_cast<size_t>(nd), 100, random, [&](const auto& symbol) {
      interleaver.Process(symbol.data(), air.data());
      DeinterleaveTime(reinterpret_cast<float*>(air.data()), reinterpret_cast<float*>(out.data()));
      return out;
    });
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

}  // namespace
}  // namespace zfn
