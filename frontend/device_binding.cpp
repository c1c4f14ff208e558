// Run-time binding of the two sample sources. Neither library is linked at build time: both are
// opened by name at open and reached only through the function pointers found here.
#include "frontend/device_binding.h"

#include <dlfcn.h>

#ifndef ZFN_SYSTEM_LIBDIR
#error "ZFN_SYSTEM_LIBDIR must name the system library directory searched first for the device library"
#endif

namespace zfn {

DeviceBinding deviceBinding{};
SimulatorBinding simulatorBinding{};

namespace {

constexpr char kDeviceLibraryName[] = "libZFNACCESS.so";
// The system directory is fixed at build time, so the full path is a constant: no buffer to size.
constexpr char kDeviceLibrarySystemPath[] = ZFN_SYSTEM_LIBDIR "/libZFNACCESS.so";
constexpr char kSimulatorLibraryName[] = "libBDA_simu.so";

template <class Fn>
bool LookUp(void* library, const char* name, Fn& slot) {
  slot = reinterpret_cast<Fn>(dlsym(library, name));
  return slot != nullptr;
}

}  // namespace

int32_t BindDeviceLibrary() {
  deviceBinding = DeviceBinding{};

  void* library = dlopen(kDeviceLibrarySystemPath, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) library = dlopen(kDeviceLibraryName, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return 0;
  deviceBinding.library = library;

  // Every name is looked up even after a miss; an incomplete library stays loaded until the
  // unwinding of the open unbinds it.
  bool complete = true;
  complete &= LookUp(library, "ZFN_BDAFilterInit", deviceBinding.BDAFilterInit);
  complete &= LookUp(library, "ZFN_BDAFilterRelease", deviceBinding.BDAFilterRelease);
  complete &= LookUp(library, "ZFN_Set_Frequency", deviceBinding.Set_Frequency);
  complete &= LookUp(library, "ZFN_Set_Bandwidth", deviceBinding.Set_Bandwidth);
  complete &= LookUp(library, "ZFN_DeviceUpdate", deviceBinding.DeviceUpdate);
  complete &= LookUp(library, "ZFN_Demod_Byte_Read", deviceBinding.Demod_Byte_Read);
  complete &= LookUp(library, "ZFN_Demod_Byte_Write", deviceBinding.Demod_Byte_Write);
  complete &= LookUp(library, "ZFN_GetData", deviceBinding.GetData);
  complete &= LookUp(library, "ZFN_SetDABEventHandle", deviceBinding.SetDABEventHandle);
  complete &= LookUp(library, "ZFN_ReleaseDABEventHandle", deviceBinding.ReleaseDABEventHandle);
  complete &= LookUp(library, "ZFN_Get_TunerType", deviceBinding.Get_TunerType);
  return complete ? 1 : 0;
}

void UnbindDeviceLibrary() {
  if (deviceBinding.library != nullptr) dlclose(deviceBinding.library);
  // The function pointers die with the library; clearing them turns a late call into a plain null
  // call instead of a jump into unmapped code.
  deviceBinding = DeviceBinding{};
}

int32_t BindSimulator(int* event) {
  // The simulator is never unloaded: a second open loads it again over the stored handle, which
  // only raises the loader's reference count.
  void* library = dlopen(kSimulatorLibraryName, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return -1;
  simulatorBinding.library = library;

  bool complete = true;
  complete &= LookUp(library, "SetEventHandle", simulatorBinding.SetEventHandle);
  complete &= LookUp(library, "BDA_Start_simulate", simulatorBinding.BDA_Start_simulate);
  complete &= LookUp(library, "GetData", simulatorBinding.GetData);
  complete &= LookUp(library, "BDA_Stop_simulate", simulatorBinding.BDA_Stop_simulate);
  // A simulator without all four functions would be called through a null pointer later on;
  // refuse it here like any other simulator failure.
  if (!complete) return -1;

  if (simulatorBinding.SetEventHandle(event) == -1) return -1;
  if (simulatorBinding.BDA_Start_simulate() == -1) return -1;
  return 0;
}

}  // namespace zfn
