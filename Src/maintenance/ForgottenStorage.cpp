#include "ForgottenStorage.h"

#include "MediaLog.h"
#include "MediaValues.h"
#include "QueryFile.h"

namespace Velto::Zarn {

namespace {

// A period of 0 would make the timer one-shot, a negative one would wrap to
// weeks: both fall back to the default.
uint32_t periodFrom(const CMediaConfig& config) {
  const int32_t period = config.getCyclicCoverPeriod();
  return static_cast<uint32_t>(period > 0 ? period : CMediaConfig::kDefaultCyclicCoverPeriod);
}

// Whether `record` is the record file of the index file `index`: an index
// file's name carries its record's begin, end and type (locks and state are
// always 0 in it).
bool isRecordOf(const RecordFileName& index, const RecordFileName& record) {
  return record.isIndex == 0 && record.beginTime == index.beginTime && record.endTime == index.endTime &&
         record.type == index.type;
}

// Whether the store lists nothing after `file` in `bucket`.
bool isLastInBucket(CZarnFileSystem& fs, const std::string& bucket, const RecordFileName& file) {
  std::string path;
  if (!generateRecordFileName(file, path)) return false;
  CNameList after;
  return fs.getBucket(bucket).list(after, path.substr(bucket.size() + 1), std::string(), 1) && after.empty();
}

}  // namespace

CForgottenStorage::CForgottenStorage(Velto::Kandu::IClock& clock, const CMediaConfig& config)
    : m_forgottenManagerPort(config.getForgottenManagerPort()),
      m_cyclicCoverDelay(config.getEyclicCoverDelay()),
      m_periodMs(periodFrom(config)),
      m_clock(clock),
      m_timer("ForgottenStorage thread", clock) {}

CForgottenStorage::~CForgottenStorage() {
  if (m_fs.load() != nullptr) uninit();
}

bool CForgottenStorage::init(CZarnFileSystem* fs, const Config& config, IIndexFixSink* indexFix) {
  if (fs == nullptr) {
    ZLOG(ERROR, "CForgottenStorage", 0, "p_zarn == NULL.\n");
    return false;
  }
  if (m_fs.load() != nullptr) uninit();
  m_address = config.address != nullptr ? config.address : "";
  m_indexFix.store(indexFix);
  m_fs.store(fs);
  m_running.store(true);
  ZLOG(INFO, "CForgottenStorage", 0, "ForgottenStorage Start. %s period: %u\n", m_address.c_str(), m_periodMs);
  m_timer.start([this](Velto::Kandu::CTimer*) { doForgotten(); }, 0, m_periodMs);
  return true;
}

void CForgottenStorage::uninit() {
  if (m_fs.load() == nullptr) {
    ZLOG(INFO, "CForgottenStorage", 0, "zarn is NULL.\n");
    return;
  }
  m_running.store(false);  // a walk under way ends after its current stream
  m_timer.stop(true);
  m_fs.store(nullptr);
  m_indexFix.store(nullptr);
  ZLOG(INFO, "CForgottenStorage", 0, "ForgottenStorage Stoped.\n");
}

int CForgottenStorage::setForgottenStorage(uint32_t streamId, uint32_t durationHours, uint32_t space) {
  Velto::Kandu::CAutoLock lock(m_policyMutex);
  if (durationHours == 0 && space == 0) {
    m_policies.erase(streamId);
  } else {
    m_policies[streamId] = Policy{durationHours, space};
  }
  return 0;
}

int CForgottenStorage::forgottenStorage(uint32_t streamId, uint32_t durationHours) {
  ZLOG(INFO, "CForgottenStorage", 0, "Forgotten Storage Executing...\n");
  const uint64_t start = m_clock.monotonicMs();
  forgetStream(streamId, durationHours, 0);
  ZLOG(DEBUG, "CForgottenStorage", 0, "Forgotten Storage Execute over. Spend %u ms.\n",
       static_cast<uint32_t>(m_clock.monotonicMs() - start));
  return 0;
}

bool CForgottenStorage::removeFile(const RecordFileName& name) {
  CZarnFileSystem* fs = m_fs.load();
  std::string path;
  if (!generateRecordFileName(name, path)) {
    ZLOG(INFO, "CForgottenStorage", 0, "generate record file name failed.\n");
    return false;
  }
  if (fs == nullptr || !fs->removeFile(path)) {
    const int32_t code = fs == nullptr ? ZARN_E_NOT_INITIALIZED : getLastError();
    ZLOG(ERROR, "CForgottenStorage", code, "remove file[%s] failed: %d, %s\n", path.c_str(), static_cast<int>(code),
         fs == nullptr ? "not started" : getErrorMsg());
    return false;
  }
  return true;
}

uint32_t CForgottenStorage::doForgotten() {
  ZLOG(INFO, "CForgottenStorage", 0, "ForgottenStorage Executing...\n");
  const uint64_t start = m_clock.monotonicMs();
  std::map<uint32_t, Policy> policies;
  {
    Velto::Kandu::CAutoLock lock(m_policyMutex);  // copied, so setters never wait for a walk
    policies = m_policies;
  }
  for (const auto& [streamId, policy] : policies) {
    if (!m_running.load()) break;
    const uint64_t streamStart = m_clock.monotonicMs();
    forgetStream(streamId, policy.durationHours, policy.space);
    ZLOG(DEBUG, "CForgottenStorage", 0, "Spend %u ms. streamId = %u, durationHours = %u, spaceMB = %u\n",
         static_cast<uint32_t>(m_clock.monotonicMs() - streamStart), streamId, policy.durationHours, policy.space);
  }
  const uint32_t spent = static_cast<uint32_t>(m_clock.monotonicMs() - start);
  ZLOG(DEBUG, "CForgottenStorage", 0, "ForgottenStorage Execute over. Spend %u ms.\n", spent);
  return spent;
}

void CForgottenStorage::forgetStream(uint32_t streamId, uint32_t durationHours, uint32_t space) {
  (void)space;  // space policies are accepted by the setter and refused here
  if (durationHours == 0) {
    ZLOG(ERROR, "CForgottenStorage", 0, "forgottenBySpace not surpport yet.\n");
    return;
  }
  CZarnFileSystem* fs = m_fs.load();
  if (fs == nullptr) {
    ZLOG(INFO, "CForgottenStorage", 0, "zarn is NULL.\n");
    return;
  }
  // 64-bit: an age reaching back before the epoch makes no file old enough.
  const int64_t threshold =
      int64_t{CMediaValues::instance().localNow(m_clock)} - int64_t{durationHours} * 3600;
  if (threshold <= 0) return;
  if (!listFileToForgotten(*fs, streamId, static_cast<uint32_t>(threshold))) {
    ZLOG(TRACE, "CForgottenStorage", 0, "list file to forgotten failed.\n\n");
  }
}

bool CForgottenStorage::listFileToForgotten(CZarnFileSystem& fs, uint32_t streamId, uint32_t threshold) {
  const std::string bucket = bucketName(streamId, BUCKET_KIND_MEDIA);
  if (!fs.getBucket(bucket).isValid()) {
    ZLOG(ERROR, "CForgottenStorage", getLastError(), "get bucket failed. bucket name: %s\n", bucket.c_str());
    return false;
  }
  CQueryFile walk(fs, bucket);
  if (!walk.open("", "")) return false;
  // Name order is begin-time order, so the first entry at or past the
  // threshold ends the walk, even if later names were older. The cursor
  // reports the end of the bucket and a refused listing alike (false); it has
  // logged the latter itself.
  RecordFileName entry;
  while (walk.next(entry) && entry.beginTime < threshold) {
    if (entry.isIndex == 0) {
      forgetRecord(fs, entry);
      continue;
    }
    if (entry.isIndex != 1) continue;
    RecordFileName following;
    if (!walk.next(following)) {
      // The end of the bucket, or a listing the store refused: only a fresh
      // look that finds nothing after the index file makes it an orphan, so
      // that a store fault never costs a record file its index.
      if (isLastInBucket(fs, bucket, entry)) removeFile(entry);
      return true;
    }
    if (isRecordOf(entry, following)) {
      forgetRecord(fs, following);
    } else {
      walk.pushFront(following);
      removeFile(entry);
    }
  }
  return true;
}

void CForgottenStorage::forgetRecord(CZarnFileSystem& fs, const RecordFileName& record) {
  if (record.lockCount != 0 || record.indexState == RECORD_INDEX_REBUILDING) {
    ZLOG(TRACE, "CForgottenStorage", 0, "qrv file is lock[%d] or rebuilding[%d]\n", static_cast<int>(record.lockCount),
         static_cast<int>(record.indexState));
    return;
  }
  if (record.indexState == RECORD_INDEX_MISSING) {
    // Only closed files: a file still under its open name is being written,
    // or its writer died and the repair of open names finds it
    // (CIndexFixerMgr::submitStreamCheck).
    if (!needsIndexFix(record)) return;
    m_unindexed.fetch_add(1);
    if (IIndexFixSink* sink = m_indexFix.load()) sink->submitIndexFixWork(fs, record);
    return;
  }
  // Old, unlocked and indexed: forgetting it is deliberately left undone; the
  // file stays where it is.
}

}  // namespace Velto::Zarn
