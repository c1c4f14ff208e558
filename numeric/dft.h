#pragma once
// Complex DFT interface of the engine: descriptors of one length each, single precision, complex
// interleaved (re, im), in place, forward with a negative exponent, no scaling in either direction.
// The calls follow the shape of the DFTI interface that the stages were written against; FFTW3
// single precision stands behind them.
#include <cstdint>

namespace zfn {

struct DftDescriptor;                 // opaque
using DftPlan = DftDescriptor*;       // handle, null when there is none
using DftStatus = long;

constexpr int32_t DFTI_SINGLE = 35;
constexpr int32_t DFTI_COMPLEX = 32;
constexpr DftStatus DFTI_NO_ERROR = 0;
// Failure statuses of this implementation (any non-zero value is an error).
constexpr DftStatus DFTI_MEMORY_ERROR = 1;
constexpr DftStatus DFTI_INVALID_CONFIGURATION = 2;
constexpr DftStatus DFTI_BAD_DESCRIPTOR = 5;
constexpr DftStatus DFTI_UNCOMMITTED = 6;
constexpr DftStatus DFTI_PLANNER_FAILED = 7;

// Creates an uncommitted descriptor of `length` complex points. Only DFTI_SINGLE, DFTI_COMPLEX and
// one dimension are supported; anything else gives DFTI_INVALID_CONFIGURATION and a null handle.
DftStatus DftiCreateDescriptor(DftPlan* plan, int32_t precision, int32_t domain, int32_t dimension,
                               int32_t length);
// Builds the transforms of the descriptor. Planning is serialised by a lock inside this layer.
DftStatus DftiCommitDescriptor(DftPlan plan);
// In place transform of `length` complex floats: forward exp(-j...), backward exp(+j...), unscaled.
// Any alignment of `data` is accepted.
DftStatus DftiComputeForward(DftPlan plan, float* data);
DftStatus DftiComputeBackward(DftPlan plan, float* data);
// The same from the row `in` into the row `out`, `in` left as it was. Rows that overlap or are not
// aligned go through a copy into `out` and the transform in place.
DftStatus DftiComputeForwardOutOfPlace(DftPlan plan, const float* in, float* out);
DftStatus DftiComputeBackwardOutOfPlace(DftPlan plan, const float* in, float* out);
// Releases the descriptor and nulls the handle. A null handle gives DFTI_BAD_DESCRIPTOR.
DftStatus DftiFreeDescriptor(DftPlan* plan);
// Non-zero when `status` belongs to `errorClass`; only DFTI_NO_ERROR is a class here.
int32_t DftiErrorClass(DftStatus status, DftStatus errorClass);

// Transforms of the engine's two descriptors: direction -1 forward, anything else backward.
// Result 1 done, 0 failed (no descriptor or a bad status).
int32_t TransformQuarter(float* data, int32_t direction);  // quarterPlan, nquarter points
int32_t TransformQuarter(const float* in, float* out, int32_t direction);  // from in into out
int32_t TransformFull(float* data, int32_t direction);     // fftPlan, nfft points

// Releases fftPlan, then quarterPlan, of the engine record. Safe when either is null.
void FreeDftPlans();

}  // namespace zfn
