// The lock-size ledger, the system-file check and removing record files, on a
// local store.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "LockSizeLedger.h"
#include "RecordFileName.h"
#include "RecordRemoval.h"
#include "TestSupport.h"
#include "ZarnClient.h"

using namespace Velto::Zarn;

namespace {

class LedgerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_root = m_dir.sub("store");
    m_config = Config{m_root.c_str(), 0, "root", ""};
    ASSERT_TRUE(m_fs.initialize(m_config));
  }
  uint64_t total() {
    uint64_t t = 0;
    EXPECT_TRUE(getLockSize(m_fs, t));
    return t;
  }
  size_t ledgerFiles() {
    CNameList names;
    EXPECT_TRUE(m_fs.getBucket(kSystemBucket).list(names, "lockSize_", "lockSize_z", 100));
    return names.size();
  }

  ZarnTest::TempDir m_dir;
  std::string m_root;
  Config m_config{};
  CZarnFileSystem m_fs;
};

TEST_F(LedgerTest, CheckSysFileCreatesOneLedgerAndKeepsIt) {
  EXPECT_TRUE(getLockSizeFileName(m_fs).empty());
  EXPECT_EQ(plusLockSize(m_fs, 5), -1);  // updates without a ledger fail
  EXPECT_EQ(minusLockSize(m_fs, 5), -1);
  ASSERT_TRUE(checkSysFile(m_fs));
  EXPECT_EQ(total(), 0u);
  std::string first = getLockSizeFileName(m_fs);
  ASSERT_TRUE(checkSysFile(m_fs));
  EXPECT_EQ(getLockSizeFileName(m_fs), first);  // an existing ledger is left alone
  EXPECT_EQ(ledgerFiles(), 1u);
  ZarnFileStat st;
  EXPECT_FALSE(m_fs.getFileStat("media_system/sys.lock", st));  // the guard is gone again
}

TEST_F(LedgerTest, ALeftoverGuardIsRemovedByTheNextStarter) {
  ASSERT_TRUE(m_fs.createBucket(kSystemBucket));
  ASSERT_TRUE(m_fs.createFile("media_system/sys.lock", 1, 1)->close());  // a creator that died
  ASSERT_TRUE(checkSysFile(m_fs));
  EXPECT_EQ(ledgerFiles(), 1u);
}

TEST_F(LedgerTest, TotalsAddUpAndNeverGoBelowZero) {
  ASSERT_TRUE(checkSysFile(m_fs));
  EXPECT_EQ(plusLockSize(m_fs, 0), 0);
  EXPECT_EQ(plusLockSize(m_fs, 100), 0);
  EXPECT_EQ(plusLockSize(m_fs, 28), 0);
  EXPECT_EQ(total(), 128u);
  EXPECT_EQ(minusLockSize(m_fs, 28), 0);
  EXPECT_EQ(total(), 100u);
  EXPECT_EQ(minusLockSize(m_fs, 500), 0);
  EXPECT_EQ(total(), 0u);
  EXPECT_EQ(ledgerFiles(), 1u);
}

TEST_F(LedgerTest, ConcurrentClientsBothLandTheirUpdates) {
  ASSERT_TRUE(checkSysFile(m_fs));
  constexpr int kThreads = 4, kEach = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this] {
      CZarnFileSystem own;  // a connection of its own, like another process
      ASSERT_TRUE(own.initialize(m_config));
      for (int i = 0; i < kEach; ++i) ASSERT_EQ(plusLockSize(own, 1), 0);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(total(), static_cast<uint64_t>(kThreads * kEach));
  EXPECT_EQ(ledgerFiles(), 1u);
}

TEST_F(LedgerTest, RemovingARecordFileTakesALockedFilesSizeOffTheLedgerOnce) {
  ASSERT_TRUE(checkSysFile(m_fs));
  ASSERT_TRUE(m_fs.createBucket("media_3"));
  RecordFileName locked{.streamId = 3, .beginTime = 1700000000, .endTime = 1700000600, .type = 1, .lockCount = 2,
                        .indexState = 3, .size = 5ull << 20};
  RecordFileName index = locked;
  index.isIndex = 1;
  RecordFileName unlocked = locked;
  unlocked.beginTime += 600;
  unlocked.endTime += 600;
  unlocked.lockCount = 0;
  for (const RecordFileName* r : {&locked, &index, &unlocked})
    ASSERT_TRUE(m_fs.createFile(ZarnTest::recordPath(*r), 1, 1)->close());
  ASSERT_EQ(plusLockSize(m_fs, 8), 0);
  ZarnTest::LogCapture log;

  ASSERT_TRUE(removeRecordFile(m_fs, index));  // index files never count
  EXPECT_EQ(total(), 8u);
  ASSERT_TRUE(removeRecordFile(m_fs, locked));
  EXPECT_EQ(total(), 3u);
  const std::string name = ZarnTest::recordPath(locked);
  ZarnFileStat st;
  EXPECT_FALSE(m_fs.getFileStat(name, st));
  // Gone already: refused, and the ledger stays as it is.
  EXPECT_FALSE(removeRecordFile(m_fs, locked));
  EXPECT_TRUE(log.contains("remove file failed [" + name + "]"));
  EXPECT_EQ(total(), 3u);
  ASSERT_TRUE(removeRecordFile(m_fs, unlocked));  // an unlocked file never counted
  EXPECT_EQ(total(), 3u);
  locked.endTime = 0;  // open and locked: cannot be named
  EXPECT_FALSE(removeRecordFile(m_fs, locked));
  EXPECT_TRUE(log.contains("generateRecordFileName failed"));
}

}  // namespace
