#include "StreamWriter.h"

#include <cstdlib>
#include <cstring>

#include "KanduLog.h"
#include "KanduThread.h"
#include "MediaConfig.h"
#include "MediaContext.h"
#include "MediaSdkStat.h"
#include "RecordFileName.h"
#include "VeltoFrame.h"
#include "WritingFiles.h"

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;
using Velto::Kandu::CTimer;
using Velto::Kandu::TimerProcedure;

#define WLOG(level, fmt, ...)                                                                            \
  KLOG_AT(level, "#%d,CStreamWriter::%s %d, sid(%d)" fmt, 0, __FUNCTION__, __LINE__, static_cast<int>(m_sid) \
              __VA_OPT__(, ) __VA_ARGS__)

namespace {

std::atomic<int32_t> g_cutsInProgress{0};

bool isCutKey(uint8_t type) { return type == FRAME_TYPE_I || type == FRAME_TYPE_IMAGE; }

uint32_t absDiff(uint32_t a, uint32_t b) { return a > b ? a - b : b - a; }

}  // namespace

int32_t CStreamWriter::cutsInProgress() { return g_cutsInProgress.load(); }

CStreamWriter::CStreamWriter(std::shared_ptr<CZarnFileSystem> fs, uint32_t sid, int16_t type, bool sync)
    : m_fs(std::move(fs)),
      m_sid(sid),
      m_type(type),
      m_sync(sync),
      m_queue(CMediaContext::instance().writerQueue()),
      m_maxFileLength(static_cast<uint32_t>(CMediaContext::instance().config().getMaxFileLength())),
      m_maxFileDuration(static_cast<uint32_t>(CMediaContext::instance().config().getMaxFileDuration())),
      m_minCutFileTime(static_cast<uint32_t>(CMediaContext::instance().config().getMinCutFileTime())),
      m_svcEnabled(CMediaContext::instance().config().getSVCEnabled()),
      m_asyncDeleteTimer("CStreamWriter async delete timer.") {
  WLOG(Velto::Kandu::LOG_INFO, "new writer: sid = %u; type = %d; sync = %d.\n", m_sid, m_type, m_sync ? 1 : 0);
}

CStreamWriter::~CStreamWriter() {
  WLOG(Velto::Kandu::LOG_INFO, "del writer: sid = %u; type = %d; sync = %d.\n", m_sid, m_type, m_sync ? 1 : 0);
  waitOutOfQueue();
  m_asyncDeleteTimer.stop(true);
  // A writer dropped without closeStream (a lost registration race, or a
  // process shutting down) still leaves a properly closed file behind.
  if (m_curFile) closeCurrentFile();
  clearFrameBuf();
}

int32_t CStreamWriter::writeFrame(const VeltoFrame* frame, uint32_t frameTime, unsigned long long& written) {
  written = 0;
  if (m_fileFault.load()) {
    WLOG(Velto::Kandu::LOG_ERROR, "file fault, cant't writeFrame!\n");
    return -3;
  }
  if (m_closed.load()) {
    WLOG(Velto::Kandu::LOG_WARN, "drop the frame because of Stream Closed!\n");
    return 0;
  }
  if (frame == nullptr || frame->frame == nullptr || !checkFrameHead(frame->frame) || !checkFrameTail(*frame)) {
    WLOG(Velto::Kandu::LOG_WARN, "drop the frame because of Invalid Frame!\n");
    return 0;
  }
  const VeltoFrameHead& head = *reinterpret_cast<const VeltoFrameHead*>(frame->frame);
  if (!m_keyFrameSeen) {
    if (!isCutKey(head.type)) return 0;  // nothing decodable before the first key frame
    m_keyFrameSeen = true;
  }
  if (frameTime == 0) frameTime = Velto::Zarn::frameTime(frame->frame);

  if (!m_sync) {
    bool taken = false;
    {
      CAutoLock lock(m_cacheMutex);
      if (m_framesBuf4Cache.size() < kCacheFrames) {
        std::unique_ptr<FrameItem> item;
        if (m_itemPool.empty()) {
          item = std::make_unique<FrameItem>();
        } else {
          item = std::move(m_itemPool.back());
          m_itemPool.pop_back();
        }
        item->bytes.assign(frame->frame, frame->frame + head.length);
        item->writtenBytes = 0;
        item->screened = false;
        item->frameTime = frameTime;
        m_framesBuf4Cache.push_back(std::move(item));
        taken = true;
      }
    }
    if (taken) written = head.length;
    submitSelf();
    return taken ? 0 : -2;
  }

  // A sync write holds the item mutex, so a close that passes through it
  // waits for a write already in flight on a host thread.
  CAutoLock run(itemMutex());
  if (m_closed.load()) {
    WLOG(Velto::Kandu::LOG_WARN, "drop the frame because of Stream Closed!\n");
    return 0;
  }
  if (!checkFile(head, frameTime)) {
    WLOG(Velto::Kandu::LOG_ERROR, "Write error because of invalid record file. Set file as fault!\n");
    m_fileFault.store(true);
    return -3;
  }
  if (!checkFrame(head, frame->frame)) return 0;
  uint32_t done = 0;
  if (writeBlk(frame->frame, head.length, done, true) != 0) return -3;
  afterWrite(head, frameTime);
  written = head.length;
  return 0;
}

