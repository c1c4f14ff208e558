#include "shell/probe_bridge.h"

#include "platform/dynamic_library.h"
#include "shell/diagnostics.h"

namespace zfn {

ProbeBridgeState probeBridge;
std::mutex probeLock;

namespace {

template <class Function>
Function LookUp(const char* name) {
  return reinterpret_cast<Function>(platform::LibraryFunction(probeBridge.library, name));
}

}  // namespace

// Load the library; look up the three functions, all must be found; MATLAB_Initial, -1 is failure;
// MATLAB_Show with the address of matlabProbe; success if matlabProbe is now set. On failure the
// library stays loaded and no flag is set.
int32_t LoadProbeBridge() {
  // A library held from a failed attempt is already loaded: loading it again would only return the
  // same handle, so one reference is kept and the unload releases it.
  if (probeBridge.library == nullptr) probeBridge.library = platform::LoadSharedLibrary(PROBE_BRIDGE_LIBRARY);
  if (probeBridge.library == nullptr) return 0;
  probeBridge.MATLAB_Initial = LookUp<MatlabInitialFunction>("MATLAB_Initial");
  probeBridge.MATLAB_Show = LookUp<MatlabShowFunction>("MATLAB_Show");
  probeBridge.MATLAB_Destroy = LookUp<MatlabDestroyFunction>("MATLAB_Destroy");
  if (probeBridge.MATLAB_Initial == nullptr || probeBridge.MATLAB_Show == nullptr ||
      probeBridge.MATLAB_Destroy == nullptr) {
    return 0;
  }
  if (probeBridge.MATLAB_Initial() == -1) return 0;
  std::lock_guard<std::mutex> lock(probeLock);
  probeBridge.MATLAB_Show(&matlabProbe);
  return matlabProbe != nullptr ? 1 : 0;
}

// Destroy, matlabProbe = null, unload the library and zero the handle. bridgeLoaded is not cleared:
// that asymmetry is part of the design. A later command 1 with value 1 then sets probeEnable with
// matlabProbe null; callers are told not to do that. Every engine write into the record checks
// matlabProbe under probeLock, so in that state the engine writes nothing instead of writing
// through a null pointer. The function pointers are cleared with the handle, so a second unload in
// a row calls nothing in the released library.
void UnloadProbeBridge() {
  {
    std::lock_guard<std::mutex> lock(probeLock);
    if (probeBridge.MATLAB_Destroy != nullptr) probeBridge.MATLAB_Destroy();
    matlabProbe = nullptr;
  }
  platform::UnloadSharedLibrary(probeBridge.library);
  probeBridge.library = nullptr;
  probeBridge.MATLAB_Initial = nullptr;
  probeBridge.MATLAB_Show = nullptr;
  probeBridge.MATLAB_Destroy = nullptr;
}

//  value 1: probe on. Nothing if probeEnable is set; with bridgeLoaded: probeEnable = 1; otherwise
//           load the bridge and on success set bridgeLoaded and probeEnable.
//  value 0: probeEnable = 0.
//  value 2: with bridgeLoaded: probeEnable = 0 and unload the bridge.
//  other:   nothing.
// The result is 1 in every case: a bridge that could not be loaded shows only in that no data comes.
int32_t DebugProbeCommand(int32_t value) {
  switch (value) {
    case 1:
      if (probeEnable != 0) break;
      if (probeBridge.bridgeLoaded != 0) {
        probeEnable = 1;
      } else if (LoadProbeBridge() == 1) {
        probeBridge.bridgeLoaded = 1;
        probeEnable = 1;
      }
      break;
    case 0:
      probeEnable = 0;
      break;
    case 2:
      if (probeBridge.bridgeLoaded != 0) {
        probeEnable = 0;
        UnloadProbeBridge();
      }
      break;
    default:
      break;
  }
  return 1;
}

}  // namespace zfn
