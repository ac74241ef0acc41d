// The local-disk store: the combined store's routing and migration, and a
// client that records through a store outage.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "CombinedStoreBackend.h"
#include "DamagedStore.h"
#include "FaultInjectingBackend.h"
#include "KanduClock.h"
#include "LocalStoreBackend.h"
#include "MediaClientInternal.h"
#include "MediaValues.h"
#include "RecordFileName.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
using Velto::Kandu::CManualClock;
using ZarnTest::TempDir;

namespace {

// Disks relative to the process's own directory (the config file's).
const bool kConfigured = ZarnTest::useConfigFileForProcess(R"({
  "enable_cfg": 1,
  "stdfile_disk": ["disk1", "disk2"],
  "stdfile_config_file_name": "local-state.json",
  "stdfile_reserve_mb": 0,
  "stdfile_migrate_mbps": 0,
  "max_file_duration": 15,
  "recycle_hours": 24
})");

constexpr StoreOp kStoreCalls[] = {StoreOp::Capacity,   StoreOp::CreateBucket, StoreOp::RemoveBucket,
                                   StoreOp::BucketExists, StoreOp::ListBuckets, StoreOp::BucketUsedBytes,
                                   StoreOp::List,       StoreOp::CreateFile,   StoreOp::OpenFile,
                                   StoreOp::RemoveFile, StoreOp::RenameFile,   StoreOp::StatFile,
                                   StoreOp::FileRead,   StoreOp::FileWrite,    StoreOp::FileSeek,
                                   StoreOp::FileTell,   StoreOp::FileStat,     StoreOp::FileClose};

// The store stops answering every call, the health probe included.
void breakStore(CFaultInjectingBackend& store) {
  for (StoreOp op : kStoreCalls) {
    FaultRule rule;
    rule.op = op;
    rule.code = ZARN_E_UNAVAILABLE;
    store.addRule(rule);
  }
  store.setHealthy(false);
}
void repairStore(CFaultInjectingBackend& store) {
  store.clearRules();
  store.setHealthy(true);
}

std::vector<std::string> names(IStoreBackend& backend, const std::string& bucket) {
  std::vector<StoreEntry> entries;
  std::vector<std::string> out;
  if (backend.list(bucket, "", "", 1000, entries) == 0) {
    for (const StoreEntry& e : entries) out.push_back(e.name);
  }
  return out;
}

int putLocal(IStoreBackend& backend, const std::string& bucket, const std::string& name, const std::string& text) {
  std::unique_ptr<IStoreFile> f;
  int rc = backend.createBucket(bucket);  // a failed store makes it on a disk with the file
  if (rc != 0 && rc != ZARN_E_BUCKET_EXISTS && rc != ZARN_E_UNAVAILABLE) return rc;
  rc = backend.createFile(bucket, name, StoreLayout{}, f);
  if (rc != 0) return rc;
  if (f->write(text.data(), static_cast<uint32_t>(text.size())) != static_cast<int64_t>(text.size())) return -1;
  return f->close();
}

class CombinedStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_store = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(m_dir.sub("store")));
    ASSERT_EQ(m_store->connect(Config{}), 0);
    m_disks = std::make_shared<CLocalDiskSet>(
        std::vector<std::string>{m_dir.sub("d1"), m_dir.sub("d2") + "?capacity=64K"}, 16 * 1024);
    ASSERT_EQ(m_disks->open(), 2u);
    m_combined = std::make_shared<CCombinedStoreBackend>(m_store, m_disks);
  }
  int migrate(size_t disk, const std::string& bucket, const std::string& name) {
    uint64_t copied = 0;
    return m_combined->migrateFile(
        disk, bucket, name, "sys", "migrating/" + bucket + "/" + name, StoreLayout{},
        [](IStoreFile& copy, uint64_t size) {
          StoreFileStat s;
          return copy.stat(s) == 0 && s.size == size;
        },
        nullptr, nullptr, copied);
  }

  TempDir m_dir;
  std::shared_ptr<CFaultInjectingBackend> m_store;
  std::shared_ptr<CLocalDiskSet> m_disks;
  std::shared_ptr<CCombinedStoreBackend> m_combined;
};

