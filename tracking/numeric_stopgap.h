#pragma once
// Stand-in declarations of the numeric layer and of the carrier rotator until the acquisition
// branch with the real ones is merged. Delete this file and its .cpp then.
#include <cstdint>

namespace zfn {

// In-place DFT of nquarter / nfft complex floats; direction -1 forward, else backward; no scaling.
int32_t TransformQuarter(float* data, int32_t direction);
int32_t TransformFull(float* data, int32_t direction);

// y[n] = x[n] * exp(j*(phase + n*step)) for count complex samples (rounded up to a multiple of 4).
void RotateByNco(float* samples, int32_t count, double phase, double step);

}  // namespace zfn
