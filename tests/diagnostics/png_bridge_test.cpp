// The picture-writing bridge (build/lib/libISDBT_MatlabWrap.so), loaded by debug command 1 and fed
// by the engine's fill with a synthetic frame: QPSK with noise, a smooth channel, a timing peak.
// The picture is read back with libpng; the status and step files are read.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "shell/diagnostics.h"
#include "shell/probe_bridge.h"
#include "shell/receiver_state.h"
#include "tests/diagnostics/diagnostics_support.h"
#include "tracking/probe_fill.h"

namespace zfn {
namespace {

using zfn_test::ReadText;
using zfn_test::ScratchDirectory;
using zfn_test::WaitFor;

constexpr const char* DIR_VARIABLE = "ZFNISDBT_PROBE_DIR";

struct Picture {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> rgb;
};

bool ReadPng(const std::string& path, Picture& picture) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
  image.format = PNG_FORMAT_RGB;
  picture.width = image.width;
  picture.height = image.height;
  picture.rgb.resize(PNG_IMAGE_SIZE(image));
  const bool ok = png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr) != 0;
  png_image_free(&image);
  return ok;
}

size_t CountLines(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

class PngBridge : public ::testing::Test {
 protected:
  void SetUp() override { Clear(); }
  void TearDown() override {
    Clear();
    unsetenv(DIR_VARIABLE);
  }
  static void Clear() {
    if (probeBridge.library != nullptr || matlabProbe != nullptr) UnloadProbeBridge();
    probeBridge = ProbeBridgeState{};
    probeEnable = 0;
    engine.probeActive = 0;
    engine.jumpListCount = 0;
  }
};

// Without an output directory, or with a file in its place, the bridge fails with one clear line.
TEST_F(PngBridge, InitialFailsWithOneClearLineWithoutAnOutputDirectory) {
  for (const char* directory : {static_cast<const char*>(nullptr), "/proc/self/status"}) {
    if (directory == nullptr) unsetenv(DIR_VARIABLE);
    else setenv(DIR_VARIABLE, directory, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(DebugProbeCommand(1), 1);
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_EQ(probeEnable, 0);
    EXPECT_EQ(probeBridge.bridgeLoaded, 0);
    EXPECT_EQ(CountLines(message), 1u) << message;
    EXPECT_TRUE(directory != nullptr || message.find(DIR_VARIABLE) != std::string::npos) << message;
  }
}

TEST_F(PngBridge, AHostMayEndWithTheBridgeStillShowing) {
  ScratchDirectory out(false);
  setenv(DIR_VARIABLE, out.Path().c_str(), 1);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        DebugProbeCommand(1);
        std::exit(probeEnable == 1 ? 0 : 3);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(PngBridge, ASyntheticFrameBecomesAPictureAndNumberFiles) {
  ScratchDirectory out(false);
  setenv(DIR_VARIABLE, out.Path().c_str(), 1);
  ASSERT_EQ(DebugProbeCommand(1), 1);
  ASSERT_EQ(probeEnable, 1) << "the bridge did not load";
  engine.probeActive = probeEnable;
  engine.probeDecimation = 1;
  engine.probeRewind = 1;

  // Mode 3: 384 data carriers, 432 carriers, a span of 720, nmargin 128 and a timing span of 64.
  constexpr int32_t ndata = 384, ncarrier = 432, nspan = 720, span = 64;
  std::mt19937 random(7);
  std::normal_distribution<float> noise(0.0f, 0.07f);
  std::uniform_int_distribution<int> bit(0, 1);
  std::vector<float> carriers(2 * ndata);
  std::vector<float> planes(2 * ncarrier), slot(2 * nspan), acc(257, 0.0f);
  for (int32_t c = 0; c < ncarrier; ++c) {
    const float magnitude = 1.0f + 0.4f * std::cos(6.2831853f * c / 150.0f);
    planes[c] = magnitude * std::cos(0.05f * c);
    planes[ncarrier + c] = magnitude * std::sin(0.05f * c);
  }
  for (float& v : slot) v = noise(random) * 10.0f;
  for (int32_t i = 0; i <= 2 * span; ++i) acc[128 - span + i] = std::exp(-0.01f * (i - span) * (i - span));

  auto runFrame = [&](float snrDb) {
    const ProbeFrameInput frame{snrDb, 1024, 0.0004f, std::span<const float>(planes).first(ncarrier),
                                std::span<const float>(planes).subspan(ncarrier), slot, acc, 128 - span, span,
                                0, BLOCK_TRACKING};
    for (int32_t s = 0; s < 204; ++s) {
      ProbeBeginSymbol(s);
      ProbeNoteTimingStep(s, 32, s == 31 ? 1 : (s == 95 ? -2 : 0));
      for (int32_t k = 0; k < ndata; ++k) {
        // QPSK as the equaliser hands it to the soft demapper: scaled by 8, undone by the fill.
        carriers[2 * k] = 8.0f * ((bit(random) ? 0.7071f : -0.7071f) + noise(random));
        carriers[2 * k + 1] = 8.0f * ((bit(random) ? 0.7071f : -0.7071f) + noise(random));
      }
      ProbeStoreCarriers(s, carriers, 2, 0.0f, {});
      ProbeFinishFrame(s, frame);
    }
  };
  ProbeStoreRates(0.02f, 0.001f, 0.0f);
  runFrame(18.5f);

  const std::string status = out.File("status.csv");
  ASSERT_TRUE(WaitFor([&] { return ReadText(status).find("update,1\n") != std::string::npos; }, 10000));

  Picture picture;
  ASSERT_TRUE(ReadPng(out.File("probe.png"), picture));
  EXPECT_EQ(picture.width, 960u);
  EXPECT_EQ(picture.height, 720u);
  // Every panel has drawing in it beyond its frame.
  for (uint32_t panel = 0; panel < 4; ++panel) {
    const uint32_t x0 = (panel % 2) * 480 + 12, y0 = (panel / 2) * 360 + 40;
    int32_t inked = 0;
    for (uint32_t y = y0; y < y0 + 300; ++y)
      for (uint32_t x = x0; x < x0 + 450; ++x) {
        const uint8_t* p = &picture.rgb[(static_cast<size_t>(y) * picture.width + x) * 3];
        inked += p[0] < 200 || p[2] < 200;
      }
    EXPECT_GT(inked, 200) << "panel " << panel;
  }

  EXPECT_EQ(CountLines(ReadText(out.File("timing.csv"))), 1u + 2u * span + 1u);
  EXPECT_EQ(ReadText(out.File("jumps.csv")), "step\n1\n0\n-2\n");
  EXPECT_NE(ReadText(status).find("snr_db,18.5\n"), std::string::npos);
  EXPECT_NE(ReadText(status).find("packet_error_rate,0.0199999996\n"), std::string::npos) << ReadText(status);

  // The next frame replaces the files; no temporary names remain.
  runFrame(9.25f);
  ASSERT_TRUE(WaitFor([&] { return ReadText(status).find("update,2\n") != std::string::npos; }, 10000));
  EXPECT_NE(ReadText(status).find("snr_db,9.25\n"), std::string::npos);
  for (const char* left : {"probe.png.tmp", "status.csv.tmp"}) EXPECT_FALSE(zfn_test::FileExists(out.File(left))) << left;

  EXPECT_EQ(DebugProbeCommand(2), 1);
  EXPECT_EQ(matlabProbe, nullptr);
}

}  // namespace
}  // namespace zfn
