#include "CoverPasses.h"

#include <algorithm>
#include <cinttypes>
#include <queue>
#include <set>

#include "MediaLog.h"
#include "RecordRemoval.h"

namespace Velto::Zarn {

namespace {

constexpr uint64_t kMiB = 1u << 20;

bool sameRecord(const RecordFileName& index, const RecordFileName& record) {
  return record.isIndex == 0 && record.beginTime == index.beginTime && record.endTime == index.endTime &&
         record.type == index.type;
}

// What one pass removed. The statistics count a real pass when it ends.
class CPassTally {
 public:
  explicit CPassTally(CoverRun& run) : m_run(run) {}
  // Removes `file`; true when it is gone (or would go in a dry run).
  bool remove(const RecordFileName& file, const char* why) {
    if (!removeCandidate(m_run, file, why)) {
      ++m_failed;
      return false;
    }
    ++removed;
    freed += file.size;
    return true;
  }
  void count() const {
    if (m_run.stats == nullptr || m_run.dryRun) return;
    if (removed != 0) {
      m_run.stats->addLoopOverwriteSuccessCount(removed);
      m_run.stats->addLoopOverwriteDeleteBytes(freed);
    }
    if (m_failed != 0) m_run.stats->addLoopOverwriteFailedCount(m_failed);
  }

  uint32_t removed = 0;
  uint64_t freed = 0;  // bytes

