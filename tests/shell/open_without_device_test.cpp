// Open when the device library is absent or incomplete. Each case runs in a process of its own,
// with a search path that holds no device library or only an incomplete one.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frontend/device_binding.h"
#include "lifecycle_support.h"
#include "shell/device_state.h"
#include "shell/lifecycle.h"
#include "shell/receiver_state.h"

namespace zfn {
namespace {

void ExpectFailedOpenLeavesNothing(int32_t simulationMode) {
  const int fds = zfn_test::OpenDescriptors();
  const int threads = zfn_test::ProcessThreads();
  zfn_test::LogCapture log;
  device.simulationMode = simulationMode;
  EXPECT_EQ(OpenDevice(), 0);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"ISDBT API: --> Device On", "ISDBT API: <-- OPEN DAB DEVICE Fail"}));
  EXPECT_EQ(device.running, 0);
  EXPECT_EQ(device.deviceBound, 0);
  EXPECT_EQ(deviceBinding.library, nullptr) << "unbound again";
  EXPECT_FALSE(device.dataEvent.Exists());
  EXPECT_EQ(zfn_test::OpenDescriptors(), fds);
  EXPECT_EQ(zfn_test::ProcessThreads(), threads);
  EXPECT_EQ(engine.arenaBase, nullptr);
  device.simulationMode = 0;
}

// The simulator needs the device library too: its absence fails simulation as well.
TEST(OpenWithoutDevice, AbsentLibraryFailsDeviceAndSimulation) {
  ExpectFailedOpenLeavesNothing(0);
  ExpectFailedOpenLeavesNothing(1);
  EXPECT_EQ(CloseDevice(), 1);
}

TEST(OpenWithIncompleteDevice, AMissingFunctionFailsTheOpen) {
  ExpectFailedOpenLeavesNothing(0);
  ExpectFailedOpenLeavesNothing(1);
}

}  // namespace
}  // namespace zfn
