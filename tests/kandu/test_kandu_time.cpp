// Calendar time and clocks: UTC conversion both ways, normalisation of
// out-of-range fields, format patterns, the replaceable wall clock.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "KanduThread.h"
#include "KanduTime.h"

using Velto::Kandu::CTime;

namespace {

// Parses "yyyy-MM-dd HH:mm:ss" back into seconds through makeTime, the way
// record names are read.
int64_t parseBack(const std::string& text) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  if (std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &y, &mo, &d, &h, &mi, &s) != 6) return -1;
  return CTime::makeTime(y, mo, d, h, mi, s);
}

// Reference values computed independently (Python calendar.timegm); fields out
// of range are normalised by the calendar.
TEST(CTimeTest, MakeTimeMatchesReferenceValuesAndNormalisesOutOfRangeFields) {
  struct Case {
    int y, mo, d, h, mi, s;
    int64_t utc;
  };
  const Case cases[] = {
      {1970, 1, 1, 0, 0, 0, 0},           {2016, 5, 1, 23, 59, 30, 1462147170}, {2016, 2, 29, 12, 0, 0, 1456747200},
      {2000, 2, 29, 0, 0, 0, 951782400},  {2038, 1, 19, 3, 14, 8, 2147483648LL},  // past the signed 32-bit limit
      {2016, 12, 31, 24, 0, 0, 1483228800},  // hour 24: midnight of the next day, across a year end
      {2016, 0, 31, 0, 0, 0, 1451520000},    // month 0: December of the year before
      {2016, 5, 0, 0, 0, 0, 1461974400},     // day 0: the last day of the month before, leap February included
      {2016, 3, 0, 0, 0, 0, 1456704000},     {2100, 2, 29, 0, 0, 0, 4107542400LL},  // non-leap century: 1 March
      {2016, 2, 29, 23, 59, 60, 1456790400},  // second 60 carries, and minute 60
      {2016, 2, 29, 23, 60, 1, 1456790401},  {2016, 13, 1, 0, 0, 0, 1483228800},  // month 13: next January
      {2017, 1, 1, 0, 0, -1, 1483228799},    // negative seconds borrow
  };
  for (const Case& c : cases) {
    EXPECT_EQ(CTime::makeTime(c.y, c.mo, c.d, c.h, c.mi, c.s), c.utc) << c.y << "-" << c.mo << "-" << c.d << " " << c.h;
  }
  EXPECT_EQ(CTime(2016, 5, 1, 23, 59, 30).getTime(), 1462147170);
}

TEST(CTimeTest, FormatPatterns) {
  CTime t(CTime::makeTime(2016, 5, 1, 3, 4, 5));
  EXPECT_EQ(t.format("yyyy/MM/dd/HHmmss"), "2016/05/01/030405");
  EXPECT_EQ(t.format("HHmmss"), "030405");
  EXPECT_EQ(t.format("yyyy-MM-dd HH:mm:ss"), "2016-05-01 03:04:05");
  EXPECT_EQ(t.format("yyMMdd"), "160501");
  // characters outside the tokens are copied, including lone token letters
  EXPECT_EQ(t.format("[y-M-d H:m:s]"), "[y-M-d H:m:s]");
  EXPECT_EQ(t.format("media_7/yyyy/"), "media_7/2016/");
  EXPECT_EQ(t.format(""), "");
  EXPECT_EQ(CTime(CTime::makeTime(2009, 12, 31, 0, 0, 0)).format("yy"), "09");
  // The field getters agree with the text.
  EXPECT_EQ(t.getYear() * 10000 + t.getMonth() * 100 + t.getDay(), 20160501);
  EXPECT_EQ(t.getHour() * 10000 + t.getMinute() * 100 + t.getSecond(), 30405);
}

TEST(CTimeTest, FormatThenMakeTimeRoundTripsAcrossBoundaries) {
  const int64_t boundaries[] = {
      CTime::makeTime(2016, 12, 31, 23, 59, 59),  // year end
      CTime::makeTime(2016, 2, 28, 23, 59, 59),   // before a leap day
      CTime::makeTime(2016, 2, 29, 23, 59, 59),   // leap day end
      CTime::makeTime(2000, 2, 29, 12, 0, 0),     // leap century
      CTime::makeTime(2100, 2, 28, 23, 59, 59),   // non-leap century
      CTime::makeTime(2016, 4, 30, 23, 59, 59),   // 30-day month end
      CTime::makeTime(2038, 1, 19, 3, 14, 7),     // 32-bit signed limit
  };
  for (int64_t base : boundaries) {
    for (int64_t s : {base - 1, base, base + 1, base + 2, base + 86400}) {
      std::string text = CTime(s).format("yyyy-MM-dd HH:mm:ss");
      EXPECT_EQ(parseBack(text), s) << text;
    }
  }
  // A sweep over several years in steps that hit every hour and day of month.
  for (int64_t s = CTime::makeTime(2015, 1, 1, 0, 0, 0); s < CTime::makeTime(2021, 1, 1, 0, 0, 0);
       s += 86400 * 3 + 3600 + 61) {
    std::string text = CTime(s).format("yyyy-MM-dd HH:mm:ss");
    ASSERT_EQ(parseBack(text), s) << text;
  }
}

TEST(CTimeTest, ConversionIgnoresTheMachineTimeZone) {
  const char* saved = std::getenv("TZ");
  std::string previous = saved ? saved : "";
  int64_t before = CTime::makeTime(2016, 7, 1, 12, 0, 0);
  ::setenv("TZ", "JST-9", 1);  // POSIX form: needs no zone database
  ::tzset();
  int64_t during = CTime::makeTime(2016, 7, 1, 12, 0, 0);
  std::string text = CTime(before).format("HH");
  // The zone really is in effect for the C library's local-time functions.
  time_t probe = static_cast<time_t>(before);
  struct tm local;
  ::localtime_r(&probe, &local);
  if (saved)
    ::setenv("TZ", previous.c_str(), 1);
  else
    ::unsetenv("TZ");
  ::tzset();
  ASSERT_EQ(local.tm_hour, 21);
  EXPECT_EQ(before, during);
  EXPECT_EQ(text, "12");
}

// The system clock reads the machine's clocks; a manual clock only what it is told.
TEST(ClockTest, SystemClockFollowsTheMachineAndAManualClockStandsStill) {
  Velto::Kandu::IClock& system = Velto::Kandu::systemClock();
  EXPECT_LE(std::llabs(system.wallClockSeconds() - static_cast<int64_t>(std::time(nullptr))), 5);
  uint64_t before = system.monotonicMs();
  Velto::Kandu::sleepMs(20);
  EXPECT_GE(system.monotonicMs() - before, 19u);

  const int64_t start = CTime::makeTime(2016, 5, 1, 0, 0, 0) * 1000 - 250;  // before a second's end
  Velto::Kandu::CManualClock manual(start);
  const uint64_t mono = manual.monotonicUs();
  Velto::Kandu::sleepMs(5);
  EXPECT_EQ(manual.wallClockMs(), start);
  EXPECT_EQ(manual.monotonicUs(), mono);
  EXPECT_EQ(CTime::now(manual).format("yyyy-MM-dd HH:mm:ss"), "2016-04-30 23:59:59");
  manual.advance(250);
  EXPECT_EQ(manual.wallClockSeconds(), start / 1000 + 1);
  EXPECT_EQ(manual.monotonicUs() - mono, 250000u);
  // Before the epoch, seconds round down, not toward zero.
  Velto::Kandu::CManualClock early(-1500);
  EXPECT_EQ(early.wallClockSeconds(), -2);
}

}  // namespace
