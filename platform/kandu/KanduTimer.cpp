#include "KanduTimer.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "KanduLog.h"
#include "KanduTime.h"

// The timer service: one dispatcher thread and a pool of workers shared by every
// CTimer of the process.
//
//   start()      --> due map (monotonic due ms -> state)
//   dispatcher   --> moves due entries to the ready queue, watches execution
//                    time-outs of running procedures
//   workers      --> take ready runs, call the procedure, reschedule periodic
//                    timers (next due = run start + period, or now if that passed)
//
// Every start() and stop() bumps the timer's generation; a ready run carries the
// generation it was queued under and is dropped when they differ, so cancellation
// never has to search the ready queue. A timer has at most one due-map entry, and
// its state remembers the entry's iterator so stop() erases it directly: stopped
// timers leave nothing behind in the service.
//
// Lifetime: CTimer owns its TimerState through a shared_ptr; the service holds
// further references only while the timer is scheduled, queued or running. The
// CTimer* handed to the procedure is taken under the service lock at run start,
// and ~CTimer waits for a running procedure (unless it is that procedure's own
// thread), so the pointer is valid for the call. After ~CTimer returns the
// service touches only the state, never the CTimer.
//
// Lock: one service mutex guards the due map, the ready queue, the worker records
// and every field of every TimerState. Procedures are called, the procedure copy
// destroyed and warnings logged without it.

namespace Velto::Kandu {

namespace detail {

struct TimerState {
  using DueMap = std::multimap<uint64_t, std::shared_ptr<TimerState>>;

  std::string name;
  CTimer* owner = nullptr;  // null once ~CTimer has run
  TimerProcedure procedure;
  uint32_t periodMs = 0;
  uintptr_t param = 0;
  uint32_t execTimeoutMs = 0;

  uint64_t generation = 0;     // bumped by every start() and stop()
  bool active = false;         // isRunning(): started, not stopped, one-shot not yet returned
  bool scheduled = false;      // dueEntry is valid
  DueMap::iterator dueEntry;   // this timer's entry in the due map
  bool pendingRun = false;     // fell due while the previous run was still executing
  bool executing = false;      // the procedure is being called right now
  std::thread::id executingThread;
  uint64_t runCount = 0;       // runs begun; lets stop(wait) tell one run from the next
};

}  // namespace detail

namespace {

using detail::TimerState;

constexpr uint32_t kMinWorkers = 2;
constexpr uint32_t kMaxWorkers = 64;
constexpr uint32_t kIdleWorkerExitMs = 5000;   // surplus workers idle this long exit
// A due run that has waited this long with every worker busy gets a new worker.
// Growing on a short delay rather than at once keeps a burst of quick runs from
// inflating the pool, while a blocked procedure still delays others only briefly.
constexpr uint64_t kGrowAfterMs = 10;
constexpr uint64_t kDispatcherMaxSleepMs = 60000;

struct ReadyRun {
  std::shared_ptr<TimerState> state;
  uint64_t generation;
  uint64_t queuedMs;  // monotonic time the run was handed to the pool
};

// What the dispatcher needs to know about a worker's current run.
struct WorkerRecord {
  bool busy = false;
  std::string timerName;
  uint64_t runStartMs = 0;
  uint32_t execTimeoutMs = 0;
  bool warned = false;
};

void nameThisThread(const char* name) { ::pthread_setname_np(::pthread_self(), name); }

class TimerService {
 public:
  // Created on first use and never destroyed: timers with static storage
  // duration stop during static destruction and still need the service.
  static TimerService& instance() {
    static TimerService* service = new TimerService();
    return *service;
  }

  std::mutex mutex;
  std::condition_variable runDone;  // a run returned; stop(wait) waits on it

  // The following are called with `mutex` held.

  void ensureStarted() {
    if (m_started) return;
    m_started = true;
    try {
      std::thread([this] { dispatcherLoop(); }).detach();
    } catch (const std::system_error&) {
      std::fprintf(stderr, "Kandu timer service: cannot start the dispatcher thread\n");
      std::abort();  // no timer of the process could ever run
    }
    for (uint32_t i = 0; i < kMinWorkers; ++i) spawnWorker();
  }

  void schedule(const std::shared_ptr<TimerState>& state, uint64_t dueMs) {
    unschedule(*state);
    state->dueEntry = m_due.emplace(dueMs, state);
    state->scheduled = true;
    if (state->dueEntry == m_due.begin()) m_dispatcherWake.notify_one();
  }

