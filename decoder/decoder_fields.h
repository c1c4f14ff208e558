#pragma once
// Fields of the engine record written by channel decoding and transport output that other stages read.
#include <cstdint>
#include <cstdio>

#include "shell/relaxed_word.h"

namespace zfn {

// Transport stream packets: 204 bytes on the air (188 + 16 parity), 188 delivered, 128 per delivery.
constexpr int32_t TS_PACKET_BYTES = 204;
constexpr int32_t TS_DATA_BYTES = 188;
constexpr int32_t TS_RING_SLOTS = 80;
constexpr int32_t TS_OUTPUT_PACKETS = 128;
constexpr int32_t TS_OUTPUT_BYTES = TS_OUTPUT_PACKETS * TS_DATA_BYTES;  // 24064 = 0x5E00
constexpr int32_t TS_RING_BYTES = TS_RING_SLOTS * TS_PACKET_BYTES;      // 16320

// Lock judgement, in one place: the marks and runs of the packet stage, the lock status that reads
// the runs, the low-SNR watch of DECODE_EARLY, and the refinements' resync rule and stall time.
constexpr int32_t EARLY_PACKETS = 40;          // packets judged in DECODE_EARLY
constexpr int32_t EARLY_GOOD_NEEDED = 2;       // good ones among them that keep earlyFailMark down
constexpr int32_t GOOD_RUN_CLEARS = 10;        // good packets in a row that clear streamFailMark
constexpr int32_t BAD_RUN_RAISES = 40;         // bad packets in a row that raise it
constexpr int32_t LOCK_GOOD_RUN_ABOVE = 1;     // lock: goodFrameRun above this and
constexpr int32_t LOCK_BAD_RUN_BELOW = 3;      //   badFrameRun below this
constexpr int32_t NO_LOCK_BAD_RUN_ABOVE = 19;  // no lock: badFrameRun above this
constexpr int32_t SNR_WATCH_FROM = 51;         // symbolCount at which the low-SNR watch starts
constexpr double SNR_LOW_DB = 2.0;             // a symbol below this counts as low,
constexpr double SNR_HIGH_DB = 4.0;            //   above this as high
constexpr int32_t SNR_HIGH_RESETS = 20;        // high symbols that start both counts over
constexpr int32_t SNR_LOW_FAILS = 101;         // low symbols before that many high ones: snrFailed
constexpr float REFINED_SPARE_FAIL_RATE = 0.5f;  // packetFailRate above which a low SNR still restarts
// Refined: a stream that has delivered no block for this long, or whose blocks the demodulation
// thread has stopped taking, is reported as no signal.
constexpr int64_t STREAM_STALL_MS = 1000;

// tsResetPhase.
enum TsResetPhase : uint8_t {
  TS_RESET_PENDING = 2,  // the demodulation thread puts no packet in the ring
  TS_RING_OPEN = 3,      // the packet stage has started over: the ring may be written
};

// Reed-Solomon verdicts of the packet stage, the index of rsVerdicts and rsStreamVerdicts.
enum RsVerdict : int32_t { RS_VERDICT_CLEAN = 0, RS_VERDICT_CORRECTED = 1, RS_VERDICT_FAILED = 2 };

struct DecoderFields {
  // Bits per data carrier of the received layer (2, 4 or 6), set by SetUpDecoder; tracking's
  // equaliser and slicers read it too.
  int32_t bitsPerCarrier;

  // TsPacketRing: 80 slots of 204 bytes in the work arena. Both indices move first and are used
  // afterwards; equal indices mean empty. Guarded by device.packetRingLock.
  uint8_t* ringSlots;
  uint32_t ringWrite;
  uint32_t ringRead;

  // Reset handshake between the demodulation thread and the packet thread: the demodulation thread
  // sets tsResetPhase TS_RESET_PENDING, then tsResetRequest 1; the packet thread clears ring and
  // statistics and sets TS_RING_OPEN; the next packet written to the ring clears the request.
  RelaxedWord<uint8_t> tsResetRequest{1};  // 1: the packet stage must start over
  RelaxedWord<uint8_t> tsResetPhase{TS_RING_OPEN};

  // Delivery: one block of 128 packets of 188 bytes, handed to the host's callback when full.
  uint8_t* tsOutputBlock;
  int32_t tsOutputFill;
  uint8_t rsWork[TS_PACKET_BYTES];  // the packet being decoded, and delivered from
  uint8_t rsRaw[TS_PACKET_BYTES];   // the same packet as it came out of the ring, never changed

  // Moving error shares, written by the packet thread, published by SymbolSink.
  RelaxedWord<float> packetErrorRate;
  RelaxedWord<float> packetFailRate;
  RelaxedWord<float> byteErrorRate;

  // Lock judgement. The runs and anyGoodMark feed the lock status; the two marks feed the resync
  // rule of the block scheduler.
  RelaxedWord<int32_t> goodFrameRun;
  RelaxedWord<int32_t> badFrameRun;
  RelaxedWord<int8_t> streamFailMark;
  int32_t earlyPacketCount;
  int32_t earlyGoodCount;
  RelaxedWord<int8_t> earlyFailMark;
  RelaxedWord<int32_t> anyGoodMark;
  RelaxedWord<int32_t> failsThisSecond{-1};  // packets not corrected in this period; -1 before the first
  std::FILE* packetLogStream;                // optional per-packet log; nothing in the library attaches one
  // Packets through Reed-Solomon since the engine was built, by verdict: all of them, and those
  // judged while decodeStage was DECODE_STREAM. Written by the packet thread; the tools read them.
  RelaxedWord<int64_t> rsVerdicts[3];
  RelaxedWord<int64_t> rsStreamVerdicts[3];
};

}  // namespace zfn
