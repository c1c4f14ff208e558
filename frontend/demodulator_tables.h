#pragma once
// Register values that turn the demodulator chip into a plain front end: tuner, low-IF mixer,
// resampler to 2031746 samples per second and 8-bit output. Settled constants of this receiver;
// only their order and content matter here, not their meaning inside the chip.
#include <array>
#include <cstdint>
#include <span>

namespace zfn {

// One register field: a bit range of the byte at page/address. A field wider than 8 bits still
// names one byte (see WriteRegisterRecord).
struct RegisterField {
  uint8_t page;
  uint8_t address;
  uint8_t topBit;
  uint8_t bottomBit;
};

// Fields by record id 0..41. Ids 2, 3, 4, 9 and 10 are listed for completeness and not used.
inline constexpr std::array<RegisterField, 42> REGISTER_FIELDS = {{
    {0, 0x0E, 1, 1},   // 0
    {0, 0x0E, 0, 0},   // 1
    {1, 0x04, 5, 5},   // 2
    {1, 0x04, 6, 6},   // 3
    {1, 0x04, 7, 7},   // 4
    {1, 0x08, 7, 0},   // 5
    {1, 0x09, 7, 0},   // 6
    {1, 0x0A, 7, 0},   // 7
    {1, 0x0B, 7, 0},   // 8
    {1, 0x0C, 6, 6},   // 9
    {1, 0x0E, 6, 6},   // 10
    {1, 0x12, 7, 0},   // 11
    {1, 0x02, 0, 0},   // 12
    {1, 0x03, 7, 0},   // 13
    {1, 0xC7, 5, 1},   // 14
    {1, 0x04, 4, 1},   // 15
    {1, 0x05, 7, 7},   // 16
    {1, 0xC8, 4, 0},   // 17
    {1, 0x06, 5, 0},   // 18
    {1, 0xC9, 5, 0},   // 19
    {1, 0xCA, 5, 0},   // 20
    {1, 0xCB, 7, 0},   // 21
    {1, 0x07, 7, 0},   // 22
    {1, 0xCD, 7, 0},   // 23
    {1, 0xCE, 7, 0},   // 24
    {0, 0x11, 15, 0},  // 25
    {0, 0x08, 7, 7},   // 26
    {0, 0x08, 6, 6},   // 27
    {0, 0xB9, 3, 3},   // 28
    {1, 0xE5, 0, 0},   // 29
    {1, 0xD9, 8, 0},   // 30
    {1, 0xDB, 8, 0},   // 31
    {1, 0xDD, 7, 0},   // 32
    {1, 0xDE, 7, 0},   // 33
    {1, 0xD8, 3, 0},   // 34
    {1, 0xE6, 3, 3},   // 35
    {1, 0xD7, 0, 0},   // 36
    {0, 0x0D, 1, 0},   // 37
    {0, 0x0D, 2, 2},   // 38
    {0, 0x0D, 7, 7},   // 39
    {0, 0x10, 0, 0},   // 40
    {0, 0x13, 0, 0},   // 41
}};

// One row of a record list: field id and value.
struct RegisterRecord {
  uint8_t id;
  uint16_t value;
};

// The record lists of tuner types 3 to 6 share a head of 18 rows, which differ only in five values.
struct RecordHeadValues {
  uint8_t a;  // record 11
  uint8_t b;  // record 13
  uint8_t c;  // records 14 and 17
  uint8_t d;  // record 15
  uint8_t e;  // record 7
};

inline constexpr int RECORD_HEAD_ROWS = 18;

constexpr std::array<RegisterRecord, RECORD_HEAD_ROWS> RecordHead(const RecordHeadValues& v) {
  return {{{11, v.a},
           {12, 0x00},
           {13, v.b},
           {14, v.c},
           {15, v.d},
           {16, 0x01},
           {17, v.c},
           {18, 0x35},
           {19, 0x21},
           {20, 0x21},
           {21, 0x00},
           {22, 0x40},
           {23, 0x10},
           {24, 0x10},
           {5, 0x80},
           {6, 0x7F},
           {7, v.e},
           {8, 0x7F}}};
}

struct RecordList {
  RecordHeadValues head;
  std::span<const RegisterRecord> tail;
};

inline constexpr std::array<RegisterRecord, 5> RECORD_TAIL_R4 = {{
    {0, 0x00}, {1, 0x00}, {25, 0xE9D4}, {27, 0x00}, {28, 0x00}}};

inline constexpr std::array<RegisterRecord, 16> RECORD_TAIL_R5 = {{
    {0, 0x00}, {1, 0x00}, {25, 0xE9D4}, {29, 0x00}, {30, 0x00}, {31, 0x00}, {32, 0x14}, {33, 0xEC},
    {34, 0x0C}, {35, 0x00}, {36, 0x01}, {39, 0x01}, {40, 0x01}, {38, 0x01}, {37, 0x01}, {41, 0x00}}};

inline constexpr std::array<RegisterRecord, 12> RECORD_TAIL_R6 = {{
    {0, 0x00}, {1, 0x00}, {29, 0x00}, {30, 0x00}, {31, 0x00}, {32, 0x11}, {33, 0xEF}, {34, 0x0C},
    {35, 0x00}, {36, 0x01}, {26, 0x01}, {27, 0x01}}};

inline constexpr RecordList RECORD_LIST_R3 = {{0x39, 0x5A, 0x16, 0x06, 0x9C}, {}};
inline constexpr RecordList RECORD_LIST_R4 = {{0x39, 0x32, 0x16, 0x06, 0x80}, RECORD_TAIL_R4};
inline constexpr RecordList RECORD_LIST_R5 = {{0x5A, 0x5A, 0x18, 0x08, 0x80}, RECORD_TAIL_R5};
inline constexpr RecordList RECORD_LIST_R6 = {{0x5A, 0x5A, 0x16, 0x06, 0x80}, RECORD_TAIL_R6};

// A register write of one to four consecutive bytes, lowest address first.
struct RegisterWrite {
  uint8_t page;
  uint8_t address;
  uint8_t byteCount;
  std::array<uint8_t, 4> bytes;
};

// Resampler ratio word, big-endian 59454256: 28800000 * 2^22 / 59454256 = 2031746.14 Hz out.
inline constexpr RegisterWrite RESAMPLER_RATIO = {1, 0x9F, 4, {0x03, 0x8B, 0x33, 0x30}};

// Input filter, page 1, one byte each at 0x1C .. 0x2F in rising order.
inline constexpr uint8_t INPUT_FILTER_FIRST_ADDRESS = 0x1C;
inline constexpr std::array<uint8_t, 20> INPUT_FILTER = {0xCA, 0xDC, 0xD7, 0xD8, 0xE0, 0xF2, 0x0E,
                                                         0x35, 0x06, 0x50, 0x9C, 0x0D, 0x71, 0x11,
                                                         0x14, 0x71, 0x74, 0x19, 0x41, 0xA5};

// Single-byte writes common to all tuners after the input filter, in order.
inline constexpr std::array<RegisterWrite, 14> COMMON_SETTINGS = {{
    {0, 0x17, 1, {0x08}},
    {0, 0x18, 1, {0x10}},
    {0, 0x19, 1, {0x21}},
    {0, 0x1F, 1, {0x02}},  // falling addresses from here
    {0, 0x1E, 1, {0x02}},
    {0, 0x1D, 1, {0xFA}},
    {0, 0x1C, 1, {0xF9}},
    {0, 0x1B, 1, {0x13}},
    {0, 0x1A, 1, {0x37}},
    {1, 0x92, 1, {0x00}},
    {1, 0x93, 1, {0xF0}},
    {1, 0x94, 1, {0x0F}},
    {0, 0x61, 1, {0x60}},
    {0, 0x20, 1, {0x40}},
}};

// Tuner type 1: page 1 writes after the bits of page 0 address 0x0E are set.
inline constexpr std::array<RegisterWrite, 7> TUNER1_SETTINGS = {{
    {1, 0x08, 1, {0x80}},
    {1, 0x09, 1, {0xB0}},
    {1, 0x04, 1, {0xDE}},
    {1, 0xCB, 1, {0x38}},
    {1, 0x06, 1, {0x20}},
    {1, 0xC9, 1, {0x80}},
    {1, 0xCA, 1, {0x80}},
}};

// Tuner type 3: page 0 writes after its record list.
inline constexpr std::array<RegisterWrite, 2> TUNER3_SETTINGS = {{
    {0, 0x11, 1, {0xE9}},
    {0, 0x12, 1, {0xF4}},
}};

}  // namespace zfn
