// Work items and the work queue: a small pool of named threads that runs items
// in submission order. An item runs once per submission; an item that wants to
// go on resubmits itself at the end of its run.
//
// Locks: a worker takes an item's mutex (when the queue locks items) before
// it lets go of the queue mutex, by try-lock; an item's execute() may submit
// (item mutex, then queue mutex).
//
// Ownership: the queue never owns items; their owners keep them alive while
// queued or running and keep their own idle flags so that an item is never
// queued twice. An item runs on at most one worker at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "KanduSync.h"
#include "KanduThread.h"

namespace Velto::Zarn {

class CWorkItem {
 public:
  CWorkItem() = default;
  virtual ~CWorkItem() = default;
  CWorkItem(const CWorkItem&) = delete;
  CWorkItem& operator=(const CWorkItem&) = delete;

  // One step of the item's work, on a queue thread.
  virtual void execute() = 0;

  // While set, a queue that locks items runs execute() holding the item mutex;
  // an owner that is closing clears it so its final run is not serialised.
  void setLockOnRun(bool value) { m_lockOnRun.store(value); }
  bool lockOnRun() const { return m_lockOnRun.load(); }
  // Enter and leave the item mutex: returns once a running execute() has ended.
  void passItemMutex() {
    m_itemMutex.lock();
    m_itemMutex.unlock();
  }
  Velto::Kandu::CMutex& itemMutex() { return m_itemMutex; }

 private:
  std::atomic<bool> m_lockOnRun{true};
  Velto::Kandu::CMutex m_itemMutex;
};

class CWorkQueue {
 public:
  // Starts `threadCount` threads named "CWorkQueueThread".
  CWorkQueue(int threadCount, bool lockItems);
  ~CWorkQueue();  // destroy()
  CWorkQueue(const CWorkQueue&) = delete;
  CWorkQueue& operator=(const CWorkQueue&) = delete;

  // Appends the item; true unless the queue has been destroyed.
  bool submit(CWorkItem* item);
  // Takes the item out of the pending list; false when it is not queued (it
  // may be running).
  bool cancel(CWorkItem* item);
  // Drops every pending item, then stops and joins the threads.
  void destroy();

  size_t pendingCount() const;
  int threadCount() const { return m_threadCount; }
  bool locksItems() const { return m_lockItems; }

 private:
  void threadProc(Velto::Kandu::CThreadLite& thread);

  std::vector<std::unique_ptr<Velto::Kandu::CThreadLite>> m_threads;
  std::list<CWorkItem*> m_items;  // guarded by m_mutex
  size_t m_count = 0;             // guarded by m_mutex
  bool m_destroyed = false;       // guarded by m_mutex
  Velto::Kandu::CSemaphore m_semaphore;  // one post per submission
  mutable Velto::Kandu::CMutex m_mutex;
  int m_threadCount;
  bool m_lockItems;
};

}  // namespace Velto::Zarn
