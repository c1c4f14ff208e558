// Wrappers around the stage functions, for the stage-share benchmark. The benchmark is linked with
// --wrap=<symbol> for each of them: the engine's calls then land here, and __real_<symbol> is the
// stage itself. The engine's objects are the ordinary ones; the normal build is untouched.
#include "bench/engine/stage_timing.h"

#include <chrono>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

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

// The mangled names of the wrapped functions (namespace zfn); CMakeLists.txt lists the same.
#define ZFN_WRAP_VOID(sym, clock)              \
  extern "C" void __real_##sym();              \
  extern "C" void __wrap_##sym() {             \
    Timed t(zfn::bench::clock);                \
    __real_##sym();                            \
  }

extern "C" {
ZFN_WRAP_VOID(_ZN3zfn14EstimatePilotsEv, STAGE_ESTIMATION)
ZFN_WRAP_VOID(_ZN3zfn20FilterAcrossCarriersEv, STAGE_ESTIMATION)
ZFN_WRAP_VOID(_ZN3zfn18InterpolateChannelEv, STAGE_ESTIMATION)
ZFN_WRAP_VOID(_ZN3zfn16EqualiseCarriersEv, STAGE_ESTIMATION)
ZFN_WRAP_VOID(_ZN3zfn11TrackTimingEv, STAGE_TIMING)
ZFN_WRAP_VOID(_ZN3zfn12RunByteStageEv, STAGE_BYTE_STAGE)
ZFN_WRAP_VOID(_ZN3zfn10SymbolSinkEv, STAGE_SYMBOL_SINK)

void __real__ZN3zfn13ProcessSymbolEv();
void __wrap__ZN3zfn13ProcessSymbolEv() {
  zfn::bench::inProcessSymbol = true;
  {
    Timed t(zfn::bench::STAGE_PROCESS_SYMBOL);
    __real__ZN3zfn13ProcessSymbolEv();
  }
  zfn::bench::inProcessSymbol = false;
}

zfn::DftStatus __real__ZN3zfn18DftiComputeForwardEPNS_13DftDescriptorEPf(zfn::DftPlan plan, float* data);
zfn::DftStatus __wrap__ZN3zfn18DftiComputeForwardEPNS_13DftDescriptorEPf(zfn::DftPlan plan, float* data) {
  Timed t(zfn::bench::inProcessSymbol ? zfn::bench::STAGE_TRANSFORM_TRACKING : zfn::bench::STAGE_TRANSFORM_OTHER);
  return __real__ZN3zfn18DftiComputeForwardEPNS_13DftDescriptorEPf(plan, data);
}

void __real__ZN3zfn11RotateByNcoEPfidd(float* samples, int32_t count, double phase, double step);
void __wrap__ZN3zfn11RotateByNcoEPfidd(float* samples, int32_t count, double phase, double step) {
  Timed t(zfn::bench::STAGE_ROTATION);
  __real__ZN3zfn11RotateByNcoEPfidd(samples, count, phase, step);
}

void __real__ZN3zfn13ViterbiDecodeEPKtiPh(const uint16_t* pairs, int32_t count, uint8_t* output);
void __wrap__ZN3zfn13ViterbiDecodeEPKtiPh(const uint16_t* pairs, int32_t count, uint8_t* output) {
  Timed t(zfn::bench::STAGE_VITERBI);
  __real__ZN3zfn13ViterbiDecodeEPKtiPh(pairs, count, output);
}

int32_t __real__ZN3zfn8DecodeRsEPh(uint8_t* packet);
int32_t __wrap__ZN3zfn8DecodeRsEPh(uint8_t* packet) {
  Timed t(zfn::bench::STAGE_REED_SOLOMON);
  return __real__ZN3zfn8DecodeRsEPh(packet);
}

int32_t __real__ZN3zfn13CheckRsParityEPKh(const uint8_t* packet);
int32_t __wrap__ZN3zfn13CheckRsParityEPKh(const uint8_t* packet) {
  Timed t(zfn::bench::STAGE_REED_SOLOMON);
  return __real__ZN3zfn13CheckRsParityEPKh(packet);
}
}
