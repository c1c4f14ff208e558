// Byte stage: the start-up gate, assembly of 204-byte blocks, byte deinterleaving, energy
// derandomising, the rotation into packet order and the hand-over to the TsPacketRing.
//
// Packet boundaries are never searched for: no byte is compared with the sync byte. The start point
// is symbol 3 of the frame (the call that decodes symbol 0, since equalised carriers lag by three) with
// a first fill of 196 bytes, so that the 8 bytes by which the Viterbi decoder runs behind finish the
// first block and the next block begins with the first bit of the frame. A frame holds a whole number
// of packets, so every later boundary follows.
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/receiver_state.h"

namespace zfn {

namespace {

constexpr int32_t START_SYMBOL_INDEX = 3;
constexpr int32_t START_FILL = 196;
constexpr int32_t BYTE_BRANCHES = 12;
constexpr int32_t BRANCH_CELL_BYTES = 17;

// Energy dispersal generator 1 + x^14 + x^15 at the start of a frame (state 100101010000000), as the
// two bytes of the eight-bits-per-step form.
constexpr uint8_t PRBS_START_HIGH = 0x01;
constexpr uint8_t PRBS_START_LOW = 0xA9;

}  // namespace

void RunByteStage() {
  if (decoder.alignState == 0) {
    if (decoder.startupCount < decoder.startupSymbols) {
      ++decoder.startupCount;
      return;
    }
    if (engine.symbolIndex != START_SYMBOL_INDEX) return;
    decoder.alignState = 1;
    decoder.assemblyFill = START_FILL;
  }
  if (decoder.alignState != 1) return;
  AssembleBytes(decoder.decodedBytes, decoder.depuncturedLength / 16);
}

void AssembleBytes(const uint8_t* bytes, int32_t count) {
  while (count > 0) {
    const int32_t room = TS_PACKET_BYTES - decoder.assemblyFill;
    const int32_t take = count < room ? count : room;
    std::memcpy(decoder.assemblyBlock + decoder.assemblyFill, bytes, static_cast<size_t>(take));
    decoder.assemblyFill += take;
    bytes += take;
    count -= take;
    if (decoder.assemblyFill == TS_PACKET_BYTES) {
      DeinterleaveBytes(decoder.assemblyBlock, decoder.deinterleavedBlock);
      Derandomise(decoder.deinterleavedBlock, TS_PACKET_BYTES);
      // The block ends with a sync byte (branch 11, no delay): it goes in front as the sync byte of
      // the packet formed by the 203 bytes before it.
      decoder.stagedPacket[0] = decoder.deinterleavedBlock[TS_PACKET_BYTES - 1];
      std::memcpy(decoder.stagedPacket + 1, decoder.deinterleavedBlock, TS_PACKET_BYTES - 1);
      HandOverPacket();
      decoder.assemblyFill = 0;
    }
  }
}

void DeinterleaveBytes(const uint8_t* input, uint8_t* output) {
  // Branch j (0..10) is delayed by 11 - j whole blocks: a store of 11 - j cells of 17 bytes of which
  // one is exchanged whole per block, since the block length 204 = 12 * 17 keeps the commutator in step.
  for (int32_t j = 0; j < BYTE_BRANCHES - 1; ++j) {
    const int32_t cells = BYTE_BRANCHES - 1 - j;
    const int32_t cell = decoder.byteDelayCell[j];
    decoder.byteDelayCell[j] = cell + 1 == cells ? 0 : cell + 1;
    uint8_t* store = decoder.byteDelayBranch[j] + BRANCH_CELL_BYTES * cell;
    for (int32_t k = 0; k < BRANCH_CELL_BYTES; ++k) {
      output[j + BYTE_BRANCHES * k] = store[k];
      store[k] = input[j + BYTE_BRANCHES * k];
    }
  }
  for (int32_t k = 0; k < BRANCH_CELL_BYTES; ++k) output[11 + BYTE_BRANCHES * k] = input[11 + BYTE_BRANCHES * k];
}

void Derandomise(uint8_t* block, int32_t length) {
  uint32_t a = decoder.prbsHigh;
  uint32_t b = decoder.prbsLow;
  if (decoder.packetInFrame == 1) {
    a = PRBS_START_HIGH;
    b = PRBS_START_LOW;
  }
  decoder.packetInFrame = decoder.packetsPerFrame > 0 ? (decoder.packetInFrame + 1) % decoder.packetsPerFrame : 0;
  // One step yields eight sequence bits in B: B' = A ^ (2A + bit 6 of B), A' = 2B + bit 7 of B'. The
  // sync position (the last byte) runs the generator but is not XORed.
  const auto apply = [block, length](int32_t i, uint32_t y) {
    if (i < length - 1) block[i] = static_cast<uint8_t>(block[i] ^ y);
  };
  // The first eight bytes step by step; they fill the history of the last 64 sequence bits, the
  // oldest at the top.
  uint64_t history = 0;
  int32_t i = 0;
  for (; i < length && i < 8; ++i) {
    const uint32_t nb = (a ^ ((a << 1) + ((b >> 6) & 1))) & 0xFF;
    a = ((b << 1) + (nb >> 7)) & 0xFF;
    b = nb;
    history = history << 8 | nb;
    apply(i, nb);
  }
  // From there the bits follow s[n] = s[n-14] ^ s[n-15], squared twice s[n] = s[n-56] ^ s[n-60]:
  // seven bytes at once from the last eight, instead of a chain of one step per byte.
  while (i < length) {
    const uint64_t next = (history ^ (history >> 4)) & 0x00FFFFFFFFFFFFFFull;
    history = history << 56 | next;
    const int32_t n = length - i < 7 ? length - i : 7;
    for (int32_t k = 0; k < n; ++k) apply(i + k, static_cast<uint32_t>(next >> (48 - 8 * k)) & 0xFF);
    i += n;
    // The register after the last byte y: B = y, A = 2 * the byte before + bit 7 of y.
    const uint64_t last = history >> (8 * (7 - n));
    a = static_cast<uint32_t>(last >> 7) & 0xFF;
    b = static_cast<uint32_t>(last) & 0xFF;
  }
  decoder.prbsHigh = static_cast<uint8_t>(a);
  decoder.prbsLow = static_cast<uint8_t>(b);
}

void HandOverPacket() {
  if (engine.tsResetPhase != TS_RING_OPEN) return;  // a reset is pending: the packet is dropped
  {
    std::lock_guard<std::mutex> lock(device.packetRingLock);
    engine.ringWrite = (engine.ringWrite + 1) % TS_RING_SLOTS;
    // Equal indices mean empty: the packets still in the ring are lost.
    if (engine.ringWrite == engine.ringRead) CountPacketRingOverrun();
    std::memcpy(engine.ringSlots + TS_PACKET_BYTES * engine.ringWrite, decoder.stagedPacket, TS_PACKET_BYTES);
  }
  engine.tsResetRequest = 0;
  // Release: a drain that finds the flag set by this exchange also finds the packet in the ring.
  if (!device.packetWakePending.exchange(true, std::memory_order_acq_rel)) device.packetEvent.Set();
}

}  // namespace zfn
