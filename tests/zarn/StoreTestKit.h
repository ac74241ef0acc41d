// Pieces the store client's test suites share.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ZarnClient.h"

// A call that must fail, leaving `code` as the thread's last error (the last
// error is cleared first, so a stale one cannot pass). Streams like EXPECT_EQ.
#define EXPECT_REFUSED(call, code)                                                                      \
  EXPECT_EQ((::Velto::Zarn::setLastError(::Velto::Zarn::ZARN_OK),                                       \
             static_cast<bool>(call) ? ::Velto::Zarn::ZARN_OK : ::Velto::Zarn::getLastError()), code) \
      << #call

namespace ZarnTest {

// The answer text of a failing call in the StoreCommands.h protocol.
inline std::string err(int32_t code) { return "err " + std::to_string(code); }

// Records the store states a client reports, from the monitor's thread.
class CStateRecorder : public Velto::Zarn::IZarnListener {
 public:
  void onZarnStateChanged(Velto::Zarn::CZarnFileSystem*, Velto::Zarn::ZarnState state) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_states.push_back(state);
  }
  std::vector<int> states() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_states;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<int> m_states;
};

}  // namespace ZarnTest
