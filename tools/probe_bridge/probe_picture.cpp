#include "tools/probe_bridge/probe_picture.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace probe_bridge {

namespace {

struct Rgb {
  uint8_t r, g, b;
};

constexpr Rgb WHITE{255, 255, 255};
constexpr Rgb BLACK{0, 0, 0};
constexpr Rgb GREY{200, 200, 200};
constexpr Rgb DARK_GREY{110, 110, 110};
constexpr Rgb BLUE{20, 60, 200};
constexpr Rgb RED{200, 40, 30};
constexpr Rgb GREEN{20, 150, 60};

constexpr int32_t TEXT_SCALE = 2;                 // titles, axis names and status
constexpr int32_t CHAR_W = 6 * TEXT_SCALE, CHAR_H = 7 * TEXT_SCALE;
constexpr int32_t TICK_SCALE = 1;                 // numbers at the axis ticks (5x7, plain)

// A 5x7 bitmap font for the characters the panels print: one byte per column, bit 0 the top row.
struct Glyph {
  char c;
  uint8_t columns[5];
};
constexpr Glyph FONT[] = {
    {'0', {0x3E, 0x51, 0x49, 0x45, 0x3E}}, {'1', {0x00, 0x42, 0x7F, 0x40, 0x00}},
    {'2', {0x42, 0x61, 0x51, 0x49, 0x46}}, {'3', {0x21, 0x41, 0x45, 0x4B, 0x31}},
    {'4', {0x18, 0x14, 0x12, 0x7F, 0x10}}, {'5', {0x27, 0x45, 0x45, 0x45, 0x39}},
    {'6', {0x3C, 0x4A, 0x49, 0x49, 0x30}}, {'7', {0x01, 0x71, 0x09, 0x05, 0x03}},
    {'8', {0x36, 0x49, 0x49, 0x49, 0x36}}, {'9', {0x06, 0x49, 0x49, 0x29, 0x1E}},
    {'A', {0x7E, 0x11, 0x11, 0x11, 0x7E}}, {'B', {0x7F, 0x49, 0x49, 0x49, 0x36}},
    {'C', {0x3E, 0x41, 0x41, 0x41, 0x22}}, {'D', {0x7F, 0x41, 0x41, 0x22, 0x1C}},
    {'E', {0x7F, 0x49, 0x49, 0x49, 0x41}}, {'F', {0x7F, 0x09, 0x09, 0x09, 0x01}},
    {'G', {0x3E, 0x41, 0x49, 0x49, 0x7A}}, {'H', {0x7F, 0x08, 0x08, 0x08, 0x7F}},
    {'I', {0x00, 0x41, 0x7F, 0x41, 0x00}}, {'J', {0x20, 0x40, 0x41, 0x3F, 0x01}},
    {'K', {0x7F, 0x08, 0x14, 0x22, 0x41}}, {'L', {0x7F, 0x40, 0x40, 0x40, 0x40}},
    {'M', {0x7F, 0x02, 0x0C, 0x02, 0x7F}}, {'N', {0x7F, 0x04, 0x08, 0x10, 0x7F}},
    {'O', {0x3E, 0x41, 0x41, 0x41, 0x3E}}, {'P', {0x7F, 0x09, 0x09, 0x09, 0x06}},
    {'Q', {0x3E, 0x41, 0x51, 0x21, 0x5E}}, {'R', {0x7F, 0x09, 0x19, 0x29, 0x46}},
    {'S', {0x46, 0x49, 0x49, 0x49, 0x31}}, {'T', {0x01, 0x01, 0x7F, 0x01, 0x01}},
    {'U', {0x3F, 0x40, 0x40, 0x40, 0x3F}}, {'V', {0x1F, 0x20, 0x40, 0x20, 0x1F}},
    {'W', {0x3F, 0x40, 0x38, 0x40, 0x3F}}, {'X', {0x63, 0x14, 0x08, 0x14, 0x63}},
    {'Y', {0x07, 0x08, 0x70, 0x08, 0x07}}, {'Z', {0x61, 0x51, 0x49, 0x45, 0x43}},
    {'.', {0x00, 0x60, 0x60, 0x00, 0x00}}, {'-', {0x08, 0x08, 0x08, 0x08, 0x08}},
    {':', {0x00, 0x36, 0x36, 0x00, 0x00}}, {'=', {0x14, 0x14, 0x14, 0x14, 0x14}},
    {'/', {0x20, 0x10, 0x08, 0x04, 0x02}}, {'+', {0x08, 0x08, 0x3E, 0x08, 0x08}},
    {',', {0x00, 0x50, 0x30, 0x00, 0x00}}, {'(', {0x00, 0x1C, 0x22, 0x41, 0x00}},
    {')', {0x00, 0x41, 0x22, 0x1C, 0x00}}, {'%', {0x23, 0x13, 0x08, 0x64, 0x62}},
    {'\'', {0x00, 0x00, 0x07, 0x00, 0x00}}, {'<', {0x08, 0x14, 0x22, 0x41, 0x00}},
    {'>', {0x00, 0x41, 0x22, 0x14, 0x08}}, {'|', {0x00, 0x00, 0x7F, 0x00, 0x00}},
};

const Glyph* FindGlyph(char c) {
  const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const Glyph& g : FONT) {
    if (g.c == upper) return &g;
  }
  return nullptr;  // blank
}

