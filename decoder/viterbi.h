#pragma once
// Soft-decision Viterbi decoder of the ISDB-T inner code: rate 1/2, K = 7, generators 171 and 133
// (octal), 64 states. Byte path metrics with saturation, one continuous trellis across calls, a
// constant delay of 64 bits.
//
// State s is six bits, bit 0 the newest input bit: from state p with input u the next state is
// (2p + u) mod 64, and the outputs are X = u^p0^p1^p2^p5 and Y = u^p1^p2^p4^p5. The metric of state s
// stands at position s xor 15 of a bank; the decision of state s is bit (15 - s mod 16) of word s / 16
// of a step, 1 when the surviving predecessor is the one with top bit 1.
//
// Normalisation, as designed: after a step whose new metric at position 32 (state 47) exceeds 150, the
// least new metric is subtracted from all 64. With `normaliseEveryFourth` set on the trellis (the
// refinements), after every step whose index within the call is 3 mod 4 the least metric of the
// step before it is subtracted instead; no new metric lies below it, since branch costs are never
// negative. The three steps between then go without test or search, and the subtraction, one step
// ahead, stays off the chain from step to step. With soft bits in 0..31 the least metric before a
// subtraction is at most 155 (a least of at most 31 after the last one, then four steps of at most
// 31), about where the designed test keeps it.
//
// Each call takes `count` soft pairs (X soft bit in the high byte, Y in the low byte, each 0..31) and
// writes count / 8 bytes that lie exactly 64 steps behind the newest step, earliest bit first (MSB).
#include <cstdint>

#include "decoder/decoder_state.h"
#include "numeric/vector_isa.h"

namespace zfn {

using ViterbiKernel = VectorIsa;

// The decoder stage of SymbolSink: runs on `decoder` with the kernel of ActiveVectorIsa().
void ViterbiDecode(const uint16_t* pairs, int32_t count, uint8_t* output);

// One call on a given trellis with a given kernel. count must lie in 0..VITERBI_MAX_STEPS; any other
// count leaves trellis and output untouched. A kernel the processor lacks falls back to the next best.
void ViterbiRun(ViterbiTrellis& trellis, ViterbiKernel kernel, const uint16_t* pairs, int32_t count, uint8_t* output);

// The best kernel that this processor runs.
inline ViterbiKernel BestViterbiKernel() { return BestVectorIsa(); }
inline bool ViterbiKernelAvailable(ViterbiKernel kernel) { return VectorIsaAvailable(kernel); }
inline const char* ViterbiKernelName(ViterbiKernel kernel) { return VectorIsaName(kernel); }

// The kernels themselves. The scalar one is the plain reference; every other kernel gives the same
// output and leaves the same trellis, bit for bit, on every input.
void ViterbiDecodeScalar(ViterbiTrellis& trellis, const uint16_t* pairs, int32_t count, uint8_t* output);
#if defined(__x86_64__) || defined(__i386__)
void ViterbiDecodeSse2(ViterbiTrellis& trellis, const uint16_t* pairs, int32_t count, uint8_t* output);
void ViterbiDecodeAvx2(ViterbiTrellis& trellis, const uint16_t* pairs, int32_t count, uint8_t* output);
#endif

// Helpers shared by the kernels: start of a call and the traceback that ends it.
void ViterbiBeginCall(ViterbiTrellis& trellis);
void ViterbiTraceBack(ViterbiTrellis& trellis, int32_t count, uint8_t* output);
// The same traceback from a given best position: the first position of the least metric of the
// newest bank (bank metricBank xor 1).
void ViterbiTraceBackFrom(ViterbiTrellis& trellis, int32_t best, int32_t count, uint8_t* output);

}  // namespace zfn
