#include "tests/sdr_device/sdr_capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

namespace zfn::sdrtest {

namespace {
// Packets at the start of an acquisition that carry stale bytes (the decoder's start-up).
constexpr size_t STALE_PACKETS = 12;
}  // namespace

void UseOnlyTheCaptureModule() {
  setenv("SOAPY_SDR_PLUGIN_PATH", ZFN_SOAPY_MODULES, 1);
  setenv("SOAPY_SDR_ROOT", ZFN_NO_SOAPY_ROOT, 1);
}

sim::BroadcastConfig CaptureBroadcast() {
  sim::BroadcastConfig b;
  b.mode = 3;
  b.guard = 2;
  b.modulation = 1;
  b.codeRate = 1;
  b.interleave = 1;
  return b;
}

sim::ChannelConfig CaptureChannel() {
  sim::ChannelConfig c;
  c.noise = true;
  c.cnDb = 20;
  c.carrierOffsetHz = 3000;
  c.clockPpm = 5;
  c.frontEnd = sim::FrontEnd::Sdr;  // the whole broadcast, DC offset, I/Q imbalance, 8-bit converter
  return c;
}

Capture WriteCapture(const std::string& name, double seconds) {
  Capture c;
  // One file per process: ctest runs cases side by side, and none may read another's file while it
  // is written. The files go when the process ends.
  struct Files {
    std::vector<std::string> paths;
    ~Files() {
      for (const std::string& p : paths) std::remove(p.c_str());
    }
  };
  static Files files;
  c.path = testing::TempDir() + std::to_string(getpid()) + "_" + name;
  files.paths.push_back(c.path);
  std::string error;
  auto generator = sim::SignalGenerator::Create(CaptureBroadcast(), CaptureChannel(), sim::MakeTestPatternSource(7), &error);
  EXPECT_TRUE(generator != nullptr) << error;
  if (generator == nullptr) return c;
  generator->RecordPackets(true);
  std::FILE* file = std::fopen(c.path.c_str(), "wb");
  EXPECT_TRUE(file != nullptr) << c.path;
  if (file == nullptr) return c;
  std::vector<uint8_t> chunk(1 << 20);
  const size_t total = static_cast<size_t>(seconds * sim::kBroadcastRateHz) * 2;
  for (size_t written = 0; written < total;) {
    const size_t n = std::min(chunk.size(), total - written) & ~size_t{3};
    if (n == 0) break;
    generator->GenerateBytes(chunk.data(), n);
    EXPECT_EQ(std::fwrite(chunk.data(), 1, n, file), n);
    written += n;
    c.samples += n / 2;
  }
  std::fclose(file);
  c.transmitted = generator->TransmittedPackets();
  c.packetsPerFrame = generator->PacketsPerFrame();
  return c;
}

std::string CaptureArgs(const Capture& c, const std::string& extra) {
  std::string args = "driver=zfncapture,path=" + c.path + ",center=" + std::to_string(static_cast<long long>(CAPTURE_CENTER_HZ));
  if (!extra.empty()) args += "," + extra;
  return args;
}

StreamMatch MatchStream(const std::vector<uint8_t>& received, const std::vector<uint8_t>& transmitted) {
  StreamMatch m;
  const size_t count = received.size() / 188;
  if (count <= STALE_PACKETS) return m;
  m.received = count - STALE_PACKETS;
  // Test-pattern packets are all different: each finds its one place.
  std::map<std::string, long> where;
  for (size_t j = 0; j < transmitted.size() / 188; ++j) {
    where.emplace(std::string(reinterpret_cast<const char*>(transmitted.data() + 188 * j), 188), static_cast<long>(j));
  }
  const auto first = where.find(std::string(reinterpret_cast<const char*>(received.data() + 188 * STALE_PACKETS), 188));
  if (first == where.end()) return m;
  m.firstTransmitted = first->second;
  for (size_t k = STALE_PACKETS; k < count; ++k) {
    const size_t j = static_cast<size_t>(m.firstTransmitted) + (k - STALE_PACKETS);
    if (j >= transmitted.size() / 188 || std::memcmp(received.data() + 188 * k, transmitted.data() + 188 * j, 188) != 0) break;
    ++m.inOrder;
  }
  return m;
}

}  // namespace zfn::sdrtest
