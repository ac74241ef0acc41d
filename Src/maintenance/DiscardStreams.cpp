#include "DiscardStreams.h"

#include <cinttypes>
#include <cstdio>
#include <vector>

#include "LockSizeLedger.h"
#include "MediaLog.h"

namespace Velto::Zarn {

namespace {

constexpr uint64_t kMiB = 1u << 20;

// "%d_%d_%d.discard" read back exactly: three numbers and nothing after.
bool parseMarker(const std::string& name, uint32_t& streamId, uint32_t& hours, uint32_t& space) {
  unsigned a = 0, b = 0, c = 0;
  int consumed = 0;
  if (std::sscanf(name.c_str(), "%u_%u_%u.discard%n", &a, &b, &c, &consumed) != 3) return false;
  if (static_cast<size_t>(consumed) != name.size() || name != discardMarkerName(a, b, c)) return false;
  streamId = a;
  hours = b;
  space = c;
  return true;
}

}  // namespace

std::string discardMarkerName(uint32_t streamId, uint32_t durationHours, uint32_t space) {
  char name[64];
  std::snprintf(name, sizeof name, "%u_%u_%u.discard", streamId, durationHours, space);
  return name;
}

bool discardStream(CZarnFileSystem& fs, uint32_t streamId, uint32_t durationHours, uint32_t space) {
  if (durationHours == 0 && space == 0) {
    ZLOG(ERROR, "CZarnCyclicCover", 0, "param[%d,%d] is error\n", 0, 0);
    return false;
  }
  const std::string path = std::string(kSystemBucket) + "/" + discardMarkerName(streamId, durationHours, space);
  std::unique_ptr<CFile> file = fs.createFile(path, 1, 1);
  if (file) {
    file->close();
    return true;
  }
  if (getLastError() == ZARN_E_FILE_EXISTS) return true;
  ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "create file[%s] faild with error[%d]\n", path.c_str(),
       getLastError());
  return false;
}

bool queryDiscardStream(CZarnFileSystem& fs, DiscardList& list) {
  CBucket bucket = fs.getBucket(kSystemBucket);
  if (!bucket.isValid()) {
    ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "getbucket error[%d]\n", getLastError());
    return false;
  }
  std::string marker;
  for (;;) {
    CNameList names;
    if (!bucket.list(names, marker, "", kCoverPageSize)) {
      ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "bucket list failed: %d, %s\n\n", getLastError(), getErrorMsg());
      return false;
    }
    for (const std::string& name : names) {
      uint32_t id = 0, hours = 0, space = 0;
      if (!parseMarker(name, id, hours, space)) continue;  // the ledger, the guard and mutex files
      auto [it, inserted] = list.try_emplace(id);
      DiscardEntry& entry = it->second;
      if (inserted || hours > entry.durationHours) entry.durationHours = hours;
      if (inserted || space > entry.space) entry.space = space;
      entry.markerPaths.push_back(std::string(kSystemBucket) + "/" + name);
    }
    if (names.size() < kCoverPageSize) return true;
    marker = names.back();
  }
}

bool removeFile(CZarnFileSystem& fs, const std::string& path) {
  if (fs.removeFile(path) || getLastError() == ZARN_E_NO_SUCH_FILE) {
    ZLOG(DEBUG, "CZarnCyclicCover", 0, "remove file[%s] success\n", path.c_str());
    return true;
  }
  ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "remove file[%s] failed, error[%d]\n", path.c_str(), getLastError());
  return false;
}

bool removeBucket(CZarnFileSystem& fs, const std::string& name) {
  if (fs.removeBucket(name)) {
    ZLOG(INFO, "CZarnCyclicCover", 0, "remove bucket[%s] success\n", name.c_str());
    return true;
  }
  if (getLastError() == ZARN_E_NO_SUCH_BUCKET) {
    ZLOG(DEBUG, "CZarnCyclicCover", 0, "bucket[%s] is removed\n", name.c_str());
    return true;
  }
  ZLOG(WARN, "CZarnCyclicCover", getLastError(), "remove bucket error[%d]\n", getLastError());
  return false;
}

static bool removeMarkers(CZarnFileSystem& fs, const DiscardEntry& entry) {
  bool all = true;
  for (const std::string& path : entry.markerPaths) all = removeFile(fs, path) && all;
  return all;
}

