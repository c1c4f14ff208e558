#pragma once
// The steps inside the decoder's entry points (SetUpDecoder, SymbolSink, DrainPacketRing), visible
// to the unit tests. All work on the engine record, DecoderState and the work arena.
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
void DeinterleaveTime(const float* source, float* destination);
void DemapSoft(const float* source);
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

// Byte stage.
void AssembleBytes(const uint8_t* bytes, int32_t count);
void DeinterleaveBytes(const uint8_t* input, uint8_t* output);
void Derandomise(uint8_t* block, int32_t length);
void HandOverPacket();

// Packet thread.
void ProcessPacket();
void DeliverPacket(const uint8_t* packet);

}  // namespace zfn
