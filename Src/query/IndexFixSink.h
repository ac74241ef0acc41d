// Hand-off from the record queries (and the periodic scan) to index repair.
//
// The clip queries meet every recent record file of a stream, so they pass on
// the closed ones whose name says they have no usable index (index state 0,
// or 2 when a rebuild was interrupted). Whoever repairs indexes implements the
// sink; the queries only know this interface, so the query layer never
// reaches up to the repair workers.
#pragma once

#include <cstddef>
#include <vector>

#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

class IIndexFixSink {
 public:
  virtual ~IIndexFixSink() = default;
  // Asks for the index of `record` (a closed record file of the store `fs`) to
  // be rebuilt. Called on the query's thread: must return quickly and never
  // fail the query. Repeated submissions of one file are allowed.
  virtual void submitIndexFixWork(CZarnFileSystem& fs, const RecordFileName& record) = 0;
};

// Whether `file` is a closed record file whose index must be rebuilt.
bool needsIndexFix(const RecordFileName& file);

// Hands every file of `files` that needs an index fix to `sink` and returns
// how many there were. A null sink (nobody repairs indexes in this process)
// takes nothing; the count is the same.
size_t submitFilesNeedingIndex(IIndexFixSink* sink, CZarnFileSystem& fs, const std::vector<RecordFileName>& files);

}  // namespace Velto::Zarn
