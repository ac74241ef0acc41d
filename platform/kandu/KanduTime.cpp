#include "KanduTime.h"

#include <time.h>

#include <cstdio>
#include <cstring>

namespace Velto::Kandu {

namespace {

struct tm toFields(int64_t seconds) {
  struct tm fields;
  std::memset(&fields, 0, sizeof(fields));
  time_t t = static_cast<time_t>(seconds);
  ::gmtime_r(&t, &fields);
  return fields;
}

}  // namespace

CTime::CTime(int year, int month, int day, int hour, int minute, int second)
    : m_seconds(makeTime(year, month, day, hour, minute, second)) {}

CTime CTime::now(const IClock& clock) { return CTime(clock.wallClockSeconds()); }

int64_t CTime::makeTime(int year, int month, int day, int hour, int minute, int second) {
  // timegm normalises every out-of-range field (month 0, day 0, hour 24, second 60)
  // by carrying into the next larger one, which is exactly the calendar arithmetic
  // callers rely on when they step a time by fields.
  struct tm fields;
  std::memset(&fields, 0, sizeof(fields));
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  fields.tm_isdst = 0;
  return static_cast<int64_t>(::timegm(&fields));
}

int CTime::getYear() const { return toFields(m_seconds).tm_year + 1900; }
int CTime::getMonth() const { return toFields(m_seconds).tm_mon + 1; }
int CTime::getDay() const { return toFields(m_seconds).tm_mday; }
int CTime::getHour() const { return toFields(m_seconds).tm_hour; }
int CTime::getMinute() const { return toFields(m_seconds).tm_min; }
int CTime::getSecond() const { return toFields(m_seconds).tm_sec; }
int CTime::getDayOfWeek() const { return toFields(m_seconds).tm_wday; }

std::string CTime::format(const char* pattern) const {
  std::string out;
  if (pattern == nullptr) return out;
  const struct tm fields = toFields(m_seconds);
  auto append = [&out](int value, int width) {
    char digits[16];
    std::snprintf(digits, sizeof(digits), "%0*d", width, value);
    out += digits;
  };
  for (const char* p = pattern; *p != '\0';) {
    if (std::strncmp(p, "yyyy", 4) == 0) {
      append(fields.tm_year + 1900, 4);
      p += 4;
    } else if (std::strncmp(p, "yy", 2) == 0) {
      append((fields.tm_year + 1900) % 100, 2);
      p += 2;
    } else if (std::strncmp(p, "MM", 2) == 0) {
      append(fields.tm_mon + 1, 2);
      p += 2;
    } else if (std::strncmp(p, "dd", 2) == 0) {
      append(fields.tm_mday, 2);
      p += 2;
    } else if (std::strncmp(p, "HH", 2) == 0) {
      append(fields.tm_hour, 2);
      p += 2;
    } else if (std::strncmp(p, "mm", 2) == 0) {
      append(fields.tm_min, 2);
      p += 2;
    } else if (std::strncmp(p, "ss", 2) == 0) {
      append(fields.tm_sec, 2);
      p += 2;
    } else {
      out += *p++;
    }
  }
  return out;
}

}  // namespace Velto::Kandu
