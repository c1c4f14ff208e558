// Signal facts of the generated device stream and of the channel model, measured here with plain
// DFTs and correlations on what the generator gives out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

#include "simulator/transmitter.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {
namespace {

using cd = std::complex<double>;
using Samples = std::vector<std::complex<float>>;

std::unique_ptr<SignalGenerator> Make(const BroadcastConfig& b, const ChannelConfig& c) {
  std::string error;
  auto g = SignalGenerator::Create(b, c, MakeTestPatternSource(3), &error);
  EXPECT_TRUE(g) << error;
  return g;
}

// Device-rate samples of a new generator.
Samples DeviceSamples(const BroadcastConfig& b, const ChannelConfig& c, size_t count, double* byteScale = nullptr) {
  auto g = Make(b, c);
  Samples y(count);
  g->GenerateSamples(y.data(), y.size());
  if (byteScale) *byteScale = g->ByteScale();
  return y;
}

// Engine-rate samples: bytes 0 and 1 of every group of four.
std::vector<cd> EngineSamples(const BroadcastConfig& b, size_t symbols) {
  std::vector<uint8_t> bytes(symbols * static_cast<size_t>(EngineSamplesPerSymbol(b) * 4));
  Make(b, ChannelConfig{})->GenerateBytes(bytes.data(), bytes.size());
  std::vector<cd> x(bytes.size() / 4);
  for (size_t n = 0; n < x.size(); ++n) x[n] = {bytes[4 * n] - 127.0, bytes[4 * n + 1] - 127.0};
  return x;
}

cd Dft(const cd* x, int n, int bin) {
  cd sum = 0;
  for (int k = 0; k < n; ++k) sum += x[k] * std::polar(1.0, -2.0 * M_PI * static_cast<double>((static_cast<int64_t>(bin) * k) % n) / n);
  return sum;
}

// Sum of x[at + i] * conj(x[at + i + lag]) over `length` samples.
template <class T>
double CorrelationMagnitude(const std::vector<T>& x, size_t at, int length, int lag) {
  cd acc = 0;
  for (size_t i = at; i < at + static_cast<size_t>(length); ++i) acc += cd(x[i]) * std::conj(cd(x[i + static_cast<size_t>(lag)]));
  return std::abs(acc);
}

TEST(TransmitterSignal, CyclicPrefixCorrelationPeaksAtTheSymbolStart) {
  for (int mode : {1, 3}) {
    BroadcastConfig b;
    b.mode = mode;
    b.guard = mode == 1 ? 3 : 2;
    const int n1 = NumbersOfMode(mode).n1;
    const int nse = EngineSamplesPerSymbol(b);
    const int ng = nse - n1;
    const auto x = EngineSamples(b, 24);
    std::vector<double> metric(static_cast<size_t>(nse), 0.0);
    for (int d = 0; d < nse; ++d)
      for (int k = 0; k < 23; ++k) metric[static_cast<size_t>(d)] += CorrelationMagnitude(x, static_cast<size_t>(k * nse + d), ng, n1);
    EXPECT_EQ(std::max_element(metric.begin(), metric.end()) - metric.begin(), 0) << "mode " << mode;
    // At the device rate the prefix is an exact copy of the symbol's end.
    const int ns = 2 * nse;
    const Samples y = DeviceSamples(b, ChannelConfig{}, static_cast<size_t>(4 * ns));
    for (int k = 0; k < 3; ++k)
      for (int i = 0; i < 2 * ng; ++i) ASSERT_EQ(y[static_cast<size_t>(k * ns + i)], y[static_cast<size_t>(k * ns + i + 2 * n1)]);
  }
}

// Scattered pilots at their bins with the signs of the band-wide sequence, nothing else folded
// onto them; DBPSK of every TMCC carrier gives the word of each frame (B1..B203).
TEST(TransmitterSignal, PilotsAndTmccAtTheRightBins) {
  for (int mode : {1, 3}) {
    BroadcastConfig b;
    b.mode = mode;
    b.guard = 2;
    const ModeNumbers mn = NumbersOfMode(mode);
    const int nse = EngineSamplesPerSymbol(b);
    const int ng = nse - mn.n1;
    const int frames = mode == 1 ? 2 : 1;
    const auto x = EngineSamples(b, static_cast<size_t>(frames * 204));
    const auto w = PilotSequence(mode);
    auto carrier = [&](int symbol, int j) {
      return Dft(&x[static_cast<size_t>(symbol * nse + ng)], mn.n1, ((j - mn.nc / 2) % mn.n1 + mn.n1) % mn.n1);
    };
    auto sign = [&](int j) { return w[static_cast<size_t>(6 * mn.nc + j)] ? -1.0 : 1.0; };
    double pilotError = 0, pilotPower = 0;
    for (int n = 0; n < 8; ++n)
      for (int j = 3 * (n % 4); j < mn.nc; j += 12) {
        const cd v = carrier(n, j);
        ASSERT_GT(v.real() * sign(j), 0.0) << "mode " << mode << " symbol " << n << " carrier " << j;
        pilotPower += std::norm(v);
        pilotError += std::norm(v - sign(j) * std::abs(v.real()));
      }
    EXPECT_LT(pilotError / pilotPower, 1e-3) << mode;
    for (int f = 0; f < frames; ++f) {
      TmccContent content;
      content.layerA = {b.modulation, b.codeRate, b.interleave, 1};
      content.layerB = {b.neighbourModulation, 2, 2, 12};
      const auto word = BuildTmccWord(content, (f & 1) != 0);
      for (int tj : CarriersOfSegment(mode, 0).tmcc) {
        cd prev = carrier(f * 204, tj);
        EXPECT_EQ(prev.real() < 0, sign(tj) < 0);  // reference bit
        for (int n = 1; n < (mode == 1 ? 204 : 40); ++n) {
          const cd cur = carrier(f * 204 + n, tj);
          ASSERT_EQ((cur * std::conj(prev)).real() < 0 ? 1 : 0, word[static_cast<size_t>(n)]) << "mode " << mode << " frame " << f << " B" << n;
          prev = cur;
        }
      }
    }
  }
}

TEST(ChannelModel, MeasuredCarrierToNoiseIsTheRequestedOne) {
  BroadcastConfig b;  // Mode 3, 1/8
  ChannelConfig noisy;
  noisy.noise = true;
  noisy.cnDb = 12.0;
  const int ns = 2 * EngineSamplesPerSymbol(b);
  const int m = 2 * NumbersOfMode(3).n1;
  const int nc = NumbersOfMode(3).nc;
  const int symbols = 24;
  // Same seeds: the difference is the noise alone, up to the scale of each generator.
  double k0 = 0, k1 = 0;
  const Samples s = DeviceSamples(b, ChannelConfig{}, static_cast<size_t>(ns * symbols), &k0);
  const Samples y = DeviceSamples(b, noisy, s.size(), &k1);
  double c = 0, n = 0;
  std::vector<cd> sig(static_cast<size_t>(m)), noise(static_cast<size_t>(m));
  for (int sym = 0; sym < symbols; ++sym) {
    for (size_t i = 0, at = static_cast<size_t>(sym * ns + (ns - m)); i < sig.size(); ++i) {
      sig[i] = cd(s[at + i]) / k0;
      noise[i] = cd(y[at + i]) / k1 - sig[i];
    }
    for (int j = 0; j < nc; ++j) {
      c += std::norm(Dft(sig.data(), m, ((j - nc / 2) % m + m) % m));
      n += std::norm(Dft(noise.data(), m, ((j - nc / 2) % m + m) % m));
    }
  }
  EXPECT_NEAR(10 * std::log10(c / n), 12.0, 0.2);
  // Gaussian: kurtosis 3 on each component.
  double m2 = 0, m4 = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    const double v = y[i].real() / k1 - s[i].real() / k0;
    m2 += v * v;
    m4 += v * v * v * v;
  }
  EXPECT_NEAR(m4 * static_cast<double>(s.size()) / (m2 * m2), 3.0, 0.1);
}

