// The SDR device library with the zfncapture module as its SDR, playing captures of our
// transmitter's broadcast. Through the library's own function list: an open that finds no usable
// device fails at once and the receive command's diagnosis says why; a stream that ends (end of
// capture, a device that errs or goes silent) stops being announced and fetched, and close returns
// promptly; the sample clock word scales the stream's rate with the receiver's sign. Through
// libZFNISDBT.so's public functions as a host uses them: the transport stream equals what the
// transmitter sent, once at the device rate, once from rates the library must resample from with a
// gain that starts far too high; when the capture ends the stream stops and close is prompt.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "frontend/device_binding.h"
#include "simulator/transmitter.h"
#include "tools/sdr_diagnosis.h"
#include "zfnisdbt.h"

namespace {
namespace sim = zfn::sim;

using Clock = std::chrono::steady_clock;
double SecondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Only our module is loaded: SoapySDR's module search points at its folder and nowhere else.
[[maybe_unused]] const int onlyTheCaptureModule =
    setenv("SOAPY_SDR_PLUGIN_PATH", ZFN_SOAPY_MODULES, 1) + setenv("SOAPY_SDR_ROOT", ZFN_NO_SOAPY_ROOT, 1);

constexpr double CENTER_HZ = 473143e3;  // the channel the receive command tunes by default

struct Capture {
  std::string path;
  std::vector<uint8_t> transmitted;  // 188 bytes per packet
  size_t samples = 0;
  ~Capture() { std::remove(path.c_str()); }
};

// `seconds` of the broadcast (Mode 3, guard 1/8, QPSK 2/3, short time interleaving) through the
// channel (C/N 20 dB, 3 kHz carrier and 5 ppm clock offsets) and a generic SDR's front end (DC
// offset, I/Q imbalance, 8-bit converter), written as an SDR tool records: unsigned 8-bit I/Q at
// 2031746 samples/s. One file per process, since ctest runs cases side by side.
const Capture& CaptureOf(double seconds) {
  static std::map<double, Capture> made;
  Capture& c = made[seconds];
  if (!c.path.empty()) return c;
  c.path = testing::TempDir() + std::to_string(getpid()) + "_" + std::to_string(seconds) + "s.u8";
  const sim::BroadcastConfig b{.mode = 3, .guard = 2, .modulation = 1, .codeRate = 1, .interleave = 1};
  sim::ChannelConfig channel;
  channel.noise = true, channel.cnDb = 20, channel.carrierOffsetHz = 3000, channel.clockPpm = 5;
  channel.frontEnd = sim::FrontEnd::Sdr;
  std::string error;
  auto generator = sim::SignalGenerator::Create(b, channel, sim::MakeTestPatternSource(7), &error);
  EXPECT_TRUE(generator != nullptr) << error;
  std::FILE* file = std::fopen(c.path.c_str(), "wb");
  EXPECT_TRUE(file != nullptr) << c.path;
  if (generator == nullptr || file == nullptr) return c;
  generator->RecordPackets(true);
  std::vector<uint8_t> chunk(1 << 20);
  for (size_t total = static_cast<size_t>(seconds * sim::kBroadcastRateHz) * 2 & ~size_t{3}; c.samples * 2 < total;) {
    const size_t n = std::min(chunk.size(), total - c.samples * 2);
    generator->GenerateBytes(chunk.data(), n);
    EXPECT_EQ(std::fwrite(chunk.data(), 1, n, file), n);
    c.samples += n / 2;
  }
  std::fclose(file);
  c.transmitted = generator->TransmittedPackets();
  return c;
}

// The device arguments that play the capture of `seconds` through the module; `extra` adds module
// arguments.
std::string CaptureArgs(double seconds, const std::string& extra) {
  return "driver=zfncapture,path=" + CaptureOf(seconds).path + ",center=" +
         std::to_string(static_cast<long long>(CENTER_HZ)) + (extra.empty() ? "" : ",") + extra;
}

// The device library bound as the receiver binds it: the SDR build, from the search path.
const zfn::DeviceBinding& Library() {
  if (zfn::deviceBinding.library == nullptr) {
    EXPECT_EQ(zfn::BindDeviceLibrary(), 1);
  }
  return zfn::deviceBinding;
}

// Bytes of one fetch: 0 when nothing is there; the call itself always succeeds.
int32_t Fetch(uint8_t* buffer, int32_t size) {
  int32_t length = -1, aux = 0;
  EXPECT_EQ(Library().GetData(buffer, size, &length, &aux), 1);
  return length;
}

void SetSettings(const std::string& device, const char* gain = nullptr, const char* ppm = nullptr) {
  setenv("ZFNISDBT_DEVICE", device.c_str(), 1);
  for (auto [name, value] : {std::pair{"ZFNISDBT_GAIN", gain}, {"ZFNISDBT_PPM", ppm}})
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
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
  const zfn::DeviceBinding& lib = Library();
  const std::string capture = "driver=zfncapture,path=" + CaptureOf(0.5).path;
  const struct {
    std::string device;
    const char *gain, *ppm, *explanation;
  } cases[] = {
      {"driver=nothing", nullptr, nullptr, "no SoapySDR module for driver 'nothing'"},
      {"driver=zfncapture", nullptr, nullptr, "no device found for ZFNISDBT_DEVICE='driver=zfncapture'"},
      {"", nullptr, nullptr, "no SDR found"},
      {"driver=zfncapture,path=/nonexistent/capture", nullptr, nullptr, "was found but failed to open"},
      {capture + ",rates=500000", nullptr, nullptr, "refuses the rate: it offers 500000 samples/s"},
      {capture, "loud", nullptr, "ZFNISDBT_GAIN='loud' cannot be used"},
      {capture, "auto", "1e9", "ZFNISDBT_PPM='1e9' cannot be used"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.device);
    SetSettings(c.device, c.gain, c.ppm);
    const auto start = Clock::now();
    EXPECT_EQ(lib.BDAFilterInit(0), 0);
    EXPECT_LT(SecondsSince(start), 1.0);
    EXPECT_EQ(lib.BDAFilterRelease(0), 1);
    EXPECT_NE(Diagnosis().find(c.explanation), std::string::npos) << Diagnosis();
  }
  // With no device, tuning still answers (the simulator reads the tuned frequency back) and there
  // is nothing to fetch.
  EXPECT_EQ(lib.Set_Frequency(473743), 1);
  EXPECT_EQ(reinterpret_cast<int32_t (*)()>(dlsym(lib.library, "ZFN_TunedFrequencyKHz"))(), 473743);
  EXPECT_EQ(lib.DeviceUpdate(), 1);
  uint8_t buffer[64];
  EXPECT_EQ(Fetch(buffer, sizeof buffer), 0);
}

TEST(SdrDeviceLibrary, AStreamThatEndsFallsSilentAndClosesPromptlyAndTheClockWordScalesIt) {
  const zfn::DeviceBinding& lib = Library();
  // The receiver writes minus the clock offset it measures: a negative word when it counts too
  // many samples per symbol, which must then give fewer. Played as fast as read, the whole half
  // second fits the library's ring, so the count is exact but for the filter's delay and the
  // conditioner's whole groups.
  const struct {
    const char* extra;
    int32_t clockWord;
    bool counted;
  } cases[] = {
      {"speed=2", 0, false},                                     // end of the capture
      {"speed=2,fail_after=0.3", 0, false},                      // reads fail (unplugged)
      {"speed=2,fail_after=0.3,fail_mode=timeout", 0, false},   // reads time out
      {"speed=0", 0, true}, {"speed=0", -4096, true}, {"speed=0", 4096, true},
  };
  const int event = eventfd(0, EFD_NONBLOCK);
  std::vector<uint8_t> buffer(240651);  // not a multiple of four
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.extra << " clock word " << c.clockWord);
    uint8_t word[2] = {static_cast<uint8_t>((c.clockWord >> 8) & 0x3F), static_cast<uint8_t>(c.clockWord & 0xFF)};
    ASSERT_EQ(lib.Demod_Byte_Write(1, 0x3E, 2, word), 1);
    SetSettings(CaptureArgs(0.5, c.extra));
    ASSERT_EQ(lib.BDAFilterInit(0), 1);
    int descriptor = event;
    ASSERT_EQ(lib.SetDABEventHandle(&descriptor), 1);
    // Fetch as the reception thread does, on the event, until nothing has come for 0.8 s.
    size_t fetched = 0;
    const auto start = Clock::now();
    for (auto lastData = start; SecondsSince(lastData) < 0.8 && SecondsSince(start) < 10.0;) {
      pollfd p{event, POLLIN, 0};
      uint64_t value = 0;
      if (poll(&p, 1, 50) == 1) {
        EXPECT_EQ(read(event, &value, sizeof value), static_cast<ssize_t>(sizeof value));
      }
      for (int32_t length; (length = Fetch(buffer.data(), static_cast<int32_t>(buffer.size()))) > 0;) {
        EXPECT_EQ(length % 4, 0);
        EXPECT_LE(length, static_cast<int32_t>(buffer.size()));
        fetched += static_cast<size_t>(length);
        lastData = Clock::now();
      }
    }
    const double samples = static_cast<double>(CaptureOf(0.5).samples);
    if (c.counted) {
      EXPECT_NEAR(static_cast<double>(fetched), 2.0 * samples * (1.0 + c.clockWord / 16777216.0), 64.0);
    }
    EXPECT_TRUE(fetched > 100000 && static_cast<double>(fetched) <= (c.counted ? 2.001 : 2.0) * samples) << fetched;
    // Silent: nothing announced, nothing to fetch.
    pollfd p{event, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 300), 0);
    EXPECT_EQ(Fetch(buffer.data(), 64), 0);
    EXPECT_EQ(lib.ReleaseDABEventHandle(&descriptor), 1);
    const auto closing = Clock::now();
    EXPECT_EQ(lib.BDAFilterRelease(0), 1);
    EXPECT_LT(SecondsSince(closing), 0.5);
  }
  close(event);
}

