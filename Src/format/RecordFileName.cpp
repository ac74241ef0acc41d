#include "RecordFileName.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "MediaLog.h"
#include "KanduTime.h"
#include "MediaValues.h"

namespace Velto::Zarn {

namespace {

constexpr const char* kDatePattern = "yyyy/MM/dd/HHmmss";
constexpr const char* kTimePattern = "HHmmss";
constexpr const char* kRecordToken = "qrv";
constexpr const char* kIndexToken = "index";
constexpr const char* kMediaBucketStem = "media_";
constexpr const char* kForgottenBucketStem = "forgotten_";
constexpr uint32_t kSecondsPerDay = 86400;
// Bodies are formatted into a fixed buffer and cut there; real bodies are
// under 64 characters.
constexpr size_t kBodyBufferSize = 1024;

// A name without its prefix must be exactly `stem` followed by decimal digits
// that fit 32 bits.
bool parseStemNumber(const std::string& text, const char* stem, uint32_t& number) {
  const size_t stemLength = std::strlen(stem);
  if (text.compare(0, stemLength, stem) != 0 || text.size() == stemLength) return false;
  uint64_t value = 0;
  for (size_t i = stemLength; i < text.size(); ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint64_t>(c - '0');
    if (value > UINT32_MAX) return false;
  }
  number = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

std::string formatDate(uint32_t seconds) { return Kandu::CTime(seconds).format(kDatePattern); }

std::string formatTime(uint32_t seconds) { return Kandu::CTime(seconds).format(kTimePattern); }

uint32_t parseDate(const std::string& date) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(date.c_str(), "%4d/%2d/%2d/%2d%2d%2d", &year, &month, &day, &hour, &minute, &second) < 6) {
    ZLOG(ERROR, "GENERAL", 0, "parseDate error, date[%s]\n", date.c_str());
    return 0;
  }
  // Compared unsigned so that negative fields fail. Hour 24, minute 60,
  // second 60 and month/day 0 pass on purpose: the calendar normalises them.
  if (static_cast<unsigned>(year) >= 10000 || static_cast<unsigned>(month) >= 13 || static_cast<unsigned>(day) >= 32 ||
      static_cast<unsigned>(hour) >= 25 || static_cast<unsigned>(minute) >= 61 || static_cast<unsigned>(second) >= 61) {
    ZLOG(ERROR, "GENERAL", 0, "parseDate error, year[%d],month[%d],day[%d],hour[%d],minute[%d],second[%d]\n", year, month, day, hour, minute, second);
    return 0;
  }
  return static_cast<uint32_t>(Kandu::CTime::makeTime(year, month, day, hour, minute, second));
}

uint32_t parseTime(uint32_t base, const std::string& time) {
  int hour = 0, minute = 0, second = 0;
  if (std::sscanf(time.c_str(), "%2d%2d%2d", &hour, &minute, &second) != 3) {
    ZLOG(ERROR, "GENERAL", 0, "parseTime error, baseTime[%" PRIu64 "], time[%s]\n", static_cast<uint64_t>(base), time.c_str());
    return 0;
  }
  if (static_cast<unsigned>(hour) >= 25 || static_cast<unsigned>(minute) >= 61 || static_cast<unsigned>(second) >= 61) {
    ZLOG(ERROR, "GENERAL", 0, "parseTime error, hour[%d], minute[%d], second[%d]\n", hour, minute, second);
    return 0;
  }
  // The end time string carries no date: it lies on the begin's day, or on the
  // next one when it would otherwise come before the begin.
  const Kandu::CTime day(base);
  int64_t result = Kandu::CTime::makeTime(day.getYear(), day.getMonth(), day.getDay(), hour, minute, second);
  if (result < static_cast<int64_t>(base)) result += kSecondsPerDay;
  return static_cast<uint32_t>(result);
}

std::string bucketName(const std::string& prefix, uint32_t streamId, uint16_t kind) {
  const char* stem = nullptr;
  if (kind == BUCKET_KIND_MEDIA) {
    stem = kMediaBucketStem;
  } else if (kind == BUCKET_KIND_FORGOTTEN) {
    stem = kForgottenBucketStem;
  } else {
    return prefix;
  }
  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), "%s%u", stem, streamId);
  return prefix + buffer;
}

