#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "KanduSync.h"
#include "KanduThread.h"
#include "TestSupport.h"
#include "WorkQueue.h"

using namespace Velto::Zarn;

namespace {

class RecordingItem : public CWorkItem {
 public:
  RecordingItem(int id, std::vector<int>& order, std::mutex& m) : m_id(id), m_order(order), m_mutex(m) {}
  void execute() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_order.push_back(m_id);
  }

 private:
  int m_id;
  std::vector<int>& m_order;
  std::mutex& m_mutex;
};

// Runs until released; counts how many of its runs overlap.
class SlowItem : public CWorkItem {
 public:
  void execute() override {
    int now = ++m_running;
    int seen = m_maxRunning.load();
    while (now > seen && !m_maxRunning.compare_exchange_weak(seen, now)) {
    }
    ++m_runs;
    while (m_hold.load()) Velto::Kandu::sleepMs(1);
    Velto::Kandu::sleepMs(2);
    --m_running;
  }
  std::atomic<int> m_running{0}, m_maxRunning{0}, m_runs{0};
  std::atomic<bool> m_hold{false};
};

TEST(WorkQueue, OneThreadRunsItemsInSubmissionOrder) {
  std::vector<int> order;
  std::mutex m;
  std::vector<std::unique_ptr<RecordingItem>> items;
  for (int i = 0; i < 20; ++i) items.push_back(std::make_unique<RecordingItem>(i, order, m));
  CWorkQueue queue(1, true);
  for (auto& item : items) ASSERT_TRUE(queue.submit(item.get()));
  ASSERT_TRUE(ZarnTest::waitFor([&] {
    std::lock_guard<std::mutex> lock(m);
    return order.size() == 20;
  }));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(order[i], i);
  queue.destroy();
}

TEST(WorkQueue, ALockingQueueNeverRunsOneItemConcurrently) {
  SlowItem item;
  CWorkQueue queue(4, true);
  for (int i = 0; i < 12; ++i) queue.submit(&item);  // deliberately queued more than once
  ASSERT_TRUE(ZarnTest::waitFor([&] { return item.m_runs.load() == 12; }));
  EXPECT_EQ(item.m_maxRunning.load(), 1);
  queue.destroy();
}

TEST(WorkQueue, CancelTakesOnlyQueuedItems) {
  SlowItem blocker;
  blocker.m_hold = true;
  std::vector<int> order;
  std::mutex m;
  RecordingItem queued(1, order, m), never(2, order, m), marker(3, order, m);
  CWorkQueue queue(1, true);
  EXPECT_FALSE(queue.cancel(&never));  // not queued: nothing changes
  queue.submit(&blocker);
  ASSERT_TRUE(ZarnTest::waitFor([&] { return blocker.m_running.load() == 1; }));
  EXPECT_FALSE(queue.cancel(&blocker));  // running, not pending
  queue.submit(&queued);
  queue.submit(&never);
  EXPECT_EQ(queue.pendingCount(), 2u);
  EXPECT_TRUE(queue.cancel(&never));
  EXPECT_EQ(queue.pendingCount(), 1u);
  // One thread runs items in order: the marker runs after anything still queued.
  queue.submit(&marker);
  blocker.m_hold = false;
  ASSERT_TRUE(ZarnTest::waitFor([&] {
    std::lock_guard<std::mutex> lock(m);
    return order.size() >= 2;
  }));
  std::lock_guard<std::mutex> lock(m);
  EXPECT_EQ(order, (std::vector<int>{1, 3}));
}

TEST(WorkQueue, PassingTheItemMutexWaitsForARunningExecute) {
  SlowItem item;
  item.m_hold = true;
  CWorkQueue queue(2, true);
  queue.submit(&item);
  ASSERT_TRUE(ZarnTest::waitFor([&] { return item.m_running.load() == 1; }));
  std::atomic<bool> passed{false};
  std::thread waiter([&] {
    item.passItemMutex();
    passed = true;
  });
  Velto::Kandu::sleepMs(50);
  EXPECT_FALSE(passed.load());
  item.m_hold = false;
  waiter.join();
  EXPECT_TRUE(passed.load());
  EXPECT_EQ(item.m_running.load(), 0);
}

