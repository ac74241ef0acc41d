// The CephFS backend's address and mount: parsing "mon[,mon...][/path]", the
// client options (our defaults, then the operator's ceph.conf, then the address
// and the key), connect and disconnect, and the unmount when the last handle
// goes; CCephStoreBackend, these calls behind the deadline wrapper. The backend's other pieces are listed in CephStoreBackendImpl.h. How the
// store's guarantees are kept on CephFS, and what a crash in the middle of a
// two-step operation leaves, is in doc/ceph_store.md.
#include "CephStoreBackendImpl.h"

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "KanduTime.h"
#include "ZarnError.h"
#include "ZarnLog.h"

namespace Velto::Zarn {

using detail::Monitor;
using detail::translate;

namespace {

constexpr const char* kConfEnv = "ZARN_CEPH_CONF";
// A mount that gets no answer from the monitors gives up after this many
// seconds (Ceph's own default is 300: far too long for a host starting up),
// and an unmount that cannot hand its capabilities back gives up after this
// many (Ceph's default 30). An operator's ceph.conf may say otherwise.
constexpr const char* kDefaultMountTimeoutS = "10";
constexpr const char* kDefaultShutdownTimeoutS = "10";
// A request to the monitors (statfs) that gets no answer ends after this many
// seconds (Ceph's default: never). Without it, the health probe's statfs sent
// while the monitors were down is never answered, not even once they are back.
constexpr const char* kDefaultMonitorOpTimeoutS = "10";

// "mon[,mon...][/path]" into monitors and root ("" for the file system's root).
bool parse(const std::string& location, std::vector<Monitor>& mons, std::string& root, std::string* reason) {
  auto fail = [&](const std::string& why) {
    if (reason) *reason = why;
    return false;
  };
  size_t slash = location.find('/');
  std::string monList = location.substr(0, slash);
  root = slash == std::string::npos ? std::string() : location.substr(slash);
  while (!root.empty() && root.back() == '/') root.pop_back();
  if (root.find("/../") != std::string::npos || root.find("/./") != std::string::npos ||
      root.find("//") != std::string::npos || (root.size() >= 3 && root.compare(root.size() - 3, 3, "/..") == 0)) {
    return fail("bad store root '" + root + "' in ceph address");
  }
  if (monList.empty()) return fail("no monitor in ceph address (expected ceph://mon[,mon...][/path])");
  size_t pos = 0;
  while (pos <= monList.size()) {
    size_t comma = monList.find(',', pos);
    std::string item = monList.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
    Monitor m;
    if (!item.empty() && item[0] == '[') {
      size_t close = item.find(']');
      if (close == std::string::npos) return fail("unclosed '[' in monitor '" + item + "'");
      m.host = item.substr(1, close - 1);
      if (close + 1 < item.size()) {
        if (item[close + 1] != ':') return fail("bad monitor '" + item + "'");
        m.port = item.substr(close + 2);
      }
    } else {
      size_t colon = item.find(':');
      m.host = item.substr(0, colon);
      if (colon != std::string::npos) m.port = item.substr(colon + 1);
    }
    if (m.host.empty()) return fail("empty monitor in ceph address");
    if (item.find(':') != std::string::npos && item[0] != '[' && m.port.empty()) {
      return fail("empty port in monitor '" + item + "'");
    }
    if (!m.port.empty()) {
      if (m.port.size() > 5 || m.port.find_first_not_of("0123456789") != std::string::npos ||
          std::atoi(m.port.c_str()) == 0 || std::atoi(m.port.c_str()) > 65535) {
        return fail("bad port in monitor '" + item + "'");
      }
    }
    mons.push_back(std::move(m));
    if (comma == std::string::npos) break;
    pos = comma + 1;
  }
  return true;
}

// Sets a client option; false (logged) when Ceph refuses it.
bool setOption(ceph_mount_info* mount, const char* option, const std::string& value, bool secret = false) {
  int rc = ceph_conf_set(mount, option, value.c_str());
  if (rc == 0) return true;
  ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "ceph refused option %s = %s: %s", option,
            secret ? "(secret)" : value.c_str(), std::strerror(-rc));
  return false;
}

}  // namespace

CCephDirectBackend::Shared::~Shared() {
  if (mount == nullptr) return;
  // A clean unmount hands our capabilities back and closes the session. A
  // session dropped without it goes stale, and the MDS makes every other
  // client that needs an inode we held wait for the session time-out
  // (60 s): so always try, within client_shutdown_timeout, before aborting.
  if (ceph_unmount(mount) != 0) ceph_abort_conn(mount);
  ceph_release(mount);
}

bool CCephDirectBackend::parseLocation(const std::string& location, std::string* reason) {
  std::vector<Monitor> mons;
  std::string root;
  return parse(location, mons, root, reason);
}

CCephDirectBackend::CCephDirectBackend(const std::string& location) : m_shared(std::make_shared<Shared>()) {
  if (!parse(location, m_shared->monitors, m_shared->root, nullptr)) {
    KLOG_ERROR("CCephStoreBackend: unchecked ceph location '%s'\n", location.c_str());
    std::abort();  // the factory checks the location first
  }
}

CCephDirectBackend::~CCephDirectBackend() = default;

uint64_t CCephDirectBackend::clientId() const { return m_shared->clientId.load(); }

