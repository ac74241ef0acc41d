#include "IndexFixer.h"

#include <cinttypes>
#include <cstring>

#include "IndexFile.h"
#include "FixerLog.h"
#include "KanduThread.h"
#include "RecordFile.h"
#include "VeltoFrame.h"

namespace Velto::Zarn {

namespace {

// An open name has no end time: frames may run to the end of its day at most
// (record files never span a day folder), so that bounds their times.
constexpr uint32_t kOpenFileSpan = 86400;
// Frame times more than this beyond the name's end cannot belong to the file.
constexpr uint32_t kEndTimeSlack = 60;
// readBlk waits for bytes a store has not shown yet at most this often (5 ms
// each): nobody appends to a file being repaired, so a longer silence is a
// fault, not a writer.
constexpr int kEmptyReadRetries = 200;
constexpr uint32_t kResyncChunk = 64 * 1024;

uint32_t le32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

}  // namespace

const char* indexFixOutcomeName(IndexFixReport::Outcome outcome) {
  switch (outcome) {
    case IndexFixReport::kRebuilt: return "rebuilt";
    case IndexFixReport::kComplete: return "complete";
    case IndexFixReport::kTooSmall: return "too small";
    case IndexFixReport::kInUse: return "in use";
    case IndexFixReport::kNoFrames: return "no frames";
    case IndexFixReport::kStoreError: return "store error";
    case IndexFixReport::kWouldRebuild: return "would rebuild";
  }
  return "?";
}

CIndexFixer::CIndexFixer(CZarnFileSystem& fs, const RecordFileName& work, const IndexFixOptions& options)
    : m_fs(fs), m_work(work), m_options(options) {
  m_work.isIndex = 0;
  m_workName = fullName(m_work);
  m_timeLimit = (m_work.endTime != 0 ? m_work.endTime : m_work.beginTime + kOpenFileSpan) + kEndTimeSlack;
}

CIndexFixer::~CIndexFixer() = default;

RecordFileName CIndexFixer::named(uint32_t indexState, uint32_t endTime) const {
  RecordFileName r = m_work;
  if (endTime < r.beginTime) endTime = 0;
  r.endTime = endTime != 0 ? endTime : (m_work.endTime != 0 ? m_work.endTime : m_work.beginTime);
  r.realEndTime = r.endTime;
  r.indexState = indexState;
  r.isIndex = 0;
  return r;
}

std::string CIndexFixer::fullName(const RecordFileName& record) const {
  std::string name;
  generateRecordFileName(record, name);
  return name;
}

IndexFixReport CIndexFixer::finish(IndexFixReport::Outcome outcome, const std::string& name) {
  IndexFixReport report;
  report.outcome = outcome;
  report.name = name;
  return report;
}

bool CIndexFixer::readBlk(CRecordFile& file, void* buffer, uint32_t length) {
  auto* out = static_cast<uint8_t*>(buffer);
  uint32_t done = 0;
  int empty = 0;
  while (done < length) {
    const int64_t n = file.read(out + done, length - done);
    if (n > 0) {
      done += static_cast<uint32_t>(n);
      empty = 0;
    } else if (n == 0 && ++empty <= kEmptyReadRetries) {
      Velto::Kandu::sleepMs(5);
    } else {
      FIXLOG(WARN, "read  err or eof: ret = %d; %d: %s.\n", static_cast<int>(n), getLastError(), getErrorMsg());
      return false;
    }
  }
  return true;
}

bool CIndexFixer::getFileSize(const std::string& name, uint64_t& size) {
  ZarnFileStat stat;
  if (!m_fs.getFileStat(name, stat)) {
    FIXLOG(WARN, "file stat failed: %d: %s.\n", getLastError(), getErrorMsg());
    return false;
  }
  size = stat.size;
  return true;
}

bool CIndexFixer::rename(const std::string& from, const std::string& to) {
  FIXLOG(DEBUG, "rename: [%s] -> [%s].\n", from.c_str(), to.c_str());
  if (m_fs.renameFile(from, to)) return true;
  FIXLOG(ERROR, "rename failed: %d, %s\n", getLastError(), getErrorMsg());
  return false;
}

bool CIndexFixer::remove(const std::string& indexName) {
  FIXLOG(DEBUG, "remove index file: %s\n", indexName.c_str());
  if (m_fs.removeFile(indexName)) return true;
  FIXLOG(ERROR, "remove index file failed [%s]\n", indexName.c_str());
  return false;
}

bool CIndexFixer::isAppend(const std::string& name) {
  std::unique_ptr<CFile> file = m_fs.openFile(name, StoreOpenMode::Read);
  if (!file) {
    FIXLOG(TRACE, "file open failed or not existed (for check isAppend): %d, %s\n", getLastError(), getErrorMsg());
    return false;
  }
  ZarnFileStat stat;
  if (!file->stat(stat)) {
    FIXLOG(TRACE, "file stat failed: %d, %s\n", getLastError(), getErrorMsg());
    return false;
  }
  return stat.openForWrite;
}

int CIndexFixer::checkFileComplete(CRecordFile& file) {
  const int64_t start = file.tell();
  if (start < 0) {
    FIXLOG(ERROR, "tell error!\n");
    return 2;
  }
  uint64_t size = 0;
  if (!getFileSize(file.fullName(), size) || size < RecordInfo::kSize ||
      file.seek(static_cast<int64_t>(size - RecordInfo::kSize), 0) < 0) {
    FIXLOG(ERROR, "seek to fileInfo pos error or file too samll: %d, %s\n", getLastError(), getErrorMsg());
    return 2;
  }
  RecordInfo info{};
  const bool read = readBlk(file, &info, RecordInfo::kSize);
  if (!read) FIXLOG(WARN, "read file end error!\n");
  if (file.seek(start, 0) < 0) {
    FIXLOG(ERROR, "seek to original pos error!\n");
    return 2;
  }
  const char* why = nullptr;
  if (!read || !info.isValid() || !checkRecordInfoLayout(info, size, false, 0, why)) return 0;
  m_infoEndTime = info.endTime;
  return 1;
}

bool CIndexFixer::frameTimeStep(uint16_t stamp, uint32_t& time) {
  const uint32_t previous = m_curTime;
  if (!m_timeStarted) {
    m_timeStarted = true;
    m_lastStamp = stamp;
    time = m_work.beginTime;
  } else {
    // Whole seconds of the source's millisecond counter since the last step.
    time = previous;
    const uint32_t seconds = static_cast<uint16_t>(stamp - m_lastStamp) / 1000u;
    if (seconds != 0) {
      time = previous + seconds;
      m_lastStamp = stamp;
    }
    if (time < previous || time > m_timeLimit) {
      time = previous + 1;
      m_lastStamp = stamp;
    }
  }
  if (time > m_timeLimit) {
    FIXLOG(WARN, "Invalid frame time after adjusting. Stop rebuilding! beg-last-cur-end: %u-%u-%u-%u.\n",
           m_work.beginTime, previous, time, m_timeLimit - kEndTimeSlack);
    return false;
  }
  m_curTime = time;
  return true;
}

bool CIndexFixer::seekNextHead(CRecordFile& file, uint64_t fileLength) {
  // The head at the current frame position failed; look from the byte after it.
  int64_t from = file.tell();
  if (from < 0) return false;
  from -= static_cast<int64_t>(kFrameHeadSize) - 1;
  std::vector<uint8_t> chunk(kResyncChunk);
  for (uint64_t at = static_cast<uint64_t>(from); at + kFrameHeadSize <= fileLength;) {
    const uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(kResyncChunk, fileLength - at));
    if (file.seek(static_cast<int64_t>(at), 0) < 0 || !readBlk(file, chunk.data(), want)) return false;
    for (uint32_t i = 0; i + 4 <= want; ++i) {
      if (le32(&chunk[i]) == kFrameHeadMagic) return file.seek(static_cast<int64_t>(at + i), 0) >= 0;
    }
    if (want < kResyncChunk) break;
    at += want - 3;  // a magic may straddle two chunks
  }
  return false;
}

