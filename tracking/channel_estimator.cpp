// Channel estimation on every third carrier of the span: pilots with a recursive filter along time,
// the watch that tells a slow channel from a fast one, and an adaptive filter along frequency.
#include <cmath>
#include <cstring>

#include "numeric/math_primitives.h"
#include "shell/receiver_state.h"
#include "tracking/carrier_filter.h"
#include "tracking/complex32.h"
#include "tracking/slicers.h"
#include "tracking/tracker_state.h"

namespace zfn {

namespace {

Cx Rotator(double angle) {
  double s = 0.0, c = 0.0;
  SinCosD(angle, &s, &c);
  return {static_cast<float>(c), static_cast<float>(s)};
}

float* HistoryRow(int32_t slot) {
  return tracker.pilotHistory + slot * tracker.pilotHistoryStride;
}

Cx HistoryPilot(const float* row, int32_t p) { return {row[p], row[engine.nspanGrid + p]}; }

// The re-basing of the rows on the new timing, in the symbol whose output time is the first symbol
// read at the new position.
void RebaseAfterJump() {
  TrackerState& t = tracker;
  const int32_t groups = engine.nspanGrid;
  const double perCarrier = TWO_PI * t.jumpAmount / engine.nfft;

  // Phase 0 of the output time: its raw pilots, three rows back.
  const float* back3 = HistoryRow((t.pilotHistorySlot + 10) % PILOT_HISTORY_ROWS);
  for (int32_t p = 0; p < groups; ++p) Store(t.filteredRow, 4 * p, HistoryPilot(back3, p));

  // Phases 1..3 onto the new timing; the rotator steps 12 carriers per group.
  const Cx groupStep = Rotator(perCarrier * 12.0);
  for (int32_t i = 1; i <= 3; ++i) {
    Cx rot = Rotator(perCarrier * (3 * i + t.spanCentre));
    for (int32_t p = 0; p < groups; ++p) {
      const int32_t e = 4 * p + i;
      Store(t.filteredRow, e, Load(t.filteredRow, e) * rot);
      rot = rot * groupStep;
    }
  }

  // Phases 1..3 of the raw row from the symbols that measured them, never derotated.
  for (int32_t i = 1; i <= 3; ++i) {
    const float* row = HistoryRow((t.pilotHistorySlot + 10 + i) % PILOT_HISTORY_ROWS);
    for (int32_t p = 0; p < groups; ++p) Store(t.pilotRow, 4 * p + i, HistoryPilot(row, p));
  }
  t.jumpStage = JUMP_REBASED_ROW;

  // The copy that stands in for pastRow2 in the next symbol.
  const int32_t n = engine.nspan / 3;
  const Cx entryStep = Rotator(perCarrier * 3.0);
  Cx rot = Rotator(perCarrier * t.spanCentre);
  for (int32_t m = 0; m < n; ++m) {
    Store(t.rebasedRow, m, Load(t.pastRow1, m) * rot);
    rot = rot * entryStep;
  }
}

// One LMS tap per lag, each predicting this symbol's pilots from those of the symbol `lag` scattered
// periods back and clamped to [0, 1] after every group. The lags are independent chains, so they
// advance side by side in one pass over the groups.
template <int32_t LAGS>
void AdaptLagTaps(const float* y, const float* const* x, int32_t groups, float* lagTap) {
  const float step = engine.lmsStep;
  float w[LAGS];
  for (int32_t l = 0; l < LAGS; ++l) w[l] = lagTap[l];
  for (int32_t p = 0; p < groups; ++p) {
    const float yr = y[p], yi = y[groups + p];
    for (int32_t l = 0; l < LAGS; ++l) {
      const float xr = x[l][p], xi = x[l][groups + p];
      float v = w[l] + step * ((yr - w[l] * xr) * xr + (yi - w[l] * xi) * xi);
      if (v < 0.0f) v = 0.0f;
      if (v > 1.0f) v = 1.0f;
      w[l] = v;
    }
  }
  for (int32_t l = 0; l < LAGS; ++l) lagTap[l] = w[l];
}

}  // namespace

void EstimatePilots() {
  TrackerState& t = tracker;
  const int32_t s = engine.spPhase;
  const int32_t groups = engine.nspanGrid;
  const int32_t bits = engine.bitsPerCarrier;

  t.pilotHistorySlot = (t.pilotHistorySlot + 1) % PILOT_HISTORY_ROWS;
  t.pilotHistoryNow = HistoryRow(t.pilotHistorySlot);

  // Pilots of this symbol, sign and boost removed.
  const float* past2 = t.pastRow2;
  const bool derotate = t.jumpStage >= JUMP_DEROTATE_FIRST && t.jumpStage <= JUMP_DEROTATE_LAST;
  Cx rot{1.0f, 0.0f};
  Cx groupStep{1.0f, 0.0f};
  if (derotate) {
    // Back to the old timing: the output of these symbols belongs to symbols read before the jump.
    const double perCarrier = -TWO_PI * t.jumpAmount / engine.nfft;
    rot = Rotator(perCarrier * (3 * s + t.spanCentre));
    groupStep = Rotator(-75.398223686148 * t.jumpAmount / engine.nfft);
  }
  for (int32_t p = 0; p < groups; ++p) {
    const int32_t idx = 12 * p + 3 * s;
    const float sign = engine.pilotSign[t.pilotStart + idx];
    const Cx v = sign * Load(t.carrierSlotNow, idx);
    t.pilotHistoryNow[p] = v.re;
    t.pilotHistoryNow[groups + p] = v.im;
    if (derotate) {
      Store(t.pilotRow, 4 * p + s, v * rot);
      rot = rot * groupStep;
    } else {
      Store(t.pilotRow, 4 * p + s, v);
    }
  }
  if (derotate) {
    ++t.jumpStage;
  } else if (t.jumpStage == JUMP_REBASED_ROW) {
    past2 = t.rebasedRow;
    t.jumpStage = JUMP_FINISHED;
  }

  // Recursive filter along time, output three symbols back.
  const float* oldest = t.carrierRing + t.carrierRingNext * t.carrierRingStride;
  const bool adaptTaps = t.adaptTimeTaps && t.jumpStage < JUMP_DEROTATE_LAST && engine.symbolCount > 7;
  for (int32_t p = 0; p < groups; ++p) {
    const int32_t exact = 4 * p + ((s + 1) & 3);
    Store(t.filteredRow, exact, Load(t.pilotRow, exact));
    for (int32_t set = 0; set < 3; ++set) {
      const int32_t e = 4 * p + ((s + 2 + set) & 3);
      float* taps = t.timeTaps + 6 * set;
      const Cx c0{taps[0], taps[1]};
      const Cx c1{taps[2], taps[3]};
      const Cx c2{taps[4], taps[5]};
      const Cx x0 = Load(t.pilotRow, e);
      const Cx x1 = Load(t.pastRow1, e);
      const Cx x2 = Load(past2, e);
      const Cx hv = c0 * x0 + c1 * x1 + c2 * x2;
      Store(t.filteredRow, e, hv);
      // Decision-directed adaption inside the segment; only the real parts adapt, and the new
      // taps apply from the next entry on.
      if (!adaptTaps || p < t.adaptFirst || p >= t.adaptEnd) continue;
      const Cx r = Load(oldest, 3 * e);
      const Cx err = t.ceStepA * (DecisionTarget(r, hv, bits) - hv);
      taps[0] += MulConj(err, x0).re;
      taps[2] += MulConj(err, x1).re;
      taps[4] += MulConj(err, x2).re;
    }
  }

  if (t.jumpStage == JUMP_REBASE) {
    RebaseAfterJump();
  } else if (t.jumpStage == JUMP_FINISHED) {
    t.jumpStage = JUMP_AT_REST;
  }

  if (t.tapLog) {
    for (int32_t i = 0; i < 18; ++i) std::fprintf(t.tapLog, "%f\n", static_cast<double>(t.timeTaps[i]));
  }
}

void WatchChannelChange() {
  TrackerState& t = tracker;
  const int32_t groups = engine.nspanGrid;
  const int32_t before = engine.channelState;
  t.channelStatePrev = before;

  // A lag older than the last jump would compare across it.
  int32_t lags = 3;
  if (t.jumpAge == 1) return;
  if (t.jumpAge == 2) lags = 1;
  if (t.jumpAge == 3) lags = 2;

  const float* x[3];
  for (int32_t l = 0; l < lags; ++l) {
    const int32_t slot = ((t.pilotHistorySlot - 4 - 4 * l) % PILOT_HISTORY_ROWS + PILOT_HISTORY_ROWS) %
                         PILOT_HISTORY_ROWS;
    x[l] = HistoryRow(slot);
  }
  if (lags == 3) {
    AdaptLagTaps<3>(t.pilotHistoryNow, x, groups, t.lagTap);
  } else if (lags == 2) {
    AdaptLagTaps<2>(t.pilotHistoryNow, x, groups, t.lagTap);
  } else {
    AdaptLagTaps<1>(t.pilotHistoryNow, x, groups, t.lagTap);
  }
  for (int32_t l = 0; l < 3; ++l) t.lagTapAvg[l] = 0.875f * t.lagTapAvg[l] + 0.125f * t.lagTap[l];
  if (t.channelLog)
    std::fprintf(t.channelLog, "%f\n%f\n%f\n", static_cast<double>(t.lagTapAvg[0]),
                 static_cast<double>(t.lagTapAvg[1]), static_cast<double>(t.lagTapAvg[2]));

  const float a = t.lagTapAvg[0], b = t.lagTapAvg[1], c = t.lagTapAvg[2];
  const bool bad = b - c > engine.tapDiffLimitBC || a - b > engine.tapDiffLimitAB ||
                   a < engine.tapFloorA || b < engine.tapFloorB || c < engine.tapFloorC;
  if (bad) {
    ++t.watchBad;
  } else {
    ++t.watchGood;
  }

  if (before == CHANNEL_SLOW && t.watchBad == 10) {
    engine.channelState = CHANNEL_FAST;
    t.smoothNew = engine.mixWeightFast;
    t.smoothOld = 1.0f - engine.mixWeightFast;
    t.watchBad = 0;
    t.watchGood = 0;
    if (t.channelLog) std::fprintf(t.channelLog, "%f\n%f\n%f\n", -1.0, -1.0, -1.0);
  } else if (before == CHANNEL_FAST && t.watchGood == 128) {
    engine.channelState = CHANNEL_SLOW;
    t.smoothNew = engine.mixWeightSlow;
    t.smoothOld = 1.0f - engine.mixWeightSlow;
    t.watchBad = 0;
    t.watchGood = 0;
    if (t.channelLog) std::fprintf(t.channelLog, "%f\n%f\n%f\n", 2.0, 2.0, 2.0);
  }
}

void FilterAcrossCarriers() {
  TrackerState& t = tracker;
  const int32_t n = engine.nspan / 3;
  const int32_t s = engine.spPhase;
  const int32_t bits = engine.bitsPerCarrier;

  // The oldest output buffer takes the new output and becomes pastRow1.
  float* fresh = t.pastRow2;
  t.pastRow2 = t.pastRow1;
  t.pastRow1 = fresh;
  t.interpRow = fresh;
  std::memcpy(fresh, t.filteredRow, sizeof(float) * 2 * static_cast<size_t>(n));
  if (engine.symbolCount <= 15) return;

  CarrierFilterPass pass{};
  pass.in = t.filteredRow;
  pass.out = fresh;
  pass.taps = t.freqTaps;
  pass.oldest = t.carrierRing + t.carrierRingNext * t.carrierRingStride;
  pass.n = n;
  pass.pilotPhase = (s + 1) & 3;
  pass.bitsPerCarrier = bits;
  pass.step = t.ceStepB;
  FilterCarrierRowWith(ActiveVectorIsa(), pass);
}

}  // namespace zfn
