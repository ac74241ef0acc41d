// A damaged store or a careless host costs at most the damaged file: never
// memory outside it, a thread, or the whole process. Each case damages bytes,
// names or arguments one way and checks what the library still delivers.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <thread>
#include <vector>

#include "DamagedStore.h"
#include "FaultInjectingBackend.h"
#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "MediaClientInternal.h"
#include "MediaValues.h"
#include "RecordQuery.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
using ZarnTest::buildRecordFile;
using ZarnTest::LogCapture;
using ZarnTest::putFile;
using ZarnTest::RecordFileBytes;

namespace {

constexpr uint32_t kSid = 7;
// 2026-03-10 10:00:00 UTC: months before the machine's clock.
const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0));

// Sequence numbers 0..n-1, and those of the key frames among them.
std::vector<uint32_t> all(uint32_t n, uint32_t first = 0) {
  std::vector<uint32_t> out;
  for (uint32_t i = first; i < first + n; ++i) out.push_back(i);
  return out;
}

std::vector<uint32_t> keys(const RecordFileBytes& f) {
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < f.keys.size(); ++i)
    if (f.keys[i]) out.push_back(i);
  return out;
}

std::vector<uint32_t> play(CMediaClientInternal& client, uint32_t b, uint32_t e, bool keyOnly, bool reverse) {
  return ZarnTest::playSequences(client, kSid, b, e, keyOnly, reverse);
}

long peakRssKb() {
  struct rusage usage {};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

class DamagedStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(m_client.initialize(Config{m_root.c_str(), 0, "root", ""}, nullptr), 0);
  }
  void TearDown() override {
    CMediaValues& v = CMediaValues::instance();
    v.sdkState.store(0);
    v.maxFrameSize.store(static_cast<int32_t>(CMediaValues::kDefaultMaxFrameSize));
    m_client.setDefaultECType(4, 1);
  }

  CZarnFileSystem& store() { return *m_client.storeForTest(); }
  void put(RecordFileBytes& f) { putFile(store(), f.path(), f.bytes); }

  ZarnTest::TempDir m_dir;
  std::string m_root = m_dir.sub("store");
  CMediaClientInternal m_client;
};

// ---------------------------------------------------------------- file bytes

