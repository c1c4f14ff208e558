#pragma once
// Offline decoding of the device byte stream through the synchronous driver: what `zfnisdbt decode`,
// the whole-engine benchmark and the sensitivity sweep share. Blocks are handled one at a time so
// that the block state can be watched after each, and the engine's Reed-Solomon verdict counts read.
//
// One engine exists per process: one OfflineDecoder may be open at a time, and not while the device
// is open.
#include <cstddef>
#include <cstdint>

namespace zfn::tools {

struct RsCounts {
  int64_t ok = 0;
  int64_t corrected = 0;
  int64_t failed = 0;
  int64_t Total() const { return ok + corrected + failed; }
};

struct OfflineDecodeStats {
  int64_t blocks = 0;             // whole 240640-byte blocks handled
  int64_t packetsDelivered = 0;   // 188-byte packets handed to the sink
  RsCounts all;                   // every packet through Reed-Solomon
  RsCounts streaming;             // those decoded while the lock judgement watched the stream
  int64_t firstTrackingBlock = -1;  // block after which the engine was first tracking
  int64_t firstStreamBlock = -1;    // block after which the stream was first judged
  int32_t trackingLosses = 0;     // times the engine left tracking (resync, failure)
  int32_t lossesAfterStream = 0;  // of those, the ones after the stream was first judged
  // Why the engine went back from tracking to acquisition, and restarts of frame sync.
  int32_t resyncLowSnr = 0;       // the low-SNR watch of the early stage
  int32_t resyncEarlyFail = 0;    // fewer than two good packets among the first 40
  int32_t resyncStreamFail = 0;   // 40 bad packets in a row while the stream is judged
  int32_t tmccFailures = 0;
  // Last values seen while tracking (valid when firstTrackingBlock >= 0).
  int32_t mode = 0;        // 1..3
  int32_t guard = 0;       // 0..3: 1/32, 1/16, 1/8, 1/4
  int32_t modulation = 0;  // TMCC code 0..3: DQPSK, QPSK, 16QAM, 64QAM
  int32_t codeRate = 0;    // 0..4: 1/2, 2/3, 3/4, 5/6, 7/8
  int32_t interleave = 0;  // 0..3
  float snrDb = 0.0f;
  int32_t finalState = -1;  // blockState after the last block
};

// Names for reports.
const char* BlockStateWord(int32_t state);  // idle, no_signal, mode_detect, ...
const char* GuardName(int32_t guard);
const char* ModulationName(int32_t modulation);
const char* CodeRateName(int32_t codeRate);
double BlockSeconds();  // signal time of one block: 60160 samples at 64/63 MHz

class OfflineDecoder {
 public:
  // Receives the transport stream: 24064 bytes (128 packets) per call.
  using Sink = void (*)(const uint8_t* data, int32_t length, void* context);

  OfflineDecoder() = default;
  ~OfflineDecoder() { Close(); }
  OfflineDecoder(const OfflineDecoder&) = delete;
  OfflineDecoder& operator=(const OfflineDecoder&) = delete;

  // Builds the engine and starts acquisition on the first block. false if the engine cannot be
  // built or is in use.
  bool Open(Sink sink, void* context);
  // Feeds bytes of the device stream, any length; a block is handled as soon as it is complete.
  void Feed(const uint8_t* bytes, size_t length);
  // Bytes fed that do not yet make a whole block.
  size_t PendingBytes() const { return pending_; }
  // Releases the engine; the statistics stay readable.
  void Close();
  bool IsOpen() const { return open_; }
  const OfflineDecodeStats& Stats() const { return stats_; }

 private:
  static void Deliver(const uint8_t* data, int32_t length, void* context);
  void AfterBlock();

  bool open_ = false;
  Sink sink_ = nullptr;
  void* context_ = nullptr;
  size_t pending_ = 0;
  OfflineDecodeStats stats_;
};

}  // namespace zfn::tools
