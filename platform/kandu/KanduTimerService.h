// Kandu-internal: the timer service behind every CTimer of one clock.
//
// One dispatcher thread and a pool of workers per clock (the system clock's
// service is made on first use and never ends; a manual clock's ends with the
// clock):
//
//   start()      --> due map (due ms on the clock's monotonic face -> state)
//   dispatcher   --> moves due entries to the ready queue, watches execution
//                    time-outs of running procedures, grows the pool
//   workers      --> take ready runs, call the procedure, reschedule periodic
//                    timers (next due = run start + period, or now if that passed)
//
// Every start() and stop() bumps the timer's generation; a ready run carries the
// generation it was queued under and is dropped when they differ, so cancellation
// never has to search the ready queue. A timer has at most one due-map entry, and
// its state remembers the entry's iterator so stop() erases it directly: stopped
// timers leave nothing behind in the service.
//
// Due times are on the clock; execution time-outs, pool growth and idle workers
// are real time (the system clock), because they are about threads, not about
// the time the timers keep.
//
// Lifetime: CTimer owns its TimerState through a shared_ptr; the service holds
// further references only while the timer is scheduled, queued or running. The
// CTimer* handed to the procedure is taken under the service lock at run start,
// and ~CTimer waits for a running procedure (unless it is that procedure's own
// thread), so the pointer is valid for the call. After ~CTimer returns the
// service touches only the state, never the CTimer. Threads hold the service by
// shared_ptr, so shutdown() can wait for them to leave without freeing memory
// they still run in.
//
// Lock: one service mutex guards the due map, the ready queue, the worker records
// and every field of every TimerState. Procedures are called, the procedure copy
// destroyed and warnings logged without it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "KanduClock.h"
#include "KanduTimer.h"

namespace Velto::Kandu::detail {

struct TimerState {
  using DueMap = std::multimap<uint64_t, std::shared_ptr<TimerState>>;

  std::string name;
  CTimer* owner = nullptr;  // null once ~CTimer has run
  std::shared_ptr<TimerService> service;
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

class TimerService : public std::enable_shared_from_this<TimerService> {
 public:
  // `manual`: the clock moves only when told (CManualClock), so the dispatcher
  // sleeps until it is woken instead of until the next due time.
  TimerService(IClock& clock, bool manual);
  TimerService(const TimerService&) = delete;
  TimerService& operator=(const TimerService&) = delete;

  std::mutex mutex;
  std::condition_variable runDone;  // a run returned (or a ready run was dropped)

  // Called with `mutex` held.
  void ensureStarted();
  void schedule(const std::shared_ptr<TimerState>& state, uint64_t dueMs);
  void unschedule(TimerState& state);
  uint64_t nowMs() const { return m_clock.monotonicMs(); }
  uint32_t workerCount() const { return m_workerCount; }
  // The earliest due time, or UINT64_MAX without any.
  uint64_t firstDueMs() const;

  // Manual clocks: the clock has moved. Wakes the dispatcher and returns once
  // nothing is due at the clock's time, queued or running. Takes `mutex`.
  void runDueRuns();
  // Stops the threads and waits for them to leave. Timers started afterwards
  // never run. Takes `mutex`.
  void shutdown();
  // The service whose procedure the calling thread is running, if any.
  static const TimerService* current();

 private:
  struct ReadyRun {
    std::shared_ptr<TimerState> state;
    uint64_t generation;
    uint64_t queuedRealMs;  // real time the run was handed to the pool
  };
  // What the dispatcher needs to know about a worker's current run.
  struct WorkerRecord {
    bool busy = false;
    std::string timerName;
    uint64_t runStartRealMs = 0;
    uint32_t execTimeoutMs = 0;
    bool warned = false;
  };

  void spawnWorker();
  void enqueue(const std::shared_ptr<TimerState>& state);
  bool quiet() const;
  void threadEnded();
  void dispatcherLoop();
  void workerLoop(std::list<WorkerRecord>::iterator self);
  void runOnce(std::unique_lock<std::mutex>& lock, const std::shared_ptr<TimerState>& statePtr, WorkerRecord& self);

  IClock& m_clock;
  const bool m_manual;
  bool m_started = false;
  bool m_shutdown = false;
  uint32_t m_liveThreads = 0;
  std::condition_variable m_threadsGone;
  TimerState::DueMap m_due;
  std::deque<ReadyRun> m_ready;
  std::list<WorkerRecord> m_workers;  // one per worker thread; list keeps records in place
  uint32_t m_workerCount = 0;
  uint32_t m_idleWorkers = 0;
  uint32_t m_executing = 0;
  std::condition_variable m_dispatcherWake;
  std::condition_variable m_workAvailable;
};

}  // namespace Velto::Kandu::detail
