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

using zfn_test::LogCapture;
using zfn_test::OpenDescriptors;
using zfn_test::ProcessThreads;
using zfn_test::WaitFor;

constexpr int64_t kRealTimeBytes = 4063492;  // 1015873 engine samples a second, four bytes each

// The device calls so far. Data fetches are many and timing-dependent, and register accesses
// belong to the demodulator programming, which has cases of its own; the lifecycle cases look at
// the control calls unless asked for all.
std::vector<std::string> DeviceCalls(bool all = false) {
  std::vector<std::string> calls;
  char text[256];
  for (int32_t i = 0; i < TestDevice_CallCount(); ++i) {
    TestDevice_GetCall(i, text, sizeof text);
    const std::string call = text;
    const bool routine = call.rfind("ZFN_GetData", 0) == 0 || call.rfind("ZFN_Demod_Byte_", 0) == 0;
    if (all || !routine) calls.push_back(call);
  }
  return calls;
}

// The ring's counts belong to the reception thread: read them under the ring's lock.
uint32_t BlocksWritten() {
  std::lock_guard<std::mutex> hold(blockRing.ringLock);
  return blockRing.writeCount;
}

const std::string kOn = "ISDBT API: --> Device On";
const std::string kOpenOk = "ISDBT API: <-- OPEN DAB DEVICE SUCCEED";
const std::string kOpenFail = "ISDBT API: <-- OPEN DAB DEVICE Fail";
const std::string kOff = "ISDBT API: --> ISDBT_DeviceOff()";
const std::string kOffOk = "ISDBT API: <-- ISDBT_DeviceOff() OK";
const std::string kNotOpen = "ISDBT API: <-- ZFISDBT_OpenDevice() has not been invoked,  ISDBT_DeviceOff() OK";

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
    EXPECT_EQ(device.running, 0);
    EXPECT_EQ(device.deviceBound, 0);
    EXPECT_EQ(device.dataEventRegistered, 0);
    EXPECT_FALSE(device.dataEvent.Exists());
    EXPECT_FALSE(device.blockEvent.Exists());
    EXPECT_FALSE(device.packetEvent.Exists());
    EXPECT_FALSE(device.controlLock.Exists());
    EXPECT_EQ(device.debugPara, nullptr);
    EXPECT_EQ(device.captureRing, nullptr);
    EXPECT_EQ(engine.arenaBase, nullptr);
    EXPECT_EQ(engine.rawBlock, nullptr);
    EXPECT_EQ(engine.sampleBlock, nullptr);
    EXPECT_EQ(blockRing.readBuffer, nullptr);
    EXPECT_EQ(blockRing.slots[0], nullptr);
    EXPECT_FALSE(threadTable.reception.Exists());
    EXPECT_FALSE(threadTable.packet.Exists());
    EXPECT_FALSE(threadTable.demodulation.Exists());
    EXPECT_TRUE(zfn_test::ThreadsBackTo(threads_)) << ProcessThreads() << " threads, " << threads_ << " before";
    EXPECT_EQ(OpenDescriptors(), fds_);
    EXPECT_EQ(TestDevice_EventThreadRunning(), 0);
  }
  int fds_ = 0;
  int threads_ = 0;
};