// Submits `next` from inside its run, then keeps its thread until `next` has
// run: an item left to a thread that stays busy is still run by another.
class HandOffItem : public CWorkItem {
 public:
  HandOffItem(CWorkQueue& queue, CWorkItem& next, std::atomic<bool>& nextRan)
      : m_queue(queue), m_next(next), m_nextRan(nextRan) {}
  void execute() override {
    m_submitted = m_queue.submit(&m_next);
    for (int i = 0; i < 10000 && !m_nextRan.load(); ++i) Velto::Kandu::sleepMs(1);
  }
  std::atomic<bool> m_submitted{false};

 private:
  CWorkQueue& m_queue;
  CWorkItem& m_next;
  std::atomic<bool>& m_nextRan;
};

class FlagItem : public CWorkItem {
 public:
  explicit FlagItem(std::atomic<bool>& ran) : m_ran(ran) {}
  void execute() override { m_ran = true; }

 private:
  std::atomic<bool>& m_ran;
};

TEST(WorkQueue, AnItemSubmittedByABusyRunStillRunsWhileThatRunLasts) {
  std::atomic<bool> nextRan{false};
  FlagItem next(nextRan);
  CWorkQueue queue(2, true);
  HandOffItem first(queue, next, nextRan);
  ASSERT_TRUE(queue.submit(&first));
  ASSERT_TRUE(ZarnTest::waitFor([&] { return nextRan.load(); }));
  EXPECT_TRUE(first.m_submitted.load());
  queue.destroy();
}

TEST(WorkQueue, ManyShortSubmissionsAllRunOnce) {
  // Items resubmitted from their own runs while others are submitted from
  // outside: each runs once per submission, whichever thread takes it.
  std::atomic<int> runs{0};
  class Counting : public CWorkItem {
   public:
    Counting(std::atomic<int>& runs, CWorkQueue*& queue, int again) : m_runs(runs), m_queue(queue), m_again(again) {}
    void execute() override {
      ++m_runs;
      if (m_again-- > 0) m_queue->submit(this);
    }

   private:
    std::atomic<int>& m_runs;
    CWorkQueue*& m_queue;
    int m_again;
  };
  CWorkQueue queue(4, true);
  CWorkQueue* q = &queue;
  std::vector<std::unique_ptr<Counting>> items;
  for (int i = 0; i < 50; ++i) items.push_back(std::make_unique<Counting>(runs, q, 9));
  for (auto& item : items) ASSERT_TRUE(queue.submit(item.get()));
  ASSERT_TRUE(ZarnTest::waitFor([&] { return runs.load() >= 500 && queue.pendingCount() == 0; }));
  queue.destroy();  // joins the threads: every run begun has ended
  EXPECT_EQ(runs.load(), 500);
}

TEST(WorkQueue, DestroyDropsPendingItemsAndRefusesNewOnes) {
  SlowItem blocker;
  blocker.m_hold = true;
  std::vector<int> order;
  std::mutex m;
  RecordingItem pending(7, order, m);
  CWorkQueue queue(1, false);
  queue.submit(&blocker);
  ASSERT_TRUE(ZarnTest::waitFor([&] { return blocker.m_running.load() == 1; }));
  for (int i = 0; i < 5; ++i) queue.submit(&pending);
  std::thread release([&] {
    Velto::Kandu::sleepMs(50);
    blocker.m_hold = false;
  });
  queue.destroy();  // drops the pending entries, then joins the busy thread
  release.join();
  EXPECT_FALSE(queue.submit(&pending));
  std::lock_guard<std::mutex> lock(m);
  EXPECT_TRUE(order.empty());
}

}  // namespace
