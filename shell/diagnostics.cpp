#include "shell/diagnostics.h"

#include <cstdarg>
#include <cstdio>

#include "platform/debug_output.h"
#include "shell/capture.h"
#include "shell/device_state.h"
#include "shell/probe_bridge.h"
#include "shell/receiver_state.h"

namespace zfn {

DebugParaBlock debugParaBlock;
RelaxedWord<int32_t> probeEnable;
MatlabProbe* matlabProbe;
RelaxedWord<int32_t> captureOn;

namespace {
constexpr int LOG_BUFFER_BYTES = 16380;
}

void LogMessage(const char* format, ...) {
  char text[LOG_BUFFER_BYTES];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);  // truncates beyond the buffer
  va_end(args);
  platform::DebugOutput(text);
}

void CountPacketRingOverrun() {
  if (engine.refined == 0) return;
  debugParaBlock.SetInt(PACKET_OVERRUN_WORD, debugParaBlock.Int(PACKET_OVERRUN_WORD) + 1);
}

int32_t DebugCommand(int32_t command, int32_t value) {
  switch (command) {
    case 3:  // parameter set source, honoured by the demodulation thread at the next block
      if (value == 1) engine.paramReloadRequest = 1;
      else if (value == 0) engine.paramReloadRequest = 2;
      return 1;
    case 5:  // sample source for the next open
      device.simulationMode = value;
      return 1;
    case 7:
      if (value == 1 || value == 0) engine.autoResync = value;
      return 1;
    case 8:
      engine.forcedCarrierOffset = value;
      return 1;
    case 9:
      if (value == 1 || value == 0) engine.rsDecoderFull = value;
      return 1;
    case 1:  // plotting probe: 1 on, 0 off, 2 off and unload the bridge
      return DebugProbeCommand(value);
    case 6:  // raw capture to "BBStore" files: 1 start, 0 stop, 2 its health (refinement)
      if (value == 1) return StartCapture();
      if (value == 0) return StopCapture();
      if (value == 2) return CaptureHealth();
      return 1;
    default:  // 2, 4 and all others do nothing
      return 0;
  }
}

int32_t DebugGetParaPtr(int32_t** target) {
  if (target == nullptr || device.debugPara == nullptr) return 0;
  // The words are relaxed atomics of plain int32 layout; the host reads them as plain words.
  *target = reinterpret_cast<int32_t*>(device.debugPara->word);
  return 1;
}

int32_t DebugGetParaValue(int32_t* target) {
  if (target == nullptr || device.debugPara == nullptr) return 0;
  for (int32_t i = 0; i < DebugParaBlock::WORDS; ++i) target[i] = device.debugPara->Int(i);
  return 1;
}

}  // namespace zfn
