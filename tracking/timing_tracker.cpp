// Symbol timing: an early-late gate on the fixed carriers, formed by a sliding DFT over the samples
// just outside the transform span, and the sample clock estimate drawn from the steps it takes.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/complex32.h"
#include "tracking/tracker_state.h"

namespace zfn {

namespace {

constexpr int32_t MAX_TRACK = 12;

// Truncation toward zero that stays defined for any float: saturates, NaN gives 0.
int32_t TruncateToInt(float v) {
  if (!(v == v)) return 0;
  if (v >= 2147483520.0f) return INT32_MAX;
  if (v <= -2147483520.0f) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// Sum over the fixed carriers of |T - S*P|^2 against the values P of the last symbol, which row
// `row` holds; the row then takes T.
float CompareAndKeep(const Cx* tv, const float* sign, int32_t row) {
  const int32_t ntrack = engine.ntrack;
  float* pr = engine.marginRe + row * ntrack;
  float* pi = engine.marginIm + row * ntrack;
  float sum = 0.0f;
  for (int32_t c = 0; c < ntrack; ++c) {
    const float dr = tv[c].re - sign[c] * pr[c];
    const float di = tv[c].im - sign[c] * pi[c];
    sum += dr * dr + di * di;
    pr[c] = tv[c].re;
    pi[c] = tv[c].im;
  }
  return sum;
}

// Refinement: the span is held a few samples inside the guard interval. Where the guard is free of
// interference the gate sees the same on both sides and lets the span wander over all of it, and
// a slow clock carries it past the guard's end. The channel's mean delay behind the span's start
// (from the channel estimate, in samples) tells where the span lies: a step that would leave less
// than `margin` of it, or put the span less than `margin` after the guard's start, is turned into
// one sample the other way.
int32_t HoldInsideGuard(int32_t step) {
  const float delay = tracker.meanDelay * static_cast<float>(engine.nfft);
  const float margin = engine.nguard >= 16 ? 2.0f : 1.0f;
  if (delay - static_cast<float>(step) < margin) return -1;
  if (delay - static_cast<float>(step) > static_cast<float>(engine.nguard) - margin) return step > 0 ? step : 1;
  return step;
}

}  // namespace

// The gate's decision from its two accumulated sides; exposed for its dead-zone rule.
int32_t DecideTimingStep(float early, float late, float gain, int32_t maxStep, int32_t deadZone) {
  const int32_t g = TruncateToInt((early - late) * gain);
  if (maxStep > deadZone && (g >= -deadZone && g <= deadZone)) return 0;
  if (g > 0) return maxStep;
  if (g < 0) return -maxStep;
  return 0;
}

void TrackTiming() {
  TrackerState& t = tracker;
  const int32_t h = engine.nmargin;
  const int32_t k = t.timingSpan;
  const int32_t n = engine.nfft;
  const int32_t ntrack = engine.ntrack;
  const float* x = engine.symbolBuffer;
  float* profile = engine.marginProfile;

  Cx a[MAX_TRACK];
  float sign[MAX_TRACK];
  float centre = 0.0f;
  for (int32_t c = 0; c < ntrack; ++c) {
    const int32_t bin = engine.trackBins[c];
    a[c] = Load(t.spectrumNow, bin);
    const Cx b = Load(t.spectrumPrev, bin);
    sign[c] = (a[c].re * b.re + a[c].im * b.im > 0.0f) ? 1.0f : -1.0f;
    const float dr = a[c].re - sign[c] * b.re;
    const float di = a[c].im - sign[c] * b.im;
    centre += dr * dr + di * di;
  }
  profile[h] = centre;

  // Early side: the span moved d samples earlier, referred to the phase of the unmoved span.
  Cx tv[MAX_TRACK];
  Cx w[MAX_TRACK];
  for (int32_t c = 0; c < ntrack; ++c) {
    tv[c] = a[c];
    w[c] = {engine.trackCos[c], engine.trackSin[c]};
  }
  for (int32_t d = 1; d <= k; ++d) {
    const Cx in = Load(x, h - d);
    const Cx out = Load(x, h - d + n);
    const Cx diff = in - out;
    for (int32_t c = 0; c < ntrack; ++c) {
      tv[c] = tv[c] + diff * w[c];
      w[c] = w[c] * Cx{engine.trackCos[c], engine.trackSin[c]};
    }
    profile[h - d] = CompareAndKeep(tv, sign, d - 1);
  }

  // Late side: the multiplier is the negative of the early one; the side is only ever compared
  // with itself from symbol to symbol. Refined, it is the conjugate of the early one, exp(-j theta)
  // per sample, which makes the late side a sliding transform too: with the designed multiplier
  // its sums add to the interference of a span that lies before the guard instead of taking it
  // out, and the gate pushes such a span further out.
  for (int32_t c = 0; c < ntrack; ++c) {
    tv[c] = a[c];
    w[c] = {1.0f, 0.0f};
  }
  const bool sliding = engine.refined != 0;
  for (int32_t d = 1; d <= k; ++d) {
    const Cx in = Load(x, h + n + d - 1);
    const Cx out = Load(x, h + d - 1);
    const Cx diff = in - out;
    for (int32_t c = 0; c < ntrack; ++c) {
      tv[c] = tv[c] + diff * w[c];
      const float cs = engine.trackCos[c];
      const float sn = engine.trackSin[c];
      if (sliding) {
        w[c] = {w[c].re * cs + w[c].im * sn, w[c].im * cs - w[c].re * sn};
      } else {
        w[c] = {-w[c].re * cs + w[c].im * sn, -w[c].im * cs - w[c].re * sn};
      }
    }
    profile[h + d] = CompareAndKeep(tv, sign, k + d - 1);
  }

  // Accumulate since the last jump; the symbol read at a new position restarts the sum.
  if (t.jumpPending == 0) {
    for (int32_t i = 0; i <= 2 * h; ++i) t.timingAcc[i] += profile[i];
  } else {
    for (int32_t i = 0; i <= 2 * h; ++i) t.timingAcc[i] = 0.0f;
  }

  const int32_t step = DecideTimingStep(t.timingAcc[h - k], t.timingAcc[h + k], t.timingGain,
                                        t.timingMaxStep, t.timingDeadZone);
  const bool due = t.timingPeriod > 0 && (engine.symbolIndex + 1) % t.timingPeriod == 0;
  engine.timingStep = due ? (engine.refined != 0 ? HoldInsideGuard(step) : step) : 0;
}

void MeasureClockOffset() {
  TrackerState& t = tracker;
  const int32_t frames = engine.clockFrames;
  const int32_t count = engine.symbolCount;
  const float spanSamples = static_cast<float>(2 * frames * 204) * static_cast<float>(engine.nsymbol);
  const auto estimate = [&] { return t.clockDriftSum / spanSamples * 1000000.0f; };

  if (count == 204 * frames) {
    t.clockDriftSum = 0.0f;
  } else if (count == 612 * frames) {
    t.clockPpmFirst = estimate();
    t.clockDriftSum = 0.0f;
    if (t.clockLog) std::fprintf(t.clockLog, "%f\n", static_cast<double>(t.clockPpmFirst));
  } else if (count == 1020 * frames) {
    t.clockPpmSecond = estimate();
    const float first = t.clockPpmFirst;
    const float second = t.clockPpmSecond;
    const float denominator = std::fabs(first) + std::fabs(second);
    const float r = denominator == 0.0f ? 0.0f : (first - second) / denominator;
    if (t.clockLog) std::fprintf(t.clockLog, "%f\n", static_cast<double>(t.clockPpmRunning));
    // Two spans in a row, both above 15 ppm and within 20 percent of each other.
    if (std::fabs(first) > 15.0f && std::fabs(second) > 15.0f && std::fabs(r) < 0.2f) {
      t.clockPpmApplied = (first + second) * 0.5f;
      WriteSampleClockOffset(1, -t.clockPpmApplied);
      engine.clockWritePending = 1;
    } else {
      t.clockPpmApplied = 0.0f;
    }
    t.clockDriftSum = 0.0f;
  } else if (frames > 0 && (static_cast<uint32_t>(count) - static_cast<uint32_t>(204 * frames)) %
                                   static_cast<uint32_t>(408 * frames) == 0) {
    t.clockPpmRunning = estimate();
    if (t.clockLog) std::fprintf(t.clockLog, "%f\n", static_cast<double>(t.clockPpmRunning));
    t.clockDriftSum = 0.0f;
  } else {
    t.clockDriftSum += static_cast<float>(engine.timingStep);
  }
}

}  // namespace zfn
