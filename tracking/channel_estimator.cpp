// Channel estimation on every third carrier of the span: pilots with a recursive filter along time,
// the watch that tells a slow channel from a fast one, and an adaptive filter along frequency.
#include <algorithm>
#include <cmath>
#include <cstring>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "numeric/math_primitives.h"
#include "shell/receiver_state.h"
#include "tracking/carrier_filter.h"
#include "tracking/complex32.h"
#include "tracking/equaliser_kernels.h"
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

// The rotators of a timing jump depend on its amount and the mode alone, and jumps of the same
// amount come back again and again: they are made on a jump's first use, by the same products in
// the same order, and kept for the last two amounts, so the jump's symbols need no chain of
// rotator products.
struct JumpRotators {
  int32_t amount;
  int32_t nfft;
  int32_t spanCentre;
  int32_t groups;
  int32_t entries;
  bool made;
  Cx back[4][MAX_ROW / 4];  // to the old timing, by the pilot phase of the symbol, group by group
  Cx ahead[4][MAX_ROW / 4]; // phases 1..3 of the filtered row onto the new timing, group by group
  Cx entry[MAX_ROW];        // the re-based copy, entry by entry
};

JumpRotators jumpRotators[2];
int32_t jumpRotatorsNext = 0;

void MakeJumpRotators(JumpRotators& j, int32_t amount) {
  const TrackerState& t = tracker;
  j = JumpRotators{amount, engine.nfft, t.spanCentre, engine.nspanGrid, engine.nspan / 3, true, {}, {}, {}};
  const double perCarrierBack = -TWO_PI * amount / engine.nfft;
  const Cx groupStepBack = Rotator(-75.398223686148 * amount / engine.nfft);
  for (int32_t s = 0; s < 4; ++s) {
    Cx rot = Rotator(perCarrierBack * (3 * s + t.spanCentre));
    for (int32_t p = 0; p < j.groups; ++p) {
      j.back[s][p] = rot;
      rot = rot * groupStepBack;
    }
  }
  // Phases 1..3 onto the new timing; the rotator steps 12 carriers per group.
  const double perCarrier = TWO_PI * amount / engine.nfft;
  const Cx groupStep = Rotator(perCarrier * 12.0);
  for (int32_t i = 1; i <= 3; ++i) {
    Cx rot = Rotator(perCarrier * (3 * i + t.spanCentre));
    for (int32_t p = 0; p < j.groups; ++p) {
      j.ahead[i][p] = rot;
      rot = rot * groupStep;
    }
  }
  const Cx entryStep = Rotator(perCarrier * 3.0);
  Cx rot = Rotator(perCarrier * t.spanCentre);
  for (int32_t m = 0; m < j.entries; ++m) {
    j.entry[m] = rot;
    rot = rot * entryStep;
  }
}

const JumpRotators& RotatorsOfJump(int32_t amount) {
  for (const JumpRotators& j : jumpRotators) {
    if (j.made && j.amount == amount && j.nfft == engine.nfft && j.spanCentre == tracker.spanCentre &&
        j.groups == engine.nspanGrid && j.entries == engine.nspan / 3)
      return j;
  }
  JumpRotators& j = jumpRotators[jumpRotatorsNext];
  jumpRotatorsNext ^= 1;
  MakeJumpRotators(j, amount);
  return j;
}

