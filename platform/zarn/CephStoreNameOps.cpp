// The CephFS backend's operations on file names: exclusive create (born under a
// hidden name, locked, then linked to its name), remove, and rename without
// replace (link, then unlink of the source); the directory levels they make and
// prune, and the erasure-coded data pool a new file goes to.
#include "CephStoreBackendImpl.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <mutex>
#include <shared_mutex>

#include "KanduThread.h"
#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

using detail::translate;

namespace {

// Rounds of a create or rename against another client pruning our level.
constexpr int kLevelRetries = 16;

}  // namespace

int CCephDirectBackend::Shared::makeLevels(const std::string& bucketDir, const std::string& name) {
  std::string levels = parentOf(name);
  if (levels.empty()) return 0;
  int rc = ceph_mkdirs(mount, (bucketDir + "/" + levels).c_str(), 0755);
  return rc == -EEXIST ? 0 : rc;
}

void CCephDirectBackend::Shared::pruneLevels(const std::string& bucketDir, const std::string& name) {
  std::unique_lock<std::shared_mutex> lock(levelsMutex, std::try_to_lock);
  if (!lock.owns_lock()) return;  // a create is filling levels: leave them to a later removal
  for (std::string rel = parentOf(name); !rel.empty(); rel = parentOf(rel)) {
    if (ceph_rmdir(mount, (bucketDir + "/" + rel).c_str()) != 0) return;
  }
}

std::string CCephDirectBackend::Shared::poolFor(const StoreLayout& layout) {
  auto key = std::make_pair(layout.dataShards, layout.parityShards);
  std::lock_guard<std::mutex> lock(poolMutex);
  auto it = pools.find(key);
  if (it != pools.end()) return it->second;
  std::string name = "zarn_ec_" + std::to_string(layout.dataShards) + "_" + std::to_string(layout.parityShards);
  std::string chosen = ceph_get_pool_id(mount, name.c_str()) >= 0 ? name : std::string();
  if (chosen.empty()) {
    ZLOG_LINE(Kandu::LOG_WARN, 0, "CCephStoreBackend",
              "no data pool %s for %u+%u erasure coding: such files go to the file system's default data pool",
              name.c_str(), static_cast<unsigned>(layout.dataShards), static_cast<unsigned>(layout.parityShards));
  }
  pools.emplace(key, chosen);
  return chosen;
}

void CCephDirectBackend::Shared::forgetPool(const StoreLayout& layout) {
  std::lock_guard<std::mutex> lock(poolMutex);
  pools[std::make_pair(layout.dataShards, layout.parityShards)] = std::string();
}

int CCephDirectBackend::createFile(const std::string& bucket, const std::string& name, const StoreLayout& layout,
                                  std::unique_ptr<IStoreFile>& out) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  const std::string bucketDir = s.bucketPath(bucket);
  const std::string finalPath = s.filePath(bucket, name);
  const std::string dir = parentOf(finalPath);
  std::string pool = s.poolFor(layout);

  std::shared_lock<std::shared_mutex> levels(s.levelsMutex);
  for (int attempt = 0; attempt < kLevelRetries; ++attempt) {
    if (attempt > 1) Kandu::sleepMs(static_cast<uint32_t>(attempt));  // another process keeps pruning
    // Born hidden, locked, then linked to its name: nobody sees the name
    // without also seeing the file open for writing.
    std::string temp = tempPath(dir, s.tempCounter.fetch_add(1));
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_EXCL;
    int fd = pool.empty() ? ceph_open(s.mount, temp.c_str(), flags, 0644)
                          : ceph_open_layout(s.mount, temp.c_str(), flags, 0644, 0, 0, 0, pool.c_str());
    if (fd == -EINVAL && !pool.empty()) {
      // The pool exists but is not a data pool of this file system.
      ZLOG_LINE(Kandu::LOG_WARN, ZARN_E_INVALID_ARGUMENT, "CCephStoreBackend",
                "pool %s is not a data pool of the file system (ceph fs add_data_pool): using the default pool",
                pool.c_str());
      s.forgetPool(layout);
      pool.clear();
      continue;
    }
    if (fd == -ENOENT) {
      if (!s.isDirectory(bucketDir)) return ZARN_E_NO_SUCH_BUCKET;
      int rc = s.makeLevels(bucketDir, name);
      if (rc != 0 && rc != -ENOENT) return translate(rc);
      continue;  // made the levels (or lost them to a pruning client): try again
    }
    if (fd == -EEXIST) continue;  // a temp name collision: take another
    if (fd < 0) return translate(fd);

    uint64_t owner = s.nextOwner.fetch_add(1);
    int rc = ceph_flock(s.mount, fd, LOCK_EX | LOCK_NB, owner);
    if (rc == 0) rc = ceph_link(s.mount, temp.c_str(), finalPath.c_str());
    ceph_unlink(s.mount, temp.c_str());
    if (rc != 0) {
      ceph_close(s.mount, fd);
      return rc == -EEXIST ? ZARN_E_FILE_EXISTS : translate(rc);
    }
    out = detail::makeCephFile(m_shared, fd, true);
    return 0;
  }
  ZLOG_LINE(Kandu::LOG_WARN, ZARN_E_IO, "CCephStoreBackend", "create %s/%s lost %d races with level pruning",
            bucket.c_str(), name.c_str(), kLevelRetries);
  return ZARN_E_IO;
}

