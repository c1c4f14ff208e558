#pragma once
// A synchronous driver of the engine: the same block state machine as the demodulation thread,
// fed from memory block by block, with no threads, no device and no real time. Offline decoding
// and the tests of acquisition, tracking and decoding run on it.
//
// Only one engine exists per process: the driver refuses to open while the device is open, and
// the device must not be opened while the driver is.
#include <cstddef>
#include <cstdint>

#include "shell/receiver_state.h"

namespace zfn {

// Receives what the transport stage delivers (24064 bytes per call).
using SyncPacketConsumer = void (*)(const uint8_t* data, int32_t length, void* context);

// Builds the engine (EngineInit) and the block ring, without threads or a sample source. The
// engine starts in BLOCK_IDLE, like after open; call SyncDriverRetune to start acquisition.
// 1 on success, 0 if the device is open, the driver is already open, or memory is short.
int32_t SyncDriverOpen(SyncPacketConsumer consumer, void* context);
// Feeds bytes of the device stream (groups of four bytes per engine sample), any length. Each
// completed 240640-byte block is handled at once as the demodulation thread would, and the packet
// ring is drained after it. Returns the number of blocks completed.
int32_t SyncDriverFeed(const uint8_t* bytes, size_t length);
// As a retune: RetuneReset under the control lock; the next block is taken by the jump path.
void SyncDriverRetune();
// Releases the engine (EngineFree) and the ring; harmless when not open.
void SyncDriverClose();
bool SyncDriverIsOpen();

// Read-only views for the tests and tools.
int32_t SyncDriverBlockState();
uint32_t SyncDriverBlocksHandled();  // blocks completed since open
const ReceiverState& SyncDriverEngine();

}  // namespace zfn
