// Programming of the demodulator chip as a plain front end, tuning, and the small corrections the
// tracking stage writes back to it (sample clock offset, IF carrier offset).
#include <cmath>
#include <cstdint>

#include "frontend/demodulator_tables.h"
#include "frontend/device_binding.h"
#include "shell/device_state.h"
#include "shell/stages.h"

namespace zfn {

namespace {

// The tuner is always set this far above the wanted channel; the IF word brings it back. The two
// uses must change together.
constexpr int32_t TUNER_OFFSET_KHZ = 600;

// Registers addressed by the operations below (page 1).
constexpr uint8_t RESET_ADDRESS = 0x01;
constexpr uint8_t RESET_BIT = 0x04;
constexpr uint8_t IF_WORD_ADDRESS = 0x16;        // 3 bytes, 22 bits
constexpr uint8_t CLOCK_OFFSET_ADDRESS = 0x3E;   // 2 bytes, 14 bits
constexpr uint8_t CLOCK_OFFSET_LOW_ADDRESS = 0x3F;

// IF word per kHz of shift: 2^22 / 10^3 per 28.8 MHz of crystal. Kept as the two constants of the
// formula so the arithmetic runs in the same order everywhere.
constexpr double IF_WORD_SCALE = 4194.304;
constexpr double CRYSTAL_MHZ = 28.8;
// Sample clock offset word per part per million: 2^24 / 10^6.
constexpr double CLOCK_WORD_PER_PPM = 16.777216;

// Register access through the bound device library. An unbound library counts as a failed access.
int32_t ReadRegisters(uint8_t page, uint8_t address, int32_t byteCount, uint8_t* bytes) {
  if (deviceBinding.Demod_Byte_Read == nullptr) return 0;
  return deviceBinding.Demod_Byte_Read(page, address, byteCount, bytes) != 0 ? 1 : 0;
}

int32_t WriteRegisters(uint8_t page, uint8_t address, int32_t byteCount, uint8_t* bytes) {
  if (deviceBinding.Demod_Byte_Write == nullptr) return 0;
  return deviceBinding.Demod_Byte_Write(page, address, byteCount, bytes) != 0 ? 1 : 0;
}

int32_t WriteByte(uint8_t page, uint8_t address, uint8_t value) { return WriteRegisters(page, address, 1, &value); }

int32_t Write(const RegisterWrite& write) {
  std::array<uint8_t, 4> bytes = write.bytes;
  return WriteRegisters(write.page, write.address, write.byteCount, bytes.data());
}

// Read one byte, keep the bits outside `clear`, OR in `set`, write it back. A failed read leaves
// the byte at 0 and the write is still made: the sequences never stop at a failure.
int32_t ModifyByte(uint8_t page, uint8_t address, uint8_t clear, uint8_t set) {
  uint8_t value = 0;
  int32_t ok = ReadRegisters(page, address, 1, &value);
  value = static_cast<uint8_t>((value & ~clear) | set);
  ok &= WriteByte(page, address, value);
  return ok;
}

// One record: the field's bits are replaced by the value shifted to the field's bottom bit and cut
// to 8 bits. The value is not masked to the field's width, and a field wider than 8 bits still
// covers one byte only: record 25 with E9D4 writes D4 over all of address 0x11 and loses E9.
int32_t WriteRegisterRecord(const RegisterRecord& record) {
  const RegisterField& field = REGISTER_FIELDS[record.id];
  const uint32_t fieldBits = ((2u << field.topBit) - 1u) & ~((1u << field.bottomBit) - 1u);
  const uint8_t clear = static_cast<uint8_t>(fieldBits & 0xFFu);
  const uint8_t set = static_cast<uint8_t>(static_cast<uint32_t>(record.value) << field.bottomBit);
  return ModifyByte(field.page, field.address, clear, set);
}

int32_t WriteRecordList(const RecordList& list) {
  int32_t ok = 1;
  for (const RegisterRecord& record : RecordHead(list.head)) ok &= WriteRegisterRecord(record);
  for (const RegisterRecord& record : list.tail) ok &= WriteRegisterRecord(record);
  return ok;
}

// The IF word as three bytes: bits 21..16 (top two bits of the byte zero), 15..8, 7..0.
int32_t WriteIfWord(int64_t word) {
  const uint32_t bits = static_cast<uint32_t>(word);
  uint8_t bytes[3] = {static_cast<uint8_t>((bits >> 16) & 0x3F), static_cast<uint8_t>((bits >> 8) & 0xFF),
                      static_cast<uint8_t>(bits & 0xFF)};
  return WriteRegisters(1, IF_WORD_ADDRESS, 3, bytes);
}

int64_t IfWord(double kHz) { return static_cast<int64_t>(std::floor(kHz * IF_WORD_SCALE / CRYSTAL_MHZ)); }

int32_t WriteClockOffsetZero() {
  uint8_t zero[2] = {0x00, 0x00};
  return WriteRegisters(1, CLOCK_OFFSET_ADDRESS, 2, zero);
}

}  // namespace

int32_t ProgramDemodulator() {
  const int32_t tunerType = device.tunerType;
  const bool tunerOf1235 = tunerType == 1 || tunerType == 2 || tunerType == 3 || tunerType == 5;
  int32_t ok = 1;

  if (tunerOf1235) {
    ok &= WriteByte(0, 0x08, 0xCD);
    ok &= WriteByte(1, 0xB1, 0x1F);
  }

  ok &= WriteClockOffsetZero();
  ok &= WriteByte(1, 0x15, 0x00);
  {
    uint8_t zero[3] = {0x00, 0x00, 0x00};
    ok &= WriteRegisters(1, IF_WORD_ADDRESS, 3, zero);
  }

  if (tunerType == 4) {
    uint8_t bytes[3] = {0x35, 0xD8, 0x2E};
    ok &= WriteRegisters(1, 0x19, 3, bytes);
  } else if (tunerOf1235 || tunerType == 6) {
    uint8_t bytes[3] = {0x00, 0x00, 0x00};
    ok &= WriteRegisters(1, 0x19, 3, bytes);
  }

  ok &= Write(RESAMPLER_RATIO);
  for (size_t i = 0; i < INPUT_FILTER.size(); ++i) {
    ok &= WriteByte(1, static_cast<uint8_t>(INPUT_FILTER_FIRST_ADDRESS + i), INPUT_FILTER[i]);
  }
  for (const RegisterWrite& write : COMMON_SETTINGS) ok &= Write(write);
  ok &= WriteByte(0, 0x06, tunerType == 3 ? 0x90 : 0x80);

  switch (tunerType) {
    case 1:
      ok &= ModifyByte(0, 0x0E, 0x03, 0x03);
      for (const RegisterWrite& write : TUNER1_SETTINGS) ok &= Write(write);
      break;
    case 2:
      ok &= ModifyByte(0, 0x0E, 0x03, 0x00);
      break;
    case 3:
      ok &= ModifyByte(0, 0x0E, 0x03, 0x00);
      ok &= ModifyByte(0, 0x09, 0x0F, 0x00);
      ok &= WriteRecordList(RECORD_LIST_R3);
      for (const RegisterWrite& write : TUNER3_SETTINGS) ok &= Write(write);
      break;
    case 4:
      ok &= WriteRecordList(RECORD_LIST_R4);
      break;
    case 5:
      ok &= WriteRecordList(RECORD_LIST_R5);
      break;
    case 6:
      ok &= WriteRecordList(RECORD_LIST_R6);
      break;
    default:
      break;
  }

  ok &= PulseDemodReset();
  return ok;
}

int32_t TuneFrontEnd(int32_t frequencyKHz, int32_t bandwidthMHz, int32_t offsetKHz) {
  if (deviceBinding.Set_Frequency == nullptr || deviceBinding.Set_Bandwidth == nullptr ||
      deviceBinding.DeviceUpdate == nullptr) {
    return 1;
  }
  // A frequency whose tuner setting does not fit the device's 32-bit word fails like the tuner.
  const int64_t tunerKHz = int64_t{frequencyKHz} + TUNER_OFFSET_KHZ + offsetKHz;
  if (tunerKHz < INT32_MIN || tunerKHz > INT32_MAX) return 1;
  if (deviceBinding.Set_Frequency(static_cast<int32_t>(tunerKHz)) == 0) return 1;
  if (deviceBinding.Set_Bandwidth(bandwidthMHz) == 0) return 1;
  if (deviceBinding.DeviceUpdate() == 0) return 2;

  // The chip's mixer takes the tuner offset back out; any extra offset moves with it.
  int32_t ok = WriteIfWord(IfWord(static_cast<double>(offsetKHz + TUNER_OFFSET_KHZ)));
  ok &= WriteClockOffsetZero();  // a tune ends any sample clock correction
  ok &= PulseDemodReset();
  return ok != 0 ? 3 : 2;
}

int32_t PulseDemodReset() {
  uint8_t value = 0;
  int32_t ok = ReadRegisters(1, RESET_ADDRESS, 1, &value);
  ok &= WriteByte(1, RESET_ADDRESS, static_cast<uint8_t>(value | RESET_BIT));
  ok &= WriteByte(1, RESET_ADDRESS, static_cast<uint8_t>(value & ~RESET_BIT));
  return ok;
}

int32_t WriteSampleClockOffset(uint8_t relative, float ppm) {
  const int32_t word = static_cast<int32_t>(std::floor(ppm * CLOCK_WORD_PER_PPM));

  if (relative == 1) {
    uint8_t bytes[2] = {0, 0};
    if (ReadRegisters(1, CLOCK_OFFSET_ADDRESS, 2, bytes) == 0) return 0;
    const uint8_t hi = bytes[0];
    const uint8_t lo = bytes[1];
    // Bits 7 and 6 of hi stay out of the sum but take part in the comparison; the sum wraps to
    // 14 bits on writing.
    const int32_t sum = (((hi & 0x3F) << 8) | lo) + word;
    const uint8_t newHi = static_cast<uint8_t>((sum >> 8) & 0x3F);
    const uint8_t newLo = static_cast<uint8_t>(sum & 0xFF);
    if (hi != newHi && WriteByte(1, CLOCK_OFFSET_ADDRESS, newHi) == 0) return 0;
    if (lo != newLo && WriteByte(1, CLOCK_OFFSET_LOW_ADDRESS, newLo) == 0) return 0;
    return 1;
  }

  uint8_t bytes[2] = {static_cast<uint8_t>((word >> 8) & 0x3F), static_cast<uint8_t>(word & 0xFF)};
  return WriteRegisters(1, CLOCK_OFFSET_ADDRESS, 2, bytes) != 0 ? 1 : 0;
}

int32_t WriteCarrierOffset(uint8_t relative, float kHz) {
  const int64_t word = IfWord(static_cast<double>(kHz));
  if (relative == 1) {
    uint8_t bytes[3] = {0, 0, 0};
    if (ReadRegisters(1, IF_WORD_ADDRESS, 3, bytes) == 0) return 0;
    const int64_t current = (static_cast<int64_t>(bytes[0] & 0x3F) << 16) | (bytes[1] << 8) | bytes[2];
    return WriteIfWord(current + word);
  }
  return WriteIfWord(word);
}

}  // namespace zfn
