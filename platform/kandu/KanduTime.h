// Kandu calendar time.
//
// CTime converts between seconds since the epoch and calendar fields with one
// conversion both ways: UTC (timegm / gmtime_r), so that a time formatted and
// parsed again is the same number whatever the machine's time zone. What time
// it is comes from a clock (KanduClock.h).
#pragma once

#include <cstdint>
#include <string>

#include "KanduClock.h"

namespace Velto::Kandu {

// The system clock's monotonic face: for measuring real waits and durations
// (polls, retries, benchmarks), never for record time.
inline uint64_t monotonicMs() { return systemClock().monotonicMs(); }
inline uint64_t monotonicUs() { return systemClock().monotonicUs(); }

class CTime {
 public:
  // The epoch (seconds 0).
  CTime() = default;
  explicit CTime(int64_t seconds) : m_seconds(seconds) {}
  // From calendar fields, normalised as makeTime does.
  CTime(int year, int month, int day, int hour, int minute, int second);

  // The clock's current wall time.
  static CTime now(const IClock& clock = systemClock());

  // Seconds since the epoch of the given UTC calendar fields. Out-of-range
  // fields are normalised as the calendar does: hour 24 is 00:00 of the next
  // day, month 0 is December of the year before, day 0 the last day of the
  // previous month, second 60 the next minute.
  static int64_t makeTime(int year, int month, int day, int hour, int minute, int second);

  int64_t getTime() const { return m_seconds; }
  int getYear() const;
  int getMonth() const;   // 1..12
  int getDay() const;     // 1..31
  int getHour() const;    // 0..23
  int getMinute() const;  // 0..59
  int getSecond() const;  // 0..59
  int getDayOfWeek() const;  // 0 = Sunday

  // Formats with a pattern: "yyyy" year (4 digits), "yy" (2 digits), "MM" month,
  // "dd" day, "HH" hour, "mm" minute, "ss" second, all zero-padded; any other
  // character is copied. E.g. "yyyy/MM/dd/HHmmss", "HHmmss", "yyyy-MM-dd HH:mm:ss".
  std::string format(const char* pattern) const;

  bool operator==(const CTime&) const = default;

 private:
  int64_t m_seconds = 0;
};

}  // namespace Velto::Kandu
