#include "AsyncEngine.h"

#include <cstdlib>

#include "KanduThread.h"

namespace Velto::Zarn {

namespace {
// A close procedure still running after this long is reported (it is not interrupted).
constexpr uint32_t kCloseExecTimeoutMs = 60000;
}  // namespace

CAsyncEngine::CAsyncEngine(CWorkQueue& queue, std::string closeTimerName)
    : m_queue(queue), m_closeTimer(std::move(closeTimerName)) {}

CAsyncEngine::~CAsyncEngine() {
  if (m_state.load() != kStopped) std::abort();  // the derived destructor did not stop runs
  m_closeTimer.stop(true);  // from its own procedure this does not wait
}

bool CAsyncEngine::submit() {
  if (m_closing.load()) return false;  // the close procedure owns the last submission
  int idle = kIdle;
  if (!m_state.compare_exchange_strong(idle, kBusy)) return false;
  if (m_queue.submit(this)) return true;
  m_state.store(kIdle);  // the queue is gone
  return false;
}

void CAsyncEngine::execute() {
  if (m_finalRun.load()) {
    // The last run: nothing of this engine may be touched once the self
    // reference is gone.
    passItemMutex();
    onFinalRun();
    releaseSelf();
    return;
  }
  const bool again = run();
  if (again && !m_closing.load() && m_queue.submit(this)) return;
  // Decided before going idle: on a queue that does not lock items, the engine
  // may be gone the moment it is idle, unless its owner keeps it alive.
  const bool recheck = (lockOnRun() && m_queue.locksItems()) || outlivesIdle();
  m_state.store(kIdle);
  if (recheck) onIdle();
}

bool CAsyncEngine::close(std::shared_ptr<CAsyncEngine> self) {
  bool expected = false;
  if (!m_closing.compare_exchange_strong(expected, true)) return false;
  m_self = std::move(self);
  m_closeTimer.start(Velto::Kandu::TimerProcedure(this, &CAsyncEngine::closeProc), 0, 0, 0, kCloseExecTimeoutMs);
  return true;
}

void CAsyncEngine::stopRuns() {
  m_closing.store(true);
  for (;;) {
    int state = m_state.load();
    if (state == kStopped) break;
    if (state == kIdle) {
      if (m_state.compare_exchange_strong(state, kStopped)) break;
      continue;
    }
    // Queued or executing: a queued run is taken back; an executing one holds
    // the item mutex on queues that lock items, so passing it waits for the run.
    if (m_queue.cancel(this)) m_state.store(kIdle);
    passItemMutex();
    Velto::Kandu::sleepMs(0);
  }
  passItemMutex();  // a run that just went idle may still be in onIdle()
}

bool CAsyncEngine::setBackgroundError(int32_t code) {
  int32_t none = 0;
  return code != 0 && m_backgroundError.compare_exchange_strong(none, code);
}

void CAsyncEngine::closeProc(Velto::Kandu::CTimer* /*timer*/) {
  stopRuns();
  {
    Velto::Kandu::CAutoLock run(itemMutex());
    onClose();
    m_closed.store(true);
  }
  setLockOnRun(false);
  m_finalRun.store(true);
  if (!m_queue.submit(this)) releaseSelf();  // no queue left to run the final step
}

void CAsyncEngine::releaseSelf() {
  std::shared_ptr<CAsyncEngine> self = std::move(m_self);  // may end this engine
}

}  // namespace Velto::Zarn
