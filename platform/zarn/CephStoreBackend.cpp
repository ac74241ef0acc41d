// The CephFS store. How the store's guarantees are kept on CephFS, and what a
// crash in the middle of a two-step operation leaves, is in doc/ceph_store.md.
#include "CephStoreBackend.h"

#include <cephfs/libcephfs.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <thread>
#include <utility>

#include "KanduThread.h"
#include "KanduTime.h"
#include "StoreWalk.h"
#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

namespace {

constexpr const char* kConfEnv = "ZARN_CEPH_CONF";
// A mount that gets no answer from the monitors gives up after this many
// seconds (Ceph's own default is 300: far too long for a host starting up),
// and an unmount that cannot hand its capabilities back gives up after this
// many (Ceph's default 30). An operator's ceph.conf may say otherwise.
constexpr const char* kDefaultMountTimeoutS = "10";
constexpr const char* kDefaultShutdownTimeoutS = "10";
// A request to the monitors (statfs) that gets no answer ends after this many
// seconds (Ceph's default: never). Without it, the health probe's statfs sent
// while the monitors were down is never answered, not even once they are back.
constexpr const char* kDefaultMonitorOpTimeoutS = "10";
// A health probe that has not returned after this long reports the store lost.
constexpr uint32_t kProbeTimeoutMs = 3000;
// Rounds of a create or rename against another client pruning our level.
constexpr int kLevelRetries = 16;
// Attempts to take the write lock of an existing file (a concurrent probe holds
// LOCK_SH for one MDS round trip; a writer holds LOCK_EX for the file's life).
constexpr int kWriteLockAttempts = 10;
constexpr uint32_t kWriteLockPauseMs = 2;
constexpr unsigned kStatWant = CEPH_STATX_MODE | CEPH_STATX_SIZE | CEPH_STATX_MTIME | CEPH_STATX_INO;

int translate(int negErrno) { return storeErrorFromErrno(-negErrno); }

struct Monitor {
  std::string host;  // without brackets
  std::string port;  // "" when the address gave none
};

// "mon[,mon...][/path]" into monitors and root ("" for the file system's root).
bool parse(const std::string& location, std::vector<Monitor>& mons, std::string& root, std::string* reason) {
  auto fail = [&](const std::string& why) {
    if (reason) *reason = why;
    return false;
  };
  size_t slash = location.find('/');
  std::string monList = location.substr(0, slash);
  root = slash == std::string::npos ? std::string() : location.substr(slash);
  while (!root.empty() && root.back() == '/') root.pop_back();
  if (root.find("/../") != std::string::npos || root.find("/./") != std::string::npos ||
      root.find("//") != std::string::npos || (root.size() >= 3 && root.compare(root.size() - 3, 3, "/..") == 0)) {
    return fail("bad store root '" + root + "' in ceph address");
  }
  if (monList.empty()) return fail("no monitor in ceph address (expected ceph://mon[,mon...][/path])");
  size_t pos = 0;
  while (pos <= monList.size()) {
    size_t comma = monList.find(',', pos);
    std::string item = monList.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
    Monitor m;
    if (!item.empty() && item[0] == '[') {
      size_t close = item.find(']');
      if (close == std::string::npos) return fail("unclosed '[' in monitor '" + item + "'");
      m.host = item.substr(1, close - 1);
      if (close + 1 < item.size()) {
        if (item[close + 1] != ':') return fail("bad monitor '" + item + "'");
        m.port = item.substr(close + 2);
      }
    } else {
      size_t colon = item.find(':');
      m.host = item.substr(0, colon);
      if (colon != std::string::npos) m.port = item.substr(colon + 1);
    }
    if (m.host.empty()) return fail("empty monitor in ceph address");
    if (item.find(':') != std::string::npos && item[0] != '[' && m.port.empty()) {
      return fail("empty port in monitor '" + item + "'");
    }
    if (!m.port.empty()) {
      if (m.port.size() > 5 || m.port.find_first_not_of("0123456789") != std::string::npos ||
          std::atoi(m.port.c_str()) == 0 || std::atoi(m.port.c_str()) > 65535) {
        return fail("bad port in monitor '" + item + "'");
      }
    }
    mons.push_back(std::move(m));
    if (comma == std::string::npos) break;
    pos = comma + 1;
  }
  return true;
}

}  // namespace

struct CCephStoreBackend::Shared {
  std::vector<Monitor> monitors;
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


  // One health probe runs at a time, on its own thread, so that a cluster that
  // stopped answering blocks that thread and not the caller.
  std::mutex probeMutex;
  std::condition_variable probeDone;
  bool probeRunning = false;            // guarded by probeMutex
  uint64_t probeSerial = 0;             // guarded by probeMutex; counts finished probes
  int probeResult = 0;                  // guarded by probeMutex

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

