#pragma once
// The public operations of the receiver: open, close, retune, status and callbacks. The exported
// C functions are thin wrappers around these.
#include <cstdint>

#include "include/zfnisdbt.h"

namespace zfn {

int32_t OpenDevice();
int32_t CloseDevice();
int32_t SetFrequency(int32_t frequencyKHz);
int32_t GetSignalLock(int32_t* locked);
int32_t GetSignalPresent(int32_t* present);
int32_t GetSignalQuality(int32_t* quality);
int32_t SetTsCallback(ZFISDBT_TsCallback callback);
int32_t SetAcCallback(ZFISDBT_AcCallback callback);

// Zeroes the five words of the ControlBlock.
void ClearControlBlock();
// Under controlLock (taken by the caller): clears the ControlBlock, raises retuneRequest, and
// resets the status words of a new acquisition.
void RetuneReset();

// 1 tracking, -1 no signal, 0 still in acquisition or idle.
int32_t SignalPresentStatus();
// 1 good packets flow, -1 the stream failed, 0 not sure.
int32_t SignalLockStatus();
// 0, 20, 40, 60, 80 or 100 from snrDb while tracking.
int32_t SignalQualityStatus();

}  // namespace zfn
