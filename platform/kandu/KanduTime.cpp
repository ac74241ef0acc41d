#include "KanduTime.h"

#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

namespace Velto::Kandu {

namespace {

// The replaced wall clock. The flag keeps the common case (no replacement) to one
// atomic load; the mutex only guards the function object itself.
std::atomic<bool> g_testClockSet{false};
std::mutex g_testClockMutex;
std::shared_ptr<const std::function<int64_t()>> g_testClock;  // guarded by g_testClockMutex

int64_t systemWallClockMs() {
  struct timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Floor division, so that times before the epoch fall into the right second.
int64_t floorDiv(int64_t value, int64_t divisor) {
  int64_t q = value / divisor;
  return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? q - 1 : q;
}

struct tm toFields(int64_t seconds) {
  struct tm fields;
  std::memset(&fields, 0, sizeof(fields));
  time_t t = static_cast<time_t>(seconds);
  ::gmtime_r(&t, &fields);
  return fields;
}

}  // namespace

int64_t wallClockMs() {
  if (!g_testClockSet.load(std::memory_order_acquire)) return systemWallClockMs();
  std::shared_ptr<const std::function<int64_t()>> source;
  {
    std::lock_guard<std::mutex> lock(g_testClockMutex);
    source = g_testClock;
  }
  return source ? (*source)() : systemWallClockMs();
}

int64_t wallClockSeconds() { return floorDiv(wallClockMs(), 1000); }

void setWallClockForTest(std::function<int64_t()> sourceMs) {
  std::shared_ptr<const std::function<int64_t()>> replacement;
  if (sourceMs) replacement = std::make_shared<const std::function<int64_t()>>(std::move(sourceMs));
  std::lock_guard<std::mutex> lock(g_testClockMutex);
  g_testClock = std::move(replacement);
  g_testClockSet.store(g_testClock != nullptr, std::memory_order_release);
}

uint64_t monotonicUs() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

uint64_t monotonicMs() { return monotonicUs() / 1000u; }

CTime::CTime(int year, int month, int day, int hour, int minute, int second)
    : m_seconds(makeTime(year, month, day, hour, minute, second)) {}

CTime CTime::now() { return CTime(wallClockSeconds()); }

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
