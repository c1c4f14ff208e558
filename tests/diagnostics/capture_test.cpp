// Capture of raw blocks to "BBStore" files: numbering over stops, starts and failed starts, the
// bytes in the file against the blocks fed by reception, and the stop paths.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

#include <string>
#include <vector>

#include "shell/capture.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/receiver_state.h"
#include "shell/shell_fields.h"
#include "tests/diagnostics/diagnostics_support.h"

namespace zfn {
namespace {

using zfn_test::FileExists;
using zfn_test::OpenDescriptors;
using zfn_test::ReadBytes;
using zfn_test::WaitFor;

std::string CaptureName(int32_t number) { return "BBStore" + std::to_string(number); }

// A block whose every byte depends on the block number and the position.
std::vector<uint8_t> PatternBlock(uint32_t block) {
  std::vector<uint8_t> bytes(RAW_BLOCK_BYTES);
  for (int32_t i = 0; i < RAW_BLOCK_BYTES; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + block * 31 + (i >> 9));
  return bytes;
}

class Capture : public ::testing::Test {
 protected:
  static void Clear() {
    captureFault = 0;
    device.running = 0;
    captureOn = 0;
  }
  void SetUp() override { Clear(); }
  void TearDown() override {
    StopCapture();
    Clear();
    CaptureRingFree();
  }
  zfn_test::ScratchDirectory scratch_{true};
};

// Files 0, 1, 2 over stops and starts with the device closed (the thread finds running = 0 and
// ends by itself); then the number advances when a later step of the start fails, but not when the
// file does not open.
TEST_F(Capture, FilesAreNumberedOnOverStopsStartsAndFailedStarts) {
  capture.captureFileNumber = 0;
  const int descriptors = OpenDescriptors();
  for (int32_t n = 0; n < 3; ++n) {
    ASSERT_EQ(StartCapture(), 1);
    EXPECT_TRUE(FileExists(CaptureName(n)));
    EXPECT_EQ(capture.captureFileNumber, n + 1);
    EXPECT_TRUE(WaitFor([] { return capture.threadEnded.load() == 1; }, 1000));
    EXPECT_EQ(StopCapture(), 1);
    EXPECT_EQ(captureOn, 0);
    EXPECT_FALSE(capture.captureThread.Exists());
    EXPECT_FALSE(capture.captureEvent.Exists());
  }
  EXPECT_FALSE(FileExists(CaptureName(3)));
  // The file pointer survives the stop; a second stop in a row must not close it again.
  EXPECT_NE(capture.captureFile, nullptr);
  EXPECT_EQ(StopCapture(), 1);

  const int32_t first = 3;
  captureFault = static_cast<int32_t>(CaptureFault::Event);
  EXPECT_EQ(StartCapture(), 0);
  EXPECT_TRUE(FileExists(CaptureName(first)));
  EXPECT_EQ(capture.captureFileNumber, first + 1);
  EXPECT_EQ(captureOn, 0) << "the failure comes before capture is switched on";
  EXPECT_TRUE(capture.captureFileOpen) << "the file is left open";

  captureFault = static_cast<int32_t>(CaptureFault::Thread);
  EXPECT_EQ(StartCapture(), 0);
  EXPECT_TRUE(FileExists(CaptureName(first + 1)));
  EXPECT_EQ(capture.captureFileNumber, first + 2);
  EXPECT_EQ(captureOn, 1) << "a thread failure leaves capture switched on";
  EXPECT_FALSE(capture.captureThread.Exists());
  captureFault = 0;

  // The file cannot be opened (a directory stands under its name): result 0, number unchanged.
  ASSERT_EQ(mkdir(CaptureName(first + 2).c_str(), 0755), 0);
  EXPECT_EQ(StartCapture(), 0);
  EXPECT_EQ(capture.captureFileNumber, first + 2);

  EXPECT_EQ(StopCapture(), 1);
  EXPECT_EQ(StopCapture(), 1);
  // Each file left open (by a stop, or a failed start) was closed when the next start replaced
  // it, and the last one by the stop: nothing is left open.
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

// The file holds the blocks fed by reception byte for byte; a start without a stop replaces the
// capture; a close ends the thread by itself.
TEST_F(Capture, TheFileHoldsTheBlocksFedAndASecondStartOrACloseEndsIt) {
  ASSERT_EQ(CaptureRingAlloc(), 1);
  const int32_t number = capture.captureFileNumber;
  const int descriptors = OpenDescriptors();
  device.running = 1;
  const std::vector<uint8_t> early = PatternBlock(99);
  CaptureFeed(early.data());  // capture off: reception's feed does nothing
  EXPECT_EQ(capture.captureWritten.load(), 0u);

  ASSERT_EQ(StartCapture(), 1);
  std::vector<uint8_t> expected, second;
  uint32_t fed = 0;
  // Seven blocks one at a time, then bursts of three (what the ring holds), each time waiting for
  // the writer to catch up, as a disk that keeps up would.
  auto feed = [&](int32_t count, std::vector<uint8_t>& into) {
    for (int32_t i = 0; i < count; ++i, ++fed) {
      const std::vector<uint8_t> block = PatternBlock(fed);
      CaptureFeed(block.data());
      into.insert(into.end(), block.begin(), block.end());
    }
    ASSERT_TRUE(WaitFor([&] { return capture.captureRead.load() == static_cast<uint32_t>(into.size() / RAW_BLOCK_BYTES); }, 2000));
  };
  for (int32_t i = 0; i < 7; ++i) feed(1, expected);
  for (int32_t i = 0; i < 3; ++i) feed(3, expected);
  EXPECT_EQ(capture.captureWritten.load(), 16u);

  ASSERT_EQ(StartCapture(), 1);  // no stop: the new file takes over, one writer remains
  feed(1, second);
  EXPECT_EQ(StopCapture(), 1);
  CaptureFeed(early.data());  // after the stop the feed does nothing again
  EXPECT_EQ(capture.captureWritten.load(), 1u);

  // Close while capturing: running and the capture switch drop, the ring goes.
  ASSERT_EQ(StartCapture(), 1);
  device.running = 0;
  captureOn = 0;
  CaptureRingFree();
  EXPECT_TRUE(WaitFor([] { return capture.threadEnded.load() == 1; }, 2000));
  EXPECT_EQ(StopCapture(), 1);
  EXPECT_FALSE(capture.captureThread.Exists());

  EXPECT_TRUE(ReadBytes(CaptureName(number)) == expected) << "capture file differs from the blocks fed";
  EXPECT_TRUE(ReadBytes(CaptureName(number + 1)) == second);
  EXPECT_TRUE(ReadBytes(CaptureName(number + 2)).empty());
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

// With the refinements on, a capture that could not keep up or could not be written says so
// through debug command 6, 2, and its file is the stream up to the fault, without holes; designed,
// the command answers 1 whatever happened.
TEST_F(Capture, ALostBlockOrAFailedWriteEndsTheFileAndIsReportedWithTheRefinements) {
  ASSERT_EQ(CaptureRingAlloc(), 1);
  device.running = 1;
  for (const int32_t refined : {0, 1}) {
    SCOPED_TRACE(refined);
    engine.refined = refined;
    // A disk too slow: the writer is held while reception laps the ring.
    const int32_t number = capture.captureFileNumber;
    ASSERT_EQ(StartCapture(), 1);
    std::vector<uint8_t> expected;
    for (uint32_t b = 0; b < 2; ++b) {
      const std::vector<uint8_t> block = PatternBlock(b);
      CaptureFeed(block.data());
      expected.insert(expected.end(), block.begin(), block.end());
    }
    ASSERT_TRUE(WaitFor([] { return capture.captureRead.load() == 2; }, 2000));
    {
      std::lock_guard<std::mutex> hold(capture.writeLock);
      for (uint32_t b = 2; b < 7; ++b) CaptureFeed(PatternBlock(b).data());
    }
    ASSERT_TRUE(WaitFor([] { return capture.captureRead.load() == 7; }, 2000));
    EXPECT_EQ(DebugCommand(6, 2), refined != 0 ? CAPTURE_LOST_BLOCKS : 1);
    EXPECT_EQ(StopCapture(), 1);
    const std::vector<uint8_t> file = ReadBytes(CaptureName(number));
    if (refined != 0) EXPECT_TRUE(file == expected) << "the blocks before the loss, and nothing else";
    else EXPECT_EQ(file.size(), 7u * RAW_BLOCK_BYTES) << "designed: lapped blocks written as they are";

    // A full disk.
    ASSERT_EQ(symlink("/dev/full", CaptureName(number + 1).c_str()), 0);
    ASSERT_EQ(StartCapture(), 1);
    CaptureFeed(PatternBlock(0).data());
    ASSERT_TRUE(WaitFor([] { return capture.captureRead.load() == 1; }, 2000));
    EXPECT_EQ(DebugCommand(6, 2), refined != 0 ? CAPTURE_WRITE_FAILED : 1);
    EXPECT_EQ(StopCapture(), 1);
  }
  engine.refined = 0;
  device.running = 0;
}

}  // namespace
}  // namespace zfn
