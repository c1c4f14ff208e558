// Transport stream sources of the transmitter. See transmitter.h.
#include <cstdio>
#include <cstring>
#include <vector>

#include "simulator/transmitter.h"
#include "simulator/tx_random.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {

namespace {

void MakeNullPacket(uint8_t* p) {
  p[0] = 0x47;
  p[1] = 0x1F;
  p[2] = 0xFF;
  p[3] = 0x10;
  std::memset(p + 4, 0xFF, kPacketBytes - 4);
}

class NullSource final : public PacketSource {
 public:
  void Next(uint8_t* packet) override { MakeNullPacket(packet); }
};

class TestPatternSource final : public PacketSource {
 public:
  explicit TestPatternSource(uint64_t seed) : rng_(seed) {}
  void Next(uint8_t* p) override {
    p[0] = 0x47;
    p[1] = 0x01;  // PID 0x100
    p[2] = 0x00;
    p[3] = static_cast<uint8_t>(0x10 | (count_ & 0x0F));
    // Packet number in the first payload bytes, then seeded random bytes.
    for (int i = 0; i < 8; ++i) p[4 + i] = static_cast<uint8_t>(count_ >> (56 - 8 * i));
    for (int i = 12; i < kPacketBytes; i += 8) {
      uint64_t r = rng_.Next();
      for (int k = 0; k < 8 && i + k < kPacketBytes; ++k, r >>= 8) p[i + k] = static_cast<uint8_t>(r);
    }
    ++count_;
  }

 private:
  Rng rng_;
  uint64_t count_ = 0;
};

// A file held in memory (the programmes we play are short loops), null packets removed, played
// at its own rate with null packets between, or back to back when its rate is unknown or too high.
class FileSource final : public PacketSource {
 public:
  FileSource(std::vector<uint8_t> packets, double fileRate, double layerRate)
      : packets_(std::move(packets)), count_(packets_.size() / kPacketBytes) {
    share_ = fileRate > 0 && fileRate < layerRate ? fileRate / layerRate : 1.0;
  }
  void Next(uint8_t* p) override {
    credit_ += share_;
    if (credit_ < 1.0) {
      MakeNullPacket(p);
      return;
    }
    credit_ -= 1.0;
    std::memcpy(p, packets_.data() + next_ * kPacketBytes, kPacketBytes);
    if (++next_ == count_) next_ = 0;
  }

 private:
  std::vector<uint8_t> packets_;
  size_t count_;
  size_t next_ = 0;
  double share_ = 1.0;
  double credit_ = 0.0;
};

int Pid(const uint8_t* p) { return ((p[1] & 0x1F) << 8) | p[2]; }

// PCR of a packet in 27 MHz units, or -1.
int64_t Pcr(const uint8_t* p) {
  if ((p[3] & 0x20) == 0 || p[4] < 7 || (p[5] & 0x10) == 0) return -1;
  const int64_t base = (static_cast<int64_t>(p[6]) << 25) | (p[7] << 17) | (p[8] << 9) | (p[9] << 1) | (p[10] >> 7);
  const int64_t ext = ((p[10] & 1) << 8) | p[11];
  return base * 300 + ext;
}

}  // namespace

std::unique_ptr<PacketSource> MakeNullSource() { return std::make_unique<NullSource>(); }
std::unique_ptr<PacketSource> MakeTestPatternSource(uint64_t seed) { return std::make_unique<TestPatternSource>(seed); }

std::unique_ptr<PacketSource> OpenTsFile(const std::string& path, double layerBitRate, std::string* error) {
  auto fail = [&](const std::string& what) -> std::unique_ptr<PacketSource> {
    if (error != nullptr) *error = what;
    return nullptr;
  };
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return fail("cannot open transport stream file '" + path + "'");
  std::vector<uint8_t> data;
  constexpr size_t kMaxBytes = 512u << 20;
  uint8_t chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
    data.insert(data.end(), chunk, chunk + got);
    if (data.size() > kMaxBytes) {
      std::fclose(f);
      return fail("transport stream file '" + path + "' is larger than 512 MB");
    }
  }
  const bool readError = std::ferror(f) != 0;
  std::fclose(f);
  if (readError) return fail("cannot read transport stream file '" + path + "'");
  const size_t count = data.size() / kPacketBytes;
  if (count == 0 || data.size() % kPacketBytes != 0)
    return fail("'" + path + "' is not a transport stream of 188-byte packets");
  std::vector<uint8_t> kept;
  kept.reserve(data.size());
  int pcrPid = -1;
  int64_t firstPcr = -1, lastPcr = -1;
  size_t keptAtFirst = 0, keptAtLast = 0;
  for (size_t i = 0; i < count; ++i) {
    const uint8_t* p = data.data() + i * kPacketBytes;
    if (p[0] != 0x47) return fail("'" + path + "' is not a transport stream of 188-byte packets (no sync byte at packet " + std::to_string(i) + ")");
    const int64_t pcr = Pcr(p);
    if (pcr >= 0 && (pcrPid < 0 || Pid(p) == pcrPid) && pcr > lastPcr) {
      pcrPid = Pid(p);
      if (firstPcr < 0) {
        firstPcr = pcr;
        keptAtFirst = kept.size() / kPacketBytes;
      }
      lastPcr = pcr;
      keptAtLast = kept.size() / kPacketBytes;
    }
    if (Pid(p) != 0x1FFF) kept.insert(kept.end(), p, p + kPacketBytes);
  }
  if (kept.empty()) return fail("'" + path + "' holds only null packets");
  double rate = 0;
  if (lastPcr > firstPcr && keptAtLast > keptAtFirst)
    rate = static_cast<double>(keptAtLast - keptAtFirst) * kPacketBytes * 8.0 / (static_cast<double>(lastPcr - firstPcr) / 27e6);
  return std::make_unique<FileSource>(std::move(kept), rate, layerBitRate);
}

}  // namespace zfn::sim
