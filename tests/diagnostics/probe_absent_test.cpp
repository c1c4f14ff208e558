// Debug command 1 with no bridge library on the search path: the receiver works on, the probe
// stays off, and every later attempt tries again.
#include <gtest/gtest.h>

#include "shell/diagnostics.h"
#include "shell/probe_bridge.h"
#include "shell/receiver_state.h"
#include "tracking/probe_fill.h"

namespace zfn {
namespace {

TEST(ProbeBridgeAbsent, TheCommandSucceedsAndTheProbeStaysOff) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(DebugProbeCommand(1), 1);
    EXPECT_EQ(probeEnable, 0);
    EXPECT_EQ(probeBridge.bridgeLoaded, 0);
    EXPECT_EQ(probeBridge.library, nullptr);
    EXPECT_EQ(matlabProbe, nullptr);
  }
  EXPECT_EQ(DebugProbeCommand(2), 1) << "nothing loaded, nothing to unload";
  EXPECT_EQ(probeBridge.bridgeLoaded, 0);

  // Even an engine told to fill finds no record and writes nothing.
  engine.probeActive = 1;
  ProbeBeginSymbol(0);
  ProbeFinishFrame(100, ProbeFrameInput{});
  ProbeStoreBlockState(BLOCK_MODE_DETECT);
  engine.probeActive = 0;
}

}  // namespace
}  // namespace zfn
