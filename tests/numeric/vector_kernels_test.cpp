// Every hand-vectorised kernel against its scalar reference, bit for bit: one table of kernels, each
// run with every variant the processor has over random lengths, buffer alignments and noisy input.
// Besides, the rotation's reference against a direct rotation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "acquisition/acquisition.h"
#include "decoder/demap_kernels.h"
#include "decoder/depuncture_kernels.h"
#include "decoder/viterbi.h"
#include "numeric/nco_rotation.h"
#include "numeric/vector_isa.h"
#include "shell/block_scheduler.h"
#include "shell/shell_fields.h"
#include "tests/decoder/decoder_test_support.h"
#include "tracking/carrier_filter.h"
#include "tracking/equaliser_kernels.h"
#include "tracking/timing_gate_kernels.h"

namespace zfn {
namespace {

using test::Random;

float Uniform(Random& random) { return static_cast<float>(random.Next() >> 40) / static_cast<float>(1 << 24); }
float Gauss(Random& random) {  // sum of four uniforms: enough for noise
  return 1.7f * (Uniform(random) + Uniform(random) + Uniform(random) + Uniform(random) - 2.0f);
}
std::vector<float> Noise(Random& random, size_t count, float scale = 1.0f) {
  std::vector<float> v(count);
  for (float& x : v) x = scale * Gauss(random);
  return v;
}
bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0;
}

// One random case of a kernel: runs the reference and variant `isa` on the same input; the
// description of the first difference, or an empty string.
using Compare = std::string (*)(VectorIsa isa, Random& random, int trial);

std::string CompareRotation(VectorIsa isa, Random& random, int trial) {
  const int32_t count = trial % 5 == 0 ? static_cast<int32_t>(random.Below(9)) : static_cast<int32_t>(random.Below(1300));
  const size_t offset = random.Below(8);  // floats: every alignment of the complex samples
  const double phase = 6.3 * Uniform(random);
  const double step = (trial % 3 == 0 ? 3.1 : 0.02) * (2.0 * Uniform(random) - 1.0);
  const size_t floats = offset + 2 * static_cast<size_t>(std::max(4, (count + 3) / 4 * 4)) + 8;
  const std::vector<float> input = Noise(random, floats);
  std::vector<float> reference = input, vector = input, apart(floats, -1.0f);
  RotateByNcoWith(VectorIsa::SCALAR, reference.data() + offset, reference.data() + offset, count, phase, step);
  RotateByNcoWith(isa, vector.data() + offset, vector.data() + offset, count, phase, step);
  // Out of place, from the input into another buffer: the same values, nothing else written.
  RotateByNcoWith(isa, input.data() + offset, apart.data() + offset, count, phase, step);
  bool untouched = true;
  for (size_t i = 0; i < floats; ++i) {
    if (i >= offset && i < floats - 8) continue;
    untouched = untouched && apart[i] == -1.0f;
    apart[i] = input[i];
  }
  return SameBits(reference, vector) && SameBits(reference, apart) && untouched ? "" : "count " + std::to_string(count);
}

// A block of random device bytes at any alignment of bytes and floats.
std::string CompareBlockConversion(VectorIsa isa, Random& random, int) {
  const size_t rawOffset = random.Below(32), floatOffset = random.Below(8);
  std::vector<uint8_t> raw(rawOffset + RAW_BLOCK_BYTES);
  for (uint8_t& b : raw) b = static_cast<uint8_t>(random.Next() >> 56);
  std::vector<float> reference(floatOffset + BLOCK_FLOATS + 8, -1.0f), vector = reference;
  ConvertBlockWith(VectorIsa::SCALAR, raw.data() + rawOffset, reference.data() + floatOffset);
  ConvertBlockWith(isa, raw.data() + rawOffset, vector.data() + floatOffset);
  return SameBits(reference, vector) ? "" : "offsets " + std::to_string(rawOffset) + ", " + std::to_string(floatOffset);
}

std::string CompareCarrierFilter(VectorIsa isa, Random& random, int trial) {
  const int32_t n = 8 + static_cast<int32_t>(random.Below(trial % 4 == 0 ? 12 : 249));  // up to the widest row the vector variants take
  const int32_t bits = std::array<int32_t, 3>{2, 4, 6}[random.Below(3)];
  const size_t offset = 2 * random.Below(4);
  // A slowly turning channel with noise on the row, data carriers of the oldest symbol around it.
  std::vector<float> row(offset + 2 * static_cast<size_t>(n)), oldest(offset + 6 * static_cast<size_t>(n));
  const float turn = 0.2f * Gauss(random);
  const float noise = trial % 2 == 0 ? 0.05f : 0.4f;
  for (int32_t m = 0; m < n; ++m) {
    const std::complex<float> h = std::polar(1.0f + 0.3f * std::sin(0.1f * static_cast<float>(m)), turn * static_cast<float>(m));
    row[offset + 2 * m] = h.real() + noise * Gauss(random);
    row[offset + 2 * m + 1] = h.imag() + noise * Gauss(random);
    const std::complex<float> d(random.Below(2) ? 0.7f : -0.7f, random.Below(2) ? 0.7f : -0.7f);
    const std::complex<float> r = h * d;
    oldest[offset + 6 * m] = r.real() + noise * Gauss(random);
    oldest[offset + 6 * m + 1] = r.imag() + noise * Gauss(random);
  }
  // Some QPSK rows begin with exact zeros: products, corrections and errors of signed zeros.
  if (trial % 8 == 1 && bits == 2) std::fill_n(row.begin() + static_cast<std::ptrdiff_t>(offset), 2 * std::min(n, 12), 0.0f);
  std::vector<float> taps = Noise(random, 14, 0.05f);
  taps[6] += 1.0f;
  std::vector<float> outReference(offset + 2 * static_cast<size_t>(n), -1.0f), outVector = outReference;
  std::vector<float> tapsReference = taps, tapsVector = taps;
  CarrierFilterPass pass{row.data() + offset, outReference.data() + offset, tapsReference.data(), oldest.data() + offset,
                         n, static_cast<int32_t>(random.Below(4)), bits, 0.01f + 0.1f * Uniform(random)};
  FilterCarrierRowWith(VectorIsa::SCALAR, pass);
  pass.out = outVector.data() + offset;
  pass.taps = tapsVector.data();
  FilterCarrierRowWith(isa, pass);
  if (!SameBits(outReference, outVector)) return "output, n " + std::to_string(n) + " bits " + std::to_string(bits);
  return SameBits(tapsReference, tapsVector) ? "" : "taps, n " + std::to_string(n);
}

// The carriers read through tables as the equaliser reads a symbol: the received ones in order with
// gaps (the pilots), their channel from anywhere, at odd float offsets too.
std::string CompareEqualiser(VectorIsa isa, Random& random, int trial, int32_t bits) {
  const int32_t count = static_cast<int32_t>(random.Below(trial % 4 == 0 ? 20 : 400));
  const size_t size = 2 * static_cast<size_t>(count) + 8;
  std::vector<float> r = Noise(random, 2 * size), g = Noise(random, 2 * size);
  std::vector<int16_t> rAt(static_cast<size_t>(count)), gAt(static_cast<size_t>(count));
  int32_t next = static_cast<int32_t>(random.Below(8));
  for (int32_t i = 0; i < count; ++i) {
    rAt[i] = static_cast<int16_t>(next);
    next += 2 + 2 * static_cast<int32_t>(random.Below(4) == 0);
    gAt[i] = static_cast<int16_t>(random.Below(static_cast<uint32_t>(2 * size - 1)));
  }
  // Edge values: a dead channel (0/0), signed zeros on the decision boundary, a huge channel.
  if (count > 0 && trial % 3 == 0) {
    const auto pick = [&](const std::vector<int16_t>& at) { return at[random.Below(static_cast<uint32_t>(count))]; };
    const int16_t dead = pick(gAt), zero = pick(rAt);
    g[dead] = g[dead + 1] = 0.0f;
    r[zero] = -0.0f;
    r[zero + 1] = 0.0f;
    g[pick(gAt)] = 3e19f;
  }
  const size_t n = static_cast<size_t>(count);
  std::vector<float> eqReference(2 * n + 8, 5.0f), powerReference(n + 8, 5.0f), noiseReference(n + 8, 5.0f);
  std::vector<float> eqVector = eqReference, powerVector = powerReference, noiseVector = noiseReference;
  const auto equalise = bits == 2 ? EqualiseQpskWith : EqualiseQamWith;
  std::vector<float> sumsReference = {0.5f, -2.0f}, sumsVector = sumsReference;  // added to, in carrier order
  equalise(VectorIsa::SCALAR, {r.data(), g.data(), rAt.data(), gAt.data(), eqReference.data(), powerReference.data(),
                               noiseReference.data(), count, bits, sumsReference.data()});
  equalise(isa, {r.data(), g.data(), rAt.data(), gAt.data(), eqVector.data(), powerVector.data(), noiseVector.data(),
                 count, bits, sumsVector.data()});
  const bool same = SameBits(eqReference, eqVector) && SameBits(powerReference, powerVector) &&
                    SameBits(noiseReference, noiseVector) && SameBits(sumsReference, sumsVector);
  return same ? "" : "count " + std::to_string(count);
}

// The interpolation's bank products, at every alignment, with non-finite entries dropped in.
std::string CompareBankProducts(VectorIsa isa, Random& random, int trial) {
  const int32_t count = static_cast<int32_t>(random.Below(trial % 4 == 0 ? 20 : 300));
  const size_t offset = random.Below(8), floats = offset + 2 * static_cast<size_t>(count);
  std::vector<float> x = Noise(random, floats), low = Noise(random, floats), high = Noise(random, floats);
  if (count > 0 && trial % 3 == 0) {
    x[offset + random.Below(static_cast<uint32_t>(2 * count))] = NAN;
    low[offset + random.Below(static_cast<uint32_t>(2 * count))] = INFINITY;
    high[offset + random.Below(static_cast<uint32_t>(2 * count))] = -0.0f;
  }
  std::vector<float> reference(2 * floats + 8, 5.0f), vector = reference;
  const auto multiply = [&](VectorIsa with, std::vector<float>& z) {
    MultiplyBanksWith(with, {x.data() + offset, low.data() + offset, high.data() + offset, z.data() + offset,
                             z.data() + floats + offset, count});
  };
  multiply(VectorIsa::SCALAR, reference);
  multiply(isa, vector);
  return SameBits(reference, vector) ? "" : "count " + std::to_string(count);
}

// The time filter with held taps, at every alignment, with non-finite entries and signed zeros dropped in.
std::string CompareHeldTimeFilter(VectorIsa isa, Random& random, int trial) {
  const int32_t groups = static_cast<int32_t>(random.Below(trial % 4 == 0 ? 3 : 70));
  const size_t offset = random.Below(8), floats = offset + 8 * static_cast<size_t>(groups);
  std::vector<float> x[3] = {Noise(random, floats), Noise(random, floats), Noise(random, floats)};
  if (groups > 0 && trial % 3 == 0) {
    for (float edge : {NAN, INFINITY, -0.0f}) x[random.Below(3)][offset + random.Below(static_cast<uint32_t>(8 * groups))] = edge;
  }
  HeldTimeFilter held{};
  for (int k = 0; k < 3; ++k) {
    for (int f = 0; f < 8; ++f) {
      held.re[k][f] = Gauss(random);
      held.im[k][f] = Gauss(random);
    }
  }
  held.groups = groups;
  held.exact = static_cast<int32_t>(random.Below(4));
  std::vector<float> reference(floats + 8, 5.0f), vector = reference;
  const auto filter = [&](VectorIsa with, std::vector<float>& out) {
    HeldTimeFilter rows = held;
    rows.x0 = x[0].data() + offset;
    rows.x1 = x[1].data() + offset;
    rows.x2 = x[2].data() + offset;
    rows.out = out.data() + offset;
    FilterHeldWith(with, rows);
  };
  filter(VectorIsa::SCALAR, reference);
  filter(isa, vector);
  return SameBits(reference, vector) ? "" : "groups " + std::to_string(groups);
}

// The QPSK soft weighting, at every alignment, with non-finite powers and signed zeros dropped in.
std::string CompareWeighting(VectorIsa isa, Random& random, int trial) {
  const int32_t count = static_cast<int32_t>(random.Below(trial % 4 == 0 ? 20 : 400));
  const size_t offset = random.Below(8), floats = offset + 2 * static_cast<size_t>(count) + 8;
  std::vector<float> power = Noise(random, floats, 3.0f);
  const std::vector<float> eq = Noise(random, floats);
  if (count > 0 && trial % 3 == 0) {
    for (float edge : {NAN, INFINITY, -0.0f}) power[offset + random.Below(static_cast<uint32_t>(count))] = edge;
  }
  const float ratio = trial % 7 == 0 ? INFINITY : 0.1f + Uniform(random);
  std::vector<float> weightReference(floats, 5.0f), weightVector = weightReference, eqReference = eq, eqVector = eq;
  WeighCarriersWith(VectorIsa::SCALAR, power.data() + offset, ratio, weightReference.data() + offset, eqReference.data() + offset, count);
  WeighCarriersWith(isa, power.data() + offset, ratio, weightVector.data() + offset, eqVector.data() + offset, count);
  return SameBits(weightReference, weightVector) && SameBits(eqReference, eqVector) ? "" : "count " + std::to_string(count);
}

// The finite check: large and tiny finite values, and now and then one non-finite value anywhere.
std::string CompareAllFinite(VectorIsa isa, Random& random, int trial) {
  const int32_t count = static_cast<int32_t>(random.Below(trial % 4 == 0 ? 40 : 1000));
  const size_t offset = random.Below(8);
  std::vector<float> v = Noise(random, offset + static_cast<size_t>(count) + 8, 3e37f);
  v[offset + random.Below(static_cast<uint32_t>(count) + 1)] = (trial & 1) ? -0.0f : 1e-44f;
  constexpr float EDGES[] = {NAN, INFINITY, -INFINITY};
  if (trial % 3 != 0) v[offset + random.Below(static_cast<uint32_t>(count) + 8)] = EDGES[random.Below(3)];
  const bool reference = AllFiniteWith(VectorIsa::SCALAR, v.data() + offset, count);
  return AllFiniteWith(isa, v.data() + offset, count) == reference ? "" : "count " + std::to_string(count);
}

// One side of the timing gate, both directions, every span up to the largest, with a non-finite
// sample now and then; the rows it updates are compared too.
std::string CompareGateSide(VectorIsa isa, Random& random, int trial) {
  const int32_t span = static_cast<int32_t>(random.Below(GATE_MAX_SPAN + 1));
  const int32_t direction = (trial & 1) ? 1 : -1;
  std::vector<float> wRe = Noise(random, GATE_MAX_SPAN * GATE_CARRIERS), wIm = Noise(random, GATE_MAX_SPAN * GATE_CARRIERS);
  const std::vector<float> startRe = Noise(random, GATE_CARRIERS, 30.0f), startIm = Noise(random, GATE_CARRIERS, 30.0f);
  std::vector<float> sign(GATE_CARRIERS);
  for (float& s : sign) s = random.Below(2) ? 1.0f : -1.0f;
  std::vector<float> x = Noise(random, 2 * (3 * GATE_MAX_SPAN + 2), 20.0f);
  if (trial % 5 == 0) x[random.Below(static_cast<uint32_t>(x.size()))] = (trial & 2) ? NAN : INFINITY;
  const int32_t inAt = direction > 0 ? GATE_MAX_SPAN : 2 * GATE_MAX_SPAN + 1, outAt = inAt + direction * GATE_MAX_SPAN;
  const std::vector<float> rows = Noise(random, 2 * GATE_MAX_SPAN * GATE_CARRIERS, 30.0f);
  std::vector<float> reference = rows, vector = rows;
  std::vector<float> profileReference(2 * GATE_MAX_SPAN + 1, 5.0f), profileVector = profileReference;
  const auto slide = [&](VectorIsa with, std::vector<float>& r, std::vector<float>& profile) {
    using Row = const float(*)[GATE_CARRIERS];
    SlideGateSideWith(with, {reinterpret_cast<Row>(wRe.data()), reinterpret_cast<Row>(wIm.data()), startRe.data(),
                             startIm.data(), sign.data(), x.data(), span, inAt, outAt, direction, r.data(),
                             r.data() + GATE_MAX_SPAN * GATE_CARRIERS, GATE_CARRIERS, profile.data() + GATE_MAX_SPAN});
  };
  slide(VectorIsa::SCALAR, reference, profileReference);
  slide(isa, vector, profileVector);
  return SameBits(reference, vector) && SameBits(profileReference, profileVector) ? "" : "span " + std::to_string(span);
}

// QPSK soft demapping: noisy values over the whole clamp range and beyond, with integers (the floor),
// signed zeros, NaN and infinities dropped in.
std::string CompareDemap(VectorIsa isa, Random& random, int trial) {
  const int32_t count = static_cast<int32_t>(random.Below(trial % 4 == 0 ? 40 : 800));
  const size_t offset = random.Below(8);
  std::vector<float> values = Noise(random, offset + static_cast<size_t>(count), 14.0f);
  constexpr float EDGES[] = {0.0f, -0.0f, 16.0f, -15.0f, -15.5f, 17.0f, 15.999f, NAN, INFINITY, -INFINITY, 3e38f};
  for (int32_t k = 0; k < count / 8; ++k) {
    values[offset + random.Below(static_cast<uint32_t>(count))] = EDGES[random.Below(std::size(EDGES))];
  }
  std::vector<uint8_t> reference(offset + static_cast<size_t>(count) + 40, 7), vector = reference;
  DemapQpskWith(VectorIsa::SCALAR, values.data() + offset, reference.data() + offset, count);
  DemapQpskWith(isa, values.data() + offset, vector.data() + offset, count);
  return reference == vector ? "" : "count " + std::to_string(count);
}

// Rate 2/3 depuncturing: any bytes, any number of periods, any alignment.
std::string CompareDepuncture(VectorIsa isa, Random& random, int trial) {
  const int32_t groups = static_cast<int32_t>(random.Below(trial % 4 == 0 ? 24 : 600));
  const size_t offset = random.Below(16), pairOffset = random.Below(8);
  std::vector<uint8_t> bits(offset + 3 * static_cast<size_t>(groups));
  for (uint8_t& b : bits) b = static_cast<uint8_t>(random.Below(256));
  std::vector<uint16_t> reference(pairOffset + 2 * static_cast<size_t>(groups) + 16, 7), vector = reference;
  DepunctureTwoThirdsWith(VectorIsa::SCALAR, bits.data() + offset, reference.data() + pairOffset, groups);
  DepunctureTwoThirdsWith(isa, bits.data() + offset, vector.data() + pairOffset, groups);
  return reference == vector ? "" : "groups " + std::to_string(groups);
}

// Soft pairs of several kinds: plain random values 0..31, the neutral 16 almost everywhere (ties),
// random hard extremes, noisy values around random bits, a true code sequence with a few wrong soft
// bits, and bytes outside 0..31, whose branch costs wrap and drive the metrics into saturation at once
// (a clean code sequence alone takes the far states up to about 248 only).
std::vector<uint16_t> ViterbiPairs(Random& random, int32_t count, uint32_t kind) {
  std::vector<uint16_t> pairs(static_cast<size_t>(count));
  if (kind == 4) {
    pairs = test::CodedPairs(random, count);
    for (auto& pair : pairs)
      if (random.Below(50) == 0) pair = static_cast<uint16_t>(random.Below(32) << 8 | (pair & 0xFF));
    return pairs;
  }
  for (auto& pair : pairs) {
    auto soft = [&]() -> uint32_t {
      switch (kind) {
        case 0: return random.Below(32);
        case 1: return random.Below(8) == 0 ? random.Below(32) : 16;
        case 2: return random.Below(2) * 31;
        case 3: return static_cast<uint32_t>(std::clamp(static_cast<int32_t>(random.Below(2) * 31 + random.Below(13)) - 6, 0, 31));
        default: return random.Below(256);
      }
    };
    const uint32_t h = soft();
    pair = static_cast<uint16_t>(h << 8 | soft());
  }
  return pairs;
}

// A run of calls on one trellis per side, so that metrics and decisions carry across calls; the
// whole trellis is compared after every call. Metrics saturate on the wrapping kind now and then.
// Every other pair of trials normalises on the refinements' schedule.
bool viterbiSaturated = false;

std::string CompareViterbi(VectorIsa isa, Random& random, int trial) {
  auto reference = std::make_unique<ViterbiTrellis>();
  auto vector = std::make_unique<ViterbiTrellis>();
  reference->normaliseEveryFourth = vector->normaliseEveryFourth = static_cast<uint8_t>(trial / 2 % 2);
  std::vector<uint16_t> pairStore(VITERBI_MAX_STEPS + 16);
  std::vector<uint8_t> outReference(VITERBI_MAX_STEPS / 8 + 64), outVector(outReference.size());
  for (int call = 0; call < 12; ++call) {
    // Lengths over the whole range, small and odd ones, and every alignment of input and output.
    int32_t count = static_cast<int32_t>(random.Below(call % 4 == 1 ? 130 : VITERBI_MAX_STEPS + 1));
    if (call == 7 && trial % 4 == 0) count = VITERBI_MAX_STEPS;
    const int32_t pairOffset = static_cast<int32_t>(random.Below(16));
    const int32_t outOffset = static_cast<int32_t>(random.Below(32));
    const std::vector<uint16_t> pairs = ViterbiPairs(random, count, call == 3 ? 5 : random.Below(6));
    std::copy(pairs.begin(), pairs.end(), pairStore.begin() + pairOffset);
    std::fill(outReference.begin(), outReference.end(), 0xA5);
    std::fill(outVector.begin(), outVector.end(), 0xA5);
    if (call % 5 == 4) reference->viterbiRestart = vector->viterbiRestart = 1;
    // Now and then a trellis left in any state, its least metric small or above the normalisation
    // bound, so that ordinary soft bits saturate sums too.
    if (call % 6 == 5) {
      const uint32_t floor = trial % 2 == 0 ? 0 : 151;
      for (auto& bank : reference->pathMetrics)
        for (uint8_t& metric : bank) metric = static_cast<uint8_t>(floor + random.Below(256 - floor));
      std::memcpy(vector->pathMetrics, reference->pathMetrics, sizeof vector->pathMetrics);
    }
    ViterbiRun(*reference, VectorIsa::SCALAR, pairStore.data() + pairOffset, count, outReference.data() + outOffset);
    ViterbiRun(*vector, isa, pairStore.data() + pairOffset, count, outVector.data() + outOffset);
    const std::string at = "call " + std::to_string(call) + " count " + std::to_string(count);
    if (outReference != outVector) return "output, " + at;
    if (std::memcmp(reference->pathMetrics, vector->pathMetrics, sizeof vector->pathMetrics) != 0 ||
        reference->metricBank != vector->metricBank || reference->viterbiRestart != vector->viterbiRestart)
      return "metrics, " + at;
    if (std::memcmp(reference->decisionHistory, vector->decisionHistory, sizeof vector->decisionHistory) != 0)
      return "decisions, " + at;
    for (int b = 0; b < 2; ++b)
      viterbiSaturated |= std::count(reference->pathMetrics[b], reference->pathMetrics[b] + 64, 255) > 0;
  }
  return "";
}

struct Kernel {
  const char* name;
  std::vector<VectorIsa> variants;
  Compare compare;
  int trials;
};

const Kernel KERNELS[] = {
    {"carrier rotation", {VectorIsa::SSE2, VectorIsa::AVX2}, CompareRotation, 300},
    {"filter across carriers", {VectorIsa::SSE2, VectorIsa::AVX2}, CompareCarrierFilter, 300},
    {"block conversion", {VectorIsa::AVX2}, CompareBlockConversion, 20},
    {"QPSK equaliser", {VectorIsa::SSE2, VectorIsa::AVX2},
     [](VectorIsa isa, Random& random, int trial) { return CompareEqualiser(isa, random, trial, 2); }, 300},
    {"interpolation bank products", {VectorIsa::SSE2, VectorIsa::AVX2}, CompareBankProducts, 200},
    {"time filter with held taps", {VectorIsa::SSE2, VectorIsa::AVX2}, CompareHeldTimeFilter, 200},
    {"finite check", {VectorIsa::AVX2}, CompareAllFinite, 300},
    {"QPSK soft weighting", {VectorIsa::AVX2}, CompareWeighting, 200},
    {"timing gate side", {VectorIsa::AVX2}, CompareGateSide, 100},
    {"16QAM and 64QAM equaliser", {VectorIsa::AVX2},
     [](VectorIsa isa, Random& random, int trial) { return CompareEqualiser(isa, random, trial, 4 + 2 * (trial & 1)); },
     300},
    {"QPSK soft demapping", {VectorIsa::AVX2}, CompareDemap, 300},
    {"rate 2/3 depuncturing", {VectorIsa::AVX2}, CompareDepuncture, 200},
    {"Viterbi", {VectorIsa::SSE2, VectorIsa::AVX2}, CompareViterbi, 40},
};

TEST(VectorKernels, EveryVariantEqualsItsScalarReference) {
  for (const Kernel& kernel : KERNELS) {
    for (VectorIsa isa : kernel.variants) {
      if (!VectorIsaAvailable(isa)) continue;
      Random random(static_cast<uint64_t>(isa) * 7919 + std::strlen(kernel.name));
      for (int trial = 0; trial < kernel.trials; ++trial) {
        const std::string difference = kernel.compare(isa, random, trial);
        ASSERT_EQ("", difference) << kernel.name << ", " << VectorIsaName(isa) << ", trial " << trial;
      }
    }
  }
  if (VectorIsaAvailable(VectorIsa::SSE2)) {
    EXPECT_TRUE(viterbiSaturated) << "the Viterbi input never saturated a metric";
  }
}

// The cap chooses the variant of the stage functions; the processor's limit still applies.
TEST(VectorKernels, CapChoosesTheVariant) {
  const VectorIsa before = ActiveVectorIsa();
  SetVectorIsaCap(VectorIsa::SCALAR);
  EXPECT_EQ(VectorIsa::SCALAR, ActiveVectorIsa());
  SetVectorIsaCap(VectorIsa::AVX2);
  EXPECT_EQ(BestVectorIsa(), ActiveVectorIsa());
  SetVectorIsaCap(before);
}

// The reference itself against a direct rotation: counts are rounded up to groups of four, and
// nothing beyond is touched.
TEST(VectorKernels, RotationMatchesDirectRotationInGroupsOfFour) {
  Random random(5);
  for (const auto& [count, phase, step] : {std::tuple{258, 1.0, 0.013}, std::tuple{1024, 6.2, -0.0061}, std::tuple{1, 0.5, 0.3},
                                           std::tuple{0, 0.0, 0.1}, std::tuple{1280, 3.0, 3.1}}) {
    const int rotated = std::max(4, (count + 3) / 4 * 4);
    const std::vector<float> x = Noise(random, 2 * static_cast<size_t>(rotated + 4));
    std::vector<float> y = x;
    RotateByNco(y.data(), y.data(), count, phase, step);
    for (int n = 0; n < rotated + 4; ++n) {
      const std::complex<double> in(x[2 * n], x[2 * n + 1]), want = n < rotated ? in * std::polar(1.0, phase + n * step) : in;
      EXPECT_NEAR(y[2 * n], want.real(), n < rotated ? 2e-4 : 0.0) << "count " << count << " n " << n;
      EXPECT_NEAR(y[2 * n + 1], want.imag(), n < rotated ? 2e-4 : 0.0) << "count " << count << " n " << n;
    }
  }
}

}  // namespace
}  // namespace zfn