CIndexFixer::Scan CIndexFixer::scanFrames(CRecordFile& file, uint64_t fileLength, CIndexFile* index) {
  Scan scan;
  uint64_t position = 0;
  uint8_t head[kFrameHeadSize];
  for (;;) {
    if (fileLength - position < kFrameHeadSize || !readBlk(file, head, kFrameHeadSize)) {
      FIXLOG(WARN, "Read frame head err or eof. Stop rebuilding! (%u)\n", scan.keyFrames);
      break;
    }
    if (!checkFrameHead(head) || !frameLayoutFits(head)) {
      if (!m_imageStream) {
        FIXLOG(ERROR, "Invalid video frame head. Stop rebuilding! (%u)\n", scan.keyFrames);
        break;
      }
      if (!seekNextHead(file, fileLength) || file.tell() < 0 ||
          !readBlk(file, head, kFrameHeadSize)) {
        FIXLOG(WARN, "Try read next image frame head err or eof. Stop rebuilding! (%u)\n", scan.keyFrames);
        break;
      }
      position = static_cast<uint64_t>(file.tell()) - kFrameHeadSize;
      if (!checkFrameHead(head) || !frameLayoutFits(head)) {
        FIXLOG(ERROR, "Invalid image frame head. Stop rebuilding! (%u)\n", scan.keyFrames);
        break;
      }
    }
    VeltoFrameHead h;
    std::memcpy(&h, head, sizeof(h));
    uint8_t layer = 0xFF;
    const bool video = isVideoFrame(h.type);
    if (m_options.svcEnabled && video && h.extLength > 0) {
      // The descriptor walk may look up to three bytes past the extension
      // area; those bytes are still inside the frame (its tail follows).
      const uint32_t take = h.extLength + kExtSvcItemSize - 1;
      if (m_ext.size() < take) m_ext.resize(take);
      if (!readBlk(file, m_ext.data(), take)) {
        FIXLOG(WARN, "Read frame head err or eof. Stop rebuilding! (%u)\n", scan.keyFrames);
        break;
      }
      if (const uint8_t* svc = findSvcItem(m_ext.data(), h.extLength)) layer = svc[2];
    }
    if (h.type == FRAME_TYPE_IMAGE) m_imageStream = true;
    uint32_t time = m_curTime;
    if (video && !frameTimeStep(h.msStamp, time)) break;
    if (position + h.length >= fileLength) {
      FIXLOG(INFO, "The last frame.\n");
      if (position + h.length == fileLength) {
        scan.dataLength = fileLength;  // whole: kept in the data, not indexed
        scan.endTime = m_curTime;
        scan.wholeLast = true;
      }
      break;
    }
    if (file.seek(static_cast<int64_t>(position + h.length), 0) < 0) {
      FIXLOG(WARN, "Skip err or eof.\n");
      break;
    }
    if (isKeyFrame(h.type, h.subType) || layer == 0) {
      if (index != nullptr && !index->addIndex(h.type, h.subType, time, h.length, position)) {
        FIXLOG(ERROR, "Write index failed.\n");
        scan.failed = true;
        break;
      }
      ++scan.keyFrames;
    }
    position += h.length;
    ++scan.frames;
    scan.dataLength = position;
    scan.endTime = m_curTime;
  }
  return scan;
}

