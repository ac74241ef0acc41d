#include "KanduLog.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace Velto::Kandu {

namespace detail {
std::atomic<int> g_logLevel{LOG_INFO};
std::atomic<bool> g_logInitialised{false};
}  // namespace detail

namespace {

// The destination of formatted lines. Leaked on purpose: code running in static
// destructors (timers, threads stopping at exit) may still log.
struct LogOutput {
  std::mutex mutex;
  int fd = STDERR_FILENO;  // guarded by mutex; STDERR_FILENO or a file we own
  LogSink sink;            // guarded by mutex; replaces fd while set
};

LogOutput& output() {
  static LogOutput* instance = new LogOutput();
  return *instance;
}

std::once_flag g_initOnce;

const char* levelName(LogLevel level) {
  switch (level) {
    case LOG_TRACE: return "TRACE";
    case LOG_DEBUG: return "DEBUG";
    case LOG_INFO: return "INFO ";
    case LOG_WARN: return "WARN ";
    case LOG_ERROR: return "ERROR";
    case LOG_OFF: break;
  }
  return "?????";
}

int openLogFile(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// Writes all of `length` bytes; a line is one write() unless the kernel splits it.
void writeAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd, data, length);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report a failing log destination
    }
    data += n;
    length -= static_cast<size_t>(n);
  }
}

// "YYYY-MM-DD HH:MM:SS.mmm LEVEL [tid] " in local time, from the real clock (a
// test's replaced wall clock would make the log lie about when things happened).
size_t formatPrefix(char* out, size_t capacity, LogLevel level) {
  struct timeval tv;
  ::gettimeofday(&tv, nullptr);
  struct tm fields;
  time_t seconds = tv.tv_sec;
  ::localtime_r(&seconds, &fields);
  int n = std::snprintf(out, capacity, "%04d-%02d-%02d %02d:%02d:%02d.%03d %s [%ld] ", fields.tm_year + 1900,
                        fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
                        static_cast<int>(tv.tv_usec / 1000), levelName(level), static_cast<long>(::gettid()));
  if (n < 0) return 0;
  return static_cast<size_t>(n) < capacity ? static_cast<size_t>(n) : capacity - 1;
}

}  // namespace

namespace detail {

void initLogFromEnvironment() {
  std::call_once(g_initOnce, [] {
    const char* levelText = std::getenv("ZARN_LOG_LEVEL");
    LogLevel level;
    if (levelText != nullptr && *levelText != '\0') {
      if (parseLogLevel(levelText, level))
        g_logLevel.store(level, std::memory_order_relaxed);
      else
        std::fprintf(stderr, "ZARN_LOG_LEVEL=\"%s\" not understood; logging at info\n", levelText);
    }
    const char* path = std::getenv("ZARN_LOG_FILE");
    if (path != nullptr && *path != '\0') {
      int fd = openLogFile(path);
      if (fd >= 0) {
        std::lock_guard<std::mutex> lock(output().mutex);
        output().fd = fd;
      } else {
        std::fprintf(stderr, "ZARN_LOG_FILE=\"%s\" cannot be opened (%s); logging to stderr\n", path,
                     std::strerror(errno));
      }
    }
    g_logInitialised.store(true, std::memory_order_release);
  });
}

}  // namespace detail

void setLogLevel(LogLevel level) {
  // Read the environment first so that it cannot override the host's choice later.
  detail::ensureLogInit();
  detail::g_logLevel.store(level, std::memory_order_relaxed);
}

LogLevel getLogLevel() {
  detail::ensureLogInit();
  return static_cast<LogLevel>(detail::g_logLevel.load(std::memory_order_relaxed));
}

bool parseLogLevel(const char* text, LogLevel& out) {
  if (text == nullptr) return false;
  static const struct {
    const char* name;
    LogLevel level;
  } kNames[] = {{"trace", LOG_TRACE}, {"debug", LOG_DEBUG}, {"info", LOG_INFO},  {"warn", LOG_WARN},
                {"warning", LOG_WARN}, {"error", LOG_ERROR}, {"off", LOG_OFF}};
  for (const auto& entry : kNames) {
    if (::strcasecmp(text, entry.name) == 0) {
      out = entry.level;
      return true;
    }
  }
  if (text[0] >= '0' && text[0] <= '5' && text[1] == '\0') {
    out = static_cast<LogLevel>(text[0] - '0');
    return true;
  }
  return false;
}

bool setLogFile(const std::string& path) {
  detail::ensureLogInit();
  int fd = STDERR_FILENO;
  if (!path.empty()) {
    fd = openLogFile(path);
    if (fd < 0) return false;
  }
  int previous;
  {
    std::lock_guard<std::mutex> lock(output().mutex);
    previous = output().fd;
    output().fd = fd;
  }
  if (previous != STDERR_FILENO) ::close(previous);
  return true;
}

void setLogSink(LogSink sink) {
  detail::ensureLogInit();
  LogSink previous;
  {
    std::lock_guard<std::mutex> lock(output().mutex);
    previous.swap(output().sink);
    output().sink = std::move(sink);
  }
  // `previous` is destroyed here, outside the lock: its captures may be heavy.
}

void logPrint(LogLevel level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  logPrintV(level, fmt, args);
  va_end(args);
}

void logPrintV(LogLevel level, const char* fmt, va_list args) {
  if (level >= LOG_OFF || !logEnabled(level)) return;

  // Most lines fit the stack buffer; a longer one is formatted a second time into
  // a heap buffer of the exact size, so no line is ever cut short.
  constexpr size_t kPrefixCapacity = 64;
  char stackBuffer[1024];
  char* line = stackBuffer;
  std::string heapBuffer;
  size_t prefixLength = formatPrefix(stackBuffer, kPrefixCapacity, level);

  va_list retry;
  va_copy(retry, args);
  int needed = std::vsnprintf(stackBuffer + prefixLength, sizeof(stackBuffer) - prefixLength - 1, fmt, args);
  if (needed < 0) {
    va_end(retry);
    return;
  }
  size_t messageLength = static_cast<size_t>(needed);
  if (prefixLength + messageLength + 1 >= sizeof(stackBuffer)) {
    heapBuffer.resize(prefixLength + messageLength + 2);
    std::memcpy(heapBuffer.data(), stackBuffer, prefixLength);
    std::vsnprintf(heapBuffer.data() + prefixLength, messageLength + 1, fmt, retry);
    line = heapBuffer.data();
  }
  va_end(retry);

  // One trailing line break whatever the message brought along.
  while (messageLength > 0 &&
         (line[prefixLength + messageLength - 1] == '\n' || line[prefixLength + messageLength - 1] == '\r'))
    --messageLength;

  LogOutput& out = output();
  std::lock_guard<std::mutex> lock(out.mutex);
  if (out.sink) {
    out.sink(level, std::string(line + prefixLength, messageLength));
    return;
  }
  line[prefixLength + messageLength] = '\n';
  writeAll(out.fd, line, prefixLength + messageLength + 1);
}

}  // namespace Velto::Kandu