  ~Shared() {
    if (mount == nullptr) return;
    // A clean unmount hands our capabilities back and closes the session. A
    // session dropped without it goes stale, and the MDS makes every other
    // client that needs an inode we held wait for the session time-out
    // (60 s): so always try, within client_shutdown_timeout, before aborting.
    if (ceph_unmount(mount) != 0) ceph_abort_conn(mount);
    ceph_release(mount);
  }

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
  bool probeWriteLock(int fd) {
    uint64_t owner = nextOwner.fetch_add(1);
    int rc = ceph_flock(mount, fd, LOCK_SH | LOCK_NB, owner);
    if (rc == 0) {
      ceph_flock(mount, fd, LOCK_UN, owner);
      return false;
    }
    return rc == -EWOULDBLOCK;
  }

  // Visible entries of one directory (files and directories; hidden names are
  // creates in progress). false when the directory cannot be read.
  bool readLevel(const std::string& path, std::vector<LevelEntry>& out, int* err = nullptr) {
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

  // readLevel through the cache of directory-only levels. The sizes of files
  // change without the directory's attribute, so levels holding files are
  // always read.
  bool readLevelCached(const std::string& path, std::vector<LevelEntry>& out, int* err = nullptr) {
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

  void sumTree(const std::string& path, uint64_t& bytes, uint64_t& files) {
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

  // A recursive statistic of a directory ("ceph.dir.rbytes", "ceph.dir.rfiles").
  int dirStatistic(const std::string& path, const char* name, uint64_t& out) {
    char buf[32];
    int n = ceph_getxattr(mount, path.c_str(), name, buf, sizeof buf - 1);
    if (n < 0) return n;
    buf[n] = '\0';
    out = std::strtoull(buf, nullptr, 10);
    return 0;
  }

  // mkdir -p of the levels of `name` below the bucket directory: 0 or -errno.
  int makeLevels(const std::string& bucketDir, const std::string& name) {
    std::string levels = parentOf(name);
    if (levels.empty()) return 0;
    int rc = ceph_mkdirs(mount, (bucketDir + "/" + levels).c_str(), 0755);
    return rc == -EEXIST ? 0 : rc;
  }

  // Removes the empty levels above a removed or renamed file, up to the bucket
  // directory; stops at the first level that still holds something.
  void pruneLevels(const std::string& bucketDir, const std::string& name) {
    std::unique_lock<std::shared_mutex> lock(levelsMutex, std::try_to_lock);
    if (!lock.owns_lock()) return;  // a create is filling levels: leave them to a later removal
    for (std::string rel = parentOf(name); !rel.empty(); rel = parentOf(rel)) {
      if (ceph_rmdir(mount, (bucketDir + "/" + rel).c_str()) != 0) return;
    }
  }

  // The data pool for a file of k data and m parity shards: "zarn_ec_<k>_<m>"
  // when the cluster has it, else "" (the directory's default pool).
  std::string poolFor(const StoreLayout& layout) {
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

  void forgetPool(const StoreLayout& layout) {
    std::lock_guard<std::mutex> lock(poolMutex);
    pools[std::make_pair(layout.dataShards, layout.parityShards)] = std::string();
  }

  // statfs is answered by the monitors. A stat may be answered from this
  // client's cache, so the MDS is asked to make and remove a hidden directory
  // of this client's instead (hidden names are never part of the store).
  int runProbe() {
    struct statvfs vfs;
    int rc = ceph_statfs(mount, rootPath().c_str(), &vfs);
    if (rc != 0) return rc;
    std::string probe = root + "/.zarn-health." + std::to_string(clientId.load());
    rc = ceph_mkdir(mount, probe.c_str(), 0700);
    if (rc != 0 && rc != -EEXIST) return rc;
    rc = ceph_rmdir(mount, probe.c_str());
    return rc == -ENOENT ? 0 : rc;
  }
};

namespace {

using Shared = CCephStoreBackend::Shared;

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

// Sets a client option; false (logged) when Ceph refuses it.
bool setOption(ceph_mount_info* mount, const char* option, const std::string& value, bool secret = false) {
  int rc = ceph_conf_set(mount, option, value.c_str());
  if (rc == 0) return true;
  ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "ceph refused option %s = %s: %s", option,
            secret ? "(secret)" : value.c_str(), std::strerror(-rc));
  return false;
}

}  // namespace

bool CCephStoreBackend::parseLocation(const std::string& location, std::string* reason) {
  std::vector<Monitor> mons;
  std::string root;
  return parse(location, mons, root, reason);
}

CCephStoreBackend::CCephStoreBackend(const std::string& location) : m_shared(std::make_shared<Shared>()) {
  if (!parse(location, m_shared->monitors, m_shared->root, nullptr)) {
    KLOG_ERROR("CCephStoreBackend: unchecked ceph location '%s'\n", location.c_str());
    std::abort();  // the factory checks the location first
  }
}

CCephStoreBackend::~CCephStoreBackend() = default;

uint64_t CCephStoreBackend::clientId() const { return m_shared->clientId.load(); }

uint64_t CCephStoreBackend::levelsRead() const { return m_shared->levelsRead.load(std::memory_order_relaxed); }
uint64_t CCephStoreBackend::levelCacheHits() const {
  return m_shared->levelCacheHits.load(std::memory_order_relaxed);
}

int CCephStoreBackend::connect(const Config& config) {
  Shared& s = *m_shared;
  if (s.mount != nullptr) return ZARN_E_INVALID_ARGUMENT;  // connected once already
  const char* id = config.userName != nullptr && config.userName[0] != '\0' ? config.userName : nullptr;
  ceph_mount_info* mount = nullptr;
  int rc = ceph_create(&mount, id);
  if (rc != 0) {
    ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "ceph_create failed: %s", std::strerror(-rc));
    return translate(rc);
  }
  auto fail = [&](int code) {
    ceph_release(mount);
    return code;
  };
  // Our defaults first, then the operator's ceph.conf (it may override them),
  // then what the address and the Config say (they override the file).
  bool ok = setOption(mount, "client_mount_timeout", kDefaultMountTimeoutS) &&
            setOption(mount, "client_shutdown_timeout", kDefaultShutdownTimeoutS) &&
            setOption(mount, "rados_mon_op_timeout", kDefaultMonitorOpTimeoutS) &&
            setOption(mount, "admin_socket", "") && setOption(mount, "log_to_stderr", "false") &&
            setOption(mount, "err_to_stderr", "false");
  if (!ok) return fail(ZARN_E_INVALID_ARGUMENT);
  if (const char* conf = std::getenv(kConfEnv); conf != nullptr && conf[0] != '\0') {
    rc = ceph_conf_read_file(mount, conf);
    if (rc != 0) {
      ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "cannot read %s=%s: %s", kConfEnv, conf,
                std::strerror(-rc));
      return fail(ZARN_E_INVALID_ARGUMENT);
    }
  }
  std::string monHost;
  for (const Monitor& m : s.monitors) {
    if (!monHost.empty()) monHost += ",";
    bool v6 = m.host.find(':') != std::string::npos;
    std::string host = v6 ? "[" + m.host + "]" : m.host;
    if (!m.port.empty()) {
      monHost += host + ":" + m.port;
    } else if (config.port > 0) {
      monHost += host + ":" + std::to_string(config.port);
    } else {
      monHost += host;
    }
  }
  if (!setOption(mount, "mon_host", monHost)) return fail(ZARN_E_INVALID_ARGUMENT);
  if (config.password != nullptr && config.password[0] != '\0' &&
      !setOption(mount, "key", config.password, true)) {
    return fail(ZARN_E_INVALID_ARGUMENT);
  }

  uint64_t started = Kandu::monotonicMs();
  rc = ceph_mount(mount, "/");
  if (rc != 0) {
    int code = rc == -ETIMEDOUT ? ZARN_E_UNAVAILABLE : translate(rc);
    ZLOG_LINE(Kandu::LOG_ERROR, code, "CCephStoreBackend", "cannot mount CephFS at monitors %s as %s: %s",
              monHost.c_str(), id != nullptr ? id : "admin", std::strerror(-rc));
    return fail(code);
  }
  if (!s.root.empty()) {
    rc = ceph_mkdirs(mount, s.root.c_str(), 0755);
    if (rc != 0 && rc != -EEXIST) {
      ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "cannot make store root %s: %s",
                s.root.c_str(), std::strerror(-rc));
      ceph_unmount(mount);
      return fail(translate(rc));
    }
  }
  struct ceph_statx stx;
  rc = ceph_statx(mount, s.rootPath().c_str(), &stx, CEPH_STATX_MODE, 0);
  if (rc != 0 || !S_ISDIR(stx.stx_mode)) {
    ZLOG_LINE(Kandu::LOG_ERROR, ZARN_E_UNAVAILABLE, "CCephStoreBackend", "store root %s is not a directory",
              s.rootPath().c_str());
    ceph_unmount(mount);
    return fail(ZARN_E_UNAVAILABLE);
  }
  s.mount = mount;
  s.clientId.store(ceph_get_instance_id(mount));
  s.connected.store(true);
  ZLOG_LINE(Kandu::LOG_INFO, 0, "CCephStoreBackend", "CephFS store at %s, monitors %s, client.%" PRIu64 " (%" PRIu64
            " ms)", s.rootPath().c_str(), monHost.c_str(), s.clientId.load(), Kandu::monotonicMs() - started);
  return 0;
}

