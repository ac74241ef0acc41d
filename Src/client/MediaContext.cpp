#include "MediaContext.h"

#include <string>

#include "MediaConfig.h"
#include "MediaSdkStat.h"
#include "StreamMgr.h"
#include "WorkQueue.h"
#include "WritingFiles.h"

namespace Velto::Zarn {

namespace {
constexpr uint32_t kWriterBatchDelayMs = 2;
}  // namespace

CMediaContext& CMediaContext::instance() {
  // Deliberately leaked: engines and timers may still run while static
  // destructors do, and must find the context intact.
  static CMediaContext* context = new CMediaContext();
  return *context;
}

CMediaContext::CMediaContext()
    : m_config(std::make_unique<CMediaConfig>()),
      m_stats(std::make_unique<CMediaSdkStat>()),
      m_streams(std::make_unique<CStreamMgr>()),
      m_writingFiles(std::make_unique<CWritingFileTable>()) {
  m_config->initWithFile("MediaConfig.cfg");
  CStreamMgr* streams = m_streams.get();
  m_stats->setStreamCounter([streams]() { return streams->getStreamWriterCount(); });
}

void CMediaContext::startStatistics(const void* owner, std::function<void(StoreGauges&)> storeGauges) {
  CStreamMgr* streams = m_streams.get();
  m_stats->setGaugeProvider(owner, [streams, storeGauges = std::move(storeGauges)](StoreGauges& gauges) {
    storeGauges(gauges);
    gauges.sessions = streams->getStreamReaderCount();
  });
  std::call_once(m_statisticsOnce, [this] {
    const std::string& promPath = m_config->getMetricsPromFile();
    const bool statFile = m_config->getStatFileConfigured();
    if (!statFile && promPath.empty()) return;
    m_stats->setPromFile(promPath);
    m_stats->startTimer(statFile ? m_config->getMediaSdkStatPath() : std::string(),
                        static_cast<uint32_t>(m_config->getMediaSdkFlushTimer()));
  });
}

void CMediaContext::stopStatistics(const void* owner) { m_stats->clearGaugeProvider(owner); }

CWorkQueue& CMediaContext::writerQueue() {
  // Writer runs are short (a pass over a few cached frames): waking a thread
  // for each would cost more than the run. Frames wait at most a few ms more.
  std::call_once(m_writerQueueOnce,
                 [this] { m_writerQueue = std::make_unique<CWorkQueue>(20, true, kWriterBatchDelayMs); });
  return *m_writerQueue;
}

CWorkQueue& CMediaContext::readerQueue() {
  std::call_once(m_readerQueueOnce, [this] { m_readerQueue = std::make_unique<CWorkQueue>(5, true); });
  return *m_readerQueue;
}

CWorkQueue& CMediaContext::indexFixQueue() {
  std::call_once(m_indexFixQueueOnce, [this] { m_indexFixQueue = std::make_unique<CWorkQueue>(2, false); });
  return *m_indexFixQueue;
}

QueryEnv CMediaContext::queryEnv(const Velto::Kandu::IClock& clock) {
  return QueryEnv{clock, *m_writingFiles, indexFixSink()};
}

EngineEnv CMediaContext::writerEnv(const Velto::Kandu::IClock& clock) {
  return EngineEnv{writerQueue(), *m_writingFiles, *m_stats, *m_config, queryEnv(clock)};
}

EngineEnv CMediaContext::readerEnv(const Velto::Kandu::IClock& clock) {
  return EngineEnv{readerQueue(), *m_writingFiles, *m_stats, *m_config, queryEnv(clock)};
}

}  // namespace Velto::Zarn
