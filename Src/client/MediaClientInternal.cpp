#include "MediaClientInternal.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>

#include "IndexFixSubmit.h"
#include "KanduLog.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "MediaConfig.h"
#include "MediaContext.h"
#include "RecordLock.h"
#include "RecordQuery.h"
#include "StreamMgr.h"
#include "StreamReader.h"
#include "StreamWriter.h"

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;
using Velto::Kandu::CTime;
using Velto::Kandu::CTimer;
using Velto::Kandu::TimerProcedure;

namespace {

constexpr const char* kProduct = "Zarn-MediaSDK";

std::mutex g_timingsMutex;
MediaClientTimings g_timings;  // guarded by g_timingsMutex

MediaClientTimings currentTimings() {
  std::lock_guard<std::mutex> lock(g_timingsMutex);
  return g_timings;
}

// The one answer of operations whose engines this build does not have yet.
int notAvailable(const char* operation, int result) {
  KLOG_ERROR("#%d,GENERAL::%s %d, %s is not available in this build yet.\n", result, operation, __LINE__, operation);
  return result;
}

std::string timeText(uint32_t seconds) { return CTime(seconds).format("yyyy/MM/dd/HHmmss"); }

// The registry lookups of the frame calls; a miss logs the caller's error line.
std::shared_ptr<CStreamWriter> findWriter(unsigned streamId, const char* function) {
  std::shared_ptr<CStreamWriter> writer = CMediaContext::instance().streams().getStreamWriter(streamId);
  if (!writer) {
    KLOG_ERROR("#%d,GENERAL::%s %d, stream(%u) not find. Pls addStream first!\n", 0, function, __LINE__, streamId);
  }
  return writer;
}

std::shared_ptr<CStreamReader> findSession(unsigned sessionId, const char* function) {
  std::shared_ptr<CStreamReader> reader =
      CMediaContext::instance().streams().getStreamReader(static_cast<int32_t>(sessionId));
  if (!reader) {
    KLOG_ERROR("#%d,GENERAL::%s %d, session(%u) not find. Pls addSession first!\n", 0, function, __LINE__,
               sessionId);
  }
  return reader;
}

}  // namespace

void printVersionBanner() {
  KLOG_INFO("[libZarnMediaClient] [*] %s V%d.%03d.%07d.%04d Built in %s %s[*]\n", kProduct, 0, 0, 0, 0, __DATE__,
            __TIME__);
  KLOG_WARN("[libZarnMediaClient] [*] %s is a development build, not an official release.[*]\n", kProduct);
}

void CMediaClientInternal::setTimingsForTest(const MediaClientTimings& timings) {
  std::lock_guard<std::mutex> lock(g_timingsMutex);
  g_timings = timings;
}

CMediaClientInternal::CMediaClientInternal()
    : m_zarnTimeout(0),
      m_maxLockRatio(57),
      m_timings(currentTimings()),
      m_antiShakeTimer("Zarn State Anti Shake Timer"),
      m_fixIndexTimer("Fix Index Timer"),
      m_exceptionTimer("Zarn exception timer") {
  printVersionBanner();
  CMediaContext& context = CMediaContext::instance();  // loads MediaConfig.cfg on first use
  std::string text;
  context.config().display(text);
  m_fs = std::make_shared<CZarnFileSystem>();
  applyConfigToStore();
}

void CMediaClientInternal::applyConfigToStore() {
  CMediaConfig& config = CMediaContext::instance().config();
  m_zarnTimeout = config.getZarnTimeout();
  bool present = false;
  int lockRate = config.getMaxLockRate(present);
  m_maxLockRatio = lockRate;
  int32_t level = config.getZarnLogLevel(present);
  if (present) m_fs->setOption(ZARN_OPT_LOG_LEVEL, &level, sizeof(level));
  std::string path = config.getZarnLogPath(present);
  if (present) {
    m_fs->setOption(ZARN_OPT_LOG_PATH, path.data(), static_cast<uint32_t>(path.size()));
    printVersionBanner();
  }
}

