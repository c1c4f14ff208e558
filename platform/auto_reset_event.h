#pragma once
// Auto-reset event: an eventfd in non-semaphore mode. Set writes the 8-byte value 1; a wait polls
// with the time-out and then reads, which resets the event. Several sets before one wait merge into
// one wake, exactly like the Windows event the receiver was designed around.
//
// The descriptor is the event's whole state, so a sample source that is handed DescriptorAddress()
// (a pointer to an int) can signal it by writing 1 to that descriptor from any of its threads.
#include <cstdint>

namespace zfn::platform {

// The object name of the block event. An eventfd has no name; the text is kept beside the event.
inline constexpr const char* BLOCK_EVENT_NAME = "RECEIVE frame data event";

// Wait without limit.
inline constexpr int32_t WAIT_INFINITE = -1;

class AutoResetEvent {
 public:
  constexpr AutoResetEvent() = default;
  ~AutoResetEvent() { Close(); }
  AutoResetEvent(const AutoResetEvent&) = delete;
  AutoResetEvent& operator=(const AutoResetEvent&) = delete;

  // Creates the event, not signalled unless asked. False if the system refused; a created event
  // is closed first.
  bool Create(bool signalled = false);
  // Closes the descriptor and marks the event absent; harmless when absent.
  void Close();
  bool Exists() const { return fd_ >= 0; }

  // Signals the event. Nothing happens when absent.
  void Set() const;
  // Waits at most timeoutMs (WAIT_INFINITE: no limit). True when the event was signalled; it is
  // then reset. False on time-out or when absent.
  bool Wait(int32_t timeoutMs) const;

  int Descriptor() const { return fd_; }
  // The address handed to a sample source: the descriptor it writes to.
  int* DescriptorAddress() { return &fd_; }

 private:
  int fd_ = -1;
};

}  // namespace zfn::platform
