// Reed-Solomon decoding of the packet thread. Syndromes come from the difference between the received
// parity and a re-encoding of the 188 data bytes, so a clean packet costs one encoder pass; every field
// operation is a look-up in tables built once at engine start.
#include "decoder/reed_solomon.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "shell/stages.h"

namespace zfn {

RsTables rsTables;
RsTables* rsTablesRef;

namespace {

constexpr int32_t PACKET = 204;
constexpr int32_t DATA = 188;
constexpr int32_t PARITY = 16;
constexpr int32_t SHORTENED = 51;  // 255 - 204 places removed by shortening
constexpr int32_t POLY = 11;       // room of the locator and auxiliary polynomials

struct FieldTables {
  uint8_t exp[256];  // 2^i, i = 0..255; entry 255 is 1
  uint8_t log[256];  // log of 1..255; entry 0 is 255 and never used
};

constexpr FieldTables MakeFieldTables() {
  FieldTables t{};
  uint32_t x = 1;
  for (int32_t i = 0; i < 256; ++i) {
    t.exp[i] = static_cast<uint8_t>(x);
    x <<= 1;
    if (x & 0x100) x ^= 0x11D;
  }
  t.log[0] = 255;
  for (int32_t i = 0; i < 255; ++i) t.log[t.exp[i]] = static_cast<uint8_t>(i);
  return t;
}

constexpr FieldTables FIELD = MakeFieldTables();

// Chien start multipliers: 2^i up to the capacity of 8, zero for the two coefficients above it.
constexpr uint8_t CHIEN_START[POLY] = {1, 2, 4, 8, 0x10, 0x20, 0x40, 0x80, 0x1D, 0, 0};

inline uint8_t Mul(const uint8_t* mul, uint8_t a, uint8_t b) { return mul[a * 256 + b]; }

inline constexpr uint8_t FieldMul(uint8_t a, uint8_t b) {
  return a == 0 || b == 0 ? 0 : FIELD.exp[(FIELD.log[a] + FIELD.log[b]) % 255];
}

// Rows u * x^(16 + k) mod g for k = 1..3, 16 bytes each, x^0 first (k = 0 is encodeTable's row u):
// four data bytes move the register by four places at once, and the four bytes that leave its top
// (x^12..x^15, each with its data byte added) come back through one row of each.
struct SliceRows {
  uint8_t row[3][256][PARITY];
};

constexpr SliceRows MakeSliceRows() {
  SliceRows t{};
  for (int32_t u = 0; u < 256; ++u) {
    uint8_t r[PARITY]{};
    for (int32_t j = 0; j < PARITY; ++j) r[j] = FieldMul(static_cast<uint8_t>(u), RS_GENERATOR[j]);
    for (int32_t k = 0; k < 3; ++k) {
      const uint8_t top = r[PARITY - 1];
      for (int32_t j = PARITY - 1; j > 0; --j) r[j] = r[j - 1];
      r[0] = 0;
      for (int32_t j = 0; j < PARITY; ++j) r[j] = static_cast<uint8_t>(r[j] ^ FieldMul(top, RS_GENERATOR[j]));
      for (int32_t j = 0; j < PARITY; ++j) t.row[k][u][j] = r[j];
    }
  }
  return t;
}

constexpr SliceRows SLICE_ROWS = MakeSliceRows();

// Adds a 16-byte row to the register held as two 64-bit words.
inline void AddRow(const uint8_t* row, uint64_t& low, uint64_t& high) {
  uint64_t e[2];
  std::memcpy(e, row, sizeof e);
  if constexpr (std::endian::native == std::endian::big) {
    for (uint64_t& w : e) w = __builtin_bswap64(w);
  }
  low ^= e[0];
  high ^= e[1];
}

// The 16 parity bytes that the 188 data bytes imply, R[0] the coefficient of x^0, as four words.
// The same register as one data byte per step (R = x R + byte x^16 mod g), four bytes per step:
// R = x^4 R + (b0 x^3 + b1 x^2 + b2 x + b3) x^16 mod g, where the top four places of R, each plus
// its data byte, go through the rows of x^16..x^19; the chain from step to step is a quarter as long.
void EncodeParity(const uint8_t* packet, uint32_t r[4]) {
  const uint8_t* encode = rsTablesRef->encodeTable;
  uint64_t low = 0, high = 0;  // bytes 0..7 and 8..15 of R, little end first
  static_assert(DATA % 4 == 0);
  for (int32_t m = 0; m < DATA; m += 4) {
    const uint32_t in = static_cast<uint32_t>(packet[m]) << 24 | static_cast<uint32_t>(packet[m + 1]) << 16 |
                        static_cast<uint32_t>(packet[m + 2]) << 8 | packet[m + 3];
    const uint32_t u = static_cast<uint32_t>(high >> 32) ^ in;  // byte k: what stands at x^(16 + k) after the move
    high = high << 32 | low >> 32;
    low <<= 32;
    AddRow(encode + 16 * (u & 0xFF), low, high);
    AddRow(SLICE_ROWS.row[0][(u >> 8) & 0xFF], low, high);
    AddRow(SLICE_ROWS.row[1][(u >> 16) & 0xFF], low, high);
    AddRow(SLICE_ROWS.row[2][u >> 24], low, high);
  }
  r[0] = static_cast<uint32_t>(low);
  r[1] = static_cast<uint32_t>(low >> 32);
  r[2] = static_cast<uint32_t>(high);
  r[3] = static_cast<uint32_t>(high >> 32);
}

// Byte i of the register held as four 32-bit words.
inline uint8_t RegisterByte(const uint32_t r[4], int32_t i) { return static_cast<uint8_t>(r[i / 4] >> (8 * (i % 4))); }

}  // namespace

int32_t BuildRsTables() {
  rsTablesRef = &rsTables;
  rsTables.mulTable = static_cast<uint8_t*>(std::malloc(65536));
  if (rsTables.mulTable == nullptr) return 0;
  rsTables.syndromeTable = static_cast<uint8_t*>(std::malloc(65536));
  if (rsTables.syndromeTable == nullptr) return 0;
  rsTables.divTable = static_cast<uint8_t*>(std::malloc(65536));
  if (rsTables.divTable == nullptr) return 0;
  rsTables.encodeTable = static_cast<uint8_t*>(std::malloc(4096));
  if (rsTables.encodeTable == nullptr) return 0;

  for (int32_t a = 0; a < 256; ++a) {
    for (int32_t b = 0; b < 256; ++b) {
      uint8_t product = 0, quotient = 0;
      if (a != 0 && b != 0) {
        const int32_t s = FIELD.log[a] + FIELD.log[b];
        product = FIELD.exp[s < 255 ? s : s - 255];
        const int32_t d = FIELD.log[a] - FIELD.log[b];
        quotient = FIELD.exp[d >= 0 ? d : d + 255];
      }
      rsTables.mulTable[a * 256 + b] = product;
      rsTables.divTable[a * 256 + b] = quotient;
    }
  }
  for (int32_t i = 0; i < PARITY; ++i) {
    for (int32_t j = 0; j < PARITY; ++j) {
      const uint8_t power = FIELD.exp[(i * j) % 255];
      for (int32_t k = 0; k < 256; ++k) rsTables.syndromeTable[(i * 256 + k) * 16 + j] = rsTables.mulTable[k * 256 + power];
    }
  }
  for (int32_t k = 0; k < 256; ++k) {
    for (int32_t j = 0; j < PARITY; ++j) rsTables.encodeTable[k * 16 + j] = rsTables.mulTable[k * 256 + RS_GENERATOR[j]];
  }
  return 1;
}

void FreeRsTables() {
  uint8_t** blocks[4] = {&rsTables.syndromeTable, &rsTables.divTable, &rsTables.mulTable, &rsTables.encodeTable};
  for (uint8_t** block : blocks) {
    std::free(*block);
    *block = nullptr;
  }
  rsTablesRef = nullptr;
}

int32_t CheckRsParity(const uint8_t* packet) {
  if (rsTablesRef == nullptr || rsTablesRef->encodeTable == nullptr) return RS_PARITY_WRONG;
  uint32_t r[4];
  EncodeParity(packet, r);
  for (int32_t i = 0; i < PARITY; ++i) {
    if (RegisterByte(r, i) != packet[PACKET - 1 - i]) return RS_PARITY_WRONG;
  }
  return RS_OK;
}

int32_t DecodeRs(uint8_t* packet) {
  if (rsTablesRef == nullptr || rsTablesRef->encodeTable == nullptr) return RS_PARITY_WRONG;  // no tables: nothing judged good
  const uint8_t* mul = rsTablesRef->mulTable;

  // 1. Remainder of the received word modulo g: received parity against re-encoded parity.
  uint32_t r[4];
  EncodeParity(packet, r);
  uint8_t e[PARITY];
  uint8_t any = 0;
  for (int32_t i = 0; i < PARITY; ++i) {
    e[i] = static_cast<uint8_t>(RegisterByte(r, i) ^ packet[PACKET - 1 - i]);
    any |= e[i];
  }
  if (any == 0) return RS_OK;

  // 2. Syndromes at 2^0 .. 2^15: sixteen rows of 16 bytes, xored as words.
  uint64_t syndromeWords[2] = {0, 0};
  for (int32_t i = 0; i < PARITY; ++i) {
    uint64_t row[2];
    std::memcpy(row, rsTablesRef->syndromeTable + (i * 256 + e[i]) * 16, sizeof row);
    syndromeWords[0] ^= row[0];
    syndromeWords[1] ^= row[1];
  }
  uint8_t s[PARITY];
  std::memcpy(s, syndromeWords, sizeof s);

  // 3. Berlekamp-Massey without inversions.
  uint8_t lambda[POLY] = {1};
  uint8_t aux[POLY] = {1};  // B; afterwards the place of the evaluator
  int32_t length = 0;
  uint8_t last = 1;
  for (int32_t k = 0; k < PARITY; ++k) {
    uint8_t d = 0;
    for (int32_t i = 0; i <= (k < POLY - 1 ? k : POLY - 1); ++i) d ^= Mul(mul, lambda[i], s[k - i]);
    if (aux[POLY - 1] != 0 && d != 0) return RS_DISCREPANCY_LEFT;
    for (int32_t i = POLY - 1; i > 0; --i) aux[i] = aux[i - 1];
    aux[0] = 0;
    const bool keep = d == 0 || k < 2 * length;
    for (int32_t i = 0; i < POLY; ++i) {
      const uint8_t next = Mul(mul, d, aux[i]) ^ Mul(mul, last, lambda[i]);
      if (!keep) aux[i] = lambda[i];
      lambda[i] = next;
    }
    if (!keep) {
      last = d;
      length = k + 1 - length;
    }
  }

  // 4. Degree of the locator.
  int32_t degree = 0;
  for (int32_t i = POLY - 1; i >= 1; --i) {
    if (lambda[i] != 0) {
      degree = i;
      break;
    }
  }
  if (degree != length) return RS_DEGREE_MISMATCH;

  // 5. Evaluator Omega = Lambda * S mod x^11, in B's place: its top coefficient keeps what B held.
  uint8_t* omega = aux;
  for (int32_t i = 0; i < POLY - 1; ++i) omega[i] = 0;
  for (int32_t i = 0; i < POLY; ++i) {
    uint8_t sum = 0;
    for (int32_t j = 0; j <= i; ++j) sum ^= Mul(mul, lambda[j], s[i - j]);
    omega[i] ^= sum;
  }

  // 6. Chien search over the 255 places; the two coefficients above the capacity are dropped here.
  for (int32_t i = 0; i < POLY; ++i) lambda[i] = Mul(mul, lambda[i], CHIEN_START[i]);
  int32_t rootPlace[POLY];
  uint8_t rootOdd[POLY];
  int32_t roots = 0;
  for (int32_t l = 0; l < 255; ++l) {
    uint8_t even = 0, odd = 0;
    for (int32_t i = 0; i < POLY; i += 2) even ^= lambda[i];
    for (int32_t i = 1; i < POLY; i += 2) odd ^= lambda[i];
    if (even == odd) {  // 2^(l+1) is a root: an error at polynomial position 254 - l, byte l - 51
      if (l < SHORTENED) return RS_ROOT_SHORTENED;
      if (roots < POLY) {
        rootPlace[roots] = l;
        rootOdd[roots] = odd;
      }
      ++roots;
    }
    for (int32_t i = 1; i < POLY; ++i) lambda[i] = Mul(mul, lambda[i], FIELD.exp[i]);
  }

  // 7. All roots must be found.
  if (roots != degree) return RS_ROOT_COUNT;

  // 8. Forney: value = Omega(X^-1) / (X^-1 Lambda'(X^-1)), the odd part being that denominator.
  for (int32_t k = 0; k < roots; ++k) {
    const int32_t l = rootPlace[k];
    if (l >= SHORTENED + DATA) continue;  // a parity byte: not repaired
    const uint8_t x = FIELD.exp[l + 1];
    uint8_t v = omega[roots];
    for (int32_t m = roots - 1; m >= 0; --m) v = omega[m] ^ Mul(mul, v, x);
    packet[l - SHORTENED] ^= rsTablesRef->divTable[v * 256 + rootOdd[k]];
  }
  return RS_CORRECTED;
}

}  // namespace zfn
