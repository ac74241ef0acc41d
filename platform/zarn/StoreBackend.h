// The store backend interface: what a concrete store (a local directory, a
// distributed file system, a fault-injecting wrapper) must provide to the store
// client. The client (CZarnFileSystem, CBucket, CFile) validates names, keeps the
// per-thread last error and the listeners; backends only move data.
//
// Conventions:
//   * Every call returns 0 (or a byte count / position) on success and a negative
//     ZarnError code on failure. Backends translate their native errors in one
//     function each, so that the code keeps what the caller needs to decide a
//     retry (ZARN_E_IO, ZARN_E_UNAVAILABLE) from what it must not retry.
//   * Bucket names are one path component; file names are relative to their
//     bucket and may contain '/' (year/month/day levels). Both arrive validated
//     (see ZarnNames.h): no empty component, no "." or "..", no NUL, no leading
//     '/'.
//   * Listings return file names (never directory levels) in ascending byte
//     order of the whole name, strictly after `after` (empty: from the start) and
//     at most `upTo` (empty: to the end), at most `maxCount` of them. A backend
//     must not read directory levels that the two markers exclude.
//   * renameFile never replaces an existing target (ZARN_E_FILE_EXISTS) and
//     fails with ZARN_E_NO_SUCH_FILE when the source is gone: a rename from a
//     given name succeeds at most once across all processes.
//   * A file opened for writing (createFile, or openFile in write mode) is
//     visible as "open for writing" to statFile in every process until it is
//     closed; a second write-open of the same file fails with ZARN_E_BUSY.
//   * All calls are thread-safe on the backend; one IStoreFile is used by one
//     thread at a time.
//   * Time-outs: no call may block its caller for longer than the call time-out
//     (setCallTimeout: the connection's ZARN_OPT_TIMEOUT_MS, a file's own where
//     set) plus a small margin; a call the store did not answer in time fails
//     with ZARN_E_TIMEOUT. A backend whose calls always complete promptly (the
//     local directory) ignores the time-out and completes every call inline; one
//     whose client library can block without limit (CephFS) is wrapped in a
//     CDeadlineBackend (DeadlineBackend.h says what a time-out leaves behind).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ZarnMediaClient.h"  // Config

namespace Velto::Zarn {

struct StoreEntry {
  std::string name;  // relative to the bucket
  uint64_t size = 0;
};

struct StoreFileStat {
  uint64_t size = 0;           // bytes
  uint32_t modifyTime = 0;     // seconds since the epoch
  bool openForWrite = false;   // some handle in some process has it open for writing
};

struct StoreCapacity {
  uint64_t totalBytes = 0;
  uint64_t freeBytes = 0;
  uint64_t usedBytes = 0;      // bytes held by the store's files; 0 when unknown
  uint64_t bucketCount = 0;
  uint64_t fileCount = 0;      // 0 when unknown
};

enum class StoreOpenMode : int { Read = 1, Write = 2 };

// Erasure-coding layout asked for a new file (data and parity shard counts).
// Backends without erasure coding accept and ignore it.
struct StoreLayout {
  uint16_t dataShards = 4;
  uint16_t parityShards = 1;
};

// One piece of a gathered write.
struct StoreSlice {
  const void* data = nullptr;
  uint32_t length = 0;
};

class IStoreFile {
 public:
  virtual ~IStoreFile() = default;
  // Bytes read (> 0); 0 at the end of a file that is open for writing somewhere
  // (more may come); ZARN_E_EOF at the end of a file nobody writes.
  virtual int64_t read(void* buffer, uint32_t length) = 0;
  // Appends; bytes taken (may be fewer than asked, even 0).
  virtual int64_t write(const void* buffer, uint32_t length) = 0;
  // Appends the slices in order as one write where the backend can (one system
  // call instead of one per slice); bytes taken, which may end inside any
  // slice (even 0). A failure after some bytes were taken reports those bytes;
  // the next call reports the failure. This default writes slice by slice.
  virtual int64_t writeGather(const StoreSlice* slices, uint32_t count) {
    int64_t total = 0;
    for (uint32_t i = 0; i < count; ++i) {
      const int64_t n = write(slices[i].data, slices[i].length);
      if (n < 0) return total > 0 ? total : n;
      total += n;
      if (static_cast<uint64_t>(n) < slices[i].length) break;
    }
    return total;
  }
  // origin 0 begin, 1 current, 2 end; the new position.
  virtual int64_t seek(int64_t offset, int origin) = 0;
  virtual int64_t tell() = 0;
  virtual int stat(StoreFileStat& out) = 0;
  // Flushes and releases the handle (and the write claim). Called once.
  virtual int close() = 0;
  // This handle's call time-out in ms; 0 returns to the connection's.
  virtual void setCallTimeout(uint32_t ms) { (void)ms; }
};

class IStoreBackend {
 public:
  virtual ~IStoreBackend() = default;

