#include "shell/block_scheduler.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>

#include "frontend/device_binding.h"
#include "platform/thread.h"
#include "shell/block_ring.h"
#include "shell/capture.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/engine_memory.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/probe_fill.h"

namespace zfn {

void (*symbolStepHandler)() = SymbolStep;
RelaxedWord<int64_t> lastBlockArrivalMs;
RelaxedWord<int64_t> lastBlockTakenMs;

int64_t SteadyMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void MarkStreamProgress() {
  const int64_t now = SteadyMilliseconds();
  lastBlockArrivalMs = now;
  lastBlockTakenMs = now;
}
const BlockStages STAGE_ENTRY_POINTS = {DetectModeAndGuard, RunCoarseSync, RunFrameSync, SetUpTracking,
                                        SetUpDecoder};
BlockStages blockStages = STAGE_ENTRY_POINTS;

namespace {

constexpr int32_t RECEPTION_WAIT_MS = 300;
constexpr int32_t DEMODULATION_WAIT_MS = 300;
constexpr int32_t PACKET_WAIT_MS = 1000;
constexpr int32_t BLOCKS_PER_PASS = 10;  // about 592 ms of signal before the thread looks up again

void PublishReceivedBlock(const uint8_t* block, void*) {
  BlockRingPublish(block);
  lastBlockArrivalMs = SteadyMilliseconds();
  device.blockEvent.Set();
  CaptureFeed(block);
}

}  // namespace

void ReceptionThread() {
  platform::SetCurrentThreadPriority(platform::ThreadPriority::Reception);
  BlockAssembler assembler;
  assembler.Reset(blockRing.assemblyBuffer);
  // The source is the one open bound; a late debug command 5 must not switch it under the thread.
  const bool simulated = device.simulationMode != 0;
  while (device.running) {
    if (!device.dataEvent.Wait(RECEPTION_WAIT_MS)) continue;
    int32_t length = 0;
    int32_t aux = 0;
    if (simulated) {
      simulatorBinding.GetData(blockRing.readBuffer, &length);
    } else {
      deviceBinding.GetData(blockRing.readBuffer, SOURCE_READ_BYTES, &length, &aux);
    }
    // The byte count alone decides; a count outside the buffer cannot be trusted beyond it.
    if (length < 0) length = 0;
    if (length > SOURCE_READ_BYTES) length = SOURCE_READ_BYTES;
    assembler.Append(blockRing.readBuffer, length, PublishReceivedBlock, nullptr);
  }
}

void DemodulationThread() {
  platform::SetCurrentThreadPriority(platform::ThreadPriority::Normal);
  while (device.running) {
    if (device.blockEvent.Wait(DEMODULATION_WAIT_MS)) ProcessPendingBlocks();
  }
}

void PacketThread() {
  platform::SetCurrentThreadPriority(platform::ThreadPriority::Normal);
  while (device.running) {
    if (device.packetEvent.Wait(PACKET_WAIT_MS)) DrainPacketRing();
  }
}

void RequestPacketRestart() {
  engine.tsResetPhase = TS_RESET_PENDING;
  engine.tsResetRequest = 1;
  device.packetEvent.Set();
}

void ProcessPendingBlocks() {
  int32_t taken = 0;
  bool restart = false;
  for (;;) {
    device.controlLock.Wait(platform::WAIT_INFINITE);
    if (controlBlock.tuningNow != 0) {
      device.controlLock.Set();
      return;
    }
    if (controlBlock.retuneRequest != 0) {
      engine.clockWritePending = 0;
      controlBlock.retuneRequest = 0;
      restart = true;
    }
    device.controlLock.Set();

    // The block is converted as it is taken, in its slot, by the state it is taken for: a restart
    // sets that state first.
    if (restart || engine.resyncRequest != 0 || engine.tmccFailed != 0) {
      RequestPacketRestart();
      if (restart) {
        engine.blockState = BLOCK_MODE_DETECT;
        ResetAcquisition();
        restart = false;
      } else {
        // Refinement: an acquisition that failed before tracking may be reading the groups of four
        // bytes at the wrong place (a byte lost or inserted); the next one tries the next phase.
        if (engine.refined != 0 && engine.blockState >= BLOCK_MODE_DETECT && engine.blockState < BLOCK_TRACKING) {
          engine.bytePhase = (engine.bytePhase + 1) & 3;
        }
        engine.blockState = BLOCK_MODE_DETECT;
        ResetAcquisition();
      }
      // A restart works on the newest samples: every block in between is skipped.
      BlockRingTakeNewest(ConvertTakenBlock, nullptr);
    } else {
      if (taken == BLOCKS_PER_PASS) return;
      if (!BlockRingTakeNext(ConvertTakenBlock, nullptr)) return;
    }
    taken += 1;
    lastBlockTakenMs = SteadyMilliseconds();

    // The engine changes these switches only between blocks.
    if (probeEnable.load() != engine.probeActive) engine.probeActive = probeEnable.load();
    const int32_t reload = engine.paramReloadRequest;
    if (reload == 1) {
      LoadParameterSet(PARAM_FROM_FILES);
      engine.paramReloadRequest = 0;
      engine.paramFilesActive = 1;
    } else if (reload == 2) {
      LoadParameterSet(PARAM_DEFAULTS);
      engine.paramReloadRequest = 0;
      engine.paramFilesActive = 0;
    }
    ProcessBlock();
  }
}

void ConvertBlock(const uint8_t* raw, float* samples) { ConvertBlockWith(ActiveVectorIsa(), raw, samples); }

void ConvertBlockWith(VectorIsa isa, const uint8_t* raw, float* samples) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    ConvertBlockAvx2(raw, samples);
    return;
  }
