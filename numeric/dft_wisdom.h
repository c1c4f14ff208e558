#pragma once
// FFTW's wisdom for the engine's forward transforms, written by bench/numeric/dft_wisdom.cpp
// (see there).
// The plans it names are fixed, so every run on machines with the same FFTW and instruction set
// gives the same values; where FFTW cannot use it, the planner's own estimate stands.
namespace zfn {

inline constexpr char DFT_WISDOM[] = R"wisdom((fftw-3.3.10 fftwf_wisdom #x9e7d4dee #xdb14fed1 #x34bf76a4 #xeb6e8fdf
  (fftwf_codelet_n2fv_64_avx 0 #x11048 #x11048 #x0 #x60f7dd6b #xe5962c71 #x960dc0f4 #x2fbec2ab)
  (fftwf_codelet_t2fv_32_avx 0 #x11048 #x11048 #x0 #xc6ca45ce #xf08c5f4a #x61a53ade #xe5e374c8)
  (fftwf_codelet_n2fv_8_avx 0 #x11048 #x11048 #x0 #xa65d78bf #x28c8422e #x8fef6075 #xac0aeb71)
  (fftwf_codelet_n2fv_8_avx 0 #x11048 #x11048 #x0 #x6af30f58 #x888f2b57 #xe7e2a33a #x9ba6b982)
  (fftwf_codelet_t2fv_16_avx 0 #x11048 #x11048 #x0 #x8f86ac3f #x7cc3d8db #xc7865ecc #xea8b825e)
  (fftwf_codelet_t2fv_8_avx 0 #x11048 #x11048 #x0 #x161166c7 #x05df8f94 #xd8ed13e3 #x84c874a9)
  (fftwf_codelet_t2fv_8_avx 0 #x11048 #x11048 #x0 #xfeec02f8 #xbbf06357 #xb26e7a2b #xf7b9dcb8)
  (fftwf_codelet_n2fv_8_avx 0 #x11048 #x11048 #x0 #x43891fa9 #xe40b2f6f #xf3e0a288 #xe5b9cf92)
  (fftwf_codelet_t2fv_32_avx 0 #x11048 #x11048 #x0 #x2c50659a #x343a7df7 #xd727540d #xacfea1f9)
  (fftwf_codelet_n2fv_32_avx 0 #x11048 #x11048 #x0 #x407181dc #x8a77cb1e #xa88df8c5 #xa32373b5)
)
)wisdom";

}  // namespace zfn
