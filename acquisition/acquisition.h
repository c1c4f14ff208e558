#pragma once
// Acquisition internals used by the stages, by tracking and by tests. The stage entry points that
// the shell drives are in shell/stages.h.
#include <cstdint>

namespace zfn {

constexpr int32_t TMCC_WORD_BITS = 184;  // shortened (273,191) difference-set cyclic code
constexpr int32_t TMCC_INFO_BITS = 102;

// Cyclic prefix correlation of one mode and guard hypothesis over four symbol periods of x
// (interleaved complex floats from sample 0); writes guardPeak and guardMetric at mode*4 + guard.
void MeasureGuardCorrelation(const float* x, int32_t mode, int32_t guard);

// out[n] = in[n] * exp(j*(phase + n*step)); in == out rotates in place, other buffers must not
// overlap. Works in groups of four: count is rounded up to a multiple of four, at least four, and
// both buffers must hold that many complex samples.
void RotateByNco(const float* in, float* out, int32_t count, double phase, double step);

// ncoPhase += nsymbol * ncoStep (single precision), wrapped into [0, 2*pi).
void AdvanceNcoPhaseBySymbol();

// TMCC: 204 hard bits (+1/-1) starting at the sync word's first bit. Result 1 clean and not
// receivable, 2 clean and receivable, 3 unusable, 4 corrected and receivable.
int32_t DecodeTmcc(const int8_t* tmccFrame);
// 0 when the 184 bits (0/1, highest degree first) form a codeword, else 1.
int32_t TmccSyndrome(const uint8_t* tmccWord);
// Majority-logic repair of positions 0..20 in place. Always 2.
int32_t TmccMajorityCorrect(uint8_t* tmccWord);

}  // namespace zfn
