#pragma once
// The steps inside the decoder's entry points (SetUpDecoder, SymbolSink, DrainPacketRing), visible
// to the unit tests. All work on the engine record, DecoderState and the work arena.
#include <cmath>
#include <cstdint>

namespace zfn {

// Layer constants, by the TMCC modulation and code rate codes (ARIB STD-B31 clause 3.15.6).
inline constexpr int32_t BITS_PER_CARRIER[4] = {2, 2, 4, 6};
inline constexpr int32_t CODE_RATE_NUMERATOR[5] = {1, 2, 3, 5, 7};
inline constexpr int32_t CODE_RATE_DENOMINATOR[5] = {2, 3, 4, 6, 8};

// Decoder set-up.
int32_t SetUpTimeDeinterleaver();

// Per-symbol steps of SymbolSink, in their order.
void DeinterleaveFrequency();
void DemapSoft(const float* source);               // into softBits
void DemapSoftTo(const float* source, uint8_t* soft);
// Cells of bitsPerCarrier soft bytes per carrier; source may be destination.
void DeinterleaveTime(const uint8_t* source, uint8_t* destination);
// The same from the soft bits of the carriers in the equaliser's order, frequency deinterleaved as
// they are read (destination apart from carrierBits): what DeinterleaveFrequency, DemapSoft and
// DeinterleaveTime give together.
void DeinterleaveFrequencyAndTime(const uint8_t* carrierBits, uint8_t* destination);
void DeinterleaveBits();
const uint16_t* DepunctureAndPack();  // returns softPairs, depuncturedLength / 2 steps
void PublishTransportRates();
void RunByteStage();

// Soft bit of a real value: the largest integer not above v, clamped to 0..31 (NaN gives 16).
inline uint8_t SoftBit(float v) {
  // Written as selections rather than early returns: the values are noisy, so branches would be
  // mispredicted all the time. A NaN fails every comparison and comes out neutral.
  float c = v < 0.0f ? 0.0f : v;
  c = c > 31.0f ? 31.0f : c;
  c = c == c ? c : 16.0f;
  return static_cast<uint8_t>(static_cast<int32_t>(c));  // truncation is floor here
}

// Scale factors that put the 16QAM and 64QAM levels on odd integers (sqrt 10 and sqrt 42).
inline constexpr double QAM16_SCALE = 3.162278;
inline constexpr double QAM64_SCALE = 6.4807407;

// The Q soft bits of one equalised carrier (re, im), Q = 2, 4, 6 bits per carrier.
template <int32_t Q>
inline void DemapCarrier(float re, float im, uint8_t* soft) {
  if constexpr (Q == 2) {
    soft[0] = SoftBit(16.0f - re);
    soft[1] = SoftBit(16.0f - im);
  } else if constexpr (Q == 4) {
    const float a = static_cast<float>(re * QAM16_SCALE);
    const float b = static_cast<float>(im * QAM16_SCALE);
    soft[0] = SoftBit(16.0f - 4.0f * a);
    soft[1] = SoftBit(16.0f - 4.0f * b);
    soft[2] = SoftBit(16.0f - 4.0f * (std::fabs(a) - 2.0f));
    soft[3] = SoftBit(16.0f - 4.0f * (std::fabs(b) - 2.0f));
  } else {
    const float a = static_cast<float>(re * QAM64_SCALE);
    const float b = static_cast<float>(im * QAM64_SCALE);
    const float a1 = std::fabs(a) - 4.0f;
    const float b1 = std::fabs(b) - 4.0f;
    const float a2 = std::fabs(a1) - 2.0f;
    const float b2 = std::fabs(b1) - 2.0f;
    soft[0] = SoftBit(16.0f - 4.0f * a);
    soft[1] = SoftBit(16.0f - 4.0f * b);
    soft[2] = SoftBit(16.0f - 4.0f * a1);
    soft[3] = SoftBit(16.0f - 4.0f * b1);
    soft[4] = SoftBit(16.0f - 4.0f * a2);
    soft[5] = SoftBit(16.0f - 4.0f * b2);
  }
}

// Byte stage.
void AssembleBytes(const uint8_t* bytes, int32_t count);
void DeinterleaveBytes(const uint8_t* input, uint8_t* output);
void Derandomise(uint8_t* block, int32_t length);
void HandOverPacket();

// Packet thread.
void ProcessPacket();
void DeliverPacket(const uint8_t* packet);

}  // namespace zfn
