#include "MediaClientInternal.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>

#include "IndexFixScan.h"
#include "IndexFixerMgr.h"
#include "KanduLog.h"
#include "KanduTime.h"
#include "LockSizeLedger.h"
#include "MediaConfig.h"
#include "MediaContext.h"
#include "MediaLog.h"
#include "MediaValues.h"
#include "PromMetrics.h"
#include "ZarnNames.h"
#include "RecordDeletion.h"
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

std::string timeText(uint32_t seconds) { return CTime(seconds).format("yyyy/MM/dd/HHmmss"); }

// The registry lookups of the frame calls; a miss logs the caller's error line.
std::shared_ptr<CStreamWriter> findWriter(unsigned streamId, const char* function) {
  std::shared_ptr<CStreamWriter> writer = CMediaContext::instance().streams().getStreamWriter(streamId);
  if (!writer) {
    ZLOG_IN(ERROR, "GENERAL", function, 0, "stream(%u) not find. Pls addStream first!\n", streamId);
  }
  return writer;
}

std::shared_ptr<CStreamReader> findSession(unsigned sessionId, const char* function) {
  std::shared_ptr<CStreamReader> reader =
      CMediaContext::instance().streams().getStreamReader(static_cast<int32_t>(sessionId));
  if (!reader) {
    ZLOG_IN(ERROR, "GENERAL", function, 0, "session(%u) not find. Pls addSession first!\n", sessionId);
  }
  return reader;
}

}  // namespace

void printVersionBanner() {
  KLOG_INFO("[libZarnMediaClient] [*] %s V%d.%03d.%07d.%04d Built in %s %s[*]\n", kProduct, 0, 0, 0, 0, __DATE__,
            __TIME__);
  KLOG_WARN("[libZarnMediaClient] [*] %s is a development build, not an official release.[*]\n", kProduct);
}

CMediaClientInternal::CMediaClientInternal(Velto::Kandu::IClock& clock)
    : m_clock(clock),
      m_cover(std::make_unique<CZarnCyclicCover>(clock, CMediaContext::instance().config(),
                                                 CMediaContext::instance().stats())),
      m_zarnTimeout(0),
      m_maxLockRatio(57),
      m_localStore(clock),
      m_antiShakeTimer("Zarn State Anti Shake Timer", clock),
      m_fixIndexTimer("Fix Index Timer", clock),
      m_exceptionTimer("Zarn exception timer", clock) {
  printVersionBanner();
  CMediaContext& context = CMediaContext::instance();  // loads MediaConfig.cfg on first use
  std::string text;
  context.config().display(text);
  m_fs = std::make_shared<CZarnFileSystem>();
  m_indexFixer = std::make_unique<CIndexFixerMgr>(context.indexFixQueue(), context.config().getSVCEnabled());
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
  CMediaContext::instance().stopStatistics(this);  // its gauges hold the store handle
  // The cover engine and the timers first: they use the store handle, which goes next.
  m_cover->stop();
  m_localStore.stop();
  m_exceptionTimer.stop(true);
  m_fixIndexTimer.stop(true);
  m_antiShakeTimer.stop(true);
  m_indexFixer.reset();  // waits for a repair under way on this store
  if (m_fs) m_fs->setListener(nullptr);
  m_fs.reset();
  CMediaValues::instance().sdkState.store(0);
}

CZarnFileSystem& CMediaClientInternal::store() const {
  if (!m_fs) std::abort();  // a client without a store handle is a programming error
  return *m_fs;
}

QueryEnv CMediaClientInternal::queryEnv() const {
  QueryEnv env = CMediaContext::instance().queryEnv(m_clock);
  env.indexFix = m_indexFixer.get();
  return env;
}

bool CMediaClientInternal::storeReady(const char* function) const {
  if (store().isInitialized()) return true;
  ZLOG_IN(ERROR, "GENERAL", function, ZARN_E_NOT_INITIALIZED, "the store is not initialized: call initialize first\n");
  return false;
}

