#pragma once
// Fields of the engine record written by the shell: block scheduling, the work arena, the
// parameter set, the diagnostics probe and the static switches.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

// Block states; the numbers are part of the status words the host can read.
constexpr int32_t BLOCK_NO_SIGNAL = -2;
constexpr int32_t BLOCK_IDLE = -1;
constexpr int32_t BLOCK_MODE_DETECT = 0;
constexpr int32_t BLOCK_COARSE_SYNC = 1;
constexpr int32_t BLOCK_FRAME_SYNC = 2;
constexpr int32_t BLOCK_TRACKING = 3;

// Sample arithmetic of the intake.
constexpr int32_t RAW_BLOCK_BYTES = 240640;     // one RawBlock
constexpr int32_t SOURCE_READ_BYTES = 240648;   // one read request to the source
constexpr int32_t BLOCK_SAMPLES = 60160;        // complex samples per block
constexpr int32_t BLOCK_FLOATS = 120320;        // floats per block, interleaved re, im
constexpr int32_t WORK_ARENA_BYTES = 2000000;   // the one pool of the engine

// Parameter set sources of LoadParameterSet.
constexpr uint8_t PARAM_DEFAULTS = 0;
constexpr uint8_t PARAM_FROM_FILES = 1;
constexpr uint8_t PARAM_BY_MODE = 2;

// Timing steps kept for the plotting probe per frame.
constexpr int32_t JUMP_LIST_CAPACITY = 29;

struct ModeGuard {
  uint8_t mode;   // 0..2 = ISDB-T Mode 1..3
  uint8_t guard;  // 0..3 = guard 1/32, 1/16, 1/8, 1/4
};

struct LayerParams {
  uint8_t modulation;  // 0..3
  uint8_t codeRate;    // 0..4
  uint8_t interleave;  // 0..3
};

struct ShellFields {
  // Block scheduling (read with no lock by the status functions).
  RelaxedWord<int32_t> blockState{BLOCK_IDLE};
  float* sampleBlock;
  int32_t readPos;         // next symbol start in sampleBlock, in floats
  int32_t straddleFlag;
  int32_t straddleFloats;
  // The samples of the symbol a step of the walk works on: straight in sampleBlock where the span
  // lies inside it, else symbolBuffer, where CutSampleSpan put it together. Null outside the walk's
  // steps, when the step reads symbolBuffer.
  const float* symbolSpan;
  RelaxedWord<int32_t> resyncRequest;
  int32_t clockWritePending;
  // Position in the 204-symbol frame and in the 4-symbol scattered pilot cycle. Frame sync sets
  // them; each symbol step of the walk advances them.
  int32_t symbolIndex;
  int32_t spPhase;

  // Work arena: a pool of WORK_ARENA_BYTES taken by moving a pointer, rewound to two marks.
  uint8_t* arenaBase;
  uint8_t* arenaNext;
  int32_t arenaFree;
  uint8_t* arenaAfterInit;
  int32_t arenaFreeAfterInit;
  uint8_t* arenaAfterNumerology;
  int32_t arenaFreeAfterNumerology;

  ModeGuard modeGuardRecord;
  LayerParams layerParamsRecord;
  ModeGuard* modeGuard;
  LayerParams* layerParams;
  int32_t modeIndexLast{-1};

  // Static switches: set by EngineInit and the debug command, untouched by any reset.
  RelaxedWord<int32_t> autoResync;      // 0: the decoder's statistics no longer restart acquisition
  RelaxedWord<int32_t> rsDecoderFull;   // 1: the full Reed-Solomon routine, 0: the other one
  RelaxedWord<int32_t> forcedCarrierOffset{-46};  // debug command 8; the carrier search has no override that reads it
  // 1: the refinements beside the designed path are on (environment ZFNISDBT_REFINED=1, read by
  // EngineInit, so at open and when the synchronous driver opens); 0: the designed behaviour exactly.
  RelaxedWord<int32_t> refined;

  // Parameter set of the tracking stages. Stage arrays hold one value per timing stage 0, 1, 2.
  int32_t stageStartSymbol[3];
  float stageSpanFraction[3];
  float stageLoopGain[3];
  int32_t stageUpdatePeriod[3];
  float stageStepFraction[3];
  int32_t stageSpare[3];
  int32_t stageDeadZone[3];
  float spareTapSets[18];  // nine complex values, read from ParaSetCE.txt only
  float interpTapsA[6];    // three complex taps each
  float interpTapsB[6];
  float interpTapsC[6];
  float pilotGainScaleA;
  float pilotGainScaleB;
  int32_t guardScanStart;
  float qpskSoftTarget;
  float lmsStep;
  float mixWeightFast;
  float mixWeightSlow;
  float tapDiffLimitBC;
  float tapDiffLimitAB;
  float tapFloorA;
  float tapFloorB;
  float tapFloorC;
  float freqLoopGain;
  RelaxedWord<int32_t> paramReloadRequest;  // 0 none, 1 files at the next block, 2 defaults
  int32_t paramFilesActive;                 // 1 after a file load, 0 after a defaults load

  // Engine side of the plotting probe.
  int32_t probeActive;       // copy of probeEnable, taken between blocks
  uint32_t probeTick;        // symbols while the probe is active, never reset
  int32_t probeDecimation{1};
  int32_t probeRewind{1};
  int32_t jumpListCount;     // timing steps of the last frame
  int32_t jumpList[JUMP_LIST_CAPACITY];

  // Refinement: where the four-byte sample groups start in the device stream (0..3). A byte lost
  // from or inserted into the stream moves every group; each acquisition that fails before
  // tracking tries the next phase. bytePhaseTries counts the acquisitions that ended without an
  // accepted TMCC word since the last tracking: after three more tries the engine settles in
  // BLOCK_NO_SIGNAL as designed.
  int32_t bytePhase;
  int32_t bytePhaseTries;
};

}  // namespace zfn
