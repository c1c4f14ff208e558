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

uint8_t GfMul(uint8_t a, uint8_t b) {
  uint32_t x = a, y = b, r = 0;
  while (y != 0) {
    if (y & 1) r ^= x;
    x <<= 1;
    if (x & 0x100) x ^= 0x11D;
    y >>= 1;
  }
  return static_cast<uint8_t>(r);
}

std::vector<uint8_t> PolyFromRoots(int32_t firstPower, int32_t lastPower) {
  std::vector<uint8_t> g{1};
  uint8_t root = 1;
  for (int32_t i = 0; i < firstPower; ++i) root = GfMul(root, 2);
  for (int32_t i = firstPower; i <= lastPower; ++i, root = GfMul(root, 2)) {
    std::vector<uint8_t> next(g.size() + 1, 0);
    for (size_t j = 0; j < g.size(); ++j) {
      next[j + 1] ^= g[j];
      next[j] ^= GfMul(g[j], root);
    }
    g = next;
  }
  return g;
}

void RsEncode(uint8_t* packet) {
  static const sim::RsEncoder encoder;
  uint8_t unit[204];
  encoder.Encode(packet, unit);
  std::memcpy(packet + 188, unit + 188, 16);
}

}  // namespace zfn::test
