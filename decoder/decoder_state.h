#pragma once
// DecoderState: the stage-private record of channel decoding (deinterleavers, demapper, Viterbi
// decoder, byte stage), one instance, global `decoder`, zero at load. All of it is touched by the
// demodulation thread only. Buffers point into the work arena and are set by SetUpDecoder.
#include <cstdint>

namespace zfn {

// The Viterbi decoder runs at most 2016 trellis steps per call (Mode 3, 64QAM, rate 7/8) and keeps
// the decisions of the last 64 steps of one call in front of those of the next.
constexpr int32_t VITERBI_MAX_STEPS = 2016;
constexpr int32_t VITERBI_TRACEBACK = 64;

// The trellis of the K = 7 decoder: everything that persists from call to call. A record of its own
// so that every decoder variant works on a given instance and keeps no state anywhere else.
struct ViterbiTrellis {
  // Two banks of 64 byte metrics; the metric of state s stands at position s xor 15.
  alignas(32) uint8_t pathMetrics[2][64];
  uint8_t metricBank;         // bank that the next step writes; the other one is read
  uint8_t viterbiRestart{1};  // the next call starts a new trellis
  // With the refinements: the metrics are normalised on a fixed schedule (after every fourth step
  // of a call) rather than by the test of one state.
  uint8_t normaliseEveryFourth{0};
  // Four 16-bit decision words per step: 64 carried-over steps, then the steps of the present call.
  alignas(32) uint16_t decisionHistory[(VITERBI_TRACEBACK + VITERBI_MAX_STEPS) * 4];
};

constexpr int32_t BYTE_DELAY_STORE_BYTES = 1122;  // 17 * (11 + 10 + ... + 1)
constexpr int32_t MAX_DATA_CARRIERS = 384;

struct DecoderState : ViterbiTrellis {
  // Frequency deinterleaving.
  const int32_t* freqDeintTable;  // permutation of the mode, ndata entries
  float* freqDeint;               // ndata complex values

  // Time deinterleaving of the soft bits: one circular delay line per carrier but carrier 19 of each
  // group of 96, a cell of bitsPerCarrier bytes per symbol.
  int32_t interleaveGroups;  // groups of 96 carriers: 1, 2, 4
  int32_t interleaveDepth;   // depth I: 0, 1, 2, 4, 8, 16
  int32_t timeLineLength[5];  // first line length of each row, in bytes
  uint8_t* timeDelayStore;    // interleaveDepth * 4560 * interleaveGroups cells
  int32_t timeDelayPos[MAX_DATA_CARRIERS];  // next position of each line, in bytes

  // Soft demapping and bit deinterleaving.
  uint8_t* softBits;  // ndata * bitsPerCarrier soft bits, carrier after carrier
  uint8_t* carrierSoftBits;  // the same in the equaliser's carrier order, before deinterleaving
  uint8_t* bitDelay120;
  uint8_t* bitDelay96;
  uint8_t* bitDelay80;
  uint8_t* bitDelay72;
  uint8_t* bitDelay48;
  uint8_t* bitDelay40;
  uint8_t* bitDelay24;
  uint8_t* bitStream;  // ndata * bitsPerCarrier soft bits in coded bit order

  // Depuncturing and packing.
  int32_t depuncturedLength;  // soft bits per symbol after depuncturing
  int32_t punctureGroups;     // puncturing periods per symbol
  uint8_t* depunctured;       // absent at rate 1/2
  uint16_t* softPairs;        // one trellis step each: X soft bit high, Y soft bit low
  uint8_t* decodedBytes;      // depuncturedLength / 16 bytes used per symbol

  // Byte stage and packet alignment.
  int32_t alignState;      // 0 waiting for the start point, 1 assembling
  int32_t startupCount;    // symbols passed since set-up, stops at startupSymbols
  int32_t startupSymbols;  // 95 * interleaveDepth: the time deinterleaver's delay
  int32_t assemblyFill;    // bytes held in assemblyBlock
  uint8_t assemblyBlock[204];
  uint8_t deinterleavedBlock[204];
  uint8_t stagedPacket[204];
  uint8_t* byteDelayStore;      // BYTE_DELAY_STORE_BYTES
  uint8_t* byteDelayBranch[11];  // start of branches 0..10 in byteDelayStore
  int32_t byteDelayCell[11];     // current cell of branches 0..10
  uint8_t prbsHigh;
  uint8_t prbsLow;
  int32_t packetInFrame;    // block counter, 0 .. packetsPerFrame - 1
  int32_t packetsPerFrame;  // 204-byte packets per frame, also decoded bytes per symbol
};

extern DecoderState decoder;

}  // namespace zfn
