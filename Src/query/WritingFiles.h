// The table of record files being written: for each recording stream, the file
// its writer currently appends to. Writers enter a file when it becomes
// current and remove it when they close it; queries read it to give a file
// still being written the writer's end time, and readers to borrow the live
// index of such a file.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Velto::Zarn {

class CRecordFileIndex;

class CWritingFileTable {
 public:
  struct Entry {
    std::string fullName;                      // the file's current (open) name
    uint32_t beginTime = 0;                    // its first frame time
    std::shared_ptr<CRecordFileIndex> index;   // its live index (end time = last frame time)
  };

  void set(uint32_t streamId, Entry entry);
  void erase(uint32_t streamId);
  bool get(uint32_t streamId, Entry& out) const;
  // The last frame time of the stream's current file; 0 without one.
  uint32_t currentEndTime(uint32_t streamId) const;

 private:
  mutable std::mutex m_mutex;
  std::map<uint32_t, Entry> m_entries;  // guarded by m_mutex
};

}  // namespace Velto::Zarn