std::string bucketName(uint32_t streamId, uint16_t kind) {
  return bucketName(CMediaValues::instance().bucketPrefix(), streamId, kind);
}

bool parseBucketName(const std::string& prefix, const std::string& name, uint32_t& streamId, uint16_t& kind) {
  if (name.compare(0, prefix.size(), prefix) != 0) return false;
  const std::string rest = name.substr(prefix.size());
  if (parseStemNumber(rest, kMediaBucketStem, streamId)) {
    kind = BUCKET_KIND_MEDIA;
    return true;
  }
  if (parseStemNumber(rest, kForgottenBucketStem, streamId)) {
    kind = BUCKET_KIND_FORGOTTEN;
    return true;
  }
  return false;
}

bool parseBucketName(const std::string& name, uint32_t& streamId, uint16_t& kind) {
  return parseBucketName(CMediaValues::instance().bucketPrefix(), name, streamId, kind);
}

bool isValidRecordFileName(const RecordFileName& record) {
  if (record.beginTime == 0) return false;
  if (record.endTime != 0) {
    if (record.endTime < record.beginTime) {
      ZLOG(ERROR, "GENERAL", 0, "time is not sync, endTS[%u], beginTS[%u]\n", record.endTime, record.beginTime);
      return false;
    }
    return true;
  }
  // An open file can be neither locked nor indexed.
  return record.lockCount == 0 && record.indexState == 0;
}

bool generateRecordFileName(const std::string& prefix, const RecordFileName& record, std::string& name) {
  if (!isValidRecordFileName(record)) {
    ZLOG(ERROR, "GENERAL", 0, "_stFileName is invalid\n");
    return false;
  }
  const std::string date = formatDate(record.beginTime);
  char body[kBodyBufferSize];
  if (record.endTime != 0) {
    // An index file's name never shows locks or index state: those belong to
    // the record file beside it.
    const unsigned lockCount = record.isIndex ? 0u : record.lockCount;
    const unsigned indexState = record.isIndex ? 0u : record.indexState;
    std::snprintf(body, sizeof(body), "%s_%s_%u_%u_%u", date.c_str(), formatTime(record.endTime).c_str(),
                  static_cast<unsigned>(record.type), lockCount, indexState);
  } else {
    std::snprintf(body, sizeof(body), "%s_%u", date.c_str(), static_cast<unsigned>(record.type));
  }
  name = bucketName(prefix, record.streamId, record.bucketKind) + "/" + body + "." +
         (record.isIndex ? kIndexToken : kRecordToken);
  return true;
}

bool generateRecordFileName(const RecordFileName& record, std::string& name) {
  return generateRecordFileName(CMediaValues::instance().bucketPrefix(), record, name);
}

bool parseRecordFileName(const std::string& prefix, const std::string& name, RecordFileName& record) {
  record = RecordFileName();
  const size_t slash = name.find('/');
  const size_t dot = name.rfind('.');
  if (slash == std::string::npos || dot == std::string::npos || dot < slash) return false;

  RecordFileName parsed;
  if (!parseBucketName(prefix, name.substr(0, slash), parsed.streamId, parsed.bucketKind)) return false;

  const std::string token = name.substr(dot + 1);
  if (token == kRecordToken) {
    parsed.isIndex = 0;
  } else if (token == kIndexToken) {
    parsed.isIndex = 1;
  } else {
    return false;
  }

  const std::string body = name.substr(slash + 1, dot - slash - 1);
  size_t underscores = 0;
  for (char c : body) underscores += (c == '_') ? 1 : 0;

  char date[18] = {};
  if (underscores == 4) {
    char time[7] = {};
    unsigned type = 0, lockCount = 0, indexState = 0;
    if (std::sscanf(body.c_str(), "%17s_%6s_%u_%u_%u", date, time, &type, &lockCount, &indexState) != 5) return false;
    if (type > kMaxNameStreamType || lockCount > kMaxNameLockCount) return false;
    parsed.type = static_cast<uint16_t>(type);
    parsed.lockCount = static_cast<uint16_t>(lockCount);
    parsed.beginTime = parseDate(date);
    parsed.endTime = parseTime(parsed.beginTime, time);
    parsed.indexState = indexState;
    parsed.realEndTime = parsed.endTime;
  } else if (underscores == 1) {
    unsigned type = 0;
    if (std::sscanf(body.c_str(), "%17s_%u", date, &type) != 2) return false;
    if (type > kMaxNameStreamType) return false;
    parsed.type = static_cast<uint16_t>(type);
    parsed.beginTime = parseDate(date);
  } else {
    return false;
  }
  record = parsed;
  return true;
}

