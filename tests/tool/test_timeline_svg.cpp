// The timeline picture of zarn-media: its time axis and where its spans land.
// The picture is read back through the attributes it documents (TimelineSvg.h).
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "KanduTime.h"
#include "TimelineSvg.h"

namespace {

using namespace ZarnMedia;

int64_t utc(int y, int mo, int d, int h, int mi, int s) { return Velto::Kandu::CTime::makeTime(y, mo, d, h, mi, s); }

TEST(TimelineAxis, StepAndLabelsSuitTheRange) {
  const struct {
    const char* what;
    int64_t from, to;
    int maxTicks;
    size_t count;
    int64_t step;
    const char* firstLabel;
    const char* firstDate;
  } cases[] = {
      {"a day in hours", utc(2024, 5, 1, 0, 0, 0), utc(2024, 5, 2, 0, 0, 0), 13, 12, 7200, "00:00", "2024-05-01"},
      {"a month in days", utc(2024, 5, 1, 0, 0, 0), utc(2024, 6, 1, 0, 0, 0), 13, 11, 3 * 86400, "05-01", "2024"},
      {"a month from mid-day starts at midnight", utc(2024, 5, 1, 9, 30, 0), utc(2024, 5, 31, 9, 30, 0), 13, 10,
       3 * 86400, "05-02", "2024"},
      {"a quarter of an hour in minutes", utc(2024, 5, 1, 11, 55, 0), utc(2024, 5, 1, 12, 10, 1), 13, 8, 120,
       "11:56", "2024-05-01"},
      {"a minute in seconds", utc(2024, 5, 1, 12, 0, 0), utc(2024, 5, 1, 12, 1, 0), 13, 12, 5, "12:00:00",
       "2024-05-01"},
  };
  for (const auto& c : cases) {
    const std::vector<AxisTick> ticks = axisTicks(c.from, c.to, c.maxTicks);
    ASSERT_EQ(ticks.size(), c.count) << c.what;
    EXPECT_EQ(ticks[1].time - ticks[0].time, c.step) << c.what;
    EXPECT_EQ(ticks[0].label, c.firstLabel) << c.what;
    EXPECT_EQ(ticks[0].date, c.firstDate) << c.what;
    EXPECT_EQ(ticks[1].date, "") << c.what << ": the date only where it changes";
    EXPECT_TRUE(ticks.front().time >= c.from && ticks.back().time < c.to) << c.what;
  }
  // Across midnight the new day is written under its first tick.
  const std::vector<AxisTick> night = axisTicks(utc(2024, 5, 1, 20, 0, 0), utc(2024, 5, 2, 4, 0, 0), 13);
  const auto midnight = std::find_if(night.begin(), night.end(), [](const AxisTick& t) { return t.label == "00:00"; });
  ASSERT_NE(midnight, night.end());
  EXPECT_EQ(midnight->date, "2024-05-02");
}

struct Drawn {
  std::string kind;
  unsigned stream;
  int64_t begin, end;
  double x, width;
};

std::vector<Drawn> spansOf(const std::string& svg) {
  static const std::regex rect(
      R"re(<rect class="(\w+)" data-stream="(\d+)" data-begin="(\d+)" data-end="(\d+)" x="([\d.]+)" y="[\d.]+" width="([\d.]+)")re");
  std::vector<Drawn> out;
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), rect); it != std::sregex_iterator(); ++it) {
    const std::smatch& m = *it;
    out.push_back({m[1], static_cast<unsigned>(std::stoul(m[2])), std::stoll(m[3]), std::stoll(m[4]), std::stod(m[5]),
                   std::stod(m[6])});
  }
  return out;
}

double attribute(const std::string& svg, const std::string& name) {
  std::smatch m;
  EXPECT_TRUE(std::regex_search(svg, m, std::regex(name + R"(="([\d.]+)\")")));
  return std::stod(m[1]);
}

TEST(TimelineSvg, SpansTileEachRowAndLandWhereTheirTimesAre) {
  const int64_t from = utc(2024, 5, 1, 0, 0, 0), to = from + 86400;
  TimelineRow seven;
  seven.stream = 7;
  seven.recorded = {{from, from + 600}, {from + 3600, from + 3601}, {from + 43200, to}};  // a second is under 1 px
  seven.locked = {{from + 43200, from + 50000}};
  seven.noIndex = {{from + 3600, from + 3601}};
  seven.cuts = {from + 300};
  TimelineRow eight;  // nothing recorded: one gap
  eight.stream = 8;
  const std::string svg = renderTimelineSvg({seven, eight}, from, to, 1200);

  const double plotX = attribute(svg, "data-plot-x"), plotWidth = attribute(svg, "data-plot-width");
  EXPECT_EQ(attribute(svg, "data-from"), from);
  EXPECT_EQ(attribute(svg, "data-to"), to);
  std::map<std::string, std::vector<std::pair<int64_t, int64_t>>> byKind;
  std::map<unsigned, std::vector<std::pair<int64_t, int64_t>>> covered;  // recorded and gap
  for (const Drawn& d : spansOf(svg)) {
    const double x = plotX + static_cast<double>(d.begin - from) * plotWidth / 86400;
    const double w = static_cast<double>(d.end - d.begin) * plotWidth / 86400;
    EXPECT_NEAR(d.x, x, 0.002) << d.kind << " " << d.begin;
    EXPECT_NEAR(d.width, d.kind == "gap" ? w : std::max(w, 1.0), 0.002) << d.kind << " " << d.begin;
    byKind[d.kind + std::to_string(d.stream)].push_back({d.begin - from, d.end - from});
    if (d.kind == "gap" || d.kind == "recorded") covered[d.stream].push_back({d.begin, d.end});
  }
  using Spans = std::vector<std::pair<int64_t, int64_t>>;
  EXPECT_EQ(byKind["recorded7"], (Spans{{0, 600}, {3600, 3601}, {43200, 86400}}));
  EXPECT_EQ(byKind["gap7"], (Spans{{600, 3600}, {3601, 43200}}));
  EXPECT_EQ(byKind["locked7"], (Spans{{43200, 50000}}));
  EXPECT_EQ(byKind["noindex7"], (Spans{{3600, 3601}}));
  EXPECT_EQ(byKind["gap8"], (Spans{{0, 86400}}));
  for (auto& [stream, spans] : covered) {
    std::sort(spans.begin(), spans.end());
    int64_t at = from;
    for (const auto& s : spans) {
      EXPECT_EQ(s.first, at) << "stream " << stream << ": a hole or an overlap";
      at = s.second;
    }
    EXPECT_EQ(at, to) << "stream " << stream;
  }
  EXPECT_NE(svg.find("class=\"cut\" data-stream=\"7\" data-time=\"" + std::to_string(from + 300) + "\""),
            std::string::npos);
}

}  // namespace
