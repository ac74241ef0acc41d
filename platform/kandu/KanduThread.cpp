#include "KanduThread.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <type_traits>

namespace Velto::Kandu {

static_assert(std::is_same_v<pthread_t, unsigned long>, "NativeThread keeps a pthread_t as unsigned long");

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Instrumented code needs several times the stack of a normal build; the small
// stacks callers ask for (64 KB for worker threads) would overflow under a sanitizer.
constexpr size_t kMinStackBytes = 1024 * 1024;
#else
constexpr size_t kMinStackBytes = 0;
#endif

[[noreturn]] void fatal(const char* what, const std::string& name) {
  std::fprintf(stderr, "Kandu thread \"%s\": %s\n", name.c_str(), what);
  std::abort();
}

struct ThreadStart {
  std::string name;
  std::function<void()> body;
  std::atomic<bool>* finished;
};

void* threadMain(void* arg) {
  std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(arg));
  // The kernel keeps 15 characters and the terminator.
  std::string shortName = start->name.substr(0, 15);
  ::pthread_setname_np(::pthread_self(), shortName.c_str());
  start->body();
  start->finished->store(true, std::memory_order_release);
  return nullptr;
}

}  // namespace

namespace detail {

NativeThread::~NativeThread() {
  if (joinable()) fatal("destroyed while still joinable", "?");
}

bool NativeThread::start(const std::string& name, int stackKb, std::function<void()> body) {
  if (joinable()) return false;
  pthread_attr_t attr;
  if (::pthread_attr_init(&attr) != 0) return false;
  if (stackKb > 0) {
    size_t bytes = std::max<size_t>(static_cast<size_t>(stackKb) * 1024, kMinStackBytes);
    bytes = std::max<size_t>(bytes, static_cast<size_t>(PTHREAD_STACK_MIN));
    if (::pthread_attr_setstacksize(&attr, bytes) != 0) {
      ::pthread_attr_destroy(&attr);
      return false;
    }
  }
  m_finished.store(false, std::memory_order_relaxed);
  auto* package = new ThreadStart{name, std::move(body), &m_finished};
  pthread_t handle;
  int rc = ::pthread_create(&handle, &attr, &threadMain, package);
  ::pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete package;
    return false;
  }
  m_handle = handle;
  m_joinable.store(true, std::memory_order_release);
  return true;
}

void NativeThread::join() {
  if (!joinable()) return;
  if (isCurrent()) fatal("joined from its own thread", "?");
  ::pthread_join(static_cast<pthread_t>(m_handle), nullptr);
  m_joinable.store(false, std::memory_order_release);
}

bool NativeThread::isCurrent() const {
  return joinable() && ::pthread_equal(::pthread_self(), static_cast<pthread_t>(m_handle)) != 0;
}

bool startNamedThread(NativeThread& out, const std::string& name, int stackKb, std::function<void()> body) {
  return out.start(name, stackKb, std::move(body));
}

}  // namespace detail

void sleepMs(uint32_t ms) {
  if (ms == 0) {
    ::sched_yield();
    return;
  }
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(ms / 1000);
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

unsigned processorCount() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(0, sizeof(set), &set) == 0) return std::max(1, CPU_COUNT(&set));
  return std::max(1u, std::thread::hardware_concurrency());
}

uint64_t currentThreadId() { return static_cast<uint64_t>(::gettid()); }

uint32_t currentProcessId() { return static_cast<uint32_t>(::getpid()); }

CThread::CThread(std::string name) : m_name(std::move(name)) {}

CThread::~CThread() {
  if (m_thread.joinable()) {
    if (!m_thread.finished()) fatal("CThread destroyed while its procedure runs; call destroy() first", m_name);
    m_thread.join();
  }
}

bool CThread::create(int stackKb, int /*priority*/, int /*flags*/) {
  if (m_thread.joinable()) return false;
  m_looping.store(true, std::memory_order_release);
  if (!detail::startNamedThread(m_thread, m_name, stackKb, [this] { threadProc(); })) {
    m_looping.store(false, std::memory_order_release);
    return false;
  }
  return true;
}

void CThread::destroy() {
  m_looping.store(false, std::memory_order_release);
  if (m_thread.isCurrent()) fatal("destroy() called from the thread itself", m_name);
  m_thread.join();
}

CThreadLite::CThreadLite(std::string name, Procedure procedure)
    : m_name(std::move(name)), m_procedure(std::move(procedure)) {}

CThreadLite::~CThreadLite() { destroy(); }

bool CThreadLite::create(int stackKb, int /*priority*/, int /*flags*/) {
  if (m_thread.joinable() || !m_procedure) return false;
  m_looping.store(true, std::memory_order_release);
  if (!detail::startNamedThread(m_thread, m_name, stackKb, [this] { m_procedure(*this); })) {
    m_looping.store(false, std::memory_order_release);
    return false;
  }
  return true;
}

void CThreadLite::destroy() {
  m_looping.store(false, std::memory_order_release);
  if (m_thread.isCurrent()) fatal("destroy() called from the thread itself", m_name);
  m_thread.join();
}

}  // namespace Velto::Kandu
