// The stream writer on a local store behind a fault-injecting backend. A
// configuration file in the working directory sets small limits:
// max_file_length 200000 bytes, max_file_duration 1800 s, min_cut_file_time 30 s.
#include <gtest/gtest.h>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "DamagedStore.h"
#include "FaultInjectingBackend.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "MediaClientInternal.h"
#include "MediaContext.h"
#include "MediaValues.h"
#include "RecordFile.h"
#include "RecordFileName.h"
#include "StreamMgr.h"
#include "StreamWriter.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

namespace {

[[maybe_unused]] const bool g_config = ZarnTest::useConfigFileForProcess(
    R"({"enable_cfg": 1, "max_file_length": 200000, "max_file_duration": 1800, "min_cut_file_time": 30})");

const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 31, 23, 50, 0));
constexpr uint8_t I = FRAME_TYPE_I, P = FRAME_TYPE_P;

using Spans = std::vector<std::pair<uint32_t, uint32_t>>;  // [begin, end] of files, from T
Spans spans(const std::vector<RecordFileName>& files) {
  Spans out;
  for (const RecordFileName& f : files) out.emplace_back(f.beginTime - T, f.endTime - T);
  return out;
}

// The first file creation waits `ms` and then succeeds.
FaultRule firstCreateStalls(uint32_t ms) {
  FaultRule stall = ZarnTest::faultOn(StoreOp::CreateFile, 1);
  stall.stallMs = ms;
  stall.failAfterStall = false;
  return stall;
}

class StreamWriterTest : public ::testing::Test {
 protected:
  void SetUp() override { CMediaValues::instance().sdkState.store(ZARN_STATE_NORMAL); }
  void TearDown() override { CMediaValues::instance().sdkState.store(0); }

  std::shared_ptr<CStreamWriter> writer(uint32_t sid, bool sync = true, int16_t type = 1) {
    return std::make_shared<CStreamWriter>(m_fs, sid, type, sync, ZarnTest::writerEnv());
  }

  static int32_t write(CStreamWriter& w, uint8_t type, uint32_t seq, uint32_t time, uint32_t payload = 40,
                       uint16_t ms = 0, unsigned long long* taken = nullptr) {
    std::vector<uint8_t> bytes = ZarnTest::makeFrame(type, 0, seq, time, payload, ms);
    VeltoFrame frame;
    frame.attach(bytes.data());
    unsigned long long written = 0;
    int32_t r = w.writeFrame(&frame, 0, written);
    if (taken) *taken = written;
    return r;
  }

  // Closes the writer as the registry does and waits until it is gone.
  static void closeAndWait(std::shared_ptr<CStreamWriter>& writer) {
    std::weak_ptr<CStreamWriter> weak = writer;
    writer->closeStream(writer);
    writer.reset();
    ASSERT_TRUE(ZarnTest::waitFor([&] { return weak.expired(); }, 10000));
  }

  std::vector<RecordFileName> files(uint32_t sid) { return ZarnTest::listRecords(*m_fs, sid); }

  std::vector<RecordFileName> closeAndList(std::shared_ptr<CStreamWriter>& writer, uint32_t sid) {
    closeAndWait(writer);
    return files(sid);
  }

  // The sequence numbers of the frames in a closed file's data region,
  // padding frames left out.
  std::vector<uint32_t> framesIn(const RecordFileName& name) {
    std::vector<uint32_t> out;
    CRecordFile file(*m_fs, name);
    EXPECT_TRUE(file.openForRead());
    EXPECT_EQ(file.state(), CRecordFile::STATE_INDEXED);
    std::vector<uint8_t> data(file.length());
    EXPECT_TRUE(data.empty() || file.read(data.data(), static_cast<uint32_t>(data.size())) > 0);
    for (size_t pos = 0; pos + kFrameHeadSize <= data.size();) {
      const VeltoFrameHead* h = reinterpret_cast<const VeltoFrameHead*>(&data[pos]);
      EXPECT_TRUE(checkFrameHead(&data[pos]));
      if (h->length == 0) break;
      if (h->type != FRAME_TYPE_FAKE) out.push_back(h->sequence);
      pos += h->length;
    }
    return out;
  }

  ZarnTest::FaultyLocalStore m_store;
  std::shared_ptr<CFaultInjectingBackend>& m_backend = m_store.backend;
  std::shared_ptr<CZarnFileSystem>& m_fs = m_store.fs;
};