// Both buckets of every discarded stream, then its marker, once they are gone.
static void removeEmptied(CoverRun& run, uint32_t streamId, const DiscardEntry& entry) {
  if (run.dryRun) return;
  // A bucket still holding files is refused by the store: exactly the rule
  // that keeps a stream's data until its limits have emptied it.
  const bool forgottenGone = removeBucket(run.fs, bucketName(streamId, BUCKET_KIND_FORGOTTEN));
  const bool mediaGone = removeBucket(run.fs, bucketName(streamId, BUCKET_KIND_MEDIA));
  if (forgottenGone && mediaGone) removeMarkers(run.fs, entry);
}

uint64_t coverDiscardStreams(CoverRun& run, const DiscardList& list) {
  uint64_t freed = 0;
  for (const auto& [id, entry] : list) {
    freed += coverStream(run, id, entry.durationHours, entry.space);
    removeEmptied(run, id, entry);
  }
  return freed;
}

uint32_t removeStreamBucket(CoverRun& run, uint32_t streamId, uint64_t& freed, uint64_t need, uint16_t bucketKind) {
  const std::string name = bucketName(streamId, bucketKind);
  CBucket bucket = run.fs.getBucket(name);
  if (!bucket.isValid()) {
    if (getLastError() == ZARN_E_NO_SUCH_BUCKET) return STREAM_BUCKET_GONE;
    ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "getbucket error[%d]\n", getLastError());
    return STREAM_BUCKET_FAILED;
  }
  for (;;) {
    // Candidates exclude locked files and their index files; what the listing
    // holds beyond them decides between "locked files left" and "empty".
    std::vector<RecordFileName> files;
    if (!listRecordFile(run.fs, streamId, bucketKind, files, kCoverPageSize)) {
      ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "bucket list failed: %d, %s\n\n", getLastError(), getErrorMsg());
      return STREAM_BUCKET_FAILED;
    }
    if (files.empty()) break;
    for (const RecordFileName& file : files) {
      if (!removeCandidate(run, file, "its stream was discarded")) {
        ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "file remove failed.\n");
        return STREAM_BUCKET_FAILED;
      }
      freed += file.size;
      if (freed >= need) return STREAM_BUCKET_NEED_MET;
    }
    if (run.dryRun) return STREAM_BUCKET_NEED_MET;  // nothing was removed: listing again would loop
  }
  // The store refuses a bucket that still holds files: only locked ones are left then.
  if (!run.fs.removeBucket(name) && getLastError() != ZARN_E_NO_SUCH_BUCKET) {
    if (getLastError() == ZARN_E_BUCKET_NOT_EMPTY) return STREAM_BUCKET_LOCKED;
    ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "remove bucket[%s] failed, error[%d]\n", name.c_str(),
         getLastError());
    return STREAM_BUCKET_FAILED;
  }
  ZLOG(INFO, "CZarnCyclicCover", 0, "remove bucket[%s] success\n", name.c_str());
  return STREAM_BUCKET_GONE;
}

uint64_t freeDiscardStream(CoverRun& run, const DiscardList& list, uint64_t needBytes) {
  uint64_t freed = 0;
  int failures = 0;
  for (const auto& [id, entry] : list) {
    if (freed >= needBytes) break;
    const uint32_t forgotten = removeStreamBucket(run, id, freed, needBytes, BUCKET_KIND_FORGOTTEN);
    bool ok = forgotten != STREAM_BUCKET_FAILED;
    if (forgotten == STREAM_BUCKET_GONE || forgotten == STREAM_BUCKET_LOCKED) {
      const uint32_t media = removeStreamBucket(run, id, freed, needBytes, BUCKET_KIND_MEDIA);
      ok = media != STREAM_BUCKET_FAILED;
      if (media == STREAM_BUCKET_GONE && forgotten == STREAM_BUCKET_GONE && !run.dryRun) {
        ok = removeMarkers(run.fs, entry);
      }
    }
    failures = ok ? 0 : failures + 1;
    if (failures >= 3) {
      ZLOG(ERROR, "CZarnCyclicCover", 0, "continue failed 3 times, maybe zarn is error.\n");
      break;
    }
  }
  ZLOG(DEBUG, "CZarnCyclicCover", 0, "free discard stream over, freed %f MB, continue failed count %d\n",
       static_cast<double>(freed) / kMiB, failures);
  return freed;
}

}  // namespace Velto::Zarn
