// What only the CephFS store has: its address, its erasure-coded pools, its
// secret, its used bytes and its cache of directory levels. The store contract
// itself is checked by the conformance suite. Tests that need a cluster skip
// unless ZARN_TEST_CEPH_ADDRESS is set (scripts/ceph-cluster-start.sh writes it
// to DIR/zarn-test.env).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>

#include "CephStoreBackend.h"
#include "KanduTime.h"
#include "StoreTestKit.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

namespace {

TEST(CephAddress, CheckedBeforeAnyConnectionAndAnUnreachableMonitorIsNamed) {
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
  ZarnTest::LogCapture log;
  CZarnFileSystem fs;
  EXPECT_REFUSED(fs.initialize(Config{"ceph://mon:99999/x", 0, "", ""}), ZARN_E_INVALID_ARGUMENT);
  EXPECT_NE(std::string(getErrorMsg()).find("port"), std::string::npos) << getErrorMsg();

  // Nothing listens on port 9 of loopback: the mount gives up after its
  // time-out (10 s by default, not Ceph's 300 s) and the error names the monitors.
  const uint64_t started = Velto::Kandu::monotonicMs();
  EXPECT_FALSE(fs.initialize(Config{"ceph://127.0.0.1:9/zarn", 0, "", ""}));
  EXPECT_LT(Velto::Kandu::monotonicMs() - started, 40000u);
  EXPECT_TRUE(getLastError() == ZARN_E_UNAVAILABLE || getLastError() == ZARN_E_TIMEOUT) << getLastError();
  EXPECT_TRUE(log.contains("cannot mount CephFS at monitors 127.0.0.1:9")) << "no error line naming the monitors";
}

// A client on a store root of its own below the configured one, connected with
// a secret key; no log line of any test may carry that key.
class CephStore : public ::testing::Test {
 protected:
  void SetUp() override {
    if ((m_address = ZarnTest::clusterRoot("ceph")).empty()) GTEST_SKIP() << ZarnTest::kNoCluster;
    std::shared_ptr<IStoreBackend> backend;
    std::string reason;
    int rc = makeStoreBackend(m_address, backend, &reason);
    if (rc == ZARN_E_UNSUPPORTED) GTEST_SKIP() << "this build has no Ceph backend: " << reason;
    ASSERT_EQ(rc, 0) << reason;
    m_backend = std::dynamic_pointer_cast<CCephStoreBackend>(backend);
    ASSERT_NE(m_backend, nullptr);
    ASSERT_TRUE(m_fs.initializeWithBackend(Config{m_address.c_str(), 0, "", m_secret.c_str()}, m_backend))
        << getErrorMsg();
    EXPECT_TRUE(m_log.contains("CephFS store at")) << "no connect line";
    EXPECT_NE(m_backend->clientId(), 0u);
    ASSERT_TRUE(m_fs.createBucket("media_1")) << getErrorMsg();
  }

  void TearDown() override {
    for (const std::string& line : m_log.lines()) EXPECT_EQ(line.find(m_secret), std::string::npos) << line;
  }

  bool put(const std::string& path, uint16_t k, uint16_t m, size_t bytes, CZarnFileSystem* fs = nullptr) {
    auto f = (fs != nullptr ? fs : &m_fs)->createFile(path, k, m);
    const std::string data(bytes, 'e');
    return f && f->write(data.data(), static_cast<uint32_t>(bytes)) == static_cast<int64_t>(bytes) && f->close();
  }

