#pragma once
// Helpers of the lifecycle cases: the log lines through the debug output sink, the process's
// threads and descriptors, and waiting for a condition with a limit.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace zfn_test {

inline int CountEntries(const char* dir) {
  DIR* d = opendir(dir);
  int n = 0;
  while (dirent* e = d != nullptr ? readdir(d) : nullptr) n += e->d_name[0] != '.';
  if (d != nullptr) closedir(d);
  return d != nullptr ? n : -1;
}
inline int OpenDescriptors() { return CountEntries("/proc/self/fd"); }
inline int ProcessThreads() { return CountEntries("/proc/self/task"); }

inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream s(text);
  for (std::string line; std::getline(s, line);) out.push_back(line);
  return out;
}

// Points the debug output of the receiver at a fresh file for the life of the object.
class LogCapture {
 public:
  LogCapture() : path_("/tmp/zfn_lifecycle_log_" + std::to_string(getpid()) + ".txt") {
    std::remove(path_.c_str());
    setenv("ZFNISDBT_DEBUG_OUTPUT", path_.c_str(), 1);
  }
  ~LogCapture() {
    unsetenv("ZFNISDBT_DEBUG_OUTPUT");
    std::remove(path_.c_str());
  }
  std::vector<std::string> Lines() const {
    std::stringstream s;
    s << std::ifstream(path_, std::ios::binary).rdbuf();
    return SplitLines(s.str());
  }

 private:
  std::string path_;
};

// Log lines written compactly: "A | B" stands for the lines "ISDBT API: A" and "ISDBT API: B".
inline std::vector<std::string> ApiLines(const std::string& compact) {
  std::vector<std::string> out;
  for (size_t at = 0, bar = 0; at < compact.size(); at = bar + 3) {
    bar = std::min(compact.find(" | ", at), compact.size());
    out.push_back("ISDBT API: " + compact.substr(at, bar - at));
  }
  return out;
}

template <class Pred>
bool WaitFor(Pred pred, int milliseconds = 5000) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace zfn_test
