#include "StreamReader.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include "KanduLog.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "MediaContext.h"
#include "RecordFileIndex.h"
#include "RecordQuery.h"
#include "VeltoFrame.h"
#include "WritingFiles.h"

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;
using Velto::Kandu::CTimer;
using Velto::Kandu::LOG_DEBUG;
using Velto::Kandu::LOG_ERROR;
using Velto::Kandu::LOG_INFO;
using Velto::Kandu::LOG_TRACE;
using Velto::Kandu::LOG_WARN;
using Velto::Kandu::TimerProcedure;

#define RLOG(level, fmt, ...)                                                                              \
  KLOG_AT(level, "#%d,StreamReader::%s %d, status(%d):order(%d)" fmt, 0, __FUNCTION__, __LINE__,          \
          static_cast<int>(m_status.load()), static_cast<int>(m_order.load()) __VA_OPT__(, ) __VA_ARGS__)

namespace {

constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();
// A search that keeps returning the file just finished (its end moved while it
// was read) is repeated from that file's new end at most this often.
constexpr int kSameFileRetries = 3;

// Index helpers. Entries are in offset order (offsets grow with the file), so
// binary searches by offset are valid; the index may grow meanwhile (a file
// still being written), which only appends.
size_t lowerByOffset(const CRecordFileIndex& index, uint64_t offset) {
  size_t lo = 0;
  size_t hi = index.size();
  IndexEntry e{};
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (index.entryAt(mid, e) && e.offset() < offset) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo;
}

// The first key entry whose frame starts after `offset`.
bool keyAfter(const CRecordFileIndex& index, uint64_t offset, IndexEntry& out) {
  IndexEntry e{};
  for (size_t i = lowerByOffset(index, offset + 1); index.entryAt(i, e); ++i) {
    if (e.isKey()) {
      out = e;
      return true;
    }
  }
  return false;
}

// The last key entry whose frame starts before `offset`.
bool keyBefore(const CRecordFileIndex& index, uint64_t offset, IndexEntry& out) {
  IndexEntry e{};
  for (size_t i = lowerByOffset(index, offset); i > 0; --i) {
    if (index.entryAt(i - 1, e) && e.isKey()) {
      out = e;
      return true;
    }
  }
  return false;
}

bool lastKey(const CRecordFileIndex& index, IndexEntry& out) {
  IndexEntry e{};
  for (size_t i = index.size(); i > 0; --i) {
    if (index.entryAt(i - 1, e) && e.isKey()) {
      out = e;
      return true;
    }
  }
  return false;
}

std::string nameOf(const RecordFileName& info) {
  std::string name;
  generateRecordFileName(info, name);
  return name;
}

bool sameFile(const RecordFileName& a, const RecordFileName& b) {
  return a.beginTime == b.beginTime && a.bucketKind == b.bucketKind;
}

}  // namespace

const char* CStreamReader::statusName(int32_t status) {
  static const char* const kNames[] = {"WaitOpenFile", "Seeking",      "SeekOver", "Reading", "OrderChanging",
                                       "OrderChanged", "EndOfSession", "Fault",    "Closing", "Destroy"};
  return status >= 0 && status <= STATUS_DESTROY ? kNames[status] : "Unknown";
}

CStreamReader::CStreamReader(std::shared_ptr<CZarnFileSystem> fs, uint32_t streamId, uint32_t beginTime,
                             uint32_t endTime, bool sync)
    : m_fs(std::move(fs)),
      m_streamId(streamId),
      m_beginTime(beginTime),
      m_endTime(endTime),
      m_sync(sync),
      m_queue(CMediaContext::instance().readerQueue()),
      m_deleteTimer("StreamReader async delete timer.") {
  m_spareItems.reserve(kSpareItems);
  RLOG(LOG_INFO, "Created. StreamID:%u beginTS:%u endTS:%u syncMode:%d\n", m_streamId, m_beginTime, m_endTime,
       m_sync ? 1 : 0);
}

CStreamReader::~CStreamReader() {
  RLOG(LOG_INFO, "Deleted. StreamID:%u beginTS:%u endTS:%u syncMode:%d\n", m_streamId, m_beginTime, m_endTime,
       m_sync ? 1 : 0);
  // A reader released without deleteSession may still be queued.
  while (!m_idle.load()) {
    if (m_queue.cancel(this)) m_idle.store(true);
    passItemMutex();
    Velto::Kandu::sleepMs(0);
  }
  m_deleteTimer.stop(true);  // from its own procedure this does not wait
  closeRecordFile();
}

int32_t CStreamReader::status() const { return m_status.load(); }

size_t CStreamReader::bufferedFramesForTest() const {
  CAutoLock lock(m_bufferMutex);
  return m_frames.size();
}

size_t CStreamReader::bufferLimit(int32_t order) const {
  return order == ORDER_FORWARD ? kForwardBufferFrames : kOtherBufferFrames;
}

int32_t CStreamReader::changeStatus(int32_t newStatus, int32_t expected) {
  CAutoLock lock(m_statusMutex);
  const int32_t current = m_status.load();
  if (current != expected) {
    RLOG(LOG_DEBUG, "Status Not Change:[new:%s old:%s current:%s]\n", statusName(newStatus), statusName(expected),
         statusName(current));
    return -1;
  }
  RLOG(LOG_INFO, "Status Changed:[new:%s old:%s]\n", statusName(newStatus), statusName(expected));
  m_status.store(newStatus);
  if (newStatus == STATUS_END_OF_SESSION || newStatus == STATUS_FAULT) {
    CAutoLock bufferLock(m_bufferMutex);
    m_bufferCond.notify_all();
  }
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
  if (m_stop.load()) return;
  bool idle = true;
  if (m_idle.compare_exchange_strong(idle, false) && !m_queue.submit(this)) m_idle.store(true);
}

