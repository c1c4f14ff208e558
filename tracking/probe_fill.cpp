#include "tracking/probe_fill.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>

#include "shell/diagnostics.h"
#include "shell/probe_bridge.h"
#include "shell/receiver_state.h"

namespace zfn {

namespace {

constexpr double TWO_PI = 6.283185307179;
constexpr int32_t LAST_FILL_SYMBOL = 100;  // carriers of symbols 0..100; the frame values at 100

// The bridge reads the record on its own thread with no lock. Every value goes in as a relaxed
// atomic store (a plain store on the usual processors), so a bridge that reads while the engine
// writes sees old or new values, never a data race.
void Put(double* cell, double value) { std::atomic_ref<double>(*cell).store(value, std::memory_order_relaxed); }
int32_t FillIndex(MatlabProbe& probe) {
  return std::atomic_ref<int32_t>(probe.fillIndex).load(std::memory_order_relaxed);
}
void SetFillIndex(MatlabProbe& probe, int32_t value) {
  std::atomic_ref<int32_t>(probe.fillIndex).store(value, std::memory_order_relaxed);
}

void SetUpdateEvent(const MatlabProbe& probe) {
  // Descriptor 0 (a zero-filled record) and negative values mean "no event".
  if (probe.updateEvent <= 0) return;
  const uint64_t one = 1;
  ssize_t n;
  do {
    n = ::write(probe.updateEvent, &one, sizeof one);
  } while (n < 0 && errno == EINTR);
}

void StoreCell(double* cell, double value) {
  if (cell != nullptr) Put(cell, value);
}

// Copies count floats to a double array of the record, at most capacity of them.
void StorePlane(double* target, std::span<const float> source, int32_t capacity) {
  if (target == nullptr) return;
  const size_t n = std::min(source.size(), static_cast<size_t>(capacity));
  for (size_t i = 0; i < n; ++i) Put(target + i, source[i]);
}

}  // namespace

void ProbeBeginSymbol(int32_t symbolIndex) {
  if (engine.probeActive == 0) return;
  engine.probeTick += 1;
  if (engine.probeRewind != 1 || !ProbeFillDue() || symbolIndex != 0) return;
  std::lock_guard<std::mutex> lock(probeLock);
  if (matlabProbe != nullptr) SetFillIndex(*matlabProbe, 0);
}

void ProbeNoteTimingStep(int32_t symbolIndex, int32_t timingPeriod, int32_t timingStep) {
  if (engine.probeActive == 0 || timingPeriod <= 0) return;
  if ((symbolIndex + 1) % timingPeriod != 0) return;
  if (engine.jumpListCount < 0 || engine.jumpListCount >= JUMP_LIST_CAPACITY) return;
  engine.jumpList[engine.jumpListCount] = timingStep;
  engine.jumpListCount += 1;
}

bool ProbeFillDue() {
  if (engine.probeActive == 0 || engine.probeDecimation <= 0) return false;
  return engine.probeTick % static_cast<uint32_t>(engine.probeDecimation) == 0;
}

void ProbeStoreCarriers(int32_t symbolIndex, std::span<const float> carriers, int32_t bitsPerCarrier,
                        float qpskSoftTarget, std::span<const float> softWeight) {
  if (!ProbeFillDue() || symbolIndex > LAST_FILL_SYMBOL) return;
  std::lock_guard<std::mutex> lock(probeLock);
  MatlabProbe* probe = matlabProbe;
  if (probe == nullptr || probe->carrierRe == nullptr || probe->carrierIm == nullptr) return;
  const int32_t ndata = static_cast<int32_t>(carriers.size() / 2);
  const int32_t at = FillIndex(*probe);
  // The index is counted on only from a rewind at symbol 0; a probe switched on in mid-frame, or a
  // tracking run restarted in mid-frame, would carry it past one frame's worth. Such a symbol is
  // dropped rather than written beyond the arrays.
  if (at < 0 || at > PROBE_CARRIER_CAPACITY - ndata) return;

  const bool qpsk = bitsPerCarrier == 2;
  const bool byWeight = qpsk && qpskSoftTarget > 0.0f;
  for (int32_t k = 0; k < ndata; ++k) {
    double re = carriers[2 * k];
    double im = carriers[2 * k + 1];
    if (byWeight) {
      if (static_cast<size_t>(k) < softWeight.size()) {
        re = static_cast<float>(carriers[2 * k] / softWeight[k]);
        im = static_cast<float>(carriers[2 * k + 1] / softWeight[k]);
      }
    } else if (qpsk) {
      re = static_cast<float>(carriers[2 * k] * 0.125f);
      im = static_cast<float>(carriers[2 * k + 1] * 0.125f);
    }
    Put(probe->carrierRe + at + k, re);
    Put(probe->carrierIm + at + k, im);
  }
  SetFillIndex(*probe, at + ndata);
}

void ProbeFinishFrame(int32_t symbolIndex, const ProbeFrameInput& frame) {
  if (!ProbeFillDue() || symbolIndex != LAST_FILL_SYMBOL) return;
  std::lock_guard<std::mutex> lock(probeLock);
  MatlabProbe* probe = matlabProbe;
  if (probe != nullptr) {
    StoreCell(probe->snrCell, frame.snrDb);
    StoreCell(probe->frequencyCell, frame.nfft * static_cast<double>(frame.ncoStep) / TWO_PI);
    StorePlane(probe->channelRe, frame.channelReal, PROBE_CHANNEL_CAPACITY);
    StorePlane(probe->channelIm, frame.channelImag, PROBE_CHANNEL_CAPACITY);
    if (probe->slotRe != nullptr && probe->slotIm != nullptr) {
      const size_t n = std::min(frame.carrierSlot.size() / 2, static_cast<size_t>(PROBE_SLOT_CAPACITY));
      for (size_t i = 0; i < n; ++i) {
        Put(probe->slotRe + i, frame.carrierSlot[2 * i]);
        Put(probe->slotIm + i, frame.carrierSlot[2 * i + 1]);
      }
    }
    // 2 * timingSpan + 1 entries from rotateStart, as far as the accumulator reaches.
    if (frame.timingSpan >= 0 && frame.rotateStart >= 0 &&
        static_cast<size_t>(frame.rotateStart) <= frame.timingAcc.size()) {
      const size_t wanted = 2 * static_cast<size_t>(frame.timingSpan) + 1;
      StorePlane(probe->timingProfile, frame.timingAcc.subspan(frame.rotateStart).first(
                                           std::min(wanted, frame.timingAcc.size() - frame.rotateStart)),
                 PROBE_TIMING_CAPACITY);
    }
    if (probe->jumpList != nullptr) {
      const int32_t count = std::clamp(engine.jumpListCount, 0, static_cast<int32_t>(PROBE_JUMP_STEPS));
      Put(probe->jumpList, count);
      for (int32_t i = 0; i < count; ++i) Put(probe->jumpList + 1 + i, engine.jumpList[i]);
    }
    StoreCell(probe->channelStateCell, frame.channelState);
    StoreCell(probe->stateCell, frame.blockState);
    SetUpdateEvent(*probe);
  }
  // The list is the engine's own: it is emptied at each fill, record or not.
  engine.jumpListCount = 0;
}

void ProbeStoreBlockState(int32_t blockState) {
  if (engine.probeActive == 0 || blockState >= BLOCK_TRACKING) return;
  std::lock_guard<std::mutex> lock(probeLock);
  if (matlabProbe == nullptr) return;
  StoreCell(matlabProbe->stateCell, blockState);
  SetUpdateEvent(*matlabProbe);
}

void ProbeStoreRates(float packetErrorRate, float byteErrorRate, float packetFailRate) {
  if (engine.probeActive == 0) return;
  std::lock_guard<std::mutex> lock(probeLock);
  if (matlabProbe == nullptr || matlabProbe->ratesCell == nullptr) return;
  Put(matlabProbe->ratesCell, packetErrorRate);
  Put(matlabProbe->ratesCell + 1, byteErrorRate);
  Put(matlabProbe->ratesCell + 2, packetFailRate);
}

}  // namespace zfn