  const std::string m_secret = "AQBzZXNzaW9uLXNlY3JldC1rZXktOTk5OQ==";
  ZarnTest::LogCapture m_log;  // before the client: catches its connect line
  std::string m_address;
  std::shared_ptr<CCephStoreBackend> m_backend;
  CZarnFileSystem m_fs;
};

TEST_F(CephStore, ErasureCodeCountsChooseTheMatchingPoolOrSayThereIsNone) {
  // 4+1: no such pool on the test cluster; the default pool is used, and the
  // log warns once however many files ask for it.
  ASSERT_TRUE(put("media_1/a", 4, 1, 1000)) << getErrorMsg();
  ASSERT_TRUE(put("media_1/b", 4, 1, 1000)) << getErrorMsg();
  EXPECT_EQ(m_log.count("no data pool zarn_ec_4_1 for 4+1 erasure coding"), 1u);
  std::string defaultPool = m_backend->filePool("media_1", "a");
  EXPECT_FALSE(defaultPool.empty());
  EXPECT_EQ(m_backend->filePool("media_1", "b"), defaultPool);

  if (ZarnTest::env("ZARN_TEST_CEPH_OSDS") != "3") GTEST_SKIP() << "the erasure-coded pool needs three OSDs";
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

TEST_F(CephStore, UsedBytesFollowWritesFromTheRecursiveStatistics) {
  ASSERT_TRUE(put("media_1/2016/05/01/x", 4, 1, 300000));
  // The MDS propagates recursive statistics lazily, seconds behind and more
  // under load: poll, generously.
  CBucket bucket = m_fs.getBucket("media_1");
  uint64_t used = 0;
  EXPECT_TRUE(ZarnTest::waitFor([&] { return bucket.getUsedCapacity(used) && used == 300000; }, 90000)) << used;
}

TEST_F(CephStore, ListingsReadOnlyTheLevelsTheyNeedAndCachedLevelsFollowOtherClients) {
  // Three months of a few files a day (no 3rd), listed as a day query does:
  // from the evening before to just past midnight after.
  std::set<std::string> all;
  for (int month = 3; month <= 5; ++month) {
    for (int day : {1, 2, 4}) {
      for (int h = 0; h < 3; ++h) {
        char name[64];
        std::snprintf(name, sizeof name, "2016/%02d/%02d/%02d0000_1.qrv", month, day, h * 8);
        ASSERT_TRUE(put(std::string("media_1/") + name, 4, 1, 10)) << name << ": " << getErrorMsg();
        all.insert(name);
      }
    }
  }
  CBucket bucket = m_fs.getBucket("media_1");
  auto listing = [&](const char* after, const char* upTo) {
    CNameList names;
    EXPECT_TRUE(bucket.list(names, after, upTo, 1000)) << getErrorMsg();
    return names;
  };
  auto dayQuery = [&] { return listing("2016/04/01/220000", "2016/04/03/001000"); };
  CNameList day{"2016/04/02/000000_1.qrv", "2016/04/02/080000_1.qrv", "2016/04/02/160000_1.qrv"};
  // Both markers lie in April: the walk starts at the month, never reading the
  // bucket or year levels, and reads the month and the two admitted days.
  uint64_t read = m_backend->levelsRead(), hits = m_backend->levelCacheHits();
  EXPECT_EQ(dayQuery(), day);
  EXPECT_EQ(m_backend->levelsRead() - read + m_backend->levelCacheHits() - hits, 3u);
  EXPECT_LE(m_backend->levelsRead() - read, 3u);
  // The month holds only day directories and has not changed: the next
  // listing takes it from the cache and reads only the days (which hold files
  // whose sizes change without their directory).
  read = m_backend->levelsRead();
  hits = m_backend->levelCacheHits();
  EXPECT_EQ(dayQuery(), day);
  EXPECT_EQ(m_backend->levelsRead() - read, 2u);
  EXPECT_EQ(m_backend->levelCacheHits() - hits, 1u);
  const CNameList before(all.begin(), all.end());
  ASSERT_EQ(listing("2016/", "2016/\xff"), before);
  hits = m_backend->levelCacheHits();
  ASSERT_EQ(listing("2016/", "2016/\xff"), before);
  ASSERT_GT(m_backend->levelCacheHits(), hits) << "the year and month levels were not served from the cache";

  // A second client (a mount of its own) adds a day under the cached month and
  // a month under the cached year: the next listings here see them at once.
  CZarnFileSystem other;
  ASSERT_TRUE(other.initialize(Config{m_address.c_str(), 0, "", ""})) << getErrorMsg();
  for (const char* name : {"2016/04/03/000000_1.qrv", "2016/06/01/120000_1.qrv"}) {
    ASSERT_TRUE(put(std::string("media_1/") + name, 4, 1, 4, &other)) << name << ": " << getErrorMsg();
    all.insert(name);
  }
  day.push_back("2016/04/03/000000_1.qrv");
  EXPECT_EQ(dayQuery(), day);
  EXPECT_EQ(listing("2016/", "2016/\xff"), CNameList(all.begin(), all.end()));
  // It removes them (their emptied levels go with them): gone here too.
  ASSERT_TRUE(other.removeFile("media_1/2016/04/03/000000_1.qrv")) << getErrorMsg();
  ASSERT_TRUE(other.removeFile("media_1/2016/06/01/120000_1.qrv")) << getErrorMsg();
  day.pop_back();
  EXPECT_EQ(dayQuery(), day);
  EXPECT_EQ(listing("2016/", "2016/\xff"), before);
  other.close();
}

}  // namespace
