// Signal facts of the channel model and of the generic SDR, measured here with plain DFTs and
// correlations on what the generator gives out. That the broadcast carries its pilots, TMCC and
// guard intervals where the standard puts them is proven by the receiver, which finds them end to
// end; the carrier and clock offsets by the receiver's estimates of them (acquisition, tracking).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numeric>
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

cd Dft(const cd* x, int n, int bin) {
  static std::vector<cd> turn;  // e^(-2 pi i k / n) of the last n
  if (turn.size() != static_cast<size_t>(n)) {
    turn.resize(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) turn[static_cast<size_t>(k)] = std::polar(1.0, -2.0 * M_PI * k / n);
  }
  cd sum = 0;
  for (int k = 0; k < n; ++k) sum += x[k] * turn[static_cast<size_t>((static_cast<int64_t>(bin) * k) % n)];
  return sum;
}

// At the device rate the guard interval is an exact copy of the symbol's end. From a generic SDR,
// behind the transmitter's and its own filters, which run on across the symbol edges, it is not:
// the copy holds in the middle of the guard only.
TEST(TransmitterSignal, GuardIsACopyOfTheSymbolEndExceptAtItsEdgesFromAnSdr) {
  for (int mode : {1, 3}) {
    BroadcastConfig b;
    b.mode = mode;
    b.guard = mode == 1 ? 3 : 2;
    const int n1 = NumbersOfMode(mode).n1, ns = 2 * EngineSamplesPerSymbol(b), ng = ns / 2 - n1;
    const Samples y = DeviceSamples(b, ChannelConfig{}, static_cast<size_t>(4 * ns));
    for (int k = 0; k < 3; ++k)
      for (int i = 0; i < 2 * ng; ++i) ASSERT_EQ(y[static_cast<size_t>(k * ns + i)], y[static_cast<size_t>(k * ns + i + 2 * n1)]);
    ChannelConfig sdr;
    sdr.frontEnd = FrontEnd::Sdr;
    const Samples z = DeviceSamples(b, sdr, static_cast<size_t>(4 * ns));
    double edge = 0, middle = 0, power = 0;
    for (int k = 1; k < 3; ++k)
      for (int i = 0; i < 2 * ng; ++i) {
        const size_t at = static_cast<size_t>(k * ns + i);
        const double e = std::norm(cd(z[at]) - cd(z[at + static_cast<size_t>(2 * n1)]));
        if (i < 4) edge += e;
        if (i >= 24 && i < 2 * ng - 24) middle += e;
        power += std::norm(cd(z[at]));
      }
    const double perSample = power / (4 * ng);
    EXPECT_GT(edge / 8 / perSample, 1e-3) << "mode " << mode;
    EXPECT_LT(middle / (2 * (2 * ng - 48)) / perSample, 1e-6) << "mode " << mode;
  }
}

// C/N over segment 0's band is the requested one from both front ends. Thermal noise enters ahead
// of the receiver's filter: the device's keeps it out beyond its band (what would fold onto
// segment 0 when the engine keeps every second sample), a generic SDR's passes nearly all of
// +-1.016 MHz.
TEST(ChannelModel, MeasuredCarrierToNoiseIsTheRequestedOne) {
  struct Case {
    FrontEnd frontEnd;
    // Noise density at 0.86..0.89 MHz from DC against segment 0's, in dB: at most and at least
    // (the plain transform leaks some of the band's noise there).
    double outerAtMost, outerAtLeast;
  };
  for (const Case& k : {Case{FrontEnd::Device, -25.0, -200.0}, Case{FrontEnd::Sdr, 0.5, -0.5}}) {
    BroadcastConfig b;  // Mode 3, 1/8
    ChannelConfig clean;
    clean.frontEnd = k.frontEnd;
    clean.dcI = clean.dcQ = 0.0;  // the two streams below have different scales
    ChannelConfig noisy = clean;
    noisy.noise = true;
    noisy.cnDb = 12.0;
    const int ns = 2 * EngineSamplesPerSymbol(b);
    const int m = 2 * NumbersOfMode(3).n1;
    const int nc = NumbersOfMode(3).nc;
    const int symbols = 16;
    // Same seeds: the difference is the noise alone, up to the scale of each generator.
    double k0 = 0, k1 = 0;
    const Samples s = DeviceSamples(b, clean, static_cast<size_t>(ns * symbols), &k0);
    const Samples y = DeviceSamples(b, noisy, s.size(), &k1);
    double c = 0, n = 0, outer = 0;
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
      for (int j = 867; j < 897; ++j) outer += std::norm(Dft(noise.data(), m, j)) + std::norm(Dft(noise.data(), m, m - j));
    }
    const char* name = k.frontEnd == FrontEnd::Sdr ? "sdr" : "device";
    EXPECT_NEAR(10 * std::log10(c / n), 12.0, 0.25) << name;
    const double outerDb = 10 * std::log10(outer / 60 / (n / nc));
    EXPECT_LT(outerDb, k.outerAtMost) << name;
    EXPECT_GT(outerDb, k.outerAtLeast) << name;
    // Gaussian: kurtosis 3 on each component.
    double m2 = 0, m4 = 0;
    for (size_t i = 0; i < s.size(); ++i) {
      const double v = y[i].real() / k1 - s[i].real() / k0;
      m2 += v * v;
      m4 += v * v * v * v;
    }
    EXPECT_NEAR(m4 * static_cast<double>(s.size()) / (m2 * m2), 3.0, 0.1) << name;
  }
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
  const double mean = std::accumulate(blocks.begin(), blocks.end(), 0.0) / static_cast<double>(blocks.size());
  EXPECT_NEAR(mean / (2.0 * cf.rmsLevel * cf.rmsLevel), 1.0, 0.25);
  EXPECT_GT(*std::max_element(blocks.begin(), blocks.end()) / *std::min_element(blocks.begin(), blocks.end()), 4.0);
}

