#include "StreamReader.h"

#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "KanduThread.h"
#include "KanduTime.h"
#include "RecordFileIndex.h"
#include "VeltoFrame.h"

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;

#define RLOG(level, fmt, ...) READER_LOG((ReaderLogContext{m_status, m_order}), level, fmt __VA_OPT__(, ) __VA_ARGS__)

const char* CStreamReader::statusName(int32_t status) {
  static const char* const kNames[] = {"WaitOpenFile", "Seeking",      "SeekOver", "Reading", "OrderChanging",
                                       "OrderChanged", "EndOfSession", "Fault",    "Closing", "Destroy"};
  return status >= 0 && status <= STATUS_DESTROY ? kNames[status] : "Unknown";
}

CStreamReader::CStreamReader(std::shared_ptr<CZarnFileSystem> fs, uint32_t streamId, uint32_t beginTime,
                             uint32_t endTime, bool sync, const EngineEnv& env)
    : CAsyncEngine(env.queue, "StreamReader async delete timer."),
      m_fs(fs),
      m_streamId(streamId),
      m_beginTime(beginTime),
      m_endTime(endTime),
      m_sync(sync),
      m_buffer(kSpareItems),
      m_cursor(std::move(fs), env, streamId, beginTime, endTime, ReaderLogContext{m_status, m_order}),
      m_assembler(m_buffer, ReaderLogContext{m_status, m_order}) {
  RLOG(INFO, "Created. StreamID:%u beginTS:%u endTS:%u syncMode:%d\n", m_streamId, m_beginTime, m_endTime,
       m_sync ? 1 : 0);
}

CStreamReader::~CStreamReader() {
  RLOG(INFO, "Deleted. StreamID:%u beginTS:%u endTS:%u syncMode:%d\n", m_streamId, m_beginTime, m_endTime,
       m_sync ? 1 : 0);
  stopRuns();  // a reader released without deleteSession may still be queued
  m_assembler.attach(nullptr, CFrameAssembler::kUnknownEnd);
  m_cursor.close();
}

int32_t CStreamReader::status() const { return m_status.load(); }

size_t CStreamReader::bufferLimit(int32_t order) const {
  return order == ORDER_FORWARD ? kForwardBufferFrames : kOtherBufferFrames;
}

int32_t CStreamReader::changeStatus(int32_t newStatus, int32_t expected) {
  CAutoLock lock(m_statusMutex);
  const int32_t current = m_status.load();
  if (current != expected) {
    RLOG(DEBUG, "Status Not Change:[new:%s old:%s current:%s]\n", statusName(newStatus), statusName(expected),
         statusName(current));
    return -1;
  }
  RLOG(INFO, "Status Changed:[new:%s old:%s]\n", statusName(newStatus), statusName(expected));
  m_status.store(newStatus);
  if (newStatus == STATUS_END_OF_SESSION || newStatus == STATUS_FAULT) m_buffer.wakeAll();
  return 0;
}

bool CStreamReader::forceStatus(int32_t newStatus) {
  for (;;) {
    const int32_t current = m_status.load();
    if (current == STATUS_CLOSING || current == STATUS_DESTROY) return false;
    if (changeStatus(newStatus, current) == 0) return true;
  }
}

void CStreamReader::kick() {
  const int32_t st = m_status.load();
  if (st == STATUS_END_OF_SESSION || st == STATUS_FAULT || st == STATUS_CLOSING || st == STATUS_DESTROY) return;
  submit();
}

void CStreamReader::clearBuf() {
  m_buffer.clear();
  RLOG(DEBUG, "Buffer cleard\n");
}

uint32_t CStreamReader::frameUtc(const uint8_t* head) {
  uint32_t packed;
  std::memcpy(&packed, head + offsetof(VeltoFrameHead, packedTime), sizeof(packed));
  if (!m_lastPackedValid || packed != m_lastPackedTime) {
    m_lastPackedUtc = frameTime(head);
    m_lastPackedTime = packed;
    m_lastPackedValid = true;
  }
  return m_lastPackedUtc;
}

