// Deleting recordings on a local store: which files a range removes, trims or
// keeps (names checked exactly, index files included), the lock-size ledger,
// clearing a stream, and the cover engine's per-stream delete step.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "KanduTime.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "RecordDeletion.h"
#include "TestSupport.h"

using namespace Velto::Zarn;
using ZarnTest::recordPath;

namespace {

// 2026-03-10 10:00:00 UTC; "now" is ten days later.
const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0));
constexpr uint32_t kOpen = 0xFFFFFFFFu;  // as an end offset: a file under its open name

RecordFileName rec(uint32_t sid, uint32_t b, uint32_t e, uint32_t state = 1, uint16_t locks = 0, uint16_t kind = 0) {
  const uint32_t end = e == kOpen ? 0 : T + e;
  return RecordFileName{.streamId = sid, .beginTime = T + b, .endTime = end, .type = 1, .lockCount = locks,
                        .indexState = e == kOpen ? 0 : state, .realEndTime = end, .bucketKind = kind};
}

// A client on a local store (its start made the ledger) and a second
// connection to the same store for arranging and looking.
class RecordDeletionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(m_client.initialize(m_config, nullptr), 0);
    ASSERT_TRUE(m_fs.initialize(m_config));
  }
  // The file of `mib` MiB and, for index state 3, its index file; a locked
  // file is counted in the ledger, as locking it would have.
  void add(const RecordFileName& n, uint32_t mib = 0) {
    m_fs.createBucket(bucketName(n.streamId, n.bucketKind));
    std::unique_ptr<CFile> f = m_fs.createFile(recordPath(n), 1, 0);
    const std::vector<uint8_t> bytes(size_t{mib} << 20, 0x5A);
    ASSERT_EQ(f->write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
    ASSERT_TRUE(f->close());
    RecordFileName index = n;
    index.isIndex = 1;
    EXPECT_TRUE(n.indexState != RECORD_INDEX_SEPARATE || m_fs.createFile(recordPath(index), 1, 0)->close());
    EXPECT_EQ(n.lockCount != 0 ? plusLockSize(m_fs, mib) : 0, 0);
  }
  // Full names of every file in both buckets of `sid`.
  std::set<std::string> names(uint32_t sid) {
    std::set<std::string> out;
    for (uint16_t kind : {BUCKET_KIND_MEDIA, BUCKET_KIND_FORGOTTEN}) {
      CNameList list;
      if (m_fs.getBucket(bucketName(sid, kind)).list(list, "", "", 10000))
        for (const std::string& n : list) out.insert(bucketName(sid, kind) + "/" + n);
    }
    return out;
  }
  // The names `files` should have: theirs, and their index files' for state 3.
  static std::set<std::string> namesOf(const std::vector<RecordFileName>& files) {
    std::set<std::string> out;
    for (RecordFileName f : files) {
      out.insert(recordPath(f));
      f.isIndex = 1;
      if (f.indexState == RECORD_INDEX_SEPARATE) out.insert(recordPath(f));
    }
    return out;
  }
  uint64_t ledger() {
    uint64_t total = 0;
    EXPECT_TRUE(getLockSize(m_fs, total));
    return total;
  }
  bool hasBucket(uint32_t sid, uint16_t kind = 0) { return m_fs.getBucket(bucketName(sid, kind)).isValid(); }

  ZarnTest::TempDir m_dir;
  Config m_config{m_dir.path().c_str(), 0, "root", ""};
  CZarnFileSystem m_fs;
  Velto::Kandu::CManualClock m_clock{int64_t{T + 10 * 86400} * 1000};
  CMediaClientInternal m_client{m_clock};
};

