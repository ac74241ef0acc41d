#include "WorkQueue.h"

#include <algorithm>

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;
using Velto::Kandu::CThreadLite;

CWorkQueue::CWorkQueue(int threadCount, bool lockItems, uint32_t batchDelayMs)
    : m_threadCount(threadCount),
      m_lockItems(lockItems),
      m_batchDelayMs(batchDelayMs),
      m_processors(static_cast<int>(Velto::Kandu::processorCount())) {
  for (int i = 0; i < threadCount; ++i) {
    auto thread = std::make_unique<CThreadLite>("CWorkQueueThread", [this](CThreadLite& t) { threadProc(t); });
    thread->create(64, 0, 0);
    m_threads.push_back(std::move(thread));
  }
}

CWorkQueue::~CWorkQueue() { destroy(); }

bool CWorkQueue::needsWake() const {
  if (m_looking > 0 || m_sleeping <= m_wakesInFlight) return false;  // someone will look, or nobody to wake
  if (m_batchDelayMs == 0) return true;
  // A backlog grows faster than the running threads take it: one more.
  if (m_items.size() >= kWakeBacklog * static_cast<size_t>(m_running + 1)) return true;
  // Without a ticker nobody would come for the item until a run ends, and a
  // run may block on the store for long: a free processor takes it now.
  return !m_tickerWaiting && m_running < m_processors;
}

bool CWorkQueue::submit(CWorkItem* item) {
  bool wake = false;
  {
    CAutoLock lock(m_mutex);
    if (m_destroyed) return false;
    m_items.push_back(item);
    m_quietTicks = 0;
    if (needsWake()) {
      wake = true;
      ++m_wakesInFlight;
      ++m_looking;
    }
  }
  if (wake) m_wake.notifyOne();
  return true;
}

bool CWorkQueue::cancel(CWorkItem* item) {
  // Taken under the queue mutex: workers and submitters change the list at the
  // same time, and an unlocked walk of it would race with them.
  CAutoLock lock(m_mutex);
  auto it = std::find(m_items.begin(), m_items.end(), item);
  if (it == m_items.end()) return false;
  m_items.erase(it);
  return true;
}

void CWorkQueue::destroy() {
  {
    CAutoLock lock(m_mutex);
    m_destroyed = true;
    m_items.clear();
  }
  m_wake.notifyAll();
  for (auto& thread : m_threads) thread->destroy();
  m_threads.clear();
}

size_t CWorkQueue::pendingCount() const {
  CAutoLock lock(m_mutex);
  return m_items.size();
}

void CWorkQueue::threadProc(CThreadLite& thread) {
  m_mutex.lock();
  ++m_looking;
  while (thread.isLooping()) {
    if (m_items.empty()) {
      const bool tick = m_batchDelayMs != 0 && !m_tickerWaiting && m_quietTicks < kQuietTicks;
      if (tick) m_tickerWaiting = true;
      --m_looking;
      ++m_sleeping;
      m_wake.wait(m_mutex, tick ? m_batchDelayMs : kIdleWaitMs);
      --m_sleeping;
      // A notified sleeper was counted as looking by the submission; any
      // sleeper that wakes first takes that count over.
      if (m_wakesInFlight > 0) --m_wakesInFlight;
      else ++m_looking;
      if (tick) {
        m_tickerWaiting = false;
        if (m_items.empty()) ++m_quietTicks;
      }
      continue;
    }
    CWorkItem* item = m_items.front();
    m_items.pop_front();
    // The item mutex is taken before the queue mutex is released, so an owner
    // that fails to cancel the item and then passes its item mutex waits for
    // the run. Only tried here: a running execute() may resubmit its item
    // (item mutex, then queue mutex), and blocking on the item under the queue
    // mutex would invert that order. When the try fails (the owner is passing
    // the barrier), the lock is taken just after.
    const bool locked = m_lockItems && item->lockOnRun();
    const bool lockedUnderQueue = locked && item->itemMutex().tryLock();
    --m_looking;
    ++m_running;
    m_mutex.unlock();
    if (locked && !lockedUnderQueue) item->itemMutex().lock();
    item->execute();
    if (locked) item->itemMutex().unlock();
    m_mutex.lock();
    --m_running;
    ++m_looking;
  }
  --m_looking;
  m_mutex.unlock();
}

}  // namespace Velto::Zarn
