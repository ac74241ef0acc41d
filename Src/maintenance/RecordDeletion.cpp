#include "RecordDeletion.h"

#include <functional>
#include <string>
#include <vector>

#include "MediaLog.h"
#include "RecordLock.h"
#include "RecordQuery.h"
#include "RecordRemoval.h"

namespace Velto::Zarn {

namespace {

// beginTS 0 with this endTS asks for the whole stream.
constexpr uint32_t kWholeStreamEnd = 4294967295u;

// Lists `bucket` page by page (kDeletePageSize names, at most `maxPages`
// pages; 0: all) and hands every name that parses to `visit`, with its listed
// size. Each page starts after the last name of the one before, so files that
// `visit` fails to remove are not met again. false when a listing fails.
bool forEachListedFile(CZarnFileSystem& fs, const std::string& bucket, uint32_t maxPages,
                       const std::function<void(RecordFileName&)>& visit) {
  CBucket handle = fs.getBucket(bucket);
  std::string marker;
  for (uint32_t page = 0; maxPages == 0 || page < maxPages; ++page) {
    CFileList names;
    if (!handle.isValid() || !handle.list(names, marker, std::string(), kDeletePageSize)) {
      ZLOG(ERROR, "GENERAL", getLastError(), "bucket(%s) list failed: %s\n", bucket.c_str(), getErrorMsg());
      return false;
    }
    for (const StoreEntry& entry : names) {
      RecordFileName record;
      if (!parseListedRecordFileName(bucket + "/" + entry.name, record)) continue;
      record.size = entry.size;
      visit(record);
    }
    if (names.size() < kDeletePageSize) break;
    marker = names.back().name;
  }
  return true;
}

// Removes a record file wholly inside a deleted range. A separate index file
// goes first, so that no failure leaves it orphaned; when it cannot be
// removed, the record file stays too and the pair stays readable.
void removeWithIndex(CZarnFileSystem& fs, const RecordFileName& file) {
  if (file.indexState == RECORD_INDEX_SEPARATE) {
    RecordFileName index = file;
    index.isIndex = 1;
    if (!removeRecordFile(fs, index)) return;
  }
  removeRecordFile(fs, file);
}

// Renames a record file (and its separate index file) to cover
// [newBegin, newEnd] only. The two names must agree: when the index file
// cannot follow, the record file is renamed back, so a failure leaves the pair
// as it was.
void trimByName(CZarnFileSystem& fs, const RecordFileName& file, uint32_t newBegin, uint32_t newEnd) {
  std::string oldName;
  if (!generateRecordFileName(file, oldName)) return;
  RecordFileName trimmed = file;
  trimmed.beginTime = newBegin;
  trimmed.endTime = newEnd;
  trimmed.realEndTime = newEnd;
  if (!recordFileRename(fs, oldName, trimmed) || file.indexState != RECORD_INDEX_SEPARATE) return;

  RecordFileName index = file;
  index.isIndex = 1;
  RecordFileName trimmedIndex = trimmed;
  trimmedIndex.isIndex = 1;
  std::string oldIndexName;
  if (generateRecordFileName(index, oldIndexName) && recordFileRename(fs, oldIndexName, trimmedIndex)) return;
  std::string newName;
  if (generateRecordFileName(trimmed, newName)) recordFileRename(fs, newName, file);
}

}  // namespace

int32_t deleteRecordClip(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS) {
  ZLOG(DEBUG, "GENERAL", 0, "deleteRecordClip. stream_id:%u, beginTS:%u, endTS:%u\n", streamId, beginTS, endTS);
  if (beginTS == 0 && endTS == kWholeStreamEnd) return clearRecord(fs, streamId);
  if (endTS < beginTS) {
    ZLOG(ERROR, "GENERAL", -1, "para error, endTS[%u] is before beginTS[%u], nothing deleted\n", endTS, beginTS);
    return -1;
  }
  std::vector<RecordFileName> files;
  if (gatherRecordFiles(env, fs, streamId, beginTS, endTS, files) < 0) {
    ZLOG(ERROR, "GENERAL", -1, "listRecordFileInfo failed\n");
    return -1;
  }
  // Names only: endTime is the end a file's name carries (0 while it is
  // written), not the end a query estimates for it.
  for (const RecordFileName& file : files) {
    if (file.endTime == 0 || file.indexState == RECORD_INDEX_REBUILDING) continue;
    if (file.beginTime >= beginTS && file.endTime <= endTS) {
      removeWithIndex(fs, file);
    } else if (file.indexState == RECORD_INDEX_MISSING) {
      continue;
    } else if (file.beginTime < beginTS && file.endTime > beginTS && file.endTime <= endTS) {
      trimByName(fs, file, file.beginTime, beginTS);
    } else if (file.beginTime >= beginTS && file.beginTime < endTS && file.endTime > endTS) {
      trimByName(fs, file, endTS, file.endTime);
    }
  }
  return 0;
}

int32_t clearRecord(CZarnFileSystem& fs, uint32_t streamId) {
  ZLOG(DEBUG, "GENERAL", 0, "clearRecord: sid = %u.\n", streamId);
  const std::string bucket = bucketName(streamId, BUCKET_KIND_MEDIA);
  if (!fs.getBucket(bucket).isValid()) return deleteBucket(fs, streamId);  // nothing to clear, or a store fault
  // Removed files leave the listing, so every round lists from the start; a
  // round that removes nothing would list the same files again.
  for (;;) {
    std::vector<RecordFileName> files;
    const bool listed = listRecordFiles(fs, streamId, kDeletePageSize, files);
    size_t removed = 0;
    for (const RecordFileName& file : files) removed += removeRecordFile(fs, file) ? 1 : 0;
    if (!listed || files.size() < kDeletePageSize || removed == 0) break;
  }
  // The listing above holds record files only. Index files left behind would
  // keep the store from removing the bucket, and a cleared stream must be gone.
  forEachListedFile(fs, bucket, 0, [&fs](RecordFileName& file) {
    if (file.isIndex != 0) removeRecordFile(fs, file);
  });
  return deleteBucket(fs, streamId);
}

int32_t deleteBucket(CZarnFileSystem& fs, uint32_t streamId) {
  ZLOG(DEBUG, "GENERAL", 0, "deleteBucket: sid = %u.\n", streamId);
  const std::string bucket = bucketName(streamId, BUCKET_KIND_MEDIA);
  if (fs.removeBucket(bucket) || getLastError() == ZARN_E_NO_SUCH_BUCKET) return 0;
  ZLOG(ERROR, "GENERAL", getLastError(), "del bucket(%s) failed: %s\n", bucket.c_str(), getErrorMsg());
  return -1;
}

bool deleteStreamRecords(CZarnFileSystem& fs, uint32_t streamId, uint16_t bucketKind) {
  const std::string bucket = bucketName(streamId, bucketKind);
  CBucket handle = fs.getBucket(bucket);
  if (!handle.isValid()) {
    if (getLastError() == ZARN_E_NO_SUCH_BUCKET) return true;
    ZLOG(ERROR, "GENERAL", getLastError(), "get bucket(%s) failed: %s\n", bucket.c_str(), getErrorMsg());
    return false;
  }
  forEachListedFile(fs, bucket, kDeletePagesPerRun, [&fs](RecordFileName& file) {
    // Only a locked record file needs the unlock; unlocking leaves
    // file.lockCount at what the name still says, so whichever of the two
    // calls succeeds takes the file's size off the ledger, once.
    if (file.isIndex == 0 && file.lockCount != 0) unlockRecordFile(fs, file, true);
    removeRecordFile(fs, file);
  });
  // The store refuses a bucket that still holds files: more next run.
  if (fs.removeBucket(bucket) || getLastError() == ZARN_E_NO_SUCH_BUCKET) return true;
  if (getLastError() == ZARN_E_BUCKET_NOT_EMPTY) return false;
  ZLOG(ERROR, "GENERAL", getLastError(), "del bucket(%s) failed: %s\n", bucket.c_str(), getErrorMsg());
  return false;
}

}  // namespace Velto::Zarn
