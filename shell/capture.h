#pragma once
// Capture of the raw sample stream to files "BBStore0", "BBStore1", ... in the current directory:
// the blocks exactly as received, four bytes per engine sample, no header (the format the simulator
// plays back). Debug command 6 starts (value 1) and stops (value 0) it.
//
// The reception thread copies each whole block into a ring of three slots (CaptureFeed); a capture
// thread of default priority writes them to the file. Reception never waits for the writer, so a
// slow disk loses blocks and a lapped slot holds newer data by the time it is written. Three slots
// are about 178 ms of slack.
//
// Shared with the shell: the capture switch `captureOn` (shell/diagnostics.h), which close clears,
// and the ring `device.captureRing`, which open allocates last and close frees (CaptureRingAlloc,
// CaptureRingFree below).
#include <cstdint>
#include <cstdio>
#include <mutex>

#include "platform/auto_reset_event.h"
#include "platform/thread.h"
#include "shell/relaxed_word.h"

namespace zfn {

constexpr int32_t CAPTURE_SLOTS = 3;
constexpr int32_t CAPTURE_WAIT_MS = 500;       // the capture thread's wait for the capture event
constexpr int32_t CAPTURE_STOP_WAIT_MS = 2000; // stop's wait for the capture thread
constexpr const char* CAPTURE_FILE_PREFIX = "BBStore";
constexpr const char* CAPTURE_FILE_MODE = "wb";

constexpr int32_t CAPTURE_WHOLE = 1;         // every block fed so far is in the file
constexpr int32_t CAPTURE_LOST_BLOCKS = 0;   // the writer fell behind: reception lapped the ring
constexpr int32_t CAPTURE_WRITE_FAILED = -1; // the file refused a write (a full disk, an I/O error)

struct CaptureState {
  RelaxedWord<uint32_t> captureWritten;  // running count of blocks fed by reception
  RelaxedWord<uint32_t> captureRead;     // running count of blocks written to the file
  platform::AutoResetEvent captureEvent; // reception -> capture thread
  platform::Thread captureThread;
  FILE* captureFile;           // not cleared by stop (see StopCapture)
  int32_t captureFileNumber;   // number of the next file; kept over close and open
  char captureFileName[24];    // "BBStore" and the number

  // Guards of the file and of the thread's life.
  bool captureFileOpen;                 // captureFile is open: the guard against a second fclose
  RelaxedWord<int32_t> threadEnded;     // set by the capture thread as its last act
  RelaxedWord<uint32_t> generation;     // a thread runs only while this is the value it started with
  // Refinement (engine.refined): CAPTURE_WHOLE while every block fed has been written in order;
  // after a lost block or a failed write the thread writes no more, so that the file is the whole
  // stream up to the fault and never a stream with holes. Debug command 6 with value 2 returns it.
  RelaxedWord<int32_t> health{1};
  std::mutex writeLock;  // the file and the ring while the capture thread writes; open and close
  std::mutex feedLock;   // the capture event while reception sets it; start and stop
};

extern CaptureState capture;

// Test hook: makes one step of StartCapture fail as if the system had refused it. Nothing sets it
// outside the tests.
enum class CaptureFault : int32_t { None = 0, Event, Thread };
extern RelaxedWord<int32_t> captureFault;

// The ring of three raw blocks: last step of open (1 allocated, 0 failed) and part of close.
// The release waits for a capture thread that is writing from the ring.
int32_t CaptureRingAlloc();
void CaptureRingFree();

// Debug command 6 with value 1: 1 started, 0 not (see the steps in capture.cpp).
int32_t StartCapture();
// Debug command 6 with value 0. Returns 1.
int32_t StopCapture();
// Debug command 6 with value 2: with the refinements on, the health of the capture since its
// start (CAPTURE_WHOLE, CAPTURE_LOST_BLOCKS, CAPTURE_WRITE_FAILED); otherwise 1, as for any other
// value.
int32_t CaptureHealth();
// Entry of the capture thread.
void CaptureThread();
// Called by the reception thread with each whole block while capture may be on.
void CaptureFeed(const uint8_t* block);

}  // namespace zfn
