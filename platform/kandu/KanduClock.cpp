#include "KanduClock.h"

#include <time.h>

#include <cstdlib>

#include "KanduTimerService.h"

namespace Velto::Kandu {

namespace {

// Floor division, so that times before the epoch fall into the right second.
int64_t floorDiv(int64_t value, int64_t divisor) {
  int64_t q = value / divisor;
  return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? q - 1 : q;
}

class CSystemClock final : public IClock {
 public:
  int64_t wallClockMs() const override {
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  }
  uint64_t monotonicUs() const override {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
  }
  std::shared_ptr<detail::TimerService> timerService() override {
    std::call_once(m_once, [this] { m_service = std::make_shared<detail::TimerService>(*this, false); });
    return m_service;
  }

 private:
  std::once_flag m_once;
  std::shared_ptr<detail::TimerService> m_service;
};

// A manual clock's monotonic face starts here rather than at 0, so that
// "now minus a period" never wraps in code that subtracts.
constexpr uint64_t kManualMonotonicStartUs = 1000000000000ull;  // about 11.6 days

}  // namespace

int64_t IClock::wallClockSeconds() const { return floorDiv(wallClockMs(), 1000); }

IClock& systemClock() {
  // Deliberately leaked: timers with static storage duration stop during
  // static destruction and still need the clock and its service.
  static CSystemClock* clock = new CSystemClock();
  return *clock;
}

CManualClock::CManualClock(int64_t wallMs)
    : m_wallUs(wallMs * 1000), m_monotonicUs(kManualMonotonicStartUs),
      m_service(std::make_shared<detail::TimerService>(*this, true)) {}

CManualClock::~CManualClock() { m_service->shutdown(); }

int64_t CManualClock::wallClockMs() const { return m_wallUs.load() / 1000; }

uint64_t CManualClock::monotonicUs() const { return m_monotonicUs.load(); }

std::shared_ptr<detail::TimerService> CManualClock::timerService() { return m_service; }

void CManualClock::moveTo(uint64_t monotonicUs) {
  const uint64_t from = m_monotonicUs.load();
  if (monotonicUs <= from) return;
  m_wallUs.fetch_add(static_cast<int64_t>(monotonicUs - from));
  m_monotonicUs.store(monotonicUs);
}

void CManualClock::advance(uint64_t ms) {
  // A procedure of this clock waiting for the runs of this clock would wait for itself.
  if (detail::TimerService::current() == m_service.get()) std::abort();
  std::lock_guard<std::mutex> guard(m_advanceMutex);
  const uint64_t target = m_monotonicUs.load() + ms * 1000u;
  for (;;) {
    uint64_t dueMs;
    {
      std::lock_guard<std::mutex> lock(m_service->mutex);
      dueMs = m_service->firstDueMs();
    }
    // Step to the next due time on the way (runs started by a run are picked
    // up in the next round), or to the target once nothing is due before it.
    const bool stepToDue = dueMs <= target / 1000u;
    moveTo(stepToDue ? dueMs * 1000u : target);
    m_service->runDueRuns();
    if (!stepToDue) return;
  }
}

void CManualClock::setWallClockMs(int64_t ms) { m_wallUs.store(ms * 1000); }

int64_t CManualClock::nextDueInMs() const {
  std::lock_guard<std::mutex> lock(m_service->mutex);
  const uint64_t due = m_service->firstDueMs();
  if (due == UINT64_MAX) return -1;
  const uint64_t now = m_service->nowMs();
  return due > now ? static_cast<int64_t>(due - now) : 0;
}

}  // namespace Velto::Kandu
