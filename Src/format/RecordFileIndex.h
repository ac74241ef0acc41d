// The key-frame index of one record file: one 16-byte entry per key frame, in
// the order written (see doc/record_file_format.md for the byte layout, which
// is the same in memory, in a record file's index region and in an index file).
//
// Index times never go backwards: an entry older than the latest time is
// raised to it, so binary searches by time are valid. Offsets grow with the
// file, so searches by offset are valid too.
//
// Shared between the writer of a file and the readers of the same file while
// it is still being written: lookups take the read lock, additions the write
// lock. Cursors are entry positions; a cursor obtained from one call is only
// meaningful for the same index.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "KanduSync.h"

namespace Velto::Zarn {

struct IndexEntry {
  uint8_t type;                  // frame type (0xFD, 0xFB or 0xFC)
  uint8_t subType;               // non-zero for a smart frame
  uint8_t zero[2];
  uint32_t time;                 // frame time, UTC seconds
  uint32_t lengthAndOffsetHigh;  // bits 0-23: frame length mod 2^24; bits 24-31: offset bits 32-39
  uint32_t offsetLow;            // offset bits 0-31

  static IndexEntry make(uint8_t type, uint8_t subType, uint32_t time, uint32_t frameLength, uint64_t offset);
  uint64_t offset() const { return (static_cast<uint64_t>(lengthAndOffsetHigh >> 24) << 32) | offsetLow; }
  uint32_t length24() const { return lengthAndOffsetHigh & 0xFFFFFFu; }
  bool isKey() const;
  bool isSmartI() const;  // an I frame with a non-zero sub-type
};
static_assert(sizeof(IndexEntry) == 16, "index entries are 16 bytes on disk");
static_assert(std::endian::native == std::endian::little, "index entries are stored as in memory (little-endian)");

class CRecordFileIndex {
 public:
  static constexpr uint64_t kNoOffset = ~0ull;  // "-1": no such key frame

  // Appends an entry (its time raised to the latest time when older). Adding
  // to a complete index is a programming error and aborts.
  void addIndex(IndexEntry entry);
  // Moves the end time forward; an older time is noted (one log line per run
  // of older times) and ignored.
  void updateEndTime(uint32_t time);
  void setComplete();
  bool isComplete() const;

  uint32_t beginTime() const;
  uint32_t endTime() const;
  bool timeWentBack() const;
  size_t size() const;
  bool entryAt(size_t cursor, IndexEntry& out) const;
  std::vector<IndexEntry> entries() const;

  // Cursor walks over key entries. false at the ends (with a warning).
  bool getKeyBegin(size_t& cursor) const;
  bool getKeyNext(size_t& cursor) const;
  bool getKeyPrev(size_t& cursor) const;
  bool getSmartKeyPrev(size_t& cursor) const;  // the cursor's own entry counts
  bool getKeyEnd(size_t& cursor) const;

  // Key entries by frame offset, for readers stepping through a file by
  // position: the first key entry whose frame starts after `offset`, the last
  // one starting before it, the last one of all. false when there is none.
  bool keyAfterOffset(uint64_t offset, IndexEntry& out) const;
  bool keyBeforeOffset(uint64_t offset, IndexEntry& out) const;
  bool lastKeyEntry(IndexEntry& out) const;

  // Offset of the key frame to start playback at `time`, kNoOffset without key
  // entries.
  uint64_t getIFrameOffset(uint32_t time) const;
  // Offset of the key frame strictly before a position: by time when time is
  // non-zero, else by offset. kNoOffset when none.
  uint64_t getPrevIFrameOffset(uint32_t time, uint64_t offset) const;
  // Time of the key frame that playback from `offset` starts with; 0 when none.
  uint32_t getIFrameUTC(uint64_t offset) const;
  // Offset of the nearest smart I frame at or before a position (by time when
  // non-zero, else by offset); without one, the offset of the last key frame.
  uint64_t getPrevISmartFrameOffset(uint32_t time, uint64_t offset) const;

 private:
  // *Locked helpers expect m_lock held (either mode).
  bool keyBeginLocked(size_t& cursor, bool quiet) const;
  bool keyPrevLocked(size_t& cursor) const;
  bool keyEndLocked(size_t& cursor) const;
  size_t lowerBoundByTimeLocked(size_t from, uint32_t time) const;
  size_t lowerBoundByOffsetLocked(uint64_t offset) const;

  mutable Velto::Kandu::CReadWriteMutex m_lock;
  std::vector<IndexEntry> m_entries;  // guarded by m_lock
  bool m_complete = false;            // guarded by m_lock
  uint32_t m_beginTime = 0;           // guarded by m_lock
  uint32_t m_endTime = 0;             // guarded by m_lock
  bool m_timeWentBack = false;        // guarded by m_lock
};

}  // namespace Velto::Zarn
