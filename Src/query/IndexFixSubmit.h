// Hand-off from the clip queries to index repair.
//
// The clip queries meet every recent record file of a stream, so they pass on
// the closed ones whose name says they have no usable index (index state 0,
// or 2 when a rebuild was interrupted). Called on the query's thread; must
// return quickly and never fail the query.
#pragma once

#include <cstddef>
#include <vector>

#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

// Asks for the index of `record` (a closed record file of the store `fs`) to
// be rebuilt. Repeated submissions of one file are allowed.
void submitIndexFixWork(CZarnFileSystem& fs, const RecordFileName& record);

// Submits every closed file of `files` whose index must be rebuilt (index state
// 0, or 2 after an interrupted rebuild); returns how many were submitted.
size_t submitFilesNeedingIndex(CZarnFileSystem& fs, const std::vector<RecordFileName>& files);

}  // namespace Velto::Zarn
