#include "LocalDiskSet.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "LocalStoreBackend.h"
#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

namespace {
constexpr const char* kDiskLockName = "/.zarn-disk.lock";
}

CLocalDiskSet::CLocalDiskSet(std::vector<std::string> addresses, uint64_t reserveBytes)
    : m_reserveBytes(reserveBytes) {
  for (std::string& address : addresses) m_disks.push_back(Disk{std::move(address), nullptr, -1, false});
}

CLocalDiskSet::~CLocalDiskSet() {
  closeRetired();
  for (Disk& d : m_disks) {
    if (d.backend) d.backend->disconnect();
    if (d.lockFd >= 0) ::close(d.lockFd);  // releases the flock
  }
}

size_t CLocalDiskSet::open() {
  for (Disk& d : m_disks) {
    std::string reason;
    int rc = makeStoreBackend(d.address, d.backend, &reason);
    auto* local = dynamic_cast<CLocalStoreBackend*>(d.backend.get());
    if (rc == 0 && local == nullptr) {
      rc = ZARN_E_UNSUPPORTED;
      reason = "a local disk must be a directory";
    }
    if (rc == 0) rc = d.backend->connect(Config{d.address.c_str(), 0, "", ""});
    if (rc == 0) {
      const std::string lockPath = local->root() + kDiskLockName;
      d.lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
      if (d.lockFd < 0 || ::flock(d.lockFd, LOCK_EX | LOCK_NB) != 0) {
        rc = ZARN_E_BUSY;
        reason = "held by another process";
      }
    }
    d.usable = rc == 0;
    if (!d.usable) {
      ZLOG_LINE(Kandu::LOG_WARN, rc, "CLocalDiskSet", "local disk %s is not used: %s", d.address.c_str(),
                reason.empty() ? zarnErrorText(rc) : reason.c_str());
      if (d.lockFd >= 0) ::close(d.lockFd);
      d.lockFd = -1;
    }
  }
  return usableCount();
}

size_t CLocalDiskSet::usableCount() const {
  size_t n = 0;
  for (const Disk& d : m_disks) n += d.usable ? 1 : 0;
  return n;
}

std::vector<CLocalDiskSet::DiskState> CLocalDiskSet::diskStates() {
  std::vector<DiskState> out;
  for (Disk& d : m_disks) {
    DiskState s{d.address, d.usable, 0, 0};
    StoreCapacity c;
    if (d.usable && d.backend->capacity(c) == 0) {
      s.totalBytes = c.totalBytes;
      s.freeBytes = c.freeBytes;
    }
    out.push_back(s);
  }
  return out;
}

int CLocalDiskSet::pickDisk() {
  int best = -1;
  uint64_t bestFree = 0;
  for (size_t i = 0; i < m_disks.size(); ++i) {
    StoreCapacity c;
    if (!m_disks[i].usable || m_disks[i].backend->capacity(c) != 0) continue;
    if (c.freeBytes >= m_reserveBytes && (best < 0 || c.freeBytes > bestFree)) {
      best = static_cast<int>(i);
      bestFree = c.freeBytes;
    }
  }
  return best;
}

int CLocalDiskSet::find(const std::string& bucket, const std::string& name, StoreFileStat* stat) {
  StoreFileStat scratch;
  for (size_t i = 0; i < m_disks.size(); ++i) {
    if (m_disks[i].usable && m_disks[i].backend->statFile(bucket, name, stat ? *stat : scratch) == 0) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

void CLocalDiskSet::noteStoreFault(int32_t code) {
  if (isStoreFault(code)) changeState(true);
}

void CLocalDiskSet::noteProbe(int result) {
  if (result != 0) {
    changeState(true);
    return;
  }
  bool recover = false;
  {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_storeFailed.load() && ++m_goodProbes >= kRecoverProbes) recover = true;
  }
  if (recover) changeState(false);
}

void CLocalDiskSet::setStoreFailed(bool failed) { changeState(failed); }

void CLocalDiskSet::setStateListener(StateListener listener) {
  std::lock_guard<std::mutex> notifying(m_notifyMutex);  // after a notification under way
  std::lock_guard<std::mutex> lock(m_stateMutex);
  m_listener = std::move(listener);
}

void CLocalDiskSet::changeState(bool failed) {
  StateListener listener;
  {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_goodProbes = 0;
    if (m_storeFailed.load() == failed) return;
    m_storeFailed.store(failed, std::memory_order_release);
    if (failed) m_outages.fetch_add(1);
    listener = m_listener;
  }
  ZLOG_LINE(failed ? Kandu::LOG_WARN : Kandu::LOG_INFO, 0, "CLocalDiskSet",
            "store %s: new files go to %s", failed ? "failed" : "usable again", failed ? "local disks" : "the store");
  std::vector<std::string> released;
  if (!failed) released = closeRetired();
  std::lock_guard<std::mutex> notifying(m_notifyMutex);
  {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    listener = m_listener;  // as it is now: a listener removed meanwhile is not told
  }
  if (listener) listener(!failed, released);
}

std::mutex& CLocalDiskSet::pathLock(const std::string& bucket, const std::string& name) {
  const size_t h = std::hash<std::string>{}(bucket) * 31 + std::hash<std::string>{}(name);
  return m_stripes[h % kPathLockStripes];
}

void CLocalDiskSet::retire(std::unique_ptr<IStoreFile> file, std::string path) {
  std::lock_guard<std::mutex> lock(m_retiredMutex);
  m_retired.emplace_back(std::move(file), std::move(path));
}

std::vector<std::string> CLocalDiskSet::closeRetired() {
  std::vector<std::pair<std::unique_ptr<IStoreFile>, std::string>> files;
  {
    std::lock_guard<std::mutex> lock(m_retiredMutex);
    files.swap(m_retired);
  }
  std::vector<std::string> paths;
  for (auto& [file, path] : files) {
    file->close();
    paths.push_back(std::move(path));
  }
  return paths;
}

}  // namespace Velto::Zarn