void CStreamReader::clearBuf() {
  CAutoLock lock(m_bufferMutex);
  m_frames.clear();
  m_bufferedBytes = 0;
  ++m_generation;
  RLOG(LOG_DEBUG, "Buffer cleard\n");
}

std::unique_ptr<CStreamReader::FrameItem> CStreamReader::takeItem(uint32_t length) {
  const uint32_t room = length + kFrameHeadSize;  // the next frame's head may be read with it
  std::unique_ptr<FrameItem> item;
  {
    CAutoLock lock(m_bufferMutex);
    for (size_t i = m_spareItems.size(); i > 0; --i) {
      // A spare at most twice the size: the item of a large key frame must not
      // stay pinned under every small frame after it.
      const uint32_t capacity = m_spareItems[i - 1]->capacity;
      if (capacity >= room && capacity / 2 <= room) {
        item = std::move(m_spareItems[i - 1]);
        m_spareItems[i - 1] = std::move(m_spareItems.back());
        m_spareItems.pop_back();
        break;
      }
    }
  }
  if (!item) {
    // A quarter more than asked, so that the item serves the frames of similar
    // size after this one.
    const uint64_t capacity = (static_cast<uint64_t>(room) + room / 4 + 63) & ~uint64_t{63};
    item = std::make_unique<FrameItem>();
    item->capacity = static_cast<uint32_t>(std::min<uint64_t>(capacity, std::numeric_limits<uint32_t>::max()));
    item->bytes.reset(new uint8_t[item->capacity]);
  }
  item->length = length;
  item->offset = 0;
  item->time = 0;
  return item;
}

void CStreamReader::recycleItem(std::unique_ptr<FrameItem> item) {
  if (!item) return;
  CAutoLock lock(m_bufferMutex);
  if (m_spareItems.size() < kSpareItems) m_spareItems.push_back(std::move(item));
  // Otherwise freed here: the pool is bounded.
}

bool CStreamReader::appendFrame(std::unique_ptr<FrameItem> item, uint64_t generation, int32_t order) {
  bool wake = false;
  {
    CAutoLock lock(m_bufferMutex);
    if (m_generation == generation) {
      m_bufferedBytes += item->length;
      m_frames.push_back(std::move(item));
      const size_t batch = order == ORDER_FORWARD ? kWakeFrames : bufferLimit(order) / 2;
      wake = m_waiters > 0 && (m_frames.size() >= batch || m_bufferedBytes >= kWakeBytes);
    }
  }
  if (item) {  // a seek or order change came meanwhile
    recycleItem(std::move(item));
    return false;
  }
  // Notified outside the buffer mutex, so that the woken caller does not block on it at once.
  if (wake) m_bufferCond.notify_all();
  return true;
}

