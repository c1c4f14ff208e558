#pragma once
// UHF channel plans of the ISDB-T countries: channel number to the centre frequency of the
// one-segment service (the centre segment sits at the channel centre), in kHz as
// ZFISDBT_SetFrequency takes it. Channels are 6 MHz wide, and the OFDM spectrum sits 1/7 MHz
// above the channel's middle (ARIB STD-B31 and the Brazilian standard alike).
#include <cstdint>
#include <optional>
#include <string_view>

namespace zfn::tools {

struct ChannelBand {
  std::string_view name;  // as given to --band
  int32_t first, last;    // UHF channel numbers
  int32_t firstKHz;       // one-segment centre of the first channel
};

// Japan: UHF 13 (470-476 MHz) to 62. Brazil and the rest of South America: UHF 14 (470-476 MHz)
// to 69.
inline constexpr ChannelBand CHANNEL_BANDS[] = {
    {"japan", 13, 62, 473143},
    {"brazil", 14, 69, 473143},
};
inline constexpr int32_t CHANNEL_WIDTH_KHZ = 6000;

inline std::optional<ChannelBand> FindBand(std::string_view name) {
  for (const ChannelBand& b : CHANNEL_BANDS)
    if (b.name == name) return b;
  return std::nullopt;
}

inline int32_t ChannelFrequencyKHz(const ChannelBand& band, int32_t channel) {
  return band.firstKHz + (channel - band.first) * CHANNEL_WIDTH_KHZ;
}

// The channel whose one-segment centre is exactly this frequency, 0 for none.
inline int32_t ChannelAt(const ChannelBand& band, int32_t frequencyKHz) {
  const int32_t d = frequencyKHz - band.firstKHz;
  if (d < 0 || d % CHANNEL_WIDTH_KHZ != 0) return 0;
  const int32_t channel = band.first + d / CHANNEL_WIDTH_KHZ;
  return channel <= band.last ? channel : 0;
}

}  // namespace zfn::tools
