#include "KanduTime.h"
#include "MediaContext.h"

namespace Velto::Zarn {

CMediaValues& CMediaContext::values() {
  static CMediaValues* v = new CMediaValues();  // never destroyed: outlives every static user
  return *v;
}

void CMediaValues::setStoreUserName(const std::string& name) {
  std::lock_guard<std::mutex> lock(m_nameMutex);
  m_storeUserName = name;
}

std::string CMediaValues::storeUserName() const {
  std::lock_guard<std::mutex> lock(m_nameMutex);
  return m_storeUserName;
}

std::string CMediaValues::bucketPrefix() const {
  std::lock_guard<std::mutex> lock(m_nameMutex);
  if (m_storeUserName.empty() || m_storeUserName == "root") return std::string();
  return m_storeUserName + "_";
}

uint32_t CMediaValues::localNow() const {
  return static_cast<uint32_t>(Velto::Kandu::wallClockSeconds() +
                               static_cast<int64_t>(timeZoneDiff.load(std::memory_order_relaxed)) * 3600);
}

}  // namespace Velto::Zarn
