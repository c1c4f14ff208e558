#pragma once
// Entry points of the stages that the shell drives. Each subsystem implements its own with exactly
// these signatures; the shell knows them only through this list.
#include <cstdint>

namespace zfn {

// Parameter set (shell). Sources: PARAM_DEFAULTS, PARAM_FROM_FILES, PARAM_BY_MODE.
void LoadParameterSet(uint8_t source);

// Acquisition.
void DetectModeAndGuard();
void RunCoarseSync();
int32_t RunFrameSync();  // 1 when a TMCC word was decoded (accepted or not), else keep going

// Tracking.
void SetUpTracking();
void ProcessSymbol();

// Decoding and transport output.
int32_t SetUpDecoder();  // always 1
void SymbolSink();
int32_t BuildRsTables();  // 1 or 0 (allocation failed)
void FreeRsTables();
void SetUpTransportOutput();
void DrainPacketRing();  // packet thread, on packetEvent

// Front end: demodulator programming and corrections.
int32_t ProgramDemodulator();  // non-zero if every read and write succeeded
int32_t TuneFrontEnd(int32_t frequencyKHz, int32_t bandwidthMHz, int32_t offsetKHz);  // 1, 2 or 3
int32_t PulseDemodReset();
int32_t WriteSampleClockOffset(uint8_t relative, float ppm);
int32_t WriteCarrierOffset(uint8_t relative, float kHz);

}  // namespace zfn
