#include "RecordFileIndex.h"

#include <algorithm>
#include <cstdlib>

#include "MediaLog.h"
#include "VeltoFrame.h"

namespace Velto::Zarn {

using Velto::Kandu::CReadLock;
using Velto::Kandu::CWriteLock;

IndexEntry IndexEntry::make(uint8_t type, uint8_t subType, uint32_t time, uint32_t frameLength, uint64_t offset) {
  IndexEntry e{};
  e.type = type;
  e.subType = subType;
  e.time = time;
  e.lengthAndOffsetHigh = (frameLength & 0xFFFFFFu) | (static_cast<uint32_t>((offset >> 32) & 0xFF) << 24);
  e.offsetLow = static_cast<uint32_t>(offset);
  return e;
}

bool IndexEntry::isKey() const { return isKeyFrame(type, subType); }

bool IndexEntry::isSmartI() const { return type == FRAME_TYPE_I && subType != 0; }

void CRecordFileIndex::addIndex(IndexEntry entry) {
  CWriteLock lock(m_lock);
  if (m_complete) std::abort();  // a closed or loaded index never grows
  if (entry.time < m_endTime) {
    ZLOG(WARN, "CRecordFileIndex", 0, "the timestamp less than m_endTime. Maybe system time was changed.\n");
    entry.time = m_endTime;
  }
  m_entries.push_back(entry);
  if (m_beginTime == 0) m_beginTime = entry.time;
  m_endTime = entry.time;
}

void CRecordFileIndex::updateEndTime(uint32_t time) {
  CWriteLock lock(m_lock);
  if (time >= m_endTime) {
    m_endTime = time;
    m_timeWentBack = false;
    return;
  }
  if (!m_timeWentBack) {
    ZLOG(WARN, "CRecordFileIndex", 0, "the timestamp less than m_endTime.\n");
    m_timeWentBack = true;
  }
}

void CRecordFileIndex::setComplete() {
  CWriteLock lock(m_lock);
  m_complete = true;
}

bool CRecordFileIndex::isComplete() const {
  CReadLock lock(m_lock);
  return m_complete;
}

uint32_t CRecordFileIndex::beginTime() const {
  CReadLock lock(m_lock);
  return m_beginTime;
}

uint32_t CRecordFileIndex::endTime() const {
  CReadLock lock(m_lock);
  return m_endTime;
}

bool CRecordFileIndex::timeWentBack() const {
  CReadLock lock(m_lock);
  return m_timeWentBack;
}

size_t CRecordFileIndex::size() const {
  CReadLock lock(m_lock);
  return m_entries.size();
}

bool CRecordFileIndex::entryAt(size_t cursor, IndexEntry& out) const {
  CReadLock lock(m_lock);
  if (cursor >= m_entries.size()) return false;
  out = m_entries[cursor];
  return true;
}

std::vector<IndexEntry> CRecordFileIndex::entries() const {
  CReadLock lock(m_lock);
  return m_entries;
}

bool CRecordFileIndex::keyBeginLocked(size_t& cursor, bool quiet) const {
  for (size_t i = 0; i < m_entries.size(); ++i) {
    if (m_entries[i].isKey()) {
      cursor = i;
      return true;
    }
  }
  if (!quiet) ZLOG_IN(WARN, "CRecordFileIndex", "getKeyBegin", 0, "it is end.\n");
  return false;
}

bool CRecordFileIndex::keyPrevLocked(size_t& cursor) const {
  size_t i = std::min(cursor, m_entries.size());
  while (i > 0) {
    --i;
    if (m_entries[i].isKey()) {
      cursor = i;
      return true;
    }
  }
  ZLOG_IN(WARN, "CRecordFileIndex", "getKeyPrev", 0, "it is begin.\n");
  return false;
}

bool CRecordFileIndex::keyEndLocked(size_t& cursor) const {
  for (size_t i = m_entries.size(); i > 0; --i) {
    if (m_entries[i - 1].isKey()) {
      cursor = i - 1;
      return true;
    }
  }
  return false;
}

size_t CRecordFileIndex::lowerBoundByTimeLocked(size_t from, uint32_t time) const {
  auto it = std::lower_bound(m_entries.begin() + static_cast<std::ptrdiff_t>(from), m_entries.end(), time,
                             [](const IndexEntry& e, uint32_t t) { return e.time < t; });
  return static_cast<size_t>(it - m_entries.begin());
}

size_t CRecordFileIndex::lowerBoundByOffsetLocked(uint64_t offset) const {
  auto it = std::lower_bound(m_entries.begin(), m_entries.end(), offset,
                             [](const IndexEntry& e, uint64_t o) { return e.offset() < o; });
  return static_cast<size_t>(it - m_entries.begin());
}

bool CRecordFileIndex::keyAfterOffset(uint64_t offset, IndexEntry& out) const {
  CReadLock lock(m_lock);
  for (size_t i = lowerBoundByOffsetLocked(offset + 1); i < m_entries.size(); ++i) {
    if (m_entries[i].isKey()) {
      out = m_entries[i];
      return true;
    }
  }
  return false;
}

bool CRecordFileIndex::keyBeforeOffset(uint64_t offset, IndexEntry& out) const {
  CReadLock lock(m_lock);
  for (size_t i = lowerBoundByOffsetLocked(offset); i > 0; --i) {
    if (m_entries[i - 1].isKey()) {
      out = m_entries[i - 1];
      return true;
    }
  }
  return false;
}

bool CRecordFileIndex::lastKeyEntry(IndexEntry& out) const {
  CReadLock lock(m_lock);
  for (size_t i = m_entries.size(); i > 0; --i) {
    if (m_entries[i - 1].isKey()) {
      out = m_entries[i - 1];
      return true;
    }
  }
  return false;
}

bool CRecordFileIndex::getKeyBegin(size_t& cursor) const {
  CReadLock lock(m_lock);
  return keyBeginLocked(cursor, false);
}

bool CRecordFileIndex::getKeyNext(size_t& cursor) const {
  CReadLock lock(m_lock);
  for (size_t i = cursor + 1; i < m_entries.size(); ++i) {
    if (m_entries[i].isKey()) {
      cursor = i;
      return true;
    }
  }
  ZLOG(WARN, "CRecordFileIndex", 0, "it is end.\n");
  return false;
}

bool CRecordFileIndex::getKeyPrev(size_t& cursor) const {
  CReadLock lock(m_lock);
  return keyPrevLocked(cursor);
}

bool CRecordFileIndex::getSmartKeyPrev(size_t& cursor) const {
  CReadLock lock(m_lock);
  if (m_entries.empty()) return false;
  for (size_t i = std::min(cursor, m_entries.size() - 1) + 1; i > 0; --i) {
    if (m_entries[i - 1].isSmartI()) {
      cursor = i - 1;
      return true;
    }
  }
  ZLOG(WARN, "CRecordFileIndex", 0, "it is begin.\n");
  return false;
}

bool CRecordFileIndex::getKeyEnd(size_t& cursor) const {
  CReadLock lock(m_lock);
  return keyEndLocked(cursor);
}

uint64_t CRecordFileIndex::getIFrameOffset(uint32_t time) const {
  CReadLock lock(m_lock);
  size_t first = 0;
  if (!keyBeginLocked(first, true)) {
    ZLOG(WARN, "CRecordFileIndex", 0, "not find begin key index.\n");
    return kNoOffset;
  }
  if (time < m_entries[first].time) return m_entries[first].offset();
  size_t last = 0;
  if (!keyEndLocked(last)) {
    ZLOG(WARN, "CRecordFileIndex", 0, "not find end key index.\n");
    return kNoOffset;
  }
  if (time >= m_entries[last].time) return m_entries[last].offset();
  size_t i = lowerBoundByTimeLocked(first, time);  // exists: time < the last key's time
  if (m_entries[i].time == time && m_entries[i].isKey()) return m_entries[i].offset();
  return keyPrevLocked(i) ? m_entries[i].offset() : kNoOffset;
}

uint64_t CRecordFileIndex::getPrevIFrameOffset(uint32_t time, uint64_t offset) const {
  CReadLock lock(m_lock);
  size_t last = 0;
  if (!keyEndLocked(last)) {
    ZLOG(WARN, "CRecordFileIndex", 0, "not find end key index.\n");
    return kNoOffset;
  }
  size_t i;
  if (time != 0) {
    if (time > m_entries[last].time) return m_entries[last].offset();
    i = lowerBoundByTimeLocked(0, time);
  } else {
    if (offset > m_entries[last].offset()) return m_entries[last].offset();
    i = lowerBoundByOffsetLocked(offset);
  }
  return keyPrevLocked(i) ? m_entries[i].offset() : kNoOffset;
}

uint32_t CRecordFileIndex::getIFrameUTC(uint64_t offset) const {
  CReadLock lock(m_lock);
  size_t last = 0;
  if (!keyEndLocked(last)) {
    ZLOG(WARN, "CRecordFileIndex", 0, "not find end key index.\n");
    return 0;
  }
  if (offset >= m_entries[last].offset()) return m_entries[last].time;
  size_t i = lowerBoundByOffsetLocked(offset);
  if (m_entries[i].offset() == offset && m_entries[i].isKey()) return m_entries[i].time;
  return keyPrevLocked(i) ? m_entries[i].time : 0;
}

uint64_t CRecordFileIndex::getPrevISmartFrameOffset(uint32_t time, uint64_t offset) const {
  CReadLock lock(m_lock);
  size_t last = 0;
  if (!keyEndLocked(last)) {
    ZLOG(WARN, "CRecordFileIndex", 0, "not find key index.\n");
    return kNoOffset;
  }
  size_t i = time != 0 ? lowerBoundByTimeLocked(0, time) : lowerBoundByOffsetLocked(offset);
  if (i >= m_entries.size()) i = m_entries.size() - 1;
  for (size_t j = i + 1; j > 0; --j) {
    if (m_entries[j - 1].isSmartI()) return m_entries[j - 1].offset();
  }
  // Without a smart I frame playback starts from the newest key frame rather
  // than failing.
  ZLOG_IN(WARN, "CRecordFileIndex", "getSmartKeyPrev", 0, "it is begin.\n");
  return m_entries[last].offset();
}

}  // namespace Velto::Zarn
