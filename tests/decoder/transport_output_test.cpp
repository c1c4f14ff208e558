// Packet thread: the reset handshake with its two resets (and the byte stage under a pending reset),
// the moving rates and the statistics period, and the lock judgement by decode stage. Delivery of
// the whole stream through the ring is proven end to end, the threads handing it over by the
// simulated host and the ThreadSanitizer lifecycle cases.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "decoder/reed_solomon.h"
#include "shell/device_state.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tests/decoder/decoder_test_support.h"

namespace zfn {
namespace {

using Packet = std::array<uint8_t, 204>;
using Words = std::vector<int64_t>;  // several engine words compared at once

std::vector<std::vector<uint8_t>> delivered;
void (*duringCallback)() = nullptr;

void Receive(const uint8_t* data, int32_t length) {
  delivered.emplace_back(data, data + length);
  if (duringCallback != nullptr) duringCallback();
}

class TransportOutput : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(1, BuildRsTables()); }
  static void TearDownTestSuite() { FreeRsTables(); }

  void SetUp() override {
    test::ResetEngineArena();
    SetUpTransportOutput();
    engine.rsDecoderFull = 1;
    engine.decodeStage = DECODE_STREAM;
    engine.symbolCount = 0;
    engine.statFrames = 4;
    engine.packetLogStream = nullptr;
    device.packetEvent.Close();
    device.tsCallback = Receive;
    delivered.clear();
    duringCallback = nullptr;
  }

  // G a good packet, B one beyond correction, 1..9 one with that many byte errors.
  Packet Make(char kind) {
    Packet p;
    for (int i = 0; i < 188; ++i) p[i] = static_cast<uint8_t>(random.Next());
    p[0] = 0x47;
    test::RsEncode(p.data());
    const int errors = kind == 'G' ? 0 : kind == 'B' ? 30 : kind - '0';
    for (int k = 0; k < errors; ++k) p[static_cast<size_t>(1 + 6 * k)] ^= static_cast<uint8_t>(0x11 + k);
    return p;
  }
  // What the demodulation thread does with a finished block.
  static void Write(const Packet& p) {
    std::memcpy(decoder.stagedPacket, p.data(), 204);
    HandOverPacket();
  }
  // Each packet written and drained on its own.
  void Feed(const std::string& kinds) {
    for (char kind : kinds) {
      Write(Make(kind));
      DrainPacketRing();
    }
  }

  test::Random random{77};
};

TEST_F(TransportOutput, ResetHandshakeWithBothResets) {
  // Load time: a reset is requested. The first drain does reset A and nothing else.
  ASSERT_EQ(1, engine.tsResetRequest);
  engine.streamFailMark = 1;
  engine.goodFrameRun = 5;
  engine.failsThisSecond = 3;
  DrainPacketRing();
  // The request stays until the next ring write.
  EXPECT_EQ(Words({engine.streamFailMark, engine.goodFrameRun, engine.failsThisSecond, engine.tsResetPhase, engine.tsResetRequest}),
            Words({0, 0, -1, 3, 1}));

  // The next ring write clears the request; from then on packets flow, from slot 1.
  Write(Make('G'));
  EXPECT_EQ(Words({engine.tsResetRequest, engine.ringWrite}), Words({0, 1}));
  Write(Make('G'));
  DrainPacketRing();
  EXPECT_EQ(Words({engine.ringRead, engine.tsOutputFill, engine.goodFrameRun}), Words({2, 2, 2}));

  // A restart: phase 2 and a request; ring writes stop, the drain resets and reopens the ring.
  engine.tsResetPhase = TS_RESET_PENDING;
  engine.tsResetRequest = 1;
  Write(Make('G'));
  EXPECT_EQ(2u, engine.ringWrite);
  DrainPacketRing();
  EXPECT_EQ(Words({engine.ringWrite, engine.tsOutputFill, engine.tsResetPhase}), Words({0, 0, 3}));

  // A request that arrives during a drain: reset B keeps the stream-failure mark, and the next wake-up
  // (reset A) clears it.
  Feed("G");
  engine.streamFailMark = 1;
  engine.tsOutputFill = 127;
  duringCallback = [] {
    engine.tsResetPhase = TS_RESET_PENDING;
    engine.tsResetRequest = 1;
  };
  for (int k = 0; k < 5; ++k) Write(Make('G'));
  DrainPacketRing();
  ASSERT_EQ(1u, delivered.size());
  // The four unread packets are gone.
  EXPECT_EQ(Words({engine.streamFailMark, engine.goodFrameRun, engine.ringRead, engine.ringWrite, engine.tsResetPhase}),
            Words({1, 0, 0, 0, 3}));
  DrainPacketRing();
  EXPECT_EQ(0, engine.streamFailMark);
}

// Mode 1, QPSK, rate 1/2 (12 decoded bytes per symbol) under a pending restart: the byte stage drops
// its blocks but keeps assembling and counting the frame; at phase 3 the next block clears the request.
TEST_F(TransportOutput, PendingResetDropsBlocksButTheByteStageMovesOn) {
  test::SetLayer(0, 1, 0, 0);
  ASSERT_EQ(1, SetUpDecoder());
  engine.tsResetPhase = TS_RESET_PENDING;
  engine.tsResetRequest = 1;
  engine.symbolIndex = 3;  // the start point: 8 bytes finish the first block
  for (int s = 0; s < 40; ++s) RunByteStage();
  // 196 + 40 * 12 = 676 bytes: three blocks done, 64 bytes held; the frame counter moved with them.
  EXPECT_EQ(Words({engine.ringWrite, engine.tsResetRequest, decoder.assemblyFill, decoder.packetInFrame}), Words({0, 1, 64, 3}));
  engine.tsResetPhase = TS_RING_OPEN;
  for (int s = 0; s < 12; ++s) RunByteStage();  // 64 + 144 bytes: one more block
  EXPECT_EQ(Words({engine.ringWrite, engine.tsResetRequest}), Words({1, 0}));
}

