// The CephFS backend's listings: reading one directory level (readdirplus, so
// that sizes come with the names), the cache of levels that hold only
// directories, and the marker-bounded walk of a bucket.
#include "CephStoreBackendImpl.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>

#include "ZarnError.h"

namespace Velto::Zarn {

using detail::translate;

bool CCephDirectBackend::Shared::readLevel(const std::string& path, std::vector<LevelEntry>& out, int* err) {
  ceph_dir_result* dir = nullptr;
  int rc = ceph_opendir(mount, path.c_str(), &dir);
  if (rc != 0) {
    if (err) *err = rc;
    return false;
  }
  levelsRead.fetch_add(1, std::memory_order_relaxed);
  struct dirent de;
  struct ceph_statx stx;
  while ((rc = ceph_readdirplus_r(mount, dir, &de, &stx, CEPH_STATX_MODE | CEPH_STATX_SIZE,
                                  AT_STATX_DONT_SYNC, nullptr)) > 0) {
    if (isHidden(de.d_name)) continue;
    LevelEntry e;
    if (S_ISDIR(stx.stx_mode)) {
      e.isDir = true;
    } else if (S_ISREG(stx.stx_mode)) {
      e.sizeKnown = true;
      e.size = stx.stx_size;
    } else {
      continue;  // links and special files are never part of the store
    }
    e.name = de.d_name;
    out.push_back(std::move(e));
  }
  ceph_closedir(mount, dir);
  if (rc < 0) {
    if (err) *err = rc;
    return false;
  }
  return true;
}

bool CCephDirectBackend::Shared::readLevelCached(const std::string& path, std::vector<LevelEntry>& out, int* err) {
  struct ceph_statx stx;
  int rc = ceph_statx(mount, path.c_str(), &stx, CEPH_STATX_INO | CEPH_STATX_VERSION | CEPH_STATX_MODE, 0);
  if (rc != 0 || !S_ISDIR(stx.stx_mode) || (stx.stx_mask & CEPH_STATX_VERSION) == 0) {
    if (rc == 0 && !S_ISDIR(stx.stx_mode)) rc = -ENOTDIR;
    if (rc != 0) {
      std::lock_guard<std::mutex> lock(levelCacheMutex);
      levelCache.erase(path);
      if (err) *err = rc;
      return false;
    }
    return readLevel(path, out, err);  // no change attribute: nothing to validate a copy with
  }
  {
    std::lock_guard<std::mutex> lock(levelCacheMutex);
    auto it = levelCache.find(path);
    if (it != levelCache.end() && it->second.ino == stx.stx_ino && it->second.version == stx.stx_version) {
      out = it->second.entries;
      levelCacheHits.fetch_add(1, std::memory_order_relaxed);
      return true;
    }
  }
  if (!readLevel(path, out, err)) return false;
  bool onlyDirs = std::all_of(out.begin(), out.end(), [](const LevelEntry& e) { return e.isDir; });
  std::lock_guard<std::mutex> lock(levelCacheMutex);
  if (!onlyDirs) {
    levelCache.erase(path);
    return true;
  }
  if (levelCache.size() >= kMaxCachedLevels) levelCache.clear();
  levelCache[path] = CachedLevel{stx.stx_ino, stx.stx_version, out};
  return true;
}

uint64_t CCephDirectBackend::levelsRead() const { return m_shared->levelsRead.load(std::memory_order_relaxed); }
uint64_t CCephDirectBackend::levelCacheHits() const {
  return m_shared->levelCacheHits.load(std::memory_order_relaxed);
}

int CCephDirectBackend::list(const std::string& bucket, const std::string& after, const std::string& upTo,
                            uint32_t maxCount, std::vector<StoreEntry>& out) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  const std::string path = s.bucketPath(bucket);
  std::vector<StoreEntry> result;
  // A missing bucket is told from an empty one here: the walk may start below
  // the bucket level, and treats a level it cannot read as empty.
  struct ceph_statx stx;
  int rc = ceph_statx(s.mount, path.c_str(), &stx, CEPH_STATX_MODE, 0);
  if (rc == -ENOENT || rc == -ENOTDIR || (rc == 0 && !S_ISDIR(stx.stx_mode))) return ZARN_E_NO_SUCH_BUCKET;
  if (rc != 0) return translate(rc);
  listSorted(
      [&](const std::string& relDir, std::vector<LevelEntry>& entries) {
        return s.readLevelCached(relDir.empty() ? path : path + "/" + relDir.substr(0, relDir.size() - 1),
                                 entries);
      },
      [](const std::string&, uint64_t&) { return false; },  // sizes come with the entries
      after, upTo, maxCount, result);
  out = std::move(result);
  return 0;
}

}  // namespace Velto::Zarn
