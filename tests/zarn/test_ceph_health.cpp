// The store state listener on a CephFS store whose monitor dies and comes
// back. Stops a daemon of the test cluster, so ctest runs it alone.
#include <gtest/gtest.h>

#include <algorithm>

#include "KanduTime.h"
#include "StoreTestKit.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

namespace {

int daemonCommand(const std::string& verb) {
  const std::string cmd = "bash '" ZARN_SOURCE_DIR "/scripts/ceph-cluster-daemon.sh' '" +
                          ZarnTest::env("ZARN_TEST_CEPH_DIR") + "' " + verb + " mon.a >&2";
  return std::system(cmd.c_str());
}

TEST(CephHealth, ALostMonitorTurnsTheStateToFailedAndItsReturnBackToNormal) {
  const std::string address = ZarnTest::clusterRoot("health");
  if (address.empty() || ZarnTest::env("ZARN_TEST_CEPH_DIR").empty()) GTEST_SKIP() << ZarnTest::kNoCluster;
  CZarnFileSystem fs;
  int32_t period = 300;
  ASSERT_TRUE(fs.setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof period));
  ZarnTest::CStateRecorder states;
  fs.setListener(&states);
  if (!fs.initialize(Config{address.c_str(), 0, "", ""}) && getLastError() == ZARN_E_UNSUPPORTED) {
    GTEST_SKIP() << getErrorMsg();
  }
  ASSERT_TRUE(fs.isInitialized()) << getErrorMsg();
  ASSERT_TRUE(fs.createBucket("media_1")) << getErrorMsg();
  EXPECT_EQ(fs.getState(), ZARN_STATE_NORMAL);
  // Whether `state` was reported since the `from`-th report.
  auto saw = [&](ZarnState state, size_t from) {
    const std::vector<int> seen = states.states();
    return std::find(seen.begin() + static_cast<ptrdiff_t>(std::min(from, seen.size())), seen.end(), state) !=
           seen.end();
  };

  ASSERT_EQ(daemonCommand("stop"), 0);
  size_t mark = states.states().size();
  bool failed = ZarnTest::waitFor([&] { return saw(ZARN_STATE_FAILED, mark); }, 30000);
  // The probe may see the monitor back before the start script returns (it waits for the monitor to be in
  // service), so the return to 1 is looked for from this point on, not from after the start.
  mark = states.states().size();
  // Whatever happened, the monitor must come back for the tests after this one.
  ASSERT_EQ(daemonCommand("start"), 0);
  EXPECT_TRUE(failed) << "the state never turned to 2 while the monitor was down";
  EXPECT_TRUE(ZarnTest::waitFor([&] { return fs.getState() == ZARN_STATE_NORMAL; }, 90000))
      << "the state did not come back to 1 after the monitor returned";
  EXPECT_TRUE(!failed || saw(ZARN_STATE_NORMAL, mark));

  // And the store works again.
  auto f = fs.createFile("media_1/after", 4, 1);
  ASSERT_NE(f, nullptr) << getErrorMsg();
  EXPECT_EQ(f->write("back", 4), 4);
  EXPECT_TRUE(f->close());
  fs.setListener(nullptr);
}

}  // namespace
