// The store-wide lock-size ledger and the system-file check.
//
// The ledger is the name of one empty file in the system bucket:
//   media_system/lockSize_<totalMiB>_<unique>.temp
// Its total is the size of all locked record files in MiB. It changes only by
// renaming the file from its current name to a new unique one, and a rename
// from a given name succeeds at most once across all processes, so concurrent
// updates from several client processes need no lock service: the loser of a
// race re-reads the new name and tries again.
//
// media_system/sys.lock guards the ledger's creation: only the process that
// created the guard (exclusively) creates the ledger.
#pragma once

#include <cstdint>
#include <string>

namespace Velto::Zarn {

class CZarnFileSystem;

inline constexpr const char* kSystemBucket = "media_system";

// Full ledger path for `total` MiB with a fresh unique part; "" on failure.
std::string generateLockSizeFileName(uint64_t total);
// Full path of the current ledger file, "" when it cannot be found. Of
// several names that persist, the newest (by unique part) is the ledger.
std::string getLockSizeFileName(CZarnFileSystem& fs);
// Reads the ledger total (MiB) out of the current ledger name.
bool getLockSize(CZarnFileSystem& fs, uint64_t& total);
// Add or subtract MiB (never below 0). 0 on success, -1 when the ledger is
// missing or unreadable. Retries rename races without limit, 10 ms apart.
int32_t plusLockSize(CZarnFileSystem& fs, uint64_t megabytes);
int32_t minusLockSize(CZarnFileSystem& fs, uint64_t megabytes);
// Makes sure the system bucket and the ledger exist; false when the ledger is
// missing and could not be created (or another process is creating it).
bool checkSysFile(CZarnFileSystem& fs);

}  // namespace Velto::Zarn