std::mutex receivedLock;
std::vector<uint8_t> received;
Clock::time_point lastCallback;

void OnPackets(const uint8_t* data, int32_t length) {
  std::lock_guard<std::mutex> hold(receivedLock);
  received.insert(received.end(), data, data + length);
  lastCallback = Clock::now();
}

class SdrHost : public testing::TestWithParam<const char*> {};

TEST_P(SdrHost, ReceivesTheTransmittedStream) {
  // In real time, as a device streams (the library and the module resample in real time too).
  setenv("ZFNISDBT_DEVICE", CaptureArgs(3.0, std::string(GetParam()) + "speed=1").c_str(), 1);
  {
    std::lock_guard<std::mutex> hold(receivedLock);
    received.clear();
    lastCallback = Clock::now();
  }
  ASSERT_EQ((std::vector<int32_t>{ZFISDBT_SetTSCallBack(&OnPackets), ZFISDBT_OpenDevice()}), (std::vector<int32_t>{1, 1}));
  EXPECT_EQ(ZFISDBT_SetFrequency(static_cast<int32_t>(CENTER_HZ / 1000)), 1);
  // Until the capture has ended and no packet has come for a second.
  const auto start = Clock::now();
  for (bool ended = false; !ended && SecondsSince(start) < 30.0;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::lock_guard<std::mutex> hold(receivedLock);
    ended = !received.empty() && SecondsSince(lastCallback) > 1.0;
  }
  const auto closing = Clock::now();
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  EXPECT_LT(SecondsSince(closing), 1.5);

  // After the decoder's start-up (its first packets carry stale bytes), every packet is the next
  // of the transmitted ones; test-pattern packets are all different, so the first finds its place.
  std::lock_guard<std::mutex> hold(receivedLock);
  constexpr size_t STALE = 12;
  const std::vector<uint8_t>& sent = CaptureOf(3.0).transmitted;
  // Three seconds hold about 13 frames of 64 packets; the retune and acquisition take some of them.
  ASSERT_GE(received.size() / 188, STALE + 256);
  const auto at = std::search(sent.begin(), sent.end(), received.begin() + 188 * STALE, received.end());
  ASSERT_NE(at, sent.end()) << "the packets after the start-up are not the transmitted ones in order";
  EXPECT_EQ((at - sent.begin()) % 188, 0);
}

INSTANTIATE_TEST_SUITE_P(Rates, SdrHost, testing::Values("", "rates=2048000,2400000,gain_ref=8,"),
                         [](const testing::TestParamInfo<const char*>& c) {
                           return c.index == 0 ? "AtTheDeviceRate" : "ResampledGainTooHigh";
                         });

}  // namespace
