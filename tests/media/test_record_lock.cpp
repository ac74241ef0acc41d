// The lock-size ledger, the system-file check, removing record files, and
// locks on files and ranges, on a local store.
#include <gtest/gtest.h>

#include <vector>

#include "DamagedStore.h"
#include "FaultInjectingBackend.h"
#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "RecordFileName.h"
#include "RecordLock.h"
#include "RecordRemoval.h"
#include "TestSupport.h"
#include "ZarnClient.h"

using namespace Velto::Zarn;

namespace {

class LedgerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_fs.initialize(Config{m_root.c_str(), 0, "root", ""})); }
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
  std::string m_root = m_dir.sub("store");
  CZarnFileSystem m_fs;
};

TEST_F(LedgerTest, CheckSysFileCreatesOneLedgerAndKeepsItAndTotalsNeverGoBelowZero) {
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

  // Totals add up and never go below zero.
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

// What a process killed inside a two-step rename (link, then unlink) leaves:
// the ledger's old and new names side by side.
TEST_F(LedgerTest, OfLeftoverNamesTheNewestCountsAndSettledOnesAreRemoved) {
  auto place = [this](uint64_t total, uint64_t unique) {
    const std::string name = "media_system/lockSize_" + std::to_string(total) + "_" + std::to_string(unique) + ".temp";
    EXPECT_TRUE(m_fs.createFile(name, 1, 0)->close());
  };
  auto uniqueOf = [](const std::string& path) { return std::stoull(path.substr(path.rfind('_') + 1)); };
  ASSERT_TRUE(checkSysFile(m_fs));
  ASSERT_EQ(plusLockSize(m_fs, 7), 0);
  // Updates within one second still name ever newer targets.
  for (int i = 0; i < 8; ++i) {
    const uint64_t before = uniqueOf(getLockSizeFileName(m_fs));
    ASSERT_EQ(plusLockSize(m_fs, 1), 0);
    ASSERT_GT(uniqueOf(getLockSizeFileName(m_fs)), before);
  }
  EXPECT_EQ(total(), 15u);

  // A recent older name stays (its rename may still be running) and is ignored.
  place(99, uniqueOf(getLockSizeFileName(m_fs)) - 1);
  EXPECT_EQ(total(), 15u);
  ASSERT_EQ(plusLockSize(m_fs, 1), 0);
  EXPECT_EQ(total(), 16u);
  EXPECT_EQ(ledgerFiles(), 2u);
  // A newer name is the interrupted update's target: it counts.
  place(20, uniqueOf(getLockSizeFileName(m_fs)) + 1);
  EXPECT_EQ(total(), 20u);
  ASSERT_EQ(minusLockSize(m_fs, 2), 0);
  EXPECT_EQ(total(), 18u);
  EXPECT_EQ(ledgerFiles(), 3u);

  // Names of 2020: nothing can be renaming them any more; all but the newest go.
  CNameList names;
  ASSERT_TRUE(m_fs.getBucket(kSystemBucket).list(names, "lockSize_", "lockSize_z", 100));
  for (const std::string& name : names) ASSERT_TRUE(m_fs.removeFile("media_system/" + name));
  place(5, 1577836800100001ull);
  place(9, 1577836800100002ull);
  place(3, 1577836800100000ull);
  EXPECT_EQ(total(), 9u);
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

  ASSERT_TRUE(removeRecordFile(m_fs, index));  // index files never count
  EXPECT_EQ(total(), 8u);
  ASSERT_TRUE(removeRecordFile(m_fs, locked));
  EXPECT_EQ(total(), 3u);
  ZarnFileStat st;
  EXPECT_FALSE(m_fs.getFileStat(ZarnTest::recordPath(locked), st));
  // Gone already: refused, and the ledger stays as it is.
  EXPECT_FALSE(removeRecordFile(m_fs, locked));
  EXPECT_EQ(total(), 3u);
  ASSERT_TRUE(removeRecordFile(m_fs, unlocked));  // an unlocked file never counted
  EXPECT_EQ(total(), 3u);
  locked.endTime = 0;  // open and locked: cannot be named
  EXPECT_FALSE(removeRecordFile(m_fs, locked));
}

// ---------------------------------------------------------------- locks

// 2026-03-10 10:00:00 UTC.
const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0));
constexpr uint32_t kSid = 5;

RecordClip clip(uint32_t begin, uint32_t end) {
  RecordClip c{};
  c.beginTime = begin;
  c.endTime = end;
  return c;
}
constexpr uint32_t kHalfHour = 1800;

