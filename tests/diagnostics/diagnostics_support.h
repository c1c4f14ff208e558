#pragma once
// Helpers of the diagnostics cases: a scratch directory, the working directory for the life of the
// object; whole-file reads; waiting for a condition with a limit.
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace zfn_test {

class ScratchDirectory {
 public:
  ScratchDirectory() {
    char pattern[] = "/tmp/zfn_diagnostics_XXXXXX";
    path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    if (!path_.empty()) std::filesystem::current_path(path_);
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::current_path(previous_, ignored);
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  std::string path_;
  std::filesystem::path previous_ = std::filesystem::current_path();
};

// The whole file in one read: capture files are megabytes, and a byte-wise read is slow enough
// under ThreadSanitizer to let a running capture outgrow it.
inline std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return {};
  std::string bytes(static_cast<size_t>(in.tellg()), '\0');
  in.seekg(0);
  in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<size_t>(in.gcount()));
  return bytes;
}

template <class Condition>
bool WaitFor(Condition condition, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace zfn_test
