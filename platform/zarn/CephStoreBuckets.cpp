// The CephFS backend's buckets and the space they use: making, removing (with
// the empty levels and stale creates left in a bucket) and listing buckets;
// capacity from statfs and the recursive statistics, or from a walk under a
// cap; a bucket's used bytes.
#include "CephStoreBackendImpl.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ZarnError.h"

namespace Velto::Zarn {

using detail::translate;

void CCephDirectBackend::Shared::sumTree(const std::string& path, uint64_t& bytes, uint64_t& files) {
  std::vector<LevelEntry> entries;
  if (!readLevel(path, entries)) return;  // vanished under us: nothing to count
  for (const LevelEntry& e : entries) {
    if (e.isDir) {
      sumTree(path + "/" + e.name, bytes, files);
    } else {
      bytes += e.size;
      ++files;
    }
  }
}

int CCephDirectBackend::Shared::dirStatistic(const std::string& path, const char* name, uint64_t& out) {
  char buf[32];
  int n = ceph_getxattr(mount, path.c_str(), name, buf, sizeof buf - 1);
  if (n < 0) return n;
  buf[n] = '\0';
  out = std::strtoull(buf, nullptr, 10);
  return 0;
}

int CCephDirectBackend::setCapacityLimit(uint64_t bytes) {
  m_shared->capacityLimit.store(bytes);
  return 0;
}

int CCephDirectBackend::capacity(StoreCapacity& out) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  struct statvfs vfs;
  int rc = ceph_statfs(s.mount, s.rootPath().c_str(), &vfs);
  if (rc != 0) return translate(rc);
  uint64_t fsTotal = static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize;
  uint64_t fsFree = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;

  std::vector<std::string> buckets;
  rc = listBuckets(buckets);
  if (rc != 0) return rc;

  StoreCapacity cap;
  cap.bucketCount = buckets.size();
  uint64_t limit = s.capacityLimit.load();
  if (limit == 0) {
    cap.totalBytes = fsTotal;
    cap.freeBytes = fsFree;
    // Recursive statistics are maintained by the MDS: no walk, but they trail
    // writes by a few seconds. Unknown (0) when the xattrs cannot be read.
    if (s.dirStatistic(s.rootPath(), "ceph.dir.rbytes", cap.usedBytes) != 0) cap.usedBytes = 0;
    if (s.dirStatistic(s.rootPath(), "ceph.dir.rfiles", cap.fileCount) != 0) cap.fileCount = 0;
  } else {
    Shared& sh = *m_shared;
    sh.usage.fill(limit, fsFree, [&](uint64_t& bytes, uint64_t& files) { sh.sumTree(sh.rootPath(), bytes, files); }, cap);
  }
  out = cap;
  return 0;
}

int CCephDirectBackend::createBucket(const std::string& bucket) {
  REQUIRE_CONNECTED();
  int rc = ceph_mkdir(m_shared->mount, m_shared->bucketPath(bucket).c_str(), 0755);
  if (rc == 0) return 0;
  if (rc == -EEXIST) return ZARN_E_BUCKET_EXISTS;
  if (rc == -ENOENT) return ZARN_E_UNAVAILABLE;  // the store root itself is gone
  return translate(rc);
}

namespace {

using Shared = CCephDirectBackend::Shared;

// Empties a bucket's tree of its directory levels; stale hidden files of
// creates that died (nobody holds their lock) go too. 0, or
// ZARN_E_BUCKET_NOT_EMPTY at the first file found.
int clearLevels(Shared& s, const std::string& path) {
  ceph_dir_result* dir = nullptr;
  int rc = ceph_opendir(s.mount, path.c_str(), &dir);
  if (rc != 0) return rc == -ENOENT ? 0 : translate(rc);
  std::vector<std::string> subdirs, stale;
  struct dirent de;
  struct ceph_statx stx;
  int result = 0;
  while ((rc = ceph_readdirplus_r(s.mount, dir, &de, &stx, CEPH_STATX_MODE, AT_STATX_DONT_SYNC, nullptr)) > 0) {
    if (std::strcmp(de.d_name, ".") == 0 || std::strcmp(de.d_name, "..") == 0) continue;
    if (S_ISDIR(stx.stx_mode)) {
      subdirs.emplace_back(de.d_name);
    } else if (isTempName(de.d_name) && S_ISREG(stx.stx_mode)) {
      stale.emplace_back(de.d_name);
    } else {
      result = ZARN_E_BUCKET_NOT_EMPTY;
      break;
    }
  }
  ceph_closedir(s.mount, dir);
  if (result != 0) return result;
  if (rc < 0) return translate(rc);
  for (const std::string& t : stale) {
    std::string p = path + "/" + t;
    int fd = ceph_open(s.mount, p.c_str(), O_RDONLY, 0);
    if (fd < 0) continue;
    bool inUse = s.probeWriteLock(fd);
    if (!inUse) ceph_unlink(s.mount, p.c_str());
    ceph_close(s.mount, fd);
    if (inUse) return ZARN_E_BUCKET_NOT_EMPTY;
  }
  for (const std::string& d : subdirs) {
    std::string p = path + "/" + d;
    rc = clearLevels(s, p);
    if (rc != 0) return rc;
    rc = ceph_rmdir(s.mount, p.c_str());
    if (rc != 0 && rc != -ENOENT) return rc == -ENOTEMPTY || rc == -EEXIST ? ZARN_E_BUCKET_NOT_EMPTY : translate(rc);
  }
  return 0;
}

}  // namespace

int CCephDirectBackend::removeBucket(const std::string& bucket) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  std::string path = s.bucketPath(bucket);
  if (!s.isDirectory(path)) return ZARN_E_NO_SUCH_BUCKET;
  int rc = clearLevels(s, path);
  if (rc != 0) return rc;
  rc = ceph_rmdir(s.mount, path.c_str());
  if (rc == 0) return 0;
  if (rc == -ENOENT) return ZARN_E_NO_SUCH_BUCKET;
  if (rc == -ENOTEMPTY || rc == -EEXIST) return ZARN_E_BUCKET_NOT_EMPTY;
  return translate(rc);
}

int CCephDirectBackend::bucketExists(const std::string& bucket) {
  REQUIRE_CONNECTED();
  return m_shared->isDirectory(m_shared->bucketPath(bucket)) ? 0 : ZARN_E_NO_SUCH_BUCKET;
}

int CCephDirectBackend::listBuckets(std::vector<std::string>& out) {
  REQUIRE_CONNECTED();
  std::vector<LevelEntry> entries;
  int err = 0;
  if (!m_shared->readLevel(m_shared->rootPath(), entries, &err)) {
    return err == -ENOENT ? ZARN_E_UNAVAILABLE : translate(err);
  }
  std::vector<std::string> names;
  for (LevelEntry& e : entries) {
    if (e.isDir) names.push_back(std::move(e.name));
  }
  std::sort(names.begin(), names.end());
  out = std::move(names);
  return 0;
}

int CCephDirectBackend::bucketUsedBytes(const std::string& bucket, uint64_t& out) {
  REQUIRE_CONNECTED();
  int rc = m_shared->dirStatistic(m_shared->bucketPath(bucket), "ceph.dir.rbytes", out);
  if (rc == -ENOENT) return ZARN_E_NO_SUCH_BUCKET;
  return rc == 0 ? 0 : translate(rc);
}

}  // namespace Velto::Zarn
