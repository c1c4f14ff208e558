// Stand-ins for entry points of other subsystems that tracking calls, until their branches are
// merged: the parameter set loader (defaults and the values by mode), the sample clock write of the
// front end, and the shell's device record. Delete each when the real one lands.
#include <bit>
#include <cstring>

#include "shell/device_state.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "stage_stand_ins.h"

namespace zfn {

DeviceState device;

namespace test {
int clockWrites = 0;
float clockWritePpm = 0.0f;
}  // namespace test

int32_t WriteSampleClockOffset(uint8_t relative, float ppm) {
  ++test::clockWrites;
  test::clockWritePpm = ppm;
  return 1;
}

void LoadParameterSet(uint8_t source) {
  ReceiverState& e = engine;
  if (source == 0) {
    const int32_t start[3] = {0, 5000, 0};
    std::memcpy(e.stageStartSymbol, start, sizeof start);
    e.stageSpanFraction[0] = e.stageSpanFraction[1] = 0.125f;
    e.stageLoopGain[0] = e.stageLoopGain[1] = 10.0f;
    e.stageUpdatePeriod[0] = 8;
    e.stageUpdatePeriod[1] = 32;
    e.stageStepFraction[0] = 0.125f;
    e.stageStepFraction[1] = 0.03125f;
    e.stageSpare[0] = e.stageSpare[1] = 0;
    e.stageDeadZone[0] = 0;
    e.stageDeadZone[1] = 1;
    const float a[6] = {std::bit_cast<float>(0x3DCCCCCDu), 0, std::bit_cast<float>(0x3FC00000u), 0,
                        std::bit_cast<float>(0xBF19999Au), 0};
    const float b[6] = {std::bit_cast<float>(0x3E29FBE7u), 0, std::bit_cast<float>(0x3FAA9FBEu), 0,
                        std::bit_cast<float>(0xBF000000u), 0};
    const float c[6] = {std::bit_cast<float>(0x3EAA7EFAu), 0, std::bit_cast<float>(0x3F800000u), 0,
                        std::bit_cast<float>(0xBEAA7EFAu), 0};
    std::memcpy(e.interpTapsA, a, sizeof a);
    std::memcpy(e.interpTapsB, b, sizeof b);
    std::memcpy(e.interpTapsC, c, sizeof c);
    e.qpskSoftTarget = 4.0f;
    e.lmsStep = std::bit_cast<float>(0x3951B717u);
    e.mixWeightFast = 1.0f;
    e.mixWeightSlow = 0.25f;
    e.tapDiffLimitBC = e.tapDiffLimitAB = std::bit_cast<float>(0x3E4CCCCDu);
    e.tapFloorA = e.tapFloorB = e.tapFloorC = 0.5f;
    e.freqLoopGain = std::bit_cast<float>(0x31ABCC77u);
    e.paramFilesActive = 0;
  } else if (source == 2) {
    const int index = e.modeGuard->mode * 4 + e.modeGuard->guard;
    const bool shortGuardMode3 = index == 8 || index == 9;
    e.stageStartSymbol[0] = 0;
    e.stageStartSymbol[1] = 5000;
    e.stageStartSymbol[2] = 0;
    e.stageSpanFraction[0] = e.stageSpanFraction[1] = 0.125f;
    e.stageLoopGain[0] = e.stageLoopGain[1] = 10.0f;
    e.stageUpdatePeriod[0] = 8;
    e.stageUpdatePeriod[1] = 32;
    e.stageStepFraction[0] = shortGuardMode3 ? 0.0625f : 0.03125f;
    e.stageStepFraction[1] = 0.03125f;
    e.stageSpare[0] = e.stageSpare[1] = 0;
    e.stageDeadZone[0] = 0;
    e.stageDeadZone[1] = shortGuardMode3 ? 0 : 1;
  }
}

}  // namespace zfn
