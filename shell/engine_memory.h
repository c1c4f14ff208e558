#pragma once
// Engine memory: the heap blocks taken at open, the work arena and its two marks, and the
// acquisition reset.
#include <cstdint>

namespace zfn {

// The switch of the refinements: "1" turns them all on; unset, "0" or anything else keeps the
// designed behaviour exactly.
constexpr const char* REFINED_VARIABLE = "ZFNISDBT_REFINED";
int32_t RefinedSwitchFromEnvironment();

// Builds the engine memory; 0 on an allocation failure (what exists is left to EngineFree).
int32_t EngineInit();
// Releases the engine memory; safe on a partly built engine.
void EngineFree();
// Clears what a new acquisition must not inherit.
void ResetAcquisition();

// Rewinds the arena to the mark after EngineInit (a new numerology follows) or to the mark after
// the last numerology set-up (the numerology stays).
void ArenaRewindToInit();
void ArenaRewindToNumerology();

// Releases both DFT descriptors of the numerology set-up (fftPlan, then quarterPlan).
void FreeDftPlans();

}  // namespace zfn
