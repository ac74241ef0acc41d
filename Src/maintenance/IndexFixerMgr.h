// CIndexFixerMgr: takes record files that need their index rebuilt, by name,
// and repairs them one at a time on the index-fix work queue.
//
// Names come from the clip queries (files whose name says index state 0 or 2),
// from the client's hourly scan, and from a writer starting on a stream: a
// writer that died left its last file under its open name, and no listing
// reports such a file until it has been repaired. Pending names form an
// ordered set: a name submitted twice is repaired once, and names are taken in
// ascending order (a stream's older files first).
//
// One manager per client: it works on that client's store, and the client
// stops it (waiting for a repair under way) before the store goes.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "AsyncEngine.h"
#include "IndexFixSink.h"
#include "KanduClock.h"
#include "KanduSync.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

class CIndexFixerMgr final : public CAsyncEngine, public IIndexFixSink {
 public:
  CIndexFixerMgr(CWorkQueue& queue, bool svcEnabled);
  ~CIndexFixerMgr() override;

  // Queues the record file `name` (full name) for repair.
  void submitFixWork(CZarnFileSystem& fs, const std::string& name);
  void submitIndexFixWork(CZarnFileSystem& fs, const RecordFileName& record) override;
  // Queues a look for files of `streamId` left under open names by a writer
  // that is gone (the stream's newest recorded day, up to 31 days before
  // `now`); those nobody has open for writing are then repaired.
  void submitStreamCheck(CZarnFileSystem& fs, uint32_t streamId, uint32_t now);

  // Names and stream checks waiting, and repairs done, for tests.
  size_t pendingCount() const;
  uint64_t repairedCount() const { return m_repaired.load(); }

 protected:
  bool run() override;
  void onIdle() override;
  bool outlivesIdle() const override { return true; }

 private:
  void checkStream(CZarnFileSystem& fs, uint32_t streamId, uint32_t now);

  const bool m_svcEnabled;
  mutable Velto::Kandu::CMutex m_mutex;
  CZarnFileSystem* m_fs = nullptr;                         // the latest submission's; guarded
  std::set<std::string> m_pending;                         // guarded
  std::set<std::pair<uint32_t, uint32_t>> m_streamChecks;  // (stream, now); guarded
  std::atomic<uint64_t> m_repaired{0};
};

// The record files of `streamId` that a writer left under open names: the
// open names of its newest day that holds record files, looking back from the
// day of `now` at most `days` days. Names are full names.
bool findOpenRecordFiles(CZarnFileSystem& fs, uint32_t streamId, uint32_t now, uint32_t days,
                         std::vector<std::string>& out);

}  // namespace Velto::Zarn
