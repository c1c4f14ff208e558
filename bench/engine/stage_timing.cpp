// Wrappers around the stage functions, for the stage-share benchmark. The benchmark is linked with
// --wrap for each of them: the engine's calls then land here, and the real function is the stage
// itself. The engine's objects are the ordinary ones; the normal build is untouched.
#include "bench/engine/stage_timing.h"

#include <chrono>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

#include "bench/engine/stage_symbols.h"
#include "numeric/dft.h"

namespace zfn::bench {

namespace {
StageTotals totals{};
bool inProcessSymbol = false;

struct Timed {
  StageClock which;
  uint64_t start;
  explicit Timed(StageClock w) : which(w), start(StageTicks()) {}
  ~Timed() {
    totals.ticks[which] += StageTicks() - start;
    totals.calls[which] += 1;
  }
};
}  // namespace

StageTotals& Stages() { return totals; }
void ResetStages() { totals = StageTotals{}; }

uint64_t StageTicks() {
#if defined(__x86_64__) || defined(__i386__)
  return __rdtsc();
#else
  return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
}

}  // namespace zfn::bench

using zfn::bench::Timed;

// Each stage by its function: TimedX replaces the engine's calls of zfn::X (the linker's --wrap) and
// RealX is zfn::X itself. Their linker names come from stage_symbols.h, which the build generates
// from the engine library and the list of stages in CMakeLists.txt.
#define ZFN_TIMED_STAGE(result, name, params, args, clock)                       \
  result Real##name params asm("__real_" ZFN_STAGE_SYMBOL_##name);              \
  result Timed##name params asm("__wrap_" ZFN_STAGE_SYMBOL_##name);             \
  result Timed##name params {                                                    \
    Timed t(clock);                                                              \
    return Real##name args;                                                      \
  }

namespace zfn::bench {

ZFN_TIMED_STAGE(void, EstimatePilots, (), (), STAGE_ESTIMATION)
ZFN_TIMED_STAGE(void, FilterAcrossCarriers, (), (), STAGE_ESTIMATION)
ZFN_TIMED_STAGE(void, InterpolateChannel, (), (), STAGE_EQUALISATION)
ZFN_TIMED_STAGE(void, EqualiseCarriers, (), (), STAGE_EQUALISATION)
ZFN_TIMED_STAGE(void, TrackTiming, (), (), STAGE_TIMING)
ZFN_TIMED_STAGE(void, RunByteStage, (), (), STAGE_BYTE_STAGE)
ZFN_TIMED_STAGE(void, SymbolSink, (), (), STAGE_SYMBOL_SINK)
ZFN_TIMED_STAGE(void, RotateByNco, (const float* in, float* out, int32_t count, double phase, double step),
                (in, out, count, phase, step), STAGE_ROTATION)
ZFN_TIMED_STAGE(void, ViterbiDecode, (const uint16_t* pairs, int32_t count, uint8_t* output), (pairs, count, output),
                STAGE_VITERBI)
ZFN_TIMED_STAGE(int32_t, DecodeRs, (uint8_t * packet), (packet), STAGE_REED_SOLOMON)
ZFN_TIMED_STAGE(int32_t, CheckRsParity, (const uint8_t* packet), (packet), STAGE_REED_SOLOMON)

// The whole symbol, and the transform timed as part of it or of acquisition.
void RealProcessSymbol() asm("__real_" ZFN_STAGE_SYMBOL_ProcessSymbol);
void TimedProcessSymbol() asm("__wrap_" ZFN_STAGE_SYMBOL_ProcessSymbol);
void TimedProcessSymbol() {
  inProcessSymbol = true;
  {
    Timed t(STAGE_PROCESS_SYMBOL);
    RealProcessSymbol();
  }
  inProcessSymbol = false;
}

DftStatus RealDftiComputeForward(DftPlan plan, float* data) asm("__real_" ZFN_STAGE_SYMBOL_DftiComputeForward);
DftStatus TimedDftiComputeForward(DftPlan plan, float* data) asm("__wrap_" ZFN_STAGE_SYMBOL_DftiComputeForward);
DftStatus TimedDftiComputeForward(DftPlan plan, float* data) {
  Timed t(inProcessSymbol ? STAGE_TRANSFORM_TRACKING : STAGE_TRANSFORM_OTHER);
  return RealDftiComputeForward(plan, data);
}

DftStatus RealDftiComputeForwardOutOfPlace(DftPlan plan, const float* in, float* out)
    asm("__real_" ZFN_STAGE_SYMBOL_DftiComputeForwardOutOfPlace);
DftStatus TimedDftiComputeForwardOutOfPlace(DftPlan plan, const float* in, float* out)
    asm("__wrap_" ZFN_STAGE_SYMBOL_DftiComputeForwardOutOfPlace);
DftStatus TimedDftiComputeForwardOutOfPlace(DftPlan plan, const float* in, float* out) {
  Timed t(inProcessSymbol ? STAGE_TRANSFORM_TRACKING : STAGE_TRANSFORM_OTHER);
  return RealDftiComputeForwardOutOfPlace(plan, in, out);
}

}  // namespace zfn::bench
