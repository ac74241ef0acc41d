// The drawing of `zarn-media timeline`: one row per stream over a time range,
// written as SVG by hand (no dependency).
//
// Every drawn span is an element of class recorded, gap, locked or noindex
// carrying data-stream, data-begin and data-end (epoch seconds, end excluded,
// clipped to the range); a cut point is a line of class cut with data-time.
// The root element carries data-from and data-to (the range, end excluded),
// data-plot-x and data-plot-width: a time t lies at
//   x = plot-x + (t - from) * plot-width / (to - from)
// and spans narrower than one pixel are widened to one, so that they show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ZarnMedia {

struct TimeSpan {
  int64_t begin;  // epoch seconds
  int64_t end;    // excluded
};

struct TimelineRow {
  unsigned stream = 0;
  std::vector<TimeSpan> recorded;  // sorted, not overlapping; the rest of the range is gap
  std::vector<TimeSpan> locked;
  std::vector<TimeSpan> noIndex;   // record files without a usable index
  std::vector<int64_t> cuts;       // where one record file ends and the next begins
};

struct AxisTick {
  int64_t time;
  std::string label;  // "HH:MM" below a day's step, "MM-DD" from a day up
  std::string date;   // a second line: the date at the first tick and where the day (year) changes
};

// Ticks on round UTC times (multiples of 1, 2, 5, 10, 15, 30 s or min; 1, 2, 3,
// 6, 12 h; every 1, 2, 3, 7, 14, 30 d from the range's first midnight), the
// smallest step giving at most `maxTicks` ticks in [from, to).
std::vector<AxisTick> axisTicks(int64_t from, int64_t to, int maxTicks);

// The whole document; `to` excluded, `width` in pixels.
std::string renderTimelineSvg(const std::vector<TimelineRow>& rows, int64_t from, int64_t to, int width);

}  // namespace ZarnMedia
