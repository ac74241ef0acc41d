// Kandu timers.
//
// A CTimer is a named schedule on a clock: a first delay, a period (0 =
// one-shot), a parameter and an execution time-out. Delays and periods are
// milliseconds of the clock's monotonic face (KanduClock.h): on the system
// clock they are real time, on a manual clock they pass when a test moves it.
// Timers do not own threads: every timer of a clock is kept by that clock's
// timer service, a dispatcher thread plus a small pool of worker threads that
// grows while procedures are busy and shrinks when they are idle. Thousands of
// idle or stopped timers cost memory only.
//
// Guarantees:
//   * One timer's procedure never runs concurrently with itself.
//   * A periodic timer's next run is due `period` ms after the start of the run
//     that just ended (or at once when that is already past): runs never overlap
//     and never queue up. The procedure may change the period with setPeriod();
//     the change applies to the next scheduling.
//   * stop() cancels future runs and, with wait, blocks until a running
//     procedure has returned. Called from inside the procedure it does not wait
//     (it cannot deadlock) and the timer ends when the procedure returns.
//   * A procedure that runs longer than its execution time-out (real time) is
//     reported with a warning naming the timer; it is not interrupted.
//   * isRunning() is true from start() until a one-shot run has returned or the
//     timer has been stopped.
//   * Destroying a CTimer stops it and waits, except on the timer's own thread:
//     a procedure may release the object that owns its timer. The service never
//     touches a CTimer after its destructor has returned.
//   * A stopped timer, or a one-shot timer whose run has returned, no longer
//     holds its procedure: what the procedure captured is released then.
//   * The procedure receives the timer (param() gives the parameter). It runs on
//     one of the service's worker threads; a procedure that blocks makes the
//     pool grow after a short while, so other timers are delayed only briefly.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KanduClock.h"
#include "ZarnMediaClient.h"  // TFunction1

namespace Velto::Kandu {

class CTimer;
using TimerProcedure = TFunction1<void, CTimer*>;

namespace detail {
struct TimerState;
}

class CTimer {
 public:
  // The timer keeps `clock` (which must outlive it).
  explicit CTimer(std::string name, IClock& clock = systemClock());
  ~CTimer();
  CTimer(const CTimer&) = delete;
  CTimer& operator=(const CTimer&) = delete;

  // (Re)starts the timer: first run after delayMs, then every periodMs (0 =
  // one-shot). A running timer is stopped first (waiting for a running
  // procedure unless called from it); a restart from inside the procedure runs
  // again only after the current run has returned. execTimeoutMs 0 means no
  // limit. false (and nothing scheduled) for an empty procedure.
  bool start(TimerProcedure procedure, uint32_t delayMs, uint32_t periodMs = 0, uintptr_t param = 0,
             uint32_t execTimeoutMs = 0);
  void stop(bool wait = true);
  bool isRunning() const;

  void setPeriod(uint32_t periodMs);
  uint32_t period() const;
  uintptr_t param() const;
  const std::string& name() const { return m_name; }

 private:
  std::string m_name;
  std::shared_ptr<detail::TimerState> m_state;
};

// Number of worker threads the clock's timer service has now (for tests and diagnostics).
uint32_t timerServiceWorkerCount(IClock& clock = systemClock());

}  // namespace Velto::Kandu
