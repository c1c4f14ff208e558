#pragma once
// The stages of our ISDB-T transmitter for one layer, each a small object that keeps its own state
// and runs without allocating once constructed. The order and every convention follow ARIB STD-B31;
// clause numbers stand beside the tables. Nothing here is shared with the receiver: these are
// written in the transmit direction from the standard, and the tests check them against their own
// inverses.
#include <array>
#include <complex>
#include <cstdint>
#include <span>
#include <vector>

namespace zfn::sim {

constexpr int kPacketBytes = 188;
constexpr int kUnitBytes = 204;  // a packet with its Reed-Solomon parity
constexpr int kFrameSymbols = 204;

// Numerology of one mode (1, 2, 3).
struct ModeNumbers {
  int mode;      // 1..3
  int nc;        // carriers per segment: 108, 216, 432
  int nd;        // data carriers per segment: 96, 192, 384
  int n1;        // one-segment transform size at 64/63 MHz: 256, 512, 1024
  double spacingHz;  // carrier spacing: (64/63 MHz) / n1
};
ModeNumbers NumbersOfMode(int mode);

// Guard index 0..3 means 1/32, 1/16, 1/8, 1/4 of the useful symbol.
inline int GuardSamples(int n, int guard) { return n >> (5 - guard); }

// Bits per carrier symbol by the TMCC modulation code (1 QPSK, 2 16QAM, 3 64QAM).
int BitsPerCarrier(int modulationCode);
// Numerator and denominator of code rate index 0..4 (1/2, 2/3, 3/4, 5/6, 7/8).
int RateNumerator(int codeRate);
int RateDenominator(int codeRate);
// Time interleaving length I by index 0..3 and mode 1..3 (ARIB STD-B31).
int InterleaveLength(int interleave, int mode);
// Delay adjustment A of the time interleaver: makes I*95 + A a whole number of frames.
int InterleaveAdjustment(int length);

// ---------------------------------------------------------------------------------------------
// Outer code RS(204,188), shortened from RS(255,239) over GF(256) with x^8+x^4+x^3+x^2+1 and the
// generator (x - 2^0)...(x - 2^15) (ARIB STD-B31). Systematic: parity follows the 188 bytes.
class RsEncoder {
 public:
  RsEncoder();
  void Encode(const uint8_t* packet188, uint8_t* unit204) const;
  uint8_t Mul(uint8_t a, uint8_t b) const;
  uint8_t Power(int e) const { return exp_[e % 255]; }

 private:
  std::array<uint8_t, 512> exp_{};
  std::array<int, 256> log_{};
  std::array<uint8_t, 17> gen_{};  // generator coefficients, gen_[16] = 1 is the x^16 term
};

// Energy dispersal PRBS 1 + x^14 + x^15, start state 100101010000000 (ARIB STD-B31).
class DispersalPrbs {
 public:
  DispersalPrbs() { Reset(); }
  void Reset() { reg_ = kStart; }
  uint8_t NextByte();  // eight clocks, first output bit in the MSB

 private:
  static constexpr uint16_t kStart = 0x00A9;  // s1 in bit 0 .. s15 in bit 14
  uint16_t reg_;
};

// Byte interleaver: 12 branches, branch b a FIFO of 17*b bytes, the commutator moving one branch
// per byte (ARIB STD-B31). The caller feeds bytes so that the byte after each sync byte
// meets branch 0.
class ByteInterleaver {
 public:
  ByteInterleaver();
  uint8_t Push(uint8_t in);
  void Fill(uint8_t value);

 private:
  std::array<uint8_t, 17 * 66> store_{};  // branches 1..11 end to end
  std::array<int, 12> start_{};
  std::array<int, 12> pos_{};
  int branch_ = 0;
};

// Convolutional code K = 7, generators 171 and 133 octal, with the puncturing of the code rate
// (ARIB STD-B31). Bits come out in transmission order: X before Y within one input bit.
class ConvolutionalEncoder {
 public:
  explicit ConvolutionalEncoder(int codeRate);
  // Encodes the bytes MSB first and appends the kept bits (0/1) to out; returns the count.
  int EncodeBytes(std::span<const uint8_t> bytes, uint8_t* out);
  int Phase() const { return phase_; }

