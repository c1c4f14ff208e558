#pragma once
// SDR captures for the device library's tests: our transmitter's broadcast through the channel
// model and the generic-SDR front end, written as an SDR tool records (unsigned 8-bit I/Q at
// 2031746 samples/s), and the packets that went in; and the check of a received stream against
// them.
#include <cstdint>
#include <string>
#include <vector>

#include "simulator/transmitter.h"

namespace zfn::sdrtest {

// Points SoapySDR at the zfncapture module's folder and at no system modules. Call before the
// first use of SoapySDR in the process.
void UseOnlyTheCaptureModule();

// The channel of the captures: Mode 3, guard 1/8, QPSK 2/3 with short time interleaving; C/N 20 dB,
// 3 kHz carrier offset, 5 ppm clock offset.
sim::BroadcastConfig CaptureBroadcast();
sim::ChannelConfig CaptureChannel();

struct Capture {
  std::string path;
  std::vector<uint8_t> transmitted;  // 188 bytes per packet
  int packetsPerFrame = 0;
  size_t samples = 0;                // complex samples in the file
};

// Writes `seconds` of the broadcast to a file named `name` in the test's temporary directory.
Capture WriteCapture(const std::string& name, double seconds);

// The device arguments that play `c` through the zfncapture module, recorded at
// CAPTURE_CENTER_HZ; `extra` adds module arguments.
std::string CaptureArgs(const Capture& c, const std::string& extra);

// How a received stream compares with the transmitted one: after the acquisition's stale packets,
// the first received packet found among the transmitted ones, and how many follow it in order.
struct StreamMatch {
  long firstTransmitted = -1;
  size_t inOrder = 0;
  size_t received = 0;  // packets after the stale ones
};
StreamMatch MatchStream(const std::vector<uint8_t>& received, const std::vector<uint8_t>& transmitted);

constexpr double CAPTURE_CENTER_HZ = 473143e3;  // the channel the receive command tunes by default

}  // namespace zfn::sdrtest
