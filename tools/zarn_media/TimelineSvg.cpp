#include "TimelineSvg.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "Cli.h"

namespace ZarnMedia {

namespace {

// Layout, in pixels.
constexpr int kPlotLeft = 110;   // room for the row labels, "stream N"
constexpr int kPlotRight = 24;
constexpr int kTop = 56;         // title and legend
constexpr int kRowHeight = 24;
constexpr int kRowGap = 12;
constexpr int kBand = 7;         // height of the locked and no-index bands inside a row
constexpr int kAxisHeight = 44;
constexpr int kPixelsPerTick = 80;

const char* const kRecordedColour = "#3b7dd8";
const char* const kGapColour = "#e4e4e4";
const char* const kLockedColour = "#c0392b";
const char* const kNoIndexColour = "#f0b400";
const char* const kCutColour = "#1b2631";

void appendf(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string& out, const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  if (n > 0) out.append(buffer, std::min<size_t>(static_cast<size_t>(n), sizeof(buffer) - 1));
}

class CPlot {
 public:
  CPlot(int64_t from, int64_t to, int width)
      : m_from(from), m_to(to), m_width(static_cast<double>(width - kPlotLeft - kPlotRight)) {}
  double x(int64_t t) const {
    return kPlotLeft + static_cast<double>(t - m_from) * m_width / static_cast<double>(m_to - m_from);
  }
  double width() const { return m_width; }

