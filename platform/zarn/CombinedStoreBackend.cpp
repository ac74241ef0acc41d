#include "CombinedStoreBackend.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

namespace {

constexpr uint32_t kCopyChunk = 1u << 20;

// A file of the store, seen through the combined store: its store faults mark
// the store failed, and while the store is failed a write handle fails at once
// and its close leaves the handle to the disk set instead of blocking.
class CStoreSideFile : public IStoreFile {
 public:
  CStoreSideFile(std::unique_ptr<IStoreFile> file, std::shared_ptr<CLocalDiskSet> disks, bool forWrite,
                 std::string path)
      : m_file(std::move(file)), m_disks(std::move(disks)), m_forWrite(forWrite), m_path(std::move(path)) {}

  int64_t read(void* buffer, uint32_t length) override { return noted(m_file->read(buffer, length)); }
  int64_t write(const void* buffer, uint32_t length) override {
    if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
    return noted(m_file->write(buffer, length));
  }
  int64_t writeGather(const StoreSlice* slices, uint32_t count) override {
    if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
    return noted(m_file->writeGather(slices, count));
  }
  int64_t seek(int64_t offset, int origin) override { return noted(m_file->seek(offset, origin)); }
  void setCallTimeout(uint32_t ms) override { m_file->setCallTimeout(ms); }
  int64_t tell() override { return noted(m_file->tell()); }
  int stat(StoreFileStat& out) override { return static_cast<int>(noted(m_file->stat(out))); }
  int close() override {
    if (m_forWrite && !m_disks->storeUsable()) {
      m_disks->retire(std::move(m_file), m_path);
      return ZARN_E_UNAVAILABLE;
    }
    return static_cast<int>(noted(m_file->close()));
  }

 private:
  int64_t noted(int64_t rc) {
    if (rc < 0) m_disks->noteStoreFault(static_cast<int32_t>(rc));
    return rc;
  }
  std::unique_ptr<IStoreFile> m_file;
  std::shared_ptr<CLocalDiskSet> m_disks;
  bool m_forWrite;
  std::string m_path;  // "bucket/name"
};

// Two path stripes taken in address order (once when they are the same).
class CTwoPathLock {
 public:
  CTwoPathLock(std::mutex& a, std::mutex& b) : m_first(&a < &b ? a : b), m_second(&a < &b ? b : a) {
    m_first.lock();
    if (&m_second != &m_first) m_second.lock();
  }
  ~CTwoPathLock() {
    if (&m_second != &m_first) m_second.unlock();
    m_first.unlock();
  }

 private:
  std::mutex& m_first;
  std::mutex& m_second;
};

}  // namespace

CCombinedStoreBackend::CCombinedStoreBackend(std::shared_ptr<IStoreBackend> store,
                                             std::shared_ptr<CLocalDiskSet> disks)
    : m_store(std::move(store)), m_disks(std::move(disks)) {}

int CCombinedStoreBackend::noted(int rc) {
  if (rc < 0) m_disks->noteStoreFault(rc);
  return rc;
}

int CCombinedStoreBackend::connect(const Config& config) { return m_store->connect(config); }
void CCombinedStoreBackend::disconnect() { m_store->disconnect(); }

int CCombinedStoreBackend::probeHealth() {
  const int rc = m_store->probeHealth();
  m_disks->noteProbe(rc);
  return rc;
}

int CCombinedStoreBackend::capacity(StoreCapacity& out) { return noted(m_store->capacity(out)); }
// The disks complete every call: the time-out is the store's.
void CCombinedStoreBackend::setCallTimeout(uint32_t ms) { m_store->setCallTimeout(ms); }
int CCombinedStoreBackend::setCapacityLimit(uint64_t bytes) { return m_store->setCapacityLimit(bytes); }

int CCombinedStoreBackend::createBucket(const std::string& bucket) {
  // Buckets on a disk are made with their first file.
  if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
  return noted(m_store->createBucket(bucket));
}

int CCombinedStoreBackend::removeBucket(const std::string& bucket) {
  bool removed = false;
  for (size_t i = 0; i < m_disks->diskCount(); ++i) {
    if (!m_disks->diskUsable(i)) continue;
    const int rc = m_disks->disk(i).removeBucket(bucket);
    if (rc == 0) removed = true;
    if (rc != 0 && rc != ZARN_E_NO_SUCH_BUCKET) return rc;
  }
  if (!m_disks->storeUsable()) return removed ? 0 : ZARN_E_UNAVAILABLE;
  const int rc = noted(m_store->removeBucket(bucket));
  return rc == ZARN_E_NO_SUCH_BUCKET && removed ? 0 : rc;
}

