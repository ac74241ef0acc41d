#include "FaultInjectingBackend.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <random>
#include <vector>

#include "KanduThread.h"

namespace Velto::Zarn {

struct CFaultInjectingBackend::State {
  struct ActiveRule {
    FaultRule rule;
    uint32_t seen = 0;   // matching calls met while the rule was live
    uint32_t acted = 0;  // calls the rule failed, emptied or stalled
  };

  explicit State(uint64_t seed) : random(seed) {}

  std::mutex mutex;
  std::vector<ActiveRule> rules;  // guarded by mutex
  std::mt19937_64 random;         // guarded by mutex
  std::atomic<uint64_t> counts[static_cast<int>(StoreOp::Count)] = {};
  std::atomic<bool> healthy{true};
  std::condition_variable hangEnded;
  uint64_t hangGeneration = 0;  // guarded by mutex; moved on by releaseHangs
  uint32_t hanging = 0;         // guarded by mutex

  int decide(StoreOp op, const std::string& subject) {
    counts[static_cast<int>(op)].fetch_add(1, std::memory_order_relaxed);
    FaultRule chosen;
    {
      std::lock_guard<std::mutex> lock(mutex);
      ActiveRule* deciding = nullptr;
      for (ActiveRule& r : rules) {
        if (r.rule.op != op || r.acted >= r.rule.times) continue;
        if (!r.rule.nameContains.empty() && subject.find(r.rule.nameContains) == std::string::npos) continue;
        deciding = &r;
        break;
      }
      if (deciding == nullptr) return 0;
      ActiveRule& r = *deciding;
      if (++r.seen <= r.rule.skip) return 0;
      if (r.rule.oneInN > 1 && random() % r.rule.oneInN != 0) return 0;
      ++r.acted;
      chosen = r.rule;
      if (chosen.hang) {
        std::unique_lock<std::mutex> wait(mutex, std::adopt_lock);
        const uint64_t generation = hangGeneration;
        ++hanging;
        hangEnded.wait(wait, [&] { return hangGeneration != generation; });
        --hanging;
        wait.release();  // the lock_guard above unlocks
        return 0;
      }
    }
    // The stall happens outside the lock, so that other calls (and other rules)
    // go on meanwhile, as with a store that hangs on one request.
    if (chosen.stallMs > 0) {
      Kandu::sleepMs(chosen.stallMs);
      if (!chosen.failAfterStall) return 0;
    }
    if (chosen.zeroBytes && (op == StoreOp::FileRead || op == StoreOp::FileWrite)) return 1;
    return chosen.code < 0 ? chosen.code : ZARN_E_IO;
  }
};

namespace {

using State = CFaultInjectingBackend::State;

// A file handle whose calls pass the same rules as the backend's calls.
class CFaultFile : public IStoreFile {
 public:
  CFaultFile(std::shared_ptr<State> state, std::unique_ptr<IStoreFile> target, std::string subject)
      : m_state(std::move(state)), m_target(std::move(target)), m_subject(std::move(subject)) {}

  int64_t read(void* buffer, uint32_t length) override {
    int d = m_state->decide(StoreOp::FileRead, m_subject);
    if (d < 0) return d;
    if (d == 1) return 0;
    return m_target->read(buffer, length);
  }
  int64_t write(const void* buffer, uint32_t length) override {
    int d = m_state->decide(StoreOp::FileWrite, m_subject);
    if (d < 0) return d;
    if (d == 1) return 0;
    return m_target->write(buffer, length);
  }
  int64_t seek(int64_t offset, int origin) override {
    int d = m_state->decide(StoreOp::FileSeek, m_subject);
    return d < 0 ? d : m_target->seek(offset, origin);
  }
  int64_t tell() override {
    int d = m_state->decide(StoreOp::FileTell, m_subject);
    return d < 0 ? d : m_target->tell();
  }
  int stat(StoreFileStat& out) override {
    int d = m_state->decide(StoreOp::FileStat, m_subject);
    return d < 0 ? d : m_target->stat(out);
  }
  int close() override {
    int d = m_state->decide(StoreOp::FileClose, m_subject);
    // A failed close still releases the handle underneath: the caller is told
    // that what it wrote may be lost, as with a store that drops the request.
    int rc = m_target->close();
    return d < 0 ? d : rc;
  }
  void setCallTimeout(uint32_t ms) override { m_target->setCallTimeout(ms); }

 private:
  std::shared_ptr<State> m_state;
  std::unique_ptr<IStoreFile> m_target;
  std::string m_subject;
};

std::string pathOf(const std::string& b, const std::string& n) { return b + "/" + n; }

}  // namespace

CFaultInjectingBackend::CFaultInjectingBackend(std::shared_ptr<IStoreBackend> target, uint64_t seed)
    : CStoreBackendWrapper(std::move(target)), m_state(std::make_shared<State>(seed)) {}

void CFaultInjectingBackend::addRule(const FaultRule& rule) {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  m_state->rules.push_back(State::ActiveRule{rule, 0, 0});
}

void CFaultInjectingBackend::clearRules() {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  m_state->rules.clear();
}

uint64_t CFaultInjectingBackend::callCount(StoreOp op) const {
  return m_state->counts[static_cast<int>(op)].load(std::memory_order_relaxed);
}

void CFaultInjectingBackend::setHealthy(bool healthy) { m_state->healthy.store(healthy); }

void CFaultInjectingBackend::releaseHangs() {
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    ++m_state->hangGeneration;
    for (State::ActiveRule& r : m_state->rules) {
      if (r.rule.hang) r.acted = r.rule.times;
    }
  }
  m_state->hangEnded.notify_all();
}