#endif
  ConvertBlockScalar(raw, samples);
}

void ConvertBlockScalar(const uint8_t* raw, float* samples) {
  // Bytes 0 and 1 of every group of four are I and Q, zero level 127; bytes 2 and 3 are the
  // device's second sample of the pair, dropped without a filter to halve the rate. The values are
  // exact, (byte - 127) / 128, however they are formed: on a little-endian machine the group is read
  // as one word, which lets the compiler work on several groups at once.
  if constexpr (std::endian::native == std::endian::little) {
    for (int32_t k = 0; k < BLOCK_SAMPLES; ++k) {
      uint32_t group;
      std::memcpy(&group, raw + 4 * static_cast<size_t>(k), sizeof group);
      samples[2 * k] = static_cast<float>(static_cast<int32_t>(group & 0xFFu) - 127) * 0.0078125f;
      samples[2 * k + 1] = static_cast<float>(static_cast<int32_t>((group >> 8) & 0xFFu) - 127) * 0.0078125f;
    }
  } else {
    for (int32_t k = 0; k < BLOCK_SAMPLES; ++k) {
      samples[2 * k] = (static_cast<float>(raw[4 * k]) - 127.0f) * 0.0078125f;
      samples[2 * k + 1] = (static_cast<float>(raw[4 * k + 1]) - 127.0f) * 0.0078125f;
    }
  }
}

namespace {

// The groups of four bytes start bytePhase bytes into the block. The last group of phase 3 would
// end in the next block: its Q byte is taken as the zero level.
void ConvertBlockAtPhase(const uint8_t* raw, float* samples, int32_t phase) {
  for (int32_t k = 0; k < BLOCK_SAMPLES; ++k) {
    const int32_t at = 4 * k + phase;
    const uint8_t q = at + 1 < RAW_BLOCK_BYTES ? raw[at + 1] : uint8_t{127};
    samples[2 * k] = (static_cast<float>(raw[at]) - 127.0f) * 0.0078125f;
    samples[2 * k + 1] = (static_cast<float>(q) - 127.0f) * 0.0078125f;
  }
}

// Refinement: acquisition found no TMCC word it could accept. Unless every byte phase has been
// tried since the last tracking, start acquisition over (at the next phase) on the newest block.
bool TryNextBytePhase() {
  if (engine.refined == 0 || engine.bytePhaseTries >= 3) return false;
  engine.bytePhaseTries += 1;
  engine.resyncRequest = 1;
  return true;
}

}  // namespace

void ConvertTakenBlock(const uint8_t* block, void*) {
  const int32_t state = engine.blockState;
  if (state == BLOCK_IDLE || state == BLOCK_NO_SIGNAL) return;
  if (engine.bytePhase == 0) {
    ConvertBlock(block, engine.sampleBlock);
  } else {
    ConvertBlockAtPhase(block, engine.sampleBlock, engine.bytePhase);
  }
}

