// CStreamWriter: the recording engine of one stream.
//
// Takes every frame of the stream, appends it to the stream's current record
// file, keeps the file's key-frame index, cuts to a new file at a key frame
// when length, duration, a time hop or a forced cut demands, and closes the
// last file when the stream is closed.
//
// Two modes, fixed at construction:
//   sync   writeFrame writes on the caller's thread before it returns (no heap
//          allocation per frame);
//   async  writeFrame copies the frame into a cache of at most 100 frames and
//          returns at once (-2 when full); a writer-queue thread writes at most
//          25 frames per pass and gives a pass up when the store takes nothing,
//          so one slow stream never holds a queue thread. The frames of a pass
//          up to each key frame reach the store in one gathered write; the
//          copy into the cache is the only copy of a frame's bytes.
//
// Results: 0 taken (or deliberately dropped), -2 cache full, -3 file fault.
// File fault is one-way: after a write error or a failed file creation every
// write returns -3.
//
// Both modes take every frame down one path: screening (the first file is
// created, or the current one cut, then the sequence rules decide whether the
// frame is kept), then its bytes, then its index entry. A sync write blocks on
// a store that takes nothing; a worker pass gives up and resumes the frame
// where it stopped.
//
// Lifecycle (CAsyncEngine): the registry holds the writer; closeStream hands
// it its own reference, the close flushes every cached frame and closes the
// current file, and the final run on the writer queue lets the writer go.
//
// Threads: writeFrame on the host's thread (a sync write under the item
// mutex); runs on a writer-queue thread (under the item mutex); the
// asynchronous close on the writer's own one-shot timer; forceCutFile on the
// locking caller's thread. The frame cache is the only structure writeFrame
// and the worker share (m_cacheMutex); the file state has its own mutex. Lock
// order: work-queue mutex, then item mutex, then cache mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "AsyncEngine.h"
#include "EngineEnv.h"
#include "KanduSync.h"
#include "RecordFile.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

class CStreamWriter : public CAsyncEngine {
 public:
  static constexpr size_t kCacheFrames = 100;     // async cache bound
  static constexpr size_t kFramesPerPass = 25;    // frames a worker pass takes over
  static constexpr size_t kItemPoolSize = 8;      // written frame items kept for reuse
  static constexpr size_t kMaxGather = 32;        // frames of one gathered store write
  static constexpr uint32_t kTimeHopSeconds = 601;
  static constexpr int32_t kMaxCutsInProgress = 10;
  static constexpr uint32_t kForceCutWaitMs = 10000;
  // The most a flush pads (one stripe): 16 MiB, 512 data shards of 32 KiB.
  static constexpr uint32_t kMaxPaddingBytes = 16u << 20;

  CStreamWriter(std::shared_ptr<CZarnFileSystem> fs, uint32_t sid, int16_t type, bool sync, const EngineEnv& env);
  ~CStreamWriter() override;

  // frameTime 0 records the frame under its own time. `written` receives the
  // bytes taken (the frame length), 0 when the frame was not taken.
  int32_t writeFrame(const VeltoFrame* frame, uint32_t frameTime, unsigned long long& written);
  // Pads the current file to the next stripe boundary with a padding frame
  // (sync writers only; an async writer aborts). 0 or -3 (a write fault, or a
  // stripe that no padding frame can fill: then the file stays as it is).
  int32_t flushFrame();
  // Cuts the current file at the next key frame if it holds frames from before
  // `time`; waits for the cut at most 10 s. true when done (or nothing to cut).
  bool forceCutFile(uint32_t time);
  void cutResultNotify(uint8_t result);
  // Starts the asynchronous close; `self` is the registry's reference to this
  // writer, kept until the close has run. Returns at once. A second close is
  // a programming error and aborts.
  void closeStream(std::shared_ptr<CStreamWriter> self);

  void fileStateChangedProc(int state);

  uint32_t sid() const { return m_sid; }
  // After a write error or a failed file creation: every write returns -3.
  bool isFileFault() const { return backgroundError() != 0; }
  bool isForceCutPendingForTest() const { return m_forceCutPending.load(); }
  // Process-wide count of cuts in progress (for tests).
  static int32_t cutsInProgress();

 private:
  struct FrameItem {
    std::vector<uint8_t> bytes;  // the whole frame
    uint32_t frameTime = 0;
    uint32_t writtenBytes = 0;   // of the current item only
    bool screened = false;       // passed cut decision and checkFrame (a resumed item is not screened again)
    bool indexed = false;        // gets an index entry once written (decided when screened)
    bool timed = false;          // recordTime is set: the file's last time has moved past it
    uint32_t recordTime = 0;     // the time the frame is recorded under
    const VeltoFrameHead& head() const { return *reinterpret_cast<const VeltoFrameHead*>(bytes.data()); }
  };

  // A worker pass: true to be run again at once (the store took nothing).
  bool run() override;
  void onIdle() override;
  void onClose() override;

