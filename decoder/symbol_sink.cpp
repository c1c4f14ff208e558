// The per-symbol entry of the channel decoder: frequency deinterleaving, soft demapping, time
// deinterleaving of the soft bits, bit deinterleaving, depuncturing, Viterbi decoding, publishing of the transport rates, and the byte stage.
#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "decoder/decoder_stages.h"
#include "decoder/decoder_state.h"
#include "decoder/demap_kernels.h"
#include "decoder/depuncture_kernels.h"
#include "decoder/viterbi.h"
#include "shell/device_state.h"
#include "shell/diagnostics.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/probe_fill.h"

namespace zfn {

namespace {

// Carriers of one group of 96 that have a time delay line (ARIB STD-B31 clause 3.11), by row: first
// carrier of the row. Carrier 19 has no delay (its receiver delay I * (95 - (5 * 19 mod 96)) is 0)
// and sits between rows 0 and 1.
constexpr int32_t ROW_FIRST_CARRIER[5] = {0, 20, 39, 58, 77};
constexpr int32_t ROW_CARRIERS = 19;
constexpr int32_t UNDELAYED_CARRIER = 19;

// Bit deinterleaving delays in carriers of each bit position: the complement of the transmitter's
// 0, 120 / 0, 40, 80, 120 / 0, 24, 48, 72, 96, 120 (ARIB STD-B31 bit interleaving).
constexpr int32_t BIT_DELAYS_QPSK[2] = {120, 0};
constexpr int32_t BIT_DELAYS_QAM16[4] = {120, 80, 40, 0};
constexpr int32_t BIT_DELAYS_QAM64[6] = {120, 96, 72, 48, 24, 0};

// Puncturing of the inner code (ARIB STD-B31): output places filled by the transmitted bits of one
// period, in transmission order.
// Output place 2k is X of step k + 1 and 2k + 1 its Y; places not listed are punctured.
struct PunctureShape {
  int32_t inputBits;
  int32_t outputBits;
  int32_t places[8];
};
constexpr PunctureShape PUNCTURE_SHAPES[5] = {
    {2, 2, {0, 1}},                        // 1/2: X1 Y1
    {3, 4, {0, 1, 3}},                     // 2/3: X1 Y1 Y2
    {4, 6, {0, 1, 3, 4}},                  // 3/4: X1 Y1 Y2 X3
    {6, 10, {0, 1, 3, 4, 7, 8}},           // 5/6: X1 Y1 Y2 X3 Y4 X5
    {8, 14, {0, 1, 3, 5, 7, 8, 11, 12}},  // 7/8: X1 Y1 Y2 Y3 Y4 X5 Y6 X7
};

constexpr uint8_t NEUTRAL_SOFT_BIT = 16;

}  // namespace

void DeinterleaveFrequency() {
  const int32_t ndata = engine.ndata;
  const float* carriers = engine.equalisedCarriers;
  const int32_t* table = decoder.freqDeintTable;
  float* out = decoder.freqDeint;
  for (int32_t i = 0; i < ndata; ++i) std::memcpy(out + 2 * i, carriers + 2 * table[i], 2 * sizeof(float));
}

namespace {

// One line per delayed carrier of a group of 96, each a ring of soft bits: a slot per symbol holds
// the cells of Q bytes of that carrier in every group side by side, since the carrier at the same
// place in each group has the same delay. The soft bits of a carrier go through the delay as the
// carrier itself would, since demapping works on each carrier alone; one slot is read and written
// per carrier place, so a symbol touches 95 places of the store rather than one per carrier.
// With order, carrier n of the symbol is cell order[n] of source (the frequency deinterleaving done
// on the soft bits as they are read); without it, cell n, and source may be destination.
template <int32_t Q, int32_t G, bool ORDERED>
void DeinterleaveCells(const uint8_t* source, const int32_t* order, uint8_t* destination) {
  constexpr int32_t SLOT = Q * G;
  const auto cell = [source, order](int32_t n) { return source + Q * (ORDERED ? order[n] : n); };
  const int32_t step = 5 * SLOT * decoder.interleaveDepth;  // line length falls by 5 * I slots per carrier
  uint8_t* line = decoder.timeDelayStore;
  int32_t* positions = decoder.timeDelayPos;
  for (int32_t r = 0; r < 5; ++r) {
    int32_t length = decoder.timeLineLength[r];
    for (int32_t k = 0; k < ROW_CARRIERS; ++k) {
      const int32_t c = ROW_FIRST_CARRIER[r] + k;
      const int32_t position = *positions;
      uint8_t* slot = line + position;
      uint8_t held[SLOT];
      std::memcpy(held, slot, SLOT);
      // Read before the write: source may be destination.
      for (int32_t g = 0; g < G; ++g) std::memcpy(slot + Q * g, cell(96 * g + c), Q);
      for (int32_t g = 0; g < G; ++g) std::memcpy(destination + Q * (96 * g + c), held + Q * g, Q);
      *positions++ = position + SLOT == length ? 0 : position + SLOT;
      line += length;
      length -= step;
    }
  }
  if (ORDERED || source != destination) {
    for (int32_t g = 0; g < G; ++g) {
      std::memcpy(destination + Q * (96 * g + UNDELAYED_CARRIER), cell(96 * g + UNDELAYED_CARRIER), Q);
    }
  }
}

template <int32_t Q, bool ORDERED>
void DeinterleaveGroups(const uint8_t* source, const int32_t* order, uint8_t* destination) {
  switch (decoder.interleaveGroups) {
    case 1:
      DeinterleaveCells<Q, 1, ORDERED>(source, order, destination);
      break;
    case 2:
      DeinterleaveCells<Q, 2, ORDERED>(source, order, destination);
      break;
    case 4:
      DeinterleaveCells<Q, 4, ORDERED>(source, order, destination);
      break;
    default:
      break;
  }
}

template <bool ORDERED>
void DeinterleaveTimeOf(const uint8_t* source, const int32_t* order, uint8_t* destination) {
  switch (engine.bitsPerCarrier) {
    case 2:
      DeinterleaveGroups<2, ORDERED>(source, order, destination);
      break;
    case 4:
      DeinterleaveGroups<4, ORDERED>(source, order, destination);
      break;
    case 6:
      DeinterleaveGroups<6, ORDERED>(source, order, destination);
      break;
    default:
      break;
  }
}

}  // namespace

void DeinterleaveTime(const uint8_t* source, uint8_t* destination) {
  DeinterleaveTimeOf<false>(source, nullptr, destination);
}

void DeinterleaveFrequencyAndTime(const uint8_t* carrierBits, uint8_t* destination) {
  DeinterleaveTimeOf<true>(carrierBits, decoder.freqDeintTable, destination);
}

namespace {

// Sixteen carriers at a time through local copies: softBits may lie on top of the carriers, and
// apart from each other the compiler vectorises the arithmetic. The soft bits of a block end where
// the carriers of the next one begin at the latest, since softBits lies at or in front of them.
template <int32_t Q>
void DemapRow(const float* source, uint8_t* soft, int32_t ndata) {
  constexpr int32_t BLOCK = 16;  // the data carriers of every mode are a multiple of 16
  for (int32_t n0 = 0; n0 + BLOCK <= ndata; n0 += BLOCK) {
    float carriers[2 * BLOCK];
    std::memcpy(carriers, source + 2 * n0, sizeof(carriers));
    uint8_t bits[Q * BLOCK];
    for (int32_t i = 0; i < BLOCK; ++i) DemapCarrier<Q>(carriers[2 * i], carriers[2 * i + 1], bits + Q * i);
    std::memcpy(soft + Q * n0, bits, sizeof(bits));
  }
}

}  // namespace

void DemapSoft(const float* source) { DemapSoftTo(source, decoder.softBits); }

void DemapSoftTo(const float* source, uint8_t* soft) {
  switch (engine.bitsPerCarrier) {
    case 2:  // each of re and im gives its soft bit alone
      DemapQpskWith(ActiveVectorIsa(), source, soft, 2 * engine.ndata);
      break;
    case 4:
      DemapRow<4>(source, soft, engine.ndata);
      break;
    case 6:
      DemapRow<6>(source, soft, engine.ndata);
      break;
    default:
      break;
  }
}

namespace {

// Bit position j of every carrier through its delay line of delays[j] carriers, BITS soft bits per
// carrier.
template <int32_t BITS>
void DeinterleaveBitsByPosition(const int32_t* delays, uint8_t* const* lines) {
  const int32_t ndata = engine.ndata;
  const uint8_t* soft = decoder.softBits;
  uint8_t* out = decoder.bitStream;
  for (int32_t j = 0; j < BITS; ++j) {
    const int32_t d = delays[j];
    uint8_t* line = lines[j];
    if (d == 0) {
      for (int32_t n = 0; n < ndata; ++n) out[BITS * n + j] = soft[BITS * n + j];
    } else if (d > ndata) {
      // Longer than a symbol (120 carriers in Mode 1): the line is a FIFO that moves down by a symbol.
      for (int32_t n = 0; n < ndata; ++n) out[BITS * n + j] = line[n];
      std::memmove(line, line + ndata, static_cast<size_t>(d - ndata));
      for (int32_t n = 0; n < ndata; ++n) line[d - ndata + n] = soft[BITS * n + j];
    } else {
      for (int32_t n = 0; n < d; ++n) out[BITS * n + j] = line[n];
      for (int32_t n = d; n < ndata; ++n) out[BITS * n + j] = soft[BITS * (n - d) + j];
      for (int32_t n = 0; n < d; ++n) line[n] = soft[BITS * (ndata - d + n) + j];
    }
  }
}

// The same for 2 or 4 bits per carrier with every line within a symbol: past the longest delay
// (delays[0]) each carrier's bits come from the soft bits alone, a whole carrier at a time as one
// word, bit j by the mask of its byte from the carrier delays[j] places back.
template <int32_t BITS, class Word>
void DeinterleaveBitsByCarrier(const int32_t* delays, uint8_t* const* lines) {
  static_assert(sizeof(Word) == BITS);
  const int32_t ndata = engine.ndata;
  const int32_t longest = delays[0];
  const uint8_t* soft = decoder.softBits;
  uint8_t* out = decoder.bitStream;
  constexpr bool LITTLE = std::endian::native == std::endian::little;
  Word masks[BITS];
  for (int32_t j = 0; j < BITS; ++j) {
    masks[j] = static_cast<Word>(Word{0xFF} << (8 * (LITTLE ? j : BITS - 1 - j)));
  }
  for (int32_t j = 0; j < BITS; ++j) {
    const int32_t d = delays[j];
    for (int32_t n = 0; n < d; ++n) out[BITS * n + j] = lines[j][n];
    for (int32_t n = d; n < longest; ++n) out[BITS * n + j] = soft[BITS * (n - d) + j];
  }
  for (int32_t n = longest; n < ndata; ++n) {
    Word word = 0;
    for (int32_t j = 0; j < BITS; ++j) {
      Word from;
      std::memcpy(&from, soft + BITS * (n - delays[j]), BITS);
      word = static_cast<Word>(word | (from & masks[j]));
    }
    std::memcpy(out + BITS * n, &word, BITS);
  }
  for (int32_t j = 0; j < BITS; ++j) {
    const int32_t d = delays[j];
    for (int32_t n = 0; n < d; ++n) lines[j][n] = soft[BITS * (ndata - d + n) + j];
  }
}

// QPSK with its one line within a symbol: X of a carrier comes from the carrier delay places back
// (from the line for the first ones), Y from the carrier itself. Both bytes of a carrier are written
// in the same pass, so that the compiler moves them many carriers at a time.
void DeinterleaveBitsQpsk(int32_t delay, uint8_t* __restrict line) {
  const int32_t ndata = engine.ndata;
  const uint8_t* __restrict soft = decoder.softBits;
  uint8_t* __restrict out = decoder.bitStream;
  for (int32_t n = 0; n < delay; ++n) {
    out[2 * n] = line[n];
    out[2 * n + 1] = soft[2 * n + 1];
  }
  for (int32_t n = delay; n < ndata; ++n) {
    out[2 * n] = soft[2 * (n - delay)];
    out[2 * n + 1] = soft[2 * n + 1];
  }
  for (int32_t n = 0; n < delay; ++n) line[n] = soft[2 * (ndata - delay + n)];
}

template <int32_t BITS>
void DeinterleaveBitsOf(const int32_t* delays, uint8_t* const* lines) {
  if constexpr (BITS == 2) {
    if (delays[0] <= engine.ndata && delays[1] == 0) {
      DeinterleaveBitsQpsk(delays[0], lines[0]);
      return;
    }
  }
  if constexpr (BITS == 2 || BITS == 4) {
    using Word = std::conditional_t<BITS == 2, uint16_t, uint32_t>;
    if (delays[0] <= engine.ndata) {
      DeinterleaveBitsByCarrier<BITS, Word>(delays, lines);
      return;
    }
  }
  DeinterleaveBitsByPosition<BITS>(delays, lines);
}

}  // namespace

void DeinterleaveBits() {
  uint8_t* lines[6] = {};
  switch (engine.bitsPerCarrier) {
    case 2:
      lines[0] = decoder.bitDelay120;
      DeinterleaveBitsOf<2>(BIT_DELAYS_QPSK, lines);
      break;
    case 4:
      lines[0] = decoder.bitDelay120;
      lines[1] = decoder.bitDelay80;
      lines[2] = decoder.bitDelay40;
      DeinterleaveBitsOf<4>(BIT_DELAYS_QAM16, lines);
      break;
    case 6:
      lines[0] = decoder.bitDelay120;
      lines[1] = decoder.bitDelay96;
      lines[2] = decoder.bitDelay72;
      lines[3] = decoder.bitDelay48;
      lines[4] = decoder.bitDelay24;
      DeinterleaveBitsOf<6>(BIT_DELAYS_QAM64, lines);
      break;
    default:
      break;
  }
}

namespace {

// The soft bits of a puncturing period laid out on the full period with the neutral value in the
// punctured places, packed by pairs (X high, Y low) straight away.
template <int32_t RATE>
void DepunctureGroups(const uint8_t* bits, uint16_t* pairs, int32_t groups) {
  constexpr PunctureShape SHAPE = PUNCTURE_SHAPES[RATE];
  for (int32_t g = 0; g < groups; ++g) {
    uint8_t group[SHAPE.outputBits];
    for (uint8_t& v : group) v = NEUTRAL_SOFT_BIT;
    for (int32_t k = 0; k < SHAPE.inputBits; ++k) group[SHAPE.places[k]] = bits[k];
    for (int32_t p = 0; p < SHAPE.outputBits / 2; ++p) {
      pairs[p] = static_cast<uint16_t>(group[2 * p] << 8 | group[2 * p + 1]);
    }
    bits += SHAPE.inputBits;
    pairs += SHAPE.outputBits / 2;
  }
}

}  // namespace

const uint16_t* DepunctureAndPack() {
  const int32_t codeRate = engine.layerParams->codeRate;
  const int32_t length = decoder.depuncturedLength;
  const uint8_t* bits = decoder.bitStream;
  uint16_t* pairs = decoder.softPairs;
  int32_t packed = 0;
  if (codeRate != 0) {
    const int32_t groups = decoder.punctureGroups;
    switch (codeRate) {
      case 1:
        DepunctureTwoThirdsWith(ActiveVectorIsa(), bits, pairs, groups);
        break;
      case 2:
        DepunctureGroups<2>(bits, pairs, groups);
        break;
      case 3:
        DepunctureGroups<3>(bits, pairs, groups);
        break;
      case 4:
        DepunctureGroups<4>(bits, pairs, groups);
        break;
      default:
        break;
    }
    packed = codeRate <= 4 ? groups * PUNCTURE_SHAPES[codeRate].outputBits / 2 : 0;
    // Anything past the last whole period holds the neutral value.
    for (int32_t i = packed; i < length / 2; ++i) pairs[i] = NEUTRAL_SOFT_BIT << 8 | NEUTRAL_SOFT_BIT;
  } else {
    for (int32_t i = 0; i < length / 2; ++i) pairs[i] = static_cast<uint16_t>(bits[2 * i] << 8 | bits[2 * i + 1]);
  }
  return pairs;
}

void PublishTransportRates() {
  const float byteRate = engine.byteErrorRate;
  const float packetRate = engine.packetErrorRate;
  const float failRate = engine.packetFailRate;
  if (DebugParaBlock* words = device.debugPara) {
    words->SetFloat(7, byteRate);
    words->SetFloat(8, packetRate);
    words->SetFloat(9, failRate);
  }
  ProbeStoreRates(packetRate, byteRate, failRate);
}

void SymbolSink() {
  if (decoder.interleaveDepth != 0) {
    // Demapping works on each carrier alone, so the carriers are demapped where the equaliser left
    // them and the frequency deinterleaving moves their soft bits instead, as the time
    // deinterleaver reads them: the same soft bits, without a pass over the complex values.
    DemapSoftTo(engine.equalisedCarriers, decoder.carrierSoftBits);
    DeinterleaveFrequencyAndTime(decoder.carrierSoftBits, decoder.softBits);
  } else {
    DeinterleaveFrequency();
    DemapSoft(decoder.freqDeint);
  }
  DeinterleaveBits();
  const uint16_t* pairs = DepunctureAndPack();
  ViterbiDecode(pairs, decoder.depuncturedLength / 2, decoder.decodedBytes);
  PublishTransportRates();
  RunByteStage();
}

}  // namespace zfn
