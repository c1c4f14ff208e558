// The three developer parameter files with any content: the input is cut at its first two 0xFF
// bytes into ParaSet.txt, ParaSetCE.txt and ParaSetOther.txt, which are loaded into the engine.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "shell/stages.h"
#include "shell/sync_driver.h"

namespace {

void Write(const char* name, const uint8_t* data, size_t size) {
  FILE* f = std::fopen(name, "wb");
  if (f == nullptr) return;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
}

}  // namespace

// The files are read from the current directory: each run steps into a directory of its own and
// back, so that libFuzzer's own files stay where it was started.
char directory[] = "/tmp/zfn_fuzz_params_XXXXXX";
char home[4096];

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (mkdtemp(directory) == nullptr || getcwd(home, sizeof home) == nullptr) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool open = zfn::SyncDriverOpen(nullptr, nullptr) == 1;
  if (!open) return 0;
  if (chdir(directory) != 0) std::abort();
  const char* names[3] = {"ParaSet.txt", "ParaSetCE.txt", "ParaSetOther.txt"};
  size_t start = 0;
  for (int f = 0; f < 3; ++f) {
    size_t end = start;
    while (end < size && (f == 2 || data[end] != 0xFF)) ++end;
    Write(names[f], data + start, end - start);
    start = end < size ? end + 1 : end;
  }
  zfn::LoadParameterSet(zfn::PARAM_FROM_FILES);
  if (chdir(home) != 0) std::abort();
  return 0;
}
