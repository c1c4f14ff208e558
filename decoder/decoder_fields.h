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

struct DecoderFields {
  // Bits per data carrier of the received layer (2, 4 or 6), set by SetUpDecoder; tracking's
  // equaliser and slicers read it too.
  int32_t bitsPerCarrier;

  // TsPacketRing: 80 slots of 204 bytes in the work arena. Both indices move first and are used
  // afterwards; equal indices mean empty. Guarded by device.packetRingLock.
  uint8_t* ringSlots;
  uint32_t ringWrite;
  uint32_t ringRead;

  // Reset handshake between the demodulation thread and the packet thread.
  RelaxedWord<uint8_t> tsResetRequest{1};  // 1: the packet stage must start over
  RelaxedWord<uint8_t> tsResetPhase{3};    // 3: the ring may be written; 2: a reset is pending

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
};

}  // namespace zfn
