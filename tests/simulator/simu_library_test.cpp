// The simulator sample source as the receiver uses it: loaded by path, driven through the four
// functions, read on its eventfd. Pacing over a few seconds, the speed factor, capture playback,
// and a bad setting.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "frontend/sample_source_contract.h"

#ifdef ZFN_SIMU_LIBRARY
namespace {

class SimuLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"ZFNISDBT_SIM_MODE", "ZFNISDBT_SIM_GUARD", "ZFNISDBT_SIM_CN", "ZFNISDBT_SIM_SPEED",
                             "ZFNISDBT_SIM_CAPTURE", "ZFNISDBT_SIM_TS", "ZFNISDBT_SIM_CARRIER_OFFSET",
                             "ZFNISDBT_SIM_FRONT_END", "ZFNISDBT_SIM_TRANSFER_LOSS"})
      unsetenv(name);
    handle_ = dlopen(ZFN_SIMU_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
    setEvent_ = reinterpret_cast<SimSetEventHandleFn>(dlsym(handle_, "SetEventHandle"));
    start_ = reinterpret_cast<SimStartFn>(dlsym(handle_, "BDA_Start_simulate"));
    get_ = reinterpret_cast<SimGetDataFn>(dlsym(handle_, "GetData"));
    stop_ = reinterpret_cast<SimStopFn>(dlsym(handle_, "BDA_Stop_simulate"));
    ASSERT_TRUE(setEvent_ && start_ && get_ && stop_);
    event_ = eventfd(0, 0);
    ASSERT_GE(event_, 0);
    ASSERT_EQ(setEvent_(&event_), 0);
    buffer_.resize(240648);
  }
  void TearDown() override {
    if (stop_) stop_();
    if (event_ >= 0) close(event_);
    if (handle_) dlclose(handle_);
    for (const auto& path : files_) std::remove(path.c_str());
  }

  // Reads as the receiver does for the given time; returns the bytes received. Appends them to
  // keep if given.
  int64_t Read(double seconds, std::vector<uint8_t>* keep = nullptr) {
    int64_t total = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
      pollfd p{event_, POLLIN, 0};
      if (poll(&p, 1, 300) <= 0) continue;
      uint64_t v;
      EXPECT_EQ(read(event_, &v, sizeof v), 8);
      int32_t length = -5;
      get_(buffer_.data(), &length);
      EXPECT_GE(length, 0);
      EXPECT_LE(length, 240648);
      EXPECT_EQ(length % 4, 0);
      if (keep) keep->insert(keep->end(), buffer_.begin(), buffer_.begin() + length);
      total += length;
    }
    return total;
  }

  // Bytes per second over `seconds`, after 0.3 s to settle; all bytes go to keep if given.
  double MeasuredRate(double seconds, std::vector<uint8_t>* keep = nullptr) {
    Read(0.3, keep);
    const auto t0 = std::chrono::steady_clock::now();
    const int64_t bytes = Read(seconds, keep);
    return bytes / std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  // A file of `bytes`, removed at the end of the case.
  std::string WriteFile(const char* name, const std::vector<uint8_t>& bytes) {
    files_.push_back(testing::TempDir() + name);
    FILE* f = std::fopen(files_.back().c_str(), "wb");
    EXPECT_NE(f, nullptr);
    if (f) std::fwrite(bytes.data(), 1, bytes.size(), f), std::fclose(f);
    return files_.back();
  }

  std::vector<std::string> files_;
  void* handle_ = nullptr;
  SimSetEventHandleFn setEvent_ = nullptr;
  SimStartFn start_ = nullptr;
  SimGetDataFn get_ = nullptr;
  SimStopFn stop_ = nullptr;
  int event_ = -1;
  std::vector<uint8_t> buffer_;
  static constexpr double kRate = 2 * 2031746.14;  // device bytes per second at real time
};

TEST_F(SimuLibrary, PacesNearRealTime) {
  setenv("ZFNISDBT_SIM_MODE", "1", 1);
  setenv("ZFNISDBT_SIM_GUARD", "1/8", 1);
  setenv("ZFNISDBT_SIM_CN", "25", 1);
  // Sanitizer builds generate slower than real time: they check the pacing on a capture only.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  setenv("ZFNISDBT_SIM_CAPTURE", WriteFile("zfn_simu_speed.bin", std::vector<uint8_t>(400000, 127)).c_str(), 1);
#endif
  ASSERT_EQ(start_(), 0);
  EXPECT_NEAR(MeasuredRate(2.0) / kRate, 1.0, 0.08);
}

// The speed factor, on a capture so that generation speed (slow in sanitizer builds) is not what
// is measured; the capture comes back byte for byte, in a loop.
TEST_F(SimuLibrary, PacesACaptureInALoopWithTheSpeedFactor) {
  std::vector<uint8_t> pattern(40000);
  for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<uint8_t>(i * 7 + i / 251);
  setenv("ZFNISDBT_SIM_CAPTURE", WriteFile("zfn_simu_capture.bin", pattern).c_str(), 1);
  setenv("ZFNISDBT_SIM_SPEED", "3", 1);
  ASSERT_EQ(start_(), 0);
  std::vector<uint8_t> got;
  EXPECT_NEAR(MeasuredRate(1.0, &got) / kRate, 3.0, 0.3);
  ASSERT_GT(got.size(), 3 * pattern.size());
  size_t same = 0;
  while (same < got.size() && got[same] == pattern[same % pattern.size()]) ++same;
  EXPECT_EQ(same, got.size()) << "first difference";
}

TEST_F(SimuLibrary, BadSettingFailsStart) {
  for (const auto& [name, value] : {std::pair{"ZFNISDBT_SIM_MODE", "7"}, std::pair{"ZFNISDBT_SIM_FRONT_END", "antenna"},
                                    std::pair{"ZFNISDBT_SIM_TRANSFER_LOSS", "16384"}}) {
    setenv(name, value, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(start_(), -1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(name), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
    unsetenv(name);
  }
  setenv("ZFNISDBT_SIM_CAPTURE", "/nonexistent/capture", 1);
  EXPECT_EQ(start_(), -1);
  int32_t length = 9;
  EXPECT_EQ(get_(buffer_.data(), &length), -1);
  EXPECT_EQ(length, 0);
}

}  // namespace
#endif
