// Internal to the store client: what its pieces share. Included only by them:
//   ZarnClient.cpp  the per-thread last error, the log threshold, CZarnFileSystem
//                   (connection, options, state monitor, calls by path) and CBucket
//   ZarnFile.cpp    CFile
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "StoreBackend.h"
#include "ZarnClient.h"

namespace Velto::Zarn::detail {

// One connection. Buckets and files keep it alive; after close() it stays
// closed for good, so handles from an earlier connection never reach a later one.
struct ClientCore {
  explicit ClientCore(std::shared_ptr<IStoreBackend> b) : backend(std::move(b)) {}
  const std::shared_ptr<IStoreBackend> backend;
  std::atomic<bool> open{true};
  std::atomic<int32_t> timeoutMs{5000};  // the connection's ZARN_OPT_TIMEOUT_MS, for files without their own
};

// A connection that was made and is not closed yet.
inline bool isLive(const std::shared_ptr<ClientCore>& core) { return core && core->open.load(); }

// Sets the calling thread's last error; false, so that a call can end with
// `return fail(...)`.
inline bool fail(int32_t code, const std::string& detail = std::string()) {
  setLastError(code, detail);
  return false;
}

}  // namespace Velto::Zarn::detail
