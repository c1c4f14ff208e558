#include "tests/decoder/decoder_test_support.h"

#include <cstdlib>
#include <cstring>

#include "shell/receiver_state.h"
#include "simulator/tx_stages.h"

namespace zfn::test {

void ResetEngineArena() {
  std::free(engine.arenaBase);
  engine.arenaBase = static_cast<uint8_t*>(std::calloc(WORK_ARENA_BYTES, 1));
  engine.arenaNext = engine.arenaBase;
  engine.arenaFree = WORK_ARENA_BYTES;
  engine.modeGuard = &engine.modeGuardRecord;
  engine.layerParams = &engine.layerParamsRecord;
}

void SetLayer(uint8_t mode, uint8_t modulation, uint8_t codeRate, uint8_t interleave) {
  engine.modeGuardRecord.mode = mode;
  engine.layerParamsRecord = {modulation, codeRate, interleave};
  engine.ndata = 96 << mode;
}

std::vector<uint8_t> PolyFromRoots(int32_t firstPower, int32_t lastPower) {
  static const sim::RsEncoder field;
  std::vector<uint8_t> g{1};
  for (int32_t i = firstPower; i <= lastPower; ++i) {
    std::vector<uint8_t> next(g.size() + 1, 0);
    for (size_t j = 0; j < g.size(); ++j) {
      next[j + 1] ^= g[j];
      next[j] ^= field.Mul(g[j], field.Power(i));
    }
    g = next;
  }
  return g;
}

std::vector<uint16_t> CodedPairs(Random& random, int32_t count, std::vector<uint8_t>* message) {
  std::vector<uint8_t> bytes(static_cast<size_t>((count + 7) / 8));
  for (auto& b : bytes) b = static_cast<uint8_t>(random.Next());
  std::vector<uint8_t> coded(bytes.size() * 16);
  sim::ConvolutionalEncoder(0).EncodeBytes(bytes, coded.data());
  std::vector<uint16_t> pairs(static_cast<size_t>(count));
  for (size_t i = 0; i < pairs.size(); ++i) pairs[i] = static_cast<uint16_t>((coded[2 * i] * 31) << 8 | coded[2 * i + 1] * 31);
  if (message != nullptr) *message = bytes;
  return pairs;
}

void RsEncode(uint8_t* packet) {
  static const sim::RsEncoder encoder;
  uint8_t unit[204];
  encoder.Encode(packet, unit);
  std::memcpy(packet + 188, unit + 188, 16);
}

}  // namespace zfn::test
