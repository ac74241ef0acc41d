// Removing a record file from the store, keeping the lock-size ledger true.
//
// A locked record file counts in the store-wide total of locked MiB, so its
// removal (deletion, recycling, trimming) must take its size off the ledger;
// every removal of a record file goes through here so that none forgets to.
#pragma once

#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

// Removes the file named by `record`. A record file (not an index file) whose
// name carries a lock count above 0 has its size (record.size, bytes, shifted
// right by 20) taken off the ledger once it is gone. false when the record
// cannot be named or the store refuses the removal (the ledger is untouched).
bool removeRecordFile(CZarnFileSystem& fs, const RecordFileName& record);

}  // namespace Velto::Zarn
