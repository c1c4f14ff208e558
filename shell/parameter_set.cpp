// The parameter set of the tracking stages: compiled-in defaults, the values forced per mode at
// each entry to tracking, and three optional text files a developer may load into a running
// receiver.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstdio>

#include "shell/receiver_state.h"
#include "shell/stages.h"

namespace zfn {

namespace {

constexpr float Bits(uint32_t pattern) { return std::bit_cast<float>(pattern); }

void LoadDefaults() {
  // Timing stages 0 and 1; stage 2 has no defaults and keeps what a file gave it.
  constexpr int32_t START[2] = {0, 5000};
  constexpr float SPAN[2] = {0.125f, 0.125f};
  constexpr float GAIN[2] = {10.0f, 10.0f};
  constexpr int32_t PERIOD[2] = {8, 32};
  constexpr float STEP[2] = {0.125f, 0.03125f};
  constexpr int32_t SPARE[2] = {0, 0};
  constexpr int32_t DEAD_ZONE[2] = {0, 1};
  for (int s = 0; s < 2; ++s) {
    engine.stageStartSymbol[s] = START[s];
    engine.stageSpanFraction[s] = SPAN[s];
    engine.stageLoopGain[s] = GAIN[s];
    engine.stageUpdatePeriod[s] = PERIOD[s];
    engine.stageStepFraction[s] = STEP[s];
    engine.stageSpare[s] = SPARE[s];
    engine.stageDeadZone[s] = DEAD_ZONE[s];
  }
  engine.stageStartSymbol[2] = 0;

  constexpr float SPARE_TAPS[18] = {0.25f, 0, 0.75f, 0, 0, 0,
                                    Bits(0x3EA8F5C3), 0, Bits(0x3F28F5C3), 0, 0, 0,
                                    0.5f, 0, 0.5f, 0, 0, 0};
  constexpr float TAPS_A[6] = {Bits(0x3DCCCCCD), 0, Bits(0x3FC00000), 0, Bits(0xBF19999A), 0};
  constexpr float TAPS_B[6] = {Bits(0x3E29FBE7), 0, Bits(0x3FAA9FBE), 0, Bits(0xBF000000), 0};
  constexpr float TAPS_C[6] = {Bits(0x3EAA7EFA), 0, Bits(0x3F800000), 0, Bits(0xBEAA7EFA), 0};
  for (int i = 0; i < 18; ++i) engine.spareTapSets[i] = SPARE_TAPS[i];
  for (int i = 0; i < 6; ++i) {
    engine.interpTapsA[i] = TAPS_A[i];
    engine.interpTapsB[i] = TAPS_B[i];
    engine.interpTapsC[i] = TAPS_C[i];
  }

  engine.qpskSoftTarget = 4.0f;
  engine.lmsStep = Bits(0x3951B717);  // 0.0002
  engine.mixWeightFast = 1.0f;
  engine.mixWeightSlow = 0.25f;
  engine.tapDiffLimitBC = Bits(0x3E4CCCCD);  // 0.2
  engine.tapDiffLimitAB = Bits(0x3E4CCCCD);
  engine.tapFloorA = 0.5f;
  engine.tapFloorB = 0.5f;
  engine.tapFloorC = 0.5f;
  engine.freqLoopGain = Bits(0x31ABCC77);  // 5e-09
}

void LoadByMode() {
  const int32_t index = engine.modeGuard->mode * 4 + engine.modeGuard->guard;
  // Mode 3 with the two shortest guards steps harder in the first stage.
  const bool longSymbolShortGuard = index == 8 || index == 9;
  engine.stageStartSymbol[0] = 0;
  engine.stageStartSymbol[1] = 5000;
  engine.stageStartSymbol[2] = 0;
  for (int s = 0; s < 2; ++s) {
    engine.stageSpanFraction[s] = 0.125f;
    engine.stageLoopGain[s] = 10.0f;
    engine.stageSpare[s] = 0;
  }
  engine.stageUpdatePeriod[0] = 8;
  engine.stageUpdatePeriod[1] = 32;
  engine.stageStepFraction[0] = longSymbolShortGuard ? 0.0625f : 0.03125f;
  engine.stageStepFraction[1] = 0.03125f;
  engine.stageDeadZone[0] = 0;
  engine.stageDeadZone[1] = longSymbolShortGuard ? 0 : 1;
}

// Reads one "label line, value line" pair at a time. The label is read with a bounded line read of
// 99 characters (a longer label spills into the next read), the value with "%f\n" or "%d\n", which
// also eats the line end and any blank lines behind it. A value that does not scan leaves the
// holding variable as it was, so the field repeats the last value read of its type.
// Values beyond what any parameter means are cut to +-PARAM_VALUE_LIMIT, and a value that is not a
// finite number counts as one that does not scan: the stages' arithmetic on them stays defined.
constexpr double PARAM_VALUE_LIMIT = 1.0e6;

struct ValueReader {
  FILE* file;
  float realHolder = 0.0f;
  int32_t intHolder = 0;

