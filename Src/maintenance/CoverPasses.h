// The recycling passes of the cyclic cover engine: by a stream's time policy,
// by its space policy, and urgently over all streams when the store runs short.
//
// Every pass works from removal candidates listed oldest first (names in a
// bucket sort by begin time). Locked record files are never candidates, nor
// the index file of a locked record file, nor a stream's file still being
// written: a pass can therefore never cost a lock or a live recording.
//
// Sizes are bytes throughout (from the bucket listing); policies state space
// in MiB and the log lines report MiB.
//
// Threading: a pass runs on the caller's thread (the cover timer, or the tool)
// over the connection it is given and takes no lock of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "MediaSdkStat.h"
#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

// Names per listing page, and candidates one gathering holds.
inline constexpr uint32_t kCoverPageSize = 1000;
// A pass lists and removes at most this many times per bucket and run.
inline constexpr int kCoverPasses = 3;
// Urgent recycling lists this many files per bucket of each stream.
inline constexpr uint32_t kLowSpaceFilesPerBucket = 240;
// Urgent recycling leaves a stream alone whose oldest file began less than
// this long ago: under a full store, the last half day of every camera stays.
inline constexpr uint32_t kLowSpaceMinAgeSeconds = 43200;

// What one run works with.
struct CoverRun {
  explicit CoverRun(CZarnFileSystem& store) : fs(store) {}
  CZarnFileSystem& fs;
  uint32_t localNow = 0;       // seconds, the record time scale (time-zone difference applied)
  uint32_t periodSeconds = 0;  // the cover timer's period: a time pass never removes more than two of them
  CMediaSdkStat* stats = nullptr;  // recycling counters; null: not counted
  // List what would go, remove nothing. A dry run takes one listing per bucket
  // (it cannot list past files it did not remove), so it may show fewer files
  // than a real run removes.
  bool dryRun = false;
  // Told of every file removed (or, in a dry run, that would be), with why.
  std::function<void(const RecordFileName& file, const char* why)> onRemoved;
};

// Gathers removal candidates of one bucket (RecordBucketKind) in name order,
// paging kCoverPageSize names, until `maxCount` are held or the listing ends
// (at `endMarker` when given: a "yyyy/MM/dd/HHmmss" time string, so that only
// files that began before that second are listed).
// A bucket that does not exist gathers nothing and is not a failure; false
// when the bucket cannot be opened for another reason or a listing fails
// (what was gathered before stays in `out`).
bool listRecordFile(CZarnFileSystem& fs, uint32_t streamId, uint16_t bucketKind, std::vector<RecordFileName>& out,
                    uint32_t maxCount, const std::string& endMarker = "");

// Removes one candidate (record files through removeRecordFile, which keeps
// the lock-size ledger true). true when it is gone, or would go in a dry run.
bool removeCandidate(CoverRun& run, const RecordFileName& file, const char* why);

// Removes the stream's files of one bucket that began before
// localNow - durationHours h, oldest first. Only names before that time are
// listed, so a pass costs what it removes, not what the stream keeps. The limit is raised to the oldest
// file's begin + 2 periods when it lies beyond that, so that a clock jump or a
// shortened policy frees at most two periods' worth per run. Bytes freed.
uint64_t coverByTime(CoverRun& run, uint32_t streamId, uint16_t bucketKind, uint64_t durationHours);

// Removes the oldest files of one bucket until it holds at most `spaceMiB`.
// Both store backends report the bytes of the files themselves (not the raw
// space erasure coding takes), so the bucket's used capacity is compared
// as it is. Bytes freed.
uint64_t coverBySpace(CoverRun& run, uint32_t streamId, uint16_t bucketKind, uint64_t spaceMiB);

// Applies one limit to both buckets of a stream, forgotten first: hours when
// set, otherwise space (MiB). Bytes freed.
uint64_t coverStream(CoverRun& run, uint32_t streamId, uint64_t durationHours, uint64_t spaceMiB);

// Frees `needBytes` over all streams of the store, always removing the oldest
// candidate of any stream next, and never a file of a stream whose oldest
// candidate began less than kLowSpaceMinAgeSeconds ago. Bytes freed.
uint64_t lowSpace(CoverRun& run, uint64_t needBytes);

}  // namespace Velto::Zarn