 private:
  int64_t m_from, m_to;
  double m_width;
};

// The parts of the range no span covers.
std::vector<TimeSpan> gapsOf(const std::vector<TimeSpan>& recorded, int64_t from, int64_t to) {
  std::vector<TimeSpan> gaps;
  int64_t at = from;
  for (const TimeSpan& s : recorded) {
    if (s.begin > at) gaps.push_back({at, s.begin});
    at = std::max(at, s.end);
  }
  if (at < to) gaps.push_back({at, to});
  return gaps;
}

void drawSpans(std::string& out, const CPlot& plot, unsigned stream, const std::vector<TimeSpan>& spans,
               const char* kind, const char* colour, double y, double height, bool widen) {
  for (const TimeSpan& s : spans) {
    const double x = plot.x(s.begin);
    double w = plot.x(s.end) - x;
    if (widen) w = std::max(w, 1.0);
    appendf(out,
            "<rect class=\"%s\" data-stream=\"%u\" data-begin=\"%lld\" data-end=\"%lld\" x=\"%.3f\" y=\"%.1f\" "
            "width=\"%.3f\" height=\"%.1f\" fill=\"%s\"><title>%s %s .. %s UTC (%lld s)</title></rect>\n",
            kind, stream, static_cast<long long>(s.begin), static_cast<long long>(s.end), x, y, w, height, colour,
            kind, formatTime(s.begin).c_str(), formatTime(s.end).c_str(), static_cast<long long>(s.end - s.begin));
  }
}

void drawLegend(std::string& out, int width) {
  struct Entry {
    const char* name;
    const char* colour;
  };
  const Entry entries[] = {{"recorded", kRecordedColour}, {"gap", kGapColour}, {"locked", kLockedColour},
                           {"no index", kNoIndexColour}, {"file cut", kCutColour}};
  double x = std::max(kPlotLeft, width - kPlotRight - 5 * 86);
  for (const Entry& e : entries) {
    if (e.colour == kCutColour) {
      appendf(out, "<line x1=\"%.1f\" y1=\"30\" x2=\"%.1f\" y2=\"42\" stroke=\"%s\" stroke-width=\"1.5\"/>\n", x + 5,
              x + 5, e.colour);
    } else {
      appendf(out, "<rect x=\"%.1f\" y=\"30\" width=\"12\" height=\"12\" fill=\"%s\"/>\n", x, e.colour);
    }
    appendf(out, "<text x=\"%.1f\" y=\"40\">%s</text>\n", x + 16, e.name);
    x += 86;
  }
}

}  // namespace

std::vector<AxisTick> axisTicks(int64_t from, int64_t to, int maxTicks) {
  static const int64_t kSteps[] = {1,    2,    5,     10,    15,    30,    60,     120,    300,    600,   900,
                                   1800, 3600, 7200,  10800, 21600, 43200, 86400,  172800, 259200, 604800,
                                   1209600, 2592000};
  const int64_t span = std::max<int64_t>(1, to - from);
  int64_t step = kSteps[sizeof(kSteps) / sizeof(kSteps[0]) - 1];
  for (int64_t s : kSteps) {
    if (span / s <= std::max(1, maxTicks)) {
      step = s;
      break;
    }
  }
  std::vector<AxisTick> ticks;
  std::string lastDate;
  // Below a day, ticks on multiples of the step (which divide a day); from a
  // day up, every step days from the first midnight of the range.
  const int64_t firstTick = step < 86400 ? (from + step - 1) / step * step : (from + 86399) / 86400 * 86400;
  for (int64_t t = firstTick; t < to; t += step) {
    const std::string text = formatTime(t);  // "YYYY-MM-DD HH:MM:SS"
    AxisTick tick{t, "", ""};
    if (step >= 86400) {
      tick.label = text.substr(5, 5);
      const std::string year = text.substr(0, 4);
      if (year != lastDate) tick.date = year;
      lastDate = year;
    } else {
      tick.label = text.substr(11, step < 60 ? 8 : 5);
      const std::string date = text.substr(0, 10);
      if (date != lastDate) tick.date = date;
      lastDate = date;
    }
    ticks.push_back(tick);
  }
  return ticks;
}

std::string renderTimelineSvg(const std::vector<TimelineRow>& rows, int64_t from, int64_t to, int width) {
  const CPlot plot(from, to, width);
  const int rowsHeight = static_cast<int>(rows.size()) * (kRowHeight + kRowGap);
  const int height = kTop + rowsHeight + kAxisHeight;
  const int axisY = kTop + rowsHeight - kRowGap / 2;

  std::string out;
  appendf(out,
          "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\" "
          "font-family=\"sans-serif\" font-size=\"11\" data-from=\"%lld\" data-to=\"%lld\" data-plot-x=\"%d\" "
          "data-plot-width=\"%.3f\">\n",
          width, height, width, height, static_cast<long long>(from), static_cast<long long>(to), kPlotLeft,
          plot.width());
  appendf(out, "<rect width=\"%d\" height=\"%d\" fill=\"white\"/>\n", width, height);
  appendf(out, "<text x=\"%d\" y=\"18\" font-size=\"13\" font-weight=\"bold\">%s .. %s UTC</text>\n", kPlotLeft,
          formatTime(from).c_str(), formatTime(to - 1).c_str());
  drawLegend(out, width);

  for (size_t i = 0; i < rows.size(); ++i) {
    const TimelineRow& row = rows[i];
    const double y = kTop + static_cast<double>(i) * (kRowHeight + kRowGap);
    appendf(out, "<text x=\"6\" y=\"%.1f\">stream %u</text>\n", y + kRowHeight / 2.0 + 4, row.stream);
    drawSpans(out, plot, row.stream, gapsOf(row.recorded, from, to), "gap", kGapColour, y, kRowHeight, false);
    drawSpans(out, plot, row.stream, row.recorded, "recorded", kRecordedColour, y, kRowHeight, true);
    drawSpans(out, plot, row.stream, row.locked, "locked", kLockedColour, y, kBand, true);
    drawSpans(out, plot, row.stream, row.noIndex, "noindex", kNoIndexColour, y + kRowHeight - kBand, kBand, true);
    for (int64_t t : row.cuts) {
      const double x = plot.x(t);
      appendf(out,
              "<line class=\"cut\" data-stream=\"%u\" data-time=\"%lld\" x1=\"%.3f\" y1=\"%.1f\" x2=\"%.3f\" "
              "y2=\"%.1f\" stroke=\"%s\" stroke-width=\"1.5\"><title>file cut %s UTC</title></line>\n",
              row.stream, static_cast<long long>(t), x, y - 3, x, y + kRowHeight + 3, kCutColour,
              formatTime(t).c_str());
    }
  }

  // The axis: a grid line through every row at each tick, labels below.
  appendf(out, "<line x1=\"%d\" y1=\"%d\" x2=\"%.3f\" y2=\"%d\" stroke=\"#555\"/>\n", kPlotLeft, axisY,
          kPlotLeft + plot.width(), axisY);
  const int maxTicks = std::max(1, static_cast<int>(plot.width()) / kPixelsPerTick);
  for (const AxisTick& tick : axisTicks(from, to, maxTicks)) {
    const double x = plot.x(tick.time);
    appendf(out,
            "<line class=\"grid\" x1=\"%.3f\" y1=\"%d\" x2=\"%.3f\" y2=\"%d\" stroke=\"#888\" stroke-opacity=\"0.5\" "
            "stroke-dasharray=\"2,3\"/>\n",
            x, kTop - 4, x, axisY + 4);
    appendf(out, "<text class=\"tick\" data-time=\"%lld\" x=\"%.3f\" y=\"%d\" text-anchor=\"middle\">%s</text>\n",
            static_cast<long long>(tick.time), x, axisY + 16, tick.label.c_str());
    if (!tick.date.empty()) {
      appendf(out, "<text x=\"%.3f\" y=\"%d\" text-anchor=\"middle\" fill=\"#555\">%s</text>\n", x, axisY + 30,
              tick.date.c_str());
    }
  }
  out += "</svg>\n";
  return out;
}

}  // namespace ZarnMedia
