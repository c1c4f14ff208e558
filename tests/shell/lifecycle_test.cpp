// Open, retune and close with the real threads, against the test builds of the device library and
// the simulator (found through LD_LIBRARY_PATH): every failure of open with its result and its
// unwinding, the differences between simulation and device, and what each path leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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
#include "shell/shell_fields.h"
#include "simulator/transmitter.h"
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
                          static_cast<const void*>(engine.arenaBase), static_cast<const void*>(engine.sampleBlock),
                          static_cast<const void*>(blockRing.readBuffer), static_cast<const void*>(blockRing.slots[0])})
      EXPECT_EQ(p, nullptr) << "memory " << i++;
    // The kernel may list a thread for a moment after its join returned.
    EXPECT_TRUE(WaitFor([this] { return ProcessThreads() <= threads_; }, 2000)) << ProcessThreads() << " threads";
    EXPECT_EQ(OpenDescriptors(), fds_);
  }
  int fds_ = 0;
  int threads_ = 0;
};

// Callbacks are kept over open and close; blocks flow and are thrown away while idle; the status
// words keep their last values after close and are closed to the host; a new open starts idle;
// a frequency whose tuner setting leaves 32 bits fails like the tuner (and overflows nothing).
TEST_F(Lifecycle, WhatOpenAndCloseKeepAndTheEdgesOfTheFrequency) {
  auto cb = [](const uint8_t*, int32_t) {};
  auto ac = []() {};
  EXPECT_EQ(SetTsCallback(cb) + SetAcCallback(ac), 2);
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(device.tunerType, 1);
  EXPECT_EQ(device.debugPara, &debugParaBlock);
  ASSERT_TRUE(WaitFor([] { return BlocksWritten() >= 2; }));
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);
  EXPECT_EQ(SetFrequency(557143), 1);
  ASSERT_TRUE(InFrameSync());
  EXPECT_EQ(CloseDevice(), 1);
  EXPECT_EQ(device.tsCallback.load(), static_cast<ZFISDBT_TsCallback>(cb));
  EXPECT_EQ(device.acCallback.load(), static_cast<ZFISDBT_AcCallback>(ac));
  device.tsCallback = nullptr;
  device.acCallback = nullptr;
  int32_t words[12];
  EXPECT_EQ(DebugGetParaValue(words), 0);
  EXPECT_EQ(debugParaBlock.Int(5), BLOCK_FRAME_SYNC);

  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(engine.blockState, BLOCK_IDLE);
  TestDevice_Reset();
  EXPECT_EQ(SetFrequency(INT32_MAX), 1);
  for (const std::string& call : DeviceCalls()) EXPECT_NE(call.rfind("ZFN_Set_Frequency", 0), 0u) << call;
  EXPECT_EQ(SetFrequency(INT32_MIN), 1);
  ASSERT_TRUE(InFrameSync());
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

