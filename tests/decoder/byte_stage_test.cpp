// Byte stage: byte deinterleaver and derandomiser against forward stages written from the standard,
// the start-up gate, assembly into blocks and the whole stage on a stream built by the transmitter's
// recipe (RS, unit rotation, energy dispersal reset per frame, byte delay adjustment, interleaving).
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <deque>
#include <vector>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "shell/device_state.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

using test::Random;

// Forward byte interleaver: 12 branches, branch b a FIFO of 17 * b bytes, one branch per byte, the
// byte after a sync byte through branch 0.
struct ByteInterleaver {
  std::array<std::deque<uint8_t>, 12> fifo;
  int branch = 0;
  ByteInterleaver() {
    for (int b = 0; b < 12; ++b) fifo[b].assign(static_cast<size_t>(17 * b), 0);
  }
  uint8_t Push(uint8_t in) {
    uint8_t out = in;
    if (branch != 0) {
      fifo[branch].push_back(in);
      out = fifo[branch].front();
      fifo[branch].pop_front();
    }
    branch = (branch + 1) % 12;
    return out;
  }
};

// Energy dispersal PRBS 1 + x^14 + x^15, one bit per clock, start state 100101010000000 (s1..s15).
struct Prbs {
  uint32_t s = 0;
  void Reset() {
    const char* init = "100101010000000";
    s = 0;
    for (int i = 0; i < 15; ++i) s |= static_cast<uint32_t>(init[i] - '0') << i;  // bit i is stage i + 1
  }
  uint8_t NextByte() {
    uint32_t byte = 0;
    for (int k = 0; k < 8; ++k) {
      const uint32_t out = ((s >> 13) ^ (s >> 14)) & 1;
      s = ((s << 1) | out) & 0x7FFF;
      byte = byte << 1 | out;
    }
    return static_cast<uint8_t>(byte);
  }
};

class ByteStage : public ::testing::Test {
 protected:
  void SetUp() override {
    test::ResetEngineArena();
    SetUpTransportOutput();
    engine.tsResetPhase = 3;
    engine.tsResetRequest = 0;
    device.packetEvent = 0;
  }
  // Mode 1, QPSK, rate 1/2, no time interleaving: 12 decoded bytes per symbol, 12 packets per frame.
  void SetUpMode1Qpsk(uint8_t interleave) {
    test::SetLayer(0, 1, 0, interleave);
    ASSERT_EQ(1, SetUpDecoder());
  }
  const uint8_t* Slot(uint32_t k) { return engine.ringSlots + 204 * (k % 80); }
};

TEST_F(ByteStage, DerandomiserFollowsTheDispersalSequence) {
  SetUpMode1Qpsk(0);
  EXPECT_EQ(12, decoder.packetsPerFrame);
  Prbs prbs;
  // Blocks counted from 0; the generator restarts on the block with count 1 and runs on through the
  // sync positions, which are not XORed.
  for (int block = 0; block < 30; ++block) {
    std::vector<uint8_t> data(204, 0);
    Derandomise(data.data(), 204);
    if (block % 12 == 1) prbs.Reset();
    if (block == 1) {
      const uint8_t first[6] = {0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8};
      EXPECT_EQ(0, std::memcmp(first, data.data(), 6));
    }
    if (block >= 1) {
      for (int i = 0; i < 203; ++i) {
        ASSERT_EQ(prbs.NextByte(), data[i]) << "block " << block << " byte " << i;
      }
      prbs.NextByte();
    }
    EXPECT_EQ(0, data[203]);
  }
}

TEST_F(ByteStage, DerandomiserOnTheNullPacketExample) {
  SetUpMode1Qpsk(0);
  decoder.packetInFrame = 1;
  std::array<uint8_t, 204> packet{};
  packet[0] = 0x47, packet[1] = 0x1F, packet[2] = 0xFF, packet[3] = 0x10;
  std::fill(packet.begin() + 4, packet.begin() + 188, 0xFF);
  test::RsEncode(packet.data());
  // As a unit: the 203 bytes after the sync byte, then the sync byte.
  std::array<uint8_t, 204> unit;
  std::memcpy(unit.data(), packet.data() + 1, 203);
  unit[203] = 0x47;
  Derandomise(unit.data(), 204);
  const uint8_t head[3] = {0x1C, 0x09, 0x18};
  const uint8_t tail[16] = {0xDE, 0x20, 0x0F, 0x82, 0x4E, 0x91, 0x19, 0x4B, 0x65, 0x29, 0x2D, 0xF3, 0x0C, 0xD7, 0x45, 0x6C};
  EXPECT_EQ(0, std::memcmp(head, unit.data(), 3));
  EXPECT_EQ(0, std::memcmp(tail, unit.data() + 187, 16));
  EXPECT_EQ(0x47, unit[203]);
}

TEST_F(ByteStage, DeinterleaverUndoesTheForwardInterleaverElevenBlocksLate) {
  SetUpMode1Qpsk(0);
  Random random(3);
  ByteInterleaver forward;
  std::vector<std::vector<uint8_t>> sent;
  for (int block = 0; block < 40; ++block) {
    std::vector<uint8_t> in(204), air(204), out(204);
    for (auto& b : in) b = static_cast<uint8_t>(random.Next());
    for (int i = 0; i < 204; ++i) air[i] = forward.Push(in[i]);
    DeinterleaveBytes(air.data(), out.data());
    sent.push_back(in);
    if (block >= 11) {
      ASSERT_EQ(sent[static_cast<size_t>(block - 11)], out) << "block " << block;
    }
  }
}

