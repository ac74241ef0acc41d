// Per-stream recycling policies: keep at most `durationHours` of a stream's
// recordings, or (hours 0) at most `space` MiB. The cyclic cover engine owns
// one and applies it on its timer; addStream consults it to give a stream
// without a policy the configured default.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

namespace Velto::Zarn {

struct CoverPolicy {
  uint64_t durationHours = 0;
  uint64_t space = 0;  // MiB
};

class CCoverPolicies {
 public:
  // Stores or replaces a stream's policy. Both values 0 return the stream to
  // `defaultHours` (the configured "recycle_hours"); with that 0 too, the
  // stream has no policy any more.
  void set(uint32_t streamId, uint64_t durationHours, uint64_t space, uint64_t defaultHours);
  bool has(uint32_t streamId) const;
  bool get(uint32_t streamId, CoverPolicy& out) const;
  std::map<uint32_t, CoverPolicy> snapshot() const;

 private:
  mutable std::mutex m_mutex;
  std::map<uint32_t, CoverPolicy> m_policies;  // guarded by m_mutex
};

}  // namespace Velto::Zarn