int32_t CStreamReader::readFrame(VeltoFrame* frame, unsigned long long& length, bool keyFramesOnly, bool reverse) {
  length = 0;
  const int32_t wanted = keyFramesOnly ? (reverse ? ORDER_REVERSE_KEY : ORDER_FORWARD_KEY)
                                       : (reverse ? ORDER_REVERSE : ORDER_FORWARD);
  if (wanted != m_order.load()) {
    RLOG(TRACE, "read order changed! old:%d, new:%d\n", static_cast<int>(m_order.load()), wanted);
    if (m_status.load() == STATUS_FAULT || changeReadOrder(wanted) != 0) {
      RLOG(ERROR, "read order change failed. return fault\n");
      return -3;
    }
  }

  std::unique_ptr<CReaderFrameBuffer::FrameItem> item;
  std::optional<uint64_t> startMs;  // taken once the buffer is found empty
  const size_t lowWater = bufferLimit(m_order.load()) / 2;
  for (;;) {
    // The status is read before the buffer: frames appended before the worker
    // ended the session are then seen, never lost behind the end.
    const int32_t st = m_status.load();
    size_t left = 0;
    item = m_buffer.pop(left);
    // An idle worker is woken once the buffer is half empty, so that it refills
    // it in runs of many frames rather than one run per frame taken.
    if (!item || left <= lowWater) kick();
    if (item) break;
    if (st == STATUS_END_OF_SESSION) {
      RLOG(INFO, "Session was over. return EOS\n");
      return 0;
    }
    if (st == STATUS_FAULT) {
      RLOG(WARN, "Session was fault. return fault.\n");
      return -3;
    }
    if (!m_sync) return -2;
    const uint64_t nowMs = Velto::Kandu::monotonicMs();
    if (!startMs) startMs = nowMs;
    if (nowMs - *startMs >= kBlockLimitMs) {
      RLOG(WARN, "Block Read Timeout, return not ready.\n");
      return -2;
    }
    // One poll interval, cut short once the worker has a batch of frames, ends
    // its run, or ends the session.
    m_buffer.wait(kBlockPollMs, [&] { return m_status.load() == st; });
  }

  const uint32_t frameLength = item->length;
  const uint64_t frameOffset = item->offset;
  const uint32_t frameUtcTime = item->time;
  if (frame == nullptr) {
    RLOG(ERROR, "no frame record given, frame of %u bytes dropped. return fault\n", frameLength);
    m_buffer.recycle(std::move(item));
    return -3;
  }
  // Never write past the caller's buffer: an owned buffer states its size; an
  // attached one is trusted to hold the maximum frame size.
  uint32_t capacity = currentMaxFrameSize();
  if (frame->frame != nullptr && frame->ownsBuffer) {
    capacity = frame->bufferSize;
  }
  VeltoFrame source;
  source.attach(item->bytes.get());
  const bool copied = frameLength <= capacity && frame->copyToBuffer(source, capacity);
  m_buffer.recycle(std::move(item));
  if (!copied) {
    RLOG(ERROR, "frame len %u does not fit the buffer of %u bytes. return fault\n", frameLength, capacity);
    return -3;
  }
  if (!checkFrameHead(frame->frame) || !checkFrameTail(*frame)) {
    RLOG(ERROR, "frame at offset %" PRIu64 " failed its head or tail check. return fault\n", frameOffset);
    return -3;
  }
  if (frame->head.type == FRAME_TYPE_I || frame->head.type == FRAME_TYPE_IMAGE) {
    m_readedFrameUTC.store(frameUtcTime);
    m_readedFrameOffset.store(frameOffset);
  }
  length = frameLength;
  return 0;
}

int32_t CStreamReader::changeReadOrder(int32_t order) {
  if (order == m_order.load()) return 0;
  if (isReverseOrder(order) && m_readedFrameUTC.load() == 0) {
    RLOG(ERROR, "Miss index, can't change read order to ReverseOnIndex.\n");
    return -1;
  }
  if (!forceStatus(STATUS_ORDER_CHANGING)) return -1;
  clearBuf();
  RLOG(TRACE, "Change read order to: %d.\n", order);
  m_order.store(order);
  if (!forceStatus(STATUS_ORDER_CHANGED)) return -1;
  return 0;
}

