#include "frontend/conditioning.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace zfn {

namespace {

// The loops below are plain code that the compiler vectorises. Each is built twice on x86-64: for
// the baseline processor, and for AVX2 (see KERNELS_AVX2). Every output is computed in the same
// order of operations either way (the vectors run across samples, and the sums keep their LANES
// partial sums apart), so both builds give the same bytes; a test holds them to it.
#define ZFN_VECTOR_LOOP __attribute__((always_inline)) inline

// Half-band low-pass at a quarter of the device rate: 47 taps, a sinc under a Kaiser window with
// beta 7, the odd taps scaled so that the gain at DC is exactly 1. Every even tap but the centre
// (0.5) is zero; the table holds the odd taps at distances 1, 3, ..., 23 from the centre. Response
// at the device rate of 2031746 samples/s: within 0.005 dB up to 410 kHz, -6.0 dB at 508 kHz,
// below -70 dB from 606 kHz up, below -85 dB from 780 kHz up.
constexpr int HALF_BAND_CENTRE = SDR_FILTER_HISTORY / 2;  // 23
constexpr float HALF_BAND_ODD_TAPS[12] = {
    3.163637511e-01f,  -1.003915687e-01f, 5.453258828e-02f,  -3.346170672e-02f,
    2.113719900e-02f,  -1.320476243e-02f, 7.952738124e-03f,  -4.513210055e-03f,
    2.347397838e-03f,  -1.070848577e-03f, 3.905097168e-04f,  -8.208760425e-05f,
};
static_assert(2 * 12 == HALF_BAND_CENTRE + 1, "odd taps reach the ends of the filter");

// Time constants of the estimates, in device samples.
constexpr double DC_SAMPLES = 0.05 * DEVICE_SAMPLE_RATE_HZ;
constexpr double IMBALANCE_SAMPLES = 0.5 * DEVICE_SAMPLE_RATE_HZ;
constexpr double LEVEL_SAMPLES = 0.1 * DEVICE_SAMPLE_RATE_HZ;

// A component at or beyond this magnitude is taken as clipped by the SDR's converter (an 8-bit
// converter's rails are at 127.5/128 = 0.996 of full scale).
constexpr float RAIL = 0.99f;
constexpr float TARGET_LEVEL = SDR_TARGET_STEPS / 128.0f;  // RMS per component, full scale 1.0
constexpr float MAX_GAIN = 10000.0f;
constexpr float MIN_POWER = 1e-12f;
constexpr int LANES = 8;  // partial sums kept apart, so that the compiler vectorises the sums

float Smooth(float estimate, float value, size_t n, double samples) {
  const float k = static_cast<float>(std::min(1.0, static_cast<double>(n) / samples));
  return estimate + k * (value - estimate);
}

struct ChunkSums {
  float i = 0, q = 0, ii = 0, qq = 0, iq = 0, clipped = 0;
};

ZFN_VECTOR_LOOP ChunkSums SumInput(const float* xi, const float* xq, size_t n) {
  float si[LANES] = {}, sq[LANES] = {}, sii[LANES] = {}, sqq[LANES] = {}, siq[LANES] = {}, sc[LANES] = {};
  size_t k = 0;
  for (; k + LANES <= n; k += LANES) {
    for (int l = 0; l < LANES; ++l) {
      const float i = xi[k + l], q = xq[k + l];
      si[l] += i;
      sq[l] += q;
      sii[l] += i * i;
      sqq[l] += q * q;
      siq[l] += i * q;
      sc[l] += static_cast<float>((std::fabs(i) >= RAIL) | (std::fabs(q) >= RAIL));
    }
  }
  for (; k < n; ++k) {
    const float i = xi[k], q = xq[k];
    si[0] += i;
    sq[0] += q;
    sii[0] += i * i;
    sqq[0] += q * q;
    siq[0] += i * q;
    sc[0] += static_cast<float>((std::fabs(i) >= RAIL) | (std::fabs(q) >= RAIL));
  }
  ChunkSums s;
  for (int l = 0; l < LANES; ++l) {
    s.i += si[l];
    s.q += sq[l];
    s.ii += sii[l];
    s.qq += sqq[l];
    s.iq += siq[l];
    s.clipped += sc[l];
  }
  return s;
}

ZFN_VECTOR_LOOP float SumPower(const float* yi, const float* yq, size_t n) {
  float sp[LANES] = {};
  size_t k = 0;
  for (; k + LANES <= n; k += LANES) {
    for (int l = 0; l < LANES; ++l) sp[l] += yi[k + l] * yi[k + l] + yq[k + l] * yq[k + l];
  }
  for (; k < n; ++k) sp[0] += yi[k] * yi[k] + yq[k] * yq[k];
  float s = 0;
  for (float v : sp) s += v;
  return s;
}

// y[k] from x[k .. k + 46]: the centre tap and the symmetric pairs of odd taps, summed in
// registers for a group of outputs at a time.
ZFN_VECTOR_LOOP void HalfBand(const float* x, float* y, size_t n) {
  const float* centre = x + HALF_BAND_CENTRE;
  for (size_t k = 0; k < n; ++k) {
    float acc = 0.5f * centre[k];
    for (int j = 0; j < 12; ++j) acc += HALF_BAND_ODD_TAPS[j] * (centre[k - (2 * j + 1)] + centre[k + (2 * j + 1)]);
    y[k] = acc;
  }
}

// DC removal and the correction of Q, from the raw input to the filter's input.
ZFN_VECTOR_LOOP void Correct(const float* ri, const float* rq, float* xi, float* xq, size_t n, float dcI, float dcQ,
                             float a, float b) {
  for (size_t k = 0; k < n; ++k) {
    const float u = ri[k] - dcI;
    const float v = rq[k] - dcQ;
    xi[k] = u;
    xq[k] = a * v + b * u;
  }
}

// The correction of Q that makes it orthogonal to I and of I's power, from the second moments of
// the DC-free input: Q' = a Q + b I with E[I Q'] = 0 and E[Q'^2] = E[I^2].
void UpdateImbalance(SdrConditioner& c) {
  const float det = c.powerI * c.powerQ - c.crossIQ * c.crossIQ;
  if (!(c.powerI > MIN_POWER) || !(det > MIN_POWER * MIN_POWER)) {
    c.qFromQ = 1.0f;
    c.qFromI = 0.0f;
    return;
  }
  c.qFromQ = c.powerI / std::sqrt(det);
  c.qFromI = -c.qFromQ * c.crossIQ / c.powerI;
}

void UpdateGain(SdrConditioner& c) {
  c.gain = std::min(MAX_GAIN, TARGET_LEVEL / std::sqrt(std::max(c.filteredPower, MIN_POWER)));
}

// Input to floats; what is not a finite number counts as 0.
ZFN_VECTOR_LOOP void Load(float* xi, float* xq, const float* iq, size_t n) {
  for (size_t k = 0; k < n; ++k) {
    const float i = iq[2 * k], q = iq[2 * k + 1];
    xi[k] = std::fabs(i) <= 1e6f ? i : 0.0f;  // false for NaN too
    xq[k] = std::fabs(q) <= 1e6f ? q : 0.0f;
  }
}

ZFN_VECTOR_LOOP void Load(float* xi, float* xq, const uint8_t* iq, size_t n) {
  for (size_t k = 0; k < n; ++k) {
    xi[k] = (static_cast<float>(iq[2 * k]) - 127.5f) * 0.0078125f;
    xq[k] = (static_cast<float>(iq[2 * k + 1]) - 127.5f) * 0.0078125f;
  }
}

// Bytes of filtered samples at the gain: I, Q per sample, zero level 127, rounded to nearest.
ZFN_VECTOR_LOOP uint32_t Requantise(const float* yi, const float* yq, size_t n, float gain, uint16_t* pairs) {
  const float scale = gain * 128.0f;
  uint32_t clipped = 0;
  for (size_t k = 0; k < n; ++k) {
    const float vi = yi[k] * scale + 127.5f;
    const float vq = yq[k] * scale + 127.5f;
    clipped += static_cast<uint32_t>((vi < 0.0f) | (vi >= 256.0f)) + static_cast<uint32_t>((vq < 0.0f) | (vq >= 256.0f));
    const auto bi = static_cast<uint32_t>(static_cast<int32_t>(std::min(std::max(vi, 0.0f), 255.0f)));
    const auto bq = static_cast<uint32_t>(static_cast<int32_t>(std::min(std::max(vq, 0.0f), 255.0f)));
    pairs[k] = static_cast<uint16_t>(std::endian::native == std::endian::little ? bi | (bq << 8) : bq | (bi << 8));
  }
  return clipped;
}

// The loops, built for one instruction set.
struct Kernels {
  ChunkSums (*sumInput)(const float*, const float*, size_t);
  float (*sumPower)(const float*, const float*, size_t);
  void (*halfBand)(const float*, float*, size_t);
  void (*correct)(const float*, const float*, float*, float*, size_t, float, float, float, float);
  uint32_t (*requantise)(const float*, const float*, size_t, float, uint16_t*);
  void (*loadFloat)(float*, float*, const float*, size_t);
  void (*loadBytes)(float*, float*, const uint8_t*, size_t);
};

#define ZFN_KERNEL_SET(NAME, ATTRIBUTE)                                                                    \
  ATTRIBUTE ChunkSums SumInput##NAME(const float* a, const float* b, size_t n) { return SumInput(a, b, n); } \
  ATTRIBUTE float SumPower##NAME(const float* a, const float* b, size_t n) { return SumPower(a, b, n); }    \
  ATTRIBUTE void HalfBand##NAME(const float* x, float* y, size_t n) { HalfBand(x, y, n); }                  \
  ATTRIBUTE void Correct##NAME(const float* ri, const float* rq, float* xi, float* xq, size_t n, float dcI,  \
                               float dcQ, float a, float b) {                                               \
    Correct(ri, rq, xi, xq, n, dcI, dcQ, a, b);                                                             \
  }                                                                                                         \
  ATTRIBUTE uint32_t Requantise##NAME(const float* yi, const float* yq, size_t n, float gain, uint16_t* p) { \
    return Requantise(yi, yq, n, gain, p);                                                                  \
  }                                                                                                         \
  ATTRIBUTE void LoadFloat##NAME(float* xi, float* xq, const float* iq, size_t n) { Load(xi, xq, iq, n); }  \
  ATTRIBUTE void LoadBytes##NAME(float* xi, float* xq, const uint8_t* iq, size_t n) { Load(xi, xq, iq, n); } \
  constexpr Kernels KERNELS_##NAME = {SumInput##NAME, SumPower##NAME,   HalfBand##NAME, Correct##NAME,      \
                                      Requantise##NAME, LoadFloat##NAME, LoadBytes##NAME};

