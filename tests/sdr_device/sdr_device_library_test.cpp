// The device library on SoapySDR through its own function list, with the zfncapture module as
// the SDR (found through SOAPY_SDR_PLUGIN_PATH, no system modules): an open that finds no usable
// device fails at once and the receive command's diagnosis says why; register writes and the tuned
// frequency work with no device; a stream that ends (end of capture, a device that errs or goes
// silent) stops being announced and fetched, and close returns promptly; the sample clock word
// scales the stream's rate with the receiver's sign.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "frontend/sample_source_contract.h"
#include "tests/sdr_device/sdr_capture.h"
#include "tools/sdr_diagnosis.h"

namespace {

using Clock = std::chrono::steady_clock;
using zfn::sdrtest::Capture;

double SecondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

struct DeviceLibrary {
  void* handle = dlopen(ZFN_DEVICE_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  template <class Fn>
  Fn Get(const char* name) {
    return reinterpret_cast<Fn>(dlsym(handle, name));
  }
  ZfnBdaFilterInitFn Init = Get<ZfnBdaFilterInitFn>("ZFN_BDAFilterInit");
  ZfnBdaFilterReleaseFn Release = Get<ZfnBdaFilterReleaseFn>("ZFN_BDAFilterRelease");
  ZfnSetFrequencyFn SetFrequency = Get<ZfnSetFrequencyFn>("ZFN_Set_Frequency");
  ZfnDeviceUpdateFn Update = Get<ZfnDeviceUpdateFn>("ZFN_DeviceUpdate");
  ZfnDemodByteReadFn Read = Get<ZfnDemodByteReadFn>("ZFN_Demod_Byte_Read");
  ZfnDemodByteWriteFn Write = Get<ZfnDemodByteWriteFn>("ZFN_Demod_Byte_Write");
  ZfnGetDataFn GetData = Get<ZfnGetDataFn>("ZFN_GetData");
  ZfnSetDabEventHandleFn SetEvent = Get<ZfnSetDabEventHandleFn>("ZFN_SetDABEventHandle");
  ZfnReleaseDabEventHandleFn ReleaseEvent = Get<ZfnReleaseDabEventHandleFn>("ZFN_ReleaseDABEventHandle");
  int32_t (*TunedFrequencyKHz)() = Get<int32_t (*)()>("ZFN_TunedFrequencyKHz");

  void WriteClockWord(int32_t word) {
    uint8_t bytes[2] = {static_cast<uint8_t>((word >> 8) & 0x3F), static_cast<uint8_t>(word & 0xFF)};
    ASSERT_EQ(Write(1, 0x3E, 2, bytes), 1);
  }
};

DeviceLibrary& Library() {
  zfn::sdrtest::UseOnlyTheCaptureModule();
  static DeviceLibrary library;
  return library;
}

const Capture& HalfSecond() {
  static const Capture capture = zfn::sdrtest::WriteCapture("sdr_library_half_second.u8", 0.5);
  return capture;
}

void SetSettings(const std::string& device, const char* gain, const char* ppm) {
  setenv("ZFNISDBT_DEVICE", device.c_str(), 1);
  if (gain != nullptr) setenv("ZFNISDBT_GAIN", gain, 1); else unsetenv("ZFNISDBT_GAIN");
  if (ppm != nullptr) setenv("ZFNISDBT_PPM", ppm, 1); else unsetenv("ZFNISDBT_PPM");
}

std::string Diagnosis() {
  std::FILE* text = std::tmpfile();
  zfn::tools::ExplainNoDevice(text);
  std::rewind(text);
  std::string said(4096, '\0');
  said.resize(std::fread(said.data(), 1, said.size(), text));
  std::fclose(text);
  return said;
}

TEST(SdrDeviceLibrary, OpenWithoutAUsableDeviceFailsAtOnceAndIsExplained) {
  DeviceLibrary& lib = Library();
  ASSERT_NE(lib.handle, nullptr) << dlerror();
  const std::string capture = "driver=zfncapture,path=" + HalfSecond().path;
  struct Case {
    std::string device;
    const char* gain;
    const char* ppm;
    const char* explanation;
  };
  const Case cases[] = {
      {"driver=nothing", nullptr, nullptr, "no SoapySDR module for driver 'nothing'"},
      {"driver=zfncapture", nullptr, nullptr, "no device found for ZFNISDBT_DEVICE='driver=zfncapture'"},
      {"", nullptr, nullptr, "no SDR found"},
      {"driver=zfncapture,path=/nonexistent/capture", nullptr, nullptr, "was found but failed to open"},
      {capture + ",rates=500000", nullptr, nullptr, "refuses the rate: it offers 500000 samples/s"},
      {capture, "loud", nullptr, "ZFNISDBT_GAIN='loud' cannot be used"},
      {capture, "auto", "1e9", "ZFNISDBT_PPM='1e9' cannot be used"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.device);
    SetSettings(c.device, c.gain, c.ppm);
    const auto start = Clock::now();
    EXPECT_EQ(lib.Init(0), 0);
    EXPECT_LT(SecondsSince(start), 1.0);
    EXPECT_EQ(lib.Release(0), 1);
    EXPECT_NE(Diagnosis().find(c.explanation), std::string::npos) << Diagnosis();
  }

  // Simulation binds the library with no device: registers, tuning and fetching still answer.
  uint8_t word[3] = {0x01, 0x55, 0x55};
  uint8_t back[3] = {};
  EXPECT_EQ(lib.Write(1, 0x16, 3, word), 1);
  EXPECT_EQ(lib.Read(1, 0x16, 3, back), 1);
  EXPECT_EQ(std::vector<uint8_t>(back, back + 3), std::vector<uint8_t>(word, word + 3));
  EXPECT_EQ(lib.Write(1, 0xFE, 4, word), 0);
  EXPECT_EQ(lib.SetFrequency(473743), 1);
  EXPECT_EQ(lib.TunedFrequencyKHz(), 473743);
  EXPECT_EQ(lib.Update(), 1);
  uint8_t buffer[64];
  int32_t length = -1;
  int32_t aux = 0;
  EXPECT_EQ(lib.GetData(buffer, sizeof buffer, &length, &aux), 1);
  EXPECT_EQ(length, 0);
}

// Fetches as the reception thread does (on the event, with a buffer size that is not a multiple of
// four) until nothing has been announced for `quiet` seconds. Returns the bytes fetched.
size_t FetchUntilQuiet(DeviceLibrary& lib, int event, double quiet, double limit, Clock::time_point* lastData) {
  std::vector<uint8_t> buffer(240651);
  size_t total = 0;
  const auto start = Clock::now();
  *lastData = start;
  while (SecondsSince(*lastData) < quiet && SecondsSince(start) < limit) {
    pollfd p{event, POLLIN, 0};
    if (poll(&p, 1, 50) == 1) {
      uint64_t value = 0;
      EXPECT_EQ(read(event, &value, sizeof value), static_cast<ssize_t>(sizeof value));
    }
    for (;;) {
      int32_t length = -1;
      int32_t aux = 0;
      EXPECT_EQ(lib.GetData(buffer.data(), static_cast<int32_t>(buffer.size()), &length, &aux), 1);
      EXPECT_EQ(length % 4, 0);
      EXPECT_LE(length, static_cast<int32_t>(buffer.size()));
      if (length <= 0) break;
      total += static_cast<size_t>(length);
      *lastData = Clock::now();
    }
  }
  return total;
}

TEST(SdrDeviceLibrary, AStreamThatEndsIsNoLongerAnnouncedAndClosesPromptly) {
  DeviceLibrary& lib = Library();
  ASSERT_NE(lib.handle, nullptr) << dlerror();
  struct Case {
    const char* name;
    std::string extra;
  };
  const Case cases[] = {
      {"end of the capture", "speed=2,buffer=1"},
      {"reads fail (unplugged)", "speed=2,buffer=1,fail_after=0.3"},
      {"reads time out", "speed=2,buffer=1,fail_after=0.3,fail_mode=timeout"},
  };
  const int event = eventfd(0, EFD_NONBLOCK);
  ASSERT_GE(event, 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SetSettings(zfn::sdrtest::CaptureArgs(HalfSecond(), c.extra), nullptr, nullptr);
    ASSERT_EQ(lib.Init(0), 1);
    int descriptor = event;
    ASSERT_EQ(lib.SetEvent(&descriptor), 1);
    Clock::time_point lastData;
    const size_t fetched = FetchUntilQuiet(lib, event, 0.8, 10.0, &lastData);
    EXPECT_GT(fetched, size_t{100000});
    EXPECT_LE(fetched, 2 * HalfSecond().samples);
    // Silent: nothing announced, nothing to fetch.
    pollfd p{event, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 300), 0);
    uint8_t buffer[64];
    int32_t length = -1;
    int32_t aux = 0;
    EXPECT_EQ(lib.GetData(buffer, sizeof buffer, &length, &aux), 1);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(lib.ReleaseEvent(&descriptor), 1);
    const auto closing = Clock::now();
    EXPECT_EQ(lib.Release(0), 1);
    EXPECT_LT(SecondsSince(closing), 0.5);
  }
  close(event);
}

TEST(SdrDeviceLibrary, SampleClockWordScalesTheRate) {
  // The receiver writes minus the clock offset it measures: a negative word when it counts too
  // many samples per symbol, which must then give fewer. The capture plays as fast as it is read;
  // the whole half second fits the library's ring, so the count is exact but for the filter's
  // delay and the conditioner's whole groups.
  DeviceLibrary& lib = Library();
  ASSERT_NE(lib.handle, nullptr) << dlerror();
  const double samples = static_cast<double>(HalfSecond().samples);
  for (const int32_t word : {0, -4096, 4096}) {
    SCOPED_TRACE(word);
    lib.WriteClockWord(word);
    SetSettings(zfn::sdrtest::CaptureArgs(HalfSecond(), "speed=0"), nullptr, nullptr);
    ASSERT_EQ(lib.Init(0), 1);
    const int event = eventfd(0, EFD_NONBLOCK);
    int descriptor = event;
    ASSERT_EQ(lib.SetEvent(&descriptor), 1);
    Clock::time_point lastData;
    const double fetched = static_cast<double>(FetchUntilQuiet(lib, event, 0.7, 10.0, &lastData));
    EXPECT_EQ(lib.ReleaseEvent(&descriptor), 1);
    EXPECT_EQ(lib.Release(0), 1);
    close(event);
    const double expected = 2.0 * samples * (1.0 + word / 16777216.0);
    EXPECT_NEAR(fetched, expected, 64.0);
  }
  lib.WriteClockWord(0);
}

}  // namespace
