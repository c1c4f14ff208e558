// Intra-segment carrier randomisation, transmitter direction (ARIB STD-B31): input data symbol i
// of a segment goes to data slot table[i]. The standard defines this one table for both ends, so the
// transmitter takes it from the receiver's frequency de-interleaver, which reads it the other way;
// it is the only thing the two share.
#include "decoder/frequency_deinterleave_tables.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {

std::span<const int32_t> RandomisationTable(int mode) {
  if (mode == 1) return FREQ_DEINT_MODE1;
  if (mode == 2) return FREQ_DEINT_MODE2;
  return FREQ_DEINT_MODE3;
}

}  // namespace zfn::sim
