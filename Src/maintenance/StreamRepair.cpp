#include "StreamRepair.h"

#include <algorithm>

namespace Velto::Zarn {

namespace {
constexpr uint32_t kListPage = 1000;
}  // namespace

bool findRepairCandidates(CZarnFileSystem& fs, uint32_t streamId, std::vector<RecordFileName>& out) {
  const std::string bucketPath = bucketName(streamId, BUCKET_KIND_MEDIA);
  CBucket bucket = fs.getBucket(bucketPath);
  if (!bucket.isValid()) return getLastError() == ZARN_E_NO_SUCH_BUCKET;
  std::string marker;
  for (;;) {
    CNameList names;
    if (!bucket.list(names, marker, "", kListPage)) return false;
    for (const std::string& name : names) {
      RecordFileName record;
      if (!parseListedRecordFileName(bucketPath + "/" + name, record) || record.isIndex != 0) continue;
      if (record.endTime == 0) {
        ZarnFileStat stat;
        if (!fs.getFileStat(bucketPath + "/" + name, stat) || stat.openForWrite) continue;
      } else if (record.indexState != RECORD_INDEX_MISSING && record.indexState != RECORD_INDEX_REBUILDING) {
        continue;
      }
      out.push_back(record);
    }
    if (names.size() < kListPage) return true;
    marker = names.back();
  }
}

bool repairStream(CZarnFileSystem& fs, uint32_t streamId, const IndexFixOptions& options,
                  std::vector<StreamRepairEntry>& out) {
  std::vector<RecordFileName> candidates;
  if (!findRepairCandidates(fs, streamId, candidates)) return false;
  for (const RecordFileName& record : candidates) {
    StreamRepairEntry entry;
    generateRecordFileName(record, entry.name);
    entry.report = CIndexFixer(fs, record, options).doFixIndex();
    out.push_back(std::move(entry));
  }
  return true;
}

bool listStreamIds(CZarnFileSystem& fs, std::vector<uint32_t>& out) {
  CNameList names;
  if (!fs.listBuckets(names)) return false;
  for (const std::string& name : names) {
    uint32_t id = 0;
    uint16_t kind = 0;
    if (parseBucketName(name, id, kind) && kind == BUCKET_KIND_MEDIA) out.push_back(id);
  }
  std::sort(out.begin(), out.end());
  return true;
}

}  // namespace Velto::Zarn
