#include "DeadlineBackend.h"

#include <cstring>
#include <utility>
#include <vector>

#include "ZarnError.h"

namespace Velto::Zarn {

struct CDeadlineBackend::Link {
  Link(CStoreCallPool& p, std::shared_ptr<IStoreBackend> t) : pool(p), target(std::move(t)) {}
  CStoreCallPool& pool;
  const std::shared_ptr<IStoreBackend> target;
  std::atomic<uint32_t> timeoutMs{kDefaultTimeoutMs};
};

namespace {

using Link = CDeadlineBackend::Link;

// A call whose work is a function of its own result slot `Out`: the slot
// belongs to the call, so a worker that finishes late writes into it and not
// into the caller's memory.
template <class Out, class Fn>
class CSlotCall : public CStoreCall {
 public:
  explicit CSlotCall(Fn fn) : m_fn(std::move(fn)) {}
  int64_t body() override { return m_fn(slot); }
  Out slot{};

 private:
  Fn m_fn;
};

// Runs fn(slot) on the pool; moves the slot to `out` when the call succeeded in time.
template <class Out, class Fn>
int runWithSlot(Link& link, Out& out, Fn fn) {
  auto call = std::make_shared<CSlotCall<Out, Fn>>(std::move(fn));
  int64_t rc = link.pool.run(call, link.timeoutMs.load(std::memory_order_relaxed));
  if (rc == 0) out = std::move(call->slot);
  return static_cast<int>(rc);
}

struct NoSlot {};

template <class Fn>
int runPlain(Link& link, Fn fn) {
  NoSlot none;
  return runWithSlot(link, none, [fn = std::move(fn)](NoSlot&) { return static_cast<int64_t>(fn()); });
}

// Drops what `held` keeps alive on a worker, waiting within the time-out:
// the last reference to a mount unmounts, which waits for the store.
template <class T>
void releaseOnWorker(CStoreCallPool& pool, std::shared_ptr<T> held, uint32_t timeoutMs) {
  class CRelease : public CStoreCall {
   public:
    explicit CRelease(std::shared_ptr<T> h) : m_held(std::move(h)) {}
    int64_t body() override {
      m_held.reset();
      return 0;
    }

   private:
    std::shared_ptr<T> m_held;
  };
  pool.release(std::make_shared<CRelease>(std::move(held)), timeoutMs);
}

// ---------------------------------------------------------------------------
// File handles.

// What a guarded handle shares with its calls. The target is used by one
// call at a time: the caller's, or once a call was abandoned, that call's
// worker, until it returns.
struct FileCore {
  enum Phase { kUsable, kAbandonedRunning, kAbandonedEnded };

  FileCore(std::shared_ptr<Link> l, std::unique_ptr<IStoreFile> t) : link(std::move(l)), target(std::move(t)) {}

  uint32_t timeout() const {
    uint32_t own = timeoutMs.load(std::memory_order_relaxed);
    return own != 0 ? own : link->timeoutMs.load(std::memory_order_relaxed);
  }

  // The code a stuck handle answers every call with; 0 while usable.
  int stuckCode() {
    std::lock_guard<std::mutex> lock(mutex);
    return phase == kUsable ? 0 : (phase == kAbandonedRunning ? ZARN_E_TIMEOUT : ZARN_E_IO);
  }

  // The caller gave up on a call that had started. Its worker may have
  // returned already (phase then says so and stays).
  void noteAbandoned() {
    std::lock_guard<std::mutex> lock(mutex);
    if (phase == kUsable) phase = kAbandonedRunning;
  }

  // On the worker, after an abandoned call returned: the close asked for
  // meanwhile happens now.
  void abandonedCallEnded() {
    bool closeNow;
    {
      std::lock_guard<std::mutex> lock(mutex);
      phase = kAbandonedEnded;
      closeNow = closeWanted;
      closeWanted = false;
    }
    if (closeNow) (void)target->close();  // nobody is left to hear the result
  }

  const std::shared_ptr<Link> link;
  const std::unique_ptr<IStoreFile> target;
  std::atomic<uint32_t> timeoutMs{0};  // 0: the connection's
  std::mutex mutex;
  Phase phase = kUsable;     // guarded by mutex
  bool closeWanted = false;  // guarded by mutex
};

class CFileCall : public CStoreCall {
 public:
  explicit CFileCall(std::shared_ptr<FileCore> core) : m_core(std::move(core)) {}
  void abandoned(int64_t) override { m_core->abandonedCallEnded(); }

