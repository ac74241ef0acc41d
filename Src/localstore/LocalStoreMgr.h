// CLocalStoreMgr: the local-disk store that takes over recording while the
// distributed store cannot be used.
//
// Configuration (all optional; without "stdfile_disk" nothing changes):
//   "stdfile_disk"              array of directories, one per local disk
//                               ("dir?capacity=64G" caps what a disk may hold)
//   "stdfile_config_file_name"  the state file (LocalStoreState.h)
//   "stdfile_reserve_mb"        a disk takes a new file only while it has this
//                               many MiB free (default 256)
//   "stdfile_migrate_mbps"      bandwidth limit of migration, MiB/s (default 32; 0 none)
//   "stdfile_migrate_period"    seconds between migration runs (default 10)
//
// With at least one usable disk, every store connection the client makes goes
// through a CCombinedStoreBackend over the shared disk set: record and index
// files go to a disk while the store is failed, and everything that lists,
// opens, renames or removes them sees them wherever they are. The migration
// worker moves them into the store once it is usable again. When every disk is
// below its reserve while the store is failed, new files are refused with
// ZARN_E_NO_SPACE and an error line: the writer reports its file fault to the
// host (-3) as for any store that refuses a file. Nothing recorded is removed
// to make room: a local file is video the store does not have.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CombinedStoreBackend.h"
#include "KanduClock.h"
#include "KanduSync.h"
#include "LocalStoreState.h"
#include "MediaConfig.h"
#include "Migration.h"

namespace Velto::Zarn {

class CZarnFileSystem;

class CLocalStoreMgr {
 public:
  static constexpr int32_t kDefaultReserveMiB = 256;
  static constexpr int32_t kDefaultMigrateMiBps = 32;
  static constexpr int32_t kDefaultMigratePeriodS = 10;

  explicit CLocalStoreMgr(Velto::Kandu::IClock& clock = Velto::Kandu::systemClock());
  ~CLocalStoreMgr();  // stop()
  CLocalStoreMgr(const CLocalStoreMgr&) = delete;
  CLocalStoreMgr& operator=(const CLocalStoreMgr&) = delete;

  // Reads the keys above and opens the disks, once (later calls return the
  // first answer). true when at least one disk is usable.
  bool configure(const CMediaConfig& config);
  // Whether a local-disk store is configured and usable.
  bool isSupport() const { return m_disks != nullptr; }

  // The backend for a connection to `address`: the combined store over the
  // store's own backend when supported, the store's backend otherwise. The
  // first combined backend made is the one migration runs through.
  int makeBackend(const std::string& address, std::shared_ptr<IStoreBackend>& out, std::string* reason = nullptr);
  // Connects `fs` to the store through makeBackend.
  bool connect(CZarnFileSystem& fs, const Config& config);

  // Called once the store is initialised and its system files checked: starts
  // the migration worker.
  void onLoginSDK(CZarnFileSystem* fs);
  // Told every accepted store state other than 3; true when the layer's own
  // state changed.
  bool onSDKState(uint32_t state);
  // Stops migration and writes the state file.
  void stop();
  // Told, once the store is usable again, the store files writers left when
  // it failed (open names, no index), for index repair.
  void setReleasedSink(std::function<void(const std::vector<std::string>& paths)> sink) {
    m_releasedSink = std::move(sink);
  }

  // Tests and tools.
  CLocalDiskSet* disks() { return m_disks.get(); }
  CMigration* migration() { return m_migration.get(); }
  // The combined backend of the client's own connection (null without one).
  std::shared_ptr<CCombinedStoreBackend> primary() {
    Velto::Kandu::CAutoLock lock(m_stateMutex);
    return m_primary;
  }
  // Makes the migration worker over the first connection's backend without
  // starting its timer, for a process that runs passes itself (a tool), so
  // that no run of the worker's own races it; its passes still write the
  // state file. Null without local disks or before a connection. A manager
  // that made the worker here starts none in onLoginSDK.
  CMigration* prepareMigration();
  bool writeStateFile();

 private:
  void onStoreState(bool usable, const std::vector<std::string>& released);

  Velto::Kandu::IClock& m_clock;
  std::atomic<bool> m_configured{false};
  std::shared_ptr<CLocalDiskSet> m_disks;
  std::shared_ptr<CCombinedStoreBackend> m_primary;  // the first connection's
  std::string m_statePath;
  uint64_t m_migrateBytesPerSecond = 0;
  uint32_t m_migratePeriodMs = 0;
  Velto::Kandu::CMutex m_stateMutex;
  LocalStoreState m_state;  // guarded by m_stateMutex
  std::unique_ptr<CMigration> m_migration;
  std::function<void(const std::vector<std::string>&)> m_releasedSink;
};

}  // namespace Velto::Zarn
