#pragma once
// Threads of the receiver. A thread is created started, runs a plain entry function, and ends by
// itself when it sees the engine stop; the owner joins it. Priorities are best effort: a refused
// request never fails anything.
#include <pthread.h>

#include <cstdint>

namespace zfn::platform {

enum class ThreadPriority {
  Reception,  // the sample fetcher: a low real-time priority (SCHED_FIFO) when the system allows it
  Normal,     // demodulation, packet and capture threads: the ordinary time-sharing class
};

// Asks for the priority for the calling thread. True when granted; callers carry on either way.
bool SetCurrentThreadPriority(ThreadPriority priority);

class Thread {
 public:
  constexpr Thread() = default;
  // A running thread is deliberately not touched on destruction: the design ends threads only
  // through the running flag and an explicit join.
  ~Thread() = default;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts entry() on a new thread with the default stack size. False if the system refused.
  bool Start(void (*entry)());
  bool Exists() const { return started_; }
  // Waits without limit for the end of the thread and forgets it. Harmless when absent.
  void Join();
  // Forgets a thread without waiting for it (its handle is zeroed; the thread runs on).
  void Forget() {
    started_ = false;
    handle_ = {};
  }
  // The native handle as a number, for the thread table; 0 when absent.
  uint64_t Id() const { return started_ ? static_cast<uint64_t>(handle_) : 0; }

 private:
  pthread_t handle_{};
  bool started_ = false;
};

}  // namespace zfn::platform
