// Channel model stages. See channel_model.h.
#include "simulator/channel_model.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace zfn::sim {

namespace {
constexpr double kPi = 3.141592653589793;
constexpr int kFadingSinusoids = 12;
constexpr int kFadingUpdate = 16;  // samples with the same taps
// The sum of sinusoids is evaluated at anchors a whole number of updates apart and the taps are
// interpolated linearly between them: a path's phase may turn by at most this much from one anchor
// to the next, which keeps the interpolation error below -70 dB of the path's power.
constexpr double kAnchorPhase = 0.05;
constexpr int kMaxAnchorUpdates = 64;
constexpr int kStaticStretch = 64;  // samples per pass of the tap loop when nothing fades

// Complex products written out: the library multiply checks for infinities on every call.
template <typename T>
std::complex<T> Mul(std::complex<T> a, std::complex<T> b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

// Blackman-windowed sinc over |x| < 8.
double Kernel(double x) {
  if (std::fabs(x) >= 8.0) return 0.0;
  const double s = std::fabs(x) < 1e-12 ? 1.0 : std::sin(kPi * x) / (kPi * x);
  const double w = 0.42 + 0.5 * std::cos(kPi * x / 8.0) + 0.08 * std::cos(2.0 * kPi * x / 8.0);
  return s * w;
}

struct ProfilePath {
  double delayUs;
  double powerDb;
};
// COST 207 typical urban, six paths.
constexpr ProfilePath kTu6[6] = {{0.0, -3.0}, {0.2, 0.0}, {0.5, -2.0}, {1.6, -6.0}, {2.3, -8.0}, {5.0, -10.0}};
}  // namespace

// ---------------------------------------------------------------------------------------------
std::vector<float> KaiserLowpass(double cutoff, double transition, double attenuationDb) {
  const double a = attenuationDb;
  const double beta = a > 50 ? 0.1102 * (a - 8.7) : a > 21 ? 0.5842 * std::pow(a - 21, 0.4) + 0.07886 * (a - 21) : 0.0;
  int length = static_cast<int>(std::ceil((a - 8) / (2.285 * 2 * kPi * transition))) + 1;
  length |= 1;
  const int mid = length / 2;
  std::vector<double> h(static_cast<size_t>(length));
  double sum = 0;
  for (int n = 0; n < length; ++n) {
    const double t = n - mid;
    const double x = 2 * kPi * cutoff * t;
    const double sinc = t == 0 ? 2 * cutoff : std::sin(x) / (kPi * t);
    const double r = mid > 0 ? static_cast<double>(t) / mid : 0.0;
    h[static_cast<size_t>(n)] = sinc * std::cyl_bessel_i(0.0, beta * std::sqrt(std::max(0.0, 1 - r * r))) / std::cyl_bessel_i(0.0, beta);
    sum += h[static_cast<size_t>(n)];
  }
  std::vector<float> taps(h.size());
  for (size_t n = 0; n < h.size(); ++n) taps[n] = static_cast<float>(h[n] / sum);
  return taps;
}

FirFilter::FirFilter(const std::vector<float>& taps, int decimation, int maxBlock)
    : length_(static_cast<int>(taps.size())), decimation_(decimation) {
  // Output k is the sum over u of g[u] x[k D + u] along the buffer (history then block), whose
  // history holds H = G - D samples: g[H - t] = h[t].
  const int g = (length_ + decimation - 1 + 7) / 8 * 8;
  history_ = g - decimation;
  taps_.assign(static_cast<size_t>(g), 0.0f);
  for (int t = 0; t < length_; ++t) taps_[static_cast<size_t>(history_ - t)] = taps[static_cast<size_t>(t)];
  // One plane per phase of the decimation (sample p + D j of the buffer in plane p), real and
  // imaginary parts apart, so that the loops over outputs run on contiguous floats.
  const size_t plane = static_cast<size_t>(history_ / decimation + maxBlock / decimation + 1);
  re_.assign(static_cast<size_t>(decimation), std::vector<float>(plane, 0.0f));
  im_ = re_;
}

void FirFilter::Process(const std::complex<float>* in, int count, std::complex<float>* out) {
  const int d = decimation_;
  const int n = count / d;
  const int hist = history_ / d;
  for (int j = 0; j < n; ++j)
    for (int p = 0; p < d; ++p) {
      re_[static_cast<size_t>(p)][static_cast<size_t>(hist + j)] = in[d * j + p].real();
      im_[static_cast<size_t>(p)][static_cast<size_t>(hist + j)] = in[d * j + p].imag();
    }
  constexpr int kStretch = 64;
  const int perPlane = static_cast<int>(taps_.size()) / d;
  for (int start = 0; start < n; start += kStretch) {
    const int len = std::min(n - start, kStretch);
    float ar[kStretch] = {}, ai[kStretch] = {};
    for (int p = 0; p < d; ++p)
      for (int v = 0; v < perPlane; ++v) {
        const float c = taps_[static_cast<size_t>(d * v + p)];
        if (c == 0.0f) continue;
        const float* xr = re_[static_cast<size_t>(p)].data() + start + v;
        const float* xi = im_[static_cast<size_t>(p)].data() + start + v;
        for (int k = 0; k < len; ++k) {
          ar[k] += c * xr[k];
          ai[k] += c * xi[k];
        }
      }
    for (int k = 0; k < len; ++k) out[start + k] = {ar[k], ai[k]};
  }
  for (int p = 0; p < d; ++p) {
    std::memmove(re_[static_cast<size_t>(p)].data(), re_[static_cast<size_t>(p)].data() + n, sizeof(float) * static_cast<size_t>(hist));
    std::memmove(im_[static_cast<size_t>(p)].data(), im_[static_cast<size_t>(p)].data() + n, sizeof(float) * static_cast<size_t>(hist));
  }
}

double FirFilter::NoiseGain() const {
  double sum = 0;
  for (float t : taps_) sum += static_cast<double>(t) * t;
  return sum;
}

double FirFilter::PowerResponse(double f) const {
  std::complex<double> sum = 0;
  for (size_t t = 0; t < taps_.size(); ++t) sum += static_cast<double>(taps_[t]) * std::polar(1.0, -2 * kPi * f * static_cast<double>(t));
  return std::norm(sum);
}

std::vector<float> DeviceNoiseTaps(const BroadcastConfig& b) {
  if (b.wideDeviceFilter) return {};
  // Flat to 60 kHz inside the edge, 55 dB down from 20 kHz beyond it: what would fold onto
  // segment 0 when the receiver keeps every second sample (from 0.80 MHz) stays out.
  return KaiserLowpass((b.deviceFilterHz - 20e3) / kBroadcastRateHz, 80e3 / kBroadcastRateHz, 55.0);
}

// ---------------------------------------------------------------------------------------------
MultipathFilter::MultipathFilter(const ChannelConfig& c, int maxBlock, double rateHz) {
  fading_ = c.dopplerHz > 0.0;
  active_ = fading_ || !c.echoes.empty();
  if (!active_) return;
  Rng rng(c.seed ^ 0xFADE5ull);
  const double fs = rateHz;
  if (fading_) {
    std::vector<ProfilePath> profile;
    if (c.profile == FadingProfile::Tu6) profile.assign(std::begin(kTu6), std::end(kTu6));
    else profile.push_back({0.0, 0.0});
    double total = 0;
    for (const auto& p : profile) total += std::pow(10.0, p.powerDb / 10.0);
    for (const auto& p : profile) {
      Path path{};
      path.delay = p.delayUs * 1e-6 * fs;
      path.power = std::pow(10.0, p.powerDb / 10.0) / total;
      path.fading = true;
      // Sum of sinusoids with the classical Doppler spectrum (Zheng and Xiao).
      const double theta = (rng.Uniform() * 2.0 - 1.0) * kPi;
      const double perUpdate = 2.0 * kPi * c.dopplerHz / fs * kFadingUpdate;
      anchorUpdates_ = std::clamp(static_cast<int>(kAnchorPhase / perUpdate), 1, kMaxAnchorUpdates);
      for (int m = 1; m <= kFadingSinusoids; ++m) {
        const double alpha = (2.0 * kPi * m - kPi + theta) / (4.0 * kFadingSinusoids);
        const double wI = 2.0 * kPi * c.dopplerHz * std::cos(alpha) / fs * kFadingUpdate * anchorUpdates_;
        const double wQ = 2.0 * kPi * c.dopplerHz * std::sin(alpha) / fs * kFadingUpdate * anchorUpdates_;
        // The first taps are those one update after the random start.
        path.phasorsI.push_back(std::polar(1.0, rng.Uniform() * 2.0 * kPi + wI / anchorUpdates_));
        path.phasorsQ.push_back(std::polar(1.0, rng.Uniform() * 2.0 * kPi + wQ / anchorUpdates_));
        path.stepsI.push_back(std::polar(1.0, wI));
        path.stepsQ.push_back(std::polar(1.0, wQ));
      }
      paths_.push_back(std::move(path));
    }
  } else {
    Path main{};
    main.power = 1.0;
    main.gain = 1.0;
    paths_.push_back(main);
  }
  for (const auto& e : c.echoes) {
    Path path{};
    path.delay = e.delayUs * 1e-6 * fs;
    path.power = std::pow(10.0, e.gainDb / 10.0);
    path.gain = std::polar(std::sqrt(path.power), e.phaseDeg * kPi / 180.0);
    paths_.push_back(path);
  }
  powerGain_ = 0;
  double maxDelay = 0;
  bool fractional = fading_;
  for (const auto& p : paths_) {
    powerGain_ += p.power;
    maxDelay = std::max(maxDelay, p.delay);
    if (std::fabs(p.delay - std::round(p.delay)) > 1e-9) fractional = true;
  }
  base_ = fractional ? 7 : 0;
  taps_ = base_ + static_cast<int>(std::ceil(maxDelay)) + (fractional ? 9 : 1);
  for (auto& p : paths_) {
    p.kernel.resize(static_cast<size_t>(taps_));
    for (int t = 0; t < taps_; ++t) p.kernel[static_cast<size_t>(t)] = Kernel(t - base_ - p.delay);
  }
  h_.assign(static_cast<size_t>(taps_), {0.0f, 0.0f});
  hStep_.assign(static_cast<size_t>(taps_), {0.0f, 0.0f});
  workRe_.assign(static_cast<size_t>(taps_ - 1 + maxBlock), 0.0f);
  workIm_.assign(static_cast<size_t>(taps_ - 1 + maxBlock), 0.0f);
  UpdateGains();
  BuildTaps(h_);
  if (fading_) NextAnchor();
}

// Taps at the next anchor: h_ walks there in anchorUpdates_ equal steps of hStep_.
void MultipathFilter::NextAnchor() {
  UpdateGains();
  BuildTaps(hStep_);
  const float inv = 1.0f / static_cast<float>(anchorUpdates_);
  for (int t = 0; t < taps_; ++t) {
    const auto i = static_cast<size_t>(t);
    hStep_[i] = (hStep_[i] - h_[i]) * inv;
  }
  sinceAnchor_ = 0;
}

void MultipathFilter::UpdateGains() {
  for (auto& p : paths_) {
    if (!p.fading) continue;
    double re = 0, im = 0;
    for (size_t m = 0; m < p.phasorsI.size(); ++m) {
      re += p.phasorsI[m].real();
      im += p.phasorsQ[m].real();
      p.phasorsI[m] = Mul(p.phasorsI[m], p.stepsI[m]);
      p.phasorsQ[m] = Mul(p.phasorsQ[m], p.stepsQ[m]);
    }
    p.gain = std::complex<double>(re, im) * std::sqrt(p.power / static_cast<double>(p.phasorsI.size()));
  }
  if (++updateCounter_ == 4096) {  // keep the rotating phasors on the unit circle
    updateCounter_ = 0;
    for (auto& p : paths_)
      for (size_t m = 0; m < p.phasorsI.size(); ++m) {
        p.phasorsI[m] /= std::abs(p.phasorsI[m]);
        p.phasorsQ[m] /= std::abs(p.phasorsQ[m]);
      }
  }
}

void MultipathFilter::BuildTaps(std::vector<std::complex<float>>& h) const {
  for (int t = 0; t < taps_; ++t) {
    std::complex<double> sum = 0;
    for (const auto& p : paths_) sum += p.gain * p.kernel[static_cast<size_t>(t)];
    h[static_cast<size_t>(t)] = std::complex<float>(sum);
  }
}

void MultipathFilter::Process(const std::complex<float>* in, std::complex<float>* out, int count) {
  const int hist = taps_ - 1;
  // Real and imaginary parts in separate planes, so that the loops over samples need no shuffles.
  float* xr = workRe_.data() + hist;
  float* xi = workIm_.data() + hist;
  const float* v = reinterpret_cast<const float*>(in);
  for (int n = 0; n < count; ++n) {
    xr[n] = v[2 * n];
    xi[n] = v[2 * n + 1];
  }
  // Static taps allow long stretches; fading taps change every update.
  const int stretch = fading_ ? kFadingUpdate : kStaticStretch;
  for (int start = 0; start < count; start += stretch) {
    const int len = std::min(count - start, stretch);
    // Tap by tap over the stretch, so that the inner loop runs over samples and vectorises.
    float re[kStaticStretch] = {}, im[kStaticStretch] = {};
    for (int t = 0; t < taps_; ++t) {
      const float hr = h_[static_cast<size_t>(t)].real(), hi = h_[static_cast<size_t>(t)].imag();
      const float* ar = xr + start - t;
      const float* ai = xi + start - t;
      for (int n = 0; n < len; ++n) {
        re[n] += hr * ar[n] - hi * ai[n];
        im[n] += hr * ai[n] + hi * ar[n];
      }
    }
    for (int n = 0; n < len; ++n) out[start + n] = {re[n], im[n]};
    if (fading_) {
      // One update further along the straight line to the next anchor; at the anchor, the exact
      // taps there and the line to the one after.
      for (int t = 0; t < taps_; ++t) h_[static_cast<size_t>(t)] += hStep_[static_cast<size_t>(t)];
      if (++sinceAnchor_ == anchorUpdates_) NextAnchor();
    }
  }
  std::memmove(workRe_.data(), workRe_.data() + count, sizeof(float) * static_cast<size_t>(hist));
  std::memmove(workIm_.data(), workIm_.data() + count, sizeof(float) * static_cast<size_t>(hist));
}

// ---------------------------------------------------------------------------------------------
ClockResampler::ClockResampler(double ppm, int maxBlock) : active_(ppm != 0.0) {
  step_ = static_cast<uint64_t>(std::llround(4294967296.0 / (1.0 + ppm * 1e-6)));
  if (!active_) return;
  // Each tap twice, once for the real and once for the imaginary part of a sample.
  table_.resize(static_cast<size_t>((kPhases + 1) * 2 * kTaps));
  for (int j = 0; j <= kPhases; ++j) {
    const double frac = static_cast<double>(j) / kPhases;
    double sum = 0;
    for (int i = 0; i < kTaps; ++i) sum += Kernel(i - 7 - frac);
    for (int i = 0; i < kTaps; ++i) {
      const auto v = static_cast<float>(Kernel(i - 7 - frac) / sum);
      table_[static_cast<size_t>(j * 2 * kTaps + 2 * i)] = v;
      table_[static_cast<size_t>(j * 2 * kTaps + 2 * i + 1)] = v;
    }
  }
  buf_.assign(static_cast<size_t>(maxBlock + 4 * kTaps), {0.0f, 0.0f});
  fill_ = 7;  // seven zeros of history before the first input sample
  frac_ = static_cast<uint64_t>(7) << 32;
}

void ClockResampler::Push(const std::complex<float>* in, int count) {
  std::memcpy(static_cast<void*>(buf_.data() + fill_), in, sizeof(std::complex<float>) * static_cast<size_t>(count));
  fill_ += count;
}

int ClockResampler::Produce(std::complex<float>* out, int count) {
  int made = 0;
  while (made < count) {
    const int ip = static_cast<int>(frac_ >> 32);
    if (ip + 9 > fill_) break;
    const int j = static_cast<int>(((frac_ & 0xFFFFFFFFull) + (1ull << 22)) >> 23);
    const float* h = table_.data() + static_cast<size_t>(j * 2 * kTaps);
    const float* x = reinterpret_cast<const float*>(buf_.data() + ip - 7);
    // Four independent sums (re, im, re, im) that the compiler keeps in one vector.
    float acc[4] = {0, 0, 0, 0};
    for (int i = 0; i < 2 * kTaps; i += 4) {
      acc[0] += h[i] * x[i];
      acc[1] += h[i + 1] * x[i + 1];
      acc[2] += h[i + 2] * x[i + 2];
      acc[3] += h[i + 3] * x[i + 3];
    }
    out[made++] = {acc[0] + acc[2], acc[1] + acc[3]};
    frac_ += step_;
  }
  // Keep seven samples of history before the next position.
  const int drop = static_cast<int>(frac_ >> 32) - 7;
  if (drop > 0) {
    const int keep = fill_ - drop;
    if (keep > 0) std::memmove(static_cast<void*>(buf_.data()), buf_.data() + drop, sizeof(std::complex<float>) * static_cast<size_t>(keep));
    fill_ = std::max(keep, 0);
    frac_ -= static_cast<uint64_t>(drop) << 32;
  }
  return made;
}

// ---------------------------------------------------------------------------------------------
FrontEndStage::FrontEndStage(const ChannelConfig& c, double noiseVariance, double scale, double rateHz,
                             const std::vector<float>* noiseFilter, int maxBlock)
    : rotate_(c.carrierOffsetHz != 0.0),
      noiseSigma_(static_cast<float>(std::sqrt(noiseVariance / 2.0) * scale)),
      scale_(static_cast<float>(scale)),
      rng_(c.seed ^ 0xA5A5A5A5ull),
      gauss_(GaussianTable()) {
  phaseStep_ = 2.0 * kPi * c.carrierOffsetHz / rateHz;
  if (noiseFilter != nullptr && !noiseFilter->empty() && noiseSigma_ > 0.0f) {
    noiseFilter_ = std::make_unique<FirFilter>(*noiseFilter, 1, maxBlock);
    noise_.resize(static_cast<size_t>(maxBlock));
  }
}

void FrontEndStage::Process(std::complex<float>* x, int count) {
  if (rotate_) {
    for (int start = 0; start < count; start += 256) {
      const int end = std::min(count, start + 256);
      std::complex<float> rot = std::polar(scale_, static_cast<float>(phase_));
      const std::complex<float> step = std::polar(1.0f, static_cast<float>(phaseStep_));
      for (int n = start; n < end; ++n) {
        x[n] = Mul(x[n], rot);
        rot = Mul(rot, step);
      }
      phase_ = std::fmod(phase_ + phaseStep_ * (end - start), 2.0 * kPi);
    }
  } else {
    for (int n = 0; n < count; ++n) x[n] *= scale_;
  }
  if (noiseSigma_ > 0.0f) {
    // Each component the sum of two table draws (12 bits each) over the square root of 2: the
    // table stays in the first-level cache and the tails reach beyond 4.5 sigma.
    const float sigma = noiseSigma_ * 0.70710678f;
    std::complex<float>* y = noiseFilter_ ? noise_.data() : x;
    for (int n = 0; n < count; ++n) {
      const uint64_t r = rng_.Next();
      const float a = gauss_[r & 0xFFFu] + gauss_[(r >> 12) & 0xFFFu];
      const float b = gauss_[(r >> 24) & 0xFFFu] + gauss_[(r >> 36) & 0xFFFu];
      if (noiseFilter_) y[n] = std::complex<float>(a * sigma, b * sigma);
      else y[n] += std::complex<float>(a * sigma, b * sigma);
    }
    if (noiseFilter_) {
      // Thermal noise enters ahead of the device's filter: band-limited like the carriers.
      noiseFilter_->Process(y, count, y);
      for (int n = 0; n < count; ++n) x[n] += y[n];
    }
  }
}

void QuantiseToBytes(const std::complex<float>* x, int count, uint8_t* out) {
  // Round half up: clip first, then truncate the positive value (a loop that vectorises).
  const float* v = reinterpret_cast<const float*>(x);
  for (int n = 0; n < 2 * count; ++n) {
    const float c = std::min(std::max(v[n] + 127.5f, 0.0f), 255.5f);
    out[n] = static_cast<uint8_t>(static_cast<int>(c));
  }
}

// ---------------------------------------------------------------------------------------------
namespace {
// Inverse of the standard normal distribution (Acklam's rational approximation, refined by one
// Halley step with erfc).
double InverseNormal(double p) {
  static constexpr double a[] = {-3.969683028665376e+01, 2.209460984245205e+02, -2.759285104469687e+02,
                                 1.383577518672690e+02, -3.066479806614716e+01, 2.506628277459239e+00};
  static constexpr double b[] = {-5.447609879822406e+01, 1.615858368580409e+02, -1.556989798598866e+02,
                                 6.680131188771972e+01, -1.328068155288572e+01};
  static constexpr double c[] = {-7.784894002430293e-03, -3.223964580411365e-01, -2.400758277161838e+00,
                                 -2.549732539343734e+00, 4.374664141464968e+00, 2.938163982698783e+00};
  static constexpr double d[] = {7.784695709041462e-03, 3.224671290700398e-01, 2.445134137142996e+00,
                                 3.754408661907416e+00};
  double x;
  if (p < 0.02425) {
    const double q = std::sqrt(-2 * std::log(p));
    x = (((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) / ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1);
  } else if (p > 1 - 0.02425) {
    const double q = std::sqrt(-2 * std::log(1 - p));
    x = -(((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) / ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1);
  } else {
    const double q = p - 0.5;
    const double r = q * q;
    x = (((((a[0] * r + a[1]) * r + a[2]) * r + a[3]) * r + a[4]) * r + a[5]) * q /
        (((((b[0] * r + b[1]) * r + b[2]) * r + b[3]) * r + b[4]) * r + 1);
  }
  const double e = 0.5 * std::erfc(-x / std::sqrt(2.0)) - p;
  const double u = e * std::sqrt(2 * kPi) * std::exp(x * x / 2);
  return x - u / (1 + x * u / 2);
}

struct GaussTable {
  std::vector<float> values;
  GaussTable() : values(kGaussianTableSize) {
    double sumSq = 0;
    for (int i = 0; i < kGaussianTableSize; ++i) {
      const double v = InverseNormal((i + 0.5) / kGaussianTableSize);
      values[static_cast<size_t>(i)] = static_cast<float>(v);
      sumSq += v * v;
    }
    const double norm = 1.0 / std::sqrt(sumSq / kGaussianTableSize);  // exactly unit variance
    for (auto& v : values) v = static_cast<float>(v * norm);
  }
};
}  // namespace

const float* GaussianTable() {
  static const GaussTable table;
  return table.values.data();
}

}  // namespace zfn::sim