// A client on a local store that reports 100 MiB, behind a fault-injecting
// backend; stream 5 holds three closed files of 30 minutes from T, of 2, 3
// and 5 MiB, their index inside (state 1), none locked.
class LockStreamTest : public ::testing::Test {
 public:  // the cases of a table arrange the fixture through lambdas
  void SetUp() override {
    registerStoreBackend("locktest", [this](const std::string&, std::shared_ptr<IStoreBackend>& out) {
      auto local = makeLocalStoreBackend(m_dir.sub("store"));
      local->setCapacityLimit(100ull << 20);
      m_backend = std::make_shared<CFaultInjectingBackend>(local);
      out = m_backend;
      return 0;
    });
    ASSERT_EQ(m_client.initialize(Config{"locktest://store", 0, "root", ""}, nullptr), 0);
    for (int i = 0; i < 3; ++i) add(i, kSizes[i]);
  }
  void TearDown() override { registerStoreBackend("locktest", nullptr); }

  CZarnFileSystem& fs() { return *m_client.storeForTest(); }
  // Replaces file i (30 minutes from T + i * 30 min) with one of the given size, locks and index state.
  void add(int i, uint32_t megabytes, uint16_t locks = 0, uint32_t state = 1) {
    for (const RecordFileName& f : ZarnTest::listRecords(fs(), kSid))
      if (f.beginTime == T + i * kHalfHour) fs().removeFile(ZarnTest::recordPath(f));
    RecordFileName n{.streamId = kSid, .beginTime = T + i * kHalfHour, .endTime = T + (i + 1) * kHalfHour - 1,
                     .type = 1, .lockCount = locks, .indexState = state};
    ZarnTest::putFile(fs(), ZarnTest::recordPath(n), std::vector<uint8_t>((megabytes << 20) + 100, 0x5A));
  }
  // The lock counts of stream 5's files, in time order.
  std::vector<uint16_t> locks() {
    std::vector<uint16_t> out;
    for (const RecordFileName& f : ZarnTest::listRecords(fs(), kSid)) out.push_back(f.lockCount);
    return out;
  }
  uint64_t ledger() {
    uint64_t total = 0;
    EXPECT_TRUE(getLockSize(fs(), total));
    return total;
  }
  int lock(uint32_t from, uint32_t to) { return m_client.lockStream(kSid, from, to); }
  int unlock(uint32_t from, uint32_t to, bool all, unsigned char* left = nullptr) {
    unsigned char lockNum = 99;
    const int rc = m_client.unlockStream(kSid, from, to, lockNum, all);
    if (left) *left = lockNum;
    return rc;
  }

  static constexpr uint32_t kSizes[3] = {2, 3, 5};
  const uint32_t kEnd = T + 3 * kHalfHour;
  ZarnTest::TempDir m_dir;
  std::shared_ptr<CFaultInjectingBackend> m_backend;
  CMediaClientInternal m_client;
};

TEST_F(LockStreamTest, ARangeLocksEveryFileAndTheLedgerCountsEachOnce) {
  ASSERT_EQ(lock(T, kEnd), 0);
  EXPECT_EQ(locks(), (std::vector<uint16_t>{1, 1, 1}));
  EXPECT_EQ(ledger(), 10u);
  EXPECT_EQ(m_client.getLockRatio(), 1000);  // 10 of 100 MiB, in basis points
  ASSERT_EQ(lock(T + kHalfHour, kEnd), 0);   // the last two files again: counted once
  EXPECT_EQ(locks(), (std::vector<uint16_t>{1, 2, 2}));
  EXPECT_EQ(ledger(), 10u);
  unsigned char left = 0;
  ASSERT_EQ(unlock(T, kEnd, false, &left), 0);
  EXPECT_EQ(left, 1);
  EXPECT_EQ(locks(), (std::vector<uint16_t>{0, 1, 1}));
  EXPECT_EQ(ledger(), 8u);  // the first file's 2 MiB only
  for (int i = 0; i < 4; ++i) ASSERT_EQ(lock(T, kEnd), 0);
  EXPECT_EQ(locks(), (std::vector<uint16_t>{4, 5, 5}));
  ASSERT_EQ(unlock(T, kEnd, true, &left), 0);  // 5 to 0 in one rename each
  EXPECT_EQ(left, 0);
  EXPECT_EQ(locks(), (std::vector<uint16_t>{0, 0, 0}));
  EXPECT_EQ(ledger(), 0u);
  ASSERT_EQ(unlock(T, kEnd, false), 0);  // nothing locked: nothing to do
}