  // Connects; `config` is the client's Config (the backend keeps copies of what
  // it needs). Called once before any other call.
  virtual int connect(const Config& config) = 0;
  virtual void disconnect() = 0;
  // The call time-out in ms for this connection's calls (set before connect and
  // whenever ZARN_OPT_TIMEOUT_MS changes).
  virtual void setCallTimeout(uint32_t ms) { (void)ms; }
  // 0 while the store is usable; a negative code when it is not.
  virtual int probeHealth() = 0;
  virtual int capacity(StoreCapacity& out) = 0;
  // Caps the reported total at `bytes` (0: no cap); used to run a small store.
  virtual int setCapacityLimit(uint64_t bytes) = 0;

  virtual int createBucket(const std::string& bucket) = 0;
  virtual int removeBucket(const std::string& bucket) = 0;  // ZARN_E_BUCKET_NOT_EMPTY when it holds files
  virtual int bucketExists(const std::string& bucket) = 0;  // 0 or ZARN_E_NO_SUCH_BUCKET
  virtual int listBuckets(std::vector<std::string>& out) = 0;  // ascending byte order
  virtual int bucketUsedBytes(const std::string& bucket, uint64_t& out) = 0;
  virtual int list(const std::string& bucket, const std::string& after, const std::string& upTo,
                   uint32_t maxCount, std::vector<StoreEntry>& out) = 0;

  // Exclusive create, open for writing.
  virtual int createFile(const std::string& bucket, const std::string& name, const StoreLayout& layout,
                         std::unique_ptr<IStoreFile>& out) = 0;
  virtual int openFile(const std::string& bucket, const std::string& name, StoreOpenMode mode,
                       std::unique_ptr<IStoreFile>& out) = 0;
  virtual int removeFile(const std::string& bucket, const std::string& name) = 0;
  virtual int renameFile(const std::string& fromBucket, const std::string& fromName, const std::string& toBucket,
                         const std::string& toName) = 0;
  virtual int statFile(const std::string& bucket, const std::string& name, StoreFileStat& out) = 0;
};

// Forwards every call to a target backend; derive and override single calls to
// inject faults, trace or throttle.
class CStoreBackendWrapper : public IStoreBackend {
 public:
  explicit CStoreBackendWrapper(std::shared_ptr<IStoreBackend> target) : m_target(std::move(target)) {}
  IStoreBackend* target() const { return m_target.get(); }

  int connect(const Config& config) override { return m_target->connect(config); }
  void disconnect() override { m_target->disconnect(); }
  void setCallTimeout(uint32_t ms) override { m_target->setCallTimeout(ms); }
  int probeHealth() override { return m_target->probeHealth(); }
  int capacity(StoreCapacity& out) override { return m_target->capacity(out); }
  int setCapacityLimit(uint64_t bytes) override { return m_target->setCapacityLimit(bytes); }
  int createBucket(const std::string& b) override { return m_target->createBucket(b); }
  int removeBucket(const std::string& b) override { return m_target->removeBucket(b); }
  int bucketExists(const std::string& b) override { return m_target->bucketExists(b); }
  int listBuckets(std::vector<std::string>& out) override { return m_target->listBuckets(out); }
  int bucketUsedBytes(const std::string& b, uint64_t& out) override { return m_target->bucketUsedBytes(b, out); }
  int list(const std::string& b, const std::string& after, const std::string& upTo, uint32_t maxCount,
           std::vector<StoreEntry>& out) override {
    return m_target->list(b, after, upTo, maxCount, out);
  }
  int createFile(const std::string& b, const std::string& n, const StoreLayout& layout,
                 std::unique_ptr<IStoreFile>& out) override {
    return m_target->createFile(b, n, layout, out);
  }
  int openFile(const std::string& b, const std::string& n, StoreOpenMode mode,
               std::unique_ptr<IStoreFile>& out) override {
    return m_target->openFile(b, n, mode, out);
  }
  int removeFile(const std::string& b, const std::string& n) override { return m_target->removeFile(b, n); }
  int renameFile(const std::string& fb, const std::string& fn, const std::string& tb,
                 const std::string& tn) override {
    return m_target->renameFile(fb, fn, tb, tn);
  }
  int statFile(const std::string& b, const std::string& n, StoreFileStat& out) override {
    return m_target->statFile(b, n, out);
  }

 private:
  std::shared_ptr<IStoreBackend> m_target;
};

// Chooses a backend for a Config.address:
//   "/path", "./path", "path", "file:///path"  the local-directory store
//   "ceph://mon[,mon...][/path]"              the distributed store (refused with
//                                             ZARN_E_UNSUPPORTED while not built in)
//   "<scheme>://..."                          a backend registered under <scheme>
// A local address may end in "?capacity=<bytes>[K|M|G]" (binary multiples) to
// cap the reported total, as setCapacityLimit does.
// Returns 0 and the backend, or a negative code; `reason` (optional) receives a
// text for the caller's error message on failure.
int makeStoreBackend(const std::string& address, std::shared_ptr<IStoreBackend>& out,
                     std::string* reason = nullptr);

// Registers a factory for an address scheme (tests register "fault" this way).
// The factory receives the address after "<scheme>://". Replaces an earlier
// factory of the same scheme; an empty function removes it.
using StoreBackendFactory = std::function<int(const std::string& rest, std::shared_ptr<IStoreBackend>& out)>;
void registerStoreBackend(const std::string& scheme, StoreBackendFactory factory);

}  // namespace Velto::Zarn
