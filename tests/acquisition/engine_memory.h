#pragma once
// Engine memory for stage tests that run without the shell: the work arena, the sample block and
// the two record pointers, as the engine's set-up leaves them; released again at the end.
#include <cstdlib>
#include <vector>

#include "numeric/dft.h"
#include "shell/receiver_state.h"

namespace zfn::test {

struct EngineMemory {
  std::vector<uint8_t> arena = std::vector<uint8_t>(WORK_ARENA_BYTES);
  std::vector<float> block = std::vector<float>(BLOCK_FLOATS);

  EngineMemory() {
    engine.arenaBase = arena.data();
    engine.arenaNext = arena.data();
    engine.arenaFree = WORK_ARENA_BYTES;
    engine.arenaAfterInit = arena.data();
    engine.arenaFreeAfterInit = WORK_ARENA_BYTES;
    engine.sampleBlock = block.data();
    engine.modeGuard = &engine.modeGuardRecord;
    engine.layerParams = &engine.layerParamsRecord;
    engine.modeIndexLast = -1;
  }
  ~EngineMemory() {
    if (engine.modeIndexLast != -1) FreeDftPlans();
    engine.modeIndexLast = -1;
    engine.arenaBase = engine.arenaNext = engine.arenaAfterInit = engine.arenaAfterNumerology = nullptr;
    engine.sampleBlock = nullptr;
  }
  EngineMemory(const EngineMemory&) = delete;
  EngineMemory& operator=(const EngineMemory&) = delete;
};

}  // namespace zfn::test
