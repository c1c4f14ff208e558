#include "shell/sync_driver.h"

#include "shell/block_ring.h"
#include "shell/block_scheduler.h"
#include "shell/device_state.h"
#include "shell/engine_memory.h"
#include "shell/lifecycle.h"
#include "shell/stages.h"

namespace zfn {

namespace {

struct SyncDriver {
  bool open = false;
  BlockAssembler assembler{};
  uint32_t blocks = 0;
  SyncPacketConsumer consumer = nullptr;
  void* context = nullptr;
  ZFISDBT_TsCallback savedCallback = nullptr;
};

SyncDriver driver;

// The transport stage delivers through the host callback; the driver routes it to its consumer.
void DeliverToConsumer(const uint8_t* data, int32_t length) {
  if (driver.consumer != nullptr) driver.consumer(data, length, driver.context);
}

void HandleBlock(const uint8_t* block, void*) {
  driver.blocks += 1;
  // The block is valid for this call, and the pass below takes it (and any jump back to it) before
  // the call ends: the ring reads it where it lies instead of from a copy in its slot.
  BlockRingLend(block);
  // The same pass the demodulation thread runs on blockEvent, then the packet thread's drain.
  ProcessPendingBlocks();
  BlockRingEndLend();
  device.packetEvent.Wait(0);
  DrainPacketRing();
}

void Release() {
  EngineFree();
  BlockRingFree();
  device.controlLock.Close();
  device.packetEvent.Close();
  device.tsCallback = driver.savedCallback;
  driver = SyncDriver{};
}

}  // namespace

int32_t SyncDriverOpen(SyncPacketConsumer consumer, void* context) {
  if (driver.open || device.running != 0) return 0;
  driver.open = true;
  driver.consumer = consumer;
  driver.context = context;
  driver.savedCallback = device.tsCallback;
  device.tsCallback = DeliverToConsumer;
  if (BlockRingAlloc() == 0 || !device.controlLock.Create(true) || !device.packetEvent.Create()) {
    Release();
    return 0;
  }
  ClearControlBlock();
  if (EngineInit() == 0) {
    Release();
    return 0;
  }
  driver.assembler.Reset(blockRing.assemblyBuffer);
  return 1;
}

int32_t SyncDriverFeed(const uint8_t* bytes, size_t length) {
  if (!driver.open || bytes == nullptr) return 0;
  return driver.assembler.Append(bytes, static_cast<int64_t>(length), HandleBlock, nullptr);
}

void SyncDriverRetune() {
  if (!driver.open) return;
  device.controlLock.Wait(platform::WAIT_INFINITE);
  RetuneReset();
  device.controlLock.Set();
}

void SyncDriverClose() {
  if (driver.open) Release();
}

bool SyncDriverIsOpen() { return driver.open; }
int32_t SyncDriverBlockState() { return engine.blockState; }
uint32_t SyncDriverBlocksHandled() { return driver.blocks; }
const ReceiverState& SyncDriverEngine() { return engine; }

}  // namespace zfn