void CMediaClientInternal::enableZarnClientLog(int logLevel, const char* logPath) {
  ZLOG(DEBUG, "GENERAL", 0, "enableZarnClientLog. logLevel: %d, logPath: %s\n", logLevel, logPath ? logPath : "(null)");
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
  ZLOG(INFO, "GENERAL", 0, "setDefaultECType: dataNum: %d, ecNum %d\n", dataNum, ecNum);
  CMediaValues& v = CMediaValues::instance();
  v.ecDataNum.store(dataNum);
  v.ecStripeSize.store(static_cast<uint32_t>(dataNum) * CMediaValues::kEcUnit);
  v.ecParityNum.store(ecNum);
  v.ecUnit.store(CMediaValues::kEcUnit);
}

void CMediaClientInternal::setTimeZoneDiff(int hours) {
  ZLOG(INFO, "GENERAL", 0, "setTimeZoneDiff: %d\n", hours);
  CMediaValues::instance().timeZoneDiff.store(hours);
}

void CMediaClientInternal::setMaxFrameSize(int bytes) {
  ZLOG(INFO, "GENERAL", 0, "setMaxFrameSize: %d\n", bytes);
  CMediaValues::instance().maxFrameSize.store(bytes);
}

int CMediaClientInternal::initialize(const Config& config, Velto::Kandu::TFunction1<void, ZarnState> callback) {
  const char* address = config.address ? config.address : "(null)";
  ZLOG(DEBUG, "GENERAL", 0, "initialize to: %s:%d\n", address, config.port);
  CAutoLock lock(m_stateMutex);
  CZarnFileSystem& fs = store();
  m_stateCallback = std::move(callback);
  int32_t option = m_zarnTimeout;
  fs.setOption(ZARN_OPT_TIMEOUT_MS, &option, sizeof(option));
  option = 3;
  fs.setOption(ZARN_OPT_CLIENT_MODE, &option, sizeof(option));
  fs.setListener(this);

  CMediaValues& values = CMediaValues::instance();
  // Every bucket name begins with the user name and "_": one that is not a
  // store name component would make every bucket name invalid.
  const std::string userName = config.userName ? config.userName : "";
  if (!userName.empty() && userName != "root" && validateBucketName(userName + "_media_0") != 0) {
    ZLOG(ERROR, "GENERAL", ZARN_E_INVALID_NAME, "Config.userName \"%s\" cannot begin a bucket name\n",
         userName.c_str());
    return -1;
  }
  // The store is initialised once; a repeated initialize only repeats the
  // options, the system-file check and the timers. The test is on this
  // client's own connection rather than on the process-wide state, so that a
  // second client of the process still connects.
  if (fs.isInitialized() && config.address != nullptr && m_address != config.address) {
    ZLOG(WARN, "GENERAL", 0, "initialize: this client stays connected to %s; %s is not used\n", m_address.c_str(),
         config.address);
  }
  if (!fs.isInitialized()) {
    // With local disks configured every connection of this client goes
    // through the combined store, the cover engine's own included.
    if (m_localStore.configure(CMediaContext::instance().config())) {
      m_cover->setConnector([this](CZarnFileSystem& f, const Config& c) { return m_localStore.connect(f, c); });
      // The files writers left in the store when it failed get their index
      // as soon as it is back.
      m_localStore.setReleasedSink([this](const std::vector<std::string>& paths) {
        for (const std::string& path : paths) m_indexFixer->submitFixWork(*m_fs, path);
      });
    }
    const bool connected = config.address != nullptr &&
                           (m_localStore.isSupport() ? m_localStore.connect(fs, config) : fs.initialize(config));
    if (!connected) {
      int32_t code = config.address == nullptr ? ZARN_E_INVALID_ARGUMENT : getLastError();
      const char* message = config.address == nullptr ? "Config.address is null" : getErrorMsg();
      ZLOG(ERROR, "GENERAL", code, "Zarn init error, %s\n", message);
      // A fresh handle, so that a later initialize starts clean.
      m_fs->setListener(nullptr);
      m_fs = std::make_shared<CZarnFileSystem>();
      applyConfigToStore();
      return -1;
    }
  }
  if (m_address.empty()) m_address = config.address;
  ZLOG(INFO, "GENERAL", 0, "Zarn init success.\n");
  values.setStoreUserName(userName);

  if (!checkSysFile(fs)) {
    values.sdkState.store(ZARN_STATE_FAILED);
    ZLOG(ERROR, "GENERAL", 0, "MediaClient check system file error.\n");
    return -1;
  }
  values.sdkState.store(ZARN_STATE_NORMAL);
  m_localStore.onLoginSDK(&fs);
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  m_cover->start(&fs, config, m_indexFixer.get());
  m_fixIndexTimer.start(TimerProcedure(this, &CMediaClientInternal::fixIndexTimerProc), kFixIndexDelayMs,
                        kFixIndexPeriodMs);
  CMediaContext::instance().startStatistics(this, [store = m_fs](StoreGauges& gauges) {
    SystemInfo info{};
    gauges.capacityKnown = store->getSystemInfo(info);
    gauges.totalBytes = info.totalCapacity;
    gauges.freeBytes = info.freeCapacity;
    gauges.lockRatio = lockRatio(*store);
  });
  ZLOG(INFO, "GENERAL", 0, "MediaClient initialize success.\n");
  return 0;
}