 protected:
  IStoreFile& file() { return *m_core->target; }

 private:
  std::shared_ptr<FileCore> m_core;
};

template <class Fn>
class CFileFnCall : public CFileCall {
 public:
  CFileFnCall(std::shared_ptr<FileCore> core, Fn fn) : CFileCall(std::move(core)), m_fn(std::move(fn)) {}
  int64_t body() override { return m_fn(file()); }

 private:
  Fn m_fn;
};

class CGuardedFile : public IStoreFile {
 public:
  CGuardedFile(std::shared_ptr<Link> link, std::unique_ptr<IStoreFile> target)
      : m_core(std::make_shared<FileCore>(std::move(link), std::move(target))) {}

  ~CGuardedFile() override {
    if (m_closeDone) return;  // closed, or closing on a worker: nothing left here that can block
    {
      std::lock_guard<std::mutex> lock(m_core->mutex);
      if (m_core->phase == FileCore::kAbandonedRunning) {
        m_core->closeWanted = true;  // the worker closes it
        return;
      }
    }
    // Dropped without close(): the target's destructor closes it, which may
    // wait for the store.
    const uint32_t timeout = m_core->timeout();
    CStoreCallPool& pool = m_core->link->pool;
    releaseOnWorker(pool, std::move(m_core), timeout);
  }

  int64_t read(void* buffer, uint32_t length) override {
    // The bytes land in the call's buffer; the caller's is filled only when
    // the read completed in time.
    std::shared_ptr<uint8_t[]> bytes(new uint8_t[length == 0 ? 1 : length]);
    int64_t n = run([bytes, length](IStoreFile& f) { return f.read(bytes.get(), length); });
    if (n > 0) std::memcpy(buffer, bytes.get(), static_cast<size_t>(n));
    return n;
  }

  int64_t write(const void* buffer, uint32_t length) override {
    std::shared_ptr<uint8_t[]> bytes(new uint8_t[length == 0 ? 1 : length]);
    std::memcpy(bytes.get(), buffer, length);
    return run([bytes, length](IStoreFile& f) { return f.write(bytes.get(), length); });
  }

  int64_t writeGather(const StoreSlice* slices, uint32_t count) override {
    // One copy of all the slices and one hop for the whole gather; the call
    // hands the target the copy's slices.
    size_t total = 0;
    for (uint32_t i = 0; i < count; ++i) total += slices[i].length;
    std::shared_ptr<uint8_t[]> bytes(new uint8_t[total == 0 ? 1 : total]);
    auto copies = std::make_shared<std::vector<StoreSlice>>(count);
    size_t at = 0;
    for (uint32_t i = 0; i < count; ++i) {
      std::memcpy(bytes.get() + at, slices[i].data, slices[i].length);
      (*copies)[i] = StoreSlice{bytes.get() + at, slices[i].length};
      at += slices[i].length;
    }
    return run([bytes, copies](IStoreFile& f) {
      return f.writeGather(copies->data(), static_cast<uint32_t>(copies->size()));
    });
  }

  int64_t seek(int64_t offset, int origin) override {
    return run([offset, origin](IStoreFile& f) { return f.seek(offset, origin); });
  }

  int64_t tell() override {
    return run([](IStoreFile& f) { return f.tell(); });
  }

  int stat(StoreFileStat& out) override {
    auto st = std::make_shared<StoreFileStat>();
    int64_t rc = run([st](IStoreFile& f) { return static_cast<int64_t>(f.stat(*st)); });
    if (rc == 0) out = *st;
    return static_cast<int>(rc);
  }