CMediaClientInternal::~CMediaClientInternal() {
  // Timers first: their procedures use the store handle, which goes next.
  m_exceptionTimer.stop(true);
  m_fixIndexTimer.stop(true);
  m_antiShakeTimer.stop(true);
  if (m_fs) m_fs->setListener(nullptr);
  m_fs.reset();
  CMediaContext::values().sdkState.store(0);
}

CZarnFileSystem& CMediaClientInternal::store() const {
  if (!m_fs) std::abort();  // a client without a store handle is a programming error
  return *m_fs;
}

void CMediaClientInternal::enableZarnClientLog(int logLevel, const char* logPath) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, enableZarnClientLog. logLevel: %d, logPath: %s\n", 0, __FUNCTION__, __LINE__,
             logLevel, logPath ? logPath : "(null)");
  CZarnFileSystem& fs = store();
  CMediaConfig& config = CMediaContext::instance().config();
  bool present = false;
  config.getZarnLogLevel(present);
  if (!present) {
    int32_t level = logLevel;
    fs.setOption(ZARN_OPT_LOG_LEVEL, &level, sizeof(level));
  }
  config.getZarnLogPath(present);
  if (!present) {
    const char* path = logPath ? logPath : "";
    fs.setOption(ZARN_OPT_LOG_PATH, path, static_cast<uint32_t>(std::strlen(path)));
    printVersionBanner();
  }
}

void CMediaClientInternal::setMediaSDKLogFile(const char* /*path*/) { printVersionBanner(); }

void CMediaClientInternal::setDefaultECType(unsigned short dataNum, unsigned short ecNum) {
  KLOG_INFO("#%d,GENERAL::%s %d, setDefaultECType: dataNum: %d, ecNum %d\n", 0, __FUNCTION__, __LINE__, dataNum,
            ecNum);
  CMediaValues& v = CMediaContext::values();
  v.ecDataNum.store(dataNum);
  v.ecStripeSize.store(static_cast<uint32_t>(dataNum) * CMediaValues::kEcUnit);
  v.ecParityNum.store(ecNum);
  v.ecUnit.store(CMediaValues::kEcUnit);
}

void CMediaClientInternal::setTimeZoneDiff(int hours) {
  KLOG_INFO("#%d,GENERAL::%s %d, setTimeZoneDiff: %d\n", 0, __FUNCTION__, __LINE__, hours);
  CMediaContext::values().timeZoneDiff.store(hours);
}

void CMediaClientInternal::setMaxFrameSize(int bytes) {
  KLOG_INFO("#%d,GENERAL::%s %d, setMaxFrameSize: %d\n", 0, __FUNCTION__, __LINE__, bytes);
  CMediaContext::values().maxFrameSize.store(bytes);
}

int CMediaClientInternal::initialize(const Config& config, Velto::Kandu::TFunction1<void, ZarnState> callback) {
  const char* address = config.address ? config.address : "(null)";
  KLOG_DEBUG("#%d,GENERAL::%s %d, initialize to: %s:%d\n", 0, __FUNCTION__, __LINE__, address, config.port);
  CAutoLock lock(m_stateMutex);
  CZarnFileSystem& fs = store();
  m_stateCallback = std::move(callback);
  int32_t option = m_zarnTimeout;
  fs.setOption(ZARN_OPT_TIMEOUT_MS, &option, sizeof(option));
  option = 3;
  fs.setOption(ZARN_OPT_CLIENT_MODE, &option, sizeof(option));
  fs.setListener(this);

  CMediaValues& values = CMediaContext::values();
  // The store is initialised once; a repeated initialize only repeats the
  // options, the system-file check and the timers. The test is on this
  // client's own connection rather than on the process-wide state, so that a
  // second client of the process still connects.
  if (!fs.isInitialized()) {
    if (config.address == nullptr || !fs.initialize(config)) {
      int32_t code = config.address == nullptr ? ZARN_E_INVALID_ARGUMENT : getLastError();
      const char* message = config.address == nullptr ? "Config.address is null" : getErrorMsg();
      KLOG_ERROR("#%d,GENERAL::%s %d, Zarn init error, %s\n", code, __FUNCTION__, __LINE__, message);
      // A fresh handle, so that a later initialize starts clean.
      m_fs->setListener(nullptr);
      m_fs = std::make_shared<CZarnFileSystem>();
      applyConfigToStore();
      return -1;
    }
  }
  KLOG_INFO("#%d,GENERAL::%s %d, Zarn init success.\n", 0, __FUNCTION__, __LINE__);
  values.setStoreUserName(config.userName ? config.userName : "");

  if (!checkSysFile(fs)) {
    values.sdkState.store(ZARN_STATE_FAILED);
    KLOG_ERROR("#%d,GENERAL::%s %d, MediaClient check system file error.\n", 0, __FUNCTION__, __LINE__);
    return -1;
  }
  values.sdkState.store(ZARN_STATE_NORMAL);
  m_localStore.onLoginSDK(&fs);
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  m_fixIndexTimer.start(TimerProcedure(this, &CMediaClientInternal::fixIndexTimerProc), m_timings.fixIndexDelay,
                        m_timings.fixIndexPeriod);
  KLOG_INFO("#%d,GENERAL::%s %d, MediaClient initialize success.\n", 0, __FUNCTION__, __LINE__);
  return 0;
}

