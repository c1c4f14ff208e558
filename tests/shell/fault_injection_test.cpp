// Faults of the device, injected through the test build of the device library while it serves a
// capture of our transmitter at real time, with the real threads and stages: after each fault the
// receiver locks again and closes cleanly. Odd read lengths, a stall with events but no data, a
// burst of lost blocks, one lost byte (recovered only with the refinements), and register writes
// that fail while tracking and through a retune. The refinements are on, so that the status
// functions tell of a stalled stream and a lost byte is found again.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "lifecycle_support.h"
#include "shell/lifecycle.h"
#include "shell/shell_fields.h"
#include "simulator/transmitter.h"
#include "tests/support/test_device/test_device_control.h"

namespace zfn {
namespace {

using zfn_test::WaitFor;

constexpr int64_t kRealTimeBytes = 4063492;
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
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_TRUE(WaitFor(Locked, 6000)) << "no lock after the fault";
  std::printf("%s: lock after %.2f s\n", f.name,
              std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
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
