#pragma once
// Reed-Solomon RS(204,188) of ISDB-T, shortened from RS(255,239): GF(256) with x^8 + x^4 + x^3 + x^2 + 1,
// primitive element 2, generator (x + 1)(x + 2)...(x + 2^15). Bytes 0..187 are data, 188..203 parity;
// byte m is the coefficient of x^(203 - m).
#include <cstdint>

namespace zfn {

constexpr int32_t RS_OK = 0;
constexpr int32_t RS_CORRECTED = 2;
constexpr int32_t RS_PARITY_WRONG = -1;       // CheckRsParity only
constexpr int32_t RS_DISCREPANCY_LEFT = -2;   // discrepancy not zero after the auxiliary polynomial ran out
constexpr int32_t RS_DEGREE_MISMATCH = -3;    // degree of the locator differs from its length
constexpr int32_t RS_ROOT_COUNT = -5;         // number of roots differs from the degree
constexpr int32_t RS_ROOT_SHORTENED = -6;     // a root lies in the part removed by shortening

// The field and code tables, heap blocks built once per engine; null pointers when absent.
struct RsTables {
  uint8_t* syndromeTable;  // [i][k][j]: k * 2^(i*j), i, j = 0..15, k = 0..255
  uint8_t* mulTable;       // [a][b]: a * b
  uint8_t* divTable;       // [a][b]: a / b, 0 if a or b is 0
  uint8_t* encodeTable;    // [k][j]: k * g[j], the 16 low generator coefficients
};

extern RsTables rsTables;
extern RsTables* rsTablesRef;

// Low coefficients of the generator polynomial of the outer code (ARIB STD-B31), x^0 first; the
// coefficient of x^16 is 1.
inline constexpr uint8_t RS_GENERATOR[16] = {0x3B, 0x24, 0x32, 0x62, 0xE5, 0x29, 0x41, 0xA3,
                                             0x08, 0x1E, 0xD1, 0x44, 0xBD, 0x68, 0x0D, 0x3B};

// Result 0 if the parity of the 204-byte packet is right, RS_PARITY_WRONG if not. Changes nothing.
int32_t CheckRsParity(const uint8_t* packet);
// Checks and corrects up to 8 byte errors; data bytes are corrected in place, parity is never
// repaired, and the packet is unchanged on every failure.
int32_t DecodeRs(uint8_t* packet);

}  // namespace zfn
