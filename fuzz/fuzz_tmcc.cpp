// TMCC decoding of any 204 hard bits (one input bit each), and the code's syndrome and
// majority-logic repair of any 184-bit word.
#include <cstdint>

#include "acquisition/acquisition.h"
#include "shell/sync_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool open = zfn::SyncDriverOpen(nullptr, nullptr) == 1;  // the engine record
  if (!open || size < 26) return 0;
  int8_t frame[204];
  uint8_t word[zfn::TMCC_WORD_BITS];
  for (int i = 0; i < 204; ++i) frame[i] = (data[i / 8] >> (i % 8)) & 1 ? 1 : -1;
  for (int i = 0; i < zfn::TMCC_WORD_BITS; ++i) word[i] = (data[i / 8] >> (i % 8)) & 1;
  zfn::DecodeTmcc(frame);
  zfn::TmccSyndrome(word);
  zfn::TmccMajorityCorrect(word);
  return 0;
}