TEST(ChannelModel, MeasuredFrequencyAndClockOffsetsAreTheRequestedOnes) {
  // Frequency: the offset stream against the clean one. The device filter moves with the offset;
  // a wide one keeps the same carriers in both.
  BroadcastConfig wide;
  wide.wideDeviceFilter = true;
  ChannelConfig shifted;
  shifted.carrierOffsetHz = 23456.7;
  const Samples x = DeviceSamples(wide, ChannelConfig{}, 200000);
  const Samples y = DeviceSamples(wide, shifted, x.size());
  cd acc = 0;
  for (size_t n = 1000; n < x.size(); n += 1000)
    acc += cd(y[n]) * std::conj(cd(x[n])) * std::conj(cd(y[n - 1000]) * std::conj(cd(x[n - 1000])));
  // 1000 samples turn by 2*pi*23456.7*1000/fs = 72.5 rad: unwrap with the known whole turns.
  const double turns = std::round((2 * M_PI * 23456.7 * 1000 / kBroadcastRateHz - std::arg(acc)) / (2 * M_PI));
  EXPECT_NEAR((std::arg(acc) + turns * 2 * M_PI) / 1000.0 * kBroadcastRateHz / (2 * M_PI), 23456.7, 0.05);

  // Clock: the symbol starts drift by the offset; fitted over a second of Mode 1 symbols.
  BroadcastConfig b;
  b.mode = 1;
  b.guard = 3;
  ChannelConfig c;
  c.clockPpm = 80.0;
  const int ns = 2 * EngineSamplesPerSymbol(b);  // 640 at the device rate
  const int m = 512, ng = ns - m;
  const int symbols = 3000;
  const Samples z = DeviceSamples(b, c, static_cast<size_t>(ns) * (symbols + 2));
  double sk = 0, st = 0, skk = 0, skt = 0;
  for (int k = 0; k < symbols; ++k) {
    const int base = static_cast<int>(std::floor(k * ns * (1 + 80e-6))) - 4;
    double metric[9];
    for (int d = 0; d < 9; ++d) metric[d] = base + d < 0 ? 0 : CorrelationMagnitude(z, static_cast<size_t>(base + d), ng, m);
    const int d = static_cast<int>(std::max_element(metric, metric + 9) - metric);
    double t = base + d;
    if (d > 0 && d < 8) {  // peak of the triangle through its two sides
      const double l = metric[d - 1], r = metric[d + 1];
      t += 0.5 * (r - l) / (metric[d] - std::min(l, r));
    }
    sk += k;
    st += t;
    skk += static_cast<double>(k) * k;
    skt += k * t;
  }
  const double slope = (symbols * skt - sk * st) / (symbols * skk - sk * sk);
  EXPECT_NEAR((slope / ns - 1) * 1e6, 80.0, 0.5);
}

