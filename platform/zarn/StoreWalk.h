// Pieces shared by the backends that keep a store as a directory tree
// (<root>/<bucket>/<name>, a name's '/' levels being directories): the errno
// translation, the backends' hidden names and the marker-bounded listing walk.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "StoreBackend.h"

namespace Velto::Zarn {

// The one mapping from a (positive) errno to a store code. Callers that know
// better for their context (ENOENT of a bucket directory means
// ZARN_E_NO_SUCH_BUCKET) check that before calling.
int storeErrorFromErrno(int err);

// Names starting with '.' are never store names (name validation refuses such
// components): they belong to the backend, and listings and walks skip them.
inline bool isHidden(const char* name) { return name[0] == '.'; }
// The hidden birth name of a file under exclusive create, in the directory of
// its final name: "<dir>/.zarn-tmp.<pid>.<counter>.<microseconds>".
std::string tempPath(const std::string& dir, uint64_t counter);
// True for a directory entry named by tempPath: a create in progress, or one
// that died before linking its file to its name.
bool isTempName(const char* name);

// One visible entry of a directory level: a regular file or a directory.
struct LevelEntry {
  std::string name;
  bool isDir = false;
  bool sizeKnown = false;  // the backend read the size with the entry
  uint64_t size = 0;
};

// Reads the entries of the level `relDir` ("" for the bucket directory, else
// ending in '/'). false when the level cannot be read (gone: treated as empty).
using ReadLevelFn = std::function<bool(const std::string& relDir, std::vector<LevelEntry>& out)>;
// Size of a file entry whose size was not read with it; false when the file is
// gone (or is no longer a regular file) by now.
using SizeOfFn = std::function<bool(const std::string& relName, uint64_t& size)>;

// Lists the file names of a bucket in ascending byte order of the whole name,
// strictly after `after` (empty: from the start), at most `upTo` (empty: to the
// end), at most `maxCount` of them. Visits only the directory levels the markers
// admit, each level's entries in the order their full names sort (a directory
// "d" sorts as "d/"), and stops at the first name beyond upTo.
void listSorted(const ReadLevelFn& readLevel, const SizeOfFn& sizeOf, const std::string& after,
                const std::string& upTo, uint32_t maxCount, std::vector<StoreEntry>& out);

// The used bytes of a store whose reported total is capped (a small store, on
// which space decisions must see the bytes just written): a walk of the whole
// store at most every 2 s, adjusted in between by this process's own writes
// and removals. Writes racing with a walk may be counted twice until the next
// one: the figure is an estimate for space decisions, not an account.
class CCappedUsage {
 public:
  // Bytes and count of the store's files, by walking it.
  using WalkFn = std::function<void(uint64_t& bytes, uint64_t& files)>;

  void noteWritten(int64_t bytes) { m_delta.fetch_add(bytes, std::memory_order_relaxed); }
  void noteRemoved(uint64_t bytes) { m_delta.fetch_sub(static_cast<int64_t>(bytes), std::memory_order_relaxed); }
  // Fills used, file count, total (= cap) and free (never above fsFree) of `out`.
  void fill(uint64_t cap, uint64_t fsFree, const WalkFn& walk, StoreCapacity& out);

 private:
  static constexpr uint64_t kReuseMs = 2000;
  std::atomic<int64_t> m_delta{0};  // bytes written minus bytes removed since the last walk
  std::mutex m_mutex;
  bool m_valid = false;     // guarded by m_mutex
  uint64_t m_atMs = 0;      // guarded by m_mutex
  uint64_t m_bytes = 0;     // guarded by m_mutex
  uint64_t m_files = 0;     // guarded by m_mutex
};

// The lseek whence of a store seek origin (0 begin, 1 current, 2 end); -1 for
// any other origin.
int whenceOf(int origin);

// The parent part of a '/'-separated path ("" when it has none).
std::string parentOf(const std::string& path);

}  // namespace Velto::Zarn
