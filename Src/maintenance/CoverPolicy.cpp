#include "CoverPolicy.h"

#include "MediaLog.h"

namespace Velto::Zarn {

void CCoverPolicies::set(uint32_t streamId, uint64_t durationHours, uint64_t space, uint64_t defaultHours) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (durationHours == 0 && space == 0) {
    ZLOG_IN(INFO, "CZarnCyclicCover", "setCoverPolicy", 0, "setRecycle hours to default. streamID:%u durationHours:%u\n\n", streamId, static_cast<unsigned>(defaultHours));
    if (defaultHours == 0) {
      m_policies.erase(streamId);
      return;
    }
    durationHours = defaultHours;
  }
  m_policies[streamId] = CoverPolicy{durationHours, space};
}

bool CCoverPolicies::has(uint32_t streamId) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_policies.count(streamId) != 0;
}

bool CCoverPolicies::get(uint32_t streamId, CoverPolicy& out) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_policies.find(streamId);
  if (it == m_policies.end()) return false;
  out = it->second;
  return true;
}

std::map<uint32_t, CoverPolicy> CCoverPolicies::snapshot() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_policies;
}

}  // namespace Velto::Zarn
