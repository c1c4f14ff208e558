// Text forms of the settings. See sim_options.h.
#include "simulator/sim_options.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace zfn::sim {

namespace {
std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}
constexpr const char* kGuards[4] = {"1/32", "1/16", "1/8", "1/4"};
constexpr const char* kRates[5] = {"1/2", "2/3", "3/4", "5/6", "7/8"};
constexpr const char* kModulations[4] = {"DQPSK", "QPSK", "16QAM", "64QAM"};
}  // namespace

std::string ParseNumber(const std::string& text, double& value) {
  if (text.empty()) return "empty value";
  errno = 0;
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != 0 || errno == ERANGE || !std::isfinite(v)) return "'" + text + "' is not a number";
  value = v;
  return {};
}

std::string ParseInteger(const std::string& text, long long& value) {
  if (text.empty()) return "empty value";
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != 0 || errno == ERANGE) return "'" + text + "' is not a whole number";
  value = v;
  return {};
}

std::string ParseMode(const std::string& text, BroadcastConfig& b) {
  long long v = 0;
  if (!ParseInteger(text, v).empty() || v < 1 || v > 3) return "mode must be 1, 2 or 3, not '" + text + "'";
  b.mode = static_cast<int>(v);
  return {};
}

std::string ParseGuard(const std::string& text, BroadcastConfig& b) {
  for (int g = 0; g < 4; ++g)
    if (text == kGuards[g]) {
      b.guard = g;
      return {};
    }
  return "guard must be 1/4, 1/8, 1/16 or 1/32, not '" + text + "'";
}

std::string ParseModulation(const std::string& text, int& code) {
  const std::string t = Lower(text);
  if (t == "qpsk") code = 1;
  else if (t == "16qam") code = 2;
  else if (t == "64qam") code = 3;
  else return "modulation must be QPSK, 16QAM or 64QAM, not '" + text + "'";
  return {};
}

std::string ParseCodeRate(const std::string& text, BroadcastConfig& b) {
  for (int r = 0; r < 5; ++r)
    if (text == kRates[r]) {
      b.codeRate = r;
      return {};
    }
  return "code rate must be 1/2, 2/3, 3/4, 5/6 or 7/8, not '" + text + "'";
}

std::string ParseInterleave(const std::string& text, BroadcastConfig& b) {
  long long v = 0;
  if (!ParseInteger(text, v).empty() || v < 0 || v > 3) return "interleave must be an index 0 to 3, not '" + text + "'";
  b.interleave = static_cast<int>(v);
  return {};
}

std::string ParseSystemId(const std::string& text, BroadcastConfig& b) {
  long long v = 0;
  if (!ParseInteger(text, v).empty() || v < 0 || v > 3) return "system identification must be 0 to 3, not '" + text + "'";
  b.systemId = static_cast<int>(v);
  return {};
}

std::string ParseBool(const std::string& text, bool& value) {
  const std::string t = Lower(text);
  if (t == "1" || t == "yes" || t == "on" || t == "true") value = true;
  else if (t == "0" || t == "no" || t == "off" || t == "false") value = false;
  else return "'" + text + "' is not 0 or 1";
  return {};
}

std::string ParseCn(const std::string& text, ChannelConfig& c) {
  if (Lower(text) == "off") {
    c.noise = false;
    return {};
  }
  double v = 0;
  if (!ParseNumber(text, v).empty()) return "C/N must be a number of dB or 'off', not '" + text + "'";
  c.noise = true;
  c.cnDb = v;
  return {};
}

std::string ParseEchoes(const std::string& text, ChannelConfig& c) {
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find(';', start), text.size());
    const std::string item = text.substr(start, end - start);
    EchoPath e;
    double parts[3] = {0, 0, 0};
    int n = 0;
    size_t p = 0;
    while (p <= item.size() && n < 4) {
      const size_t q = std::min(item.find(',', p), item.size());
      if (n == 3 || !ParseNumber(item.substr(p, q - p), parts[n]).empty())
        return "echo must be delay_us,gain_db[,phase_deg], not '" + item + "'";
      ++n;
      p = q + 1;
    }
    if (n < 2) return "echo must be delay_us,gain_db[,phase_deg], not '" + item + "'";
    e.delayUs = parts[0];
    e.gainDb = parts[1];
    e.phaseDeg = parts[2];
    c.echoes.push_back(e);
    start = end + 1;
  }
  return {};
}

std::string ParseProfile(const std::string& text, ChannelConfig& c) {
  const std::string t = Lower(text);
  if (t == "tu6") c.profile = FadingProfile::Tu6;
  else if (t == "flat") c.profile = FadingProfile::SinglePath;
  else return "fading profile must be tu6 or flat, not '" + text + "'";
  return {};
}

std::string ParseDrop(const std::string& text, ChannelConfig& c) {
  const size_t colon = text.find(':');
  long long every = 0, bytes = 0;
  if (colon == std::string::npos || !ParseInteger(text.substr(0, colon), every).empty() ||
      !ParseInteger(text.substr(colon + 1), bytes).empty() || every < 4 || bytes < 0)
    return "drop must be every_bytes:bytes (every at least 4), not '" + text + "'";
  c.dropEveryBytes = every;
  c.dropBytes = bytes;
  return {};
}

std::string ParseFrontEnd(const std::string& text, ChannelConfig& c) {
  const std::string t = Lower(text);
  if (t == "device") c.frontEnd = FrontEnd::Device;
  else if (t == "sdr") c.frontEnd = FrontEnd::Sdr;
  else return "front end must be device or sdr, not '" + text + "'";
  return {};
}

std::string ParsePair(const std::string& text, double& a, double& b) {
  const size_t comma = text.find(',');
  double x = 0, y = 0;
  if (comma == std::string::npos || !ParseNumber(text.substr(0, comma), x).empty() ||
      !ParseNumber(text.substr(comma + 1), y).empty())
    return "must be two numbers joined by a comma, not '" + text + "'";
  a = x;
  b = y;
  return {};
}

std::string ParseTransferLoss(const std::string& text, ChannelConfig& c) {
  if (Lower(text) == "off") {
    c.transferBytes = 0;
    c.transferLossOneIn = 0;
    return {};
  }
  const size_t colon = text.find(':');
  long long bytes = 0, oneIn = 0;
  if (colon == std::string::npos || !ParseInteger(text.substr(0, colon), bytes).empty() ||
      !ParseInteger(text.substr(colon + 1), oneIn).empty() || bytes < 2 || bytes % 2 != 0 || oneIn < 2)
    return "transfer loss must be bytes:one_in (an even size, one_in at least 2) or off, not '" + text + "'";
  c.transferBytes = bytes;
  c.transferLossOneIn = oneIn;
  return {};
}

const char* GuardName(int guard) { return guard >= 0 && guard < 4 ? kGuards[guard] : "?"; }
const char* ModulationName(int code) { return code >= 0 && code < 4 ? kModulations[code] : "?"; }
const char* CodeRateName(int codeRate) { return codeRate >= 0 && codeRate < 5 ? kRates[codeRate] : "?"; }

}  // namespace zfn::sim