int CCombinedStoreBackend::bucketExists(const std::string& bucket) {
  for (size_t i = 0; i < m_disks->diskCount(); ++i) {
    if (m_disks->diskUsable(i) && m_disks->disk(i).bucketExists(bucket) == 0) return 0;
  }
  if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
  return noted(m_store->bucketExists(bucket));
}

int CCombinedStoreBackend::listBuckets(std::vector<std::string>& out) {
  out.clear();
  if (m_disks->storeUsable()) {
    const int rc = noted(m_store->listBuckets(out));
    if (rc != 0 && !isStoreFault(rc)) return rc;
  }
  for (size_t i = 0; i < m_disks->diskCount(); ++i) {
    std::vector<std::string> local;
    if (m_disks->diskUsable(i) && m_disks->disk(i).listBuckets(local) == 0) {
      out.insert(out.end(), local.begin(), local.end());
    }
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return 0;
}

int CCombinedStoreBackend::bucketUsedBytes(const std::string& bucket, uint64_t& out) {
  out = 0;
  bool found = false;
  int storeRc = ZARN_E_UNAVAILABLE;
  if (m_disks->storeUsable()) {
    storeRc = noted(m_store->bucketUsedBytes(bucket, out));
    found = storeRc == 0;
    if (!found) out = 0;
  }
  for (size_t i = 0; i < m_disks->diskCount(); ++i) {
    uint64_t bytes = 0;
    if (m_disks->diskUsable(i) && m_disks->disk(i).bucketUsedBytes(bucket, bytes) == 0) {
      out += bytes;
      found = true;
    }
  }
  return found ? 0 : storeRc;
}

int CCombinedStoreBackend::list(const std::string& bucket, const std::string& after, const std::string& upTo,
                                uint32_t maxCount, std::vector<StoreEntry>& out) {
  out.clear();
  bool found = false;
  int storeRc = ZARN_E_UNAVAILABLE;
  if (m_disks->storeUsable()) {
    storeRc = noted(m_store->list(bucket, after, upTo, maxCount, out));
    found = storeRc == 0;
    if (!found) out.clear();
    if (storeRc != 0 && storeRc != ZARN_E_NO_SUCH_BUCKET && !isStoreFault(storeRc)) return storeRc;
  }
  size_t sources = found ? 1 : 0;
  for (size_t i = 0; i < m_disks->diskCount(); ++i) {
    std::vector<StoreEntry> local;
    if (!m_disks->diskUsable(i) || m_disks->disk(i).list(bucket, after, upTo, maxCount, local) != 0) continue;
    found = true;
    if (local.empty()) continue;
    out.insert(out.end(), std::make_move_iterator(local.begin()), std::make_move_iterator(local.end()));
    ++sources;
  }
  if (!found) return storeRc;
  if (sources > 1) {
    // Each source gave its first maxCount names after the marker: the first
    // maxCount of their union are the first maxCount of the whole.
    std::stable_sort(out.begin(), out.end(), [](const StoreEntry& a, const StoreEntry& b) { return a.name < b.name; });
    out.erase(std::unique(out.begin(), out.end(),
                          [](const StoreEntry& a, const StoreEntry& b) { return a.name == b.name; }),
              out.end());
    if (out.size() > maxCount) out.resize(maxCount);
  }
  return 0;
}

int CCombinedStoreBackend::createFile(const std::string& bucket, const std::string& name, const StoreLayout& layout,
                                      std::unique_ptr<IStoreFile>& out) {
  if (m_disks->storeUsable()) {
    std::unique_ptr<IStoreFile> file;
    const int rc = m_store->createFile(bucket, name, layout, file);
    if (rc == 0) {
      out = std::make_unique<CStoreSideFile>(std::move(file), m_disks, true, bucket + "/" + name);
      return 0;
    }
    if (!isStoreFault(rc)) return rc;
    m_disks->noteStoreFault(rc);
    if (m_localFilter && !m_localFilter(bucket, name)) return rc;
  } else if (m_localFilter && !m_localFilter(bucket, name)) {
    return ZARN_E_UNAVAILABLE;
  }
  std::lock_guard<std::mutex> lock(m_disks->pathLock(bucket, name));
  if (m_disks->find(bucket, name) >= 0) return ZARN_E_FILE_EXISTS;
  const int d = m_disks->pickDisk();
  if (d < 0) {
    ZLOG_LINE(Kandu::LOG_ERROR, ZARN_E_NO_SPACE, "CCombinedStoreBackend",
              "the store is failed and every local disk is full: %s/%s refused", bucket.c_str(), name.c_str());
    return ZARN_E_NO_SPACE;
  }
  IStoreBackend& disk = m_disks->disk(static_cast<size_t>(d));
  const int rc = disk.createBucket(bucket);
  if (rc != 0 && rc != ZARN_E_BUCKET_EXISTS) return rc;
  return disk.createFile(bucket, name, layout, out);
}

int CCombinedStoreBackend::openFile(const std::string& bucket, const std::string& name, StoreOpenMode mode,
                                    std::unique_ptr<IStoreFile>& out) {
  const int d = m_disks->find(bucket, name);
  if (d >= 0) {
    const int rc = m_disks->disk(static_cast<size_t>(d)).openFile(bucket, name, mode, out);
    if (rc != ZARN_E_NO_SUCH_FILE) return rc;  // else migrated meanwhile: it is in the store now
  }
  if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
  std::unique_ptr<IStoreFile> file;
  const int rc = noted(m_store->openFile(bucket, name, mode, file));
  if (rc == 0) {
    out = std::make_unique<CStoreSideFile>(std::move(file), m_disks, mode == StoreOpenMode::Write, bucket + "/" + name);
  }
  return rc;
}

int CCombinedStoreBackend::removeFile(const std::string& bucket, const std::string& name) {
  std::lock_guard<std::mutex> lock(m_disks->pathLock(bucket, name));
  bool removed = false;
  for (size_t i = 0; i < m_disks->diskCount(); ++i) {
    if (m_disks->diskUsable(i) && m_disks->disk(i).removeFile(bucket, name) == 0) removed = true;
  }
  if (!m_disks->storeUsable()) return removed ? 0 : ZARN_E_UNAVAILABLE;
  const int rc = noted(m_store->removeFile(bucket, name));
  return removed && (rc == ZARN_E_NO_SUCH_FILE || isStoreFault(rc)) ? 0 : rc;
}

int CCombinedStoreBackend::renameFile(const std::string& fromBucket, const std::string& fromName,
                                      const std::string& toBucket, const std::string& toName) {
  CTwoPathLock lock(m_disks->pathLock(fromBucket, fromName), m_disks->pathLock(toBucket, toName));
  const int d = m_disks->find(fromBucket, fromName);
  if (d < 0) {
    if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
    return noted(m_store->renameFile(fromBucket, fromName, toBucket, toName));
  }
  if (m_disks->find(toBucket, toName) >= 0) return ZARN_E_FILE_EXISTS;
  IStoreBackend& disk = m_disks->disk(static_cast<size_t>(d));
  int rc = toBucket == fromBucket ? 0 : disk.createBucket(toBucket);
  if (rc != 0 && rc != ZARN_E_BUCKET_EXISTS) return rc;
  rc = disk.renameFile(fromBucket, fromName, toBucket, toName);
  if (rc != 0) return rc;
  // A copy left in the store by a migration that stopped before removing the
  // local file follows the name, so the two stay one file to a listing.
  StoreFileStat copy;
  if (m_disks->storeUsable() && noted(m_store->statFile(fromBucket, fromName, copy)) == 0) {
    noted(m_store->renameFile(fromBucket, fromName, toBucket, toName));
  }
  return 0;
}

int CCombinedStoreBackend::statFile(const std::string& bucket, const std::string& name, StoreFileStat& out) {
  if (m_disks->find(bucket, name, &out) >= 0) return 0;
  if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
  return noted(m_store->statFile(bucket, name, out));
}

int CCombinedStoreBackend::migrateFile(size_t disk, const std::string& bucket, const std::string& name,
                                       const std::string& tempBucket, const std::string& tempName,
                                       const StoreLayout& layout, const VerifyCopy& verify,
                                       const std::function<void(uint64_t)>& pace, const std::atomic<bool>* stop,
                                       uint64_t& copied) {
  copied = 0;
  IStoreBackend& local = m_disks->disk(disk);
  StoreFileStat before;
  int rc = local.statFile(bucket, name, before);
  if (rc != 0) return rc;
  if (before.openForWrite) return ZARN_E_BUSY;
  if (!m_disks->storeUsable()) return ZARN_E_UNAVAILABLE;
  for (const std::string* b : {&bucket, &tempBucket}) {
    rc = noted(m_store->createBucket(*b));
    if (rc != 0 && rc != ZARN_E_BUCKET_EXISTS) return rc;
  }
  // A temporary of an earlier attempt that did not finish.
  rc = noted(m_store->removeFile(tempBucket, tempName));
  if (rc != 0 && rc != ZARN_E_NO_SUCH_FILE) return rc;

  std::unique_ptr<IStoreFile> source;
  rc = local.openFile(bucket, name, StoreOpenMode::Read, source);
  if (rc != 0) return rc;
  rc = copyToStore(*source, tempBucket, tempName, layout, pace, stop, copied);
  source->close();
  if (rc == 0 && copied != before.size) rc = ZARN_E_OUT_OF_SYNC;
  if (rc == 0) {
    std::unique_ptr<IStoreFile> copy;
    rc = noted(m_store->openFile(tempBucket, tempName, StoreOpenMode::Read, copy));
    if (rc == 0) {
      if (!verify(*copy, before.size)) rc = ZARN_E_OUT_OF_SYNC;
      copy->close();
    }
  }
  if (rc == 0) return commitMigration(disk, bucket, name, before.size, tempBucket, tempName);
  m_store->removeFile(tempBucket, tempName);
  return rc;
}

int CCombinedStoreBackend::copyToStore(IStoreFile& from, const std::string& tempBucket, const std::string& tempName,
                                       const StoreLayout& layout, const std::function<void(uint64_t)>& pace,
                                       const std::atomic<bool>* stop, uint64_t& copied) {
  std::unique_ptr<IStoreFile> to;
  int rc = noted(m_store->createFile(tempBucket, tempName, layout, to));
  if (rc != 0) return rc;
  std::vector<uint8_t> chunk(kCopyChunk);
  for (;;) {
    if (stop != nullptr && stop->load()) {
      rc = ZARN_E_UNAVAILABLE;
      break;
    }
    const int64_t got = from.read(chunk.data(), kCopyChunk);
    if (got == ZARN_E_EOF) break;
    if (got <= 0) {  // 0: someone writes the file after all
      rc = got == 0 ? ZARN_E_BUSY : static_cast<int>(got);
      break;
    }
    for (int64_t at = 0; at < got;) {
      const int64_t put = noted(static_cast<int>(to->write(chunk.data() + at, static_cast<uint32_t>(got - at))));
      if (put <= 0) {
        rc = put == 0 ? ZARN_E_IO : static_cast<int>(put);
        break;
      }
      at += put;
    }
    if (rc != 0) break;
    copied += static_cast<uint64_t>(got);
    if (pace) pace(static_cast<uint64_t>(got));
  }
  const int closed = noted(to->close());
  return rc != 0 ? rc : closed;
}

int CCombinedStoreBackend::commitMigration(size_t disk, const std::string& bucket, const std::string& name,
                                           uint64_t size, const std::string& tempBucket,
                                           const std::string& tempName) {
  IStoreBackend& local = m_disks->disk(disk);
  std::lock_guard<std::mutex> lock(m_disks->pathLock(bucket, name));
  StoreFileStat now;
  if (local.statFile(bucket, name, now) != 0 || now.size != size || now.openForWrite) {
    m_store->removeFile(tempBucket, tempName);
    return ZARN_E_NO_SUCH_FILE;
  }
  int rc = noted(m_store->renameFile(tempBucket, tempName, bucket, name));
  if (rc == ZARN_E_FILE_EXISTS) {
    // The same name and size in the store: an earlier migration of this file
    // stopped after its rename. Anything else is a different file.
    StoreFileStat there;
    const bool same = m_store->statFile(bucket, name, there) == 0 && there.size == size && !there.openForWrite;
    m_store->removeFile(tempBucket, tempName);
    if (!same) {
      ZLOG_LINE(Kandu::LOG_ERROR, rc, "CCombinedStoreBackend",
                "%s/%s: the store holds a different file of this name; the local file stays", bucket.c_str(),
                name.c_str());
      return rc;
    }
  } else if (rc != 0) {
    m_store->removeFile(tempBucket, tempName);
    return rc;
  }
  return local.removeFile(bucket, name);
}

}  // namespace Velto::Zarn
