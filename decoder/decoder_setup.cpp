// Decoder set-up: turns the mode and the layer parameters of TMCC into every length of the decoding
// chain and takes all of its buffers from the work arena, in a fixed order.
#include <cstring>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "decoder/frequency_deinterleave_tables.h"
#include "shell/stages.h"
#include "shell/work_arena.h"

namespace zfn {

DecoderState decoder;

namespace {

// Time interleaving depth I by the TMCC code (rows) and mode (columns), ARIB STD-B31 clause 3.11.
constexpr int32_t INTERLEAVE_DEPTH[4][3] = {{0, 0, 0}, {4, 2, 1}, {8, 4, 2}, {16, 8, 4}};
// Groups of 96 data carriers per symbol, by mode.
constexpr int32_t INTERLEAVE_GROUPS[3] = {1, 2, 4};
// First line length of the five rows of the time deinterleaver, in symbols per unit of depth.
constexpr int32_t FIRST_LINE_SYMBOLS[5] = {95, 91, 92, 93, 94};
// Cells of delay store per group and per unit of depth.
constexpr int32_t TIME_STORE_CELLS_PER_UNIT = 4560;
// Start of branches 0..10 in the byte deinterleaver's store; branch j holds 11 - j cells of 17 bytes
// (the 12-branch byte interleaving of ARIB STD-B31, undone).
constexpr int32_t BYTE_BRANCH_OFFSET[11] = {0, 187, 357, 510, 646, 765, 867, 952, 1020, 1071, 1105};

int32_t ModeColumn(uint8_t mode) { return mode <= 1 ? mode : 2; }

}  // namespace

int32_t SetUpTimeDeinterleaver() {
  const int32_t column = ModeColumn(engine.modeGuard->mode);
  decoder.interleaveGroups = INTERLEAVE_GROUPS[column];
  decoder.interleaveDepth = INTERLEAVE_DEPTH[engine.layerParams->interleave][column];
  if (decoder.interleaveDepth != 0) {
    const int32_t q = engine.bitsPerCarrier;
    // A line's slot holds the carrier's cells of every group.
    const int32_t slot = q * decoder.interleaveGroups;
    for (int32_t r = 0; r < 5; ++r) decoder.timeLineLength[r] = FIRST_LINE_SYMBOLS[r] * decoder.interleaveDepth * slot;
    std::memset(decoder.timeDelayPos, 0, sizeof(int32_t) * static_cast<size_t>(engine.ndata));
    const int32_t cells = decoder.interleaveDepth * TIME_STORE_CELLS_PER_UNIT * decoder.interleaveGroups;
    decoder.timeDelayStore = ArenaTakeBytes(cells * q);
    // The lines start out holding the soft bits of a zero carrier.
    uint8_t zero[6] = {};
    if (q == 4) DemapCarrier<4>(0.0f, 0.0f, zero);
    else if (q == 6) DemapCarrier<6>(0.0f, 0.0f, zero);
    else DemapCarrier<2>(0.0f, 0.0f, zero);
    for (int32_t i = 0; i < cells; ++i) std::memcpy(decoder.timeDelayStore + i * q, zero, static_cast<size_t>(q));
  }
  decoder.startupCount = 0;
  decoder.startupSymbols = decoder.interleaveDepth * 95;
  return 1;
}

int32_t SetUpDecoder() {
  const int32_t ndata = engine.ndata;
  const uint8_t mode = engine.modeGuard->mode;
  const LayerParams& layer = *engine.layerParams;

  // softBits lies in front of freqDeint at the distance of the previous run's bit count: 0 on the
  // first run after engine start, where the two overlap. DemapSoft reads a carrier before it writes
  // that carrier's soft bits, so the overlap does no harm.
  decoder.softBits = ArenaTakeBytes(ndata * engine.bitsPerCarrier);
  decoder.freqDeint = ArenaTake<float>(ndata * 2);
  decoder.freqDeintTable = mode == 0 ? FREQ_DEINT_MODE1.data() : mode == 1 ? FREQ_DEINT_MODE2.data() : FREQ_DEINT_MODE3.data();
  const int32_t bits = BITS_PER_CARRIER[layer.modulation];
  engine.bitsPerCarrier = bits;
  SetUpTimeDeinterleaver();
  if (decoder.interleaveDepth != 0) decoder.carrierSoftBits = ArenaTakeBytes(ndata * bits);

  decoder.bitDelay120 = ArenaTakeBytes(120);
  if (bits == 4) {
    decoder.bitDelay80 = ArenaTakeBytes(80);
    decoder.bitDelay40 = ArenaTakeBytes(40);
  } else if (bits == 6) {
    decoder.bitDelay96 = ArenaTakeBytes(96);
    decoder.bitDelay72 = ArenaTakeBytes(72);
    decoder.bitDelay48 = ArenaTakeBytes(48);
    decoder.bitDelay24 = ArenaTakeBytes(24);
  }
  const int32_t codedBits = ndata * bits;
  decoder.bitStream = ArenaTakeBytes(codedBits);

  const int32_t numerator = CODE_RATE_NUMERATOR[layer.codeRate];
  const int32_t denominator = CODE_RATE_DENOMINATOR[layer.codeRate];
  decoder.depuncturedLength = (codedBits * 2 * numerator) / denominator;
  if (layer.codeRate != 0) {
    decoder.depunctured = ArenaTakeBytes(decoder.depuncturedLength);
    decoder.punctureGroups = codedBits / denominator;
  }
  decoder.decodedBytes = ArenaTakeBytes(decoder.depuncturedLength / 2);
  decoder.softPairs = ArenaTake<uint16_t>(decoder.depuncturedLength / 2);
  decoder.byteDelayStore = ArenaTakeBytes(BYTE_DELAY_STORE_BYTES);
  decoder.viterbiRestart = 1;
  decoder.normaliseEveryFourth = engine.refined != 0 ? 1 : 0;
  for (int32_t j = 0; j < 11; ++j) {
    decoder.byteDelayBranch[j] = decoder.byteDelayStore + BYTE_BRANCH_OFFSET[j];
    decoder.byteDelayCell[j] = 0;
  }
  decoder.packetInFrame = 0;
  decoder.packetsPerFrame = ((codedBits * numerator) / denominator) / 8;
  decoder.alignState = 0;
  return 1;
}

}  // namespace zfn
