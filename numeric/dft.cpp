#include "numeric/dft.h"

#include <fftw3.h>

#include <mutex>
#include <new>

#include "shell/receiver_state.h"

namespace zfn {

// One descriptor holds four FFTW plans: forward and backward, each for SIMD-aligned data and for
// data of any alignment. Arena buffers carry no alignment step, so the symbol body may sit on any
// 8-byte boundary; the aligned plans serve the common case at full speed.
struct DftDescriptor {
  int32_t length;
  int32_t committed;
  fftwf_plan forwardAligned;
  fftwf_plan backwardAligned;
  fftwf_plan forwardAnyAlign;
  fftwf_plan backwardAnyAlign;
};

namespace {

// FFTW's planner is not thread-safe: creating and destroying plans goes through this lock.
// Executing a plan is safe from any thread.
std::mutex plannerLock;

void DestroyPlans(DftDescriptor* d) {
  std::lock_guard<std::mutex> hold(plannerLock);
  for (fftwf_plan* p : {&d->forwardAligned, &d->backwardAligned, &d->forwardAnyAlign, &d->backwardAnyAlign}) {
    if (*p != nullptr) {
      fftwf_destroy_plan(*p);
      *p = nullptr;
    }
  }
  d->committed = 0;
}

DftStatus Compute(DftPlan plan, float* data, bool forward) {
  if (plan == nullptr || data == nullptr) return DFTI_BAD_DESCRIPTOR;
  if (!plan->committed) return DFTI_UNCOMMITTED;
  const bool aligned = fftwf_alignment_of(data) == 0;
  fftwf_plan p = forward ? (aligned ? plan->forwardAligned : plan->forwardAnyAlign)
                         : (aligned ? plan->backwardAligned : plan->backwardAnyAlign);
  auto* z = reinterpret_cast<fftwf_complex*>(data);
  fftwf_execute_dft(p, z, z);
  return DFTI_NO_ERROR;
}

}  // namespace

DftStatus DftiCreateDescriptor(DftPlan* plan, int32_t precision, int32_t domain, int32_t dimension,
                               int32_t length) {
  if (plan == nullptr) return DFTI_BAD_DESCRIPTOR;
  *plan = nullptr;
  if (precision != DFTI_SINGLE || domain != DFTI_COMPLEX || dimension != 1 || length <= 0) {
    return DFTI_INVALID_CONFIGURATION;
  }
  auto* d = new (std::nothrow) DftDescriptor{};
  if (d == nullptr) return DFTI_MEMORY_ERROR;
  d->length = length;
  *plan = d;
  return DFTI_NO_ERROR;
}

DftStatus DftiCommitDescriptor(DftPlan plan) {
  if (plan == nullptr) return DFTI_BAD_DESCRIPTOR;
  DestroyPlans(plan);  // a second commit rebuilds from nothing
  std::lock_guard<std::mutex> hold(plannerLock);
  // Plans are made on a scratch buffer of FFTW's own alignment; FFTW_ESTIMATE never touches the
  // data, and its choice is the same on every run, so results are reproducible.
  auto* scratch = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(plan->length)));
  if (scratch == nullptr) return DFTI_MEMORY_ERROR;
  const int n = plan->length;
  plan->forwardAligned = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_FORWARD, FFTW_ESTIMATE);
  plan->backwardAligned = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_BACKWARD, FFTW_ESTIMATE);
  plan->forwardAnyAlign = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_FORWARD, FFTW_ESTIMATE | FFTW_UNALIGNED);
  plan->backwardAnyAlign = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_BACKWARD, FFTW_ESTIMATE | FFTW_UNALIGNED);
  fftwf_free(scratch);
  if (plan->forwardAligned == nullptr || plan->backwardAligned == nullptr || plan->forwardAnyAlign == nullptr ||
      plan->backwardAnyAlign == nullptr) {
    // Leave the descriptor uncommitted; what was made is destroyed with it.
    return DFTI_PLANNER_FAILED;
  }
  plan->committed = 1;
  return DFTI_NO_ERROR;
}

DftStatus DftiComputeForward(DftPlan plan, float* data) { return Compute(plan, data, true); }

DftStatus DftiComputeBackward(DftPlan plan, float* data) { return Compute(plan, data, false); }

DftStatus DftiFreeDescriptor(DftPlan* plan) {
  if (plan == nullptr || *plan == nullptr) return DFTI_BAD_DESCRIPTOR;
  DestroyPlans(*plan);
  delete *plan;
  *plan = nullptr;
  return DFTI_NO_ERROR;
}

int32_t DftiErrorClass(DftStatus status, DftStatus errorClass) {
  return (errorClass == DFTI_NO_ERROR && status == DFTI_NO_ERROR) ? 1 : 0;
}

namespace {

int32_t Transform(DftPlan plan, float* data, int32_t direction) {
  const DftStatus status = direction == -1 ? DftiComputeForward(plan, data) : DftiComputeBackward(plan, data);
  return DftiErrorClass(status, DFTI_NO_ERROR) ? 1 : 0;
}

}  // namespace

int32_t TransformQuarter(float* data, int32_t direction) { return Transform(engine.quarterPlan, data, direction); }

int32_t TransformFull(float* data, int32_t direction) { return Transform(engine.fftPlan, data, direction); }

void FreeDftPlans() {
  if (engine.fftPlan != nullptr) DftiFreeDescriptor(&engine.fftPlan);
  if (engine.quarterPlan != nullptr) DftiFreeDescriptor(&engine.quarterPlan);
}

}  // namespace zfn
