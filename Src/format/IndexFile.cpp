#include "IndexFile.h"

#include <cstdlib>

#include "BlockTransfer.h"
#include "MediaLog.h"
#include "MediaValues.h"
#include "RecordFile.h"
#include "RecordFileIndex.h"

namespace Velto::Zarn {

CIndexFile::CIndexFile(CZarnFileSystem* fs, const RecordFileName& record, int mode) : m_fs(fs), m_record(record) {
  if (fs == nullptr || mode != CRecordFile::MODE_WRITE) std::abort();  // only writing is supported
  m_record.isIndex = 1;
}

CIndexFile::~CIndexFile() {
  if (m_file) m_file->close();
}

bool CIndexFile::open() {
  CMediaValues& values = CMediaValues::instance();
  if (generateRecordFileName(m_record, m_fullName)) {
    m_file = m_fs->createFile(m_fullName, values.ecDataNum.load(), values.ecParityNum.load());
    if (!m_file) {
      // A stale index file of an earlier, interrupted rebuild: replace it once.
      m_fs->removeFile(m_fullName);
      m_file = m_fs->createFile(m_fullName, values.ecDataNum.load(), values.ecParityNum.load());
    }
  }
  if (!m_file) {
    ZLOG(ERROR, "Indexf", getLastError(), "open for write failed: %s.\n", m_fullName.c_str());
    return false;
  }
  ZLOG(INFO, "Indexf", 0, "open for write successful: %s.\n", m_fullName.c_str());
  return true;
}

bool CIndexFile::addIndex(uint8_t type, uint8_t subType, uint32_t time, uint32_t frameLength, uint64_t offset) {
  IndexEntry entry = IndexEntry::make(type, subType, time, frameLength, offset);
  if (!m_file || !blockWrite(*m_file, &entry, sizeof(entry))) {
    ZLOG(ERROR, "Indexf", getLastError(), "write index failed.\n");
    return false;
  }
  m_indexLength += sizeof(entry);
  if (m_beginTime == 0) m_beginTime = time;
  return true;
}

bool CIndexFile::close() {
  if (!m_file) return false;
  RecordInfo info = RecordInfo::make(m_beginTime, m_endTime, 0, m_indexLength, m_dataLength);
  bool infoWritten = blockWrite(*m_file, &info, RecordInfo::kSize);
  if (!infoWritten) ZLOG(ERROR, "Indexf", getLastError(), "write record info failed.\n");
  bool closed = m_file->close();
  m_file.reset();
  if (infoWritten && closed) {
    ZLOG(INFO, "Indexf", 0, "write record info successful.\n");
    return true;
  }
  ZLOG(ERROR, "Indexf", 0, "index file close failed, maybe lost some data.\n");
  return false;
}

}  // namespace Velto::Zarn
