#include "tools/host_session.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>

#include "tools/sdr_diagnosis.h"
#include "zfnisdbt.h"

namespace zfn::tools {

const char SOURCE_OPTIONS_HELP[] =
    "  --simulate        take samples from the simulator library libBDA_simu.so\n"
    "  --device ARGS     SoapySDR device arguments, e.g. driver=NAME,serial=N (ZFNISDBT_DEVICE)\n"
    "  --gain G          receive gain of the device in dB (ZFNISDBT_GAIN)\n"
    "  --ppm P           frequency correction of the device's clock in ppm (ZFNISDBT_PPM)\n"
    "  --as-designed     the library exactly as designed: its refinements off (ZFNISDBT_REFINED=0;\n"
    "                    by default the program turns them on)\n";

int ParseSourceOption(const char* command, int argc, char** argv, int* i, SourceOptions* o) {
  const std::string a = argv[*i];
  if (a == "--simulate") {
    o->simulate = true;
    return 1;
  }
  if (a == "--as-designed") {
    o->asDesigned = true;
    return 1;
  }
  std::string* value = a == "--device" ? &o->device : a == "--gain" ? &o->gain : a == "--ppm" ? &o->ppm : nullptr;
  if (value == nullptr) return 0;
  const char* next = *i + 1 < argc ? argv[*i + 1] : nullptr;
  if (next == nullptr || *next == '\0') {
    std::fprintf(stderr, "zfnisdbt %s: %s needs a value\n", command, a.c_str());
    return -1;
  }
  if (a != "--device") {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(next, &end);
    if (errno != 0 || *end != '\0' || !(v > -1000 && v < 1000)) {
      std::fprintf(stderr, "zfnisdbt %s: %s needs a number, not '%s'\n", command, a.c_str(), next);
      return -1;
    }
  }
  *value = next;
  ++*i;
  return 1;
}

bool NameUnloadableLibrary(const char* command, const char* library) {
  // The receiver loads its sample sources by plain name through the dynamic linker's search path;
  // the same load here tells which one is missing, and why, in the loader's own words.
  void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (handle != nullptr) {
    dlclose(handle);
    return true;
  }
  const char* reason = dlerror();
  std::fprintf(stderr, "zfnisdbt %s: %s cannot be loaded: %s\n", command, library,
               reason != nullptr ? reason : "not found");
  return false;
}

bool OpenReceiver(const char* command, const SourceOptions& o, bool tunedSimulation) {
  setenv("ZFNISDBT_REFINED", o.asDesigned ? "0" : "1", 1);
  if (!o.device.empty()) setenv("ZFNISDBT_DEVICE", o.device.c_str(), 1);
  if (!o.gain.empty()) setenv("ZFNISDBT_GAIN", o.gain.c_str(), 1);
  if (!o.ppm.empty()) setenv("ZFNISDBT_PPM", o.ppm.c_str(), 1);
  // Mode 2 tunes through the device library, where the simulator learns the frequency.
  if (o.simulate) ZFISDBT_DebugCMD(5, tunedSimulation ? 2 : 1);
  const int32_t opened = ZFISDBT_OpenDevice();
  if (opened == 1) return true;
  // A half-open receiver (simulator or last allocation failed) is taken down by close.
  ZFISDBT_CloseDevice();
  if (opened == 2) {
    // The device library loaded but found no device to open.
    std::fprintf(stderr, "zfnisdbt %s: the device library found no device (open result 2)\n", command);
    ExplainNoDevice(stderr);
  } else if (o.simulate) {
    std::fprintf(stderr,
                 "zfnisdbt %s: open failed: libZFNACCESS.so and libBDA_simu.so must both be found "
                 "(LD_LIBRARY_PATH), and the simulator must start\n",
                 command);
    NameUnloadableLibrary(command, "libZFNACCESS.so");
    NameUnloadableLibrary(command, "libBDA_simu.so");
  } else {
    NameUnloadableLibrary(command, "libZFNACCESS.so");
    std::fprintf(stderr,
                 "zfnisdbt %s: open failed: libZFNACCESS.so not found or incomplete, or the device "
                 "could not be programmed\n",
                 command);
  }
  return false;
}

namespace {

float WordAsFloat(int32_t word) {
  float f;
  std::memcpy(&f, &word, sizeof f);
  return f;
}

// Carrier spacing of Mode 1 (250/63 kHz); halved by each mode up.
constexpr double MODE1_CARRIER_SPACING_HZ = 250000.0 / 63.0;
constexpr int32_t LAYER_WORD_VALID = 0x01000000;

}  // namespace

ReceiverStatus ReadReceiverStatus() {
  ReceiverStatus s;
  int32_t v = 0;
  s.present = ZFISDBT_GetSignalPresent(&v) == 1 ? (v != 0 ? 1 : 0) : -1;
  v = 0;
  s.lock = ZFISDBT_GetSignalLock(&v) == 1 ? (v != 0 ? 1 : 0) : -1;
  ZFISDBT_GetSignalQuality(&s.quality);
  int32_t w[ZFISDBT_PARA_WORDS] = {};
  if (ZFISDBT_DebugGetParaValue(w) != 1) return s;
  s.words = true;
  s.state = w[5];
  if (w[3] >= 0 && w[3] < 12) {
    s.mode = w[3] / 4 + 1;
    s.guard = w[3] % 4;
  }
  s.snrDb = WordAsFloat(w[0]);
  s.per = WordAsFloat(w[8]);
  s.failedPerSecond = WordAsFloat(w[11]);
  // Word 1 is the correction the receiver applies, in carrier spacings: the carrier's own offset
  // from the tuned frequency is its negative.
  if (s.mode > 0) s.offsetHz = -WordAsFloat(w[1]) * MODE1_CARRIER_SPACING_HZ / (1 << (s.mode - 1));
  if ((w[2] & 0xff000000) == LAYER_WORD_VALID) {
    s.layerKnown = true;
    s.modulation = w[2] & 0xff;
    s.codeRate = (w[2] >> 8) & 0xff;
    s.interleave = (w[2] >> 16) & 0xff;
  }
  s.overruns = w[6];
  return s;
}

const char* StateName(int32_t state) {
  switch (state) {
    case -2: return "no_signal";
    case -1: return "idle";
    case 0: return "mode_detect";
    case 1: return "coarse_sync";
    case 2: return "frame_sync";
    case 3: return "tracking";
    default: return "unknown";
  }
}

const char* GuardText(int32_t guard) {
  static const char* const names[] = {"1/32", "1/16", "1/8", "1/4"};
  return guard >= 0 && guard < 4 ? names[guard] : "?";
}

const char* ModulationText(int32_t modulation) {
  static const char* const names[] = {"DQPSK", "QPSK", "16QAM", "64QAM"};
  return modulation >= 0 && modulation < 4 ? names[modulation] : "?";
}

const char* CodeRateText(int32_t codeRate) {
  static const char* const names[] = {"1/2", "2/3", "3/4", "5/6", "7/8"};
  return codeRate >= 0 && codeRate < 5 ? names[codeRate] : "?";
}

int32_t InterleaveLength(int32_t mode, int32_t index) {
  // ARIB STD-B31 time interleaving lengths: I = 0, 4, 8, 16 in Mode 1, halved per mode up.
  static constexpr int32_t MODE1[] = {0, 4, 8, 16};
  if (mode < 1 || mode > 3 || index < 0 || index > 3) return -1;
  return MODE1[index] >> (mode - 1);
}

void PrintBroadcastText(FILE* to, const ReceiverStatus& s) {
  if (!s.words) return;
  std::fprintf(to, " state=%s", StateName(s.state));
  if (s.mode > 0) std::fprintf(to, " Mode %d %s", s.mode, GuardText(s.guard));
  if (s.layerKnown) {
    std::fprintf(to, " %s %s I=%d", ModulationText(s.modulation), CodeRateText(s.codeRate),
                 InterleaveLength(s.mode, s.interleave));
  }
  if (s.state == 3) {
    const double offset = std::round(s.offsetHz) + 0.0;  // no "-0"
    std::fprintf(to, " snr=%.1fdB offset=%+.0fHz PER=%.4f failed/s=%.0f", static_cast<double>(s.snrDb), offset,
                 static_cast<double>(s.per), static_cast<double>(s.failedPerSecond));
  }
  if (s.overruns != 0) std::fprintf(to, " overruns=%d", s.overruns);
}

void PrintBroadcastJson(FILE* to, const ReceiverStatus& s) {
  std::fprintf(to, ",\"state\":\"%s\"", s.words ? StateName(s.state) : "unknown");
  if (s.mode > 0) {
    std::fprintf(to, ",\"mode\":%d,\"guard\":\"%s\"", s.mode, GuardText(s.guard));
  } else {
    std::fprintf(to, ",\"mode\":null,\"guard\":null");
  }
  if (s.layerKnown) {
    std::fprintf(to, ",\"modulation\":\"%s\",\"code_rate\":\"%s\",\"interleave\":%d,\"interleave_length\":%d",
                 ModulationText(s.modulation), CodeRateText(s.codeRate), s.interleave,
                 InterleaveLength(s.mode, s.interleave));
  } else {
    std::fprintf(to, ",\"modulation\":null,\"code_rate\":null,\"interleave\":null,\"interleave_length\":null");
  }
  if (s.words && s.state == 3) {
    std::fprintf(to, ",\"snr_db\":%.2f,\"carrier_offset_hz\":%.1f,\"per\":%.5f,\"failed_per_second\":%.0f",
                 static_cast<double>(s.snrDb), s.offsetHz, static_cast<double>(s.per),
                 static_cast<double>(s.failedPerSecond));
  } else {
    std::fprintf(to, ",\"snr_db\":null,\"carrier_offset_hz\":null,\"per\":null,\"failed_per_second\":null");
  }
  std::fprintf(to, ",\"overruns\":%d", s.words ? s.overruns : 0);
}

}  // namespace zfn::tools
