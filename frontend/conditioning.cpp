#include "frontend/conditioning.h"

#include <cmath>

namespace zfn {

namespace {

uint8_t Quantise(float v) {
  const float level = std::nearbyint(v * 128.0f + 127.0f);
  if (level < 0.0f) return 0;
  if (level > 255.0f) return 255;
  return static_cast<uint8_t>(level);
}

template <class Sample>
size_t Condition(SdrConditioner& c, const Sample* iq, size_t samples, uint8_t* out, float (*toFloat)(Sample)) {
  size_t written = 0;
  double power = 0.0;
  for (size_t n = 0; n < samples; ++n) {
    const float i = toFloat(iq[2 * n]);
    const float q = toFloat(iq[2 * n + 1]);
    power += static_cast<double>(i) * i + static_cast<double>(q) * q;
    const uint8_t bi = Quantise(i);
    const uint8_t bq = Quantise(q);
    if (!c.heldValid) {
      c.held[0] = bi;
      c.held[1] = bq;
      c.heldValid = true;
      continue;
    }
    out[written++] = c.held[0];
    out[written++] = c.held[1];
    out[written++] = bi;
    out[written++] = bq;
    c.heldValid = false;
  }
  if (samples > 0) c.rms = static_cast<float>(std::sqrt(power / static_cast<double>(samples)));
  return written;
}

float FromFloat(float v) { return v; }
float FromU8(uint8_t v) { return (static_cast<float>(v) - 127.5f) / 128.0f; }

}  // namespace

void SdrConditionerReset(SdrConditioner& c) { c = SdrConditioner{}; }

size_t SdrConditionFloat(SdrConditioner& c, const float* iq, size_t samples, uint8_t* out) {
  return Condition(c, iq, samples, out, FromFloat);
}

size_t SdrConditionU8(SdrConditioner& c, const uint8_t* iq, size_t samples, uint8_t* out) {
  return Condition(c, iq, samples, out, FromU8);
}

}  // namespace zfn
