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
  logNegative_ = false;
  logDigit_ = -1;
  if (SyncDriverOpen(&OfflineDecoder::Deliver, this) != 1) return false;
  // The packet stage prints one line per packet: 0 clean, -1 corrected, 1 not corrected. Unbuffered,
  // each line reaches LogWrite while the packet's decode stage is still the engine's.
  const cookie_io_functions_t io{nullptr, &OfflineDecoder::LogWrite, nullptr, nullptr};
  log_ = fopencookie(this, "w", io);
  if (log_ == nullptr) {
    SyncDriverClose();
    return false;
  }
  std::setvbuf(log_, nullptr, _IONBF, 0);
  engine.packetLogStream = log_;
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
  // A request to re-acquire is acted on within the same pass of the driver, on the same block, so
  // its cause is read from what the restart leaves standing: the low-SNR flag (cleared only by the
  // next tracking set-up) and the decode stage (1: the early judgement, 2: the stream's).
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
  engine.packetLogStream = nullptr;
  std::fclose(log_);
  log_ = nullptr;
  open_ = false;
}

void OfflineDecoder::Deliver(const uint8_t* data, int32_t length, void* context) {
  auto* self = static_cast<OfflineDecoder*>(context);
  self->stats_.packetsDelivered += length / 188;
  if (self->sink_ != nullptr) self->sink_(data, length, self->context_);
}

ssize_t OfflineDecoder::LogWrite(void* cookie, const char* buffer, size_t size) {
  auto* self = static_cast<OfflineDecoder*>(cookie);
  const bool streaming = engine.decodeStage == DECODE_STREAM;
  for (size_t i = 0; i < size; ++i) {
    const char c = buffer[i];
    if (c == '-') {
      self->logNegative_ = true;
    } else if (c == '0' || c == '1') {
      self->logDigit_ = c - '0';
    } else if (c == '\n') {
      int64_t RsCounts::*field = nullptr;
      if (self->logDigit_ == 0) {
        field = &RsCounts::ok;
      } else if (self->logDigit_ == 1) {
        field = self->logNegative_ ? &RsCounts::corrected : &RsCounts::failed;
      }
      if (field != nullptr) {
        self->stats_.all.*field += 1;
        if (streaming) self->stats_.streaming.*field += 1;
      }
      self->logNegative_ = false;
      self->logDigit_ = -1;
    }
  }
  return static_cast<ssize_t>(size);
}

}  // namespace zfn::tools