ZFN_KERNEL_SET(PLAIN, )
#if defined(__x86_64__) && defined(__GNUC__)
ZFN_KERNEL_SET(AVX2, __attribute__((target("avx2"))))
#endif

const Kernels& KernelsOf(const SdrConditioner& c) {
#if defined(__x86_64__) && defined(__GNUC__)
  if (c.vectorKind == SDR_VECTOR_AVX2) return KERNELS_AVX2;
#endif
  return KERNELS_PLAIN;
}


// Folds the statistics of the block just completed (the raw input in rawI, rawQ and the filtered
// output in yI, yQ, SDR_CHUNK samples each) into the estimates that the next block is conditioned
// with. Until a time constant's worth has come in, each estimate is the plain mean of all blocks so
// far (the first block alone at first); then it follows with its time constant.
void UpdateEstimates(SdrConditioner& c) {
  constexpr size_t n = SDR_CHUNK;
  constexpr float inv = 1.0f / static_cast<float>(n);
  const Kernels& k = KernelsOf(c);
  const ChunkSums s = k.sumInput(c.rawI, c.rawQ, n);
  const double seen = static_cast<double>(c.samplesIn - n);
  auto follow = [&](float& estimate, float value, double samples) {
    estimate = Smooth(estimate, value, n, std::min(samples, seen + static_cast<double>(n)));
  };
  follow(c.meanI, s.i * inv, DC_SAMPLES);
  follow(c.meanQ, s.q * inv, DC_SAMPLES);
  // Moments about the DC estimate.
  const float mi = c.meanI, mq = c.meanQ;
  follow(c.powerI, (s.ii - 2.0f * mi * s.i) * inv + mi * mi, IMBALANCE_SAMPLES);
  follow(c.powerQ, (s.qq - 2.0f * mq * s.q) * inv + mq * mq, IMBALANCE_SAMPLES);
  follow(c.crossIQ, (s.iq - mi * s.q - mq * s.i) * inv + mi * mq, IMBALANCE_SAMPLES);
  c.rms = std::sqrt((s.ii + s.qq) * inv);
  follow(c.inputRms, c.rms * 0.70710678f, LEVEL_SAMPLES);
  follow(c.inputClipFraction, s.clipped * inv, LEVEL_SAMPLES);
  c.inputClipped += static_cast<uint64_t>(s.clipped);
  UpdateImbalance(c);
  follow(c.filteredPower, 0.5f * k.sumPower(c.yI, c.yQ, n) * inv, LEVEL_SAMPLES);
  UpdateGain(c);
  c.primed = true;
}

