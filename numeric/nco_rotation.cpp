// Carrier rotation: the rotators, the scalar reference and the choice of variant.
#include "numeric/nco_rotation.h"

#include "acquisition/acquisition.h"
#include "numeric/math_primitives.h"

namespace zfn {

NcoRotators MakeNcoRotators(int32_t count, double phase, double step) {
  NcoRotators r{};
  r.groups = (count + 3) / 4;
  if (r.groups < 1) r.groups = 1;
  // Two trigonometric evaluations; the rotators of n = 0..7 and of eight steps follow by products.
  const float r0Re = static_cast<float>(CosD(phase));
  const float r0Im = static_cast<float>(SinD(phase));
  const float sRe = static_cast<float>(CosD(step));
  const float sIm = static_cast<float>(SinD(step));
  r.re[0] = r0Re;
  r.im[0] = r0Im;
  for (int i = 1; i < 8; ++i) {
    r.re[i] = r.re[i - 1] * sRe - r.im[i - 1] * sIm;
    r.im[i] = r.re[i - 1] * sIm + r.im[i - 1] * sRe;
  }
  const float r8Re = r.re[7] * sRe - r.im[7] * sIm;
  const float r8Im = r.re[7] * sIm + r.im[7] * sRe;
  const float norm0 = r0Re * r0Re + r0Im * r0Im;
  r.octRe = (r8Re * r0Re + r8Im * r0Im) / norm0;
  r.octIm = (r8Im * r0Re - r8Re * r0Im) / norm0;
  return r;
}

void RotateGroupsScalar(const float* in, float* out, const NcoRotators& r) {
  float rotRe[8], rotIm[8];
  for (int i = 0; i < 8; ++i) {
    rotRe[i] = r.re[i];
    rotIm[i] = r.im[i];
  }
  const float* x = in;
  float* z = out;
  for (int32_t g = 0; g < r.groups; ++g, x += 8, z += 8) {
    float* chainRe = rotRe + 4 * (g & 1);
    float* chainIm = rotIm + 4 * (g & 1);
    for (int i = 0; i < 4; ++i) {
      const float xRe = x[2 * i];
      const float xIm = x[2 * i + 1];
      z[2 * i] = xRe * chainRe[i] - xIm * chainIm[i];
      z[2 * i + 1] = xRe * chainIm[i] + xIm * chainRe[i];
      const float nRe = chainRe[i] * r.octRe - chainIm[i] * r.octIm;
      chainIm[i] = chainRe[i] * r.octIm + chainIm[i] * r.octRe;
      chainRe[i] = nRe;
    }
  }
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