TEST_F(LockStreamTest, FilesThatCannotBeLockedFollowThePartialAndAllOrNothingRules) {
  struct Case {
    const char* what;
    std::function<void(LockStreamTest&)> arrange;
    int result;
    std::vector<uint16_t> after;
    uint64_t ledger;
  };
  const std::vector<Case> cases = {
      {"the middle file has no index", [](LockStreamTest& t) { t.add(1, 3, 0, 0); }, -3, {0, 0, 0}, 0},
      {"the middle file's index is being rebuilt", [](LockStreamTest& t) { t.add(1, 3, 0, 2); }, -3, {0, 0, 0}, 0},
      {"the middle file is at its lock limit", [](LockStreamTest& t) { t.add(1, 3, 255); }, -1, {1, 255, 1}, 7},
      {"the middle file was renamed away after the listing",
       [](LockStreamTest& t) {
         FaultRule gone;
         gone.op = StoreOp::RenameFile;
         gone.code = ZARN_E_NO_SUCH_FILE;
         gone.nameContains = "/2026/03/10/103000_";
         t.m_backend->addRule(gone);
       },
       -3, {0, 0, 0}, 0},
      {"the lock ratio limit: 10 % locked, 10 % allowed",
       [](LockStreamTest& t) {
         ASSERT_EQ(plusLockSize(t.fs(), 10), 0);
         t.m_client.setMaxLockRatio(10);
       },
       -2, {0, 0, 0}, 10},
      {"the limit reached after the first file", [](LockStreamTest& t) { t.m_client.setMaxLockRatio(2); }, -2,
       {0, 0, 0}, 0},
      {"a limit of 0", [](LockStreamTest& t) { t.m_client.setMaxLockRatio(0); }, -2, {0, 0, 0}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    m_backend->clearRules();
    c.arrange(*this);
    EXPECT_EQ(lock(T, kEnd), c.result);
    EXPECT_EQ(locks(), c.after);
    EXPECT_EQ(ledger(), c.ledger);
    // Back to the fixture's state for the next case.
    m_backend->clearRules();
    m_client.setMaxLockRatio(57);
    unlock(T, kEnd, true);
    for (int i = 0; i < 3; ++i) add(i, kSizes[i]);
    minusLockSize(fs(), ledger());
  }
}

TEST_F(LockStreamTest, BadRangesAndABrokenLedgerAreRefusedWithoutDrift) {
  unsigned char left = 0;
  EXPECT_EQ(lock(kEnd, T), -3);  // ends before it begins
  EXPECT_EQ(m_client.unlockStream(kSid, kEnd, T, left, false), -1);
  EXPECT_EQ(m_client.lockStream(77, T, kEnd), 0);  // a stream without recordings: nothing to lock
  EXPECT_EQ(locks(), (std::vector<uint16_t>{0, 0, 0}));
  // Clips out of order, or overlapping: refused before anything is locked.
  for (std::vector<RecordClip> clips : {std::vector<RecordClip>{clip(T + kHalfHour, kEnd), clip(T, T + kHalfHour)},
                                        std::vector<RecordClip>{clip(T, T + kHalfHour + 60), clip(T + kHalfHour, kEnd)}}) {
    EXPECT_EQ(m_client.lockStream(kSid, clips), -3);
  }
  EXPECT_EQ(locks(), (std::vector<uint16_t>{0, 0, 0}));
  // An older second ledger name beside the ledger: the ledger goes on being used.
  const std::string ledgerPath = getLockSizeFileName(fs());
  ASSERT_TRUE(fs().createFile("media_system/lockSize_9_1.temp", 1, 0)->close());
  ASSERT_EQ(lock(T, T + kHalfHour), 0);
  EXPECT_EQ(ledger(), 2u);
  ASSERT_TRUE(fs().removeFile("media_system/lockSize_9_1.temp"));
  // The ledger renamed to garbage, then deleted: locks refuse, nothing moves.
  const std::string current = getLockSizeFileName(fs());
  ASSERT_TRUE(fs().renameFile(current, "media_system/lockSize_garbage.temp"));
  EXPECT_EQ(lock(T, kEnd), -3);
  ASSERT_TRUE(fs().removeFile("media_system/lockSize_garbage.temp"));
  EXPECT_EQ(lock(T, kEnd), -3);
  EXPECT_EQ(locks(), (std::vector<uint16_t>{1, 0, 0}));
}

TEST_F(LockStreamTest, ClipsJoinIntoRangesAndAFailingRangeUndoesTheOnesBefore) {
  // Adjacent clips are one range; a gap starts another.
  std::vector<RecordClip> clips{clip(T, T + 600), clip(T + 600, T + 1200), clip(T + 2 * kHalfHour, kEnd)};
  ZarnTest::LogCapture log(Velto::Kandu::LOG_INFO);
  ASSERT_EQ(m_client.lockStream(kSid, clips), 0);
  EXPECT_EQ(log.count("lockstream  "), 2u);
  EXPECT_EQ(locks(), (std::vector<uint16_t>{1, 0, 1}));
  EXPECT_EQ(ledger(), 7u);
  // The second range fails (its file's rename is refused): the first is unlocked again.
  FaultRule refuse;
  refuse.op = StoreOp::RenameFile;
  refuse.code = ZARN_E_PERMISSION;
  refuse.nameContains = "/2026/03/10/110000_";
  m_backend->addRule(refuse);
  EXPECT_EQ(m_client.lockStream(kSid, clips), -3);
  EXPECT_EQ(locks(), (std::vector<uint16_t>{1, 0, 1}));
  EXPECT_EQ(ledger(), 7u);
}

}  // namespace
