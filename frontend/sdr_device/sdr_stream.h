#pragma once
// The SDR behind the device library: one SoapySDR device, streamed as complex floats by a reader
// thread of the library, brought to the device rate, shifted by what the IF word asks beyond the
// nominal 600 kHz, conditioned into the device byte stream, and kept in a fixed ring of bytes from
// which the reception thread fetches. One stream per process, like the device it stands for.
#include <cstdint>

#include "frontend/sdr_device/sdr_settings.h"

namespace zfn::sdr {

// The chip's fixed front-end arithmetic: crystal 28.8 MHz, 22-bit IF word, 14-bit clock word.
constexpr double CRYSTAL_HZ = 28.8e6;
constexpr double IF_WORD_HZ = CRYSTAL_HZ / 4194304.0;  // one step of the IF word
// The IF word of the nominal 600 kHz shift: floor(600 * 4194.304 / 28.8) = 87381 (01 55 55),
// 599997.7 Hz. The SDR is tuned where the chip's tuner and this shift together would put the
// channel centre; a word that differs from it is applied as a digital shift.
constexpr uint32_t NOMINAL_IF_WORD = 87381;
constexpr double CLOCK_WORD_SCALE = 1.0 / 16777216.0;  // one step of the clock word: 2^-24

// Finds the device that `settings` name, opens it at a usable rate, starts the stream and the
// reader. False, with nothing left open, when no device serves.
bool SdrOpen(const SdrSettings& settings);
// Stops the reader (within a read time-out), then lets go of the device. Safe when not open.
void SdrClose();
bool SdrIsOpen();

// Tunes the SDR so that the channel the chip's tuner was given (kHz, with the 600 kHz offset in
// it) comes out at the nominal IF shift. False when the device refuses.
bool SdrTune(int32_t tunerKHz);

// The register words with meaning for an SDR, as written: the 22-bit IF word and the 14-bit sample
// clock word (two's complement). Taken up by the reader at its next read.
void SdrSetIfWord(uint32_t word);
void SdrSetClockWord(int32_t word);

// The event to set when bytes can be fetched (eventfd descriptor), or -1 for none.
void SdrSetEvent(int descriptor);
// Copies at most `size` bytes (whole groups of four) of what has arrived; returns the count.
// 0 once the device has stopped delivering.
int32_t SdrFetch(uint8_t* buffer, int32_t size);

}  // namespace zfn::sdr
