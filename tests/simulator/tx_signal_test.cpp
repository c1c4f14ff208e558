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

std::unique_ptr<SignalGenerator> Make(const BroadcastConfig& b, const ChannelConfig& c) {
  std::string error;
  auto g = SignalGenerator::Create(b, c, MakeTestPatternSource(3), &error);
  EXPECT_TRUE(g) << error;
  return g;
}

// Engine-rate samples: bytes 0 and 1 of every group of four.
std::vector<cd> EngineSamples(const std::vector<uint8_t>& bytes) {
  std::vector<cd> x(bytes.size() / 4);
  for (size_t n = 0; n < x.size(); ++n) x[n] = {bytes[4 * n] - 127.0, bytes[4 * n + 1] - 127.0};
  return x;
}

cd Dft(const cd* x, int n, int bin) {
  cd sum = 0;
  for (int k = 0; k < n; ++k) sum += x[k] * std::polar(1.0, -2.0 * M_PI * static_cast<double>((static_cast<int64_t>(bin) * k) % n) / n);
  return sum;
}

TEST(TransmitterSignal, CyclicPrefixCorrelationPeaksAtTheSymbolStart) {
  for (int mode : {1, 3}) {
    BroadcastConfig b;
    b.mode = mode;
    b.guard = mode == 1 ? 3 : 2;
    ChannelConfig c;
    auto g = Make(b, c);
    const int n1 = NumbersOfMode(mode).n1;
    const int nse = EngineSamplesPerSymbol(b);
    const int ng = nse - n1;
    const int symbols = 24;
    std::vector<uint8_t> bytes(static_cast<size_t>(symbols * nse * 4));
    g->GenerateBytes(bytes.data(), bytes.size());
    const auto x = EngineSamples(bytes);
    std::vector<double> metric(static_cast<size_t>(nse), 0.0);
    for (int d = 0; d < nse; ++d) {
      for (int k = 0; k + 1 < symbols; ++k) {
        cd acc = 0;
        const size_t at = static_cast<size_t>(k * nse + d);
        for (int i = 0; i < ng; ++i) acc += x[at + static_cast<size_t>(i)] * std::conj(x[at + static_cast<size_t>(i + n1)]);
        metric[static_cast<size_t>(d)] += std::abs(acc);
      }
    }
    const int peak = static_cast<int>(std::max_element(metric.begin(), metric.end()) - metric.begin());
    EXPECT_EQ(peak, 0) << "mode " << mode;
    // At the device rate the prefix is an exact copy of the symbol's end.
    auto g2 = Make(b, c);
    std::vector<std::complex<float>> y(static_cast<size_t>(4 * g2->DeviceSamplesPerSymbol()));
    g2->GenerateSamples(y.data(), y.size());
    const int ns = g2->DeviceSamplesPerSymbol();
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
    auto g = Make(b, ChannelConfig{});
    const ModeNumbers mn = NumbersOfMode(mode);
    const int nse = EngineSamplesPerSymbol(b);
    const int ng = nse - mn.n1;
    const int frames = mode == 1 ? 2 : 1;
    std::vector<uint8_t> bytes(static_cast<size_t>(frames * 204 * nse * 4));
    g->GenerateBytes(bytes.data(), bytes.size());
    const auto x = EngineSamples(bytes);
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
  ChannelConfig clean;
  ChannelConfig noisy;
  noisy.noise = true;
  noisy.cnDb = 12.0;
  auto g0 = Make(b, clean);
  auto g1 = Make(b, noisy);
  const int ns = g0->DeviceSamplesPerSymbol();
  const int m = 2 * NumbersOfMode(3).n1;
  const int nc = NumbersOfMode(3).nc;
  const int symbols = 24;
  std::vector<std::complex<float>> s(static_cast<size_t>(ns * symbols)), y(s.size());
  g0->GenerateSamples(s.data(), s.size());
  g1->GenerateSamples(y.data(), y.size());
  // Same seeds: the difference is the noise alone, up to the scale of each generator.
  const double k0 = g0->ByteScale(), k1 = g1->ByteScale();
  double c = 0, n = 0;
  std::vector<cd> sig(static_cast<size_t>(m)), noise(static_cast<size_t>(m));
  for (int sym = 0; sym < symbols; ++sym) {
    const size_t at = static_cast<size_t>(sym * ns + (ns - m));
    for (int i = 0; i < m; ++i) {
      sig[static_cast<size_t>(i)] = cd(s[at + static_cast<size_t>(i)]) / k0;
      noise[static_cast<size_t>(i)] = cd(y[at + static_cast<size_t>(i)]) / k1 - sig[static_cast<size_t>(i)];
    }
    for (int j = 0; j < nc; ++j) {
      const int bin = ((j - nc / 2) % m + m) % m;
      c += std::norm(Dft(sig.data(), m, bin));
      n += std::norm(Dft(noise.data(), m, bin));
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
  m2 /= static_cast<double>(s.size());
  m4 /= static_cast<double>(s.size());
  EXPECT_NEAR(m4 / (m2 * m2), 3.0, 0.1);
}

TEST(ChannelModel, MeasuredFrequencyAndClockOffsetsAreTheRequestedOnes) {
  // Frequency: the offset stream against the clean one.
  {
    ChannelConfig c0, c1;
    c1.carrierOffsetHz = 23456.7;
    // The device filter moves with the offset; a wide one keeps the same carriers in both.
    BroadcastConfig wide;
    wide.wideDeviceFilter = true;
    auto g0 = Make(wide, c0);
    auto g1 = Make(wide, c1);
    std::vector<std::complex<float>> x(200000), y(x.size());
    g0->GenerateSamples(x.data(), x.size());
    g1->GenerateSamples(y.data(), y.size());
    cd acc = 0;
    for (size_t n = 1000; n < x.size(); n += 1000) {
      const cd r0 = cd(y[n - 1000]) * std::conj(cd(x[n - 1000]));
      const cd r1 = cd(y[n]) * std::conj(cd(x[n]));
      acc += r1 * std::conj(r0);
    }
    const double perSample = std::arg(acc) / 1000.0;
    // 1000 samples turn by 2*pi*23456.7*1000/fs = 72.5 rad: unwrap with the known whole turns.
    const double turns = std::round((2 * M_PI * 23456.7 * 1000 / kBroadcastRateHz - std::arg(acc)) / (2 * M_PI));
    const double hz = (perSample + turns * 2 * M_PI / 1000.0) * kBroadcastRateHz / (2 * M_PI);
    EXPECT_NEAR(hz, 23456.7, 0.05);
  }
  // Clock: the symbol starts drift by the offset; fitted over a second of Mode 1 symbols.
  {
    BroadcastConfig b;
    b.mode = 1;
    b.guard = 3;
    ChannelConfig c;
    c.clockPpm = 80.0;
    auto g = Make(b, c);
    const int ns = g->DeviceSamplesPerSymbol();  // 640 at the device rate
    const int m = 512, ng = ns - m;
    const int symbols = 3000;
    std::vector<std::complex<float>> y(static_cast<size_t>(ns) * (symbols + 2));
    g->GenerateSamples(y.data(), y.size());
    double sk = 0, st = 0, skk = 0, skt = 0;
    for (int k = 0; k < symbols; ++k) {
      const double nominal = k * ns * (1 + 80e-6);
      const int base = static_cast<int>(std::floor(nominal)) - 4;
      double best = -1, bestD = 0, metric[9];
      for (int d = 0; d < 9; ++d) {
        cd acc = 0;
        const int at = base + d;
        if (at < 0) {
          metric[d] = 0;
          continue;
        }
        for (int i = 0; i < ng; ++i) acc += cd(y[static_cast<size_t>(at + i)]) * std::conj(cd(y[static_cast<size_t>(at + i + m)]));
        metric[d] = std::abs(acc);
        if (metric[d] > best) {
          best = metric[d];
          bestD = d;
        }
      }
      const int d = static_cast<int>(bestD);
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
}

TEST(ChannelModel, EchoesAndFadingHaveTheRequestedResponseAndPower) {
  // A static echo of whole samples: y = x + g x[n - d], against the same broadcast without it.
  BroadcastConfig b;
  b.wideDeviceFilter = true;
  ChannelConfig c0, c1;
  const double delayUs = 3.0 / kBroadcastRateHz * 1e6;  // three device samples
  c1.echoes.push_back({delayUs, -6.0, 60.0});
  auto g0 = Make(b, c0);
  auto g1 = Make(b, c1);
  std::vector<std::complex<float>> x(20000), y(x.size());
  g0->GenerateSamples(x.data(), x.size());
  g1->GenerateSamples(y.data(), y.size());
  const cd gain = std::polar(std::pow(10.0, -6.0 / 20.0), 60.0 * M_PI / 180.0);
  const double ratio = g1->ByteScale() / g0->ByteScale();
  double err = 0, ref = 0;
  for (size_t n = 3; n < x.size(); ++n) {
    const cd want = (cd(x[n]) + gain * cd(x[n - 3])) * ratio;
    err += std::norm(cd(y[n]) - want);
    ref += std::norm(want);
  }
  EXPECT_LT(err / ref, 1e-8);
  EXPECT_NEAR(g1->TotalPower() / g0->TotalPower(), 1.0 + std::pow(10.0, -0.6), 1e-9);

  // Rayleigh fading on the typical-urban profile: mean received power over many fades is the
  // transmitted one, and it does fade.
  ChannelConfig cf;
  cf.dopplerHz = 200;
  auto gf = Make(b, cf);
  std::vector<std::complex<float>> f(static_cast<size_t>(kBroadcastRateHz * 2));
  gf->GenerateSamples(f.data(), f.size());
  double mean = 0, minBlock = 1e30, maxBlock = 0;
  const size_t block = 2000;
  for (size_t start = 0; start + block <= f.size(); start += block) {
    double p = 0;
    for (size_t n = start; n < start + block; ++n) p += std::norm(cd(f[n]));
    p /= block;
    mean += p;
    minBlock = std::min(minBlock, p);
    maxBlock = std::max(maxBlock, p);
  }
  mean /= static_cast<double>(f.size() / block);
  const double expected = 2.0 * cf.rmsLevel * cf.rmsLevel;  // both components at the RMS level
  EXPECT_NEAR(mean / expected, 1.0, 0.25);
  EXPECT_GT(maxBlock / minBlock, 4.0);
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
