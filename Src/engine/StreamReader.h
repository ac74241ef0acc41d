// CStreamReader: the playback engine of one session, a time range
// [begin, end] (seconds, both ends inclusive) of one stream.
//
// The reader finds the record file that holds a time through the bucket
// listings (findFirstFileEndingAfter / findLastFileBeginningBefore), opens it,
// positions it through its key-frame index (or proportionally by time when the
// file has none), reads frames and hands them over through a bounded frame
// buffer: at most 50 frames ahead in forward order, 8 in the other orders.
// The reading runs as a work item on the reader queue; readFrame only takes
// frames out of the buffer and kicks the worker when it has gone idle.
//
// Read orders (chosen per readFrame call by its two flags):
//   0 forward, every frame;
//   1 forward, key frames only (jumping from index entry to index entry);
//   2 reverse: each group of pictures forward, the groups backwards;
//   3 reverse on the index: key frames only, backwards.
// Orders 2 and 3 need the file's index.
//
// Session bounds: forward playback starts with the group of pictures that
// holds `begin` (its key frame may be older) and ends before the first frame
// newer than `end`; reverse playback skips frames newer than `end` and ends
// after the group of pictures that holds `begin`. The end of the session is
// readFrame result 0 with length 0.
//
// A file still being written is waited on, not ended: a read that finds no
// more bytes, an index without the next entry, or padding not yet complete is
// "retry later", and readFrame reports -2 meanwhile. Its index is borrowed
// from the stream's writer (CWritingFileTable) so that every order works on it.
//
// Results of readFrame: 0 frame (or end of session with length 0), -2 not
// ready, -3 fault. seek and changeReadOrder: 0 or -1.
//
// Threads: readFrame, seek and changeReadOrder on host threads; execute on a
// reader-queue thread under the item mutex; the delete procedure on the
// reader's own one-shot timer. The status has its own mutex (m_statusMutex),
// the frame buffer its own (m_bufferMutex); everything about the open file and
// the assembly buffer belongs to the worker alone. A host call that restarts
// the reading (seek, order change) bumps m_generation under the buffer mutex,
// so a frame read before it is never appended after it. Lock order: item
// mutex, then status mutex, then buffer mutex.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "KanduSync.h"
#include "KanduTimer.h"
#include "RecordFile.h"
#include "RecordFileName.h"
#include "WorkQueue.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

class CStreamReader : public CWorkItem {
 public:
  enum Status : int32_t {
    STATUS_WAIT_OPEN_FILE = 0,
    STATUS_SEEKING = 1,
    STATUS_SEEK_OVER = 2,
    STATUS_READING = 3,
    STATUS_ORDER_CHANGING = 4,
    STATUS_ORDER_CHANGED = 5,
    STATUS_END_OF_SESSION = 6,
    STATUS_FAULT = 7,
    STATUS_CLOSING = 8,
    STATUS_DESTROY = 9,
  };
  enum Order : int32_t {
    ORDER_FORWARD = 0,
    ORDER_FORWARD_KEY = 1,
    ORDER_REVERSE = 2,
    ORDER_REVERSE_KEY = 3,
  };

  static constexpr size_t kForwardBufferFrames = 50;
  static constexpr size_t kOtherBufferFrames = 8;
  static constexpr uint32_t kBlockPollMs = 50;
  static constexpr uint32_t kBlockLimitMs = 1000;
  // Damaged bytes skipped in one run of resynchronisation before the file is
  // taken as ended.
  static constexpr uint64_t kMaxSkipBytes = 4194304;
  // Listing window tried first around a time, seconds (two record files).
  static constexpr uint32_t kNearWindowSeconds = 7200;
  // A blocking readFrame asleep on an empty buffer is woken once this many
  // frames, or bytes, are buffered (in forward order; half the read-ahead in
  // the others), or when the worker's run ends: a wake-up is a context switch
  // on each side and costs more than copying many frames, so a caller that
  // drains faster than the worker reads gets one per batch, not one per frame.
  static constexpr size_t kWakeFrames = 50;
  static constexpr uint64_t kWakeBytes = 1024 * 1024;
  // A worker run ends after this many frames or bytes and resubmits the
  // reader, so that the five workers take turns over every busy session.
  static constexpr uint32_t kRunFrames = 100;
  static constexpr uint64_t kRunBytes = 4 * 1024 * 1024;
  // Frame items kept for reuse, at most a full forward buffer's worth: a
  // steady stream allocates nothing per frame.
  static constexpr size_t kSpareItems = kForwardBufferFrames;

  CStreamReader(std::shared_ptr<CZarnFileSystem> fs, uint32_t streamId, uint32_t beginTime, uint32_t endTime,
                bool sync);
  ~CStreamReader() override;