void CStreamWriter::recycle(std::unique_ptr<FrameItem> item) {
  CAutoLock lock(m_cacheMutex);
  if (m_itemPool.size() < kItemPoolSize) m_itemPool.push_back(std::move(item));
}

void CStreamWriter::submitSelf() {
  if (m_closing.load()) return;  // the close procedure owns the last submission
  int idle = 1;
  if (m_queueState.compare_exchange_strong(idle, 0) && !m_queue.submit(this)) m_queueState.store(1);
}

bool CStreamWriter::ensureBucket() {
  if (!m_bucketUnchecked) return true;
  std::string bucket = bucketName(m_sid, BUCKET_KIND_MEDIA);
  if (m_fs->getBucket(bucket).isValid() || m_fs->createBucket(bucket) || getLastError() == ZARN_E_BUCKET_EXISTS) {
    m_bucketUnchecked = false;
    return true;
  }
  KLOG_WARN("bucket[%s] get & create failed ! maybe not sync. try delete it.\n", bucket.c_str());
  m_fs->removeBucket(bucket);
  if (m_fs->createBucket(bucket)) {
    m_bucketUnchecked = false;
    return true;
  }
  WLOG(Velto::Kandu::LOG_ERROR, "create bucket failed.\n");
  return false;
}

bool CStreamWriter::checkFile(const VeltoFrameHead& head, uint32_t frameTime) {
  if (!m_fileCreated) {
    m_fileCreated = createFile(frameTime, false);
    return m_fileCreated;
  }
  if (couldCutFile(head, frameTime)) cutFile(frameTime);
  return true;
}

void CStreamWriter::cutFile(uint32_t frameTime) {
  WLOG(Velto::Kandu::LOG_INFO, "Cut file. Create new and then Close old.\n");
  CMediaContext::instance().stats().addFileSplitCount();
  ++g_cutsInProgress;
  // The next file exists before the old one is closed, so the stream is never
  // without a file to write to. When it cannot be created the old file stays
  // current (and a pending forced cut runs into its time limit).
  if (createFile(frameTime, true)) {
    closeCurrentFile();
    switchToNextFile();
    cutResultNotify(1);
  }
  --g_cutsInProgress;
}

bool CStreamWriter::couldCutFile(const VeltoFrameHead& head, uint32_t frameTime) {
  uint32_t diff = absDiff(frameTime, m_curFileLastTime);
  if (diff >= kTimeHopSeconds) {
    if (!m_timeHopping) {
      m_timeHopping = true;
      WLOG(Velto::Kandu::LOG_ERROR, "there exist time-hooping, diffTS = %u, frameTS = %u, m_curFileLastTime = %u.\n",
           diff, frameTime, m_curFileLastTime);
    }
    if (!isCutKey(head.type)) return false;
    m_timeHopping = false;
    return true;
  }
  if (!isCutKey(head.type)) return false;
  if (m_forceCutPending.load() && m_curFileLastTime >= m_forceCutTime) return true;
  if (static_cast<int64_t>(frameTime) - static_cast<int64_t>(m_curFileStartTime) < m_minCutFileTime) return false;
  if (g_cutsInProgress.load() >= kMaxCutsInProgress) return false;
  if (m_curFile == nullptr || m_curFile->state() != CRecordFile::STATE_OPEN) {
    WLOG(Velto::Kandu::LOG_ERROR, "file state is invalid.\n");
    return true;
  }
  {
    CAutoLock lock(m_fileStateMutex);
    if (m_fileState == ZARN_FILE_STATE_DEGRADED) return true;
  }
  return m_curFile->length() >= m_maxFileLength ||
         static_cast<int64_t>(frameTime) - static_cast<int64_t>(m_curFileStartTime) >= m_maxFileDuration;
}

