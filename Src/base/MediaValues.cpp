#include "MediaValues.h"

namespace Velto::Zarn {

CMediaValues& CMediaValues::instance() {
  static CMediaValues* values = new CMediaValues();  // never destroyed: outlives every static user
  return *values;
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

int64_t CMediaValues::localTime(int64_t utcSeconds) const {
  return utcSeconds + static_cast<int64_t>(timeZoneDiff.load(std::memory_order_relaxed)) * 3600;
}

uint32_t CMediaValues::localNow(const Velto::Kandu::IClock& clock) const {
  return static_cast<uint32_t>(localTime(clock.wallClockSeconds()));
}

}  // namespace Velto::Zarn