void CStreamReader::wakeWaiters() {
  bool wake = false;
  {
    CAutoLock lock(m_bufferMutex);
    wake = m_waiters > 0 && !m_frames.empty();
  }
  if (wake) m_bufferCond.notify_all();
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
    RLOG(LOG_TRACE, "read order changed! old:%d, new:%d\n", static_cast<int>(m_order.load()), wanted);
    if (m_status.load() == STATUS_FAULT || changeReadOrder(wanted) != 0) {
      RLOG(LOG_ERROR, "read order change failed. return fault\n");
      return -3;
    }
  }

  std::unique_ptr<FrameItem> item;
  std::optional<uint64_t> startMs;  // taken once the buffer is found empty
  const size_t lowWater = bufferLimit(m_order.load()) / 2;
  for (;;) {
    // The status is read before the buffer: frames appended before the worker
    // ended the session are then seen, never lost behind the end.
    const int32_t st = m_status.load();
    size_t left = 0;
    {
      CAutoLock lock(m_bufferMutex);
      if (!m_frames.empty()) {
        item = std::move(m_frames.front());
        m_frames.pop_front();
        m_bufferedBytes -= item->length;
      }
      left = m_frames.size();
    }
    // An idle worker is woken once the buffer is half empty, so that it refills
    // it in runs of many frames rather than one run per frame taken.
    if (!item || left <= lowWater) kick();
    if (item) break;
    if (st == STATUS_END_OF_SESSION) {
      RLOG(LOG_INFO, "Session was over. return EOS\n");
      return 0;
    }
    if (st == STATUS_FAULT) {
      RLOG(LOG_WARN, "Session was fault. return fault.\n");
      return -3;
    }
    if (!m_sync) return -2;
    const uint64_t nowMs = Velto::Kandu::monotonicMs();
    if (!startMs) startMs = nowMs;
    if (nowMs - *startMs >= kBlockLimitMs) {
      RLOG(LOG_WARN, "Block Read Timeout, return not ready.\n");
      return -2;
    }
    // One poll interval, cut short once the worker has a batch of frames, ends
    // its run, or ends the session.
    CAutoLock lock(m_bufferMutex);
    if (m_frames.empty() && m_status.load() == st) {
      ++m_waiters;
      m_bufferCond.wait_for(m_bufferMutex, std::chrono::milliseconds(kBlockPollMs));
      --m_waiters;
    }
  }

  const uint32_t frameLength = item->length;
  const uint64_t frameOffset = item->offset;
  const uint32_t frameUtcTime = item->time;
  if (frame == nullptr) {
    RLOG(LOG_ERROR, "no frame record given, frame of %u bytes dropped. return fault\n", frameLength);
    recycleItem(std::move(item));
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
  recycleItem(std::move(item));
  if (!copied) {
    RLOG(LOG_ERROR, "frame len %u does not fit the buffer of %u bytes. return fault\n", frameLength, capacity);
    return -3;
  }
  if (!checkFrameHead(frame->frame) || !checkFrameTail(*frame)) {
    RLOG(LOG_ERROR, "frame at offset %" PRIu64 " failed its head or tail check. return fault\n", frameOffset);
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
  if (isReverse(order) && m_readedFrameUTC.load() == 0) {
    RLOG(LOG_ERROR, "Miss index, can't change read order to ReverseOnIndex.\n");
    return -1;
  }
  if (!forceStatus(STATUS_ORDER_CHANGING)) return -1;
  clearBuf();
  RLOG(LOG_TRACE, "Change read order to: %d.\n", order);
  m_order.store(order);
  if (!forceStatus(STATUS_ORDER_CHANGED)) return -1;
  return 0;
}

int32_t CStreamReader::seek(uint32_t time) {
  RLOG(LOG_DEBUG, "seekTS:%u\n", time);
  if (m_status.load() == STATUS_FAULT) {
    RLOG(LOG_ERROR, "Seek failed. Status was fault, can't seek.\n");
    return -1;
  }
  if (time < m_beginTime || time > m_endTime) {
    RLOG(LOG_ERROR, "Seek failed. time out of Session:[%u~%u]. seekTS:%u\n", m_beginTime, m_endTime, time);
    return -1;
  }
  RLOG(LOG_TRACE, "seeking...\n");
  if (!forceStatus(STATUS_SEEKING)) return -1;
  m_seekTime.store(time);
  // Frames read before the seek must not be handed out after it.
  clearBuf();
  if (!forceStatus(STATUS_SEEK_OVER)) return -1;
  m_readedFrameUTC.store(time);
  m_firstKeyFrameDone.store(false);
  RLOG(LOG_INFO, "seek succeefull, m_readedFrameUtc:%u\n", time);
  return 0;
}

void CStreamReader::deleteSession(std::shared_ptr<CStreamReader> self) {
  bool expected = false;
  if (!m_deleting.compare_exchange_strong(expected, true)) return;  // already being deleted
  m_self = std::move(self);
  m_deleteTimer.start(TimerProcedure(this, &CStreamReader::timerProc), 0, 0, 0, 60000);
}

void CStreamReader::stopAsynExec() {
  RLOG(LOG_DEBUG, "stopping\n");
  m_stop.store(true);
  while (!m_idle.load()) {
    if (m_queue.cancel(this)) m_idle.store(true);
    passItemMutex();
    Velto::Kandu::sleepMs(0);
  }
  passItemMutex();
  m_stop.store(false);
  RLOG(LOG_DEBUG, "stopped\n");
}

void CStreamReader::timerProc(CTimer* /*timer*/) {
  RLOG(LOG_TRACE, "Delete session timer proc\n");
  stopAsynExec();
  if (!forceStatus(STATUS_CLOSING)) std::abort();  // only this procedure closes, once
  bool idle = true;
  if (m_idle.compare_exchange_strong(idle, false) && !m_queue.submit(this)) {
    // No queue left to run the last steps: release here.
    m_idle.store(true);
    std::shared_ptr<CStreamReader> self = std::move(m_self);  // may end this reader
  }
}

void CStreamReader::throttleRetry() {
  const uint64_t now = Velto::Kandu::monotonicUs();
  if (now - m_lastRetryUs < 1000) Velto::Kandu::sleepMs(1);
  m_lastRetryUs = Velto::Kandu::monotonicUs();
}

void CStreamReader::execute() {
  uint64_t generation;
  {
    CAutoLock lock(m_bufferMutex);
    generation = m_generation;
  }
  bool again = true;
  switch (m_status.load()) {
    case STATUS_WAIT_OPEN_FILE:
      doWaitOpenFile();
      break;
    case STATUS_SEEKING:
    case STATUS_ORDER_CHANGING:
      throttleRetry();  // a host thread is half-way through a seek or order change
      break;
    case STATUS_SEEK_OVER:
      doSeekOver();
      break;
    case STATUS_READING: {
      const int32_t result = readingStep(generation);
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
      wakeWaiters();
      break;
    }
    case STATUS_ORDER_CHANGED:
      doOrderChanged();
      break;
    case STATUS_END_OF_SESSION:
    case STATUS_FAULT:
      again = false;
      break;
    case STATUS_CLOSING:
      m_deleteTimer.stop(true);
      setLockOnRun(false);  // the last run must not wait for this one's item mutex
      changeStatus(STATUS_DESTROY, STATUS_CLOSING);
      break;
    case STATUS_DESTROY: {
      m_idle.store(true);
      passItemMutex();
      std::shared_ptr<CStreamReader> self = std::move(m_self);  // may end this reader
      return;
    }
    default:
      again = false;
      break;
  }
  if (again && !m_stop.load() && m_queue.submit(this)) return;
  m_idle.store(true);
}

uint32_t CStreamReader::gatherBegin() const { return m_beginTime > 0 ? m_beginTime - 1 : 0; }

uint32_t CStreamReader::gatherEnd() const {
  return m_endTime < std::numeric_limits<uint32_t>::max() ? m_endTime + 1 : m_endTime;
}

// Both lookups list the window next to `t` first (a record file lasts at most
// kMaxRecordFileSeconds, so two of them find a neighbour unless there is a gap
// in the recording) and the whole session only when that finds nothing: a
// session over a month of files then lists a few files per step, not all.
bool CStreamReader::findAfter(uint32_t t, RecordFileName& out) {
  const uint32_t b = gatherBegin();
  const uint32_t e = gatherEnd();
  const uint32_t nearBegin = std::max(b, t);
  const uint32_t nearEnd = t < e - std::min(e, kNearWindowSeconds) ? t + kNearWindowSeconds : e;
  out = RecordFileName();
  if (nearBegin < nearEnd) {
    if (!findFirstFileEndingAfter(*m_fs, m_streamId, nearBegin, nearEnd, t, out)) return false;
    if (out.beginTime != 0 || nearEnd == e) return true;
  }
  return findFirstFileEndingAfter(*m_fs, m_streamId, b, e, t, out);
}

bool CStreamReader::findBefore(uint32_t t, RecordFileName& out) {
  const uint32_t b = gatherBegin();
  const uint32_t e = gatherEnd();
  const uint32_t nearBegin = t > b + kNearWindowSeconds ? t - kNearWindowSeconds : b;
  const uint32_t nearEnd = std::min(e, t < std::numeric_limits<uint32_t>::max() ? t + 1 : t);
  out = RecordFileName();
  if (nearBegin < nearEnd) {
    if (!findLastFileBeginningBefore(*m_fs, m_streamId, nearBegin, nearEnd, t, out)) return false;
    if (out.beginTime != 0 || nearBegin == b) return true;
  }
  return findLastFileBeginningBefore(*m_fs, m_streamId, b, e, t, out);
}

int32_t CStreamReader::searchFile(uint32_t time, RecordFileName& out) {
  if (!findAfter(time > 0 ? time - 1 : 0, out)) return -1;
  return out.beginTime != 0 ? 1 : 0;
}

void CStreamReader::doWaitOpenFile() {
  RLOG(LOG_TRACE, "Find record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime, m_beginTime);
  RecordFileName info;
  if (searchFile(m_beginTime, info) != 1) {
    RLOG(LOG_TRACE, "didn't find! change status to Fault\n");
    changeStatus(STATUS_FAULT, STATUS_WAIT_OPEN_FILE);
    return;
  }
  RLOG(LOG_TRACE, "find! then open it.\n");
  const int32_t result = openRecordFile(info, m_beginTime);
  if (result == 1) {
    changeStatus(STATUS_READING, STATUS_WAIT_OPEN_FILE);
  } else if (result < 0) {
    changeStatus(STATUS_FAULT, STATUS_WAIT_OPEN_FILE);
  } else {
    throttleRetry();
  }
}

void CStreamReader::doSeekOver() {
  const uint32_t time = m_seekTime.load();
  bool ok = false;
  if (m_curFile && !hasIndex() && isReverse(m_order.load())) {
    ok = false;
  } else if (m_curFile && fileHolds(time)) {
    uint64_t offset = hasIndex() ? m_curFile->recordIndex()->getIFrameOffset(time)
                                 : calcOffsetByTime(m_curFile->name().beginTime, fileEndTime(), time,
                                                    m_curFile->length());
    if (offset == CRecordFileIndex::kNoOffset) offset = 0;
    RLOG(LOG_TRACE, "Current file include seek ts, seek it. offset: %" PRId64 " in %s.\n",
         static_cast<int64_t>(offset), m_curFile->fullName().c_str());
    ok = positionAt(offset);
  } else {
    RLOG(LOG_TRACE, "Need Open new file, find it. seek time: %u.\n", time);
    RecordFileName info;
    if (searchFile(time, info) != 1) {
      RLOG(LOG_ERROR, "Seek failed. Can't find file by seek time: %u.\n", time);
    } else {
      ok = openRecordFile(info, time) == 1;
    }
  }
  if (ok) {
    m_readedFrameUTC.store(hasIndex() ? time : 0);
    m_readedFrameOffset.store(0);
    m_assemblyCount = 0;
    clearBuf();
  }
  RLOG(LOG_DEBUG, "Seek %s, seekTS:%u\n", ok ? "successful" : "failed", time);
  changeStatus(m_curFile ? STATUS_READING : STATUS_WAIT_OPEN_FILE, STATUS_SEEK_OVER);
}

void CStreamReader::doOrderChanged() {
  const uint32_t time = m_readedFrameUTC.load();
  if (m_curFile && time == 0) {
    RLOG(LOG_TRACE, "OrderChanged! readedFrameUTC is 0.\n");
    // Go on from the frame being assembled; a reverse order takes its group from there.
    if (!positionAt(parsePos())) {
      changeStatus(STATUS_FAULT, STATUS_ORDER_CHANGED);
      return;
    }
    changeStatus(STATUS_READING, STATUS_ORDER_CHANGED);
    return;
  }
  if (m_curFile && hasIndex() && fileHolds(time)) {
    uint64_t offset = m_curFile->recordIndex()->getIFrameOffset(time);
    if (offset == CRecordFileIndex::kNoOffset) offset = 0;
    RLOG(LOG_TRACE, "OrderChanged! Seek to offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset), time);
    if (!positionAt(offset)) {
      RLOG(LOG_ERROR, "seek failed, return fault\n");
      changeStatus(STATUS_FAULT, STATUS_ORDER_CHANGED);
      return;
    }
    changeStatus(STATUS_READING, STATUS_ORDER_CHANGED);
    return;
  }
  const uint32_t target = time != 0 ? time : m_beginTime;
  RLOG(LOG_TRACE, "OrderChanged! re-find record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime,
       target);
  RecordFileName info;
  if (searchFile(target, info) != 1) {
    RLOG(LOG_TRACE, "OrderChanged! didn't find! change status to Fault\n");
    changeStatus(STATUS_FAULT, STATUS_ORDER_CHANGED);
    return;
  }
  RLOG(LOG_TRACE, "OrderChanged! find! then open it.\n");
  const int32_t result = openRecordFile(info, target);
  if (result == 1) {
    changeStatus(STATUS_READING, STATUS_ORDER_CHANGED);
  } else if (result < 0) {
    changeStatus(STATUS_FAULT, STATUS_ORDER_CHANGED);
  } else {
    throttleRetry();
  }
}

bool CStreamReader::hasIndex() const {
  if (!m_curFile || !m_curFile->recordIndex()) return false;
  const int32_t state = m_curFile->state();
  return state == CRecordFile::STATE_INDEXED || state == CRecordFile::STATE_OPEN;
}

bool CStreamReader::fileClosed() const {
  if (!m_curFile) return true;
  if (m_curFile->name().endTime != 0) return true;
  std::shared_ptr<CRecordFileIndex> index = m_curFile->recordIndex();
  if (index && index->isComplete()) return true;
  ZarnFileStat st;
  return m_curFile->stat(st) && !st.openForWrite;
}

uint32_t CStreamReader::fileEndTime() const {
  if (!m_curFile) return 0;
  if (uint32_t end = m_curFile->endTime(); end != 0) return end;
  std::shared_ptr<CRecordFileIndex> index = m_curFile->recordIndex();
  if (index && index->endTime() != 0) return std::max(index->endTime(), m_curInfo.realEndTime);
  return m_curInfo.realEndTime;
}

bool CStreamReader::fileHolds(uint32_t time) const {
  return m_curFile && time >= m_curFile->name().beginTime && time <= fileEndTime();
}

void CStreamReader::borrowWriterIndex() {
  CWritingFileTable::Entry entry;
  if (CMediaContext::instance().writingFiles().get(m_streamId, entry) && entry.index &&
      entry.fullName == m_curFile->fullName()) {
    m_curFile->setRecordIndex(entry.index);
  }
}

uint64_t CStreamReader::calcOffsetByTime(uint32_t beginTime, uint32_t endTime, uint32_t time,
                                         uint64_t fileSize) const {
  RLOG(LOG_DEBUG, "Calc offset by time\n");
  if (time < beginTime || time > endTime) {
    RLOG(LOG_ERROR, "Calc offset failed. time %u out of range [%u ~ %u].\n", time, beginTime, endTime);
    return 0;
  }
  if (beginTime >= endTime) {
    RLOG(LOG_ERROR, "Calc offset failed. beginTS: %u large or equal than endTS: %u.\n", beginTime, endTime);
    return 0;
  }
  return static_cast<uint64_t>(static_cast<double>(time - beginTime) * static_cast<double>(fileSize) /
                               static_cast<double>(endTime - beginTime));
}

void CStreamReader::closeRecordFile() {
  if (!m_curFile) return;
  RLOG(LOG_TRACE, "close record file: %s\n", m_curFile->fullName().c_str());
  m_curFile->close();
  m_curFile.reset();
}

int32_t CStreamReader::openRecordFile(const RecordFileName& info, uint32_t time) {
  const int32_t order = m_order.load();
  const std::string name = nameOf(info);
  RLOG(LOG_DEBUG, "open file:%s time:%u order:%d\n", name.c_str(), time, order);
  const bool namedWithoutIndex = info.endTime != 0 && info.indexState != RECORD_INDEX_INTERNAL &&
                                 info.indexState != RECORD_INDEX_SEPARATE;
  if (isReverse(order) && namedWithoutIndex) {
    RLOG(LOG_ERROR, "Open file failed. Miss Index can't play reverse on index. return fault.\n");
    return -1;
  }
  auto file = std::make_unique<CRecordFile>(*m_fs, info);
  if (!file->openForRead()) {
    RLOG(LOG_ERROR, "Open file failed. maybe renamed, try again later. return retry\n");
    return 0;
  }
  std::unique_ptr<CRecordFile> previous = std::move(m_curFile);
  m_curFile = std::move(file);
  if (m_curFile->state() == CRecordFile::STATE_NOT_CLOSED) borrowWriterIndex();
  const bool indexed = hasIndex();
  if (isReverse(order) && !indexed) {
    m_curFile->close();
    m_curFile = std::move(previous);
    RLOG(LOG_ERROR, "Open file success, but Miss Index can't play reverse on index. return fault\n");
    return -1;
  }

  std::shared_ptr<CRecordFileIndex> index = m_curFile->recordIndex();
  uint64_t offset = 0;
  if (time != 0) {
    uint32_t t = std::max(time, info.beginTime);
    if (info.endTime != 0) t = std::min(t, info.endTime);
    if (indexed) {
      offset = index->getIFrameOffset(t);
      if (offset == CRecordFileIndex::kNoOffset) offset = 0;
    } else {
      offset = calcOffsetByTime(info.beginTime, info.endTime != 0 ? info.endTime : info.realEndTime, t,
                                m_curFile->length());
    }
    RLOG(LOG_TRACE, "Open file with seek to offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset), t);
  } else if (!isReverse(order)) {
    RLOG(LOG_TRACE, "Open file with seek to begin offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset),
         info.beginTime);
  } else {
    IndexEntry last{};
    if (lastKey(*index, last)) offset = last.offset();
    RLOG(LOG_TRACE, "seek to last iframe offset:%" PRId64 " utc:%u\n", static_cast<int64_t>(offset), last.time);
  }

  if (previous) {
    RLOG(LOG_TRACE, "close record file: %s\n", previous->fullName().c_str());
    previous->close();
  }
  RLOG(LOG_TRACE, "Switch file: %s --> %s\n", previous ? previous->fullName().c_str() : "",
       m_curFile->fullName().c_str());
  previous.reset();
  m_curInfo = info;
  m_dataEnd = m_curFile->state() == CRecordFile::STATE_INDEXED ? m_curFile->length() : kNone;
  if (!positionAt(offset)) {
    RLOG(LOG_ERROR, "seek failed, return fault\n");
    return -1;
  }
  return 1;
}

bool CStreamReader::positionAt(uint64_t offset) {
  if (!m_curFile || m_curFile->seek(static_cast<int64_t>(offset), 0) < 0) return false;
  m_readPos = offset;
  m_assemblyCount = 0;
  m_pendingItem.reset();
  m_pendingFilled = 0;
  m_skipTotal = 0;
  m_skipping = false;
  m_gopKey = offset;
  m_reachedBegin = false;
  return true;
}

int32_t CStreamReader::jumpBack() {
  if (m_reachedBegin) {
    RLOG(LOG_INFO, "frameUTC:%u before begin of session:%u ret EOS.\n", m_reachedBeginTime, m_beginTime);
    return -3;
  }
  std::shared_ptr<CRecordFileIndex> index = m_curFile ? m_curFile->recordIndex() : nullptr;
  IndexEntry previous{};
  if (!index || !keyBefore(*index, m_gopKey, previous)) {
    RLOG(LOG_TRACE, "End of File:%s\n", m_curFile ? m_curFile->fullName().c_str() : "");
    return -2;
  }
  if (!positionAt(previous.offset())) {
    RLOG(LOG_ERROR, "seek failed, return fault\n");
    return -1;
  }
  return 1;
}

int32_t CStreamReader::endOfData() { return isReverse(m_order.load()) ? jumpBack() : -2; }

int32_t CStreamReader::readInto(uint8_t* buffer, uint32_t& have, uint32_t want, uint32_t extra) {
  while (have < want) {
    uint32_t ask = want - have + extra;
    if (m_dataEnd != kNone) {
      // A closed file's index and record info follow its data: never read them as frames.
      if (m_readPos >= m_dataEnd) return -2;
      ask = static_cast<uint32_t>(std::min<uint64_t>(ask, m_dataEnd - m_readPos));
    }
    const int64_t got = m_curFile->read(buffer + have, ask);
    if (got > 0) {
      have += static_cast<uint32_t>(got);
      m_readPos += static_cast<uint64_t>(got);
      continue;
    }
    if (got == 0) return 0;  // a file still being written: more may come
    if (getLastError() == ZARN_E_EOF) return -2;
    RLOG(LOG_WARN, "file->read() ret:%d\n", static_cast<int>(got));
    return static_cast<int32_t>(got);
  }
  return 1;
}

void CStreamReader::ensureAssembly(uint32_t want) {
  if (want > m_assemblyCapacity) {
    // Sized to the maximum frame size on first use; grows with it. Allocated
    // without zeroing, so an idle session does not touch 4 MiB.
    const uint32_t capacity = std::max(want, currentMaxFrameSize());
    std::unique_ptr<uint8_t[]> bigger(new uint8_t[capacity]);
    if (m_assemblyCount > 0) std::memcpy(bigger.get(), m_assembly.get(), m_assemblyCount);
    m_assembly = std::move(bigger);
    m_assemblyCapacity = capacity;
  }
}

int32_t CStreamReader::fillAssembly(uint32_t want) {
  ensureAssembly(want);
  return readInto(m_assembly.get(), m_assemblyCount, want);
}

bool CStreamReader::resync() {
  if (!m_skipping) {
    RLOG(LOG_TRACE, "InValidFrameHead. skip to frame head.\n");
    m_skipping = true;
  }
  uint8_t* buffer = m_assembly.get();
  uint32_t skipped = skipToFrameHead(buffer, m_assemblyCount);
  if (skipped == 0 && m_assemblyCount > 0) {
    // The bytes begin with the magic but are no valid frame: the candidate
    // starts no earlier than the next byte.
    std::memmove(buffer, buffer + 1, m_assemblyCount - 1);
    skipped = 1 + skipToFrameHead(buffer, m_assemblyCount - 1);
  }
  m_assemblyCount -= skipped;
  m_skipTotal += skipped;
  if (skipped == 0) {
    RLOG(LOG_WARN, "Skip to frame head failed. skipCount: %i. return EOF.\n", static_cast<int>(m_skipTotal));
    return false;
  }
  if (m_skipTotal >= kMaxSkipBytes) {
    RLOG(LOG_WARN, "Skip count more than max frame len!!! return EOF\n");
    return false;
  }
  return true;
}

bool CStreamReader::skipFakeFrame(uint64_t frameStart, uint32_t length) {
  if (length <= kFrameHeadSize) return false;
  const uint64_t target = frameStart + length;
  uint64_t available = m_dataEnd;
  if (available == kNone) {
    ZarnFileStat st;
    if (!m_curFile->stat(st)) return false;
    available = st.size;
  }
  if (target > available || m_curFile->seek(static_cast<int64_t>(target), 0) < 0) return false;
  m_readPos = target;
  m_assemblyCount = 0;
  return true;
}

int32_t CStreamReader::readRecordFile(uint64_t generation) {
  const int32_t order = m_order.load();
  if (m_stop.load() || m_status.load() != STATUS_READING) {
    RLOG(LOG_TRACE, "read order change, or stopping\n");
    return 0;
  }
  {
    CAutoLock lock(m_bufferMutex);
    if (m_frames.size() >= bufferLimit(order)) return -4;
  }
  if (!m_firstKeyFrameDone.exchange(true) && !isReverse(order) && hasIndex() && m_curFile->isSmartMode() &&
      m_readedFrameUTC.load() != 0) {
    // In a smart stream a smart P frame refers back to the last smart I frame:
    // playback after a seek starts there.
    RLOG(LOG_INFO, "First Seek Smart i Frame, m_readedFrameUTC:%u\n", m_readedFrameUTC.load());
    const uint64_t offset = m_curFile->recordIndex()->getPrevISmartFrameOffset(m_readedFrameUTC.load(), 0);
    if (offset == CRecordFileIndex::kNoOffset) {
      RLOG(LOG_INFO, "End of File:%s\n", m_curFile->fullName().c_str());
      return -2;
    }
    RLOG(LOG_INFO, "Seek I Frame, offset:%ld\n", static_cast<long>(offset));
    if (!positionAt(offset)) {
      RLOG(LOG_ERROR, "seek failed, return fault\n");
      return -1;
    }
  }

  for (;;) {
    int32_t result = m_pendingItem ? 1 : fillAssembly(kFrameHeadSize);
    if (result == 0 && isReverse(order)) return jumpBack();  // the newest group ends where the writer is
    if (result == -2) return endOfData();
    if (result != 1) return result;
    uint8_t* bytes = m_pendingItem ? m_pendingItem->bytes.get() : m_assembly.get();
    const uint64_t frameStart = parsePos();
    if (!checkFrameHead(bytes)) {
      if (!resync()) return endOfData();
      continue;
    }
    VeltoFrameHead head;
    std::memcpy(&head, bytes, sizeof(head));
    if (head.type == FRAME_TYPE_FAKE) {
      RLOG(LOG_TRACE, "Fake Velto Frame\n");
      RLOG(LOG_TRACE, "Skip Fake Frame: len:%u\n", head.length);
      if (!skipFakeFrame(frameStart, head.length)) {
        if (!fileClosed()) {
          RLOG(LOG_TRACE, "Writing File skip fake Velto Frame failed. return Not Ready\n");
          return isReverse(order) ? jumpBack() : 0;
        }
        RLOG(LOG_WARN, "Closed File skip fake Velto Frame failed. return EOF\n");
        return endOfData();
      }
      RLOG(LOG_TRACE, "Skip fake Velto Frame success.\n");
      continue;
    }
    if (head.length < kMinFrameSize) {
      if (!resync()) return endOfData();
      continue;
    }
    if (!m_pendingItem) {
      // The assembled bytes move into the frame's item; bytes past the frame
      // (left by resynchronisation) stay in front for the next pass.
      m_pendingItem = takeItem(head.length);
      const uint32_t n = std::min(m_assemblyCount, head.length);
      std::memcpy(m_pendingItem->bytes.get(), bytes, n);
      if (n < m_assemblyCount) std::memmove(m_assembly.get(), m_assembly.get() + n, m_assemblyCount - n);
      m_assemblyCount -= n;
      m_pendingFilled = n;
    }
    bytes = m_pendingItem->bytes.get();
    // The rest of the frame goes straight into its item (the assembly buffer is
    // empty while it is incomplete), together with the head of the frame after
    // it when the store has it: a steady stream then costs one store call per
    // frame and no copy through the read buffer.
    result = m_pendingFilled >= head.length ? 1 : readInto(bytes, m_pendingFilled, head.length, kFrameHeadSize);
    if (result == 0 && isReverse(order)) return jumpBack();
    if (result == -2) return endOfData();
    if (result != 1) return result;
    std::unique_ptr<FrameItem> item = std::move(m_pendingItem);
    if (m_pendingFilled > head.length) {
      const uint32_t ahead = m_pendingFilled - head.length;
      ensureAssembly(ahead);
      std::memcpy(m_assembly.get(), bytes + head.length, ahead);
      m_assemblyCount = ahead;
    }
    m_pendingFilled = 0;
    if (!checkFrameTail(bytes + head.length - kFrameTailSize)) {
      // Not a frame after all: resynchronise over its bytes (and any after them).
      ensureAssembly(head.length + m_assemblyCount);
      std::memmove(m_assembly.get() + head.length, m_assembly.get(), m_assemblyCount);
      std::memcpy(m_assembly.get(), bytes, head.length);
      m_assemblyCount += head.length;
      recycleItem(std::move(item));
      if (!resync()) return endOfData();
      continue;
    }
    m_skipTotal = 0;
    m_skipping = false;

    const bool key = isKeyFrame(head.type, head.subType);
    uint32_t time = 0;
    if (key && hasIndex()) time = m_curFile->recordIndex()->getIFrameUTC(frameStart);
    if (time == 0) time = frameUtc(bytes);
    if (head.subType == 1 || head.subType == 2) {
      RLOG(LOG_TRACE, "VeltoFrame: filePos:%" PRId64 " Frame: type[%x] len[%u] utc[%u]\n",
           static_cast<int64_t>(frameStart), head.type, head.length, time);
    }

    bool keep;
    if (!isReverse(order)) {
      if (time > m_endTime) {
        RLOG(LOG_INFO, "frameUTC:%u after end of session:%u ret EOS.\n", time, m_endTime);
        return -3;
      }
      keep = order == ORDER_FORWARD || key;
    } else {
      if (key && frameStart != m_gopKey) {
        // The next group of pictures begins: the current one is complete.
        m_assemblyCount = 0;
        recycleItem(std::move(item));
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
      if (!appendFrame(std::move(item), generation, order)) return 0;  // a seek or order change came meanwhile
    } else {
      recycleItem(std::move(item));
    }
    return prepareForNextFrame(time, head.length, frameStart);
  }
}

int32_t CStreamReader::prepareForNextFrame(uint32_t frameTime, uint32_t length, uint64_t offset) {
  const int32_t order = m_order.load();
  (void)frameTime;  // session bounds were applied before the frame was kept
  if (!isReverse(order)) {
    if (m_dataEnd != kNone && offset + length >= m_dataEnd) {
      RLOG(LOG_INFO, "The read offset: %" PRId64 " len:%u after end of file: %" PRIu64 ". retuen EOF.\n",
           static_cast<int64_t>(offset), length, m_dataEnd);
      return -2;
    }
    if (order == ORDER_FORWARD || !hasIndex()) return 1;
    IndexEntry next{};
    if (keyAfter(*m_curFile->recordIndex(), offset, next)) {
      if (!positionAt(next.offset())) {
        RLOG(LOG_ERROR, "seek failed, return fault\n");
        return -1;
      }
      return 1;
    }
    if (!fileClosed()) {
      RLOG(LOG_TRACE, "File:%s not closed, Waiting then Retry.\n", m_curFile->fullName().c_str());
      return 0;
    }
    RLOG(LOG_INFO, "End of File:%s\n", m_curFile->fullName().c_str());
    return -2;
  }
  if (order == ORDER_REVERSE_KEY) return jumpBack();
  if (m_dataEnd != kNone && offset + length >= m_dataEnd) return jumpBack();
  return 1;
}

int32_t CStreamReader::readingStep(uint64_t generation) {
  m_runFrames = 0;
  m_runBytes = 0;
  while (!m_stop.load()) {
    const int32_t order = m_order.load();
    {
      CAutoLock lock(m_bufferMutex);
      if (m_frames.size() >= bufferLimit(order)) return -4;
    }
    // Callers that drain as fast as the worker fills would keep this run going
    // to the end of the session: let the other sessions have their turn.
    if (m_runFrames >= kRunFrames || m_runBytes >= kRunBytes) return 1;
    if (!m_curFile) return -1;
    const int32_t result = readRecordFile(generation);
    if (result == 1) continue;
    if (result != -2) return result;

    // End of this file: find the one after it (or before it, in reverse).
    const uint32_t start = m_curFile->name().beginTime;
    uint32_t end = m_curFile->endTime();
    if (end == 0) {
      RLOG(LOG_ERROR, "The end time of current file is 0, use modify time replace it.\n");
      end = m_curInfo.realEndTime;
      if (end == 0) {
        RLOG(LOG_ERROR, "The end time and modify time of current file are both 0, cannot find next file. return EOS\n");
        return -3;
      }
    }
    RecordFileName next;
    bool ok = true;
    if (!isReverse(order)) {
      RLOG(LOG_TRACE, "Find next record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime, end);
      uint32_t after = end;
      for (int i = 0; i <= kSameFileRetries; ++i) {
        ok = findAfter(after, next);
        // The file just read, listed with a later end than it had: look past it.
        if (!ok || next.beginTime == 0 || !sameFile(next, m_curInfo)) break;
        if (next.realEndTime <= after || i == kSameFileRetries) {
          next = RecordFileName();
          break;
        }
        after = next.realEndTime;
      }
    } else {
      RLOG(LOG_TRACE, "Find prev record file. begin:%u end:%u current:%u\n", m_beginTime, m_endTime, start);
      ok = findBefore(start, next);
      if (ok && next.beginTime != 0 && sameFile(next, m_curInfo)) {
        // A file of one second ends where it begins: look before it.
        next = RecordFileName();
        if (start > 0) ok = findBefore(start - 1, next);
        if (ok && sameFile(next, m_curInfo)) next = RecordFileName();
      }
    }
    if (!ok) {
      RLOG(LOG_ERROR, "find next file error. return fault\n");
      return -1;
    }
    if (next.beginTime == 0) {
      RLOG(LOG_INFO, "can't find next file, return EOS\n");
      return -3;
    }
    const int32_t opened = openRecordFile(next, 0);
    if (opened < 0) {
      RLOG(LOG_ERROR, "open record file failed. ret:%d\n", opened);
      return opened;
    }
    if (opened == 0) return 0;
  }
  return 0;
}

}  // namespace Velto::Zarn
