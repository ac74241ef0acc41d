#include "MediaSdkStat.h"

#include <cinttypes>
#include <cstdio>

#include "KanduFile.h"
#include "MediaLog.h"
#include "MediaValues.h"
#include "KanduThread.h"
#include "KanduTime.h"

namespace Velto::Zarn {

namespace {

// Reads a counter and sets it back to 0 under its own mutex.
template <typename T>
T takeCounter(Velto::Kandu::CMutex& mutex, T& counter) {
  Velto::Kandu::CAutoLock lock(mutex);
  T value = counter;
  counter = 0;
  return value;
}

}  // namespace

CMediaSdkStat::CMediaSdkStat(Velto::Kandu::IClock& clock) : m_clock(clock), m_timer("MEDIA_SDK_STAT_TIMER_NAME", clock) {}

CMediaSdkStat::~CMediaSdkStat() { m_timer.stop(true); }

void CMediaSdkStat::addFileSplitCount() {
  Velto::Kandu::CAutoLock lock(m_fileSplitMutex);
  ++m_fileSplitCount;
}

void CMediaSdkStat::addWriteSuccessCount() {
  Velto::Kandu::CAutoLock lock(m_writeSuccessMutex);
  ++m_writeSuccessCount;
}

void CMediaSdkStat::addWriteFailedCount() {
  Velto::Kandu::CAutoLock lock(m_writeFailedMutex);
  ++m_writeFailedCount;
}

void CMediaSdkStat::addStreamBytes(uint32_t bytes) {
  m_streamBytes.fetch_add(bytes, std::memory_order_relaxed);
}

void CMediaSdkStat::addIndexRebuildSuccessCount() {
  Velto::Kandu::CAutoLock lock(m_indexRebuildSuccessMutex);
  ++m_indexRebuildSuccessCount;
}

void CMediaSdkStat::addIndexRebuildFailedCount() {
  Velto::Kandu::CAutoLock lock(m_indexRebuildFailedMutex);
  ++m_indexRebuildFailedCount;
}

void CMediaSdkStat::addLoopOverwriteSuccessCount(uint32_t files) {
  Velto::Kandu::CAutoLock lock(m_loopOverwriteSuccessMutex);
  m_loopOverwriteSuccessCount += files;
}

void CMediaSdkStat::addLoopOverwriteFailedCount(uint32_t files) {
  Velto::Kandu::CAutoLock lock(m_loopOverwriteFailedMutex);
  m_loopOverwriteFailedCount += files;
}

void CMediaSdkStat::addLoopOverwriteDeleteBytes(uint64_t bytes) {
  Velto::Kandu::CAutoLock lock(m_loopOverwriteDeleteBytesMutex);
  m_loopOverwriteDeleteBytes += bytes;
}

void CMediaSdkStat::startTimer(const std::string& path, uint32_t interval) {
  // Stop first so that no tick sees the path change half-way.
  m_timer.stop(true);
  {
    Velto::Kandu::CAutoLock lock(m_tickMutex);
    m_statPath = path;
    m_statTempPath = path + ".tmp";
    m_statInterval = interval;
    m_doc.clear();
  }
  m_timer.start([this](Velto::Kandu::CTimer*) { tick(); }, kFirstTickDelayMs, kTickPeriodMs);
  ZLOG(INFO, "CMediaSdkStat", 0, "Start MediaSdk Timer to record status info.\n");
}

void CMediaSdkStat::setStreamCounter(std::function<int32_t()> counter) {
  Velto::Kandu::CAutoLock lock(m_tickMutex);
  m_streamCounter = std::move(counter);
}

void CMediaSdkStat::setRenameRetryDelay(uint32_t ms) {
  Velto::Kandu::CAutoLock lock(m_tickMutex);
  m_renameRetryDelayMs = ms;
}

void CMediaSdkStat::tickNow() { tick(); }

void CMediaSdkStat::setPromFile(const std::string& path) {
  Velto::Kandu::CAutoLock lock(m_tickMutex);
  m_promPath = path;
}

void CMediaSdkStat::setGaugeProvider(const void* owner, std::function<void(StoreGauges&)> provider) {
  Velto::Kandu::CAutoLock lock(m_tickMutex);
  m_gaugeOwner = owner;
  m_gaugeProvider = std::move(provider);
}

void CMediaSdkStat::clearGaugeProvider(const void* owner) {
  Velto::Kandu::CAutoLock lock(m_tickMutex);
  if (m_gaugeOwner != owner) return;
  m_gaugeOwner = nullptr;
  m_gaugeProvider = nullptr;
}

void CMediaSdkStat::tick() {
  Velto::Kandu::CAutoLock tickLock(m_tickMutex);
  if (m_statPath.empty() && m_promPath.empty()) return;  // not started: only counting

  // The minute's counts, in the fields of the metrics record.
  MediaMetrics minute;
  minute.streamWriters = m_streamCounter ? m_streamCounter() : 0;
  minute.fileSplits = takeCounter(m_fileSplitMutex, m_fileSplitCount);
  minute.fileCloses = takeCounter(m_writeSuccessMutex, m_writeSuccessCount);
  minute.fileCloseFailures = takeCounter(m_writeFailedMutex, m_writeFailedCount);
  minute.streamBytes = m_streamBytes.exchange(0, std::memory_order_relaxed);
  minute.indexRebuilds = takeCounter(m_indexRebuildSuccessMutex, m_indexRebuildSuccessCount);
  minute.indexRebuildFailures = takeCounter(m_indexRebuildFailedMutex, m_indexRebuildFailedCount);
  minute.recycledFiles = takeCounter(m_loopOverwriteSuccessMutex, m_loopOverwriteSuccessCount);
  minute.recycleFailures = takeCounter(m_loopOverwriteFailedMutex, m_loopOverwriteFailedCount);
  minute.recycledBytes = takeCounter(m_loopOverwriteDeleteBytesMutex, m_loopOverwriteDeleteBytes);

  m_totals.fileSplits += minute.fileSplits;
  m_totals.fileCloses += minute.fileCloses;
  m_totals.fileCloseFailures += minute.fileCloseFailures;
  m_totals.streamBytes += minute.streamBytes;
  m_totals.indexRebuilds += minute.indexRebuilds;
  m_totals.indexRebuildFailures += minute.indexRebuildFailures;
  m_totals.recycledFiles += minute.recycledFiles;
  m_totals.recycleFailures += minute.recycleFailures;
  m_totals.recycledBytes += minute.recycledBytes;
  m_totals.streamWriters = minute.streamWriters;

  if (!m_statPath.empty()) writeStatFile(minute);
  if (!m_promPath.empty()) writePromFile();
}

void CMediaSdkStat::writeStatFile(const MediaMetrics& minute) {
  m_doc = Json::Value(Json::objectValue);
  m_doc["name"] = "media-sdk";
  m_doc["ip"] = m_ip;
  m_doc["stream.count"] = Json::Int(minute.streamWriters);
  m_doc["file.split.count"] = Json::UInt(minute.fileSplits);
  m_doc["write.success.count"] = Json::UInt(minute.fileCloses);
  m_doc["write.failed.count"] = Json::UInt(minute.fileCloseFailures);
  // MiB per second over the one-minute period.
  m_doc["stream.avg"] = Json::UInt64((minute.streamBytes >> 20) / 60);
  m_doc["index.rebuild.success.count"] = Json::UInt(minute.indexRebuilds);
  m_doc["index.rebuild.failed.count"] = Json::UInt(minute.indexRebuildFailures);
  m_doc["loop.overwrite.success.count"] = Json::UInt(minute.recycledFiles);
  m_doc["loop.overwrite.failed.count"] = Json::UInt(minute.recycleFailures);
  m_doc["loop.overwrite.delete.capacity"] = Json::UInt64(minute.recycledBytes >> 20);
  char ctime[32];
  std::snprintf(ctime, sizeof(ctime), "%" PRId64, Velto::Kandu::CTime::now(m_clock).getTime());
  m_doc["ctime"] = ctime;

  Json::StyledWriter writer;
  writeAtomically(m_statTempPath, m_statPath, writer.write(m_doc), kRenameAttempts);
}

void CMediaSdkStat::writePromFile() {
  m_totals.storeState = CMediaValues::instance().sdkState.load();
  m_totals.store = StoreGauges();
  if (m_gaugeProvider) m_gaugeProvider(m_totals.store);
  // One rename attempt: the collector reads the file at its own pace, and a
  // minute late is better than a tick held up for ten seconds.
  writeAtomically(m_promPath + ".tmp", m_promPath, renderPromMetrics(m_totals), 1);
}

bool CMediaSdkStat::writeAtomically(const std::string& tempPath, const std::string& path, const std::string& text,
                                    uint32_t renameAttempts) {
  if (!dumpToStatFile(tempPath, text)) return false;
  for (uint32_t attempt = 0; attempt < renameAttempts; ++attempt) {
    if (Velto::Kandu::CFile::rename(tempPath, path)) return true;
    if (attempt + 1 < renameAttempts) Velto::Kandu::sleepMs(m_renameRetryDelayMs);
  }
  ZLOG(ERROR, "CMediaSdkStat", 0, "Rename stat file failed\n");
  return false;
}

bool CMediaSdkStat::dumpToStatFile(const std::string& tempPath, const std::string& text) {
  Velto::Kandu::CFile file;
  if (!file.open(tempPath, "w+")) {
    ZLOG(ERROR, "CMediaSdkStat", 0, "failed to open status file(%s).\n", tempPath.c_str());
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    int64_t n = file.write(text.data() + done, text.size() - done);
    if (n <= 0) {
      ZLOG(ERROR, "CMediaSdkStat", 0, "failed to write status file(%s).\n", tempPath.c_str());
      file.close();
      return false;
    }
    done += static_cast<size_t>(n);
  }
  file.close();
  return true;
}

}  // namespace Velto::Zarn