void ProcessBlock() {
  const int32_t state = engine.blockState;
  if (state == BLOCK_IDLE || state == BLOCK_NO_SIGNAL) return;

  switch (state) {
    case BLOCK_MODE_DETECT:
      blockStages.detectModeAndGuard();
      engine.blockState = BLOCK_COARSE_SYNC;
      break;
    case BLOCK_COARSE_SYNC:
      blockStages.runCoarseSync();
      engine.blockState = BLOCK_FRAME_SYNC;
      break;
    case BLOCK_FRAME_SYNC:
      if (blockStages.runFrameSync() == 1) {
        if (engine.tmccAccepted == 0) {
          if (!TryNextBytePhase()) engine.blockState = BLOCK_NO_SIGNAL;
        } else {
          engine.bytePhaseTries = 0;
          if (engine.tmccRepeat == 0) {
            blockStages.setUpTracking();
            blockStages.setUpDecoder();
          }
          if (engine.refined != 0) {
            const LayerParams& p = *engine.layerParams;
            debugParaBlock.SetInt(2, LayerWord(p.modulation, p.codeRate, p.interleave));
          }
          engine.blockState = BLOCK_TRACKING;
        }
      }
      break;
    case BLOCK_TRACKING:
      WalkSymbols();
      break;
    default:
      break;
  }

  if (engine.resyncRequest != 0 && engine.clockWritePending != 0) {
    // Hand the demodulator its neutral sample clock back before the restart.
    WriteSampleClockOffset(0, 0.0f);
    PulseDemodReset();
    engine.clockWritePending = 0;
  }
  if (engine.probeActive != 0 && engine.blockState < BLOCK_TRACKING) ProbeStoreBlockState(engine.blockState);
  debugParaBlock.SetInt(5, engine.blockState);
}

void SymbolStep() {
  ProcessSymbol();
  SymbolSink();
  FinishSymbol();
}

void FinishSymbol() {
  int32_t resync = 0;
  switch (engine.decodeStage) {
    case DECODE_EARLY:
      if (engine.refined != 0) {
        // Refinement: a low decision SNR alone does not throw away a signal whose packets decode;
        // it restarts acquisition while no judged packet has come through Reed-Solomon, or once
        // most packets fail again (the failure rate is averaged over about twenty packets), as
        // after samples lost in a burst.
        resync = (engine.earlyFailMark != 0 ||
                  (engine.snrFailed != 0 && (engine.anyGoodMark == 0 || engine.packetFailRate > REFINED_SPARE_FAIL_RATE)))
                     ? 1
                     : 0;
      } else {
        resync = (engine.earlyFailMark != 0 || engine.snrFailed != 0) ? 1 : 0;
      }
      break;
    case DECODE_STREAM:
      resync = engine.streamFailMark;
      break;
    default:
      break;
  }
  if (engine.autoResync == 0) resync = 0;
  engine.resyncRequest = resync;
  engine.symbolIndex = (engine.symbolIndex + 1) % 204;
  engine.spPhase = (engine.spPhase + 1) % 4;
}

int32_t CutSampleSpan(float* span, int32_t floats) {
  ReceiverState& e = engine;
  const auto bytes = [](int32_t n) { return sizeof(float) * static_cast<size_t>(n); };
  if (e.straddleFlag == 1) {
    // The head came from the last block: the rest starts this one.
    e.straddleFlag = 0;
    std::memcpy(span + e.straddleFloats, e.sampleBlock, bytes(floats - e.straddleFloats));
    e.readPos -= BLOCK_FLOATS;
    return 1;
  }
  if (e.readPos < 0) {
    // The head is the tail of the last block, still in span behind the floats it held.
    const int32_t tail = -e.readPos;
    std::memmove(span, span + e.straddleFloats - tail, bytes(tail));
    std::memcpy(span + tail, e.sampleBlock, bytes(floats - tail));
    return 1;
  }
  if (e.readPos >= BLOCK_FLOATS) {
    e.readPos -= BLOCK_FLOATS;
    return 0;
  }
  if (e.readPos + floats >= BLOCK_FLOATS) {
    e.straddleFloats = BLOCK_FLOATS - e.readPos;
    std::memcpy(span, e.sampleBlock + e.readPos, bytes(e.straddleFloats));
    e.straddleFlag = 1;
    return 0;
  }
  std::memcpy(span, e.sampleBlock + e.readPos, bytes(floats));
  return 1;
}

void WalkSymbols() {
  // The rotation of a step works in groups of four samples and may read three beyond the span.
  constexpr int32_t SPAN_SLACK_FLOATS = 8;
  const int32_t floats = 2 * engine.nwork;
  for (;;) {
    // After a symbol completed over the edge the walk can step back into the tail it still holds;
    // otherwise a step larger than a symbol stays in the block.
    const int32_t earliest = engine.straddleFlag == 1 ? -engine.straddleFloats : 0;
    if (engine.straddleFlag == 0 && engine.readPos >= 0 && engine.readPos + floats + SPAN_SLACK_FLOATS < BLOCK_FLOATS) {
      // Inside the block the step reads the samples where they are, without a copy.
      engine.symbolSpan = engine.sampleBlock + engine.readPos;
    } else {
      if (CutSampleSpan(engine.symbolBuffer, floats) == 0) return;
      engine.symbolSpan = engine.symbolBuffer;
    }
    symbolStepHandler();
    engine.symbolSpan = nullptr;
    engine.readPos = std::max(engine.readPos + 2 * (engine.nsymbol + engine.timingStep), earliest);
  }
}

}  // namespace zfn
