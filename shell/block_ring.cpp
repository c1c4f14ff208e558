#include "shell/block_ring.h"

#include <cstdlib>
#include <cstring>

#include "shell/fault_injection.h"
#include "shell/shell_fields.h"

namespace zfn {

BlockRing blockRing;

namespace {

// A lent block still to be taken goes into its slot before the lender's bytes go.
void BlockRingEndLendLocked() {
  if (blockRing.lentBlock == nullptr) return;
  if (blockRing.readIndex != blockRing.writeIndex) {
    std::memcpy(blockRing.slots[blockRing.writeIndex], blockRing.lentBlock, RAW_BLOCK_BYTES);
  }
  blockRing.lentBlock = nullptr;
}

// The bytes of slot index: the lent block where it stands for the slot.
const uint8_t* SlotBytes(int32_t index) {
  return blockRing.lentBlock != nullptr && index == blockRing.writeIndex ? blockRing.lentBlock : blockRing.slots[index];
}

uint8_t* AllocateBytes(int32_t bytes, ShellFault fault) {
  if (FaultInjected(fault)) return nullptr;
  return static_cast<uint8_t*>(std::malloc(static_cast<size_t>(bytes)));
}

}  // namespace

int32_t BlockRingAlloc() {
  for (auto& slot : blockRing.slots) slot = nullptr;
  blockRing.readBuffer = AllocateBytes(SOURCE_READ_BYTES, ShellFault::RingReadBuffer);
  if (blockRing.readBuffer == nullptr) return 0;
  blockRing.assemblyBuffer = AllocateBytes(RAW_BLOCK_BYTES, ShellFault::RingAssemblyBuffer);
  if (blockRing.assemblyBuffer == nullptr) return 0;
  for (auto& slot : blockRing.slots) {
    slot = AllocateBytes(RAW_BLOCK_BYTES, ShellFault::RingSlot);
    if (slot == nullptr) return 0;
  }
  blockRing.writeIndex = 0;
  blockRing.readIndex = 0;
  blockRing.writeCount = 0;
  blockRing.readCount = 0;
  blockRing.lentBlock = nullptr;
  return 1;
}

int32_t BlockRingFree() {
  for (auto& slot : blockRing.slots) {
    std::free(slot);
    slot = nullptr;
  }
  std::free(blockRing.readBuffer);
  blockRing.readBuffer = nullptr;
  std::free(blockRing.assemblyBuffer);
  blockRing.assemblyBuffer = nullptr;
  blockRing.lentBlock = nullptr;
  return 1;
}

void BlockRingPublish(const uint8_t* block) {
  std::lock_guard<std::mutex> lock(blockRing.ringLock);
  BlockRingEndLendLocked();
  blockRing.writeIndex = (blockRing.writeIndex + 1) & 3;
  std::memcpy(blockRing.slots[blockRing.writeIndex], block, RAW_BLOCK_BYTES);
  blockRing.writeCount += 1;
}

void BlockRingLend(const uint8_t* block) {
  std::lock_guard<std::mutex> lock(blockRing.ringLock);
  BlockRingEndLendLocked();
  blockRing.writeIndex = (blockRing.writeIndex + 1) & 3;
  blockRing.lentBlock = block;
  blockRing.writeCount += 1;
}

void BlockRingEndLend() {
  std::lock_guard<std::mutex> lock(blockRing.ringLock);
  BlockRingEndLendLocked();
}

bool BlockRingTakeNext(BlockUse use, void* context) {
  // The use stays inside the lock: a lapped reader would otherwise read a slot while reception
  // rewrites it. The cost is one block's use of waiting for the reception thread at most.
  std::lock_guard<std::mutex> lock(blockRing.ringLock);
  if (blockRing.readIndex == blockRing.writeIndex) return false;
  blockRing.readIndex = (blockRing.readIndex + 1) & 3;
  use(SlotBytes(blockRing.readIndex), context);
  blockRing.readCount += 1;
  return true;
}

void BlockRingTakeNewest(BlockUse use, void* context) {
  std::lock_guard<std::mutex> lock(blockRing.ringLock);
  use(SlotBytes(blockRing.writeIndex), context);
  blockRing.readIndex = blockRing.writeIndex;
  blockRing.readCount = blockRing.writeCount;
}

namespace {

void CopyBlock(const uint8_t* block, void* target) { std::memcpy(target, block, RAW_BLOCK_BYTES); }

}  // namespace

bool BlockRingTakeNext(uint8_t* target) { return BlockRingTakeNext(CopyBlock, target); }
void BlockRingTakeNewest(uint8_t* target) { BlockRingTakeNewest(CopyBlock, target); }

void BlockAssembler::Reset(uint8_t* assemblyBuffer) {
  buffer = assemblyBuffer;
  remaining = RAW_BLOCK_BYTES;
}

int32_t BlockAssembler::Append(const uint8_t* bytes, int64_t length,
                               void (*onBlock)(const uint8_t*, void*), void* context) {
  int32_t blocks = 0;
  while (length > 0) {
    if (remaining == RAW_BLOCK_BYTES && length >= RAW_BLOCK_BYTES) {
      // A whole block in the bytes given goes on from where it lies, without the assembly copy.
      onBlock(bytes, context);
      ++blocks;
      bytes += RAW_BLOCK_BYTES;
      length -= RAW_BLOCK_BYTES;
      continue;
    }
    const int32_t take = length < remaining ? static_cast<int32_t>(length) : remaining;
    std::memcpy(buffer + (RAW_BLOCK_BYTES - remaining), bytes, static_cast<size_t>(take));
    bytes += take;
    length -= take;
    remaining -= take;
    if (remaining == 0) {
      onBlock(buffer, context);
      ++blocks;
      remaining = RAW_BLOCK_BYTES;
    }
  }
  return blocks;
}

}  // namespace zfn
