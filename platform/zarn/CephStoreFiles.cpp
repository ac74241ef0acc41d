// The CephFS backend's file handles: reads that tell a file still being written
// from a finished one, appends, the write lock and its probe, the sync at close;
// opening and stat of a file by name, and the data pool a file went to.
#include "CephStoreBackendImpl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "KanduThread.h"
#include "ZarnError.h"

namespace Velto::Zarn {

using detail::translate;

namespace {

// Attempts to take the write lock of an existing file (a concurrent probe holds
// LOCK_SH for one MDS round trip; a writer holds LOCK_EX for the file's life).
constexpr int kWriteLockAttempts = 10;
constexpr uint32_t kWriteLockPauseMs = 2;
// Slices of one gathered write; the rest goes in the next call.
constexpr uint32_t kMaxGatherSlices = 64;
constexpr unsigned kStatWant = CEPH_STATX_MODE | CEPH_STATX_SIZE | CEPH_STATX_MTIME | CEPH_STATX_INO;

using Shared = CCephDirectBackend::Shared;

class CCephFile : public IStoreFile {
 public:
  // A write handle's lock (flock LOCK_EX) goes with its descriptor.
  CCephFile(std::shared_ptr<Shared> shared, int fd, bool forWrite)
      : m_shared(std::move(shared)), m_fd(fd), m_forWrite(forWrite) {}
  ~CCephFile() override {
    if (m_fd >= 0) ceph_close(m_shared->mount, m_fd);  // drops our lock with the handle
  }
  CCephFile(const CCephFile&) = delete;
  CCephFile& operator=(const CCephFile&) = delete;

  int64_t read(void* buffer, uint32_t length) override {
    if (m_fd < 0 || m_forWrite) return ZARN_E_BAD_MODE;
    if (length == 0) return 0;
    int64_t n = readOnce(buffer, length);
    if (n != 0) return n;
    if (m_shared->probeWriteLock(m_fd)) return 0;  // a writer may still append
    // The writer may have appended and closed between our read and the probe.
    n = readOnce(buffer, length);
    return n != 0 ? n : static_cast<int64_t>(ZARN_E_EOF);
  }

  int64_t write(const void* buffer, uint32_t length) override {
    if (m_fd < 0 || !m_forWrite) return ZARN_E_BAD_MODE;
    // Offset -1: at the descriptor's position, which O_APPEND keeps at the end
    // (an explicit offset would be honoured even on an O_APPEND descriptor).
    int n = ceph_write(m_shared->mount, m_fd, static_cast<const char*>(buffer), length, -1);
    if (n < 0) return translate(n);
    m_shared->usage.noteWritten(n);
    return n;
  }

  int64_t writeGather(const StoreSlice* slices, uint32_t count) override {
    if (m_fd < 0 || !m_forWrite) return ZARN_E_BAD_MODE;
    // One client call per pass: each call takes the client's lock and may
    // talk to the metadata server about the file's size.
    iovec iov[kMaxGatherSlices];
    const uint32_t n = std::min<uint32_t>(count, kMaxGatherSlices);
    for (uint32_t i = 0; i < n; ++i) iov[i] = iovec{const_cast<void*>(slices[i].data), slices[i].length};
    // Offset -1: at the descriptor's position, as in write().
    const int taken = ceph_pwritev(m_shared->mount, m_fd, iov, static_cast<int>(n), -1);
    if (taken < 0) return translate(taken);
    m_shared->usage.noteWritten(taken);
    return taken;
  }

  int64_t seek(int64_t offset, int origin) override {
    if (m_fd < 0) return ZARN_E_BAD_MODE;
    int whence = whenceOf(origin);
    if (whence < 0) return ZARN_E_INVALID_ARGUMENT;
    int64_t pos = ceph_lseek(m_shared->mount, m_fd, offset, whence);
    return pos < 0 ? translate(static_cast<int>(pos)) : pos;
  }

  int64_t tell() override { return seek(0, 1); }

  int stat(StoreFileStat& out) override {
    if (m_fd < 0) return ZARN_E_BAD_MODE;
    struct ceph_statx stx;
    int rc = ceph_fstatx(m_shared->mount, m_fd, &stx, kStatWant, 0);
    if (rc != 0) return translate(rc);
    out.size = stx.stx_size;
    out.modifyTime = static_cast<uint32_t>(stx.stx_mtime.tv_sec);
    out.openForWrite = m_forWrite || m_shared->probeWriteLock(m_fd);
    return 0;
  }

  int close() override {
    if (m_fd < 0) return ZARN_E_BAD_MODE;
    int result = 0;
    // The closed name that follows says the file is complete: its bytes must be
    // in the OSDs, and its size with the MDS, before that. (A data-only sync
    // would leave the size in this client's capabilities until they are
    // flushed lazily, and with it the recursive statistics of its directories.)
    if (m_forWrite) {
      int rc = ceph_fsync(m_shared->mount, m_fd, 0);
      if (rc != 0) result = translate(rc);
    }
    int rc = ceph_close(m_shared->mount, m_fd);
    if (rc != 0 && result == 0) result = translate(rc);
    m_fd = -1;
    return result;
  }

