#include "Migration.h"

#include <algorithm>
#include <cinttypes>

#include "KanduThread.h"
#include "LockSizeLedger.h"
#include "MediaLog.h"
#include "MediaValues.h"
#include "RecordFile.h"
#include "RecordFileName.h"

namespace Velto::Zarn {

namespace {

constexpr uint32_t kListPage = 1000;
constexpr const char* kTempFolder = "migrating/";

// The copy in the store must be the file that was on the disk: the same size
// and, where the file ends in a record info (a closed record file with its
// index inside, or an index file), an info that checks out for that size.
bool verifyCopy(IStoreFile& copy, uint64_t size, const RecordFileName& record) {
  StoreFileStat stat;
  if (copy.stat(stat) != 0 || stat.size != size) return false;
  const bool indexFile = record.isIndex != 0;
  if (!indexFile && (record.endTime == 0 || record.indexState != RECORD_INDEX_INTERNAL)) return true;
  RecordInfo info{};
  if (size < RecordInfo::kSize || copy.seek(static_cast<int64_t>(size - RecordInfo::kSize), 0) < 0) return false;
  uint32_t got = 0;
  while (got < RecordInfo::kSize) {
    const int64_t n = copy.read(reinterpret_cast<uint8_t*>(&info) + got, RecordInfo::kSize - got);
    if (n <= 0) return false;
    got += static_cast<uint32_t>(n);
  }
  const char* why = nullptr;
  return info.isValid() && checkRecordInfoLayout(info, size, indexFile, indexFile ? UINT64_MAX : size, why);
}

}  // namespace

CMigration::CMigration(Velto::Kandu::IClock& clock, std::shared_ptr<CCombinedStoreBackend> backend,
                       uint64_t bytesPerSecond)
    : m_clock(clock), m_backend(std::move(backend)), m_bytesPerSecond(bytesPerSecond),
      m_timer("Local store migration", clock) {}

CMigration::~CMigration() { stop(); }

void CMigration::start(uint32_t delayMs, uint32_t periodMs) {
  m_stopping.store(false);
  m_periodMs = periodMs;
  m_timer.start(
      [this](Velto::Kandu::CTimer* timer) {
        const uint64_t began = m_clock.monotonicMs();
        runPass();
        // The next run a full period after this one ended.
        timer->setPeriod(static_cast<uint32_t>(m_clock.monotonicMs() - began) + m_periodMs);
      },
      delayMs, periodMs);
}

void CMigration::stop() {
  m_stopping.store(true);
  m_timer.stop(true);
}

std::vector<CMigration::Candidate> CMigration::collect() {
  std::vector<Candidate> out;
  CLocalDiskSet& disks = m_backend->disks();
  for (size_t d = 0; d < disks.diskCount(); ++d) {
    if (!disks.diskUsable(d)) continue;
    IStoreBackend& disk = disks.disk(d);
    std::vector<std::string> buckets;
    if (disk.listBuckets(buckets) != 0) continue;
    for (const std::string& bucket : buckets) {
      std::string after;
      for (;;) {
        std::vector<StoreEntry> page;
        if (disk.list(bucket, after, "", kListPage, page) != 0 || page.empty()) break;
        for (StoreEntry& e : page) {
          RecordFileName record;
          if (!parseListedRecordFileName(bucket + "/" + e.name, record)) continue;
          out.push_back(Candidate{static_cast<uint32_t>(d), bucket, std::move(e.name), e.size, record});
        }
        if (page.size() < kListPage) break;
        after = out.back().name;
      }
    }
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const Candidate& a, const Candidate& b) { return a.record.beginTime < b.record.beginTime; });
  return out;
}

std::vector<LocalAwaitingFile> CMigration::awaiting() {
  std::vector<LocalAwaitingFile> out;
  for (const Candidate& c : collect()) out.push_back(LocalAwaitingFile{c.disk, c.bucket + "/" + c.name, c.size});
  return out;
}

void CMigration::pace(uint64_t bytes) {
  if (m_bytesPerSecond == 0) return;
  // Real time: the limit is on the store's bandwidth, whatever clock the
  // client's timers run on.
  m_pacedBytes += bytes;
  const uint64_t dueUs = m_pacedBytes * 1000000 / m_bytesPerSecond;
  for (;;) {
    const uint64_t spentUs = Velto::Kandu::systemClock().monotonicUs() - m_paceStartUs;
    if (spentUs >= dueUs || m_stopping.load()) return;
    Velto::Kandu::sleepMs(static_cast<uint32_t>(std::min<uint64_t>((dueUs - spentUs) / 1000 + 1, 100)));
  }
}

CMigration::PassResult CMigration::runPass() {
  Velto::Kandu::CAutoLock lock(m_runMutex);
  PassResult result;
  CLocalDiskSet& disks = m_backend->disks();
  if (disks.storeUsable()) {
    m_paceStartUs = Velto::Kandu::systemClock().monotonicUs();
    m_pacedBytes = 0;
    for (const Candidate& c : collect()) {
      if (m_stopping.load() || !disks.storeUsable()) break;
      uint64_t copied = 0;
      const int rc = m_backend->migrateFile(
          c.disk, c.bucket, c.name, kSystemBucket, kTempFolder + c.bucket + "/" + c.name,
          StoreLayout{CMediaValues::instance().ecDataNum.load(), CMediaValues::instance().ecParityNum.load()},
          [&c](IStoreFile& copy, uint64_t size) { return verifyCopy(copy, size, c.record); },
          [this](uint64_t bytes) { pace(bytes); }, &m_stopping, copied);
      if (rc != 0 && m_stopping.load()) break;  // cut short, not failed
      if (rc == 0) {
        ++result.files;
        result.bytes += copied;
      } else if (rc == ZARN_E_BUSY || rc == ZARN_E_NO_SUCH_FILE) {
        ++result.waiting;
      } else {
        ++result.failed;
        ZLOG(WARN, "CMigration", rc, "%s/%s stays on local disk %u: %s\n", c.bucket.c_str(), c.name.c_str(), c.disk,
             zarnErrorText(rc));
      }
    }
    m_migratedFiles.fetch_add(result.files);
    m_migratedBytes.fetch_add(result.bytes);
    if (result.files != 0 || result.failed != 0) {
      ZLOG(INFO, "CMigration", 0, "moved %" PRIu64 " files (%" PRIu64 " bytes) into the store, %" PRIu64
           " failed, %" PRIu64 " waiting\n", result.files, result.bytes, result.failed, result.waiting);
    }
  }
  if (m_afterPass) m_afterPass(result);
  return result;
}

}  // namespace Velto::Zarn