  // Copies the next frame into `frame` and its length into `length`. The
  // frame's buffer is used as it is: an attached buffer is trusted to hold the
  // maximum frame size, an owned one is checked against its bufferSize (a
  // larger frame is dropped with -3), an empty record gets an owned buffer of
  // the maximum frame size.
  int32_t readFrame(VeltoFrame* frame, unsigned long long& length, bool keyFramesOnly, bool reverse);
  int32_t seek(uint32_t time);
  int32_t changeReadOrder(int32_t order);
  // Compare-and-set of the status: 0, or -1 when it was not `expected`.
  int32_t changeStatus(int32_t newStatus, int32_t expected);

  // Starts the asynchronous delete; `self` is the registry's reference to this
  // reader, kept until the last run of execute. Returns at once.
  void deleteSession(std::shared_ptr<CStreamReader> self);

  void execute() override;

  int32_t status() const;
  int32_t order() const { return m_order.load(); }
  uint32_t streamId() const { return m_streamId; }
  size_t bufferedFramesForTest() const;
  bool isIdleForTest() const { return m_idle.load(); }

  static const char* statusName(int32_t status);

  // Byte offset for `time` in a file without index, assuming bytes spread
  // evenly over [beginTime, endTime]; 0 when the time lies outside or the
  // range is empty.
  uint64_t calcOffsetByTime(uint32_t beginTime, uint32_t endTime, uint32_t time, uint64_t fileSize) const;

 private:
  struct FrameItem {
    std::unique_ptr<uint8_t[]> bytes;  // the whole frame, `length` bytes of `capacity`
    uint32_t capacity = 0;
    uint32_t length = 0;
    uint64_t offset = 0;               // of its head in the record file
    uint32_t time = 0;                 // UTC seconds (index time for key frames of an indexed file)
  };

  // One frame-or-skip pass over the open file. 1 go on, 0 retry later, -1
  // fault, -2 end of file, -3 end of session, -4 buffer full.
  int32_t readRecordFile(uint64_t generation);
  int32_t prepareForNextFrame(uint32_t frameTime, uint32_t length, uint64_t offset);
  // The reading step of status "Reading": reads until the buffer is full, a
  // retry, a fault or the end of the session, crossing file boundaries.
  int32_t readingStep(uint64_t generation);
  // 1 opened and positioned, 0 retry (renamed meanwhile), -1 fault.
  int32_t openRecordFile(const RecordFileName& info, uint32_t time);
  void closeRecordFile();
  void clearBuf();
  void stopAsynExec();
  void timerProc(Velto::Kandu::CTimer* timer);

  void doWaitOpenFile();
  void doSeekOver();
  void doOrderChanged();

  // Moves the open file to `offset` and forgets any partial frame; in the
  // reverse orders the group of pictures starting there becomes current.
  bool positionAt(uint64_t offset);
  // Reverse orders: to the key frame before the current group of pictures.
  // 1 moved, -2 none in this file, -1 seek failure, -3 the current group
  // already holds the session begin.
  int32_t jumpBack();
  // The data of the open file ended: in the reverse orders the current group
  // of pictures is complete (jumpBack), forward it is the end of the file (-2).
  int32_t endOfData();
  bool skipFakeFrame(uint64_t frameStart, uint32_t length);
  bool forceStatus(int32_t newStatus);  // retries until set; false once closing
  void kick();                          // submits an idle reader that may run
  void throttleRetry();
  // Reads into `buffer` until `have` reaches `want` bytes (`have` counts what
  // is there and is kept across retries); each store call also asks for up to
  // `extra` bytes more, which `buffer` must have room for (never past the
  // data of a closed file). 1 done, 0 no more bytes yet, -2 end of the file's
  // data, other negatives store failures.
  int32_t readInto(uint8_t* buffer, uint32_t& have, uint32_t want, uint32_t extra = 0);
  int32_t fillAssembly(uint32_t want);
  // File offset of the first byte not yet taken as a frame: the start of the
  // frame being assembled.
  uint64_t parsePos() const { return m_readPos - m_assemblyCount - (m_pendingItem ? m_pendingFilled : 0); }
  void ensureAssembly(uint32_t want);
  // Drops damaged bytes from the front of the assembly buffer up to the next
  // candidate head. false when the session's skip limit is reached.
  bool resync();
  int32_t searchFile(uint32_t time, RecordFileName& out);  // 1 found, 0 none, -1 failure
  // The session's listing range: inclusive at both ends, as listings take [b, e).
  uint32_t gatherBegin() const;
  uint32_t gatherEnd() const;
  // The first file ending after t / the last file ending at or before t, in
  // the session; false when the listing fails.
  bool findAfter(uint32_t t, RecordFileName& out);
  bool findBefore(uint32_t t, RecordFileName& out);
  bool fileHolds(uint32_t time) const;
  uint32_t fileEndTime() const;  // name, complete index, or the listing's end
  bool hasIndex() const;         // states 2 and 4
  bool fileClosed() const;       // no more bytes will come
  void borrowWriterIndex();
  bool isReverse(int32_t order) const { return order == ORDER_REVERSE || order == ORDER_REVERSE_KEY; }
  size_t bufferLimit(int32_t order) const;
  // Appends a frame read under `generation` and wakes a waiting caller once a
  // batch is there; false (the item is recycled) when a seek or order change
  // came meanwhile.
  bool appendFrame(std::unique_ptr<FrameItem> item, uint64_t generation, int32_t order);
  void wakeWaiters();  // end of a worker run: hand over whatever is buffered
  // An item for a frame of `length` bytes, with room for the head of the frame
  // after it; a spare one when one fits.
  std::unique_ptr<FrameItem> takeItem(uint32_t length);
  void recycleItem(std::unique_ptr<FrameItem> item);
  uint32_t frameUtc(const uint8_t* head);  // frameTime, remembering the last conversion

