#pragma once
// Control of the test build of the simulator library (build/lib/testsim/libBDA_simu.so).
//
// Behaviour of the four simulator functions in this build:
// - SetEventHandle copies the eventfd; BDA_Start_simulate restarts the stream at byte 0 and starts
//   a thread that writes the value 1 to the eventfd every 5 ms; BDA_Stop_simulate stops
//   and joins it. Results 0, or -1 on failure.
// - GetData serves the deterministic pattern, byte k of the stream = TestSim_PatternByte(k), never
//   more than 240648 bytes per call; 0 bytes while not started.
//
// ZFN_TESTSIM_BYTE_RATE, read when the library is loaded and at TestSim_Reset, paces the stream
// to that many bytes per second (default unpaced).
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void TestSim_Reset(void);  // settings back to the environment's, counts zeroed; a running thread runs on
// Makes the named function ("SetEventHandle", "BDA_Start_simulate", "GetData", "BDA_Stop_simulate")
// return -1 from now on; returns 0 for an unknown name.
int32_t TestSim_FailFunction(const char* name);
void TestSim_ClearFailures(void);
// length > 0 fixed, 0 random 1..240648 from seed; keepGroupsOfFour rounds down to a multiple of 4.
void TestSim_SetReadLength(int32_t length, uint32_t seed, int32_t keepGroupsOfFour);
void TestSim_SetByteRate(int64_t bytesPerSecond);
uint8_t TestSim_PatternByte(int64_t k);
int32_t TestSim_CallCount(const char* name);  // calls of one of the four functions since load or reset
int32_t TestSim_Started(void);  // 1 between a successful start and the stop
int32_t TestSim_EventThreadRunning(void);

#ifdef __cplusplus
}
#endif
