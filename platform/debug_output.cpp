#include "platform/debug_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace zfn::platform {

void DebugOutput(const char* text) {
  if (text == nullptr) return;
  // Read at every text, so a host (or a test) may point the sink elsewhere at any time.
  const char* target = std::getenv(DEBUG_OUTPUT_VARIABLE);
  if (target == nullptr || target[0] == '\0') return;
  const size_t length = std::strlen(text);
  if (std::strcmp(target, "stderr") == 0) {
    [[maybe_unused]] ssize_t n = write(STDERR_FILENO, text, length);
    return;
  }
  const int fd = open(target, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  [[maybe_unused]] ssize_t n = write(fd, text, length);
  close(fd);
}

}  // namespace zfn::platform
