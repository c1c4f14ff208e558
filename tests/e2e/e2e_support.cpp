#include "tests/e2e/e2e_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "shell/receiver_state.h"
#include "shell/sync_driver.h"

namespace zfn::e2e {

std::string Describe(const Layer& l) {
  static const char* const kGuards[] = {"1/32", "1/16", "1/8", "1/4"};
  static const char* const kModulations[] = {"?", "QPSK", "16QAM", "64QAM"};
  static const char* const kRates[] = {"1/2", "2/3", "3/4", "5/6", "7/8"};
  return "Mode " + std::to_string(l.mode) + " " + kGuards[l.guard] + " " + kModulations[l.modulation] + " " +
         kRates[l.codeRate] + " interleave " + std::to_string(l.interleave);
}

int Acquisition::Count(int verdict) const {
  return static_cast<int>(std::count(verdicts.begin(), verdicts.end(), verdict));
}

StreamCheck CheckAcquisition(const Acquisition& a, const std::vector<uint8_t>& transmitted, int packetsPerFrame) {
  StreamCheck r;
  const size_t delivered = a.PacketCount();
  const size_t sent = transmitted.size() / 188;
  if (delivered <= static_cast<size_t>(kStalePackets)) {
    r.failure = "only " + std::to_string(delivered) + " packets delivered";
    return r;
  }
  auto deliveredAt = [&a](size_t k) { return a.packets.data() + 188 * k; };
  auto sentAt = [&transmitted](size_t j) { return transmitted.data() + 188 * j; };
  // The alignment, found once: the transmitted packet equal to the first packet after the stale
  // ones (test pattern packets are all different, so one match is the match).
  const uint8_t* first = deliveredAt(kStalePackets);
  size_t j0 = sent;
  for (size_t j = 0; j < sent; ++j) {
    if (std::memcmp(first, sentAt(j), 188) == 0) {
      j0 = j;
      break;
    }
  }
  if (j0 == sent) {
    r.failure = "delivered packet " + std::to_string(kStalePackets) + " was never transmitted";
    return r;
  }
  r.firstTransmitted = static_cast<int64_t>(j0);
  // Packet 1 of the acquisition opens a packet frame (dispersal restart): packet kStalePackets is
  // kStalePackets - 1 packets into a frame.
  if (static_cast<int64_t>(j0) % packetsPerFrame != (kStalePackets - 1) % packetsPerFrame) {
    r.failure = "packet " + std::to_string(kStalePackets) + " is transmitted packet " + std::to_string(j0) +
                ", not at frame position " + std::to_string((kStalePackets - 1) % packetsPerFrame);
    return r;
  }
  // The stale packets are not the transmitted ones that belong in their places.
  for (size_t k = 0; k < static_cast<size_t>(kStalePackets); ++k) {
    const int64_t j = static_cast<int64_t>(j0) - kStalePackets + static_cast<int64_t>(k);
    if (j >= 0 && std::memcmp(deliveredAt(k), sentAt(static_cast<size_t>(j)), 188) == 0) {
      r.failure = "start-up packet " + std::to_string(k) + " is already the transmitted one";
      return r;
    }
  }
  for (size_t k = kStalePackets; k < delivered; ++k) {
    const size_t j = j0 + (k - kStalePackets);
    if (j >= sent) {
      r.failure = "delivered packet " + std::to_string(k) + " lies beyond the transmitted stream";
      return r;
    }
    if (std::memcmp(deliveredAt(k), sentAt(j), 188) != 0) {
      r.failure = "delivered packet " + std::to_string(k) + " differs from transmitted packet " + std::to_string(j) +
                  " after " + std::to_string(r.compared) + " equal ones";
      return r;
    }
    ++r.compared;
  }
  r.ok = true;
  return r;
}

StreamCheck CheckFrom(const Acquisition& a, size_t from, const std::vector<uint8_t>& transmitted) {
  StreamCheck r;
  const size_t delivered = a.PacketCount();
  const size_t sent = transmitted.size() / 188;
  if (delivered <= from) {
    r.failure = "only " + std::to_string(delivered) + " packets delivered";
    return r;
  }
  size_t j0 = sent;
  for (size_t j = 0; j < sent && j0 == sent; ++j) {
    if (std::memcmp(a.packets.data() + 188 * from, transmitted.data() + 188 * j, 188) == 0) j0 = j;
  }
  if (j0 == sent) {
    r.failure = "delivered packet " + std::to_string(from) + " was never transmitted";
    return r;
  }
  r.firstTransmitted = static_cast<int64_t>(j0);
  for (size_t k = from; k < delivered; ++k) {
    const size_t j = j0 + (k - from);
    if (j >= sent || std::memcmp(a.packets.data() + 188 * k, transmitted.data() + 188 * j, 188) != 0) {
      r.failure = "delivered packet " + std::to_string(k) + " is not transmitted packet " + std::to_string(j) +
                  " after " + std::to_string(r.compared) + " equal ones";
      return r;
    }
    ++r.compared;
  }
  r.ok = true;
  return r;
}

EndToEndRun::EndToEndRun(const Layer& layer, const sim::ChannelConfig& channel, const Front& front, uint64_t seed) {
  sim::BroadcastConfig b;
  b.mode = layer.mode;
  b.guard = layer.guard;
  b.modulation = layer.modulation;
  b.codeRate = layer.codeRate;
  b.interleave = layer.interleave;
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
  auto* run = static_cast<EndToEndRun*>(context);
  EXPECT_EQ(length, 24064);
  auto& packets = run->acquisitions_.back().packets;
  packets.insert(packets.end(), data, data + length);
}

void EndToEndRun::CollectVerdicts() {
  std::fflush(log_);
  auto& verdicts = acquisitions_.back().verdicts;
  while (logRead_ < logSize_) {
    const char* line = logText_ + logRead_;
    const char* end = static_cast<const char*>(std::memchr(line, '\n', logSize_ - logRead_));
    if (end == nullptr) break;
    verdicts.push_back(std::atoi(line));
    logRead_ = static_cast<size_t>(end - logText_) + 1;
  }
}

int32_t EndToEndRun::FeedBlock(int64_t cutBytes) {
  while (cutBytes > 0) {
    const size_t n = static_cast<size_t>(std::min<int64_t>(cutBytes, RAW_BLOCK_BYTES));
    generator_->GenerateBytes(block_.data(), n);
    cutBytes -= static_cast<int64_t>(n);
  }
  generator_->GenerateBytes(block_.data(), block_.size());
  SyncDriverFeed(block_.data(), block_.size());
  CollectVerdicts();
  ++blocks_;
  sawStreamFail_ = sawStreamFail_ || engine.streamFailMark != 0;
  sawEarlyFail_ = sawEarlyFail_ || engine.earlyFailMark != 0;
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
  for (int i = 0; i < blockLimit; ++i) {
    if (current().PacketCount() >= packets) return true;
    FeedBlock();
  }
  return current().PacketCount() >= packets;
}

}  // namespace zfn::e2e