class Canvas {
 public:
  Canvas(int32_t width, int32_t height)
      : width_(width), height_(height), pixels_(static_cast<size_t>(width) * height * 3, 255) {}

  void Set(int32_t x, int32_t y, Rgb c) {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
    uint8_t* p = &pixels_[(static_cast<size_t>(y) * width_ + x) * 3];
    p[0] = c.r;
    p[1] = c.g;
    p[2] = c.b;
  }

  // Darkens a pixel towards c: repeated hits build up density.
  void Blend(int32_t x, int32_t y, Rgb c, int32_t weight) {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
    uint8_t* p = &pixels_[(static_cast<size_t>(y) * width_ + x) * 3];
    const uint8_t target[3] = {c.r, c.g, c.b};
    for (int i = 0; i < 3; ++i) p[i] = static_cast<uint8_t>(p[i] + (target[i] - p[i]) * weight / 256);
  }

  void FillRect(int32_t x0, int32_t y0, int32_t x1, int32_t y1, Rgb c) {
    for (int32_t y = y0; y <= y1; ++y)
      for (int32_t x = x0; x <= x1; ++x) Set(x, y, c);
  }

  void Rect(int32_t x0, int32_t y0, int32_t x1, int32_t y1, Rgb c) {
    Line(x0, y0, x1, y0, c);
    Line(x1, y0, x1, y1, c);
    Line(x1, y1, x0, y1, c);
    Line(x0, y1, x0, y0, c);
  }

  void Line(int32_t x0, int32_t y0, int32_t x1, int32_t y1, Rgb c) {
    const int32_t dx = std::abs(x1 - x0), sx = x0 < x1 ? 1 : -1;
    const int32_t dy = -std::abs(y1 - y0), sy = y0 < y1 ? 1 : -1;
    int32_t err = dx + dy;
    for (int32_t guard = 0; guard < 4 * (width_ + height_); ++guard) {
      Set(x0, y0, c);
      if (x0 == x1 && y0 == y1) break;
      const int32_t e2 = 2 * err;
      if (e2 >= dy) {
        err += dy;
        x0 += sx;
      }
      if (e2 <= dx) {
        err += dx;
        y0 += sy;
      }
    }
  }

  // Text in the 5x7 font, each font pixel drawn as scale x scale pixels; advances 6 * scale.
  void Text(int32_t x, int32_t y, const char* text, Rgb c, int32_t scale = TEXT_SCALE) {
    for (; *text != '\0'; ++text, x += 6 * scale) {
      const Glyph* g = FindGlyph(*text);
      if (g == nullptr) continue;
      for (int32_t col = 0; col < 5; ++col)
        for (int32_t row = 0; row < 7; ++row)
          if ((g->columns[col] >> row) & 1) FillRect(x + col * scale, y + row * scale, x + col * scale + scale - 1,
                                                      y + row * scale + scale - 1, c);
    }
  }