void CMediaClientInternal::onZarnStateChanged(CZarnFileSystem* fs, ZarnState state) {
  CAutoLock lock(m_stateMutex);
  if (fs != m_fs.get()) std::abort();  // a notification from a foreign handle is a programming error
  KLOG_INFO("#%d,GENERAL::%s %d, onZarnStateChanged ZarnState: %d\n", 0, __FUNCTION__, __LINE__,
            static_cast<int>(state));
  CMediaValues& values = CMediaContext::values();
  uint32_t current = values.sdkState.load();
  // Before the first successful initialize the state is deliberately not recorded.
  if (current == 0 || current == static_cast<uint32_t>(state)) return;
  KLOG_INFO("#%d,GENERAL::%s %d, zarnStateChanged: %d -> %d\n", 0, __FUNCTION__, __LINE__, static_cast<int>(current),
            static_cast<int>(state));
  // Not restarted while pending: a burst of changes ends in one run, which sees
  // only the last state.
  if (!m_antiShakeTimer.isRunning()) {
    KLOG_INFO("#%d,GENERAL::%s %d, onZarnStateChanged: timer start\n", 0, __FUNCTION__, __LINE__);
    m_antiShakeTimer.start(TimerProcedure(this, &CMediaClientInternal::antiShakeTimerProc), m_timings.antiShakeDelay);
  }
  values.sdkState.store(static_cast<uint32_t>(state));
}

void CMediaClientInternal::antiShakeTimerProc(CTimer* /*timer*/) {
  CAutoLock lock(m_stateMutex);
  uint32_t state = CMediaContext::values().sdkState.load();
  if (state == m_lastReportedState) return;  // a flap that ended where it began
  m_lastReportedState = state;
  if (state != ZARN_STATE_DEGRADED) {
    if (state == ZARN_STATE_FAILED) {
      m_exceptionTimer.start(TimerProcedure(this, &CMediaClientInternal::zarnExceptProc), m_timings.exceptionDelay,
                             m_timings.exceptionPeriod, 0, m_timings.exceptionExecTimeout);
    } else if (state == ZARN_STATE_NORMAL) {
      m_exceptionTimer.stop(true);
    }
    if (m_localStore.onSDKState(state)) {
      KLOG_INFO("#%d,GENERAL::%s %d, sdk state changte to %d\n", 0, __FUNCTION__, __LINE__, static_cast<int>(state));
    }
  }
  if (m_stateCallback && !m_localStore.isSupport()) {
    KLOG_INFO("#%d,GENERAL::%s %d, zarnStateChanged callback to SS.\n", 0, __FUNCTION__, __LINE__);
    m_stateCallback(static_cast<ZarnState>(state));
  }
  KLOG_INFO("#%d,GENERAL::%s %d, antiShakeTimerProc: zarnStateChanged to %d\n", 0, __FUNCTION__, __LINE__,
            static_cast<int>(state));
}