TEST(ChannelModel, EchoesAndFadingHaveTheRequestedResponseAndPower) {
  // A static echo of whole samples: y = x + g x[n - d], against the same broadcast without it.
  BroadcastConfig b;
  b.wideDeviceFilter = true;
  ChannelConfig echo;
  echo.echoes.push_back({3.0 / kBroadcastRateHz * 1e6, -6.0, 60.0});  // three device samples
  double k0 = 0, k1 = 0;
  const Samples x = DeviceSamples(b, ChannelConfig{}, 20000, &k0);
  const Samples y = DeviceSamples(b, echo, x.size(), &k1);
  const cd gain = std::polar(std::pow(10.0, -6.0 / 20.0), 60.0 * M_PI / 180.0);
  double err = 0, ref = 0;
  for (size_t n = 3; n < x.size(); ++n) {
    const cd want = (cd(x[n]) + gain * cd(x[n - 3])) * (k1 / k0);
    err += std::norm(cd(y[n]) - want);
    ref += std::norm(want);
  }
  EXPECT_LT(err / ref, 1e-8);
  EXPECT_NEAR(Make(b, echo)->TotalPower() / Make(b, ChannelConfig{})->TotalPower(), 1.0 + std::pow(10.0, -0.6), 1e-9);

  // Rayleigh fading on the typical-urban profile: mean received power over many fades is the
  // transmitted one (both components at the RMS level), and it does fade.
  ChannelConfig cf;
  cf.dopplerHz = 200;
  const Samples f = DeviceSamples(b, cf, static_cast<size_t>(kBroadcastRateHz * 2));
  std::vector<double> blocks;
  for (size_t start = 0; start + 2000 <= f.size(); start += 2000) {
    double p = 0;
    for (size_t n = start; n < start + 2000; ++n) p += std::norm(cd(f[n])) / 2000;
    blocks.push_back(p);
  }
  double mean = 0;
  for (double p : blocks) mean += p / static_cast<double>(blocks.size());
  EXPECT_NEAR(mean / (2.0 * cf.rmsLevel * cf.rmsLevel), 1.0, 0.25);
  EXPECT_GT(*std::max_element(blocks.begin(), blocks.end()) / *std::min_element(blocks.begin(), blocks.end()), 4.0);
}

TEST(ChannelModel, BadSettingsAreRefusedWithAReason) {
  BroadcastConfig b;
  ChannelConfig c;
  EXPECT_EQ(CheckConfig(b, c), "");
  b.mode = 4;
  EXPECT_NE(CheckConfig(b, c), "");
  b = {};
  c.carrierOffsetHz = 150e3;
  EXPECT_NE(CheckConfig(b, c).find("carrier offset"), std::string::npos);
  c = {};
  c.echoes.push_back({-1, -6, 0});
  EXPECT_NE(CheckConfig(b, c), "");
  std::string error;
  EXPECT_EQ(SignalGenerator::Create(b, c, nullptr, &error), nullptr);
  EXPECT_NE(error, "");
  EXPECT_EQ(OpenTsFile("/nonexistent/file.ts", 416e3, &error), nullptr);
  EXPECT_NE(error.find("cannot open"), std::string::npos);
}

}  // namespace
}  // namespace zfn::sim
