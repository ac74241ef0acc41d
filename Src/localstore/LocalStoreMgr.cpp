#include "LocalStoreMgr.h"

#include "MediaLog.h"
#include "MediaValues.h"
#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

CLocalStoreMgr::CLocalStoreMgr(Velto::Kandu::IClock& clock) : m_clock(clock) {}

CLocalStoreMgr::~CLocalStoreMgr() { stop(); }

bool CLocalStoreMgr::configure(const CMediaConfig& config) {
  if (m_configured.exchange(true)) return isSupport();
  std::vector<std::string> roots;
  if (!config.getCfgEnabled() || !config.getArray("stdfile_disk", roots) || roots.empty()) return false;
  const int32_t reserveMiB = config.getInt("stdfile_reserve_mb", kDefaultReserveMiB);
  const int32_t mibps = config.getInt("stdfile_migrate_mbps", kDefaultMigrateMiBps);
  const int32_t periodS = config.getInt("stdfile_migrate_period", kDefaultMigratePeriodS);
  auto disks = std::make_shared<CLocalDiskSet>(roots, static_cast<uint64_t>(std::max(reserveMiB, 0)) << 20);
  if (disks->open() == 0) {
    ZLOG(ERROR, "CLocalStoreMgr", 0, "none of the %zu local disks is usable: store outages go to the host\n",
         roots.size());
    return false;
  }
  m_migrateBytesPerSecond = static_cast<uint64_t>(std::max(mibps, 0)) << 20;
  m_migratePeriodMs = static_cast<uint32_t>(std::max(periodS, 1)) * 1000u;
  config.getStdFileConfigFileName(m_statePath);
  if (!m_statePath.empty()) m_state.load(m_statePath);
  disks->setStateListener(
      [this](bool usable, const std::vector<std::string>& released) { onStoreState(usable, released); });
  m_disks = std::move(disks);
  CMediaValues::instance().localStoreSupported.store(true);
  ZLOG(INFO, "CLocalStoreMgr", 0, "local store on %zu of %zu disks\n", m_disks->usableCount(), roots.size());
  return true;
}

int CLocalStoreMgr::makeBackend(const std::string& address, std::shared_ptr<IStoreBackend>& out, std::string* reason) {
  std::shared_ptr<IStoreBackend> store;
  const int rc = makeStoreBackend(address, store, reason);
  if (rc != 0 || !isSupport()) {
    out = std::move(store);
    return rc;
  }
  auto combined = std::make_shared<CCombinedStoreBackend>(std::move(store), m_disks);
  // Only record and index files may wait on a disk; the system bucket's files
  // (ledger, mutexes, markers) mean something to every process.
  combined->setLocalFilter([](const std::string& bucket, const std::string& name) {
    RecordFileName record;
    return parseRecordFileName(bucket + "/" + name, record);
  });
  Velto::Kandu::CAutoLock lock(m_stateMutex);
  if (!m_primary) m_primary = combined;
  out = std::move(combined);
  return 0;
}

bool CLocalStoreMgr::connect(CZarnFileSystem& fs, const Config& config) {
  std::shared_ptr<IStoreBackend> backend;
  std::string reason;
  const int rc = makeBackend(config.address ? config.address : "", backend, &reason);
  if (rc != 0) {
    setLastError(rc, reason);
    return false;
  }
  return fs.initializeWithBackend(config, std::move(backend));
}

void CLocalStoreMgr::onLoginSDK(CZarnFileSystem* fs) {
  if (!isSupport() || fs == nullptr || m_migration) return;
  // The first run a period after login: recording that resumes after a
  // restart settles first.
  if (prepareMigration() != nullptr) m_migration->start(m_migratePeriodMs, m_migratePeriodMs);
}

CMigration* CLocalStoreMgr::prepareMigration() {
  if (m_migration || !isSupport()) return m_migration.get();
  std::shared_ptr<CCombinedStoreBackend> primary;
  {
    Velto::Kandu::CAutoLock lock(m_stateMutex);
    primary = m_primary;
  }
  if (!primary) return nullptr;
  m_migration = std::make_unique<CMigration>(m_clock, primary, m_migrateBytesPerSecond);
  m_migration->setAfterPass([this](const CMigration::PassResult&) { writeStateFile(); });
  return m_migration.get();
}

bool CLocalStoreMgr::onSDKState(uint32_t state) {
  if (!isSupport() || (state != ZARN_STATE_NORMAL && state != ZARN_STATE_FAILED)) return false;
  const bool wasUsable = m_disks->storeUsable();
  m_disks->setStoreFailed(state == ZARN_STATE_FAILED);
  return wasUsable != m_disks->storeUsable();
}

void CLocalStoreMgr::onStoreState(bool usable, const std::vector<std::string>& released) {
  if (!released.empty() && m_releasedSink) m_releasedSink(released);
  CMediaValues::instance().localStoreInUse.store(!usable);
  {
    Velto::Kandu::CAutoLock lock(m_stateMutex);
    const int64_t now = m_clock.wallClockMs() / 1000;
    if (usable) {
      m_state.endOutage(now);
    } else {
      m_state.beginOutage(now);
    }
  }
  writeStateFile();
}

bool CLocalStoreMgr::writeStateFile() {
  if (m_statePath.empty() || !isSupport()) return false;
  std::vector<LocalAwaitingFile> awaiting;
  if (m_migration) awaiting = m_migration->awaiting();
  Velto::Kandu::CAutoLock lock(m_stateMutex);
  m_state.disks.clear();
  for (const CLocalDiskSet::DiskState& d : m_disks->diskStates()) {
    m_state.disks.push_back(LocalDiskReport{d.address, d.usable, d.totalBytes, d.freeBytes, 0, 0});
  }
  for (const LocalAwaitingFile& f : awaiting) {
    m_state.disks[f.disk].awaitingFiles += 1;
    m_state.disks[f.disk].awaitingBytes += f.size;
  }
  m_state.awaiting = std::move(awaiting);
  if (m_migration) {
    m_state.migratedFiles = m_migration->migratedFiles();
    m_state.migratedBytes = m_migration->migratedBytes();
  }
  return m_state.save(m_statePath);
}

void CLocalStoreMgr::stop() {
  // The disks may outlive this manager (writers keep their connections).
  if (m_disks) m_disks->setStateListener(nullptr);
  if (m_migration) m_migration->stop();
  if (isSupport()) writeStateFile();
}

}  // namespace Velto::Zarn
