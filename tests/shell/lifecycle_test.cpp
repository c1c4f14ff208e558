// Open, retune and close with the real threads, against the test builds of the device library and
// the simulator (found through LD_LIBRARY_PATH): every failure of open with its result and its
// unwinding, the differences between simulation and device, and what each path leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lifecycle_support.h"
#include "shell/block_ring.h"
#include "shell/block_scheduler.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/fault_injection.h"
#include "shell/lifecycle.h"
#include "shell/receiver_state.h"
#include "tests/support/test_device/test_device_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"

namespace zfn {
namespace {

using zfn_test::ApiLines;
using zfn_test::LogCapture;
using zfn_test::OpenDescriptors;
using zfn_test::ProcessThreads;
using zfn_test::WaitFor;
using Calls = std::vector<std::string>;

constexpr int64_t kRealTimeBytes = 4063492;  // 1015873 engine samples a second, four bytes each

// The device calls so far. Data fetches are many and timing-dependent, and register accesses
// belong to the demodulator programming, which has cases of its own; the lifecycle cases look at
// the control calls unless asked for all.
Calls DeviceCalls(bool all = false) {
  Calls calls;
  char text[256];
  for (int32_t i = 0; i < TestDevice_CallCount(); ++i) {
    TestDevice_GetCall(i, text, sizeof text);
    const std::string call = text;
    if (all || (call.rfind("ZFN_GetData", 0) != 0 && call.rfind("ZFN_Demod_Byte_", 0) != 0)) calls.push_back(call);
  }
  return calls;
}
bool Called(const std::string& name) {
  const Calls calls = DeviceCalls();
  return std::find(calls.begin(), calls.end(), name) != calls.end();
}

// The ring's counts belong to the reception thread: read them under the ring's lock.
uint32_t BlocksWritten() {
  std::lock_guard<std::mutex> hold(blockRing.ringLock);
  return blockRing.writeCount;
}
bool InFrameSync() { return WaitFor([] { return engine.blockState == BLOCK_FRAME_SYNC; }); }
// A retune that waits for the tuner takes at least 200 ms; one without it returns at once.
bool RetuneWaitsForTheTuner(int32_t kHz) {
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(SetFrequency(kHz), 1);
  return std::chrono::steady_clock::now() - t0 >= std::chrono::milliseconds(200);
}

// Stand-ins for the acquisition stages while these cases run: detection and coarse sync pass, frame
// sync never ends, so the engine settles in BLOCK_FRAME_SYNC whatever the test stream holds.
void PassStage() {}
int32_t FrameSyncNeverEnds() { return 0; }
void NoSetUp() {}
int32_t DecoderSetUp() { return 1; }

class Lifecycle : public testing::Test {
 protected:
  void SetUp() override {
    blockStages = {PassStage, PassStage, FrameSyncNeverEnds, NoSetUp, DecoderSetUp};
    TestDevice_Reset();
    TestDevice_SetByteRate(kRealTimeBytes);
    TestSim_Reset();
    TestSim_ClearFailures();
    TestSim_SetByteRate(kRealTimeBytes);
    injectedFault = 0;
    // A first thread makes a sanitizer runtime start its own helper thread before the count.
    std::thread([] {}).join();
    fds_ = OpenDescriptors();
    threads_ = ProcessThreads();
  }
  void TearDown() override {
    injectedFault = 0;
    if (device.running != 0) CloseDevice();
    device.simulationMode = 0;
    blockStages = STAGE_ENTRY_POINTS;
    TestDevice_ClearFailures();
    TestSim_ClearFailures();
  }
  // Nothing of the receiver is left: no thread, no descriptor, no engine or ring memory.
  void ExpectNothingLeft() {
    EXPECT_EQ(device.running + device.deviceBound + device.dataEventRegistered + TestDevice_EventThreadRunning(), 0);
    int i = 0;
    for (const bool exists : {device.dataEvent.Exists(), device.blockEvent.Exists(), device.packetEvent.Exists(),
                              device.controlLock.Exists(), threadTable.reception.Exists(),
                              threadTable.packet.Exists(), threadTable.demodulation.Exists()})
      EXPECT_FALSE(exists) << "event, lock or thread " << i++;
    for (const void* p : {static_cast<const void*>(device.debugPara), static_cast<const void*>(device.captureRing),
                          static_cast<const void*>(engine.arenaBase), static_cast<const void*>(engine.rawBlock),
                          static_cast<const void*>(engine.sampleBlock), static_cast<const void*>(blockRing.readBuffer),
                          static_cast<const void*>(blockRing.slots[0])})
      EXPECT_EQ(p, nullptr) << "memory " << i++;
    // The kernel may list a thread for a moment after its join returned.
    EXPECT_TRUE(WaitFor([this] { return ProcessThreads() <= threads_; }, 2000)) << ProcessThreads() << " threads";
    EXPECT_EQ(OpenDescriptors(), fds_);
  }
  int fds_ = 0;
  int threads_ = 0;
};

TEST_F(Lifecycle, DeviceOpenRetuneCloseAndOpenAgain) {
  // Callbacks are kept over open and close.
  auto cb = [](const uint8_t*, int32_t) {};
  auto ac = []() {};
  EXPECT_EQ(SetTsCallback(cb) + SetAcCallback(ac), 2);
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(device.tunerType, 1);
  EXPECT_EQ(device.debugPara, &debugParaBlock);
  // Blocks flow and are thrown away while idle.
  ASSERT_TRUE(WaitFor([] { return BlocksWritten() >= 2; }));
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);

