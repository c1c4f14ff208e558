#pragma once
// Settings of the SDR device library, from the environment, because opening the device takes no
// arguments: ZFNISDBT_DEVICE (SoapySDR device arguments, "driver=NAME,serial=S"; empty: the first
// SDR found), ZFNISDBT_GAIN (dB, or "auto", the default), ZFNISDBT_PPM (the SDR's crystal error in
// parts per million, corrected by the library). Shared by the device library, which reads them at
// open, and the receive command's diagnosis, which explains a failed open with the same reading.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>

namespace zfn::sdr {

// Crystal corrections beyond this are typing errors, not crystals.
constexpr double MAX_PPM = 1000.0;

struct SdrSettings {
  std::string deviceArgs;
  bool autoGain = true;
  double gainDb = 0.0;
  double ppm = 0.0;
};

inline bool ParseSettingNumber(const char* text, double& value) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  value = std::strtod(text, &end);
  return errno == 0 && end != nullptr && *end == '\0' && std::isfinite(value);
}

// Fills `s` from the environment. Returns nullptr when all is well, else the name of the first
// variable whose value cannot be used.
inline const char* ReadSdrSettings(SdrSettings& s) {
  s = SdrSettings{};
  if (const char* args = std::getenv("ZFNISDBT_DEVICE")) s.deviceArgs = args;
  const char* gain = std::getenv("ZFNISDBT_GAIN");
  if (gain != nullptr && *gain != '\0' && std::string(gain) != "auto") {
    if (!ParseSettingNumber(gain, s.gainDb)) return "ZFNISDBT_GAIN";
    s.autoGain = false;
  }
  const char* ppm = std::getenv("ZFNISDBT_PPM");
  if (ppm != nullptr && *ppm != '\0') {
    if (!ParseSettingNumber(ppm, s.ppm) || std::fabs(s.ppm) > MAX_PPM) return "ZFNISDBT_PPM";
  }
  return nullptr;
}

}  // namespace zfn::sdr
