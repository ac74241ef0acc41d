// CRecordFile: one record (media) file of one stream in the stream's bucket.
//
// A writer opens it for write under its open name, appends whole frames and
// key-frame index entries, and on close appends the index and the 64-byte
// record info, then renames the file to its closed name (end time and index
// state in the name). A reader opens a file for read and gets its index from
// the file itself or from a separate index file. Layouts: doc/record_file_format.md.
//
// Threading: one owner thread at a time (the writer's or the reader's); only
// the lock count has its own mutex. The held index is shared (it has its own
// reader-writer lock) so that a reader can use the index of a file still being
// written. Calling a read-side operation in write mode, or a write-side one in
// read mode, is a programming error and aborts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "KanduSync.h"
#include "RecordFileIndex.h"
#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

// The 64-byte trailer of a record file (and of an index file). Little-endian,
// laid out as in memory.
struct RecordInfo {
  char magic[4];         // "VZMF"
  uint16_t zero4;
  uint16_t zero6;
  uint32_t beginTime;    // time of the first index entry, UTC seconds
  uint32_t endTime;      // latest index time
  uint64_t indexOffset;  // where the index region starts (= data length D in a record file, 0 in an index file)
  uint32_t indexLength;  // bytes of index entries (entries x 16)
  uint32_t zero28;
  uint64_t dataLength;   // D: the record file's media bytes
  uint8_t zero40[20];
  uint32_t crc;          // CRC-32 of bytes 0-59

  static constexpr size_t kSize = 64;
  static constexpr size_t kCrcSpan = 60;
  // Sets magic, zeros and CRC around the given fields.
  static RecordInfo make(uint32_t beginTime, uint32_t endTime, uint64_t indexOffset, uint32_t indexLength,
                         uint64_t dataLength);
  bool isValid() const;  // magic matches and the CRC is right
};
static_assert(sizeof(RecordInfo) == 64 && offsetof(RecordInfo, indexOffset) == 16 &&
              offsetof(RecordInfo, dataLength) == 32 && offsetof(RecordInfo, crc) == 60);

// What a record info read from a file must agree with before any of its fields
// is used to allocate, seek or bound a read. In a record file the index region
// follows the data (offset = data length) and the info ends the file; in an
// index file the entries come first (offset 0) and the info ends that file,
// and the data length is the record file's, at most `recordFileSize`. Index
// times run from begin to end. `fileSize` is the size of the file the info was
// read from. false, with the first disagreement in `why`, when they differ.
bool checkRecordInfoLayout(const RecordInfo& info, uint64_t fileSize, bool indexFile, uint64_t recordFileSize,
                           const char*& why);

// What index entries must agree with before a reader steps through them: frame
// offsets strictly increasing, every frame (a head and a tail at least) inside
// the data; times not decreasing and within [beginTime, endTime]. A reader that
// trusted an unsorted index would binary-search it into a loop.
bool checkIndexEntries(const IndexEntry* entries, size_t count, uint64_t dataLength, uint32_t beginTime,
                       uint32_t endTime, const char*& why);

class CRecordFile : public IFileListener {
 public:
  enum Mode : int32_t { MODE_NONE = 0, MODE_READ = 1, MODE_WRITE = 2 };
  enum State : int32_t {
    STATE_NONE = 0,
    STATE_OPEN_FAILED = 1,
    STATE_OPEN = 2,        // open for write, or read with an index supplied from outside
    STATE_NOT_CLOSED = 3,  // read: the file has no end time yet, so no info and no index
    STATE_INDEXED = 4,     // read: record info and index loaded
    STATE_MISS_INDEX = 5,  // read: closed file whose index could not be loaded
  };
  static constexpr uint32_t kInfoReadLimitMs = 15000;
  // Read mode goes through a buffer of this size: a reader that takes each
  // frame as head then body makes one store call per buffer instead of two per
  // frame, and skips within the buffer cost no store call at all.
  static constexpr uint32_t kReadBufferSize = 128 * 1024;
  // Reads of at least this many bytes go straight to the caller's memory once
  // the buffer is used up: copying them through the buffer costs more than the
  // store call saved.
  static constexpr uint32_t kDirectReadSize = 16 * 1024;

  // `name` is the file's parsed name (an open name for writing).
  CRecordFile(CZarnFileSystem& fs, const RecordFileName& name);
  ~CRecordFile() override;  // releases the store file without the close protocol
  CRecordFile(const CRecordFile&) = delete;
  CRecordFile& operator=(const CRecordFile&) = delete;

  bool openForWrite(uint16_t dataShards, uint16_t parityShards);
  bool openForRead();

