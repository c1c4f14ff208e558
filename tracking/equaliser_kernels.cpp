// The element-wise kernels of estimation and equalisation: scalar references and the choice of variant.
#include "tracking/equaliser_kernels.h"

#include <bit>

#include "tracking/slicers.h"

namespace zfn {

namespace {
constexpr float QPSK_LEVEL = 0.707107f;
}

// Kept scalar on purpose: the reference the vector variants are compared with and measured against.
// The equalised carrier e = r / g, its power |g|^2, and the noise |r - d g|^2 against the decision d
// (QPSK by selection, the QAM levels by the slicer).
template <bool Qam>
__attribute__((optimize("no-tree-vectorize"))) void EqualiseScalar(const EqualiserRows& rows) {
  constexpr int32_t LANES = 8;
  float powerLane[LANES] = {}, noiseLane[LANES] = {};
  const int32_t blocks = rows.count / LANES;
  for (int32_t i = 0; i < rows.count; ++i) {
    const float* r = rows.r + rows.rAt[i];
    const float* g = rows.g + rows.gAt[i];
    const float gr = g[0], gi = g[1], rr = r[0], ri = r[1];
    const float p = gr * gr + gi * gi;
    const float ere = (rr * gr + ri * gi) / p;
    const float eim = (ri * gr - rr * gi) / p;
    rows.eq[2 * i] = ere;
    rows.eq[2 * i + 1] = eim;
    rows.power[i] = p;
    const Cx d = Qam ? SliceCarrier(Cx{ere, eim}, rows.bitsPerCarrier)
                     : Cx{ere <= 0.0f ? -QPSK_LEVEL : QPSK_LEVEL, eim <= 0.0f ? -QPSK_LEVEL : QPSK_LEVEL};
    const float nre = rr - (d.re * gr - d.im * gi);
    const float nim = ri - (d.re * gi + d.im * gr);
    const float n = nre * nre + nim * nim;
    rows.noise[i] = n;
    if (i < blocks * LANES) {
      powerLane[i % LANES] += p;
      noiseLane[i % LANES] += n;
    }
  }
  if (rows.sums == nullptr) return;
  if (blocks > 0) {
    const auto combine = [](const float* lane) {
      return ((lane[0] + lane[4]) + (lane[2] + lane[6])) + ((lane[1] + lane[5]) + (lane[3] + lane[7]));
    };
    rows.sums[0] += combine(powerLane);
    rows.sums[1] += combine(noiseLane);
  }
  for (int32_t i = blocks * LANES; i < rows.count; ++i) {
    rows.sums[0] += rows.power[i];
    rows.sums[1] += rows.noise[i];
  }
}

void EqualiseQpskScalar(const EqualiserRows& rows) { EqualiseScalar<false>(rows); }
void EqualiseQamScalar(const EqualiserRows& rows) { EqualiseScalar<true>(rows); }

__attribute__((optimize("no-tree-vectorize"))) void MultiplyBanksScalar(const BankProducts& rows) {
  for (int32_t i = 0; i < rows.count; ++i) {
    const float xr = rows.x[2 * i], xi = rows.x[2 * i + 1];
    const float lr = rows.low[2 * i], li = rows.low[2 * i + 1];
    const float hr = rows.high[2 * i], hi = rows.high[2 * i + 1];
    rows.zLow[2 * i] = xr * lr - xi * li;
    rows.zLow[2 * i + 1] = xr * li + xi * lr;
    rows.zHigh[2 * i] = xr * hr - xi * hi;
    rows.zHigh[2 * i + 1] = xr * hi + xi * hr;
  }
}

__attribute__((optimize("no-tree-vectorize"))) void FilterHeldScalar(const HeldTimeFilter& rows) {
  for (int32_t p = 0; p < rows.groups; ++p) {
    const float* u = rows.x0 + 8 * p;
    const float* v = rows.x1 + 8 * p;
    const float* w = rows.x2 + 8 * p;
    float* o = rows.out + 8 * p;
    for (int32_t f = 0; f < 8; ++f)
      o[f] = ((rows.re[0][f] * u[f] + rows.im[0][f] * u[f ^ 1]) + (rows.re[1][f] * v[f] + rows.im[1][f] * v[f ^ 1])) +
             (rows.re[2][f] * w[f] + rows.im[2][f] * w[f ^ 1]);
    o[2 * rows.exact] = u[2 * rows.exact];
    o[2 * rows.exact + 1] = u[2 * rows.exact + 1];
  }
}

void FilterHeldWith(VectorIsa isa, const HeldTimeFilter& rows) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    FilterHeldAvx2(rows);
    return;
  }
  if (isa != VectorIsa::SCALAR && VectorIsaAvailable(VectorIsa::SSE2)) {
    FilterHeldSse2(rows);
    return;
  }
#endif
  FilterHeldScalar(rows);
}

__attribute__((optimize("no-tree-vectorize"))) void WeighCarriersScalar(const float* power, float ratio, float* weight,
                                                                        float* eq, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    const float w = power[i] * ratio;
    weight[i] = w;
    eq[2 * i] *= w;
    eq[2 * i + 1] *= w;
  }
}

void WeighCarriersWith(VectorIsa isa, const float* power, float ratio, float* weight, float* eq, int32_t count) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    WeighCarriersAvx2(power, ratio, weight, eq, count);
    return;
  }
#endif
  WeighCarriersScalar(power, ratio, weight, eq, count);
}

__attribute__((optimize("no-tree-vectorize"))) bool AllFiniteScalar(const float* v, int32_t count) {
  uint32_t bits = 0;
  for (int32_t i = 0; i < count; ++i) bits |= std::bit_cast<uint32_t>(v[i] - v[i]);
  return bits == 0;
}

bool AllFiniteWith(VectorIsa isa, const float* v, int32_t count) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) return AllFiniteAvx2(v, count);
#endif
  return AllFiniteScalar(v, count);
}

void MultiplyBanksWith(VectorIsa isa, const BankProducts& rows) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    MultiplyBanksAvx2(rows);
    return;
  }
  if (isa != VectorIsa::SCALAR && VectorIsaAvailable(VectorIsa::SSE2)) {
    MultiplyBanksSse2(rows);
    return;
  }
#endif
  MultiplyBanksScalar(rows);
}

void EqualiseQamWith(VectorIsa isa, const EqualiserRows& rows) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    EqualiseQamAvx2(rows);
    return;
  }
#endif
  EqualiseQamScalar(rows);
}

void EqualiseQpskWith(VectorIsa isa, const EqualiserRows& rows) {
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    EqualiseQpskAvx2(rows);
    return;
  }
  if (isa != VectorIsa::SCALAR && VectorIsaAvailable(VectorIsa::SSE2)) {
    EqualiseQpskSse2(rows);
    return;
  }
#endif
  EqualiseQpskScalar(rows);
}

}  // namespace zfn
