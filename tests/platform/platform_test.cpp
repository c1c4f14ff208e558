// The operating-system layer: auto-reset events, threads, library loading, the debug sink.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "platform/auto_reset_event.h"
#include "platform/debug_output.h"
#include "platform/thread.h"

namespace zfn::platform {
namespace {

using Clock = std::chrono::steady_clock;

TEST(AutoResetEvent, SetsMergeIntoOneWakeAndTheWaitResets) {
  AutoResetEvent event;
  ASSERT_TRUE(event.Create());
  EXPECT_FALSE(event.Wait(0)) << "created not signalled";
  event.Set();
  event.Set();
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0)) << "three sets before one wait are one wake";
}

TEST(AutoResetEvent, CreatedSignalledServesAsAFreeLock) {
  AutoResetEvent lock;
  ASSERT_TRUE(lock.Create(true));
  EXPECT_TRUE(lock.Wait(WAIT_INFINITE));  // take
  EXPECT_FALSE(lock.Wait(10));            // held
  lock.Set();                             // release
  EXPECT_TRUE(lock.Wait(0));
}

TEST(AutoResetEvent, TimedWaitTimesOutAndWakesOnAForeignWrite) {
  AutoResetEvent event;
  ASSERT_TRUE(event.Create());
  const auto t0 = Clock::now();
  EXPECT_FALSE(event.Wait(50));
  EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(45));

  // A sample source signals through the descriptor alone, from a thread of its own.
  int* fd = event.DescriptorAddress();
  std::thread source([fd] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const uint64_t one = 1;
    ASSERT_EQ(write(*fd, &one, sizeof one), 8);
  });
  EXPECT_TRUE(event.Wait(5000));
  source.join();
}

TEST(AutoResetEvent, AbsentEventIsHarmless) {
  AutoResetEvent event;
  EXPECT_FALSE(event.Exists());
  event.Set();
  EXPECT_FALSE(event.Wait(0));
  event.Close();
  ASSERT_TRUE(event.Create());
  event.Close();
  EXPECT_EQ(event.Descriptor(), -1);
}

std::atomic<int> threadRuns{0};
void CountRun() {
  SetCurrentThreadPriority(ThreadPriority::Reception);  // may be refused: carries on either way
  threadRuns += 1;
}

TEST(Thread, StartsRunsAndJoinsWhateverThePriorityRequestGives) {
  Thread thread;
  threadRuns = 0;
  ASSERT_TRUE(thread.Start(CountRun));
  EXPECT_TRUE(thread.Exists());
  EXPECT_NE(thread.Id(), 0u);
  thread.Join();
  EXPECT_FALSE(thread.Exists());
  EXPECT_EQ(thread.Id(), 0u);
  EXPECT_EQ(threadRuns.load(), 1);
  thread.Join();  // harmless when absent
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(DebugOutput, SilentUnlessNamedThenAppendsEachTextWhole) {
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
  unsetenv(DEBUG_OUTPUT_VARIABLE);
  EXPECT_EQ(ReadFile(path), "ISDBT API: one\ntwo, no newline");
  std::remove(path.c_str());
}

TEST(DebugOutput, StderrTarget) {
  setenv(DEBUG_OUTPUT_VARIABLE, "stderr", 1);
  testing::internal::CaptureStderr();
  DebugOutput("to standard error\n");
  const std::string out = testing::internal::GetCapturedStderr();
  unsetenv(DEBUG_OUTPUT_VARIABLE);
  EXPECT_EQ(out, "to standard error\n");
}

}  // namespace
}  // namespace zfn::platform
