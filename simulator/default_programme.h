#pragma once
// Where the built-in programme (a transport stream of a test pattern with sound) is found: beside
// the library that holds the given address, as zfnisdbt/programme.ts in its directory, in the
// build tree and once installed alike, so that no path of the build is compiled in.
#include <dlfcn.h>

#include <cstdio>
#include <string>

namespace zfn::sim {

inline constexpr char PROGRAMME_BESIDE_LIBRARY[] = "zfnisdbt/programme.ts";

// The programme's path if the file is there, else empty.
inline std::string DefaultProgrammePath(const void* addressInLibrary) {
  Dl_info info{};
  if (dladdr(addressInLibrary, &info) == 0 || info.dli_fname == nullptr) return {};
  std::string path = info.dli_fname;
  const size_t slash = path.rfind('/');
  path = (slash == std::string::npos ? std::string(".") : path.substr(0, slash)) + "/" + PROGRAMME_BESIDE_LIBRARY;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    std::fclose(f);
    return path;
  }
  return {};
}

}  // namespace zfn::sim
