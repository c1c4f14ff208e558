// The synchronous engine fed device bytes. A short capture of our transmitter (Mode 3, 1/8, QPSK
// 2/3, a little noise) is made once; each input overwrites, inserts into or cuts from a copy of
// it, which then runs through a freshly retuned engine: acquisition from mode detection on, on
// bytes that are signal almost everywhere and anything at all where the input says.
// Input: records of [op, position (3 bytes), length, bytes...]; op % 3: 0 overwrite, 1 insert,
// 2 cut.
#include <cstdint>
#include <cstring>
#include <vector>

#include "shell/shell_fields.h"
#include "shell/sync_driver.h"
#include "simulator/transmitter.h"

namespace {

constexpr int kBlocks = 4;

std::vector<uint8_t> MakeCapture() {
  zfn::sim::BroadcastConfig b;
  zfn::sim::ChannelConfig c;
  c.noise = true;
  c.cnDb = 25;
  std::string error;
  auto generator = zfn::sim::SignalGenerator::Create(b, c, zfn::sim::MakeNullSource(), &error);
  std::vector<uint8_t> bytes(static_cast<size_t>(kBlocks) * zfn::RAW_BLOCK_BYTES);
  if (generator) generator->GenerateBytes(bytes.data(), bytes.size());
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<uint8_t> capture = MakeCapture();
  static const bool open = zfn::SyncDriverOpen(nullptr, nullptr) == 1;
  if (!open) return 0;
  std::vector<uint8_t> stream(capture);
  size_t at = 0;
  while (at + 5 <= size) {
    const uint8_t op = data[at];
    size_t pos = (size_t{data[at + 1]} << 16 | size_t{data[at + 2]} << 8 | data[at + 3]) * 16 % stream.size();
    size_t length = data[at + 4];
    at += 5;
    if (op % 3 == 2) {
      length = std::min(length, stream.size() - pos);
      stream.erase(stream.begin() + static_cast<std::ptrdiff_t>(pos),
                   stream.begin() + static_cast<std::ptrdiff_t>(pos + length));
      continue;
    }
    length = std::min(length, size - at);
    if (op % 3 == 1) {
      stream.insert(stream.begin() + static_cast<std::ptrdiff_t>(pos), data + at, data + at + length);
    } else {
      length = std::min(length, stream.size() - pos);
      std::memcpy(stream.data() + pos, data + at, length);
    }
    at += length;
  }
  zfn::SyncDriverRetune();
  zfn::SyncDriverFeed(stream.data(), stream.size());
  return 0;
}
