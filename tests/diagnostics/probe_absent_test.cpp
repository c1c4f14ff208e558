// Debug command 1 with no bridge library on the search path: the receiver works on, the probe
// stays off, every later attempt tries again, and even an engine told to fill writes nothing.
#include <gtest/gtest.h>

#include "shell/diagnostics.h"
#include "shell/probe_bridge.h"
#include "shell/receiver_state.h"
#include "tracking/probe_fill.h"

namespace zfn {
namespace {

TEST(ProbeBridgeAbsent, TheCommandSucceedsAndTheProbeStaysOff) {
  for (const int32_t value : {1, 1, 2}) {  // the unload: nothing loaded, nothing to unload
    EXPECT_EQ(DebugProbeCommand(value), 1);
    EXPECT_EQ(probeEnable, 0);
    EXPECT_EQ(probeBridge.bridgeLoaded, 0);
    EXPECT_TRUE(probeBridge.library == nullptr && matlabProbe == nullptr);
  }
  engine.probeActive = 1;
  ProbeBeginSymbol(0);
  ProbeFinishFrame(100, ProbeFrameInput{});
  ProbeStoreBlockState(BLOCK_MODE_DETECT);
  engine.probeActive = 0;
}

}  // namespace
}  // namespace zfn
