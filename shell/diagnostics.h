#pragma once
// The developer side of the receiver: log lines, the twelve-word status block, the debug command
// and the engine side of the plotting probe.
#include <bit>
#include <cstdint>

#include "shell/matlab_probe.h"
#include "shell/relaxed_word.h"

namespace zfn {

// Twelve status words, written without a lock by the engine, read by the host at any time.
// Words 0, 1, 7, 8, 9 and 11 hold 32-bit floats.
struct DebugParaBlock {
  static constexpr int32_t WORDS = 12;
  RelaxedWord<int32_t> word[WORDS];

  void SetInt(int32_t index, int32_t v) { word[index].store(v); }
  void SetFloat(int32_t index, float v) { word[index].store(std::bit_cast<int32_t>(v)); }
  int32_t Int(int32_t index) const { return word[index].load(); }
  float Float(int32_t index) const { return std::bit_cast<float>(word[index].load()); }
};
static_assert(sizeof(DebugParaBlock) == 12 * sizeof(int32_t), "the host reads twelve plain words");

extern DebugParaBlock debugParaBlock;

// Word 2 stays 0 in the designed receiver. With the refinements on it tells the host the layer
// parameters of the broadcast, written when tracking starts and cleared by a retune:
// LAYER_WORD_VALID | interleave << 16 | codeRate << 8 | modulation (the TMCC indices of layer A:
// modulation 0..3 DQPSK, QPSK, 16QAM, 64QAM; code rate 0..4 1/2..7/8; interleave 0..3).
constexpr int32_t LAYER_WORD_VALID = 0x01000000;
constexpr int32_t LayerWord(int32_t modulation, int32_t codeRate, int32_t interleave) {
  return LAYER_WORD_VALID | (interleave & 0xff) << 16 | (codeRate & 0xff) << 8 | (modulation & 0xff);
}

// Shell side of the probe: set by debug command 1, copied into the engine between blocks.
extern RelaxedWord<int32_t> probeEnable;
extern MatlabProbe* matlabProbe;

// Capture of raw blocks to files: on while non-zero; cleared by close.
extern RelaxedWord<int32_t> captureOn;

// Status word 6 stays 0 in the designed receiver. With the refinements on it counts the overruns of
// the packet ring since the last retune: each time the demodulation thread laps the packet thread,
// whose host callback is too slow, and the packets in the ring are lost. Called under packetRingLock.
constexpr int32_t PACKET_OVERRUN_WORD = 6;
void CountPacketRingOverrun();

// Formats a log text (printf rules, at most 16379 characters) and passes it to the debug output.
void LogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The three debug exports.
int32_t DebugCommand(int32_t command, int32_t value);
int32_t DebugGetParaPtr(int32_t** target);
int32_t DebugGetParaValue(int32_t* target);

}  // namespace zfn
