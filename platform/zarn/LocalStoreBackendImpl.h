// Internal to the local-directory backend: what its two pieces share. Included
// only by them:
//   LocalStoreBackend.cpp  the root (connect, health), buckets, the listing walk and capacity
//   LocalStoreFiles.cpp    file handles and the operations on files: exclusive create,
//                          open, remove, rename without replace, stat
// On-disk layout and the protocol between processes sharing a root are in
// doc/local_store.md.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

#include "LocalStoreBackend.h"
#include "StoreWalk.h"
#include "ZarnError.h"

namespace Velto::Zarn {

namespace detail {

// An errno as a store code (the table is in doc/local_store.md).
inline int translateErrno(int err) { return storeErrorFromErrno(err); }

inline bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// True while some open file description holds LOCK_EX on the file: a handle in
// some process has it open for writing. `fd` must not hold a lock itself.
bool probeWriteLock(int fd);

}  // namespace detail

// The root and the state open file handles share with the backend.
struct CLocalStoreBackend::Shared {
  explicit Shared(std::string r) : root(std::move(r)) {}

  const std::string root;
  std::atomic<bool> connected{false};
  std::atomic<uint64_t> capacityLimit{0};
  CCappedUsage usage;  // used bytes while capacityLimit is set
  std::atomic<uint64_t> directoriesOpened{0};
  std::atomic<uint64_t> tempCounter{0};

  std::string bucketPath(const std::string& bucket) const { return root + "/" + bucket; }
  std::string filePath(const std::string& bucket, const std::string& name) const {
    return root + "/" + bucket + "/" + name;
  }

  DIR* openDirectory(const std::string& path) {
    DIR* dir = ::opendir(path.c_str());
    if (dir != nullptr) directoriesOpened.fetch_add(1, std::memory_order_relaxed);
    return dir;
  }
};

}  // namespace Velto::Zarn

// The start of every backend call that needs a connection: before connect and
// after disconnect it fails with ZARN_E_NOT_INITIALIZED.
#define REQUIRE_CONNECTED()                                    \
  do {                                                         \
    if (!m_shared->connected.load()) return ZARN_E_NOT_INITIALIZED; \
  } while (0)
