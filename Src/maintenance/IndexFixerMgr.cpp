#include "IndexFixerMgr.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "IndexFixer.h"
#include "QueryFile.h"
#include "FixerLog.h"

namespace Velto::Zarn {

namespace {
constexpr uint32_t kDaySeconds = 86400;
constexpr uint32_t kOpenFileLookBackDays = 31;
}  // namespace

bool findOpenRecordFiles(CZarnFileSystem& fs, uint32_t streamId, uint32_t now, uint32_t days,
                         std::vector<std::string>& out) {
  const std::string bucketPath = bucketName(streamId, BUCKET_KIND_MEDIA);
  if (!fs.getBucket(bucketPath).isValid()) return getLastError() == ZARN_E_NO_SUCH_BUCKET;
  for (uint32_t back = 0; back <= days && now / kDaySeconds >= back; ++back) {
    // A day folder "yyyy/MM/dd/": its names sort after the folder's own name
    // and before the folder followed by "z".
    const std::string day = formatDate((now / kDaySeconds - back) * kDaySeconds).substr(0, 11);
    CQueryFile walk(fs, bucketPath);
    if (!walk.open(day, day + "z")) continue;
    bool recorded = false;
    std::string name;
    for (RecordFileName record; walk.next(record);) {
      if (record.isIndex != 0) continue;
      recorded = true;
      if (record.endTime == 0 && generateRecordFileName(record, name)) out.push_back(name);
    }
    if (recorded) break;
  }
  return true;
}

CIndexFixerMgr::CIndexFixerMgr(CWorkQueue& queue, bool svcEnabled)
    : CAsyncEngine(queue, "Index Fixer Close Timer"), m_svcEnabled(svcEnabled) {}

CIndexFixerMgr::~CIndexFixerMgr() { stopRuns(); }

void CIndexFixerMgr::submitFixWork(CZarnFileSystem& fs, const std::string& name) {
  RecordFileName record;
  if (!parseRecordFileName(name, record) || record.isIndex != 0 || !isValidRecordFileName(record)) {
    FIXLOG(WARN, "Invalid file name: %s!\n", name.c_str());
    return;
  }
  {
    std::lock_guard<Velto::Kandu::CMutex> lock(m_mutex);
    FIXLOG(INFO, "submit work for fixing index: %s!\n", name.c_str());
    m_fs = &fs;
    m_pending.insert(name);
  }
  submit();
}

void CIndexFixerMgr::submitIndexFixWork(CZarnFileSystem& fs, const RecordFileName& record) {
  std::string name;
  if (generateRecordFileName(record, name)) submitFixWork(fs, name);
}

void CIndexFixerMgr::submitStreamCheck(CZarnFileSystem& fs, uint32_t streamId, uint32_t now) {
  {
    std::lock_guard<Velto::Kandu::CMutex> lock(m_mutex);
    m_fs = &fs;
    m_streamChecks.insert({streamId, now});
  }
  submit();
}

size_t CIndexFixerMgr::pendingCount() const {
  std::lock_guard<Velto::Kandu::CMutex> lock(m_mutex);
  return m_pending.size() + m_streamChecks.size();
}

void CIndexFixerMgr::checkStream(CZarnFileSystem& fs, uint32_t streamId, uint32_t now) {
  std::vector<std::string> open;
  if (!findOpenRecordFiles(fs, streamId, now, kOpenFileLookBackDays, open)) return;
  for (const std::string& name : open) {
    ZarnFileStat stat;
    // The stream's new writer has not created its file yet or writes another
    // name; a file open for writing here belongs to a live writer elsewhere.
    if (fs.getFileStat(name, stat) && !stat.openForWrite) submitFixWork(fs, name);
  }
}

bool CIndexFixerMgr::run() {
  CZarnFileSystem* fs = nullptr;
  std::string name;
  std::pair<uint32_t, uint32_t> check{0, 0};
  bool haveCheck = false;
  {
    std::lock_guard<Velto::Kandu::CMutex> lock(m_mutex);
    fs = m_fs;
    if (!m_streamChecks.empty()) {
      check = *m_streamChecks.begin();
      m_streamChecks.erase(m_streamChecks.begin());
      haveCheck = true;
    } else if (!m_pending.empty()) {
      name = *m_pending.begin();
      m_pending.erase(m_pending.begin());
    } else {
      return false;
    }
  }
  if (haveCheck) {
    checkStream(*fs, check.first, check.second);
  } else {
    RecordFileName work;
    if (!parseRecordFileName(name, work)) {
      FIXLOG(WARN, "Invalid file name: %s!\n", name.c_str());
    } else {
      IndexFixOptions options;
      options.svcEnabled = m_svcEnabled;
      if (CIndexFixer(*fs, work, options).doFixIndex().repaired()) m_repaired.fetch_add(1);
    }
  }
  std::lock_guard<Velto::Kandu::CMutex> lock(m_mutex);
  return !m_pending.empty() || !m_streamChecks.empty();
}

void CIndexFixerMgr::onIdle() {
  bool more = false;
  {
    std::lock_guard<Velto::Kandu::CMutex> lock(m_mutex);
    more = !m_pending.empty() || !m_streamChecks.empty();
  }
  if (more) submit();
}

}  // namespace Velto::Zarn