TEST_F(CombinedStoreTest, FilesGoWhereTheStoreAllowsAndAreSeenOnceWhereverTheyAre) {
  ASSERT_EQ(putLocal(*m_combined, "b", "in-store", "s"), 0);
  EXPECT_EQ(names(*m_store, "b"), std::vector<std::string>{"in-store"});

  // A failed create marks the store failed; the file goes to the disk with
  // the most room, and the store is no longer asked.
  FaultRule once;
  once.op = StoreOp::CreateFile;
  once.code = ZARN_E_TIMEOUT;
  once.times = 1;
  m_store->addRule(once);
  ASSERT_EQ(putLocal(*m_combined, "b", "x", ""), 0);
  EXPECT_FALSE(m_disks->storeUsable());
  std::unique_ptr<IStoreFile> f;
  ASSERT_EQ(m_combined->createFile("b", "local", StoreLayout{}, f), 0);
  ASSERT_EQ(f->write("abc", 3), 3);
  ASSERT_EQ(f->close(), 0);
  EXPECT_EQ(m_disks->find("b", "local"), 0);
  EXPECT_EQ(names(*m_combined, "b"), (std::vector<std::string>{"local", "x"}));  // the store is not asked
  m_combined->setLocalFilter([](const std::string&, const std::string& n) { return n != "ledger"; });
  EXPECT_EQ(m_combined->createFile("b", "ledger", StoreLayout{}, f), ZARN_E_UNAVAILABLE);

  // Back: listings merge, each name once, in byte order and within the page.
  for (int i = 0; i < CLocalDiskSet::kRecoverProbes; ++i) m_combined->probeHealth();
  ASSERT_TRUE(m_disks->storeUsable());
  ASSERT_EQ(putLocal(*m_store, "b", "local", "abc"), 0);  // as a migration stopped after its rename leaves it
  EXPECT_EQ(names(*m_combined, "b"), (std::vector<std::string>{"in-store", "local", "x"}));
  std::vector<StoreEntry> page;
  ASSERT_EQ(m_combined->list("b", "in-store", "", 1, page), 0);
  ASSERT_EQ(page.size(), 1u);
  EXPECT_EQ(page[0].name, "local");

  // A rename takes the name in both places; the migration then sees the same
  // file in the store and only drops the local copy.
  ASSERT_EQ(m_combined->renameFile("b", "local", "b", "renamed"), 0);
  EXPECT_EQ(names(*m_store, "b"), (std::vector<std::string>{"in-store", "renamed"}));
  EXPECT_EQ(migrate(0, "b", "renamed"), 0);
  EXPECT_EQ(m_disks->find("b", "renamed"), -1);
  EXPECT_EQ(names(*m_combined, "b"), (std::vector<std::string>{"in-store", "renamed", "x"}));
}

TEST_F(CombinedStoreTest, MigrationMovesAFileOnceAndLeavesWhatItCannotMoveWhereItIs) {
  m_disks->setStoreFailed(true);
  ASSERT_EQ(putLocal(*m_combined, "b", "f1", std::string(5000, 'a')), 0);
  ASSERT_EQ(putLocal(*m_combined, "b", "f2", "two"), 0);
  std::unique_ptr<IStoreFile> open;
  ASSERT_EQ(m_combined->createFile("b", "open", StoreLayout{}, open), 0);
  // An earlier copy of f1 that a crash left half done.
  ASSERT_EQ(putLocal(*m_store, "sys", "migrating/b/f1", "half"), 0);
  // The store already holds a different file named f2.
  ASSERT_EQ(putLocal(*m_store, "b", "f2", "other"), 0);
  m_disks->setStoreFailed(false);

  EXPECT_EQ(migrate(0, "b", "open"), ZARN_E_BUSY);
  EXPECT_EQ(migrate(0, "b", "f2"), ZARN_E_FILE_EXISTS);
  EXPECT_EQ(m_disks->find("b", "f2"), 0);
  EXPECT_EQ(migrate(0, "b", "f1"), 0);
  StoreFileStat st;
  ASSERT_EQ(m_store->statFile("b", "f1", st), 0);
  EXPECT_EQ(st.size, 5000u);
  EXPECT_EQ(names(*m_store, "sys"), std::vector<std::string>{});
  EXPECT_EQ(migrate(0, "b", "f1"), ZARN_E_NO_SUCH_FILE);

  // A copy that does not verify is dropped, the local file kept.
  uint64_t copied = 0;
  const auto refuse = [](IStoreFile&, uint64_t) { return false; };
  EXPECT_EQ(m_combined->migrateFile(0, "b", "f2", "sys", "t", StoreLayout{}, refuse, nullptr, nullptr, copied),
            ZARN_E_OUT_OF_SYNC);
  EXPECT_EQ(m_disks->find("b", "f2"), 0);
  ASSERT_EQ(open->close(), 0);
}