 private:
  int64_t readOnce(void* buffer, uint32_t length) {
    int n = ceph_read(m_shared->mount, m_fd, static_cast<char*>(buffer), length, -1);
    return n < 0 ? translate(n) : n;
  }

  std::shared_ptr<Shared> m_shared;
  int m_fd;
  const bool m_forWrite;
};

}  // namespace

bool CCephDirectBackend::Shared::probeWriteLock(int fd) {
  uint64_t owner = nextOwner.fetch_add(1);
  int rc = ceph_flock(mount, fd, LOCK_SH | LOCK_NB, owner);
  if (rc == 0) {
    ceph_flock(mount, fd, LOCK_UN, owner);
    return false;
  }
  return rc == -EWOULDBLOCK;
}

std::unique_ptr<IStoreFile> detail::makeCephFile(std::shared_ptr<CCephDirectBackend::Shared> shared, int fd,
                                                 bool forWrite) {
  return std::make_unique<CCephFile>(std::move(shared), fd, forWrite);
}

int CCephDirectBackend::openFile(const std::string& bucket, const std::string& name, StoreOpenMode mode,
                                std::unique_ptr<IStoreFile>& out) {
  REQUIRE_CONNECTED();
  if (mode != StoreOpenMode::Read && mode != StoreOpenMode::Write) return ZARN_E_INVALID_ARGUMENT;
  Shared& s = *m_shared;
  const bool forWrite = mode == StoreOpenMode::Write;
  std::string path = s.filePath(bucket, name);
  int fd = ceph_open(s.mount, path.c_str(), forWrite ? O_WRONLY | O_APPEND | O_NOFOLLOW : O_RDONLY | O_NOFOLLOW, 0);
  if (fd < 0) {
    if (fd == -ENOENT && !s.isDirectory(s.bucketPath(bucket))) return ZARN_E_NO_SUCH_BUCKET;
    return translate(fd);
  }
  struct ceph_statx stx;
  int rc = ceph_fstatx(s.mount, fd, &stx, CEPH_STATX_MODE, AT_STATX_DONT_SYNC);
  if (rc != 0 || !S_ISREG(stx.stx_mode)) {
    bool dir = rc == 0 && S_ISDIR(stx.stx_mode);
    ceph_close(s.mount, fd);
    return rc != 0 ? translate(rc) : (dir ? ZARN_E_IS_DIRECTORY : ZARN_E_NO_SUCH_FILE);
  }
  uint64_t owner = s.nextOwner.fetch_add(1);
  if (forWrite) {
    for (int attempt = 0;; ++attempt) {
      rc = ceph_flock(s.mount, fd, LOCK_EX | LOCK_NB, owner);
      if (rc == 0) break;
      if (rc != -EWOULDBLOCK || attempt + 1 >= kWriteLockAttempts) {
        ceph_close(s.mount, fd);
        return translate(rc);
      }
      Kandu::sleepMs(kWriteLockPauseMs);
    }
  }
  out = std::make_unique<CCephFile>(m_shared, fd, forWrite);
  return 0;
}

int CCephDirectBackend::statFile(const std::string& bucket, const std::string& name, StoreFileStat& out) {
  REQUIRE_CONNECTED();
  Shared& s = *m_shared;
  std::string path = s.filePath(bucket, name);
  int fd = ceph_open(s.mount, path.c_str(), O_RDONLY | O_NOFOLLOW, 0);
  if (fd < 0) {
    if (fd == -ENOENT && !s.isDirectory(s.bucketPath(bucket))) return ZARN_E_NO_SUCH_BUCKET;
    return fd == -EISDIR ? ZARN_E_IS_DIRECTORY : translate(fd);
  }
  struct ceph_statx stx;
  int rc = ceph_fstatx(s.mount, fd, &stx, kStatWant, 0);
  int result = 0;
  if (rc != 0) {
    result = translate(rc);
  } else if (S_ISDIR(stx.stx_mode)) {
    result = ZARN_E_IS_DIRECTORY;
  } else if (!S_ISREG(stx.stx_mode)) {
    result = ZARN_E_NO_SUCH_FILE;
  } else {
    out.size = stx.stx_size;
    out.modifyTime = static_cast<uint32_t>(stx.stx_mtime.tv_sec);
    out.openForWrite = s.probeWriteLock(fd);
  }
  ceph_close(s.mount, fd);
  return result;
}

std::string CCephDirectBackend::filePool(const std::string& bucket, const std::string& name) {
  if (!m_shared->connected.load()) return std::string();
  Shared& s = *m_shared;
  int fd = ceph_open(s.mount, s.filePath(bucket, name).c_str(), O_RDONLY, 0);
  if (fd < 0) return std::string();
  char buf[256];
  int n = ceph_get_file_pool_name(s.mount, fd, buf, sizeof buf);
  ceph_close(s.mount, fd);
  return n > 0 ? std::string(buf, strnlen(buf, static_cast<size_t>(n))) : std::string();
}

}  // namespace Velto::Zarn
