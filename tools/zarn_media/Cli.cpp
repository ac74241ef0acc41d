#include "Cli.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace ZarnMedia {

int fail(int code, const char* format, ...) {
  std::fputs("zarn-media: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  return code;
}

COptions::COptions(std::vector<std::string> valueOptions, std::vector<std::string> flagOptions)
    : m_valueOptions(std::move(valueOptions)), m_flagOptions(std::move(flagOptions)) {
  m_valueOptions.push_back("store");
  m_flagOptions.insert(m_flagOptions.end(), {"json", "verbose", "help"});
}

bool COptions::parse(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "-h") arg = "--help";
    if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
      m_positional.push_back(arg);
      continue;
    }
    std::string name = arg.substr(2);
    std::string value;
    bool inlineValue = false;
    if (size_t eq = name.find('='); eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
      inlineValue = true;
    }
    if (std::find(m_flagOptions.begin(), m_flagOptions.end(), name) != m_flagOptions.end()) {
      if (inlineValue) {
        fail(kExitUsage, "option --%s takes no value", name.c_str());
        return false;
      }
      m_flags[name] = true;
    } else if (std::find(m_valueOptions.begin(), m_valueOptions.end(), name) != m_valueOptions.end()) {
      if (!inlineValue) {
        if (i + 1 >= argc) {
          fail(kExitUsage, "option --%s needs a value", name.c_str());
          return false;
        }
        value = argv[++i];
      }
      m_values[name] = value;
    } else {
      fail(kExitUsage, "unknown option --%s (see --help)", name.c_str());
      return false;
    }
  }
  return true;
}

std::string COptions::value(const std::string& name, const std::string& fallback) const {
  auto it = m_values.find(name);
  return it == m_values.end() ? fallback : it->second;
}

bool COptions::getUnsigned(const std::string& name, uint64_t& out, uint64_t max) const {
  auto it = m_values.find(name);
  if (it == m_values.end()) return true;
  const std::string& text = it->second;
  char* end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || v > max) {
    fail(kExitUsage, "--%s: '%s' is not a number from 0 to %" PRIu64, name.c_str(), text.c_str(), max);
    return false;
  }
  out = v;
  return true;
}

bool COptions::getDouble(const std::string& name, double& out) const {
  auto it = m_values.find(name);
  if (it == m_values.end()) return true;
  char* end = nullptr;
  double v = std::strtod(it->second.c_str(), &end);
  if (it->second.empty() || *end != '\0' || !std::isfinite(v) || v <= 0) {
    fail(kExitUsage, "--%s: '%s' is not a positive number", name.c_str(), it->second.c_str());
    return false;
  }
  out = v;
  return true;
}

bool COptions::getTime(const std::string& name, int64_t& out) const {
  auto it = m_values.find(name);
  if (it == m_values.end()) return true;
  if (!parseTime(it->second, out)) {
    fail(kExitUsage, "--%s: '%s' is not a time (\"YYYY-MM-DD HH:MM:SS\" UTC, or seconds since 1970)",
         name.c_str(), it->second.c_str());
    return false;
  }
  return true;
}

bool parseTime(const std::string& text, int64_t& out) {
  if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
    errno = 0;
    unsigned long long v = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || v > static_cast<unsigned long long>(CStore::kLastTime)) return false;
    out = static_cast<int64_t>(v);
    return true;
  }
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  char sep = 0;
  int consumed = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d%c%2d:%2d:%2d%n", &y, &mo, &d, &sep, &h, &mi, &s, &consumed) != 7 ||
      static_cast<size_t>(consumed) != text.size() || (sep != ' ' && sep != 'T')) {
    return false;
  }
  if (y < 1970 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59) return false;
  struct tm tm {};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = s;
  const int64_t t = static_cast<int64_t>(timegm(&tm));
  if (t < 0 || t > CStore::kLastTime) return false;
  // A day past the month's end (2024-02-30) normalises to another date: refuse it.
  if (formatTime(t) != (std::string(text).replace(10, 1, " "))) return false;
  out = t;
  return true;
}

std::string formatTime(int64_t epochSeconds) {
  const time_t t = static_cast<time_t>(epochSeconds);
  struct tm tm {};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &tm);
  return text;
}

int64_t nowSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

