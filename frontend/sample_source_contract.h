#pragma once
// The contract of a sample source, as the receiver calls it. The device access library
// libZFNACCESS.so and the simulator libBDA_simu.so export these functions with C linkage; anything
// that offers them can stand behind the receiver. The event is an eventfd descriptor: the source
// writes the 8-byte value 1 to it whenever data can be fetched, from any of its threads.
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Device access library: every result is non-zero for success, 0 for failure.
typedef int32_t (*ZfnBdaFilterInitFn)(int32_t zero);
typedef int32_t (*ZfnBdaFilterReleaseFn)(int32_t zero);
typedef int32_t (*ZfnSetFrequencyFn)(int32_t frequencyKHz);
typedef int32_t (*ZfnSetBandwidthFn)(int32_t bandwidthMHz);
typedef int32_t (*ZfnDeviceUpdateFn)(void);
typedef int32_t (*ZfnDemodByteReadFn)(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes);
typedef int32_t (*ZfnDemodByteWriteFn)(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes);
typedef int32_t (*ZfnGetDataFn)(uint8_t* buffer, int32_t bufferSize, int32_t* length, int32_t* aux);
typedef int32_t (*ZfnSetDabEventHandleFn)(int* event);
typedef int32_t (*ZfnReleaseDabEventHandleFn)(int* event);
typedef int32_t (*ZfnGetTunerTypeFn)(int32_t* tunerType);

// Simulator library: -1 means failure.
typedef int32_t (*SimSetEventHandleFn)(int* event);
typedef int32_t (*SimStartFn)(void);
typedef int32_t (*SimGetDataFn)(uint8_t* buffer, int32_t* length);  // buffer holds 240648 bytes
typedef int32_t (*SimStopFn)(void);

#ifdef __cplusplus
}
#endif