// One open, retune and close: what fails, the result of open, whether the device runs after it,
// the retune (its frequency, and whether it waits for the tuner), the whole log and the device
// control calls. The defaults are those of a failed open: the fail line, and every control call
// released again. After each, nothing is left (or, where a failure leaves the device library bound
// or registered, a following device open takes it over), and after a failure a plain open and
// close works.
// - Device: the tuner is set 600 kHz above the channel, with the bandwidth always 6 MHz; a failing
//   tuner (setting or update) does not fail the retune.
// - Simulation mode 1 uses the simulator only, binds the device library but calls nothing of it,
//   and retunes without the tuner. Mode 2 opens as simulation but retunes like the device: the late
//   registration branch gives the event to the device library, programs the demodulator and sets
//   the tuner; close takes the simulation path and leaves the registration.
// - A failed last allocation of open (the capture ring) leaves the device running until close; a
//   failing simulator returns 0 at once without the fail line and unwinds nothing.
// - Every other step of open failing in turn unwinds to nothing, the simulator stopped again.
const Calls kOpened = {"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle", "ZFN_Get_TunerType"};
const Calls kTuned = {"ZFN_Set_Frequency 557743", "ZFN_Set_Bandwidth 6", "ZFN_DeviceUpdate"};
const Calls kReleased = {"ZFN_ReleaseDABEventHandle", "ZFN_BDAFilterRelease 0"};
Calls operator+(Calls a, const Calls& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
const std::string kOn = "--> Device On | <-- OPEN DAB DEVICE SUCCEED | ";
const std::string kTune = "--> Set frequency 557143 and bandwidth | <-- Set frequency 557143 OK | ";
const std::string kOff = "--> ISDBT_DeviceOff() | <-- ISDBT_DeviceOff() OK";
const std::string kNotOpen = "--> ISDBT_DeviceOff() | <-- ZFISDBT_OpenDevice() has not been invoked,  ISDBT_DeviceOff() OK";

struct Scenario {
  const char* name;
  ShellFault fault = ShellFault::None;  // a shell resource that fails
  const char* failDevice = nullptr;     // a device function that fails
  int32_t simulation = 0;
  int32_t opened = 0, running = 0;
  int32_t kHz = 0;  // retune after open, if not 0
  bool waits = false, leftForTheNextOpen = false;
  std::string log = "--> Device On | <-- OPEN DAB DEVICE Fail | " + kNotOpen;
  Calls calls = kOpened + kReleased;
};
void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }
class Scenarios : public Lifecycle, public testing::WithParamInterface<Scenario> {};

TEST_P(Scenarios, OpenRetuneCloseAndWhatIsLeft) {
  const Scenario& s = GetParam();
  EXPECT_TRUE(s.failDevice == nullptr || TestDevice_FailFunction(s.failDevice, 0, -1) == 1);
  EXPECT_TRUE(s.simulation != 3 || TestSim_FailFunction("BDA_Start_simulate") == 1);
  injectedFault = static_cast<int32_t>(s.fault);
  EXPECT_EQ(DebugCommand(5, s.simulation == 3 ? 1 : s.simulation), 1);
  LogCapture log;
  EXPECT_EQ(OpenDevice(), s.opened);
  injectedFault = 0;
  EXPECT_EQ(device.running, s.running);
  EXPECT_TRUE(s.running == 0 || ProcessThreads() > threads_);
  EXPECT_TRUE(s.opened != 1 || device.deviceBound * 10 + TestSim_Started() == (s.simulation != 0 ? 11 : 10));
  if (s.kHz != 0) {
    EXPECT_EQ(RetuneWaitsForTheTuner(s.kHz), s.waits);
    EXPECT_TRUE(controlBlock.tuningNow == 0 && InFrameSync() && debugParaBlock.Int(5) == BLOCK_FRAME_SYNC)
        << controlBlock.tuningNow << " " << debugParaBlock.Int(5);
  }
  EXPECT_TRUE(s.simulation != 2 || TestDevice_AccessCount() > 0) << "demodulator programmed";
  EXPECT_EQ((std::array<int32_t, 3>{CloseDevice(), engine.blockState, device.tunerType}), (std::array{1, BLOCK_IDLE, 0}));
  EXPECT_EQ(log.Lines(), ApiLines(s.log));
  EXPECT_EQ(DeviceCalls(), s.calls);
  EXPECT_TRUE(s.simulation != 1 || s.opened != 1 || DeviceCalls(true).empty()) << "no device function is called";
  EXPECT_EQ(TestSim_CallCount("BDA_Stop_simulate"), s.simulation == 1 || s.simulation == 2 ? 1 : 0);
  EXPECT_EQ(TestSim_Started() + TestSim_EventThreadRunning(), 0) << "the simulator still runs";
  EXPECT_TRUE(s.running == 0 || device.simulationMode == 0) << "cleared by close";
  device.simulationMode = 0;
  if (s.leftForTheNextOpen) {
    EXPECT_NE(device.deviceBound + device.dataEventRegistered, 0);
  } else {
    ExpectNothingLeft();
  }
  if (s.opened == 1 && !s.leftForTheNextOpen) return;
  TestDevice_ClearFailures();
  TestSim_ClearFailures();
  ASSERT_EQ(OpenDevice(), 1);
  EXPECT_EQ(CloseDevice(), 1);
  ExpectNothingLeft();
}

