#include "StreamWriter.h"

#include <cstdlib>
#include <cstring>

#include "BlockTransfer.h"
#include "MediaLog.h"
#include "MediaValues.h"
#include "RecordFileName.h"
#include "StreamWriterLog.h"
#include "VeltoFrame.h"

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;

namespace {

std::atomic<int32_t> g_cutsInProgress{0};

uint32_t absDiff(uint32_t a, uint32_t b) { return a > b ? a - b : b - a; }

}  // namespace

int32_t CStreamWriter::cutsInProgress() { return g_cutsInProgress.load(); }

CStreamWriter::CStreamWriter(std::shared_ptr<CZarnFileSystem> fs, uint32_t sid, int16_t type, bool sync,
                             const EngineEnv& env)
    : CAsyncEngine(env.queue, "CStreamWriter async delete timer."),
      m_fs(std::move(fs)),
      m_env(env),
      m_sid(sid),
      m_type(type),
      m_sync(sync),
      m_maxFileLength(static_cast<uint32_t>(env.config.getMaxFileLength())),
      m_maxFileDuration(static_cast<uint32_t>(env.config.getMaxFileDuration())),
      m_minCutFileTime(static_cast<uint32_t>(env.config.getMinCutFileTime())),
      m_svcEnabled(env.config.getSVCEnabled()) {
  WLOG(INFO, "new writer: sid = %u; type = %d; sync = %d.\n", m_sid, m_type, m_sync ? 1 : 0);
}

CStreamWriter::~CStreamWriter() {
  WLOG(INFO, "del writer: sid = %u; type = %d; sync = %d.\n", m_sid, m_type, m_sync ? 1 : 0);
  stopRuns();
  // A writer dropped without closeStream (a lost registration race, or a
  // process shutting down) still leaves a properly closed file behind.
  if (m_curFile) closeCurrentFile();
  clearFrameBuf();
}

int32_t CStreamWriter::writeFrame(const VeltoFrame* frame, uint32_t frameTime, unsigned long long& written) {
  written = 0;
  if (isFileFault()) {
    WLOG(ERROR, "file fault, cant't writeFrame!\n");
    return -3;
  }
  if (isClosed()) {
    WLOG(WARN, "drop the frame because of Stream Closed!\n");
    return 0;
  }
  // The SVC screening walks the extension area: it must lie inside the frame.
  if (frame == nullptr || frame->frame == nullptr || !checkFrameHead(frame->frame) ||
      !frameLayoutFits(frame->frame) || !checkFrameTail(*frame)) {
    WLOG(WARN, "drop the frame because of Invalid Frame!\n");
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
        item->timed = false;
        item->frameTime = frameTime;
        m_framesBuf4Cache.push_back(std::move(item));
        taken = true;
      }
    }
    if (taken) written = head.length;
    submit();
    return taken ? 0 : -2;
  }

  // A sync write holds the item mutex, so a close that passes through it
  // waits for a write already in flight on a host thread.
  CAutoLock run(itemMutex());
  if (isClosed()) {
    WLOG(WARN, "drop the frame because of Stream Closed!\n");
    return 0;
  }
  const Screen screen = screenFrame(head, frame->frame, frameTime);
  if (screen == Screen::Fault) return -3;
  if (screen == Screen::Drop) return 0;
  const bool indexed = needsIndexEntry(head);
  uint32_t done = 0;
  if (writeFrameBlk(frame->frame, head.length, done, true, frameTime) != 0) return -3;
  recordWritten(head, advanceLastTime(head, frameTime), indexed, m_curFile->length() - head.length);
  written = head.length;
  return 0;
}

CStreamWriter::Screen CStreamWriter::screenFrame(const VeltoFrameHead& head, const uint8_t* frameBytes,
                                                 uint32_t frameTime) {
  if (!m_fileCreated) {
    m_fileCreated = createFile(frameTime, false);
    if (!m_fileCreated) {
      WLOG(ERROR, "Write error because of invalid record file. Set file as fault!\n");
      setBackgroundError(-3);
      return Screen::Fault;
    }
  } else if (couldCutFile(head, frameTime)) {
    cutFile(frameTime);
  }
  return checkFrame(head, frameBytes) ? Screen::Write : Screen::Drop;
}

