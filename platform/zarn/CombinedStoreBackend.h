// The combined store: one backend over a store and a set of local disks, so
// that recording survives a store outage and everything above sees one store.
//
// Where a file goes and where it is looked for:
//   * createFile goes to the store while it is usable, and to the local disk
//     with the most free space once the store has failed or the store's create
//     fails with a store fault (the bucket directory is made on the disk).
//   * A write on a store file that fails with a store fault marks the store
//     failed; while it is failed, writes on store files fail at once with
//     ZARN_E_UNAVAILABLE, so a writer cuts to a local file instead of waiting
//     on a store that does not answer, and closing such a file hands the handle
//     to the disk set (closed when the store returns) instead of blocking.
//   * open, stat, rename and remove look on the disks first, then in the store;
//     listings merge the store's names with every disk's, each name once. While
//     the store is failed the store is not asked: listings show the disks alone,
//     and opening a store-only file fails with ZARN_E_UNAVAILABLE.
//   * Capacity is the store's (the disks are reported by the disk set).
//
// migrateFile moves one closed local file into the store without a moment in
// which a caller sees it twice or not at all: copy under a temporary name,
// verify, rename into place (never replacing), remove the local copy, the last
// two under the name's path lock, which renames and removals of the name take
// too. A copy interrupted by a crash leaves only the temporary, which the next
// migration of that file replaces; a crash between the rename and the removal
// leaves the file in both places, which listings show once and the next
// migration resolves by removing the local copy.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "LocalDiskSet.h"
#include "StoreBackend.h"

namespace Velto::Zarn {

class CCombinedStoreBackend : public IStoreBackend {
 public:
  CCombinedStoreBackend(std::shared_ptr<IStoreBackend> store, std::shared_ptr<CLocalDiskSet> disks);

  IStoreBackend& store() { return *m_store; }
  CLocalDiskSet& disks() { return *m_disks; }
  // Which files may go to a local disk when the store fails (all when unset):
  // others fail with the store's fault, so that files whose meaning is shared
  // between processes (locks, ledgers) never hide on one host's disk.
  using LocalFilter = std::function<bool(const std::string& bucket, const std::string& name)>;
  void setLocalFilter(LocalFilter filter) { m_localFilter = std::move(filter); }

  int connect(const Config& config) override;
  void disconnect() override;
  int probeHealth() override;
  int capacity(StoreCapacity& out) override;
  int setCapacityLimit(uint64_t bytes) override;
  void setCallTimeout(uint32_t ms) override;

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

  // One local file's move into the store (see above). `temp` is the
  // temporary's bucket and name in the store; `verify` checks the closed copy
  // (opened for reading) against the local file's size; `pace` is told every
  // chunk copied (it may sleep to keep a bandwidth limit); a set `stop` ends the
  // copy early. 0 when the file is in the store and gone from the disk;
  // ZARN_E_BUSY while it is open for writing; ZARN_E_NO_SUCH_FILE when it was
  // renamed or removed meanwhile (a later pass finds its new name);
  // ZARN_E_FILE_EXISTS when the store holds a different file of that name (the
  // local file stays); ZARN_E_OUT_OF_SYNC when the copy did not verify; other
  // codes from the store. `copied` receives the bytes copied.
  using VerifyCopy = std::function<bool(IStoreFile& copy, uint64_t size)>;
  int migrateFile(size_t disk, const std::string& bucket, const std::string& name, const std::string& tempBucket,
                  const std::string& tempName, const StoreLayout& layout, const VerifyCopy& verify,
                  const std::function<void(uint64_t bytes)>& pace, const std::atomic<bool>* stop, uint64_t& copied);

 private:
  // The store's result, with a store fault noted.
  int noted(int rc);
  int copyToStore(IStoreFile& from, const std::string& tempBucket, const std::string& tempName,
                  const StoreLayout& layout, const std::function<void(uint64_t)>& pace,
                  const std::atomic<bool>* stop, uint64_t& copied);
  int commitMigration(size_t disk, const std::string& bucket, const std::string& name, uint64_t size,
                      const std::string& tempBucket, const std::string& tempName);

  std::shared_ptr<IStoreBackend> m_store;
  std::shared_ptr<CLocalDiskSet> m_disks;
  LocalFilter m_localFilter;
};

}  // namespace Velto::Zarn