// The input is conditioned in blocks of SDR_CHUNK samples on a grid that counts from the reset,
// whatever lengths the calls have: a block is conditioned with the estimates of the blocks before
// it, and its own statistics are taken once it is whole. The output is therefore the same byte
// for byte however the stream is cut into calls.
template <class Sample>
size_t Condition(SdrConditioner& c, const Sample* iq, size_t samples, uint8_t* out) {
  size_t pairs = 0;  // samples written to out, two bytes each
  if (c.heldValid) {
    out[0] = c.held[0];
    out[1] = c.held[1];
    pairs = 1;
    c.heldValid = false;
  }
  const Kernels& k = KernelsOf(c);
  for (size_t done = 0; done < samples;) {
    const size_t from = c.blockFill;
    const size_t n = std::min(SDR_CHUNK - from, samples - done);
    if constexpr (std::is_same_v<Sample, float>) {
      k.loadFloat(c.rawI + from, c.rawQ + from, iq + 2 * done, n);
    } else {
      k.loadBytes(c.rawI + from, c.rawQ + from, iq + 2 * done, n);
    }
    k.correct(c.rawI + from, c.rawQ + from, c.xI + SDR_FILTER_HISTORY + from, c.xQ + SDR_FILTER_HISTORY + from, n,
              c.meanI, c.meanQ, c.qFromQ, c.qFromI);
    k.halfBand(c.xI + from, c.yI + from, n);
    k.halfBand(c.xQ + from, c.yQ + from, n);
    c.outputClipped += k.requantise(c.yI + from, c.yQ + from, n, c.gain, c.pairs);
    std::memcpy(out + 2 * pairs, c.pairs, 2 * n);
    pairs += n;
    done += n;
    c.samplesIn += n;
    c.blockFill = from + n;
    if (c.blockFill == SDR_CHUNK) {
      UpdateEstimates(c);
      std::memcpy(c.xI, c.xI + SDR_CHUNK, sizeof(float) * SDR_FILTER_HISTORY);
      std::memcpy(c.xQ, c.xQ + SDR_CHUNK, sizeof(float) * SDR_FILTER_HISTORY);
      c.blockFill = 0;
    }
  }
  if (pairs % 2 != 0) {
    c.held[0] = out[2 * pairs - 2];
    c.held[1] = out[2 * pairs - 1];
    c.heldValid = true;
    --pairs;
  }
  return 2 * pairs;
}

}  // namespace

