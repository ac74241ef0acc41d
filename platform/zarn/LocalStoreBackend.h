// The local-directory store: the embedded default backend.
//
// Layout under the store root (see doc/local_store.md):
//   <root>/<bucket>/<name>      a bucket is a directory; a file name's '/'
//                               levels are subdirectories, made on create and
//                               pruned when their last file goes
//   <root>/.../.zarn-tmp.*      transient files of an exclusive create
//
// "Open for writing" is an advisory lock (flock LOCK_EX) held on the file while
// a handle has it open for writing; statFile and reads at the end of the file
// probe it, so other processes see it too.
//
// Several processes may share one root; they coordinate only through the file
// system (exclusive link, rename without replace, flock), never through memory.
// Threading: every call is thread-safe; a file handle is used by one thread at a
// time. File handles stay usable after disconnect() (they hold their own
// descriptors); backend calls after disconnect fail with ZARN_E_NOT_INITIALIZED.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "StoreBackend.h"

namespace Velto::Zarn {

class CLocalStoreBackend : public IStoreBackend {
 public:
  explicit CLocalStoreBackend(std::string root);
  ~CLocalStoreBackend() override;

  // Makes the root (and its parents) when missing; fails when it is not a
  // directory or cannot be made.
  int connect(const Config& config) override;
  void disconnect() override;
  // 0 while the root exists, is a directory and is writable.
  int probeHealth() override;
  // Without a cap: the file system's total and free bytes (statvfs), usedBytes
  // and fileCount 0. With a cap: total = cap, used = bytes of the store's files
  // (walked at most every 2 s, adjusted by this process's own writes and
  // removals in between), free = min(file system free, cap - used).
  int capacity(StoreCapacity& out) override;
  int setCapacityLimit(uint64_t bytes) override;

  int createBucket(const std::string& bucket) override;
  int removeBucket(const std::string& bucket) override;
  int bucketExists(const std::string& bucket) override;
  int listBuckets(std::vector<std::string>& out) override;
  int bucketUsedBytes(const std::string& bucket, uint64_t& out) override;
  // Walks only the directory levels the markers admit; maxCount 0 lists nothing.
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

  const std::string& root() const;
  // Test hook: directories opened for reading (listings, walks) since construction.
  uint64_t directoriesOpened() const;

  struct Shared;  // state shared with open file handles (defined in LocalStoreBackendImpl.h)

 private:
  std::shared_ptr<Shared> m_shared;
};

// Creates a local backend for a root directory (made when missing at connect).
std::shared_ptr<IStoreBackend> makeLocalStoreBackend(const std::string& root);

}  // namespace Velto::Zarn
