// The CephFS backend's health probe: a statfs (answered by the monitors) and a
// hidden directory made and removed (answered by the MDS). It blocks while the
// cluster does not answer; the deadline wrapper bounds what its caller waits.
#include "CephStoreBackendImpl.h"

#include <sys/statvfs.h>

#include <cerrno>

#include "ZarnError.h"

namespace Velto::Zarn {

using detail::translate;

int CCephDirectBackend::Shared::runProbe() {
  struct statvfs vfs;
  int rc = ceph_statfs(mount, rootPath().c_str(), &vfs);
  if (rc != 0) return rc;
  std::string probe = root + "/.zarn-health." + std::to_string(clientId.load());
  rc = ceph_mkdir(mount, probe.c_str(), 0700);
  if (rc != 0 && rc != -EEXIST) return rc;
  rc = ceph_rmdir(mount, probe.c_str());
  return rc == -ENOENT ? 0 : rc;
}

int CCephDirectBackend::probeHealth() {
  REQUIRE_CONNECTED();
  int rc = m_shared->runProbe();
  return rc == 0 ? 0 : translate(rc);
}

}  // namespace Velto::Zarn