int CCephDirectBackend::removeFile(const std::string& bucket, const std::string& name) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  std::string bucketDir = s.bucketPath(bucket);
  std::string path = s.filePath(bucket, name);
  struct ceph_statx stx;
  int rc = ceph_statx(s.mount, path.c_str(), &stx, CEPH_STATX_MODE | CEPH_STATX_SIZE, AT_SYMLINK_NOFOLLOW);
  if (rc != 0) {
    if (rc == -ENOENT && !s.isDirectory(bucketDir)) return ZARN_E_NO_SUCH_BUCKET;
    return translate(rc);
  }
  if (S_ISDIR(stx.stx_mode)) return ZARN_E_IS_DIRECTORY;
  rc = ceph_unlink(s.mount, path.c_str());
  if (rc != 0) return translate(rc);
  s.usage.noteRemoved(stx.stx_size);
  s.pruneLevels(bucketDir, name);
  return 0;
}

int CCephDirectBackend::renameFile(const std::string& fromBucket, const std::string& fromName,
                                  const std::string& toBucket, const std::string& toName) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  const std::string fromDir = s.bucketPath(fromBucket);
  const std::string toDir = s.bucketPath(toBucket);
  const std::string src = s.filePath(fromBucket, fromName);
  const std::string dst = s.filePath(toBucket, toName);

  auto sourceState = [&]() -> int {
    struct ceph_statx stx;
    int rc = ceph_statx(s.mount, src.c_str(), &stx, CEPH_STATX_MODE, AT_SYMLINK_NOFOLLOW);
    if (rc != 0) {
      if (rc == -ENOENT && !s.isDirectory(fromDir)) return ZARN_E_NO_SUCH_BUCKET;
      return translate(rc);
    }
    return S_ISDIR(stx.stx_mode) ? ZARN_E_IS_DIRECTORY : 0;
  };
  int state = sourceState();
  if (state != 0) return state;

  std::shared_lock<std::shared_mutex> levels(s.levelsMutex);
  for (int attempt = 0; attempt < kLevelRetries; ++attempt) {
    if (attempt > 1) Kandu::sleepMs(static_cast<uint32_t>(attempt));  // another process keeps pruning
    int rc = ceph_link(s.mount, src.c_str(), dst.c_str());
    if (rc == -EEXIST) return ZARN_E_FILE_EXISTS;
    if (rc == -ENOENT) {
      // Either the source went (another rename won) or the target's level is
      // missing (never made, or pruned by another client).
      state = sourceState();
      if (state != 0) return state;
      if (!s.isDirectory(toDir)) return ZARN_E_NO_SUCH_BUCKET;
      rc = s.makeLevels(toDir, toName);
      if (rc != 0 && rc != -ENOENT) return translate(rc);
      continue;
    }
    if (rc != 0) return translate(rc);
    // Both names now lead to the file. Whoever unlinks the source first has
    // renamed it; a loser (another rename, or a removal, got there first) takes
    // its own link back, so a source is renamed at most once.
    rc = ceph_unlink(s.mount, src.c_str());
    levels.unlock();
    if (rc != 0) {
      ceph_unlink(s.mount, dst.c_str());
      s.pruneLevels(toDir, toName);
      return rc == -ENOENT ? ZARN_E_NO_SUCH_FILE : translate(rc);
    }
    if (fromBucket != toBucket || parentOf(fromName) != parentOf(toName)) s.pruneLevels(fromDir, fromName);
    return 0;
  }
  ZLOG_LINE(Kandu::LOG_WARN, ZARN_E_IO, "CCephStoreBackend", "rename %s/%s lost %d races with level pruning",
            fromBucket.c_str(), fromName.c_str(), kLevelRetries);
  return ZARN_E_IO;
}

}  // namespace Velto::Zarn