  // Text turned a quarter to the left (reading upwards), its first character at the bottom.
  void TextUp(int32_t x, int32_t y, const char* text, Rgb c, int32_t scale = TEXT_SCALE) {
    for (; *text != '\0'; ++text, y -= 6 * scale) {
      const Glyph* g = FindGlyph(*text);
      if (g == nullptr) continue;
      for (int32_t col = 0; col < 5; ++col)
        for (int32_t row = 0; row < 7; ++row)
          if ((g->columns[col] >> row) & 1)
            FillRect(x + row * scale, y - col * scale - scale + 1, x + row * scale + scale - 1, y - col * scale, c);
    }
  }

  const std::vector<uint8_t>& Pixels() const { return pixels_; }

 private:
  int32_t width_, height_;
  std::vector<uint8_t> pixels_;
};

// The drawing area of one panel, in picture coordinates.
struct Area {
  int32_t x0, y0, x1, y1;
  int32_t Width() const { return x1 - x0; }
  int32_t Height() const { return y1 - y0; }
};

constexpr int32_t PANEL_W = PICTURE_WIDTH / 2, PANEL_H = PICTURE_HEIGHT / 2;

// The panel's frame and title; the area inside, below the title.
Area DrawPanelFrame(Canvas& canvas, int32_t px, int32_t py, const char* title) {
  canvas.Rect(px + 2, py + 2, px + PANEL_W - 3, py + PANEL_H - 3, DARK_GREY);
  canvas.Text(px + 10, py + 9, title, BLACK);
  return Area{px + 6, py + 14 + CHAR_H, px + PANEL_W - 8, py + PANEL_H - 8};
}

bool Finite(double v) { return std::isfinite(v); }

int32_t ToPixel(double v, double lo, double hi, int32_t p0, int32_t p1) {
  if (!(hi > lo)) return (p0 + p1) / 2;
  const double t = std::clamp((v - lo) / (hi - lo), 0.0, 1.0);
  return static_cast<int32_t>(std::lround(p0 + t * (p1 - p0)));
}

// A plot with axes: the area for the data inside room for the tick numbers and the axis names.
struct Axes {
  Area plot;
  double xlo, xhi, ylo, yhi;
};

// Draws the frame of a plot in the given area with ticks at both ends and the middle of each
// axis, the axis names under the x axis and up the left side; returns where the data goes.
Axes DrawAxes(Canvas& canvas, const Area& a, double xlo, double xhi, double ylo, double yhi, const char* xName,
              const char* yName) {
  constexpr int32_t TICK_W = 6 * 7 * TICK_SCALE;  // room for seven tick characters
  const Area p{a.x0 + CHAR_H + 6 + TICK_W, a.y0 + 4, a.x1 - 10, a.y1 - CHAR_H - 8 * TICK_SCALE - 10};
  canvas.Rect(p.x0, p.y0, p.x1, p.y1, DARK_GREY);
  char label[32];
  for (int k = 0; k <= 2; ++k) {
    const double xv = xlo + (xhi - xlo) * k / 2.0, yv = ylo + (yhi - ylo) * k / 2.0;
    const int32_t x = ToPixel(xv, xlo, xhi, p.x0, p.x1), y = ToPixel(yv, ylo, yhi, p.y1, p.y0);
    canvas.Line(x, p.y1, x, p.y1 + 4, DARK_GREY);
    canvas.Line(p.x0 - 4, y, p.x0, y, DARK_GREY);
    if (k == 1) {
      canvas.Line(x, p.y0 + 1, x, p.y1 - 1, GREY);
      canvas.Line(p.x0 + 1, y, p.x1 - 1, y, GREY);
    }
    std::snprintf(label, sizeof label, "%.4g", xv);
    const int32_t xw = static_cast<int32_t>(std::strlen(label)) * 6 * TICK_SCALE;
    canvas.Text(std::clamp(x - xw / 2, p.x0 - xw / 2, p.x1 - xw), p.y1 + 7, label, BLACK, TICK_SCALE);
    std::snprintf(label, sizeof label, "%.4g", yv);
    const int32_t yw = static_cast<int32_t>(std::strlen(label)) * 6 * TICK_SCALE;
    canvas.Text(p.x0 - 6 - yw, y - 3 * TICK_SCALE, label, BLACK, TICK_SCALE);
  }
  const int32_t xw = static_cast<int32_t>(std::strlen(xName)) * CHAR_W;
  canvas.Text((p.x0 + p.x1 - xw) / 2, a.y1 - CHAR_H, xName, BLACK);
  const int32_t yw = static_cast<int32_t>(std::strlen(yName)) * CHAR_W;
  canvas.TextUp(a.x0, (p.y0 + p.y1 + yw) / 2, yName, BLACK);
  return Axes{p, xlo, xhi, ylo, yhi};
}

