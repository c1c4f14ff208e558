// Frequency interpolation of the channel to every carrier of the segment, equalisation of the data
// carriers, and the signal quality drawn from their decision errors.
#include <cmath>
#include <cstring>

#include "numeric/dft.h"
#include "numeric/math_primitives.h"
#include "shell/device_state.h"
#include "shell/receiver_state.h"
#include "tracking/complex32.h"
#include "tracking/equaliser_kernels.h"
#include "tracking/slicers.h"
#include "tracking/tracker_state.h"

namespace zfn {

// The channel stays in the three rows it is made in (tracker_state.h); the equaliser reads it there
// through its table, and only the probe needs it carrier by carrier.
void PlaceChannelOnPlanes() {
  TrackerState& t = tracker;
  const int32_t nc = engine.ncarrier;
  const int32_t entries = 4 * engine.ngrid;
  const int32_t delayed = t.gridOffset + CHANNEL_ROW_DELAY;
  for (int32_t i = 0; i < entries; ++i) {
    const float* at[3] = {t.channelRows[0] + 2 * i, t.channelRows[1] + 2 * (delayed + i),
                          t.channelRows[2] + 2 * (delayed + i)};
    for (int32_t p = 0; p < 3; ++p) {
      t.channelPlanes[3 * i + p] = at[p][0];
      t.channelPlanes[nc + 3 * i + p] = at[p][1];
    }
  }
}

void InterpolateChannel() {
  TrackerState& t = tracker;
  if (engine.symbolCount < 8) return;
  const int32_t nq = engine.nquarter;
  const int32_t n = engine.nspan / 3;

  // The row itself lies on every third carrier.
  const float* row = t.interpRow;
  std::memcpy(t.channelRows[0], row + 2 * t.gridOffset, sizeof(float) * 8 * static_cast<size_t>(engine.ngrid));

  // The whole row, neighbouring segments included, so the filter has data beyond the segment edges.
  alignas(64) float w[2 * MAX_QUARTER];
  alignas(64) float x[2 * MAX_QUARTER];
  std::memcpy(w, row, sizeof(float) * 2 * static_cast<size_t>(n));
  std::memset(w + 2 * n, 0, sizeof(float) * 2 * static_cast<size_t>(nq - n));
  TransformQuarter(w, x, 1);

  // The spectrum times each filter's bank, transformed back: the interpolation between the row's
  // carriers at one third and two thirds of the way.
  alignas(64) float z[2 * MAX_QUARTER];
  MultiplyBanksWith(ActiveVectorIsa(), {x, t.interpBankLow, t.interpBankHigh, w, z, nq});
  TransformQuarter(w, t.channelRows[1], -1);
  TransformQuarter(z, t.channelRows[2], -1);
  if (engine.probeActive != 0) PlaceChannelOnPlanes();
}

void EqualiseCarriers() {
  TrackerState& t = tracker;
  if (engine.symbolCount < 8) return;
  const int32_t bits = engine.bitsPerCarrier;
  const float* slot = t.carrierRing + t.carrierRingNext * t.carrierRingStride + 2 * t.segmentOffset;
  float* out = engine.equalisedCarriers;

  // The oldest symbol's pilot phase is one ahead of this symbol's; its data carriers and their
  // channel are read through the tables of that phase.
  const int32_t phase = (engine.spPhase + 1) & 3;
  const int32_t k = t.dataCarrierCount[phase];
  alignas(32) float noise[MAX_DATA];

  // Per carrier: r * conj(h) / |h|^2, the channel power, and the decision error power |r - d h|^2;
  // their sums by the kernels' eight lanes (equaliser_kernels.h).
  float* __restrict eq = out;
  float* __restrict power = t.carrierPower;
  float sums[2] = {0.0f, 0.0f};
  const EqualiserRows rows{slot, &t.channelRows[0][0], t.dataCarrierAt[phase], t.dataChannelAt[phase],
                           eq, power, noise, k, bits, sums};
  if (bits == 2) {
    EqualiseQpskWith(ActiveVectorIsa(), rows);
  } else {
    EqualiseQamWith(ActiveVectorIsa(), rows);
  }
  const float powerSum = sums[0];
  const float noiseSum = sums[1];

  if (bits == 2) {
    if (engine.qpskSoftTarget > 0.0f) {
      // A weak carrier counts less: R * conj(H) scaled by the noise.
      t.noiseAvg = 0.5f * t.noiseAvg + 0.5f * (noiseSum / static_cast<float>(engine.ndata));
      WeighCarriersWith(ActiveVectorIsa(), power, engine.qpskSoftTarget / t.noiseAvg, t.softWeight, eq, k);
    } else {
      for (int32_t i = 0; i < 2 * k; ++i) eq[i] *= 8.0f;
    }
  }

  // Signal to noise ratio of the symbol from the decision errors; floored at -80 dB.
  float ratio = powerSum / noiseSum;
  if (ratio < 1e-08f) ratio = 1e-08f;
  const float snr = static_cast<float>(10.0 * Log10D(static_cast<double>(ratio)));
  engine.snrDb = snr;
  controlBlock.lastSnrDb = snr;
  if (t.snrLog) std::fprintf(t.snrLog, "%f\n", static_cast<double>(snr));
}

void WatchLowSnr() {
  TrackerState& t = tracker;
  if (engine.decodeStage != DECODE_EARLY || engine.symbolCount < SNR_WATCH_FROM) return;
  const double snr = engine.snrDb.load();
  if (snr < SNR_LOW_DB) {
    ++t.snrLowCount;
  } else if (snr > SNR_HIGH_DB) {
    ++t.snrHighCount;
  }
  if (t.snrHighCount >= SNR_HIGH_RESETS) {
    t.snrLowCount = 0;
    t.snrHighCount = 0;
  } else if (t.snrLowCount >= SNR_LOW_FAILS) {
    engine.snrFailed = 1;
  }
}

}  // namespace zfn