void CMediaClientInternal::onZarnStateChanged(CZarnFileSystem* fs, ZarnState state) {
  CAutoLock lock(m_stateMutex);
  if (fs != m_fs.get()) std::abort();  // a notification from a foreign handle is a programming error
  ZLOG(INFO, "GENERAL", 0, "onZarnStateChanged ZarnState: %d\n", static_cast<int>(state));
  CMediaValues& values = CMediaValues::instance();
  uint32_t current = values.sdkState.load();
  // Before the first successful initialize the state is deliberately not recorded.
  if (current == 0 || current == static_cast<uint32_t>(state)) return;
  ZLOG(INFO, "GENERAL", 0, "zarnStateChanged: %d -> %d\n", static_cast<int>(current), static_cast<int>(state));
  // Not restarted while pending: a burst of changes ends in one run, which sees
  // only the last state.
  if (!m_antiShakeTimer.isRunning()) {
    ZLOG(INFO, "GENERAL", 0, "onZarnStateChanged: timer start\n");
    m_antiShakeTimer.start(TimerProcedure(this, &CMediaClientInternal::antiShakeTimerProc), kAntiShakeDelayMs);
  }
  values.sdkState.store(static_cast<uint32_t>(state));
}

void CMediaClientInternal::antiShakeTimerProc(CTimer* /*timer*/) {
  CAutoLock lock(m_stateMutex);
  uint32_t state = CMediaValues::instance().sdkState.load();
  if (state == m_lastReportedState) return;  // a flap that ended where it began
  m_lastReportedState = state;
  if (state != ZARN_STATE_DEGRADED) {
    if (state == ZARN_STATE_FAILED) {
      m_exceptionTimer.start(TimerProcedure(this, &CMediaClientInternal::zarnExceptProc), kExceptionDelayMs,
                             kExceptionPeriodMs, 0, kExceptionExecTimeoutMs);
    } else if (state == ZARN_STATE_NORMAL) {
      m_exceptionTimer.stop(true);
    }
    if (m_localStore.onSDKState(state)) {
      ZLOG(INFO, "GENERAL", 0, "sdk state changte to %d\n", static_cast<int>(state));
    }
  }
  if (m_stateCallback && !m_localStore.isSupport()) {
    ZLOG(INFO, "GENERAL", 0, "zarnStateChanged callback to SS.\n");
    m_stateCallback(static_cast<ZarnState>(state));
  }
  ZLOG(INFO, "GENERAL", 0, "antiShakeTimerProc: zarnStateChanged to %d\n", static_cast<int>(state));
}

void CMediaClientInternal::zarnExceptProc(CTimer* /*timer*/) {
  if (CMediaContext::instance().streams().getStreamWriterCount() < 1) {
    // A store failed for an hour while nothing records: leave the restart to
    // the host's supervisor.
    ZLOG(INFO, "GENERAL", 0, "stream writer count is 0, exit.\n");
    std::abort();
  }
}

void CMediaClientInternal::fixIndexTimerProc(CTimer* /*timer*/) {
  const uint32_t now = CMediaValues::instance().localNow(m_clock);
  const uint32_t from = now - kFixIndexPeriodMs / 1000;
  std::set<uint32_t> ids;
  CMediaContext::instance().streams().getStreamIds(ids);
  ZLOG(INFO, "GENERAL", 0, "stream totalNum = %ld\n", static_cast<long>(ids.size()));
  const size_t total = scanForIndexFix(queryEnv(), store(), ids, from, now);
  ZLOG(INFO, "GENERAL", 0, "%s - %s, check %d files\n", timeText(from).c_str(), timeText(now).c_str(),
       static_cast<int>(total));
}

