// Repair of every record file of a stream that lacks a usable index, at once
// and on the caller's thread (the zarn-media "repair" command, recovery tests).
//
// Candidates are the files under open names that nobody has open for writing
// (their writer is gone) and the closed files whose name says index state 0 or
// 2. Each is handed to a CIndexFixer; a second pass over the same store finds
// nothing left to do, except files that could not be repaired.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "IndexFixer.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

struct StreamRepairEntry {
  std::string name;  // the name the file had when found
  IndexFixReport report;
};

// The candidates of `streamId` (its media bucket, whole, walked with a
// CQueryFile), in name order. false when the bucket cannot be opened; a
// stream without a bucket has none.
bool findRepairCandidates(CZarnFileSystem& fs, uint32_t streamId, std::vector<RecordFileName>& out);

// Repairs the candidates of `streamId` and appends one entry per candidate.
// false when the bucket cannot be opened.
bool repairStream(CZarnFileSystem& fs, uint32_t streamId, const IndexFixOptions& options,
                  std::vector<StreamRepairEntry>& out);

// The ids of the streams that have a media bucket in the store (under the
// current bucket prefix).
bool listStreamIds(CZarnFileSystem& fs, std::vector<uint32_t>& out);

}  // namespace Velto::Zarn