// Mode 1, QPSK, rate 1/2: at the start-point symbol 8 bytes finish the first block and 4 open the next,
// which completes at the 17th symbol after it.
TEST_F(ByteStage, StartUpGateWaitsForTheDeinterleaverAndSymbolThree) {
  SetUpMode1Qpsk(1);  // depth 4: 380 symbols of start-up
  ASSERT_EQ(380, decoder.startupSymbols);
  std::memset(decoder.decodedBytes, 0, 12);
  engine.symbolIndex = 0;
  int symbol = 0;
  auto sink = [&]() {
    RunByteStage();
    engine.symbolIndex = (engine.symbolIndex + 1) % 204;
    ++symbol;
  };
  while (decoder.startupCount < decoder.startupSymbols) sink();
  EXPECT_EQ(380, symbol);
  EXPECT_EQ(380 % 204, engine.symbolIndex);  // 176: the gate waits for the next symbol 3
  while (engine.symbolIndex != 3) {
    sink();
    EXPECT_EQ(0, decoder.alignState);
  }
  sink();  // symbol 3: the start point
  EXPECT_EQ(1, decoder.alignState);
  EXPECT_EQ(1u, engine.ringWrite);
  EXPECT_EQ(4, decoder.assemblyFill);
  for (int k = 1; k <= 17; ++k) {
    sink();
    EXPECT_EQ(k < 17 ? 1u : 2u, engine.ringWrite) << k;
  }
}

// Mode 3, 64QAM, rate 7/8: 252 bytes per symbol; the start-point symbol finishes two blocks and keeps 40.
TEST_F(ByteStage, LargestSymbolCompletesTwoBlocks) {
  test::SetLayer(2, 3, 4, 0);
  ASSERT_EQ(1, SetUpDecoder());
  ASSERT_EQ(252, decoder.depuncturedLength / 16);
  engine.symbolIndex = 3;
  RunByteStage();
  EXPECT_EQ(2u, engine.ringWrite);
  EXPECT_EQ(40, decoder.assemblyFill);
}

// The whole byte stage on a stream made by the transmitter's recipe: the packets come out in order, with
// their sync byte in front and their parity intact, one frame (T packets) after they went in.
TEST_F(ByteStage, RecoversPacketsFromAnInterleavedScrambledStream) {
  SetUpMode1Qpsk(0);
  const int t = decoder.packetsPerFrame;  // 12
  Random random(9);
  // Transport packets j = 0.., RS-encoded.
  std::vector<std::array<uint8_t, 204>> packets(48);
  for (auto& p : packets) {
    for (int i = 0; i < 188; ++i) p[i] = static_cast<uint8_t>(random.Next());
    p[0] = 0x47;
    test::RsEncode(p.data());
  }
  // Units: bytes 1..203 then the sync byte, scrambled with a reset at every j = 0 mod T, behind T - 11
  // filler units, then byte-interleaved.
  std::vector<uint8_t> stream;
  ByteInterleaver forward;
  for (int f = 0; f < (t - 11) * 204; ++f) stream.push_back(forward.Push(static_cast<uint8_t>(random.Next())));
  Prbs prbs;
  for (size_t j = 0; j < packets.size(); ++j) {
    if (j % static_cast<size_t>(t) == 0) prbs.Reset();
    for (int i = 1; i < 204; ++i) stream.push_back(forward.Push(packets[j][i] ^ prbs.NextByte()));
    prbs.NextByte();
    stream.push_back(forward.Push(0x47));
  }
  // Symbols of 12 bytes, the decoder 8 bytes behind: the start-point symbol carries 8 older bytes.
  std::vector<uint8_t> decoded(8, 0xEE);
  decoded.insert(decoded.end(), stream.begin(), stream.end());
  engine.symbolIndex = 3;
  size_t at = 0;
  uint32_t drained = 0;
  int checked = 0;
  while (at + 12 <= decoded.size()) {
    std::memcpy(decoder.decodedBytes, decoded.data() + at, 12);
    at += 12;
    RunByteStage();
    engine.symbolIndex = (engine.symbolIndex + 1) % 204;
    // Block b (0 = the one that took the 8 bytes) holds transport packet b - T - 1.
    for (; drained < engine.ringWrite; ++drained) {
      const int b = static_cast<int>(drained);
      const int j = b - t - 1;
      if (j < 0) continue;
      const uint8_t* slot = Slot(drained + 1);
      ASSERT_EQ(0, std::memcmp(packets[static_cast<size_t>(j)].data(), slot, 204)) << "packet " << j;
      ++checked;
    }
  }
  EXPECT_GE(checked, 30);
}

TEST_F(ByteStage, PendingResetDropsPacketsButKeepsTheStreamMoving) {
  SetUpMode1Qpsk(0);
  engine.tsResetPhase = 2;
  engine.tsResetRequest = 1;
  engine.symbolIndex = 3;
  for (int s = 0; s < 40; ++s) RunByteStage();
  EXPECT_EQ(0u, engine.ringWrite);
  EXPECT_EQ(1, engine.tsResetRequest);
  // 196 + 40 * 12 = 676 bytes: three blocks done, 64 bytes held; the frame counter moved with them.
  EXPECT_EQ(64, decoder.assemblyFill);
  EXPECT_EQ(3, decoder.packetInFrame);
  engine.tsResetPhase = 3;
  for (int s = 0; s < 12; ++s) RunByteStage();  // 64 + 144 bytes: one more block
  EXPECT_EQ(1u, engine.ringWrite);
  EXPECT_EQ(0, engine.tsResetRequest);
}

}  // namespace
}  // namespace zfn
