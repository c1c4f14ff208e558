#include "numeric/dft.h"

#include <fftw3.h>

#include <cstring>
#include <mutex>
#include <new>

#include "numeric/dft_wisdom.h"
#include "shell/receiver_state.h"

namespace zfn {

// One descriptor holds six FFTW plans: forward and backward, each for SIMD-aligned data in place,
// from one aligned row into another, and for data of any alignment in place. Arena buffers carry no
// alignment step, so the symbol body may sit on any 8-byte boundary; the aligned plans serve the
// common case at full speed. FFTW's in-place plan of these lengths goes through a buffered pass that
// copies the data out and back in small pieces; the plan from row to row runs the same codelets
// without that pass, so an aligned transform in place goes through a row on the stack instead and
// gives the same values.
struct DftDescriptor {
  int32_t length;
  int32_t committed;
  fftwf_plan forwardAligned;
  fftwf_plan backwardAligned;
  fftwf_plan forwardAnyAlign;
  fftwf_plan backwardAnyAlign;
  fftwf_plan forwardRowToRow;
  fftwf_plan backwardRowToRow;
};

namespace {

// FFTW's planner is not thread-safe: creating and destroying plans goes through this lock.
// Executing a plan is safe from any thread.
std::mutex plannerLock;

void DestroyPlans(DftDescriptor* d) {
  std::lock_guard<std::mutex> hold(plannerLock);
  for (fftwf_plan* p : {&d->forwardAligned, &d->backwardAligned, &d->forwardAnyAlign, &d->backwardAnyAlign,
                        &d->forwardRowToRow, &d->backwardRowToRow}) {
    if (*p != nullptr) {
      fftwf_destroy_plan(*p);
      *p = nullptr;
    }
  }
  d->committed = 0;
}

// The longest transform that goes row to row through the stack; the engine's are at most 1024 points.
constexpr int32_t MAX_STACK_POINTS = 2048;

DftStatus Compute(DftPlan plan, float* data, bool forward) {
  if (plan == nullptr || data == nullptr) return DFTI_BAD_DESCRIPTOR;
  if (!plan->committed) return DFTI_UNCOMMITTED;
  auto* z = reinterpret_cast<fftwf_complex*>(data);
  if (fftwf_alignment_of(data) != 0) {
    fftwf_execute_dft(forward ? plan->forwardAnyAlign : plan->backwardAnyAlign, z, z);
  } else if (plan->length <= MAX_STACK_POINTS) {
    alignas(64) fftwf_complex row[MAX_STACK_POINTS];
    fftwf_execute_dft(forward ? plan->forwardRowToRow : plan->backwardRowToRow, z, row);
    std::memcpy(data, row, sizeof(fftwf_complex) * static_cast<size_t>(plan->length));
  } else {
    fftwf_execute_dft(forward ? plan->forwardAligned : plan->backwardAligned, z, z);
  }
  return DFTI_NO_ERROR;
}

DftStatus ComputeRowToRow(DftPlan plan, const float* in, float* out, bool forward) {
  if (plan == nullptr || in == nullptr || out == nullptr) return DFTI_BAD_DESCRIPTOR;
  if (!plan->committed) return DFTI_UNCOMMITTED;
  const size_t bytes = sizeof(fftwf_complex) * static_cast<size_t>(plan->length);
  const auto begin = reinterpret_cast<uintptr_t>(in);
  const auto end = begin + bytes;
  const auto outBegin = reinterpret_cast<uintptr_t>(out);
  const bool overlap = outBegin < end && begin < outBegin + bytes;
  if (fftwf_alignment_of(out) != 0) {
    if (in != out) std::memmove(out, in, bytes);
    return Compute(plan, out, forward);
  }
  fftwf_plan rowToRow = forward ? plan->forwardRowToRow : plan->backwardRowToRow;
  if (overlap || fftwf_alignment_of(const_cast<float*>(in)) != 0) {
    if (plan->length > MAX_STACK_POINTS) {
      if (in != out) std::memmove(out, in, bytes);
      return Compute(plan, out, forward);
    }
    // One copy into an aligned row on the stack, and the same plan from there: the values are those
    // of the aligned case.
    alignas(64) fftwf_complex row[MAX_STACK_POINTS];
    std::memcpy(row, in, bytes);
    fftwf_execute_dft(rowToRow, row, reinterpret_cast<fftwf_complex*>(out));
    return DFTI_NO_ERROR;
  }
  // The plan keeps its input: the row taken from stays as it was.
  auto* src = reinterpret_cast<fftwf_complex*>(const_cast<float*>(in));
  fftwf_execute_dft(rowToRow, src, reinterpret_cast<fftwf_complex*>(out));
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
  // FFTW_ESTIMATE alone picks, for the forward row-to-row transforms (the symbol's), a twiddle
  // codelet that works part of its factors out on the fly; measured plans keep them all in a table
  // and run about a sixth faster. The wisdom of such plans, found once and kept with the code,
  // makes the estimating planner take them, so the choice stays the same on every run. It holds no
  // backward plan: the transmitter's synthesis, backward, may share the process and its wisdom. It goes into FFTW's global
  // wisdom at every commit, in case the host has made FFTW forget it; FFTW refuses it whole where
  // it cannot use these plans (another FFTW, no AVX), and the planner's own estimate stands.
  fftwf_import_wisdom_from_string(DFT_WISDOM);
  // Plans are made on a scratch buffer of FFTW's own alignment; FFTW_ESTIMATE never touches the
  // data, and its choice is the same on every run, so results are reproducible.
  auto* scratch = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(plan->length)));
  auto* other = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(plan->length)));
  if (scratch == nullptr || other == nullptr) {
    fftwf_free(scratch);
    fftwf_free(other);
    return DFTI_MEMORY_ERROR;
  }
  const int n = plan->length;
  plan->forwardAligned = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_FORWARD, FFTW_ESTIMATE);
  plan->backwardAligned = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_BACKWARD, FFTW_ESTIMATE);
  plan->forwardAnyAlign = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_FORWARD, FFTW_ESTIMATE | FFTW_UNALIGNED);
  plan->backwardAnyAlign = fftwf_plan_dft_1d(n, scratch, scratch, FFTW_BACKWARD, FFTW_ESTIMATE | FFTW_UNALIGNED);
  plan->forwardRowToRow = fftwf_plan_dft_1d(n, scratch, other, FFTW_FORWARD, FFTW_ESTIMATE | FFTW_PRESERVE_INPUT);
  plan->backwardRowToRow = fftwf_plan_dft_1d(n, scratch, other, FFTW_BACKWARD, FFTW_ESTIMATE | FFTW_PRESERVE_INPUT);
  fftwf_free(scratch);
  fftwf_free(other);
  if (plan->forwardAligned == nullptr || plan->backwardAligned == nullptr || plan->forwardAnyAlign == nullptr ||
      plan->backwardAnyAlign == nullptr || plan->forwardRowToRow == nullptr || plan->backwardRowToRow == nullptr) {
    // Leave the descriptor uncommitted; what was made is destroyed with it.
    return DFTI_PLANNER_FAILED;
  }
  plan->committed = 1;
  return DFTI_NO_ERROR;
}

