#pragma once
// Engine side of the plotting probe: what the per-symbol driver, the block loop and the decoder
// write into the bridge's MatlabProbe record while the probe is active (engine.probeActive, the copy
// of probeEnable taken between blocks).
//
// Every write goes through these functions. Each one does nothing unless the probe is active, and
// writes into the record only under probeLock with matlabProbe non-null, so an unloaded bridge (or
// one switched on again after its unload, which leaves matlabProbe null) never sees a write, and a
// record is never written past the capacities in shell/matlab_probe.h.
//
// The helpers take the tracking values as arguments rather than reading the tracking fields; the
// comments name the field each caller passes.
#include <cstdint>
#include <span>

namespace zfn {

// First thing in ProcessSymbol. Counts the symbol (probeTick) and, at the
// first symbol of a frame, rewinds the record's fillIndex to 0.
//   symbolIndex: engine.symbolIndex of this symbol.
void ProbeBeginSymbol(int32_t symbolIndex);

// In ProcessSymbol after TrackTiming: appends the timing step of a symbol at which the
// timing loop could decide ((symbolIndex + 1) mod timingPeriod = 0) to the frame's jumpList, up to
// 29 entries.
//   symbolIndex: engine.symbolIndex; timingPeriod: tracker.timingPeriod;
//   timingStep: engine.timingStep as the timing loop left it.
void ProbeNoteTimingStep(int32_t symbolIndex, int32_t timingPeriod, int32_t timingStep);

// At the end of ProcessSymbol: a fill is due when the probe is active and probeTick mod
// probeDecimation is 0 (every symbol, as probeDecimation is 1).
bool ProbeFillDue();

// The fill, first part: while symbolIndex <= 100, appends the ndata data carriers at fillIndex as
// doubles and advances fillIndex by ndata. With QPSK the scaling given for the soft demapper is
// undone first: times 0.125 when qpskSoftTarget <= 0, else divided by the carrier's soft weight.
//   carriers: engine.equalisedCarriers, 2 * ndata floats (re, im interleaved);
//   bitsPerCarrier: the decoder's bits per carrier (2 = QPSK);
//   qpskSoftTarget: engine.qpskSoftTarget;
//   softWeight: tracker.softWeight, ndata entries (read only for QPSK with qpskSoftTarget > 0).
void ProbeStoreCarriers(int32_t symbolIndex, std::span<const float> carriers, int32_t bitsPerCarrier,
                        float qpskSoftTarget, std::span<const float> softWeight);

// The fill, second part, the values shown once per frame.
struct ProbeFrameInput {
  float snrDb;                           // engine.snrDb
  int32_t nfft;                          // engine.nfft
  float ncoStep;                         // engine.ncoStep, radians per sample
  std::span<const float> channelReal;    // tracker.channelPlanes, the first ncarrier entries
  std::span<const float> channelImag;    // tracker.channelPlanes + ncarrier, ncarrier entries
  std::span<const float> carrierSlot;    // tracker.carrierSlotNow, 2 * nspan floats (re, im)
  std::span<const float> timingAcc;      // tracker.timingAcc, the whole accumulator
  int32_t rotateStart;                   // tracker.rotateStart
  int32_t timingSpan;                    // tracker.timingSpan
  int32_t channelState;                  // engine.channelState
  int32_t blockState;                    // engine.blockState
};

// The fill at symbolIndex = 100 exactly: stores snrDb, the remaining carrier offset
// nfft * ncoStep / 2pi in carrier spacings, the channel planes, the newest carrier slot, the
// 2 * timingSpan + 1 entries of timingAcc from rotateStart, the jumpList with its length in front
// (after which the list is emptied), channelState and blockState, and sets updateEvent.
void ProbeFinishFrame(int32_t symbolIndex, const ProbeFrameInput& frame);

// At the end of ProcessBlock: while the probe is active and blockState is below BLOCK_TRACKING, stores
// blockState in the state cell and sets updateEvent.
void ProbeStoreBlockState(int32_t blockState);

// The decoder's output in SymbolSink: packetErrorRate, byteErrorRate, packetFailRate, in this order.
void ProbeStoreRates(float packetErrorRate, float byteErrorRate, float packetFailRate);

}  // namespace zfn
