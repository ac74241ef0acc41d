// The CephFS backend's health probe: a statfs (answered by the monitors) and a
// hidden directory made and removed (answered by the MDS), run on a thread of
// its own and waited for with a time-out, so that a cluster that stopped
// answering blocks that thread and not the caller.
#include "CephStoreBackendImpl.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>

#include "ZarnError.h"

namespace Velto::Zarn {

using detail::translate;

namespace {

// A health probe that has not returned after this long reports the store lost.
constexpr uint32_t kProbeTimeoutMs = 3000;

}  // namespace

int CCephStoreBackend::Shared::runProbe() {
  struct statvfs vfs;
  int rc = ceph_statfs(mount, rootPath().c_str(), &vfs);
  if (rc != 0) return rc;
  std::string probe = root + "/.zarn-health." + std::to_string(clientId.load());
  rc = ceph_mkdir(mount, probe.c_str(), 0700);
  if (rc != 0 && rc != -EEXIST) return rc;
  rc = ceph_rmdir(mount, probe.c_str());
  return rc == -ENOENT ? 0 : rc;
}

int CCephStoreBackend::probeHealth() {
  REQUIRE_CONNECTED();
  std::shared_ptr<Shared> shared = m_shared;
  std::unique_lock<std::mutex> lock(shared->probeMutex);
  // A probe still hanging from an earlier call is waited on again rather than
  // joined by another: while the cluster is lost, one thread is stuck, not one
  // per period.
  if (!shared->probeRunning) {
    shared->probeRunning = true;
    std::thread([shared] {
      int rc = shared->runProbe();
      std::lock_guard<std::mutex> guard(shared->probeMutex);
      shared->probeResult = rc;
      shared->probeRunning = false;
      ++shared->probeSerial;
      shared->probeDone.notify_all();
    }).detach();
  }
  uint64_t serial = shared->probeSerial;
  bool finished = shared->probeDone.wait_for(lock, std::chrono::milliseconds(kProbeTimeoutMs),
                                             [&] { return shared->probeSerial != serial; });
  return finished ? (shared->probeResult == 0 ? 0 : translate(shared->probeResult)) : ZARN_E_TIMEOUT;
}

}  // namespace Velto::Zarn
