// The process-wide context: the one global of the library.
//
// Created on first use and never destroyed before the process ends, so that it
// outlives every CMediaClient. It holds the configuration (loaded from
// "MediaConfig.cfg" in the working directory when the context is created), the
// statistics, the stream registry, the work queues and the process-wide values
// below.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace Velto::Zarn {

class CMediaConfig;
class CMediaSdkStat;
class CStreamMgr;
class CWorkQueue;
class CWritingFileTable;

// Values written by the client facade and read everywhere else. Plain words:
// hosts set them before initialize; readers take what is current.
struct CMediaValues {
  static constexpr uint32_t kDefaultMaxFrameSize = 4194304;
  static constexpr uint32_t kEcUnit = 32768;

  std::atomic<uint32_t> sdkState{0};       // 0 not initialised; else the last accepted ZarnState
  std::atomic<int32_t> timeZoneDiff{0};    // hours added to the local clock for "now"
  std::atomic<int32_t> maxFrameSize{static_cast<int32_t>(kDefaultMaxFrameSize)};  // bytes
  std::atomic<uint16_t> ecDataNum{4};
  std::atomic<uint16_t> ecParityNum{1};
  std::atomic<uint32_t> ecUnit{kEcUnit};
  std::atomic<uint32_t> ecStripeSize{4 * kEcUnit};  // ecDataNum * ecUnit, bytes

  // The store user of the last initialize; the bucket-name prefix derives from it.
  void setStoreUserName(const std::string& name);
  std::string storeUserName() const;
  // "" for the user "root" (and before any initialize), else user name + "_".
  std::string bucketPrefix() const;

  // Local "now" in seconds: the wall clock plus timeZoneDiff hours.
  uint32_t localNow() const;

 private:
  mutable std::mutex m_nameMutex;
  std::string m_storeUserName;  // guarded by m_nameMutex
};

class CMediaContext {
 public:
  static CMediaContext& instance();

  // The process-wide values live apart from the rest of the context so that
  // reading them (frame checks, names) never creates the context and so never
  // loads the configuration file.
  static CMediaValues& values();

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

 private:
  CMediaContext();
  ~CMediaContext() = delete;  // lives until the process ends

  std::unique_ptr<CMediaConfig> m_config;
  std::unique_ptr<CMediaSdkStat> m_stats;
  std::unique_ptr<CStreamMgr> m_streams;
  std::unique_ptr<CWritingFileTable> m_writingFiles;
  std::once_flag m_writerQueueOnce, m_readerQueueOnce, m_indexFixQueueOnce;
  std::unique_ptr<CWorkQueue> m_writerQueue, m_readerQueue, m_indexFixQueue;
};

}  // namespace Velto::Zarn