// One stream per case, against the range [T+1000, T+2000].
TEST_F(RecordDeletionTest, ARangeRemovesFilesInsideTrimsIndexedEdgesByNameAndKeepsTheRest) {
  struct Case {
    const char* what;
    RecordFileName file;
    uint32_t mib;
    std::vector<RecordFileName> after;
    uint64_t ledgerDrop;
  };
  const Case cases[] = {
      {"inside, locked", rec(10, 1000, 2000, 1, 2), 2, {}, 2},
      {"inside, separate index", rec(11, 1100, 1900, 3), 0, {}, 0},
      {"inside, no index", rec(12, 1100, 1900, 0), 0, {}, 0},
      {"inside, forgotten bucket", rec(13, 1100, 1900, 1, 0, BUCKET_KIND_FORGOTTEN), 0, {}, 0},
      {"over the begin, separate index, locked", rec(14, 500, 1500, 3, 1), 1, {rec(14, 500, 1000, 3, 1)}, 0},
      {"over the end", rec(15, 1500, 2500), 0, {rec(15, 2000, 2500)}, 0},
      {"over the end, no index", rec(16, 1500, 2500, 0), 0, {rec(16, 1500, 2500, 0)}, 0},
      {"spanning the range", rec(17, 500, 2500), 0, {rec(17, 500, 2500)}, 0},
      {"inside, index being rebuilt", rec(18, 1100, 1900, 2), 0, {rec(18, 1100, 1900, 2)}, 0},
      {"before the range", rec(19, 0, 999), 0, {rec(19, 0, 999)}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    add(c.file, c.mib);
    const uint64_t before = ledger();
    EXPECT_EQ(m_client.deleteRecordClip(c.file.streamId, T + 1000, T + 2000), 0);
    EXPECT_EQ(names(c.file.streamId), namesOf(c.after));
    EXPECT_EQ(before - ledger(), c.ledgerDrop);
  }
  // A file being written stays, though the range holds all it has so far.
  ASSERT_TRUE(m_fs.createBucket(bucketName(20, 0)));
  std::unique_ptr<CFile> live = m_fs.createFile(recordPath(rec(20, 1100, kOpen)), 1, 0);
  EXPECT_EQ(m_client.deleteRecordClip(20, T + 1000, T + 2000), 0);
  EXPECT_EQ(names(20), namesOf({rec(20, 1100, kOpen)}));
  // A range ending before it begins is refused and loses nothing.
  EXPECT_EQ(m_client.deleteRecordClip(15, T + 3000, T), -1);
  EXPECT_EQ(names(15), namesOf({rec(15, 2000, 2500)}));
}

TEST_F(RecordDeletionTest, WholeStreamRangeClearsLikeClearRecordAndLeavesNoBucket) {
  for (uint32_t sid : {30u, 31u}) {
    SCOPED_TRACE(sid);
    add(rec(sid, 0, 600, 3, 2), 3);
    add(rec(sid, 600, 1200));
    RecordFileName orphan = rec(sid, 2000, 2600);
    orphan.isIndex = 1;
    ASSERT_TRUE(m_fs.createFile(recordPath(orphan), 1, 0)->close());
    add(rec(sid, 3000, kOpen));  // a writer that died
    const uint64_t before = ledger();
    EXPECT_EQ(sid == 30 ? m_client.deleteRecordClip(sid, 0, 4294967295u) : clearRecord(m_fs, sid), 0);
    EXPECT_FALSE(hasBucket(sid));
    EXPECT_EQ(before - ledger(), 3u);
  }
  EXPECT_EQ(clearRecord(m_fs, 32), 0);  // nothing to clear or remove is no failure
  EXPECT_EQ(deleteBucket(m_fs, 32), 0);
  add(rec(33, 0, 600));
  EXPECT_EQ(deleteBucket(m_fs, 33), -1);  // the store keeps a bucket holding files
  EXPECT_TRUE(hasBucket(33));
}

TEST_F(RecordDeletionTest, TheCoverStepDropsLocksRemovesThreePagesPerCallAndThenTheBucket) {
  EXPECT_TRUE(deleteStreamRecords(m_fs, 50, BUCKET_KIND_FORGOTTEN));  // no bucket: nothing to do
  add(rec(50, 0, 600, 3, 4, BUCKET_KIND_FORGOTTEN), 2);
  // Fillers straight into the local store's directories (a bucket is a
  // directory, a name's '/' levels are subdirectories): through the store
  // every create syncs, and 3000 of them take seconds.
  for (uint32_t i = 0; i < 3 * kDeletePageSize; ++i) {
    const std::string path = m_dir.path() + "/" + recordPath(rec(50, 1000 + i, 1000 + i, 1, 0, 1));
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    ASSERT_TRUE(std::ofstream(path).good());
  }
  EXPECT_FALSE(deleteStreamRecords(m_fs, 50, BUCKET_KIND_FORGOTTEN));
  EXPECT_EQ(names(50).size(), 2u);  // 3002 names, 3000 per call
  EXPECT_EQ(ledger(), 0u);
  EXPECT_TRUE(deleteStreamRecords(m_fs, 50, BUCKET_KIND_FORGOTTEN));
  EXPECT_FALSE(hasBucket(50, BUCKET_KIND_FORGOTTEN));
}

}  // namespace
