// What only the CephFS store has: its address, its erasure-coded pools, its
// health probe against a cluster that loses a daemon, its secret. The store
// contract itself is checked by the conformance suite. Tests that need a
// cluster skip unless ZARN_TEST_CEPH_ADDRESS is set (scripts/ceph-cluster-start.sh
// writes it to DIR/zarn-test.env).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "CephStoreBackend.h"
#include "KanduTime.h"
#include "TestSupport.h"
#include "ZarnClient.h"
#include "ZarnError.h"

using namespace Velto::Zarn;

namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? v : "";
}

// A store root of its own for every call, below the configured one.
std::string freshAddress() {
  static std::atomic<int> counter{0};
  return env("ZARN_TEST_CEPH_ADDRESS") + "/ceph-" + std::to_string(::getpid()) + "-" +
         std::to_string(Velto::Kandu::monotonicUs()) + "-" + std::to_string(counter++);
}

#define REQUIRE_CLUSTER()                                                                                \
  do {                                                                                                   \
    if (env("ZARN_TEST_CEPH_ADDRESS").empty())                                                           \
      GTEST_SKIP() << "no Ceph cluster configured: start one with scripts/ceph-cluster-start.sh DIR and " \
                      "source DIR/zarn-test.env";                                                        \
  } while (0)

TEST(CephAddress, MonitorsPortsAndRootAreCheckedBeforeAnyConnection) {
  for (const char* good : {"10.0.0.1", "mon1,mon2,mon3", "10.0.0.1:6789/zarn", "[::1]:3300,10.0.0.2/a/b/",
                           "mon-a:40000/"}) {
    std::string reason;
    EXPECT_TRUE(CCephStoreBackend::parseLocation(good, &reason)) << good << ": " << reason;
  }
  for (const char* bad : {"", "/zarn", ",mon", "mon,", "mon:", "mon:0", "mon:65536", "mon:12x", "[::1",
                          "[::1]x", "mon/a/../b", "mon/a//b"}) {
    std::string reason;
    EXPECT_FALSE(CCephStoreBackend::parseLocation(bad, &reason)) << "'" << bad << "' accepted";
    EXPECT_FALSE(reason.empty()) << bad;
  }
  // Through the client: refused with its reason, nothing connected.
  CZarnFileSystem fs;
  Config config{"ceph://mon:99999/x", 0, "", ""};
  EXPECT_FALSE(fs.initialize(config));
  EXPECT_EQ(getLastError(), ZARN_E_INVALID_ARGUMENT);
  EXPECT_NE(std::string(getErrorMsg()).find("port"), std::string::npos) << getErrorMsg();
}

TEST(CephConnect, AnUnreachableMonitorFailsWithinTheMountTimeOutAndNamesIt) {
  // Nothing listens on port 9 of loopback: the mount gives up after its
  // time-out (10 s by default, not Ceph's 300 s).
  ZarnTest::LogCapture log;
  CZarnFileSystem fs;
  Config config{"ceph://127.0.0.1:9/zarn", 0, "", ""};
  uint64_t started = Velto::Kandu::monotonicMs();
  EXPECT_FALSE(fs.initialize(config));
  uint64_t took = Velto::Kandu::monotonicMs() - started;
  EXPECT_TRUE(getLastError() == ZARN_E_UNAVAILABLE || getLastError() == ZARN_E_TIMEOUT) << getLastError();
  EXPECT_LT(took, 40000u);
  EXPECT_TRUE(log.contains("cannot mount CephFS at monitors 127.0.0.1:9")) << "no line naming the monitors";
}

