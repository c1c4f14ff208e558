#pragma once
// Which SDR and which stream rate the device library takes. Shared by the library and by the
// receive command's diagnosis, so that the explanation of a failed open follows the same rules.
#include <SoapySDR/Device.hpp>
#include <SoapySDR/Types.hpp>

#include <cmath>
#include <string>
#include <vector>

#include "frontend/conditioning.h"

namespace zfn::sdr {

// The lowest rate worth resampling from: the conditioned band reaches about 0.5 MHz either side of
// the channel centre, which a stream at 1.2 MHz still holds with room for the resampler's filter.
constexpr double MIN_STREAM_RATE_HZ = 1.2e6;
// A rate this close to the device rate is the device rate: no resampling.
constexpr double SAME_RATE_TOLERANCE_HZ = 1.0;

// With no arguments the first SDR found serves. Sound cards, which the audio module lists as
// devices, are never taken for one.
inline SoapySDR::KwargsList FindDefaultDevices() {
  SoapySDR::KwargsList found;
  for (const auto& device : SoapySDR::Device::enumerate(SoapySDR::Kwargs{})) {
    const auto driver = device.find("driver");
    if (driver == device.end() || driver->second != "audio") found.push_back(device);
  }
  return found;
}

// The rate to stream at, from the rates the device lists and the ranges it offers: the device rate
// itself where offered; else the lowest offered rate above it (the resampler then only
// decimates); else the highest offered rate of at least MIN_STREAM_RATE_HZ. 0 when nothing serves.
inline double ChooseStreamRate(const std::vector<double>& listed, const SoapySDR::RangeList& ranges) {
  const double wanted = DEVICE_SAMPLE_RATE_HZ;
  for (const double r : listed) {
    if (std::fabs(r - wanted) <= SAME_RATE_TOLERANCE_HZ) return r;
  }
  for (const auto& range : ranges) {
    if (range.minimum() > wanted || range.maximum() < wanted) continue;
    const double step = range.step();
    if (step <= 0.0) return wanted;
    const double onGrid = range.minimum() + std::round((wanted - range.minimum()) / step) * step;
    if (std::fabs(onGrid - wanted) <= SAME_RATE_TOLERANCE_HZ) return onGrid;
  }
  std::vector<double> offered = listed;
  for (const auto& range : ranges) {
    offered.push_back(range.minimum());
    offered.push_back(range.maximum());
    // A stepped range around the device rate that misses it: its next step above.
    if (range.step() > 0.0 && range.minimum() < wanted && range.maximum() > wanted) {
      offered.push_back(range.minimum() + std::ceil((wanted - range.minimum()) / range.step()) * range.step());
    }
  }
  double above = 0.0;
  double below = 0.0;
  for (const double r : offered) {
    if (r > wanted && (above == 0.0 || r < above)) above = r;
    if (r >= MIN_STREAM_RATE_HZ && r < wanted && r > below) below = r;
  }
  return above != 0.0 ? above : below;
}

}  // namespace zfn::sdr
