// Kandu clocks: the one interface through which time is read.
//
// A clock has two faces and a timer service:
//   * the wall clock, UTC milliseconds since the epoch: what record times,
//     retention and "now" follow. It may jump (an operator sets the time).
//   * the monotonic clock, microseconds from an arbitrary start: what due
//     times of timers and durations are measured on. It never goes back.
//   * the timers started on the clock (CTimer), which fall due on its
//     monotonic time.
//
// Production code takes the clock it is given, the system clock unless a
// caller says otherwise. A test gives a CManualClock and moves it by hand:
// nothing then depends on how fast the machine is, and days of retention pass
// in microseconds.
//
// Real waits (a poll interval, a retry pause, a thread-pool's idle time-out)
// are not record time: they are measured on the system clock whatever clock a
// component was given, so that a manual clock that stands still never hangs a
// thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace Velto::Kandu {

namespace detail {
class TimerService;
}

class IClock {
 public:
  virtual ~IClock() = default;

  // Milliseconds since the epoch, UTC.
  virtual int64_t wallClockMs() const = 0;
  // Microseconds since an arbitrary start; never decreases.
  virtual uint64_t monotonicUs() const = 0;

  // Seconds since the epoch (floor, also before the epoch).
  int64_t wallClockSeconds() const;
  uint64_t monotonicMs() const { return monotonicUs() / 1000u; }

  // Kandu-internal: the service that runs the timers of this clock. Made on
  // first use; lives as long as the clock.
  virtual std::shared_ptr<detail::TimerService> timerService() = 0;
};

// The machine's clocks (CLOCK_REALTIME and CLOCK_MONOTONIC); never destroyed.
IClock& systemClock();

// A clock that moves only when told to. Both faces start where the caller
// says and move together under advance(); setWallClockMs() moves the wall
// face alone, as an operator's clock change does.
//
// advance() runs the timers of this clock that fall due on the way, in due
// order, each while the clock reads its due time (a periodic timer of one hour
// runs three times in an advance of three hours), on the timer service's
// threads as real timers do; it returns once every run that fell due has
// returned, so that a test may check the outcome right away. It must not be
// called from a timer procedure of the same clock (that is a programming error
// and aborts), and it waits for a procedure that blocks.
//
// Thread-safe. Destroy every CTimer started on the clock before the clock.
class CManualClock final : public IClock {
 public:
  explicit CManualClock(int64_t wallMs);
  ~CManualClock() override;
  CManualClock(const CManualClock&) = delete;
  CManualClock& operator=(const CManualClock&) = delete;

  int64_t wallClockMs() const override;
  uint64_t monotonicUs() const override;
  std::shared_ptr<detail::TimerService> timerService() override;

  void advance(uint64_t ms);
  void setWallClockMs(int64_t ms);

  // Milliseconds until the earliest timer of this clock falls due; -1 when
  // none is scheduled. Lets a test see that a timer is armed without running it.
  int64_t nextDueInMs() const;

 private:
  void moveTo(uint64_t monotonicUs);

  std::atomic<int64_t> m_wallUs;
  std::atomic<uint64_t> m_monotonicUs;
  std::mutex m_advanceMutex;  // one advance at a time
  std::shared_ptr<detail::TimerService> m_service;
};

}  // namespace Velto::Kandu
