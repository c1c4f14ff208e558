#pragma once
// What the receive and scan commands share as hosts of the public library: the options that choose
// and set up the sample source, opening with the reasons for a failure, and the status block read
// into named values.
#include <cstdint>
#include <cstdio>
#include <string>

namespace zfn::tools {

struct SourceOptions {
  bool simulate = false;
  bool asDesigned = false;  // the library as designed: ZFNISDBT_REFINED=0
  std::string device;       // SoapySDR device arguments for the device library
  std::string gain;         // dB, or empty: the device library's choice
  std::string ppm;          // frequency correction of the device clock
};

// Takes one of --simulate, --as-designed, --device ARGS, --gain G, --ppm P at argv[*i] (moving *i
// past its value). 1 taken, 0 not one of these, -1 a bad value (message printed, "zfnisdbt CMD: ").
int ParseSourceOption(const char* command, int argc, char** argv, int* i, SourceOptions* o);
extern const char SOURCE_OPTIONS_HELP[];

// Sets the environment the library and the device library read at open, selects the sample
// source (simulation mode 1, or 2 when the simulator is to learn the tuned frequency), and opens.
// On failure closes again, says why on standard error and returns false.
// Loads a library the receiver loads by name and says on standard error why it cannot be, if so.
bool NameUnloadableLibrary(const char* command, const char* library);

bool OpenReceiver(const char* command, const SourceOptions& o, bool tunedSimulation);

// The status functions and status words, read once.
struct ReceiverStatus {
  int32_t present = 0, lock = 0, quality = 0;  // present/lock: 1 yes, 0 no, -1 not sure
  bool words = false;                          // the status block was read
  int32_t state = -1;                          // block state, -2..3
  int32_t mode = 0;                            // 1..3, 0 unknown
  int32_t guard = -1;                          // 0..3 (1/32..1/4), -1 unknown
  float snrDb = 0, per = 0, failedPerSecond = 0;
  double offsetHz = 0;                         // received carrier above the tuned frequency, Hz
  bool layerKnown = false;                     // the layer parameters of word 2
  int32_t modulation = 0, codeRate = 0, interleave = 0;
  int32_t overruns = 0;                        // packets lost inside the library
};
ReceiverStatus ReadReceiverStatus();

const char* StateName(int32_t state);  // "tracking", ...
const char* GuardText(int32_t guard);  // "1/8"
const char* ModulationText(int32_t modulation);
const char* CodeRateText(int32_t codeRate);
// The time interleaving length I of the index in the mode (Modes 1..3).
int32_t InterleaveLength(int32_t mode, int32_t index);

// The part of a status line that tells the broadcast: "Mode 3 1/8 QPSK 2/3 I=4 snr=25.5dB
// offset=+12Hz", as far as known; and the same as JSON members (with a leading comma).
void PrintBroadcastText(FILE* to, const ReceiverStatus& s);
void PrintBroadcastJson(FILE* to, const ReceiverStatus& s);

}  // namespace zfn::tools