void CCephStoreBackend::disconnect() { m_shared->connected.store(false); }

#define REQUIRE_CONNECTED()                                          \
  do {                                                               \
    if (!m_shared->connected.load()) return ZARN_E_NOT_INITIALIZED; \
  } while (0)

int CCephStoreBackend::probeHealth() {
  REQUIRE_CONNECTED();
  std::shared_ptr<Shared> shared = m_shared;
  std::unique_lock<std::mutex> lock(shared->probeMutex);
  // A probe still hanging from an earlier call is waited on again rather than
  // joined by another: while the cluster is lost, one thread is stuck, not one
  // per period.
  if (!shared->probeRunning) {
    shared->probeRunning = true;
    std::thread([shared] {
      int rc = shared->runProbe();
      std::lock_guard<std::mutex> guard(shared->probeMutex);
      shared->probeResult = rc;
      shared->probeRunning = false;
      ++shared->probeSerial;
      shared->probeDone.notify_all();
    }).detach();
  }
  uint64_t serial = shared->probeSerial;
  bool finished = shared->probeDone.wait_for(lock, std::chrono::milliseconds(kProbeTimeoutMs),
                                             [&] { return shared->probeSerial != serial; });
  return finished ? (shared->probeResult == 0 ? 0 : translate(shared->probeResult)) : ZARN_E_TIMEOUT;
}