// A line through the finite values of y against x; non-finite values break the line.
void PlotSeries(Canvas& canvas, const Axes& ax, const std::vector<double>& x, const std::vector<double>& y, Rgb c) {
  const size_t n = std::min(x.size(), y.size());
  bool havePrevious = false;
  int32_t px = 0, py = 0;
  for (size_t i = 0; i < n; ++i) {
    if (!Finite(y[i]) || !Finite(x[i])) {
      havePrevious = false;
      continue;
    }
    const int32_t xx = ToPixel(x[i], ax.xlo, ax.xhi, ax.plot.x0, ax.plot.x1);
    const int32_t yy = ToPixel(y[i], ax.ylo, ax.yhi, ax.plot.y1, ax.plot.y0);
    if (havePrevious) canvas.Line(px, py, xx, yy, c);
    else canvas.Set(xx, yy, c);
    px = xx;
    py = yy;
    havePrevious = true;
  }
}

void Range(const std::vector<double>& v, double& lo, double& hi) {
  lo = 0.0;
  hi = 0.0;
  bool any = false;
  for (double x : v) {
    if (!Finite(x)) continue;
    if (!any || x < lo) lo = x;
    if (!any || x > hi) hi = x;
    any = true;
  }
  if (hi <= lo) {
    lo -= 1.0;
    hi += 1.0;
  }
}

std::vector<double> Indices(size_t n, double first) {
  std::vector<double> x(n);
  for (size_t i = 0; i < n; ++i) x[i] = first + static_cast<double>(i);
  return x;
}

void DrawConstellation(Canvas& canvas, const ProbeSnapshot& s) {
  char title[64];
  std::snprintf(title, sizeof title, "CONSTELLATION, %zu CARRIERS", s.carrierRe.size());
  const Area a = DrawPanelFrame(canvas, 0, 0, title);
  // The scale follows the spread of the points, with the outermost 0.5 % left out so that a few
  // wild carriers do not shrink the cloud to a dot.
  std::vector<double> magnitudes;
  magnitudes.reserve(s.carrierRe.size() * 2);
  for (size_t i = 0; i < s.carrierRe.size(); ++i) {
    if (Finite(s.carrierRe[i]) && Finite(s.carrierIm[i])) {
      magnitudes.push_back(std::abs(s.carrierRe[i]));
      magnitudes.push_back(std::abs(s.carrierIm[i]));
    }
  }
  double scale = 1.0;
  if (!magnitudes.empty()) {
    const size_t k = std::min(magnitudes.size() - 1, magnitudes.size() * 995 / 1000);
    std::nth_element(magnitudes.begin(), magnitudes.begin() + static_cast<std::ptrdiff_t>(k), magnitudes.end());
    if (magnitudes[k] > 0.0) scale = magnitudes[k] * 1.2;
  }
  // A square plot: the axes' area narrowed to the height of the plot.
  Area square = a;
  const int32_t extra = (a.Width() - a.Height()) / 2;
  if (extra > 0) {
    square.x0 += extra;
    square.x1 -= extra;
  }
  const Axes ax = DrawAxes(canvas, square, -scale, scale, -scale, scale, "I (IN PHASE)", "Q (QUADRATURE)");
  for (size_t i = 0; i < s.carrierRe.size(); ++i) {
    if (!Finite(s.carrierRe[i]) || !Finite(s.carrierIm[i])) continue;
    const int32_t x = ToPixel(s.carrierRe[i], -scale, scale, ax.plot.x0, ax.plot.x1);
    const int32_t y = ToPixel(s.carrierIm[i], -scale, scale, ax.plot.y1, ax.plot.y0);
    canvas.Blend(x, y, BLUE, 96);
  }
}

