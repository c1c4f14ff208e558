#pragma once
// The ring of four raw blocks between the reception thread and the demodulation thread, and the
// assembly of the source's reads into whole blocks.
#include <cstdint>
#include <mutex>

namespace zfn {

struct BlockRing {
  uint8_t* slots[4];
  uint8_t* readBuffer;      // SOURCE_READ_BYTES: where the source delivers
  uint8_t* assemblyBuffer;  // RAW_BLOCK_BYTES: collects one block across reads
  int32_t writeIndex;       // slot last written
  int32_t readIndex;        // slot last taken
  uint32_t writeCount;      // blocks written, for diagnostics only
  uint32_t readCount;       // blocks taken; set to writeCount on a jump
  const uint8_t* lentBlock;  // while lent: the bytes that stand for slot writeIndex
  std::mutex ringLock;      // the two indices and the copies into and out of a slot
};

extern BlockRing blockRing;

// Allocates the read and assembly buffers and the four slots. 0 on an allocation failure, with
// what exists left to BlockRingFree.
int32_t BlockRingAlloc();
// Frees whatever BlockRingAlloc left; safe on a partly allocated ring. Returns 1.
int32_t BlockRingFree();

// Writes a whole block into the next slot (the ring laps without looking at the reader).
void BlockRingPublish(const uint8_t* block);
// The same without the copy, for a writer that runs the reader's pass itself while block stays
// valid (the synchronous driver): the next slot stands for block until BlockRingEndLend, which
// copies it into the slot only if the reader has not taken it. A reader that has taken it must not
// take it again (a jump to the newest) before the next block is written: the slot does not hold it.
void BlockRingLend(const uint8_t* block);
void BlockRingEndLend();
// What the reader does with a block it takes: use(block, context), in the slot, under the ring's
// lock, so that a lapping writer waits for it rather than rewrite the slot under it.
using BlockUse = void (*)(const uint8_t* block, void* context);
// Hands the next block in order to use. False when the ring is empty (readIndex == writeIndex).
bool BlockRingTakeNext(BlockUse use, void* context);
// Hands the newest block to use and marks everything up to it as taken.
void BlockRingTakeNewest(BlockUse use, void* context);
// The same with a copy of the block to target.
bool BlockRingTakeNext(uint8_t* target);
void BlockRingTakeNewest(uint8_t* target);

// Cuts a byte stream of arbitrary read lengths into whole raw blocks. A read may complete several
// blocks (a read longer than a block while one is partly assembled): every whole block is handed
// on at once, so the assembly buffer never overflows and no byte is lost.
struct BlockAssembler {
  uint8_t* buffer;    // RAW_BLOCK_BYTES
  int32_t remaining;  // bytes still missing from the block in buffer

  void Reset(uint8_t* assemblyBuffer);
  // Appends length bytes; calls onBlock(block, context) for every block completed, with block in
  // buffer, or in bytes where a whole block lies there; it is valid during the call only.
  // Returns the number of blocks completed.
  int32_t Append(const uint8_t* bytes, int64_t length, void (*onBlock)(const uint8_t*, void*),
                 void* context);
};

}  // namespace zfn
