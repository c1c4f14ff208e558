// The simulator's settings: every line of the input is "<letter> <text>", the letter choosing the
// setting's parser; the settings that parsed are checked as a whole, as the simulator does.
#include <cstdint>
#include <string>

#include "simulator/sim_options.h"
#include "simulator/transmitter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zfn::sim;
  BroadcastConfig b;
  ChannelConfig c;
  const std::string input(reinterpret_cast<const char*>(data), size);
  size_t at = 0;
  while (at < input.size()) {
    size_t end = input.find('\n', at);
    if (end == std::string::npos) end = input.size();
    const std::string line = input.substr(at, end - at);
    at = end + 1;
    if (line.size() < 2) continue;
    const std::string text = line.substr(2);
    int code = 0;
    bool flag = false;
    double number = 0;
    long long integer = 0;
    switch (line[0] % 14) {
      case 0: ParseMode(text, b); break;
      case 1: ParseGuard(text, b); break;
      case 2: ParseModulation(text, code); break;
      case 3: ParseCodeRate(text, b); break;
      case 4: ParseInterleave(text, b); break;
      case 5: ParseSystemId(text, b); break;
      case 6: ParseBool(text, flag); break;
      case 7: ParseCn(text, c); break;
      case 8: ParseEchoes(text, c); break;
      case 9: ParseProfile(text, c); break;
      case 10: ParseDrop(text, c); break;
      case 11: ParseNumber(text, number); break;
      case 12: ParseInteger(text, integer); break;
      default: break;
    }
  }
  CheckConfig(b, c);
  return 0;
}
