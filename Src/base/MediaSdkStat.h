// Per-minute activity counters of the library and the status file that
// monitoring tools read.
//
// Counters are fed at all times by writer, record-file and cover-engine
// threads. Once startTimer has been called, a tick every 60 s reads and resets
// every counter and writes one JSON object to the status file:
//
//   {
//      "ctime" : "<wall-clock seconds>",
//      "file.split.count" : <files cut>,
//      "index.rebuild.failed.count" : <n>,
//      "index.rebuild.success.count" : <n>,
//      "ip" : "",
//      "loop.overwrite.delete.capacity" : <MiB freed by recycling>,
//      "loop.overwrite.failed.count" : <n>,
//      "loop.overwrite.success.count" : <n>,
//      "name" : "media-sdk",
//      "stream.avg" : <MiB per second over the minute>,
//      "stream.count" : <registered stream writers now>,
//      "write.failed.count" : <n>,
//      "write.success.count" : <n>
//   }
//
// (jsoncpp's styled writer orders members by name.) Counts cover the minute
// since the previous tick. The document is written to "<path>.tmp" and renamed
// over "<path>", so readers never see a half-written file. A failed tick is
// logged and its counts are lost; the next tick starts afresh.
//
// With a metrics file set (setPromFile), every tick also writes the same
// counters, summed since the process started, and the store's gauges in the
// Prometheus text format (PromMetrics.h), again through "<path>.tmp" and a
// rename. Either file may be set without the other.
//
// Threading: each counter has its own mutex (the byte count is atomic), so
// feeding one never waits for another, and a tick holds each only for its
// read-and-reset. Ticks (the timer's
// and tickNow) are serialised by m_tickMutex, which also guards the paths, the
// document, the totals and the stream counter and gauge provider functions.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include <json/json.h>

#include "KanduSync.h"
#include "KanduTimer.h"
#include "PromMetrics.h"

namespace Velto::Zarn {

class CMediaSdkStat {
 public:
  static constexpr uint32_t kFirstTickDelayMs = 1000;
  static constexpr uint32_t kTickPeriodMs = 60000;
  static constexpr uint32_t kRenameAttempts = 11;
  static constexpr uint32_t kRenameRetryDelayMs = 1000;

  // Counters 0, timer stopped: counts, writes nothing. Ticks fall due on
  // `clock`, which also stamps "ctime" (and must outlive this object).
  explicit CMediaSdkStat(Velto::Kandu::IClock& clock = Velto::Kandu::systemClock());
  // Stops the timer and waits for a running tick.
  ~CMediaSdkStat();
  CMediaSdkStat(const CMediaSdkStat&) = delete;
  CMediaSdkStat& operator=(const CMediaSdkStat&) = delete;

  void addFileSplitCount();
  void addWriteSuccessCount();
  void addWriteFailedCount();
  void addStreamBytes(uint32_t bytes);
  void addIndexRebuildSuccessCount();
  void addIndexRebuildFailedCount();
  void addLoopOverwriteSuccessCount(uint32_t files);
  void addLoopOverwriteFailedCount(uint32_t files);
  void addLoopOverwriteDeleteBytes(uint64_t bytes);

  // Writes the status file to `path` from now on: first tick after 1 s, then
  // every 60 s. `interval` is kept but does not change the period. Calling it
  // again restarts the timer with the new path. An empty path starts the ticks
  // without a status file (for the metrics file alone).
  void startTimer(const std::string& path, uint32_t interval);

  // Also writes the metrics file at `path` on every tick ("" stops it). Takes
  // effect from the next tick; set it before startTimer to have the first.
  void setPromFile(const std::string& path);

  // How the gauges only the client layer knows are obtained: `provider` fills
  // them on the ticking thread. One provider at a time, the last one set wins;
  // clearGaugeProvider removes it only when `owner` set it, and returns after a
  // tick that is using it has finished (so the owner may then go away).
  void setGaugeProvider(const void* owner, std::function<void(StoreGauges&)> provider);
  void clearGaugeProvider(const void* owner);

  // How "stream.count" is obtained (the number of registered stream writers).
  // Unset, the count is 0. Called on the ticking thread.
  void setStreamCounter(std::function<int32_t()> counter);

  // Runs one tick on the calling thread, as the timer would. Before
  // startTimer there is no status path and it does nothing (counters are kept).
  void tickNow();

  // Test seam: the pause between rename attempts (default 1000 ms).
  void setRenameRetryDelay(uint32_t ms);

  // The current wall-clock time as "yyyy-MM-dd HH:mm:ss".

 private:
  void tick();
  void writeStatFile(const MediaMetrics& minute);
  void writePromFile();
  bool writeAtomically(const std::string& tempPath, const std::string& path, const std::string& text,
                       uint32_t renameAttempts);
  bool dumpToStatFile(const std::string& tempPath, const std::string& text);

  // Counters of the minute, each guarded by the mutex of the same name.
  uint32_t m_fileSplitCount = 0;
  uint32_t m_writeSuccessCount = 0;
  uint32_t m_writeFailedCount = 0;
  // Bytes of frames written: fed by every writer for every frame, so a lock-free
  // sum rather than a mutex of its own.
  std::atomic<uint64_t> m_streamBytes{0};
  uint32_t m_indexRebuildSuccessCount = 0;
  uint32_t m_indexRebuildFailedCount = 0;
  uint32_t m_loopOverwriteSuccessCount = 0;
  uint32_t m_loopOverwriteFailedCount = 0;
  uint64_t m_loopOverwriteDeleteBytes = 0;  // bytes

  Velto::Kandu::CMutex m_fileSplitMutex;
  Velto::Kandu::CMutex m_writeSuccessMutex;
  Velto::Kandu::CMutex m_writeFailedMutex;
  Velto::Kandu::CMutex m_indexRebuildSuccessMutex;
  Velto::Kandu::CMutex m_indexRebuildFailedMutex;
  Velto::Kandu::CMutex m_loopOverwriteSuccessMutex;
  Velto::Kandu::CMutex m_loopOverwriteFailedMutex;
  Velto::Kandu::CMutex m_loopOverwriteDeleteBytesMutex;

  // Guarded by m_tickMutex.
  Velto::Kandu::CMutex m_tickMutex;
  std::string m_ip;            // reported under "ip"; nothing sets it
  Json::Value m_doc;           // rebuilt on every tick
  std::string m_statPath;      // empty until startTimer
  std::string m_statTempPath;  // m_statPath + ".tmp"
  uint32_t m_statInterval = 0;
  uint32_t m_renameRetryDelayMs = kRenameRetryDelayMs;
  std::function<int32_t()> m_streamCounter;
  std::string m_promPath;      // empty: no metrics file
  MediaMetrics m_totals;       // counters since the process started; gauges of the last tick
  const void* m_gaugeOwner = nullptr;
  std::function<void(StoreGauges&)> m_gaugeProvider;

  Velto::Kandu::IClock& m_clock;
  // Declared last: destroyed first, so no tick can outlive the members above.
  Velto::Kandu::CTimer m_timer;
};

}  // namespace Velto::Zarn