DftStatus DftiComputeForward(DftPlan plan, float* data) { return Compute(plan, data, true); }

DftStatus DftiComputeBackward(DftPlan plan, float* data) { return Compute(plan, data, false); }

DftStatus DftiComputeForwardOutOfPlace(DftPlan plan, const float* in, float* out) {
  return ComputeRowToRow(plan, in, out, true);
}

DftStatus DftiComputeBackwardOutOfPlace(DftPlan plan, const float* in, float* out) {
  return ComputeRowToRow(plan, in, out, false);
}

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

int32_t TransformQuarter(const float* in, float* out, int32_t direction) {
  const DftStatus status = direction == -1 ? DftiComputeForwardOutOfPlace(engine.quarterPlan, in, out)
                                           : DftiComputeBackwardOutOfPlace(engine.quarterPlan, in, out);
  return DftiErrorClass(status, DFTI_NO_ERROR) ? 1 : 0;
}

int32_t TransformFull(float* data, int32_t direction) { return Transform(engine.fftPlan, data, direction); }

void FreeDftPlans() {
  if (engine.fftPlan != nullptr) DftiFreeDescriptor(&engine.fftPlan);
  if (engine.quarterPlan != nullptr) DftiFreeDescriptor(&engine.quarterPlan);
}

}  // namespace zfn
