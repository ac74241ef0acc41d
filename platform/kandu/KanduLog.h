// Kandu logging: printf-style lines at five levels.
//
// A line below the current level costs two atomic loads and no formatting (the
// KLOG_* macros test the level before evaluating their arguments).
// Lines go to stderr by default, or to a file; a test can install a sink that
// receives every formatted line instead.
//
// Configuration, in order of precedence: setLogLevel()/setLogFile() calls by the
// host; otherwise the environment at first use:
//   ZARN_LOG_LEVEL  trace|debug|info|warn|error|off (or 0..5)   default: info
//   ZARN_LOG_FILE   path of a file to append to                 default: stderr
//
// A line to stderr or the file reads "YYYY-MM-DD HH:MM:SS.mmm LEVEL [tid] text"
// (local time, kernel thread id) and ends in exactly one line break, whatever
// line breaks the message itself ended with.
//
// Thread-safe. Each line is written with one write() under the log lock, so
// lines never interleave; messages of any length arrive whole.
#pragma once

#include <atomic>
#include <cstdarg>
#include <functional>
#include <string>

namespace Velto::Kandu {

enum LogLevel : int { LOG_TRACE = 0, LOG_DEBUG = 1, LOG_INFO = 2, LOG_WARN = 3, LOG_ERROR = 4, LOG_OFF = 5 };

namespace detail {
extern std::atomic<int> g_logLevel;         // initialised from the environment on first use
extern std::atomic<bool> g_logInitialised;  // set once the environment has been read
void initLogFromEnvironment();
inline void ensureLogInit() {
  if (!g_logInitialised.load(std::memory_order_acquire)) initLogFromEnvironment();
}
}  // namespace detail

inline bool logEnabled(LogLevel level) {
  detail::ensureLogInit();
  return level >= detail::g_logLevel.load(std::memory_order_relaxed);
}

void setLogLevel(LogLevel level);
LogLevel getLogLevel();
// Parses "trace".."off" or "0".."5"; false for anything else.
bool parseLogLevel(const char* text, LogLevel& out);
// Appends to `path` from now on; an empty path returns to stderr. false when the
// file cannot be opened (the destination is then unchanged).
bool setLogFile(const std::string& path);

// Receives every line at or above the level, already formatted (without the
// prefix the file/stderr destination adds, and without trailing line breaks).
// Replaces the destination while set; pass an empty function to remove it. The
// sink is called under the log lock, so once setLogSink() returns the previous
// sink is no longer running; a sink must therefore not log itself.
using LogSink = std::function<void(LogLevel, const std::string&)>;
void setLogSink(LogSink sink);

// Formats and emits one line; prefer the macros, which skip disabled levels.
void logPrint(LogLevel level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void logPrintV(LogLevel level, const char* fmt, va_list args);

}  // namespace Velto::Kandu

#define KLOG_AT(level, ...)                                                       \
  do {                                                                            \
    if (::Velto::Kandu::logEnabled(level)) ::Velto::Kandu::logPrint(level, __VA_ARGS__); \
  } while (0)
#define KLOG_TRACE(...) KLOG_AT(::Velto::Kandu::LOG_TRACE, __VA_ARGS__)
#define KLOG_DEBUG(...) KLOG_AT(::Velto::Kandu::LOG_DEBUG, __VA_ARGS__)
#define KLOG_INFO(...) KLOG_AT(::Velto::Kandu::LOG_INFO, __VA_ARGS__)
#define KLOG_WARN(...) KLOG_AT(::Velto::Kandu::LOG_WARN, __VA_ARGS__)
#define KLOG_ERROR(...) KLOG_AT(::Velto::Kandu::LOG_ERROR, __VA_ARGS__)
