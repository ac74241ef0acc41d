// The store client: the per-thread last error, the store client's log
// threshold, CZarnFileSystem (connection, options, the state monitor, buckets
// and files by path) and CBucket. CFile is in ZarnFile.cpp.
#include "ZarnClient.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "KanduTimer.h"
#include "ZarnClientImpl.h"
#include "ZarnLog.h"
#include "ZarnNames.h"

namespace Velto::Zarn {

using detail::fail;
using detail::isLive;

// ---------------------------------------------------------------------------
// Per-thread last error and the store client's log threshold.

namespace {

struct LastError {
  int32_t code = ZARN_OK;
  std::string message = zarnErrorText(ZARN_OK);
};

thread_local LastError t_lastError;

std::atomic<int> g_storeLogLevel{Kandu::LOG_TRACE};  // no filter beyond the runtime's own level

constexpr int32_t kDefaultTimeoutMs = 5000;
constexpr int32_t kDefaultHealthPeriodMs = 5000;
constexpr uint32_t kMaxTextOption = 4096;

}  // namespace

int32_t getLastError() { return t_lastError.code; }
const char* getErrorMsg() { return t_lastError.message.c_str(); }
void setLastError(int32_t code) { setLastError(code, std::string()); }

void setLastError(int32_t code, const std::string& detail) {
  t_lastError.code = code;
  t_lastError.message = zarnErrorText(code);
  if (!detail.empty()) {
    t_lastError.message += ": ";
    t_lastError.message += detail;
  }
}

void setStoreLogLevel(int level) { g_storeLogLevel.store(level, std::memory_order_relaxed); }
int storeLogLevel() { return g_storeLogLevel.load(std::memory_order_relaxed); }

// ---------------------------------------------------------------------------
// Connection state.

namespace detail {

struct FileSystemImpl {
  // Serialises initialize() and close(); held while the monitor is stopped.
  std::mutex lifecycle;
  // Guards the fields below it. Never held while calling the backend, the
  // timer service or a listener.
  mutable std::mutex mutex;
  std::shared_ptr<ClientCore> core;
  int32_t clientMode = 0;
  int32_t timeoutMs = kDefaultTimeoutMs;
  int32_t logLevel = Kandu::LOG_TRACE;
  std::string logPath;
  uint64_t capacityLimit = 0;
  int32_t healthPeriodMs = kDefaultHealthPeriodMs;
  IZarnListener* listener = nullptr;
  // Held while a listener is told a state: setListener waits on it, so a
  // listener removed is never called afterwards. Recursive: a listener may
  // replace itself from its own notification.
  std::recursive_mutex notifying;

  std::atomic<int32_t> state{ZARN_STATE_FAILED};
  Kandu::CTimer monitor{"ZarnStateMonitor"};