void CMediaClientInternal::zarnExceptProc(CTimer* /*timer*/) {
  if (CMediaContext::instance().streams().getStreamWriterCount() < 1) {
    // A store failed for an hour while nothing records: leave the restart to
    // the host's supervisor.
    KLOG_INFO("#%d,GENERAL::%s %d, stream writer count is 0, exit.\n", 0, __FUNCTION__, __LINE__);
    std::abort();
  }
}

void CMediaClientInternal::fixIndexTimerProc(CTimer* /*timer*/) {
  uint32_t now = CMediaContext::values().localNow();
  uint32_t from = now - m_timings.fixIndexPeriod / 1000;
  std::set<uint32_t> ids;
  CMediaContext::instance().streams().getStreamIds(ids);
  KLOG_INFO("#%d,GENERAL::%s %d, stream totalNum = %ld\n", 0, __FUNCTION__, __LINE__, static_cast<long>(ids.size()));
  int total = 0;
  size_t visited = 0;
  CZarnFileSystem& fs = store();
  for (uint32_t id : ids) {
    std::vector<RecordFileName> files;
    listRecordFileInfo(fs, id, from, now, files, BUCKET_KIND_FORGOTTEN);
    int32_t count = listRecordFileInfo(fs, id, from, now, files, BUCKET_KIND_MEDIA);
    if (count > 0) {
      total += count;
      submitFilesNeedingIndex(fs, files);
    }
    if (++visited % 100 == 0) Velto::Kandu::sleepMs(100);
  }
  KLOG_INFO("#%d,GENERAL::%s %d, %s - %s, check %d files\n", 0, __FUNCTION__, __LINE__, timeText(from).c_str(),
            timeText(now).c_str(), total);
}

void CMediaClientInternal::setMaxLockRatio(int ratio) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, setMaxLockRatio: %d\n", 0, __FUNCTION__, __LINE__, ratio);
  bool present = false;
  CMediaContext::instance().config().getMaxLockRate(present);
  if (present) return;  // the configuration file wins
  if (static_cast<unsigned>(ratio) <= 100) {
    m_maxLockRatio = ratio;
  } else {
    KLOG_ERROR("#%d,GENERAL::%s %d, setMaxLockRatio failed, ratio must be in 0-100\n", 0, __FUNCTION__, __LINE__);
  }
}

int CMediaClientInternal::getLockRatio() const {
  CZarnFileSystem& fs = store();
  SystemInfo info{};
  if (!fs.getSystemInfo(info)) {
    KLOG_ERROR("#%d,GENERAL::%s %d, getSystemInfo failed. %s\n", getLastError(), __FUNCTION__, __LINE__,
               getErrorMsg());
    return -1;
  }
  uint64_t locked = 0;
  if (!getLockSize(fs, locked)) {
    KLOG_ERROR("#%d,GENERAL::%s %d, getLockSize failed\n", 0, __FUNCTION__, __LINE__);
    return -1;
  }
  uint64_t totalMiB = info.totalCapacity >> 20;
  if (totalMiB == 0) {
    KLOG_ERROR("#%d,GENERAL::%s %d, getSystemInfo failed. %s\n", 0, __FUNCTION__, __LINE__,
               "the store reports no capacity");
    return -1;
  }
  return static_cast<int>(locked * 10000 / totalMiB);
}

int CMediaClientInternal::queryRecordClipList(unsigned streamId, unsigned beginTime, unsigned endTime,
                                              std::vector<RecordClip>& clips, unsigned durationPerClip) {
  return Velto::Zarn::queryRecordClipList(store(), streamId, beginTime, endTime, clips, durationPerClip);
}

int CMediaClientInternal::queryRecordFileList(unsigned streamId, unsigned beginTime, unsigned endTime,
                                              std::vector<RecordClipEx>& files) {
  return Velto::Zarn::queryRecordFileList(store(), streamId, beginTime, endTime, files);
}

int CMediaClientInternal::queryAlignedClipList(unsigned streamId, unsigned beginTime, unsigned endTime,
                                               std::vector<RecordClip>& clips, unsigned durationPerClip) {
  return Velto::Zarn::queryAlignedClipList(store(), streamId, beginTime, endTime, clips, durationPerClip);
}

