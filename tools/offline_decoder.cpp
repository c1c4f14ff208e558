#include "tools/offline_decoder.h"

#include <algorithm>

#include "shell/receiver_state.h"
#include "shell/sync_driver.h"

namespace zfn::tools {

const char* BlockStateWord(int32_t state) {
  switch (state) {
    case BLOCK_NO_SIGNAL: return "no_signal";
    case BLOCK_IDLE: return "idle";
    case BLOCK_MODE_DETECT: return "mode_detect";
    case BLOCK_COARSE_SYNC: return "coarse_sync";
    case BLOCK_FRAME_SYNC: return "frame_sync";
    case BLOCK_TRACKING: return "tracking";
    default: return "unknown";
  }
}

const char* GuardName(int32_t guard) {
  static const char* const names[4] = {"1/32", "1/16", "1/8", "1/4"};
  return guard >= 0 && guard < 4 ? names[guard] : "?";
}

const char* ModulationName(int32_t modulation) {
  static const char* const names[4] = {"DQPSK", "QPSK", "16QAM", "64QAM"};
  return modulation >= 0 && modulation < 4 ? names[modulation] : "?";
}

const char* CodeRateName(int32_t codeRate) {
  static const char* const names[5] = {"1/2", "2/3", "3/4", "5/6", "7/8"};
  return codeRate >= 0 && codeRate < 5 ? names[codeRate] : "?";
}

double BlockSeconds() { return BLOCK_SAMPLES / (64e6 / 63.0); }

bool OfflineDecoder::Open(Sink sink, void* context) {
  if (open_) return false;
  stats_ = OfflineDecodeStats{};
  sink_ = sink;
  context_ = context;
  pending_ = 0;
  if (SyncDriverOpen(&OfflineDecoder::Deliver, this) != 1) return false;
  open_ = true;
  SyncDriverRetune();
  return true;
}

void OfflineDecoder::Feed(const uint8_t* bytes, size_t length) {
  if (!open_ || bytes == nullptr) return;
  // Up to each block edge at a time, so that the state is seen after every block.
  while (length > 0) {
    const size_t take = std::min(length, static_cast<size_t>(RAW_BLOCK_BYTES) - pending_);
    SyncDriverFeed(bytes, take);
    bytes += take;
    length -= take;
    pending_ += take;
    if (pending_ == static_cast<size_t>(RAW_BLOCK_BYTES)) {
      pending_ = 0;
      AfterBlock();
    }
  }
}

void OfflineDecoder::AfterBlock() {
  const int32_t previous = stats_.finalState;
  const int32_t state = SyncDriverBlockState();
  stats_.blocks += 1;
  stats_.finalState = state;
  const auto counts = [](const RelaxedWord<int64_t>* n) {
    return RsCounts{n[RS_VERDICT_CLEAN], n[RS_VERDICT_CORRECTED], n[RS_VERDICT_FAILED]};
  };
  stats_.all = counts(engine.rsVerdicts);
  stats_.streaming = counts(engine.rsStreamVerdicts);
  // A request to re-acquire is acted on within the same pass of the driver, on the same block, so
  // its cause is read from what the restart leaves standing: the low-SNR flag (cleared only by the
  // next tracking set-up) and the decode stage (DECODE_EARLY or DECODE_STREAM).
  if (previous == BLOCK_TRACKING && state != BLOCK_TRACKING) {
    stats_.trackingLosses += 1;
    if (stats_.firstStreamBlock >= 0) stats_.lossesAfterStream += 1;
    if (engine.snrFailed != 0) {
      stats_.resyncLowSnr += 1;
    } else if (engine.decodeStage == DECODE_EARLY) {
      stats_.resyncEarlyFail += 1;
    } else if (engine.decodeStage == DECODE_STREAM) {
      stats_.resyncStreamFail += 1;
    }
  }
  // Frame sync that starts over: a TMCC word refused.
  if (previous == BLOCK_FRAME_SYNC && (state == BLOCK_MODE_DETECT || state == BLOCK_COARSE_SYNC)) stats_.tmccFailures += 1;
  if (state != BLOCK_TRACKING) return;
  if (stats_.firstTrackingBlock < 0) stats_.firstTrackingBlock = stats_.blocks - 1;
  if (stats_.firstStreamBlock < 0 && engine.decodeStage == DECODE_STREAM) stats_.firstStreamBlock = stats_.blocks - 1;
  if (engine.modeGuard != nullptr && engine.layerParams != nullptr) {
    stats_.mode = engine.modeGuard->mode + 1;
    stats_.guard = engine.modeGuard->guard;
    stats_.modulation = engine.layerParams->modulation;
    stats_.codeRate = engine.layerParams->codeRate;
    stats_.interleave = engine.layerParams->interleave;
  }
  stats_.snrDb = engine.snrDb;
}

void OfflineDecoder::Close() {
  if (!open_) return;
  SyncDriverClose();
  open_ = false;
}

void OfflineDecoder::Deliver(const uint8_t* data, int32_t length, void* context) {
  auto* self = static_cast<OfflineDecoder*>(context);
  self->stats_.packetsDelivered += length / 188;
  if (self->sink_ != nullptr) self->sink_(data, length, self->context_);
}

}  // namespace zfn::tools