  enum class Screen { Write, Drop, Fault };
  // Before a frame's first byte: the file it goes to (the first one created,
  // or the current one cut at a key frame) and the sequence rules.
  Screen screenFrame(const VeltoFrameHead& head, const uint8_t* frameBytes, uint32_t frameTime);
  // Whether a screened frame gets an index entry (read right after screening:
  // the next screening changes the SVC state).
  bool needsIndexEntry(const VeltoFrameHead& head) const;
  // The time a frame is recorded under; moves the file's last time to it. Runs
  // once per frame, in frame order, before the next frame is screened.
  uint32_t advanceLastTime(const VeltoFrameHead& head, uint32_t frameTime);
  // A frame written whole: the file's last time and its index entry.
  // `position`: where the frame starts in the file's data.
  void recordWritten(const VeltoFrameHead& head, uint32_t time, bool indexed, uint64_t position);
  void finishItem(FrameItem& item, uint64_t position);
  // Writes the screened, untouched `first` and the frames after it up to the
  // next key frame in one store call. Frames the store did not take go back
  // (the one it took part of as m_curFrameItem). 0 or -3.
  int32_t writeGathered(std::unique_ptr<FrameItem> first);
  bool couldCutFile(const VeltoFrameHead& head, uint32_t frameTime);
  void cutFile(uint32_t frameTime);
  bool createFile(uint32_t startTime, bool asNext);
  // Moves a leftover open file of a dead writer off `openName` (to a name that
  // asks for repair); false when the name is held by a live writer or free.
  bool setAsideLeftover(const RecordFileName& openName);
  // Makes `file` the current file: file state 1, entered in the table of files being written.
  void becomeCurrent(std::unique_ptr<CRecordFile> file);
  void closeCurrentFile();
  bool switchToNextFile();
  bool checkFrame(const VeltoFrameHead& head, const uint8_t* frameBytes);
  // Writes bytes[done..length); blocking retries 0-byte writes every 5 ms.
  // 0 complete, -2 the store took nothing (non-blocking), -3 fault (the
  // caller decides whether the fault is the writer's).
  int32_t writeBlk(const uint8_t* bytes, uint32_t length, uint32_t& done, bool blocking);
  // writeBlk for a frame whose time is `frameTime`: a fault fails over to a
  // new file (and the whole frame goes there) or becomes the writer's fault.
  int32_t writeFrameBlk(const uint8_t* bytes, uint32_t length, uint32_t& done, bool blocking, uint32_t frameTime);
  // After a write fault: with a local-disk store and a store fault, closes the
  // current file as it stands and creates a new one at `frameTime` (on a local
  // disk while the store is failed). false: the fault stands.
  bool failOver(uint32_t frameTime);
  // One worker pass; true when it gave up because the store took nothing.
  bool doWriteFrame(bool flushAll);
  bool ensureBucket();
  bool cachePending();
  void clearFrameBuf();
  void recycle(std::unique_ptr<FrameItem> item);

  std::shared_ptr<CZarnFileSystem> m_fs;
  const EngineEnv m_env;
  const uint32_t m_sid;
  const int16_t m_type;
  const bool m_sync;

  std::unique_ptr<CRecordFile> m_curFile;   // writing thread only
  std::unique_ptr<CRecordFile> m_nextFile;  // writing thread only
  Velto::Kandu::CMutex m_fileStateMutex;
  int32_t m_fileState = 0;                  // guarded by m_fileStateMutex
  bool m_fileCreated = false;
  bool m_keyFrameSeen = false;

  Velto::Kandu::CMutex m_cacheMutex;
  std::deque<std::unique_ptr<FrameItem>> m_framesBuf4Cache;  // guarded by m_cacheMutex
  std::deque<std::unique_ptr<FrameItem>> m_framesBuf4Write;  // worker only
  std::unique_ptr<FrameItem> m_curFrameItem;                 // worker only
  // Written items kept for the next frames, so a steady stream reuses its
  // buffers instead of faulting in fresh heap pages for every frame.
  std::vector<std::unique_ptr<FrameItem>> m_itemPool;        // guarded by m_cacheMutex
  std::vector<std::unique_ptr<FrameItem>> m_gather;          // worker only; kept for its capacity
  std::vector<StoreSlice> m_slices;                          // worker only; kept for its capacity

  uint32_t m_zeroWriteCount = 0;  // store calls in a row that took nothing
  bool m_lastPassBlocked = false;  // worker only
  std::vector<uint8_t> m_padding;  // one stripe, made at the first flush (idle writers pay nothing)

  std::atomic<bool> m_hasCurFile{false};         // read by forceCutFile's caller
  std::atomic<uint32_t> m_curFileStartTime{0};   // read by forceCutFile's caller
  uint32_t m_curFileLastTime = 0;

  std::atomic<bool> m_forceCutPending{false};
  std::atomic<uint8_t> m_forceCutResult{0};
  std::atomic<uint32_t> m_forceCutTime{0};
  Velto::Kandu::CSemaphore m_forceCutSemaphore{0};
  Velto::Kandu::CMutex m_forceCutMutex;

  const uint32_t m_maxFileLength;
  const uint32_t m_maxFileDuration;
  const uint32_t m_minCutFileTime;
  const bool m_svcEnabled;

  uint8_t m_svcLevels = 0xFF;
  uint8_t m_svcLayerFlag = 0xFF;
  uint32_t m_lastSequence = 0;
  uint32_t m_refSequence = 0;
  bool m_refFound = false;

  bool m_bucketUnchecked = true;
  bool m_timeHopping = false;
  uint16_t m_lastMsStamp = 0;
};

}  // namespace Velto::Zarn
