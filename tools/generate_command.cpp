// zfnisdbt generate: writes a capture file (the device byte stream) from our transmitter and the
// channel model.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "simulator/default_programme.h"
#include "simulator/sim_options.h"
#include "simulator/transmitter.h"
#include "tools/command_registry.h"
#include "zfnisdbt.h"

namespace zfn::tools {
namespace {

using zfn::sim::BroadcastConfig;
using zfn::sim::ChannelConfig;

void PrintHelp(FILE* out) {
  std::fprintf(out,
               "usage: zfnisdbt generate --output FILE [options]\n"
               "Writes SECONDS of the device byte stream (4 bytes per 64/63 MHz sample, zero level 127),\n"
               "or with --front-end sdr what a generic SDR records (u8 I/Q, no header).\n"
               "broadcast:\n"
               "  --mode 1|2|3                  transmission mode (3)\n"
               "  --guard 1/4|1/8|1/16|1/32     guard interval (1/8)\n"
               "  --modulation QPSK|16QAM|64QAM layer of segment 0 (QPSK)\n"
               "  --code-rate 1/2|2/3|3/4|5/6|7/8  (2/3)\n"
               "  --interleave 0..3             time interleaving length index (3)\n"
               "  --partial-reception 0|1       TMCC partial reception flag (1)\n"
               "  --system-id 0..3              TMCC system identification (0, television)\n"
               "  --neighbour-modulation M      random data of the other segments (64QAM)\n"
               "  --device-filter-wide          let the carriers up to +-1.01 MHz through\n"
               "  --ts FILE                     programme, looped (default: the built-in programme)\n"
               "  --test-pattern                numbered test packets instead of a programme\n"
               "channel:\n"
               "  --cn DB|off                   C/N over segment 0's band (off)\n"
               "  --carrier-offset HZ           (0, at most +-110000)\n"
               "  --clock-ppm PPM               device sample clock offset (0)\n"
               "  --echo US,DB[,DEG]            static echo; repeatable\n"
               "  --doppler HZ                  Rayleigh fading, maximum Doppler (0: none)\n"
               "  --profile tu6|flat            fading profile (tu6)\n"
               "  --level STEPS                 RMS of each byte component, all the band passes (28)\n"
               "  --drop EVERY:BYTES            lose BYTES after every EVERY bytes (device front end)\n"
               "front end:\n"
               "  --front-end device|sdr        the design's device (default), or a generic SDR: the\n"
               "                                whole band through a wide anti-alias filter, u8 I/Q\n"
               "                                around 127.5, 2 bytes per sample at 2031746 S/s\n"
               "  --transmit-filter 0|1         sdr: transmitter's band filter across symbols (1)\n"
               "  --dc I,Q                      sdr: DC offset in steps from 127.5 (1.5,-1)\n"
               "  --iq-imbalance DB,DEG         sdr: I/Q gain and phase imbalance (0.3,2)\n"
               "  --transfer-loss BYTES:N|off   sdr: lose USB transfers of BYTES, one in N (off)\n"
               "output:\n"
               "  --seconds S                   length (10)\n"
               "  --seed N                      seed of everything random (1)\n"
               "  --output FILE                 capture file to write\n");
}

int Run(int argc, char** argv) {
  BroadcastConfig b;
  ChannelConfig c;
  std::string tsPath, output;
  bool testPattern = false;
  double seconds = 10;
  long long seed = 1;

  using Setter = std::function<std::string(const std::string&)>;
  const std::map<std::string, Setter> valued = {
      {"--mode", [&](const std::string& v) { return sim::ParseMode(v, b); }},
      {"--guard", [&](const std::string& v) { return sim::ParseGuard(v, b); }},
      {"--modulation", [&](const std::string& v) { return sim::ParseModulation(v, b.modulation); }},
      {"--code-rate", [&](const std::string& v) { return sim::ParseCodeRate(v, b); }},
      {"--interleave", [&](const std::string& v) { return sim::ParseInterleave(v, b); }},
      {"--partial-reception", [&](const std::string& v) { return sim::ParseBool(v, b.partialReception); }},
      {"--system-id", [&](const std::string& v) { return sim::ParseSystemId(v, b); }},
      {"--neighbour-modulation", [&](const std::string& v) { return sim::ParseModulation(v, b.neighbourModulation); }},
      {"--ts", [&](const std::string& v) { tsPath = v; return std::string(); }},
      {"--cn", [&](const std::string& v) { return sim::ParseCn(v, c); }},
      {"--carrier-offset", [&](const std::string& v) { return sim::ParseNumber(v, c.carrierOffsetHz); }},
      {"--clock-ppm", [&](const std::string& v) { return sim::ParseNumber(v, c.clockPpm); }},
      {"--echo", [&](const std::string& v) { return sim::ParseEchoes(v, c); }},
      {"--doppler", [&](const std::string& v) { return sim::ParseNumber(v, c.dopplerHz); }},
      {"--profile", [&](const std::string& v) { return sim::ParseProfile(v, c); }},
      {"--level", [&](const std::string& v) { return sim::ParseNumber(v, c.rmsLevel); }},
      {"--drop", [&](const std::string& v) { return sim::ParseDrop(v, c); }},
      {"--front-end", [&](const std::string& v) { return sim::ParseFrontEnd(v, c); }},
      {"--transmit-filter", [&](const std::string& v) { return sim::ParseBool(v, c.transmitFilter); }},
      {"--dc", [&](const std::string& v) { return sim::ParsePair(v, c.dcI, c.dcQ); }},
      {"--iq-imbalance", [&](const std::string& v) { return sim::ParsePair(v, c.iqGainDb, c.iqPhaseDeg); }},
      {"--transfer-loss", [&](const std::string& v) { return sim::ParseTransferLoss(v, c); }},
      {"--seconds", [&](const std::string& v) -> std::string {
         if (!sim::ParseNumber(v, seconds).empty() || !(seconds > 0 && seconds <= 3600)) return "seconds must be above 0 and at most 3600, not '" + v + "'";
         return {};
       }},
      {"--seed", [&](const std::string& v) -> std::string {
         if (!sim::ParseInteger(v, seed).empty() || seed < 0) return "seed must be a whole number of at least 0, not '" + v + "'";
         return {};
       }},
      {"--output", [&](const std::string& v) { output = v; return std::string(); }},
  };

  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      PrintHelp(stdout);
      return 0;
    }
    if (arg == "--device-filter-wide") {
      b.wideDeviceFilter = true;
      continue;
    }
    if (arg == "--test-pattern") {
      testPattern = true;
      continue;
    }
    std::string value;
    bool inlineValue = false;
    const size_t eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      inlineValue = true;
    }
    const auto it = valued.find(arg);
    if (it == valued.end()) {
      std::fprintf(stderr, "zfnisdbt generate: unknown option '%s' (see --help)\n", argv[i]);
      return 2;
    }
    if (!inlineValue) {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "zfnisdbt generate: %s needs a value\n", arg.c_str());
        return 2;
      }
      value = argv[++i];
    }
    const std::string problem = it->second(value);
    if (!problem.empty()) {
      std::fprintf(stderr, "zfnisdbt generate: %s: %s\n", arg.c_str(), problem.c_str());
      return 2;
    }
  }
  if (output.empty()) {
    std::fprintf(stderr, "zfnisdbt generate: --output FILE is required\n");
    return 2;
  }
  b.seed = static_cast<uint64_t>(seed);
  c.seed = static_cast<uint64_t>(seed) + 1;
  const std::string bad = sim::CheckConfig(b, c);
  if (!bad.empty()) {
    std::fprintf(stderr, "zfnisdbt generate: %s\n", bad.c_str());
    return 2;
  }

  std::unique_ptr<sim::PacketSource> packets;
  std::string source = "test pattern";
  if (!testPattern) {
    // The programme installed beside the receiver library, which this program links.
    if (tsPath.empty()) tsPath = sim::DefaultProgrammePath(reinterpret_cast<const void*>(&ZFISDBT_OpenDevice));
    if (!tsPath.empty()) {
      std::string why;
      packets = sim::OpenTsFile(tsPath, sim::LayerBitRate(b), &why);
      if (!packets) {
        std::fprintf(stderr, "zfnisdbt generate: %s\n", why.c_str());
        return 1;
      }
      source = tsPath;
    }
  }
  if (!packets) packets = sim::MakeTestPatternSource(b.seed);
  std::string why;
  auto gen = sim::SignalGenerator::Create(b, c, std::move(packets), &why);
  if (!gen) {
    std::fprintf(stderr, "zfnisdbt generate: %s\n", why.c_str());
    return 2;
  }

  FILE* out = std::fopen(output.c_str(), "wb");
  if (out == nullptr) {
    std::fprintf(stderr, "zfnisdbt generate: cannot create '%s': %s\n", output.c_str(), std::strerror(errno));
    return 1;
  }
  const auto total = static_cast<int64_t>(std::llround(seconds * sim::kEngineRateHz)) * sim::kBytesPerEngineSample;
  std::vector<uint8_t> chunk(1 << 20);
  int64_t written = 0;
  while (written < total) {
    const size_t n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(chunk.size()), total - written));
    gen->GenerateBytes(chunk.data(), n);
    if (std::fwrite(chunk.data(), 1, n, out) != n) {
      std::fprintf(stderr, "zfnisdbt generate: writing '%s' failed: %s\n", output.c_str(), std::strerror(errno));
      std::fclose(out);
      std::remove(output.c_str());
      return 1;
    }
    written += static_cast<int64_t>(n);
  }
  if (std::fclose(out) != 0) {
    std::fprintf(stderr, "zfnisdbt generate: writing '%s' failed: %s\n", output.c_str(), std::strerror(errno));
    std::remove(output.c_str());
    return 1;
  }
  std::printf("mode %d, guard %s, %s %s, interleave index %d, partial reception %d, system id %d\n", b.mode,
              sim::GuardName(b.guard), sim::ModulationName(b.modulation), sim::CodeRateName(b.codeRate), b.interleave,
              b.partialReception ? 1 : 0, b.systemId);
  std::printf("layer bit rate %.1f bit/s, %d packets per frame, frame %.3f ms\n", gen->LayerBitRate(),
              gen->PacketsPerFrame(), sim::FrameSeconds(b) * 1e3);
  std::printf("programme: %s\n", source.c_str());
  std::printf("wrote %lld bytes (%.3f s) to %s\n", static_cast<long long>(written), seconds, output.c_str());
  if (c.frontEnd == sim::FrontEnd::Sdr)
    std::printf("generic SDR: u8 I/Q at %.2f samples/s around 127.5, %lld transfers lost\n", sim::kBroadcastRateHz,
                static_cast<long long>(gen->TransfersLost()));
  return 0;
}

const bool registered = RegisterCommand({"generate", "generate --output FILE [--mode ...]  write a capture from our transmitter", Run});

}  // namespace
}  // namespace zfn::tools