class CephStore : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_CLUSTER();
    m_address = freshAddress();
    std::shared_ptr<IStoreBackend> backend;
    std::string reason;
    int rc = makeStoreBackend(m_address, backend, &reason);
    if (rc == ZARN_E_UNSUPPORTED) GTEST_SKIP() << "this build has no Ceph backend: " << reason;
    ASSERT_EQ(rc, 0) << reason;
    m_backend = std::dynamic_pointer_cast<CCephStoreBackend>(backend);
    ASSERT_NE(m_backend, nullptr);
    ASSERT_TRUE(m_fs.initializeWithBackend(Config{m_address.c_str(), 0, "", m_secret.c_str()}, m_backend))
        << getErrorMsg();
    ASSERT_TRUE(m_fs.createBucket("media_1")) << getErrorMsg();
  }

  bool put(const std::string& path, uint16_t k, uint16_t m, size_t bytes) {
    auto f = m_fs.createFile(path, k, m);
    if (!f) return false;
    std::string data(bytes, 'e');
    return f->write(data.data(), static_cast<uint32_t>(data.size())) == static_cast<int64_t>(bytes) && f->close();
  }

  const std::string m_secret = "AQBzZXNzaW9uLXNlY3JldC1rZXktOTk5OQ==";
  ZarnTest::LogCapture m_log;  // before the client: catches its connect line
  std::string m_address;
  std::shared_ptr<CCephStoreBackend> m_backend;
  CZarnFileSystem m_fs;
};

TEST_F(CephStore, ErasureCodeCountsChooseTheMatchingPoolOrSayThereIsNone) {
  // 4+1: no such pool on the test cluster; the default pool is used, and the
  // log says so once however many files ask for it.
  ASSERT_TRUE(put("media_1/a", 4, 1, 1000)) << getErrorMsg();
  ASSERT_TRUE(put("media_1/b", 4, 1, 1000)) << getErrorMsg();
  EXPECT_EQ(m_log.count("no data pool zarn_ec_4_1 for 4+1 erasure coding"), 1u);
  std::string defaultPool = m_backend->filePool("media_1", "a");
  EXPECT_FALSE(defaultPool.empty());
  EXPECT_EQ(m_backend->filePool("media_1", "b"), defaultPool);

  if (env("ZARN_TEST_CEPH_OSDS") != "3") GTEST_SKIP() << "the erasure-coded pool needs a cluster of three OSDs";
  ASSERT_TRUE(put("media_1/2016/05/01/ec", 2, 1, 3 << 20)) << getErrorMsg();
  EXPECT_EQ(m_backend->filePool("media_1", "2016/05/01/ec"), "zarn_ec_2_1");
  auto f = m_fs.openFile("media_1/2016/05/01/ec", StoreOpenMode::Read);
  ASSERT_NE(f, nullptr);
  std::string back(4 << 20, '\0');
  int64_t total = 0;
  for (int64_t n; (n = f->read(back.data() + total, static_cast<uint32_t>(back.size() - total))) > 0;) total += n;
  EXPECT_EQ(total, 3 << 20);
  EXPECT_EQ(back.find_first_not_of('e'), static_cast<size_t>(3 << 20));
}

TEST_F(CephStore, TheSecretKeyNeverReachesTheLog) {
  EXPECT_TRUE(m_log.contains("CephFS store at")) << "no connect line";
  EXPECT_NE(m_backend->clientId(), 0u);
  for (const std::string& line : m_log.lines()) EXPECT_EQ(line.find(m_secret), std::string::npos) << line;
}

TEST_F(CephStore, UsedBytesFollowWritesFromTheRecursiveStatistics) {
  ASSERT_TRUE(put("media_1/2016/05/01/x", 4, 1, 300000));
  // The MDS propagates recursive statistics lazily, seconds behind and more
  // under load: poll, generously.
  CBucket bucket = m_fs.getBucket("media_1");
  ASSERT_TRUE(bucket.isValid());
  uint64_t used = 0;
  EXPECT_TRUE(ZarnTest::waitFor([&] { return bucket.getUsedCapacity(used) && used == 300000; }, 90000)) << used;
}

