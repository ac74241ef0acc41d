#include "StoreCallPool.h"

#include <string>

#include "KanduThread.h"
#include "ZarnError.h"

namespace Velto::Zarn {

namespace {

// Enough for the concurrent store calls of a recorder (writers, readers,
// queries, upkeep) to proceed side by side while a few are stuck.
constexpr uint32_t kSharedPoolThreads = 32;

}  // namespace

CStoreCallPool::CStoreCallPool(uint32_t maxThreads) : m_maxThreads(maxThreads == 0 ? 1 : maxThreads) {}

CStoreCallPool::~CStoreCallPool() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  for (auto& t : m_threads) t->destroy();
}

CStoreCallPool& CStoreCallPool::shared() {
  // Never destroyed: its workers may be held by calls that never return.
  static CStoreCallPool* pool = new CStoreCallPool(kSharedPoolThreads);
  return *pool;
}

uint32_t CStoreCallPool::threadCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<uint32_t>(m_threads.size());
}

uint32_t CStoreCallPool::abandonedCount() const { return m_abandoned.load(); }

int64_t CStoreCallPool::run(const std::shared_ptr<CStoreCall>& call, uint32_t timeoutMs, Outcome* outcome) {
  return submit(call, timeoutMs, true, outcome);
}

void CStoreCallPool::release(const std::shared_ptr<CStoreCall>& call, uint32_t timeoutMs) {
  (void)submit(call, timeoutMs, false, nullptr);
}

int64_t CStoreCallPool::submit(const std::shared_ptr<CStoreCall>& call, uint32_t timeoutMs, bool bounded,
                               Outcome* outcome) {
  Outcome ignored;
  Outcome& how = outcome != nullptr ? *outcome : ignored;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (bounded && m_abandoned.load() >= m_maxThreads) {
      how = kRefused;
      return ZARN_E_UNAVAILABLE;
    }
    m_queue.push_back(call);
    if (m_idle == 0 && m_threads.size() < m_maxThreads) {
      auto worker = std::make_unique<Kandu::CThreadLite>("ZarnStoreCall" + std::to_string(m_threads.size()),
                                                         [this](Kandu::CThreadLite&) { workerLoop(); });
      // A refused thread leaves the call queued for the workers there are.
      if (worker->create()) m_threads.push_back(std::move(worker));
    }
  }
  m_wake.notify_one();

  if (call->m_finished.pend(timeoutMs) == 0) {
    how = kCompleted;
    return call->m_result;
  }
  int expected = CStoreCall::kQueued;
  if (call->m_state.compare_exchange_strong(expected, CStoreCall::kCancelled)) {
    how = kCancelled;
    return ZARN_E_TIMEOUT;
  }
  // Counted before the state says so, so that the worker's count-down after
  // an abandoned call can never come first.
  m_abandoned.fetch_add(1);
  expected = CStoreCall::kRunning;
  if (call->m_state.compare_exchange_strong(expected, CStoreCall::kAbandoned)) {
    how = kAbandoned;
    return ZARN_E_TIMEOUT;
  }
  m_abandoned.fetch_sub(1);
  // Finished between the time-out and here.
  how = kCompleted;
  return call->m_result;
}

void CStoreCallPool::workerLoop() {
  for (;;) {
    std::shared_ptr<CStoreCall> call;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      ++m_idle;
      m_wake.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
      --m_idle;
      if (m_queue.empty()) return;  // stopping
      call = std::move(m_queue.front());
      m_queue.pop_front();
    }
    int expected = CStoreCall::kQueued;
    if (!call->m_state.compare_exchange_strong(expected, CStoreCall::kRunning)) continue;  // cancelled
    int64_t result = call->body();
    call->m_result = result;
    expected = CStoreCall::kRunning;
    if (call->m_state.compare_exchange_strong(expected, CStoreCall::kDone)) {
      call->m_finished.post();
    } else {
      call->abandoned(result);
      m_abandoned.fetch_sub(1);
    }
    // The call's last reference usually goes here, on the worker: what it
    // holds (a handle, a mount) is released off the caller's thread.
  }
}

}  // namespace Velto::Zarn