// The channel estimate across the carriers: magnitude on top and the phase, unwrapped along the
// carriers, below it. A linear phase is a time offset of the FFT window: the slope is printed and
// the line taken out.
void DrawChannel(Canvas& canvas, const ProbeSnapshot& s) {
  const Area a = DrawPanelFrame(canvas, PANEL_W, 0, "CHANNEL ESTIMATE");
  const size_t n = std::min(s.channelRe.size(), s.channelIm.size());
  std::vector<double> magnitude(n), phase(n);
  double previous = 0.0, turns = 0.0;
  bool started = false;
  for (size_t i = 0; i < n; ++i) {
    magnitude[i] = std::hypot(s.channelRe[i], s.channelIm[i]);
    const double wrapped = std::atan2(s.channelIm[i], s.channelRe[i]);
    if (!Finite(wrapped)) {
      phase[i] = wrapped;
      continue;
    }
    if (started) {
      const double step = wrapped - previous;
      if (step > M_PI) turns -= 2.0 * M_PI;
      if (step < -M_PI) turns += 2.0 * M_PI;
    }
    started = true;
    previous = wrapped;
    phase[i] = wrapped + turns;
  }
  const std::vector<double> carrier = Indices(n, 0.0);
  const double last = n > 1 ? static_cast<double>(n - 1) : 1.0;
  const Area top{a.x0, a.y0, a.x1, (a.y0 + a.y1) / 2};
  const Area bottom{a.x0, (a.y0 + a.y1) / 2 + 2, a.x1, a.y1};

  double lo = 0.0, hi = 0.0;
  Range(magnitude, lo, hi);
  const Axes m = DrawAxes(canvas, top, 0.0, last, 0.0, hi > 0.0 ? hi * 1.1 : 1.0, "", "|H|");
  PlotSeries(canvas, m, carrier, magnitude, BLUE);

  // The straight line that fits best (least squares) is taken out and its slope printed, so
  // that what echoes and filters do to the phase stays visible beside the window's offset.
  double sx = 0, sy = 0, sxx = 0, sxy = 0, count = 0;
  for (size_t i = 0; i < n; ++i) {
    if (!Finite(phase[i])) continue;
    sx += carrier[i];
    sy += phase[i];
    sxx += carrier[i] * carrier[i];
    sxy += carrier[i] * phase[i];
    count += 1;
  }
  const double det = count * sxx - sx * sx;
  const double slope = det > 0 ? (count * sxy - sx * sy) / det : 0.0;
  const double offset = count > 0 ? (sy - slope * sx) / count : 0.0;
  for (size_t i = 0; i < n; ++i) phase[i] -= offset + slope * carrier[i];
  Range(phase, lo, hi);
  lo = std::min(lo, -M_PI);
  hi = std::max(hi, M_PI);
  const Axes p = DrawAxes(canvas, bottom, 0.0, last, lo, hi, "CARRIER", "PHASE (RAD)");
  PlotSeries(canvas, p, carrier, phase, RED);
  char label[80];
  std::snprintf(label, sizeof label, "UNWRAPPED, LESS THE LINE %+.3g RAD/CARRIER", slope);
  canvas.Text(p.plot.x0 + 6, p.plot.y0 + 6, label, DARK_GREY, TICK_SCALE);
}

void DrawTiming(Canvas& canvas, const ProbeSnapshot& s) {
  const Area a = DrawPanelFrame(canvas, 0, PANEL_H, "TIMING PROFILE");
  double lo = 0.0, hi = 0.0;
  Range(s.timingProfile, lo, hi);
  const double half = static_cast<double>(s.timingProfile.size() / 2);
  const Axes ax = DrawAxes(canvas, a, -half, half, lo, hi, "OFFSET (SAMPLES)", "CORRELATION");
  PlotSeries(canvas, ax, Indices(s.timingProfile.size(), -half), s.timingProfile, GREEN);
}