  std::shared_ptr<ClientCore> connection() const {
    std::lock_guard<std::mutex> lock(mutex);
    return core;
  }
};

}  // namespace detail

namespace {

// The common start of every call on one "bucket/name" path: a live connection
// and a valid path. Null, with the last error set, when either is missing.
std::shared_ptr<detail::ClientCore> resolvePath(const detail::FileSystemImpl& impl, const std::string& path,
                                                std::string& bucket, std::string& name) {
  std::shared_ptr<detail::ClientCore> core = impl.connection();
  if (!isLive(core)) {
    fail(ZARN_E_NOT_INITIALIZED, path);
    return nullptr;
  }
  int rc = splitStorePath(path, bucket, name);
  if (rc != 0) {
    fail(rc, path);
    return nullptr;
  }
  return core;
}

// One run of the state monitor: probe the store and tell the listener when the
// verdict changed. Runs on the timer thread without any client lock held.
void monitorRun(CZarnFileSystem* owner, detail::FileSystemImpl& impl) {
  std::shared_ptr<detail::ClientCore> core = impl.connection();
  if (!isLive(core)) return;
  int probe = core->backend->probeHealth();
  int32_t next = probe == 0 ? ZARN_STATE_NORMAL : ZARN_STATE_FAILED;
  int32_t previous = impl.state.exchange(next);
  if (previous == next) return;
  if (next == ZARN_STATE_FAILED) {
    ZLOG_LINE(Kandu::LOG_WARN, probe, "CZarnFileSystem", "store became unusable: %s", zarnErrorText(probe));
  } else {
    ZLOG_LINE(Kandu::LOG_INFO, 0, "CZarnFileSystem", "store usable again");
  }
  std::lock_guard<std::recursive_mutex> notifying(impl.notifying);
  IZarnListener* listener;
  {
    std::lock_guard<std::mutex> lock(impl.mutex);
    listener = impl.listener;
  }
  if (listener) listener->onZarnStateChanged(owner, static_cast<ZarnState>(next));
}

// (Re)starts the monitor; the caller holds impl.lifecycle. close() stops it,
// waiting for a run in progress, before the connection goes.
void startMonitor(CZarnFileSystem* owner, detail::FileSystemImpl& impl, uint32_t periodMs) {
  impl.monitor.start([owner, &impl](Kandu::CTimer*) { monitorRun(owner, impl); }, periodMs, periodMs);
}

}  // namespace

// ---------------------------------------------------------------------------
// CBucket

bool CBucket::getUsedCapacity(uint64_t& bytes) const {
  if (!isLive(m_core)) return fail(ZARN_E_NOT_INITIALIZED);
  uint64_t value = 0;
  int rc = m_core->backend->bucketUsedBytes(m_name, value);
  if (rc != 0) return fail(rc, m_name);
  bytes = value;
  return true;
}

bool CBucket::list(CFileList& out, const std::string& beginMarker, const std::string& endMarker,
                   uint32_t maxCount) const {
  if (!isLive(m_core)) return fail(ZARN_E_NOT_INITIALIZED);
  CFileList entries;
  int rc = m_core->backend->list(m_name, beginMarker, endMarker, maxCount, entries);
  if (rc != 0) return fail(rc, m_name);
  out = std::move(entries);
  return true;
}

bool CBucket::list(CNameList& out, const std::string& beginMarker, const std::string& endMarker,
                   uint32_t maxCount) const {
  CFileList entries;
  if (!list(entries, beginMarker, endMarker, maxCount)) return false;
  CNameList names;
  names.reserve(entries.size());
  for (StoreEntry& e : entries) names.push_back(std::move(e.name));
  out = std::move(names);
  return true;
}

// ---------------------------------------------------------------------------
// CZarnFileSystem

CZarnFileSystem::CZarnFileSystem() : m_impl(std::make_unique<detail::FileSystemImpl>()) {}

CZarnFileSystem::~CZarnFileSystem() { close(); }

bool CZarnFileSystem::initialize(const Config& config) {
  if (config.address == nullptr) return fail(ZARN_E_INVALID_ARGUMENT, "no store address");
  std::shared_ptr<IStoreBackend> backend;
  std::string reason;
  int rc = makeStoreBackend(config.address, backend, &reason);
  if (rc != 0) {
    ZLOG_LINE(Kandu::LOG_ERROR, rc, "CZarnFileSystem", "store address %s refused: %s", config.address,
              reason.c_str());
    return fail(rc, reason);
  }
  return initializeWithBackend(config, std::move(backend));
}

bool CZarnFileSystem::initializeWithBackend(const Config& config, std::shared_ptr<IStoreBackend> backend) {
  if (!backend) return fail(ZARN_E_INVALID_ARGUMENT, "no store backend");
  detail::FileSystemImpl& impl = *m_impl;
  std::lock_guard<std::mutex> life(impl.lifecycle);
  if (impl.connection()) return fail(ZARN_E_INVALID_ARGUMENT, "store already initialized");

  const char* address = config.address ? config.address : "";
  int32_t timeoutMs;
  {
    std::lock_guard<std::mutex> lock(impl.mutex);
    timeoutMs = impl.timeoutMs;
  }
  backend->setCallTimeout(static_cast<uint32_t>(timeoutMs));
  int rc = backend->connect(config);
  if (rc != 0) {
    ZLOG_LINE(Kandu::LOG_ERROR, rc, "CZarnFileSystem", "connect to %s failed: %s", address, zarnErrorText(rc));
    return fail(rc, std::string("cannot connect to ") + address);
  }
  uint64_t limit;
  uint32_t period;
  {
    std::lock_guard<std::mutex> lock(impl.mutex);
    limit = impl.capacityLimit;
    period = static_cast<uint32_t>(impl.healthPeriodMs);
  }
  if (limit != 0 && (rc = backend->setCapacityLimit(limit)) != 0) {
    backend->disconnect();
    return fail(rc, "capacity limit refused");
  }
  auto core = std::make_shared<detail::ClientCore>(backend);
  core->timeoutMs.store(timeoutMs);
  {
    std::lock_guard<std::mutex> lock(impl.mutex);
    impl.core = core;
  }
  impl.state.store(ZARN_STATE_NORMAL);
  startMonitor(this, impl, period);
  ZLOG_LINE(Kandu::LOG_INFO, 0, "CZarnFileSystem", "store %s connected", address);
  return true;
}

void CZarnFileSystem::close() {
  if (!m_impl) return;
  detail::FileSystemImpl& impl = *m_impl;
  std::lock_guard<std::mutex> life(impl.lifecycle);
  impl.monitor.stop(true);
  std::shared_ptr<detail::ClientCore> core;
  {
    std::lock_guard<std::mutex> lock(impl.mutex);
    core = std::move(impl.core);
    impl.core.reset();
  }
  impl.state.store(ZARN_STATE_FAILED);
  if (!core) return;
  core->open.store(false);
  core->backend->disconnect();
  ZLOG_LINE(Kandu::LOG_INFO, 0, "CZarnFileSystem", "store disconnected");
}

bool CZarnFileSystem::isInitialized() const { return isLive(m_impl->connection()); }

namespace {

bool readInt32(const void* value, uint32_t length, int32_t& out) {
  if (value == nullptr || length != sizeof(int32_t)) return false;
  std::memcpy(&out, value, sizeof out);
  return true;
}

}  // namespace

bool CZarnFileSystem::setOption(int32_t option, const void* value, uint32_t length) {
  detail::FileSystemImpl& impl = *m_impl;
  const std::string what = "option " + std::to_string(option);
  int32_t v = 0;
  switch (option) {
    case ZARN_OPT_CLIENT_MODE: {
      if (!readInt32(value, length, v)) return fail(ZARN_E_INVALID_ARGUMENT, what);
      std::lock_guard<std::mutex> lock(impl.mutex);
      impl.clientMode = v;
      return true;
    }
    case ZARN_OPT_TIMEOUT_MS: {
      if (!readInt32(value, length, v) || v <= 0) return fail(ZARN_E_INVALID_ARGUMENT, what);
      std::shared_ptr<detail::ClientCore> core;
      {
        std::lock_guard<std::mutex> lock(impl.mutex);
        impl.timeoutMs = v;
        core = impl.core;
      }
      if (core) {
        core->timeoutMs.store(v);
        core->backend->setCallTimeout(static_cast<uint32_t>(v));
      }
      return true;
    }
    case ZARN_OPT_LOG_PATH: {
      if ((value == nullptr && length != 0) || length > kMaxTextOption) return fail(ZARN_E_INVALID_ARGUMENT, what);
      std::string text(static_cast<const char*>(value), length);
      if (text.find('\0') != std::string::npos) return fail(ZARN_E_INVALID_ARGUMENT, what);
      std::lock_guard<std::mutex> lock(impl.mutex);
      impl.logPath = std::move(text);
      return true;
    }
    case ZARN_OPT_LOG_LEVEL: {
      if (!readInt32(value, length, v) || v < Kandu::LOG_TRACE || v > Kandu::LOG_OFF) {
        return fail(ZARN_E_INVALID_ARGUMENT, what);
      }
      {
        std::lock_guard<std::mutex> lock(impl.mutex);
        impl.logLevel = v;
      }
      setStoreLogLevel(v);
      return true;
    }
    case ZARN_OPT_CAPACITY_LIMIT: {
      if (value == nullptr || length != sizeof(uint64_t)) return fail(ZARN_E_INVALID_ARGUMENT, what);
      uint64_t bytes;
      std::memcpy(&bytes, value, sizeof bytes);
      std::shared_ptr<detail::ClientCore> core;
      {
        std::lock_guard<std::mutex> lock(impl.mutex);
        impl.capacityLimit = bytes;
        core = impl.core;
      }
      if (isLive(core)) {
        int rc = core->backend->setCapacityLimit(bytes);
        if (rc != 0) return fail(rc, what);
      }
      return true;
    }
    case ZARN_OPT_HEALTH_PERIOD_MS: {
      if (!readInt32(value, length, v) || v <= 0) return fail(ZARN_E_INVALID_ARGUMENT, what);
      // A pending run was scheduled with the old period: restart the monitor
      // so that the new one applies from now.
      std::lock_guard<std::mutex> life(impl.lifecycle);
      bool connected;
      {
        std::lock_guard<std::mutex> lock(impl.mutex);
        impl.healthPeriodMs = v;
        connected = impl.core != nullptr;
      }
      if (connected) startMonitor(this, impl, static_cast<uint32_t>(v));
      return true;
    }
    default:
      return fail(ZARN_E_INVALID_ARGUMENT, "unknown " + what);
  }
}

bool CZarnFileSystem::getOption(int32_t option, void* value, uint32_t& length) const {
  const detail::FileSystemImpl& impl = *m_impl;
  const std::string what = "option " + std::to_string(option);
  if (value == nullptr) return fail(ZARN_E_INVALID_ARGUMENT, what);
  auto putInt = [&](int32_t v) {
    if (length < sizeof v) return fail(ZARN_E_INVALID_ARGUMENT, what + ": buffer too small");
    std::memcpy(value, &v, sizeof v);
    length = sizeof v;
    return true;
  };
  std::unique_lock<std::mutex> lock(impl.mutex);
  switch (option) {
    case ZARN_OPT_CLIENT_MODE: return putInt(impl.clientMode);
    case ZARN_OPT_TIMEOUT_MS: return putInt(impl.timeoutMs);
    case ZARN_OPT_LOG_LEVEL: return putInt(impl.logLevel);
    case ZARN_OPT_HEALTH_PERIOD_MS: return putInt(impl.healthPeriodMs);
    case ZARN_OPT_CAPACITY_LIMIT: {
      if (length < sizeof(uint64_t)) return fail(ZARN_E_INVALID_ARGUMENT, what + ": buffer too small");
      std::memcpy(value, &impl.capacityLimit, sizeof(uint64_t));
      length = sizeof(uint64_t);
      return true;
    }
    case ZARN_OPT_LOG_PATH: {
      if (length < impl.logPath.size()) {
        length = static_cast<uint32_t>(impl.logPath.size());
        return fail(ZARN_E_INVALID_ARGUMENT, what + ": buffer too small");
      }
      std::memcpy(value, impl.logPath.data(), impl.logPath.size());
      length = static_cast<uint32_t>(impl.logPath.size());
      return true;
    }
    default:
      return fail(ZARN_E_INVALID_ARGUMENT, "unknown " + what);
  }
}

void CZarnFileSystem::setListener(IZarnListener* listener) {
  {
    // Setting the same listener again waits for nothing, so a caller that
    // holds a lock its listener takes may repeat it.
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->listener == listener) return;
  }
  std::lock_guard<std::recursive_mutex> notifying(m_impl->notifying);
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  m_impl->listener = listener;
}

