// Work items and the work queue: a small pool of named threads that runs items
// in submission order. An item runs once per submission; an item that wants to
// go on resubmits itself at the end of its run.
//
// Wake-ups. A thread that finds the list empty sleeps on the queue's
// condition. A submission wakes a sleeper only when no thread is awake to take
// it: a thread between two runs looks at the list before it sleeps, so a
// stream of submissions arriving while threads run is served without a wake-up
// each. A queue with a batch delay (the writer queue: its runs are cheap and
// many) goes further: while the queue is busy one sleeping thread, the ticker,
// wakes every `batchDelayMs` and serves what has come meanwhile, so a
// submission wakes nobody unless the ticker is absent, a backlog of
// kWakeBacklog items per running thread has built up, or fewer runs are under
// way than there are processors while no ticker waits. An item then waits at
// most about one delay before it runs. After kQuietTicks ticks without work the
// ticker stops; idle threads wake every 100 ms, as without a delay.
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
#include <deque>
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
  static constexpr size_t kWakeBacklog = 16;    // pending items per running thread that wake another
  static constexpr uint32_t kQuietTicks = 50;   // empty ticks before the ticker stops
  static constexpr uint32_t kIdleWaitMs = 100;  // an idle thread's wait

  // Starts `threadCount` threads named "CWorkQueueThread". batchDelayMs 0:
  // every submission that finds no thread awake wakes one.
  CWorkQueue(int threadCount, bool lockItems, uint32_t batchDelayMs = 0);
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
  // Under m_mutex, after an item was appended: whether to wake a sleeper.
  bool needsWake() const;

  std::vector<std::unique_ptr<Velto::Kandu::CThreadLite>> m_threads;
  // Guarded by m_mutex: the pending items and the threads' whereabouts.
  std::deque<CWorkItem*> m_items;
  bool m_destroyed = false;
  int m_looking = 0;        // awake and not running an item (or woken and not yet up)
  int m_running = 0;        // in an item's execute()
  int m_sleeping = 0;       // in the wait
  int m_wakesInFlight = 0;  // sleepers notified and counted in m_looking already
  bool m_tickerWaiting = false;
  uint32_t m_quietTicks = kQuietTicks;  // the ticker runs while below kQuietTicks
  mutable Velto::Kandu::CMutex m_mutex;
  Velto::Kandu::CCondition m_wake;
  int m_threadCount;
  bool m_lockItems;
  uint32_t m_batchDelayMs;
  int m_processors;
};

}  // namespace Velto::Zarn