// A store whose writes take at most `cap` bytes, and nothing at all on every
// `zeroEvery`-th call: the short and empty answers of a busy store.
class CShortWriteBackend : public CStoreBackendWrapper {
 public:
  CShortWriteBackend(std::shared_ptr<IStoreBackend> target, uint32_t cap, uint32_t zeroEvery)
      : CStoreBackendWrapper(std::move(target)), m_cap(cap), m_zeroEvery(zeroEvery) {}
  int createFile(const std::string& b, const std::string& n, const StoreLayout& layout,
                 std::unique_ptr<IStoreFile>& out) override {
    int rc = CStoreBackendWrapper::createFile(b, n, layout, out);
    if (rc == 0) out = std::make_unique<File>(*this, std::move(out));
    return rc;
  }
  std::atomic<uint64_t> m_calls{0}, m_short{0}, m_empty{0};

 private:
  class File : public IStoreFile {
   public:
    File(CShortWriteBackend& owner, std::unique_ptr<IStoreFile> target) : m_owner(owner), m_target(std::move(target)) {}
    int64_t read(void* buffer, uint32_t length) override { return m_target->read(buffer, length); }
    int64_t write(const void* buffer, uint32_t length) override {
      if (m_owner.m_zeroEvery != 0 && ++m_owner.m_calls % m_owner.m_zeroEvery == 0) {
        ++m_owner.m_empty;
        return 0;
      }
      if (length > m_owner.m_cap) ++m_owner.m_short;
      return m_target->write(buffer, std::min(length, m_owner.m_cap));
    }
    int64_t seek(int64_t offset, int origin) override { return m_target->seek(offset, origin); }
    int64_t tell() override { return m_target->tell(); }
    int stat(StoreFileStat& out) override { return m_target->stat(out); }
    int close() override { return m_target->close(); }

   private:
    CShortWriteBackend& m_owner;
    std::unique_ptr<IStoreFile> m_target;
  };

  const uint32_t m_cap;
  const uint32_t m_zeroEvery;
};

// Every file of a stream's bucket under a local store root: path in the
// bucket -> bytes.
std::map<std::string, std::string> bucketContents(const std::string& root, uint32_t sid) {
  std::map<std::string, std::string> out;
  const std::filesystem::path bucket = std::filesystem::path(root) / bucketName(sid, BUCKET_KIND_MEDIA);
  if (!std::filesystem::exists(bucket)) return out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(bucket)) {
    if (!e.is_regular_file()) continue;
    std::ifstream in(e.path(), std::ios::binary);
    out[std::filesystem::relative(e.path(), bucket).string()] =
        std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return out;
}

// 80 s of a 5 fps stream: two frames before the first key frame, a key frame
// every 2 s with a smart P frame between, a sequence gap (frames dropped until
// the next key frame), a 700 s time hop (times from the millisecond counter,
// then a cut), and cuts at the 200000-byte limit once 30 s have passed.
struct ScriptFrame {
  uint8_t type, subType;
  uint32_t sequence, time;
  uint16_t ms;
};
std::vector<ScriptFrame> recordingScript() {
  std::vector<ScriptFrame> out{{P, 0, 0, T, 0}, {P, 0, 1, T, 200}};
  uint32_t seq = 2;
  for (uint32_t k = 0; k < 400; ++k) {
    if (k == 123) ++seq;
    const uint32_t time = T + k / 5 + (k >= 250 ? 700 : 0);
    out.push_back({k % 10 == 0 ? I : P, static_cast<uint8_t>(k % 10 == 5 ? 1 : 0), seq++, time,
                   static_cast<uint16_t>(400 + k * 200)});
  }
  return out;
}