bool CStreamWriter::createFile(uint32_t startTime, bool asNext) {
  ensureBucket();
  RecordFileName name;
  name.streamId = m_sid;
  name.beginTime = startTime;
  name.type = static_cast<uint16_t>(m_type);
  auto file = std::make_unique<CRecordFile>(*m_fs, name);
  file->setStateCallback([this](int state) { fileStateChangedProc(state); });
  CMediaValues& values = CMediaContext::values();
  if (!file->openForWrite(values.ecDataNum.load(), values.ecParityNum.load())) {
    WLOG(Velto::Kandu::LOG_ERROR, "Create record file failed.\n");
    return false;
  }
  m_curFileStartTime = startTime;
  m_curFileLastTime = startTime;
  if (asNext) {
    m_nextFile = std::move(file);
    return true;
  }
  becomeCurrent(std::move(file));
  return true;
}

void CStreamWriter::becomeCurrent(std::unique_ptr<CRecordFile> file) {
  m_curFile = std::move(file);
  m_hasCurFile.store(true);
  {
    CAutoLock lock(m_fileStateMutex);
    m_fileState = 1;
  }
  CMediaContext::instance().writingFiles().set(
      m_sid, CWritingFileTable::Entry{m_curFile->fullName(), m_curFileStartTime, m_curFile->recordIndex()});
}

void CStreamWriter::closeCurrentFile() {
  if (!m_curFile) return;
  m_curFile->close();
  CMediaContext::instance().writingFiles().erase(m_sid);
  m_curFile.reset();
  m_hasCurFile.store(false);
  {
    CAutoLock lock(m_fileStateMutex);
    m_fileState = 0;
  }
  CMediaContext::instance().stats().addWriteSuccessCount();
}

bool CStreamWriter::switchToNextFile() {
  if (!m_nextFile) {
    WLOG(Velto::Kandu::LOG_ERROR, "switchToNextFile failed.\n");
    return false;
  }
  becomeCurrent(std::move(m_nextFile));
  WLOG(Velto::Kandu::LOG_INFO, "switchToNextFile OK.\n");
  return true;
}

