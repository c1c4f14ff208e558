#pragma once
// Channel conditioning of a generic SDR's stream, done where the design's device did it: ahead of
// the engine, which keeps every second complex sample with no filter of its own. The conditioner
// takes complex samples at the device rate and gives the device byte stream the engine reads: I, Q
// as unsigned bytes with zero level 127, two samples per group of four bytes, whole groups only.
// The SDR device library and offline decoding of SDR recordings share this one implementation.
#include <cstddef>
#include <cstdint>

namespace zfn {

// The device rate of the design: 28.8 MHz * 2^22 / 59454256.
constexpr double DEVICE_SAMPLE_RATE_HZ = 28800000.0 * 4194304.0 / 59454256.0;

struct SdrConditioner {
  float rms;            // level of the last span conditioned, full scale 1.0
  bool heldValid;       // an odd sample waits for its partner
  uint8_t held[2];
};

// Sets up for a new stream (at open, at a retune, after lost samples).
void SdrConditionerReset(SdrConditioner& c);
// Conditions `samples` complex samples (interleaved I, Q floats, full scale about +-1.0). Writes
// whole groups of four bytes to `out` (room for 2 * samples + 2 bytes) and returns how many; an odd
// last sample is held for the next call. Nothing is allocated.
size_t SdrConditionFloat(SdrConditioner& c, const float* iq, size_t samples, uint8_t* out);
// The same for unsigned 8-bit I/Q as SDR tools record it (zero level 127.5).
size_t SdrConditionU8(SdrConditioner& c, const uint8_t* iq, size_t samples, uint8_t* out);

}  // namespace zfn
