#pragma once
// Text forms of the transmitter and channel settings, shared by the generate command (flags) and
// the simulator library (environment variables). Each parser returns an empty string on success
// or a short reason.
#include <string>

#include "simulator/transmitter.h"

namespace zfn::sim {

std::string ParseMode(const std::string& text, BroadcastConfig& b);          // 1, 2, 3
std::string ParseGuard(const std::string& text, BroadcastConfig& b);         // 1/4, 1/8, 1/16, 1/32
std::string ParseModulation(const std::string& text, int& code);             // QPSK, 16QAM, 64QAM
std::string ParseCodeRate(const std::string& text, BroadcastConfig& b);      // 1/2 .. 7/8
std::string ParseInterleave(const std::string& text, BroadcastConfig& b);    // index 0..3
std::string ParseSystemId(const std::string& text, BroadcastConfig& b);      // 0..3
std::string ParseBool(const std::string& text, bool& value);                 // 0/1, yes/no, on/off
// "off" or a number of dB.
std::string ParseCn(const std::string& text, ChannelConfig& c);
// Echo "delay_us,gain_db[,phase_deg]"; several joined by ';' in one text.
std::string ParseEchoes(const std::string& text, ChannelConfig& c);
std::string ParseProfile(const std::string& text, ChannelConfig& c);        // tu6, flat
// Drops "every_bytes:bytes".
std::string ParseDrop(const std::string& text, ChannelConfig& c);
// Front end: device (the design's) or sdr (a generic SDR).
std::string ParseFrontEnd(const std::string& text, ChannelConfig& c);
// Two numbers "a,b" (DC offset I,Q in steps; I/Q imbalance gain_db,phase_deg).
std::string ParsePair(const std::string& text, double& a, double& b);
// Lost USB transfers "bytes:one_in" (each transfer of that many bytes lost with chance 1/one_in),
// or "off".
std::string ParseTransferLoss(const std::string& text, ChannelConfig& c);
// A finite number, whole text.
std::string ParseNumber(const std::string& text, double& value);
std::string ParseInteger(const std::string& text, long long& value);

const char* GuardName(int guard);
const char* ModulationName(int code);
const char* CodeRateName(int codeRate);

}  // namespace zfn::sim