  int close() override {
    if (m_closed) return ZARN_E_BAD_MODE;
    m_closed = true;
    int stuck;
    {
      std::lock_guard<std::mutex> lock(m_core->mutex);
      if (m_core->phase == FileCore::kAbandonedRunning) {
        m_core->closeWanted = true;  // the worker closes it when the stuck call returns
        m_closeDone = true;
        return ZARN_E_TIMEOUT;
      }
      stuck = m_core->phase == FileCore::kAbandonedEnded ? ZARN_E_IO : 0;
    }
    // After an abandoned call the close still releases the handle, and still
    // reports that what was written is unknown. A close that never started
    // (time-out in the queue, pool exhausted) leaves the release to the
    // destructor, off this thread.
    CStoreCallPool::Outcome how = CStoreCallPool::kCompleted;
    int rc = static_cast<int>(call([](IStoreFile& f) { return static_cast<int64_t>(f.close()); }, &how));
    m_closeDone = how == CStoreCallPool::kCompleted || how == CStoreCallPool::kAbandoned;
    return stuck != 0 ? stuck : rc;
  }

  void setCallTimeout(uint32_t ms) override { m_core->timeoutMs.store(ms, std::memory_order_relaxed); }

 private:
  // A call on a handle that is not stuck.
  template <class Fn>
  int64_t run(Fn fn) {
    if (m_closed) return ZARN_E_BAD_MODE;
    if (int stuck = m_core->stuckCode(); stuck != 0) return stuck;
    return call(std::move(fn));
  }

  template <class Fn>
  int64_t call(Fn fn, CStoreCallPool::Outcome* outcome = nullptr) {
    auto c = std::make_shared<CFileFnCall<Fn>>(m_core, std::move(fn));
    CStoreCallPool::Outcome how = CStoreCallPool::kCompleted;
    int64_t rc = m_core->link->pool.run(c, m_core->timeout(), &how);
    if (how == CStoreCallPool::kAbandoned) m_core->noteAbandoned();
    if (outcome != nullptr) *outcome = how;
    return rc;
  }

  std::shared_ptr<FileCore> m_core;
  bool m_closed = false;     // close() was called: later calls are refused
  bool m_closeDone = false;  // the target was closed, or will be by a worker
};

// A create or open: the handle lands in the call; one that arrives after the
// caller gave up is closed on the worker.
template <class Fn>
class COpenCall : public CStoreCall {
 public:
  explicit COpenCall(Fn fn) : m_fn(std::move(fn)) {}
  int64_t body() override { return m_fn(handle); }
  void abandoned(int64_t result) override {
    if (result == 0 && handle) (void)handle->close();
    handle.reset();
  }
  std::unique_ptr<IStoreFile> handle;

 private:
  Fn m_fn;
};

}  // namespace

// The health probe; `ended` lets a later probe see that it still hangs.
class CDeadlineBackend::CProbeCall : public CStoreCall {
 public:
  explicit CProbeCall(std::shared_ptr<IStoreBackend> target) : m_target(std::move(target)) {}
  int64_t body() override {
    int rc = m_target->probeHealth();
    ended.store(true);
    return rc;
  }
  std::atomic<bool> ended{false};

