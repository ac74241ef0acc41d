// What a record query needs besides the store handle.
//
//   clock         "now" on the record time scale (with the process's time-zone
//                 difference), for files that carry no end in their name yet;
//   writingFiles  the files this process is writing: a stream's live file
//                 ends at its writer's last frame;
//   indexFix      where files without a usable index go (null: nobody in this
//                 process repairs indexes).
//
// The process-wide context assembles it; a test assembles its own with a
// manual clock and a table of its own. Everything it refers to outlives the
// queries that use it.
#pragma once

#include "IndexFixSink.h"
#include "KanduClock.h"
#include "WritingFiles.h"

namespace Velto::Zarn {

struct QueryEnv {
  const Velto::Kandu::IClock& clock;
  const CWritingFileTable& writingFiles;
  IIndexFixSink* indexFix = nullptr;
};

}  // namespace Velto::Zarn
