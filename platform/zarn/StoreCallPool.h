// A small bounded pool of threads that runs store calls which may block for
// good (a distributed store whose daemons stopped answering), so that the
// caller waits at most its time-out and can be told ZARN_E_TIMEOUT.
//
// A call the caller gave up on is abandoned, not stopped: it goes on on its
// worker and finishes when the store answers, if ever. So a call owns every
// input and output it touches (copies of the caller's names and bytes, its own
// read buffer and result slots); the caller copies results out only when the
// call completed in time and may reuse or free its own memory as soon as run()
// returns, whatever it returned.
//
// Bounds: at most `maxThreads` workers, started on demand through the runtime
// and kept idle once started. A call waits for a worker, then for its result,
// within one time-out; a call still queued when its time-out passes never
// runs. When every worker is held by an abandoned call, new calls fail at once
// with ZARN_E_UNAVAILABLE instead of queueing behind them or starting more
// threads.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "KanduSync.h"

namespace Velto::Kandu {
class CThreadLite;
}

namespace Velto::Zarn {

// One call handed to the pool. Derive to hold the call's own inputs and outputs.
class CStoreCall {
 public:
  virtual ~CStoreCall() = default;
  // Runs on a worker; the call's result (>= 0) or a negative ZarnError code.
  virtual int64_t body() = 0;
  // Runs on the worker after body() when the caller had given up waiting:
  // releases what the late result holds (a handle opened too late).
  virtual void abandoned(int64_t result) { (void)result; }

 private:
  friend class CStoreCallPool;
  enum State : int { kQueued, kRunning, kDone, kCancelled, kAbandoned };
  std::atomic<int> m_state{kQueued};
  int64_t m_result = 0;  // written by the worker before kDone
  Kandu::CSemaphore m_finished;
};

class CStoreCallPool {
 public:
  // What run() returns besides the call's own result.
  enum Outcome { kCompleted, kCancelled, kAbandoned, kRefused };

  explicit CStoreCallPool(uint32_t maxThreads);
  // Stops and joins the workers; every abandoned call must have returned
  // (a test pool). The process-wide pool is never destroyed.
  ~CStoreCallPool();
  CStoreCallPool(const CStoreCallPool&) = delete;
  CStoreCallPool& operator=(const CStoreCallPool&) = delete;

  // The pool every store connection of the process shares.
  static CStoreCallPool& shared();

  // Runs `call` and waits at most timeoutMs for it. Returns the call's result
  // when it completed in time (outcome kCompleted); otherwise ZARN_E_TIMEOUT
  // (kCancelled: it never started and never will; kAbandoned: it runs on and
  // its abandoned() follows) or ZARN_E_UNAVAILABLE (kRefused: every worker is
  // held by an abandoned call). `outcome` may be null.
  int64_t run(const std::shared_ptr<CStoreCall>& call, uint32_t timeoutMs, Outcome* outcome = nullptr);

  // Hands `call` to a worker even when the pool is exhausted, and waits at
  // most timeoutMs for it: for releasing handles whose release may block.
  void release(const std::shared_ptr<CStoreCall>& call, uint32_t timeoutMs);

  uint32_t threadCount() const;
  // Workers held by calls their callers gave up on.
  uint32_t abandonedCount() const;

 private:
  int64_t submit(const std::shared_ptr<CStoreCall>& call, uint32_t timeoutMs, bool bounded, Outcome* outcome);
  void workerLoop();

  const uint32_t m_maxThreads;
  mutable std::mutex m_mutex;
  std::condition_variable m_wake;
  std::deque<std::shared_ptr<CStoreCall>> m_queue;           // guarded by m_mutex
  std::vector<std::unique_ptr<Kandu::CThreadLite>> m_threads;  // guarded by m_mutex
  uint32_t m_idle = 0;                                       // guarded by m_mutex
  bool m_stopping = false;                                   // guarded by m_mutex
  std::atomic<uint32_t> m_abandoned{0};
};

}  // namespace Velto::Zarn