ZarnState CZarnFileSystem::getState() const {
  if (!isLive(m_impl->connection())) return ZARN_STATE_FAILED;
  return static_cast<ZarnState>(m_impl->state.load());
}

bool CZarnFileSystem::getSystemInfo(SystemInfo& info) {
  auto core = m_impl->connection();
  if (!isLive(core)) return fail(ZARN_E_NOT_INITIALIZED);
  StoreCapacity cap;
  int rc = core->backend->capacity(cap);
  if (rc != 0) return fail(rc, "capacity");
  SystemInfo si{};
  si.bucketCount = cap.bucketCount;
  si.fileCount = cap.fileCount;
  si.usedCapacity = cap.usedBytes;
  si.totalCapacity = cap.totalBytes;
  si.freeCapacity = cap.freeBytes;
  info = si;
  return true;
}

CBucket CZarnFileSystem::getBucket(const std::string& name) {
  auto core = m_impl->connection();
  if (!isLive(core)) {
    fail(ZARN_E_NOT_INITIALIZED);
    return CBucket();
  }
  int rc = validateBucketName(name);
  if (rc == 0) rc = core->backend->bucketExists(name);
  if (rc != 0) {
    fail(rc, name);
    return CBucket();
  }
  return CBucket(std::move(core), name);
}