namespace {

void appendQuoted(std::string& out, const std::string& text) {
  out += '"';
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char esc[8];
          std::snprintf(esc, sizeof(esc), "\\u%04x", c);
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

}  // namespace

void CJson::prefix(const char* key) {
  if (!m_first.empty()) {
    if (!m_first.back()) m_text += ',';
    m_first.back() = false;
  }
  if (key != nullptr) {
    appendQuoted(m_text, key);
    m_text += ':';
  }
}

CJson& CJson::beginObject(const char* key) {
  prefix(key);
  m_text += '{';
  m_first.push_back(true);
  return *this;
}

CJson& CJson::endObject() {
  m_text += '}';
  m_first.pop_back();
  return *this;
}

CJson& CJson::beginArray(const char* key) {
  prefix(key);
  m_text += '[';
  m_first.push_back(true);
  return *this;
}

CJson& CJson::endArray() {
  m_text += ']';
  m_first.pop_back();
  return *this;
}

CJson& CJson::value(const char* key, const std::string& text) {
  prefix(key);
  appendQuoted(m_text, text);
  return *this;
}

CJson& CJson::value(const char* key, int64_t number) {
  prefix(key);
  m_text += std::to_string(number);
  return *this;
}

CJson& CJson::value(const char* key, uint64_t number) {
  prefix(key);
  m_text += std::to_string(number);
  return *this;
}

CJson& CJson::value(const char* key, double number) {
  prefix(key);
  char text[64];
  std::snprintf(text, sizeof(text), "%.6g", std::isfinite(number) ? number : 0.0);
  m_text += text;
  return *this;
}

CJson& CJson::value(const char* key, bool flag) {
  prefix(key);
  m_text += flag ? "true" : "false";
  return *this;
}

CJson& CJson::time(const char* key, int64_t epochSeconds) {
  beginObject(key);
  value("utc", formatTime(epochSeconds));
  value("epoch", epochSeconds);
  return endObject();
}

void CJson::print(FILE* to) const { std::fprintf(to, "%s\n", m_text.c_str()); }

int checkStoreExists(const COptions& options) {
  const std::string address = options.store();
  if (address.empty()) return fail(kExitUsage, "--store: empty address");
  std::string path = address;
  if (path.rfind("file://", 0) == 0) path = path.substr(7);
  if (path.find("://") == std::string::npos) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return fail(kExitStore, "no store at '%s': %s", address.c_str(), std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) return fail(kExitStore, "cannot open the store at '%s': not a directory", address.c_str());
    // Opening a store makes its system files: a command that only reads must
    // not turn any directory it is given into a store.
    const std::string system = path + "/media_system";
    if (::stat(system.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      return fail(kExitStore, "no store at '%s': it has no media_system (nothing was ever recorded there)",
                  address.c_str());
    }
  }
  return kExitOk;
}

int CStore::open(const COptions& options, bool mustExist, int maxFrameSize) {
  if (std::getenv("ZARN_LOG_LEVEL") == nullptr) {
    // The library warns on every ordinary run (its build banner, a missing
    // MediaConfig.cfg, buckets of streams not yet recorded); the tool reports
    // failures itself, so the library speaks only when asked to.
    setenv("ZARN_LOG_LEVEL", options.has("verbose") ? "info" : "off", 1);
  }
  if (mustExist) {
    const int rc = checkStoreExists(options);
    if (rc != kExitOk) return rc;
  }
  const std::string address = options.store();
  if (address.empty()) return fail(kExitUsage, "--store: empty address");
  if (m_lister) return kExitOk;
  m_client = std::make_unique<Velto::Zarn::CMediaClient>();
  m_client->setTimeZoneDiff(0);  // frames carry UTC; the store's scale is UTC too
  if (maxFrameSize > 0) m_client->setMaxFrameSize(maxFrameSize);
  Velto::Zarn::Config config{address.c_str(), 0, "root", ""};
  if (m_client->initialize(config, nullptr) != 0) {
    return fail(kExitStore, "cannot open the store at '%s' (run with --verbose for the library's reason)",
                address.c_str());
  }
  return kExitOk;
}

Velto::Zarn::CMediaClient& CStore::client() {
  if (!m_client) std::abort();  // not opened, or opened to list through another way
  return *m_client;
}

int CStore::files(unsigned streamId, std::vector<Velto::Zarn::RecordClipEx>& out, int64_t from, int64_t to) {
  out.clear();
  // The list holds files ending after its begin, so a file that begins and
  // ends in the same second `from` is found only from the second before.
  const unsigned begin = static_cast<unsigned>(from > kFirstTime ? from - 1 : from);
  if (m_lister) return m_lister(streamId, begin, static_cast<unsigned>(to), out);
  return client().queryRecordFileList(streamId, begin, static_cast<unsigned>(to), out);
}

int CStore::streamSpan(unsigned streamId, int64_t& first, int64_t& last, short& type) {
  std::vector<Velto::Zarn::RecordClipEx> list;
  if (files(streamId, list) != 0) return fail(kExitFailed, "cannot list the files of stream %u", streamId);
  if (list.empty()) return fail(kExitNotFound, "unknown stream %u: nothing is recorded for it", streamId);
  first = kLastTime;
  last = 0;
  for (const auto& f : list) {
    first = std::min<int64_t>(first, f.beginTime);
    last = std::max<int64_t>(last, std::max(f.beginTime, f.endTime));
  }
  type = list.back().type;
  return kExitOk;
}

bool getStream(const COptions& options, unsigned& streamId) {
  if (!options.has("stream")) {
    fail(kExitUsage, "--stream ID is required");
    return false;
  }
  uint64_t v = 0;
  if (!options.getUnsigned("stream", v, UINT32_MAX)) return false;
  streamId = static_cast<unsigned>(v);
  return true;
}

int getRange(const COptions& options, int64_t spanFirst, int64_t spanLast, int64_t& from, int64_t& to) {
  from = spanFirst;
  to = spanLast;
  if (!options.getTime("from", from) || !options.getTime("to", to)) return kExitUsage;
  if (to < from) {
    return fail(kExitUsage, "empty time range: --to %s is before --from %s", formatTime(to).c_str(),
                formatTime(from).c_str());
  }
  return kExitOk;
}

bool progressWanted() { return isatty(STDERR_FILENO) != 0; }

}  // namespace ZarnMedia
