#include "RecordFile.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "BlockTransfer.h"
#include "KanduCrc.h"
#include "MediaLog.h"
#include "VeltoFrame.h"

namespace Velto::Zarn {

namespace {
constexpr char kInfoMagic[4] = {'V', 'Z', 'M', 'F'};
}  // namespace

RecordInfo RecordInfo::make(uint32_t beginTime, uint32_t endTime, uint64_t indexOffset, uint32_t indexLength,
                            uint64_t dataLength) {
  RecordInfo info{};
  std::memcpy(info.magic, kInfoMagic, sizeof(kInfoMagic));
  info.beginTime = beginTime;
  info.endTime = endTime;
  info.indexOffset = indexOffset;
  info.indexLength = indexLength;
  info.dataLength = dataLength;
  info.crc = Velto::Kandu::crc32(&info, kCrcSpan);
  return info;
}

bool RecordInfo::isValid() const {
  return std::memcmp(magic, kInfoMagic, sizeof(kInfoMagic)) == 0 && crc == Velto::Kandu::crc32(this, kCrcSpan);
}

bool checkRecordInfoLayout(const RecordInfo& info, uint64_t fileSize, bool indexFile, uint64_t recordFileSize,
                           const char*& why) {
  const uint64_t indexEnd = info.indexOffset + info.indexLength;  // no wrap: the offset is checked first
  if (info.indexLength % sizeof(IndexEntry) != 0) {
    why = "index length is not a whole number of entries";
  } else if (fileSize < RecordInfo::kSize || info.indexOffset > fileSize - RecordInfo::kSize ||
             indexEnd != fileSize - RecordInfo::kSize) {
    why = "index region and record info do not end the file";
  } else if (indexFile ? info.indexOffset != 0 || info.dataLength > recordFileSize
                       : info.indexOffset != info.dataLength) {
    why = indexFile ? "index file entries do not start the file, or its data length exceeds the record file"
                    : "index region does not follow the data";
  } else if (info.beginTime > info.endTime) {
    why = "index ends before it begins";
  } else {
    return true;
  }
  return false;
}

bool checkIndexEntries(const IndexEntry* entries, size_t count, uint64_t dataLength, uint32_t beginTime,
                       uint32_t endTime, const char*& why) {
  for (size_t i = 0; i < count; ++i) {
    const IndexEntry& e = entries[i];
    if (i > 0 && e.offset() <= entries[i - 1].offset()) {
      why = "entry offsets are not increasing";
    } else if (dataLength < kMinFrameSize || e.offset() > dataLength - kMinFrameSize) {
      why = "an entry points past the data";
    } else if (e.time < beginTime || e.time > endTime || (i > 0 && e.time < entries[i - 1].time)) {
      why = "entry times leave the index's span or go back";
    } else {
      continue;
    }
    return false;
  }
  return true;
}

CRecordFile::CRecordFile(CZarnFileSystem& fs, const RecordFileName& name) : m_fs(fs), m_name(name) {}

CRecordFile::~CRecordFile() {
  if (m_file) {
    m_file->setListener(nullptr);
    m_file->close();
  }
}

void CRecordFile::requireMode(Mode mode) const {
  if (m_mode != mode) std::abort();  // the wrong side of the file: a programming error
}

bool CRecordFile::openForWrite(uint16_t dataShards, uint16_t parityShards) {
  m_mode = MODE_WRITE;
  if (!generateRecordFileName(m_name, m_fullName)) {
    m_state = STATE_OPEN_FAILED;
    ZLOG(ERROR, "CRecordFile", 0, "open for write failed.\n");
    return false;
  }
  ZLOG(INFO, "CRecordFile", 0, "filename: %s\n", m_fullName.c_str());
  m_file = m_fs.createFile(m_fullName, dataShards, parityShards);
  if (!m_file) {
    m_state = STATE_OPEN_FAILED;
    ZLOG(ERROR, "CRecordFile", getLastError(), "open for write failed.\n");
    return false;
  }
  m_file->setListener(this);
  m_index = std::make_shared<CRecordFileIndex>();
  m_dataLength = 0;
  m_lockCount = static_cast<int16_t>(m_name.lockCount);
  m_state = STATE_OPEN;
  ZLOG(INFO, "CRecordFile", 0, "open for write successful.\n");
  return true;
}

bool CRecordFile::openForRead() {
  m_mode = MODE_READ;
  if (!generateRecordFileName(m_name, m_fullName)) {
    m_state = STATE_OPEN_FAILED;
    return false;
  }
  ZLOG(DEBUG, "CRecordFile", 0, "Open for read: %s, MTime: %u Size:%" PRIu64 "\n", m_fullName.c_str(), m_name.realEndTime, m_name.size);
  m_file = m_fs.openFile(m_fullName, StoreOpenMode::Read);
  if (!m_file) {
    m_state = STATE_OPEN_FAILED;
    return false;
  }
  m_file->setListener(this);
  if (m_name.endTime == 0) {
    ZLOG(DEBUG, "CRecordFile", 0, "file not closed. can't load info and index.\n");
    m_state = STATE_NOT_CLOSED;
    return true;
  }
  bool loaded = false;
  if (m_name.indexState == RECORD_INDEX_INTERNAL) {
    loaded = loadFromRecordFile();
  } else if (m_name.indexState == RECORD_INDEX_SEPARATE) {
    loaded = loadFromIndexFile();
  }
  if (loaded) {
    m_state = STATE_INDEXED;
  } else {
    m_state = STATE_MISS_INDEX;
    ZLOG(WARN, "CRecordFile", 0, "file is MissIndex.\n");
  }
  return true;
}

int64_t CRecordFile::write(const void* buffer, uint32_t length) {
  requireMode(MODE_WRITE);
  return m_file ? counted(m_file->write(buffer, length)) : -1;
}

int64_t CRecordFile::writeGather(const StoreSlice* slices, uint32_t count) {
  requireMode(MODE_WRITE);
  return m_file ? counted(m_file->writeGather(slices, count)) : -1;
}

int64_t CRecordFile::counted(int64_t n) {
  if (n > 0) {
    m_dataLength += static_cast<uint64_t>(n);
  } else if (n < 0 && m_dataLength == 0) {
    m_emptyFile = true;
    ZLOG(ERROR, "CRecordFile", getLastError(), "Write failed. empty file need clear\n");
  }
  return n;
}

void CRecordFile::addIndex(uint8_t type, uint8_t subType, uint32_t frameTime, uint32_t frameLength) {
  addIndexAt(type, subType, frameTime, frameLength, m_dataLength - frameLength);
}

void CRecordFile::addIndexAt(uint8_t type, uint8_t subType, uint32_t frameTime, uint32_t frameLength,
                             uint64_t position) {
  requireMode(MODE_WRITE);
  m_index->addIndex(IndexEntry::make(type, subType, frameTime, frameLength, position));
}

void CRecordFile::setLastTime(uint32_t time) {
  requireMode(MODE_WRITE);
  m_index->updateEndTime(time);
}

int64_t CRecordFile::storeRead(void* buffer, uint32_t length) {
  const int64_t n = m_file->read(buffer, length);
  // The store reports the end as a failure with its own code, set by this very
  // call: the code is read here and nowhere later, where it may be stale.
  if (n < 0 && getLastError() == ZARN_E_EOF) return kEndOfFile;
  return n;
}

int64_t CRecordFile::read(void* buffer, uint32_t length) {
  requireMode(MODE_READ);
  if (!m_file) {
    setLastError(ZARN_E_BAD_MODE, m_fullName + " is not open");
    return -1;
  }
  if (length == 0) return 0;
  if (!m_bufValid || m_bufPos == m_bufLen) {
    // The buffer is used up, so the store file's position is the logical one.
    if (length >= kDirectReadSize) {
      m_bufValid = false;
      return storeRead(buffer, length);  // large reads skip the extra copy
    }
    if (!m_readBuf) m_readBuf.reset(new uint8_t[kReadBufferSize]);
    const int64_t position = m_file->tell();
    if (position < 0) return -1;
    const int64_t n = storeRead(m_readBuf.get(), kReadBufferSize);
    if (n <= 0) {
      m_bufValid = false;
      return n;  // 0: a file still being written; the end; or a failure
    }
    m_bufFilePos = position;
    m_bufLen = static_cast<uint32_t>(n);
    m_bufPos = 0;
    m_bufValid = true;
  }
  const uint32_t n = std::min(length, m_bufLen - m_bufPos);
  std::memcpy(buffer, m_readBuf.get() + m_bufPos, n);
  m_bufPos += n;
  return n;
}

int64_t CRecordFile::seek(int64_t offset, int origin) {
  requireMode(MODE_READ);
  if (!m_file) return -1;
  if (origin == 1) {
    const int64_t here = tell();
    if (here < 0) return -1;
    offset += here;
    origin = 0;
  }
  if (origin == 0 && m_bufValid && offset >= m_bufFilePos && offset <= m_bufFilePos + m_bufLen) {
    m_bufPos = static_cast<uint32_t>(offset - m_bufFilePos);
    return offset;
  }
  m_bufValid = false;
  return m_file->seek(offset, origin);
}

int64_t CRecordFile::tell() {
  requireMode(MODE_READ);
  if (!m_file) return -1;
  return m_bufValid ? m_bufFilePos + m_bufPos : m_file->tell();
}

uint64_t CRecordFile::length() {
  if (m_mode == MODE_WRITE || m_infoLoaded) return m_dataLength;
  ZarnFileStat st;
  return stat(st) ? st.size : 0;
}

bool CRecordFile::stat(ZarnFileStat& out) { return m_file && m_file->stat(out); }

uint32_t CRecordFile::endTime() const {
  if (m_state == STATE_INDEXED || m_state == STATE_MISS_INDEX) return m_name.endTime;
  if (m_index && m_index->isComplete()) return m_index->endTime();
  return 0;
}

void CRecordFile::setRecordIndex(std::shared_ptr<CRecordFileIndex> index) {
  m_index = std::move(index);
  if (m_state == STATE_NOT_CLOSED) m_state = STATE_OPEN;
}

int16_t CRecordFile::incLockCount() {
  requireMode(MODE_WRITE);
  Velto::Kandu::CAutoLock lock(m_lockCountMutex);
  return ++m_lockCount;
}

int16_t CRecordFile::decLockCount(bool reset) {
  requireMode(MODE_WRITE);
  Velto::Kandu::CAutoLock lock(m_lockCountMutex);
  if (reset) {
    m_lockCount = 0;
  } else if (m_lockCount > 0) {
    --m_lockCount;
  }
  return m_lockCount;
}

bool CRecordFile::loadRecordInfo(CFile& file, bool indexFile) {
  RecordInfo info{};
  ZarnFileStat st;
  ZarnFileStat record;
  const char* why = "unreadable, or its magic or CRC is wrong";
  bool ok = file.stat(st) && file.seek(-static_cast<int64_t>(RecordInfo::kSize), 2) >= 0 &&
            blockRead(file, &info, RecordInfo::kSize, kInfoReadLimitMs) && info.isValid();
  // The sizes of both files bound every field before it is used.
  if (ok) {
    ok = (!indexFile || (m_file && m_file->stat(record))) &&
         checkRecordInfoLayout(info, st.size, indexFile, indexFile ? record.size : st.size, why);
  }
  if (!ok) {
    ZLOG(WARN, "CRecordFile", 0, "load record info failed.\n");
    ZLOG(WARN, "CRecordFile", 0, "record info of %s refused: %s\n", m_fullName.c_str(), why);
    return false;
  }
  m_info = info;
  m_infoLoaded = true;
  m_dataLength = info.dataLength;
  ZLOG(DEBUG, "CRecordFile", 0, "load record info successful.\n");
  return true;
}

bool CRecordFile::loadRecordIndex(CFile& file) {
  // A closed file without any key frame has no index to load. The length was
  // bounded by the file's size when the info was checked.
  if (m_info.indexLength == 0) {
    ZLOG(WARN, "CRecordFile", 0, "load record index failed.\n");
    return false;
  }
  std::vector<IndexEntry> entries(m_info.indexLength / sizeof(IndexEntry));
  const char* why = nullptr;
  if (file.seek(static_cast<int64_t>(m_info.indexOffset), 0) < 0 ||
      !blockRead(file, entries.data(), m_info.indexLength, kInfoReadLimitMs)) {
    ZLOG(WARN, "CRecordFile", 0, "load record index failed.\n");
    return false;
  }
  // Index times lie within the record info's span, and that within the name's.
  if (m_info.beginTime < m_name.beginTime || m_info.endTime > m_name.endTime) {
    why = "the index's span leaves the file's name";
  } else {
    checkIndexEntries(entries.data(), entries.size(), m_info.dataLength, m_info.beginTime, m_info.endTime, why);
  }
  if (why != nullptr) {
    ZLOG(WARN, "CRecordFile", 0, "load record index failed.\n");
    ZLOG(WARN, "CRecordFile", 0, "index of %s refused: %s\n", m_fullName.c_str(), why);
    return false;
  }
  auto index = std::make_shared<CRecordFileIndex>();
  for (const IndexEntry& e : entries) {
    if (!m_smartMode && isSmartFrame(e.type, e.subType)) m_smartMode = true;
    ZLOG(TRACE, "CRecordFile", 0, "smart mode:%d, type:%d, sub_type:%d, ts:%u, offset:%u\n", m_smartMode ? 1 : 0, e.type, e.subType, e.time, static_cast<unsigned>(e.offset()));
    index->addIndex(e);
  }
  index->setComplete();
  m_index = std::move(index);
  if (m_file) m_file->seek(0, 0);
  return true;
}

bool CRecordFile::loadFromRecordFile() {
  ZLOG(DEBUG, "CRecordFile", 0, "load from Record file\n");
  return loadRecordInfo(*m_file, false) && loadRecordIndex(*m_file);
}

bool CRecordFile::loadFromIndexFile() {
  ZLOG(DEBUG, "CRecordFile", 0, "load from Index file\n");
  RecordFileName indexName = m_name;
  indexName.isIndex = 1;
  std::string path;
  std::unique_ptr<CFile> file;
  if (generateRecordFileName(indexName, path)) file = m_fs.openFile(path, StoreOpenMode::Read);
  if (!file) {
    ZLOG(WARN, "CRecordFile", getLastError(), "open index file failed. %s\n", path.c_str());
    return false;
  }
  bool ok = loadRecordInfo(*file, true) && loadRecordIndex(*file);
  file->close();
  return ok;
}

bool CRecordFile::writeRecordIndex() {
  // One transfer for the whole region: the entries lie in memory as on disk.
  std::vector<IndexEntry> entries = m_index->entries();
  if (!blockWrite(*m_file, entries.data(), static_cast<uint32_t>(entries.size() * sizeof(IndexEntry)))) {
    ZLOG(ERROR, "CRecordFile", getLastError(), "write record index failed.\n");
    return false;
  }
  ZLOG(DEBUG, "CRecordFile", 0, "write record index successful.\n");
  return true;
}

bool CRecordFile::writeRecordInfo() {
  // The index goes right after the data, so its offset is D.
  RecordInfo info = RecordInfo::make(m_index->beginTime(), m_index->endTime(), m_dataLength,
                                     static_cast<uint32_t>(m_index->size() * sizeof(IndexEntry)), m_dataLength);
  if (!blockWrite(*m_file, &info, RecordInfo::kSize)) {
    ZLOG(ERROR, "CRecordFile", getLastError(), "write record info failed.\n");
    return false;
  }
  m_info = info;
  ZLOG(DEBUG, "CRecordFile", 0, "write record info successful.\n");
  return true;
}

bool CRecordFile::close() {
  if (m_mode == MODE_WRITE && m_emptyFile) {
    ZLOG(WARN, "CRecordFile", 0, "clear empty record file. %s\n", m_fullName.c_str());
    if (m_file) {
      m_file->setListener(nullptr);
      m_file->close();
      m_file.reset();
    }
    m_fs.removeFile(m_fullName);
    return true;
  }
  if (!m_file || m_mode != MODE_WRITE) {
    if (m_file) {
      m_file->setListener(nullptr);
      m_file->close();
      m_file.reset();
    }
    return true;
  }

  m_index->setComplete();
  bool infoWritten = writeRecordIndex() && writeRecordInfo();
  m_file->setListener(nullptr);
  bool closed = m_file->close();
  m_file.reset();
  if (!closed) {
    m_storeCloseFailed = true;
    ZLOG(ERROR, "CRecordFile", getLastError(), "close record file failed.\n");
    return false;
  }

  // A file of a forgotten bucket that already carries an end time keeps its name.
  if (m_name.bucketKind == BUCKET_KIND_FORGOTTEN && m_name.endTime != 0) return infoWritten;
  RecordFileName closedName = m_name;
  // The end never lies before the begin, even when no frame time moved it.
  closedName.endTime = std::max(m_index->endTime(), m_name.beginTime);
  closedName.indexState = infoWritten ? RECORD_INDEX_INTERNAL : RECORD_INDEX_MISSING;
  std::string newName;
  if (!generateRecordFileName(closedName, newName)) {
    ZLOG(ERROR, "CRecordFile", 0, "rename record file failed.\n");
    return infoWritten;
  }
  ZLOG(INFO, "CRecordFile", 0, "rename: %s -> %s.\n\n", m_fullName.c_str(), newName.c_str());
  if (m_fs.renameFile(m_fullName, newName)) {
    m_name = closedName;
    m_fullName = newName;
  } else {
    ZLOG(ERROR, "CRecordFile", getLastError(), "rename record file failed.\n");
  }
  return infoWritten;
}

void CRecordFile::onFileStateChanged(CFile* file, int state) {
  ZLOG(WARN, "CRecordFile", 0, "FileStateChanged: %d.\n", state);
  if (file != m_file.get()) ZLOG(WARN, "CRecordFile", 0, "file != &m_file.\n");
  if (m_stateCallback) m_stateCallback(state);
}

}  // namespace Velto::Zarn
