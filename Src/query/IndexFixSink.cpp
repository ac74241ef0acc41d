#include "IndexFixSink.h"

namespace Velto::Zarn {

bool needsIndexFix(const RecordFileName& file) {
  return file.endTime != 0 &&
         (file.indexState == RECORD_INDEX_MISSING || file.indexState == RECORD_INDEX_REBUILDING);
}

size_t submitFilesNeedingIndex(IIndexFixSink* sink, CZarnFileSystem& fs, const std::vector<RecordFileName>& files) {
  size_t submitted = 0;
  for (const RecordFileName& file : files) {
    if (!needsIndexFix(file)) continue;
    if (sink != nullptr) sink->submitIndexFixWork(fs, file);
    ++submitted;
  }
  return submitted;
}

}  // namespace Velto::Zarn
