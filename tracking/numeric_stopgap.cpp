// Stand-in numeric layer until the acquisition branch lands; see numeric_stopgap.h.
#include "tracking/numeric_stopgap.h"

#include <fftw3.h>

#include <cmath>

#include "shell/receiver_state.h"

namespace zfn {

namespace {

struct PlanCache {
  int32_t n = 0;
  fftwf_plan forward = nullptr;
  fftwf_plan backward = nullptr;
};

PlanCache quarterCache, fullCache;

int32_t Run(PlanCache& cache, int32_t n, float* data, int32_t direction) {
  if (cache.n != n) {
    if (cache.forward) fftwf_destroy_plan(cache.forward);
    if (cache.backward) fftwf_destroy_plan(cache.backward);
    fftwf_complex* probe = fftwf_alloc_complex(static_cast<size_t>(n));
    cache.forward = fftwf_plan_dft_1d(n, probe, probe, FFTW_FORWARD, FFTW_ESTIMATE | FFTW_UNALIGNED);
    cache.backward = fftwf_plan_dft_1d(n, probe, probe, FFTW_BACKWARD, FFTW_ESTIMATE | FFTW_UNALIGNED);
    fftwf_free(probe);
    cache.n = n;
  }
  auto* d = reinterpret_cast<fftwf_complex*>(data);
  fftwf_execute_dft(direction == -1 ? cache.forward : cache.backward, d, d);
  return 1;
}

}  // namespace

int32_t TransformQuarter(float* data, int32_t direction) {
  return Run(quarterCache, engine.nquarter, data, direction);
}

int32_t TransformFull(float* data, int32_t direction) {
  return Run(fullCache, engine.nfft, data, direction);
}

void RotateByNco(float* samples, int32_t count, double phase, double step) {
  for (int32_t n = 0; n < count; ++n) {
    const double a = phase + n * step;
    const float c = static_cast<float>(std::cos(a));
    const float s = static_cast<float>(std::sin(a));
    const float re = samples[2 * n];
    const float im = samples[2 * n + 1];
    samples[2 * n] = re * c - im * s;
    samples[2 * n + 1] = re * s + im * c;
  }
}

}  // namespace zfn
