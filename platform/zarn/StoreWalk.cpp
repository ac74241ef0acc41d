#include "StoreWalk.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>  // SEEK_*
#include <cstring>

#include "KanduTime.h"
#include "ZarnError.h"

namespace Velto::Zarn {

int storeErrorFromErrno(int err) {
  switch (err) {
    case 0: return ZARN_E_IO;  // a failure without errno: treat as a data-path fault
    case ENOENT:
    case ENOTDIR:
      return ZARN_E_NO_SUCH_FILE;
    case EEXIST: return ZARN_E_FILE_EXISTS;
    case ENOTEMPTY: return ZARN_E_BUCKET_NOT_EMPTY;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return ZARN_E_NO_SPACE;
    case EACCES:
    case EPERM:
    case EROFS:
      return ZARN_E_PERMISSION;
    case EISDIR: return ZARN_E_IS_DIRECTORY;
    case ENAMETOOLONG:
    case ELOOP:
      return ZARN_E_INVALID_NAME;
    case EWOULDBLOCK: return ZARN_E_BUSY;
    case EINVAL:
    case EBADF:
      return ZARN_E_INVALID_ARGUMENT;
    case ETIMEDOUT: return ZARN_E_TIMEOUT;
    case ESTALE:
    case ENXIO:
    case ENODEV:
    case ENOTCONN:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ECONNREFUSED:
    case ECONNRESET:
    case ESHUTDOWN:  // a distributed client that was evicted (blocklisted)
      return ZARN_E_UNAVAILABLE;
    case EXDEV:
    case ENOSYS:
    case EOPNOTSUPP:
      return ZARN_E_UNSUPPORTED;
    case EIO:
    default:
      return ZARN_E_IO;  // EIO, EMFILE, ENOMEM, ...: a retry may pass
  }
}

namespace {

constexpr const char* kTempPrefix = ".zarn-tmp.";

}  // namespace

std::string tempPath(const std::string& dir, uint64_t counter) {
  return dir + "/" + kTempPrefix + std::to_string(::getpid()) + "." + std::to_string(counter) + "." +
         std::to_string(Kandu::monotonicUs());
}

bool isTempName(const char* name) { return std::strncmp(name, kTempPrefix, std::strlen(kTempPrefix)) == 0; }

void CCappedUsage::fill(uint64_t cap, uint64_t fsFree, const WalkFn& walk, StoreCapacity& out) {
  std::lock_guard<std::mutex> lock(m_mutex);
  uint64_t now = Kandu::monotonicMs();
  if (!m_valid || now - m_atMs >= kReuseMs) {
    m_delta.store(0);
    uint64_t bytes = 0, files = 0;
    walk(bytes, files);
    m_bytes = bytes;
    m_files = files;
    m_atMs = now;
    m_valid = true;
  }
  int64_t used = static_cast<int64_t>(m_bytes) + m_delta.load();
  out.usedBytes = used > 0 ? static_cast<uint64_t>(used) : 0;
  out.fileCount = m_files;
  out.totalBytes = cap;
  out.freeBytes = std::min(fsFree, cap > out.usedBytes ? cap - out.usedBytes : 0);
}

int whenceOf(int origin) {
  switch (origin) {
    case 0: return SEEK_SET;
    case 1: return SEEK_CUR;
    case 2: return SEEK_END;
    default: return -1;
  }
}

std::string parentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

namespace {

// Where the names below a directory prefix Q (ending in '/') lie relative to a
// marker: every such name is longer than Q and begins with it.
enum class Span { Before, Mixed, After };

Span spanOf(const std::string& prefix, const std::string& marker) {
  if (marker.compare(0, prefix.size(), prefix) == 0 && marker.size() >= prefix.size()) return Span::Mixed;
  return prefix < marker ? Span::Before : Span::After;
}

struct Walk {
  const ReadLevelFn& readLevel;
  const SizeOfFn& sizeOf;
  const std::string& after;
  const std::string& upTo;
  uint32_t maxCount;
  std::vector<StoreEntry>& out;
  bool done = false;

  void visit(const std::string& prefix) {
    std::vector<LevelEntry> entries;
    if (!readLevel(prefix, entries)) return;  // pruned by another process: empty
    // Sorting by name + "/" for directories gives the byte order of full names.
    std::vector<std::pair<std::string, const LevelEntry*>> keyed;
    keyed.reserve(entries.size());
    for (const LevelEntry& e : entries) keyed.emplace_back(e.isDir ? e.name + "/" : e.name, &e);
    std::sort(keyed.begin(), keyed.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [key, e] : keyed) {
      std::string full = prefix + key;
      if (e->isDir) {
        if (!after.empty() && spanOf(full, after) == Span::Before) continue;
        if (!upTo.empty() && spanOf(full, upTo) == Span::After) {
          done = true;  // every later entry sorts after this one
          return;
        }
        visit(full);
        if (done) return;
        continue;
      }
      if (!after.empty() && full <= after) continue;
      if (!upTo.empty() && full > upTo) {
        done = true;
        return;
      }
      uint64_t size = e->size;
      if (!e->sizeKnown && !sizeOf(full, size)) continue;  // removed meanwhile
      out.push_back(StoreEntry{full, size});
      if (out.size() >= maxCount) {
        done = true;
        return;
      }
    }
  }
};

}  // namespace

void listSorted(const ReadLevelFn& readLevel, const SizeOfFn& sizeOf, const std::string& after,
                const std::string& upTo, uint32_t maxCount, std::vector<StoreEntry>& out) {
  if (maxCount == 0) return;
  Walk walk{readLevel, sizeOf, after, upTo, maxCount, out};
  // The names that begin with a prefix form one interval of the byte order, so
  // when both markers lie below the same directory every name between them
  // does too: start there, without reading the levels above it.
  std::string start;
  if (!after.empty() && !upTo.empty()) {
    size_t common = 0;
    while (common < after.size() && common < upTo.size() && after[common] == upTo[common]) ++common;
    size_t slash = after.rfind('/', common == 0 ? 0 : common - 1);
    if (common > 0 && slash != std::string::npos) start = after.substr(0, slash + 1);
  }
  walk.visit(start);
}

}  // namespace Velto::Zarn
