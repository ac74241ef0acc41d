// Internal to the CephFS backend: what its pieces share. Included only by them:
//   CephStoreBackend.cpp   the address, the mount options, connect and the mount's lifetime; the
//                          guarded CCephStoreBackend over the direct calls
//   CephStoreHealth.cpp    the health probe
//   CephStoreListing.cpp   reading directory levels, the cache of directory-only levels, listings
//   CephStoreBuckets.cpp   buckets, capacity and the recursive statistics
//   CephStoreFiles.cpp     file handles (reads, writes, the write lock), open, stat
//   CephStoreNameOps.cpp   exclusive create, remove and rename of file names
// How the store's guarantees are kept on CephFS is in doc/ceph_store.md.
#pragma once

#include <cephfs/libcephfs.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "CephStoreBackend.h"
#include "StoreWalk.h"
#include "ZarnError.h"

namespace Velto::Zarn {

// The CephFS store's calls themselves, unbounded: CCephStoreBackend runs them
// through its deadline wrapper. What each call does is documented on
// CCephStoreBackend.
class CCephDirectBackend : public IStoreBackend {
 public:
  struct Shared;  // the mount and the state its file handles share

  explicit CCephDirectBackend(const std::string& location);
  ~CCephDirectBackend() override;

  static bool parseLocation(const std::string& location, std::string* reason);

  int connect(const Config& config) override;
  void disconnect() override;
  int probeHealth() override;
  int capacity(StoreCapacity& out) override;
  int setCapacityLimit(uint64_t bytes) override;
  int createBucket(const std::string& bucket) override;
  int removeBucket(const std::string& bucket) override;
  int bucketExists(const std::string& bucket) override;
  int listBuckets(std::vector<std::string>& out) override;
  int bucketUsedBytes(const std::string& bucket, uint64_t& out) override;
  int list(const std::string& bucket, const std::string& after, const std::string& upTo, uint32_t maxCount,
           std::vector<StoreEntry>& out) override;
  int createFile(const std::string& bucket, const std::string& name, const StoreLayout& layout,
                 std::unique_ptr<IStoreFile>& out) override;
  int openFile(const std::string& bucket, const std::string& name, StoreOpenMode mode,
               std::unique_ptr<IStoreFile>& out) override;
  int removeFile(const std::string& bucket, const std::string& name) override;
  int renameFile(const std::string& fromBucket, const std::string& fromName, const std::string& toBucket,
                 const std::string& toName) override;
  int statFile(const std::string& bucket, const std::string& name, StoreFileStat& out) override;

  uint64_t clientId() const;
  std::string filePool(const std::string& bucket, const std::string& name);
  uint64_t levelsRead() const;
  uint64_t levelCacheHits() const;

 private:
  std::shared_ptr<Shared> m_shared;
};

namespace detail {

// A libcephfs result (-errno) as a store code.
inline int translate(int negErrno) { return storeErrorFromErrno(-negErrno); }

struct Monitor {
  std::string host;  // without brackets
  std::string port;  // "" when the address gave none
};

// A handle on the open file `fd` of the mount; a write handle holds its lock
// (flock LOCK_EX) already. The handle closes `fd`.
std::unique_ptr<IStoreFile> makeCephFile(std::shared_ptr<CCephDirectBackend::Shared> shared, int fd, bool forWrite);

}  // namespace detail

// The mount and the state its file handles share: it lives until the backend
// and the last of its handles are gone, and unmounts then.
struct CCephDirectBackend::Shared {
  std::vector<detail::Monitor> monitors;
  std::string root;  // absolute path in CephFS without a trailing '/'; "" is the file system's root

  ceph_mount_info* mount = nullptr;  // set by connect, released with the last handle
  std::atomic<bool> connected{false};
  std::atomic<uint64_t> clientId{0};
  std::atomic<uint64_t> nextOwner{1};  // flock owners: one per file handle
  std::atomic<uint64_t> tempCounter{0};
  std::atomic<uint64_t> levelsRead{0};      // readdirs of listing levels
  std::atomic<uint64_t> levelCacheHits{0};  // listing levels served from levelCache
  std::atomic<uint64_t> capacityLimit{0};
  CCappedUsage usage;  // used bytes while capacityLimit is set

