// The local-disk store as zarn-media sees it: the disks that MediaConfig.cfg in
// the working directory names ("stdfile_disk", with "enable_cfg": 1), the
// files waiting on them to go into the store, and one migration pass on demand.
//
// Works below the media client, on the local store manager and the store
// client linked into the tool: a media client opened on such a directory
// would take the disks itself and start migrating in the background, so a
// command that only looks (info, files) would move files, and `migrate` would
// race the client's own worker for them. This view holds the disks (their
// advisory locks) for as long as it lives and starts no worker; the commands
// that use it open no media client. A disk another process holds (a running
// recorder) cannot be opened here: it is reported as not usable, and the
// files on it stay that process's to migrate.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "LocalStoreMgr.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace ZarnMedia {

class COptions;

class CLocalView {
 public:
  using Disk = Velto::Zarn::LocalDiskReport;  // path as configured
  struct StreamAwaiting {
    uint64_t files = 0;
    uint64_t bytes = 0;
  };

  // Reads MediaConfig.cfg and, when it names local disks of which at least
  // one can be opened, connects to the store of `options` through them.
  // kExitOk also when no disk is configured or none can be opened (see
  // configuredDisks() and active()); an exit code after printing why when
  // the store cannot be reached.
  int open(const COptions& options);
  // Disks named by the configuration (0: no local store here).
  size_t configuredDisks() const { return m_configured; }
  // Connected through the disks: the commands work on store() below the client.
  bool active() const { return m_active; }

  // Valid while active().
  Velto::Zarn::CZarnFileSystem& store() { return m_fs; }
  // The stream's record files in [begin, end), from the store's and the
  // disks' merged listings; the library's query result code.
  int files(unsigned streamId, unsigned begin, unsigned end, std::vector<Velto::Zarn::RecordClipEx>& out);
  // "store", or "local:<disk index>" for a file on a disk; `fileName` as a
  // file list gives it ("<bucket>/<name>").
  std::string whereIs(const char* fileName);
  // Every configured disk with what waits on it.
  std::vector<Disk> disks();
  // What waits on the disks for a stream.
  StreamAwaiting awaitingOf(unsigned streamId);
  // One migration pass now, on this thread.
  Velto::Zarn::CMigration::PassResult migrate();

 private:
  void collectAwaiting();

  Velto::Zarn::CLocalStoreMgr m_mgr;
  Velto::Zarn::CZarnFileSystem m_fs;
  size_t m_configured = 0;
  bool m_active = false;
  bool m_collected = false;
  std::vector<Velto::Zarn::LocalAwaitingFile> m_awaiting;  // as of the last collectAwaiting
};

}  // namespace ZarnMedia
