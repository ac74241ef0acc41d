// Kandu threads.
//
// Both thread kinds carry a name (shown by the OS, truncated to 15 characters)
// and a looping flag: create() sets it and starts the thread, destroy() clears it
// and joins. The thread's procedure is expected to loop while isLooping() and
// to return promptly once it is cleared.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>  // kept for includers that rely on it

namespace Velto::Kandu {

namespace detail {
// A joinable OS thread with a name (at most 15 characters reach the OS) and an
// optional stack size. Like std::thread, but the stack size can be chosen.
class NativeThread {
 public:
  NativeThread() = default;
  ~NativeThread();  // aborts when still joinable
  NativeThread(const NativeThread&) = delete;
  NativeThread& operator=(const NativeThread&) = delete;

  // stackKb 0 takes the system default (sanitizer builds raise smaller stacks to
  // 1 MB: instrumented frames are larger). false when the OS refuses.
  bool start(const std::string& name, int stackKb, std::function<void()> body);
  void join();
  bool joinable() const { return m_joinable.load(std::memory_order_acquire); }
  // The body has returned (the thread may still be exiting; join() is then short).
  bool finished() const { return m_finished.load(std::memory_order_acquire); }
  // True when called on this thread.
  bool isCurrent() const;

 private:
  unsigned long m_handle = 0;  // pthread_t; valid while m_joinable
  std::atomic<bool> m_joinable{false};
  std::atomic<bool> m_finished{false};
};

// Starts `out` running `body` under `name` with the given stack size (0 = default).
bool startNamedThread(NativeThread& out, const std::string& name, int stackKb, std::function<void()> body);
}  // namespace detail

// Sleeps the calling thread; 0 yields.
void sleepMs(uint32_t ms);
uint64_t currentThreadId();
// Processors this process may run on (at least 1).
unsigned processorCount();
uint32_t currentProcessId();

// A thread running an overridden procedure. Derived classes must call destroy()
// in their own destructor: the base destructor cannot stop a procedure that
// uses the derived object's members, so it aborts if the procedure is still
// running (a procedure that has already returned is joined quietly).
class CThread {
 public:
  explicit CThread(std::string name);
  virtual ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // Starts the thread. stackKb (0 = default), priority and flags are accepted
  // for compatibility; only stackKb is honoured. false when already running or
  // the OS refuses.
  bool create(int stackKb = 0, int priority = 0, int flags = 0);
  // Clears the looping flag and joins. Safe to call when not running; must not
  // be called from the thread itself.
  void destroy();

  bool isLooping() const { return m_looping.load(std::memory_order_acquire); }
  bool isRunning() const { return m_thread.joinable(); }
  const std::string& name() const { return m_name; }

  static void sleep(uint32_t ms) { sleepMs(ms); }

 protected:
  virtual void threadProc() = 0;

 private:
  std::string m_name;
  std::atomic<bool> m_looping{false};
  detail::NativeThread m_thread;
};

// A thread running a given procedure; the procedure receives the thread so it
// can test isLooping().
class CThreadLite {
 public:
  using Procedure = std::function<void(CThreadLite&)>;

  CThreadLite(std::string name, Procedure procedure);
  ~CThreadLite();  // destroy()
  CThreadLite(const CThreadLite&) = delete;
  CThreadLite& operator=(const CThreadLite&) = delete;

  bool create(int stackKb = 0, int priority = 0, int flags = 0);
  void destroy();

  bool isLooping() const { return m_looping.load(std::memory_order_acquire); }
  bool isRunning() const { return m_thread.joinable(); }
  const std::string& name() const { return m_name; }

 private:
  std::string m_name;
  Procedure m_procedure;
  std::atomic<bool> m_looping{false};
  detail::NativeThread m_thread;
};

}  // namespace Velto::Kandu
