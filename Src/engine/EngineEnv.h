// What an engine takes from the process.
//
// The process-wide context owns all of it and assembles the struct when the
// client creates an engine (a test assembles its own); everything it refers
// to outlives every engine. Engines never reach for the context themselves.
#pragma once

#include "MediaConfig.h"
#include "MediaSdkStat.h"
#include "QueryEnv.h"
#include "WorkQueue.h"
#include "WritingFiles.h"

namespace Velto::Zarn {

struct EngineEnv {
  CWorkQueue& queue;                // runs the engine (writer or reader queue)
  CWritingFileTable& writingFiles;  // writers enter their current file; readers borrow its index
  CMediaSdkStat& stats;
  const CMediaConfig& config;
  QueryEnv query;                   // for readers' file lookups
};

}  // namespace Velto::Zarn
