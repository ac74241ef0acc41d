// The CephFS backend's health probe: a statfs (answered by the monitors), a
// hidden directory made and removed (answered by the MDS) and one byte written
// and synced in it (answered by the object stores: without them writes only
// fill the client's cache, and a store that keeps nothing is not usable). It
// blocks while the cluster does not answer; the deadline wrapper bounds what
// its caller waits.
#include "CephStoreBackendImpl.h"

#include <fcntl.h>
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
  const std::string object = probe + "/byte";
  const int fd = ceph_open(mount, object.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  if (fd < 0) return fd;
  const char byte = 0;
  rc = ceph_write(mount, fd, &byte, 1, 0);
  if (rc >= 0) rc = ceph_fsync(mount, fd, 0);
  ceph_close(mount, fd);
  if (rc < 0) return rc;
  ceph_unlink(mount, object.c_str());
  rc = ceph_rmdir(mount, probe.c_str());
  return rc == -ENOENT ? 0 : rc;
}

int CCephDirectBackend::probeHealth() {
  REQUIRE_CONNECTED();
  int rc = m_shared->runProbe();
  return rc == 0 ? 0 : translate(rc);
}

}  // namespace Velto::Zarn
