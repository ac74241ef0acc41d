// Kandu synchronisation primitives.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

namespace Velto::Kandu {

// Recursive mutex: the owning thread may enter again (callers written against
// this runtime rely on that).
class CMutex {
 public:
  CMutex() = default;
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;
  void lock() { m_mutex.lock(); }
  void unlock() { m_mutex.unlock(); }
  bool tryLock() { return m_mutex.try_lock(); }
  // std::lock_guard / unique_lock compatibility.
  bool try_lock() { return tryLock(); }

 private:
  std::recursive_mutex m_mutex;
};

// RAII holder for CMutex.
class CAutoLock {
 public:
  explicit CAutoLock(CMutex& m) : m_mutex(m) { m_mutex.lock(); }
  ~CAutoLock() { m_mutex.unlock(); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CMutex& m_mutex;
};

// Many readers or one writer. Not recursive.
class CReadWriteMutex {
 public:
  void lockRead() { m_mutex.lock_shared(); }
  void unlockRead() { m_mutex.unlock_shared(); }
  void lockWrite() { m_mutex.lock(); }
  void unlockWrite() { m_mutex.unlock(); }
  bool tryLockWrite() { return m_mutex.try_lock(); }

 private:
  std::shared_mutex m_mutex;
};

class CReadLock {
 public:
  explicit CReadLock(CReadWriteMutex& m) : m_mutex(m) { m_mutex.lockRead(); }
  ~CReadLock() { m_mutex.unlockRead(); }
  CReadLock(const CReadLock&) = delete;
  CReadLock& operator=(const CReadLock&) = delete;

 private:
  CReadWriteMutex& m_mutex;
};

class CWriteLock {
 public:
  explicit CWriteLock(CReadWriteMutex& m) : m_mutex(m) { m_mutex.lockWrite(); }
  ~CWriteLock() { m_mutex.unlockWrite(); }
  CWriteLock(const CWriteLock&) = delete;
  CWriteLock& operator=(const CWriteLock&) = delete;

 private:
  CReadWriteMutex& m_mutex;
};

// Condition variable over a CMutex that the waiter holds exactly once.
class CCondition {
 public:
  CCondition() = default;
  CCondition(const CCondition&) = delete;
  CCondition& operator=(const CCondition&) = delete;

  // Releases `mutex`, waits until notified or timeoutMs have passed, and holds
  // `mutex` again on return. Wake-ups may be spurious: callers re-test their state.
  void wait(CMutex& mutex, uint32_t timeoutMs);
  void notifyOne() { m_cond.notify_one(); }
  void notifyAll() { m_cond.notify_all(); }

 private:
  std::condition_variable_any m_cond;
};

// Counting semaphore.
class CSemaphore {
 public:
  static constexpr uint32_t kInfinite = 0xFFFFFFFFu;

  explicit CSemaphore(uint32_t initial = 0) : m_count(initial) {}
  CSemaphore(const CSemaphore&) = delete;
  CSemaphore& operator=(const CSemaphore&) = delete;

  void post();
  // Takes one count, waiting at most timeoutMs (kInfinite: no limit).
  // 0 when taken, -1 on time-out.
  int pend(uint32_t timeoutMs = kInfinite);

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  uint64_t m_count;  // guarded by m_mutex
};

}  // namespace Velto::Kandu
