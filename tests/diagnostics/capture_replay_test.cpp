// A capture replays to the same stream: receive a simulated broadcast through the public API with
// the raw capture on, then play the capture file back through the simulator library and receive it
// again. The transport stream of the first run must stand, packet for packet, inside the second.
// Uses the project's own libBDA_simu.so and the simulation build of libZFNACCESS.so (build/lib),
// sped up so the case takes a few seconds.
#include <gtest/gtest.h>

#include <dirent.h>

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

using zfn_test::ScratchDirectory;
using zfn_test::WaitFor;

using Packet = std::array<uint8_t, 188>;

std::mutex streamLock;
std::vector<Packet> stream;
std::atomic<int32_t> deliveries{0};

void OnStream(const uint8_t* data, int32_t length) {
  std::lock_guard<std::mutex> lock(streamLock);
  for (int32_t i = 0; i + 188 <= length; i += 188) {
    Packet p;
    std::memcpy(p.data(), data + i, 188);
    stream.push_back(p);
  }
  deliveries.fetch_add(1);
}

// Receives until `count` deliveries have come after the lock was first reported, and returns them.
std::vector<Packet> Receive(int32_t count, bool capture) {
  {
    std::lock_guard<std::mutex> lock(streamLock);
    stream.clear();
  }
  deliveries = 0;
  EXPECT_EQ(ZFISDBT_SetTSCallBack(OnStream), 1);
  EXPECT_EQ(ZFISDBT_DebugCMD(5, 1), 1);
  if (ZFISDBT_OpenDevice() != 1) {
    ZFISDBT_CloseDevice();
    ADD_FAILURE() << "open in simulation failed";
    return {};
  }
  if (capture) {
    EXPECT_EQ(ZFISDBT_DebugCMD(6, 1), 1);
  }
  EXPECT_EQ(ZFISDBT_SetFrequency(473143), 1);
  int32_t locked = 0;
  const bool gotLock = WaitFor(
      [&] {
        int32_t l = 0;
        if (ZFISDBT_GetSignalLock(&l) == 1 && l == 1) locked = 1;
        return locked == 1;
      },
      20000);
  EXPECT_TRUE(gotLock) << "no lock on the simulated broadcast";
  const int32_t atLock = deliveries.load();
  EXPECT_TRUE(WaitFor([&] { return deliveries.load() >= atLock + count; }, 30000));
  if (capture) {
    EXPECT_EQ(ZFISDBT_DebugCMD(6, 0), 1);
  }
  ZFISDBT_CloseDevice();
  std::lock_guard<std::mutex> lock(streamLock);
  // Only what came after the lock: before it the stream is still settling.
  std::vector<Packet> after(stream.begin() + std::min<size_t>(stream.size(), atLock * 128u), stream.end());
  return after;
}

std::string OnlyCaptureFile(const std::string& directory) {
  std::string found;
  if (DIR* d = opendir(directory.c_str())) {
    while (dirent* e = readdir(d)) {
      if (std::strncmp(e->d_name, "BBStore", 7) == 0) found = directory + "/" + e->d_name;
    }
    closedir(d);
  }
  return found;
}

bool IsNull(const Packet& p) { return ((p[1] & 0x1F) << 8 | p[2]) == 0x1FFF; }

TEST(CaptureReplay, ACaptureReplaysThroughTheSimulatorToTheSameStream) {
  ScratchDirectory scratch(true);
  ASSERT_FALSE(scratch.Path().empty());
  // Four times real time in a plain build; under a sanitizer the simulator and the engine are
  // several times slower, and a receiver that cannot keep up laps its rings and breaks packets,
  // which is not what this case is about: real time there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  setenv("ZFNISDBT_SIM_SPEED", "1", 1);
#else
  setenv("ZFNISDBT_SIM_SPEED", "4", 1);
#endif
  unsetenv("ZFNISDBT_SIM_CAPTURE");
  const std::vector<Packet> first = Receive(3, true);
  ASSERT_GE(first.size(), 3u * 128u);

  const std::string file = OnlyCaptureFile(scratch.Path());
  ASSERT_FALSE(file.empty()) << "no capture file written";
  setenv("ZFNISDBT_SIM_CAPTURE", file.c_str(), 1);
  const std::vector<Packet> second = Receive(6, false);
  unsetenv("ZFNISDBT_SIM_CAPTURE");
  unsetenv("ZFNISDBT_SIM_SPEED");
  ASSERT_GE(second.size(), 6u * 128u);

  // Anchor on a packet of the first run that is not a null packet (those all look alike), then
  // demand the whole overlap to be equal.
  // The replay acquires anew, so the first packets of the first run may come before its own lock;
  // take the first packet that the replay has.
  size_t anchor = 0, at = second.size();
  for (; anchor < first.size() && at == second.size(); ++anchor) {
    if (IsNull(first[anchor])) continue;
    at = 0;
    while (at < second.size() && second[at] != first[anchor]) ++at;
  }
  ASSERT_LT(at, second.size()) << "the first run's stream does not occur in the replay";
  --anchor;
  size_t equal = 0, compared = 0;
  for (size_t k = anchor; k < first.size() && at + (k - anchor) < second.size(); ++k, ++compared) {
    if (first[k] == second[at + (k - anchor)]) ++equal;
  }
  EXPECT_GE(compared, 256u);
  EXPECT_EQ(equal, compared);
}

}  // namespace