 private:
  std::shared_ptr<IStoreBackend> m_target;
};

// ---------------------------------------------------------------------------
// The backend.

CDeadlineBackend::CDeadlineBackend(std::shared_ptr<IStoreBackend> target, CStoreCallPool& pool)
    : m_link(std::make_shared<Link>(pool, std::move(target))) {}

// The target goes on this thread when nothing else holds it: its unmount has
// a time-out of its own, and an unmount abandoned by a process about to exit
// leaves a session that other clients wait for until the cluster drops it.
CDeadlineBackend::~CDeadlineBackend() = default;

IStoreBackend* CDeadlineBackend::target() const { return m_link->target.get(); }

void CDeadlineBackend::setCallTimeout(uint32_t ms) {
  m_link->timeoutMs.store(ms == 0 ? kDefaultTimeoutMs : ms);
  m_link->target->setCallTimeout(ms);
}

int CDeadlineBackend::connect(const Config& config) { return m_link->target->connect(config); }

void CDeadlineBackend::disconnect() { m_link->target->disconnect(); }

int CDeadlineBackend::probeHealth() {
  {
    std::lock_guard<std::mutex> lock(m_probeMutex);
    if (m_probe && !m_probe->ended.load()) return ZARN_E_TIMEOUT;
    m_probe.reset();
  }
  auto call = std::make_shared<CProbeCall>(m_link->target);
  CStoreCallPool::Outcome how = CStoreCallPool::kCompleted;
  int rc = static_cast<int>(m_link->pool.run(call, m_link->timeoutMs.load(), &how));
  if (how == CStoreCallPool::kAbandoned) {
    std::lock_guard<std::mutex> lock(m_probeMutex);
    m_probe = call;
  }
  return rc;
}

int CDeadlineBackend::capacity(StoreCapacity& out) {
  return runWithSlot(*m_link, out, [t = m_link->target](StoreCapacity& slot) {
    return static_cast<int64_t>(t->capacity(slot));
  });
}

int CDeadlineBackend::setCapacityLimit(uint64_t bytes) {
  return runPlain(*m_link, [t = m_link->target, bytes] { return t->setCapacityLimit(bytes); });
}

int CDeadlineBackend::createBucket(const std::string& b) {
  return runPlain(*m_link, [t = m_link->target, b] { return t->createBucket(b); });
}

int CDeadlineBackend::removeBucket(const std::string& b) {
  return runPlain(*m_link, [t = m_link->target, b] { return t->removeBucket(b); });
}

int CDeadlineBackend::bucketExists(const std::string& b) {
  return runPlain(*m_link, [t = m_link->target, b] { return t->bucketExists(b); });
}

int CDeadlineBackend::listBuckets(std::vector<std::string>& out) {
  return runWithSlot(*m_link, out, [t = m_link->target](std::vector<std::string>& slot) {
    return static_cast<int64_t>(t->listBuckets(slot));
  });
}

int CDeadlineBackend::bucketUsedBytes(const std::string& b, uint64_t& out) {
  return runWithSlot(*m_link, out, [t = m_link->target, b](uint64_t& slot) {
    return static_cast<int64_t>(t->bucketUsedBytes(b, slot));
  });
}

int CDeadlineBackend::list(const std::string& b, const std::string& after, const std::string& upTo,
                           uint32_t maxCount, std::vector<StoreEntry>& out) {
  return runWithSlot(*m_link, out, [t = m_link->target, b, after, upTo, maxCount](std::vector<StoreEntry>& slot) {
    return static_cast<int64_t>(t->list(b, after, upTo, maxCount, slot));
  });
}

int CDeadlineBackend::openWith(bool create, const std::string& b, const std::string& n, const StoreLayout& layout,
                               StoreOpenMode mode, std::unique_ptr<IStoreFile>& out) {
  auto fn = [t = m_link->target, create, b, n, layout, mode](std::unique_ptr<IStoreFile>& handle) {
    return static_cast<int64_t>(create ? t->createFile(b, n, layout, handle) : t->openFile(b, n, mode, handle));
  };
  auto call = std::make_shared<COpenCall<decltype(fn)>>(std::move(fn));
  int rc = static_cast<int>(m_link->pool.run(call, m_link->timeoutMs.load()));
  if (rc != 0) return rc;
  out = std::make_unique<CGuardedFile>(m_link, std::move(call->handle));
  return 0;
}

int CDeadlineBackend::createFile(const std::string& b, const std::string& n, const StoreLayout& layout,
                                 std::unique_ptr<IStoreFile>& out) {
  return openWith(true, b, n, layout, StoreOpenMode::Write, out);
}

int CDeadlineBackend::openFile(const std::string& b, const std::string& n, StoreOpenMode mode,
                               std::unique_ptr<IStoreFile>& out) {
  return openWith(false, b, n, StoreLayout{}, mode, out);
}

int CDeadlineBackend::removeFile(const std::string& b, const std::string& n) {
  return runPlain(*m_link, [t = m_link->target, b, n] { return t->removeFile(b, n); });
}

int CDeadlineBackend::renameFile(const std::string& fb, const std::string& fn, const std::string& tb,
                                 const std::string& tn) {
  return runPlain(*m_link, [t = m_link->target, fb, fn, tb, tn] { return t->renameFile(fb, fn, tb, tn); });
}

int CDeadlineBackend::statFile(const std::string& b, const std::string& n, StoreFileStat& out) {
  return runWithSlot(*m_link, out, [t = m_link->target, b, n](StoreFileStat& slot) {
    return static_cast<int64_t>(t->statFile(b, n, slot));
  });
}

}  // namespace Velto::Zarn
