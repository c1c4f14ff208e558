#include "shell/capture.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/fault_injection.h"
#include "shell/receiver_state.h"
#include "shell/shell_fields.h"

namespace zfn {

CaptureState capture;
RelaxedWord<int32_t> captureFault;

namespace {

// The ring is shared by reception and the capture thread with no lock between them: reception never
// waits for the writer, and a slot may be rewritten while it is being written to the file (the
// designed loss of a lapped block). Both sides therefore move the slots as relaxed atomic words, so
// a lap tears a block but is no data race; the capture thread copies a slot into a staging block of
// its own and writes that.
constexpr int32_t RING_WORDS = RAW_BLOCK_BYTES / 8;
static_assert(RAW_BLOCK_BYTES % 8 == 0, "slots are whole 64-bit words");

uint64_t staging[RING_WORDS];  // the capture thread's copy of the slot it writes

uint64_t* SlotWords(uint32_t index) {
  // The ring comes from malloc (aligned for any word) and is touched only through these words.
  return reinterpret_cast<uint64_t*>(device.captureRing + static_cast<size_t>(index % CAPTURE_SLOTS) * RAW_BLOCK_BYTES);
}

void StoreSlot(uint32_t index, const uint8_t* block) {
  uint64_t* words = SlotWords(index);
  for (int32_t i = 0; i < RING_WORDS; ++i) {
    uint64_t w;
    std::memcpy(&w, block + 8 * static_cast<size_t>(i), sizeof w);
    std::atomic_ref<uint64_t>(words[i]).store(w, std::memory_order_relaxed);
  }
}

void LoadSlot(uint32_t index) {
  uint64_t* words = SlotWords(index);
  for (int32_t i = 0; i < RING_WORDS; ++i) staging[i] = std::atomic_ref<uint64_t>(words[i]).load(std::memory_order_relaxed);
}

bool CaptureFaultInjected(CaptureFault fault) { return captureFault.load() == static_cast<int32_t>(fault); }

// Closes the capture file if it is still open. The pointer itself is kept, as stop keeps it.
void CloseCaptureFileLocked() {
  if (capture.captureFileOpen && std::fclose(capture.captureFile) != 0 && engine.refined != 0) {
    capture.health = CAPTURE_WRITE_FAILED;
  }
  capture.captureFileOpen = false;
}

// Refinement: writes one block unless the capture already failed; a block that reception lapped
// while it was copied, or a write the file refused, ends the writing.
void WriteBlockChecked(uint32_t index) {
  if (capture.health != CAPTURE_WHOLE) return;
  if (capture.captureWritten.load() - index > static_cast<uint32_t>(CAPTURE_SLOTS)) {
    capture.health = CAPTURE_LOST_BLOCKS;
    return;
  }
  LoadSlot(index);
  if (capture.captureWritten.load() - index > static_cast<uint32_t>(CAPTURE_SLOTS)) {
    capture.health = CAPTURE_LOST_BLOCKS;  // overwritten during the copy
    return;
  }
  if (std::fwrite(staging, 1, RAW_BLOCK_BYTES, capture.captureFile) != RAW_BLOCK_BYTES ||
      std::fflush(capture.captureFile) != 0) {
    capture.health = CAPTURE_WRITE_FAILED;
  }
}

// Waits at most timeoutMs for the capture thread to end; joins it and returns true if it did.
bool WaitForCaptureThread(int32_t timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (capture.threadEnded.load() == 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  capture.captureThread.Join();
  return true;
}

}  // namespace

int32_t CaptureRingAlloc() {
  if (FaultInjected(ShellFault::CaptureRing)) return 0;
  uint8_t* ring = static_cast<uint8_t*>(std::malloc(CAPTURE_RING_BYTES));
  if (ring == nullptr) return 0;
  std::scoped_lock lock(capture.feedLock, capture.writeLock);
  device.captureRing = ring;
  return 1;
}

void CaptureRingFree() {
  // Close does not stop the capture thread: it sees running = 0 at its next wake. Until then it may
  // be writing from the ring, so the release waits for the block in hand. (Reception, the other
  // user of the ring, has ended before close gets here; its lock is taken all the same.)
  std::scoped_lock lock(capture.feedLock, capture.writeLock);
  std::free(device.captureRing);
  device.captureRing = nullptr;
}

// Start: the steps of debug command 6, value 1.
//  1. Name "BBStore" + captureFileNumber, open it with mode "wb"; failure: result 0.
//  2. captureFileNumber += 1 (so the number advances even if a later step fails).
//  3. Create captureEvent; failure: result 0, the file left open.
//  4. captureOn = 1, captureWritten = 0, captureRead = 0.
//  5. Start the capture thread; failure: result 0, captureOn left at 1.
//  6. Result 1.
// A start without a stop before it is not a supported order. It is made harmless: the file left by
// the earlier start is closed when the new one replaces it (instead of being left open for good),
// and a capture thread of the earlier start is retired before the new one begins, so that one
// thread writes at a time.
int32_t StartCapture() {
  std::snprintf(capture.captureFileName, sizeof capture.captureFileName, "%s%d", CAPTURE_FILE_PREFIX,
                capture.captureFileNumber);
  FILE* file = std::fopen(capture.captureFileName, CAPTURE_FILE_MODE);
  if (file == nullptr) return 0;

  if (capture.captureThread.Exists()) {
    // An earlier capture thread: ask it to end, wake it, wait for it.
    capture.generation.store(capture.generation.load() + 1);
    capture.captureEvent.Set();
    while (!WaitForCaptureThread(CAPTURE_STOP_WAIT_MS)) {
    }
  }
  {
    std::lock_guard<std::mutex> lock(capture.writeLock);
    CloseCaptureFileLocked();
    capture.captureFile = file;
    capture.captureFileOpen = true;
  }
  // Unsigned arithmetic: the number wraps instead of overflowing.
  capture.captureFileNumber = static_cast<int32_t>(static_cast<uint32_t>(capture.captureFileNumber) + 1u);

  {
    std::lock_guard<std::mutex> lock(capture.feedLock);
    if (CaptureFaultInjected(CaptureFault::Event) || !capture.captureEvent.Create()) {
      capture.captureEvent.Close();
      return 0;
    }
  }

  {
    // Under reception's lock: a block fed between the switch and the reset of the counts would
    // otherwise leave a stale count behind the reset.
    std::lock_guard<std::mutex> lock(capture.feedLock);
    captureOn = 1;
    capture.health = CAPTURE_WHOLE;
    capture.captureWritten = 0;
    capture.captureRead = 0;
  }

  capture.threadEnded = 0;
  if (CaptureFaultInjected(CaptureFault::Thread) || !capture.captureThread.Start(CaptureThread)) {
    capture.threadEnded = 1;
    return 0;
  }
  return 1;
}

// Stop: the steps of debug command 6, value 0.
//  1. captureOn = 0.
//  2. If the thread exists: wait for it at most 2000 ms; if it ended, forget its handle.
//  3. Close captureEvent.
//  4. If captureFile is set, close it. The pointer is not cleared.
// The file pointer stays set after stop, so a second stop in a row would close the same file twice.
// The order start, stop, start, stop is the supported one; a second stop is made safe here by
// closing only a file that is still open (closing a FILE* twice is undefined behaviour), which
// changes nothing else: the same files, in the same order, with the same bytes.
int32_t StopCapture() {
  captureOn = 0;

  bool threadGone = true;
  if (capture.captureThread.Exists()) {
    capture.captureEvent.Set();  // wake it now rather than at its next time-out
    threadGone = WaitForCaptureThread(CAPTURE_STOP_WAIT_MS);
  }
  {
    // A thread that did not end in time still waits on the event: it stays open for that thread
    // and is closed by the next stop or replaced by the next start.
    std::lock_guard<std::mutex> lock(capture.feedLock);
    if (threadGone) capture.captureEvent.Close();
  }
  {
    std::lock_guard<std::mutex> lock(capture.writeLock);
    if (capture.captureFile != nullptr) CloseCaptureFileLocked();
  }
  return 1;
}

// The capture thread: while the device runs and capture is on, wait for the capture event (at most
// 500 ms); if it came, read captureWritten once and write the blocks from captureRead up to it,
// slot = index mod 3. Writes are not checked. It ends by itself when the device closes or capture
// stops.
void CaptureThread() {
  platform::SetCurrentThreadPriority(platform::ThreadPriority::Normal);
  const uint32_t myGeneration = capture.generation.load();
  while (device.running != 0 && captureOn != 0 && capture.generation.load() == myGeneration) {
    if (!capture.captureEvent.Wait(CAPTURE_WAIT_MS)) continue;
    const uint32_t written = capture.captureWritten.load();
    std::lock_guard<std::mutex> lock(capture.writeLock);
    uint32_t index = capture.captureRead.load();
    // The counts are running counts; a difference read as signed keeps a reset of the counts (by a
    // new start) from looking like four billion blocks to write.
    while (static_cast<int32_t>(written - index) > 0) {
      if (device.captureRing != nullptr && capture.captureFileOpen) {
        if (engine.refined != 0) {
          WriteBlockChecked(index);
        } else {
          LoadSlot(index);
          std::fwrite(staging, 1, RAW_BLOCK_BYTES, capture.captureFile);
        }
      }
      index += 1;
      capture.captureRead = index;
    }
  }
  capture.threadEnded = 1;
}

int32_t CaptureHealth() { return engine.refined != 0 ? capture.health.load() : 1; }

// Reception's part: with capture on, copy the block to slot (captureWritten mod 3), count it and
// set the capture event. Reception does not look at captureRead.
void CaptureFeed(const uint8_t* block) {
  if (captureOn == 0) return;
  std::lock_guard<std::mutex> lock(capture.feedLock);
  if (device.captureRing == nullptr) return;
  const uint32_t written = capture.captureWritten.load();
  StoreSlot(written, block);
  capture.captureWritten = written + 1;
  capture.captureEvent.Set();
}

}  // namespace zfn
