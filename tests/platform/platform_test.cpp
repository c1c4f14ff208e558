// The operating-system layer: auto-reset events and the debug sink. (Threads start and join in
// every lifecycle case, which counts the process's threads after each close.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "platform/auto_reset_event.h"
#include "platform/debug_output.h"

namespace zfn::platform {
namespace {

TEST(AutoResetEvent, SetsMergeTimedWaitsAndForeignWrites) {
  AutoResetEvent event;
  event.Set();  // harmless while absent
  EXPECT_FALSE(event.Exists() || event.Wait(0));
  ASSERT_TRUE(event.Create());
  EXPECT_FALSE(event.Wait(0)) << "created not signalled";
  for (int i = 0; i < 3; ++i) event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0)) << "three sets before one wait are one wake";
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(event.Wait(50));
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(45));

  // A sample source signals through the descriptor alone, from a thread of its own.
  int* fd = event.DescriptorAddress();
  std::thread source([fd] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const uint64_t one = 1;
    ASSERT_EQ(write(*fd, &one, sizeof one), 8);
  });
  EXPECT_TRUE(event.Wait(5000));
  source.join();
  event.Close();
  EXPECT_EQ(event.Descriptor(), -1);

  // Created signalled, an event serves as a free lock.
  ASSERT_TRUE(event.Create(true));
  EXPECT_TRUE(event.Wait(WAIT_INFINITE));  // take
  EXPECT_FALSE(event.Wait(10));            // held
  event.Set();                             // release
  EXPECT_TRUE(event.Wait(0));
}

TEST(DebugOutput, SilentUnlessNamedThenAppendsEachTextWholeOrGoesToStderr) {
  const std::string path = testing::TempDir() + "zfn_debug_output_test.log";
  std::remove(path.c_str());
  unsetenv(DEBUG_OUTPUT_VARIABLE);
  DebugOutput("lost\n");
  setenv(DEBUG_OUTPUT_VARIABLE, "", 1);
  DebugOutput("lost too\n");
  setenv(DEBUG_OUTPUT_VARIABLE, path.c_str(), 1);
  DebugOutput("ISDBT API: one\n");
  DebugOutput("two, no newline");
  DebugOutput(nullptr);
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  EXPECT_EQ(text.str(), "ISDBT API: one\ntwo, no newline");
  std::remove(path.c_str());

  setenv(DEBUG_OUTPUT_VARIABLE, "stderr", 1);
  testing::internal::CaptureStderr();
  DebugOutput("to standard error\n");
  const std::string out = testing::internal::GetCapturedStderr();
  unsetenv(DEBUG_OUTPUT_VARIABLE);
  EXPECT_EQ(out, "to standard error\n");
}

}  // namespace
}  // namespace zfn::platform