  std::shared_ptr<CZarnFileSystem> m_fs;
  const uint32_t m_streamId;
  const uint32_t m_beginTime;
  const uint32_t m_endTime;
  const bool m_sync;
  CWorkQueue& m_queue;

  mutable Velto::Kandu::CMutex m_statusMutex;
  // Changed only under m_statusMutex (compare-and-set); read without it.
  std::atomic<int32_t> m_status{STATUS_WAIT_OPEN_FILE};
  std::atomic<int32_t> m_order{ORDER_FORWARD};
  std::atomic<bool> m_stop{false};
  std::atomic<bool> m_idle{true};

  std::atomic<uint32_t> m_readedFrameUTC{0};  // last key frame handed out; 0 none yet
  std::atomic<uint64_t> m_readedFrameOffset{0};
  std::atomic<uint32_t> m_seekTime{0};
  std::atomic<bool> m_firstKeyFrameDone{true};  // cleared by seek

  mutable Velto::Kandu::CMutex m_bufferMutex;
  std::deque<std::unique_ptr<FrameItem>> m_frames;  // guarded by m_bufferMutex
  uint64_t m_bufferedBytes = 0;                     // guarded by m_bufferMutex: bytes in m_frames
  uint32_t m_waiters = 0;                           // guarded by m_bufferMutex: readFrame calls asleep
  std::vector<std::unique_ptr<FrameItem>> m_spareItems;  // guarded by m_bufferMutex
  // Wakes a blocking readFrame between its polls when a batch of frames is
  // there, the worker's run ends, or the session ends or fails.
  std::condition_variable_any m_bufferCond;
  uint64_t m_generation = 0;                        // guarded by m_bufferMutex

  // Worker only from here to the timer.
  std::unique_ptr<CRecordFile> m_curFile;
  RecordFileName m_curInfo;        // the listing entry the current file was opened from
  // Read state: the bytes of the file up to m_readPos that are not yet taken
  // as frames are, in file order, the m_pendingFilled bytes of m_pendingItem
  // and then the m_assemblyCount bytes of the assembly buffer; the assembly
  // buffer is empty while the pending item is incomplete.
  uint64_t m_readPos = 0;          // file position after the assembly bytes
  std::unique_ptr<uint8_t[]> m_assembly;
  uint32_t m_assemblyCapacity = 0;
  uint32_t m_assemblyCount = 0;
  // The frame being assembled once its head is known, its body read straight
  // into it; m_pendingFilled bytes of it are there (more than its length when
  // the next head came with it, until those move to the assembly buffer).
  std::unique_ptr<FrameItem> m_pendingItem;
  uint32_t m_pendingFilled = 0;
  uint64_t m_skipTotal = 0;
  bool m_skipping = false;
  uint64_t m_dataEnd = 0;          // data length of a file with record info; UINT64_MAX unknown
  uint64_t m_gopKey = 0;           // reverse: offset where the current group of pictures starts
  bool m_reachedBegin = false;     // reverse: the current group holds the session begin
  uint32_t m_reachedBeginTime = 0; // its key frame's time
  uint64_t m_lastRetryUs = 0;      // throttles retries
  uint32_t m_runFrames = 0;        // frames and bytes read in the current run
  uint64_t m_runBytes = 0;
  // The last packed head time converted and its UTC seconds: frames of one
  // second share it, and the conversion goes through the C library's time lock.
  uint32_t m_lastPackedTime = 0;
  uint32_t m_lastPackedUtc = 0;
  bool m_lastPackedValid = false;

  Velto::Kandu::CTimer m_deleteTimer;
  std::atomic<bool> m_deleting{false};    // deleteSession accepted once
  std::shared_ptr<CStreamReader> m_self;  // held while deleting
};

}  // namespace Velto::Zarn