const Calls kReleaseOnly = {"ZFN_BDAFilterRelease 0"};
INSTANTIATE_TEST_SUITE_P(
    All, Scenarios,
    testing::Values(
        Scenario{.name = "Device", .opened = 1, .running = 1, .kHz = 557143, .waits = true,
                 .log = kOn + kTune + kOff, .calls = kOpened + kTuned + kReleased},
        Scenario{.name = "TunerFails", .failDevice = "ZFN_Set_Frequency", .opened = 1, .running = 1, .kHz = 557143,
                 .waits = true, .log = kOn + kTune + kOff, .calls = kOpened + Calls{"ZFN_Set_Frequency 557743"} + kReleased},
        Scenario{.name = "UpdateFails", .failDevice = "ZFN_DeviceUpdate", .opened = 1, .running = 1, .kHz = 557143,
                 .waits = true, .log = kOn + kTune + kOff, .calls = kOpened + kTuned + kReleased},
        Scenario{.name = "SimulationOne", .simulation = 1, .opened = 1, .running = 1, .kHz = 123,
                 .log = kOn + "--> Set frequency 123 and bandwidth | <-- Set frequency and bandwidth OK | " + kOff,
                 .calls = {}},
        Scenario{.name = "SimulationTwo", .simulation = 2, .opened = 1, .running = 1, .kHz = 557143, .waits = true,
                 .leftForTheNextOpen = true, .log = kOn + kTune + kOff, .calls = Calls{"ZFN_SetDABEventHandle"} + kTuned},
        Scenario{.name = "CaptureRing", .fault = ShellFault::CaptureRing, .running = 1, .kHz = 557143, .waits = true,
                 .log = "--> Device On | " + kTune + kOff, .calls = kOpened + kTuned + kReleased},
        Scenario{.name = "SimulatorFails", .simulation = 3, .leftForTheNextOpen = true, .log = "--> Device On | " + kNotOpen,
                 .calls = {}},
        Scenario{.name = "FilterInit", .failDevice = "ZFN_BDAFilterInit", .opened = 2,
                 .calls = {"ZFN_BDAFilterInit 0", "ZFN_BDAFilterRelease 0"}},
        Scenario{.name = "EventRegistration", .failDevice = "ZFN_SetDABEventHandle",
                 .calls = {"ZFN_BDAFilterInit 0", "ZFN_SetDABEventHandle", "ZFN_BDAFilterRelease 0"}},
        Scenario{.name = "TunerType", .failDevice = "ZFN_Get_TunerType"},
        Scenario{.name = "DemodulatorProgramming", .failDevice = "ZFN_Demod_Byte_Write"},
        Scenario{.name = "DataEvent", .fault = ShellFault::DataEvent, .calls = kReleaseOnly},
        Scenario{.name = "RingReadBuffer", .fault = ShellFault::RingReadBuffer},
        Scenario{.name = "RingAssemblyBuffer", .fault = ShellFault::RingAssemblyBuffer},
        Scenario{.name = "RingSlot", .fault = ShellFault::RingSlot},
        Scenario{.name = "BlockEvent", .fault = ShellFault::BlockEvent},
        Scenario{.name = "ReceptionThread", .fault = ShellFault::ReceptionThread},
        Scenario{.name = "PacketEvent", .fault = ShellFault::PacketEvent},
        Scenario{.name = "PacketThread", .fault = ShellFault::PacketThread},
        Scenario{.name = "WorkArena", .fault = ShellFault::ArenaAlloc},
        Scenario{.name = "SampleBlock", .fault = ShellFault::SampleBlockAlloc},
        Scenario{.name = "ControlLock", .fault = ShellFault::ControlLock},
        Scenario{.name = "DemodulationThread", .fault = ShellFault::DemodulationThread},
        Scenario{.name = "SimulatedRingSlot", .fault = ShellFault::RingSlot, .simulation = 1, .calls = kReleaseOnly},
        Scenario{.name = "SimulatedPacketThread", .fault = ShellFault::PacketThread, .simulation = 1,
                 .calls = kReleaseOnly},
        Scenario{.name = "SimulatedDemodulationThread", .fault = ShellFault::DemodulationThread, .simulation = 1,
                 .calls = kReleaseOnly}),
    [](const testing::TestParamInfo<Scenario>& p) { return std::string(p.param.name); });

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