 private:
  CoverRun& m_run;
  uint32_t m_failed = 0;
};

}  // namespace

bool listRecordFile(CZarnFileSystem& fs, uint32_t streamId, uint16_t bucketKind, std::vector<RecordFileName>& out,
                    uint32_t maxCount, const std::string& endMarker) {
  const std::string bucketPath = bucketName(streamId, bucketKind);
  CBucket bucket = fs.getBucket(bucketPath);
  if (!bucket.isValid()) {
    if (getLastError() == ZARN_E_NO_SUCH_BUCKET) return true;
    ZLOG_IN(ERROR, "CZarnCyclicCover", "listRecordFile", getLastError(), "get bucket failed. bucket name: %s\n",
            bucketPath.c_str());
    return false;
  }
  std::string marker;
  const size_t wanted = out.size() + maxCount;
  while (out.size() < wanted) {
    CFileList page;
    if (!bucket.list(page, marker, endMarker, kCoverPageSize)) {
      ZLOG_IN(ERROR, "CZarnCyclicCover", "listRecordFile", getLastError(), "bucket list failed: %d, %s\n\n",
              getLastError(), getErrorMsg());
      return false;
    }
    if (page.empty()) break;
    const bool full = page.size() >= kCoverPageSize;
    std::vector<RecordFileName> parsed(page.size());
    std::vector<bool> usable(page.size(), false);
    for (size_t i = 0; i < page.size(); ++i) {
      usable[i] = parseListedRecordFileName(bucketPath + "/" + page[i].name, parsed[i]);
      parsed[i].size = page[i].size;
      parsed[i].bucketKind = bucketKind;
    }
    for (size_t i = 0; i < page.size() && out.size() < wanted; ++i) {
      if (!usable[i]) continue;
      const RecordFileName& file = parsed[i];
      const bool last = i + 1 == page.size();
      if (file.isIndex == 0) {
        // The last file without an end is the one being written.
        if (file.lockCount != 0 || (last && file.endTime == 0)) continue;
      } else if (file.isIndex == 1) {
        // An index file sorts just before its record file; at a page's end the
        // record file is on the next page, so the index waits for a later run.
        if (last && full) continue;
        if (!last && usable[i + 1] && sameRecord(file, parsed[i + 1]) && parsed[i + 1].lockCount != 0) continue;
      } else {
        continue;
      }
      out.push_back(file);
    }
    if (!full) break;
    marker = page.back().name;
  }
  return true;
}

bool removeCandidate(CoverRun& run, const RecordFileName& file, const char* why) {
  if (!run.dryRun && !removeRecordFile(run.fs, file)) return false;
  if (run.onRemoved) run.onRemoved(file, why);
  return true;
}

uint64_t coverByTime(CoverRun& run, uint32_t streamId, uint16_t bucketKind, uint64_t durationHours) {
  ZLOG(TRACE, "CZarnCyclicCover", 0, "cover by time sID: %u durationHours: %" PRIu64 "\n", streamId, durationHours);
  const uint64_t keep = durationHours * 3600;
  uint64_t limit = keep >= run.localNow ? 0 : run.localNow - keep;
  CPassTally tally(run);
  bool guarded = false;
  const int passes = run.dryRun ? 1 : kCoverPasses;
  for (int pass = 0; pass < passes; ++pass) {
    std::vector<RecordFileName> files;
    if (limit == 0) break;
    listRecordFile(run.fs, streamId, bucketKind, files, kCoverPageSize, formatDate(static_cast<uint32_t>(limit)));
    if (files.empty()) {
      ZLOG(DEBUG, "CZarnCyclicCover", 0, "Have no file can delete.\n");
      break;
    }
    if (!guarded) {
      guarded = true;
      const uint64_t guard = static_cast<uint64_t>(files.front().beginTime) + 2ull * run.periodSeconds;
      if (guard < limit) {
        ZLOG(INFO, "CZarnCyclicCover", 0, "Detected time-hopping or cover policy change.\n");
        limit = guard;
      }
    }
    bool reachedLimit = false;
    const uint32_t before = tally.removed;
    for (const RecordFileName& file : files) {
      if (file.beginTime >= limit) {
        reachedLimit = true;
        break;
      }
      tally.remove(file, "older than the stream's time policy");
    }
    if (reachedLimit || tally.removed == before) break;
  }
  ZLOG(INFO, "CZarnCyclicCover", 0, "cover by time over. sID: %u remove %u files. freed size %" PRIu64 "\n", streamId,
       tally.removed, tally.freed / kMiB);
  tally.count();
  return tally.freed;
}

uint64_t coverBySpace(CoverRun& run, uint32_t streamId, uint16_t bucketKind, uint64_t spaceMiB) {
  ZLOG(TRACE, "CZarnCyclicCover", 0, "cover by space sID: %u. Space threshold: %" PRIu64 " MB\n", streamId, spaceMiB);
  const std::string bucketPath = bucketName(streamId, bucketKind);
  CBucket bucket = run.fs.getBucket(bucketPath);
  if (!bucket.isValid()) {
    if (getLastError() != ZARN_E_NO_SUCH_BUCKET) {
      ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "get bucket failed. bucket name: %s\n", bucketPath.c_str());
    }
    return 0;
  }
  uint64_t used = 0;
  if (!bucket.getUsedCapacity(used)) {
    ZLOG(ERROR, "CZarnCyclicCover", getLastError(), "bucket get capacity failed. bucket name: %s\n", bucketPath.c_str());
    return 0;
  }
  const uint64_t allowed = spaceMiB * kMiB;
  if (used <= allowed) return 0;
  const uint64_t need = used - allowed;
  ZLOG(INFO, "CZarnCyclicCover", 0, "cover by space sID: %u. Need free: %" PRIu64 " MB. UsedSpace: %" PRIu64 " MB\n",
       streamId, need / kMiB, used / kMiB);
  CPassTally tally(run);
  const int passes = run.dryRun ? 1 : kCoverPasses;
  for (int pass = 0; pass < passes && tally.freed < need; ++pass) {
    std::vector<RecordFileName> files;
    listRecordFile(run.fs, streamId, bucketKind, files, kCoverPageSize);
    if (files.empty()) {
      ZLOG(DEBUG, "CZarnCyclicCover", 0, "Have no file can delete.\n");
      break;
    }
    const uint32_t before = tally.removed;
    for (const RecordFileName& file : files) {
      if (tally.freed >= need) break;
      tally.remove(file, "beyond the stream's space policy");
    }
    if (tally.removed == before) break;
  }
  ZLOG(INFO, "CZarnCyclicCover", 0, "cover By Space over. sID: %u remove %u files. freed size: %" PRIu64 " MB\n",
       streamId, tally.removed, tally.freed / kMiB);
  tally.count();
  return tally.freed;
}

