// CStreamReader: the playback engine of one session, a time range
// [begin, end] (seconds, both ends inclusive) of one stream.
//
// Three parts, each in its own file:
//   CSessionCursor      which record file holds a time (bucket listings),
//                       opening it, stepping to the next file either way;
//   CFrameAssembler     whole, valid frames out of the open file's bytes
//                       (head and tail checks, padding, resynchronisation);
//   this status machine, which drives them in the session's read order and
//                       hands frames to the host through a bounded buffer
//                       (CReaderFrameBuffer): at most 50 frames ahead in
//                       forward order, 8 in the others.
// The reading runs on the reader queue (CAsyncEngine); readFrame only takes
// frames out of the buffer and kicks the worker when it has gone idle.
//
// Read orders (chosen per readFrame call by its two flags): forward, every
// frame; forward, key frames only (jumping from index entry to index entry);
// reverse, each group of pictures forward and the groups backwards; reverse on
// the index, key frames only, backwards. The reverse orders need the file's
// index.
//
// Session bounds: forward playback starts with the group of pictures that
// holds `begin` (its key frame may be older) and ends before the first frame
// newer than `end`; reverse playback skips frames newer than `end` and ends
// after the group of pictures that holds `begin`. The end of the session is
// readFrame result 0 with length 0.
//
// A file still being written is waited on, not ended: a read that finds no
// more bytes, an index without the next entry, or padding not yet complete is
// "retry later", and readFrame reports -2 meanwhile.
//
// Results of readFrame: 0 frame (or end of session with length 0), -2 not
// ready, -3 fault. seek and changeReadOrder: 0 or -1.
//
// Statuses: WaitOpenFile -> Reading, with Seeking/SeekOver and
// OrderChanging/OrderChanged as a host call's restart of the reading,
// EndOfSession and Fault as ends, Closing and Destroy for the asynchronous
// delete. A host thread changes the status by compare-and-set under the status
// mutex; the worker acts on what it finds.
//
// Threads: readFrame, seek and changeReadOrder on host threads; runs on a
// reader-queue thread under the item mutex; the delete on the reader's own
// one-shot timer. A host call that restarts the reading clears the buffer, so
// a frame read before it is never handed out after it. Everything about the
// open file belongs to the worker alone. Lock order: item mutex, then status
// mutex, then buffer mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "AsyncEngine.h"
#include "EngineEnv.h"
#include "FrameAssembler.h"
#include "KanduSync.h"
#include "ReaderFrameBuffer.h"
#include "ReaderShared.h"
#include "SessionCursor.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

class CStreamReader : public CAsyncEngine {
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
  using enum ReadOrder;

  static constexpr size_t kForwardBufferFrames = 50;
  static constexpr size_t kOtherBufferFrames = 8;
  static constexpr uint32_t kBlockPollMs = 50;
  static constexpr uint32_t kBlockLimitMs = 1000;
  // A blocking readFrame asleep on an empty buffer is woken once this many
  // frames, or bytes, are buffered (in forward order; half the read-ahead in
  // the others), or when the worker's run ends.
  static constexpr size_t kWakeFrames = 50;
  static constexpr uint64_t kWakeBytes = 1024 * 1024;
  // A worker run ends after this many frames or bytes and resubmits the
  // reader, so that the five workers take turns over every busy session.
  static constexpr uint32_t kRunFrames = 100;
  static constexpr uint64_t kRunBytes = 4 * 1024 * 1024;
  // Frame items kept for reuse, at most a full forward buffer's worth.
  static constexpr size_t kSpareItems = kForwardBufferFrames;

  CStreamReader(std::shared_ptr<CZarnFileSystem> fs, uint32_t streamId, uint32_t beginTime, uint32_t endTime,
                bool sync, const EngineEnv& env);
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
  // reader, kept until the final run. Returns at once; a repeat does nothing.
  void deleteSession(std::shared_ptr<CStreamReader> self);

  int32_t status() const;
  int32_t order() const { return m_order.load(); }
  uint32_t streamId() const { return m_streamId; }
  size_t bufferedFramesForTest() const { return m_buffer.size(); }
  bool isIdleForTest() const { return isIdle(); }

  static const char* statusName(int32_t status);

 private:
  bool run() override;
  void onClose() override;
  void onFinalRun() override;

  // One frame-or-skip pass over the open file. 1 go on, 0 retry later, -1
  // fault, -2 end of file, -3 end of session, -4 buffer full.
  int32_t readRecordFile(uint64_t generation);
  int32_t prepareForNextFrame(uint32_t length, uint64_t offset);
  // The reading step of status "Reading": reads until the buffer is full, a
  // retry, a fault or the end of the session, crossing file boundaries.
  int32_t readingStep(uint64_t generation);
  // Opens `info` and positions it for `time` (0: from its start, or its last
  // key frame in the reverse orders). 1 opened, 0 retry (renamed meanwhile),
  // -1 fault.
  int32_t openRecordFile(const RecordFileName& info, uint32_t time);
  // The status after an open from status `from`: Reading, Fault, or a retry.
  void settleOpen(int32_t opened, int32_t from);
  void clearBuf();
  bool forceStatus(int32_t newStatus);  // retries until set; false once closing
  void kick();                          // submits an idle reader that may run
  void throttleRetry();

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
  size_t bufferLimit(int32_t order) const;
  uint32_t frameUtc(const uint8_t* head);  // frameTime, remembering the last conversion

  std::shared_ptr<CZarnFileSystem> m_fs;
  const uint32_t m_streamId;
  const uint32_t m_beginTime;
  const uint32_t m_endTime;
  const bool m_sync;

  mutable Velto::Kandu::CMutex m_statusMutex;
  // Changed only under m_statusMutex (compare-and-set); read without it.
  std::atomic<int32_t> m_status{STATUS_WAIT_OPEN_FILE};
  std::atomic<int32_t> m_order{ORDER_FORWARD};

  std::atomic<uint32_t> m_readedFrameUTC{0};  // last key frame handed out; 0 none yet
  std::atomic<uint64_t> m_readedFrameOffset{0};
  std::atomic<uint32_t> m_seekTime{0};
  std::atomic<bool> m_firstKeyFrameDone{true};  // cleared by seek

  CReaderFrameBuffer m_buffer;

  // Worker only from here on.
  CSessionCursor m_cursor;
  CFrameAssembler m_assembler;
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
};

}  // namespace Velto::Zarn
