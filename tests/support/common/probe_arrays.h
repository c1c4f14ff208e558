#pragma once
// A probe record wired to arrays of the full capacities, each followed by `guard` entries that the
// receiver must never write; every entry starts as `fill`.
#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "shell/matlab_probe.h"

namespace zfn_test {

class ProbeArrays {
 public:
  explicit ProbeArrays(int32_t guard = 0, double fill = 0.0) : guard_(guard), fill_(fill) { Reset(); }
  ProbeArrays(const ProbeArrays&) = delete;
  ProbeArrays& operator=(const ProbeArrays&) = delete;

  // A zeroed record pointing at freshly filled arrays.
  void Reset() {
    record = zfn::MatlabProbe{};
    for (size_t i = 0; i < kLayout.size(); ++i) {
      arrays_[i].assign(static_cast<size_t>(kLayout[i].second + guard_), fill_);
      record.*kLayout[i].first = arrays_[i].data();
    }
  }

  bool GuardsIntact() const {
    return std::all_of(std::begin(arrays_), std::end(arrays_), [this](const std::vector<double>& a) {
      return std::all_of(a.end() - guard_, a.end(), [this](double v) { return v == fill_; });
    });
  }

  zfn::MatlabProbe record{};

 private:
  using P = zfn::MatlabProbe;
  static constexpr std::array<std::pair<double* P::*, int32_t>, 13> kLayout{{
      {&P::carrierRe, zfn::PROBE_CARRIER_CAPACITY}, {&P::carrierIm, zfn::PROBE_CARRIER_CAPACITY}, {&P::snrCell, 1},
      {&P::frequencyCell, 1}, {&P::ratesCell, zfn::PROBE_RATES}, {&P::channelRe, zfn::PROBE_CHANNEL_CAPACITY},
      {&P::channelIm, zfn::PROBE_CHANNEL_CAPACITY}, {&P::slotRe, zfn::PROBE_SLOT_CAPACITY},
      {&P::slotIm, zfn::PROBE_SLOT_CAPACITY}, {&P::timingProfile, zfn::PROBE_TIMING_CAPACITY},
      {&P::jumpList, zfn::PROBE_JUMP_CAPACITY}, {&P::stateCell, 1}, {&P::channelStateCell, 1},
  }};
  int32_t guard_;
  double fill_;
  std::vector<double> arrays_[kLayout.size()];
};

}  // namespace zfn_test
