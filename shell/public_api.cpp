// The thirteen exported functions of libZFNISDBT.so. Nothing else of the library is visible.
#include "include/zfnisdbt.h"
#include "shell/diagnostics.h"
#include "shell/lifecycle.h"

extern "C" {

ZFISDBT_EXPORT int32_t ZFISDBT_OpenDevice(void) { return zfn::OpenDevice(); }
ZFISDBT_EXPORT int32_t ZFISDBT_CloseDevice(void) { return zfn::CloseDevice(); }
ZFISDBT_EXPORT int32_t ZFISDBT_SetFrequency(int32_t frequencyKHz) { return zfn::SetFrequency(frequencyKHz); }
ZFISDBT_EXPORT int32_t ZFISDBT_GetSignalLock(int32_t* locked) { return zfn::GetSignalLock(locked); }
ZFISDBT_EXPORT int32_t ZFISDBT_GetSignalPresent(int32_t* present) { return zfn::GetSignalPresent(present); }
ZFISDBT_EXPORT int32_t ZFISDBT_GetSignalQuality(int32_t* quality) { return zfn::GetSignalQuality(quality); }
ZFISDBT_EXPORT int32_t ZFISDBT_SetTSCallBack(ZFISDBT_TsCallback callback) { return zfn::SetTsCallback(callback); }
ZFISDBT_EXPORT int32_t ZFISDBT_SetACCallBack(ZFISDBT_AcCallback callback) { return zfn::SetAcCallback(callback); }
// No AC data exists: both return at once and log nothing.
ZFISDBT_EXPORT int32_t ZFISDBT_StartAC(void) { return 1; }
ZFISDBT_EXPORT int32_t ZFISDBT_StopAC(void) { return 1; }
ZFISDBT_EXPORT int32_t ZFISDBT_DebugCMD(int32_t command, int32_t value) { return zfn::DebugCommand(command, value); }
ZFISDBT_EXPORT int32_t ZFISDBT_DebugGetParaPtr(int32_t** para) { return zfn::DebugGetParaPtr(para); }
ZFISDBT_EXPORT int32_t ZFISDBT_DebugGetParaValue(int32_t* words) { return zfn::DebugGetParaValue(words); }

}  // extern "C"