void CMediaClientInternal::setMaxLockRatio(int ratio) {
  ZLOG(DEBUG, "GENERAL", 0, "setMaxLockRatio: %d\n", ratio);
  bool present = false;
  CMediaContext::instance().config().getMaxLockRate(present);
  if (present) return;  // the configuration file wins
  if (static_cast<unsigned>(ratio) <= 100) {
    m_maxLockRatio = ratio;
  } else {
    ZLOG(ERROR, "GENERAL", 0, "setMaxLockRatio failed, ratio must be in 0-100\n");
  }
}

int CMediaClientInternal::getLockRatio() const { return lockRatio(store()); }

int CMediaClientInternal::queryRecordClipList(unsigned streamId, unsigned beginTime, unsigned endTime,
                                              std::vector<RecordClip>& clips, unsigned durationPerClip) {
  if (!storeReady(__FUNCTION__)) return -1;
  return Velto::Zarn::queryRecordClipList(queryEnv(), store(), streamId, beginTime, endTime, clips, durationPerClip);
}

int CMediaClientInternal::queryRecordFileList(unsigned streamId, unsigned beginTime, unsigned endTime,
                                              std::vector<RecordClipEx>& files) {
  if (!storeReady(__FUNCTION__)) return -1;
  return Velto::Zarn::queryRecordFileList(queryEnv(), store(), streamId, beginTime, endTime, files);
}

int CMediaClientInternal::queryAlignedClipList(unsigned streamId, unsigned beginTime, unsigned endTime,
                                               std::vector<RecordClip>& clips, unsigned durationPerClip) {
  if (!storeReady(__FUNCTION__)) return -1;
  return Velto::Zarn::queryAlignedClipList(queryEnv(), store(), streamId, beginTime, endTime, clips, durationPerClip);
}

int CMediaClientInternal::queryRecordStatus(unsigned streamId, unsigned beginTime, unsigned endTime,
                                            std::vector<bool>& status, unsigned step) const {
  CZarnFileSystem& fs = store();
  if (!storeReady(__FUNCTION__)) return -1;
  if (endTime < beginTime) {
    // The bitmap's size would wrap around to billions of bits.
    ZLOG(ERROR, "GENERAL", -1, "parameter error, endTS[%u] is before beginTS[%u]\n", endTime, beginTime);
    return -1;
  }
  return Velto::Zarn::queryRecordStatus(queryEnv(), fs, streamId, beginTime, endTime, status, step);
}

int CMediaClientInternal::deleteRecordClip(unsigned streamId, unsigned beginTime, unsigned endTime) {
  if (!storeReady(__FUNCTION__)) return -1;
  return Velto::Zarn::deleteRecordClip(queryEnv(), store(), streamId, beginTime, endTime);
}

int CMediaClientInternal::addStream(unsigned streamId, short type, bool sync) {
  ZLOG(DEBUG, "GENERAL", 0, "addStream: sid = %u, type = %d, sync = %d.\n", streamId, type, sync ? 1 : 0);
  store();
  if (!m_cover->hasCoverPolicy(streamId)) {
    uint32_t hours = CMediaContext::instance().config().getRecycleHours();
    if (hours == 0) {
      ZLOG(ERROR, "GENERAL", 0, "addStream(%u) failed because of no cover policy!\n", streamId);
      return -1;
    }
    ZLOG(DEBUG, "GENERAL", 0, "No cover policy, set to default hours in config file.addStream(%u)\n", streamId);
    setRecyclePolicy(streamId, hours, 0);
  }
  CStreamMgr& streams = CMediaContext::instance().streams();
  if (streams.getStreamWriter(streamId)) {
    ZLOG(WARN, "GENERAL", 0, "stream(%u) has existed!\n", streamId);
    return -1;
  }
  // A registration racing past the lookup is settled by the registry: the
  // first writer stays, the second is dropped.
  streams.addStreamWriter(streamId, std::make_shared<CStreamWriter>(m_fs, streamId, type, sync,
                                                                   CMediaContext::instance().writerEnv(m_clock)));
  // A writer of this stream that died left its last file under its open name,
  // where no listing reports it: repair it now rather than never.
  if (m_fs->isInitialized()) {
    m_indexFixer->submitStreamCheck(*m_fs, streamId, CMediaValues::instance().localNow(m_clock));
  }
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
  ZLOG(DEBUG, "GENERAL", 0, "deleteStream: sid = %u.\n", streamId);
  std::shared_ptr<CStreamWriter> writer = CMediaContext::instance().streams().delStreamWriter(streamId);
  if (!writer) {
    ZLOG(WARN, "GENERAL", 0, "stream(%u) not find.!\n", streamId);
    return -1;
  }
  writer->closeStream(writer);
  return 0;
}

