#pragma once
// TMCC words for tests: systematic encoding of the shortened (184,102) code, and a word built from
// the fields the receiver reads.
#include <array>
#include <cstdint>
#include <vector>

#include "acquisition/acquisition.h"

namespace zfn::test {

using TmccWord = std::array<uint8_t, TMCC_WORD_BITS>;
using TmccInfo = std::array<uint8_t, TMCC_INFO_BITS>;

// The 102 information bits are w[0..101] (w[0] the highest degree); the parity w[102..183] is the
// remainder of info(x) * x^82 divided by g(x).
inline TmccWord EncodeTmcc(const TmccInfo& info) {
  constexpr int G_TERMS[] = {82, 77, 76, 71, 67, 66, 56, 52, 48, 40, 36, 34, 24, 22, 18, 10, 4, 0};
  std::vector<uint8_t> r(TMCC_WORD_BITS, 0);  // r[i] is the coefficient of x^(183 - i)
  for (int i = 0; i < TMCC_INFO_BITS; ++i) r[i] = info[i];
  for (int i = 0; i < TMCC_INFO_BITS; ++i) {
    if (!r[i]) continue;
    for (int t : G_TERMS) r[i + 82 - t] ^= 1;  // subtract x^(101 - i) * g(x)
  }
  TmccWord w{};
  for (int i = 0; i < TMCC_INFO_BITS; ++i) w[i] = info[i];
  for (int i = TMCC_INFO_BITS; i < TMCC_WORD_BITS; ++i) w[i] = r[i];
  return w;
}

struct TmccFields {
  int system;  // two bits: 0 television, 1 sound, 2 and 3 reserved
  int partial;
  int modulation, codeRate, interleave;
};

// A broadcast-like word: countdown 1111, one segment in layer A, layers B and C unused.
inline TmccWord TmccWordWith(const TmccFields& x) {
  TmccInfo info{};
  for (auto& b : info) b = 1;
  info[0] = (x.system >> 1) & 1;
  info[1] = x.system & 1;
  info[6] = 0;  // no emergency alarm
  info[7] = static_cast<uint8_t>(x.partial);
  for (int b = 0; b < 3; ++b) {
    info[8 + b] = (x.modulation >> (2 - b)) & 1;
    info[11 + b] = (x.codeRate >> (2 - b)) & 1;
    info[14 + b] = (x.interleave >> (2 - b)) & 1;
  }
  for (int b = 0; b < 4; ++b) info[17 + b] = (1 >> (3 - b)) & 1;  // 0001: one segment
  return EncodeTmcc(info);
}

}  // namespace zfn::test