// The re-basing of the rows on the new timing, in the symbol whose output time is the first symbol
// read at the new position.
void RebaseAfterJump() {
  TrackerState& t = tracker;
  const int32_t groups = engine.nspanGrid;
  const JumpRotators& j = RotatorsOfJump(t.jumpAmount);

  // Phase 0 of the output time: its raw pilots, three rows back.
  const float* back3 = HistoryRow((t.pilotHistorySlot + 10) % PILOT_HISTORY_ROWS);
  for (int32_t p = 0; p < groups; ++p) Store(t.filteredRow, 4 * p, HistoryPilot(back3, p));

  // Phases 1..3 onto the new timing.
  for (int32_t i = 1; i <= 3; ++i) {
    for (int32_t p = 0; p < groups; ++p) {
      const int32_t e = 4 * p + i;
      Store(t.filteredRow, e, Load(t.filteredRow, e) * j.ahead[i][p]);
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
  for (int32_t m = 0; m < n; ++m) Store(t.rebasedRow, m, Load(t.pastRow1, m) * j.entry[m]);
}

// One LMS tap per lag, each predicting this symbol's pilots from those of the symbol `lag` scattered
// periods back and clamped to [0, 1] after every group. The step
// w + mu ((y - w x) conj(x)).re is taken as w (1 - mu |x|^2) + mu (y conj(x)).re: the factors depend
// on the pilots alone and are formed for all groups first, so the chain from group to group is one
// product and one sum. The lags are independent chains and advance side by side.
template <int32_t LAGS>
void AdaptLagTaps(const float* y, const float* const* x, int32_t groups, float* lagTap) {
  const float step = engine.lmsStep;
  float keep[LAGS][MAX_ROW / 4];
  float pull[LAGS][MAX_ROW / 4];
  for (int32_t l = 0; l < LAGS; ++l) {
    const float* __restrict xr = x[l];
    const float* __restrict xi = x[l] + groups;
    for (int32_t p = 0; p < groups; ++p) {
      keep[l][p] = 1.0f - step * (xr[p] * xr[p] + xi[p] * xi[p]);
      pull[l][p] = step * (y[p] * xr[p] + y[groups + p] * xi[p]);
    }
  }
  float w[LAGS];
  for (int32_t l = 0; l < LAGS; ++l) w[l] = lagTap[l];
  for (int32_t p = 0; p < groups; ++p) {
    for (int32_t l = 0; l < LAGS; ++l) {
      float v = w[l] * keep[l][p] + pull[l][p];
      if (v < 0.0f) v = 0.0f;
      if (v > 1.0f) v = 1.0f;
      w[l] = v;
    }
  }
  for (int32_t l = 0; l < LAGS; ++l) lagTap[l] = w[l];
}

// The rows of the time filter: this symbol's pilots and the two before, the output, and the
// received carriers of the output's symbol (for the decisions).
struct TimeFilterRows {
  const float* x0;
  const float* x1;
  const float* x2;
  float* out;
  const float* oldest;
  int32_t phase;  // pilot phase of this symbol
};

// One set of the time filter's three complex taps (only the real parts adapt) and the entry of
// each group that it filters.
struct TimeTapSet {
  float a0, a1, a2;  // real parts
  float b0, b1, b2;  // imaginary parts
  int32_t lane;
};

inline Cx FilterEntry(const TimeTapSet& c, Cx x0, Cx x1, Cx x2) {
  return Cx{c.a0, c.b0} * x0 + Cx{c.a1, c.b1} * x1 + Cx{c.a2, c.b2} * x2;
}

// Groups [from, to) with the taps as they stand; the pilot entry of each group passes unfiltered.
void FilterGroupsHeld(const TimeFilterRows& rows, const TimeTapSet* sets, int32_t from, int32_t to) {
  if (from >= to) return;
  HeldTimeFilter held{};
  held.x0 = rows.x0 + 8 * from;
  held.x1 = rows.x1 + 8 * from;
  held.x2 = rows.x2 + 8 * from;
  held.out = rows.out + 8 * from;
  held.groups = to - from;
  held.exact = (rows.phase + 1) & 3;
  for (int32_t set = 0; set < 3; ++set) {
    const TimeTapSet& c = sets[set];
    const float re[3] = {c.a0, c.a1, c.a2}, im[3] = {c.b0, c.b1, c.b2};
    for (int32_t k = 0; k < 3; ++k) {
      held.re[k][2 * c.lane] = held.re[k][2 * c.lane + 1] = re[k];
      held.im[k][2 * c.lane] = -im[k];
      held.im[k][2 * c.lane + 1] = im[k];
    }
  }
  FilterHeldWith(ActiveVectorIsa(), held);
}

// r * conj(d) for the QPSK decision d on r * conj(g). The levels are +-L, so the products are
// those of r L with the decision's signs laid on them (exact): only the signs wait for g.
inline Cx QpskTarget(Cx r, Cx rl, Cx g) {
  const Cx z = MulConj(r, g);
#if defined(__SSE2__)
  const __m128 signRe = _mm_and_ps(_mm_cmple_ss(_mm_set_ss(z.re), _mm_setzero_ps()), _mm_set_ss(-0.0f));
  const __m128 signIm = _mm_and_ps(_mm_cmple_ss(_mm_set_ss(z.im), _mm_setzero_ps()), _mm_set_ss(-0.0f));
  const __m128 re = _mm_set_ss(rl.re), im = _mm_set_ss(rl.im);
  // re * d.re + im * d.im, im * d.re - re * d.im
  const float tr = _mm_cvtss_f32(_mm_xor_ps(re, signRe)) + _mm_cvtss_f32(_mm_xor_ps(im, signIm));
  const float ti = _mm_cvtss_f32(_mm_xor_ps(im, signRe)) - _mm_cvtss_f32(_mm_xor_ps(re, signIm));
  return {tr, ti};
#else
  (void)rl;
  return MulConj(r, Cx{SliceQpsk(z.re), SliceQpsk(z.im)});
#endif
}

// Groups [from, to) with decision-directed adaption: after each entry its set's real parts move by
// the decision error times the conjugate of the entry's inputs, and apply from the next group on.
// The three sets are independent chains from group to group, so they run side by side.
template <bool Qpsk>
void AdaptGroups(const TimeFilterRows& rows, TimeTapSet* sets, int32_t from, int32_t to, float step, int32_t bits) {
  const int32_t exactLane = (rows.phase + 1) & 3;
  TimeTapSet c[3] = {sets[0], sets[1], sets[2]};
  for (int32_t p = from; p < to; ++p) {
    Store(rows.out, 4 * p + exactLane, Load(rows.x0, 4 * p + exactLane));
    for (int32_t set = 0; set < 3; ++set) {
      const int32_t e = 4 * p + c[set].lane;
      const Cx x0 = Load(rows.x0, e), x1 = Load(rows.x1, e), x2 = Load(rows.x2, e);
      const Cx hv = FilterEntry(c[set], x0, x1, x2);
      Store(rows.out, e, hv);
      const Cx r = Load(rows.oldest, 3 * e);
      Cx target;
      if constexpr (Qpsk) {
        target = QpskTarget(r, Cx{r.re * QPSK_DECISION_LEVEL, r.im * QPSK_DECISION_LEVEL}, hv);
      } else {
        target = DecisionTarget(r, hv, bits);
      }
      const Cx err = step * (target - hv);
      c[set].a0 += MulConj(err, x0).re;
      c[set].a1 += MulConj(err, x1).re;
      c[set].a2 += MulConj(err, x2).re;
    }
  }
  for (int32_t set = 0; set < 3; ++set) sets[set] = c[set];
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
  // The pilot of group p is span carrier 12 p + 3 s.
  const float* __restrict signs = engine.pilotSign + t.pilotStart + 3 * s;
  const float* __restrict carriers = t.carrierSlotNow + 6 * s;
  float* __restrict historyRe = t.pilotHistoryNow;
  float* __restrict historyIm = t.pilotHistoryNow + groups;
  float* __restrict pilots = t.pilotRow + 2 * s;
  for (int32_t p = 0; p < groups; ++p) {
    const float sign = signs[12 * p];
    const Cx v{sign * carriers[24 * p], sign * carriers[24 * p + 1]};
    historyRe[p] = v.re;
    historyIm[p] = v.im;
    Store(pilots, 4 * p, v);
  }
  if (derotate) {
    // Back to the old timing: the output of these symbols belongs to symbols read before the jump.
    const Cx* rot = RotatorsOfJump(t.jumpAmount).back[s];
    for (int32_t p = 0; p < groups; ++p) Store(pilots, 4 * p, Load(pilots, 4 * p) * rot[p]);
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
  const TimeFilterRows rows{t.pilotRow, t.pastRow1, past2, t.filteredRow, oldest, s};
  TimeTapSet sets[3];
  for (int32_t set = 0; set < 3; ++set) {
    const float* taps = t.timeTaps + 6 * set;
    sets[set] = {taps[0], taps[2], taps[4], taps[1], taps[3], taps[5], (s + 2 + set) & 3};
  }
  // The taps adapt inside the segment only: before it and after it the groups are filtered with
  // the taps held.
  int32_t first = groups, end = groups;
  if (adaptTaps) {
    first = std::min(std::max(t.adaptFirst, 0), groups);
    end = std::max(std::min(t.adaptEnd, groups), first);
  }
  FilterGroupsHeld(rows, sets, 0, first);
  if (bits == 4 || bits == 6) {
    AdaptGroups<false>(rows, sets, first, end, t.ceStepA, bits);
  } else {
    AdaptGroups<true>(rows, sets, first, end, t.ceStepA, bits);
  }
  FilterGroupsHeld(rows, sets, end, groups);
  for (int32_t set = 0; set < 3; ++set) {
    float* taps = t.timeTaps + 6 * set;
    taps[0] = sets[set].a0;
    taps[2] = sets[set].a1;
    taps[4] = sets[set].a2;
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
