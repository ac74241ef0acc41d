#include "SessionCursor.h"

#include <algorithm>
#include <limits>

#include "FrameAssembler.h"
#include "RecordQuery.h"

namespace Velto::Zarn {

#define CLOG(level, fmt, ...) READER_LOG(m_log, level, fmt __VA_OPT__(, ) __VA_ARGS__)

namespace {

// A search that keeps returning the file just finished (its end moved while it
// was read) is repeated from that file's new end at most this often.
constexpr int kSameFileRetries = 3;

bool sameFile(const RecordFileName& a, const RecordFileName& b) {
  return a.beginTime == b.beginTime && a.bucketKind == b.bucketKind;
}

std::string nameOf(const RecordFileName& info) {
  std::string name;
  generateRecordFileName(info, name);
  return name;
}

}  // namespace

CSessionCursor::CSessionCursor(std::shared_ptr<CZarnFileSystem> fs, const EngineEnv& env, uint32_t streamId,
                               uint32_t beginTime, uint32_t endTime, ReaderLogContext log)
    : m_fs(std::move(fs)), m_env(env), m_streamId(streamId), m_beginTime(beginTime), m_endTime(endTime), m_log(log) {}

uint32_t CSessionCursor::gatherBegin() const { return m_beginTime > 0 ? m_beginTime - 1 : 0; }

uint32_t CSessionCursor::gatherEnd() const {
  return m_endTime < std::numeric_limits<uint32_t>::max() ? m_endTime + 1 : m_endTime;
}

// Lookups step over the files found unopenable: going forward from such a
// file's end, backward from before its begin (both move strictly).
bool CSessionCursor::findAfter(uint32_t t, RecordFileName& out) {
  for (size_t stepped = 0;; ++stepped) {
    if (!findAfterOnce(t, out)) return false;
    if (out.beginTime == 0 || !isSkipped(out)) return true;
    if (stepped == m_skipped.size()) break;  // no progress possible
    t = out.realEndTime;
  }
  out = RecordFileName();
  return true;
}

bool CSessionCursor::findBefore(uint32_t t, RecordFileName& out) {
  for (size_t stepped = 0;; ++stepped) {
    if (!findBeforeOnce(t, out)) return false;
    if (out.beginTime == 0 || !isSkipped(out)) return true;
    if (stepped == m_skipped.size() || out.beginTime == 0) break;
    t = out.beginTime - 1;
  }
  out = RecordFileName();
  return true;
}

bool CSessionCursor::isSkipped(const RecordFileName& info) const {
  for (const RecordFileName& s : m_skipped) {
    if (sameFile(s, info)) return true;
  }
  return false;
}

void CSessionCursor::noteOpenFailure(const RecordFileName& info) {
  if (m_openFailures > 0 && sameFile(m_failing, info) && m_failing.endTime == info.endTime) {
    ++m_openFailures;
  } else {
    m_failing = info;
    m_openFailures = 1;
  }
  if (m_openFailures < kMaxOpenFailures) return;
  CLOG(WARN, "file %s could not be opened %d times in a row; the session steps over it.\n", nameOf(info).c_str(),
       m_openFailures);
  m_skipped.push_back(info);
  m_openFailures = 0;
}

bool CSessionCursor::findAfterOnce(uint32_t t, RecordFileName& out) {
  const uint32_t b = gatherBegin();
  const uint32_t e = gatherEnd();
  const uint32_t nearBegin = std::max(b, t);
  const uint32_t nearEnd = t < e - std::min(e, kNearWindowSeconds) ? t + kNearWindowSeconds : e;
  out = RecordFileName();
  if (nearBegin < nearEnd) {
    if (!findFirstFileEndingAfter(m_env.query, *m_fs, m_streamId, nearBegin, nearEnd, t, out)) return false;
    if (out.beginTime != 0 || nearEnd == e) return true;
  }
  return findFirstFileEndingAfter(m_env.query, *m_fs, m_streamId, b, e, t, out);
}

bool CSessionCursor::findBeforeOnce(uint32_t t, RecordFileName& out) {
  const uint32_t b = gatherBegin();
  const uint32_t e = gatherEnd();
  const uint32_t nearBegin = t > b + kNearWindowSeconds ? t - kNearWindowSeconds : b;
  const uint32_t nearEnd = std::min(e, t < std::numeric_limits<uint32_t>::max() ? t + 1 : t);
  out = RecordFileName();
  if (nearBegin < nearEnd) {
    if (!findLastFileBeginningBefore(m_env.query, *m_fs, m_streamId, nearBegin, nearEnd, t, out)) return false;
    if (out.beginTime != 0 || nearBegin == b) return true;
  }
  return findLastFileBeginningBefore(m_env.query, *m_fs, m_streamId, b, e, t, out);
}

int32_t CSessionCursor::searchFile(uint32_t time, RecordFileName& out) {
  if (!findAfter(time > 0 ? time - 1 : 0, out)) return -1;
  return out.beginTime != 0 ? 1 : 0;
}

int32_t CSessionCursor::findNext(bool reverse, RecordFileName& next) {
  const uint32_t start = m_file->name().beginTime;
  uint32_t end = m_file->endTime();
  if (end == 0) {
    CLOG(ERROR, "The end time of current file is 0, use modify time replace it.\n");
    end = m_info.realEndTime;
    if (end == 0) {
      CLOG(ERROR, "The end time and modify time of current file are both 0, cannot find next file. return EOS\n");
      return 0;
    }
  }
  bool ok = true;
  if (!reverse) {
    CLOG(TRACE, "Find next record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime, end);
    uint32_t after = end;
    for (int i = 0; i <= kSameFileRetries; ++i) {
      ok = findAfter(after, next);
      // The file just read, listed with a later end than it had: look past it.
      if (!ok || next.beginTime == 0 || !sameFile(next, m_info)) break;
      if (next.realEndTime <= after || i == kSameFileRetries) {
        next = RecordFileName();
        break;
      }
      after = next.realEndTime;
    }
  } else {
    CLOG(TRACE, "Find prev record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime, start);
    ok = findBefore(start, next);
    if (ok && next.beginTime != 0 && sameFile(next, m_info)) {
      // A file of one second ends where it begins: look before it.
      next = RecordFileName();
      if (start > 0) ok = findBefore(start - 1, next);
      if (ok && sameFile(next, m_info)) next = RecordFileName();
    }
  }
  if (!ok) {
    CLOG(ERROR, "find next file error. return fault\n");
    return -1;
  }
  if (next.beginTime == 0) {
    CLOG(INFO, "can't find next file, return EOS\n");
    return 0;
  }
  return 1;
}

int32_t CSessionCursor::open(const RecordFileName& info, uint32_t time, int32_t order) {
  CLOG(DEBUG, "open file:%s time:%u order:%d\n", nameOf(info).c_str(), time, order);
  const bool reverse = isReverseOrder(order);
  const bool namedWithoutIndex = info.endTime != 0 && info.indexState != RECORD_INDEX_INTERNAL &&
                                 info.indexState != RECORD_INDEX_SEPARATE;
  if (reverse && namedWithoutIndex) {
    CLOG(ERROR, "Open file failed. Miss Index can't play reverse on index. return fault.\n");
    return -1;
  }
  auto file = std::make_unique<CRecordFile>(*m_fs, info);
  if (!file->openForRead()) {
    CLOG(ERROR, "Open file failed. maybe renamed, try again later. return retry\n");
    noteOpenFailure(info);
    return 0;
  }
  m_openFailures = 0;
  std::unique_ptr<CRecordFile> previous = std::move(m_file);
  m_file = std::move(file);
  if (m_file->state() == CRecordFile::STATE_NOT_CLOSED) borrowWriterIndex();
  if (reverse && !hasIndex()) {
    m_file->close();
    m_file = std::move(previous);
    CLOG(ERROR, "Open file success, but Miss Index can't play reverse on index. return fault\n");
    return -1;
  }
  m_previous = std::move(previous);
  m_info = info;
  return 1;
}

void CSessionCursor::closePrevious() {
  if (m_previous) {
    CLOG(TRACE, "close record file: %s\n", m_previous->fullName().c_str());
    m_previous->close();
  }
  CLOG(TRACE, "Switch file: %s --> %s\n", m_previous ? m_previous->fullName().c_str() : "",
       m_file ? m_file->fullName().c_str() : "");
  m_previous.reset();
}

void CSessionCursor::close() {
  if (m_previous) m_previous->close();
  m_previous.reset();
  if (!m_file) return;
  CLOG(TRACE, "close record file: %s\n", m_file->fullName().c_str());
  m_file->close();
  m_file.reset();
}

bool CSessionCursor::hasIndex() const {
  if (!m_file || !m_file->recordIndex()) return false;
  const int32_t state = m_file->state();
  return state == CRecordFile::STATE_INDEXED || state == CRecordFile::STATE_OPEN;
}

bool CSessionCursor::fileClosed() const { return !m_file || recordFileClosed(*m_file); }

uint32_t CSessionCursor::fileEndTime() const {
  if (!m_file) return 0;
  if (uint32_t end = m_file->endTime(); end != 0) return end;
  std::shared_ptr<CRecordFileIndex> index = m_file->recordIndex();
  if (index && index->endTime() != 0) return std::max(index->endTime(), m_info.realEndTime);
  return m_info.realEndTime;
}

bool CSessionCursor::fileHolds(uint32_t time) const {
  return m_file && time >= m_file->name().beginTime && time <= fileEndTime();
}

uint64_t CSessionCursor::dataEnd() const {
  return m_file && m_file->state() == CRecordFile::STATE_INDEXED ? m_file->length() : CFrameAssembler::kUnknownEnd;
}

void CSessionCursor::borrowWriterIndex() {
  CWritingFileTable::Entry entry;
  if (m_env.writingFiles.get(m_streamId, entry) && entry.index && entry.fullName == m_file->fullName()) {
    m_file->setRecordIndex(entry.index);
  }
}

uint64_t CSessionCursor::calcOffsetByTime(uint32_t beginTime, uint32_t endTime, uint32_t time,
                                          uint64_t fileSize) const {
  CLOG(DEBUG, "Calc offset by time\n");
  if (time < beginTime || time > endTime) {
    CLOG(ERROR, "Calc offset failed. time %u out of range [%u ~ %u].\n", time, beginTime, endTime);
    return 0;
  }
  if (beginTime >= endTime) {
    CLOG(ERROR, "Calc offset failed. beginTS: %u large or equal than endTS: %u.\n", beginTime, endTime);
    return 0;
  }
  return static_cast<uint64_t>(static_cast<double>(time - beginTime) * static_cast<double>(fileSize) /
                               static_cast<double>(endTime - beginTime));
}

}  // namespace Velto::Zarn