bool parseRecordFileName(const std::string& name, RecordFileName& record) {
  return parseRecordFileName(CMediaValues::instance().bucketPrefix(), name, record);
}

bool parseListedRecordFileName(const std::string& name, RecordFileName& record) {
  if (!parseRecordFileName(name, record)) return false;
  std::string canonical;
  // The validity rule first (it logs an end before the begin); then the name
  // must read back as itself.
  if (isValidRecordFileName(record) && generateRecordFileName(record, canonical) && canonical == name) return true;
  if (!canonical.empty()) {
    ZLOG(WARN, "GENERAL", 0, "listed name %s is not a record file name as written (it reads as %s): skipped\n",
         name.c_str(), canonical.c_str());
  }
  record = RecordFileName();
  return false;
}

bool nextValidRecordFile(const std::string& bucket, const CFileList& list, size_t& cursor, RecordFileName& record) {
  while (cursor < list.size()) {
    const StoreEntry& entry = list[cursor++];
    RecordFileName candidate;
    if (!parseListedRecordFileName(bucket + "/" + entry.name, candidate)) continue;
    if (candidate.isIndex != 0 || !isValidRecordFileName(candidate)) continue;
    candidate.size = entry.size;
    record = candidate;
    return true;
  }
  return false;
}

RecordClip toRecordClip(const RecordFileName& record) {
  RecordClip clip{};
  clip.beginTime = record.beginTime;
  clip.endTime = record.realEndTime;
  clip.locked = record.lockCount > 0 ? 1 : 0;
  clip.forgotten = record.bucketKind == BUCKET_KIND_FORGOTTEN ? 1 : 0;
  clip.type = static_cast<int16_t>(record.type);
  clip.missing = (record.indexState == RECORD_INDEX_INTERNAL || record.indexState == RECORD_INDEX_SEPARATE) ? 0 : 1;
  clip.size = record.size;
  return clip;
}

bool toRecordClipEx(const RecordFileName& record, RecordClipEx& clip) {
  const RecordClip base = toRecordClip(record);
  clip = RecordClipEx{};
  clip.beginTime = base.beginTime;
  clip.endTime = base.endTime;
  clip.locked = base.locked;
  clip.forgotten = base.forgotten;
  clip.type = base.type;
  clip.missing = base.missing;
  clip.size = base.size;
  std::string name;
  if (!generateRecordFileName(record, name)) return false;
  std::snprintf(clip.fileName, sizeof(clip.fileName), "%s", name.c_str());
  return true;
}

bool recordFileRename(CZarnFileSystem& fs, const std::string& oldName, const RecordFileName& record) {
  std::string newName;
  if (!generateRecordFileName(record, newName)) return false;
  ZLOG(INFO, "GENERAL", 0, "rename : %s >> %s\n", oldName.c_str(), newName.c_str());
  if (!fs.renameFile(oldName, newName)) {
    ZLOG(ERROR, "GENERAL", static_cast<int>(getLastError()), "rename failed : %s\n", getErrorMsg());
    return false;
  }
  return true;
}

}  // namespace Velto::Zarn
