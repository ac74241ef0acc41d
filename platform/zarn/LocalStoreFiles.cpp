// The local-directory store's file handles (reads that tell a file still being
// written from a finished one, appends, the write lock and its probe, the sync
// at close) and its operations on files: exclusive create, open, remove, rename
// without replace, stat, with the directory levels they make and prune. The
// protocol between processes sharing a root is in doc/local_store.md.
#include "LocalStoreBackendImpl.h"

#include <fcntl.h>
#include <stdio.h>  // renameat2, RENAME_NOREPLACE
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "KanduThread.h"
#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

using detail::isDirectory;
using detail::probeWriteLock;
using detail::translateErrno;

namespace {

// How often a create or rename starts over when another process pruned a
// directory level between our mkdir and our use of it. Each round trip is a few
// system calls; losing this many races in a row means something else is wrong.
constexpr int kLevelRetries = 16;
// Attempts to take the write lock of an existing file: a concurrent probe holds
// LOCK_SH for microseconds, a real writer holds LOCK_EX for the file's lifetime.
constexpr int kWriteLockAttempts = 10;
constexpr uint32_t kWriteLockPauseMs = 1;
// Slices of one gathered write (far below IOV_MAX); the rest goes in the next call.
constexpr uint32_t kMaxGatherSlices = 64;

uint32_t toSeconds(const struct stat& st) { return static_cast<uint32_t>(st.st_mtim.tv_sec); }

using Shared = CLocalStoreBackend::Shared;

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

  int64_t writeGather(const StoreSlice* slices, uint32_t count) override {
    if (m_fd < 0 || !m_forWrite) return ZARN_E_BAD_MODE;
    // One writev per call: on a journalling file system most of a small
    // append's cost is per call, not per byte.
    iovec iov[kMaxGatherSlices];
    const uint32_t n = std::min<uint32_t>(count, kMaxGatherSlices);
    for (uint32_t i = 0; i < n; ++i) iov[i] = iovec{const_cast<void*>(slices[i].data), slices[i].length};
    ssize_t taken;
    do {
      taken = ::writev(m_fd, iov, static_cast<int>(n));
    } while (taken < 0 && errno == EINTR);
    if (taken < 0) return translateErrno(errno);
    m_shared->usage.noteWritten(taken);
    return taken;
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

bool detail::probeWriteLock(int fd) {
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
  // O_NONBLOCK: a FIFO or device placed at a file's name must be refused
  // below, not block this thread in open() until someone writes into it.
  int flags = (forWrite ? O_WRONLY | O_APPEND : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
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
  ::fcntl(fd, F_SETFL, forWrite ? O_APPEND : 0);  // a regular file: blocking I/O as usual
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

}  // namespace Velto::Zarn
