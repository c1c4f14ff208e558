// The block state machine driven synchronously, the resync rule, the status functions and the
// debug command, all without threads or a sample source.
#include <gtest/gtest.h>

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
#include "shell/sync_driver.h"

namespace zfn {
namespace {

std::vector<uint8_t> Block(uint8_t tag) {
  std::vector<uint8_t> b(RAW_BLOCK_BYTES);
  for (int32_t i = 0; i < RAW_BLOCK_BYTES; ++i) b[i] = static_cast<uint8_t>(i * 7 + tag);
  b[0] = tag;
  return b;
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
  EXPECT_EQ(engine.rawBlock[0], 3);
  EXPECT_EQ(blockRing.readCount, blockRing.writeCount);
  EXPECT_EQ(engine.blockState, BLOCK_COARSE_SYNC) << "exactly one block handled";
  EXPECT_EQ(engine.tsResetPhase * 10 + engine.tsResetRequest, 21) << "the packet stage starts over";
  BlockRingPublish(Block(4).data());
  ProcessPendingBlocks();
  EXPECT_EQ(engine.blockState, BLOCK_FRAME_SYNC);
  engine.tmccFailed = 1;
  engine.tsResetPhase = 3;
  ProcessPendingBlocks();  // no new block: the jump path takes the newest again
  EXPECT_EQ(engine.rawBlock[0], 4);
  EXPECT_EQ(engine.tmccFailed, 0);
  EXPECT_EQ(engine.blockState, BLOCK_COARSE_SYNC);
  EXPECT_EQ(engine.tsResetPhase, 2);
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
  EXPECT_EQ(debugParaBlock.Int(5), -1);
  EXPECT_EQ(debugParaBlock.Float(11), -1.0f);
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
  engine.tsResetPhase = 3;
  script.calls.clear();
  BlockRingPublish(Block(7).data());  // one pass of the demodulation thread
  ProcessPendingBlocks();
  EXPECT_EQ(engine.clockWritePending, 0) << "the sample clock correction was handed back";
  EXPECT_EQ(script.calls, std::vector<std::string>{"detect"});
  EXPECT_EQ(engine.rawBlock[0], 7);
  EXPECT_EQ(engine.resyncRequest, 0);
  EXPECT_EQ(engine.blockState, BLOCK_COARSE_SYNC);
  EXPECT_EQ(engine.tsResetPhase, 2);

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
  for (const Case& c : {Case{0, 1, 1, 1, 1, 0}, {1, 0, 0, 1, 1, 0}, {1, 1, 0, 0, 1, 1}, {1, 0, 1, 0, 1, 1},
                        {2, 1, 1, 0, 1, 0}, {2, 0, 0, 1, 1, 1}, {2, 0, 0, 1, 0, 0}, {1, 1, 1, 0, 0, 0}}) {
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
  engine.decodeStage = 0;
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
  EXPECT_EQ(GetSignalLock(&locked), 0);
  EXPECT_EQ(locked, 0);
  EXPECT_EQ(GetSignalPresent(nullptr) + GetSignalLock(nullptr) + GetSignalQuality(nullptr), 0);

  struct LockCase {
    int32_t state, stage, anyGood, goodRun, badRun, expected;
  };
  for (const LockCase& c : {LockCase{BLOCK_TRACKING, 1, 0, 0, 0, 0}, {BLOCK_TRACKING, 1, 1, 0, 0, 1},
                            {BLOCK_TRACKING, 2, 1, 2, 2, 1}, {BLOCK_TRACKING, 2, 1, 1, 2, 0},
                            {BLOCK_TRACKING, 2, 1, 1, 20, -1}, {BLOCK_TRACKING, 2, 1, 1, 19, 0},
                            {BLOCK_FRAME_SYNC, 2, 1, 5, 0, 0}}) {
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
  EXPECT_EQ(engine.paramReloadRequest, 0);
  EXPECT_EQ(engine.autoResync + engine.rsDecoderFull, 0);
  EXPECT_EQ(DebugCommand(7, 3) + DebugCommand(9, 1), 2);
  EXPECT_EQ(engine.autoResync, 0);
  EXPECT_EQ(engine.rsDecoderFull, 1);
  EXPECT_EQ(DebugCommand(7, 1), 1);
  EXPECT_EQ(engine.autoResync, 1);
  EXPECT_EQ(engine.forcedCarrierOffset, -12);
  // The forced carrier offset is kept over open; the switches are set again.
  engine.autoResync = 0;
  engine.rsDecoderFull = 0;
  ASSERT_EQ(EngineInit(), 1);
  EXPECT_EQ(engine.arenaFree, WORK_ARENA_BYTES - 40384) << "the packet stage's two buffers";
  EXPECT_EQ(engine.forcedCarrierOffset, -12);
  EXPECT_EQ(engine.autoResync + engine.rsDecoderFull, 2);
  EngineFree();
  EXPECT_EQ(DebugCommand(8, -46), 1);
  EXPECT_EQ(DebugCommand(5, 2), 1);
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
