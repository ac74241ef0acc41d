// The store state listener on a CephFS store whose monitor dies and comes
// back. Stops a daemon of the test cluster, so ctest runs it alone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "KanduTime.h"
#include "TestSupport.h"
#include "ZarnClient.h"

using namespace Velto::Zarn;

namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? v : "";
}

class StateLog : public IZarnListener {
 public:
  void onZarnStateChanged(CZarnFileSystem*, ZarnState state) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_states.push_back(state);
  }
  bool saw(ZarnState state, size_t from = 0) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (size_t i = from; i < m_states.size(); ++i)
      if (m_states[i] == state) return true;
    return false;
  }
  size_t size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_states.size();
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<ZarnState> m_states;
};

int daemonCommand(const std::string& verb, const std::string& daemon) {
  std::string cmd = "bash '" ZARN_SOURCE_DIR "/scripts/ceph-cluster-daemon.sh' '" + env("ZARN_TEST_CEPH_DIR") +
                    "' " + verb + " " + daemon + " >&2";
  return std::system(cmd.c_str());
}

TEST(CephHealth, ALostMonitorTurnsTheStateToFailedAndItsReturnBackToNormal) {
  if (env("ZARN_TEST_CEPH_ADDRESS").empty() || env("ZARN_TEST_CEPH_DIR").empty()) {
    GTEST_SKIP() << "no Ceph cluster configured: start one with scripts/ceph-cluster-start.sh DIR and source "
                    "DIR/zarn-test.env";
  }
  std::string address = env("ZARN_TEST_CEPH_ADDRESS") + "/health-" + std::to_string(Velto::Kandu::monotonicUs());
  CZarnFileSystem fs;
  int32_t period = 300;
  ASSERT_TRUE(fs.setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof period));
  StateLog states;
  fs.setListener(&states);
  Config config{address.c_str(), 0, "", ""};
  if (!fs.initialize(config) && getLastError() == ZARN_E_UNSUPPORTED) GTEST_SKIP() << getErrorMsg();
  ASSERT_TRUE(fs.isInitialized()) << getErrorMsg();
  ASSERT_TRUE(fs.createBucket("media_1")) << getErrorMsg();
  EXPECT_EQ(fs.getState(), ZARN_STATE_NORMAL);

  ASSERT_EQ(daemonCommand("stop", "mon.a"), 0);
  size_t mark = states.size();
  bool failed = ZarnTest::waitFor([&] { return states.saw(ZARN_STATE_FAILED, mark); }, 30000);
  // The probe may see the monitor back before the start script returns (it waits for the monitor to be in
  // service), so the return to 1 is looked for from this point on, not from after the start.
  mark = states.size();
  // Whatever happened, the monitor must come back for the tests after this one.
  ASSERT_EQ(daemonCommand("start", "mon.a"), 0);
  EXPECT_TRUE(failed) << "the state never turned to 2 while the monitor was down";
  EXPECT_TRUE(ZarnTest::waitFor([&] { return fs.getState() == ZARN_STATE_NORMAL; }, 90000))
      << "the state did not come back to 1 after the monitor returned";
  EXPECT_TRUE(!failed || states.saw(ZARN_STATE_NORMAL, mark));

  // And the store works again.
  auto f = fs.createFile("media_1/after", 4, 1);
  ASSERT_NE(f, nullptr) << getErrorMsg();
  EXPECT_EQ(f->write("back", 4), 4);
  EXPECT_TRUE(f->close());
  fs.setListener(nullptr);
}

}  // namespace
