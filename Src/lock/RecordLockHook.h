// The one point where removing a record file reaches the lock-size ledger.
//
// removeRecordFile (RecordFileName.h) calls this after it has removed a record
// file whose name carried a lock count above 0, so that the store-wide total of
// locked MiB stays true. Called on the remover's thread, without locks held.
#pragma once

#include <cstdint>

namespace Velto::Zarn {

class CZarnFileSystem;

// `megabytes` is the removed file's size in bytes shifted right by 20.
void onLockedRecordRemoved(CZarnFileSystem& fs, uint64_t megabytes);

}  // namespace Velto::Zarn
