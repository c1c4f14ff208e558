#pragma once
// Why the device library found no SDR: after ZFISDBT_OpenDevice returned 2 in device mode, asks
// SoapySDR directly, with the settings and rules the device library uses, and writes one line
// that says what is wrong (a setting that cannot be read, no module for the driver asked for, no
// device found, a device found that will not open, or no usable sample rate).
#include <cstdio>

namespace zfn::tools {

void ExplainNoDevice(std::FILE* to);

}  // namespace zfn::tools