  void unschedule(TimerState& state) {
    if (!state.scheduled) return;
    m_due.erase(state.dueEntry);
    state.scheduled = false;
  }

  uint32_t workerCount() const { return m_workerCount; }

 private:
  TimerService() = default;

  // A refused thread leaves the pool as it was; the runs wait for a busy worker.
  void spawnWorker() {
    m_workers.emplace_back();
    auto record = std::prev(m_workers.end());
    try {
      std::thread([this, record] { workerLoop(record); }).detach();
    } catch (const std::system_error&) {
      m_workers.erase(record);
      return;
    }
    ++m_workerCount;
  }

  void enqueue(const std::shared_ptr<TimerState>& state) {
    m_ready.push_back(ReadyRun{state, state->generation, monotonicMs()});
    m_workAvailable.notify_one();
    if (m_ready.size() == 1) m_dispatcherWake.notify_one();  // it watches the queue head's age
  }

  void dispatcherLoop() {
    nameThisThread("KanduTimerDisp");
    std::unique_lock<std::mutex> lock(mutex);
    std::vector<std::pair<std::string, uint32_t>> overruns;
    for (;;) {
      uint64_t now = monotonicMs();
      while (!m_due.empty() && m_due.begin()->first <= now) {
        std::shared_ptr<TimerState> state = std::move(m_due.begin()->second);
        m_due.erase(m_due.begin());
        state->scheduled = false;
        if (state->executing)
          state->pendingRun = true;  // its worker queues it when the current run returns
        else
          enqueue(state);
      }

      uint64_t wakeAt = m_due.empty() ? now + kDispatcherMaxSleepMs : m_due.begin()->first;

      // Grow while every worker is busy: a long procedure must not hold up others.
      if (!m_ready.empty() && m_ready.size() > m_idleWorkers && m_workerCount < kMaxWorkers) {
        uint64_t growAt = m_ready.front().queuedMs + kGrowAfterMs;
        if (growAt <= now) {
          spawnWorker();
          m_ready.front().queuedMs = now;  // give the new worker time to take it
          growAt = now + kGrowAfterMs;
        }
        wakeAt = std::min(wakeAt, growAt);
      }
      for (WorkerRecord& worker : m_workers) {
        if (!worker.busy || worker.execTimeoutMs == 0 || worker.warned) continue;
        uint64_t deadline = worker.runStartMs + worker.execTimeoutMs;
        if (deadline <= now) {
          worker.warned = true;
          overruns.emplace_back(worker.timerName, worker.execTimeoutMs);
        } else {
          wakeAt = std::min(wakeAt, deadline);
        }
      }
      if (!overruns.empty()) {
        lock.unlock();
        for (const auto& [name, timeoutMs] : overruns)
          KLOG_WARN("timer \"%s\": procedure still running after its execution time-out of %u ms", name.c_str(),
                    timeoutMs);
        overruns.clear();
        lock.lock();
        continue;
      }
      m_dispatcherWake.wait_for(lock, std::chrono::milliseconds(wakeAt > now ? wakeAt - now : 1));
    }
  }

  void workerLoop(std::list<WorkerRecord>::iterator self) {
    nameThisThread("KanduTimerWork");
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      if (m_ready.empty()) {
        ++m_idleWorkers;
        bool gotWork = m_workAvailable.wait_for(lock, std::chrono::milliseconds(kIdleWorkerExitMs),
                                                [this] { return !m_ready.empty(); });
        --m_idleWorkers;
        if (!gotWork) {
          if (m_workerCount > kMinWorkers) {
            --m_workerCount;
            m_workers.erase(self);
            return;
          }
          continue;
        }
      }
      ReadyRun run = std::move(m_ready.front());
      m_ready.pop_front();
      TimerState& state = *run.state;
      if (state.generation != run.generation || !state.active) continue;  // stopped or restarted since
      if (state.executing) {
        state.pendingRun = true;
        continue;
      }
      runOnce(lock, run.state, *self);
    }
  }