void SdrConditionerReset(SdrConditioner& c) {
  std::memset(&c, 0, sizeof c);
  c.qFromQ = 1.0f;
  c.gain = 1.0f;
  c.vectorKind = SDR_VECTOR_PLAIN;
#if defined(__x86_64__) && defined(__GNUC__)
  if (__builtin_cpu_supports("avx2")) c.vectorKind = SDR_VECTOR_AVX2;
#endif
}

size_t SdrConditionFloat(SdrConditioner& c, const float* iq, size_t samples, uint8_t* out) {
  return Condition(c, iq, samples, out);
}

size_t SdrConditionU8(SdrConditioner& c, const uint8_t* iq, size_t samples, uint8_t* out) {
  return Condition(c, iq, samples, out);
}

void SdrConditionerGainChanged(SdrConditioner& c, float db) {
  if (!c.primed || !std::isfinite(db)) return;
  const float power = std::pow(10.0f, 0.1f * db);
  c.filteredPower *= power;
  c.powerI *= power;
  c.powerQ *= power;
  c.crossIQ *= power;
  c.inputRms *= std::sqrt(power);
  UpdateGain(c);
}

float SdrGainAdviceDb(const SdrConditioner& c) {
  if (!c.primed) return 0.0f;
  float advice = 20.0f * std::log10(SDR_INPUT_TARGET_RMS / std::max(c.inputRms, 1e-6f));
  advice = std::min(40.0f, std::max(-40.0f, advice));
  if (c.inputClipFraction > 1e-4f) advice = std::min(advice, -6.0f);
  return advice;
}

}  // namespace zfn
