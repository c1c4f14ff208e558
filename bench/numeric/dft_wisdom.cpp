// Prints numeric/dft_wisdom.h: FFTW's wisdom for the engine's forward transforms (64 to 1024 points,
// from one aligned row into another, input kept), found with FFTW_PATIENT on this machine. Only the
// forward ones: the symbol transform is forward, and the transmitter's synthesis, which may share
// the process and FFTW's wisdom, is backward and must stay on its own plans. Run it on a quiet
// machine and commit its output when FFTW or the transform lengths change (the measurement picks
// among plans of nearly equal speed, so two runs may differ; time the engine before keeping one):
//   build/bin/dft_wisdom > numeric/dft_wisdom.h
#include <fftw3.h>

#include <cstdio>

int main() {
  for (int n = 64; n <= 1024; n *= 2) {
    auto* in = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(n)));
    auto* out = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(n)));
    if (in == nullptr || out == nullptr) return 1;
    fftwf_plan plan = fftwf_plan_dft_1d(n, in, out, FFTW_FORWARD, FFTW_PATIENT | FFTW_PRESERVE_INPUT);
    if (plan == nullptr) return 1;
    fftwf_destroy_plan(plan);
    fftwf_free(in);
    fftwf_free(out);
  }
  char* wisdom = fftwf_export_wisdom_to_string();
  if (wisdom == nullptr) return 1;
  std::printf(
      "#pragma once\n"
      "// FFTW's wisdom for the engine's forward transforms, written by bench/numeric/dft_wisdom.cpp\n"
      "// (see there).\n"
      "// The plans it names are fixed, so every run on machines with the same FFTW and instruction set\n"
      "// gives the same values; where FFTW cannot use it, the planner's own estimate stands.\n"
      "namespace zfn {\n\n"
      "inline constexpr char DFT_WISDOM[] = R\"wisdom(%s)wisdom\";\n\n"
      "}  // namespace zfn\n",
      wisdom);
  fftwf_free(wisdom);
  return 0;
}
