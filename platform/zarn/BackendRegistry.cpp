// Address parsing and the registry of backend schemes.
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>

#include "LocalStoreBackend.h"
#ifdef ZARN_WITH_CEPH
#include "CephStoreBackend.h"
#endif
#include "StoreBackend.h"
#include "ZarnError.h"

namespace Velto::Zarn {

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, StoreBackendFactory> factories;  // guarded by mutex
};

// Never destroyed: backends may be made from static destructors of other units.
Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

constexpr const char* kCapacitySuffix = "?capacity=";

// "<digits>[K|M|G]" (binary multiples) into bytes; false on anything else or overflow.
bool parseByteCount(const std::string& text, uint64_t& out) {
  if (text.empty()) return false;
  uint64_t value = 0;
  size_t i = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    uint64_t digit = static_cast<uint64_t>(text[i] - '0');
    if (value > (UINT64_MAX - digit) / 10) return false;
    value = value * 10 + digit;
  }
  if (i == 0) return false;
  unsigned shift = 0;
  if (i + 1 == text.size()) {
    switch (text[i]) {
      case 'K': case 'k': shift = 10; break;
      case 'M': case 'm': shift = 20; break;
      case 'G': case 'g': shift = 30; break;
      default: return false;
    }
  } else if (i != text.size()) {
    return false;
  }
  if (shift != 0 && value > (UINT64_MAX >> shift)) return false;
  out = value << shift;
  return true;
}

int makeLocal(const std::string& location, std::shared_ptr<IStoreBackend>& out, std::string* reason) {
  std::string root = location;
  uint64_t cap = 0;
  size_t q = location.rfind(kCapacitySuffix);
  if (q != std::string::npos) {
    root = location.substr(0, q);
    if (!parseByteCount(location.substr(q + std::char_traits<char>::length(kCapacitySuffix)), cap)) {
      if (reason) *reason = "bad capacity in store address '" + location + "' (expected ?capacity=<bytes>[K|M|G])";
      return ZARN_E_INVALID_ARGUMENT;
    }
  }
  if (root.empty()) {
    if (reason) *reason = "empty local store path";
    return ZARN_E_INVALID_ARGUMENT;
  }
  auto backend = makeLocalStoreBackend(root);
  if (cap != 0) {
    int rc = backend->setCapacityLimit(cap);
    if (rc != 0) return rc;
  }
  out = std::move(backend);
  return 0;
}

}  // namespace

int makeStoreBackend(const std::string& address, std::shared_ptr<IStoreBackend>& out, std::string* reason) {
  if (address.empty()) {
    if (reason) *reason = "empty store address";
    return ZARN_E_INVALID_ARGUMENT;
  }
  size_t sep = address.find("://");
  if (sep == std::string::npos) return makeLocal(address, out, reason);

  std::string scheme = address.substr(0, sep);
  std::string rest = address.substr(sep + 3);
  StoreBackendFactory factory;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.factories.find(scheme);
    if (it != r.factories.end()) factory = it->second;
  }
  if (factory) {
    std::shared_ptr<IStoreBackend> made;
    int rc = factory(rest, made);
    if (rc != 0) {
      if (reason) *reason = "the '" + scheme + "' backend refused address '" + address + "'";
      return rc;
    }
    if (!made) {
      if (reason) *reason = "the '" + scheme + "' backend made no store";
      return ZARN_E_UNAVAILABLE;
    }
    out = std::move(made);
    return 0;
  }
  if (scheme == "file") return makeLocal(rest, out, reason);
  if (scheme == "ceph") {
#ifdef ZARN_WITH_CEPH
    return makeCephStoreBackend(rest, out, reason);
#else
    if (reason) *reason = "the distributed (ceph://) store is not built into this library; use a local directory";
    return ZARN_E_UNSUPPORTED;
#endif
  }
  if (reason) *reason = "unknown store address scheme '" + scheme + "'";
  return ZARN_E_UNSUPPORTED;
}

void registerStoreBackend(const std::string& scheme, StoreBackendFactory factory) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (factory) {
    r.factories[scheme] = std::move(factory);
  } else {
    r.factories.erase(scheme);
  }
}

}  // namespace Velto::Zarn
