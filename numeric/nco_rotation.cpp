// Carrier rotation: the rotators, the scalar reference and the choice of variant.
#include "numeric/nco_rotation.h"

#include "acquisition/acquisition.h"
#include "numeric/math_primitives.h"

namespace zfn {

NcoRotators MakeNcoRotators(int32_t count, double phase, double step) {
  NcoRotators r{};
  r.groups = (count + 3) / 4;
  if (r.groups < 1) r.groups = 1;
  // Two trigonometric evaluations; the rotators of n = 0..15 and of sixteen steps follow by products.
  const float r0Re = static_cast<float>(CosD(phase));
  const float r0Im = static_cast<float>(SinD(phase));
  const float sRe = static_cast<float>(CosD(step));
  const float sIm = static_cast<float>(SinD(step));
  constexpr int32_t N = 4 * NCO_CHAINS;
  r.re[0] = r0Re;
  r.im[0] = r0Im;
  for (int i = 1; i < N; ++i) {
    r.re[i] = r.re[i - 1] * sRe - r.im[i - 1] * sIm;
    r.im[i] = r.re[i - 1] * sIm + r.im[i - 1] * sRe;
  }
  const float rnRe = r.re[N - 1] * sRe - r.im[N - 1] * sIm;
  const float rnIm = r.re[N - 1] * sIm + r.im[N - 1] * sRe;
  const float norm0 = r0Re * r0Re + r0Im * r0Im;
  r.advanceRe = (rnRe * r0Re + rnIm * r0Im) / norm0;
  r.advanceIm = (rnIm * r0Re - rnRe * r0Im) / norm0;
  return r;
}

void RotateGroupsFrom(const float* in, float* out, const NcoRotators& r, float* rotRe, float* rotIm, int32_t first) {
  const float* x = in + 8 * first;
  float* z = out + 8 * first;
  for (int32_t g = first; g < r.groups; ++g, x += 8, z += 8) {
    float* chainRe = rotRe + 4 * (g % NCO_CHAINS);
    float* chainIm = rotIm + 4 * (g % NCO_CHAINS);
    for (int i = 0; i < 4; ++i) {
      const float xRe = x[2 * i];
      const float xIm = x[2 * i + 1];
      z[2 * i] = xRe * chainRe[i] - xIm * chainIm[i];
      z[2 * i + 1] = xRe * chainIm[i] + xIm * chainRe[i];
      const float nRe = chainRe[i] * r.advanceRe - chainIm[i] * r.advanceIm;
      chainIm[i] = chainRe[i] * r.advanceIm + chainIm[i] * r.advanceRe;
      chainRe[i] = nRe;
    }
  }
}

void RotateGroupsScalar(const float* in, float* out, const NcoRotators& r) {
  float rotRe[4 * NCO_CHAINS], rotIm[4 * NCO_CHAINS];
  for (int i = 0; i < 4 * NCO_CHAINS; ++i) {
    rotRe[i] = r.re[i];
    rotIm[i] = r.im[i];
  }
  RotateGroupsFrom(in, out, r, rotRe, rotIm, 0);
}

void RotateByNcoWith(VectorIsa isa, const float* in, float* out, int32_t count, double phase, double step) {
  const NcoRotators r = MakeNcoRotators(count, phase, step);
#if defined(__x86_64__) || defined(__i386__)
  if (isa == VectorIsa::AVX2 && VectorIsaAvailable(VectorIsa::AVX2)) {
    RotateGroupsAvx2(in, out, r);
    return;
  }
  if (isa != VectorIsa::SCALAR && VectorIsaAvailable(VectorIsa::SSE2)) {
    RotateGroupsSse2(in, out, r);
    return;
  }
#endif
  RotateGroupsScalar(in, out, r);
}

void RotateByNco(const float* in, float* out, int32_t count, double phase, double step) {
  RotateByNcoWith(ActiveVectorIsa(), in, out, count, phase, step);
}

}  // namespace zfn