// One damaged file of 20 frames (keys at 0, 5, 10, 15) between two good ones:
// what forward and key-frame playback still deliver.
TEST_F(DamagedStoreTest, ADamagedFileCostsAtMostItsDamagedPart) {
  struct Case {
    const char* what;
    int32_t maxFrameSize;
    std::function<void(RecordFileBytes&)> damage;
    std::vector<uint32_t> forward;  // of the damaged file
  };
  const std::vector<Case> cases = {
      // A head announcing 0xFFFFFFF0 bytes (its checksum right) while the host
      // set an absurd maximum frame size: the frame is damage, skipped.
      {"a head announcing 4 GiB, maximum frame size -1", -1, [](RecordFileBytes& f) { f.setFrameLength(7, 0xFFFFFFF0); },
       [] { auto v = all(20); v.erase(v.begin() + 7); return v; }()},
      {"a head announcing 4 GiB, maximum frame size INT_MAX", INT_MAX,
       [](RecordFileBytes& f) { f.setFrameLength(7, 0xFFFFFFF0); }, [] { auto v = all(20); v.erase(v.begin() + 7); return v; }()},
      // The info says the index starts 32 bytes early: two garbage entries,
      // offsets out of order. The index is refused, the data stays.
      {"an index offset 32 bytes short", 0,
       [](RecordFileBytes& f) {
         RecordInfo& i = f.info();
         i.indexOffset -= 32;
         i.indexLength += 32;
         i.dataLength -= 32;
         f.resealInfo();
       },
       all(20)},
      {"an index length of 0xFFFFFFF0", 0,
       [](RecordFileBytes& f) {
         f.info().indexLength = 0xFFFFFFF0;
         f.resealInfo();
       },
       all(20)},
      {"an index entry time of 0xFFFFFFF0", 0,
       [](RecordFileBytes& f) {
         f.entry(1).time = 0xFFFFFFF0;
         f.resealInfo();
       },
       all(20)},
      {"a data length shorter than the data", 0,
       [](RecordFileBytes& f) {
         f.info().dataLength -= 500;
         f.resealInfo();
       },
       all(20)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ZarnTest::TempDir dir;
    CMediaClientInternal client;
    ASSERT_EQ(client.initialize(Config{dir.sub("store").c_str(), 0, "root", ""}, nullptr), 0);
    CZarnFileSystem& fs = *client.storeForTest();
    RecordFileBytes before = buildRecordFile(kSid, T, 10);
    RecordFileBytes damaged = buildRecordFile(kSid, T + 10, 20);
    RecordFileBytes after = buildRecordFile(kSid, T + 30, 10);
    c.damage(damaged);
    for (RecordFileBytes* f : {&before, &damaged, &after}) putFile(fs, f->path(), f->bytes);
    if (c.maxFrameSize != 0) client.setMaxFrameSize(c.maxFrameSize);

    const long rssBefore = peakRssKb();
    std::vector<uint32_t> expected = all(10);
    expected.insert(expected.end(), c.forward.begin(), c.forward.end());
    const std::vector<uint32_t> tail = all(10);
    expected.insert(expected.end(), tail.begin(), tail.end());
    EXPECT_EQ(play(client, T, T + 39, false, false), expected);
    // Key frames only: every key frame still there, once each, in order.
    std::vector<uint32_t> keyExpected = keys(before);
    for (uint32_t k : keys(damaged))
      if (std::find(c.forward.begin(), c.forward.end(), k) != c.forward.end()) keyExpected.push_back(k);
    for (uint32_t k : keys(after)) keyExpected.push_back(k);
    EXPECT_EQ(play(client, T, T + 39, true, false), keyExpected);
    // Nothing read allocates what a damaged field announces.
    EXPECT_LT(peakRssKb() - rssBefore, 512 * 1024);
    client.setMaxFrameSize(static_cast<int>(CMediaValues::kDefaultMaxFrameSize));
  }
}

// A FIFO at the index file's name must not hold a reader thread in open().
TEST_F(DamagedStoreTest, AFifoAtTheIndexFileNameIsRefusedNotWaitedOn) {
  RecordFileBytes f = buildRecordFile(kSid, T, 10);
  f.name.indexState = RECORD_INDEX_SEPARATE;
  put(f);
  RecordFileName indexName = f.name;
  indexName.isIndex = 1;
  std::string index;
  ASSERT_TRUE(generateRecordFileName(indexName, index));
  ASSERT_EQ(::mkfifo((m_root + "/" + index).c_str(), 0644), 0);
  EXPECT_EQ(play(m_client, T, T + 9, false, false), all(10));
}

// ---------------------------------------------------------------- names

TEST_F(DamagedStoreTest, NamesThatDoNotReadBackAsThemselvesAreNotListed) {
  RecordFileBytes good = buildRecordFile(kSid, T, 10);
  put(good);
  // Each parses and normalises into another name, one that is not in the store.
  const std::vector<std::string> loose = {
      "media_7/2026/03/10/100060_100100_1_0_1.qrv",      // second 60
      "media_7/2026/03/10/240010_000100_1_0_1.qrv",      // hour 24
      "media_7/2026/03/00/100020_100030_1_0_1.qrv",      // day level 00
      "media_7/2026/03/10/100015_100025_1_0_4294967297.qrv",  // index state past 32 bits
      "media_7/2026/03/10/100016_100026_1_0_-1.qrv",     // index state -1
  };
  for (const std::string& name : loose) putFile(store(), name, buildRecordFile(kSid, T, 5).bytes);
  // A directory named like a record file.
  ASSERT_EQ(::mkdir((m_root + "/media_7/2026/03/10/100040_100050_1_0_1.qrv").c_str(), 0755), 0);

  std::vector<RecordClipEx> files;
  ASSERT_EQ(m_client.queryRecordFileList(kSid, T - 60, T + 3600, files), 0);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_STREQ(files[0].fileName, good.path().c_str());
  EXPECT_EQ(play(m_client, T, T + 59, false, false), all(10));
}

TEST_F(DamagedStoreTest, ANameEndingBeforeItBeginsHidesNothingAfterIt) {
  RecordFileBytes first = buildRecordFile(kSid, T, 10);
  RecordFileBytes second = buildRecordFile(kSid, T + 20, 10);
  RecordFileBytes third = buildRecordFile(kSid, T + 40, 10);
  second.name.endTime = second.name.realEndTime = T + 20 - 10 + 86400;  // "100010" after "100020": the next day
  for (RecordFileBytes* f : {&first, &second, &third}) put(*f);
  std::vector<RecordClipEx> files;
  ASSERT_EQ(m_client.queryRecordFileList(kSid, T, T + 3600, files), 0);
  ASSERT_EQ(files.size(), 2u);
  std::vector<uint32_t> expected = all(10);
  expected.insert(expected.end(), expected.begin(), expected.end());
  EXPECT_EQ(play(m_client, T, T + 49, false, false), expected);
}

// A listed file whose every open fails (the store refuses it) is stepped over:
// playback goes on with the file after it instead of retrying for ever.
TEST_F(DamagedStoreTest, AListedFileThatNeverOpensIsSteppedOver) {
  std::shared_ptr<CFaultInjectingBackend> backend;
  const std::string root = m_dir.sub("faulty");
  registerStoreBackend("faulty", [&backend, root](const std::string&, std::shared_ptr<IStoreBackend>& out) {
    backend = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(root));
    out = backend;
    return 0;
  });
  CMediaClientInternal client;
  ASSERT_EQ(client.initialize(Config{"faulty://store", 0, "root", ""}, nullptr), 0);
  RecordFileBytes first = buildRecordFile(kSid, T, 10), second = buildRecordFile(kSid, T + 10, 10),
                  third = buildRecordFile(kSid, T + 20, 10);
  for (RecordFileBytes* f : {&first, &second, &third}) putFile(*client.storeForTest(), f->path(), f->bytes);
  FaultRule refuse;
  refuse.op = StoreOp::OpenFile;
  refuse.code = ZARN_E_PERMISSION;
  refuse.nameContains = second.path().substr(second.path().find('/') + 1);
  backend->addRule(refuse);
  std::vector<uint32_t> expected = all(10);
  expected.insert(expected.end(), expected.begin(), expected.end());
  EXPECT_EQ(play(client, T, T + 29, false, false), expected);
  registerStoreBackend("faulty", nullptr);
}

