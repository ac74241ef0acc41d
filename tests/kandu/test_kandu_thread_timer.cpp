// Synchronisation and timer services: schedules on a manual clock (run counts,
// self-stop, self-restart), waiting stops and destruction, execution time-out
// warnings, pool size; the semaphore and the recursive mutex across threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KanduSync.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "KanduTimer.h"
#include "TestSupport.h"

using Velto::Kandu::CAutoLock;
using Velto::Kandu::CManualClock;
using Velto::Kandu::CMutex;
using Velto::Kandu::CSemaphore;
using Velto::Kandu::CThreadLite;
using Velto::Kandu::CTimer;
using Velto::Kandu::monotonicMs;
using Velto::Kandu::sleepMs;
using ZarnTest::waitFor;

namespace {

// Counts entries into a procedure and remembers whether two ever overlapped.
struct OverlapProbe {
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::atomic<int> runs{0};
  void enter() {
    if (inside.fetch_add(1) != 0) overlapped = true;
    ++runs;
  }
  void leave() { --inside; }
};

// ---------------------------------------------------------------- schedules
// On a manual clock: when a timer runs, how often, and that nothing runs after
// it ends, follow from the clock alone.

constexpr int64_t kEpochMs = 1462060800000;  // 2016-05-01 00:00:00 UTC
constexpr uint32_t kHourMs = 3600000;

TEST(TimerTest, TimersFallDueAsAManualClockPassesThem) {
  CManualClock clock(kEpochMs);
  std::mutex mutex;
  std::vector<std::pair<std::string, int64_t>> runs;  // timer name, wall seconds seen
  std::atomic<CTimer*> seen{nullptr};
  std::atomic<uintptr_t> seenParam{0};
  auto record = [&](CTimer* t) {
    std::lock_guard<std::mutex> lock(mutex);
    runs.emplace_back(t->name(), clock.wallClockSeconds());
  };
  CTimer oneShot("one shot", clock), hourly("hourly", clock), late("late", clock);
  ASSERT_TRUE(oneShot.start([&](CTimer* t) { seen = t; seenParam = t->param(); record(t); }, 30000, 0, 42));
  ASSERT_TRUE(hourly.start(record, kHourMs, kHourMs));
  ASSERT_TRUE(late.start(record, 4 * kHourMs + 1));
  EXPECT_EQ(clock.nextDueInMs(), 30000);

  clock.advance(29999);
  EXPECT_TRUE(runs.empty());
  EXPECT_TRUE(oneShot.isRunning());
  clock.advance(1);
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(seen.load(), &oneShot);
  EXPECT_EQ(seenParam.load(), 42u);
  EXPECT_FALSE(oneShot.isRunning());

  // Each run sees the clock at its own due time: three hours, three runs.
  clock.advance(3 * kHourMs);
  const int64_t t0 = kEpochMs / 1000;
  const std::vector<std::pair<std::string, int64_t>> expected{
      {"one shot", t0 + 30}, {"hourly", t0 + 3600}, {"hourly", t0 + 7200}, {"hourly", t0 + 10800}};
  EXPECT_EQ(runs, expected);
  hourly.stop(true);
  EXPECT_FALSE(hourly.isRunning());
  clock.advance(10 * kHourMs);
  ASSERT_EQ(runs.size(), 5u);
  EXPECT_EQ(runs.back(), (std::pair<std::string, int64_t>{"late", t0 + 4 * 3600}));
  EXPECT_EQ(clock.nextDueInMs(), -1);

  // An operator's clock change moves the wall face alone: nothing falls due.
  clock.setWallClockMs(kEpochMs);
  EXPECT_EQ(clock.wallClockSeconds(), t0);
  EXPECT_EQ(Velto::Kandu::CTime::now(clock).format("yyyy-MM-dd"), "2016-05-01");
  EXPECT_EQ(runs.size(), 5u);
}

TEST(TimerTest, PeriodicRunsUntilStoppedAndNeverOverlaps) {
  OverlapProbe probe;
  CTimer timer("periodic");
  // Each run lasts longer than the period: the next must wait for it.
  ASSERT_TRUE(timer.start([&](CTimer*) { probe.enter(); sleepMs(3); probe.leave(); }, 0, 1));
  ASSERT_TRUE(waitFor([&] { return probe.runs.load() >= 20; }));
  EXPECT_TRUE(timer.isRunning());
  timer.stop(true);
  EXPECT_FALSE(timer.isRunning());
  EXPECT_FALSE(probe.overlapped.load());
}

TEST(TimerTest, AProcedureStopsRestartsOrReschedulesItsOwnTimer) {
  CManualClock clock(kEpochMs);
  // Stopping from inside neither deadlocks nor lets another run through.
  std::atomic<int> stopped{0};
  CTimer selfStop("self stop", clock);
  ASSERT_TRUE(selfStop.start([&](CTimer* t) { if (++stopped == 3) t->stop(true); }, 0, 5));
  // A long period shortened by the first run: later runs follow at the new one.
  std::atomic<int> faster{0};
  CTimer shortened("period shortened", clock);
  ASSERT_TRUE(shortened.start([&](CTimer* t) { if (++faster == 1) t->setPeriod(5); }, 0, 600000));
  // Restarted from inside while its run still executes: the next run waits.
  OverlapProbe probe;
  CTimer restarted("self restart", clock);
  Velto::Kandu::TimerProcedure procedure = [&](CTimer* t) {
    probe.enter();
    if (probe.runs.load() < 4) t->start(procedure, 0);
    sleepMs(20);
    probe.leave();
  };
  ASSERT_TRUE(restarted.start(procedure, 0));

  clock.advance(20);
  EXPECT_EQ(stopped.load(), 3);
  EXPECT_FALSE(selfStop.isRunning());
  EXPECT_EQ(faster.load(), 5);  // at 0, 5, 10, 15, 20
  EXPECT_EQ(shortened.period(), 5u);
  EXPECT_EQ(probe.runs.load(), 4);
  EXPECT_FALSE(restarted.isRunning());
  EXPECT_FALSE(probe.overlapped.load());
  clock.advance(1000);
  EXPECT_EQ(stopped.load(), 3);
  EXPECT_EQ(probe.runs.load(), 4);
}

TEST(TimerTest, StartOnAPendingTimerReplacesItsScheduleAndStopCancels) {
  CManualClock clock(kEpochMs);
  std::atomic<int> oldRuns{0}, newRuns{0};
  CTimer timer("restarted", clock);
  ASSERT_TRUE(timer.start([&](CTimer*) { ++oldRuns; }, 300, 300));
  ASSERT_TRUE(timer.start([&](CTimer*) { ++newRuns; }, 0, 0, 7));
  clock.advance(0);
  EXPECT_EQ(newRuns.load(), 1);
  EXPECT_FALSE(timer.isRunning());
  EXPECT_EQ(timer.param(), 7u);
  ASSERT_TRUE(timer.start([&](CTimer*) { ++newRuns; }, 200));
  timer.stop();
  EXPECT_FALSE(timer.isRunning());
  clock.advance(600);
  EXPECT_EQ(oldRuns.load(), 0);
  EXPECT_EQ(newRuns.load(), 1);
}

// ---------------------------------------------------------------- waiting

// stop(true) and ~CTimer return only after a procedure in progress has returned.
TEST(TimerTest, StopWithWaitAndDestructionWaitForTheRunningProcedure) {
  for (bool destroy : {false, true}) {
    std::atomic<bool> entered{false}, finished{false};
    auto timer = std::make_unique<CTimer>("waited for");
    ASSERT_TRUE(timer->start([&](CTimer*) { entered = true; sleepMs(300); finished = true; }, 0, 5));
    ASSERT_TRUE(waitFor([&] { return entered.load(); }));
    if (destroy)
      timer.reset();
    else
      timer->stop(true);
    EXPECT_TRUE(finished.load()) << (destroy ? "destructor" : "stop");
  }
}

// An engine closed through its own one-shot timer: the run drops the last
// reference, so ~CTimer runs on the timer's own thread. The service must neither
// wait for itself nor touch the freed timer afterwards.
struct SelfReleasingEngine {
  CTimer timer{"async delete"};
  std::shared_ptr<SelfReleasingEngine> self;  // kept while closing
  std::atomic<bool>* destroyed = nullptr;
  ~SelfReleasingEngine() { *destroyed = true; }
};

TEST(TimerTest, ProcedureMayReleaseTheObjectOwningItsTimer) {
  std::atomic<bool> destroyed{false};
  std::atomic<bool> sawOwnTimer{false};
  auto engine = std::make_shared<SelfReleasingEngine>();
  engine->destroyed = &destroyed;
  engine->self = engine;
  ASSERT_TRUE(engine->timer.start(
      [&sawOwnTimer](CTimer* t) {
        auto* e = reinterpret_cast<SelfReleasingEngine*>(t->param());
        sawOwnTimer = (t == &e->timer);
        e->self.reset();  // the last reference: ~CTimer runs inside its own procedure
      },
      0, 0, reinterpret_cast<uintptr_t>(engine.get()), 60000));
  engine.reset();
  ASSERT_TRUE(waitFor([&] { return destroyed.load(); }));
  EXPECT_TRUE(sawOwnTimer.load());

  std::atomic<int> runs{0};
  CTimer after("after self release");
  ASSERT_TRUE(after.start([&](CTimer*) { ++runs; }, 0));
  EXPECT_TRUE(waitFor([&] { return runs.load() == 1; }));
}

TEST(TimerTest, ConcurrentStartAndStopFromManyThreads) {
  CManualClock clock(kEpochMs);
  std::atomic<int> runs{0};
  CTimer timer("contended", clock);
  std::vector<std::unique_ptr<CThreadLite>> threads;
  for (int i = 0; i < 4; ++i) {
    threads.push_back(std::make_unique<CThreadLite>("contender", [&, i](CThreadLite& self) {
      while (self.isLooping()) {
        if (i % 2 == 0)
          timer.start([&](CTimer*) { ++runs; }, 0, 1);
        else
          timer.stop(i == 1);
      }
    }));
    ASSERT_TRUE(threads.back()->create());
  }
  for (int step = 0; step < 300; ++step) clock.advance(1);
  threads.clear();
  timer.stop(true);
  EXPECT_FALSE(timer.isRunning());
  const int after = runs.load();
  clock.advance(1000);
  EXPECT_EQ(runs.load(), after);
}

// ---------------------------------------------------------------- time-out

TEST(TimerTest, OverrunningProcedureIsReportedOnceByName) {
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  std::atomic<bool> warned{false};
  CTimer timer("slow maintenance pass");
  ASSERT_TRUE(timer.start(
      [&](CTimer*) {
        // Not interrupted: keeps going until the warning is out, then a little more.
        warned = waitFor([&] { return log.contains("slow maintenance pass"); }, 10000);
        sleepMs(100);
      },
      0, 0, 0, 50));
  ASSERT_TRUE(waitFor([&] { return !timer.isRunning(); }, 15000));
  EXPECT_TRUE(warned.load());
  EXPECT_EQ(log.count("slow maintenance pass"), 1u);
  EXPECT_EQ(log.count("50 ms"), 1u);
}

// ---------------------------------------------------------------- pool

TEST(TimerServiceTest, ThousandsOfIdleTimersCostNoThreads) {
  // Earlier tests may have grown the pool; surplus workers age out after seconds,
  // so compare with what is there now rather than with an absolute count.
  const uint32_t before = Velto::Kandu::timerServiceWorkerCount();
  std::vector<std::unique_ptr<CTimer>> timers;
  std::atomic<int> runs{0};
  for (int i = 0; i < 2000; ++i) {
    timers.push_back(std::make_unique<CTimer>("idle " + std::to_string(i)));
    ASSERT_TRUE(timers.back()->start([&](CTimer*) { ++runs; }, 3600000, 60000));
  }
  EXPECT_LE(Velto::Kandu::timerServiceWorkerCount(), std::max(before, 4u));
  for (auto& t : timers) EXPECT_TRUE(t->isRunning());
  timers.clear();
  EXPECT_EQ(runs.load(), 0);

  // The same number falling due together, with trivial procedures: each runs
  // exactly once (the advance returns once every run has returned).
  CManualClock clock(kEpochMs);
  for (int i = 0; i < 2000; ++i) {
    timers.push_back(std::make_unique<CTimer>("burst " + std::to_string(i), clock));
    ASSERT_TRUE(timers.back()->start([&](CTimer*) { ++runs; }, 20));
  }
  clock.advance(20);
  EXPECT_EQ(runs.load(), 2000);
  EXPECT_TRUE(std::none_of(timers.begin(), timers.end(), [](auto& t) { return t->isRunning(); }));
  clock.advance(60000);
  EXPECT_EQ(runs.load(), 2000);
  timers.clear();
}

TEST(TimerServiceTest, PoolGrowsWhileProceduresBlock) {
  // Six procedures that each wait for all six to be inside at once can only
  // finish if the pool gives them six workers.
  constexpr int kBlocked = 6;
  std::atomic<int> inside{0};
  std::atomic<int> completed{0};
  std::vector<std::unique_ptr<CTimer>> timers;
  for (int i = 0; i < kBlocked; ++i) {
    timers.push_back(std::make_unique<CTimer>("blocking " + std::to_string(i)));
    ASSERT_TRUE(timers.back()->start(
        [&](CTimer*) { ++inside; completed += waitFor([&] { return inside.load() == kBlocked; }, 10000); }, 0));
  }
  ASSERT_TRUE(waitFor([&] { return completed.load() == kBlocked; }, 15000));
  EXPECT_GE(Velto::Kandu::timerServiceWorkerCount(), static_cast<uint32_t>(kBlocked));
}

// ---------------------------------------------------------------- sync

TEST(SemaphoreTest, PendTimesOutCountsAndIsWokenFromAnotherThread) {
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

  // An infinite waiter is woken by a post from another thread.
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