TEST_F(CephStore, ADayListingReadsOnlyTheDayLevelsOnceTheMonthIsKnown) {
  // Three months of a few files a day, listed as a day query does: from the
  // evening before to just past midnight after.
  for (int month = 3; month <= 5; ++month) {
    for (int day = 1; day <= 4; ++day) {
      for (int h = 0; h < 3; ++h) {
        char name[64];
        std::snprintf(name, sizeof name, "media_1/2016/%02d/%02d/%02d0000_1.qrv", month, day, h * 8);
        ASSERT_TRUE(put(name, 4, 1, 10)) << name << ": " << getErrorMsg();
      }
    }
  }
  CBucket bucket = m_fs.getBucket("media_1");
  ASSERT_TRUE(bucket.isValid());
  const CNameList expected{"2016/04/02/000000_1.qrv", "2016/04/02/080000_1.qrv", "2016/04/02/160000_1.qrv",
                           "2016/04/03/000000_1.qrv"};
  // Both markers lie in April: the walk starts at the month, never reading the
  // bucket or year levels, and reads the month and the three admitted days.
  CNameList names;
  uint64_t read = m_backend->levelsRead(), hits = m_backend->levelCacheHits();
  ASSERT_TRUE(bucket.list(names, "2016/04/01/220000", "2016/04/03/001000", 1000)) << getErrorMsg();
  EXPECT_EQ(names, expected);
  EXPECT_EQ(m_backend->levelsRead() - read + m_backend->levelCacheHits() - hits, 4u);
  EXPECT_LE(m_backend->levelsRead() - read, 4u);
  // The month holds only day directories and has not changed: the next
  // listing takes it from the cache and reads only the days (which hold files
  // whose sizes change without their directory).
  names.clear();
  read = m_backend->levelsRead();
  hits = m_backend->levelCacheHits();
  ASSERT_TRUE(bucket.list(names, "2016/04/01/220000", "2016/04/03/001000", 1000)) << getErrorMsg();
  EXPECT_EQ(names, expected);
  EXPECT_EQ(m_backend->levelsRead() - read, 3u);
  EXPECT_EQ(m_backend->levelCacheHits() - hits, 1u);
}

TEST_F(CephStore, ACachedLevelFollowsAnotherClientsChanges) {
  ASSERT_TRUE(put("media_1/2016/04/01/000000_1.qrv", 4, 1, 10)) << getErrorMsg();
  CBucket bucket = m_fs.getBucket("media_1");
  ASSERT_TRUE(bucket.isValid());
  auto listing = [&] {
    CNameList names;
    EXPECT_TRUE(bucket.list(names, "2016/", "2016/\xff", 1000)) << getErrorMsg();
    return names;
  };
  ASSERT_EQ(listing(), CNameList{"2016/04/01/000000_1.qrv"});
  uint64_t hits = m_backend->levelCacheHits();
  ASSERT_EQ(listing(), CNameList{"2016/04/01/000000_1.qrv"});
  ASSERT_GT(m_backend->levelCacheHits(), hits) << "the year and month levels were not served from the cache";

  // A second client (a mount of its own) adds a day, and a month, under the
  // cached levels: the next listing here sees them at once.
  CZarnFileSystem other;
  ASSERT_TRUE(other.initialize(Config{m_address.c_str(), 0, "", ""})) << getErrorMsg();
  for (const char* name : {"media_1/2016/04/09/120000_1.qrv", "media_1/2016/06/01/120000_1.qrv"}) {
    auto f = other.createFile(name, 4, 1);
    ASSERT_NE(f, nullptr) << name << ": " << getErrorMsg();
    ASSERT_EQ(f->write("abcd", 4), 4);
    ASSERT_TRUE(f->close());
  }
  EXPECT_EQ(listing(), (CNameList{"2016/04/01/000000_1.qrv", "2016/04/09/120000_1.qrv", "2016/06/01/120000_1.qrv"}));
  // It removes them (their emptied levels go with them): gone here too.
  ASSERT_TRUE(other.removeFile("media_1/2016/04/09/120000_1.qrv")) << getErrorMsg();
  ASSERT_TRUE(other.removeFile("media_1/2016/06/01/120000_1.qrv")) << getErrorMsg();
  EXPECT_EQ(listing(), CNameList{"2016/04/01/000000_1.qrv"});
  other.close();
}

}  // namespace
