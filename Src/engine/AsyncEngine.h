// CAsyncEngine: the lifecycle every asynchronous engine (stream writer, stream
// reader) and background worker shares.
//
// Ownership. An engine is held by shared_ptr. Its owner (the registry, a
// manager) keeps one reference; close(self) hands the engine another, which it
// keeps until its final run on its work queue: the last reference may end the
// engine there.
//
// Runs. submit() queues the engine on its work queue unless a run is queued or
// executing already (the idle state) or the engine is closing. execute() calls
// run(); a run that asks to go on is queued again at once, otherwise the engine
// goes idle and onIdle() may look for work that arrived meanwhile. A queue that
// locks items runs the engine under its item mutex.
//
// Close, asynchronous: close(self) refuses further submissions and starts the
// engine's own one-shot timer. The timer's procedure
//   1. stops runs: a queued run is taken out of the queue, an executing one is
//      waited for (cancel, pass the item mutex, yield), and the engine moves to
//      "stopped", from which nothing is queued any more;
//   2. calls onClose() holding the item mutex: the engine's last work (flush,
//      close its file). A host call that takes the item mutex waits for it and
//      then sees isClosed();
//   3. queues the final run, outside the item-mutex discipline. The final run
//      passes the item mutex (no worker still holds it), calls onFinalRun()
//      and lets go of the self reference.
// The final run exists so that the engine ends on a queue thread after every
// worker's touch of it is over, never under a worker that still holds its item
// mutex; without a queue to take it, the timer's procedure lets go instead.
//
// Destruction without close (a lost registration race, a process ending) is
// allowed: a derived destructor calls stopRuns() before it tears anything down.
//
// Background errors are sticky: the first failure a run records is kept and
// reported by every later call (backgroundError()).
//
// Lock order: work-queue mutex, then item mutex (a run may submit).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "KanduTimer.h"
#include "WorkQueue.h"

namespace Velto::Zarn {

class CAsyncEngine : public CWorkItem {
 public:
  CAsyncEngine(CWorkQueue& queue, std::string closeTimerName);
  // A derived destructor must have called stopRuns() (a programming error
  // otherwise: the run would use a half-destroyed engine, so it aborts).
  ~CAsyncEngine() override;

  void execute() final;

  // Queues a run unless one is queued or executing, or the engine is closing.
  // true when a run was queued by this call.
  bool submit();

  // Starts the asynchronous close, keeping `self` (the owner's reference) until
  // the final run. false (and nothing done) when a close was asked for already.
  bool close(std::shared_ptr<CAsyncEngine> self);

  bool isClosing() const { return m_closing.load(); }
  // onClose() has run.
  bool isClosed() const { return m_closed.load(); }
  // No run queued or executing (for tests and destructors).
  bool isIdle() const { return m_state.load() != kBusy; }

  // The first error recorded, 0 while none.
  int32_t backgroundError() const { return m_backgroundError.load(); }

 protected:
  // One step of the engine's work; true to be run again at once.
  virtual bool run() = 0;
  // After a run went idle, on the same worker: on queues that lock items
  // (the item mutex keeps the engine alive for it), or when outlivesIdle().
  // A submission that came while the run was ending found the engine busy and
  // queued nothing; this is where such work is noticed.
  virtual void onIdle() {}
  // The owner keeps the engine alive until stopRuns() has returned, so it may
  // be touched after going idle on any queue.
  virtual bool outlivesIdle() const { return false; }
  // The engine's last work, on the close timer's thread, holding the item mutex.
  virtual void onClose() {}
  // In the final run, before the self reference goes.
  virtual void onFinalRun() {}

  // Records `code` (non-zero) unless an error is recorded already; true when
  // this call recorded it.
  bool setBackgroundError(int32_t code);

  // Refuses further submissions, takes a queued run out of the queue, waits for
  // an executing one, and leaves the engine stopped. Idempotent. Must not be
  // called from a run of this engine.
  void stopRuns();

  CWorkQueue& queue() const { return m_queue; }

 private:
  enum State : int { kIdle = 0, kBusy = 1, kStopped = 2 };

  void closeProc(Velto::Kandu::CTimer* timer);
  void releaseSelf();

  CWorkQueue& m_queue;
  std::atomic<int> m_state{kIdle};
  std::atomic<bool> m_closing{false};  // no submissions any more
  std::atomic<bool> m_closed{false};   // onClose() has run
  std::atomic<bool> m_finalRun{false}; // the next run is the final one
  std::atomic<int32_t> m_backgroundError{0};
  std::shared_ptr<CAsyncEngine> m_self;  // held while closing
  Velto::Kandu::CTimer m_closeTimer;     // last member: stopped first
};

}  // namespace Velto::Zarn