// A generic SDR's analogue faults measured back from its bytes: DC offset (around 127.5, against
// the same stream without it: the scattered pilots make spectral lines, some near DC), I/Q gain
// and phase imbalance, and the level. The carrier offset turns the pilots, which would otherwise
// put more power on I than on Q.
TEST(GenericSdr, DcOffsetImbalanceAndLevelAreTheSetOnes) {
  struct Case {
    double dcI, dcQ, gainDb, phaseDeg, level;
  };
  for (const Case& k : {Case{1.5, -1.0, 0.3, 2.0, 28}, Case{-4.0, 6.0, -1.0, -5.0, 40}}) {
    ChannelConfig c;
    c.frontEnd = FrontEnd::Sdr;
    c.noise = true;
    c.cnDb = 15;
    c.carrierOffsetHz = 12345;
    c.iqGainDb = k.gainDb;
    c.iqPhaseDeg = k.phaseDeg;
    c.rmsLevel = k.level;
    // Means, variances and the covariance of I and Q.
    auto moments = [&](double dcI, double dcQ) {
      c.dcI = dcI;
      c.dcQ = dcQ;
      std::vector<uint8_t> bytes(1 << 20);
      Make(BroadcastConfig{}, c)->GenerateBytes(bytes.data(), bytes.size());
      std::array<double, 5> m{};
      for (size_t j = 0; j < bytes.size(); j += 2) {
        const double i = bytes[j] - 127.5, q = bytes[j + 1] - 127.5;
        for (int t = 0; const double v : {i, q, i * i, q * q, i * q}) m[t++] += v;
      }
      for (double& v : m) v /= static_cast<double>(bytes.size() / 2);
      return std::array<double, 5>{m[0], m[1], m[2] - m[0] * m[0], m[3] - m[1] * m[1], m[4] - m[0] * m[1]};
    };
    const auto without = moments(0, 0), m = moments(k.dcI, k.dcQ);
    EXPECT_NEAR(m[0] - without[0], k.dcI, 0.05);
    EXPECT_NEAR(m[1] - without[1], k.dcQ, 0.05);
    EXPECT_NEAR(10 * std::log10(m[2] / m[3]), k.gainDb, 0.05);
    EXPECT_NEAR(std::asin(m[4] / std::sqrt(m[2] * m[3])) * 180 / M_PI, k.phaseDeg, 0.2);
    EXPECT_NEAR(std::sqrt(std::sqrt(m[2] * m[3])) / k.level, 1.0, 0.02);
  }
}

// Whole USB transfers are lost at the set rate, and nothing else: every transfer delivered is one
// of the stream without losses, in order.
TEST(GenericSdr, WholeTransfersAreLostAtTheSetRate) {
  ChannelConfig c;
  c.frontEnd = FrontEnd::Sdr;
  c.noise = true;
  c.cnDb = 20;
  ChannelConfig lossy = c;
  lossy.transferBytes = 4096;
  lossy.transferLossOneIn = 4;
  const size_t transfers = 150;
  std::vector<uint8_t> got(transfers * 4096), all(2 * transfers * 4096);
  auto g = Make(BroadcastConfig{}, lossy);
  g->GenerateBytes(got.data(), got.size());
  Make(BroadcastConfig{}, c)->GenerateBytes(all.data(), all.size());
  size_t at = 0;  // transfer of the stream without losses
  for (size_t t = 0; t < transfers; ++t, ++at) {
    while (at < 2 * transfers && !std::equal(got.begin() + static_cast<std::ptrdiff_t>(t * 4096), got.begin() + static_cast<std::ptrdiff_t>((t + 1) * 4096),
                                             all.begin() + static_cast<std::ptrdiff_t>(at * 4096)))
      ++at;
    ASSERT_LT(at, 2 * transfers) << "transfer " << t << " is none of the stream's";
  }
  EXPECT_EQ(static_cast<int64_t>(at - transfers), g->TransfersLost());
  // One in four of 150 + lost: about 50, 6.1 of standard deviation.
  EXPECT_NEAR(static_cast<double>(g->TransfersLost()), 50.0, 20.0);
  ChannelConfig bad = lossy;
  bad.transferLossOneIn = 1;
  EXPECT_NE(CheckConfig(BroadcastConfig{}, bad), "");
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
}

}  // namespace
}  // namespace zfn::sim
