#pragma once
// The whole receiver from our transmitter to the transport stream: device bytes of the broadcast
// (all five segments, channel, quantiser) fed block by block into the synchronous driver, every
// delivered 188-byte packet kept, with the Reed-Solomon verdict of every packet from the engine's
// per-packet log. A run is cut into acquisitions: every return of the block state machine to
// acquisition starts a new one, and the packets of each acquisition are judged on their own.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "simulator/transmitter.h"

namespace zfn::e2e {

// Packets at the start of every acquisition that carry stale bytes: the block that takes the
// Viterbi decoder's 8 older bytes (196 stale bytes in front of them), and the 11 blocks after it
// whose byte deinterleaver branches still reach back into that block or into the stale store.
constexpr int kStalePackets = 12;

// The received layer: mode, guard (0..3: 1/32 .. 1/4), modulation (TMCC code: 1 QPSK, 2 16QAM,
// 3 64QAM), code rate (0..4: 1/2 .. 7/8) and interleaving index (0..3), the broadcast's first five
// fields; the rest of the broadcast comes from Front and the run's seed.
using Layer = sim::BroadcastConfig;

// The rest of the broadcast and the device: the device filter of the transmitter's front-end
// model and the modulation of the twelve other segments (TMCC code).
struct Front {
  double deviceFilterHz = 780e3;
  int neighbourModulation = 3;
};

std::string Describe(const Layer& l);  // e.g. "Mode3G2QpskR2_3I3"

// One acquisition's delivery: the packets of its callbacks and the verdicts of the packets that
// passed Reed-Solomon while it lasted (0 clean, -1 corrected, 1 not corrected), in order.
struct Acquisition {
  std::vector<uint8_t> packets;  // 188 bytes each
  std::vector<int> verdicts;
  size_t PacketCount() const { return packets.size() / 188; }
  int Count(int verdict, size_t from = 0) const;
};

// What a stream check found.
struct StreamCheck {
  bool ok = false;
  std::string failure;            // first fault, empty if ok
  int64_t firstTransmitted = -1;  // transmitted packet that the first compared packet is
  int64_t compared = 0;           // delivered packets found equal to the transmitted ones
};

// The packets of one acquisition from packet `from` on: the transmitted ones in order, with none
// missing, wherever that packet lies in the transmitted stream.
StreamCheck CheckFrom(const Acquisition& a, size_t from, const std::vector<uint8_t>& transmitted);

// The packets of one acquisition against the transmitted stream: exactly kStalePackets stale ones,
// then the transmitted packets in order with none missing, the first of them at a packet frame
// position that puts the frame start on the block after the stale one (packet 1).
StreamCheck CheckAcquisition(const Acquisition& a, const std::vector<uint8_t>& transmitted, int packetsPerFrame);

class EndToEndRun {
 public:
  EndToEndRun(const Layer& layer, const sim::ChannelConfig& channel, const Front& front, uint64_t seed = 1);
  ~EndToEndRun();
  EndToEndRun(const EndToEndRun&) = delete;
  EndToEndRun& operator=(const EndToEndRun&) = delete;

  bool valid() const { return generator_ != nullptr; }
  // Feeds one block of device bytes; returns the block state after it.
  int32_t FeedBlock();
  // Feeds blocks until the current acquisition has delivered `packets` packets; false if
  // `blockLimit` blocks pass first.
  bool RunUntilDelivered(size_t packets, int blockLimit);

  const std::vector<Acquisition>& acquisitions() const { return acquisitions_; }
  const Acquisition& current() const { return acquisitions_.back(); }
  const std::vector<uint8_t>& transmitted() const { return generator_->TransmittedPackets(); }
  int packetsPerFrame() const { return generator_->PacketsPerFrame(); }
  int blocksFed() const { return static_cast<int>(states_.size()); }
  bool sawStreamFailMark() const { return sawStreamFail_; }  // at the end of any block so far
  const std::vector<int32_t>& states() const { return states_; }  // block states after each block

 private:
  static void Consume(const uint8_t* data, int32_t length, void* context);

  std::unique_ptr<sim::SignalGenerator> generator_;
  std::vector<uint8_t> block_;
  std::vector<Acquisition> acquisitions_;
  std::vector<int32_t> states_;
  char* logText_ = nullptr;
  size_t logSize_ = 0, logRead_ = 0;
  std::FILE* log_ = nullptr;
  bool sawStreamFail_ = false;
};

}  // namespace zfn::e2e
