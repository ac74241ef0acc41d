// A backend wrapper that bounds how long any call may block its caller: each
// call runs on a CStoreCallPool worker and the caller waits at most the call
// time-out (setCallTimeout; a file's own where set), then gets ZARN_E_TIMEOUT.
// For stores whose client library can block without limit (CephFS while its
// MDS or OSDs do not answer); the local store is not wrapped.
//
// What a time-out leaves (the call goes on on its worker, see StoreCallPool.h):
//   * the caller's buffers are never touched after the call returned: a write
//     sends a copy of the bytes, a read lands in the call's own buffer and is
//     copied out only when it completed in time;
//   * a create or open that completes after its caller gave up closes the
//     handle it got (a created file stays under its name, empty or short);
//   * a file handle whose call was abandoned is stuck: every later call fails
//     at once, ZARN_E_TIMEOUT while the abandoned call runs and ZARN_E_IO once
//     it ended (what reached the file is unknown); reopen to go on. Its close
//     returns at once (ZARN_E_TIMEOUT) and the handle is closed on the worker
//     when the abandoned call returns;
//   * a health probe while an earlier one still hangs answers ZARN_E_TIMEOUT
//     at once: a lost store holds one worker for probing, not one per period.
// connect() and disconnect() run inline, and the wrapped backend is released
// on the thread that drops the last reference: mount and unmount have time-outs
// of their own (CephFS: 10 s each).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "StoreBackend.h"
#include "StoreCallPool.h"

namespace Velto::Zarn {

class CDeadlineBackend : public IStoreBackend {
 public:
  // Default time-out until setCallTimeout: the client's default.
  static constexpr uint32_t kDefaultTimeoutMs = 5000;

  // `pool` must outlive the wrapper and every file handle it made (the shared
  // pool lives for the process).
  CDeadlineBackend(std::shared_ptr<IStoreBackend> target, CStoreCallPool& pool = CStoreCallPool::shared());
  ~CDeadlineBackend() override;

  // The wrapped backend, reached without a deadline (benchmarks compare the two).
  IStoreBackend* target() const;

  void setCallTimeout(uint32_t ms) override;

  int connect(const Config& config) override;
  void disconnect() override;
  int probeHealth() override;
  int capacity(StoreCapacity& out) override;
  int setCapacityLimit(uint64_t bytes) override;
  int createBucket(const std::string& b) override;
  int removeBucket(const std::string& b) override;
  int bucketExists(const std::string& b) override;
  int listBuckets(std::vector<std::string>& out) override;
  int bucketUsedBytes(const std::string& b, uint64_t& out) override;
  int list(const std::string& b, const std::string& after, const std::string& upTo, uint32_t maxCount,
           std::vector<StoreEntry>& out) override;
  int createFile(const std::string& b, const std::string& n, const StoreLayout& layout,
                 std::unique_ptr<IStoreFile>& out) override;
  int openFile(const std::string& b, const std::string& n, StoreOpenMode mode,
               std::unique_ptr<IStoreFile>& out) override;
  int removeFile(const std::string& b, const std::string& n) override;
  int renameFile(const std::string& fb, const std::string& fn, const std::string& tb,
                 const std::string& tn) override;
  int statFile(const std::string& b, const std::string& n, StoreFileStat& out) override;

  // What the wrapper's file handles share with it (defined in DeadlineBackend.cpp).
  struct Link;

 private:
  int openWith(bool create, const std::string& b, const std::string& n, const StoreLayout& layout,
               StoreOpenMode mode, std::unique_ptr<IStoreFile>& out);

  class CProbeCall;

  std::shared_ptr<Link> m_link;
  std::mutex m_probeMutex;
  std::shared_ptr<CProbeCall> m_probe;  // guarded by m_probeMutex; the last probe that was abandoned
};

}  // namespace Velto::Zarn