uint32_t CIndexFixer::finalEndTime(const Scan& scan) const {
  // Frames that all lie in the name's first second still take up that second:
  // a name whose end equals its begin is a clip of no length, which queries
  // and playback from that second pass over.
  if (scan.anyFrame() && scan.endTime <= m_work.beginTime) return m_work.beginTime + 1;
  return scan.endTime;
}

IndexFixReport CIndexFixer::inspect() {
  if (isAppend(m_workName)) return finish(IndexFixReport::kInUse, m_workName);
  CRecordFile file(m_fs, m_work);
  uint64_t fileLength = 0;
  if (!file.openForRead() || !getFileSize(m_workName, fileLength)) {
    return finish(IndexFixReport::kStoreError, m_workName);
  }
  if (fileLength < kMinFrameSize) return finish(IndexFixReport::kTooSmall, m_workName);
  const int complete = checkFileComplete(file);
  if (complete == 2) return finish(IndexFixReport::kStoreError, m_workName);
  IndexFixReport report;
  report.name = m_workName;
  if (complete == 1) {
    report.outcome = IndexFixReport::kComplete;
    report.endTime = named(1, m_infoEndTime).endTime;
    return report;
  }
  const Scan scan = scanFrames(file, fileLength, nullptr);
  report.outcome = scan.anyFrame() ? IndexFixReport::kWouldRebuild : IndexFixReport::kNoFrames;
  report.keyFrames = scan.keyFrames;
  report.frames = scan.frames + (scan.wholeLast ? 1 : 0);
  report.endTime = named(3, finalEndTime(scan)).endTime;
  report.dataLength = scan.dataLength;
  return report;
}

