#pragma once
// Fields of the engine record written by the shell: block scheduling and the work arena.
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
  uint8_t* rawBlock;
  float* sampleBlock;
  int32_t readPos;         // next symbol start in sampleBlock, in floats
  int32_t straddleFlag;
  int32_t straddleFloats;
  RelaxedWord<int32_t> resyncRequest;
  int32_t clockWritePending;

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

  // Needed early by tracking; owned by shell
  // Receiver parameter set: the timing stages.
  int32_t stageStartSymbol[3];
  float stageSpanFraction[3];
  float stageLoopGain[3];
  int32_t stageUpdatePeriod[3];
  float stageStepFraction[3];
  int32_t stageSpare[3];
  int32_t stageDeadZone[3];
  // Channel filter taps: three complex values each, interleaved re, im.
  float interpTapsA[6];
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
  int32_t paramFilesActive;
  // Word 4 of the ControlBlock: copy of snrDb for the API threads.
  RelaxedWord<float> lastSnrDb;
};

}  // namespace zfn