int CMediaClientInternal::addSession(unsigned streamId, unsigned beginTime, unsigned endTime, bool sync) {
  ZLOG(DEBUG, "GENERAL", 0, "addSession: sid = %u, begin = %u, end = %u, sync = %d.\n", streamId, beginTime, endTime, sync ? 1 : 0);
  store();
  CMediaContext& context = CMediaContext::instance();
  return context.streams().addStreamReader(
      std::make_shared<CStreamReader>(m_fs, streamId, beginTime, endTime, sync, context.readerEnv(m_clock)));
}

int CMediaClientInternal::readFrame(unsigned sessionId, VeltoFrame* frame, unsigned long long& length,
                                    bool keyFramesOnly, bool reverse) {
  std::shared_ptr<CStreamReader> reader = findSession(sessionId, __FUNCTION__);
  if (!reader) return -5;
  return reader->readFrame(frame, length, keyFramesOnly, reverse);
}

int CMediaClientInternal::seek(unsigned sessionId, unsigned seekTime) {
  ZLOG(DEBUG, "GENERAL", 0, "seek: sessionID = %u. seekTS = %u.\n", sessionId, seekTime);
  std::shared_ptr<CStreamReader> reader = findSession(sessionId, __FUNCTION__);
  if (!reader) return -5;
  return reader->seek(seekTime);
}

int CMediaClientInternal::deleteSession(unsigned sessionId) {
  ZLOG(DEBUG, "GENERAL", 0, "deleteSession: sessionID = %u.\n", sessionId);
  std::shared_ptr<CStreamReader> reader =
      CMediaContext::instance().streams().delStreamReader(static_cast<int32_t>(sessionId));
  if (!reader) {
    ZLOG(WARN, "GENERAL", 0, "session(%u) not find\n", sessionId);
    return -1;
  }
  reader->deleteSession(reader);
  return 0;
}

bool CMediaClientInternal::cutWriterAt(unsigned streamId, unsigned time) {
  std::shared_ptr<CStreamWriter> writer = CMediaContext::instance().streams().getStreamWriter(streamId);
  // The file being written must not carry frames past the locked range unseen.
  if (writer && !writer->forceCutFile(time)) {
    ZLOG_IN(ERROR, "GENERAL", "lockStream", 0, "forceCutFile failed !\n");
    return false;
  }
  return true;
}

int CMediaClientInternal::lockStream(unsigned streamId, unsigned beginTime, unsigned endTime) {
  ZLOG(DEBUG, "GENERAL", 0, "lockStream: sid = %u, begin = %u, end = %u\n", streamId, beginTime, endTime);
  if (!storeReady(__FUNCTION__)) return -3;
  if (!cutWriterAt(streamId, endTime)) return -3;
  CAutoLock lock(m_lockMutex);
  return lockRange(queryEnv(), store(), streamId, beginTime, endTime, m_maxLockRatio);
}