bool CStreamWriter::checkFrame(const VeltoFrameHead& head, const uint8_t* frameBytes) {
  m_svcLevels = 0xFF;
  m_svcLayerFlag = 0xFF;
  if (!isVideoFrame(head.type)) return true;
  const bool key = isCutKey(head.type);
  const uint8_t* svc = m_svcEnabled ? findSvcItem(frameBytes + kFrameHeadSize, head.extLength) : nullptr;
  if (svc != nullptr) {
    m_svcLevels = svc[1];
    m_svcLayerFlag = svc[2];
    if (m_svcLevels == 0) {
      WLOG(Velto::Kandu::LOG_ERROR, "SVC m_allLevels=0\n\n");
      return false;
    }
    if (key) {
      m_refSequence = head.sequence;
      m_refFound = true;
    }
    if (!m_refFound) {
      WLOG(Velto::Kandu::LOG_ERROR, "SVC not find keyFrame\n\n");
      return false;
    }
    if (m_svcLayerFlag == 0) {
      m_refSequence = head.sequence;
      m_lastSequence = head.sequence;
      return true;
    }
    const uint32_t d = head.sequence - m_refSequence;
    const uint32_t g = head.sequence - m_lastSequence;
    const uint32_t span = m_svcLevels >= 33 ? 0xFFFFFFFFu : (1u << (m_svcLevels - 1));
    if (d >= span) {
      WLOG(Velto::Kandu::LOG_ERROR, "SVC index[%d], svc0[%d], total[%d]\n\n", static_cast<int>(head.sequence),
           static_cast<int>(m_refSequence), m_svcLevels);
      m_refFound = false;
      return false;
    }
    bool drop = false;
    if (m_svcLevels == 3) {
      if (g >= 2 && d == 3) {
        drop = true;
        m_lastSequence = head.sequence;
      }
    } else if (m_svcLevels == 4) {
      if (g >= 2 && (d == 3 || d == 7)) {
        drop = true;
        m_lastSequence = head.sequence;
      } else if (g >= 2 && d >= 5 && m_lastSequence - m_refSequence != 4) {
        drop = true;
        m_lastSequence = m_refSequence + 7;
      }
    }
    if (drop) {
      WLOG(Velto::Kandu::LOG_ERROR, "SVC index[%d], svc0[%d], total[%d]\n\n", static_cast<int>(head.sequence),
           static_cast<int>(m_refSequence), m_svcLevels);
      return false;
    }
    m_lastSequence = head.sequence;
    return true;
  }
  // Without SVC: after a gap in sequence numbers everything up to the next key
  // frame is dropped, since the frames in between cannot be decoded.
  if (key) {
    m_lastSequence = head.sequence;
    m_refFound = true;
    return true;
  }
  if (m_refFound && head.sequence == m_lastSequence + 1) {
    m_lastSequence = head.sequence;
    return true;
  }
  m_refFound = false;
  return false;
}

int32_t CStreamWriter::writeBlk(const uint8_t* bytes, uint32_t length, uint32_t& done, bool blocking) {
  while (done < length) {
    int64_t n = m_curFile ? m_curFile->write(bytes + done, length - done) : -1;
    if (n > 0) {
      done += static_cast<uint32_t>(n);
      m_zeroWriteCount = 0;
      continue;
    }
    if (n < 0) {
      WLOG(Velto::Kandu::LOG_ERROR, "Fault: write error: ret = %d; %d: %s.\n", static_cast<int>(n), getLastError(),
           getErrorMsg());
      m_fileFault.store(true);
      return -3;
    }
    ++m_zeroWriteCount;
    if (!blocking) return -2;
    Velto::Kandu::sleepMs(5);
  }
  return 0;
}

void CStreamWriter::afterWrite(const VeltoFrameHead& head, uint32_t frameTime) {
  uint32_t time = frameTime;
  if (m_timeHopping) {
    // The frame's own time is not trusted during a hop: advance by the source's
    // millisecond counter, at most a minute at a time.
    uint32_t candidate = m_curFileLastTime;
    uint32_t seconds = static_cast<uint16_t>(head.msStamp - m_lastMsStamp) / 1000u;
    if (seconds != 0) {
      candidate = m_curFileLastTime + seconds;
      m_lastMsStamp = head.msStamp;
    }
    time = (candidate >= m_curFileLastTime && candidate <= m_curFileLastTime + 60) ? candidate : m_curFileLastTime + 1;
  } else {
    m_lastMsStamp = head.msStamp;
  }
  m_curFileLastTime = time;
  m_curFile->setLastTime(time);
  if (isKeyFrame(head.type, head.subType) || m_svcLayerFlag == 0) {
    m_curFile->addIndex(head.type, head.subType, time, head.length);
  }
}

int32_t CStreamWriter::flushFrame() {
  if (!m_sync) std::abort();  // async writers pad nothing: a programming error
  if (m_fileFault.load()) {
    WLOG(Velto::Kandu::LOG_ERROR, "file fault, cant't flushFrame!\n");
    return -3;
  }
  if (m_closed.load()) {
    WLOG(Velto::Kandu::LOG_WARN, "drop the frame because of Stream Closed!\n");
    return 0;
  }
  CAutoLock run(itemMutex());
  if (!m_curFile) return 0;  // nothing written yet: nothing to pad
  const uint32_t stripe = CMediaContext::values().ecStripeSize.load();
  if (m_padding.size() != stripe) m_padding.assign(stripe, 0);
  // A file already on a boundary receives a whole stripe, deliberately.
  const uint32_t fill = stripe - static_cast<uint32_t>(m_curFile->length() % stripe);
  buildFakeFrame(m_padding.data(), fill);
  uint32_t done = 0;
  if (writeBlk(m_padding.data(), fill, done, true) != 0 || done != fill) {
    WLOG(Velto::Kandu::LOG_ERROR, "flushFrame failed!\n");
    m_fileFault.store(true);
    return -3;
  }
  return 0;
}

