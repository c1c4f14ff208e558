// The ring of four blocks, the walk of symbols across block edges, the block state machine driven
// synchronously, the resync rule, the status functions and the debug command, all without threads
// or a sample source. (The assembly of reads of any length into blocks is checked through the
// reception thread in the lifecycle cases.)
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "shell/block_ring.h"
#include "shell/block_scheduler.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/engine_memory.h"
#include "shell/lifecycle.h"
#include "shell/receiver_state.h"
#include "shell/sync_driver.h"

namespace zfn {
namespace {

using Words = std::vector<int64_t>;  // several engine words compared at once

std::vector<uint8_t> Block(uint8_t tag) {
  std::vector<uint8_t> b(RAW_BLOCK_BYTES);
  for (int32_t i = 0; i < RAW_BLOCK_BYTES; ++i) b[i] = static_cast<uint8_t>(i * 7 + tag);
  b[0] = tag;
  return b;
}

// The tag of the block the state machine took last: byte 0 is the I of its first sample.
int64_t TakenTag() { return std::lround(engine.sampleBlock[0] * 128.0f) + 127; }

void Publish(uint8_t tag) { BlockRingPublish(std::vector<uint8_t>(RAW_BLOCK_BYTES, tag).data()); }
int Take() {
  std::vector<uint8_t> block(RAW_BLOCK_BYTES, 0);
  return BlockRingTakeNext(block.data()) ? block[RAW_BLOCK_BYTES - 1] : -1;
}

// Publishes blocks first..last, then takes until empty: the tags taken.
std::vector<int> PublishThenTake(uint8_t first, uint8_t last) {
  for (uint8_t tag = first; tag <= last; ++tag) Publish(tag);
  std::vector<int> taken;
  for (int t = Take(); t != -1; t = Take()) taken.push_back(t);
  return taken;
}

TEST(BlockRing, InOrderLapsAndTheJumpToTheNewest) {
  ASSERT_EQ(BlockRingAlloc(), 1);
  EXPECT_EQ(PublishThenTake(1, 2), (std::vector<int>{1, 2}));
  // Six blocks while the reader sleeps: the writer laps, the reader finds the newest two.
  EXPECT_EQ(PublishThenTake(3, 8), (std::vector<int>{7, 8}));
  EXPECT_EQ(blockRing.writeCount * 10 + blockRing.readCount, 84u);
  // A lap of exactly four looks empty until the next block.
  EXPECT_EQ(PublishThenTake(9, 12), std::vector<int>{});
  EXPECT_EQ(PublishThenTake(13, 13), std::vector<int>{13});
  // The jump takes the newest; the next block follows in order.
  for (uint8_t tag = 14; tag <= 16; ++tag) Publish(tag);
  std::vector<uint8_t> block(RAW_BLOCK_BYTES);
  BlockRingTakeNewest(block.data());
  EXPECT_EQ(block[0], 16);
  EXPECT_EQ(PublishThenTake(17, 17), std::vector<int>{17});
  // A lent block that the reader left goes into its slot before the lender's bytes go.
  std::vector<uint8_t> lent(RAW_BLOCK_BYTES, 18);
  BlockRingLend(lent.data());
  BlockRingEndLend();
  lent.assign(RAW_BLOCK_BYTES, 0);
  EXPECT_EQ(Take(), 18);
  BlockRingFree();
  EXPECT_EQ(BlockRingFree(), 1) << "safe twice";
  EXPECT_EQ(blockRing.slots[3], nullptr);
}

// Every float of a block holds its absolute position in the stream, so a symbol tells exactly
// where it was cut from: every symbol must be whole, each 2 N + 2 step floats after the last.
constexpr int32_t kNsymbol = 1056;  // Mode 3, guard 1/32
constexpr int32_t S = 2 * kNsymbol;
struct Walk {
  std::vector<float> buffer = std::vector<float>(S + 64, -1.0f);
  std::vector<int64_t> starts;
  std::vector<int32_t> steps;
  int broken = 0;
};
Walk* walk = nullptr;

void RecordSymbol() {
  const float* span = engine.symbolSpan;
  const float first = span[0];
  for (int32_t i = 1; i < S; ++i) {
    if (span[i] != first + static_cast<float>(i)) {
      ++walk->broken;
      break;
    }
  }
  walk->starts.push_back(static_cast<int64_t>(first));
  engine.timingStep = walk->steps[(walk->starts.size() - 1) % walk->steps.size()];
}

// Two walks: one where 56 symbols fill the first block to its last float (the last takes the
// straddle path with nothing to append, and comes first in the next block), then random steps of
// -16..16 samples over 30 block edges; and one where symbol 10 straddles with only 4 floats in the
// next block and a step of -4 samples puts symbol 11's start in the previous block, built from the
// held tail.
TEST(SymbolWalk, AcrossBlockEdgesEverySymbolIsWholeAndFollowsTheSteps) {
  std::vector<float> samples(BLOCK_FLOATS);
  std::mt19937 rng(7);
  for (const int64_t first : {int64_t{BLOCK_FLOATS} - 56 * S, int64_t{BLOCK_FLOATS} - (S - 4) - 10 * S}) {
    const bool straddleCase = first != BLOCK_FLOATS - 56 * S;
    Walk w;
    walk = &w;
    w.steps.assign(straddleCase ? 12 : 4000, 0);
    for (size_t k = 56; k < w.steps.size(); ++k) w.steps[k] = rng() % 3 == 0 ? static_cast<int32_t>(rng() % 33) - 16 : 0;
    if (straddleCase) w.steps[10] = -4, w.steps[11] = 3;
    engine.sampleBlock = samples.data();
    engine.symbolBuffer = w.buffer.data();
    engine.nsymbol = engine.nwork = kNsymbol;
    engine.straddleFlag = engine.straddleFloats = engine.timingStep = engine.symbolIndex = engine.spPhase = 0;
    engine.readPos = static_cast<int32_t>(first);
    symbolStepHandler = RecordSymbol;
    for (int64_t block = 0; block < (straddleCase ? 3 : 30); ++block) {
      for (int32_t i = 0; i < BLOCK_FLOATS; ++i) samples[i] = static_cast<float>(block * BLOCK_FLOATS + i);
      WalkSymbols();
      if (block > 0) continue;
      EXPECT_EQ(w.starts.size(), straddleCase ? 10u : 55u) << "the straddling symbol waits for the next block";
      EXPECT_EQ(engine.straddleFlag, 1);
      EXPECT_EQ(engine.straddleFloats, straddleCase ? S - 4 : S);
    }
    symbolStepHandler = SymbolStep;
    engine.sampleBlock = engine.symbolBuffer = nullptr;
    EXPECT_EQ(w.broken, 0);
    ASSERT_GT(w.starts.size(), straddleCase ? 60u : 1650u);
    EXPECT_EQ(w.starts[straddleCase ? 11 : 56], straddleCase ? BLOCK_FLOATS - 4 : BLOCK_FLOATS);
    int64_t expected = first;
    for (size_t k = 0; k < w.starts.size(); expected += S + 2 * w.steps[k % w.steps.size()], ++k)
      ASSERT_EQ(w.starts[k], expected) << "symbol " << k;
  }
}

// Scripted stand-ins for the acquisition stages and set-ups, so that the state machine is tested
// on its own, whatever the real stages make of the test blocks.
struct StageScript {
  std::vector<std::string> calls;
  std::vector<std::pair<int32_t, int32_t>> frameSync;  // result, tmccAccepted; then 0 for ever
  size_t frameSyncNext = 0;
  std::vector<float> symbolBuffer;
  int symbols = 0;
  int resyncAtSymbol = -1;
};
StageScript script;

int32_t ScriptedFrameSync() {
  script.calls.push_back("frame");
  if (script.frameSyncNext >= script.frameSync.size()) return 0;
  const auto [result, accepted] = script.frameSync[script.frameSyncNext++];
  engine.tmccAccepted = accepted;
  return result;
}
void ScriptedTracking() {
  script.calls.push_back("tracking");
  engine.nsymbol = 1056;
  engine.nwork = 1056;
  script.symbolBuffer.assign(2 * 1056, 0.0f);
  engine.symbolBuffer = script.symbolBuffer.data();
  engine.readPos = 0;
  engine.timingStep = 0;
}

class SyncEngine : public testing::Test {
 protected:
  void SetUp() override {
    script = StageScript{};
    blockStages = {[] { script.calls.push_back("detect"); }, [] { script.calls.push_back("coarse"); },
                   ScriptedFrameSync, ScriptedTracking, [] {
                     script.calls.push_back("decoder");
                     return int32_t{1};
                   }};
    symbolStepHandler = [] {
      if (script.symbols++ == script.resyncAtSymbol) engine.resyncRequest = 1;
    };
    ASSERT_EQ(SyncDriverOpen(nullptr, nullptr), 1);
  }
  void TearDown() override {
    SyncDriverClose();
    blockStages = STAGE_ENTRY_POINTS;
    symbolStepHandler = SymbolStep;
    controlBlock.tuningNow = 0;
    engine.symbolBuffer = nullptr;
  }
  static void Feed(uint8_t tag) {
    const auto b = Block(tag);
    ASSERT_EQ(SyncDriverFeed(b.data(), b.size()), 1);
  }
  static void FeedFrom(uint8_t first, uint8_t last) {
    for (uint8_t tag = first; tag <= last; ++tag) Feed(tag);
  }
};

// Blocks pile up in the ring while the thread is away, then a retune arrives: nothing is consumed
// while the tuner changes, then the state machine jumps to the newest block and tells the packet
// stage to start over. A failed TMCC restarts on the same newest block.
TEST_F(SyncEngine, ARetuneJumpsToTheNewestBlockButNotWhileTheTunerChanges) {
  for (uint8_t tag = 1; tag <= 3; ++tag) BlockRingPublish(Block(tag).data());
  SyncDriverRetune();
  controlBlock.tuningNow = 1;
  ProcessPendingBlocks();
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);
  EXPECT_NE(blockRing.readIndex, blockRing.writeIndex);
  EXPECT_EQ(controlBlock.retuneRequest, 1) << "the request waits for the tuner";
  SyncDriverRetune();  // clears tuningNow with the new request
  ProcessPendingBlocks();
  EXPECT_EQ(blockRing.readCount, blockRing.writeCount);
  // The newest block, exactly one handled, and the packet stage starts over.
  EXPECT_EQ(Words({TakenTag(), engine.blockState, engine.tsResetPhase, engine.tsResetRequest}),
            Words({3, BLOCK_COARSE_SYNC, TS_RESET_PENDING, 1}));
  BlockRingPublish(Block(4).data());
  ProcessPendingBlocks();
  EXPECT_EQ(engine.blockState, BLOCK_FRAME_SYNC);
  engine.tmccFailed = 1;
  engine.tsResetPhase = TS_RING_OPEN;
  ProcessPendingBlocks();  // no new block: the jump path takes the newest again
  EXPECT_EQ(Words({TakenTag(), engine.tmccFailed, engine.blockState, engine.tsResetPhase}),
            Words({4, 0, BLOCK_COARSE_SYNC, TS_RESET_PENDING}));
}

// Before the first retune blocks are taken but not handled. Then one state per block; an accepted
// TMCC leads through the set-ups to tracking, where a resync hands back the clock correction and
// restarts on the same block; a rejected TMCC is a sink until the next retune.
TEST_F(SyncEngine, AcceptedTmccTracksUntilAResyncAndARejectedOneIsASinkUntilTheNextRetune) {
  debugParaBlock.SetInt(5, 77);
  Feed(1);
  EXPECT_EQ(SyncDriverBlockState(), BLOCK_IDLE);
  EXPECT_EQ(debugParaBlock.Int(5), 77) << "idle blocks are not even converted";
  script.frameSync = {{0, 0}, {1, 1}, {1, 0}};
  SyncDriverRetune();
  EXPECT_EQ(std::make_pair(debugParaBlock.Int(5), debugParaBlock.Float(11)), std::make_pair(-1, -1.0f));
  FeedFrom(2, 5);
  EXPECT_EQ(script.calls, (std::vector<std::string>{"detect", "coarse", "frame", "frame", "tracking", "decoder"}));
  EXPECT_EQ(debugParaBlock.Int(5), BLOCK_TRACKING);
  EXPECT_EQ(SignalPresentStatus(), 1);
  EXPECT_EQ(script.symbols, 0) << "tracking starts with the block after the set-ups";
  Feed(6);
  EXPECT_EQ(script.symbols, 56) << "the 57th symbol straddles into the next block";
  EXPECT_EQ(engine.straddleFlag, 1);

  script.resyncAtSymbol = 60;
  engine.clockWritePending = 1;
  engine.tsResetPhase = TS_RING_OPEN;
  script.calls.clear();
  BlockRingPublish(Block(7).data());  // one pass of the demodulation thread
  ProcessPendingBlocks();
  EXPECT_EQ(engine.clockWritePending, 0) << "the sample clock correction was handed back";
  EXPECT_EQ(script.calls, std::vector<std::string>{"detect"});
  EXPECT_EQ(Words({TakenTag(), engine.resyncRequest, engine.blockState, engine.tsResetPhase}),
            Words({7, 0, BLOCK_COARSE_SYNC, TS_RESET_PENDING}));

  FeedFrom(8, 9);
  EXPECT_EQ(engine.blockState, BLOCK_NO_SIGNAL);
  EXPECT_EQ(SignalPresentStatus(), -1);
  const size_t callsBefore = script.calls.size();
  FeedFrom(10, 11);
  EXPECT_EQ(script.calls.size(), callsBefore) << "no stage runs on an unreceivable channel";
  SyncDriverRetune();
  Feed(12);
  EXPECT_EQ(engine.blockState, BLOCK_COARSE_SYNC);
}

TEST(SymbolStepRule, ResyncFollowsTheDecodeStageUnlessSwitchedOff) {
  struct Case {
    int32_t stage;
    int8_t earlyFail, snrFailed, streamFail;
    int32_t autoResync, expected;
  };
  engine.symbolIndex = 203;
  engine.spPhase = 3;
  for (const Case& c : {Case{DECODE_SCAN, 1, 1, 1, 1, 0}, {DECODE_EARLY, 0, 0, 1, 1, 0}, {DECODE_EARLY, 1, 0, 0, 1, 1}, {DECODE_EARLY, 0, 1, 0, 1, 1},
                        {DECODE_STREAM, 1, 1, 0, 1, 0}, {DECODE_STREAM, 0, 0, 1, 1, 1}, {DECODE_STREAM, 0, 0, 1, 0, 0}, {DECODE_EARLY, 1, 1, 0, 0, 0}}) {
    engine.decodeStage = c.stage;
    engine.earlyFailMark = c.earlyFail;
    engine.snrFailed = c.snrFailed;
    engine.streamFailMark = c.streamFail;
    engine.autoResync = c.autoResync;
    FinishSymbol();
    EXPECT_EQ(engine.resyncRequest, c.expected) << "stage " << c.stage;
  }
  EXPECT_EQ(engine.symbolIndex, (203 + 8) % 204);
  EXPECT_EQ(engine.spPhase, (3 + 8) % 4);
  engine.decodeStage = DECODE_SCAN;
  engine.earlyFailMark = engine.snrFailed = engine.streamFailMark = 0;
  engine.resyncRequest = 0;
  engine.autoResync = 1;
}

// --- Status functions and the debug command ----------------------------------------------------

TEST(Status, PresentLockAndQuality) {
  // Not sure: present leaves the caller's word untouched, lock writes 0.
  int32_t present = 55, locked = 55;
  for (const auto& [state, result, word] : {std::tuple{BLOCK_FRAME_SYNC, 0, 55}, {BLOCK_NO_SIGNAL, 1, 0},
                                            {BLOCK_TRACKING, 1, 1}}) {
    engine.blockState = state;
    EXPECT_EQ(GetSignalPresent(&present), result);
    EXPECT_EQ(present, word) << state;
  }
  engine.blockState = BLOCK_FRAME_SYNC;
  EXPECT_EQ(Words({GetSignalLock(&locked), locked}), Words({0, 0}));
  EXPECT_EQ(GetSignalPresent(nullptr) + GetSignalLock(nullptr) + GetSignalQuality(nullptr), 0);

  struct LockCase {
    int32_t state, stage, anyGood, goodRun, badRun, expected;
  };
  for (const LockCase& c : {LockCase{BLOCK_TRACKING, DECODE_EARLY, 0, 0, 0, 0}, {BLOCK_TRACKING, DECODE_EARLY, 1, 0, 0, 1},
                            {BLOCK_TRACKING, DECODE_STREAM, 1, 2, 2, 1}, {BLOCK_TRACKING, DECODE_STREAM, 1, 1, 2, 0},
                            {BLOCK_TRACKING, DECODE_STREAM, 1, 1, 20, -1}, {BLOCK_TRACKING, DECODE_STREAM, 1, 1, 19, 0},
                            {BLOCK_FRAME_SYNC, DECODE_STREAM, 1, 5, 0, 0}}) {
    engine.blockState = c.state;
    engine.decodeStage = c.stage;
    engine.anyGoodMark = c.anyGood;
    engine.goodFrameRun = c.goodRun;
    engine.badFrameRun = c.badRun;
    EXPECT_EQ(SignalLockStatus(), c.expected) << c.state << " " << c.stage << " " << c.goodRun << " " << c.badRun;
  }

  // Quality thresholds are strict, and count only while tracking.
  for (const auto& [state, snr, quality] :
       {std::tuple{BLOCK_TRACKING, -3.0f, 0}, {BLOCK_TRACKING, 6.0f, 0}, {BLOCK_TRACKING, 6.000001f, 20},
        {BLOCK_TRACKING, 8.0f, 20}, {BLOCK_TRACKING, 8.5f, 40}, {BLOCK_TRACKING, 10.0f, 40}, {BLOCK_TRACKING, 12.0f, 60},
        {BLOCK_TRACKING, 15.0f, 60}, {BLOCK_TRACKING, 15.5f, 80}, {BLOCK_TRACKING, 20.0f, 80},
        {BLOCK_TRACKING, 20.01f, 100}, {BLOCK_FRAME_SYNC, 30.0f, 0}}) {
    engine.blockState = state;
    engine.snrDb = snr;
    int32_t q = -1;
    EXPECT_EQ(GetSignalQuality(&q), 1);
    EXPECT_EQ(q, quality) << snr;
  }
  engine.blockState = BLOCK_IDLE;
  engine.snrDb = 0.0f;
  for (auto* word : {&engine.decodeStage, &engine.goodFrameRun, &engine.badFrameRun}) *word = 0;
  engine.anyGoodMark = 0;
}

TEST(DebugCommand, CommandsAndTheirValues) {
  // Unknown commands fail; 3 takes 0 and 1 only; 7 and 9 switch on with 1 only.
  for (const auto& [command, value, result] : {std::tuple{2, 0, 0}, {4, 1, 0}, {10, 1, 0}, {3, 5, 1}, {7, 0, 1},
                                               {9, 0, 1}, {8, -12, 1}}) {
    EXPECT_EQ(DebugCommand(command, value), result) << command;
  }
  EXPECT_EQ(Words({engine.paramReloadRequest, engine.autoResync, engine.rsDecoderFull}), Words({0, 0, 0}));
  EXPECT_EQ(DebugCommand(7, 3) + DebugCommand(9, 1), 2);
  EXPECT_EQ(Words({engine.autoResync, engine.rsDecoderFull}), Words({0, 1}));
  EXPECT_EQ(DebugCommand(7, 1), 1);
  EXPECT_EQ(Words({engine.autoResync, engine.forcedCarrierOffset}), Words({1, -12}));
  // The forced carrier offset is kept over open; the switches are set again.
  engine.autoResync = 0;
  engine.rsDecoderFull = 0;
  ASSERT_EQ(EngineInit(), 1);
  EXPECT_EQ(engine.arenaFree, WORK_ARENA_BYTES - 40384) << "the packet stage's two buffers";
  EXPECT_EQ(Words({engine.forcedCarrierOffset, engine.autoResync, engine.rsDecoderFull}), Words({-12, 1, 1}));
  EngineFree();
  EXPECT_EQ(DebugCommand(8, -46) + DebugCommand(5, 2), 2);
  EXPECT_EQ(device.simulationMode, 2);
  EXPECT_EQ(DebugCommand(5, 0), 1);

  int32_t* p = reinterpret_cast<int32_t*>(&p);
  int32_t words[12] = {};
  EXPECT_EQ(DebugGetParaPtr(&p), 0) << "closed";
  EXPECT_EQ(p, reinterpret_cast<int32_t*>(&p));
  EXPECT_EQ(DebugGetParaValue(words) + DebugGetParaPtr(nullptr) + DebugGetParaValue(nullptr), 0);
}

}  // namespace
}  // namespace zfn
