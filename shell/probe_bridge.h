#pragma once
// The plotting bridge: a library loaded on request (debug command 1) that owns a MatlabProbe record
// and shows what the engine fills into it. The shell side is here: the switch `probeEnable` and the
// record pointer `matlabProbe` (both declared in shell/diagnostics.h), the loaded flag, the library
// handle and its three functions.
#include <cstdint>
#include <mutex>

#include "shell/matlab_probe.h"

namespace zfn {

// Found by plain name through the dynamic linker's search path.
constexpr const char* PROBE_BRIDGE_LIBRARY = "libISDBT_MatlabWrap.so";

struct ProbeBridgeState {
  int32_t bridgeLoaded;  // set by the first successful load; an unload leaves it set
  void* library;         // the bridge library's handle, null when not loaded
  MatlabInitialFunction MATLAB_Initial;
  MatlabShowFunction MATLAB_Show;
  MatlabDestroyFunction MATLAB_Destroy;
};

extern ProbeBridgeState probeBridge;

// Held by the engine while it writes into the record and by load and unload while they set or
// clear matlabProbe and the bridge frees the record, so that an unload can never pull the record
// from under a write in progress. The engine takes it only while the probe is active.
extern std::mutex probeLock;

// Loads the bridge: 1 when matlabProbe is set afterwards, else 0 (the library then stays loaded and
// the next attempt tries again).
int32_t LoadProbeBridge();
// Unloads the bridge: destroy, matlabProbe = null, release the library. bridgeLoaded stays set.
void UnloadProbeBridge();
// Debug command 1 with its value. Always 1, also when the bridge could not be loaded.
int32_t DebugProbeCommand(int32_t value);

}  // namespace zfn
