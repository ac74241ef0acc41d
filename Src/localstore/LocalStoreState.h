// The local store's own state file ("stdfile_config_file_name"): what it keeps
// across restarts and shows to an operator. JSON, replaced atomically (written
// to "<path>.tmp", then renamed over the old file):
//
//   {
//     "outages":  [ {"begin": <UTC s>, "end": <UTC s, 0 while it lasts>}, ... ],   the last kMaxOutages
//     "disks":    [ {"path": "...", "usable": true, "totalBytes": N, "freeBytes": N,
//                    "awaitingFiles": N, "awaitingBytes": N}, ... ],
//     "awaiting": [ {"disk": <index>, "path": "<bucket>/<name>", "size": N}, ... ],  the oldest kMaxAwaiting
//     "migrated": {"files": N, "bytes": N}                                           since the process started
//   }
//
// What lies on the disks is read from the disks themselves when the process
// starts; the file's "awaiting" list is a report, never a to-do list, so a
// stale or lost file costs nothing but the outage history.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Velto::Zarn {

struct LocalOutage {
  int64_t begin = 0;  // UTC seconds
  int64_t end = 0;    // 0 while the store is still failed
};

struct LocalAwaitingFile {
  uint32_t disk = 0;
  std::string path;  // "<bucket>/<name>"
  uint64_t size = 0;
};

struct LocalDiskReport {
  std::string path;
  bool usable = false;
  uint64_t totalBytes = 0;
  uint64_t freeBytes = 0;
  uint64_t awaitingFiles = 0;
  uint64_t awaitingBytes = 0;
};

struct LocalStoreState {
  static constexpr size_t kMaxOutages = 100;
  static constexpr size_t kMaxAwaiting = 1000;

  std::vector<LocalOutage> outages;
  std::vector<LocalDiskReport> disks;
  std::vector<LocalAwaitingFile> awaiting;
  uint64_t migratedFiles = 0;
  uint64_t migratedBytes = 0;

  // Opens an outage at `now` unless one is open; closes the open one.
  void beginOutage(int64_t now);
  void endOutage(int64_t now);

  // false when the file is missing or not a state file (the state stays empty).
  bool load(const std::string& path);
  // Atomic replace; false (logged) when it could not be written.
  bool save(const std::string& path) const;
};

}  // namespace Velto::Zarn
