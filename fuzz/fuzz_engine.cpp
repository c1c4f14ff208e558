// The synchronous engine fed device bytes that are anything at all. A capture of our transmitter
// (Mode 3, 1/8, QPSK 2/3, short interleaving, a little noise) is made once and fed on and on, so
// that acquisition, tracking and decoding are all reached; every input is spliced into it where
// the stream has got to: over the next 4 KB of the capture, or inserted before them. One run is
// thus short (a block is handled every 60 or so runs), and the engine goes on from where the last
// run left it.
// Input: byte 0 selects: 0 retune (acquisition from scratch), 1 switch the refinements, 2 skip
// ahead in the capture, 3 insert the rest before the capture's bytes (which moves the groups of
// four), 4 to 15 the rest overwrites the capture's bytes, any other: the capture flows clean (so
// that most runs let the engine reach tracking and decoding between the damage).
// Crashes may need the runs before them: reproduce with the whole corpus in order
// (fuzz_engine -runs=N corpus/engine) rather than the one input.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "shell/receiver_state.h"
#include "shell/shell_fields.h"
#include "shell/sync_driver.h"
#include "simulator/transmitter.h"

namespace {

constexpr double kCaptureSeconds = 6.0;
constexpr size_t kCaptureBytesPerRun = 4096;

std::vector<uint8_t> MakeCapture() {
  zfn::sim::BroadcastConfig b;
  b.interleave = 1;
  // A clean capture: noise would pass the device filter model sample by sample, which under the
  // fuzzer's instrumentation takes longer than one run may; the inputs bring the damage.
  zfn::sim::ChannelConfig c;
  std::string error;
  auto generator = zfn::sim::SignalGenerator::Create(b, c, zfn::sim::MakeNullSource(), &error);
  return generator ? generator->GenerateSeconds(kCaptureSeconds) : std::vector<uint8_t>{};
}

size_t cursor = 0;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<uint8_t> capture = MakeCapture();
  static const bool open = [] {
    if (zfn::SyncDriverOpen(nullptr, nullptr) != 1) return false;
    zfn::SyncDriverRetune();
    return true;
  }();
  if (!open || capture.size() < kCaptureBytesPerRun || size == 0) return 0;
  // Retunes and damage are rationed (a retune at most every 2048 runs, about two seconds of
  // signal; damage on one run in eight), so that acquisition can finish and tracking and decoding
  // run between them.
  static uint32_t runs = 0, lastRetune = 0;
  runs += 1;
  uint8_t op = data[0];
  if (op == 0 && runs - lastRetune < 2048) op = 255;
  if (op >= 2 && op < 16 && runs % 8 != 0) op = 255;
  switch (op) {
    case 0:
      zfn::SyncDriverRetune();
      lastRetune = runs;
      break;
    case 1:
      zfn::engine.refined = zfn::engine.refined == 0 ? 1 : 0;
      break;
    case 2:
      cursor = (cursor + capture.size() / 7) % capture.size();
      break;
    default:
      break;
  }
  const size_t take = std::min(kCaptureBytesPerRun, capture.size() - cursor);
  static std::vector<uint8_t> chunk(kCaptureBytesPerRun);
  std::memcpy(chunk.data(), capture.data() + cursor, take);
  if (op == 3) {
    zfn::SyncDriverFeed(data + 1, size - 1);
  } else if (op < 16) {
    std::memcpy(chunk.data(), data + 1, std::min(size - 1, take));
  }
  zfn::SyncDriverFeed(chunk.data(), take);
  cursor = (cursor + take) % capture.size();
  // ZFN_FUZZ_STATES=1: the block state every 4096 runs, to see which states the runs reach.
  static const bool trace = std::getenv("ZFN_FUZZ_STATES") != nullptr;
  if (trace && runs % 4096 == 0) std::fprintf(stderr, "state %d\n", zfn::SyncDriverBlockState());
  return 0;
}
