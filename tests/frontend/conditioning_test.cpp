// The SDR channel conditioning measured from its output bytes: on a synthetic stream with a known
// DC offset, I/Q imbalance and level it removes the offset, cancels the image, holds the engine's
// level and tells the SDR gain control what it needs; it stops what the engine's drop of every
// second sample would fold onto the span it reads; and it gives whole groups of four bytes, the
// same ones however the stream is cut into calls. (That it lets a broadcast through intact is
// the end-to-end case of `zfnisdbt decode --front-end sdr`.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "frontend/conditioning.h"

namespace zfn {
namespace {

using Cx = std::complex<double>;
constexpr double PI = 3.14159265358979323846;

struct Impairment {
  double level = 0.2;  // RMS per component of the clean signal, full scale 1.0
  double dcI = 0, dcQ = 0;
  double gainDb = 0;    // I against Q
  double phaseDeg = 0;  // phase error of the Q branch
};

// Complex white Gaussian noise at the level, plus a tone at toneHz 6 dB below it, through the
// imbalance: I' = g I + dcI, Q' = (Q cos p + I sin p) / g + dcQ.
std::vector<float> Synthesise(size_t samples, const Impairment& m, double toneHz, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> gauss(0.0, 1.0);
  const double g = std::pow(10.0, m.gainDb / 40.0), p = m.phaseDeg * PI / 180.0;
  std::vector<float> iq(2 * samples);
  for (size_t n = 0; n < samples; ++n) {
    const double i = gauss(rng), q = gauss(rng);
    const Cx x = m.level * (std::sqrt(0.8) * Cx(i, q) + std::sqrt(0.4) * std::polar(1.0, 2.0 * PI * toneHz / DEVICE_SAMPLE_RATE_HZ * n));
    iq[2 * n] = static_cast<float>(g * x.real() + m.dcI);
    iq[2 * n + 1] = static_cast<float>((x.imag() * std::cos(p) + x.real() * std::sin(p)) / g + m.dcQ);
  }
  return iq;
}

// What an 8-bit SDR records of it: b stands for (b - 127.5) / 128, clipped to the rails.
std::vector<uint8_t> ToBytes(const std::vector<float>& iq) {
  std::vector<uint8_t> bytes(iq.size());
  for (size_t k = 0; k < iq.size(); ++k) bytes[k] = static_cast<uint8_t>(std::lround(std::clamp(iq[k] * 128.0 + 127.5, 0.0, 255.0) - 0.5));
  return bytes;
}

// Output bytes as the engine reads them, (b - 127) / 128, from sample `from` on; every sample, or
// only the ones the engine keeps (the first of each pair).
std::vector<Cx> Engine(const std::vector<uint8_t>& out, size_t from, int stride) {
  std::vector<Cx> v;
  for (size_t n = from; 2 * n + 1 < out.size(); n += static_cast<size_t>(stride))
    v.emplace_back((out[2 * n] - 127.0) / 128.0, (out[2 * n + 1] - 127.0) / 128.0);
  return v;
}

std::vector<uint8_t> Condition(SdrConditioner& c, const std::vector<float>& iq) {
  std::vector<uint8_t> out(iq.size() + 2);
  out.resize(SdrConditionFloat(c, iq.data(), iq.size() / 2, out.data()));
  return out;
}

// Amplitude of the component at `hz` in samples taken at `rate`.
double Amplitude(const std::vector<Cx>& v, double hz, double rate) {
  Cx acc = 0;
  for (size_t n = 0; n < v.size(); ++n) acc += v[n] * std::polar(1.0, -2.0 * PI * hz / rate * static_cast<double>(n));
  return std::abs(acc) / static_cast<double>(v.size());
}

// Mean, and RMS per component about it in 8-bit steps.
std::pair<Cx, double> Moments(const std::vector<Cx>& v) {
  Cx mean = 0;
  double power = 0;
  for (const Cx& x : v) mean += x / static_cast<double>(v.size());
  for (const Cx& x : v) power += std::norm(x - mean) / static_cast<double>(v.size());
  return {mean, 128.0 * std::sqrt(0.5 * power)};
}

TEST(SdrConditioning, RemovesDcAndImageHoldsTheLevelAndAdvisesTheSdrGain) {
  const struct {
    const char* name;
    Impairment m;
    bool bytes;  // through SdrConditionU8 as an 8-bit recording
    double adviceAbove, adviceBelow;
  } cases[] = {
      {"8-bit recording, dongle-like", {0.2, 0.012, -0.008, 0.3, 2.0}, true, -2.0, 2.0},
      {"weak float stream, strong imbalance", {0.01, 0.002, 0.003, 2.0, 10.0}, false, 24.0, 29.0},
      {"overdriven 8-bit recording", {0.6, 0.0, 0.0, 0.5, 3.0}, true, -40.0, -6.0},
  };
  constexpr size_t SAMPLES = 2031746;  // one second
  constexpr double TONE_HZ = 100e3;
  auto c = std::make_unique<SdrConditioner>();
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    SdrConditionerReset(*c);
    const std::vector<float> iq = Synthesise(SAMPLES, k.m, TONE_HZ, 7);
    std::vector<uint8_t> out(2 * SAMPLES + 2);
    if (k.bytes) {
      out.resize(SdrConditionU8(*c, ToBytes(iq).data(), SAMPLES, out.data()));
    } else {
      out = Condition(*c, iq);
    }
    ASSERT_EQ(out.size(), 2 * SAMPLES);
    // The second half second, after the imbalance estimate has settled.
    const std::vector<Cx> v = Engine(out, SAMPLES / 2, 1);
    const auto [mean, rmsSteps] = Moments(v);
    EXPECT_LT(std::abs(mean) * 128.0, 0.3) << "DC left, in steps";
    EXPECT_NEAR(rmsSteps, SDR_TARGET_STEPS, 1.0) << "level per component, in steps";
    const double image = Amplitude(v, -TONE_HZ, DEVICE_SAMPLE_RATE_HZ) / Amplitude(v, TONE_HZ, DEVICE_SAMPLE_RATE_HZ);
    if (k.m.level < 0.5) {  // clipping distorts the moments the balance is drawn from
      EXPECT_LT(20.0 * std::log10(image), -40.0) << "image of the tone against the tone, dB";
      EXPECT_NEAR(c->inputRms / k.m.level, 1.0, 0.1);
      EXPECT_LT(c->inputClipped, SAMPLES / 100000);
      EXPECT_LT(c->outputClipped, 2 * SAMPLES / 10000);
    } else {
      EXPECT_GT(c->inputClipped, SAMPLES / 1000);
      EXPECT_GT(c->inputClipFraction, 1e-3f);
    }
    EXPECT_GE(SdrGainAdviceDb(*c), k.adviceAbove);
    EXPECT_LE(SdrGainAdviceDb(*c), k.adviceBelow);
  }
}

// A step of the SDR's own gain that the conditioner is told of keeps the output at its level from
// the next block on.
TEST(SdrConditioning, FollowsAGainStepOfTheSdrAtOnceWhenToldOfIt) {
  auto c = std::make_unique<SdrConditioner>();
  SdrConditionerReset(*c);
  Condition(*c, Synthesise(SDR_CHUNK * 200, Impairment{0.05}, 1e5, 3));
  std::vector<float> after = Synthesise(SDR_CHUNK * 20, Impairment{0.05}, 1e5, 4);
  for (float& x : after) x *= std::sqrt(10.0f);  // +10 dB
  SdrConditionerGainChanged(*c, 10.0f);
  EXPECT_NEAR(20.0 * std::log10(Moments(Engine(Condition(*c, after), SDR_CHUNK, 1)).second / SDR_TARGET_STEPS), 0.0, 0.5);
}

// What the engine keeps (every second sample) of tones across the band: within 0.1 dB of each
// other up to 400 kHz from the channel centre, and what lies from 610 kHz up, which the drop folds
// onto the span the engine reads, at least 65 dB down.
TEST(SdrConditioning, StopsWhatTheSampleDropWouldFoldOntoTheSpan) {
  const double rate = DEVICE_SAMPLE_RATE_HZ, engineRate = rate / 2.0;
  auto c = std::make_unique<SdrConditioner>();
  for (const double hz : {20e3, -250e3, 357e3, -400e3, 610e3, -690e3, 800e3, -1000e3}) {
    SCOPED_TRACE(hz);
    // Two tones: the one under test, and a reference at 50 kHz, each at RMS 0.1 per component.
    std::vector<float> iq(2 * 200000);
    for (size_t n = 0; n < iq.size() / 2; ++n) {
      const Cx x = 0.1 * (std::polar(1.0, 2.0 * PI * hz / rate * n) + std::polar(1.0, 2.0 * PI * 50e3 / rate * n));
      iq[2 * n] = static_cast<float>(x.real());
      iq[2 * n + 1] = static_cast<float>(x.imag());
    }
    SdrConditionerReset(*c);
    const std::vector<Cx> kept = Engine(Condition(*c, iq), 4096, 2);
    const double seen = hz - engineRate * std::round(hz / engineRate);  // where the drop puts it
    const double db = 20.0 * std::log10(Amplitude(kept, seen, engineRate) / Amplitude(kept, 50e3, engineRate));
    if (std::abs(hz) <= 400e3) {
      EXPECT_NEAR(db, 0.0, 0.1);
    } else {
      EXPECT_LT(db, -65.0);
    }
  }
}

// Whole groups of four bytes on every call, the odd sample held over, and the same bytes however
// the stream is cut, from 8-bit and from float input alike, and from the baseline build of the
// loops as from the AVX2 one that the processor may choose.
TEST(SdrConditioning, WholeGroupsOfFourAndTheSameBytesHoweverTheStreamIsCut) {
  constexpr size_t SAMPLES = 5 * SDR_CHUNK + 777;
  const std::vector<uint8_t> recorded = ToBytes(Synthesise(SAMPLES, Impairment{0.2, 0.01, 0.0, 0.5, 3.0}, 2e5, 11));
  std::vector<float> asFloat(recorded.size());
  for (size_t k = 0; k < recorded.size(); ++k) asFloat[k] = (static_cast<float>(recorded[k]) - 127.5f) / 128.0f;

  auto c = std::make_unique<SdrConditioner>();
  std::vector<uint8_t> whole(2 * SAMPLES + 2), plain(2 * SAMPLES + 2);
  SdrConditionerReset(*c);
  whole.resize(SdrConditionU8(*c, recorded.data(), SAMPLES, whole.data()));
  ASSERT_EQ(whole.size(), 2 * (SAMPLES - 1)) << "the odd last sample is held";
  SdrConditionerReset(*c);
  c->vectorKind = SDR_VECTOR_PLAIN;
  plain.resize(SdrConditionU8(*c, recorded.data(), SAMPLES, plain.data()));
  EXPECT_EQ(plain, whole) << "baseline build against the one chosen";

  std::mt19937 rng(5);
  for (bool bytes : {true, false}) {
    SdrConditionerReset(*c);
    std::vector<uint8_t> cut, out(2 * SAMPLES + 2);
    for (size_t at = 0; at < SAMPLES;) {
      const size_t lengths[] = {0, 1, 2, 3, 5, SDR_CHUNK - 1, SDR_CHUNK + 1, 333};
      const size_t n = std::min(SAMPLES - at, lengths[rng() % 8]);
      const size_t got = bytes ? SdrConditionU8(*c, recorded.data() + 2 * at, n, out.data())
                               : SdrConditionFloat(*c, asFloat.data() + 2 * at, n, out.data());
      at += n;
      ASSERT_EQ(got % 4, 0u);
      ASSERT_LE(got, 2 * n + 2);
      cut.insert(cut.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(got));
      ASSERT_EQ(cut.size(), 4 * (at / 2)) << "every whole pair of samples is out";
    }
    EXPECT_EQ(cut, whole) << (bytes ? "8-bit" : "float") << " input cut into calls";
  }
}

}  // namespace
}  // namespace zfn
