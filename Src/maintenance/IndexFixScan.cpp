#include "IndexFixScan.h"

#include <vector>

#include "KanduThread.h"
#include "RecordQuery.h"

namespace Velto::Zarn {

namespace {
constexpr size_t kStreamsPerPause = 100;
constexpr uint32_t kPauseMs = 100;
}  // namespace

size_t scanForIndexFix(const QueryEnv& env, CZarnFileSystem& fs, const std::set<uint32_t>& streamIds, uint32_t from,
                       uint32_t now) {
  size_t total = 0;
  size_t visited = 0;
  for (uint32_t id : streamIds) {
    std::vector<RecordFileName> files;
    listRecordFileInfo(env, fs, id, from, now, files, BUCKET_KIND_FORGOTTEN);
    const int32_t count = listRecordFileInfo(env, fs, id, from, now, files, BUCKET_KIND_MEDIA);
    if (count > 0) {
      total += static_cast<size_t>(count);
      submitFilesNeedingIndex(env.indexFix, fs, files);
    }
    if (++visited % kStreamsPerPause == 0) Velto::Kandu::sleepMs(kPauseMs);
  }
  return total;
}

}  // namespace Velto::Zarn
