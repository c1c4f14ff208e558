#pragma once
// Sample intake and block scheduling: the three engine threads, the block state machine and the
// walk of OFDM symbols across block edges.
#include <cstdint>

#include "numeric/vector_isa.h"
#include "shell/relaxed_word.h"

namespace zfn {

// Thread entries.
void ReceptionThread();
void DemodulationThread();
void PacketThread();

// Takes pending blocks from the ring and runs them through the state machine; returns when the
// ring is empty, the tuner is changing, or ten blocks were taken.
void ProcessPendingBlocks();
// Acts by blockState on sampleBlock.
void ProcessBlock();
// How the state machine takes a block from the ring: converted into sampleBlock (nothing in
// BLOCK_IDLE and BLOCK_NO_SIGNAL, whose blocks are thrown away).
void ConvertTakenBlock(const uint8_t* block, void*);
// Converts the 60160 retained samples of a raw block into sampleBlock, with the variant the vector
// set allows (numeric/vector_isa.h); every variant gives the scalar reference's values.
void ConvertBlock(const uint8_t* raw, float* samples);
void ConvertBlockWith(VectorIsa isa, const uint8_t* raw, float* samples);
void ConvertBlockScalar(const uint8_t* raw, float* samples);
#if defined(__x86_64__) || defined(__i386__)
void ConvertBlockAvx2(const uint8_t* raw, float* samples);
#endif
// Cuts the span of `floats` floats that starts at readPos in sampleBlock into `span`: the one way
// coarse sync, frame sync and tracking take a symbol. A span that reaches the block's end is cut in
// two: its head stays in span (straddleFlag, straddleFloats) and the call for the next block adds
// the rest and counts readPos from that block. A negative readPos, right after such a completion,
// reaches back into the tail of the last block that span still holds. 1 when span is whole; 0 when
// the block ran out first.
int32_t CutSampleSpan(float* span, int32_t floats);
// Walks the symbols of sampleBlock in BLOCK_TRACKING, each nsymbol + timingStep after the last. A
// step finds its symbol at symbolSpan: in sampleBlock, or in symbolBuffer where it crosses an edge.
void WalkSymbols();
// One symbol: tracking, decoding, then FinishSymbol.
void SymbolStep();
// The end of a symbol step: the resync rule, then the frame and pilot positions move on.
void FinishSymbol();

// The acquisition stages and set-ups that ProcessBlock calls by state. They are the stage entry
// points; tests of the state machine put scripted stand-ins here.
struct BlockStages {
  void (*detectModeAndGuard)();
  void (*runCoarseSync)();
  int32_t (*runFrameSync)();
  void (*setUpTracking)();
  int32_t (*setUpDecoder)();
};
extern BlockStages blockStages;
extern const BlockStages STAGE_ENTRY_POINTS;

// The walk calls the symbol step through this pointer. Tests replace it with a consumer that looks
// at symbolSpan and sets timingStep, to check the walk on its own.
extern void (*symbolStepHandler)();

// Steady clock in milliseconds, and the times the reception thread last published a block and the
// demodulation thread last took one (read by the status functions with the refinements on).
int64_t SteadyMilliseconds();
extern RelaxedWord<int64_t> lastBlockArrivalMs;
extern RelaxedWord<int64_t> lastBlockTakenMs;
// Both times to now: at open and at every retune, which start the stream's clock anew.
void MarkStreamProgress();

// Tells the packet thread to start over: tsResetPhase TS_RESET_PENDING, tsResetRequest 1, packetEvent.
void RequestPacketRestart();

}  // namespace zfn
