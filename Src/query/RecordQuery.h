// Record queries: what has been recorded for a stream between two times.
//
// Every answer starts from the same gathering: the stream's forgotten bucket
// ("forgotten_<sid>") is listed, then its media bucket ("media_<sid>"), both
// bounded by markers derived from the range and paged (CQueryFile). Each run
// comes in name order, which is begin-time order; the two runs are not merged
// or sorted again, so forgotten files always come first.
//
// Times are 32-bit seconds in the store's time scale (the values names carry);
// ranges are [beginTS, endTS). Sizes are bytes from the bucket listing.
//
// Files without an end in their name are completed on the way: a file still
// being written gets the writer's current end time (or an estimate), an
// abandoned one gets the earliest of its modification time, begin + 1 h and
// the next file's begin, and is renamed to carry that end once 30 s have
// passed since it (see fileUpdEndTS).
//
// Besides the store handle every query that completes ends takes a QueryEnv:
// the clock "now" is read from, the files this process is writing and the
// sink for files without a usable index.
//
// Results are appended to the caller's vectors; pass them empty. Failures are
// results (-1 / false) after a log line; store errors carry the store's code.
//
// Threading: everything runs on the caller's thread and takes no lock of its
// own. The store handle is shared with writers and readers of the same stream;
// a query racing a writer's rename may miss that one file for that one call.
#pragma once

#include <cstdint>
#include <vector>

#include "QueryEnv.h"
#include "RecordFileName.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

// A record file lasts at most this long, so a listing that starts this far
// before a range finds every file overlapping the range's start.
inline constexpr uint32_t kQueryLookBackSeconds = 7200;
// Files that begin this soon after a range's end are still listed, so that the
// last file in range can see the begin of the one after it.
inline constexpr uint32_t kQueryLookAheadSeconds = 120;
// Longest a record file runs; caps the end estimated for a file without one.
inline constexpr uint32_t kMaxRecordFileSeconds = 3600;
// An abandoned open file is renamed to its computed end only once its end is
// this old, so that a writer that is still closing it wins the rename.
inline constexpr uint32_t kEndRenameGraceSeconds = 30;
// Names per page of listRecordFiles.
inline constexpr uint32_t kRecordListPageSize = 1000;
// A durationPerClip of all ones is read as this (30 days), so that piece ends
// stay far from the 32-bit limit.
inline constexpr uint32_t kMaxDurationPerClip = 2592000;
// Answers are bounded: a query whose answer would hold more entries is
// refused (-1, with a log line) rather than filling memory. A clip list holds
// at most 2,000,000 clips (about 48 MB), a file list 200,000 files (a year of
// 3-minute files; about 56 MB), a status bitmap 1,000,000 bits (a year at
// one bit a minute).
inline constexpr size_t kMaxClipListEntries = 2000000;
inline constexpr size_t kMaxFileListEntries = 200000;
inline constexpr uint64_t kMaxStatusBits = 1000000;

// Appends to `out` every record file of the stream's bucket of `bucketKind`
// (RecordBucketKind) that overlaps [beginTS, endTS), skipping index files,
// inconsistent names (an end before the begin, or a span longer than
// kQueryLookBackSeconds, which no record file has and no listing could find),
// withdrawn files (index state 4), and completing files without an end. Returns the number of entries `out` holds afterwards (all of
// them, not only those appended), or 0 when the bucket cannot be opened (a
// missing bucket is an empty answer, not a failure).
int32_t listRecordFileInfo(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                           std::vector<RecordFileName>& out, uint16_t bucketKind);

// The common first step of every query, of locking and of deletion: the
// forgotten bucket's files, then the media bucket's, appended to `out`.
// Returns the media bucket's listRecordFileInfo result: the total count, 0 for
// nothing to report (including a media bucket that cannot be opened), negative
// on failure.
int32_t gatherRecordFiles(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                          std::vector<RecordFileName>& out);