  EXPECT_TRUE(RetuneWaitsForTheTuner(557143));
  EXPECT_EQ(controlBlock.tuningNow, 0);
  // The tuner is set 600 kHz above the channel, with the bandwidth always 6 MHz.
  EXPECT_EQ(DeviceCalls(), (Calls{"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle", "ZFN_Get_TunerType",
                                  "ZFN_Set_Frequency 557743", "ZFN_Set_Bandwidth 6", "ZFN_DeviceUpdate"}));
  ASSERT_TRUE(InFrameSync());
  EXPECT_EQ(debugParaBlock.Int(5), BLOCK_FRAME_SYNC);

  TestDevice_Reset();  // forget the calls so far
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(DeviceCalls(), (Calls{"ZFN_ReleaseDABEventHandle", "ZFN_BDAFilterRelease 0"}));
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);
  ExpectNothingLeft();
  EXPECT_EQ(device.tsCallback.load(), static_cast<ZFISDBT_TsCallback>(cb));
  EXPECT_EQ(device.acCallback.load(), static_cast<ZFISDBT_AcCallback>(ac));
  device.tsCallback = nullptr;
  device.acCallback = nullptr;
  // The status words keep their last values after close (the real stages may have moved on from
  // frame sync: a block state, not the -1 of a retune reset), and are closed to the host.
  int32_t words[12];
  EXPECT_EQ(DebugGetParaValue(words), 0);
  EXPECT_GE(debugParaBlock.Int(5), BLOCK_COARSE_SYNC);

  // Open again: idle. A failing tuner does not fail the retune, which still waits for it; a
  // frequency whose tuner setting leaves 32 bits fails like the tuner (and overflows nothing).
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);
  TestDevice_FailFunction("ZFN_Set_Frequency", 0, -1);
  TestDevice_FailFunction("ZFN_DeviceUpdate", 0, -1);
  EXPECT_TRUE(RetuneWaitsForTheTuner(557143));
  TestDevice_ClearFailures();
  TestDevice_Reset();
  EXPECT_EQ(SetFrequency(INT32_MAX), 1);
  for (const std::string& call : DeviceCalls()) EXPECT_NE(call.rfind("ZFN_Set_Frequency", 0), 0u) << call;
  EXPECT_EQ(SetFrequency(INT32_MIN), 1);
  ASSERT_TRUE(WaitFor([] { return engine.blockState >= BLOCK_COARSE_SYNC; }));
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