IndexFixReport CIndexFixer::doFixIndex() {
  if (m_options.dryRun) return inspect();
  FIXLOG(INFO, "Start  doFixIndex work: %s.\n", m_workName.c_str());
  const bool openName = m_work.endTime == 0;
  const RecordFileName rebuilding = named(RECORD_INDEX_REBUILDING, 0);
  const std::string rebuildName = fullName(rebuilding);
  // A live writer appends under the open name; a fixer that is rebuilding
  // holds the state-2 name while it writes the index beside it.
  if ((openName || m_work.indexState == RECORD_INDEX_REBUILDING) && isAppend(m_workName)) {
    FIXLOG(INFO, "Rebuilding by other, no need again.\n");
    return finish(IndexFixReport::kInUse, m_workName);
  }
  if (m_workName != rebuildName && !rename(m_workName, rebuildName)) {
    FIXLOG(ERROR, "Rename record file failed (for rebuiding index)!\n");
    return finish(IndexFixReport::kStoreError, m_workName);
  }
  CRecordFile file(m_fs, rebuilding);
  uint64_t fileLength = 0;
  if (!file.openForRead() || !getFileSize(rebuildName, fileLength)) {
    FIXLOG(ERROR, "Open record file failed, maybe rebuilded before (for rebuiding index)!\n");
    file.close();
    return finish(IndexFixReport::kStoreError, rename(rebuildName, m_workName) ? m_workName : rebuildName);
  }
  if (fileLength < kMinFrameSize) {
    FIXLOG(INFO, "fileLen(%" PRIu64 ") is smaller than a frame, unable rebuild.\n", fileLength);
    file.close();
    const std::string tooSmall = fullName(named(RECORD_INDEX_TOO_SMALL, 0));
    return rename(rebuildName, tooSmall) ? finish(IndexFixReport::kTooSmall, tooSmall)
                                         : finish(IndexFixReport::kStoreError, rebuildName);
  }
  const int complete = checkFileComplete(file);
  if (complete != 0) {
    file.close();
    if (complete == 2) {
      FIXLOG(ERROR, "Check record file whether complete error!\n");
      return finish(IndexFixReport::kStoreError, rename(rebuildName, m_workName) ? m_workName : rebuildName);
    }
    FIXLOG(INFO, "The file is complete, no need to fix index.\n");
    const RecordFileName closed = named(RECORD_INDEX_INTERNAL, m_infoEndTime);
    if (!rename(rebuildName, fullName(closed))) return finish(IndexFixReport::kStoreError, rebuildName);
    IndexFixReport report = finish(IndexFixReport::kComplete, fullName(closed));
    report.endTime = closed.endTime;
    return report;
  }
  CIndexFile index(&m_fs, rebuilding, CRecordFile::MODE_WRITE);
  if (!index.open()) {
    FIXLOG(ERROR, "Create index file failed (for rebuiding index)!\n");
    file.close();
    return finish(IndexFixReport::kStoreError, rename(rebuildName, m_workName) ? m_workName : rebuildName);
  }
  const Scan scan = scanFrames(file, fileLength, &index);
  const RecordFileName final = named(RECORD_INDEX_SEPARATE, finalEndTime(scan));
  FIXLOG(TRACE, "Fixed index frame count: %u; all frame count: %u. end time: %u.\n", scan.keyFrames, scan.frames,
         final.endTime);
  file.close();
  index.setEndTime(final.endTime);
  index.setDataLength(scan.dataLength);
  const bool indexClosed = index.close();
  if (!scan.anyFrame() || !indexClosed) {
    FIXLOG(ERROR, "First read failed or index close failed, recover rec and idx file!\n");
    const bool restored = rename(rebuildName, m_workName);
    remove(index.fullName());
    return finish(indexClosed ? IndexFixReport::kNoFrames : IndexFixReport::kStoreError,
                  restored ? m_workName : rebuildName);
  }
  RecordFileName finalIndex = final;
  finalIndex.isIndex = 1;
  // An index name carries no state: it changes only when the end time does.
  // A rebuild interrupted between its two final renames left its index file
  // under the final name; the one just written replaces it.
  const std::string finalIndexName = fullName(finalIndex);
  ZarnFileStat stale;
  if (index.fullName() != finalIndexName && m_fs.getFileStat(finalIndexName, stale)) remove(finalIndexName);
  if (index.fullName() != finalIndexName && !rename(index.fullName(), finalIndexName)) {
    FIXLOG(ERROR, "Rename index file failed (after rebuided index)!\n");
    return finish(IndexFixReport::kStoreError, rebuildName);
  }
  if (!rename(rebuildName, fullName(final))) {
    FIXLOG(ERROR, "Rename record file failed (after rebuided index)!\n");
    return finish(IndexFixReport::kStoreError, rebuildName);
  }
  FIXLOG(INFO, "Finish doFixIndex work: %s.\n", m_workName.c_str());
  IndexFixReport report = finish(IndexFixReport::kRebuilt, fullName(final));
  report.keyFrames = scan.keyFrames;
  report.frames = scan.frames + (scan.wholeLast ? 1 : 0);
  report.endTime = final.endTime;
  report.dataLength = scan.dataLength;
  return report;
}

}  // namespace Velto::Zarn
