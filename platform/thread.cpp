#include "platform/thread.h"

#include <sched.h>

namespace zfn::platform {

namespace {

void* RunEntry(void* entry) {
  reinterpret_cast<void (*)()>(entry)();
  return nullptr;
}

}  // namespace

bool SetCurrentThreadPriority(ThreadPriority priority) {
  sched_param param{};
  int policy = SCHED_OTHER;
  if (priority == ThreadPriority::Reception) {
    policy = SCHED_FIFO;
    // A low real-time priority: above every time-sharing thread, below the system's own.
    param.sched_priority = sched_get_priority_min(SCHED_FIFO) + 1;
  }
  return pthread_setschedparam(pthread_self(), policy, &param) == 0;
}

bool Thread::Start(void (*entry)()) {
  if (started_) return false;
  const int r = pthread_create(&handle_, nullptr, RunEntry, reinterpret_cast<void*>(entry));
  started_ = r == 0;
  return started_;
}

void Thread::Join() {
  if (!started_) return;
  pthread_join(handle_, nullptr);
  started_ = false;
  handle_ = {};
}

}  // namespace zfn::platform