int CCephDirectBackend::connect(const Config& config) {
  Shared& s = *m_shared;
  if (s.mount != nullptr) return ZARN_E_INVALID_ARGUMENT;  // connected once already
  const char* id = config.userName != nullptr && config.userName[0] != '\0' ? config.userName : nullptr;
  ceph_mount_info* mount = nullptr;
  int rc = ceph_create(&mount, id);
  if (rc != 0) {
    ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "ceph_create failed: %s", std::strerror(-rc));
    return translate(rc);
  }
  auto fail = [&](int code) {
    ceph_release(mount);
    return code;
  };
  // Our defaults first, then the operator's ceph.conf (it may override them),
  // then what the address and the Config say (they override the file).
  bool ok = setOption(mount, "client_mount_timeout", kDefaultMountTimeoutS) &&
            setOption(mount, "client_shutdown_timeout", kDefaultShutdownTimeoutS) &&
            setOption(mount, "rados_mon_op_timeout", kDefaultMonitorOpTimeoutS) &&
            setOption(mount, "admin_socket", "") && setOption(mount, "log_to_stderr", "false") &&
            setOption(mount, "err_to_stderr", "false");
  if (!ok) return fail(ZARN_E_INVALID_ARGUMENT);
  if (const char* conf = std::getenv(kConfEnv); conf != nullptr && conf[0] != '\0') {
    rc = ceph_conf_read_file(mount, conf);
    if (rc != 0) {
      ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "cannot read %s=%s: %s", kConfEnv, conf,
                std::strerror(-rc));
      return fail(ZARN_E_INVALID_ARGUMENT);
    }
  }
  std::string monHost;
  for (const Monitor& m : s.monitors) {
    if (!monHost.empty()) monHost += ",";
    bool v6 = m.host.find(':') != std::string::npos;
    std::string host = v6 ? "[" + m.host + "]" : m.host;
    if (!m.port.empty()) {
      monHost += host + ":" + m.port;
    } else if (config.port > 0) {
      monHost += host + ":" + std::to_string(config.port);
    } else {
      monHost += host;
    }
  }
  if (!setOption(mount, "mon_host", monHost)) return fail(ZARN_E_INVALID_ARGUMENT);
  if (config.password != nullptr && config.password[0] != '\0' &&
      !setOption(mount, "key", config.password, true)) {
    return fail(ZARN_E_INVALID_ARGUMENT);
  }

  uint64_t started = Kandu::monotonicMs();
  rc = ceph_mount(mount, "/");
  if (rc != 0) {
    int code = rc == -ETIMEDOUT ? ZARN_E_UNAVAILABLE : translate(rc);
    ZLOG_LINE(Kandu::LOG_ERROR, code, "CCephStoreBackend", "cannot mount CephFS at monitors %s as %s: %s",
              monHost.c_str(), id != nullptr ? id : "admin", std::strerror(-rc));
    return fail(code);
  }
  if (!s.root.empty()) {
    rc = ceph_mkdirs(mount, s.root.c_str(), 0755);
    if (rc != 0 && rc != -EEXIST) {
      ZLOG_LINE(Kandu::LOG_ERROR, translate(rc), "CCephStoreBackend", "cannot make store root %s: %s",
                s.root.c_str(), std::strerror(-rc));
      ceph_unmount(mount);
      return fail(translate(rc));
    }
  }
  struct ceph_statx stx;
  rc = ceph_statx(mount, s.rootPath().c_str(), &stx, CEPH_STATX_MODE, 0);
  if (rc != 0 || !S_ISDIR(stx.stx_mode)) {
    ZLOG_LINE(Kandu::LOG_ERROR, ZARN_E_UNAVAILABLE, "CCephStoreBackend", "store root %s is not a directory",
              s.rootPath().c_str());
    ceph_unmount(mount);
    return fail(ZARN_E_UNAVAILABLE);
  }
  s.mount = mount;
  s.clientId.store(ceph_get_instance_id(mount));
  s.connected.store(true);
  ZLOG_LINE(Kandu::LOG_INFO, 0, "CCephStoreBackend", "CephFS store at %s, monitors %s, client.%" PRIu64 " (%" PRIu64
            " ms)", s.rootPath().c_str(), monHost.c_str(), s.clientId.load(), Kandu::monotonicMs() - started);
  return 0;
}

void CCephDirectBackend::disconnect() { m_shared->connected.store(false); }

CCephStoreBackend::CCephStoreBackend(const std::string& location)
    : CDeadlineBackend(std::make_shared<CCephDirectBackend>(location)) {}

CCephStoreBackend::~CCephStoreBackend() = default;

bool CCephStoreBackend::parseLocation(const std::string& location, std::string* reason) {
  return CCephDirectBackend::parseLocation(location, reason);
}

CCephDirectBackend& CCephStoreBackend::direct() const { return static_cast<CCephDirectBackend&>(*target()); }

uint64_t CCephStoreBackend::clientId() const { return direct().clientId(); }

std::string CCephStoreBackend::filePool(const std::string& bucket, const std::string& name) {
  return direct().filePool(bucket, name);
}

uint64_t CCephStoreBackend::levelsRead() const { return direct().levelsRead(); }

uint64_t CCephStoreBackend::levelCacheHits() const { return direct().levelCacheHits(); }

int makeCephStoreBackend(const std::string& location, std::shared_ptr<IStoreBackend>& out, std::string* reason) {
  if (!CCephDirectBackend::parseLocation(location, reason)) return ZARN_E_INVALID_ARGUMENT;
  out = std::make_shared<CCephStoreBackend>(location);
  return 0;
}

}  // namespace Velto::Zarn