const char* BlockStateName(double state) {
  switch (static_cast<int>(std::lround(state))) {
    case -2: return "NO SIGNAL";
    case -1: return "IDLE";
    case 0: return "MODE DETECT";
    case 1: return "COARSE SYNC";
    case 2: return "FRAME SYNC";
    case 3: return "TRACKING";
    default: return "";
  }
}

void DrawStatus(Canvas& canvas, const ProbeSnapshot& s) {
  const Area a = DrawPanelFrame(canvas, PANEL_W, PANEL_H, "STATUS");
  char line[96];
  int32_t y = a.y0 + 6;
  auto put = [&](const char* text) {
    canvas.Text(a.x0 + 10, y, text, BLACK);
    y += CHAR_H + 8;
  };
  const double state = Finite(s.blockState) ? s.blockState : 0.0;
  const double channel = Finite(s.channelState) ? s.channelState : 0.0;
  std::snprintf(line, sizeof line, "SNR %.2f DB", s.snrDb);
  put(line);
  std::snprintf(line, sizeof line, "CARRIER OFFSET %+.4f SPACINGS", s.frequencyOffset);
  put(line);
  std::snprintf(line, sizeof line, "STATE %s (%d)", BlockStateName(state), static_cast<int>(std::lround(state)));
  put(line);
  std::snprintf(line, sizeof line, "CHANNEL %s", std::lround(channel) == 1 ? "FAST (MOVING)" : "SLOW");
  put(line);
  std::snprintf(line, sizeof line, "PACKET ERR %.4f  FAIL %.4f", s.rates[0], s.rates[2]);
  put(line);
  std::snprintf(line, sizeof line, "BYTE ERR %.4f", s.rates[1]);
  put(line);
  int n = std::snprintf(line, sizeof line, "TIMING STEPS %zu:", s.jumps.size());
  for (size_t i = 0; i < s.jumps.size() && n > 0 && n < 34; ++i)
    n += std::snprintf(line + n, sizeof line - static_cast<size_t>(n), " %d", static_cast<int>(s.jumps[i]));
  put(line);
  std::snprintf(line, sizeof line, "UPDATE %llu", static_cast<unsigned long long>(s.update));
  put(line);

  // SNR bar, 0 to 30 dB, red below 10, green above 20.
  const int32_t bx0 = a.x0 + 10, bx1 = a.x1 - 10, by0 = a.y1 - CHAR_H - 36, by1 = a.y1 - CHAR_H - 12;
  canvas.Rect(bx0, by0, bx1, by1, DARK_GREY);
  const double snr = Finite(s.snrDb) ? s.snrDb : 0.0;
  const int32_t fill = ToPixel(snr, 0.0, 30.0, bx0 + 1, bx1 - 1);
  const Rgb c = snr < 10.0 ? RED : (snr < 20.0 ? Rgb{220, 160, 20} : GREEN);
  if (fill > bx0 + 1) canvas.FillRect(bx0 + 1, by0 + 1, fill, by1 - 1, c);
  canvas.Text(bx0, by1 + 6, "0", DARK_GREY);
  canvas.Text((bx0 + bx1) / 2 - 5 * CHAR_W, by1 + 6, "SNR (DB)", DARK_GREY);
  canvas.Text(bx1 - 2 * CHAR_W, by1 + 6, "30", DARK_GREY);
}

// Writes text into path via a temporary name and a rename.
bool WriteTextFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  FILE* f = std::fopen(temporary.c_str(), "w");
  if (f == nullptr) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  const bool closed = std::fclose(f) == 0;
  if (!written || !closed) {
    std::remove(temporary.c_str());
    return false;
  }
  return std::rename(temporary.c_str(), path.c_str()) == 0;
}

void AppendRow(std::string& out, const char* format, double a) {
  char row[64];
  std::snprintf(row, sizeof row, format, a);
  out += row;
}

