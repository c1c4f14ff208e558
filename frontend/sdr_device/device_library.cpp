// The device access library on SoapySDR: the eleven functions the receiver binds, with the designed
// results, over any SDR that has a SoapySDR module. The demodulator the receiver programs does not
// exist on a generic SDR: its register writes are kept in a register file and accepted, and those
// that mean something for an SDR are acted on:
//   - the tuner frequency (the channel + 600 kHz) and the IF word (page 1, 0x16, 22 bits) together
//     place the channel: the SDR is tuned to the tuner frequency less the nominal IF shift, and a
//     word other than the nominal one shifts the stream digitally by its difference;
//   - the sample clock word (page 1, 0x3E, 14 bits, 2^-24 per step) scales the stream's rate by
//     1 + word * 2^-24 through the resampler, so that a negative word, which the receiver writes
//     when it counts too many samples per symbol, gives fewer.
// Opening needs an SDR; everything else works without one, as simulation mode requires: it binds
// this library and still sends the running engine's writes through it.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "frontend/sample_source_contract.h"
#include "frontend/sdr_device/sdr_settings.h"
#include "frontend/sdr_device/sdr_stream.h"

#define ZFN_DEVICE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr int32_t kPages = 2;
constexpr int32_t kAddresses = 256;
constexpr int32_t IF_WORD_PAGE = 1;
constexpr int32_t IF_WORD_ADDRESS = 0x16;     // 3 bytes, 22 bits
constexpr int32_t CLOCK_WORD_PAGE = 1;
constexpr int32_t CLOCK_WORD_ADDRESS = 0x3E;  // 2 bytes, 14 bits

// Reads and writes come from the demodulation thread and the API caller's thread at once.
std::mutex registerLock;
uint8_t registers[kPages][kAddresses];
std::atomic<int32_t> tunedFrequencyKHz{0};

bool ValidAccess(int32_t page, int32_t address, int32_t byteCount, const uint8_t* bytes) {
  return bytes != nullptr && page >= 0 && page < kPages && address >= 0 && byteCount >= 1 && byteCount <= 4 &&
         address + byteCount <= kAddresses;
}

bool Touches(int32_t page, int32_t address, int32_t byteCount, int32_t wordPage, int32_t wordAddress,
             int32_t wordBytes) {
  return page == wordPage && address < wordAddress + wordBytes && address + byteCount > wordAddress;
}

// Hands the words with meaning for an SDR to the stream; called with registerLock held.
void ActOnWrite(int32_t page, int32_t address, int32_t byteCount) {
  const uint8_t* p1 = registers[1];
  if (Touches(page, address, byteCount, IF_WORD_PAGE, IF_WORD_ADDRESS, 3)) {
    const uint32_t word = (static_cast<uint32_t>(p1[IF_WORD_ADDRESS] & 0x3F) << 16) |
                          (static_cast<uint32_t>(p1[IF_WORD_ADDRESS + 1]) << 8) | p1[IF_WORD_ADDRESS + 2];
    zfn::sdr::SdrSetIfWord(word);
  }
  if (Touches(page, address, byteCount, CLOCK_WORD_PAGE, CLOCK_WORD_ADDRESS, 2)) {
    int32_t word = (static_cast<int32_t>(p1[CLOCK_WORD_ADDRESS] & 0x3F) << 8) | p1[CLOCK_WORD_ADDRESS + 1];
    if (word >= 0x2000) word -= 0x4000;  // 14-bit two's complement
    zfn::sdr::SdrSetClockWord(word);
  }
}

}  // namespace

// Finds and opens the SDR named by ZFNISDBT_DEVICE (default: the first found) and starts its
// stream. 0 when a setting cannot be read, no SDR is found, or the one found cannot stream.
ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterInit(int32_t) {
  zfn::sdr::SdrSettings settings;
  if (zfn::sdr::ReadSdrSettings(settings) != nullptr) return 0;
  return zfn::sdr::SdrOpen(settings) ? 1 : 0;
}

