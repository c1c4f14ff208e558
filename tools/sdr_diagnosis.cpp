#include "tools/sdr_diagnosis.h"

#include <SoapySDR/Device.hpp>
#include <SoapySDR/Logger.hpp>
#include <SoapySDR/Modules.hpp>
#include <SoapySDR/Registry.hpp>

#include <exception>
#include <string>

#include "frontend/sdr_device/sdr_choice.h"
#include "frontend/sdr_device/sdr_settings.h"

namespace zfn::tools {

namespace {

constexpr char PREFIX[] = "zfnisdbt receive: ";

std::string Joined(const std::vector<std::string>& items) {
  std::string text;
  for (const auto& item : items) text += (text.empty() ? "" : ", ") + item;
  return text.empty() ? "none" : text;
}

std::string Label(const SoapySDR::Kwargs& found) {
  const auto label = found.find("label");
  return label != found.end() ? label->second : SoapySDR::KwargsToString(found);
}

std::string Rates(SoapySDR::Device* device) {
  std::string text;
  for (const double r : device->listSampleRates(SOAPY_SDR_RX, 0)) {
    text += (text.empty() ? "" : ", ") + std::to_string(static_cast<long long>(r));
  }
  for (const auto& range : device->getSampleRateRange(SOAPY_SDR_RX, 0)) {
    if (range.minimum() == range.maximum()) continue;
    text += (text.empty() ? "" : ", ") + std::to_string(static_cast<long long>(range.minimum())) + ".." +
            std::to_string(static_cast<long long>(range.maximum()));
  }
  return text.empty() ? "none" : text;
}

void Explain(std::FILE* to) {
  sdr::SdrSettings settings;
  if (const char* bad = sdr::ReadSdrSettings(settings)) {
    const char* value = std::getenv(bad);
    std::fprintf(to, "%s%s='%s' cannot be used: %s\n", PREFIX, bad, value != nullptr ? value : "",
                 std::string(bad) == "ZFNISDBT_GAIN" ? "give the gain in dB, or auto"
                                                     : "give the crystal error in ppm, within +-1000");
    return;
  }
  // The drivers' own messages stay quiet here too; what they say comes back in the exceptions.
  SoapySDR::setLogLevel(SOAPY_SDR_CRITICAL);
  SoapySDR::loadModules();
  const SoapySDR::Kwargs args = SoapySDR::KwargsFromString(settings.deviceArgs);
  // The modules are counted, not named: `SoapySDRUtil --info` lists them.
  const std::string modules = std::to_string(SoapySDR::Registry::listFindFunctions().size()) + " loaded from " +
                              Joined(SoapySDR::listSearchPaths());
  const auto driver = args.find("driver");
  if (driver != args.end() && SoapySDR::Registry::listFindFunctions().count(driver->second) == 0) {
    std::fprintf(to, "%sno SoapySDR module for driver '%s' (modules: %s)\n", PREFIX, driver->second.c_str(),
                 modules.c_str());
    return;
  }
  const SoapySDR::KwargsList found = args.empty() ? sdr::FindDefaultDevices() : SoapySDR::Device::enumerate(args);
  if (found.empty()) {
    if (settings.deviceArgs.empty()) {
      std::fprintf(to, "%sno SDR found: is one plugged in, and is its SoapySDR module installed? (modules: %s)\n",
                   PREFIX, modules.c_str());
    } else {
      std::fprintf(to, "%sno device found for ZFNISDBT_DEVICE='%s' (modules: %s)\n", PREFIX,
                   settings.deviceArgs.c_str(), modules.c_str());
    }
    return;
  }
  const std::string label = Label(found.front());
  SoapySDR::Device* device = nullptr;
  try {
    device = SoapySDR::Device::make(found.front());
  } catch (const std::exception& e) {
    std::fprintf(to, "%sthe device '%s' was found but failed to open: %s\n", PREFIX, label.c_str(), e.what());
    return;
  }
  if (device == nullptr) {
    std::fprintf(to, "%sthe device '%s' was found but failed to open\n", PREFIX, label.c_str());
    return;
  }
  try {
    if (sdr::ChooseStreamRate(device->listSampleRates(SOAPY_SDR_RX, 0), device->getSampleRateRange(SOAPY_SDR_RX, 0)) ==
        0.0) {
      std::fprintf(to,
                   "%sthe device '%s' refuses the rate: it offers %s samples/s; the receiver needs 2031746, or "
                   "at least 1200000 to resample from\n",
                   PREFIX, label.c_str(), Rates(device).c_str());
    } else {
      std::fprintf(to, "%sthe device '%s' opens now but did not stream before: was it busy?\n", PREFIX, label.c_str());
    }
  } catch (const std::exception& e) {
    std::fprintf(to, "%sthe device '%s' opened but failed: %s\n", PREFIX, label.c_str(), e.what());
  }
  SoapySDR::Device::unmake(device);
}

}  // namespace

void ExplainNoDevice(std::FILE* to) {
  try {
    Explain(to);
  } catch (const std::exception& e) {
    std::fprintf(to, "%sSoapySDR failed: %s\n", PREFIX, e.what());
  }
}

}  // namespace zfn::tools
