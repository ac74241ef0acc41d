// CIndexFile: a separate index file beside a record file, written by the index
// fixer when a record file's own index is missing. Its content is the index
// entries (16 bytes each) followed by one 64-byte record info whose index
// offset is 0 and whose data length is the record file's (see
// doc/record_file_format.md). Its name is the record file's name with the type
// token "index" (lock count and index state always 0).
//
// Write mode only: any other mode, or a missing store handle, is a programming
// error and aborts.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

class CIndexFile {
 public:
  CIndexFile(CZarnFileSystem* fs, const RecordFileName& record, int mode);
  ~CIndexFile();
  CIndexFile(const CIndexFile&) = delete;
  CIndexFile& operator=(const CIndexFile&) = delete;

  // Creates the file (replacing a stale one of the same name once).
  bool open();
  // Appends one entry; false when the write failed.
  bool addIndex(uint8_t type, uint8_t subType, uint32_t time, uint32_t frameLength, uint64_t offset);
  void setEndTime(uint32_t time) { m_endTime = time; }
  // The record file's data length, carried in the info for readers.
  void setDataLength(uint64_t length) { m_dataLength = length; }
  // Writes the record info and closes; false when either failed.
  bool close();

  const std::string& fullName() const { return m_fullName; }
  uint32_t indexLength() const { return m_indexLength; }

 private:
  CZarnFileSystem* m_fs;
  RecordFileName m_record;
  std::string m_fullName;
  std::unique_ptr<CFile> m_file;
  uint32_t m_beginTime = 0;
  uint32_t m_endTime = 0;
  uint32_t m_indexLength = 0;  // bytes of entries written
  uint64_t m_dataLength = 0;
};

}  // namespace Velto::Zarn