bool CStreamWriter::needsIndexEntry(const VeltoFrameHead& head) const {
  return isKeyFrame(head.type, head.subType) || m_svcLayerFlag == 0;
}

void CStreamWriter::finishItem(FrameItem& item, uint64_t position) {
  if (!item.timed) item.recordTime = advanceLastTime(item.head(), item.frameTime);
  recordWritten(item.head(), item.recordTime, item.indexed, position);
}

void CStreamWriter::recycle(std::unique_ptr<FrameItem> item) {
  CAutoLock lock(m_cacheMutex);
  if (m_itemPool.size() < kItemPoolSize) m_itemPool.push_back(std::move(item));
}

bool CStreamWriter::failOver(uint32_t frameTime) {
  const int32_t code = getLastError();
  if (!CMediaValues::instance().localStoreSupported.load() || !isStoreFault(code) || !m_curFile) return false;
  WLOG(WARN, "store fault %d on the file being written: it is closed as it stands and a new file takes the frame.\n",
       code);
  closeCurrentFile();
  return createFile(frameTime, false);
}

bool CStreamWriter::ensureBucket() {
  if (!m_bucketUnchecked) return true;
  // Record files go to local disks while the store is failed: its buckets are
  // checked once it is back.
  if (CMediaValues::instance().localStoreInUse.load()) return true;
  std::string bucket = bucketName(m_sid, BUCKET_KIND_MEDIA);
  if (m_fs->getBucket(bucket).isValid() || m_fs->createBucket(bucket) || getLastError() == ZARN_E_BUCKET_EXISTS) {
    m_bucketUnchecked = false;
    return true;
  }
  const CMediaValues& values = CMediaValues::instance();
  if (values.localStoreSupported.load() && isStoreFault(getLastError())) return true;  // the store failed just now
  KLOG_WARN("bucket[%s] get & create failed ! maybe not sync. try delete it.\n", bucket.c_str());
  m_fs->removeBucket(bucket);
  if (m_fs->createBucket(bucket)) {
    m_bucketUnchecked = false;
    return true;
  }
  WLOG(ERROR, "create bucket failed.\n");
  return false;
}

