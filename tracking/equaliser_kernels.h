#pragma once
// The element-wise kernels of channel estimation and equalisation: the equaliser, the interpolation's
// bank products, the time filter with held taps, the soft weighting and the finite check of the
// loop state.
//
// The equaliser's arithmetic over the data carriers of a symbol, each read with its channel through
// a table: r * conj(h) / |h|^2, the channel power |h|^2, and the power of the decision error
// |r - d h|^2, for QPSK and for 16QAM and 64QAM. Element by element, so every variant gives the
// scalar reference's values bit for bit. The sums of the powers and of the errors go by eight
// lanes, so that no chain of additions one after the other sets the pace: lane l adds up carriers
// 8 b + l of the whole blocks of eight, the lanes are combined as (0+4 + 2+6) + (1+5 + 3+7), and the
// carriers after the last whole block are added one by one; every variant adds in that order.
#include <cstdint>

#include "numeric/vector_isa.h"

namespace zfn {

struct EqualiserRows {
  const float* r;         // received carriers, interleaved re, im
  const float* g;         // the channel, interleaved re, im
  const int16_t* rAt;     // data carrier i is r[rAt[i]] + j r[rAt[i] + 1]
  const int16_t* gAt;     // and its channel g[gAt[i]] + j g[gAt[i] + 1]
  float* eq;         // equalised, interleaved re, im
  float* power;
  float* noise;
  int32_t count;
  int32_t bitsPerCarrier = 2;  // 4 or 6 for the QAM kernel; the QPSK kernel ignores it
  float* sums = nullptr;       // when given: power and error sums, added to (in the order above)
};

void EqualiseQpskScalar(const EqualiserRows& rows);
#if defined(__x86_64__) || defined(__i386__)
void EqualiseQpskSse2(const EqualiserRows& rows);
void EqualiseQpskAvx2(const EqualiserRows& rows);
#endif
void EqualiseQpskWith(VectorIsa isa, const EqualiserRows& rows);

// The same with the 16QAM or 64QAM decision (slicers.h), by rows.bitsPerCarrier.
void EqualiseQamScalar(const EqualiserRows& rows);
#if defined(__x86_64__) || defined(__i386__)
void EqualiseQamAvx2(const EqualiserRows& rows);
#endif
void EqualiseQamWith(VectorIsa isa, const EqualiserRows& rows);

// The spectrum of the row times the spectra of the two interpolation filters, entry by entry
// (re = xr br - xi bi, im = xr bi + xi br), all rows interleaved re, im.
struct BankProducts {
  const float* x;
  const float* low;   // the filters' spectra
  const float* high;
  float* zLow;        // the products
  float* zHigh;
  int32_t count;      // complex entries
};

void MultiplyBanksScalar(const BankProducts& rows);
#if defined(__x86_64__) || defined(__i386__)
void MultiplyBanksSse2(const BankProducts& rows);
void MultiplyBanksAvx2(const BankProducts& rows);
#endif
void MultiplyBanksWith(VectorIsa isa, const BankProducts& rows);

// The recursive filter along time over pilot groups with its taps held. A group is four complex
// entries, eight floats in a row; float f of a group takes from each input row k in turn
// re[k][f] x_k[f] + im[k][f] x_k[f ^ 1] (with im[k][f] = -c.im on a real part, c.im on an imaginary
// part), and the three are summed (k0 + k1) + k2: the complex filter's products and sums in their
// order. Entry `exact` of every group takes x0's value unchanged.
struct HeldTimeFilter {
  const float* x0;
  const float* x1;
  const float* x2;
  float* out;
  int32_t groups;
  int32_t exact;      // entry 0..3
  float re[3][8];
  float im[3][8];
};

void FilterHeldScalar(const HeldTimeFilter& rows);
#if defined(__x86_64__) || defined(__i386__)
void FilterHeldSse2(const HeldTimeFilter& rows);
void FilterHeldAvx2(const HeldTimeFilter& rows);
#endif
void FilterHeldWith(VectorIsa isa, const HeldTimeFilter& rows);

// The QPSK soft weighting: weight[i] = power[i] * ratio, and equalised carrier i (interleaved re, im)
// times weight[i].
void WeighCarriersScalar(const float* power, float ratio, float* weight, float* eq, int32_t count);
#if defined(__x86_64__) || defined(__i386__)
void WeighCarriersAvx2(const float* power, float ratio, float* weight, float* eq, int32_t count);
#endif
void WeighCarriersWith(VectorIsa isa, const float* power, float ratio, float* weight, float* eq, int32_t count);

// Whether every one of `count` floats is finite: x - x is +0 for a finite x and NaN otherwise, and
// the bits of those differences are or-ed together.
bool AllFiniteScalar(const float* v, int32_t count);
#if defined(__x86_64__) || defined(__i386__)
bool AllFiniteAvx2(const float* v, int32_t count);
#endif
bool AllFiniteWith(VectorIsa isa, const float* v, int32_t count);

}  // namespace zfn
