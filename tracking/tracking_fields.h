#pragma once
// Fields of the engine record written by symbol tracking that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

// Decoder hand-over stages of a tracking run (decodeStage).
enum DecodeStage : int32_t {
  DECODE_SCAN = 0,    // filter pair scan in progress: the decoder is not watched
  DECODE_EARLY = 1,   // from set-up to the scan: the low-SNR watch and the first 40 packets judge the lock
  DECODE_STREAM = 2,  // after the scan: the packet statistics judge the lock
};

// Channel states of the channel watch.
constexpr int32_t CHANNEL_SLOW = 0;
constexpr int32_t CHANNEL_FAST = 1;

struct TrackingFields {
  // Signal quality in dB of the last equalised symbol; read with no lock by the status functions.
  RelaxedWord<float> snrDb;
  // DECODE_SCAN, DECODE_EARLY or DECODE_STREAM; read by the lock status.
  RelaxedWord<int32_t> decodeStage;
  int8_t snrFailed;        // 1 once the low-SNR watch gave up; turned into a resync by the block loop
  int8_t timingEnabled;    // 0 while timing steps are suppressed (first eight symbols)
  int32_t timingStep;      // samples by which the next symbol start moves; positive = later
  RelaxedWord<int32_t> symbolCount;  // symbols since tracking began; read by the packet thread
  int32_t channelState;    // CHANNEL_SLOW or CHANNEL_FAST
  // ndata interleaved complex floats: equalised data carriers of the symbol three symbols back.
  float* equalisedCarriers;
};

}  // namespace zfn
