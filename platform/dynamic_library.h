#pragma once
// Run-time loading of the sample source libraries and the plotting bridge.
namespace zfn::platform {

// Loads a shared library with every symbol resolved now and kept local to it. A name without a
// slash goes through the dynamic linker's ordinary search path. Null on failure.
void* LoadSharedLibrary(const char* nameOrPath);
// The address of a function in a loaded library, null if absent.
void* LibraryFunction(void* library, const char* name);
// Releases a library loaded above; harmless with null.
void UnloadSharedLibrary(void* library);

}  // namespace zfn::platform
