#pragma once
// Helpers of the lifecycle cases: the log lines through the debug output sink, the process's
// threads and descriptors, and waiting for a condition with a limit.
#include <dirent.h>
#include <unistd.h>

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
  if (d == nullptr) return -1;
  int n = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') ++n;
  }
  closedir(d);
  return n;
}
inline int OpenDescriptors() { return CountEntries("/proc/self/fd"); }
inline int ProcessThreads() { return CountEntries("/proc/self/task"); }

// Points the debug output of the receiver at a fresh file for the life of the object.
class LogCapture {
 public:
  LogCapture() {
    path_ = "/tmp/zfn_lifecycle_log_" + std::to_string(getpid()) + ".txt";
    std::remove(path_.c_str());
    setenv("ZFNISDBT_DEBUG_OUTPUT", path_.c_str(), 1);
  }
  ~LogCapture() {
    unsetenv("ZFNISDBT_DEBUG_OUTPUT");
    std::remove(path_.c_str());
  }
  std::string Text() const {
    std::ifstream in(path_, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  std::vector<std::string> Lines() const {
    std::vector<std::string> out;
    std::stringstream s(Text());
    for (std::string line; std::getline(s, line);) out.push_back(line);
    return out;
  }

 private:
  std::string path_;
};

template <class Pred>
bool WaitFor(Pred pred, int milliseconds = 5000) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Threads of sample sources and the receiver end with joins; the kernel may list a thread for a
// moment after its join returned. Waits until the count is back.
inline bool ThreadsBackTo(int baseline) {
  return WaitFor([baseline] { return ProcessThreads() <= baseline; }, 2000);
}

}  // namespace zfn_test
