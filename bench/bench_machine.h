#pragma once
// The machine a benchmark ran on, for its report: processor model and cores online.
#include <unistd.h>

#include <fstream>
#include <string>

namespace zfn::bench {

inline std::string CpuModel() {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("model name", 0) == 0) {
      const size_t colon = line.find(':');
      return colon == std::string::npos ? line : line.substr(colon + 2);
    }
  }
  return "unknown";
}

inline std::string MachineLine() {
  return CpuModel() + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " cores online";
}

}  // namespace zfn::bench
