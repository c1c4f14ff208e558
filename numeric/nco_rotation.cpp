// Carrier rotation: the rotators, the scalar reference and the choice of variant.
#include "numeric/nco_rotation.h"

#include "acquisition/acquisition.h"
#include "numeric/math_primitives.h"

namespace zfn {

NcoRotators MakeNcoRotators(int32_t count, double phase, double step) {
  NcoRotators r{};
  r.groups = (count + 3) / 4;
  if (r.groups < 1) r.groups = 1;
  // Two trigonometric evaluations; the rotators of n = 0..3 and of four steps follow by products.
  const float r0Re = static_cast<float>(CosD(phase));
  const float r0Im = static_cast<float>(SinD(phase));
  const float sRe = static_cast<float>(CosD(step));
  const float sIm = static_cast<float>(SinD(step));
  r.re[0] = r0Re;
  r.im[0] = r0Im;
  for (int i = 1; i < 4; ++i) {
    r.re[i] = r.re[i - 1] * sRe - r.im[i - 1] * sIm;
    r.im[i] = r.re[i - 1] * sIm + r.im[i - 1] * sRe;
  }
  const float r4Re = r.re[3] * sRe - r.im[3] * sIm;
  const float r4Im = r.re[3] * sIm + r.im[3] * sRe;
  const float norm0 = r0Re * r0Re + r0Im * r0Im;
  r.quadRe = (r4Re * r0Re + r4Im * r0Im) / norm0;
  r.quadIm = (r4Im * r0Re - r4Re * r0Im) / norm0;
  return r;
}

void RotateGroupsScalar(const float* in, float* out, const NcoRotators& r) {
  float rotRe[4], rotIm[4];
  for (int i = 0; i < 4; ++i) {
    rotRe[i] = r.re[i];
    rotIm[i] = r.im[i];
  }
  const float* x = in;
  float* z = out;
  for (int32_t g = 0; g < r.groups; ++g, x += 8, z += 8) {
    for (int i = 0; i < 4; ++i) {
      const float xRe = x[2 * i];
      const float xIm = x[2 * i + 1];
      z[2 * i] = xRe * rotRe[i] - xIm * rotIm[i];
      z[2 * i + 1] = xRe * rotIm[i] + xIm * rotRe[i];
      const float nRe = rotRe[i] * r.quadRe - rotIm[i] * r.quadIm;
      rotIm[i] = rotRe[i] * r.quadIm + rotIm[i] * r.quadRe;
      rotRe[i] = nRe;
    }
  }
}

void RotateByNcoWith(VectorIsa isa, const float* in, float* out, int32_t count, double phase, double step) {
  const NcoRotators r = MakeNcoRotators(count, phase, step);
#if defined(__x86_64__) || defined(__i386__)
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
