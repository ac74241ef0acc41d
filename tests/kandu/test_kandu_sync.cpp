// The counting semaphore and the recursive mutex, exercised across threads.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "KanduSync.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "TestSupport.h"

using namespace Velto::Kandu;
using ZarnTest::waitFor;

namespace {

TEST(SemaphoreTest, PendTimesOutWithMinusOneAndTakesCountsWithZero) {
  CSemaphore sem;
  uint64_t before = monotonicMs();
  EXPECT_EQ(sem.pend(50), -1);
  EXPECT_GE(monotonicMs() - before, 45u);  // waited about as long as asked, not returned at once
  EXPECT_EQ(sem.pend(0), -1);

  sem.post();
  sem.post();
  EXPECT_EQ(sem.pend(0), 0);
  EXPECT_EQ(sem.pend(1), 0);
  EXPECT_EQ(sem.pend(0), -1);

  CSemaphore preloaded(3);
  int taken = 0;
  while (preloaded.pend(0) == 0) ++taken;
  EXPECT_EQ(taken, 3);
}

TEST(SemaphoreTest, InfiniteWaiterIsWokenByPostFromAnotherThread) {
  CSemaphore sem;
  std::atomic<int> result{1};
  CThreadLite waiter("waiter", [&](CThreadLite&) { result = sem.pend(CSemaphore::kInfinite); });
  ASSERT_TRUE(waiter.create());
  sleepMs(50);
  EXPECT_EQ(result.load(), 1);  // still blocked
  sem.post();
  EXPECT_TRUE(waitFor([&] { return result.load() == 0; }));
}

TEST(SemaphoreTest, EveryPostAcrossThreadsIsTakenExactlyOnce) {
  constexpr int kProducers = 3;
  constexpr int kPerProducer = 2000;
  CSemaphore sem;
  std::atomic<int> taken{0};
  std::vector<std::unique_ptr<CThreadLite>> threads;
  for (int c = 0; c < 2; ++c) {
    threads.push_back(std::make_unique<CThreadLite>("consumer", [&](CThreadLite& self) {
      while (self.isLooping())
        if (sem.pend(10) == 0) ++taken;
    }));
    ASSERT_TRUE(threads.back()->create());
  }
  for (int p = 0; p < kProducers; ++p) {
    threads.push_back(std::make_unique<CThreadLite>("producer", [&](CThreadLite&) {
      for (int i = 0; i < kPerProducer; ++i) sem.post();
    }));
    ASSERT_TRUE(threads.back()->create());
  }
  EXPECT_TRUE(waitFor([&] { return taken.load() == kProducers * kPerProducer; }, 15000));
  threads.clear();
  EXPECT_EQ(taken.load(), kProducers * kPerProducer);
  EXPECT_EQ(sem.pend(0), -1);  // nothing left over
}

TEST(MutexTest, CMutexIsRecursiveAndExcludesOtherThreads) {
  CMutex mutex;
  CAutoLock outer(mutex);
  {
    CAutoLock inner(mutex);  // same thread enters again
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
  }
  std::atomic<int> otherTry{-1};
  CThreadLite other("other", [&](CThreadLite&) { otherTry = mutex.tryLock() ? 1 : 0; });
  ASSERT_TRUE(other.create());
  ASSERT_TRUE(waitFor([&] { return otherTry.load() != -1; }));
  EXPECT_EQ(otherTry.load(), 0);
}

}  // namespace