  // Called and returns with `lock` held; releases it around the procedure.
  void runOnce(std::unique_lock<std::mutex>& lock, const std::shared_ptr<TimerState>& statePtr,
               WorkerRecord& self) {
    TimerState& state = *statePtr;
    const uint64_t generation = state.generation;
    const uint64_t startMs = monotonicMs();
    state.executing = true;
    state.executingThread = std::this_thread::get_id();
    ++state.runCount;
    self.busy = true;
    self.timerName = state.name;
    self.runStartMs = startMs;
    self.execTimeoutMs = state.execTimeoutMs;
    self.warned = false;
    if (self.execTimeoutMs != 0) m_dispatcherWake.notify_one();

    // The copy keeps the callable alive even if the procedure restarts or
    // destroys its own timer; it is released before the lock is taken again
    // because its captures may own objects whose destructors stop timers.
    {
      TimerProcedure procedure = state.procedure;
      CTimer* owner = state.owner;
      lock.unlock();
      procedure(owner);
    }
    lock.lock();

    self.busy = false;
    state.executing = false;
    state.executingThread = std::thread::id();
    TimerProcedure finished;
    if (state.generation == generation && state.active) {
      if (state.periodMs > 0) {
        schedule(statePtr, std::max(startMs + state.periodMs, monotonicMs()));
      } else {
        // A one-shot timer ends with its run and lets go of the procedure's
        // captures (often the last reference to the object owning the timer).
        state.active = false;
        std::swap(finished, state.procedure);
      }
    }
    if (state.pendingRun) {
      state.pendingRun = false;
      if (state.active) enqueue(statePtr);
    }
    runDone.notify_all();
    if (!finished.empty()) {
      lock.unlock();
      finished.clear();
      lock.lock();
    }
  }

  bool m_started = false;
  TimerState::DueMap m_due;
  std::deque<ReadyRun> m_ready;
  std::list<WorkerRecord> m_workers;  // one per worker thread; list keeps records in place
  uint32_t m_workerCount = 0;
  uint32_t m_idleWorkers = 0;
  std::condition_variable m_dispatcherWake;
  std::condition_variable m_workAvailable;
};

}  // namespace

CTimer::CTimer(std::string name) : m_name(std::move(name)), m_state(std::make_shared<detail::TimerState>()) {
  m_state->name = m_name;
  m_state->owner = this;
}

CTimer::~CTimer() {
  stop(true);  // also releases the procedure
  std::lock_guard<std::mutex> lock(TimerService::instance().mutex);
  m_state->owner = nullptr;
}

bool CTimer::start(TimerProcedure procedure, uint32_t delayMs, uint32_t periodMs, uintptr_t param,
                   uint32_t execTimeoutMs) {
  if (procedure.empty()) return false;
  stop(true);
  TimerService& service = TimerService::instance();
  TimerProcedure previous;
  {
    std::lock_guard<std::mutex> lock(service.mutex);
    service.ensureStarted();
    TimerState& state = *m_state;
    std::swap(previous, state.procedure);
    state.procedure = std::move(procedure);
    state.periodMs = periodMs;
    state.param = param;
    state.execTimeoutMs = execTimeoutMs;
    ++state.generation;
    state.active = true;
    state.pendingRun = false;
    service.schedule(m_state, monotonicMs() + delayMs);
  }
  return true;
}

void CTimer::stop(bool wait) {
  TimerService& service = TimerService::instance();
  TimerProcedure released;  // destroyed last, outside the service lock
  std::unique_lock<std::mutex> lock(service.mutex);
  TimerState& state = *m_state;
  ++state.generation;
  state.active = false;
  state.pendingRun = false;
  service.unschedule(state);
  // A running procedure works on its own copy, so the timer can let go of it now.
  std::swap(released, state.procedure);
  // From inside the procedure the run ends when the procedure returns; waiting
  // here would wait for ourselves.
  if (!wait || !state.executing || state.executingThread == std::this_thread::get_id()) return;
  const uint64_t run = state.runCount;
  service.runDone.wait(lock, [&state, run] { return !state.executing || state.runCount != run; });
}

bool CTimer::isRunning() const {
  std::lock_guard<std::mutex> lock(TimerService::instance().mutex);
  return m_state->active;
}

void CTimer::setPeriod(uint32_t periodMs) {
  std::lock_guard<std::mutex> lock(TimerService::instance().mutex);
  m_state->periodMs = periodMs;
}

uint32_t CTimer::period() const {
  std::lock_guard<std::mutex> lock(TimerService::instance().mutex);
  return m_state->periodMs;
}

uintptr_t CTimer::param() const {
  std::lock_guard<std::mutex> lock(TimerService::instance().mutex);
  return m_state->param;
}

uint32_t timerServiceWorkerCount() {
  TimerService& service = TimerService::instance();
  std::lock_guard<std::mutex> lock(service.mutex);
  return service.workerCount();
}

}  // namespace Velto::Kandu
