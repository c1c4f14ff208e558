#include "acquisition/numerology.h"

#include "numeric/dft.h"
#include "numeric/math_primitives.h"
#include "shell/work_arena.h"

namespace zfn {

namespace {

int32_t MakePlan(DftPlan* plan, int32_t length) {
  if (!DftiErrorClass(DftiCreateDescriptor(plan, DFTI_SINGLE, DFTI_COMPLEX, 1, length), DFTI_NO_ERROR)) return 0;
  return DftiErrorClass(DftiCommitDescriptor(*plan), DFTI_NO_ERROR);
}

// Scattered pilot signs over three adjacent segments, scaled by the reciprocal pilot amplitude.
void GeneratePilotSign(int32_t mode, int32_t count, float* out) {
  uint8_t r[11];
  for (int i = 0; i < 11; ++i) r[i] = PILOT_PRBS_INIT[mode][i];
  for (int32_t t = 0; t < count; ++t) {
    const uint8_t bit = r[10];
    out[t] = (0.5f - static_cast<float>(bit)) * 2.0f * PILOT_SIGN_SCALE;
    const uint8_t feedback = r[8] ^ r[10];
    for (int k = 10; k > 0; --k) r[k] = r[k - 1];
    r[0] = feedback;
  }
}

}  // namespace

int32_t SetUpNumerology(int32_t firstTime) {
  const int32_t mode = engine.modeGuard->mode;
  const int32_t index = mode * 4 + engine.modeGuard->guard;
  ReceiverState& e = engine;

  e.nfft = NFFT_BY_MODE_GUARD[index];
  e.nguard = NGUARD_BY_MODE_GUARD[index];
  e.ncarrier = NCARRIER_BY_MODE[mode];
  e.nspan = NSPAN_BY_MODE[mode];
  e.ndata = NDATA_BY_MODE[mode];
  e.nsymbol = e.nfft + e.nguard;
  e.ngrid = e.ncarrier / 12;
  e.nscatter = 4 * e.ngrid;
  e.nspanGrid = e.nspan / 12;
  e.nquarter = e.nfft / 4;

  if (firstTime == 0) {
    // A handle left null by an earlier failed set-up has nothing to release.
    if (e.fftPlan != nullptr && DftiFreeDescriptor(&e.fftPlan) != 0) return 0;
    if (e.quarterPlan != nullptr && DftiFreeDescriptor(&e.quarterPlan) != 0) return 0;
  }
  if (!MakePlan(&e.fftPlan, e.nfft)) return 0;
  if (!MakePlan(&e.quarterPlan, e.nquarter)) return 0;

  const int32_t pilotCount = 3 * e.ncarrier;
  e.pilotSign = ArenaTake<float>(pilotCount);
  e.pilotDiff0 = ArenaTake<float>(e.nspanGrid);
  e.pilotDiff1 = ArenaTake<float>(e.nspanGrid);
  e.pilotDiff2 = ArenaTake<float>(e.nspanGrid);
  GeneratePilotSign(mode, pilotCount, e.pilotSign);
  const int32_t pilotStart = PILOT_START_BY_MODE[mode];
  for (int32_t p = 0; p < e.nspanGrid; ++p) {
    const float* s = e.pilotSign + pilotStart + 12 * p;
    e.pilotDiff0[p] = s[0] * s[3];
    e.pilotDiff1[p] = s[3] * s[6];
    e.pilotDiff2[p] = s[6] * s[9];
  }

  e.nmargin = NMARGIN_BY_MODE_GUARD[index];
  e.nmarginHalf = e.nmargin / 2;
  e.nwork = e.nfft + 2 * e.nmargin;
  e.ntrack = NTRACK_BY_MODE[mode];
  const int32_t marginPoints = 2 * e.nmargin + 1;
  e.symbolBuffer = ArenaTake<float>(2 * (e.nsymbol + 2 * e.nmargin));
  e.marginProfile = ArenaTake<float>(marginPoints);
  e.marginRe = ArenaTake<float>(marginPoints * e.ntrack);
  e.marginIm = ArenaTake<float>(marginPoints * e.ntrack);
  e.symbolBody = e.symbolBuffer + 2 * e.nmargin;
  e.arenaAfterNumerology = e.arenaNext;
  e.arenaFreeAfterNumerology = e.arenaFree;

  e.settleSymbols = SETTLE_SYMBOLS_BY_MODE[mode];
  e.clockFrames = CLOCK_FRAMES_BY_MODE[mode];
  e.guardScanStart = e.settleSymbols + 100;

  e.trackBins = TRACK_BINS_BY_MODE[mode];
  for (int32_t i = 0; i < e.ntrack; ++i) {
    const double angle = e.trackBins[i] * TWO_PI / e.nfft;
    e.trackSin[i] = static_cast<float>(SinD(angle));
    e.trackCos[i] = static_cast<float>(CosD(angle));
  }

  e.statNextSymbol = 0;
  e.statFrames = STAT_FRAMES_BY_MODE_GUARD[index];
  return 1;
}

}  // namespace zfn
