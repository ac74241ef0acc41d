// Deleting recordings on request: a time range of a stream, all of a stream,
// its bucket, and the cover engine's per-stream step for streams the host
// deleted.
//
// Nothing here consults locks: a deletion asked for by the host removes (or
// trims) locked files too. Every removal goes through removeRecordFile, so a
// locked file's size leaves the lock-size ledger with it.
//
// Trimming is by name only. A file overlapping an edge of the range keeps its
// bytes; its name (and its index file's, index state 3) is renamed to end at
// the range's begin, or to begin at the range's end, so listings, queries and
// readers see the file stop (or start) there. Only files with an index are
// trimmed: a reader finds a time inside a file through its index, and a file
// without one could not be read from a begin moved into its middle.
//
// Times are 32-bit seconds of the record time scale (the values names carry).
// Results follow the facade: 0 or -1, after a log line. Threading: the
// caller's thread; no lock of its own. Another process (or a writer of this
// one) renaming a file at the same moment makes that one removal or rename fail
// and the file stay as it was.
#pragma once

#include <cstdint>

#include "QueryEnv.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

// Removes the recordings of [beginTS, endTS] of a stream, in its forgotten and
// its media bucket. beginTS 0 with endTS 4294967295 is the whole stream
// (clearRecord). A file wholly inside the range is removed (for index state 3
// its index file first; when that fails the file stays). A file with an index
// that overlaps one edge is trimmed to it. Kept: files being written (no end in
// their name), files whose index is being rebuilt, files spanning the whole
// range, and overlapping files without an index. 0 once the gathered files are
// walked, whatever single removals or renames failed; -1 when the files cannot
// be gathered or endTS is before beginTS (nothing is touched).
int32_t deleteRecordClip(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS);

// Removes every file of the stream's media bucket (record and index files,
// open ones included) and then the bucket. 0 when the bucket is gone, -1 when
// something kept it (a file that could not be removed, a store failure).
int32_t clearRecord(CZarnFileSystem& fs, uint32_t streamId);

// Removes the stream's media bucket. 0 when it is gone, also when it did not
// exist; -1 otherwise (the store refuses to remove a bucket holding files).
int32_t deleteBucket(CZarnFileSystem& fs, uint32_t streamId);

// One cover-run step for a stream the host deleted: removes up to
// kDeletePagesPerRun pages of kDeletePageSize names of the stream's bucket of
// `bucketKind` (RecordBucketKind), record files (their locks dropped first) and
// index files alike, and removes the bucket once it is empty. true when the
// bucket is gone afterwards (or never existed): the stream can leave the
// delete set. false while files remain (the next run goes on) or on a store
// failure.
bool deleteStreamRecords(CZarnFileSystem& fs, uint32_t streamId, uint16_t bucketKind);

inline constexpr uint32_t kDeletePageSize = 1000;    // names per listing
inline constexpr uint32_t kDeletePagesPerRun = 3;    // bounds one cover run's work per stream

}  // namespace Velto::Zarn