ZFN_DEVICE_EXPORT int32_t ZFN_BDAFilterRelease(int32_t) {
  zfn::sdr::SdrClose();
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Set_Frequency(int32_t frequencyKHz) {
  tunedFrequencyKHz.store(frequencyKHz, std::memory_order_relaxed);
  return 1;
}

// Beyond the receiver's function list: the frequency the tuner was last set to, in kHz as
// ZFN_Set_Frequency received it (the wanted channel + 600), 0 before any. The simulator asks it
// which channel it should be broadcasting on; it needs no device.
ZFN_DEVICE_EXPORT int32_t ZFN_TunedFrequencyKHz(void) { return tunedFrequencyKHz.load(std::memory_order_relaxed); }

// The bandwidth is the chip's 6 MHz channel filter; the SDR's own filter stays as its driver sets
// it for the stream rate, and the conditioning does the channel filtering.
ZFN_DEVICE_EXPORT int32_t ZFN_Set_Bandwidth(int32_t) { return 1; }

// Applies the frequency: the SDR is tuned when one is open.
ZFN_DEVICE_EXPORT int32_t ZFN_DeviceUpdate(void) {
  return zfn::sdr::SdrTune(tunedFrequencyKHz.load(std::memory_order_relaxed)) ? 1 : 0;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Read(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  if (!ValidAccess(page, address, byteCount, bytes)) return 0;
  std::lock_guard<std::mutex> hold(registerLock);
  std::memcpy(bytes, &registers[page][address], static_cast<size_t>(byteCount));
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_Demod_Byte_Write(int32_t page, int32_t address, int32_t byteCount, uint8_t* bytes) {
  if (!ValidAccess(page, address, byteCount, bytes)) return 0;
  std::lock_guard<std::mutex> hold(registerLock);
  std::memcpy(&registers[page][address], bytes, static_cast<size_t>(byteCount));
  ActOnWrite(page, address, byteCount);
  return 1;
}

// Copies what has arrived, at most bufferSize bytes in whole groups of four; 0 bytes when no SDR
// is open or the one open has stopped delivering.
ZFN_DEVICE_EXPORT int32_t ZFN_GetData(uint8_t* buffer, int32_t bufferSize, int32_t* length, int32_t*) {
  if (length == nullptr) return 0;
  *length = buffer != nullptr ? zfn::sdr::SdrFetch(buffer, bufferSize) : 0;
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_SetDABEventHandle(int* event) {
  if (event == nullptr) return 0;
  zfn::sdr::SdrSetEvent(*event);
  return 1;
}

ZFN_DEVICE_EXPORT int32_t ZFN_ReleaseDABEventHandle(int*) {
  zfn::sdr::SdrSetEvent(-1);
  return 1;
}

// A generic SDR has none of the tuners that take their own programming steps.
ZFN_DEVICE_EXPORT int32_t ZFN_Get_TunerType(int32_t* tunerType) {
  if (tunerType == nullptr) return 0;
  *tunerType = 0;
  return 1;
}

// The exported functions must match the contract the receiver binds them with.
namespace {
[[maybe_unused]] constexpr ZfnBdaFilterInitFn kCheckInit = &ZFN_BDAFilterInit;
[[maybe_unused]] constexpr ZfnBdaFilterReleaseFn kCheckRelease = &ZFN_BDAFilterRelease;
[[maybe_unused]] constexpr ZfnSetFrequencyFn kCheckFrequency = &ZFN_Set_Frequency;
[[maybe_unused]] constexpr ZfnSetBandwidthFn kCheckBandwidth = &ZFN_Set_Bandwidth;
[[maybe_unused]] constexpr ZfnDeviceUpdateFn kCheckUpdate = &ZFN_DeviceUpdate;
[[maybe_unused]] constexpr ZfnDemodByteReadFn kCheckRead = &ZFN_Demod_Byte_Read;
[[maybe_unused]] constexpr ZfnDemodByteWriteFn kCheckWrite = &ZFN_Demod_Byte_Write;
[[maybe_unused]] constexpr ZfnGetDataFn kCheckGetData = &ZFN_GetData;
[[maybe_unused]] constexpr ZfnSetDabEventHandleFn kCheckSetEvent = &ZFN_SetDABEventHandle;
[[maybe_unused]] constexpr ZfnReleaseDabEventHandleFn kCheckReleaseEvent = &ZFN_ReleaseDABEventHandle;
[[maybe_unused]] constexpr ZfnGetTunerTypeFn kCheckTunerType = &ZFN_Get_TunerType;
}  // namespace
