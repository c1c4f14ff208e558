#pragma once
// Channel conditioning of a generic SDR's stream, done where the design's device did it: ahead of
// the engine, which keeps every second complex sample with no filter of its own. The conditioner
// takes complex samples at the device rate and gives the device byte stream the engine reads: I, Q
// as unsigned bytes with zero level 127, two samples per group of four bytes, whole groups only.
// The SDR device library and offline decoding of SDR recordings share this one implementation.
//
// The channel centre is expected at DC (the SDR tuned to the channel's centre frequency). On the
// way, in this order:
// - DC offset removal: the mean of each component, followed with a time constant of 50 ms;
// - I/Q imbalance correction, blind: the broadcast is a circular signal (E[z^2] = 0), so Q is made
//   orthogonal to I and of the same power, from second moments followed with a 0.5 s constant;
// - a half-band filter (47 taps, Kaiser window, beta 7) that passes +-410 kHz flat (segment 0 and
//   the neighbour carriers the engine's channel estimator and Mode 1 timing tracker read, to 357 kHz,
//   with room for a carrier offset of 50 kHz) and stops everything from 606 kHz up by 70 dB or more:
//   the band that the engine's drop of every second sample folds onto -410 .. +410 kHz;
// - a digital gain that holds the filtered stream at the engine's working level, 28 steps RMS per
//   byte component (the level of the design's device as our simulator models it), followed with a
//   time constant of 100 ms;
// - requantisation to unsigned bytes, zero level 127, one step 1/128 of full scale.
// The estimates are taken over blocks of SDR_CHUNK samples counted from the reset and used for the
// block after, so the output is the same byte for byte however the input is cut into calls. Until
// a time constant's worth of samples has come in, each estimate is the plain mean of all blocks so
// far; the first block (1 ms) goes through with no correction and unit gain.
#include <cstddef>
#include <cstdint>

namespace zfn {

// The device rate of the design: 28.8 MHz * 2^22 / 59454256.
constexpr double DEVICE_SAMPLE_RATE_HZ = 28800000.0 * 4194304.0 / 59454256.0;

// Samples of one block of statistics (about 1 ms).
constexpr size_t SDR_CHUNK = 2048;
// Half-band filter: taps - 1 samples of history.
constexpr int SDR_FILTER_TAPS = 47;
constexpr int SDR_FILTER_HISTORY = SDR_FILTER_TAPS - 1;
// RMS of each byte component that the engine works at, in byte steps.
constexpr float SDR_TARGET_STEPS = 28.0f;
// Input RMS per component (full scale 1.0) that an SDR's own gain should aim for: the same
// headroom as the output, 4.6 RMS to the rails, so that an 8-bit converter clips almost never.
constexpr float SDR_INPUT_TARGET_RMS = 28.0f / 128.0f;

// Builds of the conditioning loops: the same bytes from either.
constexpr int32_t SDR_VECTOR_PLAIN = 0;  // the baseline processor
constexpr int32_t SDR_VECTOR_AVX2 = 1;   // x86-64 with AVX2

struct SdrConditioner {
  int32_t vectorKind;         // set by the reset to the widest the processor has
  // What the SDR gain control reads (see SdrGainAdviceDb). Full scale is 1.0.
  float rms;                  // complex RMS of the input over the last whole block
  float inputRms;             // RMS per component of the input, followed over 100 ms
  float inputClipFraction;    // share of input samples with a component at the rails, over 100 ms
  uint64_t inputClipped;      // input samples with a component at the rails, since the reset
  uint64_t outputClipped;     // output bytes that had to be clipped to 0 or 255, since the reset
  uint64_t samplesIn;         // input samples, since the reset

  // Estimates, full scale 1.0.
  bool primed;                // the estimates hold at least one chunk
  float meanI, meanQ;         // DC offset
  float powerI, powerQ, crossIQ;  // second moments after DC removal
  float qFromQ, qFromI;       // correction Q' = qFromQ * Q + qFromI * I (I is the reference)
  float filteredPower;        // mean power per component after the filter, before the gain
  float gain;                 // digital gain applied before requantisation

  // Work areas of the block under way: its raw input, the corrected input behind the filter
  // history, the filtered output.
  size_t blockFill;           // samples of the block so far
  float rawI[SDR_CHUNK];
  float rawQ[SDR_CHUNK];
  float xI[SDR_FILTER_HISTORY + SDR_CHUNK];
  float xQ[SDR_FILTER_HISTORY + SDR_CHUNK];
  float yI[SDR_CHUNK];
  float yQ[SDR_CHUNK];
  uint16_t pairs[SDR_CHUNK];  // requantised I (low byte) and Q

  bool heldValid;             // an odd sample waits for its partner
  uint8_t held[2];
};

// Sets up for a new stream (at open, at a retune). Lost samples need no reset: the estimates stay
// good, and the filter's memory spans only 23 samples either side.
void SdrConditionerReset(SdrConditioner& c);
// Conditions `samples` complex samples (interleaved I, Q floats, full scale about +-1.0). Writes
// whole groups of four bytes to `out` (room for 2 * samples + 2 bytes) and returns how many; an odd
// last sample is held for the next call. Nothing is allocated.
size_t SdrConditionFloat(SdrConditioner& c, const float* iq, size_t samples, uint8_t* out);
// The same for unsigned 8-bit I/Q as SDR tools record it (zero level 127.5).
size_t SdrConditionU8(SdrConditioner& c, const uint8_t* iq, size_t samples, uint8_t* out);

// Tells the conditioner that the SDR's own gain has just been changed by `db`, so that the level
// estimates follow at once instead of over their time constants.
void SdrConditionerGainChanged(SdrConditioner& c, float db);
// The change of the SDR's own gain, in dB, that would bring the input to SDR_INPUT_TARGET_RMS:
// positive for a weak input, negative for a strong one, and at most -6 while more than one sample
// in 10000 meets the rails. 0 before the first chunk. The digital gain makes up the rest.
float SdrGainAdviceDb(const SdrConditioner& c);

}  // namespace zfn