// ---------------------------------------------------------------- host arguments

TEST_F(DamagedStoreTest, AFrameWhoseExtensionPassesItsTailIsDropped) {
  for (bool sync : {true, false}) {
    const uint32_t sid = sync ? 20 : 21;
    ASSERT_EQ(m_client.setRecyclePolicy(sid, 24, 0), 0);
    ASSERT_EQ(m_client.addStream(sid, 1, sync), 0);
    for (uint8_t extension : {uint8_t{9}, uint8_t{255}}) {
      // 32 bytes: a head and a tail, no room for any extension byte.
      std::vector<uint8_t> bytes = ZarnTest::makeFrame(FRAME_TYPE_I, 0, 0, T, 0);
      bytes[22] = extension;
      sealFrameHead(bytes.data());
      VeltoFrame frame;
      frame.attach(bytes.data());
      unsigned long long written = 1;
      EXPECT_EQ(m_client.writeFrame(sid, &frame, 0, written), 0);
      EXPECT_EQ(written, 0u) << "extension " << int(extension) << (sync ? " sync" : " async");
    }
    ASSERT_EQ(m_client.deleteStream(sid), 0);
  }
}

TEST_F(DamagedStoreTest, AStripeThatNoPaddingFrameFitsRefusesTheFlushAndKeepsRecording) {
  ASSERT_EQ(m_client.setRecyclePolicy(30, 24, 0), 0);
  ASSERT_EQ(m_client.addStream(30, 1, true), 0);
  uint32_t seq = 0;
  auto write = [&] {
    std::vector<uint8_t> bytes = ZarnTest::makeFrame(seq % 5 == 0 ? FRAME_TYPE_I : FRAME_TYPE_P, 0, seq, T + seq, 100);
    ++seq;
    VeltoFrame frame;
    frame.attach(bytes.data());
    unsigned long long written = 0;
    return m_client.writeFrame(30, &frame, 0, written);
  };
  ASSERT_EQ(write(), 0);
  for (auto [data, parity] : {std::pair<unsigned short, unsigned short>{0, 0}, {65535, 0}}) {
    m_client.setDefaultECType(data, parity);  // taken as given
    EXPECT_EQ(m_client.flushFrame(30), -3);
    EXPECT_EQ(write(), 0);  // the stream goes on
  }
  m_client.setDefaultECType(4, 1);
  EXPECT_EQ(m_client.flushFrame(30), 0);
  ASSERT_EQ(m_client.deleteStream(30), 0);
}

