#pragma once
// TrackerState: the stage-private fields of symbol tracking, one instance per process (`tracker`).
// Complex arrays are interleaved 32-bit floats (re, im); rows hold nspan/3 complex values, one per
// third carrier of the analysis span.
#include <cstdint>
#include <cstdio>

namespace zfn {

constexpr int32_t INTERP_TAPS = 22;        // taps of the frequency interpolator
constexpr int32_t INTERP_PAIRS = 5;        // filter pairs, one per delay centre
constexpr int32_t INTERP_BLOCK = 256;      // complex entries per filter spectrum (largest nquarter)
constexpr int32_t TIMING_ACC_SIZE = 257;   // 2 * largest nmargin + 1
constexpr int32_t MAX_ROW = 240;           // nspan/3 of the largest mode
constexpr int32_t MAX_DATA = 384;          // ndata of the largest mode
constexpr int32_t MAX_QUARTER = 256;       // nquarter of the largest mode
constexpr int32_t CHANNEL_ROW_DELAY = 11;  // delay of the 22 interpolation taps in row entries
constexpr int32_t PILOT_HISTORY_ROWS = 13;

// jumpStage: the re-basing of the channel estimator after a timing jump. The driver starts it at
// the jump symbol n0 and EstimatePilots moves it on. The time filter's output is three symbols
// behind, so the pilots of n0..n0+3 are taken back to the old timing, one stage a symbol; the last
// of them passes JUMP_REBASE, which moves the rows onto the new timing, and n0+4 ends the jump.
enum JumpStage : int32_t {
  JUMP_AT_REST = 0,
  JUMP_DEROTATE_FIRST = 1,  // set by the driver at n0
  JUMP_DEROTATE_LAST = 4,   // 1..4: the pilots of this symbol are derotated to the old timing
  JUMP_REBASE = 5,          // the rows are moved to the new timing
  JUMP_REBASED_ROW = 6,     // the next symbol filters with rebasedRow in place of pastRow2
  JUMP_FINISHED = 7,        // the end of that symbol returns to rest
};

struct TrackerState {
  // Buffers carved from the work arena at set-up, in this order.
  float* carrierRing;        // 4 slots of nspan complex carriers
  int32_t carrierRingStride; // 2*nspan floats
  int32_t carrierRingNext;   // slot of the next symbol; after the write, the oldest slot
  float* carrierSlotNow;     // slot this symbol went to
  float* channelPlanes;      // ncarrier real parts, then ncarrier imaginary parts (for the probe)
  float* spareCarriers;      // ndata complex, reserved
  float* pastRow1;
  float* pastRow2;
  float* filteredRow;
  float* pilotRow;
  float* timeTaps;           // 3 sets of 3 complex taps
  float* freqTaps;           // 7 complex taps, index 3 the centre
  float* spectrumA;
  float* spectrumB;
  float* pilotHistory;       // 13 rows of nspanGrid re then nspanGrid im
  int32_t pilotHistoryStride;
  int32_t pilotHistorySlot;
  float* pilotHistoryNow;

  float* spectrumNow;        // transform of this symbol
  float* spectrumPrev;       // transform of the last symbol
  float* interpRow;          // output of the filter across carriers

  // Constants of the mode.
  int32_t segmentOffset;     // span index of segment carrier 0
  int32_t gridOffset;        // row entry of segment carrier 0
  int32_t adaptFirst;        // first pilot group in which timeTaps adapt
  int32_t adaptEnd;          // first pilot group after them
  int32_t spanCentre;        // carrier distance of span index 0 from DC
  int32_t pilotStart;        // index in pilotSign of the first span carrier
  float ceStepA;             // adaption step of timeTaps
  float ceStepB;             // adaption step of freqTaps
  const int32_t* fixedCarriers;  // segment carriers with neither data nor scattered pilots, -1 ends
  // The data carriers of the segment in order, by the scattered pilots' phase q (pilots at carriers
  // 3q + 12j), and how many there are: where each one's complex value lies, in floats, in a carrier
  // slot (from segment carrier 0) and in channelRows.
  int16_t dataCarrierAt[4][MAX_DATA];
  int16_t dataChannelAt[4][MAX_DATA];
  int32_t dataCarrierCount[4];

  // Timing loop.
  int32_t jumpPending;
  int32_t jumpInForce;
  int32_t jumpAmount;
  int32_t jumpStage;  // JumpStage
  int32_t jumpAge;
  int32_t timingSpan;
  float timingGain;
  int32_t timingMaxStep;
  int32_t timingSpare;
  int32_t timingPeriod;
  int32_t timingDeadZone;
  int32_t rotateCount;
  int32_t rotateStart;
  float timingAcc[TIMING_ACC_SIZE];

  // Sample clock statistic.
  float clockDriftSum;
  float clockPpmFirst;
  float clockPpmSecond;
  float clockPpmRunning;
  float clockPpmApplied;

  // Loop switches of the schedule.
  int32_t freqLoopOn;
  int32_t channelWatchOn;
  int32_t adaptTimeTaps;
  int32_t smoothRowsOn;
  int32_t channelStatePrev;

  // Scan of the interpolation filter pairs.
  int32_t scanStep;
  int32_t scanDwell;
  float scanScore[INTERP_PAIRS];
  // Refinement: the smoothed neighbour correlation of the channel estimate and the mean delay it
  // gives, as a fraction of the useful symbol.
  float delayCorrRe;
  float delayCorrIm;
  float meanDelay;
  const float* interpBankLow;
  const float* interpBankHigh;
  float interpLow[INTERP_PAIRS * INTERP_BLOCK * 2];
  float interpHigh[INTERP_PAIRS * INTERP_BLOCK * 2];

  // Channel watch.
  float lagTap[3];
  float lagTapAvg[3];
  int32_t watchBad;
  int32_t watchGood;
  float smoothNew;
  float smoothOld;
  float lagAvgNew;
  float rebasedRow[MAX_ROW * 2];

  // Equalisation and quality.
  // The channel interpolated across the segment, interleaved re, im, by carrier 3i + p: row p
  // (p = 0: the filtered row from segment carrier 0; 1, 2: the two interpolations' transforms from
  // row entry 0, the segment's first carrier at CHANNEL_ROW_DELAY + gridOffset).
  alignas(64) float channelRows[3][2 * MAX_QUARTER];
  float carrierPower[MAX_DATA];
  float softWeight[MAX_DATA];
  float noiseAvg;
  int32_t snrLowCount;
  int32_t snrHighCount;

  // Non-finite loop state: the rotator step at the entry to tracking, and how often a loop was
  // restarted from its set-up values since then.
  float ncoStepAtEntry;
  // Level normalisation of the gains (refinement): smoothed pilot power, and the factor in force
  // (1 in the designed behaviour).
  float pilotPowerAvg;
  float levelScale;
  int32_t loopRestarts;
  // Diagnostic text streams; nothing opens them, so they stay null.
  FILE* snrLog;
  FILE* clockLog;
  FILE* tapLog;
  FILE* channelLog;
};

extern TrackerState tracker;

// Stages of tracking, called in a fixed order by ProcessSymbol.
void DesignInterpFilters();
void MeasureClockOffset();
void TrackTiming();
void EstimatePilots();
void WatchChannelChange();
void FilterAcrossCarriers();
void InterpolateChannel();
void PlaceChannelOnPlanes();  // channelRows onto channelPlanes, carrier by carrier
void EqualiseCarriers();
void WatchLowSnr();

// Decision of the timing gate from its accumulated early and late entries.
int32_t DecideTimingStep(float early, float late, float gain, int32_t maxStep, int32_t deadZone);

}  // namespace zfn
