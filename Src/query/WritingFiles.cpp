#include "WritingFiles.h"

#include "RecordFileIndex.h"

namespace Velto::Zarn {

void CWritingFileTable::set(uint32_t streamId, Entry entry) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_entries[streamId] = std::move(entry);
}

void CWritingFileTable::erase(uint32_t streamId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_entries.erase(streamId);
}

bool CWritingFileTable::get(uint32_t streamId, Entry& out) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_entries.find(streamId);
  if (it == m_entries.end()) return false;
  out = it->second;
  return true;
}

uint32_t CWritingFileTable::currentEndTime(uint32_t streamId) const {
  std::shared_ptr<CRecordFileIndex> index;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(streamId);
    if (it == m_entries.end() || !it->second.index) return 0;
    index = it->second.index;
  }
  return index->endTime();
}

}  // namespace Velto::Zarn
