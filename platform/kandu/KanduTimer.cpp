#include "KanduTimer.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <system_error>
#include <utility>
#include <vector>

#include "KanduLog.h"
#include "KanduTime.h"
#include "KanduTimerService.h"

namespace Velto::Kandu {

namespace detail {

namespace {

constexpr uint32_t kMinWorkers = 2;
constexpr uint32_t kMaxWorkers = 64;
constexpr uint32_t kIdleWorkerExitMs = 5000;   // surplus workers idle this long exit
// A due run that has waited this long with every worker busy gets a new worker.
// Growing on a short delay rather than at once keeps a burst of quick runs from
// inflating the pool, while a blocked procedure still delays others only briefly.
constexpr uint64_t kGrowAfterMs = 10;
constexpr uint64_t kDispatcherMaxSleepMs = 60000;
constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

thread_local const TimerService* t_runningService = nullptr;

void nameThisThread(const char* name) { ::pthread_setname_np(::pthread_self(), name); }

// Real time, for what concerns threads rather than the clock's timers.
uint64_t realMs() { return systemClock().monotonicMs(); }

}  // namespace

TimerService::TimerService(IClock& clock, bool manual) : m_clock(clock), m_manual(manual) {}

const TimerService* TimerService::current() { return t_runningService; }

void TimerService::ensureStarted() {
  if (m_started || m_shutdown) return;
  m_started = true;
  std::shared_ptr<TimerService> self = shared_from_this();
  try {
    std::thread([self] { self->dispatcherLoop(); }).detach();
    ++m_liveThreads;
  } catch (const std::system_error&) {
    std::fprintf(stderr, "Kandu timer service: cannot start the dispatcher thread\n");
    std::abort();  // no timer of the process could ever run
  }
  for (uint32_t i = 0; i < kMinWorkers; ++i) spawnWorker();
}

void TimerService::schedule(const std::shared_ptr<TimerState>& state, uint64_t dueMs) {
  unschedule(*state);
  state->dueEntry = m_due.emplace(dueMs, state);
  state->scheduled = true;
  if (state->dueEntry == m_due.begin()) m_dispatcherWake.notify_one();
}

void TimerService::unschedule(TimerState& state) {
  if (!state.scheduled) return;
  m_due.erase(state.dueEntry);
  state.scheduled = false;
}

uint64_t TimerService::firstDueMs() const { return m_due.empty() ? kNever : m_due.begin()->first; }

bool TimerService::quiet() const {
  return (m_due.empty() || m_due.begin()->first > nowMs()) && m_ready.empty() && m_executing == 0;
}

void TimerService::runDueRuns() {
  std::unique_lock<std::mutex> lock(mutex);
  m_dispatcherWake.notify_one();
  runDone.wait(lock, [this] { return quiet() || m_shutdown; });
}

void TimerService::shutdown() {
  std::unique_lock<std::mutex> lock(mutex);
  m_shutdown = true;
  m_ready.clear();
  m_dispatcherWake.notify_all();
  m_workAvailable.notify_all();
  m_threadsGone.wait(lock, [this] { return m_liveThreads == 0; });
}

void TimerService::threadEnded() {
  --m_liveThreads;
  m_threadsGone.notify_all();
}

// A refused thread leaves the pool as it was; the runs wait for a busy worker.
void TimerService::spawnWorker() {
  m_workers.emplace_back();
  auto record = std::prev(m_workers.end());
  std::shared_ptr<TimerService> self = shared_from_this();
  try {
    std::thread([self, record] { self->workerLoop(record); }).detach();
  } catch (const std::system_error&) {
    m_workers.erase(record);
    return;
  }
  ++m_workerCount;
  ++m_liveThreads;
}

void TimerService::enqueue(const std::shared_ptr<TimerState>& state) {
  m_ready.push_back(ReadyRun{state, state->generation, realMs()});
  m_workAvailable.notify_one();
  if (m_ready.size() == 1) m_dispatcherWake.notify_one();  // it watches the queue head's age
}

void TimerService::dispatcherLoop() {
  nameThisThread("KanduTimerDisp");
  std::unique_lock<std::mutex> lock(mutex);
  std::vector<std::pair<std::string, uint32_t>> overruns;
  while (!m_shutdown) {
    const uint64_t now = nowMs();
    while (!m_due.empty() && m_due.begin()->first <= now) {
      std::shared_ptr<TimerState> state = std::move(m_due.begin()->second);
      m_due.erase(m_due.begin());
      state->scheduled = false;
      if (state->executing)
        state->pendingRun = true;  // its worker queues it when the current run returns
      else
        enqueue(state);
    }

    // Both deadlines in real ms: the next due time (system clock only: a manual
    // clock wakes the dispatcher when it moves) and the thread-pool checks.
    const uint64_t real = realMs();
    uint64_t wakeAt = real + kDispatcherMaxSleepMs;
    if (!m_manual && !m_due.empty()) wakeAt = std::min(wakeAt, real + (m_due.begin()->first - now));
    bool realDeadline = false;

    // Grow while every worker is busy: a long procedure must not hold up others.
    if (!m_ready.empty() && m_ready.size() > m_idleWorkers && m_workerCount < kMaxWorkers) {
      uint64_t growAt = m_ready.front().queuedRealMs + kGrowAfterMs;
      if (growAt <= real) {
        spawnWorker();
        m_ready.front().queuedRealMs = real;  // give the new worker time to take it
        growAt = real + kGrowAfterMs;
      }
      wakeAt = std::min(wakeAt, growAt);
      realDeadline = true;
    }
    for (WorkerRecord& worker : m_workers) {
      if (!worker.busy || worker.execTimeoutMs == 0 || worker.warned) continue;
      uint64_t deadline = worker.runStartRealMs + worker.execTimeoutMs;
      if (deadline <= real) {
        worker.warned = true;
        overruns.emplace_back(worker.timerName, worker.execTimeoutMs);
      } else {
        wakeAt = std::min(wakeAt, deadline);
        realDeadline = true;
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
    if (m_manual && !realDeadline) {
      m_dispatcherWake.wait(lock);
    } else {
      m_dispatcherWake.wait_for(lock, std::chrono::milliseconds(wakeAt > real ? wakeAt - real : 1));
    }
  }
  threadEnded();
}

void TimerService::workerLoop(std::list<WorkerRecord>::iterator self) {
  nameThisThread("KanduTimerWork");
  std::unique_lock<std::mutex> lock(mutex);
  while (!m_shutdown) {
    if (m_ready.empty()) {
      ++m_idleWorkers;
      bool gotWork = m_workAvailable.wait_for(lock, std::chrono::milliseconds(kIdleWorkerExitMs),
                                              [this] { return !m_ready.empty() || m_shutdown; });
      --m_idleWorkers;
      if (m_shutdown) break;
      if (!gotWork) {
        if (m_workerCount > kMinWorkers) break;
        continue;
      }
    }
    ReadyRun run = std::move(m_ready.front());
    m_ready.pop_front();
    TimerState& state = *run.state;
    if (state.generation != run.generation || !state.active || state.executing) {
      // Stopped or restarted since it was queued, or still running its last run
      // (which queues it again when it returns).
      if (state.executing && state.generation == run.generation && state.active) state.pendingRun = true;
      runDone.notify_all();
      continue;
    }
    runOnce(lock, run.state, *self);
  }
  --m_workerCount;
  m_workers.erase(self);
  threadEnded();
}

// Called and returns with `lock` held; releases it around the procedure.
void TimerService::runOnce(std::unique_lock<std::mutex>& lock, const std::shared_ptr<TimerState>& statePtr,
                           WorkerRecord& self) {
  TimerState& state = *statePtr;
  const uint64_t generation = state.generation;
  const uint64_t startMs = nowMs();
  state.executing = true;
  state.executingThread = std::this_thread::get_id();
  ++state.runCount;
  ++m_executing;
  self.busy = true;
  self.timerName = state.name;
  self.runStartRealMs = realMs();
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
    t_runningService = this;
    procedure(owner);
    t_runningService = nullptr;
  }
  lock.lock();

  self.busy = false;
  state.executing = false;
  state.executingThread = std::thread::id();
  TimerProcedure finished;
  if (state.generation == generation && state.active) {
    if (state.periodMs > 0) {
      schedule(statePtr, std::max(startMs + state.periodMs, nowMs()));
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
  if (!finished.empty()) {
    lock.unlock();
    finished.clear();
    lock.lock();
  }
  // Counted until the captures are gone, so that an advance of a manual clock
  // returns only once what the run released has been released.
  --m_executing;
  runDone.notify_all();
}

}  // namespace detail

using detail::TimerService;
using detail::TimerState;

CTimer::CTimer(std::string name, IClock& clock)
    : m_name(std::move(name)), m_state(std::make_shared<TimerState>()) {
  m_state->name = m_name;
  m_state->owner = this;
  m_state->service = clock.timerService();
}

CTimer::~CTimer() {
  stop(true);  // also releases the procedure
  std::lock_guard<std::mutex> lock(m_state->service->mutex);
  m_state->owner = nullptr;
}

bool CTimer::start(TimerProcedure procedure, uint32_t delayMs, uint32_t periodMs, uintptr_t param,
                   uint32_t execTimeoutMs) {
  if (procedure.empty()) return false;
  stop(true);
  TimerService& service = *m_state->service;
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
    service.schedule(m_state, service.nowMs() + delayMs);
  }
  return true;
}

void CTimer::stop(bool wait) {
  TimerService& service = *m_state->service;
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
  std::lock_guard<std::mutex> lock(m_state->service->mutex);
  return m_state->active;
}

void CTimer::setPeriod(uint32_t periodMs) {
  std::lock_guard<std::mutex> lock(m_state->service->mutex);
  m_state->periodMs = periodMs;
}

uint32_t CTimer::period() const {
  std::lock_guard<std::mutex> lock(m_state->service->mutex);
  return m_state->periodMs;
}

uintptr_t CTimer::param() const {
  std::lock_guard<std::mutex> lock(m_state->service->mutex);
  return m_state->param;
}

uint32_t timerServiceWorkerCount(IClock& clock) {
  std::shared_ptr<TimerService> service = clock.timerService();
  std::lock_guard<std::mutex> lock(service->mutex);
  return service->workerCount();
}

}  // namespace Velto::Kandu
