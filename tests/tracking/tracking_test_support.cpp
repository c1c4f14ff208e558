#include "tracking_test_support.h"

#include <fftw3.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "acquisition/numerology.h"
#include "shell/engine_memory.h"
#include "shell/receiver_state.h"
#include "shell/stages.h"
#include "tracking/tracker_state.h"

namespace zfn::test {

namespace {

constexpr double PI = 3.14159265358979323846;

struct Table {
  int nfft, ncarrier, ndata, ntrack;
  int nguard[4];
};
constexpr Table TABLES[3] = {
    {256, 108, 96, 6, {8, 16, 32, 64}},
    {512, 216, 192, 6, {16, 32, 64, 128}},
    {1024, 432, 384, 12, {32, 64, 128, 256}},
};
constexpr int32_t TRACK_BINS[3][12] = {
    {237, 251, 25, 168, 194, 85},
    {502, 505, 10, 28, 427, 70},
    {815, 897, 1014, 1017, 10, 28, 161, 191, 909, 939, 70, 133},
};
constexpr int PRBS_INIT[3][11] = {
    {0, 0, 1, 0, 1, 1, 1, 1, 0, 1, 0},
    {0, 0, 0, 0, 1, 0, 1, 1, 0, 0, 0},
    {1, 1, 1, 0, 0, 1, 1, 0, 1, 1, 0},
};
const std::vector<int> FIXED[3] = {
    {35, 49, 79},
    {23, 98, 101, 118, 136, 178},
    {7, 89, 101, 131, 206, 209, 226, 244, 286, 349, 377, 407},
};

// Scattered pilot signs over three segments, generator x^11 + x^9 + 1, scaled by 3/4.
std::vector<float> PilotSigns(int mode) {
  int r[11];
  std::copy(PRBS_INIT[mode], PRBS_INIT[mode] + 11, r);
  const int n = 3 * TABLES[mode].ncarrier;
  std::vector<float> sign(n);
  for (int t = 0; t < n; ++t) {
    const int bit = r[10];
    sign[t] = static_cast<float>((0.5 - bit) * 2 * 0.75);
    const int fresh = r[8] ^ r[10];
    for (int k = 10; k > 0; --k) r[k] = r[k - 1];
    r[0] = fresh;
  }
  return sign;
}

std::complex<float> RandomPoint(std::mt19937& rng, int bits) {
  const int levels = 1 << (bits / 2);
  const double norm = bits == 2 ? std::sqrt(2.0) : bits == 4 ? std::sqrt(10.0) : std::sqrt(42.0);
  std::uniform_int_distribution<int> pick(0, levels - 1);
  const double re = (2 * pick(rng) - (levels - 1)) / norm;
  const double im = (2 * pick(rng) - (levels - 1)) / norm;
  return {static_cast<float>(re), static_cast<float>(im)};
}

}  // namespace

void PrepareNumerology(int mode, int guard) {
  // One engine for the whole test program; each case rewinds the arena and sets up the numerology.
  if (engine.arenaBase == nullptr && EngineInit() != 1) {
    std::fprintf(stderr, "engine memory could not be built\n");
    std::abort();
  }
  ArenaRewindToInit();
  engine.modeGuard->mode = static_cast<uint8_t>(mode);
  engine.modeGuard->guard = static_cast<uint8_t>(guard);
  const int32_t firstTime = engine.modeIndexLast == -1 ? 1 : 0;
  if (SetUpNumerology(firstTime) != 1) {
    std::fprintf(stderr, "numerology set-up failed\n");
    std::abort();
  }
  engine.modeIndexLast = mode * 4 + guard;
}

void PrepareEngine(int mode, int guard, int bitsPerCarrier) {
  LoadParameterSet(PARAM_DEFAULTS);
  PrepareNumerology(mode, guard);
  engine.ncoStep = 0.0f;
  engine.ncoPhase = 0.0f;
  engine.symbolIndex = 0;
  engine.spPhase = 0;
  engine.snrDb = 0.0f;
  engine.timingEnabled = 1;
  engine.bitsPerCarrier = bitsPerCarrier;
  engine.startupSymbols = 95;
  engine.clockWritePending = 0;
  SetUpTracking();
}

std::vector<int> DataCarriers(int mode, int s) {
  std::vector<int> out;
  const auto& fixed = FIXED[mode];
  for (int c = 0; c < TABLES[mode].ncarrier; ++c) {
    if (c % 12 == 3 * s) continue;
    if (std::find(fixed.begin(), fixed.end(), c) != fixed.end()) continue;
    out.push_back(c);
  }
  return out;
}

SegmentSignal::SegmentSignal(int mode, int guard, int bitsPerCarrier, const ChannelModel& channel)
    : mode_(mode), guard_(guard), bits_(bitsPerCarrier), channel_(channel), rng_(channel.seed) {
  nfft_ = TABLES[mode].nfft;
  nguard_ = TABLES[mode].nguard[guard];
  nsym_ = nfft_ + nguard_;
  ncarrier_ = TABLES[mode].ncarrier;
  pilotSign_ = PilotSigns(mode);
  continualPrev_.assign(3 * ncarrier_, 4.0f / 3.0f);
  sent_.assign(16, std::vector<std::complex<float>>(ncarrier_));
  echoTail_.assign(static_cast<size_t>(std::max(channel.echoDelay, 1)), {0.0f, 0.0f});
}

// TMCC and AC carriers of the segment, and in Mode 1 those of the neighbouring segments that the
// receiver watches as well (its fixed-carrier bins outside the segment).
bool SegmentSignal::IsContinual(int t) const {
  const int c = t - ncarrier_;
  if (c >= 0 && c < ncarrier_) return std::find(FIXED[mode_].begin(), FIXED[mode_].end(), c) != FIXED[mode_].end();
  const int k = t - 3 * ncarrier_ / 2;
  const int bin = (k + nfft_) % nfft_;
  for (int e = 0; e < TABLES[mode_].ntrack; ++e)
    if (TRACK_BINS[mode_][e] == bin) return true;
  return false;
}

std::complex<float> SegmentSignal::Sent(int64_t m, int c) const { return sent_[m % 16][c]; }

const std::complex<float>* SegmentSignal::Samples(int64_t at) {
  return stream_.data() + (at - dropped_);
}

void SegmentSignal::DropBefore(int64_t at) {
  const int64_t n = at - dropped_;
  if (n <= 0) return;
  stream_.erase(stream_.begin(), stream_.begin() + n);
  dropped_ = at;
}

void SegmentSignal::EnsureSamples(int64_t samples) {
  while (Size() < samples) AppendSymbol();
}

void SegmentSignal::AppendSymbol() {
  const int64_t m = symbols_++;
  const int s = static_cast<int>(m % 4);
  std::vector<std::complex<double>> spectrum(nfft_, 0.0);
  auto& sent = sent_[m % 16];
  std::bernoulli_distribution flip(0.3);
  int active = 0;
  const int total = 3 * ncarrier_;
  for (int t = 0; t < total; ++t) {
    const int k = t - 3 * ncarrier_ / 2;  // carrier distance from DC
    if (k <= -nfft_ / 2 + 2 || k >= nfft_ / 2 - 2) continue;
    const int c = t - ncarrier_;
    std::complex<float> v;
    if (t % 12 == 3 * s) {
      v = {pilotSign_[t] / 0.75f * (4.0f / 3.0f), 0.0f};
    } else if (IsContinual(t)) {
      // TMCC and AC carriers: differential BPSK at the pilot amplitude.
      const float prev = m == 0 ? 4.0f / 3.0f : continualPrev_[t];
      v = {flip(rng_) ? -prev : prev, 0.0f};
      continualPrev_[t] = v.real();
    } else {
      v = RandomPoint(rng_, bits_);
    }
    if (c >= 0 && c < ncarrier_) sent[c] = v;
    spectrum[(k + nfft_) % nfft_] = std::complex<double>(v);
    ++active;
  }

  const double eps = channel_.clockPpm * 1e-6;
  const double start = static_cast<double>(m) * nsym_;
  const double u0 = rxSample_ * (1.0 + eps) - start;
  const double whole = std::floor(u0);
  const double f = u0 - whole;
  const double gain = 0.25 / std::sqrt(static_cast<double>(active));
  std::vector<std::complex<double>> wave(nfft_);
  fftw_plan plan = fftw_plan_dft_1d(nfft_, reinterpret_cast<fftw_complex*>(wave.data()),
                                    reinterpret_cast<fftw_complex*>(wave.data()), FFTW_BACKWARD,
                                    FFTW_ESTIMATE);
  for (int b = 0; b < nfft_; ++b) {
    const int k = b < nfft_ / 2 ? b : b - nfft_;
    wave[b] = spectrum[b] * gain * std::polar(1.0, 2 * PI * k * (f - nguard_) / nfft_);
  }
  fftw_execute(plan);
  fftw_destroy_plan(plan);

  const double noiseSigma = std::sqrt(nfft_ * gain * gain / std::pow(10.0, channel_.cnDb / 10.0) / 2.0);
  std::normal_distribution<double> noise(0.0, noiseSigma);
  const double omega = 2 * PI * channel_.carrierOffset / nfft_;
  const int delay = channel_.echoDelay;
  for (int64_t i = 0; rxSample_ * (1.0 + eps) < start + nsym_; ++i, ++rxSample_) {
    const int64_t j = static_cast<int64_t>(whole) + i;
    std::complex<double> x = wave[static_cast<size_t>(((j % nfft_) + nfft_) % nfft_)];
    std::complex<double> y = x;
    if (delay > 0) {
      const size_t slot = static_cast<size_t>(rxSample_ % delay);
      y += channel_.echoGain * std::complex<double>(echoTail_[slot]);
      echoTail_[slot] = std::complex<float>(x);
    }
    y *= std::polar(1.0, omega * static_cast<double>(rxSample_));
    y += std::complex<double>(noise(rng_), noise(rng_));
    stream_.push_back(std::complex<float>(y));
  }
}

SymbolWalker::SymbolWalker(SegmentSignal& signal, int64_t firstSymbol)
    : signal_(signal), first_(firstSymbol), readPos_(firstSymbol * engine.nsymbol - 1) {}

void SymbolWalker::Step() { StepWithForcedTiming(INT32_MIN); }

void SymbolWalker::StepWithForcedTiming(int forcedStep) {
  const int nwork = engine.nwork;
  signal_.EnsureSamples(readPos_ + nwork + 1);
  std::memcpy(engine.symbolBuffer, signal_.Samples(readPos_), sizeof(float) * 2 * static_cast<size_t>(nwork));
  ProcessSymbol();
  if (forcedStep != INT32_MIN) engine.timingStep = forcedStep;
  readPos_ += engine.nsymbol + engine.timingStep;
  timingSum_ += engine.timingStep;
  signal_.DropBefore(readPos_ - 4 * engine.nsymbol);
  engine.symbolIndex = (engine.symbolIndex + 1) % 204;
  engine.spPhase = (engine.spPhase + 1) % 4;
  ++run_;
}

double EqualiserErrorPower(const SegmentSignal& signal, int64_t m) {
  const int mode = engine.modeGuard->mode;
  const std::vector<int> carriers = DataCarriers(mode, static_cast<int>(m % 4));
  double sum = 0.0;
  for (size_t k = 0; k < carriers.size(); ++k) {
    std::complex<float> e{engine.equalisedCarriers[2 * k], engine.equalisedCarriers[2 * k + 1]};
    if (engine.bitsPerCarrier == 2)
      e /= engine.qpskSoftTarget > 0.0f ? tracker.softWeight[k] : 8.0f;
    sum += std::norm(std::complex<double>(e - signal.Sent(m, carriers[k])));
  }
  return sum / static_cast<double>(carriers.size());
}

}  // namespace zfn::test
