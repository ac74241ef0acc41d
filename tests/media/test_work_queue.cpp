// The engines' shared machinery: the work queue their runs go through, and the
// registry of writers and playback sessions.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <functional>
#include <mutex>
#include <set>
#include <vector>

#include "KanduSync.h"
#include "KanduThread.h"
#include "StreamMgr.h"
#include "TestSupport.h"
#include "WorkQueue.h"

using namespace Velto::Zarn;
using ZarnTest::waitFor;

namespace {

// An item whose run is a function.
class FnItem : public CWorkItem {
 public:
  explicit FnItem(std::function<void()> run) : m_run(std::move(run)) {}
  void execute() override { m_run(); }

 private:
  std::function<void()> m_run;
};

// Item runs appended to a list in the order they happen.
struct RunLog {
  std::mutex mutex;
  std::vector<int> order;
  std::function<void()> run(int id) {
    return [this, id] {
      std::lock_guard<std::mutex> lock(mutex);
      order.push_back(id);
    };
  }
  std::vector<int> seen() {
    std::lock_guard<std::mutex> lock(mutex);
    return order;
  }
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

TEST(WorkQueue, ALockingQueueNeverRunsOneItemConcurrently) {
  SlowItem item;
  CWorkQueue queue(4, true);
  for (int i = 0; i < 12; ++i) queue.submit(&item);  // deliberately queued more than once
  ASSERT_TRUE(waitFor([&] { return item.m_runs.load() == 12; }));
  EXPECT_EQ(item.m_maxRunning.load(), 1);
  queue.destroy();
}

TEST(WorkQueue, CancelTakesOnlyQueuedItems) {
  SlowItem blocker;
  blocker.m_hold = true;
  RunLog log;
  FnItem queued(log.run(1)), never(log.run(2)), marker(log.run(3));
  CWorkQueue queue(1, true);
  EXPECT_FALSE(queue.cancel(&never));  // not queued: nothing changes
  queue.submit(&blocker);
  ASSERT_TRUE(waitFor([&] { return blocker.m_running.load() == 1; }));
  EXPECT_FALSE(queue.cancel(&blocker));  // running, not pending
  queue.submit(&queued);
  queue.submit(&never);
  EXPECT_EQ(queue.pendingCount(), 2u);
  EXPECT_TRUE(queue.cancel(&never));
  EXPECT_EQ(queue.pendingCount(), 1u);
  // One thread runs items in submission order: the marker runs after anything still queued.
  queue.submit(&marker);
  blocker.m_hold = false;
  ASSERT_TRUE(waitFor([&] { return log.seen().size() >= 2; }));
  EXPECT_EQ(log.seen(), (std::vector<int>{1, 3}));
}

TEST(WorkQueue, PassingTheItemMutexWaitsForARunningExecute) {
  SlowItem item;
  item.m_hold = true;
  CWorkQueue queue(2, true);
  queue.submit(&item);
  ASSERT_TRUE(waitFor([&] { return item.m_running.load() == 1; }));
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

// Queues that wake a thread per submission, and queues that batch wake-ups.
constexpr uint32_t kBatchDelays[] = {0, 2};

TEST(WorkQueue, AnItemSubmittedByABusyRunStillRunsWhileThatRunLasts) {
  // The first item submits the next from inside its run, then keeps its thread
  // until the next has run: an item left to a busy thread is run by another.
  for (uint32_t delay : kBatchDelays) {
    SCOPED_TRACE(delay);
    std::atomic<bool> nextRan{false}, submitted{false};
    FnItem next([&] { nextRan = true; });
    CWorkQueue queue(2, true, delay);
    FnItem first([&] {
      submitted = queue.submit(&next);
      for (int i = 0; i < 10000 && !nextRan.load(); ++i) Velto::Kandu::sleepMs(1);
    });
    ASSERT_TRUE(queue.submit(&first));
    ASSERT_TRUE(waitFor([&] { return nextRan.load(); }));
    queue.destroy();  // joins: the first run has stored what its submit returned
    EXPECT_TRUE(submitted.load());
  }
}

TEST(WorkQueue, ManyShortSubmissionsAllRunOnce) {
  // Items resubmitted from their own runs while others are submitted from
  // outside: each runs once per submission, whichever thread takes it.
  for (uint32_t delay : kBatchDelays) {
    SCOPED_TRACE(delay);
    std::atomic<int> runs{0};
    CWorkQueue queue(4, true, delay);
    std::vector<std::unique_ptr<FnItem>> items;
    std::vector<int> again(50, 9);
    for (int i = 0; i < 50; ++i) {
      items.push_back(std::make_unique<FnItem>([&, i] {
        ++runs;
        if (again[i]-- > 0) queue.submit(items[i].get());
      }));
    }
    for (auto& item : items) ASSERT_TRUE(queue.submit(item.get()));
    ASSERT_TRUE(waitFor([&] { return runs.load() >= 500 && queue.pendingCount() == 0; }));
    queue.destroy();  // joins the threads: every run begun has ended
    EXPECT_EQ(runs.load(), 500);
  }
}

TEST(WorkQueue, DestroyDropsPendingItemsAndRefusesNewOnes) {
  SlowItem blocker;
  blocker.m_hold = true;
  RunLog log;
  FnItem pending(log.run(7));
  CWorkQueue queue(1, false);
  queue.submit(&blocker);
  ASSERT_TRUE(waitFor([&] { return blocker.m_running.load() == 1; }));
  for (int i = 0; i < 5; ++i) queue.submit(&pending);
  std::thread release([&] {
    Velto::Kandu::sleepMs(50);
    blocker.m_hold = false;
  });
  queue.destroy();  // drops the pending entries, then joins the busy thread
  release.join();
  EXPECT_FALSE(queue.submit(&pending));
  EXPECT_TRUE(log.seen().empty());
}

TEST(StreamMgr, SessionIdsCountFromOneSkipIdsInUseAndWrapToZero) {
  CStreamMgr mgr;
  EXPECT_EQ(mgr.addStreamReader(nullptr), 1);
  EXPECT_EQ(mgr.addStreamReader(nullptr), 2);
  EXPECT_EQ(mgr.addStreamReader(nullptr), 3);
  mgr.delStreamReader(2);
  // A deleted id is not handed out again until the counter wraps.
  EXPECT_EQ(mgr.addStreamReader(nullptr), 4);
  mgr.setLastSessionIdForTest(3);  // 4 is still in use
  EXPECT_EQ(mgr.addStreamReader(nullptr), 5);

  mgr.setLastSessionIdForTest(INT_MAX - 1);
  EXPECT_EQ(mgr.addStreamReader(nullptr), INT_MAX);
  EXPECT_EQ(mgr.addStreamReader(nullptr), 0);  // negative counter values give candidate 0
}

TEST(StreamMgr, WritersKeepTheFirstRegistrationAndReportIdsInOrder) {
  CStreamMgr mgr;
  mgr.addStreamWriter(9, nullptr);
  mgr.addStreamWriter(3, nullptr);
  mgr.addStreamWriter(9, nullptr);
  EXPECT_EQ(mgr.getStreamWriterCount(), 2);
  EXPECT_TRUE(mgr.hasStreamWriter(3));
  EXPECT_FALSE(mgr.hasStreamWriter(4));

  std::set<uint32_t> ids{100};
  EXPECT_EQ(mgr.getStreamIds(ids), 3u);  // adds to what the set holds
  EXPECT_EQ(std::vector<uint32_t>(ids.begin(), ids.end()), (std::vector<uint32_t>{3, 9, 100}));

  mgr.delStreamWriter(9);
  mgr.delStreamWriter(9);  // absent ids are ignored
  EXPECT_EQ(mgr.getStreamWriterCount(), 1);
  EXPECT_FALSE(mgr.hasStreamWriter(9));
}

}  // namespace
