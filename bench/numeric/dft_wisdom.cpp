// Prints numeric/dft_wisdom.h: FFTW's wisdom for the engine's transforms (64 to 1024 points, forward
// and backward, from one aligned row into another, input kept), found with FFTW_PATIENT on this
// machine. Run it on a quiet machine and commit its output when FFTW or the transform lengths change:
//   build/bin/dft_wisdom > numeric/dft_wisdom.h
#include <fftw3.h>

#include <cstdio>
#include <initializer_list>

int main() {
  for (int n = 64; n <= 1024; n *= 2) {
    auto* in = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(n)));
    auto* out = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(n)));
    if (in == nullptr || out == nullptr) return 1;
    for (int direction : {FFTW_FORWARD, FFTW_BACKWARD}) {
      fftwf_plan plan = fftwf_plan_dft_1d(n, in, out, direction, FFTW_PATIENT | FFTW_PRESERVE_INPUT);
      if (plan == nullptr) return 1;
      fftwf_destroy_plan(plan);
    }
    fftwf_free(in);
    fftwf_free(out);
  }
  char* wisdom = fftwf_export_wisdom_to_string();
  if (wisdom == nullptr) return 1;
  std::printf(
      "#pragma once\n"
      "// FFTW's wisdom for the engine's transforms, written by bench/numeric/dft_wisdom.cpp (see there).\n"
      "// The plans it names are fixed, so every run on machines with the same FFTW and instruction set\n"
      "// gives the same values; where FFTW cannot use it, the planner's own estimate stands.\n"
      "namespace zfn {\n\n"
      "inline constexpr char DFT_WISDOM[] = R\"wisdom(%s)wisdom\";\n\n"
      "}  // namespace zfn\n",
      wisdom);
  fftwf_free(wisdom);
  return 0;
}