bool CZarnFileSystem::createBucket(const std::string& name) {
  auto core = m_impl->connection();
  if (!isLive(core)) return fail(ZARN_E_NOT_INITIALIZED);
  int rc = validateBucketName(name);
  if (rc == 0) rc = core->backend->createBucket(name);
  return rc == 0 ? true : fail(rc, name);
}

bool CZarnFileSystem::removeBucket(const std::string& name) {
  auto core = m_impl->connection();
  if (!isLive(core)) return fail(ZARN_E_NOT_INITIALIZED);
  int rc = validateBucketName(name);
  if (rc == 0) rc = core->backend->removeBucket(name);
  return rc == 0 ? true : fail(rc, name);
}

bool CZarnFileSystem::listBuckets(CNameList& out) {
  auto core = m_impl->connection();
  if (!isLive(core)) return fail(ZARN_E_NOT_INITIALIZED);
  CNameList names;
  int rc = core->backend->listBuckets(names);
  if (rc != 0) return fail(rc);
  out = std::move(names);
  return true;
}

std::unique_ptr<CFile> CZarnFileSystem::createFile(const std::string& path, uint16_t dataShards,
                                                   uint16_t parityShards) {
  std::string bucket, name;
  auto core = resolvePath(*m_impl, path, bucket, name);
  if (!core) return nullptr;
  int rc = dataShards == 0 ? ZARN_E_INVALID_ARGUMENT : 0;
  std::unique_ptr<IStoreFile> file;
  if (rc == 0) rc = core->backend->createFile(bucket, name, StoreLayout{dataShards, parityShards}, file);
  if (rc != 0) {
    fail(rc, path);
    return nullptr;
  }
  return std::unique_ptr<CFile>(new CFile(std::move(core), std::move(file), path, StoreOpenMode::Write));
}