// Frames through a sync writer of stream type 3: the files it leaves, closed
// with their index inside, and the frames in the first one.
TEST_F(StreamWriterTest, FramesThatCannotBeDecodedAreDroppedAndATimeHopOf601SecondsCutsAtTheNextKeyFrame) {
  struct In {
    uint8_t type;
    uint32_t seq, time;  // from T
    uint16_t ms = 0;
  };
  struct Case {
    const char* what;
    std::vector<In> frames;
    Spans files;
    std::vector<uint32_t> first;
  };
  const Case cases[] = {
      // Nothing before the first key frame; a sequence gap drops frames until the next one.
      {"frames before the first key frame and after a gap", {{P, 0, 0}, {P, 1, 0}, {I, 2, 0}, {P, 3, 1}, {P, 5, 1},
        {P, 6, 2}, {I, 7, 2}, {P, 8, 3}}, {{0, 3}}, {2, 3, 7, 8}},
      // 600 s later: no hop. 601 s later on a P frame: a hop, recorded under the
      // millisecond counter's time (+2 s, +1.5 s) until the next key frame more than
      // 600 s from the file's last time (T+643) ends it with a cut.
      {"time hops", {{I, 0, 0, 0}, {P, 1, 40, 40000}, {I, 2, 640, 40000}, {P, 3, 1241, 42000}, {P, 4, 1242, 43500},
        {I, 5, 1250, 44000}, {P, 6, 1251, 45000}}, {{0, 643}, {1250, 1251}}, {0, 1, 2, 3, 4}},
  };
  uint32_t sid = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto w = writer(sid, true, 3);
    for (const In& in : c.frames) ASSERT_EQ(write(*w, in.type, in.seq, T + in.time, 16, in.ms), 0);
    std::vector<RecordFileName> f = closeAndList(w, sid++);
    EXPECT_EQ(spans(f), c.files);
    ASSERT_FALSE(f.empty());
    EXPECT_EQ(f[0].type, 3);
    EXPECT_EQ(f[0].indexState, static_cast<uint32_t>(RECORD_INDEX_INTERNAL));
    EXPECT_EQ(framesIn(f[0]), c.first);
  }
}

TEST_F(StreamWriterTest, CutsAtTheMaximumDurationOrLengthOnlyAtAKeyFrameAndNotBeforeTheMinimumCutTime) {
  struct Case {
    const char* what;
    uint32_t seconds, keyEvery, payload;  // one frame a second
    Spans files;
  };
  const Case cases[] = {
      // 1800 s reached at t=1800, but the next key frame is at t=1806.
      {"duration", 1901, 7, 16, {{0, 1805}, {1806, 1900}}},
      // 60 KB key frames: the 200000-byte limit is passed after four frames,
      // but a file is not cut before it is 30 s old.
      {"length", 40, 1, 60000, {{0, 29}, {30, 39}}},
  };
  uint32_t sid = 3;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto w = writer(sid);
    for (uint32_t t = 0; t < c.seconds; ++t) ASSERT_EQ(write(*w, t % c.keyEvery == 0 ? I : P, t, T + t, c.payload), 0);
    std::vector<RecordFileName> f = closeAndList(w, sid++);
    EXPECT_EQ(spans(f), c.files);
    ASSERT_FALSE(f.empty());
    EXPECT_EQ(framesIn(f[0]).size(), c.files[0].second + 1);
  }
}

TEST_F(StreamWriterTest, AForcedCutHappensAtTheNextKeyFrame) {
  auto w = writer(5);
  uint32_t seq = 0;
  ASSERT_EQ(write(*w, I, seq++, T), 0);
  ASSERT_EQ(write(*w, P, seq++, T + 1), 0);
  EXPECT_TRUE(w->forceCutFile(T - 10));  // before the file: nothing to cut
  std::atomic<int> result{-1};
  std::thread requester([&] { result = w->forceCutFile(T + 1) ? 1 : 0; });
  ASSERT_TRUE(ZarnTest::waitFor([&] { return w->isForceCutPendingForTest(); }));
  EXPECT_FALSE(w->forceCutFile(T + 1));  // one request at a time
  ASSERT_EQ(write(*w, P, seq++, T + 2), 0);
  EXPECT_EQ(result.load(), -1);  // no key frame yet
  ASSERT_EQ(write(*w, I, seq++, T + 3), 0);
  requester.join();
  EXPECT_EQ(result.load(), 1);
  ASSERT_EQ(write(*w, P, seq++, T + 4), 0);
  EXPECT_EQ(spans(closeAndList(w, 5)), (Spans{{0, 2}, {3, 4}}));

  CMediaValues::instance().sdkState.store(ZARN_STATE_FAILED);
  auto other = writer(6);
  ASSERT_EQ(write(*other, I, 0, T), 0);
  EXPECT_FALSE(other->forceCutFile(T + 5));  // not while the store is failing
  closeAndWait(other);
}

TEST_F(StreamWriterTest, FlushPadsToTheStripeWithAPaddingFrame) {
  auto w = writer(7);
  ASSERT_EQ(write(*w, I, 0, T, 100), 0);
  ASSERT_EQ(w->flushFrame(), 0);
  ASSERT_EQ(write(*w, P, 1, T + 1, 100), 0);
  std::vector<RecordFileName> f = closeAndList(w, 7);
  ASSERT_EQ(f.size(), 1u);
  CRecordFile file(*m_fs, f[0]);
  ASSERT_TRUE(file.openForRead());
  // One frame, padding to the stripe, one frame.
  EXPECT_EQ(file.length(), CMediaValues::instance().ecStripeSize.load() + 132u);
  EXPECT_EQ(framesIn(f[0]), (std::vector<uint32_t>{0, 1}));
}

