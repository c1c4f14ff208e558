#pragma once
// Control of the test build of the plotting bridge (build/lib/testbridge/libISDBT_MatlabWrap.so).
//
// The three bridge functions record their calls. MATLAB_Initial returns 0, or -1 when told to fail;
// MATLAB_Show writes the address of a record with arrays of the full capacities (or null when told
// to) with a fresh update event; MATLAB_Destroy takes a last update, closes the event, clears the
// record and forgets it. An update is counted when the test asks for the count and finds the event
// set (sets close together merge into one). A test that links this library keeps it loaded, so its
// counts survive the receiver's unload.
#include <stdint.h>

#include "shell/matlab_probe.h"

#ifdef __cplusplus
extern "C" {
#endif

void TestBridge_Reset(void);                 // settings cleared, counts zeroed
void TestBridge_FailInitial(int32_t fail);   // non-zero: MATLAB_Initial returns -1
void TestBridge_NullRecord(int32_t null);    // non-zero: MATLAB_Show writes a null record
int32_t TestBridge_Calls(const char* name);  // "MATLAB_Initial", "MATLAB_Show", "MATLAB_Destroy"
int64_t TestBridge_Updates(void);            // update events taken since the reset
// Waits up to timeoutMs for at least count update events; 1 if they came.
int32_t TestBridge_WaitUpdates(int64_t count, int32_t timeoutMs);
// The record as handed out by the last MATLAB_Show, null after MATLAB_Destroy.
zfn::MatlabProbe* TestBridge_Record(void);

#ifdef __cplusplus
}
#endif