TEST_F(Lifecycle, DeviceOpenRetuneCloseAndOpenAgain) {
  // Callbacks are kept over open and close; a null one is refused and keeps the old one.
  auto cb = [](const uint8_t*, int32_t) {};
  auto ac = []() {};
  EXPECT_EQ(SetTsCallback(cb), 1);
  EXPECT_EQ(SetTsCallback(nullptr), 0);
  EXPECT_EQ(SetAcCallback(ac), 1);
  EXPECT_EQ(SetAcCallback(nullptr), 0);
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(device.running, 1);
  EXPECT_EQ(device.tunerType, 1);
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);
  EXPECT_EQ(device.debugPara, &debugParaBlock);
  EXPECT_NE(device.captureRing, nullptr);
  // Blocks flow and are thrown away while idle.
  ASSERT_TRUE(WaitFor([] { return BlocksWritten() >= 2; }));
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);

  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(SetFrequency(557143), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(200)) << "tuner settling";
  EXPECT_EQ(controlBlock.tuningNow, 0);
  // The tuner is set 600 kHz above the channel, with the bandwidth always 6 MHz.
  EXPECT_EQ(DeviceCalls(), (std::vector<std::string>{"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle",
                                                    "ZFN_Get_TunerType", "ZFN_Set_Frequency 557743",
                                                    "ZFN_Set_Bandwidth 6", "ZFN_DeviceUpdate"}));
  ASSERT_TRUE(WaitFor([] { return engine.blockState == BLOCK_FRAME_SYNC; }));
  EXPECT_EQ(debugParaBlock.Int(5), BLOCK_FRAME_SYNC);

  TestDevice_Reset();  // forget the calls so far
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(DeviceCalls(), (std::vector<std::string>{"ZFN_ReleaseDABEventHandle", "ZFN_BDAFilterRelease 0"}));
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);
  ExpectNothingLeft();
  EXPECT_EQ(device.tsCallback.load(), static_cast<ZFISDBT_TsCallback>(cb));
  EXPECT_EQ(device.acCallback.load(), static_cast<ZFISDBT_AcCallback>(ac));
  device.tsCallback = nullptr;
  device.acCallback = nullptr;

  // The status words keep their last values after close, and are closed to the host.
  int32_t words[12];
  EXPECT_EQ(DebugGetParaValue(words), 0);
  // With the real acquisition stages the engine may have moved on from frame sync before the
  // close: a block state, not the -1 of a retune reset.
  EXPECT_GE(debugParaBlock.Int(5), BLOCK_COARSE_SYNC);

  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(engine.blockState, BLOCK_IDLE) << "a new open starts idle";
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

struct OpenFailure {
  const char* name;
  const char* deviceFunction;  // device function that fails, or null
  ShellFault fault;            // or a shell resource that fails
  int32_t result;
  std::vector<std::string> calls;  // device control calls of the whole open
  bool simulation = false;         // opened in simulation: the simulator must be stopped again
};

void PrintTo(const OpenFailure& f, std::ostream* os) { *os << f.name; }

const std::vector<std::string> kRegistered = {"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle", "ZFN_Get_TunerType",
                                              "ZFN_ReleaseDABEventHandle", "ZFN_BDAFilterRelease 0"};

class OpenFailures : public Lifecycle, public testing::WithParamInterface<OpenFailure> {};

