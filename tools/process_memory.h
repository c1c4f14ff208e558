#pragma once
// Resident memory of this process from /proc/self/status, for the memory reports of the commands.
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zfn::tools {

// A "kB" line of /proc/self/status such as "VmRSS" or "VmHWM" (the peak); -1 if unavailable.
inline int64_t ProcessMemoryKb(const char* field) {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (f == nullptr) return -1;
  char line[256];
  int64_t value = -1;
  const size_t n = std::strlen(field);
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, field, n) == 0 && line[n] == ':') {
      long long v = -1;
      if (std::sscanf(line + n + 1, "%lld", &v) == 1) value = v;
      break;
    }
  }
  std::fclose(f);
  return value;
}

}  // namespace zfn::tools
