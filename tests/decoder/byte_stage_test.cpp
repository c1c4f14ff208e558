// Byte stage: the derandomiser on the standard's example, the start-up gate, assembly into blocks and
// the reset phase. The inverse stages against the transmitter's forward ones, and the whole stage on
// the transmitter's stream, are in transmitter_chain_test.cpp.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "shell/device_state.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

class ByteStage : public ::testing::Test {
 protected:
  void SetUp() override {
    test::ResetEngineArena();
    SetUpTransportOutput();
    engine.tsResetPhase = 3;
    engine.tsResetRequest = 0;
    device.packetEvent.Close();
  }
  // Mode 1, QPSK, rate 1/2, no time interleaving: 12 decoded bytes per symbol, 12 packets per frame.
  void SetUpMode1Qpsk(uint8_t interleave) {
    test::SetLayer(0, 1, 0, interleave);
    ASSERT_EQ(1, SetUpDecoder());
  }
  const uint8_t* Slot(uint32_t k) { return engine.ringSlots + 204 * (k % 80); }
};

TEST_F(ByteStage, DerandomiserOnTheNullPacketExample) {
  SetUpMode1Qpsk(0);
  // The sequence from its start state, on the block with count 1.
  decoder.packetInFrame = 1;
  uint8_t zeros[204] = {};
  Derandomise(zeros, 204);
  const uint8_t first[6] = {0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8};
  EXPECT_EQ(0, std::memcmp(first, zeros, 6));
  EXPECT_EQ(0, zeros[203]);  // the sync position is not XORed
  EXPECT_EQ(2, decoder.packetInFrame);
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
