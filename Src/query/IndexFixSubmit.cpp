#include "IndexFixSubmit.h"

namespace Velto::Zarn {

// The index fixer fills this in: it hands the file's name and the store to the
// index-fix manager's pending set.
void submitIndexFixWork(CZarnFileSystem& /*fs*/, const RecordFileName& /*record*/) {}

size_t submitFilesNeedingIndex(CZarnFileSystem& fs, const std::vector<RecordFileName>& files) {
  size_t submitted = 0;
  for (const RecordFileName& file : files) {
    if (file.endTime != 0 &&
        (file.indexState == RECORD_INDEX_MISSING || file.indexState == RECORD_INDEX_REBUILDING)) {
      submitIndexFixWork(fs, file);
      ++submitted;
    }
  }
  return submitted;
}

}  // namespace Velto::Zarn
