// The equaliser's arithmetic: scalar reference and the choice of variant.
#include "tracking/equaliser_kernels.h"

#include "tracking/slicers.h"

namespace zfn {

namespace {
constexpr float QPSK_LEVEL = 0.707107f;
}

// Kept scalar on purpose: the reference the vector variants are compared with and measured against.
__attribute__((optimize("no-tree-vectorize"))) void EqualiseQpskScalar(const EqualiserRows& rows) {
  for (int32_t i = 0; i < rows.count; ++i) {
    const float gr = rows.gRe[i], gi = rows.gIm[i], rr = rows.rRe[i], ri = rows.rIm[i];
    const float p = gr * gr + gi * gi;
    const float ere = (rr * gr + ri * gi) / p;
    const float eim = (ri * gr - rr * gi) / p;
    rows.eq[2 * i] = ere;
    rows.eq[2 * i + 1] = eim;
    rows.power[i] = p;
    const float dre = ere <= 0.0f ? -QPSK_LEVEL : QPSK_LEVEL;  // the QPSK decision by selection
    const float dim = eim <= 0.0f ? -QPSK_LEVEL : QPSK_LEVEL;
    const float nre = rr - (dre * gr - dim * gi);
    const float nim = ri - (dre * gi + dim * gr);
    rows.noise[i] = nre * nre + nim * nim;
  }
}

__attribute__((optimize("no-tree-vectorize"))) void EqualiseQamScalar(const EqualiserRows& rows) {
  for (int32_t i = 0; i < rows.count; ++i) {
    const float gr = rows.gRe[i], gi = rows.gIm[i], rr = rows.rRe[i], ri = rows.rIm[i];
    const float p = gr * gr + gi * gi;
    const float ere = (rr * gr + ri * gi) / p;
    const float eim = (ri * gr - rr * gi) / p;
    rows.eq[2 * i] = ere;
    rows.eq[2 * i + 1] = eim;
    rows.power[i] = p;
    const Cx d = SliceCarrier(Cx{ere, eim}, rows.bitsPerCarrier);
    const float nre = rr - (d.re * gr - d.im * gi);
    const float nim = ri - (d.re * gi + d.im * gr);
    rows.noise[i] = nre * nre + nim * nim;
  }
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