int CMediaClientInternal::queryRecordStatus(unsigned streamId, unsigned beginTime, unsigned endTime,
                                            std::vector<bool>& status, unsigned step) const {
  CZarnFileSystem& fs = store();
  if (endTime < beginTime) {
    // The bitmap's size would wrap around to billions of bits.
    KLOG_ERROR("#%d,GENERAL::%s %d, parameter error, endTS[%u] is before beginTS[%u]\n", -1, __FUNCTION__, __LINE__,
               endTime, beginTime);
    return -1;
  }
  return Velto::Zarn::queryRecordStatus(fs, streamId, beginTime, endTime, status, step);
}

int CMediaClientInternal::deleteRecordClip(unsigned, unsigned, unsigned) { return notAvailable(__FUNCTION__, -1); }

int CMediaClientInternal::addStream(unsigned streamId, short type, bool sync) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, addStream: sid = %u, type = %d, sync = %d.\n", 0, __FUNCTION__, __LINE__, streamId,
             type, sync ? 1 : 0);
  store();
  if (!m_policies.has(streamId)) {
    uint32_t hours = CMediaContext::instance().config().getRecycleHours();
    if (hours == 0) {
      KLOG_ERROR("#%d,GENERAL::%s %d, addStream(%u) failed because of no cover policy!\n", 0, __FUNCTION__, __LINE__,
                 streamId);
      return -1;
    }
    KLOG_DEBUG("#%d,GENERAL::%s %d, No cover policy, set to default hours in config file.addStream(%u)\n", 0,
               __FUNCTION__, __LINE__, streamId);
    setRecyclePolicy(streamId, hours, 0);
  }
  CStreamMgr& streams = CMediaContext::instance().streams();
  if (streams.getStreamWriter(streamId)) {
    KLOG_WARN("#%d,GENERAL::%s %d, stream(%u) has existed!\n", 0, __FUNCTION__, __LINE__, streamId);
    return -1;
  }
  // A registration racing past the lookup is settled by the registry: the
  // first writer stays, the second is dropped.
  streams.addStreamWriter(streamId, std::make_shared<CStreamWriter>(m_fs, streamId, type, sync));
  return 0;
}

int CMediaClientInternal::writeFrame(unsigned streamId, const VeltoFrame* frame, unsigned frameTime,
                                     unsigned long long& position) {
  std::shared_ptr<CStreamWriter> writer = findWriter(streamId, __FUNCTION__);
  if (!writer) return -4;
  return writer->writeFrame(frame, frameTime, position);
}

int CMediaClientInternal::flushFrame(unsigned streamId) {
  std::shared_ptr<CStreamWriter> writer = findWriter(streamId, __FUNCTION__);
  if (!writer) return -4;
  return writer->flushFrame();
}

int CMediaClientInternal::deleteStream(unsigned streamId) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, deleteStream: sid = %u.\n", 0, __FUNCTION__, __LINE__, streamId);
  CStreamMgr& streams = CMediaContext::instance().streams();
  std::shared_ptr<CStreamWriter> writer = streams.getStreamWriter(streamId);
  if (!writer) {
    KLOG_WARN("#%d,GENERAL::%s %d, stream(%u) not find.!\n", 0, __FUNCTION__, __LINE__, streamId);
    return -1;
  }
  writer->closeStream(writer);
  streams.delStreamWriter(streamId);
  return 0;
}

int CMediaClientInternal::addSession(unsigned streamId, unsigned beginTime, unsigned endTime, bool sync) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, addSession: sid = %u, begin = %u, end = %u, sync = %d.\n", 0, __FUNCTION__,
             __LINE__, streamId, beginTime, endTime, sync ? 1 : 0);
  store();
  return CMediaContext::instance().streams().addStreamReader(
      std::make_shared<CStreamReader>(m_fs, streamId, beginTime, endTime, sync));
}

int CMediaClientInternal::readFrame(unsigned sessionId, VeltoFrame* frame, unsigned long long& length,
                                    bool keyFramesOnly, bool reverse) {
  std::shared_ptr<CStreamReader> reader = findSession(sessionId, __FUNCTION__);
  if (!reader) return -5;
  return reader->readFrame(frame, length, keyFramesOnly, reverse);
}

