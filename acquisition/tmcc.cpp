// TMCC decoding (ARIB STD-B31 clause 3.15): a syndrome check of the shortened (184,102)
// difference-set cyclic code, majority-logic repair of the 21 bits the receiver reads, and the
// parameters of layer A, which carries the partial reception segment.
#include <cstring>

#include "acquisition/acquisition.h"
#include "shell/work_arena.h"

namespace zfn {

namespace {

// Perfect difference set modulo 273 of the (273,191) code that TMCC parity shortens (ARIB STD-B31
// clause 3.15): each residue 1..272 is one difference.
constexpr int32_t TMCC_DIFFERENCE_SET[17] = {0, 18, 24, 46, 50, 67, 103, 112, 115, 126, 128, 159, 166, 167, 186, 196, 201};
constexpr int32_t TMCC_CODE_LENGTH = 273;
constexpr int32_t TMCC_REPAIRED_BITS = 21;

// Dividing register for g(x) = x^82 + x^77 + x^76 + x^71 + x^67 + x^66 + x^56 + x^52 + x^48 + x^40
// + x^36 + x^34 + x^24 + x^22 + x^18 + x^10 + x^4 + 1, in three 32-bit words: cell x^d at bit
// 95 - d (bit 95 the top bit of the high word), so x^81 sits at bit 14 and feeds back.
constexpr uint32_t G_MASK_HIGH = 0x10404500u;
constexpr uint32_t G_MASK_MIDDLE = 0x51011100u;
constexpr uint32_t G_MASK_LOW = 0x62184000u;

}  // namespace

int32_t TmccSyndrome(const uint8_t* tmccWord) {
  uint32_t high = 0;
  uint32_t middle = 0;
  uint32_t low = 0;
  for (int32_t i = 0; i < TMCC_WORD_BITS; ++i) {
    const uint32_t f = (low >> 14) & 1u;
    if (f) {
      high ^= G_MASK_HIGH;
      middle ^= G_MASK_MIDDLE;
      low ^= G_MASK_LOW;
    }
    low = (low >> 1) | (middle << 31);
    middle = (middle >> 1) | (high << 31);
    high = (high >> 1) | (((tmccWord[i] & 1u) ^ f) << 31);
  }
  const uint32_t lowCells = low & 0xFFFFC000u;  // bits 14..31 of the low word
  return (high | middle | lowCells) == 0 ? 0 : 1;
}

namespace {

// Majority-logic repair of the first `count` bits of the word, in order: each bit is checked by
// the 17 parity checks orthogonal on it, the bits before it taken as already repaired.
void MajorityRepair(uint8_t* tmccWord, int32_t count) {
  uint8_t received[TMCC_WORD_BITS];
  uint8_t repaired[TMCC_WORD_BITS];
  std::memcpy(received, tmccWord, sizeof(received));
  for (int32_t j = 0; j < count; ++j) {
    int32_t odd = 0;
    for (int32_t a : TMCC_DIFFERENCE_SET) {
      int32_t sum = received[j];
      for (int32_t d : TMCC_DIFFERENCE_SET) {
        if (d == a) continue;
        const int32_t q = ((j + d - a) % TMCC_CODE_LENGTH + TMCC_CODE_LENGTH) % TMCC_CODE_LENGTH;
        if (q < j) {
          sum += repaired[q];
        } else if (q <= TMCC_WORD_BITS - 1) {
          sum += received[q];
        }  // positions removed by the shortening count as zero
      }
      odd += sum & 1;
    }
    uint8_t bit = received[j];
    if (odd > 8) {
      tmccWord[j] ^= 1u;
      bit ^= 1u;
    }
    repaired[j] = bit;
  }
}

// Whether the word, repaired as a whole, is a code word. The repair of the 21 bits the receiver
// reads always yields some 21 bits, so on noise the designed path accepts whatever parameters
// they spell; a word that the repair of all its 184 bits does not make a code word is no TMCC.
// Noise passes the 82 parity bits about once in 2^82 words.
bool RepairsToCodeWord(const uint8_t* tmccWord) {
  uint8_t whole[TMCC_WORD_BITS];
  std::memcpy(whole, tmccWord, sizeof(whole));
  MajorityRepair(whole, TMCC_WORD_BITS);
  return TmccSyndrome(whole) == 0;
}

}  // namespace

int32_t TmccMajorityCorrect(uint8_t* tmccWord) {
  MajorityRepair(tmccWord, TMCC_REPAIRED_BITS);
  return 2;
}

int32_t DecodeTmcc(const int8_t* tmccFrame) {
  ReceiverState& e = engine;
  // tmccFrame[k] is frame bit B(k+1); the code word is B20..B203, w[i] = B(i+20).
  uint8_t w[TMCC_WORD_BITS];
  for (int32_t i = 0; i < TMCC_WORD_BITS; ++i) w[i] = tmccFrame[19 + i] == 1 ? 1 : 0;

  const bool corrected = TmccSyndrome(w) != 0;
  if (corrected) {
    // Refinement: only a word that repairs to a code word is taken for TMCC.
    if (e.refined != 0 && !RepairsToCodeWord(w)) {
      e.tmccAccepted = 0;
      return 3;
    }
    TmccMajorityCorrect(w);
  }

  e.tmccRepeat = 0;
  LayerParams& layer = *e.layerParams;
  layer.modulation = static_cast<uint8_t>(4 * w[8] + 2 * w[9] + w[10]);
  layer.codeRate = static_cast<uint8_t>(4 * w[11] + 2 * w[12] + w[13]);
  layer.interleave = static_cast<uint8_t>(4 * w[14] + 2 * w[15] + w[16]);
  if (layer.modulation > 3 || layer.codeRate > 4 || layer.interleave > 3) return 3;

  // System identification 01 (sound), or 00 (television) with the partial reception flag.
  const bool receivable = w[0] == 0 && (w[1] == 1 || w[7] == 1);
  if (receivable) {
    e.tmccAccepted = 1;
    return corrected ? 4 : 2;
  }
  e.tmccAccepted = 0;
  return corrected ? 3 : 1;
}

}  // namespace zfn