// Faults of the device, injected through the test build of the device library while it serves a
// capture of our transmitter at real time, with the real threads and stages: after each fault the
// receiver locks again and closes cleanly. Odd read lengths, a stall with events but no data, a
// burst of lost blocks, one lost byte (recovered only with the refinements), and register writes
// that fail while tracking and through a retune. The refinements are on, so that the status
// functions tell of a stalled stream and a lost byte is found again.
constexpr double kCaptureSeconds = 9.0;

// Mode 3, 1/8, QPSK 2/3 with short time interleaving and a little noise, made once.
const std::vector<uint8_t>& Capture() {
  static const std::vector<uint8_t> bytes = [] {
    sim::BroadcastConfig b;
    b.interleave = 1;
    sim::ChannelConfig c;
    c.noise = true;
    c.cnDb = 25;
    std::string error;
    auto generator = sim::SignalGenerator::Create(b, c, sim::MakeNullSource(), &error);
    return generator ? generator->GenerateSeconds(kCaptureSeconds) : std::vector<uint8_t>{};
  }();
  return bytes;
}

bool Locked() {
  int32_t locked = 0;
  return GetSignalLock(&locked) == 1 && locked == 1;
}

struct Fault {
  const char* name;
  void (*inject)();
  bool beforeTune = false;  // injected before the tune: acquisition itself must cope
};

void PrintTo(const Fault& f, std::ostream* os) { *os << f.name; }

class DeviceFaults : public testing::TestWithParam<Fault> {
 protected:
  void TearDown() override {
    CloseDevice();
    TestDevice_ClearFailures();
  }
};

TEST_P(DeviceFaults, TheReceiverLocksAgainAndClosesCleanly) {
  const Fault& f = GetParam();
  ASSERT_FALSE(Capture().empty());
  TestDevice_Reset();
  TestDevice_SetStreamBuffer(Capture().data(), static_cast<int64_t>(Capture().size()), 0);
  TestDevice_SetByteRate(kRealTimeBytes);
  setenv("ZFNISDBT_REFINED", "1", 1);
  ASSERT_EQ(OpenDevice(), 1);
  unsetenv("ZFNISDBT_REFINED");
  if (f.beforeTune) {
    f.inject();
    ASSERT_EQ(SetFrequency(557143), 1);
  } else {
    ASSERT_EQ(SetFrequency(557143), 1);
    ASSERT_TRUE(WaitFor(Locked, 4000)) << "no lock before the fault";
    f.inject();
    ASSERT_TRUE(WaitFor([] { return !Locked(); }, 3000)) << "the fault went unnoticed";
  }
  EXPECT_TRUE(WaitFor(Locked, 6000)) << "no lock after the fault";
  EXPECT_EQ(CloseDevice(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, DeviceFaults,
    testing::Values(
        Fault{"StallWithEventsButNoData", [] { TestDevice_Stall(2000); }},
        Fault{"BurstOfLostBlocks", [] { TestDevice_LoseBytes(int64_t{6} * RAW_BLOCK_BYTES); }},
        Fault{"OneLostByteFoundAgainByAcquisition", [] { TestDevice_LoseBytes(1); }, true},
        Fault{"OddReadLengthsAndFailingRegisterWritesThroughARetune",
              [] {
                TestDevice_SetReadLength(0, 77, 0);
                TestDevice_FailFunction("ZFN_Demod_Byte_Write", 0, -1);
                TestDevice_FailFunction("ZFN_Set_Frequency", 0, -1);
                SetFrequency(557143);
              }}),
    [](const testing::TestParamInfo<Fault>& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace zfn
