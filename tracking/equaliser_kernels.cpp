// The equaliser's arithmetic: scalar reference and the choice of variant.
#include "tracking/equaliser_kernels.h"

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
  float powerSum = rows.sums != nullptr ? rows.sums[0] : 0.0f;
  float noiseSum = rows.sums != nullptr ? rows.sums[1] : 0.0f;
  for (int32_t i = 0; i < rows.count; ++i) {
    const float gr = rows.gRe[i], gi = rows.gIm[i], rr = rows.rRe[i], ri = rows.rIm[i];
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
    powerSum += p;
    noiseSum += n;
  }
  if (rows.sums != nullptr) {
    rows.sums[0] = powerSum;
    rows.sums[1] = noiseSum;
  }
}

void EqualiseQpskScalar(const EqualiserRows& rows) { EqualiseScalar<false>(rows); }
void EqualiseQamScalar(const EqualiserRows& rows) { EqualiseScalar<true>(rows); }

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
