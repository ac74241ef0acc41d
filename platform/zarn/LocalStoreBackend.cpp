// The local-directory store: the root (connect, health), buckets, the sorted
// listing walk and capacity. File handles and the operations on files are in
// LocalStoreFiles.cpp. On-disk layout and the protocol between processes
// sharing a root are described in doc/local_store.md.
#include "LocalStoreBackendImpl.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

using detail::isDirectory;
using detail::probeWriteLock;
using detail::translateErrno;

namespace {

using Shared = CLocalStoreBackend::Shared;

// Reads one directory's visible entries (regular files and directories; names
// starting with '.' and everything else are skipped). false with errno when the
// directory cannot be opened.
bool readEntries(Shared& shared, const std::string& path, std::vector<LevelEntry>& out) {
  DIR* dir = shared.openDirectory(path);
  if (dir == nullptr) return false;
  int dfd = ::dirfd(dir);
  while (struct dirent* ent = ::readdir(dir)) {
    if (isHidden(ent->d_name)) continue;
    bool isDir;
    if (ent->d_type == DT_DIR) {
      isDir = true;
    } else if (ent->d_type == DT_REG) {
      isDir = false;
    } else if (ent->d_type == DT_UNKNOWN) {
      struct stat st;
      if (::fstatat(dfd, ent->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (S_ISDIR(st.st_mode)) {
        isDir = true;
      } else if (S_ISREG(st.st_mode)) {
        isDir = false;
      } else {
        continue;
      }
    } else {
      continue;  // symbolic links and special files are never part of the store
    }
    LevelEntry e;
    e.name = ent->d_name;
    e.isDir = isDir;
    out.push_back(std::move(e));
  }
  ::closedir(dir);
  return true;
}

// Bytes and count of the visible regular files below a directory.
void sumTree(Shared& shared, const std::string& path, uint64_t& bytes, uint64_t& files) {
  std::vector<LevelEntry> entries;
  if (!readEntries(shared, path, entries)) return;  // vanished under us: nothing to count
  for (const LevelEntry& e : entries) {
    std::string child = path + "/" + e.name;
    if (e.isDir) {
      sumTree(shared, child, bytes, files);
      continue;
    }
    struct stat st;
    if (::lstat(child.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      bytes += static_cast<uint64_t>(st.st_size);
      ++files;
    }
  }
}

}  // namespace

CLocalStoreBackend::CLocalStoreBackend(std::string root) {
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  m_shared = std::make_shared<Shared>(std::move(root));
}

CLocalStoreBackend::~CLocalStoreBackend() = default;

const std::string& CLocalStoreBackend::root() const { return m_shared->root; }

uint64_t CLocalStoreBackend::directoriesOpened() const {
  return m_shared->directoriesOpened.load(std::memory_order_relaxed);
}

int CLocalStoreBackend::connect(const Config& /*config*/) {
  const std::string& root = m_shared->root;
  // mkdir -p: make each missing level of the root.
  for (size_t slash = root.find('/', 1); ; slash = root.find('/', slash + 1)) {
    std::string level = slash == std::string::npos ? root : root.substr(0, slash);
    if (::mkdir(level.c_str(), 0755) != 0 && errno != EEXIST) {
      int rc = translateErrno(errno);
      ZLOG_LINE(Kandu::LOG_ERROR, rc, "CLocalStoreBackend", "cannot make store root %s: %s", level.c_str(),
                std::strerror(errno));
      return rc;
    }
    if (slash == std::string::npos) break;
  }
  if (!isDirectory(root)) {
    ZLOG_LINE(Kandu::LOG_ERROR, ZARN_E_UNAVAILABLE, "CLocalStoreBackend", "store root %s is not a directory",
              root.c_str());
    return ZARN_E_UNAVAILABLE;
  }
  m_shared->connected.store(true);
  ZLOG_LINE(Kandu::LOG_DEBUG, 0, "CLocalStoreBackend", "local store at %s", root.c_str());
  return 0;
}

void CLocalStoreBackend::disconnect() { m_shared->connected.store(false); }

int CLocalStoreBackend::probeHealth() {
  REQUIRE_CONNECTED();
  struct stat st;
  if (::stat(m_shared->root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return ZARN_E_UNAVAILABLE;
  if (::access(m_shared->root.c_str(), W_OK | X_OK) != 0) return ZARN_E_PERMISSION;
  return 0;
}

int CLocalStoreBackend::setCapacityLimit(uint64_t bytes) {
  m_shared->capacityLimit.store(bytes);
  return 0;
}

int CLocalStoreBackend::capacity(StoreCapacity& out) {
  REQUIRE_CONNECTED();
  struct statvfs vfs;
  if (::statvfs(m_shared->root.c_str(), &vfs) != 0) {
    return errno == ENOENT ? ZARN_E_UNAVAILABLE : translateErrno(errno);
  }
  uint64_t fsTotal = static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize;
  uint64_t fsFree = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;

  std::vector<std::string> buckets;
  int rc = listBuckets(buckets);
  if (rc != 0) return rc;

  StoreCapacity cap;
  cap.bucketCount = buckets.size();
  uint64_t limit = m_shared->capacityLimit.load();
  if (limit == 0) {
    cap.totalBytes = fsTotal;
    cap.freeBytes = fsFree;
  } else {
    Shared& sh = *m_shared;
    sh.usage.fill(limit, fsFree, [&](uint64_t& bytes, uint64_t& files) { sumTree(sh, sh.root, bytes, files); }, cap);
  }
  out = cap;
  return 0;
}

int CLocalStoreBackend::createBucket(const std::string& bucket) {
  REQUIRE_CONNECTED();
  if (::mkdir(m_shared->bucketPath(bucket).c_str(), 0755) == 0) return 0;
  int err = errno;
  if (err == EEXIST) return ZARN_E_BUCKET_EXISTS;
  if (err == ENOENT) return ZARN_E_UNAVAILABLE;  // the root itself is gone
  return translateErrno(err);
}

namespace {

// Empties a bucket's directory tree of its directory levels. Leftovers of
// exclusive creates that crashed (temp files nobody holds locked) are removed;
// a temp file still locked belongs to a create in progress. 0, or
// ZARN_E_BUCKET_NOT_EMPTY at the first file found.
int clearLevels(Shared& shared, const std::string& path) {
  DIR* dir = shared.openDirectory(path);
  if (dir == nullptr) return errno == ENOENT ? 0 : translateErrno(errno);
  std::vector<std::string> subdirs;
  std::vector<std::string> stale;
  int rc = 0;
  int dfd = ::dirfd(dir);
  while (struct dirent* ent = ::readdir(dir)) {
    const char* n = ent->d_name;
    if (std::strcmp(n, ".") == 0 || std::strcmp(n, "..") == 0) continue;
    struct stat st;
    if (::fstatat(dfd, n, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      subdirs.emplace_back(n);
    } else if (isTempName(n) && S_ISREG(st.st_mode)) {
      stale.emplace_back(n);
    } else {
      rc = ZARN_E_BUCKET_NOT_EMPTY;
      break;
    }
  }
  ::closedir(dir);
  if (rc != 0) return rc;
  for (const std::string& t : stale) {
    std::string p = path + "/" + t;
    int fd = ::open(p.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) continue;
    bool inUse = probeWriteLock(fd);
    if (!inUse) ::unlink(p.c_str());
    ::close(fd);
    if (inUse) return ZARN_E_BUCKET_NOT_EMPTY;
  }
  for (const std::string& d : subdirs) {
    std::string p = path + "/" + d;
    rc = clearLevels(shared, p);
    if (rc != 0) return rc;
    if (::rmdir(p.c_str()) != 0 && errno != ENOENT) {
      return errno == ENOTEMPTY || errno == EEXIST ? ZARN_E_BUCKET_NOT_EMPTY : translateErrno(errno);
    }
  }
  return 0;
}

}  // namespace

int CLocalStoreBackend::removeBucket(const std::string& bucket) {
  REQUIRE_CONNECTED();
  std::string path = m_shared->bucketPath(bucket);
  if (!isDirectory(path)) return ZARN_E_NO_SUCH_BUCKET;
  int rc = clearLevels(*m_shared, path);
  if (rc != 0) return rc;
  if (::rmdir(path.c_str()) == 0) return 0;
  int err = errno;
  if (err == ENOENT) return ZARN_E_NO_SUCH_BUCKET;  // removed by someone else meanwhile
  if (err == ENOTEMPTY || err == EEXIST) return ZARN_E_BUCKET_NOT_EMPTY;  // a create raced with us
  return translateErrno(err);
}

int CLocalStoreBackend::bucketExists(const std::string& bucket) {
  REQUIRE_CONNECTED();
  return isDirectory(m_shared->bucketPath(bucket)) ? 0 : ZARN_E_NO_SUCH_BUCKET;
}

int CLocalStoreBackend::listBuckets(std::vector<std::string>& out) {
  REQUIRE_CONNECTED();
  std::vector<LevelEntry> entries;
  if (!readEntries(*m_shared, m_shared->root, entries)) {
    return errno == ENOENT ? ZARN_E_UNAVAILABLE : translateErrno(errno);
  }
  std::vector<std::string> names;
  for (LevelEntry& e : entries) {
    if (e.isDir) names.push_back(std::move(e.name));
  }
  std::sort(names.begin(), names.end());
  out = std::move(names);
  return 0;
}

int CLocalStoreBackend::bucketUsedBytes(const std::string& bucket, uint64_t& out) {
  REQUIRE_CONNECTED();
  std::string path = m_shared->bucketPath(bucket);
  if (!isDirectory(path)) return ZARN_E_NO_SUCH_BUCKET;
  uint64_t bytes = 0, files = 0;
  sumTree(*m_shared, path, bytes, files);
  out = bytes;
  return 0;
}

int CLocalStoreBackend::list(const std::string& bucket, const std::string& after, const std::string& upTo,
                             uint32_t maxCount, std::vector<StoreEntry>& out) {
  REQUIRE_CONNECTED();
  std::string path = m_shared->bucketPath(bucket);
  if (!isDirectory(path)) return ZARN_E_NO_SUCH_BUCKET;
  std::vector<StoreEntry> result;
  Shared& shared = *m_shared;
  listSorted(
      [&](const std::string& relDir, std::vector<LevelEntry>& entries) {
        return readEntries(shared, relDir.empty() ? path : path + "/" + relDir.substr(0, relDir.size() - 1), entries);
      },
      [&](const std::string& relName, uint64_t& size) {
        struct stat st;
        if (::lstat((path + "/" + relName).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
        size = static_cast<uint64_t>(st.st_size);
        return true;
      },
      after, upTo, maxCount, result);
  out = std::move(result);
  return 0;
}

std::shared_ptr<IStoreBackend> makeLocalStoreBackend(const std::string& root) {
  return std::make_shared<CLocalStoreBackend>(root);
}

}  // namespace Velto::Zarn
