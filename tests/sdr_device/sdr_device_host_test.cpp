// The receiver in device mode as a host uses it, end to end: an SDR capture of our transmitter's
// broadcast (C/N 20 dB, carrier and clock offsets) -> the zfncapture module -> SoapySDR -> the
// device library (rate, tuning at the design's IF offset, gain, conditioning) -> libZFNISDBT.so's
// public functions -> the transport stream, equal to what the transmitter sent. Once at the
// device rate, once from rates the library must resample from with a gain that starts far too
// high. When the capture ends the stream stops and close is prompt.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

#include "tests/sdr_device/sdr_capture.h"
#include "zfnisdbt.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex receivedLock;
std::vector<uint8_t> received;
Clock::time_point lastCallback;

void OnPackets(const uint8_t* data, int32_t length) {
  std::lock_guard<std::mutex> hold(receivedLock);
  received.insert(received.end(), data, data + length);
  lastCallback = Clock::now();
}

// Packets have come, and none for a second.
bool Ended() {
  std::lock_guard<std::mutex> hold(receivedLock);
  return !received.empty() && std::chrono::duration<double>(Clock::now() - lastCallback).count() > 1.0;
}

struct HostCase {
  const char* name;
  const char* moduleArgs;
};

void PrintTo(const HostCase& c, std::ostream* os) { *os << c.name; }

class SdrHost : public testing::TestWithParam<HostCase> {};

TEST_P(SdrHost, ReceivesTheTransmittedStream) {
  zfn::sdrtest::UseOnlyTheCaptureModule();
  static const zfn::sdrtest::Capture capture = zfn::sdrtest::WriteCapture("sdr_host_capture.u8", 3.0);
  // In real time, as a device streams (the library and the module resample in real time too),
  // with a device buffer that rides out the stalls of a busy machine.
  const std::string speed = "speed=1,buffer=2";
  const std::string extra = std::string(GetParam().moduleArgs) + (GetParam().moduleArgs[0] != '\0' ? "," : "") + speed;
  setenv("ZFNISDBT_DEVICE", zfn::sdrtest::CaptureArgs(capture, extra).c_str(), 1);
  {
    std::lock_guard<std::mutex> hold(receivedLock);
    received.clear();
    lastCallback = Clock::now();
  }
  ASSERT_EQ(ZFISDBT_SetTSCallBack(&OnPackets), 1);
  ASSERT_EQ(ZFISDBT_OpenDevice(), 1);
  EXPECT_EQ(ZFISDBT_SetFrequency(static_cast<int32_t>(zfn::sdrtest::CAPTURE_CENTER_HZ / 1000)), 1);
  // Until the capture has ended and the packets have stopped.
  const auto start = Clock::now();
  while (!Ended() && std::chrono::duration<double>(Clock::now() - start).count() < 30.0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto closing = Clock::now();
  EXPECT_EQ(ZFISDBT_CloseDevice(), 1);
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - closing).count(), 1.5);

  std::lock_guard<std::mutex> hold(receivedLock);
  const auto match = zfn::sdrtest::MatchStream(received, capture.transmitted);
  EXPECT_GE(match.firstTransmitted, 0) << "no transmitted packet found after the start-up";
  EXPECT_EQ(match.inOrder, match.received) << "packets " << match.inOrder << " of " << match.received << " in order";
  // Three seconds hold about 13 frames of 64 packets; the retune and acquisition take some of them.
  EXPECT_GE(match.inOrder, size_t{256});
}

INSTANTIATE_TEST_SUITE_P(Rates, SdrHost,
                         testing::Values(HostCase{"AtTheDeviceRate", ""},
                                         HostCase{"ResampledGainTooHigh", "rates=2048000,2400000,gain_ref=8"}),
                         [](const testing::TestParamInfo<HostCase>& c) { return std::string(c.param.name); });

}  // namespace
