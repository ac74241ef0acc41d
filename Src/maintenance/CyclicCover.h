// CZarnCyclicCover: the recycling engine.
//
// On its timer ("Maintain all stream.") a run opens a connection of its own to
// the store and
//   1. reads the store's total and free space;
//   2. applies every stream's cover policy: keep at most so many hours (time
//      first) or, with hours 0, so many MiB; the forgotten bucket before the
//      media bucket;
//   3. applies the limits of discarded streams and removes what they emptied;
//   4. when the free share (counting what 2 and 3 freed) is below the
//      threshold, takes the urgent-recycling mutex file and frees up to the
//      target share: discarded streams first, then the oldest unlocked files
//      of all streams (CoverPasses.h, lowSpace);
//   5. removes the records of streams the host deleted;
// and closes the connection. The next run starts one period after the end of
// this one, so runs never overlap.
//
// The mutex file is held for 30 minutes from the start of an urgent run, so
// that no other process begins another before the store has settled. The hold
// is state, not a sleeping thread: the run's connection and the open file are
// kept, and released by the first run after the 30 minutes or by stop().
//
// Time: the clock given at construction drives the timer and gives "now";
// tests move a manual clock through months of retention.
//
// Threading: runs happen on the timer's thread. Host threads set policies
// (under the policy map's mutex), ratios (atomics), discard markers (through
// the client's store handle) and the delete set (under its mutex).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "CoverMutex.h"
#include "CoverPasses.h"
#include "CoverPolicy.h"
#include "ForgottenStorage.h"
#include "KanduTimer.h"
#include "MediaConfig.h"
#include "MediaSdkStat.h"

namespace Velto::Zarn {

class IIndexFixSink;

// How long the urgent-recycling mutex is held from the start of its run, ms.
inline constexpr uint32_t kCoverMutexHoldMs = 1800000;

// What one pass did (for the tool and tests); sizes are bytes.
struct CoverPassReport {
  bool measured = false;  // the store's capacity was read; nothing else ran without it
  uint64_t totalBytes = 0;
  uint64_t freeBytes = 0;
  uint64_t freedByPolicy = 0;
  uint64_t freedByDiscard = 0;
  bool lowSpace = false;      // below the threshold
  bool enteredMutex = false;  // this pass recycled urgently
  uint64_t freedUrgently = 0;
  uint32_t spentMs = 0;
};

struct CoverPassOptions {
  bool dryRun = false;
  std::function<void(const RecordFileName& file, const char* why)> onRemoved;
};

class CZarnCyclicCover {
 public:
  // Reads the delay, period, ratios and default hours from `config`.
  CZarnCyclicCover(Velto::Kandu::IClock& clock, const CMediaConfig& config, CMediaSdkStat& stats);
  ~CZarnCyclicCover();
  CZarnCyclicCover(const CZarnCyclicCover&) = delete;
  CZarnCyclicCover& operator=(const CZarnCyclicCover&) = delete;

  // Copies the connection settings, starts the forgotten-storage worker on
  // `fs` and the timer. `fs` (the client's connection, used for discard
  // markers and the worker) must outlive stop(); null starts nothing.
  void start(CZarnFileSystem* fs, const Config& config, IIndexFixSink* indexFix);
  // How each run connects its own store connection (default: initialize with
  // the address); set before start.
  using Connector = std::function<bool(CZarnFileSystem& fs, const Config& config)>;
  void setConnector(Connector connect) { m_connect = std::move(connect); }
  // Stops the timer (waiting for a run in progress), releases a held mutex
  // file, stops the forgotten-storage worker. Idempotent.
  void stop();

  // Below 100: urgent recycling when less than 100 - ratio % is free, up to
  // 0.5 % more. 0, or -1 for 100 and above.
  int32_t setUrgentRecycleRatio(uint32_t ratio);
  double spaceThresholdRatio() const { return m_thresholdRatio.load(); }
  double ratioAfterDelete() const { return m_ratioAfterDel.load(); }

  // Both 0: back to the configured "recycle_hours" (no policy when that is 0).
  int32_t setCoverPolicy(uint32_t streamId, uint64_t durationHours, uint64_t space);
  // The policy for every stream of a camera; both 0 returns the streams the
  // camera was last given to the default.
  int32_t setCameraCoverPolicy(const std::string& cameraId, const std::list<unsigned>& streamIds,
                               uint64_t durationHours, uint64_t space);
  bool hasCoverPolicy(uint32_t streamId) const { return m_policies.has(streamId); }
  std::map<uint32_t, CoverPolicy> coverPolicies() const { return m_policies.snapshot(); }

  int32_t setForgottenStorage(uint32_t streamId, uint32_t durationHours, uint32_t space);
  // Writes the stream's discard marker through the client's connection.
  bool discardStream(uint32_t streamId, uint32_t durationHours, uint32_t space);
  // Streams whose records every run removes until their buckets are empty.
  void addDeleteStreams(const std::list<unsigned>& streamIds);
  std::set<uint32_t> deleteSet() const;

  // One pass now over `fs` (the timer's run without the connection and the
  // hold; the mutex file is released before it returns).
  CoverPassReport runPass(CZarnFileSystem& fs, const CoverPassOptions& options);

 private:
  void timerProc(Velto::Kandu::CTimer* timer);
  CoverPassReport cyclicCover(CZarnFileSystem& fs, const CoverPassOptions& options, CCoverMutex& mutex);
  uint64_t coverByPolicies(CoverRun& run);
  // Both buckets of every stream of the delete set; a stream leaves the set
  // once both are empty.
  void deleteRecord(CZarnFileSystem& fs);
  void releaseHold(bool force);
  CoverRun makeRun(CZarnFileSystem& fs, const CoverPassOptions& options);

  Velto::Kandu::IClock& m_clock;
  CMediaSdkStat& m_stats;
  const uint32_t m_delayMs;
  const uint32_t m_periodMs;
  const uint64_t m_defaultHours;
  std::atomic<double> m_thresholdRatio;  // percent free below which recycling is urgent
  std::atomic<double> m_ratioAfterDel;   // percent free urgent recycling reaches
  CCoverPolicies m_policies;
  mutable std::mutex m_setsMutex;
  std::map<std::string, std::list<unsigned>> m_cameraStreams;  // guarded by m_setsMutex
  std::set<uint32_t> m_deleteSet;                              // guarded by m_setsMutex
  std::string m_address, m_user, m_password;  // connection settings of every run
  int32_t m_port = 0;
  std::atomic<CZarnFileSystem*> m_fs{nullptr};  // the client's connection
  // The urgent run's connection and mutex file while it is held (timer thread
  // and stop(), which waits for the timer first).
  std::unique_ptr<CZarnFileSystem> m_holdFs;
  Connector m_connect;
  CCoverMutex m_holdMutex;
  uint64_t m_holdUntilMs = 0;  // monotonic ms of the clock
  CForgottenStorage m_forgotten;
  Velto::Kandu::CTimer m_timer;  // last: destroyed first
};

}  // namespace Velto::Zarn
