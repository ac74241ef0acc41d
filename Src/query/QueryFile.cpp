#include "QueryFile.h"

#include <utility>

#include "MediaLog.h"

namespace Velto::Zarn {

namespace {

// Whether a parsed entry could be reported at all: a record file with a begin
// time, and either a consistent end or still open (neither locked nor
// indexed). Quiet: the walk's consumer logs what it rejects.
bool isUsableRecord(const RecordFileName& info) {
  if (info.isIndex != 0 || info.beginTime == 0) return false;
  if (info.endTime != 0) return info.endTime >= info.beginTime;
  return info.lockCount == 0 && info.indexState == 0;
}

}  // namespace

CQueryFile::CQueryFile(CZarnFileSystem& fs, std::string bucket) : m_fs(fs), m_bucketName(std::move(bucket)) {}

bool CQueryFile::open(const std::string& beginMarker, const std::string& endMarker) {
  m_beginMarker = beginMarker;
  m_endMarker = endMarker;
  m_end = false;
  m_pending.clear();
  if (!NextQuery()) {
    ZLOG(ERROR, "CQueryFile", 0, "Next query failed.\n");
    return false;
  }
  if (m_end) {
    for (const RecordFileName& info : m_pending) {
      if (isUsableRecord(info)) return true;
    }
    return false;
  }
  return true;
}

bool CQueryFile::NextQuery() {
  if (m_end) {
    ZLOG(INFO, "CQueryFile", 0, "query is end, not need to query.\n\n");
    return false;
  }
  CBucket bucket = m_fs.getBucket(m_bucketName);
  CFileList page;
  if (!bucket.isValid() || !bucket.list(page, m_beginMarker, m_endMarker, kQueryPageSize)) {
    const int32_t code = getLastError();
    ZLOG(ERROR, "CQueryFile", static_cast<int>(code), "bucket list failed: %d, %s\n\n", static_cast<int>(code), getErrorMsg());
    return false;
  }
  const std::string stem = m_bucketName + "/";
  for (const StoreEntry& entry : page) {
    RecordFileName info;
    if (!parseListedRecordFileName(stem + entry.name, info)) continue;
    info.size = entry.size;
    m_pending.push_back(info);
  }
  // A short page is the last one; a full one may have more behind it.
  if (page.size() >= kQueryPageSize) {
    m_beginMarker = page.back().name;
  } else {
    m_end = true;
  }
  return true;
}

bool CQueryFile::next(RecordFileName& info) {
  // A full page may hold nothing that parses; keep paging until something
  // does or the walk ends.
  while (m_pending.empty()) {
    if (!NextQuery()) return false;
  }
  info = m_pending.front();
  m_pending.pop_front();
  return true;
}

void CQueryFile::pushFront(const RecordFileName& info) { m_pending.push_front(info); }

}  // namespace Velto::Zarn
