// The local-directory store. On-disk layout and the protocol between processes
// sharing a root are described in doc/local_store.md.
#include "LocalStoreBackend.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>  // renameat2, RENAME_NOREPLACE
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "KanduThread.h"
#include "KanduTime.h"
#include "StoreWalk.h"
#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

namespace {

// How often a create or rename starts over when another process pruned a
// directory level between our mkdir and our use of it. Each round trip is a few
// system calls; losing this many races in a row means something else is wrong.
constexpr int kLevelRetries = 16;
// Attempts to take the write lock of an existing file: a concurrent probe holds
// LOCK_SH for microseconds, a real writer holds LOCK_EX for the file's lifetime.
constexpr int kWriteLockAttempts = 10;
constexpr uint32_t kWriteLockPauseMs = 1;

int translateErrno(int err) { return storeErrorFromErrno(err); }

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// True while some open file description holds LOCK_EX on the file: a handle in
// some process has it open for writing. `fd` must not hold a lock itself.
bool probeWriteLock(int fd) {
  int rc;
  do {
    rc = ::flock(fd, LOCK_SH | LOCK_NB);
  } while (rc != 0 && errno == EINTR);
  if (rc == 0) {
    ::flock(fd, LOCK_UN);
    return false;
  }
  return errno == EWOULDBLOCK;
}

uint32_t toSeconds(const struct stat& st) { return static_cast<uint32_t>(st.st_mtim.tv_sec); }

}  // namespace

struct CLocalStoreBackend::Shared {
  explicit Shared(std::string r) : root(std::move(r)) {}

  const std::string root;
  std::atomic<bool> connected{false};
  std::atomic<uint64_t> capacityLimit{0};
  CCappedUsage usage;  // used bytes while capacityLimit is set
  std::atomic<uint64_t> directoriesOpened{0};
  std::atomic<uint64_t> tempCounter{0};


  std::string bucketPath(const std::string& bucket) const { return root + "/" + bucket; }
  std::string filePath(const std::string& bucket, const std::string& name) const {
    return root + "/" + bucket + "/" + name;
  }

  DIR* openDirectory(const std::string& path) {
    DIR* dir = ::opendir(path.c_str());
    if (dir != nullptr) directoriesOpened.fetch_add(1, std::memory_order_relaxed);
    return dir;
  }
};

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

class CLocalFile : public IStoreFile {
 public:
  CLocalFile(std::shared_ptr<Shared> shared, int fd, bool forWrite)
      : m_shared(std::move(shared)), m_fd(fd), m_forWrite(forWrite) {}
  ~CLocalFile() override {
    if (m_fd >= 0) ::close(m_fd);  // releases the write lock with the descriptor
  }
  CLocalFile(const CLocalFile&) = delete;
  CLocalFile& operator=(const CLocalFile&) = delete;

  int64_t read(void* buffer, uint32_t length) override {
    if (m_fd < 0 || m_forWrite) return ZARN_E_BAD_MODE;
    if (length == 0) return 0;
    int64_t n = readOnce(buffer, length);
    if (n != 0) return n;
    if (probeWriteLock(m_fd)) return 0;  // a writer may still append
    // The writer may have appended and closed between our read and the probe:
    // what it wrote before releasing the lock is visible now.
    n = readOnce(buffer, length);
    return n != 0 ? n : static_cast<int64_t>(ZARN_E_EOF);
  }