TEST_F(CombinedStoreTest, FullLocalDisksRefuseNewFilesWithNoSpace) {
  // One disk capped at 20 KiB that takes new files while 16 KiB are free.
  auto tiny = std::make_shared<CLocalDiskSet>(std::vector<std::string>{m_dir.sub("t1") + "?capacity=20K"}, 16 * 1024);
  ASSERT_EQ(tiny->open(), 1u);
  CCombinedStoreBackend combined(m_store, tiny);
  tiny->setStoreFailed(true);
  ASSERT_EQ(putLocal(combined, "b", "first", std::string(8 * 1024, 'x')), 0);
  std::unique_ptr<IStoreFile> f;
  EXPECT_EQ(combined.createFile("b", "second", StoreLayout{}, f), ZARN_E_NO_SPACE);
}

// A client records through an outage of its store: the frames of the outage
// go to the local disks, nothing is refused, the host hears nothing, and once
// the store is back migration leaves every frame in the store alone.
class LocalStoreOutageTest : public ::testing::TestWithParam<bool> {};

TEST_P(LocalStoreOutageTest, RecordingGoesOnThroughAnOutageAndComesBackWholeIntoTheStore) {
  ASSERT_TRUE(kConfigured);
  const bool sync = GetParam();
  TempDir dir;
  const std::string root = dir.sub("store");
  std::shared_ptr<CFaultInjectingBackend> store;
  registerStoreBackend("outage", [&store, root](const std::string&, std::shared_ptr<IStoreBackend>& out) {
    out = store = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(root));
    return 0;
  });
  CManualClock clock(Velto::Kandu::systemClock().wallClockMs());
  int hostCalls = 0;
  {
    CMediaClientInternal client(clock);
    int32_t period = 20;
    ASSERT_TRUE(client.storeForTest()->setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof(period)));
    ASSERT_EQ(client.initialize(Config{"outage://s", 0, "root", ""}, [&hostCalls](ZarnState) { ++hostCalls; }), 0);
    ASSERT_TRUE(client.isSupportLocalStore());
    CLocalDiskSet& disks = *client.localStoreForTest().disks();
    const uint32_t sid = sync ? 41 : 42;
    ASSERT_EQ(client.addStream(sid, 1, sync), 0);
    const uint32_t t0 = (CMediaValues::instance().localNow(clock) - 3600) / 60 * 60;
    uint32_t seq = 0;
    int refused = 0;
    std::vector<std::vector<uint8_t>> written;
    const auto record = [&](uint32_t frames) {
      for (uint32_t i = 0; i < frames; ++i, ++seq) {
        // The millisecond stamp is what an index rebuild times frames by.
        written.push_back(ZarnTest::makeFrame(seq % 8 == 0 ? FRAME_TYPE_I : FRAME_TYPE_P, 0, seq, t0 + seq / 2,
                                              300 + seq % 50, static_cast<uint16_t>(seq * 500)));
        VeltoFrame vf;
        vf.attach(written.back().data());
        unsigned long long done = 0;
        refused += client.writeFrame(sid, &vf, 0, done) != 0;
      }
    };
    record(40);
    breakStore(*store);
    record(40);
    ASSERT_TRUE(ZarnTest::waitFor([&] { return !disks.storeUsable(); }));
    // What the outage recorded is listed at once, from the disks.
    ASSERT_TRUE(ZarnTest::waitFor([&] {
      std::vector<RecordClipEx> files;
      return client.queryRecordFileList(sid, t0, t0 + 3600, files) == 0 && !files.empty();
    }));
    repairStore(*store);
    ASSERT_TRUE(ZarnTest::waitFor([&] { return disks.storeUsable(); }));
    record(40);
    ASSERT_EQ(client.deleteStream(sid), 0);  // closes the last file
    EXPECT_EQ(refused, 0);

    // An async writer closes its last file on its queue: until then that file waits.
    CMigration& migration = *client.localStoreForTest().migration();
    uint64_t moved = 0;
    ASSERT_TRUE(ZarnTest::waitFor([&] {
      const CMigration::PassResult pass = migration.runPass();
      EXPECT_EQ(pass.failed, 0u);
      moved += pass.files;
      return migration.awaiting().empty();
    }));
    EXPECT_GT(moved, 0u);
    // Every frame plays from the store, byte for byte and in order.
    const int session = client.addSession(sid, t0, t0 + 3600, true);
    const ZarnTest::SessionFrames read = ZarnTest::readSession(client, session, false, false);
    client.deleteSession(session);
    EXPECT_EQ(read.frames.size(), written.size());
    EXPECT_TRUE(read.frames == written);
    clock.advance(CMediaClientInternal::kAntiShakeDelayMs);
  }
  EXPECT_EQ(hostCalls, 0);
  std::ifstream state("local-state.json");
  std::string text((std::istreambuf_iterator<char>(state)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("\"outages\""), std::string::npos);
  EXPECT_EQ(text.find("\"end\" : 0"), std::string::npos) << text;
  registerStoreBackend("outage", nullptr);
}

