// CMediaClientInternal: everything behind the exported CMediaClient.
//
// Owns the store connection and the client's three timers; reads and writes
// the process-wide values. Engines (writers, readers) belong to the
// process-wide registry, not to the client, and outlive it.
//
// Time: the client runs on the clock it is given (the system clock for a
// host): its timers fall due on it, and "now" for record times is read from
// it, for the client and for the queries and engines it creates. A test gives
// a manual clock and moves it past the debounce, the watchdog and the hourly
// index-fix scan.
//
// Locking: m_stateMutex serialises initialize, the store's state notifications
// (store client thread) and the anti-shake procedure (timer thread); the host's
// callback is called while it is held, so the callback must not call
// initialize. m_lockMutex serialises range locks. Timer procedures other than
// anti-shake take only the registry's own locks.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "CyclicCover.h"
#include "KanduSync.h"
#include "KanduTimer.h"
#include "KanduClock.h"
#include "LocalStoreMgr.h"
#include "QueryEnv.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

class CIndexFixerMgr;

class CMediaClientInternal : public IZarnListener {
 public:
  // Timer delays, ms of the client's clock.
  static constexpr uint32_t kAntiShakeDelayMs = 60000;     // debounce of store state changes
  static constexpr uint32_t kFixIndexDelayMs = 1200000;    // first index-fix scan after 20 min
  static constexpr uint32_t kFixIndexPeriodMs = 3600000;   // then hourly, over the last period
  static constexpr uint32_t kExceptionDelayMs = 3600000;   // watchdog: first check after 1 h failed
  static constexpr uint32_t kExceptionPeriodMs = 300000;   // then every 5 min
  static constexpr uint32_t kExceptionExecTimeoutMs = 60000;

  // `clock` must outlive the client.
  explicit CMediaClientInternal(Velto::Kandu::IClock& clock = Velto::Kandu::systemClock());
  ~CMediaClientInternal() override;
  CMediaClientInternal(const CMediaClientInternal&) = delete;
  CMediaClientInternal& operator=(const CMediaClientInternal&) = delete;

  void onZarnStateChanged(CZarnFileSystem* fs, ZarnState state) override;

  void enableZarnClientLog(int logLevel, const char* logPath);
  void setMediaSDKLogFile(const char* path);
  void setDefaultECType(unsigned short dataNum, unsigned short ecNum);
  void setTimeZoneDiff(int hours);
  int initialize(const Config& config, Velto::Kandu::TFunction1<void, ZarnState> callback);
  void setMaxLockRatio(int ratio);
  void setMaxFrameSize(int bytes);
  int getLockRatio() const;

  int queryRecordClipList(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<RecordClip>& clips,
                          unsigned durationPerClip);
  int queryRecordFileList(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<RecordClipEx>& files);
  int queryAlignedClipList(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<RecordClip>& clips,
                           unsigned durationPerClip);
  int queryRecordStatus(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<bool>& status,
                        unsigned step) const;
  int deleteRecordClip(unsigned streamId, unsigned beginTime, unsigned endTime);

  int addStream(unsigned streamId, short type, bool sync);
  int writeFrame(unsigned streamId, const VeltoFrame* frame, unsigned frameTime, unsigned long long& position);
  int flushFrame(unsigned streamId);
  int deleteStream(unsigned streamId);
  int addSession(unsigned streamId, unsigned beginTime, unsigned endTime, bool sync);
  int readFrame(unsigned sessionId, VeltoFrame* frame, unsigned long long& length, bool keyFramesOnly, bool reverse);
  int seek(unsigned sessionId, unsigned seekTime);
  int deleteSession(unsigned sessionId);

  int lockStream(unsigned streamId, std::vector<RecordClip>& clips);
  int lockStream(unsigned streamId, unsigned beginTime, unsigned endTime);
  int unlockStream(unsigned streamId, unsigned beginTime, unsigned endTime, unsigned char& lockNum, bool all);

  int setRecyclePolicy(unsigned streamId, unsigned durationHours, unsigned space);
  int setRecyclePolicy(const std::string& cameraId, std::list<unsigned>& streamIds, unsigned durationHours,
                       unsigned space);
  int setUrgentRecycleRatio(unsigned ratio);
  bool getSystemInfo(SystemInfo& info);
  int setForgottenStorage(unsigned streamId, unsigned durationHours, unsigned space);
  bool isSupportLocalStore();
  bool discardStream(unsigned streamId, unsigned durationHours, unsigned space);
  int deleteRecord(const std::string& cameraId, std::list<unsigned>& streamIds);

  // Test seams.
  CZarnFileSystem* storeForTest() { return m_fs.get(); }
  CIndexFixerMgr& indexFixerForTest() { return *m_indexFixer; }
  uint32_t lastReportedStateForTest() const { return m_lastReportedState; }
  bool exceptionTimerRunningForTest() const { return m_exceptionTimer.isRunning(); }
  bool antiShakeTimerRunningForTest() const { return m_antiShakeTimer.isRunning(); }
  bool fixIndexTimerRunningForTest() const { return m_fixIndexTimer.isRunning(); }
  int maxLockRatioForTest() const { return m_maxLockRatio; }
  bool hasRecyclePolicyForTest(unsigned streamId) const { return m_cover->hasCoverPolicy(streamId); }
  CZarnCyclicCover& coverForTest() { return *m_cover; }
  CLocalStoreMgr& localStoreForTest() { return m_localStore; }

 private:
  void antiShakeTimerProc(Velto::Kandu::CTimer* timer);
  void zarnExceptProc(Velto::Kandu::CTimer* timer);
  void fixIndexTimerProc(Velto::Kandu::CTimer* timer);
  void applyConfigToStore();
  CZarnFileSystem& store() const;  // aborts when the handle is missing
  QueryEnv queryEnv() const;
  // false, with an error line naming `function`, before a successful initialize.
  bool storeReady(const char* function) const;
  // Cuts the stream's file being written at `time` (true without a writer).
  bool cutWriterAt(unsigned streamId, unsigned time);

  Velto::Kandu::IClock& m_clock;
  // Shared with the engines, which may outlive the client (they belong to the
  // process-wide registry); replaced by initialize after a failed store init.
  std::shared_ptr<CZarnFileSystem> m_fs;
  // Repairs this client's files that lack a usable index; before m_fs goes.
  std::unique_ptr<CIndexFixerMgr> m_indexFixer;
  // Recycling; stopped first in the destructor (it uses m_fs and m_indexFixer).
  std::unique_ptr<CZarnCyclicCover> m_cover;
  std::string m_address;  // the store this client's connection reached (guarded by m_stateMutex)
  int32_t m_zarnTimeout;
  int32_t m_maxLockRatio;                 // percent; read by range locks (under m_lockMutex)
  Velto::Kandu::CMutex m_lockMutex;
  Velto::Kandu::CMutex m_stateMutex;
  Velto::Kandu::TFunction1<void, ZarnState> m_stateCallback;  // guarded by m_stateMutex
  CLocalStoreMgr m_localStore;
  uint32_t m_lastReportedState = 0;       // guarded by m_stateMutex
  // Timers last: destroyed first, so no procedure outlives the members it uses.
  Velto::Kandu::CTimer m_antiShakeTimer;
  Velto::Kandu::CTimer m_fixIndexTimer;
  Velto::Kandu::CTimer m_exceptionTimer;
};

// Prints the version banner (an info line and a warning that the build is not
// an official release).
void printVersionBanner();

}  // namespace Velto::Zarn