int32_t CStreamReader::seek(uint32_t time) {
  RLOG(DEBUG, "seekTS:%u\n", time);
  if (m_status.load() == STATUS_FAULT) {
    RLOG(ERROR, "Seek failed. Status was fault, can't seek.\n");
    return -1;
  }
  if (time < m_beginTime || time > m_endTime) {
    RLOG(ERROR, "Seek failed. time out of Session:[%u~%u]. seekTS:%u\n", m_beginTime, m_endTime, time);
    return -1;
  }
  RLOG(TRACE, "seeking...\n");
  if (!forceStatus(STATUS_SEEKING)) return -1;
  m_seekTime.store(time);
  // Frames read before the seek must not be handed out after it.
  clearBuf();
  if (!forceStatus(STATUS_SEEK_OVER)) return -1;
  m_readedFrameUTC.store(time);
  m_firstKeyFrameDone.store(false);
  RLOG(INFO, "seek succeefull, m_readedFrameUtc:%u\n", time);
  return 0;
}

void CStreamReader::deleteSession(std::shared_ptr<CStreamReader> self) { close(std::move(self)); }

void CStreamReader::onClose() {
  RLOG(TRACE, "Delete session timer proc\n");
  if (!forceStatus(STATUS_CLOSING)) std::abort();  // only the close procedure closes, once
}

void CStreamReader::onFinalRun() { changeStatus(STATUS_DESTROY, STATUS_CLOSING); }

void CStreamReader::throttleRetry() {
  const uint64_t now = Velto::Kandu::monotonicUs();
  if (now - m_lastRetryUs < 1000) Velto::Kandu::sleepMs(1);
  m_lastRetryUs = Velto::Kandu::monotonicUs();
}

bool CStreamReader::run() {
  const uint64_t generation = m_buffer.generation();
  switch (m_status.load()) {
    case STATUS_WAIT_OPEN_FILE:
      doWaitOpenFile();
      return true;
    case STATUS_SEEKING:
    case STATUS_ORDER_CHANGING:
      throttleRetry();  // a host thread is half-way through a seek or order change
      return true;
    case STATUS_SEEK_OVER:
      doSeekOver();
      return true;
    case STATUS_READING: {
      const int32_t result = readingStep(generation);
      bool again = true;
      if (result == -1) {
        changeStatus(STATUS_FAULT, STATUS_READING);
        again = false;
      } else if (result == -3) {
        changeStatus(STATUS_END_OF_SESSION, STATUS_READING);
        again = false;
      } else if (result == -4) {
        again = false;  // buffer full: the next readFrame resubmits
      } else if (result == 0) {
        throttleRetry();
      }
      m_buffer.wakeWaiters();
      return again;
    }
    case STATUS_ORDER_CHANGED:
      doOrderChanged();
      return true;
    default:  // the end of the session, a fault, or closing: nothing to run
      return false;
  }
}

