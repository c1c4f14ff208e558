// Open when the device library is absent or incomplete: ctest runs this case twice, with a search
// path that holds no device library and with one that holds only an incomplete one. The simulator
// needs the device library too, so simulation fails as well; close after it is harmless.
#include <gtest/gtest.h>

#include <utility>

#include "frontend/device_binding.h"
#include "lifecycle_support.h"
#include "shell/device_state.h"
#include "shell/lifecycle.h"
#include "shell/receiver_state.h"

namespace zfn {
namespace {

TEST(OpenWithoutDevice, FailsInDeviceModeAndSimulationAndLeavesNothing) {
  for (const int32_t simulationMode : {0, 1}) {
    const int fds = zfn_test::OpenDescriptors();
    const int threads = zfn_test::ProcessThreads();
    zfn_test::LogCapture log;
    device.simulationMode = simulationMode;
    EXPECT_EQ(OpenDevice(), 0);
    EXPECT_EQ(log.Lines(), zfn_test::ApiLines("--> Device On | <-- OPEN DAB DEVICE Fail"));
    EXPECT_EQ(device.running + device.deviceBound, 0);
    EXPECT_EQ(deviceBinding.library, nullptr) << "unbound again";
    EXPECT_FALSE(device.dataEvent.Exists());
    EXPECT_EQ(std::make_pair(zfn_test::OpenDescriptors(), zfn_test::ProcessThreads()), std::make_pair(fds, threads));
    EXPECT_EQ(engine.arenaBase, nullptr);
    device.simulationMode = 0;
  }
  EXPECT_EQ(CloseDevice(), 1);
}

}  // namespace
}  // namespace zfn
