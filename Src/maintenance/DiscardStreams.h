// Discarded streams: streams the host no longer records, whose data ages out
// under the limits given when they were discarded.
//
// A discard is an empty marker file in the system bucket, named
//
//   media_system/<sid>_<hours>_<spaceMiB>.discard
//
// so that every process sharing the store sees it and the limits travel in
// the name. Each cover run applies the limits (time first, as for live
// streams), removes the stream's buckets once they are empty and then the
// marker; when the store runs short of space, discarded streams are emptied
// before any live stream loses a file.
//
// Locked files of a discarded stream stay: its buckets, and so its marker,
// then stay too until the locks are released.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "CoverPasses.h"

namespace Velto::Zarn {

struct DiscardEntry {
  std::vector<std::string> markerPaths;  // "media_system/<name>" of every marker of the stream
  uint32_t durationHours = 0;
  uint32_t space = 0;  // MiB
};

// By stream id; built for one cover run.
using DiscardList = std::map<uint32_t, DiscardEntry>;

// Results of removeStreamBucket.
enum StreamBucketResult : uint32_t {
  STREAM_BUCKET_FAILED = 0,
  STREAM_BUCKET_GONE = 1,     // the bucket is removed (or never existed)
  STREAM_BUCKET_NEED_MET = 2, // enough freed; the bucket still holds files
  STREAM_BUCKET_LOCKED = 3,   // only locked files are left in it
};

// "<sid>_<hours>_<space>.discard".
std::string discardMarkerName(uint32_t streamId, uint32_t durationHours, uint32_t space);

// Writes the marker. false when both limits are 0 (a discard must say what to
// keep) or the store refuses; a marker that exists already counts as written.
bool discardStream(CZarnFileSystem& fs, uint32_t streamId, uint32_t durationHours, uint32_t space);

// Lists the markers of the system bucket. Several markers of one stream keep
// the larger hours and the larger space. false when the bucket cannot be
// opened or listed.
bool queryDiscardStream(CZarnFileSystem& fs, DiscardList& list);

// Applies each discarded stream's limits to its two buckets and removes the
// buckets, then the marker, once they are empty. Bytes freed.
uint64_t coverDiscardStreams(CoverRun& run, const DiscardList& list);

// Empties discarded streams, in stream order, until `needBytes` are freed.
// Three failures in a row end it: that is a store fault, not bad streams.
// Bytes freed.
uint64_t freeDiscardStream(CoverRun& run, const DiscardList& list, uint64_t needBytes);

// Removes the files of one bucket of a discarded stream, oldest first, until
// `freed` reaches `need`, then the bucket when nothing is left.
uint32_t removeStreamBucket(CoverRun& run, uint32_t streamId, uint64_t& freed, uint64_t need, uint16_t bucketKind);

// Store removals with their log lines; a bucket already gone counts as removed.
bool removeFile(CZarnFileSystem& fs, const std::string& path);
bool removeBucket(CZarnFileSystem& fs, const std::string& name);

}  // namespace Velto::Zarn
