// Store calls on a CephFS store whose MDS, then whose OSDs, stop answering:
// each returns a store fault within the call time-out, the state monitor
// reports the loss, and the same connection works again once they are back.
// Stops daemons of the test cluster, so ctest runs it alone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "KanduTime.h"
#include "StoreTestKit.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

namespace {

constexpr int32_t kTimeoutMs = 2000;
constexpr uint64_t kBoundMs = kTimeoutMs + 2000;

int daemonCommand(const std::string& verb, const std::string& daemon) {
  const std::string cmd = "bash '" ZARN_SOURCE_DIR "/scripts/ceph-cluster-daemon.sh' '" +
                          ZarnTest::env("ZARN_TEST_CEPH_DIR") + "' " + verb + " " + daemon + " >&2";
  return std::system(cmd.c_str());
}

// Stops daemons and starts them again when it goes, whatever failed meanwhile.
class CStoppedDaemons {
 public:
  explicit CStoppedDaemons(std::vector<std::string> daemons) : m_daemons(std::move(daemons)) {
    for (const std::string& d : m_daemons) m_stopped += daemonCommand("stop", d) == 0 ? 1 : 0;
  }
  ~CStoppedDaemons() { restart(); }
  bool allStopped() const { return m_stopped == m_daemons.size(); }
  bool restart() {
    bool ok = true;
    for (const std::string& d : m_daemons) ok = daemonCommand("start", d) == 0 && ok;
    m_daemons.clear();
    return ok;
  }