std::unique_ptr<CFile> CZarnFileSystem::openFile(const std::string& path, StoreOpenMode mode) {
  std::string bucket, name;
  auto core = resolvePath(*m_impl, path, bucket, name);
  if (!core) return nullptr;
  int rc = mode != StoreOpenMode::Read && mode != StoreOpenMode::Write ? ZARN_E_INVALID_ARGUMENT : 0;
  std::unique_ptr<IStoreFile> file;
  if (rc == 0) rc = core->backend->openFile(bucket, name, mode, file);
  if (rc != 0) {
    fail(rc, path);
    return nullptr;
  }
  return std::unique_ptr<CFile>(new CFile(std::move(core), std::move(file), path, mode));
}

bool CZarnFileSystem::removeFile(const std::string& path) {
  std::string bucket, name;
  auto core = resolvePath(*m_impl, path, bucket, name);
  if (!core) return false;
  int rc = core->backend->removeFile(bucket, name);
  return rc == 0 ? true : fail(rc, path);
}

bool CZarnFileSystem::renameFile(const std::string& from, const std::string& to) {
  auto core = m_impl->connection();
  if (!isLive(core)) return fail(ZARN_E_NOT_INITIALIZED, from);
  std::string fb, fn, tb, tn;
  int rc = splitStorePath(from, fb, fn);
  if (rc == 0) rc = splitStorePath(to, tb, tn);
  if (rc == 0) rc = core->backend->renameFile(fb, fn, tb, tn);
  return rc == 0 ? true : fail(rc, from + " -> " + to);
}

bool CZarnFileSystem::getFileStat(const std::string& path, ZarnFileStat& out) {
  std::string bucket, name;
  auto core = resolvePath(*m_impl, path, bucket, name);
  if (!core) return false;
  ZarnFileStat st;
  int rc = core->backend->statFile(bucket, name, st);
  if (rc != 0) return fail(rc, path);
  out = st;
  return true;
}

}  // namespace Velto::Zarn