  int64_t write(const void* buffer, uint32_t length) override {
    if (m_fd < 0 || !m_forWrite) return ZARN_E_BAD_MODE;
    ssize_t n;
    do {
      n = ::write(m_fd, buffer, length);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return translateErrno(errno);
    m_shared->usage.noteWritten(n);
    return n;
  }

  int64_t seek(int64_t offset, int origin) override {
    if (m_fd < 0) return ZARN_E_BAD_MODE;
    int whence = whenceOf(origin);
    if (whence < 0) return ZARN_E_INVALID_ARGUMENT;
    off_t pos = ::lseek(m_fd, static_cast<off_t>(offset), whence);
    if (pos < 0) return translateErrno(errno);
    return pos;
  }

  int64_t tell() override { return seek(0, 1); }

  int stat(StoreFileStat& out) override {
    if (m_fd < 0) return ZARN_E_BAD_MODE;
    struct stat st;
    if (::fstat(m_fd, &st) != 0) return translateErrno(errno);
    out.size = static_cast<uint64_t>(st.st_size);
    out.modifyTime = toSeconds(st);
    // Our own write handle holds LOCK_EX; probing it would downgrade that lock.
    out.openForWrite = m_forWrite || probeWriteLock(m_fd);
    return 0;
  }

  int close() override {
    if (m_fd < 0) return ZARN_E_BAD_MODE;
    int result = 0;
    // A written file is renamed to its closed name right after this: its bytes
    // must be on disk before the name says the file is complete.
    if (m_forWrite && ::fdatasync(m_fd) != 0 && errno != EINVAL) result = translateErrno(errno);
    if (::close(m_fd) != 0 && result == 0 && errno != EINTR) result = translateErrno(errno);
    m_fd = -1;
    return result;
  }

 private:
  int64_t readOnce(void* buffer, uint32_t length) {
    ssize_t n;
    do {
      n = ::read(m_fd, buffer, length);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? translateErrno(errno) : n;
  }

  std::shared_ptr<Shared> m_shared;
  int m_fd;
  const bool m_forWrite;
};

// Makes the directory levels of `name` (all components but the last) below the
// bucket directory. 0, or the errno of the failed mkdir (ENOENT when a level
// vanished under us, or the bucket is gone).
int makeLevels(const std::string& bucketDir, const std::string& name) {
  size_t slash = name.find('/');
  while (slash != std::string::npos) {
    std::string dir = bucketDir + "/" + name.substr(0, slash);
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return errno;
    slash = name.find('/', slash + 1);
  }
  return 0;
}

// Removes the now empty directory levels above a removed or renamed file, up
// to (not including) the bucket directory. Stops at the first level that still
// holds something; a level that another process fills again at the same time
// makes rmdir fail, which is exactly the wanted outcome.
void pruneLevels(const std::string& bucketDir, const std::string& name) {
  std::string rel = parentOf(name);
  while (!rel.empty()) {
    if (::rmdir((bucketDir + "/" + rel).c_str()) != 0) return;
    rel = parentOf(rel);
  }
}

// Moves src to dst without ever replacing dst. The flag-less fallback (link,
// then unlink the source) is for file systems that refuse RENAME_NOREPLACE; if
// two processes race through it, the loser finds the source gone at unlink and
// takes its link back, so still exactly one rename succeeds.
int renameNoReplace(const std::string& src, const std::string& dst) {
  if (::renameat2(AT_FDCWD, src.c_str(), AT_FDCWD, dst.c_str(), RENAME_NOREPLACE) == 0) return 0;
  int err = errno;
  if (err != EINVAL && err != ENOSYS && err != EOPNOTSUPP) return err;
  if (::link(src.c_str(), dst.c_str()) != 0) return errno;
  if (::unlink(src.c_str()) != 0) {
    err = errno;
    ::unlink(dst.c_str());
    return err;
  }
  return 0;
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

#define REQUIRE_CONNECTED()                                    \
  do {                                                         \
    if (!m_shared->connected.load()) return ZARN_E_NOT_INITIALIZED; \
  } while (0)

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

int CLocalStoreBackend::createFile(const std::string& bucket, const std::string& name,
                                   const StoreLayout& /*layout*/, std::unique_ptr<IStoreFile>& out) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  const std::string bucketDir = s.bucketPath(bucket);
  const std::string finalPath = s.filePath(bucket, name);
  const std::string dir = parentOf(finalPath);

  for (int attempt = 0; attempt < kLevelRetries; ++attempt) {
    int err = makeLevels(bucketDir, name);
    if (err == ENOENT) {
      if (!isDirectory(bucketDir)) return ZARN_E_NO_SUCH_BUCKET;
      continue;  // a level was pruned by another process between our mkdirs
    }
    if (err != 0) return translateErrno(err);

    // The file is born under a hidden name, locked, and only then linked to its
    // final name: nobody can see it there without also seeing it open for writing.
    std::string temp = tempPath(dir, s.tempCounter.fetch_add(1));
    int fd = ::open(temp.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
      err = errno;
      if (err == ENOENT) {
        if (!isDirectory(bucketDir)) return ZARN_E_NO_SUCH_BUCKET;
        continue;  // our level vanished before the temp file landed in it
      }
      if (err == EEXIST) continue;  // a temp name collision: take another
      return translateErrno(err);
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      err = errno;
      ::close(fd);
      ::unlink(temp.c_str());
      return translateErrno(err);
    }
    int rc = 0;
    if (::link(temp.c_str(), finalPath.c_str()) != 0) {
      err = errno;
      if (err == EPERM || err == EOPNOTSUPP || err == ENOSYS) {
        // No hard links here: a rename without replace gives the same guarantee.
        err = ::renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, finalPath.c_str(), RENAME_NOREPLACE) == 0 ? 0 : errno;
      }
      rc = err == 0 ? 0 : (err == EEXIST ? ZARN_E_FILE_EXISTS : translateErrno(err));
    }
    ::unlink(temp.c_str());  // gone already after the rename fallback; harmless
    if (rc != 0) {
      ::close(fd);
      return rc;
    }
    out = std::make_unique<CLocalFile>(m_shared, fd, true);
    return 0;
  }
  ZLOG_LINE(Kandu::LOG_WARN, ZARN_E_IO, "CLocalStoreBackend", "create %s/%s lost %d races with level pruning",
            bucket.c_str(), name.c_str(), kLevelRetries);
  return ZARN_E_IO;
}

int CLocalStoreBackend::openFile(const std::string& bucket, const std::string& name, StoreOpenMode mode,
                                 std::unique_ptr<IStoreFile>& out) {
  REQUIRE_CONNECTED();
  if (mode != StoreOpenMode::Read && mode != StoreOpenMode::Write) return ZARN_E_INVALID_ARGUMENT;
  const bool forWrite = mode == StoreOpenMode::Write;
  std::string path = m_shared->filePath(bucket, name);
  int flags = (forWrite ? O_WRONLY | O_APPEND : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC;
  int fd = ::open(path.c_str(), flags);
  if (fd < 0) {
    int err = errno;
    if (err == ENOENT && !isDirectory(m_shared->bucketPath(bucket))) return ZARN_E_NO_SUCH_BUCKET;
    return translateErrno(err);
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    bool dir = S_ISDIR(st.st_mode);
    ::close(fd);
    return dir ? ZARN_E_IS_DIRECTORY : ZARN_E_NO_SUCH_FILE;
  }
  if (forWrite) {
    int attempt = 0;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      int err = errno;
      if (err == EINTR) continue;
      if (err != EWOULDBLOCK || ++attempt >= kWriteLockAttempts) {
        ::close(fd);
        return translateErrno(err);
      }
      Kandu::sleepMs(kWriteLockPauseMs);
    }
  }
  out = std::make_unique<CLocalFile>(m_shared, fd, forWrite);
  return 0;
}

int CLocalStoreBackend::removeFile(const std::string& bucket, const std::string& name) {
  REQUIRE_CONNECTED();
  std::string bucketDir = m_shared->bucketPath(bucket);
  std::string path = m_shared->filePath(bucket, name);
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) {
    int err = errno;
    if (err == ENOENT && !isDirectory(bucketDir)) return ZARN_E_NO_SUCH_BUCKET;
    return translateErrno(err);
  }
  if (S_ISDIR(st.st_mode)) return ZARN_E_IS_DIRECTORY;
  if (::unlink(path.c_str()) != 0) return translateErrno(errno);
  m_shared->usage.noteRemoved(static_cast<uint64_t>(st.st_size));
  pruneLevels(bucketDir, name);
  return 0;
}