int CCephStoreBackend::setCapacityLimit(uint64_t bytes) {
  m_shared->capacityLimit.store(bytes);
  return 0;
}

int CCephStoreBackend::capacity(StoreCapacity& out) {
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

int CCephStoreBackend::createBucket(const std::string& bucket) {
  REQUIRE_CONNECTED();
  int rc = ceph_mkdir(m_shared->mount, m_shared->bucketPath(bucket).c_str(), 0755);
  if (rc == 0) return 0;
  if (rc == -EEXIST) return ZARN_E_BUCKET_EXISTS;
  if (rc == -ENOENT) return ZARN_E_UNAVAILABLE;  // the store root itself is gone
  return translate(rc);
}

namespace {

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

int CCephStoreBackend::removeBucket(const std::string& bucket) {
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

int CCephStoreBackend::bucketExists(const std::string& bucket) {
  REQUIRE_CONNECTED();
  return m_shared->isDirectory(m_shared->bucketPath(bucket)) ? 0 : ZARN_E_NO_SUCH_BUCKET;
}

int CCephStoreBackend::listBuckets(std::vector<std::string>& out) {
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

int CCephStoreBackend::bucketUsedBytes(const std::string& bucket, uint64_t& out) {
  REQUIRE_CONNECTED();
  int rc = m_shared->dirStatistic(m_shared->bucketPath(bucket), "ceph.dir.rbytes", out);
  if (rc == -ENOENT) return ZARN_E_NO_SUCH_BUCKET;
  return rc == 0 ? 0 : translate(rc);
}

int CCephStoreBackend::list(const std::string& bucket, const std::string& after, const std::string& upTo,
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

int CCephStoreBackend::createFile(const std::string& bucket, const std::string& name, const StoreLayout& layout,
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
    out = std::make_unique<CCephFile>(m_shared, fd, true);
    return 0;
  }
  ZLOG_LINE(Kandu::LOG_WARN, ZARN_E_IO, "CCephStoreBackend", "create %s/%s lost %d races with level pruning",
            bucket.c_str(), name.c_str(), kLevelRetries);
  return ZARN_E_IO;
}

int CCephStoreBackend::openFile(const std::string& bucket, const std::string& name, StoreOpenMode mode,
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

int CCephStoreBackend::removeFile(const std::string& bucket, const std::string& name) {
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

int CCephStoreBackend::renameFile(const std::string& fromBucket, const std::string& fromName,
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

int CCephStoreBackend::statFile(const std::string& bucket, const std::string& name, StoreFileStat& out) {
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

std::string CCephStoreBackend::filePool(const std::string& bucket, const std::string& name) {
  if (!m_shared->connected.load()) return std::string();
  Shared& s = *m_shared;
  int fd = ceph_open(s.mount, s.filePath(bucket, name).c_str(), O_RDONLY, 0);
  if (fd < 0) return std::string();
  char buf[256];
  int n = ceph_get_file_pool_name(s.mount, fd, buf, sizeof buf);
  ceph_close(s.mount, fd);
  return n > 0 ? std::string(buf, strnlen(buf, static_cast<size_t>(n))) : std::string();
}

int makeCephStoreBackend(const std::string& location, std::shared_ptr<IStoreBackend>& out, std::string* reason) {
  if (!CCephStoreBackend::parseLocation(location, reason)) return ZARN_E_INVALID_ARGUMENT;
  out = std::make_shared<CCephStoreBackend>(location);
  return 0;
}

}  // namespace Velto::Zarn
