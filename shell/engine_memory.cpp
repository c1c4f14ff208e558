#include "shell/engine_memory.h"

#include <cstdlib>

#include "shell/diagnostics.h"
#include "shell/fault_injection.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"

namespace zfn {

namespace {

template <class T>
T* AllocateEngine(int32_t bytes, ShellFault fault) {
  if (FaultInjected(fault)) return nullptr;
  return static_cast<T*>(std::malloc(static_cast<size_t>(bytes)));
}

}  // namespace

int32_t RefinedSwitchFromEnvironment() {
  const char* value = std::getenv(REFINED_VARIABLE);
  return value != nullptr && value[0] == '1' && value[1] == '\0' ? 1 : 0;
}

int32_t EngineInit() {
  engine.arenaBase = AllocateEngine<uint8_t>(WORK_ARENA_BYTES, ShellFault::ArenaAlloc);
  if (engine.arenaBase == nullptr) return 0;
  engine.arenaNext = engine.arenaBase;
  engine.arenaFree = WORK_ARENA_BYTES;

  engine.sampleBlock = AllocateEngine<float>(BLOCK_FLOATS * 4, ShellFault::SampleBlockAlloc);
  if (engine.sampleBlock == nullptr) return 0;

  engine.modeGuard = &engine.modeGuardRecord;
  engine.layerParams = &engine.layerParamsRecord;

  ResetAcquisition();

  engine.paramReloadRequest = 0;
  engine.modeIndexLast = -1;
  engine.blockState = BLOCK_IDLE;
  engine.autoResync = 1;
  engine.rsDecoderFull = 1;
  engine.refined = RefinedSwitchFromEnvironment();
  engine.bytePhase = 0;
  engine.bytePhaseTries = 0;
  for (int32_t v = RS_VERDICT_CLEAN; v <= RS_VERDICT_FAILED; ++v) {
    engine.rsVerdicts[v] = 0;
    engine.rsStreamVerdicts[v] = 0;
  }

  LoadParameterSet(PARAM_DEFAULTS);

  if (BuildRsTables() == 0) return 0;
  SetUpTransportOutput();  // delivery buffer and packet ring, 40384 bytes of the arena

  engine.arenaAfterInit = engine.arenaNext;
  engine.arenaFreeAfterInit = engine.arenaFree;
  return 1;
}

void EngineFree() {
  if (engine.arenaBase != nullptr) {
    std::free(engine.arenaBase);
    engine.arenaBase = nullptr;
    engine.arenaNext = nullptr;
    engine.arenaFree = 0;
  }
  std::free(engine.sampleBlock);
  engine.sampleBlock = nullptr;
  // The descriptors exist only once a numerology was set up. Forgetting the mode afterwards keeps
  // a second free (an open that fails early after an earlier session) from releasing them twice.
  if (engine.modeIndexLast != -1) {
    FreeDftPlans();
    engine.modeIndexLast = -1;
  }
  engine.blockState = BLOCK_IDLE;
  engine.modeGuard = nullptr;
  engine.layerParams = nullptr;
  engine.tmccAccepted = 0;
  FreeRsTables();
}

void ResetAcquisition() {
  engine.ncoPhase = 0.0f;
  for (int i = 0; i < 4; ++i) {
    engine.tmccPrevRe[i] = 0.0f;
    engine.tmccPrevIm[i] = 0.0f;
  }
  engine.snrDb = 0.0f;
  engine.tmccAccepted = 0;
  engine.straddleFlag = 0;
  engine.resyncRequest = 0;
  engine.tmccFailed = 0;
  engine.timingEnabled = 1;
  engine.jumpListCount = 0;
}

void ArenaRewindToInit() {
  engine.arenaNext = engine.arenaAfterInit;
  engine.arenaFree = engine.arenaFreeAfterInit;
}

void ArenaRewindToNumerology() {
  engine.arenaNext = engine.arenaAfterNumerology;
  engine.arenaFree = engine.arenaFreeAfterNumerology;
}

}  // namespace zfn