bool CStreamWriter::doWriteFrame(bool flushAll) {
  {
    CAutoLock lock(m_cacheMutex);
    if (flushAll) {
      while (!m_framesBuf4Cache.empty()) {
        m_framesBuf4Write.push_back(std::move(m_framesBuf4Cache.front()));
        m_framesBuf4Cache.pop_front();
      }
    } else if (m_framesBuf4Write.empty()) {
      for (size_t i = 0; i < kFramesPerPass && !m_framesBuf4Cache.empty(); ++i) {
        m_framesBuf4Write.push_back(std::move(m_framesBuf4Cache.front()));
        m_framesBuf4Cache.pop_front();
      }
    }
  }
  int32_t result = 0;
  for (;;) {
    std::unique_ptr<FrameItem> item = std::move(m_curFrameItem);
    if (!item) {
      if (m_framesBuf4Write.empty()) break;
      item = std::move(m_framesBuf4Write.front());
      m_framesBuf4Write.pop_front();
      item->writtenBytes = 0;
    }
    if (m_fileFault.load()) {
      result = -3;
      recycle(std::move(item));  // discarded
      continue;
    }
    const VeltoFrameHead& head = item->head();
    if (!item->screened) {
      if (!m_fileCreated) {
        m_fileCreated = createFile(item->frameTime, false);
        if (!m_fileCreated) {
          WLOG(Velto::Kandu::LOG_ERROR, "Write error because of invalid record file. Set file as fault!\n");
          m_fileFault.store(true);
          result = -3;
          recycle(std::move(item));
          continue;
        }
      } else if (couldCutFile(head, item->frameTime)) {
        cutFile(item->frameTime);
      }
      if (!checkFrame(head, item->bytes.data())) {
        recycle(std::move(item));
        continue;
      }
      item->screened = true;
    }
    result = writeBlk(item->bytes.data(), head.length, item->writtenBytes, flushAll);
    if (result == -2) {
      m_curFrameItem = std::move(item);
      break;
    }
    if (result == 0) afterWrite(head, item->frameTime);
    recycle(std::move(item));
  }
  return !flushAll && m_curFrameItem != nullptr && result == -2;
}

void CStreamWriter::execute() {
  if (m_closed.load() && m_queueState.load() == 0) {
    // The last run after closing: release the self reference, which may end
    // this writer. Nothing of the writer may be touched afterwards.
    m_queueState.store(1);
    m_asyncDeleteTimer.stop(true);
    passItemMutex();
    std::shared_ptr<CStreamWriter> self = std::move(m_self);
    return;
  }
  if (m_closed.load()) {
    WLOG(Velto::Kandu::LOG_ERROR, "write is closed and stopped.\n");
    return;
  }
  if (m_bucketUnchecked && !ensureBucket()) m_fileFault.store(true);

  bool blocked = doWriteFrame(false);
  bool resubmit = blocked && !(m_zeroWriteCount != 0 && m_zeroWriteCount % 3 == 0);
  if (resubmit && !m_closing.load() && m_queue.submit(this)) return;
  m_queueState.store(1);
  // A frame cached after this pass took its frames, but before the state went
  // idle, found the writer busy and did not submit it: look once more.
  bool pending;
  {
    CAutoLock lock(m_cacheMutex);
    pending = !m_framesBuf4Cache.empty();
  }
  if (pending && !blocked) submitSelf();
}

void CStreamWriter::waitOutOfQueue() {
  while (m_queueState.load() != 1) {
    if (m_queue.cancel(this)) m_queueState.store(1);
    passItemMutex();
    Velto::Kandu::sleepMs(0);
  }
}