TEST_F(Lifecycle, ReceptionCutsAnyReadLengthsIntoTheSourceStream) {
  // Random read lengths 1..240648, not even in groups of four, served as fast as asked.
  TestDevice_SetByteRate(0);
  TestDevice_SetReadLength(0, 12345, 0);
  ASSERT_EQ(OpenDevice(), 1);
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(WaitFor([round] { return BlocksWritten() >= 4u + 3u * round; }));
    std::lock_guard<std::mutex> hold(blockRing.ringLock);
    const int64_t base = static_cast<int64_t>(blockRing.writeCount - 1) * RAW_BLOCK_BYTES;
    const uint8_t* newest = blockRing.slots[blockRing.writeIndex];
    int mismatches = 0;
    for (int32_t i = 0; i < RAW_BLOCK_BYTES; ++i) mismatches += newest[i] != TestDevice_PatternByte(base + i);
    EXPECT_EQ(mismatches, 0) << "block " << blockRing.writeCount - 1;
  }
  EXPECT_EQ(CloseDevice(), 1);
  // Every byte fetched went into a block, except the tail of the unfinished one.
  EXPECT_EQ(blockRing.writeCount, static_cast<uint32_t>(TestDevice_BytesServed() / RAW_BLOCK_BYTES));
  ExpectNothingLeft();
}

// Each step of open failing in turn: the result, the fail line, the device calls of the whole open
// (all control calls released again), and nothing left. In simulation the simulator is stopped again.
struct OpenFailure {
  const char* name;
  const char* deviceFunction;  // device function that fails, or null
  ShellFault fault;            // or a shell resource that fails
  int32_t result = 0;
  Calls calls = {"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle", "ZFN_Get_TunerType", "ZFN_ReleaseDABEventHandle",
                 "ZFN_BDAFilterRelease 0"};
  bool simulation = false;
};
void PrintTo(const OpenFailure& f, std::ostream* os) { *os << f.name; }
class OpenFailures : public Lifecycle, public testing::WithParamInterface<OpenFailure> {};