void CStreamReader::doWaitOpenFile() {
  RLOG(TRACE, "Find record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime, m_beginTime);
  RecordFileName info;
  if (m_cursor.searchFile(m_beginTime, info) != 1) {
    RLOG(TRACE, "didn't find! change status to Fault\n");
    changeStatus(STATUS_FAULT, STATUS_WAIT_OPEN_FILE);
    return;
  }
  RLOG(TRACE, "find! then open it.\n");
  settleOpen(openRecordFile(info, m_beginTime), STATUS_WAIT_OPEN_FILE);
}

void CStreamReader::settleOpen(int32_t opened, int32_t from) {
  if (opened == 1) {
    changeStatus(STATUS_READING, from);
  } else if (opened < 0) {
    changeStatus(STATUS_FAULT, from);
  } else {
    throttleRetry();  // renamed meanwhile: the next run searches again
  }
}

void CStreamReader::doSeekOver() {
  const uint32_t time = m_seekTime.load();
  CRecordFile* file = m_cursor.file();
  bool ok = false;
  if (file && !m_cursor.hasIndex() && isReverseOrder(m_order.load())) {
    ok = false;
  } else if (file && m_cursor.fileHolds(time)) {
    uint64_t offset = m_cursor.hasIndex() ? m_cursor.index()->getIFrameOffset(time)
                                          : m_cursor.calcOffsetByTime(file->name().beginTime, m_cursor.fileEndTime(),
                                                                      time, file->length());
    if (offset == CRecordFileIndex::kNoOffset) offset = 0;
    RLOG(TRACE, "Current file include seek ts, seek it. offset: %" PRId64 " in %s.\n", static_cast<int64_t>(offset),
         file->fullName().c_str());
    ok = positionAt(offset);
  } else {
    RLOG(TRACE, "Need Open new file, find it. seek time: %u.\n", time);
    RecordFileName info;
    if (m_cursor.searchFile(time, info) != 1) {
      RLOG(ERROR, "Seek failed. Can't find file by seek time: %u.\n", time);
    } else {
      ok = openRecordFile(info, time) == 1;
    }
  }
  if (ok) {
    m_readedFrameUTC.store(m_cursor.hasIndex() ? time : 0);
    m_readedFrameOffset.store(0);
    clearBuf();
  }
  RLOG(DEBUG, "Seek %s, seekTS:%u\n", ok ? "successful" : "failed", time);
  changeStatus(m_cursor.file() ? STATUS_READING : STATUS_WAIT_OPEN_FILE, STATUS_SEEK_OVER);
}

void CStreamReader::doOrderChanged() {
  const uint32_t time = m_readedFrameUTC.load();
  if (m_cursor.file() && time == 0) {
    RLOG(TRACE, "OrderChanged! readedFrameUTC is 0.\n");
    // Go on from the frame being assembled; a reverse order takes its group from there.
    if (!positionAt(m_assembler.parsePos())) {
      changeStatus(STATUS_FAULT, STATUS_ORDER_CHANGED);
      return;
    }
    changeStatus(STATUS_READING, STATUS_ORDER_CHANGED);
    return;
  }
  if (m_cursor.file() && m_cursor.hasIndex() && m_cursor.fileHolds(time)) {
    uint64_t offset = m_cursor.index()->getIFrameOffset(time);
    if (offset == CRecordFileIndex::kNoOffset) offset = 0;
    RLOG(TRACE, "OrderChanged! Seek to offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset), time);
    if (!positionAt(offset)) {
      RLOG(ERROR, "seek failed, return fault\n");
      changeStatus(STATUS_FAULT, STATUS_ORDER_CHANGED);
      return;
    }
    changeStatus(STATUS_READING, STATUS_ORDER_CHANGED);
    return;
  }
  const uint32_t target = time != 0 ? time : m_beginTime;
  RLOG(TRACE, "OrderChanged! re-find record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime, target);
  RecordFileName info;
  if (m_cursor.searchFile(target, info) != 1) {
    RLOG(TRACE, "OrderChanged! didn't find! change status to Fault\n");
    changeStatus(STATUS_FAULT, STATUS_ORDER_CHANGED);
    return;
  }
  RLOG(TRACE, "OrderChanged! find! then open it.\n");
  settleOpen(openRecordFile(info, target), STATUS_ORDER_CHANGED);
}

int32_t CStreamReader::openRecordFile(const RecordFileName& info, uint32_t time) {
  const int32_t order = m_order.load();
  const int32_t opened = m_cursor.open(info, time, order);
  if (opened != 1) return opened;

  std::shared_ptr<CRecordFileIndex> index = m_cursor.index();
  uint64_t offset = 0;
  if (time != 0) {
    uint32_t t = std::max(time, info.beginTime);
    if (info.endTime != 0) t = std::min(t, info.endTime);
    if (m_cursor.hasIndex()) {
      offset = index->getIFrameOffset(t);
      if (offset == CRecordFileIndex::kNoOffset) offset = 0;
    } else {
      offset = m_cursor.calcOffsetByTime(info.beginTime, info.endTime != 0 ? info.endTime : info.realEndTime, t,
                                         m_cursor.file()->length());
    }
    RLOG(TRACE, "Open file with seek to offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset), t);
  } else if (!isReverseOrder(order)) {
    RLOG(TRACE, "Open file with seek to begin offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset),
         info.beginTime);
  } else {
    IndexEntry last{};
    if (index->lastKeyEntry(last)) offset = last.offset();
    RLOG(TRACE, "seek to last iframe offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset), last.time);
  }

  m_cursor.closePrevious();
  m_assembler.attach(m_cursor.file(), m_cursor.dataEnd());
  if (!positionAt(offset)) {
    RLOG(ERROR, "seek failed, return fault\n");
    return -1;
  }
  return 1;
}

bool CStreamReader::positionAt(uint64_t offset) {
  if (!m_assembler.positionAt(offset)) return false;
  m_gopKey = offset;
  m_reachedBegin = false;
  return true;
}

int32_t CStreamReader::jumpBack() {
  if (m_reachedBegin) {
    RLOG(INFO, "frameUTC:%u before begin of session:%u ret EOS.\n", m_reachedBeginTime, m_beginTime);
    return -3;
  }
  std::shared_ptr<CRecordFileIndex> index = m_cursor.index();
  IndexEntry previous{};
  if (!index || !index->keyBeforeOffset(m_gopKey, previous)) {
    RLOG(TRACE, "End of File:%s\n", m_cursor.file() ? m_cursor.file()->fullName().c_str() : "");
    return -2;
  }
  if (!positionAt(previous.offset())) {
    RLOG(ERROR, "seek failed, return fault\n");
    return -1;
  }
  return 1;
}

int32_t CStreamReader::endOfData() { return isReverseOrder(m_order.load()) ? jumpBack() : -2; }

int32_t CStreamReader::readRecordFile(uint64_t generation) {
  const int32_t order = m_order.load();
  if (isClosing() || m_status.load() != STATUS_READING) {
    RLOG(TRACE, "read order change, or stopping\n");
    return 0;
  }
  if (m_buffer.size() >= bufferLimit(order)) return -4;
  CRecordFile* file = m_cursor.file();
  if (!m_firstKeyFrameDone.exchange(true) && !isReverseOrder(order) && m_cursor.hasIndex() && file->isSmartMode() &&
      m_readedFrameUTC.load() != 0) {
    // In a smart stream a smart P frame refers back to the last smart I frame:
    // playback after a seek starts there.
    RLOG(INFO, "First Seek Smart i Frame, m_readedFrameUTC:%u\n", m_readedFrameUTC.load());
    const uint64_t offset = m_cursor.index()->getPrevISmartFrameOffset(m_readedFrameUTC.load(), 0);
    if (offset == CRecordFileIndex::kNoOffset) {
      RLOG(INFO, "End of File:%s\n", file->fullName().c_str());
      return -2;
    }
    RLOG(INFO, "Seek I Frame, offset:%ld\n", static_cast<long>(offset));
    if (!positionAt(offset)) {
      RLOG(ERROR, "seek failed, return fault\n");
      return -1;
    }
  }

  std::unique_ptr<CReaderFrameBuffer::FrameItem> item;
  VeltoFrameHead head;
  uint64_t frameStart = 0;
  const int32_t result = m_assembler.next(item, head, frameStart);
  // A file still being written: forward, more may come; in reverse the newest
  // group of pictures ends where the writer is.
  if (result == CFrameAssembler::kNotYet) return isReverseOrder(order) ? jumpBack() : 0;
  if (result == CFrameAssembler::kEndOfData) return endOfData();
  if (result != CFrameAssembler::kFrame) return result;

  const uint8_t* bytes = item->bytes.get();
  const bool key = isKeyFrame(head.type, head.subType);
  uint32_t time = 0;
  if (key && m_cursor.hasIndex()) time = m_cursor.index()->getIFrameUTC(frameStart);
  if (time == 0) time = frameUtc(bytes);
  if (head.subType == 1 || head.subType == 2) {
    RLOG(TRACE, "VeltoFrame: filePos:%" PRId64 " Frame: type[%x] len[%u] utc[%u]\n", static_cast<int64_t>(frameStart),
         head.type, head.length, time);
  }

  bool keep;
  if (!isReverseOrder(order)) {
    if (time > m_endTime) {
      RLOG(INFO, "frameUTC:%u after end of session:%u ret EOS.\n", time, m_endTime);
      m_buffer.recycle(std::move(item));
      return -3;
    }
    keep = order == ORDER_FORWARD || key;
  } else {
    if (key && frameStart != m_gopKey) {
      // The next group of pictures begins: the current one is complete.
      m_assembler.discardAhead();
      m_buffer.recycle(std::move(item));
      return jumpBack();
    }
    if (key && time <= m_beginTime) {
      m_reachedBegin = true;
      m_reachedBeginTime = time;
    }
    keep = time <= m_endTime && (order == ORDER_REVERSE || key);
  }
  ++m_runFrames;
  m_runBytes += head.length;
  if (keep) {
    item->offset = frameStart;
    item->time = time;
    const size_t wakeFrames = order == ORDER_FORWARD ? kWakeFrames : bufferLimit(order) / 2;
    // False when a seek or order change came meanwhile (the item is recycled).
    if (!m_buffer.append(std::move(item), generation, wakeFrames, kWakeBytes)) return 0;
  } else {
    m_buffer.recycle(std::move(item));
  }
  return prepareForNextFrame(head.length, frameStart);
}

int32_t CStreamReader::prepareForNextFrame(uint32_t length, uint64_t offset) {
  const int32_t order = m_order.load();
  const uint64_t dataEnd = m_assembler.dataEnd();
  if (!isReverseOrder(order)) {
    if (dataEnd != CFrameAssembler::kUnknownEnd && offset + length >= dataEnd) {
      RLOG(INFO, "The read offset: %" PRId64 " len:%u after end of file: %" PRIu64 ". retuen EOF.\n",
           static_cast<int64_t>(offset), length, dataEnd);
      return -2;
    }
    if (order == ORDER_FORWARD || !m_cursor.hasIndex()) return 1;
    IndexEntry next{};
    if (m_cursor.index()->keyAfterOffset(offset, next)) {
      if (!positionAt(next.offset())) {
        RLOG(ERROR, "seek failed, return fault\n");
        return -1;
      }
      return 1;
    }
    if (!m_cursor.fileClosed()) {
      RLOG(TRACE, "File:%s not closed, Waiting then Retry.\n", m_cursor.file()->fullName().c_str());
      return 0;
    }
    RLOG(INFO, "End of File:%s\n", m_cursor.file()->fullName().c_str());
    return -2;
  }
  if (order == ORDER_REVERSE_KEY) return jumpBack();
  if (dataEnd != CFrameAssembler::kUnknownEnd && offset + length >= dataEnd) return jumpBack();
  return 1;
}

int32_t CStreamReader::readingStep(uint64_t generation) {
  m_runFrames = 0;
  m_runBytes = 0;
  while (!isClosing()) {
    const int32_t order = m_order.load();
    if (m_buffer.size() >= bufferLimit(order)) return -4;
    // Callers that drain as fast as the worker fills would keep this run going
    // to the end of the session: let the other sessions have their turn.
    if (m_runFrames >= kRunFrames || m_runBytes >= kRunBytes) return 1;
    if (!m_cursor.file()) return -1;
    const int32_t result = readRecordFile(generation);
    if (result == 1) continue;
    if (result != -2) return result;

    // End of this file: find the one after it (or before it, in reverse).
    RecordFileName next;
    const int32_t found = m_cursor.findNext(isReverseOrder(order), next);
    if (found != 1) return found < 0 ? -1 : -3;
    const int32_t opened = openRecordFile(next, 0);
    if (opened < 0) {
      RLOG(ERROR, "open record file failed. ret:%d\n", opened);
      return opened;
    }
    if (opened == 0) return 0;
  }
  return 0;
}

}  // namespace Velto::Zarn