uint64_t coverStream(CoverRun& run, uint32_t streamId, uint64_t durationHours, uint64_t spaceMiB) {
  if (durationHours != 0) {
    return coverByTime(run, streamId, BUCKET_KIND_FORGOTTEN, durationHours) +
           coverByTime(run, streamId, BUCKET_KIND_MEDIA, durationHours);
  }
  return coverBySpace(run, streamId, BUCKET_KIND_FORGOTTEN, spaceMiB) +
         coverBySpace(run, streamId, BUCKET_KIND_MEDIA, spaceMiB);
}

namespace {

// One stream's candidates for urgent recycling, both buckets merged by begin
// time, consumed from the front.
struct StreamQueue {
  uint32_t streamId = 0;
  std::vector<RecordFileName> files;
  size_t next = 0;
};

bool gatherLowSpace(CoverRun& run, uint32_t streamId, StreamQueue& queue) {
  queue.streamId = streamId;
  queue.files.clear();
  queue.next = 0;
  listRecordFile(run.fs, streamId, BUCKET_KIND_FORGOTTEN, queue.files, kLowSpaceFilesPerBucket);
  listRecordFile(run.fs, streamId, BUCKET_KIND_MEDIA, queue.files, kLowSpaceFilesPerBucket);
  // Stable: an index file stays just before its record file of the same begin.
  std::stable_sort(queue.files.begin(), queue.files.end(),
                   [](const RecordFileName& a, const RecordFileName& b) { return a.beginTime < b.beginTime; });
  return !queue.files.empty();
}

}  // namespace

uint64_t lowSpace(CoverRun& run, uint64_t needBytes) {
  ZLOG(DEBUG, "CZarnCyclicCover", 0, "lowSpace need free %f MB. %s\n", static_cast<double>(needBytes) / kMiB,
       "Maintain all stream.");
  std::set<uint32_t> streams;
  CNameList buckets;
  if (run.fs.listBuckets(buckets)) {
    for (const std::string& name : buckets) {
      uint32_t id = 0;
      uint16_t kind = 0;
      if (parseBucketName(name, id, kind)) streams.insert(id);
    }
  }
  if (streams.empty()) {
    ZLOG(INFO, "CZarnCyclicCover", 0, "Have no stream need maintain.\n");
    return 0;
  }
  ZLOG(INFO, "CZarnCyclicCover", 0, "Need maintain stream num: %ld.\n", static_cast<long>(streams.size()));
  const uint32_t youngest = run.localNow > kLowSpaceMinAgeSeconds ? run.localNow - kLowSpaceMinAgeSeconds : 0;
  CPassTally tally(run);
  const int passes = run.dryRun ? 1 : kCoverPasses;
  for (int pass = 0; pass < passes && tally.freed < needBytes; ++pass) {
    std::vector<StreamQueue> queues;
    for (uint32_t id : streams) {
      StreamQueue queue;
      if (!gatherLowSpace(run, id, queue)) continue;
      if (queue.files.front().beginTime > youngest) {
        ZLOG(INFO, "CZarnCyclicCover", 0,
             "stream_id:%u record file less then 12 hours, skip it. currentTime: %" PRIu64 " first: %u\n", id,
             static_cast<uint64_t>(run.localNow), queue.files.front().beginTime);
        continue;
      }
      queues.push_back(std::move(queue));
    }
    // Always the oldest candidate of any stream next.
    auto later = [&queues](size_t a, size_t b) {
      return queues[a].files[queues[a].next].beginTime > queues[b].files[queues[b].next].beginTime;
    };
    std::priority_queue<size_t, std::vector<size_t>, decltype(later)> heap(later);
    for (size_t i = 0; i < queues.size(); ++i) heap.push(i);
    const uint32_t before = tally.removed;
    while (!heap.empty() && tally.freed < needBytes) {
      const size_t i = heap.top();
      heap.pop();
      StreamQueue& queue = queues[i];
      const RecordFileName& file = queue.files[queue.next++];
      if (file.beginTime > youngest) continue;  // this stream keeps the rest
      tally.remove(file, "the store is short of space");
      if (queue.next < queue.files.size()) heap.push(i);
    }
    if (tally.removed == before) break;
  }
  ZLOG(DEBUG, "CZarnCyclicCover", 0, "free space over, freed %f MB, remove:%d\n",
       static_cast<double>(tally.freed) / kMiB, static_cast<int>(tally.removed));
  tally.count();
  return tally.freed;
}

}  // namespace Velto::Zarn
