// CForgottenStorage: per-stream forgotten-storage policies and the periodic
// walk over the old record files of the streams that have one.
//
// A policy is an age in hours (or, refused on every walk, a space in MiB).
// Each walk lists a stream's media bucket in name (= begin-time) order up to
// the first file that began less than `durationHours` before local now, and on
// the way:
//   * removes index files that are not directly followed by their own record
//     file (an index file "..._0_0.index" sorts just before its record file
//     "..._<locks>_<state>.qrv", so anything else following it means the
//     record file is gone);
//   * hands closed record files without an index (state 0) to index repair,
//     on every walk until their name changes;
//   * leaves locked files and files whose index is being rebuilt alone.
// Old files that are unlocked and indexed stay where they are: forgetting
// them (a move to the stream's "forgotten_<sid>" bucket would fit) is not done
// by this design. The walk is the worker's whole effect.
//
// Schedule: a CTimer named "ForgottenStorage thread" on the clock given to the
// constructor; the first walk at once, the next one "cyclic_cover_period" ms
// after the start of the last (at once when a walk took longer).
//
// Threading: policies are set from any thread under m_policyMutex, which a
// walk holds only to copy the map. Walks run on the timer's thread;
// forgottenStorage() and doForgotten() walk on the caller's thread, possibly
// beside the timer's walk (a file removed twice is a logged, harmless failure).
// init and uninit are called by the owner (the cover engine), one at a time,
// and not concurrently with forgottenStorage().
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "IndexFixSink.h"
#include "KanduClock.h"
#include "KanduSync.h"
#include "KanduTimer.h"
#include "MediaConfig.h"
#include "RecordFileName.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

class CForgottenStorage {
 public:
  struct Policy {
    uint32_t durationHours = 0;
    uint32_t space = 0;  // MiB
  };

  // Reads "forgotten_manager_port", "cyclic_cover_delay" and
  // "cyclic_cover_period" from `config`; only the period is used. `clock`
  // must outlive the worker: the timer runs on it and "now" is read from it.
  CForgottenStorage(Velto::Kandu::IClock& clock, const CMediaConfig& config);
  ~CForgottenStorage();  // uninit() when started
  CForgottenStorage(const CForgottenStorage&) = delete;
  CForgottenStorage& operator=(const CForgottenStorage&) = delete;

  // Starts walking the store `fs` (not owned; it must stay valid until uninit
  // returns). `indexFix` receives the files without an index (null: they are
  // only counted). A null `fs` logs an error and starts nothing (false). A
  // started worker is stopped first.
  bool init(CZarnFileSystem* fs, const Config& config, IIndexFixSink* indexFix);
  // Stops the timer, waiting for a walk under way to finish the stream it is
  // on. Policies stay.
  void uninit();

  // Sets (or with both values 0, erases) a stream's policy. Always 0.
  int setForgottenStorage(uint32_t streamId, uint32_t durationHours, uint32_t space);
  // One walk of one stream now, outside the schedule, with `durationHours`
  // (space 0). Always 0: it frees nothing that counts.
  int forgottenStorage(uint32_t streamId, uint32_t durationHours);
  // Removes the file `name` describes; false (logged) when it cannot be named
  // or the store refuses.
  bool removeFile(const RecordFileName& name);

  // One walk over every stream with a policy, in ascending stream id, stopping
  // between streams once uninit has begun. Returns the milliseconds it took
  // (on the worker's clock). The timer's procedure; callable by tests.
  uint32_t doForgotten();

  // Closed record files without an index met by walks so far (submitted or,
  // without a sink, only counted).
  uint64_t unindexedCount() const { return m_unindexed.load(); }

 private:
  // The per-stream step: a time policy walks, a space policy is refused.
  void forgetStream(uint32_t streamId, uint32_t durationHours, uint32_t space);
  // Walks the stream's media bucket up to `threshold` (record time). false
  // when the bucket cannot be opened or listed.
  bool listFileToForgotten(CZarnFileSystem& fs, uint32_t streamId, uint32_t threshold);
  // What the walk does with one old record file.
  void forgetRecord(CZarnFileSystem& fs, const RecordFileName& record);

  std::map<uint32_t, Policy> m_policies;  // guarded by m_policyMutex
  Velto::Kandu::CMutex m_policyMutex;
  std::atomic<CZarnFileSystem*> m_fs{nullptr};      // set while started
  std::atomic<IIndexFixSink*> m_indexFix{nullptr};  // set while started; may be null then too
  // The store address the worker was started with, for its log lines (the
  // rest of the Config is not kept: the worker never connects by itself).
  std::string m_address;
  const int32_t m_forgottenManagerPort;  // held, not used
  const int32_t m_cyclicCoverDelay;      // held, not used: the first walk is at once
  const uint32_t m_periodMs;
  Velto::Kandu::IClock& m_clock;
  std::atomic<bool> m_running{false};  // false stops a walk between streams
  std::atomic<uint64_t> m_unindexed{0};
  Velto::Kandu::CTimer m_timer;  // last: stopped before the members its walks use go
};

}  // namespace Velto::Zarn
