#include "tests/e2e/e2e_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "shell/receiver_state.h"
#include "shell/sync_driver.h"

namespace zfn::e2e {

std::string Describe(const Layer& l) {
  static const char* const kModulations[] = {"X", "Qpsk", "Qam16", "Qam64"};
  static const char* const kRates[] = {"R1_2", "R2_3", "R3_4", "R5_6", "R7_8"};
  return "Mode" + std::to_string(l.mode) + "G" + std::to_string(l.guard) + kModulations[l.modulation] +
         kRates[l.codeRate] + "I" + std::to_string(l.interleave);
}

int Acquisition::Count(int verdict, size_t from) const {
  return static_cast<int>(std::count(verdicts.begin() + static_cast<std::ptrdiff_t>(from), verdicts.end(), verdict));
}

StreamCheck CheckFrom(const Acquisition& a, size_t from, const std::vector<uint8_t>& transmitted) {
  StreamCheck r;
  const size_t delivered = a.PacketCount(), sent = transmitted.size() / 188;
  auto same = [&](size_t k, size_t j) { return std::memcmp(a.packets.data() + 188 * k, transmitted.data() + 188 * j, 188) == 0; };
  if (delivered <= from) {
    r.failure = "only " + std::to_string(delivered) + " packets delivered";
    return r;
  }
  // The alignment, found once (test pattern packets are all different, so one match is the match).
  size_t j0 = 0;
  while (j0 < sent && !same(from, j0)) ++j0;
  if (j0 == sent) {
    r.failure = "delivered packet " + std::to_string(from) + " was never transmitted";
    return r;
  }
  r.firstTransmitted = static_cast<int64_t>(j0);
  for (size_t k = from; k < delivered; ++k, ++r.compared) {
    const size_t j = j0 + (k - from);
    if (j >= sent || !same(k, j)) {
      r.failure = "delivered packet " + std::to_string(k) + " is not transmitted packet " + std::to_string(j) +
                  " after " + std::to_string(r.compared) + " equal ones";
      return r;
    }
  }
  r.ok = true;
  return r;
}

StreamCheck CheckAcquisition(const Acquisition& a, const std::vector<uint8_t>& transmitted, int packetsPerFrame) {
  StreamCheck r = CheckFrom(a, kStalePackets, transmitted);
  if (!r.ok) return r;
  r.ok = false;
  // Packet 1 of the acquisition opens a packet frame (dispersal restart): packet kStalePackets is
  // kStalePackets - 1 packets into a frame.
  if (r.firstTransmitted % packetsPerFrame != (kStalePackets - 1) % packetsPerFrame) {
    r.failure = "packet " + std::to_string(kStalePackets) + " is transmitted packet " +
                std::to_string(r.firstTransmitted) + ", not at frame position " +
                std::to_string((kStalePackets - 1) % packetsPerFrame);
    return r;
  }
  // The stale packets are not the transmitted ones that belong in their places.
  for (int64_t k = 0; k < kStalePackets; ++k) {
    const int64_t j = r.firstTransmitted - kStalePackets + k;
    if (j >= 0 && std::memcmp(a.packets.data() + 188 * k, transmitted.data() + 188 * j, 188) == 0) {
      r.failure = "start-up packet " + std::to_string(k) + " is already the transmitted one";
      return r;
    }
  }
  r.ok = true;
  return r;
}

EndToEndRun::EndToEndRun(const Layer& layer, const sim::ChannelConfig& channel, const Front& front, uint64_t seed) {
  sim::BroadcastConfig b = layer;
  b.seed = seed;
  b.deviceFilterHz = front.deviceFilterHz;
  b.neighbourModulation = front.neighbourModulation;
  std::string error;
  generator_ = sim::SignalGenerator::Create(b, channel, sim::MakeTestPatternSource(seed + 100), &error);
  EXPECT_TRUE(generator_ != nullptr) << error;
  if (generator_ == nullptr) return;
  generator_->RecordPackets(true);
  block_.resize(RAW_BLOCK_BYTES);
  acquisitions_.emplace_back();
  EXPECT_EQ(SyncDriverOpen(&EndToEndRun::Consume, this), 1);
  log_ = open_memstream(&logText_, &logSize_);
  EXPECT_TRUE(log_ != nullptr);
  engine.packetLogStream = log_;
  SyncDriverRetune();
}

EndToEndRun::~EndToEndRun() {
  engine.packetLogStream = nullptr;
  SyncDriverClose();
  if (log_ != nullptr) std::fclose(log_);
  std::free(logText_);
}

void EndToEndRun::Consume(const uint8_t* data, int32_t length, void* context) {
  EXPECT_EQ(length, 24064);
  auto& packets = static_cast<EndToEndRun*>(context)->acquisitions_.back().packets;
  packets.insert(packets.end(), data, data + length);
}

int32_t EndToEndRun::FeedBlock() {
  generator_->GenerateBytes(block_.data(), block_.size());
  SyncDriverFeed(block_.data(), block_.size());
  // The verdicts logged during the block, one line each.
  std::fflush(log_);
  while (const char* end = static_cast<const char*>(std::memchr(logText_ + logRead_, '\n', logSize_ - logRead_))) {
    acquisitions_.back().verdicts.push_back(std::atoi(logText_ + logRead_));
    logRead_ = static_cast<size_t>(end - logText_) + 1;
  }
  sawStreamFail_ = sawStreamFail_ || engine.streamFailMark != 0;
  const int32_t state = SyncDriverBlockState();
  states_.push_back(state);
  // Coarse sync follows only a block of mode detection: acquisition started over in this block.
  // Its packet stage was cleared before anything was delivered, so the next packets are the new
  // acquisition's.
  if (state == BLOCK_COARSE_SYNC && (!current().verdicts.empty() || !current().packets.empty())) {
    acquisitions_.emplace_back();
  }
  return state;
}

bool EndToEndRun::RunUntilDelivered(size_t packets, int blockLimit) {
  for (int i = 0; i < blockLimit && current().PacketCount() < packets; ++i) FeedBlock();
  return current().PacketCount() >= packets;
}

}  // namespace zfn::e2e
