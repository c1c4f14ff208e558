#include "platform/dynamic_library.h"

#include <dlfcn.h>

namespace zfn::platform {

void* LoadSharedLibrary(const char* nameOrPath) {
  if (nameOrPath == nullptr || nameOrPath[0] == '\0') return nullptr;
  return dlopen(nameOrPath, RTLD_NOW | RTLD_LOCAL);
}

void* LibraryFunction(void* library, const char* name) {
  if (library == nullptr || name == nullptr) return nullptr;
  return dlsym(library, name);
}

void UnloadSharedLibrary(void* library) {
  if (library != nullptr) dlclose(library);
}

}  // namespace zfn::platform