// Completes `info.realEndTime` of a file without an end in its name.
// `nextBegin` is the begin time of the next valid file of the listing, 0 when
// `info` is the last. A last file still open for writing ends at the stream
// writer's current end time, or, without one, at min(begin + 1 h, now). Any
// other file ends at min(modification time, begin + 1 h, nextBegin); for a
// last file not open for writing that is 0, so it is refused (false) until
// the index fixer names its end. A file no longer written whose computed end
// is at least 30 s old is renamed to carry it (`endTime` set). false when the
// file cannot be named, stat'ed or renamed, or its end would precede its
// begin.
bool fileUpdEndTS(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, RecordFileName& info, uint32_t nextBegin);

// Appends the valid record files of the stream's media bucket, whatever their
// times, in name order, paging kRecordListPageSize names at a time until a
// short page or until `out` holds `maxCount` entries (it may then hold up to a
// page more). false when the bucket cannot be opened or a listing fails; what
// was gathered before a failing page stays in `out`.
bool listRecordFiles(CZarnFileSystem& fs, uint32_t streamId, uint32_t maxCount, std::vector<RecordFileName>& out);

// Extends `clip` by the file `info` when the file begins 0 or 1 s after the
// clip ends (any overlap refuses) and has the same locked state and type. The
// clip keeps the forgotten and missing-index flags of its first file.
bool mergeIntoClip(const RecordFileName& info, RecordClip& clip);

// Cuts pieces of `durationPerClip` seconds off the front of `clip` (on
// multiples of it when `aligned`) and appends those that meet [beginTS, endTS)
// to `out`. Sizes are shared in proportion to seconds. Without `flushTail` a
// final piece that would reach past the clip's end stays in `clip`, so a
// following file can still merge into it; with it, the rest is emitted too.
// A piece crossing beginTS is cut there; otherwise one crossing endTS is cut
// there: one side only, so a piece holding the whole range keeps its end.
// durationPerClip 0 is the caller's error (the queries refuse it first).
void splitClip(RecordClip& clip, uint32_t beginTS, uint32_t endTS, std::vector<RecordClip>& out,
               uint32_t durationPerClip, bool aligned, bool flushTail);

// Reader lookups over the gathered files of [beginTS, endTS). false only when
// gathering fails; true otherwise, with `outInfo` untouched when nothing
// matches.
// The first file, in gathered order, whose realEndTime is after `t`.
bool findFirstFileEndingAfter(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS, uint32_t t,
                              RecordFileName& outInfo);
// From the last file backwards, the first whose endTime lies in [beginTS, t].
bool findLastFileBeginningBefore(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                                 uint32_t t, RecordFileName& outInfo);

// The facade's queries. 0 on success (an empty or missing bucket included),
// -1 on failure, a zero duration/interval, an end before the begin, or an
// answer beyond the bounds above (the caller's vector is then as it was).
//
// Clips of at most durationPerClip seconds: files that follow each other
// (gap 0 or 1 s) with the same lock state and type are merged, then cut.
int32_t queryRecordClipList(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                            std::vector<RecordClip>& clips, uint32_t durationPerClip);
// The same, cut on multiples of durationPerClip.
int32_t queryAlignedClipList(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                             std::vector<RecordClip>& clips, uint32_t durationPerClip);
// One entry per gathered file with its full name; no merging, no cutting.
int32_t queryRecordFileList(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                            std::vector<RecordClipEx>& files);
// `status` becomes ceil((endTS - beginTS) / interval) bits (32-bit unsigned
// arithmetic); the aligned clip beginning at b sets bit (b - beginTS + 1) /
// interval. The "+ 1" is deliberate and kept: a clip beginning in the last
// second of an interval marks the next one. Bits past the end are not set. A failing clip query is logged and the bitmap built from what it
// left.
int32_t queryRecordStatus(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                          std::vector<bool>& status, uint32_t interval);

}  // namespace Velto::Zarn