  // Creates and renames hold this shared from making a level until their file
  // is linked into it; pruning takes it exclusive, and only if free. Without
  // it, two threads of one process, one emptying a level and one filling it,
  // can starve each other: every MDS round trip is a window for the other.
  // Between processes the retries (with growing pauses) settle it.
  std::shared_mutex levelsMutex;

  std::mutex poolMutex;
  std::map<std::pair<uint16_t, uint16_t>, std::string> pools;  // guarded by poolMutex; "" = default pool

  // Listing levels that hold only directories (a bucket's year and month
  // levels), by absolute path. Such a level changes only when an entry is made,
  // removed or renamed in it, which bumps the directory's change attribute; a
  // directory removed and made again is another inode. So a cached level is
  // good while (inode, change attribute) are those read before its readdir: a
  // change racing the readdir shows as a newer attribute and a re-read. The
  // check is a statx answered from the client's capabilities (microseconds)
  // until another client changes the directory, where a readdir of a level of
  // 30 subdirectories costs milliseconds of MDS messages.
  struct CachedLevel {
    uint64_t ino = 0;
    uint64_t version = 0;
    std::vector<LevelEntry> entries;
  };
  static constexpr size_t kMaxCachedLevels = 4096;  // about 1 KiB each; dropped all at once beyond
  std::mutex levelCacheMutex;
  std::map<std::string, CachedLevel> levelCache;  // guarded by levelCacheMutex

  ~Shared();  // unmounts

  std::string bucketPath(const std::string& bucket) const { return root + "/" + bucket; }
  std::string filePath(const std::string& bucket, const std::string& name) const {
    return root + "/" + bucket + "/" + name;
  }
  std::string rootPath() const { return root.empty() ? "/" : root; }

  bool isDirectory(const std::string& path) {
    struct ceph_statx stx;
    return ceph_statx(mount, path.c_str(), &stx, CEPH_STATX_MODE, 0) == 0 && S_ISDIR(stx.stx_mode);
  }

  // true while some handle of some client holds LOCK_EX on the open file `fd`.
  bool probeWriteLock(int fd);

  // Visible entries of one directory (files and directories; hidden names are
  // creates in progress). false when the directory cannot be read.
  bool readLevel(const std::string& path, std::vector<LevelEntry>& out, int* err = nullptr);

  // readLevel through the cache of directory-only levels. The sizes of files
  // change without the directory's attribute, so levels holding files are
  // always read.
  bool readLevelCached(const std::string& path, std::vector<LevelEntry>& out, int* err = nullptr);

  // Bytes and count of the visible regular files below a directory.
  void sumTree(const std::string& path, uint64_t& bytes, uint64_t& files);

  // A recursive statistic of a directory ("ceph.dir.rbytes", "ceph.dir.rfiles").
  int dirStatistic(const std::string& path, const char* name, uint64_t& out);

  // mkdir -p of the levels of `name` below the bucket directory: 0 or -errno.
  int makeLevels(const std::string& bucketDir, const std::string& name);

  // Removes the empty levels above a removed or renamed file, up to the bucket
  // directory; stops at the first level that still holds something.
  void pruneLevels(const std::string& bucketDir, const std::string& name);

  // The data pool for a file of k data and m parity shards: "zarn_ec_<k>_<m>"
  // when the cluster has it, else "" (the directory's default pool).
  std::string poolFor(const StoreLayout& layout);
  // After a create found the pool not a data pool of the file system: files of
  // this k+m go to the default pool from now on.
  void forgetPool(const StoreLayout& layout);

  // statfs is answered by the monitors. A stat may be answered from this
  // client's cache, so the MDS is asked to make and remove a hidden directory
  // of this client's instead (hidden names are never part of the store).
  int runProbe();
};

}  // namespace Velto::Zarn

// The start of every backend call that needs the mount: before connect and
// after disconnect it fails with ZARN_E_NOT_INITIALIZED.
#define REQUIRE_CONNECTED()                                          \
  do {                                                               \
    if (!m_shared->connected.load()) return ZARN_E_NOT_INITIALIZED; \
  } while (0)