 private:
  std::vector<std::string> m_daemons;
  size_t m_stopped = 0;
};

// Runs `call` and says how long it took.
template <class Fn>
uint64_t timed(Fn call) {
  const uint64_t started = Velto::Kandu::monotonicMs();
  call();
  return Velto::Kandu::monotonicMs() - started;
}

bool isStoreFault(int32_t code) {
  return code == ZARN_E_TIMEOUT || code == ZARN_E_UNAVAILABLE || code == ZARN_E_IO;
}

TEST(CephOutage, CallsReturnAStoreFaultWithinTheTimeOutAndTheConnectionRecovers) {
  const std::string address = ZarnTest::clusterRoot("outage");
  if (address.empty() || ZarnTest::env("ZARN_TEST_CEPH_DIR").empty()) GTEST_SKIP() << ZarnTest::kNoCluster;
  CZarnFileSystem fs;
  int32_t option = kTimeoutMs;
  ASSERT_TRUE(fs.setOption(ZARN_OPT_TIMEOUT_MS, &option, sizeof option));
  option = 300;
  ASSERT_TRUE(fs.setOption(ZARN_OPT_HEALTH_PERIOD_MS, &option, sizeof option));
  if (!fs.initialize(Config{address.c_str(), 0, "", ""}) && getLastError() == ZARN_E_UNSUPPORTED) {
    GTEST_SKIP() << getErrorMsg();
  }
  ASSERT_TRUE(fs.isInitialized()) << getErrorMsg();
  ASSERT_TRUE(fs.createBucket("media_1")) << getErrorMsg();
  // Works on the same connection: a file created, written, closed and read back.
  auto roundTrip = [&](const std::string& name) {
    auto w = fs.createFile("media_1/" + name, 1, 0);
    if (!w || w->write("back", 4) != 4 || !w->close()) return std::string("write: ") + getErrorMsg();
    auto r = fs.openFile("media_1/" + name, StoreOpenMode::Read);
    char buf[8] = {};
    if (!r || r->read(buf, sizeof buf) != 4) return std::string("read: ") + getErrorMsg();
    return std::string(buf, 4);
  };

  // A file another client made: this client holds nothing of it, so its stat
  // must ask the MDS (a name this client knows to be absent is answered from
  // its cache).
  {
    CZarnFileSystem other;
    ASSERT_TRUE(other.initialize(Config{address.c_str(), 0, "", ""})) << getErrorMsg();
    ASSERT_TRUE(other.createBucket("media_2")) << getErrorMsg();
    auto f = other.createFile("media_2/theirs", 1, 0);
    ASSERT_TRUE(f && f->close()) << getErrorMsg();
  }
  {
    CStoppedDaemons mds({"mds.a"});
    ASSERT_TRUE(mds.allStopped());
    int32_t created = ZARN_OK, statted = ZARN_OK;
    const uint64_t createMs = timed([&] {
      if (fs.createFile("media_1/during-mds", 1, 0) == nullptr) created = getLastError();
    });
    const uint64_t statMs = timed([&] {
      ZarnFileStat st;
      if (!fs.getFileStat("media_2/theirs", st)) statted = getLastError();
    });
    EXPECT_TRUE(isStoreFault(created)) << created;
    EXPECT_TRUE(isStoreFault(statted)) << statted;
    EXPECT_LE(createMs, kBoundMs);
    EXPECT_LE(statMs, kBoundMs);
    std::printf("MDS stopped: create returned %d after %llu ms, stat %d after %llu ms\n", created,
                static_cast<unsigned long long>(createMs), statted, static_cast<unsigned long long>(statMs));
    EXPECT_TRUE(ZarnTest::waitFor([&] { return fs.getState() == ZARN_STATE_FAILED; }, 10000));
    ASSERT_TRUE(mds.restart());
  }
  const uint64_t mdsBack = Velto::Kandu::monotonicMs();
  EXPECT_TRUE(ZarnTest::waitFor([&] { return fs.getState() == ZARN_STATE_NORMAL; }, 90000));
  std::printf("state 1 again %llu ms after the MDS was back\n",
              static_cast<unsigned long long>(Velto::Kandu::monotonicMs() - mdsBack));
  // The MDS replays its journal and takes its clients back before it answers
  // every request: the same connection is retried until it works.
  std::string again;
  int attempt = 0;
  auto worksAgain = [&](const std::string& tag) {
    return ZarnTest::waitFor(
        [&] { return (again = roundTrip(tag + std::to_string(attempt++))) == "back"; }, 90000);
  };
  EXPECT_TRUE(worksAgain("after-mds-")) << again;
  std::printf("write and read again %llu ms after the MDS was back\n",
              static_cast<unsigned long long>(Velto::Kandu::monotonicMs() - mdsBack));

  auto open = fs.createFile("media_1/open", 1, 0);
  ASSERT_NE(open, nullptr) << getErrorMsg();
  ASSERT_EQ(open->write("head", 4), 4) << getErrorMsg();
  {
    std::vector<std::string> osds;
    const int count = std::atoi(ZarnTest::env("ZARN_TEST_CEPH_OSDS").c_str());
    for (int i = 0; i < (count > 0 ? count : 1); ++i) osds.push_back("osd." + std::to_string(i));
    CStoppedDaemons stopped(osds);
    ASSERT_TRUE(stopped.allStopped());
    const std::string chunk(1 << 20, 'o');
    int64_t written = 0;
    const uint64_t writeMs = timed([&] { written = open->write(chunk.data(), static_cast<uint32_t>(chunk.size())); });
    bool closed = true;
    const uint64_t closeMs = timed([&] { closed = open->close(); });
    EXPECT_LE(writeMs, kBoundMs);
    EXPECT_LE(closeMs, kBoundMs);
    EXPECT_FALSE(closed) << "the close reported the bytes safe with every OSD stopped";
    EXPECT_TRUE(isStoreFault(getLastError())) << getLastError();
    std::printf("OSDs stopped: write returned %lld after %llu ms, close %d (%d) after %llu ms\n",
                static_cast<long long>(written), static_cast<unsigned long long>(writeMs), closed ? 1 : 0,
                getLastError(), static_cast<unsigned long long>(closeMs));
    ASSERT_TRUE(stopped.restart());
  }
  const uint64_t osdsBack = Velto::Kandu::monotonicMs();
  EXPECT_TRUE(worksAgain("after-osds-")) << again;
  std::printf("write and read again %llu ms after the OSDs were back\n",
              static_cast<unsigned long long>(Velto::Kandu::monotonicMs() - osdsBack));
}

}  // namespace