// Two host threads deleting one stream (or session) at once: one deletes it,
// the other is told it is not there; the process lives on.
TEST_F(DamagedStoreTest, ConcurrentDeletionsOfOneEngineCloseItOnce) {
  for (uint32_t round = 0; round < 20; ++round) {
    const uint32_t sid = 100 + round;
    ASSERT_EQ(m_client.setRecyclePolicy(sid, 24, 0), 0);
    ASSERT_EQ(m_client.addStream(sid, 1, round % 2 == 0), 0);
    const int session = m_client.addSession(sid, T, T + 10, false);
    int results[4] = {9, 9, 9, 9};
    std::thread a([&] { results[0] = m_client.deleteStream(sid); results[2] = m_client.deleteSession(session); });
    std::thread b([&] { results[1] = m_client.deleteStream(sid); results[3] = m_client.deleteSession(session); });
    a.join();
    b.join();
    EXPECT_EQ(results[0] + results[1], -1) << results[0] << " " << results[1];
    EXPECT_EQ(results[2] + results[3], -1) << results[2] << " " << results[3];
  }
}

TEST_F(DamagedStoreTest, QueriesRefuseAnswersBeyondTheirBounds) {
  // 24 days of 30-minute files (2,073,600 seconds), names only.
  const uint32_t kSpan = 24 * 86400;
  for (uint32_t t = T; t < T + kSpan; t += 1800) {
    RecordFileName n;
    n.streamId = kSid;
    n.beginTime = t;
    n.endTime = t + 1800;
    n.type = 1;
    n.indexState = 1;
    std::string name;
    ASSERT_TRUE(generateRecordFileName(n, name));
    putFile(store(), name, {});
  }
  std::vector<bool> status;
  // A step near 2^32 over recorded time: one bit, set (the count does not wrap to none).
  ASSERT_EQ(m_client.queryRecordStatus(kSid, T, T + 3600, status, 0xFFFFFFFF), 0);
  EXPECT_EQ(status, std::vector<bool>{true});
  // 2^32 bits of one second each: refused, nothing allocated.
  status.assign(3, true);
  EXPECT_EQ(m_client.queryRecordStatus(kSid, 0, 0xFFFFFFFF, status, 1), -1);
  EXPECT_EQ(status.size(), 3u);
  // Clips of two seconds fit (1,036,800); of one second they pass the bound,
  // and the caller's vector is left as it was.
  static_assert(kSpan > kMaxClipListEntries && kSpan / 2 < kMaxClipListEntries);
  std::vector<RecordClip> clips(2);
  EXPECT_EQ(m_client.queryRecordClipList(kSid, T, T + kSpan, clips, 1), -1);
  EXPECT_EQ(clips.size(), 2u);
  ASSERT_EQ(m_client.queryAlignedClipList(kSid, T, T + kSpan, clips, 2), 0);
  EXPECT_EQ(clips.size(), 2u + kSpan / 2);
}

TEST_F(DamagedStoreTest, TheFacadeRefusesWhatCannotWork) {
  LogCapture log(Velto::Kandu::LOG_WARN);
  // Before initialize, queries fail rather than answer "nothing recorded".
  CMediaClientInternal fresh;
  std::vector<RecordClip> clips;
  std::vector<RecordClipEx> files;
  std::vector<bool> status;
  EXPECT_EQ(fresh.queryRecordClipList(kSid, T, T + 60, clips, 60), -1);
  EXPECT_EQ(fresh.queryAlignedClipList(kSid, T, T + 60, clips, 60), -1);
  EXPECT_EQ(fresh.queryRecordFileList(kSid, T, T + 60, files), -1);
  EXPECT_EQ(fresh.queryRecordStatus(kSid, T, T + 60, status, 60), -1);
  // A user name that cannot begin a bucket name.
  for (const char* user : {"..", "../x", "a/b", ".hidden"}) {
    CMediaClientInternal client;
    ZarnTest::TempDir dir;
    EXPECT_EQ(client.initialize(Config{dir.sub("store").c_str(), 0, user, ""}, nullptr), -1) << user;
  }
  // A second initialize keeps this client's store, and says so when given another.
  ZarnTest::TempDir other;
  EXPECT_EQ(m_client.initialize(Config{other.sub("store").c_str(), 0, "root", ""}, nullptr), 0);
  EXPECT_TRUE(log.contains("this client stays connected to " + m_root));
}

}  // namespace
