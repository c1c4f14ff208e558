#pragma once
// The record shared between the receiver and the plotting bridge library, and the bridge's three
// functions. The bridge owns the record and its arrays and hands the receiver a pointer to it; the
// receiver only fills it (on the demodulation thread) and sets updateEvent when a set is ready.
//
// This header is the whole contract with a bridge: it has no dependency on the rest of the engine,
// so a bridge library includes it alone. Field order is the order the bridge relies on; pointers
// are native (64-bit) pointers, so "index" below means the position of the field, not a word offset.
//
// The receiver stores every value (fillIndex included) with a relaxed atomic store; a bridge that
// reads the record on a thread of its own reads with relaxed atomic loads (std::atomic_ref), and so
// is free of data races even when a read overlaps the next fill.
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
namespace zfn {
#endif

// Largest fill of each array, for the largest mode (Mode 3: ndata 384, ncarrier 432, nspan 720,
// nmargin 128). A bridge allocates at least these many doubles; the receiver never writes more.
enum {
  // Data carriers of the symbols 0..100 of a frame: 101 symbols of at most 384 data carriers.
  PROBE_FILL_SYMBOLS = 101,
  PROBE_CARRIER_CAPACITY = PROBE_FILL_SYMBOLS * 384,
  PROBE_CHANNEL_CAPACITY = 432,  // ncarrier
  PROBE_SLOT_CAPACITY = 720,     // nspan
  PROBE_TIMING_CAPACITY = 257,   // 2 * timingSpan + 1 with timingSpan at most nmargin (128)
  PROBE_JUMP_STEPS = 29,         // timing steps kept per frame
  PROBE_JUMP_CAPACITY = 1 + PROBE_JUMP_STEPS,  // the count, then the steps
  PROBE_RATES = 3,
};

struct MatlabProbe {
  double* carrierRe;         // 0: real parts of equalised data carriers
  double* carrierIm;         // 1: imaginary parts
  int32_t fillIndex;         // 2: entries filled in the two arrays above
  double* snrCell;           // 3: one double, snrDb
  double* frequencyCell;     // 4: one double, remaining offset in carrier spacings
  int32_t reserved5;         // 5: the receiver does not touch it
  int32_t reserved6;         // 6: the receiver does not touch it
  double* ratesCell;         // 7: packetErrorRate, byteErrorRate, packetFailRate
  double* channelRe;         // 8: first channel plane, ncarrier entries
  double* channelIm;         // 9: second channel plane
  double* slotRe;            // 10: real parts of the newest carrier slot, nspan entries
  double* slotIm;            // 11: imaginary parts
  double* timingProfile;     // 12: 2 * timingSpan + 1 entries of the timing accumulator
  double* jumpList;          // 13: the count, then that many timing steps
  double* stateCell;         // 14: one double, blockState
  double* channelStateCell;  // 15: one double, channelState
  // 16: eventfd descriptor (non-semaphore) that the receiver writes the 8-byte value 1 to when a set
  // of data is ready. 0 (or any negative value) means "no event": a zero-filled record has none. A
  // bridge therefore never hands over descriptor 0.
  int updateEvent;
};

#ifdef __cplusplus
static_assert(offsetof(MatlabProbe, carrierRe) < offsetof(MatlabProbe, carrierIm) &&
                  offsetof(MatlabProbe, carrierIm) < offsetof(MatlabProbe, fillIndex) &&
                  offsetof(MatlabProbe, fillIndex) < offsetof(MatlabProbe, snrCell) &&
                  offsetof(MatlabProbe, channelStateCell) < offsetof(MatlabProbe, updateEvent),
              "the bridge reads the fields in this order");
#endif

// The bridge's functions, found by name in the library and called with C linkage.
#ifdef __cplusplus
extern "C" {
#endif
typedef int32_t (*MatlabInitialFunction)(void);  // -1: the bridge could not start
typedef int32_t (*MatlabShowFunction)(struct MatlabProbe** probe);  // writes the record's address
typedef int32_t (*MatlabDestroyFunction)(void);
#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
}  // namespace zfn
#endif