bool CStreamWriter::forceCutFile(uint32_t time) {
  if (!m_hasCurFile.load() || time < m_curFileStartTime.load()) return true;
  if (CMediaContext::values().sdkState.load() != ZARN_STATE_NORMAL) {
    WLOG(Velto::Kandu::LOG_WARN, "zarn state is exceptional, don't forceCutFile!\n");
    return false;
  }
  if (!m_forceCutMutex.tryLock()) {
    WLOG(Velto::Kandu::LOG_WARN, "there is one forceCutFile already!\n");
    return false;
  }
  WLOG(Velto::Kandu::LOG_TRACE, "forceCutFile req pending.\n");
  m_forceCutTime = time;
  m_forceCutResult.store(0);
  m_forceCutPending.store(true);
  m_forceCutSemaphore.pend(kForceCutWaitMs);
  m_forceCutPending.store(false);
  const uint8_t result = m_forceCutResult.load();
  WLOG(Velto::Kandu::LOG_TRACE, "forceCutFile result: %d.\n", result);
  m_forceCutMutex.unlock();
  return result != 0;
}

void CStreamWriter::cutResultNotify(uint8_t result) {
  if (!m_forceCutPending.load()) return;
  WLOG(Velto::Kandu::LOG_TRACE, "cutResultNotify result: %d.\n", result);
  m_forceCutResult.store(result);
  m_forceCutPending.store(false);
  m_forceCutSemaphore.post();
}

void CStreamWriter::closeStream(std::shared_ptr<CStreamWriter> self) {
  WLOG(Velto::Kandu::LOG_TRACE, "closeStream.\n");
  if (m_self) std::abort();  // closed twice through the registry: a programming error
  if (m_asyncDeleteTimer.isRunning() || m_closed.load()) return;
  m_self = std::move(self);
  m_closing.store(true);
  m_asyncDeleteTimer.start(TimerProcedure(this, &CStreamWriter::asyncCloseProc), 0, 0, 0, 60000);
}

void CStreamWriter::asyncCloseProc(CTimer* /*timer*/) {
  waitOutOfQueue();
  {
    // Held, not only passed: a sync write arriving now must wait, then see
    // the writer closed, rather than append to a file being closed.
    CAutoLock run(itemMutex());
    // Frames taken into the cache were acknowledged to the host: they are
    // written even when no worker ran before the close (and no file exists yet).
    bool pending;
    {
      CAutoLock lock(m_cacheMutex);
      pending = !m_framesBuf4Cache.empty();
    }
    if (m_curFile || pending || !m_framesBuf4Write.empty() || m_curFrameItem) {
      doWriteFrame(true);
      closeCurrentFile();
    }
    cutResultNotify(1);
    m_closed.store(true);
  }
  setLockOnRun(false);
  m_queueState.store(0);
  if (!m_queue.submit(this)) {
    m_queueState.store(1);
    std::shared_ptr<CStreamWriter> self = std::move(m_self);  // may end the writer
  }
}

void CStreamWriter::fileStateChangedProc(int state) {
  CAutoLock lock(m_fileStateMutex);
  WLOG(Velto::Kandu::LOG_WARN, "FileStateChanged: %d -> %d.\n", m_fileState, state);
  m_fileState = state;
}

void CStreamWriter::clearFrameBuf() {
  CAutoLock lock(m_cacheMutex);
  if (!m_framesBuf4Cache.empty()) {
    WLOG(Velto::Kandu::LOG_WARN, "m_framesBuf4Cache isn't empty(size = %d)!\n", static_cast<int>(m_framesBuf4Cache.size()));
    m_framesBuf4Cache.clear();
  }
  if (!m_framesBuf4Write.empty()) {
    WLOG(Velto::Kandu::LOG_WARN, "m_framesBuf4Write isn't empty(size = %ld)!\n", static_cast<long>(m_framesBuf4Write.size()));
    m_framesBuf4Write.clear();
  }
  if (m_curFrameItem) {
    WLOG(Velto::Kandu::LOG_WARN, "m_curFrameItem isn't empty!\n");
    m_curFrameItem.reset();
  }
}

}  // namespace Velto::Zarn
