// Entry to tracking: buffers from the work arena, constants of the mode, loop state at rest, and the
// five pairs of frequency interpolation filters.
#include <bit>
#include <cmath>
#include <cstring>

#include "acquisition/numerology.h"
#include "numeric/dft.h"
#include "numeric/math_primitives.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "shell/work_arena.h"
#include "tracking/tracker_state.h"

namespace zfn {

TrackerState tracker;

namespace {

// Polyphase arm of an interpolator of ratio 3: weights of the row entries around the carrier to be
// interpolated, largest near the middle (0.8246 one third away, 0.4124 two thirds away).
constexpr float INTERP_PROTOTYPE[INTERP_TAPS] = {
    0.00423477171f, -0.00729786139f, 0.0114604617f, -0.017027922f, 0.0244664252f,
    -0.0345678665f, 0.0488457084f,   -0.0706450343f, 0.109106451f, -0.200961366f,
    0.824599922f,   0.412442684f,    -0.160936832f, 0.0956356823f, -0.0643827766f,
    0.0455048978f,  -0.0326677859f,  0.0233595725f, -0.0163860545f, 0.0110998377f,
    -0.00710848952f, 0.00414792122f};

// Delay centre of each pair as a fraction of the useful symbol; pair 0 is the default.
constexpr uint32_t INTERP_DELAY_BITS[INTERP_PAIRS] = {0x3e2aaaad, 0x3e555555, 0x3e000000,
                                                      0x3e800000, 0x3daaaaaa};

struct ModeConstants {
  int32_t segmentOffset, gridOffset, adaptFirst, adaptEnd, spanCentre;
  uint32_t ceStepBits;
};

constexpr ModeConstants MODE_CONSTANTS[3] = {
    {36, 12, 3, 12, -90, 0x39d1b717},
    {72, 24, 6, 24, -180, 0x3951b717},
    {144, 48, 12, 48, -360, 0x38d1b717},
};

constexpr float LAG_AVG_KEEP = 0.875f;

void SetIdentityTaps(float* taps, int32_t sets) {
  std::memset(taps, 0, sizeof(float) * 6 * static_cast<size_t>(sets));
  for (int32_t t = 0; t < sets; ++t) taps[6 * t] = 1.0f;
}

}  // namespace

void DesignInterpFilters() {
  const int32_t nq = engine.nquarter;
  for (int32_t q = 0; q < INTERP_PAIRS; ++q) {
    const double d = static_cast<double>(std::bit_cast<float>(INTERP_DELAY_BITS[q]));
    float tapRe[INTERP_TAPS], tapIm[INTERP_TAPS];
    for (int32_t i = 0; i < INTERP_TAPS; ++i) {
      // The phase term moves the passband to delay d; 31 - 3*i is the distance in carriers from
      // the tap's row entry to the carrier interpolated at one third.
      const float angle = static_cast<float>(-TWO_PI * d * (31 - 3 * i));
      const float scale = INTERP_PROTOTYPE[i] / static_cast<float>(nq);
      tapRe[i] = scale * std::cos(angle);
      tapIm[i] = scale * std::sin(angle);
    }
    float* low = tracker.interpLow + q * INTERP_BLOCK * 2;
    float* high = tracker.interpHigh + q * INTERP_BLOCK * 2;
    std::memset(low, 0, sizeof(float) * 2 * static_cast<size_t>(nq));
    std::memset(high, 0, sizeof(float) * 2 * static_cast<size_t>(nq));
    for (int32_t j = 0; j < INTERP_TAPS; ++j) {
      low[2 * j] = tapRe[INTERP_TAPS - 1 - j];
      low[2 * j + 1] = tapIm[INTERP_TAPS - 1 - j];
      high[2 * j] = tapRe[j];
      high[2 * j + 1] = -tapIm[j];
    }
    // Opposite direction to the symbol transform; InterpolateChannel takes the row the same way,
    // so the product transformed forward is the circular convolution with the taps.
    TransformQuarter(low, 1);
    TransformQuarter(high, 1);
  }
}

void SetUpTracking() {
  TrackerState& t = tracker;
  engine.symbolCount = 0;

  const int32_t nspan = engine.nspan;
  const int32_t rowFloats = 2 * (nspan / 3);
  t.carrierRing = ArenaTake<float>(8 * nspan);
  t.carrierRingStride = 2 * nspan;
  t.carrierRingNext = 0;
  t.carrierSlotNow = t.carrierRing;
  t.channelPlanes = ArenaTake<float>(2 * engine.ncarrier);
  engine.equalisedCarriers = ArenaTake<float>(2 * engine.ndata);
  t.spareCarriers = ArenaTake<float>(2 * engine.ndata);
  t.pastRow1 = ArenaTake<float>(rowFloats);
  t.pastRow2 = ArenaTake<float>(rowFloats);
  t.filteredRow = ArenaTake<float>(rowFloats);
  t.pilotRow = ArenaTake<float>(rowFloats);
  t.timeTaps = ArenaTake<float>(18);
  t.freqTaps = ArenaTake<float>(14);
  t.spectrumA = ArenaTakeAligned<float>(2 * engine.nsymbol);
  t.spectrumB = ArenaTakeAligned<float>(2 * engine.nsymbol);
  // The rows are overwritten within the first eight symbols; they start from zeros rather than
  // from whatever the arena held, so no stale non-finite value can enter the time filter.
  std::memset(t.pastRow1, 0, sizeof(float) * 4 * static_cast<size_t>(rowFloats));
  // The first symbol's timing gate and frequency loop compare it with the previous transform:
  // that comparison starts from a zero spectrum, never from what acquisition left in the arena.
  std::memset(t.spectrumB, 0, sizeof(float) * 2 * static_cast<size_t>(engine.nsymbol));
  SetIdentityTaps(t.timeTaps, 3);
  std::memset(t.freqTaps, 0, sizeof(float) * 14);
  t.freqTaps[6] = 1.0f;
  t.spectrumNow = t.spectrumA;
  t.spectrumPrev = t.spectrumB;
  t.interpRow = t.pastRow1;

  const int32_t mode = engine.modeGuard->mode;
  const ModeConstants& c = MODE_CONSTANTS[mode];
  t.segmentOffset = c.segmentOffset;
  t.gridOffset = c.gridOffset;
  t.adaptFirst = c.adaptFirst;
  t.adaptEnd = c.adaptEnd;
  t.spanCentre = c.spanCentre;
  t.ceStepA = std::bit_cast<float>(c.ceStepBits);
  t.ceStepB = std::bit_cast<float>(c.ceStepBits);
  t.fixedCarriers = FIXED_CARRIERS_BY_MODE[mode];
  for (int32_t q = 0; q < 4; ++q) {
    int32_t pilot = 3 * q;
    const int32_t* fixed = t.fixedCarriers;
    int32_t k = 0;
    for (int32_t carrier = 0; carrier < engine.ncarrier && k < MAX_DATA; ++carrier) {
      if (carrier == pilot) {
        pilot += 12;
      } else if (carrier == *fixed) {
        ++fixed;
      } else {
        const int32_t row = carrier % 3, entry = carrier / 3;
        const int32_t from = row == 0 ? entry : t.gridOffset + CHANNEL_ROW_DELAY + entry;
        t.dataCarrierAt[q][k] = static_cast<int16_t>(2 * carrier);
        t.dataChannelAt[q][k++] = static_cast<int16_t>(2 * (row * MAX_QUARTER + from));
      }
    }
    t.dataCarrierCount[q] = k;
  }
  t.pilotStart = PILOT_START_BY_MODE[mode];

  const int32_t marginLen = 2 * engine.nmargin + 1;
  std::memset(engine.marginProfile, 0, sizeof(float) * static_cast<size_t>(marginLen));
  std::memset(engine.marginRe, 0, sizeof(float) * static_cast<size_t>(marginLen * engine.ntrack));
  std::memset(engine.marginIm, 0, sizeof(float) * static_cast<size_t>(marginLen * engine.ntrack));

  engine.timingStep = 0;
  t.ncoStepAtEntry = std::isfinite(engine.ncoStep) ? engine.ncoStep : 0.0f;
  t.loopRestarts = 0;
  t.pilotPowerAvg = 0.0f;
  t.levelScale = 1.0f;
  t.jumpPending = 0;
  t.jumpInForce = 0;
  t.jumpStage = JUMP_AT_REST;
  std::memset(t.timingAcc, 0, sizeof(t.timingAcc));

  DesignInterpFilters();

  t.scanStep = 0;
  t.delayCorrRe = 0.0f;
  t.delayCorrIm = 0.0f;
  t.meanDelay = 0.0f;
  t.interpBankLow = t.interpLow;
  t.interpBankHigh = t.interpHigh;
  engine.decodeStage = DECODE_EARLY;

  const int32_t pilotRowFloats = 2 * (nspan / 12);
  t.pilotHistory = ArenaTake<float>(PILOT_HISTORY_ROWS * pilotRowFloats);
  t.pilotHistoryStride = nspan / 6;
  t.pilotHistorySlot = 0;
  t.pilotHistoryNow = t.pilotHistory;

  t.watchBad = 0;
  t.watchGood = 0;
  for (int32_t l = 0; l < 3; ++l) {
    t.lagTap[l] = 0.0f;
    t.lagTapAvg[l] = 0.0f;
  }
  t.jumpAge = 0;
  t.smoothNew = engine.mixWeightFast;
  t.smoothOld = 1.0f - engine.mixWeightFast;
  t.lagAvgNew = 1.0f - LAG_AVG_KEEP;

  t.adaptTimeTaps = 0;
  t.channelWatchOn = 0;
  t.noiseAvg = 0.0f;
  engine.snrFailed = 0;
  t.snrLowCount = 0;
  t.snrHighCount = 0;

  LoadParameterSet(PARAM_BY_MODE);
}

}  // namespace zfn