 private:
  uint32_t state_ = 0;  // last six input bits, newest in bit 5
  int phase_ = 0;
  int period_;
  std::array<uint8_t, 8> keepX_{};
  std::array<uint8_t, 8> keepY_{};
};

// Bit interleaving with the bit delay adjustment in front of it (ARIB STD-B31): bit b of
// every carrier symbol is delayed by (2*D - 120) + d_b carrier symbols, d_b = 120*b/(q-1).
class BitInterleaver {
 public:
  BitInterleaver(int bitsPerCarrier, int carriersPerSymbol);
  // Delays in carrier symbols for bit position b.
  int Delay(int b) const { return len_[b]; }
  // In and out: groups of q bits per carrier symbol, count carrier symbols.
  void Process(const uint8_t* in, uint8_t* out, int count);
  void FillRandom(uint64_t seed);

 private:
  int q_;
  std::array<int, 6> len_{};
  std::array<int, 6> pos_{};
  std::array<int, 6> start_{};
  std::vector<uint8_t> store_;
};

// Gray mapping to QPSK, 16QAM or 64QAM with unit mean power (ARIB STD-B31).
class Mapper {
 public:
  explicit Mapper(int bitsPerCarrier);
  std::complex<float> Map(const uint8_t* bits) const;  // q bits, b0 first
  std::complex<float> MapIndex(unsigned index) const { return table_[index]; }  // b0 in the MSB

 private:
  int q_;
  std::vector<std::complex<float>> table_;
};

// Time interleaving of one segment: carrier i delayed by I*((5*i) mod 96) + A symbols
// (ARIB STD-B31).
class TimeInterleaver {
 public:
  TimeInterleaver(int carriers, int length, int adjustment);
  int Delay(int i) const { return delay_[i]; }
  void Process(const std::complex<float>* in, std::complex<float>* out);  // one symbol
  template <typename Fill>
  void FillWith(Fill fill) {
    for (auto& v : store_) v = fill();
  }

 private:
  int carriers_;
  std::vector<int> delay_;
  std::vector<int> start_;
  std::vector<int> pos_;
  std::vector<std::complex<float>> store_;
};

// Intra-segment carrier randomisation tables, transmitter direction: input symbol i goes to data
// slot table[i] (ARIB STD-B31).
std::span<const int32_t> RandomisationTable(int mode);

// ---------------------------------------------------------------------------------------------
// Carrier layout of the coherent segments 0..4 (ARIB STD-B31).
struct SegmentCarriers {
  std::vector<int> ac;    // local carrier indices of AC1
  std::vector<int> tmcc;  // local carrier indices of TMCC
};
// Segment number 0..12.
SegmentCarriers CarriersOfSegment(int mode, int segment);
// Position of a segment counted from the low band edge: 11, 9, 7, 5, 3, 1, 0, 2, 4, ... 12.
int PositionOfSegment(int segment);

// Scattered-pilot PRBS x^11 + x^9 + 1 over the band carriers k = 0 .. 13*Nc in frequency order,
// all ones at k = 0 (ARIB STD-B31). Bit per band carrier.
std::vector<uint8_t> PilotSequence(int mode);

// ---------------------------------------------------------------------------------------------
// TMCC (ARIB STD-B31).
struct LayerTmcc {
  int modulation = 7;  // 3-bit codes; 7 (111) for an unused layer
  int codeRate = 7;
  int interleave = 7;
  int segments = 15;  // 4-bit code; 15 (1111) for an unused layer
};
struct TmccContent {
  int systemId = 0;          // B20-B21
  bool partialReception = true;
  LayerTmcc layerA, layerB, layerC;
};
// The 204 bits B0..B203 of one frame; B0 = 0 (it carries no information). Odd frames get the
// inverted sync word. Segment type 000 (coherent).
std::array<uint8_t, 204> BuildTmccWord(const TmccContent& content, bool oddFrame);
// Parity B122..B203 of the shortened difference-set cyclic code (184,102) over B20..B121.
void TmccParity(const uint8_t* bits102, uint8_t* parity82);

}  // namespace zfn::sim
