// CQueryFile: a paged cursor over the record file names of one bucket.
//
// The store lists a bucket in ascending byte order of the whole name. Record
// names begin with "yyyy/MM/dd/HHmmss", so that order is begin-time order and
// a time range maps onto a name range: the begin marker (exclusive) and the end
// marker (inclusive) are time strings, and a listing between them holds the
// files that began in that window. Pages hold kQueryPageSize names; the next
// page starts after the last name of a full one.
//
// Entries come out as parsed RecordFileName with the listing's size; names that
// do not parse, or do not read back as themselves, are dropped, everything else (index files, names with odd
// times) is handed on for the caller to filter.
//
// Threading: one cursor is used by one thread. Several cursors may walk the
// same bucket at once (the store handle is thread-safe).
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

class CQueryFile {
 public:
  static constexpr uint32_t kQueryPageSize = 2000;  // names per listing call

  // `fs` must outlive the cursor; `bucket` is the full bucket name.
  CQueryFile(CZarnFileSystem& fs, std::string bucket);

  // Starts a walk over the names after `beginMarker` (empty: from the start)
  // up to and including `endMarker` (empty: to the end) and fetches the first
  // page. false when that fetch fails, or when the listing ended on the first
  // page without a single usable record file (nothing to walk).
  bool open(const std::string& beginMarker, const std::string& endMarker);
  // Fetches one page into the pending list. false when the walk has already
  // ended or the store refused the listing (the error is logged).
  bool NextQuery();
  // Takes the next entry, fetching one further page when none is pending.
  // false at the end of the walk (or when that fetch failed).
  bool next(RecordFileName& info);
  // Puts an entry back in front of the pending list (one-entry look-ahead).
  void pushFront(const RecordFileName& info);

 private:
  CZarnFileSystem& m_fs;
  std::string m_bucketName;
  std::deque<RecordFileName> m_pending;  // parsed, not yet handed out, in listing order
  std::string m_beginMarker;             // last name listed; the next page starts after it
  std::string m_endMarker;               // inclusive upper bound of the walk
  bool m_end = false;                    // the last page has been fetched
};

}  // namespace Velto::Zarn
