// Locks on record files and on time ranges of a stream.
//
// A lock is not kept in any table: a record file's lock count (0..255) is part
// of its name, so locking and unlocking rename the file, and the store-wide
// lock-size ledger (LockSizeLedger.h) carries the total size of files whose
// count is above 0. Renames from one name succeed once across every process,
// so two clients racing on one file see one of them fail rather than both
// counting it.
//
// Ledger order: a lock that takes a file from 0 to 1 adds its size to the
// ledger before the rename (and takes it back when the rename fails); an
// unlock that takes a file to 0 subtracts after the rename. A file's addition
// therefore always precedes its subtraction, whichever processes make them, so
// the ledger never clamps one away: once every process is done it equals the
// sizes of the locked files. A process killed between a ledger update and its
// rename leaves the ledger high by that one file, never low (a locked file is
// never counted as free space).
//
// Sizes are record.size (bytes, from the listing) shifted right by 20.
// Thread-safe as the store handle is; callers serialise their own ranges.
#pragma once

#include <cstdint>
#include <vector>

#include "QueryEnv.h"
#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

// One more lock on `info`. 0 (info.lockCount is the new count), -1 (the count
// is at its limit of 255) or -3 (no usable index: state 0 or 2; the name cannot
// be made; the rename failed, e.g. another process renamed the file first).
int32_t lockRecordFile(CZarnFileSystem& fs, RecordFileName& info);
// One lock fewer on `info`, or none with `all`. 0 (a file without locks
// included) or -1 (the name cannot be made or the rename failed).
int32_t unlockRecordFile(CZarnFileSystem& fs, RecordFileName& info, bool all);
// Takes one lock off every file of `files` (the rollback of a range lock).
void unlockFiles(CZarnFileSystem& fs, std::vector<RecordFileName>& files);

// The locked share of the store in basis points (1/10000 of its capacity);
// -1 when the capacity or the ledger cannot be read.
int32_t lockRatio(CZarnFileSystem& fs);

// The range lock once the stream's writer has cut at endTS: gathers the files
// of [beginTS, endTS) and locks each that ends at or after beginTS, checking
// the locked share against maxRatioPercent before each one. 0; -1 when some
// file was at its lock limit (the others are locked); -2 when the share
// reached the limit and -3 on a failure (nothing this call locked stays
// locked). An empty range (end before begin) is -3.
int32_t lockRange(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                  int32_t maxRatioPercent);
// Takes one lock (all with `all`) off every file of [beginTS, endTS) that ends
// at or after beginTS. `lockNum` receives the highest count left on a file
// processed. 0, or -1 when gathering or a rename fails (files already unlocked
// stay so) or the range is empty.
int32_t unlockRange(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                    uint8_t& lockNum, bool all);

}  // namespace Velto::Zarn
