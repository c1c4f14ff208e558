// Symbol timing: an early-late gate on the fixed carriers, formed by a sliding DFT over the samples
// just outside the transform span, and the sample clock estimate drawn from the steps it takes.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/complex32.h"
#include "tracking/timing_gate_kernels.h"
#include "tracking/tracker_state.h"

namespace zfn {

namespace {

constexpr int32_t MAX_TRACK = GATE_CARRIERS;

// Truncation toward zero that stays defined for any float: saturates, NaN gives 0.
int32_t TruncateToInt(float v) {
  if (!(v == v)) return 0;
  if (v >= 2147483520.0f) return INT32_MAX;
  if (v <= -2147483520.0f) return INT32_MIN;
  return static_cast<int32_t>(v);
}

constexpr int32_t MAX_GATE_SPAN = GATE_MAX_SPAN;
static_assert(MAX_GATE_SPAN == TIMING_ACC_SIZE / 2, "the largest nmargin");

// The multipliers of the gate's sliding sums, carrier by carrier: entry d - 1 is the one that the
// sample d away from the span's edge is weighed with. They depend only on the tracked bins and the
// late side's rule, so they are worked out once by the same recurrence, not again every symbol.
// The carriers run side by side in fixed-length rows, so that the sums vectorise.
struct GateMultipliers {
  float earlyRe[MAX_GATE_SPAN][MAX_TRACK];
  float earlyIm[MAX_GATE_SPAN][MAX_TRACK];
  float lateRe[MAX_GATE_SPAN][MAX_TRACK];
  float lateIm[MAX_GATE_SPAN][MAX_TRACK];
  float cosKey[MAX_TRACK];
  float sinKey[MAX_TRACK];
  int32_t ntrack = -1;
  int32_t sliding = -1;
};

GateMultipliers gateMultipliers;

const GateMultipliers& CurrentGateMultipliers(bool sliding) {
  GateMultipliers& g = gateMultipliers;
  const int32_t ntrack = engine.ntrack;
  bool same = g.ntrack == ntrack && g.sliding == (sliding ? 1 : 0);
  for (int32_t c = 0; same && c < ntrack; ++c)
    same = g.cosKey[c] == engine.trackCos[c] && g.sinKey[c] == engine.trackSin[c];
  if (same) return g;
  std::memset(g.earlyRe, 0, sizeof g.earlyRe);
  std::memset(g.earlyIm, 0, sizeof g.earlyIm);
  std::memset(g.lateRe, 0, sizeof g.lateRe);
  std::memset(g.lateIm, 0, sizeof g.lateIm);
  g.ntrack = ntrack;
  g.sliding = sliding ? 1 : 0;
  for (int32_t c = 0; c < ntrack; ++c) {
    const float cs = engine.trackCos[c];
    const float sn = engine.trackSin[c];
    g.cosKey[c] = cs;
    g.sinKey[c] = sn;
    // Early side: exp(j theta d); late side: exp(-j theta (d - 1)) when sliding, else the
    // designed multiplier, the negative of the early one's turn.
    Cx early{cs, sn};
    Cx late{1.0f, 0.0f};
    for (int32_t d = 0; d < MAX_GATE_SPAN; ++d) {
      g.earlyRe[d][c] = early.re;
      g.earlyIm[d][c] = early.im;
      g.lateRe[d][c] = late.re;
      g.lateIm[d][c] = late.im;
      early = early * Cx{cs, sn};
      if (sliding) {
        late = {late.re * cs + late.im * sn, late.im * cs - late.re * sn};
      } else {
        late = {-late.re * cs + late.im * sn, -late.im * cs - late.re * sn};
      }
    }
  }
  return g;
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
  float* profile = engine.marginProfile;

  float aRe[MAX_TRACK] = {};
  float aIm[MAX_TRACK] = {};
  float sign[MAX_TRACK] = {};
  float centre = 0.0f;
  for (int32_t c = 0; c < ntrack; ++c) {
    const int32_t bin = engine.trackBins[c];
    const Cx now = Load(t.spectrumNow, bin);
    const Cx b = Load(t.spectrumPrev, bin);
    aRe[c] = now.re;
    aIm[c] = now.im;
    // +1 or -1 by the turn from the last symbol, without a branch: the fixed carriers' differential
    // modulation flips them at random.
    const uint32_t flip = static_cast<uint32_t>(!(now.re * b.re + now.im * b.im > 0.0f)) << 31;
    sign[c] = std::bit_cast<float>(std::bit_cast<uint32_t>(1.0f) | flip);
    const float dr = now.re - sign[c] * b.re;
    const float di = now.im - sign[c] * b.im;
    centre += dr * dr + di * di;
  }
  profile[h] = centre;

  // Early side: the span moved d samples earlier, referred to the phase of the unmoved span.
  // Late side: the multiplier is the negative of the early one; the side is only ever compared
  // with itself from symbol to symbol. Refined, it is the conjugate of the early one, exp(-j theta)
  // per sample, which makes the late side a sliding transform too: with the designed multiplier
  // its sums add to the interference of a span that lies before the guard instead of taking it
  // out, and the gate pushes such a span further out.
  const GateMultipliers& g = CurrentGateMultipliers(engine.refined != 0);
  const VectorIsa isa = ActiveVectorIsa();
  SlideGateSideWith(isa, {g.earlyRe, g.earlyIm, aRe, aIm, sign, engine.symbolBuffer, k, h - 1, h - 1 + n, -1,
                          engine.marginRe, engine.marginIm, ntrack, profile + h - 1});
  SlideGateSideWith(isa, {g.lateRe, g.lateIm, aRe, aIm, sign, engine.symbolBuffer, k, h + n, h, 1,
                          engine.marginRe + k * ntrack, engine.marginIm + k * ntrack, ntrack, profile + h + 1});

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
