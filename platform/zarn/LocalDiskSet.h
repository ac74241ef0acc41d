// The local disks that take a store's writes while the store cannot be used,
// and the store's state as the combined layer sees it.
//
// Each disk is a directory laid out as the local-directory store: buckets as
// directories, file names as in the store ("<root>/<bucket>/<name>"), so a file
// keeps its name when it moves into the store. A disk address may carry a cap
// ("/data/d1?capacity=64G"), as a local store address does.
//
// A disk belongs to one process at a time: open() takes an advisory lock
// (flock) on "<root>/.zarn-disk.lock", held until the set is destroyed, and
// leaves out a disk another process holds. Files on a disk are seen only by the
// process that owns it until they are migrated.
//
// Store state: a store call that fails with a store fault (isStoreFault) or a
// failed health probe marks the store failed at once; kRecoverProbes probes in
// a row that pass mark it usable again, so a flapping store does not bounce new
// files between the store and the disks. Thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "StoreBackend.h"
#include "ZarnError.h"

namespace Velto::Zarn {

class CLocalDiskSet {
 public:
  static constexpr int kRecoverProbes = 3;
  static constexpr size_t kPathLockStripes = 64;

  struct DiskState {
    std::string address;   // as configured
    bool usable = false;   // connected and locked by this process
    uint64_t totalBytes = 0;
    uint64_t freeBytes = 0;
  };

  // `reserveBytes`: a disk takes a new file only while it has this much free.
  CLocalDiskSet(std::vector<std::string> addresses, uint64_t reserveBytes);
  ~CLocalDiskSet();
  CLocalDiskSet(const CLocalDiskSet&) = delete;
  CLocalDiskSet& operator=(const CLocalDiskSet&) = delete;

  // Connects and locks every disk; the number usable. Called once.
  size_t open();
  size_t diskCount() const { return m_disks.size(); }
  bool diskUsable(size_t i) const { return m_disks[i].usable; }
  IStoreBackend& disk(size_t i) { return *m_disks[i].backend; }
  const std::string& address(size_t i) const { return m_disks[i].address; }
  size_t usableCount() const;
  std::vector<DiskState> diskStates();

  // The usable disk with the most free bytes, at least the reserve; -1 when
  // every disk is fuller than that.
  int pickDisk();
  // The usable disk holding bucket/name, or -1.
  int find(const std::string& bucket, const std::string& name, StoreFileStat* stat = nullptr);

  bool storeUsable() const { return !m_storeFailed.load(std::memory_order_acquire); }
  // How many times the store was marked failed since open().
  uint64_t outageCount() const { return m_outages.load(); }
  void noteStoreFault(int32_t code);
  void noteProbe(int result);
  // The client's own view (the state monitor's 2 or 1, after its anti-shake).
  void setStoreFailed(bool failed);
  // Told on every change of storeUsable(), outside the set's locks; when the
  // store is usable again, with the paths of the store files closed then
  // (retire): files a writer left when the store failed, without their index.
  using StateListener = std::function<void(bool usable, const std::vector<std::string>& released)>;
  void setStateListener(StateListener listener);

  // Moves of one name (a rename, a removal, a migration's final step) hold
  // its stripe, so a file is never in two places or none to a caller.
  std::mutex& pathLock(const std::string& bucket, const std::string& name);

  // A write handle on the store file `path` left behind when the store failed:
  // closed (flushing what the store client still buffers) once the store is
  // usable. closeRetired closes them now and returns their paths.
  void retire(std::unique_ptr<IStoreFile> file, std::string path);
  std::vector<std::string> closeRetired();

 private:
  struct Disk {
    std::string address;
    std::shared_ptr<IStoreBackend> backend;
    int lockFd = -1;
    bool usable = false;
  };
  void changeState(bool failed);

  std::vector<Disk> m_disks;
  uint64_t m_reserveBytes;
  std::atomic<bool> m_storeFailed{false};
  std::atomic<uint64_t> m_outages{0};
  std::mutex m_stateMutex;  // guards m_goodProbes, m_listener, state changes
  int m_goodProbes = 0;
  StateListener m_listener;
  std::mutex m_notifyMutex;  // held while the listener is told; setStateListener waits on it
  std::mutex m_retiredMutex;
  std::vector<std::pair<std::unique_ptr<IStoreFile>, std::string>> m_retired;
  std::mutex m_stripes[kPathLockStripes];
};

}  // namespace Velto::Zarn
