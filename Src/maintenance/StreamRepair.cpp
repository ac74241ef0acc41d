#include "StreamRepair.h"

#include <algorithm>

#include "QueryFile.h"

namespace Velto::Zarn {

bool findRepairCandidates(CZarnFileSystem& fs, uint32_t streamId, std::vector<RecordFileName>& out) {
  const std::string bucketPath = bucketName(streamId, BUCKET_KIND_MEDIA);
  if (!fs.getBucket(bucketPath).isValid()) return getLastError() == ZARN_E_NO_SUCH_BUCKET;
  CQueryFile walk(fs, bucketPath);
  if (!walk.open("", "")) return true;  // an empty bucket (a refused listing is logged)
  std::string name;
  for (RecordFileName record; walk.next(record);) {
    if (record.isIndex != 0) continue;
    if (record.endTime == 0) {
      ZarnFileStat stat;
      if (!generateRecordFileName(record, name) || !fs.getFileStat(name, stat) || stat.openForWrite) continue;
    } else if (record.indexState != RECORD_INDEX_MISSING && record.indexState != RECORD_INDEX_REBUILDING) {
      continue;
    }
    out.push_back(record);
  }
  return true;
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
