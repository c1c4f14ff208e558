#include "platform/auto_reset_event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace zfn::platform {

bool AutoResetEvent::Create(bool signalled) {
  Close();
  fd_ = eventfd(signalled ? 1u : 0u, EFD_CLOEXEC | EFD_NONBLOCK);
  return fd_ >= 0;
}

void AutoResetEvent::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void AutoResetEvent::Set() const {
  if (fd_ < 0) return;
  const uint64_t one = 1;
  ssize_t n;
  do {
    n = write(fd_, &one, sizeof one);
  } while (n < 0 && errno == EINTR);
  // EAGAIN would mean the counter is at its maximum: the event is set already.
}

bool AutoResetEvent::Wait(int32_t timeoutMs) const {
  if (fd_ < 0) return false;
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
  for (;;) {
    int waitMs = -1;
    if (timeoutMs >= 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      waitMs = left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }
    pollfd p{fd_, POLLIN, 0};
    const int r = poll(&p, 1, waitMs);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    uint64_t value = 0;
    const ssize_t n = read(fd_, &value, sizeof value);
    if (n == static_cast<ssize_t>(sizeof value)) return true;
    // Another waiter took it first (EAGAIN) or a signal interrupted: wait on for the rest.
    if (timeoutMs >= 0 && Clock::now() >= deadline) return false;
  }
}

}  // namespace zfn::platform
