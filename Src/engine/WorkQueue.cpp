#include "WorkQueue.h"

#include "KanduLog.h"
#include "KanduTime.h"

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;
using Velto::Kandu::CThreadLite;

CWorkQueue::CWorkQueue(int threadCount, bool lockItems) : m_threadCount(threadCount), m_lockItems(lockItems) {
  for (int i = 0; i < threadCount; ++i) {
    auto thread = std::make_unique<CThreadLite>("CWorkQueueThread", [this](CThreadLite& t) { threadProc(t); });
    thread->create(64, 0, 0);
    m_threads.push_back(std::move(thread));
  }
}

CWorkQueue::~CWorkQueue() { destroy(); }

bool CWorkQueue::submit(CWorkItem* item) {
  {
    CAutoLock lock(m_mutex);
    if (m_destroyed) return false;
    m_items.push_back(item);
    ++m_count;
  }
  m_semaphore.post();
  return true;
}

bool CWorkQueue::cancel(CWorkItem* item) {
  // Taken under the queue mutex: workers and submitters change the list at the
  // same time, and an unlocked walk of it would race with them.
  CAutoLock lock(m_mutex);
  for (auto it = m_items.begin(); it != m_items.end(); ++it) {
    if (*it == item) {
      m_items.erase(it);
      --m_count;
      return true;
    }
  }
  return false;
}

void CWorkQueue::destroy() {
  {
    CAutoLock lock(m_mutex);
    m_destroyed = true;
    m_items.clear();
    m_count = 0;
  }
  for (auto& thread : m_threads) thread->destroy();
  m_threads.clear();
}

size_t CWorkQueue::pendingCount() const {
  CAutoLock lock(m_mutex);
  return m_count;
}

void CWorkQueue::threadProc(CThreadLite& thread) {
  while (thread.isLooping()) {
    uint64_t waitStart = Velto::Kandu::monotonicMs();
    if (m_semaphore.pend(100) == -1) continue;
    CWorkItem* item = nullptr;
    bool locked = false;
    bool lockedUnderQueue = false;
    {
      CAutoLock lock(m_mutex);
      if (!m_items.empty()) {
        item = m_items.front();
        m_items.pop_front();
        --m_count;
        // The item mutex is taken before the queue mutex is released, so an
        // owner that fails to cancel the item and then passes its item mutex
        // waits for the run. Only tried here: a running execute() may resubmit
        // its item (item mutex, then queue mutex), and blocking on the item
        // under the queue mutex would invert that order. When the try fails
        // (the owner is passing the barrier), the lock is taken just after.
        if (m_lockItems && item->lockOnRun()) {
          locked = true;
          lockedUnderQueue = item->itemMutex().tryLock();
        }
      } else if (Velto::Kandu::monotonicMs() - waitStart < 100) {
        // A post whose item was cancelled (or a spurious wake-up).
        KLOG_WARN("Kandu semaphore pend time not correct. please check.\n");
      }
    }
    if (item == nullptr) continue;
    if (locked && !lockedUnderQueue) item->itemMutex().lock();
    item->execute();
    if (locked) item->itemMutex().unlock();
  }
}

}  // namespace Velto::Zarn