void CStreamWriter::cutFile(uint32_t frameTime) {
  WLOG(INFO, "Cut file. Create new and then Close old.\n");
  m_env.stats.addFileSplitCount();
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
      WLOG(ERROR, "there exist time-hooping, diffTS = %u, frameTS = %u, m_curFileLastTime = %u.\n",
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
    WLOG(ERROR, "file state is invalid.\n");
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
  const CMediaValues& values = CMediaValues::instance();
  std::unique_ptr<CRecordFile> file;
  for (int attempt = 0; attempt < 2; ++attempt) {
    file = std::make_unique<CRecordFile>(*m_fs, name);
    file->setStateCallback([this](int state) { fileStateChangedProc(state); });
    if (file->openForWrite(values.ecDataNum.load(), values.ecParityNum.load())) break;
    // A writer of this stream that died within this second left its open file
    // under this very name; nobody repairs it before we need the name.
    if (attempt > 0 || !setAsideLeftover(name)) {
      WLOG(ERROR, "Create record file failed.\n");
      return false;
    }
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

bool CStreamWriter::setAsideLeftover(const RecordFileName& openName) {
  std::string path;
  ZarnFileStat stat;
  if (!generateRecordFileName(openName, path) || !m_fs->getFileStat(path, stat) || stat.openForWrite) return false;
  // A closed name with index state 0 asks the index fixer to repair it; its
  // end time becomes the last frame's then.
  RecordFileName closed = openName;
  closed.endTime = closed.realEndTime = openName.beginTime;
  closed.indexState = RECORD_INDEX_MISSING;
  WLOG(WARN, "a dead writer's file holds the name %s: moved aside for repair.\n", path.c_str());
  // A repair that took the file first has freed the name just as well.
  recordFileRename(*m_fs, path, closed);
  return true;
}

void CStreamWriter::becomeCurrent(std::unique_ptr<CRecordFile> file) {
  m_curFile = std::move(file);
  m_hasCurFile.store(true);
  {
    CAutoLock lock(m_fileStateMutex);
    m_fileState = 1;
  }
  m_env.writingFiles.set(
      m_sid, CWritingFileTable::Entry{m_curFile->fullName(), m_curFileStartTime, m_curFile->recordIndex()});
}

void CStreamWriter::closeCurrentFile() {
  if (!m_curFile) return;
  m_curFile->close();
  if (m_curFile->storeCloseFailed()) m_env.stats.addWriteFailedCount();
  m_env.writingFiles.erase(m_sid);
  m_curFile.reset();
  m_hasCurFile.store(false);
  {
    CAutoLock lock(m_fileStateMutex);
    m_fileState = 0;
  }
  m_env.stats.addWriteSuccessCount();
}

bool CStreamWriter::switchToNextFile() {
  if (!m_nextFile) {
    WLOG(ERROR, "switchToNextFile failed.\n");
    return false;
  }
  becomeCurrent(std::move(m_nextFile));
  WLOG(INFO, "switchToNextFile OK.\n");
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
      WLOG(ERROR, "SVC m_allLevels=0\n\n");
      return false;
    }
    if (key) {
      m_refSequence = head.sequence;
      m_refFound = true;
    }
    if (!m_refFound) {
      WLOG(ERROR, "SVC not find keyFrame\n\n");
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
      WLOG(ERROR, "SVC index[%d], svc0[%d], total[%d]\n\n", static_cast<int>(head.sequence),
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
      WLOG(ERROR, "SVC index[%d], svc0[%d], total[%d]\n\n", static_cast<int>(head.sequence),
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

int32_t CStreamWriter::writeFrameBlk(const uint8_t* bytes, uint32_t length, uint32_t& done, bool blocking,
                                     uint32_t frameTime) {
  int32_t result = writeBlk(bytes, length, done, blocking);
  if (result == -3 && failOver(frameTime)) {
    done = 0;  // the whole frame again, into the new file
    result = writeBlk(bytes, length, done, blocking);
  }
  if (result == -3) setBackgroundError(-3);
  return result;
}

int32_t CStreamWriter::writeBlk(const uint8_t* bytes, uint32_t length, uint32_t& done, bool blocking) {
  int64_t failed = -1;  // the failing store call's result
  const TransferResult result =
      m_curFile ? transferBytes(
                      length, done, blocking, 0,
                      [&](uint32_t at) { return failed = m_curFile->write(bytes + at, length - at); },
                      &m_zeroWriteCount)
                : TransferResult::Failed;
  if (result == TransferResult::Done) return 0;
  if (result == TransferResult::Stalled) return -2;
  WLOG(ERROR, "Fault: write error: ret = %d; %d: %s.\n", static_cast<int>(failed), getLastError(), getErrorMsg());
  return -3;
}

uint32_t CStreamWriter::advanceLastTime(const VeltoFrameHead& head, uint32_t frameTime) {
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
  return time;
}

void CStreamWriter::recordWritten(const VeltoFrameHead& head, uint32_t time, bool indexed, uint64_t position) {
  m_curFile->setLastTime(time);
  if (indexed) m_curFile->addIndexAt(head.type, head.subType, time, head.length, position);
  m_env.stats.addStreamBytes(head.length);
}

int32_t CStreamWriter::flushFrame() {
  if (!m_sync) std::abort();  // async writers pad nothing: a programming error
  if (isFileFault()) {
    WLOG(ERROR, "file fault, cant't flushFrame!\n");
    return -3;
  }
  if (isClosed()) {
    WLOG(WARN, "drop the frame because of Stream Closed!\n");
    return 0;
  }
  CAutoLock run(itemMutex());
  if (!m_curFile) return 0;  // nothing written yet: nothing to pad
  // The stripe comes from the host unchecked: a padding frame must be one that
  // readers take (below the maximum frame size), and no flush pads more than
  // kMaxPaddingBytes. A refused flush leaves the file as it is, not faulted.
  const uint32_t stripe = CMediaValues::instance().ecStripeSize.load();
  if (stripe == 0 || stripe >= currentMaxFrameSize() || stripe > kMaxPaddingBytes) {
    WLOG(ERROR, "flushFrame refused: a stripe of %u bytes is not in 1..%u and below the maximum frame size %u.\n",
         stripe, kMaxPaddingBytes, currentMaxFrameSize());
    return -3;
  }
  if (m_padding.size() != stripe) m_padding.assign(stripe, 0);
  // A file already on a boundary receives a whole stripe, deliberately.
  const uint32_t fill = stripe - static_cast<uint32_t>(m_curFile->length() % stripe);
  buildFakeFrame(m_padding.data(), fill);
  uint32_t done = 0;
  if (writeBlk(m_padding.data(), fill, done, true) != 0 || done != fill) {
    WLOG(ERROR, "flushFrame failed!\n");
    setBackgroundError(-3);
    return -3;
  }
  return 0;
}

bool CStreamWriter::run() {
  if (m_bucketUnchecked && !ensureBucket()) setBackgroundError(-3);
  m_lastPassBlocked = doWriteFrame(false);
  // A store that took nothing three times in a row gives the queue thread up
  // until the next frame comes.
  return m_lastPassBlocked && !(m_zeroWriteCount != 0 && m_zeroWriteCount % 3 == 0);
}

bool CStreamWriter::cachePending() {
  CAutoLock lock(m_cacheMutex);
  return !m_framesBuf4Cache.empty();
}

void CStreamWriter::onIdle() {
  // A frame cached after this pass took its frames, but before the writer went
  // idle, found it busy and did not submit it: look once more.
  if (!m_lastPassBlocked && cachePending()) submit();
}

bool CStreamWriter::forceCutFile(uint32_t time) {
  if (!m_hasCurFile.load() || time < m_curFileStartTime.load()) return true;
  if (CMediaValues::instance().sdkState.load() != ZARN_STATE_NORMAL) {
    WLOG(WARN, "zarn state is exceptional, don't forceCutFile!\n");
    return false;
  }
  if (!m_forceCutMutex.tryLock()) {
    WLOG(WARN, "there is one forceCutFile already!\n");
    return false;
  }
  WLOG(TRACE, "forceCutFile req pending.\n");
  m_forceCutTime = time;
  m_forceCutResult.store(0);
  m_forceCutPending.store(true);
  m_forceCutSemaphore.pend(kForceCutWaitMs);
  m_forceCutPending.store(false);
  const uint8_t result = m_forceCutResult.load();
  WLOG(TRACE, "forceCutFile result: %d.\n", result);
  m_forceCutMutex.unlock();
  return result != 0;
}

void CStreamWriter::cutResultNotify(uint8_t result) {
  if (!m_forceCutPending.load()) return;
  WLOG(TRACE, "cutResultNotify result: %d.\n", result);
  m_forceCutResult.store(result);
  m_forceCutPending.store(false);
  m_forceCutSemaphore.post();
}

void CStreamWriter::closeStream(std::shared_ptr<CStreamWriter> self) {
  WLOG(TRACE, "closeStream.\n");
  if (!close(std::move(self))) std::abort();  // closed twice: a programming error
}

void CStreamWriter::onClose() {
  // Frames taken into the cache were acknowledged to the host: they are
  // written even when no worker ran before the close (and no file exists yet).
  if (m_curFile || cachePending() || !m_framesBuf4Write.empty() || m_curFrameItem) {
    doWriteFrame(true);
    closeCurrentFile();
  }
  cutResultNotify(1);
}

void CStreamWriter::fileStateChangedProc(int state) {
  CAutoLock lock(m_fileStateMutex);
  WLOG(WARN, "FileStateChanged: %d -> %d.\n", m_fileState, state);
  m_fileState = state;
}

void CStreamWriter::clearFrameBuf() {
  CAutoLock lock(m_cacheMutex);
  if (!m_framesBuf4Cache.empty()) {
    WLOG(WARN, "m_framesBuf4Cache isn't empty(size = %d)!\n", static_cast<int>(m_framesBuf4Cache.size()));
    m_framesBuf4Cache.clear();
  }
  if (!m_framesBuf4Write.empty()) {
    WLOG(WARN, "m_framesBuf4Write isn't empty(size = %ld)!\n", static_cast<long>(m_framesBuf4Write.size()));
    m_framesBuf4Write.clear();
  }
  if (m_curFrameItem) {
    WLOG(WARN, "m_curFrameItem isn't empty!\n");
    m_curFrameItem.reset();
  }
}

}  // namespace Velto::Zarn