int CMediaClientInternal::seek(unsigned sessionId, unsigned seekTime) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, seek: sessionID = %u. seekTS = %u.\n", 0, __FUNCTION__, __LINE__, sessionId,
             seekTime);
  std::shared_ptr<CStreamReader> reader = findSession(sessionId, __FUNCTION__);
  if (!reader) return -5;
  return reader->seek(seekTime);
}

int CMediaClientInternal::deleteSession(unsigned sessionId) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, deleteSession: sessionID = %u.\n", 0, __FUNCTION__, __LINE__, sessionId);
  CStreamMgr& streams = CMediaContext::instance().streams();
  std::shared_ptr<CStreamReader> reader = streams.getStreamReader(static_cast<int32_t>(sessionId));
  if (!reader) {
    KLOG_WARN("#%d,GENERAL::%s %d, session(%u) not find\n", 0, __FUNCTION__, __LINE__, sessionId);
    return -1;
  }
  reader->deleteSession(reader);
  streams.delStreamReader(static_cast<int32_t>(sessionId));
  return 0;
}

int CMediaClientInternal::lockStream(unsigned, std::vector<RecordClip>&) { return notAvailable(__FUNCTION__, -3); }

int CMediaClientInternal::lockStream(unsigned, unsigned, unsigned) { return notAvailable(__FUNCTION__, -3); }

int CMediaClientInternal::unlockStream(unsigned, unsigned, unsigned, unsigned char& lockNum, bool) {
  lockNum = 0;
  return notAvailable(__FUNCTION__, -1);
}

int CMediaClientInternal::setRecyclePolicy(unsigned streamId, unsigned durationHours, unsigned space) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, setRecyclePolicy streamID:%u durationHours:%u space:%u\n\n", 0, __FUNCTION__,
             __LINE__, streamId, durationHours, space);
  m_policies.set(streamId, durationHours, space, CMediaContext::instance().config().getRecycleHours());
  return 0;
}

int CMediaClientInternal::setRecyclePolicy(const std::string& cameraId, std::list<unsigned>&, unsigned durationHours,
                                           unsigned space) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, setRecyclePolicy cameraID:%s durationHours:%u space:%u\n\n", 0, __FUNCTION__,
             __LINE__, cameraId.c_str(), durationHours, space);
  return notAvailable(__FUNCTION__, -1);
}

int CMediaClientInternal::setUrgentRecycleRatio(unsigned ratio) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, setUrgentRecycleRatio ratio:%u\n\n", 0, __FUNCTION__, __LINE__, ratio);
  bool present = false;
  CMediaContext::instance().config().getCyclicCoverThresholdRate(present);
  if (present) return 0;  // the configuration file wins
  return notAvailable(__FUNCTION__, -1);
}

bool CMediaClientInternal::getSystemInfo(SystemInfo& info) { return store().getSystemInfo(info); }

int CMediaClientInternal::setForgottenStorage(unsigned streamId, unsigned durationHours, unsigned space) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, setForgottenStorage streamID:%u durationHours:%u space:%u\n\n", 0, __FUNCTION__,
             __LINE__, streamId, durationHours, space);
  return notAvailable(__FUNCTION__, -1);
}

bool CMediaClientInternal::isSupportLocalStore() { return m_localStore.isSupport(); }

bool CMediaClientInternal::discardStream(unsigned streamId, unsigned durationHours, unsigned space) {
  KLOG_DEBUG("#%d,GENERAL::%s %d, discardStream streamID:%u durationHours:%u space:%u\n\n", 0, __FUNCTION__, __LINE__,
             streamId, durationHours, space);
  return notAvailable(__FUNCTION__, -1) == 0;
}

int CMediaClientInternal::deleteRecord(const std::string& cameraId, std::list<unsigned>&) {
  KLOG_INFO("#%d,GENERAL::%s %d, start delete record, cameraID:%s\n\n", 0, __FUNCTION__, __LINE__, cameraId.c_str());
  return notAvailable(__FUNCTION__, -1);
}

}  // namespace Velto::Zarn