TEST_F(StreamWriterTest, AnAsyncCacheHoldsAtMostAHundredFrames) {
  // The first file creation stalls, so the worker cannot drain the cache.
  m_backend->addRule(firstCreateStalls(1500));
  auto w = writer(8, false);
  int accepted = 0;
  unsigned long long taken = 1;
  int32_t r = 0;
  for (uint32_t seq = 0; seq < 200 && r == 0; ++seq) {
    r = write(*w, seq == 0 ? I : P, seq, T + seq / 25, 40, 0, &taken);
    if (r == 0) ++accepted;
  }
  EXPECT_EQ(r, -2);
  EXPECT_EQ(taken, 0u);
  // At most one pass (25 frames) left the cache before the store stalled.
  EXPECT_GE(accepted, 100);
  EXPECT_LE(accepted, 125);
  std::vector<RecordFileName> f = closeAndList(w, 8);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(framesIn(f[0]).size(), static_cast<size_t>(accepted));  // close flushed every cached frame
}

TEST_F(StreamWriterTest, AnAsyncWriterClosedAtOnceKeepsEveryAcknowledgedFrame) {
  // The close may run before any queue thread has taken the writer: frames
  // already taken into the cache must still be written.
  for (uint32_t sid = 100; sid < 120; ++sid) {
    auto w = writer(sid, false);
    size_t acknowledged = 0;
    for (uint32_t seq = 0; seq < 30; ++seq) {
      unsigned long long taken = 0;
      ASSERT_EQ(write(*w, seq == 0 ? I : P, seq, T, 40, 0, &taken), 0);
      if (taken != 0) ++acknowledged;
    }
    std::vector<RecordFileName> f = closeAndList(w, sid);
    ASSERT_EQ(f.size(), 1u) << "stream " << sid;
    EXPECT_EQ(framesIn(f[0]).size(), acknowledged) << "stream " << sid;
  }
}

TEST_F(StreamWriterTest, AnAsyncWriterRecordsTheBytesOfASyncWriterWhateverTheStoreTakesPerWrite) {
  const std::vector<ScriptFrame> script = recordingScript();
  auto record = [&](std::shared_ptr<CZarnFileSystem> fs, bool sync) {
    auto w = std::make_shared<CStreamWriter>(fs, 20, 1, sync, ZarnTest::writerEnv());
    for (const ScriptFrame& f : script) {
      std::vector<uint8_t> bytes = ZarnTest::makeFrame(f.type, f.subType, f.sequence, f.time, 3000, f.ms);
      VeltoFrame frame;
      frame.attach(bytes.data());
      unsigned long long written = 0;
      int32_t r;
      while ((r = w->writeFrame(&frame, 0, written)) == -2) Velto::Kandu::sleepMs(1);
      ASSERT_EQ(r, 0);
    }
    EXPECT_FALSE(w->isFileFault());
    closeAndWait(w);
  };
  record(m_fs, true);
  const std::map<std::string, std::string> expected = bucketContents(m_store.root, 20);
  ASSERT_EQ(expected.size(), 3u);  // cut by length, by the hop, by length

  // The first file creation stalls, so the cache fills and passes carry many
  // frames: written whole, in parts, and given up when the store takes nothing.
  for (uint32_t cap : {0xFFFFFFFFu, 1000u}) {
    SCOPED_TRACE(cap);
    const std::string root = m_store.dir.sub("async" + std::to_string(cap));
    auto shortWrites = std::make_shared<CShortWriteBackend>(makeLocalStoreBackend(root), cap, cap == 1000 ? 7 : 0);
    auto backend = std::make_shared<CFaultInjectingBackend>(shortWrites);
    backend->addRule(firstCreateStalls(300));
    record(ZarnTest::openStore(root, backend), false);
    EXPECT_TRUE(bucketContents(root, 20) == expected);
    if (cap == 1000) {
      EXPECT_GT(shortWrites->m_short.load(), 0u);
      EXPECT_GT(shortWrites->m_empty.load(), 0u);
    }
  }
}