// A migration killed while it copies leaves the store and the disks so that a
// client sees every file once, and the next migration completes the move.
TEST(LocalStoreMigrationTest, AMigrationKilledMidCopyLosesNothingAndShowsNothingTwice) {
  ASSERT_TRUE(kConfigured);
  TempDir dir;
  const std::string root = dir.sub("store");
  CLocalStoreBackend disk("disk1");
  ASSERT_EQ(disk.connect(Config{}), 0);
  const uint32_t t0 = (CMediaValues::instance().localNow(Velto::Kandu::systemClock()) - 7200) / 60 * 60;
  std::vector<ZarnTest::RecordFileBytes> files;
  for (uint32_t i = 0; i < 3; ++i) {
    files.push_back(ZarnTest::buildRecordFile(43, t0 + i * 600, 30, 5, 100 * 1024));  // 3 MiB
    const std::string path = files.back().path();
    const size_t slash = path.find('/');
    ASSERT_EQ(putLocal(disk, path.substr(0, slash), path.substr(slash + 1),
                       std::string(files.back().bytes.begin(), files.back().bytes.end())),
              0);
  }
  const std::string firstTemp = "migrating/" + files[0].path();
  auto store = makeLocalStoreBackend(root);
  ASSERT_EQ(store->connect(Config{}), 0);
  {
    ZarnTest::CChildProcess peer({ZARN_MIGRATE_PEER, root, "2"});  // 2 MiB/s: a file takes 1.5 s
    ASSERT_EQ(peer.answer(), "ready");
    ASSERT_TRUE(ZarnTest::waitFor([&] {
      StoreFileStat st;
      return store->statFile("media_system", firstTemp, st) == 0;
    }, 10000));
    peer.kill();
  }
  const auto seen = [&] {
    CManualClock clock(Velto::Kandu::systemClock().wallClockMs());  // no migration of its own
    CMediaClientInternal client(clock);
    std::vector<RecordClipEx> clips;
    EXPECT_EQ(client.initialize(Config{root.c_str(), 0, "root", ""}, nullptr), 0);
    EXPECT_EQ(client.queryRecordFileList(43, t0, t0 + 3600, clips), 0);
    std::vector<uint32_t> begins;
    for (const RecordClipEx& c : clips) begins.push_back(c.beginTime);
    return begins;
  };
  const std::vector<uint32_t> all{t0, t0 + 600, t0 + 1200};
  EXPECT_EQ(seen(), all);
  {
    ZarnTest::CChildProcess peer({ZARN_MIGRATE_PEER, root, "0"});
    ASSERT_EQ(peer.answer(), "ready");
    EXPECT_EQ(peer.answer().rfind("done ", 0), 0u);
  }
  EXPECT_EQ(seen(), all);
  for (const ZarnTest::RecordFileBytes& f : files) {
    const std::string path = f.path();
    const size_t slash = path.find('/');
    StoreFileStat st;
    EXPECT_EQ(disk.statFile(path.substr(0, slash), path.substr(slash + 1), st), ZARN_E_NO_SUCH_FILE);
    std::unique_ptr<IStoreFile> in;
    ASSERT_EQ(store->openFile(path.substr(0, slash), path.substr(slash + 1), StoreOpenMode::Read, in), 0);
    std::vector<uint8_t> bytes(f.bytes.size() + 1);
    size_t got = 0;
    for (int64_t n; (n = in->read(bytes.data() + got, static_cast<uint32_t>(bytes.size() - got))) > 0;) got += n;
    bytes.resize(got);
    EXPECT_EQ(bytes, f.bytes) << path;
  }
  const std::vector<std::string> system = names(*store, "media_system");
  EXPECT_EQ(std::count_if(system.begin(), system.end(),
                          [](const std::string& n) { return n.rfind("migrating/", 0) == 0; }),
            0);
}


INSTANTIATE_TEST_SUITE_P(Modes, LocalStoreOutageTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& p) { return p.param ? "Sync" : "Async"; });

}  // namespace
