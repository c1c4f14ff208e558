// Capture and probe through the public API on a simulated broadcast, with the project's own
// libBDA_simu.so, the simulation build of libZFNACCESS.so and the picture-writing bridge
// (libISDBT_MatlabWrap.so), all in build/lib. A capture played back through the simulator library
// gives the same stream again, and files are numbered on over close and open; the probe draws what
// the engine receives into the files a user reads.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "tests/diagnostics/diagnostics_support.h"
#include "zfnisdbt.h"

namespace {

using zfn_test::ReadText;
using zfn_test::ScratchDirectory;
using zfn_test::WaitFor;
using Packet = std::array<uint8_t, 188>;

std::mutex streamLock;
std::vector<Packet> stream;
std::atomic<int32_t> deliveries{0};

void OnStream(const uint8_t* data, int32_t length) {
  std::lock_guard<std::mutex> lock(streamLock);
  for (int32_t i = 0; i + 188 <= length; i += 188) std::memcpy(stream.emplace_back().data(), data + i, 188);
  deliveries.fetch_add(1);
}

// Twice real time for a replay in a plain build; under a sanitizer the simulator and the engine are
// several times slower, and a receiver that cannot keep up laps its rings and breaks packets, which
// is not what these cases are about: real time there, and for the pictures, which take their time.
void SetSpeed(bool fast) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  fast = false;
#endif
  setenv("ZFNISDBT_SIM_SPEED", fast ? "2" : "1", 1);
}

// Receives until `count` deliveries have come after the lock was first reported (before it the
// stream is still settling) and `during` has run, and returns what came after that.
template <class During>
std::vector<Packet> Receive(int32_t count, bool capture, During during) {
  stream.clear();
  deliveries = 0;
  EXPECT_EQ(ZFISDBT_SetTSCallBack(OnStream), 1);
  EXPECT_EQ(ZFISDBT_DebugCMD(5, 1), 1);
  if (ZFISDBT_OpenDevice() != 1) {
    ZFISDBT_CloseDevice();
    ADD_FAILURE() << "open in simulation failed";
    return {};
  }
  EXPECT_EQ(capture ? ZFISDBT_DebugCMD(6, 1) : 1, 1);
  EXPECT_EQ(ZFISDBT_SetFrequency(473143), 1);
  EXPECT_TRUE(WaitFor([] { int32_t l = 0; return ZFISDBT_GetSignalLock(&l) == 1 && l == 1; }, 20000))
      << "no lock on the simulated broadcast";
  during();
  const int32_t atLock = deliveries.load();
  EXPECT_TRUE(WaitFor([&] { return deliveries.load() >= atLock + count; }, 30000));
  EXPECT_EQ(capture ? ZFISDBT_DebugCMD(6, 0) : 1, 1);
  ZFISDBT_CloseDevice();
  std::lock_guard<std::mutex> lock(streamLock);
  return std::vector<Packet>(stream.begin() + std::min<size_t>(stream.size(), atLock * 128u), stream.end());
}

TEST(CaptureReplay, ACaptureReplaysThroughTheSimulatorToTheSameStream) {
  ScratchDirectory scratch;
  SetSpeed(true);
  unsetenv("ZFNISDBT_SIM_CAPTURE");
  const std::vector<Packet> first = Receive(6, true, [] {});
  ASSERT_GE(first.size(), 6u * 128u);
  ASSERT_TRUE(std::filesystem::exists("BBStore0")) << "no capture file written";
  setenv("ZFNISDBT_SIM_CAPTURE", scratch.File("BBStore0").c_str(), 1);
  const std::vector<Packet> second = Receive(10, false, [] { EXPECT_EQ(ZFISDBT_DebugCMD(6, 1), 1); });
  ASSERT_GE(second.size(), 10u * 128u);
  // The file numbers go on over close and open: file 1 in the second run, file 2 with the device
  // closed (the thread ends at once).
  for (int32_t value : {1, 0}) EXPECT_EQ(ZFISDBT_DebugCMD(6, value), 1);
  EXPECT_TRUE(std::filesystem::exists("BBStore1") && std::filesystem::exists("BBStore2"));
  EXPECT_FALSE(std::filesystem::exists("BBStore3"));

  // Anchor on the first packet of the first run that is not a null packet (those all look alike)
  // and that the replay has (the replay acquires anew, so the first run's first packets may come
  // before its own lock), then demand the whole overlap to be equal.
  const auto anchor = std::find_if(first.begin(), first.end(), [&](const Packet& p) {
    return ((p[1] & 0x1F) << 8 | p[2]) != 0x1FFF && std::find(second.begin(), second.end(), p) != second.end();
  });
  ASSERT_NE(anchor, first.end()) << "the first run's stream does not occur in the replay";
  const auto at = std::find(second.begin(), second.end(), *anchor);
  const auto compared = std::min(first.end() - anchor, second.end() - at);
  EXPECT_GE(compared, 256);
  EXPECT_TRUE(std::equal(anchor, anchor + compared, at)) << "the replay differs from the first run";
}

