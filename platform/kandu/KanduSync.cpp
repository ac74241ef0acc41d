#include "KanduSync.h"

#include <chrono>

namespace Velto::Kandu {

void CCondition::wait(CMutex& mutex, uint32_t timeoutMs) {
  m_cond.wait_for(mutex, std::chrono::milliseconds(timeoutMs));
}

void CSemaphore::post() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_count;
  }
  m_cond.notify_one();
}

int CSemaphore::pend(uint32_t timeoutMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (timeoutMs == kInfinite) {
    m_cond.wait(lock, [this] { return m_count > 0; });
  } else if (!m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_count > 0; })) {
    return -1;
  }
  --m_count;
  return 0;
}

}  // namespace Velto::Kandu
