// The periodic scan for record files that need their index rebuilt.
//
// Files whose writer died, or whose rebuild was interrupted, carry index state
// 0 or 2 in their names. The client's hourly timer lists the last hour of every
// registered stream and hands those files to index repair through the
// queries' sink (QueryEnv::indexFix).
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>

#include "QueryEnv.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

// Lists [from, now) of each stream (its forgotten bucket, then its media
// bucket), completing ends on the way as every listing does, and submits the
// files whose index must be rebuilt. Pauses 100 ms after every 100 streams so
// that a scan over thousands of streams leaves the store room for recording.
// Returns how many files were listed.
size_t scanForIndexFix(const QueryEnv& env, CZarnFileSystem& fs, const std::set<uint32_t>& streamIds, uint32_t from,
                       uint32_t now);

}  // namespace Velto::Zarn
