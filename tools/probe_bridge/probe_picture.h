#pragma once
// The picture and the number files of the plotting bridge: one snapshot of the probe record drawn
// as four panels (constellation, channel magnitude and phase, timing profile, status), written as
// PNG, and the same numbers as CSV files.
#include <cstdint>
#include <string>
#include <vector>

namespace probe_bridge {

// A copy of one set of data, taken right after the receiver's update event.
struct ProbeSnapshot {
  std::vector<double> carrierRe, carrierIm;  // fillIndex entries
  std::vector<double> channelRe, channelIm;  // ncarrier entries
  std::vector<double> slotRe, slotIm;        // nspan entries
  std::vector<double> timingProfile;         // 2 * timingSpan + 1 entries
  std::vector<double> jumps;                 // the timing steps of the frame
  double snrDb = 0.0;
  double frequencyOffset = 0.0;              // carrier spacings
  double rates[3] = {0.0, 0.0, 0.0};         // packet error, byte error, packet fail
  double blockState = 0.0;
  double channelState = 0.0;
  uint64_t update = 0;                       // number of this update since the bridge started
};

constexpr int32_t PICTURE_WIDTH = 960;
constexpr int32_t PICTURE_HEIGHT = 720;

// RGB, 3 bytes per pixel, rows top to bottom.
std::vector<uint8_t> RenderProbePicture(const ProbeSnapshot& snapshot);

// Writes an RGB picture as PNG. False on any failure (the file may then be partly written).
bool WritePng(const char* path, const uint8_t* rgb, int32_t width, int32_t height);

// Writes the picture and the CSV files into directory, each under a temporary name first and then
// renamed over the previous one, so a reader never sees a half-written file. False if any failed.
bool WriteProbeFiles(const std::string& directory, const ProbeSnapshot& snapshot);

}  // namespace probe_bridge
