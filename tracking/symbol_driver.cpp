// The per-symbol driver of tracking: the schedule by symbol count, the carrier rotator and its
// frequency loop, the transform, channel estimation and equalisation, and the timing loop.
#include <bit>
#include <cmath>
#include <cstring>

#include "acquisition/acquisition.h"
#include "decoder/decoder_state.h"
#include "numeric/dft.h"
#include "numeric/math_primitives.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/complex32.h"
#include "tracking/equaliser_kernels.h"
#include "tracking/probe_fill.h"
#include "tracking/tracker_state.h"

namespace zfn {

namespace {

constexpr int32_t TIMING_STAGES = 3;

void LoadTapSet(float* set, const float* taps) { std::memcpy(set, taps, sizeof(float) * 6); }

// The three fixed recursive sets of the time filter; the order of the sets is reversed against the
// order of the parameter names.
void LoadFixedTimeTaps() {
  LoadTapSet(tracker.timeTaps, engine.interpTapsC);
  LoadTapSet(tracker.timeTaps + 6, engine.interpTapsB);
  LoadTapSet(tracker.timeTaps + 12, engine.interpTapsA);
}

void ScaleAdaptionSteps() {
  if (engine.paramFilesActive != 1) return;
  const float scale = static_cast<float>(1 << (2 - engine.modeGuard->mode));
  tracker.ceStepA = engine.pilotGainScaleA * scale;
  tracker.ceStepB = engine.pilotGainScaleB * scale;
  tracker.levelScale = 1.0f;
}

// Mean pilot power per carrier of a 1024-point transform at the device's nominal input level (RMS
// of 28 steps per byte component); it grows with the transform length.
constexpr float NOMINAL_PILOT_POWER_1024 = 65.0f;
constexpr float PILOT_POWER_KEEP = 0.9375f;

// Loop and adaption gains normalised to the signal level (refinement). The products that drive the
// adaptive filters, the frequency loop and the timing gate all grow with the square of the input
// amplitude, and the designed gains are set for the nominal level: far above it the frequency
// filter's adaption runs past its stability bound. Above the nominal power every gain is scaled
// down by the ratio of the powers (the pilots' mean power, smoothed over about sixteen symbols);
// at or below it they stay as designed.
void NormaliseGainsToLevel() {
  TrackerState& t = tracker;
  const int32_t groups = engine.nspanGrid;
  const float* pilots = t.pilotHistoryNow;
  float power = 0.0f;
  for (int32_t p = 0; p < groups; ++p) power += pilots[p] * pilots[p] + pilots[groups + p] * pilots[groups + p];
  power /= static_cast<float>(groups);
  if (!std::isfinite(power)) return;
  t.pilotPowerAvg = t.pilotPowerAvg > 0.0f ? PILOT_POWER_KEEP * t.pilotPowerAvg + (1.0f - PILOT_POWER_KEEP) * power
                                           : power;
  const float nominal = NOMINAL_PILOT_POWER_1024 * static_cast<float>(engine.nfft) / 1024.0f;
  const float scale = t.pilotPowerAvg > nominal ? nominal / t.pilotPowerAvg : 1.0f;
  t.ceStepA = t.ceStepA / t.levelScale * scale;
  t.ceStepB = t.ceStepB / t.levelScale * scale;
  t.levelScale = scale;
}

// floor(fraction * nguard), the product in single precision. Fractions come from a text file that
// is trusted, but a value out of all range must not reach the integer conversion.
int32_t FloorOfGuardFraction(float fraction) {
  const float v = std::floor(fraction * static_cast<float>(engine.nguard));
  if (!(v > -1.0e6f)) return -1000000;
  if (!(v < 1.0e6f)) return 1000000;
  return static_cast<int32_t>(v);
}

// Makes the values of timing stage s current.
void EnterTimingStage(int32_t s) {
  TrackerState& t = tracker;
  int32_t span = FloorOfGuardFraction(engine.stageSpanFraction[s]);
  // The gate reads K samples beyond each end of the transform span; the buffer holds nmargin.
  if (span < 0) span = 0;
  if (span > engine.nmargin) span = engine.nmargin;
  t.timingSpan = span;
  int32_t maxStep = FloorOfGuardFraction(engine.stageStepFraction[s]);
  if (maxStep < 2) maxStep = 1;
  // A step beyond the guard interval has no meaning, and the block walk needs steps shorter than
  // a symbol.
  if (maxStep > engine.nguard) maxStep = engine.nguard;
  t.timingMaxStep = maxStep;
  t.timingGain = engine.stageLoopGain[s];
  t.timingSpare = engine.stageSpare[s];
  t.timingDeadZone = engine.stageDeadZone[s];
  t.timingPeriod = engine.stageUpdatePeriod[s];
  t.rotateCount = engine.nfft + 2 * t.timingSpan;
  t.rotateStart = engine.nmargin - t.timingSpan;
}

void RunSchedule(int32_t count) {
  TrackerState& t = tracker;
  for (int32_t s = 0; s < TIMING_STAGES; ++s) {
    if (count == engine.stageStartSymbol[s]) {
      EnterTimingStage(s);
      break;
    }
  }
  if (count == 0) {
    engine.timingEnabled = 0;
    t.adaptTimeTaps = 0;
    t.channelWatchOn = 0;
    t.smoothRowsOn = 0;
    std::memset(t.timeTaps, 0, sizeof(float) * 18);
    t.timeTaps[0] = t.timeTaps[6] = t.timeTaps[12] = 1.0f;
    ScaleAdaptionSteps();
  } else if (count == 8) {
    engine.timingEnabled = 1;
    LoadFixedTimeTaps();
    ScaleAdaptionSteps();
  } else if (count == engine.settleSymbols) {
    t.channelWatchOn = 1;
    engine.channelState = CHANNEL_FAST;
    t.channelStatePrev = CHANNEL_FAST;
    t.adaptTimeTaps = 1;
    t.smoothRowsOn = 0;
  }
}

// A step of the read position takes effect at a symbol of pilot phase 0 only.
void NoteTimingJump() {
  TrackerState& t = tracker;
  if (engine.spPhase != 0) {
    t.jumpPending = 0;
    return;
  }
  if (engine.timingStep == 0) {
    t.jumpPending = 0;
    t.jumpInForce = 0;
    if (t.jumpAge > 0 && ++t.jumpAge > 3) t.jumpAge = 0;
    return;
  }
  t.jumpPending = 1;
  t.jumpInForce = engine.timingStep;
  t.jumpAmount = engine.timingStep;
  t.jumpStage = JUMP_DEROTATE_FIRST;
  t.jumpAge = 1;
  // Keep the rotator's phase continuous over the samples skipped or read twice.
  engine.ncoPhase = engine.ncoPhase + static_cast<float>(engine.timingStep) * engine.ncoStep;
  if (t.snrLog) std::fprintf(t.snrLog, "%f\n", -40.0);
}

void StartScanAndHandOver(int32_t count) {
  TrackerState& t = tracker;
  if (count == engine.guardScanStart) {
    t.scanStep = 1;
    t.scanDwell = 0;
    engine.decodeStage = DECODE_SCAN;
    for (float& s : t.scanScore) s = 0.0f;
  }
  if (count == engine.guardScanStart + 204 + decoder.startupSymbols) engine.decodeStage = DECODE_STREAM;
}

float WrapPhase(float phase) {
  double p = phase;
  // A non-finite or runaway phase (only from absurd loop gains) must not stall the loops below.
  if (!std::isfinite(p)) p = 0.0;
  if (std::fabs(p) > 1.0e6) p = std::fmod(p, TWO_PI);
  while (p >= TWO_PI) p -= TWO_PI;
  while (p < 0.0) p += TWO_PI;
  return static_cast<float>(p);
}

void TransformAndStore() {
  TrackerState& t = tracker;
  const int32_t nfft = engine.nfft;
  const int32_t half = engine.nspan / 2;
  // From the rotated body straight into the spectrum row: the timing gate still reads the body's
  // edges in symbolBuffer.
  DftiErrorClass(DftiComputeForwardOutOfPlace(engine.fftPlan, engine.symbolBody, t.spectrumNow), DFTI_NO_ERROR);
  t.carrierSlotNow = t.carrierRing + t.carrierRingNext * t.carrierRingStride;
  // Negative frequencies first: slot entry e is carrier e + spanCentre relative to DC.
  std::memcpy(t.carrierSlotNow, t.spectrumNow + 2 * (nfft - half), sizeof(float) * 2 * static_cast<size_t>(half));
  std::memcpy(t.carrierSlotNow + 2 * half, t.spectrumNow, sizeof(float) * 2 * static_cast<size_t>(half));
  t.carrierRingNext = (t.carrierRingNext + 1) & 3;
}

void EstimateChannel() {
  TrackerState& t = tracker;
  EstimatePilots();
  if (engine.refined != 0) NormaliseGainsToLevel();
  if (!t.channelWatchOn) return;
  WatchChannelChange();
  if (engine.channelState == CHANNEL_SLOW && t.channelStatePrev == CHANNEL_FAST) {
    LoadFixedTimeTaps();  // the adapted taps are dropped
    t.smoothRowsOn = 1;
    t.adaptTimeTaps = 0;
  } else if (engine.channelState == CHANNEL_FAST && t.channelStatePrev == CHANNEL_SLOW) {
    t.adaptTimeTaps = 1;
    t.smoothRowsOn = 0;
  }
  // After a jump the rows are re-based at pilot phase 3, when pastRow1 is still on the old timing.
  if (t.smoothRowsOn && !(t.jumpInForce != 0 && engine.spPhase == 3)) {
    const int32_t n = 2 * (engine.nspan / 3);
    for (int32_t i = 0; i < n; ++i)
      t.filteredRow[i] = t.smoothNew * t.filteredRow[i] + t.smoothOld * t.pastRow1[i];
  }
}

void FollowChannelDelay();

void ChooseFilterPair() {
  TrackerState& t = tracker;
  if (engine.refined != 0) {
    // The scan still runs its course (its steps time nothing else), but picks no pair.
    if (t.scanStep == INTERP_PAIRS + 1) t.scanStep = 0;
    FollowChannelDelay();
    return;
  }
  int32_t pair = -1;
  if (t.scanStep >= 1 && t.scanStep <= INTERP_PAIRS) {
    pair = t.scanStep - 1;
  } else if (t.scanStep == INTERP_PAIRS + 1) {
    t.scanStep = 0;
    pair = 0;
    for (int32_t q = 1; q < INTERP_PAIRS; ++q)
      if (t.scanScore[q] > t.scanScore[pair]) pair = q;
  }
  if (pair < 0) return;
  t.interpBankLow = t.interpLow + pair * INTERP_BLOCK * 2;
  t.interpBankHigh = t.interpHigh + pair * INTERP_BLOCK * 2;
}

// Delay centres of the interpolation pairs as fractions of the useful symbol, as DesignInterpFilters
// builds them; each passes the delays within 0.15 of its centre.
constexpr float PAIR_DELAY_CENTRES[INTERP_PAIRS] = {1.0f / 6.0f, 5.0f / 24.0f, 1.0f / 8.0f, 1.0f / 4.0f,
                                                   1.0f / 12.0f};
constexpr float DELAY_CORRELATION_KEEP = 0.875f;
constexpr float PAIR_SWITCH_MARGIN = 0.02f;

// The interpolation pair follows the channel's mean delay (refinement). The designed path runs pair
// 0 until the scan, which judges the pairs by the SNR of a few symbols each and then keeps its pick
// while the transform span wanders through the guard interval: pair 0 misjudges a channel whose
// delay behind the span's start is under about 5 samples in Mode 1, and a pair picked for one place
// of the span fails at another. Here the mean delay comes from the phase turn between neighbouring
// entries of the channel estimate across the segment (three carriers apart, so unambiguous over a
// third of the useful symbol, taken from -1/12 to 1/4), smoothed over about eight symbols, and the
// pair whose centre lies nearest is put in force, with a margin against flapping.
void FollowChannelDelay() {
  TrackerState& t = tracker;
  if (engine.symbolCount < 8) return;
  const float* row = t.interpRow + 2 * t.gridOffset;
  const int32_t entries = 4 * engine.ngrid;
  float re = 0.0f, im = 0.0f;
  for (int32_t i = 0; i + 1 < entries; ++i) {
    const float ar = row[2 * i + 2], ai = row[2 * i + 3];
    const float br = row[2 * i], bi = row[2 * i + 1];
    re += ar * br + ai * bi;
    im += ai * br - ar * bi;
  }
  if (!std::isfinite(re) || !std::isfinite(im)) return;
  t.delayCorrRe = DELAY_CORRELATION_KEEP * t.delayCorrRe + (1.0f - DELAY_CORRELATION_KEEP) * re;
  t.delayCorrIm = DELAY_CORRELATION_KEEP * t.delayCorrIm + (1.0f - DELAY_CORRELATION_KEEP) * im;
  if (t.delayCorrRe == 0.0f && t.delayCorrIm == 0.0f) return;
  // H(k) = sum of a exp(-j 2 pi k tau / nfft): the turn over three carriers is -6 pi tau / nfft.
  float delay = -std::atan2(t.delayCorrIm, t.delayCorrRe) / static_cast<float>(3.0 * TWO_PI);
  if (delay < -1.0f / 12.0f) delay += 1.0f / 3.0f;
  t.meanDelay = delay;
  const int32_t now = static_cast<int32_t>((t.interpBankLow - t.interpLow) / (INTERP_BLOCK * 2));
  int32_t best = now;
  for (int32_t q = 0; q < INTERP_PAIRS; ++q)
    if (std::fabs(delay - PAIR_DELAY_CENTRES[q]) < std::fabs(delay - PAIR_DELAY_CENTRES[best])) best = q;
  if (best == now ||
      std::fabs(delay - PAIR_DELAY_CENTRES[best]) > std::fabs(delay - PAIR_DELAY_CENTRES[now]) - PAIR_SWITCH_MARGIN)
    return;
  t.interpBankLow = t.interpLow + best * INTERP_BLOCK * 2;
  t.interpBankHigh = t.interpHigh + best * INTERP_BLOCK * 2;
}

void ScoreFilterPair() {
  TrackerState& t = tracker;
  if (t.scanStep == 0) return;
  t.scanScore[t.scanStep - 1] += engine.snrDb;
  if (t.scanDwell == 3) {
    ++t.scanStep;
    t.scanDwell = 0;
  } else {
    ++t.scanDwell;
  }
}

// Pure integrator on the frequency, driven by the phase turn of the fixed carriers from the last
// symbol; a carrier that flipped sign is folded back.
void RunFrequencyLoop() {
  const TrackerState& t = tracker;
  float sum = 0.0f;
  for (int32_t c = 0; c < engine.ntrack; ++c) {
    const int32_t bin = engine.trackBins[c];
    const Cx a = Load(t.spectrumNow, bin);
    const Cx b = Load(t.spectrumPrev, bin);
    // The fold by the sign bit, without a branch: the fixed carriers flip at random.
    const uint32_t flip = static_cast<uint32_t>(!(a.re * b.re + a.im * b.im > 0.0f)) << 31;
    sum += std::bit_cast<float>(std::bit_cast<uint32_t>(a.im * b.re - a.re * b.im) ^ flip);
  }
  engine.ncoStep = engine.ncoStep - sum * engine.freqLoopGain * t.levelScale;
}

bool AllFinite(const float* v, int32_t count) { return AllFiniteWith(ActiveVectorIsa(), v, count); }

// A loop whose state went non-finite (an adaptive filter driven past its stability bound, say)
// would stay so for good, and with it everything downstream. Each such stage restarts from the
// values it had at the entry to tracking, as a new acquisition would set them; the others go on.
void RestartNonFiniteLoops() {
  TrackerState& t = tracker;
  const int32_t rowFloats = 2 * (engine.nspan / 3);
  bool restarted = false;
  if (!AllFinite(t.freqTaps, 14) || !AllFinite(t.filteredRow, rowFloats) || !AllFinite(t.pastRow1, rowFloats) ||
      !AllFinite(t.pastRow2, rowFloats)) {
    std::memset(t.freqTaps, 0, sizeof(float) * 14);
    t.freqTaps[6] = 1.0f;
    std::memset(t.filteredRow, 0, sizeof(float) * static_cast<size_t>(rowFloats));
    std::memset(t.pastRow1, 0, sizeof(float) * static_cast<size_t>(rowFloats));
    std::memset(t.pastRow2, 0, sizeof(float) * static_cast<size_t>(rowFloats));
    restarted = true;
  }
  if (!AllFinite(t.timeTaps, 18)) {
    if (engine.symbolCount >= 8) {
      LoadFixedTimeTaps();
    } else {
      std::memset(t.timeTaps, 0, sizeof(float) * 18);
      t.timeTaps[0] = t.timeTaps[6] = t.timeTaps[12] = 1.0f;
    }
    restarted = true;
  }
  if (!AllFinite(t.lagTap, 3) || !AllFinite(t.lagTapAvg, 3)) {
    for (int32_t l = 0; l < 3; ++l) t.lagTap[l] = t.lagTapAvg[l] = 0.0f;
    restarted = true;
  }
  if (!std::isfinite(engine.ncoStep)) {
    engine.ncoStep = t.ncoStepAtEntry;
    restarted = true;
  }
  if (!std::isfinite(t.noiseAvg) || !std::isfinite(engine.snrDb.load())) {
    t.noiseAvg = 0.0f;
    engine.snrDb = 0.0f;
    restarted = true;
  }
  if (!AllFinite(t.timingAcc, 2 * engine.nmargin + 1)) {
    std::memset(t.timingAcc, 0, sizeof(t.timingAcc));
    std::memset(engine.marginProfile, 0, sizeof(float) * static_cast<size_t>(2 * engine.nmargin + 1));
    restarted = true;
  }
  if (restarted) ++t.loopRestarts;
}

void WriteStatusWords() {
  DebugParaBlock* para = device.debugPara;
  if (!para) return;
  para->SetFloat(0, engine.snrDb);
  para->SetFloat(1, static_cast<float>(engine.nfft * static_cast<double>(engine.ncoStep) / TWO_PI));
  para->SetInt(10, engine.channelState);
  para->SetFloat(11, static_cast<float>(engine.failsThisSecond.load()));
}

}  // namespace

void ProcessSymbol() {
  TrackerState& t = tracker;
  // Without a tracking set-up there are no buffers to work on.
  if (t.carrierRing == nullptr || engine.symbolBuffer == nullptr) return;
  const int32_t count = engine.symbolCount;

  // Probe: count the symbol, rewind the record at the frame start.
  if (engine.probeActive != 0) ProbeBeginSymbol(engine.symbolIndex);

  // Stage change and the events of the schedule.
  RunSchedule(count);

  // Timing jump decided in the previous symbol.
  NoteTimingJump();

  // Sample clock statistic.
  MeasureClockOffset();

  // Filter pair scan and decoder hand-over.
  StartScanAndHandOver(count);

  // The frequency loop rests in the one symbol read at a new position.
  t.freqLoopOn = (count >= 16 && t.jumpPending == 0) ? 1 : 0;

  // Rotate only the span that the transform and the timing gate read, from where the walk found
  // the symbol into symbolBuffer.
  const float startPhase = engine.ncoPhase + static_cast<float>(t.rotateStart) * engine.ncoStep;
  const float* span = engine.symbolSpan != nullptr ? engine.symbolSpan : engine.symbolBuffer;
  RotateByNco(span + 2 * t.rotateStart, engine.symbolBuffer + 2 * t.rotateStart, t.rotateCount, startPhase,
              engine.ncoStep);

  // Advance the rotator to the next symbol.
  engine.ncoPhase = WrapPhase(engine.ncoPhase + static_cast<float>(engine.nsymbol) * engine.ncoStep);

  // Transform, and the span into the carrier ring.
  TransformAndStore();

  // Channel estimate in time, the channel watch, then across carriers.
  EstimateChannel();
  FilterAcrossCarriers();

  // Filter pair in force.
  ChooseFilterPair();

  // Interpolation and equalisation of the symbol three symbols back.
  InterpolateChannel();
  EqualiseCarriers();

  // Low-SNR watch.
  WatchLowSnr();

  // Score of the filter pair under test.
  ScoreFilterPair();

  // Frequency loop.
  if (t.freqLoopOn) RunFrequencyLoop();

  // Timing loop.
  const float timingGain = t.timingGain;
  t.timingGain *= t.levelScale;
  TrackTiming();
  t.timingGain = timingGain;
  if (engine.timingEnabled == 0) engine.timingStep = 0;

  // Probe: the timing steps of this frame.
  if (engine.probeActive != 0) ProbeNoteTimingStep(engine.symbolIndex, t.timingPeriod, engine.timingStep);

  // Next symbol.
  float* swap = t.spectrumNow;
  t.spectrumNow = t.spectrumPrev;
  t.spectrumPrev = swap;
  engine.symbolCount = engine.symbolCount + 1;

  // Probe fill: the carriers of the first symbols of the frame, the rest once per frame.
  if (ProbeFillDue()) {
    const int32_t ndata = engine.ndata;
    const int32_t ncarrier = engine.ncarrier;
    ProbeStoreCarriers(engine.symbolIndex, {engine.equalisedCarriers, static_cast<size_t>(2 * ndata)},
                       engine.bitsPerCarrier, engine.qpskSoftTarget,
                       {t.softWeight, static_cast<size_t>(ndata)});
    ProbeFinishFrame(engine.symbolIndex,
                     {engine.snrDb, engine.nfft, engine.ncoStep,
                      {t.channelPlanes, static_cast<size_t>(ncarrier)},
                      {t.channelPlanes + ncarrier, static_cast<size_t>(ncarrier)},
                      {t.carrierSlotNow, static_cast<size_t>(2 * engine.nspan)},
                      {t.timingAcc, TIMING_ACC_SIZE}, t.rotateStart, t.timingSpan,
                      engine.channelState, engine.blockState});
  }

  // Status words.
  RestartNonFiniteLoops();
  WriteStatusWords();
}

}  // namespace zfn