// Packet error rate x0.95 (+0.05 unless clean), fail rate x0.95 (+0.05 on failure), byte error rate
// x0.9 plus 0.1 of the corrected share of 188 bytes, 0.004 on failure. On the light path (parity
// check only) a wrong packet is passed on as it is and counts as a failure.
TEST_F(TransportOutput, RatesMoveByResultAndStatisticsPeriod) {
  engine.tsResetRequest = 0;
  engine.packetErrorRate = 0.5f;
  engine.packetFailRate = 0.25f;
  engine.byteErrorRate = 0.125f;
  const struct {
    char kind;
    int32_t full;
    double perAdd, pfrAdd, berAdd;
  } steps[] = {{'G', 1, 0, 0, 0}, {'3', 1, 0.05, 0, 3 / 188.0 * 0.1}, {'B', 1, 0.05, 0.05, 0.004}, {'1', 0, 0.05, 0.05, 0.004}};
  for (const auto& step : steps) {
    engine.rsDecoderFull = step.full;
    const double per = engine.packetErrorRate, pfr = engine.packetFailRate, ber = engine.byteErrorRate;
    Feed(std::string(1, step.kind));
    EXPECT_EQ(static_cast<float>(per * 0.95 + step.perAdd), engine.packetErrorRate) << step.kind;
    EXPECT_EQ(static_cast<float>(pfr * 0.95 + step.pfrAdd), engine.packetFailRate) << step.kind;
    EXPECT_EQ(static_cast<float>(ber * 0.9 + step.berAdd), engine.byteErrorRate) << step.kind;
  }
  EXPECT_EQ(0, std::memcmp(engine.rsWork, engine.rsRaw, 204));

  // Statistics period: a first period end of 0 against a symbol count of many periods gives one
  // period per packet, with the count zeroed at each, until the end passes the symbol count.
  engine.rsDecoderFull = 1;
  engine.statNextSymbol = 0;
  engine.symbolCount = 3000;  // periods of 4 * 204 = 816 symbols
  Feed("BBB");
  EXPECT_EQ(Words({engine.statNextSymbol, engine.failsThisSecond}), Words({3 * 816, 0}));
  Feed("B");  // the bad packet on the boundary is not counted
  EXPECT_EQ(Words({engine.statNextSymbol, engine.failsThisSecond}), Words({4 * 816, 0}));
  Feed("BGBB");
  EXPECT_EQ(Words({engine.statNextSymbol, engine.failsThisSecond}), Words({4 * 816, 3}));
  // With no callback a full block is dropped.
  device.tsCallback = nullptr;
  engine.tsOutputFill = 127;
  Feed("G");
  EXPECT_EQ(0, engine.tsOutputFill);
}

// The lock judgement, one packet kind string at a time. Decode stage 1: the early count stops at
// 40, and fewer than two good among them send the engine back (the early mark) while the lock
// status says locked (any good). Stage 2: until ten good packets have been seen bad ones
// accumulate; one good at a good run of 10 or more ends a bad run; 40 bad in a row raise the
// stream mark and zero the good run, ten good in a row clear it. Stage 0: the runs stand still.
TEST_F(TransportOutput, LockJudgementByDecodeStage) {
  const struct {
    int stage;
    std::string feed;
    int early, earlyCount, earlyGood, good, bad, streamMark;  // -1: not checked
  } steps[] = {
      {DECODE_EARLY, std::string(39, 'B'), 0, 39, 0, -1, -1, -1}, {DECODE_EARLY, "G", 1, 40, 1, -1, -1, -1}, {DECODE_EARLY, "GG", 1, 40, 1, 0, -1, -1},
      {DECODE_SCAN, "BG", -1, -1, -1, 0, 0, -1},                 {DECODE_STREAM, "BBGB", -1, -1, -1, 1, 3, 0},  {DECODE_STREAM, std::string(9, 'G'), -1, -1, -1, 10, 0, 0},
      {DECODE_STREAM, std::string(39, 'B'), -1, -1, -1, -1, 39, 0}, {DECODE_STREAM, "G", -1, -1, -1, -1, 0, 0}, {DECODE_STREAM, std::string(40, 'B'), -1, -1, -1, 0, -1, 1},
      {DECODE_STREAM, std::string(9, 'G'), -1, -1, -1, 9, -1, 1},   {DECODE_STREAM, "G", -1, -1, -1, 10, 0, 0},
  };
  engine.tsResetRequest = 0;
  for (const auto& s : steps) {
    SCOPED_TRACE(::testing::Message() << "stage " << s.stage << " after " << s.feed);
    engine.decodeStage = s.stage;
    Feed(s.feed);
    for (const auto& [want, got] : {std::pair{s.early, +engine.earlyFailMark}, std::pair{s.earlyCount, +engine.earlyPacketCount},
                                    std::pair{s.earlyGood, +engine.earlyGoodCount}, std::pair{s.good, +engine.goodFrameRun},
                                    std::pair{s.bad, +engine.badFrameRun}, std::pair{s.streamMark, +engine.streamFailMark}})
      if (want != -1) {
        EXPECT_EQ(want, got);
      }
  }
  EXPECT_EQ(1, engine.anyGoodMark);
  // Two good among the first 40 keep the early mark down.
  SetUp();
  engine.tsResetRequest = 0;
  engine.decodeStage = DECODE_EARLY;
  Feed("GG" + std::string(38, 'B'));
  EXPECT_EQ(0, engine.earlyFailMark);
}

}  // namespace
}  // namespace zfn
