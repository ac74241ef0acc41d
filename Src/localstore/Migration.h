// CMigration: moves the files a store outage left on the local disks back into
// the store, oldest first, while the store is usable.
//
// One timer, "Local store migration", on the client's clock: each run walks
// every disk (the disks themselves are the to-do list, so a restart resumes
// where the last process stopped), orders the files by begin time and moves
// them one at a time through CCombinedStoreBackend::migrateFile, under a
// bandwidth limit so that live recording keeps the store's attention. A run
// ends early when the store fails or stop() is called; files open for
// writing, or renamed meanwhile, wait for a later run.
//
// The temporary copy of "<bucket>/<name>" is "<system bucket>/migrating/<bucket>/<name>"
// in the store: outside the streams' buckets, so no listing of a stream sees
// a half-copied file.
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
#include "KanduTimer.h"
#include "LocalStoreState.h"
#include "RecordFileName.h"

namespace Velto::Zarn {

class CMigration {
 public:
  struct PassResult {
    uint64_t files = 0;   // moved into the store
    uint64_t bytes = 0;
    uint64_t failed = 0;  // tried and left on the disk (store fault, verification, conflict)
    uint64_t waiting = 0; // skipped this run (open for writing, renamed meanwhile)
  };

  // `bytesPerSecond` 0: no limit. The backend must outlive the worker.
  CMigration(Velto::Kandu::IClock& clock, std::shared_ptr<CCombinedStoreBackend> backend, uint64_t bytesPerSecond);
  ~CMigration();  // stop()
  CMigration(const CMigration&) = delete;
  CMigration& operator=(const CMigration&) = delete;

  // First run after `delayMs`, then every `periodMs` after the end of the last.
  void start(uint32_t delayMs, uint32_t periodMs);
  // Ends a run under way at its next chunk and waits for it.
  void stop();

  // One run now (the timer's procedure; callable by tools and tests).
  PassResult runPass();
  // What lies on the disks now, oldest first (for reports).
  std::vector<LocalAwaitingFile> awaiting();
  uint64_t migratedFiles() const { return m_migratedFiles.load(); }
  uint64_t migratedBytes() const { return m_migratedBytes.load(); }
  // Told after every run (outside the worker's locks).
  void setAfterPass(std::function<void(const PassResult&)> callback) { m_afterPass = std::move(callback); }

 private:
  struct Candidate {
    uint32_t disk;
    std::string bucket;
    std::string name;
    uint64_t size;
    RecordFileName record;  // parsed from the full name
  };
  std::vector<Candidate> collect();
  void pace(uint64_t bytes);

  Velto::Kandu::IClock& m_clock;
  std::shared_ptr<CCombinedStoreBackend> m_backend;
  const uint64_t m_bytesPerSecond;
  std::atomic<bool> m_stopping{false};
  Velto::Kandu::CMutex m_runMutex;  // one run at a time (timer and callers)
  uint64_t m_paceStartUs = 0;       // guarded by m_runMutex
  uint64_t m_pacedBytes = 0;        // guarded by m_runMutex
  std::atomic<uint64_t> m_migratedFiles{0};
  std::atomic<uint64_t> m_migratedBytes{0};
  std::function<void(const PassResult&)> m_afterPass;
  uint32_t m_periodMs = 0;
  Velto::Kandu::CTimer m_timer;  // last: stopped before the members its runs use go
};

}  // namespace Velto::Zarn
