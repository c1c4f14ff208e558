// Transport stream delivery on the packet thread: drains the TsPacketRing, passes every packet through
// Reed-Solomon, keeps the error rates and the lock judgement, and hands blocks of 128 packets of 188
// bytes to the host's callback. Every packet is delivered, clean, corrected or not.
#include <cstring>
#include <mutex>

#include "decoder/decoder_stages.h"
#include "decoder/reed_solomon.h"
#include "shell/device_state.h"
#include "shell/stages.h"
#include "shell/work_arena.h"

namespace zfn {

namespace {

constexpr int32_t SYMBOLS_PER_FRAME = 204;

// Clears the ring and the statistics. Reset B, after a request that came during a drain, keeps the
// stream-failure mark; reset A, at the start of a drain, clears it too.
void ResetPacketStage(bool clearStreamMark) {
  {
    std::lock_guard<std::mutex> lock(device.packetRingLock);
    engine.ringWrite = 0;
    engine.ringRead = 0;
  }
  engine.tsOutputFill = 0;
  engine.goodFrameRun = 0;
  engine.badFrameRun = 0;
  engine.earlyGoodCount = 0;
  engine.earlyPacketCount = 0;
  engine.anyGoodMark = 0;
  engine.statNextSymbol = 0;
  engine.packetErrorRate = 0.0f;
  engine.packetFailRate = 0.0f;
  engine.byteErrorRate = 0.0f;
  if (clearStreamMark) engine.streamFailMark = 0;
  engine.earlyFailMark = 0;
  engine.failsThisSecond = -1;
  engine.tsResetPhase = TS_RING_OPEN;
}

}  // namespace

void SetUpTransportOutput() {
  device.packetWakePending.store(false);
  engine.tsOutputBlock = ArenaTakeBytes(TS_OUTPUT_BYTES);
  engine.ringSlots = ArenaTakeBytes(TS_RING_BYTES);
  engine.ringWrite = 0;
  engine.ringRead = 0;
  engine.goodFrameRun = 0;
  engine.badFrameRun = 0;
  engine.tsOutputFill = 0;
  engine.streamFailMark = 0;
  engine.earlyFailMark = 0;
  engine.earlyPacketCount = 0;
  engine.earlyGoodCount = 0;
  engine.anyGoodMark = 0;
  engine.statNextSymbol = 0;
  engine.packetErrorRate = 0.0f;
  engine.packetFailRate = 0.0f;
  engine.byteErrorRate = 0.0f;
  engine.tsResetRequest = 1;
  engine.tsResetPhase = TS_RING_OPEN;
  engine.failsThisSecond = -1;
}

void DrainPacketRing() {
  // From here a packet handed over wakes the thread again; one handed over before is drained now.
  device.packetWakePending.exchange(false, std::memory_order_acq_rel);
  const uint8_t request = engine.tsResetRequest;
  if (request == 1) {
    ResetPacketStage(true);
    return;
  }
  if (request != 0) return;
  for (;;) {
    bool have = false;
    {
      // The slot is copied inside the lock: a writer that laps the reader (a callback too slow)
      // would otherwise be writing the slot while it is read.
      std::lock_guard<std::mutex> lock(device.packetRingLock);
      if (engine.ringRead != engine.ringWrite) {
        engine.ringRead = (engine.ringRead + 1) % TS_RING_SLOTS;
        std::memcpy(engine.rsWork, engine.ringSlots + TS_PACKET_BYTES * engine.ringRead, TS_PACKET_BYTES);
        have = true;
      }
    }
    if (!have) return;
    std::memcpy(engine.rsRaw, engine.rsWork, TS_PACKET_BYTES);
    ProcessPacket();
    if (engine.tsResetRequest == 1) {
      ResetPacketStage(false);
      return;
    }
  }
}

void ProcessPacket() {
  const int32_t result = engine.rsDecoderFull != 0 ? DecodeRs(engine.rsWork) : CheckRsParity(engine.rsWork);
  const bool bad = result != RS_OK && result != RS_CORRECTED;

  // Moving shares, in double precision, stored as floats.
  const double packetRate = engine.packetErrorRate;
  const double failRate = engine.packetFailRate;
  const double byteRate = engine.byteErrorRate;
  if (result == RS_OK) {
    engine.packetErrorRate = static_cast<float>(packetRate * 0.95);
    engine.packetFailRate = static_cast<float>(failRate * 0.95);
    engine.byteErrorRate = static_cast<float>(byteRate * 0.9);
  } else if (result == RS_CORRECTED) {
    int32_t corrected = 0;
    for (int32_t i = 0; i < TS_DATA_BYTES; ++i) corrected += engine.rsWork[i] != engine.rsRaw[i];
    engine.packetErrorRate = static_cast<float>(packetRate * 0.95 + 0.05);
    engine.packetFailRate = static_cast<float>(failRate * 0.95);
    engine.byteErrorRate = static_cast<float>(byteRate * 0.9 + (corrected / 188.0) * 0.1);
  } else {
    // A failed packet counts as 0.04 of its bytes in error, whatever it holds.
    engine.packetErrorRate = static_cast<float>(packetRate * 0.95 + 0.05);
    engine.packetFailRate = static_cast<float>(failRate * 0.95 + 0.05);
    engine.byteErrorRate = static_cast<float>(byteRate * 0.9 + 0.004);
  }

  // Statistics period of about one second, in symbols; a bad packet on the boundary is not counted.
  if (static_cast<uint32_t>(engine.statNextSymbol.load()) < static_cast<uint32_t>(engine.symbolCount.load())) {
    engine.statNextSymbol = engine.statNextSymbol + engine.statFrames * SYMBOLS_PER_FRAME;
    engine.failsThisSecond = 0;
  } else if (bad) {
    engine.failsThisSecond = engine.failsThisSecond + 1;
  }

  // Judgement and counts by the decode stage of this moment.
  const int32_t stage = engine.decodeStage;
  const int32_t verdict = bad ? RS_VERDICT_FAILED : result == RS_OK ? RS_VERDICT_CLEAN : RS_VERDICT_CORRECTED;
  engine.rsVerdicts[verdict] = engine.rsVerdicts[verdict] + 1;
  if (stage == DECODE_STREAM) engine.rsStreamVerdicts[verdict] = engine.rsStreamVerdicts[verdict] + 1;
  if (engine.packetLogStream != nullptr) std::fprintf(engine.packetLogStream, "%d\n", bad ? 1 : result == RS_OK ? 0 : -1);

  if (stage == DECODE_EARLY) {
    if (engine.earlyPacketCount < EARLY_PACKETS) {
      ++engine.earlyPacketCount;
      if (!bad) {
        ++engine.earlyGoodCount;
        engine.anyGoodMark = 1;
      }
    }
    if (engine.earlyPacketCount == EARLY_PACKETS) engine.earlyFailMark = engine.earlyGoodCount < EARLY_GOOD_NEEDED ? 1 : 0;
  } else if (stage == DECODE_STREAM) {
    if (!bad) {
      engine.goodFrameRun = engine.goodFrameRun + 1;
      if (engine.goodFrameRun >= GOOD_RUN_CLEARS) {
        engine.badFrameRun = 0;
        engine.streamFailMark = 0;
      }
    } else {
      engine.badFrameRun = engine.badFrameRun + 1;
      if (engine.badFrameRun >= BAD_RUN_RAISES) {
        engine.goodFrameRun = 0;
        engine.streamFailMark = 1;
      }
    }
  }

  DeliverPacket(engine.rsWork);
}

void DeliverPacket(const uint8_t* packet) {
  std::memcpy(engine.tsOutputBlock + TS_DATA_BYTES * engine.tsOutputFill, packet, TS_DATA_BYTES);
  if (engine.tsOutputFill + 1 != TS_OUTPUT_PACKETS) {
    ++engine.tsOutputFill;
    return;
  }
  engine.tsOutputFill = 0;
  if (ZFISDBT_TsCallback callback = device.tsCallback) callback(engine.tsOutputBlock, TS_OUTPUT_BYTES);
}

}  // namespace zfn
