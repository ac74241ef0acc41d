// The process-wide context: the one global of the library.
//
// Created on first use and never destroyed before the process ends, so that it
// outlives every CMediaClient. It holds the configuration (loaded from
// "MediaConfig.cfg" in the working directory when the context is created), the
// statistics, the stream registry, the table of files being written and the
// work queues. The process-wide values the host sets live apart, at the bottom
// of the library (CMediaValues), so that the lowest layers may read them.
//
// Only the client layer reaches the context. It hands the layers below what
// they need, assembled per client: a QueryEnv for the record queries and an
// EngineEnv for each engine it creates.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "EngineEnv.h"
#include "KanduClock.h"
#include "QueryEnv.h"

namespace Velto::Zarn {

class CMediaConfig;
class CMediaSdkStat;
struct StoreGauges;
class CStreamMgr;
class CWorkQueue;
class CWritingFileTable;

class CMediaContext {
 public:
  static CMediaContext& instance();

  CMediaConfig& config() { return *m_config; }
  CMediaSdkStat& stats() { return *m_stats; }
  CStreamMgr& streams() { return *m_streams; }
  CWritingFileTable& writingFiles() { return *m_writingFiles; }
  // The three work queues, each started on first use: 20 threads for stream
  // writers and 5 for stream readers (both running items under their item
  // mutex), 2 for the index fixer (without).
  CWorkQueue& writerQueue();
  CWorkQueue& readerQueue();
  CWorkQueue& indexFixQueue();
  // Where files without a usable index go: no index repair runs in this
  // build, so none (the queries still count them).
  IIndexFixSink* indexFixSink() { return nullptr; }

  // Called by a client whose store is initialised: its store fills the store
  // gauges of the metrics from now on (the last client to call wins), and the
  // first call starts the statistics ticks when the configuration file names
  // the status file or the metrics file. stopStatistics(owner) detaches the
  // client's gauges (waiting for a tick using them); the ticks go on.
  void startStatistics(const void* owner, std::function<void(StoreGauges&)> storeGauges);
  void stopStatistics(const void* owner);

  // What the queries, writers and readers of a client on `clock` work with.
  QueryEnv queryEnv(const Velto::Kandu::IClock& clock);
  EngineEnv writerEnv(const Velto::Kandu::IClock& clock);
  EngineEnv readerEnv(const Velto::Kandu::IClock& clock);

 private:
  CMediaContext();
  ~CMediaContext() = delete;  // lives until the process ends

  std::unique_ptr<CMediaConfig> m_config;
  std::unique_ptr<CMediaSdkStat> m_stats;
  std::unique_ptr<CStreamMgr> m_streams;
  std::unique_ptr<CWritingFileTable> m_writingFiles;
  std::once_flag m_statisticsOnce;
  std::once_flag m_writerQueueOnce, m_readerQueueOnce, m_indexFixQueueOnce;
  std::unique_ptr<CWorkQueue> m_writerQueue, m_readerQueue, m_indexFixQueue;
};

}  // namespace Velto::Zarn
