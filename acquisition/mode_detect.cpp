// Mode and guard detection from the cyclic prefix: in each OFDM symbol the guard interval repeats
// the last nguard samples of the useful part, so x[n]*conj(x[n + nfft]) is coherent exactly there.
#include "acquisition/acquisition.h"
#include "acquisition/numerology.h"
#include "numeric/math_primitives.h"
#include "shell/diagnostics.h"
#include "shell/stages.h"
#include "shell/work_arena.h"

namespace zfn {

namespace {

constexpr int32_t MAX_SYMBOL = 1280;  // Mode 3, guard 1/4

// Status word 3 of the debug block: the chosen mode*4 + guard.
void PublishDetectedModeGuard(int32_t index) { debugParaBlock.SetInt(3, index); }

}  // namespace

void MeasureGuardCorrelation(const float* x, int32_t mode, int32_t guard) {
  const int32_t index = mode * 4 + guard;
  const int32_t n = NFFT_BY_MODE_GUARD[index];
  const int32_t g = NGUARD_BY_MODE_GUARD[index];
  const int32_t s = n + g;
  float accRe[MAX_SYMBOL];
  float accIm[MAX_SYMBOL];
  float mag[MAX_SYMBOL];
  for (int32_t k = 0; k < s; ++k) accRe[k] = accIm[k] = 0.0f;

  // One running sum over a window of g lags, slid across four symbol periods; each position adds
  // the product entering the window and removes the one leaving it.
  float cRe = 0.0f;
  float cIm = 0.0f;
  for (int32_t i = 0; i < g; ++i) {
    const float* a = x + 2 * i;
    const float* b = x + 2 * (i + n);
    cRe += a[0] * b[0] + a[1] * b[1];
    cIm += a[1] * b[0] - a[0] * b[1];
  }
  for (int32_t pass = 0; pass < 4; ++pass) {
    for (int32_t k = 0; k < s; ++k) {
      const int32_t m = pass * s + k;
      const float* in0 = x + 2 * (m + g);
      const float* in1 = x + 2 * (m + s);
      const float* out0 = x + 2 * m;
      const float* out1 = x + 2 * (m + n);
      cRe = cRe + (in0[0] * in1[0] + in0[1] * in1[1]) - (out0[0] * out1[0] + out0[1] * out1[1]);
      cIm = cIm + (in0[1] * in1[0] - in0[0] * in1[1]) - (out0[1] * out1[0] - out0[0] * out1[1]);
      accRe[k] += cRe;
      accIm[k] += cIm;
    }
  }

  int32_t peak = 0;
  float best = 0.0f;
  for (int32_t k = 0; k < s; ++k) {
    mag[k] = accRe[k] * accRe[k] + accIm[k] * accIm[k];
    if (mag[k] > best) {
      best = mag[k];
      peak = k;
    }
  }
  engine.guardPeak[index] = peak;

  // The correlation triangle: 2*g positions from (n + peak) to (g + peak), wrapping at s.
  const int32_t a = (n + peak) % s;
  const int32_t b = (g + peak) % s;
  float inner = 0.0f;
  float outer = 0.0f;
  if (a < b) {
    for (int32_t k = a; k < b; ++k) inner += mag[k];
    for (int32_t k = 0; k < a; ++k) outer += mag[k];
    for (int32_t k = b; k < s; ++k) outer += mag[k];
  } else {
    for (int32_t k = 0; k < b; ++k) inner += mag[k];
    for (int32_t k = a; k < s; ++k) inner += mag[k];
    for (int32_t k = b; k < a; ++k) outer += mag[k];
  }
  // Mean power on the arc over mean power off it.
  engine.guardMetric[index] = static_cast<float>(s - 2 * g) * (inner / outer) / static_cast<float>(2 * g);
}

void DetectModeAndGuard() {
  ReceiverState& e = engine;
  const float* x = e.sampleBlock;
  int32_t index = 0;
  for (int32_t mode = 0; mode < MODE_COUNT; ++mode) {
    for (int32_t guard = 0; guard < GUARD_COUNT; ++guard) MeasureGuardCorrelation(x, mode, guard);
  }
  // Strictly greater replaces: the lowest index wins a tie, and NaN metrics never win.
  for (int32_t i = 1; i < MODE_GUARD_COUNT; ++i) {
    if (e.guardMetric[i] > e.guardMetric[index]) index = i;
  }
  e.modeGuard->mode = static_cast<uint8_t>(index / 4);
  e.modeGuard->guard = static_cast<uint8_t>(index % 4);
  PublishDetectedModeGuard(index);

  if (index == e.modeIndexLast) {
    e.arenaNext = e.arenaAfterNumerology;
    e.arenaFree = e.arenaFreeAfterNumerology;
  } else {
    e.arenaNext = e.arenaAfterInit;
    e.arenaFree = e.arenaFreeAfterInit;
    SetUpNumerology(e.modeIndexLast == -1 ? 1 : 0);
    e.modeIndexLast = index;
  }

  // Fractional carrier offset from ten sample pairs one symbol and one sample apart, each pair
  // weighted by the guard length.
  const int32_t n = e.nfft;
  const int32_t symbol = e.nsymbol;
  const int32_t peak = e.guardPeak[index];
  const int32_t start = peak + symbol;
  float cRe = 0.0f;
  float cIm = 0.0f;
  for (int32_t r = 0; r < 10; ++r) {
    const float* u = x + 2 * (start + r * (symbol + 1));
    const float* v = u + 2 * n;
    const float pRe = u[0] * v[0] + u[1] * v[1];
    const float pIm = u[1] * v[0] - u[0] * v[1];
    for (int32_t i = 0; i < e.nguard; ++i) {
      cRe += pRe;
      cIm += pIm;
    }
  }
  e.ncoStep = static_cast<float>(Atan2D(cIm, cRe) / n);

  // First grid point of the next block: blocks are contiguous in time.
  int32_t p = 2 * (peak + symbol);
  while (p < BLOCK_FLOATS) p += 2 * symbol;
  e.readPos = p - BLOCK_FLOATS;
}

}  // namespace zfn