TEST_P(OpenFailures, UnwindToNothingWithTheFailLine) {
  const OpenFailure& f = GetParam();
  if (f.deviceFunction != nullptr) {
    ASSERT_EQ(TestDevice_FailFunction(f.deviceFunction, 0, -1), 1);
  }
  injectedFault = static_cast<int32_t>(f.fault);
  if (f.simulation) DebugCommand(5, 1);
  LogCapture log;
  EXPECT_EQ(OpenDevice(), f.result);
  injectedFault = 0;
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{kOn, kOpenFail}));
  EXPECT_EQ(DeviceCalls(), f.calls);
  EXPECT_EQ(TestSim_Started(), 0) << "the simulator still runs";
  EXPECT_EQ(TestSim_EventThreadRunning(), 0);
  EXPECT_EQ(device.tunerType, 0);
  ExpectNothingLeft();

  // Nothing of the failure sticks: the next open works.
  TestDevice_ClearFailures();
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, OpenFailures,
    testing::Values(
        OpenFailure{"FilterInit", "ZFN_BDAFilterInit", ShellFault::None, 2,
                    {"ZFN_BDAFilterInit 0", "ZFN_BDAFilterRelease 0"}},
        OpenFailure{"EventRegistration", "ZFN_SetDABEventHandle", ShellFault::None, 0,
                    {"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle", "ZFN_BDAFilterRelease 0"}},
        OpenFailure{"TunerType", "ZFN_Get_TunerType", ShellFault::None, 0, kRegistered},
        OpenFailure{"DemodulatorProgramming", "ZFN_Demod_Byte_Write", ShellFault::None, 0, kRegistered},
        OpenFailure{"DataEvent", nullptr, ShellFault::DataEvent, 0, {"ZFN_BDAFilterRelease 0"}},
        OpenFailure{"RingReadBuffer", nullptr, ShellFault::RingReadBuffer, 0, kRegistered},
        OpenFailure{"RingAssemblyBuffer", nullptr, ShellFault::RingAssemblyBuffer, 0, kRegistered},
        OpenFailure{"RingSlot", nullptr, ShellFault::RingSlot, 0, kRegistered},
        OpenFailure{"BlockEvent", nullptr, ShellFault::BlockEvent, 0, kRegistered},
        OpenFailure{"ReceptionThread", nullptr, ShellFault::ReceptionThread, 0, kRegistered},
        OpenFailure{"PacketEvent", nullptr, ShellFault::PacketEvent, 0, kRegistered},
        OpenFailure{"PacketThread", nullptr, ShellFault::PacketThread, 0, kRegistered},
        OpenFailure{"WorkArena", nullptr, ShellFault::ArenaAlloc, 0, kRegistered},
        OpenFailure{"RawBlock", nullptr, ShellFault::RawBlockAlloc, 0, kRegistered},
        OpenFailure{"SampleBlock", nullptr, ShellFault::SampleBlockAlloc, 0, kRegistered},
        OpenFailure{"ControlLock", nullptr, ShellFault::ControlLock, 0, kRegistered},
        OpenFailure{"DemodulationThread", nullptr, ShellFault::DemodulationThread, 0, kRegistered},
        OpenFailure{"SimulatedRingSlot", nullptr, ShellFault::RingSlot, 0, {"ZFN_BDAFilterRelease 0"}, true},
        OpenFailure{"SimulatedPacketThread", nullptr, ShellFault::PacketThread, 0, {"ZFN_BDAFilterRelease 0"}, true},
        OpenFailure{"SimulatedDemodulationThread", nullptr, ShellFault::DemodulationThread, 0, {"ZFN_BDAFilterRelease 0"}, true}),
    [](const testing::TestParamInfo<OpenFailure>& p) { return std::string(p.param.name); });

TEST_F(Lifecycle, FailedLastAllocationLeavesTheDeviceRunningUntilClose) {
  injectedFault = static_cast<int32_t>(ShellFault::CaptureRing);
  LogCapture log;
  EXPECT_EQ(OpenDevice(), 0);
  injectedFault = 0;
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{kOn}));
  EXPECT_EQ(device.running, 1);
  EXPECT_GT(ProcessThreads(), threads_);
  EXPECT_EQ(SetFrequency(557143), 1);
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(log.Lines().back(), kOffOk);
  ExpectNothingLeft();
}

TEST_F(Lifecycle, SimulationUsesTheSimulatorOnlyAndRetunesWithoutTheTuner) {
  LogCapture log;
  EXPECT_EQ(DebugCommand(5, 1), 1);
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(TestSim_Started(), 1);
  EXPECT_EQ(device.dataEventRegistered, 0);
  EXPECT_EQ(device.deviceBound, 1) << "the device library is bound in simulation too";
  EXPECT_EQ(DeviceCalls(true), std::vector<std::string>{}) << "no device function is called";
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(SetFrequency(123), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(200)) << "no settling wait";
  ASSERT_TRUE(WaitFor([] { return engine.blockState == BLOCK_FRAME_SYNC; }));
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(TestSim_CallCount("BDA_Stop_simulate"), 1);
  EXPECT_EQ(TestSim_Started(), 0);
  EXPECT_EQ(DeviceCalls(true), std::vector<std::string>{}) << "close releases nothing of the device";
  EXPECT_EQ(device.simulationMode, 0) << "cleared by close";
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{kOn, kOpenOk, "ISDBT API: --> Set frequency 123 and bandwidth",
                                                   "ISDBT API: <-- Set frequency and bandwidth OK", kOff, kOffOk}));
  ExpectNothingLeft();
}

