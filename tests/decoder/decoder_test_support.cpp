#include "tests/decoder/decoder_test_support.h"

#include <cstdlib>
#include <cstring>

#include "shell/receiver_state.h"

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

void ConvolutionalEncoder::Encode(const std::vector<uint8_t>& bytes, std::vector<uint8_t>& coded) {
  for (uint8_t byte : bytes) {
    for (int b = 7; b >= 0; --b) {
      const uint32_t u = (byte >> b) & 1;
      const uint32_t p = state;
      auto bit = [p](int k) { return (p >> k) & 1; };
      coded.push_back(static_cast<uint8_t>(u ^ bit(0) ^ bit(1) ^ bit(2) ^ bit(5)));  // 171: delays 1, 2, 3, 6
      coded.push_back(static_cast<uint8_t>(u ^ bit(1) ^ bit(2) ^ bit(4) ^ bit(5)));  // 133: delays 2, 3, 5, 6
      state = ((p << 1) | u) & 63;
    }
  }
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

uint8_t GfPow2(int32_t e) {
  uint8_t r = 1;
  for (int32_t i = 0; i < e; ++i) r = GfMul(r, 2);
  return r;
}

std::vector<uint8_t> PolyFromRoots(int32_t firstPower, int32_t lastPower) {
  std::vector<uint8_t> g{1};
  for (int32_t i = firstPower; i <= lastPower; ++i) {
    const uint8_t root = GfPow2(i);
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
  static const std::vector<uint8_t> g = PolyFromRoots(0, 15);
  // Remainder of d(x) * x^16 modulo g(x), long division over the data bytes, highest power first.
  uint8_t rem[16] = {};  // rem[i]: coefficient of x^i
  for (int m = 0; m < 188; ++m) {
    const uint8_t t = packet[m] ^ rem[15];
    std::memmove(rem + 1, rem, 15);
    rem[0] = 0;
    for (int j = 0; j < 16; ++j) rem[j] ^= GfMul(t, g[j]);
  }
  for (int i = 0; i < 16; ++i) packet[203 - i] = rem[i];
}

}  // namespace zfn::test