TEST_F(StreamWriterTest, AStoreThatTakesNothingDoesNotHoldAWorker) {
  auto w = writer(9, false);
  ASSERT_EQ(write(*w, I, 0, T), 0);
  ASSERT_TRUE(ZarnTest::waitFor([&] { return files(9).size() == 1 && w->isIdle(); }));
  m_backend->addRule(ZarnTest::faultOn(StoreOp::FileWrite, 0xFFFFFFFFu, true));
  for (uint32_t seq = 1; seq < 10; ++seq) ASSERT_EQ(write(*w, P, seq, T), 0);
  // The worker gives its pass up and goes idle while the store takes nothing.
  ASSERT_TRUE(ZarnTest::waitFor([&] { return w->isIdle() && m_backend->callCount(StoreOp::FileWrite) > 3; }));
  EXPECT_FALSE(w->isFileFault());
  m_backend->clearRules();
  ASSERT_EQ(write(*w, P, 10, T + 1), 0);  // the next frame resubmits the writer
  std::vector<RecordFileName> f = closeAndList(w, 9);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(framesIn(f[0]).size(), 11u);
}

// A writer of the stream that died within the same second left its open file
// under the name the new writer's first file takes: the leftover goes to a
// name that asks for repair, and recording goes on.
TEST_F(StreamWriterTest, ALeftoverOpenFileUnderTheFirstFilesNameIsMovedAsideForRepair) {
  const RecordFileName open{.streamId = 4, .beginTime = T, .type = 1};
  ZarnTest::putFile(*m_fs, ZarnTest::recordPath(open), {'l', 'e', 'f', 't'});
  auto w = writer(4);
  EXPECT_EQ(write(*w, I, 0, T), 0);
  EXPECT_EQ(write(*w, P, 1, T), 0);
  std::vector<RecordFileName> f = closeAndList(w, 4);
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[0].indexState, static_cast<uint32_t>(RECORD_INDEX_MISSING));  // the leftover, for the fixer
  EXPECT_EQ(f[0].size, 4u);
  EXPECT_EQ(framesIn(f[1]), (std::vector<uint32_t>{0, 1}));
}

TEST_F(StreamWriterTest, AWriteErrorIsAOneWayFileFault) {
  auto w = writer(10);
  ASSERT_EQ(write(*w, I, 0, T), 0);
  m_backend->addRule(ZarnTest::faultOn(StoreOp::FileWrite, 1));
  EXPECT_EQ(write(*w, P, 1, T), -3);
  EXPECT_TRUE(w->isFileFault());
  EXPECT_EQ(write(*w, I, 2, T + 1), -3);  // stays faulted after the store recovers
  EXPECT_EQ(w->flushFrame(), -3);
  closeAndWait(w);
}

TEST_F(StreamWriterTest, TheFacadeRegistersWritesAndDeletesStreams) {
  CMediaClientInternal client;
  ASSERT_EQ(client.initialize(Config{m_store.root.c_str(), 0, "root", ""}, nullptr), 0);
  EXPECT_EQ(client.addStream(11, 2, true), -1);  // no policy and no configured default
  EXPECT_FALSE(CMediaContext::instance().streams().hasStreamWriter(11));
  ASSERT_EQ(client.setRecyclePolicy(11, 24, 0), 0);
  ASSERT_EQ(client.addStream(11, 2, true), 0);
  EXPECT_EQ(client.addStream(11, 2, true), -1);

  std::vector<uint8_t> bytes;
  VeltoFrame frame;
  unsigned long long position = 0;
  for (uint32_t seq = 0; seq <= 5; ++seq) {
    bytes = ZarnTest::makeFrame(seq == 0 ? I : P, 0, seq, T + seq, 40);
    frame.attach(bytes.data());
    ASSERT_EQ(client.writeFrame(11, &frame, 0, position), 0);
    EXPECT_EQ(position, bytes.size());
    if (seq == 0) {
      EXPECT_EQ(client.flushFrame(11), 0);
    }
  }
  // The file still being written is reported up to the writer's last frame.
  std::vector<RecordClip> clips;
  ASSERT_EQ(client.queryRecordClipList(11, T - 60, T + 60, clips, 3600), 0);
  ASSERT_EQ(clips.size(), 1u);
  EXPECT_EQ(clips[0].beginTime, T);
  EXPECT_EQ(clips[0].endTime, T + 5);
  EXPECT_EQ(clips[0].type, 2);
  std::weak_ptr<CStreamWriter> weak = CMediaContext::instance().streams().getStreamWriter(11);
  EXPECT_EQ(client.deleteStream(11), 0);
  EXPECT_EQ(client.deleteStream(11), -1);
  EXPECT_EQ(client.writeFrame(11, &frame, 0, position), -4);
  ASSERT_TRUE(ZarnTest::waitFor([&] { return weak.expired(); }, 10000));
  std::vector<RecordFileName> f = files(11);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].type, 2);
  EXPECT_EQ(f[0].endTime, T + 5);
  EXPECT_EQ(f[0].indexState, static_cast<uint32_t>(RECORD_INDEX_INTERNAL));
}