TEST_P(OpenFailures, UnwindToNothingWithTheFailLine) {
  const OpenFailure& f = GetParam();
  EXPECT_EQ(f.deviceFunction == nullptr || TestDevice_FailFunction(f.deviceFunction, 0, -1) == 1, true);
  injectedFault = static_cast<int32_t>(f.fault);
  if (f.simulation) DebugCommand(5, 1);
  LogCapture log;
  EXPECT_EQ(OpenDevice(), f.result);
  injectedFault = 0;
  EXPECT_EQ(log.Lines(), ApiLines("--> Device On | <-- OPEN DAB DEVICE Fail"));
  EXPECT_EQ(DeviceCalls(), f.calls);
  EXPECT_EQ(TestSim_Started() + TestSim_EventThreadRunning(), 0) << "the simulator still runs";
  EXPECT_EQ(device.tunerType, 0);
  ExpectNothingLeft();
  // Nothing of the failure sticks: the next open works.
  TestDevice_ClearFailures();
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

const Calls kReleaseOnly = {"ZFN_BDAFilterRelease 0"};
INSTANTIATE_TEST_SUITE_P(
    EveryStep, OpenFailures,
    testing::Values(
        OpenFailure{"FilterInit", "ZFN_BDAFilterInit", ShellFault::None, 2, {"ZFN_BDAFilterInit 0", "ZFN_BDAFilterRelease 0"}},
        OpenFailure{"EventRegistration", "ZFN_SetDABEventHandle", ShellFault::None, 0,
                    {"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle", "ZFN_BDAFilterRelease 0"}},
        OpenFailure{"TunerType", "ZFN_Get_TunerType", ShellFault::None},
        OpenFailure{"DemodulatorProgramming", "ZFN_Demod_Byte_Write", ShellFault::None},
        OpenFailure{"DataEvent", nullptr, ShellFault::DataEvent, 0, kReleaseOnly},
        OpenFailure{"RingReadBuffer", nullptr, ShellFault::RingReadBuffer},
        OpenFailure{"RingAssemblyBuffer", nullptr, ShellFault::RingAssemblyBuffer},
        OpenFailure{"RingSlot", nullptr, ShellFault::RingSlot}, OpenFailure{"BlockEvent", nullptr, ShellFault::BlockEvent},
        OpenFailure{"ReceptionThread", nullptr, ShellFault::ReceptionThread},
        OpenFailure{"PacketEvent", nullptr, ShellFault::PacketEvent},
        OpenFailure{"PacketThread", nullptr, ShellFault::PacketThread},
        OpenFailure{"WorkArena", nullptr, ShellFault::ArenaAlloc},
        OpenFailure{"RawBlock", nullptr, ShellFault::RawBlockAlloc},
        OpenFailure{"SampleBlock", nullptr, ShellFault::SampleBlockAlloc},
        OpenFailure{"ControlLock", nullptr, ShellFault::ControlLock},
        OpenFailure{"DemodulationThread", nullptr, ShellFault::DemodulationThread},
        OpenFailure{"SimulatedRingSlot", nullptr, ShellFault::RingSlot, 0, kReleaseOnly, true},
        OpenFailure{"SimulatedPacketThread", nullptr, ShellFault::PacketThread, 0, kReleaseOnly, true},
        OpenFailure{"SimulatedDemodulationThread", nullptr, ShellFault::DemodulationThread, 0, kReleaseOnly, true}),
    [](const testing::TestParamInfo<OpenFailure>& p) { return std::string(p.param.name); });

// Two failures without the fail line: the last allocation of open (the capture ring) leaves the
// device running until close; a failing simulator returns 0 at once and unwinds nothing, and a
// following device open takes over what was left.
TEST_F(Lifecycle, FailuresWithoutTheFailLineLeaveWhatTheyHadUntilClose) {
  injectedFault = static_cast<int32_t>(ShellFault::CaptureRing);
  LogCapture log;
  EXPECT_EQ(OpenDevice(), 0);
  injectedFault = 0;
  EXPECT_EQ(log.Lines(), ApiLines("--> Device On"));
  EXPECT_EQ(device.running, 1);
  EXPECT_GT(ProcessThreads(), threads_);
  EXPECT_EQ(SetFrequency(557143), 1);
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(log.Lines().back(), ApiLines("<-- ISDBT_DeviceOff() OK")[0]);
  ExpectNothingLeft();

  ASSERT_EQ(TestSim_FailFunction("BDA_Start_simulate"), 1);
  LogCapture simLog;
  DebugCommand(5, 1);
  EXPECT_EQ(OpenDevice(), 0);
  EXPECT_EQ(simLog.Lines(), ApiLines("--> Device On"));
  EXPECT_EQ(device.running, 0);
  EXPECT_EQ(device.deviceBound, 1) << "left as it was";
  EXPECT_TRUE(device.dataEvent.Exists());
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(simLog.Lines().back(),
            ApiLines("<-- ZFISDBT_OpenDevice() has not been invoked,  ISDBT_DeviceOff() OK")[0]);
  TestSim_ClearFailures();
  device.simulationMode = 0;
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

// Simulation mode 1 uses the simulator only, binds the device library but calls nothing of it, and
// retunes without the tuner. Mode 2 opens as simulation but retunes like the device: the late
// registration branch gives the event to the device library, programs the demodulator and sets the
// tuner; close takes the simulation path and leaves the registration, which a device open and close
// clears again.
TEST_F(Lifecycle, SimulationModesOneAndTwo) {
  for (const int32_t mode : {1, 2}) {
    SCOPED_TRACE(mode);
    TestDevice_Reset();
    LogCapture log;
    EXPECT_EQ(DebugCommand(5, mode), 1);
    ASSERT_EQ(OpenDevice(), 1);
    EXPECT_EQ(TestSim_Started(), 1);
    EXPECT_EQ(device.deviceBound, 1) << "the device library is bound in simulation too";
    EXPECT_EQ(DeviceCalls(true), Calls{});
    EXPECT_EQ(RetuneWaitsForTheTuner(mode == 1 ? 123 : 557143), mode == 2);
    EXPECT_EQ(device.dataEventRegistered, mode == 2 ? 1 : 0);
    ASSERT_TRUE(InFrameSync());
    if (mode == 2) {
      EXPECT_EQ(DeviceCalls().front(), "ZFN_SetDABEventHandle");
      EXPECT_TRUE(Called("ZFN_DeviceUpdate"));
      EXPECT_GT(TestDevice_AccessCount(), 0) << "demodulator programmed";
    }
    const size_t callsBeforeClose = DeviceCalls().size();
    EXPECT_EQ(CloseDevice(), 1);
    EXPECT_EQ(TestSim_CallCount("BDA_Stop_simulate"), mode);
    EXPECT_EQ(TestSim_Started(), 0);
    EXPECT_EQ(DeviceCalls().size(), callsBeforeClose) << "close releases nothing of the device";
    EXPECT_TRUE(mode == 2 || DeviceCalls(true).empty()) << "no device function is called";
    EXPECT_EQ(device.simulationMode, 0) << "cleared by close";
    const std::string retune = mode == 1 ? "--> Set frequency 123 and bandwidth | <-- Set frequency and bandwidth OK"
                                         : "--> Set frequency 557143 and bandwidth | <-- Set frequency 557143 OK";
    EXPECT_EQ(log.Lines(), ApiLines("--> Device On | <-- OPEN DAB DEVICE SUCCEED | " + retune +
                                    " | --> ISDBT_DeviceOff() | <-- ISDBT_DeviceOff() OK"));
  }
  EXPECT_EQ(device.dataEventRegistered, 1);
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

TEST_F(Lifecycle, ASecondOpenIsRefusedAndLeavesTheFirstRunning) {
  for (const int32_t simulation : {0, 1}) {
    DebugCommand(5, simulation);
    ASSERT_EQ(OpenDevice(), 1);
    const int threads = ProcessThreads();
    LogCapture log;
    EXPECT_EQ(OpenDevice(), 0);
    EXPECT_EQ(log.Lines(), ApiLines("--> Device On | <-- OPEN DAB DEVICE Fail"));
    EXPECT_EQ(device.running, 1);
    EXPECT_EQ(ProcessThreads(), threads) << "no threads started over the running ones";
    const uint32_t before = BlocksWritten();
    EXPECT_TRUE(WaitFor([before] { return BlocksWritten() > before + 1; })) << "the stream goes on";
    EXPECT_EQ(CloseDevice(), 1);
    ExpectNothingLeft();
  }
}

// A source that stops delivering (a stall, or events without data). Designed: the status words
// keep their last values. With the refinements on, within two seconds: no signal, no lock, 0.
TEST_F(Lifecycle, AStalledStreamReadsAsNoSignalOnlyWithTheRefinements) {
  for (const bool refined : {false, true}) {
    SCOPED_TRACE(refined ? "refined" : "designed");
    if (refined) setenv("ZFNISDBT_REFINED", "1", 1);
    ASSERT_EQ(OpenDevice(), 1);
    unsetenv("ZFNISDBT_REFINED");
    EXPECT_EQ(SetFrequency(557143), 1);
    ASSERT_TRUE(InFrameSync());
    int32_t present = 7, locked = 7;
    EXPECT_EQ(GetSignalPresent(&present), 0) << "acquiring: not sure";
    TestDevice_SetByteRate(1);  // the event thread signals on, but no data comes
    const auto stalled = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitFor([&] { return GetSignalPresent(&present) == 1 && present == 0; }, 2500), refined);
    if (refined) {
      EXPECT_LT(std::chrono::steady_clock::now() - stalled, std::chrono::milliseconds(2100));
      EXPECT_EQ(GetSignalLock(&locked), 1);
      EXPECT_EQ(locked, 0);
    }
    EXPECT_EQ(SignalQualityStatus(), 0);
    EXPECT_EQ(CloseDevice(), 1);
    TestDevice_SetByteRate(kRealTimeBytes);
    ExpectNothingLeft();
  }
}

}  // namespace
}  // namespace zfn