  // Write mode: bytes taken, or -1 (store error in getLastError).
  int64_t write(const void* buffer, uint32_t length);
  // Write mode: appends the slices in one store call where it can; as write().
  int64_t writeGather(const StoreSlice* slices, uint32_t count);
  // Write mode: records a key frame just written whole (D already counts it).
  void addIndex(uint8_t type, uint8_t subType, uint32_t frameTime, uint32_t frameLength);
  // Write mode: records a key frame written whole at byte `position` of the
  // data (D counts it already; frames after it may be counted too).
  void addIndexAt(uint8_t type, uint8_t subType, uint32_t frameTime, uint32_t frameLength, uint64_t position);
  // Write mode: the time of the last frame written.
  void setLastTime(uint32_t time);

  // Read mode, buffered; a read may return fewer bytes than asked. Bytes
  // read; 0 when no more bytes are there yet (a file still being written);
  // kEndOfFile at the end of a file nobody writes; -1 on failure (the reason
  // in getLastError). The end is told by the result alone: the thread's last
  // error may be left over from an earlier call.
  static constexpr int64_t kEndOfFile = -2;
  int64_t read(void* buffer, uint32_t length);
  int64_t seek(int64_t offset, int origin);
  int64_t tell();

  // D: bytes written so far (write mode) or the info's data length (read mode,
  // states 2 and 4); for a read file without info, the store file's size.
  uint64_t length();
  bool stat(ZarnFileStat& out);

  // End time: the name's in states 4 and 5, else the index's once complete, else 0.
  uint32_t endTime() const;
  void setRecordIndex(std::shared_ptr<CRecordFileIndex> index);
  std::shared_ptr<CRecordFileIndex> recordIndex() const { return m_index; }
  bool needIndexFromElsewhere() const { return m_state == STATE_NOT_CLOSED || m_state == STATE_MISS_INDEX; }

  // Write mode: lock counts while writing; never below 0.
  int16_t incLockCount();
  int16_t decLockCount(bool reset);

  // Ends the file (see doc/record_file_format.md): write mode writes index and
  // info and renames to the closed name; the result says whether the info was
  // written. An empty file whose first write failed is removed instead.
  bool close();
  // Write mode: the store refused to close the file (its data may be lost).
  bool storeCloseFailed() const { return m_storeCloseFailed; }

  int32_t state() const { return m_state; }
  Mode mode() const { return m_mode; }
  bool isOpen() const { return m_file != nullptr; }
  bool isSmartMode() const { return m_smartMode; }
  bool isEmptyFileFault() const { return m_emptyFile; }
  const RecordFileName& name() const { return m_name; }
  const std::string& fullName() const { return m_fullName; }
  const RecordInfo& recordInfo() const { return m_info; }

  void setStateCallback(std::function<void(int)> callback) { m_stateCallback = std::move(callback); }
  void onFileStateChanged(CFile* file, int state) override;

 private:
  void requireMode(Mode mode) const;
  // A write's result, with its bytes counted in D (and a first write's
  // failure marking the file empty).
  int64_t counted(int64_t n);
  int64_t storeRead(void* buffer, uint32_t length);
  // `indexFile`: the info ends a separate index file, not this record file.
  bool loadRecordInfo(CFile& file, bool indexFile);
  bool loadRecordIndex(CFile& file);
  bool writeRecordIndex();
  bool writeRecordInfo();
  bool loadFromRecordFile();
  bool loadFromIndexFile();

  CZarnFileSystem& m_fs;
  std::unique_ptr<CFile> m_file;
  Mode m_mode = MODE_NONE;
  uint64_t m_dataLength = 0;  // D
  int32_t m_state = STATE_NONE;
  RecordFileName m_name;
  std::string m_fullName;
  Velto::Kandu::CMutex m_lockCountMutex;
  int16_t m_lockCount = 0;  // guarded by m_lockCountMutex
  bool m_infoLoaded = false;
  RecordInfo m_info{};
  std::shared_ptr<CRecordFileIndex> m_index;
  bool m_emptyFile = false;
  bool m_storeCloseFailed = false;
  bool m_smartMode = false;
  std::function<void(int)> m_stateCallback;

  // Read buffer: m_readBuf[0, m_bufLen) holds the file's bytes from
  // m_bufFilePos; the logical position is m_bufFilePos + m_bufPos while
  // m_bufValid, and the store file's own position otherwise.
  std::unique_ptr<uint8_t[]> m_readBuf;
  uint32_t m_bufPos = 0;
  uint32_t m_bufLen = 0;
  int64_t m_bufFilePos = 0;
  bool m_bufValid = false;
};

}  // namespace Velto::Zarn
