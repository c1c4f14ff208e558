#pragma once
// Helpers of the diagnostics cases: a scratch directory (optionally the working directory for the
// life of the object), whole-file reads, waiting for a condition with a limit, descriptor counts.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace zfn_test {

class ScratchDirectory {
 public:
  explicit ScratchDirectory(bool enter) {
    char pattern[] = "/tmp/zfn_diagnostics_XXXXXX";
    path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    if (enter && !path_.empty()) {
      char cwd[4096];
      if (getcwd(cwd, sizeof cwd) != nullptr) previous_ = cwd;
      entered_ = chdir(path_.c_str()) == 0;
    }
  }
  ~ScratchDirectory() {
    if (entered_ && !previous_.empty() && chdir(previous_.c_str()) != 0) std::perror("chdir");
    Remove(path_);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& Path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  static void Remove(const std::string& path) {
    if (path.empty()) return;
    if (DIR* d = opendir(path.c_str())) {
      while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        const std::string child = path + "/" + name;
        struct stat st {};
        if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) Remove(child);
        else std::remove(child.c_str());
      }
      closedir(d);
    }
    rmdir(path.c_str());
  }

  std::string path_;
  std::string previous_;
  bool entered_ = false;
};

inline bool FileExists(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0;
}

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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

inline int OpenDescriptors() {
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  int n = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') ++n;
  }
  closedir(d);
  return n;
}

}  // namespace zfn_test
