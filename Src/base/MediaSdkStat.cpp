#include "MediaSdkStat.h"

#include <cinttypes>
#include <cstdio>

#include "KanduFile.h"
#include "MediaLog.h"
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
  Velto::Kandu::CAutoLock lock(m_streamBytesMutex);
  m_streamBytes += bytes;
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

void CMediaSdkStat::tick() {
  Velto::Kandu::CAutoLock tickLock(m_tickMutex);
  if (m_statPath.empty()) return;  // not started: only counting

  m_doc = Json::Value(Json::objectValue);
  m_doc["name"] = "media-sdk";
  m_doc["ip"] = m_ip;
  m_doc["stream.count"] = Json::Int(m_streamCounter ? m_streamCounter() : 0);
  m_doc["file.split.count"] = Json::UInt(takeCounter(m_fileSplitMutex, m_fileSplitCount));
  m_doc["write.success.count"] = Json::UInt(takeCounter(m_writeSuccessMutex, m_writeSuccessCount));
  m_doc["write.failed.count"] = Json::UInt(takeCounter(m_writeFailedMutex, m_writeFailedCount));
  // MiB per second over the one-minute period.
  m_doc["stream.avg"] = Json::UInt((takeCounter(m_streamBytesMutex, m_streamBytes) >> 20) / 60);
  m_doc["index.rebuild.success.count"] =
      Json::UInt(takeCounter(m_indexRebuildSuccessMutex, m_indexRebuildSuccessCount));
  m_doc["index.rebuild.failed.count"] = Json::UInt(takeCounter(m_indexRebuildFailedMutex, m_indexRebuildFailedCount));
  m_doc["loop.overwrite.success.count"] =
      Json::UInt(takeCounter(m_loopOverwriteSuccessMutex, m_loopOverwriteSuccessCount));
  m_doc["loop.overwrite.failed.count"] =
      Json::UInt(takeCounter(m_loopOverwriteFailedMutex, m_loopOverwriteFailedCount));
  m_doc["loop.overwrite.delete.capacity"] =
      Json::UInt64(takeCounter(m_loopOverwriteDeleteBytesMutex, m_loopOverwriteDeleteBytes) >> 20);
  char ctime[32];
  std::snprintf(ctime, sizeof(ctime), "%" PRId64, Velto::Kandu::CTime::now(m_clock).getTime());
  m_doc["ctime"] = ctime;

  Json::StyledWriter writer;
  if (!dumpToStatFile(m_statTempPath, writer.write(m_doc))) return;
  renameStatFile(m_statTempPath, m_statPath, m_renameRetryDelayMs);
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

bool CMediaSdkStat::renameStatFile(const std::string& tempPath, const std::string& path, uint32_t retryDelayMs) {
  for (uint32_t attempt = 0; attempt < kRenameAttempts; ++attempt) {
    if (Velto::Kandu::CFile::rename(tempPath, path)) return true;
    if (attempt + 1 < kRenameAttempts) Velto::Kandu::sleepMs(retryDelayMs);
  }
  ZLOG(ERROR, "CMediaSdkStat", 0, "Rename stat file failed\n");
  return false;
}

}  // namespace Velto::Zarn