uint32_t CFaultInjectingBackend::hangingCalls() const {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->hanging;
}

int CFaultInjectingBackend::decide(StoreOp op, const std::string& subject) { return m_state->decide(op, subject); }

int CFaultInjectingBackend::connect(const Config& config) {
  int d = decide(StoreOp::Connect, config.address ? config.address : "");
  return d < 0 ? d : CStoreBackendWrapper::connect(config);
}

int CFaultInjectingBackend::probeHealth() {
  int d = decide(StoreOp::ProbeHealth, "");
  if (d < 0) return d;
  if (!m_state->healthy.load()) return ZARN_E_UNAVAILABLE;
  return CStoreBackendWrapper::probeHealth();
}

int CFaultInjectingBackend::capacity(StoreCapacity& out) {
  int d = decide(StoreOp::Capacity, "");
  return d < 0 ? d : CStoreBackendWrapper::capacity(out);
}

int CFaultInjectingBackend::createBucket(const std::string& b) {
  int d = decide(StoreOp::CreateBucket, b);
  return d < 0 ? d : CStoreBackendWrapper::createBucket(b);
}

int CFaultInjectingBackend::removeBucket(const std::string& b) {
  int d = decide(StoreOp::RemoveBucket, b);
  return d < 0 ? d : CStoreBackendWrapper::removeBucket(b);
}

int CFaultInjectingBackend::bucketExists(const std::string& b) {
  int d = decide(StoreOp::BucketExists, b);
  return d < 0 ? d : CStoreBackendWrapper::bucketExists(b);
}

int CFaultInjectingBackend::listBuckets(std::vector<std::string>& out) {
  int d = decide(StoreOp::ListBuckets, "");
  return d < 0 ? d : CStoreBackendWrapper::listBuckets(out);
}

int CFaultInjectingBackend::bucketUsedBytes(const std::string& b, uint64_t& out) {
  int d = decide(StoreOp::BucketUsedBytes, b);
  return d < 0 ? d : CStoreBackendWrapper::bucketUsedBytes(b, out);
}

int CFaultInjectingBackend::list(const std::string& b, const std::string& after, const std::string& upTo,
                                 uint32_t maxCount, std::vector<StoreEntry>& out) {
  int d = decide(StoreOp::List, b);
  return d < 0 ? d : CStoreBackendWrapper::list(b, after, upTo, maxCount, out);
}

int CFaultInjectingBackend::createFile(const std::string& b, const std::string& n, const StoreLayout& layout,
                                       std::unique_ptr<IStoreFile>& out) {
  std::string subject = pathOf(b, n);
  int d = decide(StoreOp::CreateFile, subject);
  if (d < 0) return d;
  std::unique_ptr<IStoreFile> file;
  int rc = CStoreBackendWrapper::createFile(b, n, layout, file);
  if (rc != 0) return rc;
  out = std::make_unique<CFaultFile>(m_state, std::move(file), std::move(subject));
  return 0;
}

int CFaultInjectingBackend::openFile(const std::string& b, const std::string& n, StoreOpenMode mode,
                                     std::unique_ptr<IStoreFile>& out) {
  std::string subject = pathOf(b, n);
  int d = decide(StoreOp::OpenFile, subject);
  if (d < 0) return d;
  std::unique_ptr<IStoreFile> file;
  int rc = CStoreBackendWrapper::openFile(b, n, mode, file);
  if (rc != 0) return rc;
  out = std::make_unique<CFaultFile>(m_state, std::move(file), std::move(subject));
  return 0;
}

int CFaultInjectingBackend::removeFile(const std::string& b, const std::string& n) {
  int d = decide(StoreOp::RemoveFile, pathOf(b, n));
  return d < 0 ? d : CStoreBackendWrapper::removeFile(b, n);
}

int CFaultInjectingBackend::renameFile(const std::string& fb, const std::string& fn, const std::string& tb,
                                       const std::string& tn) {
  int d = decide(StoreOp::RenameFile, pathOf(fb, fn) + " -> " + pathOf(tb, tn));
  return d < 0 ? d : CStoreBackendWrapper::renameFile(fb, fn, tb, tn);
}

int CFaultInjectingBackend::statFile(const std::string& b, const std::string& n, StoreFileStat& out) {
  int d = decide(StoreOp::StatFile, pathOf(b, n));
  return d < 0 ? d : CStoreBackendWrapper::statFile(b, n, out);
}

}  // namespace Velto::Zarn