int CLocalStoreBackend::renameFile(const std::string& fromBucket, const std::string& fromName,
                                   const std::string& toBucket, const std::string& toName) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  const std::string fromDir = s.bucketPath(fromBucket);
  const std::string toDir = s.bucketPath(toBucket);
  const std::string src = s.filePath(fromBucket, fromName);
  const std::string dst = s.filePath(toBucket, toName);

  auto sourceState = [&]() -> int {
    struct stat st;
    if (::lstat(src.c_str(), &st) != 0) {
      int err = errno;
      if (err == ENOENT && !isDirectory(fromDir)) return ZARN_E_NO_SUCH_BUCKET;
      return translateErrno(err);
    }
    return S_ISDIR(st.st_mode) ? ZARN_E_IS_DIRECTORY : 0;
  };
  int rc = sourceState();
  if (rc != 0) return rc;

  for (int attempt = 0; attempt < kLevelRetries; ++attempt) {
    int err = makeLevels(toDir, toName);
    if (err == 0) err = renameNoReplace(src, dst);
    if (err == 0) {
      if (fromBucket != toBucket || parentOf(fromName) != parentOf(toName)) pruneLevels(fromDir, fromName);
      return 0;
    }
    if (err == EEXIST) return ZARN_E_FILE_EXISTS;
    if (err != ENOENT) return translateErrno(err);
    // ENOENT: either the source went (another rename won) or a target level
    // was pruned under us.
    rc = sourceState();
    if (rc != 0) return rc;
    if (!isDirectory(toDir)) return ZARN_E_NO_SUCH_BUCKET;
  }
  ZLOG_LINE(Kandu::LOG_WARN, ZARN_E_IO, "CLocalStoreBackend", "rename %s/%s lost %d races with level pruning",
            fromBucket.c_str(), fromName.c_str(), kLevelRetries);
  return ZARN_E_IO;
}

int CLocalStoreBackend::statFile(const std::string& bucket, const std::string& name, StoreFileStat& out) {
  REQUIRE_CONNECTED();
  std::string path = m_shared->filePath(bucket, name);
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    int err = errno;
    if (err == ENOENT && !isDirectory(m_shared->bucketPath(bucket))) return ZARN_E_NO_SUCH_BUCKET;
    return translateErrno(err);
  }
  struct stat st;
  int rc = 0;
  if (::fstat(fd, &st) != 0) {
    rc = translateErrno(errno);
  } else if (S_ISDIR(st.st_mode)) {
    rc = ZARN_E_IS_DIRECTORY;
  } else if (!S_ISREG(st.st_mode)) {
    rc = ZARN_E_NO_SUCH_FILE;
  } else {
    out.size = static_cast<uint64_t>(st.st_size);
    out.modifyTime = toSeconds(st);
    out.openForWrite = probeWriteLock(fd);
  }
  ::close(fd);
  return rc;
}

std::shared_ptr<IStoreBackend> makeLocalStoreBackend(const std::string& root) {
  return std::make_shared<CLocalStoreBackend>(root);
}

}  // namespace Velto::Zarn