std::string PairsCsv(const char* header, const std::vector<double>& re, const std::vector<double>& im,
                     bool polar) {
  std::string out = header;
  char row[160];
  const size_t n = std::min(re.size(), im.size());
  for (size_t i = 0; i < n; ++i) {
    if (polar) {
      std::snprintf(row, sizeof row, "%zu,%.9g,%.9g,%.9g,%.9g\n", i, re[i], im[i], std::hypot(re[i], im[i]),
                    std::atan2(im[i], re[i]));
    } else {
      std::snprintf(row, sizeof row, "%zu,%.9g,%.9g\n", i, re[i], im[i]);
    }
    out += row;
  }
  return out;
}

}  // namespace

std::vector<uint8_t> RenderProbePicture(const ProbeSnapshot& snapshot) {
  Canvas canvas(PICTURE_WIDTH, PICTURE_HEIGHT);
  DrawConstellation(canvas, snapshot);
  DrawChannel(canvas, snapshot);
  DrawTiming(canvas, snapshot);
  DrawStatus(canvas, snapshot);
  return canvas.Pixels();
}

bool WritePng(const char* path, const uint8_t* rgb, int32_t width, int32_t height) {
  FILE* f = std::fopen(path, "wb");
  if (f == nullptr) return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (png == nullptr || info == nullptr) {
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
    return false;
  }
  // libpng reports errors by a long jump back here; nothing with a destructor lives in between.
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
    return false;
  }
  png_init_io(png, f);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int32_t y = 0; y < height; ++y) {
    png_write_row(png, rgb + static_cast<size_t>(y) * static_cast<size_t>(width) * 3);
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return std::fclose(f) == 0;
}

bool WriteProbeFiles(const std::string& directory, const ProbeSnapshot& s) {
  bool ok = true;
  const std::vector<uint8_t> picture = RenderProbePicture(s);
  const std::string png = directory + "/probe.png";
  const std::string pngTemporary = png + ".tmp";
  if (WritePng(pngTemporary.c_str(), picture.data(), PICTURE_WIDTH, PICTURE_HEIGHT)) {
    ok = std::rename(pngTemporary.c_str(), png.c_str()) == 0 && ok;
  } else {
    std::remove(pngTemporary.c_str());
    ok = false;
  }

  ok = WriteTextFile(directory + "/carriers.csv", PairsCsv("index,re,im\n", s.carrierRe, s.carrierIm, false)) && ok;
  ok = WriteTextFile(directory + "/channel.csv",
                     PairsCsv("carrier,re,im,magnitude,phase\n", s.channelRe, s.channelIm, true)) && ok;
  ok = WriteTextFile(directory + "/slot.csv", PairsCsv("index,re,im\n", s.slotRe, s.slotIm, false)) && ok;

  std::string timing = "offset,value\n";
  const long half = static_cast<long>(s.timingProfile.size() / 2);
  for (size_t i = 0; i < s.timingProfile.size(); ++i) {
    char row[64];
    std::snprintf(row, sizeof row, "%ld,%.9g\n", static_cast<long>(i) - half, s.timingProfile[i]);
    timing += row;
  }
  ok = WriteTextFile(directory + "/timing.csv", timing) && ok;

  std::string jumps = "step\n";
  for (double j : s.jumps) AppendRow(jumps, "%.0f\n", j);
  ok = WriteTextFile(directory + "/jumps.csv", jumps) && ok;

  std::string status = "name,value\n";
  AppendRow(status, "snr_db,%.9g\n", s.snrDb);
  AppendRow(status, "frequency_offset_carriers,%.9g\n", s.frequencyOffset);
  AppendRow(status, "packet_error_rate,%.9g\n", s.rates[0]);
  AppendRow(status, "byte_error_rate,%.9g\n", s.rates[1]);
  AppendRow(status, "packet_fail_rate,%.9g\n", s.rates[2]);
  AppendRow(status, "block_state,%.0f\n", s.blockState);
  AppendRow(status, "channel_state,%.0f\n", s.channelState);
  AppendRow(status, "carriers,%.0f\n", static_cast<double>(s.carrierRe.size()));
  AppendRow(status, "update,%.0f\n", static_cast<double>(s.update));
  ok = WriteTextFile(directory + "/status.csv", status) && ok;
  return ok;
}

}  // namespace probe_bridge
