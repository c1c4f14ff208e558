#pragma once
// Shared pieces of the decoder and kernel tests: a work arena for the engine record, a reproducible
// random source, and coded material from our transmitter's stages.
#include <cstdint>
#include <vector>

namespace zfn::test {

// Gives the engine a fresh work arena of the real size and points the mode and layer records at
// their places in the engine record. Frees the previous arena.
void ResetEngineArena();
void SetLayer(uint8_t mode, uint8_t modulation, uint8_t codeRate, uint8_t interleave);

// xorshift64*: the same numbers on every platform.
struct Random {
  uint64_t state;
  explicit Random(uint64_t seed) : state(seed * 2654435761u + 0x9E3779B97F4A7C15ull) {}
  uint64_t Next() {
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 2685821657736338717ull;
  }
  uint32_t Below(uint32_t n) { return static_cast<uint32_t>((Next() >> 11) % n); }
};

// By our transmitter's coders: the polynomial over GF(256) with roots 2^first..2^last, lowest power
// first; RS(204,188) parity; soft pairs at full strength (0 for a 0 bit, 31 for a 1; X in the high
// byte) of the rate 1/2 convolutional code of count / 8 random bytes, which go to message if given.
std::vector<uint8_t> PolyFromRoots(int32_t firstPower, int32_t lastPower);
void RsEncode(uint8_t* packet);  // writes bytes 188..203 from 0..187
std::vector<uint16_t> CodedPairs(Random& random, int32_t count, std::vector<uint8_t>* message = nullptr);

}  // namespace zfn::test
