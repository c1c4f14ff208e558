// Diagnostics inside the engine, where a host run cannot point at the fault. Capture of raw blocks to
// "BBStore" files: the bytes against the blocks fed, numbering over stops, starts and failed starts,
// the stop paths, and the refinement's report of a lost block or a failed write. The probe: the
// engine's fill of a record of our own (rewind, carriers with the QPSK scaling undone, the
// once-a-frame values, the timing step list, and the guards), and debug command 1 against the test
// build of the plotting bridge (found by plain name through LD_LIBRARY_PATH).
#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <mutex>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "shell/capture.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/matlab_probe.h"
#include "shell/probe_bridge.h"
#include "shell/receiver_state.h"
#include "shell/shell_fields.h"
#include "tests/diagnostics/diagnostics_support.h"
#include "tests/support/common/probe_arrays.h"
#include "tests/support/test_bridge/test_bridge_control.h"
#include "tracking/probe_fill.h"

namespace zfn {
namespace {

using zfn_test::ReadText;
using zfn_test::WaitFor;

std::string CaptureName(int32_t number) { return "BBStore" + std::to_string(number); }

// A block whose every byte depends on the block number and the position.
std::string PatternBlock(uint32_t block) {
  std::string bytes(RAW_BLOCK_BYTES, '\0');
  for (int32_t i = 0; i < RAW_BLOCK_BYTES; ++i) bytes[i] = static_cast<char>(i * 7 + block * 31 + (i >> 9));
  return bytes;
}

int OpenDescriptors() {
  int n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

void FeedBlock(const std::string& block) { CaptureFeed(reinterpret_cast<const uint8_t*>(block.data())); }

class Capture : public ::testing::Test {
 protected:
  void TearDown() override {
    StopCapture();
    device.running = 0;
    captureOn = 0;
    CaptureRingFree();
  }
  // Feeds `count` blocks as reception does and waits for the writer to catch up, as a disk that
  // keeps up would.
  void Feed(int32_t count, std::string& into) {
    for (int32_t i = 0; i < count; ++i, ++fed_) {
      const std::string block = PatternBlock(fed_);
      FeedBlock(block);
      into += block;
    }
    ASSERT_TRUE(WaitFor([&] { return capture.captureRead.load() == into.size() / RAW_BLOCK_BYTES; }, 2000));
  }
  zfn_test::ScratchDirectory scratch_;
  uint32_t fed_ = 0;
};

// File 0 holds the blocks fed byte for byte; a start without a stop replaces the capture (file 1);
// a close while capturing ends the thread by itself (file 2). Then the number advances when a later
// step of the start fails, but not when the file does not open; every file is closed in the end.
TEST_F(Capture, FilesHoldTheBlocksFedAndAreNumberedOverStopsStartsAndFailedStarts) {
  ASSERT_EQ(CaptureRingAlloc(), 1);
  const int descriptors = OpenDescriptors();
  device.running = 1;
  FeedBlock(PatternBlock(99));  // capture off: reception's feed does nothing
  EXPECT_EQ(capture.captureWritten.load(), 0u);
  std::string files[2];
  ASSERT_EQ(StartCapture(), 1);
  for (int32_t i = 0; i < 7; ++i) Feed(1, files[0]);
  for (int32_t i = 0; i < 3; ++i) Feed(3, files[0]);  // bursts of what the ring holds
  EXPECT_EQ(capture.captureWritten.load(), 16u);
  ASSERT_EQ(StartCapture(), 1);
  Feed(1, files[1]);
  EXPECT_EQ(StopCapture(), 1);
  FeedBlock(PatternBlock(99));  // after the stop the feed does nothing again
  EXPECT_EQ(capture.captureWritten.load(), 1u);
  ASSERT_EQ(StartCapture(), 1);
  device.running = 0;  // a close: running and the capture switch drop, the ring goes
  captureOn = 0;
  CaptureRingFree();
  EXPECT_TRUE(WaitFor([] { return capture.threadEnded.load() == 1; }, 2000));
  EXPECT_EQ(StopCapture(), 1);
  EXPECT_EQ(StopCapture(), 1) << "the file pointer survives the stop; a second stop must not close it again";
  EXPECT_FALSE(capture.captureThread.Exists() || capture.captureEvent.Exists());
  EXPECT_TRUE((std::array{ReadText(CaptureName(0)), ReadText(CaptureName(1)), ReadText(CaptureName(2))}) ==
              (std::array<std::string, 3>{files[0], files[1], ""})) << "capture files 0 to 2 differ from the blocks fed";

  // A failed event comes before capture is switched on and leaves the file open; a failed thread
  // leaves capture switched on.
  captureFault = static_cast<int32_t>(CaptureFault::Event);
  EXPECT_EQ(StartCapture(), 0);
  EXPECT_EQ(std::tuple(capture.captureFileNumber, captureOn.load(), capture.captureFileOpen), std::tuple(4, 0, true));
  captureFault = static_cast<int32_t>(CaptureFault::Thread);
  EXPECT_EQ(StartCapture(), 0);
  EXPECT_EQ(std::tuple(capture.captureFileNumber, captureOn.load(), capture.captureThread.Exists()), std::tuple(5, 1, false));
  captureFault = 0;
  ASSERT_EQ(mkdir(CaptureName(5).c_str(), 0755), 0);  // a directory stands under the file's name
  EXPECT_EQ((std::array{StartCapture(), capture.captureFileNumber}), (std::array{0, 5}));
  EXPECT_TRUE(std::filesystem::exists(CaptureName(4)) && !std::filesystem::exists(CaptureName(6)));
  EXPECT_EQ(StopCapture() + StopCapture(), 2);
  EXPECT_EQ(OpenDescriptors(), descriptors) << "each file left open was closed by the next start or stop";
}

// With the refinements on, a capture that could not keep up or could not be written says so
// through debug command 6, 2, and its file is the stream up to the fault, without holes; designed,
// the command answers 1 whatever happened.
TEST_F(Capture, ALostBlockOrAFailedWriteEndsTheFileAndIsReportedWithTheRefinements) {
  ASSERT_EQ(CaptureRingAlloc(), 1);
  device.running = 1;
  for (const int32_t refined : {0, 1}) {
    SCOPED_TRACE(refined);
    engine.refined = refined;
    const int32_t number = capture.captureFileNumber;
    ASSERT_EQ(StartCapture(), 1);
    std::string expected;
    fed_ = 0;
    Feed(2, expected);
    {  // a disk too slow: the writer is held while reception laps the ring
      std::lock_guard<std::mutex> hold(capture.writeLock);
      for (uint32_t b = 2; b < 7; ++b) FeedBlock(PatternBlock(b));
    }
    ASSERT_TRUE(WaitFor([] { return capture.captureRead.load() == 7; }, 2000));
    EXPECT_EQ((std::array{DebugCommand(6, 2), StopCapture()}), (std::array{refined != 0 ? CAPTURE_LOST_BLOCKS : 1, 1}));
    const std::string file = ReadText(CaptureName(number));
    if (refined != 0) EXPECT_TRUE(file == expected) << "the blocks before the loss, and nothing else";
    else EXPECT_EQ(file.size(), 7u * RAW_BLOCK_BYTES) << "designed: lapped blocks written as they are";

    ASSERT_EQ(symlink("/dev/full", CaptureName(number + 1).c_str()), 0);  // a full disk
    ASSERT_EQ(StartCapture(), 1);
    FeedBlock(PatternBlock(0));
    ASSERT_TRUE(WaitFor([] { return capture.captureRead.load() == 1; }, 2000));
    EXPECT_EQ((std::array{DebugCommand(6, 2), StopCapture()}), (std::array{refined != 0 ? CAPTURE_WRITE_FAILED : 1, 1}));
  }
  engine.refined = 0;
}

constexpr double SENTINEL = -12345.0;

class ProbeFill : public ::testing::Test {
 protected:
  void SetUp() override {
    engine.probeActive = 1;
    engine.probeDecimation = 1;
    engine.probeRewind = 1;
    matlabProbe = &record_;
    record_.updateEvent = event_;
  }
  void TearDown() override {
    close(event_);
    matlabProbe = nullptr;
  }
  // One symbol as the driver runs it: tick, timing step, carriers (entry k of symbol s is
  // (s + k/1000, -k)), frame values.
  void RunSymbol(int32_t s, int32_t ndata, int32_t timingStep = 0) {
    std::vector<float> carriers(2 * ndata);
    for (int32_t k = 0; k < ndata; ++k) {
      carriers[2 * k] = static_cast<float>(s) + static_cast<float>(k) / 1000.0f;
      carriers[2 * k + 1] = -static_cast<float>(k);
    }
    ProbeBeginSymbol(s);
    ProbeNoteTimingStep(s, 8, timingStep);
    ProbeStoreCarriers(s, carriers, 4, 0.0f, {});
    ProbeFinishFrame(s, frame_);
  }
  uint64_t Events() const {  // update events signalled since the last call
    uint64_t events = 0;
    return read(event_, &events, sizeof events) == static_cast<ssize_t>(sizeof events) ? events : 0;
  }
  int event_ = eventfd(0, EFD_NONBLOCK);
  zfn_test::ProbeArrays arrays_{16, SENTINEL};  // 16 entries after each array must stay untouched
  MatlabProbe& record_ = arrays_.record;
  ProbeFrameInput frame_{};
};

TEST_F(ProbeFill, AFrameFillsSymbolsZeroToHundredAndTheFrameValuesOnce) {
  constexpr int32_t ndata = 384, ncarrier = 432, nspan = 720;
  std::vector<float> planes(2 * ncarrier), slot(2 * nspan), acc(257);
  std::iota(planes.begin(), planes.end(), 0.0f);
  std::iota(slot.begin(), slot.end(), 1000.0f);
  std::iota(acc.begin(), acc.end(), 0.0f);
  frame_ = ProbeFrameInput{12.5f, 1024, 0.003f, std::span<const float>(planes).first(ncarrier),
                           std::span<const float>(planes).subspan(ncarrier), slot, acc, 64 - 40, 40,
                           1, BLOCK_TRACKING};
  ASSERT_GT(event_, 0);
  record_.fillIndex = 777;  // left over: symbol 0 rewinds it
  // Symbols 150..203 of a frame before, then a whole frame; timing steps every eighth symbol.
  for (int32_t s = 150; s < 204; ++s) RunSymbol(s, ndata, s == 151 ? -1 : 0);
  EXPECT_EQ(record_.fillIndex, 777) << "no carriers are stored after symbol 100";
  for (int32_t s = 0; s < 204; ++s) RunSymbol(s, ndata, (s + 1) % 16 == 0 ? 1 : 0);

  EXPECT_EQ(engine.probeTick, 54u + 204u);
  EXPECT_EQ(record_.fillIndex, 101 * ndata);
  EXPECT_NEAR(*record_.frequencyCell, 1024 * static_cast<double>(0.003f) / 6.283185307179, 1e-12);
  // Carriers of symbols 0 and 100, the frame values, the channel planes and slot, 2 * timingSpan + 1
  // = 81 profile entries from rotateStart = 24, then the step list at symbol 100: the steps of the
  // frame before from symbol 151 on (151 is the one with -1; then 159 .. 199: 7 entries) and of this
  // frame up to 95 (7..95: 12 entries; symbol 7 has none, symbol 15 one).
  EXPECT_EQ((std::vector<double>{record_.carrierRe[0], record_.carrierRe[100 * ndata + 5], record_.carrierIm[100 * ndata + 5],
                                 *record_.snrCell, *record_.channelStateCell, *record_.stateCell, record_.channelRe[431],
                                 record_.channelIm[0], record_.slotRe[719], record_.slotIm[0], record_.timingProfile[0],
                                 record_.timingProfile[80], record_.timingProfile[81], record_.jumpList[0],
                                 record_.jumpList[1], record_.jumpList[2], record_.jumpList[8], record_.jumpList[9]}),
            (std::vector<double>{0.0, 100.0f + 5.0f / 1000.0f, -5.0, 12.5, 1.0, 3.0, 431.0, 432.0, 1000.0 + 2 * 719,
                                 1001.0, 24.0, 104.0, SENTINEL, 7 + 12, -1.0, 0.0, 0.0, 1.0}));
  EXPECT_EQ(engine.jumpListCount, 13) << "emptied at the fill, then symbols 103 .. 199 of this frame";
  EXPECT_EQ(Events(), 1u) << "one update per frame";
  EXPECT_TRUE(arrays_.GuardsIntact());
}

TEST_F(ProbeFill, QpskScalingIsUndoneBlockStateAndRatesGoToTheirCells) {
  const std::vector<float> carriers = {8.0f, -8.0f, 4.0f, 2.0f}, weights = {2.0f, 0.5f};
  record_.fillIndex = 0;
  ProbeStoreCarriers(0, carriers, 2, 0.0f, weights);  // QPSK, target <= 0: times 0.125
  ProbeStoreCarriers(1, carriers, 2, 1.5f, weights);  // QPSK, target > 0: divided by the weight
  ProbeStoreCarriers(2, carriers, 6, 1.5f, weights);  // 64QAM: as equalised
  EXPECT_EQ(record_.fillIndex, 6);
  const double re[] = {1.0, 0.5, 4.0, 8.0, 8.0, 4.0}, im[] = {-1.0, 0.25, -4.0, 4.0, -8.0, 2.0};
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(record_.carrierRe[i] == re[i] && record_.carrierIm[i] == im[i]) << i;

  ProbeStoreBlockState(BLOCK_COARSE_SYNC);
  EXPECT_DOUBLE_EQ(*record_.stateCell, 1.0);
  EXPECT_EQ(Events(), 1u);
  ProbeStoreBlockState(BLOCK_TRACKING);  // in tracking the frame fill reports the state
  EXPECT_DOUBLE_EQ(*record_.stateCell, 1.0);
  EXPECT_EQ(Events(), 0u);
  ProbeStoreRates(0.25f, 0.125f, 0.5f);
  EXPECT_TRUE(record_.ratesCell[0] == 0.25 && record_.ratesCell[1] == 0.125 && record_.ratesCell[2] == 0.5);
  record_.updateEvent = 0;  // a record without an event: the state is stored, nothing is signalled
  ProbeStoreBlockState(BLOCK_NO_SIGNAL);
  EXPECT_DOUBLE_EQ(*record_.stateCell, -2.0);
}

TEST_F(ProbeFill, NothingIsWrittenWhenInactiveWithoutARecordOrPastTheArrays) {
  constexpr int32_t ndata = 384;
  // A fill index carried past one frame (probe switched on in mid-frame twice): the symbol that
  // would run past the arrays is dropped.
  for (const int32_t index : {PROBE_CARRIER_CAPACITY - ndata + 1, -5}) {
    record_.fillIndex = index;
    RunSymbol(50, ndata);
    EXPECT_EQ(record_.fillIndex, index);
  }
  // Oversized inputs are cut to the capacities; a start beyond the accumulator stores no profile.
  std::vector<float> big(4000, 1.0f);
  frame_ = ProbeFrameInput{1.0f, 1024, 0.0f, big, big, big, big, 0, 1000, 0, BLOCK_TRACKING};
  engine.jumpListCount = 500;
  RunSymbol(100, ndata);
  EXPECT_DOUBLE_EQ(record_.jumpList[0], PROBE_JUMP_STEPS);
  frame_.rotateStart = 5000;
  record_.timingProfile[0] = SENTINEL;
  RunSymbol(100, ndata);
  EXPECT_EQ(record_.timingProfile[0], SENTINEL);
  EXPECT_TRUE(arrays_.GuardsIntact());

  // Probe inactive: no tick, no write, not even the block state.
  engine.probeActive = 0;
  const uint32_t tick = engine.probeTick;
  record_.fillIndex = 0;
  *record_.stateCell = SENTINEL;
  RunSymbol(0, ndata);
  ProbeStoreBlockState(BLOCK_FRAME_SYNC);
  ProbeStoreRates(0.5f, 0.5f, 0.5f);
  EXPECT_EQ((std::vector<int64_t>{engine.probeTick, record_.fillIndex}), (std::vector<int64_t>{tick, 0}));
  EXPECT_TRUE(*record_.stateCell == SENTINEL && record_.ratesCell[0] == SENTINEL);

  // Active with no record (the bridge unloaded and the probe switched on again): the engine runs
  // on and writes nothing; its own step list is still emptied at the fill.
  engine.probeActive = 1;
  matlabProbe = nullptr;
  for (int32_t s = 0; s <= 100; ++s) RunSymbol(s, ndata, 1);
  ProbeStoreBlockState(BLOCK_MODE_DETECT);
  ProbeStoreRates(0.5f, 0.5f, 0.5f);
  EXPECT_EQ(engine.jumpListCount, 0);
  EXPECT_EQ(record_.fillIndex, 0);
  ProbeNoteTimingStep(7, 0, 3);  // a timing period of 0 (a bad parameter file): nothing, no division
  EXPECT_EQ(engine.jumpListCount, 0);
}

class ProbeBridge : public ::testing::Test {
 protected:
  void SetUp() override { TestBridge_Reset(); }
  void TearDown() override {
    if (probeBridge.library != nullptr || matlabProbe != nullptr) UnloadProbeBridge();
  }
  static void ExpectCalls(int32_t initial, int32_t show, int32_t destroy) {
    EXPECT_EQ((std::vector<int32_t>{TestBridge_Calls("MATLAB_Initial"), TestBridge_Calls("MATLAB_Show"),
                                    TestBridge_Calls("MATLAB_Destroy")}), (std::vector<int32_t>{initial, show, destroy}));
  }
  // The command always succeeds, whatever the bridge does.
  static void Expect(int32_t value, int32_t enable, int32_t loaded) {
    EXPECT_EQ((std::vector<int32_t>{DebugProbeCommand(value), probeEnable, probeBridge.bridgeLoaded}),
              (std::vector<int32_t>{1, enable, loaded})) << value;
  }
};

// A failed start or a null record sets no flag, so the next attempt tries again (the library stays
// loaded); on again does nothing, off keeps the bridge, other values do nothing, on needs no new load.
TEST_F(ProbeBridge, AFailedLoadSetsNoFlagSoTheNextAttemptTriesAgainAndOffKeepsTheBridge) {
  TestBridge_FailInitial(1);
  Expect(1, 0, 0);
  EXPECT_NE(probeBridge.library, nullptr);
  ExpectCalls(1, 0, 0);
  TestBridge_FailInitial(0);
  TestBridge_NullRecord(1);
  Expect(1, 0, 0);
  EXPECT_EQ(matlabProbe, nullptr);
  TestBridge_NullRecord(0);
  Expect(1, 1, 1);
  EXPECT_EQ(matlabProbe, TestBridge_Record());
  ExpectCalls(3, 2, 0);
  for (const int32_t value : {1, 0, 3, -1}) EXPECT_EQ(DebugProbeCommand(value), 1) << value;
  EXPECT_EQ(probeEnable, 0);
  EXPECT_NE(matlabProbe, nullptr) << "off keeps the bridge";
  Expect(1, 1, 1);
  ExpectCalls(3, 2, 0);
}

}  // namespace
}  // namespace zfn