TEST_F(Lifecycle, SimulationModeTwoOpensAsSimulationButRetunesLikeTheDevice) {
  LogCapture log;
  DebugCommand(5, 2);
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(TestSim_Started(), 1);
  EXPECT_EQ(DeviceCalls(), std::vector<std::string>{});
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(SetFrequency(557143), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(200));
  // The late registration branch: the event goes to the device library, the demodulator is
  // programmed, and the tuner is set.
  const auto calls = DeviceCalls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.front(), "ZFN_SetDABEventHandle");
  EXPECT_NE(std::find(calls.begin(), calls.end(), "ZFN_DeviceUpdate"), calls.end());
  EXPECT_GT(TestDevice_AccessCount(), 0) << "demodulator programmed";
  EXPECT_EQ(device.dataEventRegistered, 1);
  ASSERT_TRUE(WaitFor([] { return engine.blockState == BLOCK_FRAME_SYNC; }));
  EXPECT_EQ(CloseDevice(), 1);
  // Close takes the simulation path: the simulator stops, the registration is not released.
  EXPECT_EQ(TestSim_CallCount("BDA_Stop_simulate"), 1);
  const auto afterClose = DeviceCalls();
  EXPECT_EQ(std::count(afterClose.begin(), afterClose.end(), "ZFN_ReleaseDABEventHandle"), 0);
  EXPECT_EQ(std::count(afterClose.begin(), afterClose.end(), "ZFN_BDAFilterRelease 0"), 0);
  EXPECT_EQ(device.dataEventRegistered, 1);
  EXPECT_EQ(log.Lines()[3], "ISDBT API: <-- Set frequency 557143 OK");
  // A device open and close clears the registration again.
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

TEST_F(Lifecycle, AFailingSimulatorReturnsZeroAtOnceWithoutUnwinding) {
  ASSERT_EQ(TestSim_FailFunction("BDA_Start_simulate"), 1);
  LogCapture log;
  DebugCommand(5, 1);
  EXPECT_EQ(OpenDevice(), 0);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{kOn})) << "no fail line";
  EXPECT_EQ(device.running, 0);
  EXPECT_EQ(device.deviceBound, 1) << "left as it was";
  EXPECT_TRUE(device.dataEvent.Exists());
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(log.Lines().back(), kNotOpen);
  // A following device open takes over what was left.
  TestSim_ClearFailures();
  device.simulationMode = 0;
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
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{kOn, kOpenFail}));
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
    ASSERT_TRUE(WaitFor([] { return engine.blockState == BLOCK_FRAME_SYNC; }));
    int32_t present = 7, locked = 7;
    EXPECT_EQ(GetSignalPresent(&present), 0) << "acquiring: not sure";
    TestDevice_SetByteRate(1);  // the event thread signals on, but no data comes
    const auto stalled = std::chrono::steady_clock::now();
    const bool noSignal = WaitFor([&] { return GetSignalPresent(&present) == 1 && present == 0; }, 2500);
    EXPECT_EQ(noSignal, refined);
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

TEST_F(Lifecycle, ATunerFailureDoesNotFailTheRetune) {
  ASSERT_EQ(OpenDevice(), 1);
  TestDevice_FailFunction("ZFN_Set_Frequency", 0, -1);
  TestDevice_FailFunction("ZFN_DeviceUpdate", 0, -1);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(SetFrequency(557143), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(200));
  // A frequency whose tuner setting leaves 32 bits fails like the tuner (and overflows nothing).
  TestDevice_ClearFailures();
  TestDevice_Reset();
  EXPECT_EQ(SetFrequency(INT32_MAX), 1);
  for (const std::string& call : DeviceCalls()) EXPECT_NE(call.rfind("ZFN_Set_Frequency", 0), 0u) << call;
  EXPECT_EQ(SetFrequency(INT32_MIN), 1);
  ASSERT_TRUE(WaitFor([] { return engine.blockState >= BLOCK_COARSE_SYNC; }));
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

}  // namespace
}  // namespace zfn