int CMediaClientInternal::lockStream(unsigned streamId, std::vector<RecordClip>& clips) {
  ZLOG(DEBUG, "GENERAL", 0, "lockStream: sid = %u. size = %zu\n", streamId, clips.size());
  if (clips.empty()) return 0;
  // Clips in time order, none overlapping the one before: anything else would
  // lock a file twice in one call, and unlocking the same list would not undo it.
  for (size_t i = 0; i < clips.size(); ++i) {
    if (clips[i].endTime < clips[i].beginTime || (i > 0 && clips[i].beginTime < clips[i - 1].endTime)) {
      ZLOG(ERROR, "GENERAL", 0, "lockStream: clip %zu [%u, %u) is empty or not after the clip before it\n", i,
           clips[i].beginTime, clips[i].endTime);
      return -3;
    }
  }
  if (!storeReady(__FUNCTION__)) return -3;
  if (!cutWriterAt(streamId, clips.back().endTime)) return -3;
  std::vector<std::pair<unsigned, unsigned>> done;
  int result = 0;
  for (size_t i = 0; i < clips.size();) {
    // A run of adjacent clips is one range.
    const unsigned begin = clips[i].beginTime;
    unsigned end = clips[i].endTime;
    for (++i; i < clips.size() && clips[i].beginTime == end; ++i) end = clips[i].endTime;
    ZLOG(INFO, "GENERAL", 0, "lockstream  %s - %s\n", timeText(begin).c_str(), timeText(end).c_str());
    const int locked = lockStream(streamId, begin, end);
    done.emplace_back(begin, end);
    if (locked == -1) {
      result = -1;
    } else if (locked != 0) {
      unsigned char lockNum = 0;
      for (const auto& [b, e] : done) unlockStream(streamId, b, e, lockNum, false);
      return locked;
    }
  }
  return result;
}

int CMediaClientInternal::unlockStream(unsigned streamId, unsigned beginTime, unsigned endTime,
                                       unsigned char& lockNum, bool all) {
  ZLOG(DEBUG, "GENERAL", 0, "unlockStream: sid = %u, begin = %u, end = %u\n", streamId, beginTime, endTime);
  lockNum = 0;
  if (!storeReady(__FUNCTION__)) return -1;
  uint8_t left = 0;
  const int result = unlockRange(queryEnv(), store(), streamId, beginTime, endTime, left, all);
  lockNum = left;
  return result;
}

int CMediaClientInternal::setRecyclePolicy(unsigned streamId, unsigned durationHours, unsigned space) {
  ZLOG(DEBUG, "GENERAL", 0, "setRecyclePolicy streamID:%u durationHours:%u space:%u\n\n", streamId, durationHours, space);
  return m_cover->setCoverPolicy(streamId, durationHours, space);
}

int CMediaClientInternal::setRecyclePolicy(const std::string& cameraId, std::list<unsigned>& streamIds,
                                           unsigned durationHours, unsigned space) {
  ZLOG(DEBUG, "GENERAL", 0, "setRecyclePolicy cameraID:%s durationHours:%u space:%u\n\n", cameraId.c_str(), durationHours, space);
  return m_cover->setCameraCoverPolicy(cameraId, streamIds, durationHours, space);
}

int CMediaClientInternal::setUrgentRecycleRatio(unsigned ratio) {
  ZLOG(DEBUG, "GENERAL", 0, "setUrgentRecycleRatio ratio:%u\n\n", ratio);
  bool present = false;
  CMediaContext::instance().config().getCyclicCoverThresholdRate(present);
  if (present) return 0;  // the configuration file wins
  return m_cover->setUrgentRecycleRatio(ratio);
}

bool CMediaClientInternal::getSystemInfo(SystemInfo& info) { return store().getSystemInfo(info); }

int CMediaClientInternal::setForgottenStorage(unsigned streamId, unsigned durationHours, unsigned space) {
  ZLOG(DEBUG, "GENERAL", 0, "setForgottenStorage streamID:%u durationHours:%u space:%u\n\n", streamId, durationHours, space);
  return m_cover->setForgottenStorage(streamId, durationHours, space);
}

bool CMediaClientInternal::isSupportLocalStore() { return m_localStore.isSupport(); }

bool CMediaClientInternal::discardStream(unsigned streamId, unsigned durationHours, unsigned space) {
  ZLOG(DEBUG, "GENERAL", 0, "discardStream streamID:%u durationHours:%u space:%u\n\n", streamId, durationHours, space);
  return m_cover->discardStream(streamId, durationHours, space);
}

int CMediaClientInternal::deleteRecord(const std::string& cameraId, std::list<unsigned>& streamIds) {
  ZLOG(INFO, "GENERAL", 0, "start delete record, cameraID:%s\n\n", cameraId.c_str());
  m_cover->addDeleteStreams(streamIds);
  // Twice, as the host has always seen it; the second finds nothing to change.
  m_cover->setCameraCoverPolicy(cameraId, streamIds, 0, 0);
  m_cover->setCameraCoverPolicy(cameraId, streamIds, 0, 0);
  for (unsigned id : streamIds) m_cover->setForgottenStorage(id, 0, 0);
  return 0;
}

}  // namespace Velto::Zarn