TEST_F(StreamWriterTest, SvcScreeningDropsFramesThatCannotBeDecoded) {
  auto w = writer(12);
  struct In {
    uint8_t type;
    uint32_t seq;
    uint8_t levels, layer;
  };
  // Three levels: a group spans 4 frames from its reference.
  const std::vector<In> frames = {
      {I, 0, 3, 0}, {P, 1, 3, 1}, {P, 2, 3, 1}, {P, 3, 3, 1},  // one whole group
      {P, 4, 3, 0},                                          // layer 0: the next reference (indexed)
      {P, 5, 3, 1}, {P, 7, 3, 1},                            // 6 lost: 7 depends on it, dropped
      {P, 8, 3, 0},                                          // a new reference
      {P, 9, 0, 1},                                          // a level count of 0 is refused
      {P, 13, 3, 1},                                         // beyond the group: reference lost
      {P, 14, 3, 0},                                         // nothing decodes until a key frame
      {I, 15, 3, 0}};
  for (const In& in : frames) {
    // One SVC descriptor (tag 0x94, level count, layer flag) in a 4-byte
    // extension area.
    std::vector<uint8_t> bytes = ZarnTest::makeFrame(in.type, 0, in.seq, T + in.seq, 40);
    bytes[22] = 4;  // extension length
    std::memcpy(&bytes[24], std::vector<uint8_t>{0x94, in.levels, in.layer, 0}.data(), 4);
    sealFrameHead(bytes.data());
    VeltoFrame frame;
    frame.attach(bytes.data());
    unsigned long long written = 0;
    ASSERT_EQ(w->writeFrame(&frame, 0, written), 0);
  }
  std::vector<RecordFileName> f = closeAndList(w, 12);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(framesIn(f[0]), (std::vector<uint32_t>{0, 1, 2, 3, 4, 5, 8, 15}));
  CRecordFile file(*m_fs, f[0]);
  ASSERT_TRUE(file.openForRead());
  std::vector<uint32_t> indexed;
  for (const IndexEntry& e : file.recordIndex()->entries()) indexed.push_back(e.time - T);
  EXPECT_EQ(indexed, (std::vector<uint32_t>{0, 4, 8, 15}));  // key frames and layer-0 frames
}

TEST_F(StreamWriterTest, AWriteRacingADeleteCompletesOnItsEngine) {
  CMediaClientInternal client;
  ASSERT_EQ(client.initialize(Config{m_store.root.c_str(), 0, "root", ""}, nullptr), 0);
  ASSERT_EQ(client.setRecyclePolicy(13, 24, 0), 0);
  ASSERT_EQ(client.addStream(13, 1, true), 0);
  std::weak_ptr<CStreamWriter> weak = CMediaContext::instance().streams().getStreamWriter(13);
  std::atomic<int> recorded{0}, unknown{0}, other{0};
  std::thread host([&] {
    for (uint32_t seq = 0; unknown == 0; ++seq) {
      std::vector<uint8_t> bytes = ZarnTest::makeFrame(seq % 25 == 0 ? I : P, 0, seq, T + seq / 25, 400);
      VeltoFrame frame;
      frame.attach(bytes.data());
      unsigned long long written = 0;
      int r = client.writeFrame(13, &frame, 0, written);
      if (r == -4) ++unknown;
      else if (r != 0) ++other;
      else if (written != 0) ++recorded;  // 0 with nothing written: dropped by a closed writer
    }
  });
  ASSERT_TRUE(ZarnTest::waitFor([&] { return recorded.load() > 50; }));
  EXPECT_EQ(client.deleteStream(13), 0);
  host.join();
  ASSERT_TRUE(ZarnTest::waitFor([&] { return weak.expired(); }, 10000));
  EXPECT_EQ(other.load(), 0);
  // The host may have written long enough for a cut: count across every file.
  size_t inFiles = 0;
  for (const RecordFileName& f : files(13)) {
    EXPECT_NE(f.endTime, 0u);  // closed and renamed
    inFiles += framesIn(f).size();
  }
  EXPECT_EQ(inFiles, static_cast<size_t>(recorded.load()));
}

}  // namespace
