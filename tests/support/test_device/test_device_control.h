#pragma once
// Control of the test build of the device access library (build/lib/testdevice/libZFNACCESS.so).
// Besides the eleven device functions the library exports these, for tests to call directly (link
// the target zfn_test_device) or through dlsym on the handle the receiver bound.
//
// Behaviour of the device functions in this build:
// - Every call is recorded in order as one text line, see TestDevice_GetCall.
// - Register writes go to a register file of 2 pages x 256 bytes; reads come from it. Page 0 or 1,
//   address 0..255, byteCount 1..4, address + byteCount <= 256, non-null bytes; anything else
//   returns 0.
// - Any function can be told to fail (return 0 and change nothing), see TestDevice_FailFunction.
// - Once ZFN_BDAFilterInit succeeded and ZFN_SetDABEventHandle registered an event, a thread of
//   the library writes the value 1 to that eventfd every 5 ms. ZFN_ReleaseDABEventHandle
//   and ZFN_BDAFilterRelease stop and join that thread.
// - ZFN_GetData serves the configured byte stream; ZFN_BDAFilterInit restarts it at byte 0. Before
//   the init, or after the release, it serves 0 bytes.
// - ZFN_Get_TunerType reports tuner type 1.
//
// Call lines, numbers decimal unless said:
//   "ZFN_BDAFilterInit 0", "ZFN_BDAFilterRelease 0", "ZFN_Set_Frequency 601000",
//   "ZFN_Set_Bandwidth 6", "ZFN_DeviceUpdate", "ZFN_Demod_Byte_Read 1 3e 2" (address in hex),
//   "ZFN_Demod_Byte_Write 1 3e 2 00 00" (address and bytes in hex), "ZFN_GetData 240648 0"
//   (buffer size and the aux word as found on entry), "ZFN_SetDABEventHandle",
//   "ZFN_ReleaseDABEventHandle", "ZFN_Get_TunerType".
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Back to the state at load: logs empty, no failures, all registers 0, pattern stream with reads
// of 240648 bytes aligned to 4, unpaced. Does not stop a running event thread.
void TestDevice_Reset(void);

// The call log.
int32_t TestDevice_CallCount(void);
// Copies line `index` (no newline, NUL-terminated, cut to capacity) and returns its full length,
// or -1 if there is no such line.
int32_t TestDevice_GetCall(int32_t index, char* text, int32_t capacity);

// Register reads and writes in the call log, including refused ones.
int32_t TestDevice_AccessCount(void);

// Makes calls of the named device function (e.g. "ZFN_Demod_Byte_Write") fail: counting its calls
// from 0 at this moment, calls fromCall .. fromCall + count - 1 fail; count < 0 means all from
// fromCall on. Returns 0 for an unknown name. A later call for the same name replaces the rule.
int32_t TestDevice_FailFunction(const char* name, int32_t fromCall, int32_t count);
void TestDevice_ClearFailures(void);

// The register file. Set values before the code under test runs to check read-modify-write.
void TestDevice_SetRegister(int32_t page, int32_t address, uint8_t value);

// The stream: the deterministic pattern, byte k = TestDevice_PatternByte(k), until a test supplies
// a buffer, which is copied and served once (or round and round when loop is non-zero).
int32_t TestDevice_SetStreamBuffer(const uint8_t* data, int64_t size, int32_t loop);
uint8_t TestDevice_PatternByte(int64_t k);
// Bytes per ZFN_GetData call: length > 0 fixed (cut to the buffer size), 0 random 1..240648 from
// seed. With keepGroupsOfFour the count is rounded down to a multiple of 4.
void TestDevice_SetReadLength(int32_t length, uint32_t seed, int32_t keepGroupsOfFour);
// Paces the stream to a byte rate from the last restart (0 = unpaced). 4063492 is real time (1015873 engine samples a second, four bytes each).
void TestDevice_SetByteRate(int64_t bytesPerSecond);
// Faults of the stream: the next `count` bytes are lost (never served; paced time passes over
// them), and a stall serves nothing for `milliseconds` while the events go on, then the stream
// resumes at its rate without making up for the pause.
void TestDevice_LoseBytes(int64_t count);
void TestDevice_Stall(int32_t milliseconds);

int64_t TestDevice_BytesServed(void);     // since the last restart of the stream
int32_t TestDevice_EventThreadRunning(void);
// Which build this is: "testdevice", or another name for variants built for search-order tests.
const char* TestDevice_Flavour(void);

#ifdef __cplusplus
}
#endif
