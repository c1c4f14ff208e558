// Reed-Solomon (204,188) decoding of any 204 bytes: the full decoder and the parity check.
#include <cstdint>
#include <cstring>

#include "decoder/reed_solomon.h"
#include "shell/stages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool tables = zfn::BuildRsTables() == 1;
  if (!tables || size < 204) return 0;
  uint8_t packet[204];
  std::memcpy(packet, data, sizeof packet);
  zfn::CheckRsParity(packet);
  zfn::DecodeRs(packet);
  return 0;
}