// Debug command 1 with ZFNISDBT_PROBE_DIR: once a frame, the picture of the reception (four panels,
// each with drawing in it beyond its frame) and the number files, replaced whole.
TEST(ProbePictures, TheBridgeDrawsWhatTheEngineReceives) {
  ScratchDirectory out;
  SetSpeed(false);
  setenv("ZFNISDBT_PROBE_DIR", out.path_.c_str(), 1);
  const std::string status = out.File("status.csv");
  Receive(1, false, [&] {
    EXPECT_EQ(ZFISDBT_DebugCMD(1, 1), 1);
    EXPECT_TRUE(WaitFor([&] { return ReadText(status).find("update,2\n") != std::string::npos; }, 20000));
    EXPECT_EQ(ZFISDBT_DebugCMD(1, 2), 1);
  });
  const std::string text = ReadText(status);
  EXPECT_NE(text.find("block_state,3\n"), std::string::npos) << text;
  const size_t snr = text.find("snr_db,");
  ASSERT_NE(snr, std::string::npos) << text;
  EXPECT_GT(std::atof(text.c_str() + snr + 7), 15.0) << text;
  const std::string timing = ReadText(out.File("timing.csv")), jumps = ReadText(out.File("jumps.csv"));
  EXPECT_EQ(timing.rfind("offset,value\n-", 0), 0u) << timing;
  EXPECT_EQ(std::count(timing.begin(), timing.end(), '\n') % 2, 0) << "a header and 2 * span + 1 entries";
  EXPECT_EQ(jumps.rfind("step\n", 0), 0u) << jumps;
  for (const char* left : {"probe.png.tmp", "status.csv.tmp"}) EXPECT_FALSE(std::filesystem::exists(out.File(left)));

  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&image, out.File("probe.png").c_str()));
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
  ASSERT_TRUE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr));
  ASSERT_TRUE(image.width == 960 && image.height == 720) << image.width << " x " << image.height;
  for (uint32_t panel = 0; panel < 4; ++panel) {
    const uint32_t x0 = (panel % 2) * 480 + 12, y0 = (panel / 2) * 360 + 40;
    int32_t inked = 0;
    for (uint32_t y = y0; y < y0 + 300; ++y)
      for (uint32_t x = x0; x < x0 + 450; ++x) inked += rgb[(y * 960 + x) * 3] < 200 || rgb[(y * 960 + x) * 3 + 2] < 200;
    EXPECT_GT(inked, 200) << "panel " << panel;
  }
}

// Without an output directory, or with a file in its place, the bridge fails with one clear line;
// a host may end with the bridge still showing.
TEST(ProbePictures, OneClearLineWithoutAnOutputDirectoryAndAHostMayEndWithTheBridgeShowing) {
  for (const char* directory : {static_cast<const char*>(nullptr), "/proc/self/status"}) {
    if (directory == nullptr) unsetenv("ZFNISDBT_PROBE_DIR");
    else setenv("ZFNISDBT_PROBE_DIR", directory, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ZFISDBT_DebugCMD(1, 1), 1);
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1) << message;
    EXPECT_NE(message.find(directory == nullptr ? "ZFNISDBT_PROBE_DIR" : "is not a directory"), std::string::npos);
  }
  ScratchDirectory out;
  setenv("ZFNISDBT_PROBE_DIR", out.path_.c_str(), 1);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(ZFISDBT_DebugCMD(1, 1) == 1 ? 0 : 3), ::testing::ExitedWithCode(0), "");
}

}  // namespace