  void SkipLabel() {
    char label[100];
    if (std::fgets(label, sizeof label, file) == nullptr) label[0] = '\0';
  }
  // The value as "%f\n" or "%d\n" would scan it, or false. The integer is taken as text first:
  // an integer beyond 32 bits is undefined for "%d".
  bool Value(double& v, bool integer) {
    if (integer) {
      char text[64];
      if (std::fscanf(file, " %63[-+0123456789]\n", text) != 1) return false;
      char* end = nullptr;
      v = static_cast<double>(std::strtoll(text, &end, 10));
      if (end == text) return false;
    } else if (std::fscanf(file, "%lf\n", &v) != 1) {
      return false;
    }
    if (!std::isfinite(v)) return false;
    v = std::clamp(v, -PARAM_VALUE_LIMIT, PARAM_VALUE_LIMIT);
    return true;
  }
  float Real() {
    SkipLabel();
    double v;
    if (Value(v, false)) realHolder = static_cast<float>(v);
    return realHolder;
  }
  int32_t Int() {
    SkipLabel();
    double v;
    if (Value(v, true)) intHolder = static_cast<int32_t>(v);
    return intHolder;
  }
};

// Opens a parameter file for reading only if it is a regular file: a FIFO or a device would block
// the demodulation thread (and with it close) until someone writes to it.
FILE* OpenParameterFile(const char* name) {
  const int fd = ::open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return nullptr;
  }
  FILE* f = ::fdopen(fd, "r");
  if (f == nullptr) ::close(fd);
  return f;
}

void LoadTimingFile() {
  FILE* f = OpenParameterFile("ParaSet.txt");
  if (f == nullptr) return;
  ValueReader r{f};
  for (int s = 0; s < 3; ++s) {
    engine.stageStartSymbol[s] = r.Int();
    engine.stageSpanFraction[s] = r.Real();
    engine.stageLoopGain[s] = r.Real();
    engine.stageUpdatePeriod[s] = r.Int();
    engine.stageStepFraction[s] = r.Real();
    engine.stageSpare[s] = r.Int();
    engine.stageDeadZone[s] = r.Int();
  }
  std::fclose(f);
}

void LoadChannelFile() {
  FILE* f = OpenParameterFile("ParaSetCE.txt");
  if (f == nullptr) return;
  ValueReader r{f};
  for (float& v : engine.spareTapSets) v = r.Real();
  engine.pilotGainScaleA = r.Real();
  engine.pilotGainScaleB = r.Real();
  engine.guardScanStart = r.Int();
  engine.qpskSoftTarget = r.Real();
  engine.lmsStep = r.Real();
  engine.mixWeightFast = r.Real();
  engine.mixWeightSlow = r.Real();
  engine.tapDiffLimitBC = r.Real();
  engine.tapDiffLimitAB = r.Real();
  engine.tapFloorA = r.Real();
  engine.tapFloorB = r.Real();
  engine.tapFloorC = r.Real();
  std::fclose(f);
}

void LoadOtherFile() {
  FILE* f = OpenParameterFile("ParaSetOther.txt");
  if (f == nullptr) return;
  ValueReader r{f};
  // The gain is so small that the file gives it as a fraction a / b, divided in 32-bit float.
  const float a = r.Real();
  const float b = r.Real();
  engine.freqLoopGain = a / b;
  std::fclose(f);
}

}  // namespace

void LoadParameterSet(uint8_t source) {
  switch (source) {
    case PARAM_DEFAULTS:
      LoadDefaults();
      break;
    case PARAM_FROM_FILES:
      LoadTimingFile();
      LoadChannelFile();
      LoadOtherFile();
      break;
    case PARAM_BY_MODE:
      LoadByMode();
      break;
    default:
      break;
  }
}

}  // namespace zfn
