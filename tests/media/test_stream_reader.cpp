// Playback end to end: streams recorded through the client facade on a local
// store, played back through addSession / readFrame / seek / deleteSession.
// A configuration file in the working directory cuts record files every 60 s
// (at the next key frame), so every recording spans several files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>

#include "KanduThread.h"
#include "KanduTime.h"
#include "MediaClientInternal.h"
#include "MediaContext.h"
#include "MediaValues.h"
#include "RecordFile.h"
#include "RecordFileName.h"
#include "StreamMgr.h"
#include "StreamReader.h"
#include "TestSupport.h"
#include "VeltoFrame.h"
#include "WritingFiles.h"

using namespace Velto::Zarn;
using ZarnTest::waitFor;

namespace {

[[maybe_unused]] const bool g_config = ZarnTest::useConfigFileForProcess(
    R"({"enable_cfg": 1, "max_file_length": 100000000, "max_file_duration": 60, "min_cut_file_time": 1,
        "recycle_hours": 87600})");

constexpr uint8_t I = FRAME_TYPE_I;
constexpr uint8_t P = FRAME_TYPE_P;

struct Frame {
  std::vector<uint8_t> bytes;
  uint32_t time = 0;
  bool key = false;
};
using Frames = std::vector<Frame>;

// Sequence numbers of frames, for readable failure messages.
std::vector<uint32_t> seqs(const Frames& frames) {
  std::vector<uint32_t> out;
  for (const Frame& f : frames) out.push_back(reinterpret_cast<const VeltoFrameHead*>(f.bytes.data())->sequence);
  return out;
}

Frames keysOf(const Frames& frames) {
  Frames out;
  std::copy_if(frames.begin(), frames.end(), std::back_inserter(out), [](const Frame& f) { return f.key; });
  return out;
}

// Groups of pictures (each starting at a key frame), last group first, each
// group in its own forward order.
Frames reverseGroups(const Frames& frames) {
  std::vector<Frames> groups;
  for (const Frame& f : frames) {
    if (f.key || groups.empty()) groups.emplace_back();
    groups.back().push_back(f);
  }
  Frames out;
  for (auto g = groups.rbegin(); g != groups.rend(); ++g) out.insert(out.end(), g->begin(), g->end());
  return out;
}

// The frames of the groups of pictures that overlap [b, e].
Frames groupsOverlapping(const Frames& frames, uint32_t b, uint32_t e) {
  Frames out;
  size_t start = 0;
  for (size_t i = 0; i < frames.size(); ++i)
    if (frames[i].key && frames[i].time <= b) start = i;
  for (size_t i = start; i < frames.size() && frames[i].time <= e; ++i) out.push_back(frames[i]);
  return out;
}

// The four read orders, and what a whole session plays in each: every frame
// or key frames only; forward, or groups of pictures last first (key frames
// alone are groups of one, so they come back in reverse).
struct Order {
  bool key, reverse;
};
constexpr Order kForward{false, false}, kForwardKey{true, false}, kReverse{false, true}, kReverseKey{true, true};
constexpr Order kOrders[] = {kForward, kForwardKey, kReverse, kReverseKey};
Frames inOrder(const Frames& frames, Order o) {
  const Frames picked = o.key ? keysOf(frames) : frames;
  return o.reverse ? reverseGroups(picked) : picked;
}

class StreamReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(m_client.initialize(Config{m_root.c_str(), 0, "root", ""}, nullptr), 0);
    m_t0 = (CMediaValues::instance().localNow(Velto::Kandu::systemClock()) - 4 * 3600) / 60 * 60;
  }
  void TearDown() override { CMediaValues::instance().sdkState.store(0); }

  // Records `seconds` of a stream: `fps` frames a second, a key frame every
  // `gop` frames, payloads of varying size (or of `payload(sequence)` bytes).
  // Appends what was written to `out`.
  void recordFrames(uint32_t sid, uint32_t from, uint32_t seconds, Frames& out, uint32_t fps = 4, uint32_t gop = 8,
                    const std::function<uint32_t(uint32_t)>& payload = nullptr) {
    for (uint32_t i = 0; i < seconds * fps; ++i) {
      const uint32_t seq = m_seq[sid]++;
      const bool key = seq % gop == 0;
      Frame f{ZarnTest::makeFrame(key ? I : P, 0, seq, from + i / fps, payload ? payload(seq) : 100 + (seq * 37) % 700),
              0, key};
      f.time = frameTime(f.bytes.data());
      VeltoFrame vf;
      vf.attach(f.bytes.data());
      unsigned long long written = 0;
      ASSERT_EQ(m_client.writeFrame(sid, &vf, 0, written), 0);
      ASSERT_EQ(written, f.bytes.size());
      out.push_back(std::move(f));
    }
  }

  // A closed recording of `seconds` seconds from m_t0, spanning several files.
  Frames record(uint32_t sid, uint32_t seconds = 200) {
    Frames frames;
    EXPECT_EQ(m_client.addStream(sid, 1, true), 0);
    recordFrames(sid, m_t0, seconds, frames);
    closeStream(sid);
    return frames;
  }

  void closeStream(uint32_t sid) {
    ASSERT_EQ(m_client.deleteStream(sid), 0);
    ASSERT_TRUE(waitFor([&] { return allClosed(sid); }, 10000));
  }

  std::vector<RecordFileName> files(uint32_t sid) { return ZarnTest::listRecords(store(), sid); }

  bool allClosed(uint32_t sid) {
    CWritingFileTable::Entry entry;
    if (CMediaContext::instance().writingFiles().get(sid, entry)) return false;
    for (const RecordFileName& n : files(sid))
      if (n.endTime == 0) return false;
    return true;
  }

  CZarnFileSystem& store() { return *m_client.storeForTest(); }

  // Reads until the end of the session (result 0 with length 0), a fault, or
  // `limit` frames. Results other than a frame or "not ready" end the read and
  // are left in m_last; m_ended tells whether the read met the session's end.
  Frames readAll(int session, bool keyOnly, bool reverse, size_t limit = 100000) {
    const ZarnTest::SessionFrames read = ZarnTest::readSession(m_client, session, keyOnly, reverse, limit);
    m_last = read.last;
    m_ended = read.last == 0;
    Frames out;
    for (const auto& b : read.frames)
      out.push_back(Frame{b, frameTime(b.data()), isKeyFrame(*reinterpret_cast<const VeltoFrameHead*>(b.data()))});
    return out;
  }

  void expectSameFrames(const Frames& got, const Frames& want) {
    ASSERT_EQ(seqs(got), seqs(want));
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i].bytes, want[i].bytes) << "frame " << i;
  }

  // A whole session of [begin, end] in one order (the reverse orders from
  // `end`): exactly `want`, then the end of the session, which stays the end.
  void expectPlayback(uint32_t sid, uint32_t begin, uint32_t end, bool sync, Order o, const Frames& want) {
    SCOPED_TRACE(testing::Message() << "key " << o.key << " reverse " << o.reverse << " sync " << sync << " ["
                                    << begin - m_t0 << ", " << end - m_t0 << "]");
    const int session = m_client.addSession(sid, begin, end, sync);
    ASSERT_GT(session, 0);
    if (o.reverse) {
      ASSERT_EQ(m_client.seek(session, end), 0);  // reverse needs a position
    }
    expectSameFrames(readAll(session, o.key, o.reverse), want);
    EXPECT_TRUE(m_ended) << m_last;
    VeltoFrame frame;
    unsigned long long length = 99;
    EXPECT_EQ(m_client.readFrame(session, &frame, length, o.key, o.reverse), 0);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(m_client.deleteSession(session), 0);
  }

  // Writes 24 frames of stream `sid` from m_t0 (three a second, a key frame
  // every 6) straight into a record file, as a writer does; the bytes
  // `extra(i)` follow frame i. The file's data region goes to `data`.
  Frames writeByHand(uint32_t sid, const std::function<std::vector<uint8_t>(uint32_t)>& extra,
                     std::vector<uint8_t>* data = nullptr) {
    EXPECT_TRUE(store().createBucket(bucketName(sid, BUCKET_KIND_MEDIA))) << getErrorMsg();
    CRecordFile file(store(), RecordFileName{.streamId = sid, .beginTime = m_t0, .type = 1});
    EXPECT_TRUE(file.openForWrite(4, 1));
    Frames written;
    for (uint32_t i = 0; i < 24; ++i) {
      const bool key = i % 6 == 0;
      const uint32_t time = m_t0 + i / 3;
      written.push_back(Frame{ZarnTest::makeFrame(key ? I : P, 0, i, time, 200 + i), time, key});
      const std::vector<uint8_t>& bytes = written.back().bytes;
      const std::vector<uint8_t> after = extra(i);
      EXPECT_EQ(file.write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
      if (key) file.addIndex(I, 0, time, static_cast<uint32_t>(bytes.size()));
      file.setLastTime(time);
      if (!after.empty()) {
        EXPECT_EQ(file.write(after.data(), static_cast<uint32_t>(after.size())), static_cast<int64_t>(after.size()));
      }
      if (data) {
        data->insert(data->end(), bytes.begin(), bytes.end());
        data->insert(data->end(), after.begin(), after.end());
      }
    }
    EXPECT_TRUE(file.close());
    return written;
  }

  ZarnTest::TempDir m_dir;
  std::string m_root = m_dir.sub("store");
  CMediaClientInternal m_client;
  uint32_t m_t0 = 0;
  std::map<uint32_t, uint32_t> m_seq;
  int m_last = 0;
  bool m_ended = false;
};

TEST_F(StreamReaderTest, SeekWithinTheSessionBoundsAndNotOutside) {
  const Frames recorded = record(4);
  const uint32_t b = m_t0 + 20, e = m_t0 + 150;
  const int session = m_client.addSession(4, b, e, true);
  EXPECT_EQ(m_client.seek(session, b - 1), -1);
  EXPECT_EQ(m_client.seek(session, e + 1), -1);
  // To the end of the session (read to its end), back to its begin in another
  // file, forward inside the open file, then across a cut.
  for (uint32_t t : {e, b, b + 3, m_t0 + 100}) {
    SCOPED_TRACE(t - m_t0);
    EXPECT_EQ(m_client.seek(session, t), 0);
    Frames want = groupsOverlapping(recorded, t, e);
    if (t != e) want.resize(5);
    expectSameFrames(readAll(session, false, false, t == e ? 100000 : 5), want);
    EXPECT_EQ(m_ended, t == e);
  }
  m_client.deleteSession(session);
}

TEST_F(StreamReaderTest, OrderChangesMidSession) {
  const Frames recorded = record(5);
  const int session = m_client.addSession(5, m_t0, m_t0 + 199, true);
  // Forward into the third group of pictures.
  expectSameFrames(readAll(session, false, false, 20), Frames(recorded.begin(), recorded.begin() + 20));
  // Reverse on the index starts at the last key frame handed out (frame 16).
  expectSameFrames(readAll(session, true, true, 3), Frames{recorded[16], recorded[8], recorded[0]});
  EXPECT_TRUE(readAll(session, true, true).empty());
  EXPECT_TRUE(m_ended) << "the first key frame holds the session begin";
  // Forward from the last key frame handed out: the first group again.
  expectSameFrames(readAll(session, false, false, 10), Frames(recorded.begin(), recorded.begin() + 10));
  // Key frames forward from there.
  const Frames got = readAll(session, true, false, 2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_TRUE(got[0].key && got[1].key);
  EXPECT_EQ(seqs(got), (std::vector<uint32_t>{8, 16}));
  m_client.deleteSession(session);
}

TEST_F(StreamReaderTest, AFileWithoutIndexRefusesReverseAndPlaysForwardByTime) {
  const Frames recorded = record(6);
  std::vector<RecordFileName> f = files(6);
  ASSERT_GE(f.size(), 3u);
  // Take the second file's index away as far as names tell.
  RecordFileName noIndex = f[1];
  noIndex.indexState = RECORD_INDEX_MISSING;
  ASSERT_TRUE(recordFileRename(store(), ZarnTest::recordPath(f[1]), noIndex));

  VeltoFrame frame;
  unsigned long long length = 0;
  {
    // No key frame handed out yet: no reverse order at all.
    const int session = m_client.addSession(6, m_t0, m_t0 + 199, false);
    EXPECT_EQ(m_client.readFrame(session, &frame, length, false, true), -3);
    m_client.deleteSession(session);
  }
  // Forward from the middle of the file without index: positioned by time,
  // then resynchronised on the next frame head.
  const uint32_t mid = noIndex.beginTime + (noIndex.endTime - noIndex.beginTime) / 2;
  const int session = m_client.addSession(6, mid, m_t0 + 199, true);
  Frames got = readAll(session, false, false);
  EXPECT_TRUE(m_ended) << m_last;
  ASSERT_FALSE(got.empty());
  const auto first = std::find_if(recorded.begin(), recorded.end(), [&](const Frame& r) { return r.bytes == got[0].bytes; });
  ASSERT_NE(first, recorded.end());
  EXPECT_GE(first->time, noIndex.beginTime);
  EXPECT_LE(first->time, noIndex.endTime);
  expectSameFrames(got, Frames(first, recorded.end()));

  // A key frame of that file handed out, then reverse: the file is refused.
  ASSERT_EQ(m_client.seek(session, mid), 0);
  got = readAll(session, true, false, 1);
  ASSERT_EQ(got.size(), 1u);
  ASSERT_LE(got[0].time, noIndex.endTime);
  EXPECT_TRUE(waitFor([&] { return m_client.readFrame(session, &frame, length, false, true) == -3; }));
  m_client.deleteSession(session);
}

TEST_F(StreamReaderTest, DamagedBytesBetweenFramesAreSkipped) {
  const std::vector<std::vector<uint8_t>> junk = {
      {'x', 'y', 'Q', 'R', 'A', 'z'},      // a broken magic
      {'Q', 'Q', 'R', 'A', 'V', 0, 0, 0},  // a magic that is no head
      std::vector<uint8_t>(3000, 0x51),   // a run of 'Q'
  };
  const Frames written = writeByHand(7, [&](uint32_t i) { return i % 4 == 1 ? junk[i % 3] : std::vector<uint8_t>{}; });
  expectPlayback(7, m_t0, m_t0 + 20, true, kForward, written);
}

// A head that passes its check but claims a length running over the frames
// after it (its tail is no tail): the reader resynchronises over those bytes
// and finds the frames inside them, smaller than what it holds, whole and at
// their true offsets (reverse playback jumps by those offsets).
TEST_F(StreamReaderTest, FramesInsideTheBytesOfAFalseHeadAreRecovered) {
  const uint32_t falseLength = 1500;
  std::vector<uint8_t> falseHead = ZarnTest::makeFrame(P, 0, 1000, m_t0, 0);
  falseHead.resize(kFrameHeadSize);
  reinterpret_cast<VeltoFrameHead*>(falseHead.data())->length = falseLength;
  sealFrameHead(falseHead.data());
  std::vector<uint8_t> data;
  const Frames written = writeByHand(15, [&](uint32_t i) { return i == 2 ? falseHead : std::vector<uint8_t>{}; }, &data);
  // The false frame covers several real frames, a key frame among them, and
  // has no tail where its length says.
  const auto endOf = [&](const Frame& f) {
    return static_cast<size_t>(std::search(data.begin(), data.end(), f.bytes.begin(), f.bytes.end()) - data.begin()) +
           f.bytes.size();
  };
  const size_t falseHeadAt = endOf(written[2]);
  ASSERT_TRUE(checkFrameHead(&data[falseHeadAt]));
  ASSERT_FALSE(checkFrameTail(&data[falseHeadAt + falseLength - kFrameTailSize]));
  ASSERT_GT(falseHeadAt + falseLength, endOf(written[6]));
  for (Order o : {kForward, kReverse}) expectPlayback(15, m_t0, m_t0 + 7, true, o, inOrder(written, o));
}

// Frames go from the store into their items in pieces that depend on their
// size: small ones through the record file's read buffer, larger ones straight
// in, with the next frame's head read along. Every size, next to every other,
// across a file cut and in every order, comes back whole.
TEST_F(StreamReaderTest, FramesOfEverySizeComeBackWholeInEveryOrder) {
  const uint32_t sid = 14;
  const uint32_t sizes[] = {300, 20000, 200000, 16400, 0, 140000, 70000};  // payload bytes
  Frames recorded;
  ASSERT_EQ(m_client.addStream(sid, 1, true), 0);
  recordFrames(sid, m_t0, 70, recorded, 4, 8, [&](uint32_t seq) { return sizes[seq % 7]; });
  closeStream(sid);
  ASSERT_GE(files(sid).size(), 2u);
  for (Order o : {kForward, kForwardKey, kReverse})
    expectPlayback(sid, m_t0, m_t0 + 69, o.key || o.reverse, o, inOrder(recorded, o));
}

TEST_F(StreamReaderTest, FramesGoIntoTheCallersBufferWithinItsBounds) {
  const Frames recorded = record(10, 10);
  const int session = m_client.addSession(10, m_t0, m_t0 + 9, true);
  unsigned long long length = 0;
  // An empty record gets an owned buffer of the maximum frame size.
  VeltoFrame empty;
  ASSERT_EQ(m_client.readFrame(session, &empty, length, false, false), 0);
  EXPECT_EQ(empty.bufferSize, currentMaxFrameSize());
  EXPECT_EQ(std::vector<uint8_t>(empty.frame, empty.frame + length), recorded[0].bytes);
  // An attached buffer is written in place.
  std::vector<uint8_t> mine(currentMaxFrameSize());
  VeltoFrame attached;
  attached.attach(mine.data());
  ASSERT_EQ(m_client.readFrame(session, &attached, length, false, false), 0);
  EXPECT_EQ(attached.frame, mine.data());
  EXPECT_EQ(std::vector<uint8_t>(mine.begin(), mine.begin() + static_cast<long>(length)), recorded[1].bytes);
  // An owned buffer smaller than the frame: a fault for this call, nothing written.
  std::vector<uint8_t> tiny = ZarnTest::makeFrame(P, 0, 0, m_t0, 1);
  VeltoFrame source;
  source.attach(tiny.data());
  VeltoFrame small(source);
  ASSERT_EQ(small.bufferSize, tiny.size());
  EXPECT_EQ(m_client.readFrame(session, &small, length, false, false), -3);
  EXPECT_EQ(std::vector<uint8_t>(small.frame, small.frame + small.bufferSize), tiny);
  m_client.deleteSession(session);
}

TEST_F(StreamReaderTest, ReadAheadStopsAtFiftyForwardAndEightOtherwise) {
  record(11);
  std::shared_ptr<CZarnFileSystem> fs(m_client.storeForTest(), [](CZarnFileSystem*) {});
  auto reader = std::make_shared<CStreamReader>(fs, 11, m_t0, m_t0 + 199, false, ZarnTest::readerEnv());
  VeltoFrame frame;
  unsigned long long length = 0;
  // The worker reads ahead until the bound and then goes idle; the frame taken
  // by the call that started it may leave one place free.
  for (Order o : {kForward, kReverse}) {
    const size_t limit = o.reverse ? CStreamReader::kOtherBufferFrames : CStreamReader::kForwardBufferFrames;
    ASSERT_TRUE(waitFor([&] { return reader->readFrame(&frame, length, false, o.reverse) == 0; }));
    size_t most = 0;
    EXPECT_TRUE(waitFor([&] {
      most = std::max(most, reader->bufferedFramesForTest());
      return reader->isIdleForTest() && reader->bufferedFramesForTest() + 1 >= limit;
    }));
    EXPECT_LE(std::max(most, reader->bufferedFramesForTest()), limit);
    EXPECT_GE(reader->bufferedFramesForTest() + 1, limit);
  }
  reader->deleteSession(reader);
}

TEST_F(StreamReaderTest, SessionsDeletedWhileTheirWorkersRunAreReleased) {
  record(12);
  std::shared_ptr<CZarnFileSystem> fs(m_client.storeForTest(), [](CZarnFileSystem*) {});
  std::vector<std::weak_ptr<CStreamReader>> released;
  for (int i = 0; i < 20; ++i) {
    auto reader = std::make_shared<CStreamReader>(fs, 12, m_t0, m_t0 + 199, i % 2 == 0, ZarnTest::readerEnv());
    VeltoFrame frame;
    unsigned long long length = 0;
    reader->readFrame(&frame, length, false, false);  // the worker starts
    if (i % 3 == 0) Velto::Kandu::sleepMs(1);
    released.push_back(reader);
    reader->deleteSession(reader);
    reader->deleteSession(reader);  // a second delete changes nothing
    reader.reset();
  }
  for (auto& weak : released) EXPECT_TRUE(waitFor([&] { return weak.expired(); }, 10000));
}

TEST_F(StreamReaderTest, RegistryOperationsOnSessions) {
  CMediaContext::instance().streams().setLastSessionIdForTest(0);  // as in a fresh process
  record(13, 10);
  EXPECT_EQ(m_client.addSession(13, m_t0, m_t0 + 9, true), 1);
  EXPECT_EQ(m_client.addSession(99, m_t0, m_t0 + 9, true), 2);
  EXPECT_EQ(m_client.addSession(13, m_t0, m_t0 + 9, false), 3);

  VeltoFrame frame;
  unsigned long long length = 0;
  EXPECT_EQ(m_client.readFrame(77, &frame, length, false, false), -5);
  EXPECT_EQ(m_client.seek(77, m_t0), -5);
  EXPECT_EQ(m_client.deleteSession(77), -1);

  // A session over a stream that has no record: a fault, not a hang.
  EXPECT_TRUE(waitFor([&] { return m_client.readFrame(2, &frame, length, false, false) == -3; }));
  EXPECT_EQ(m_client.seek(2, m_t0), -1);

  EXPECT_EQ(m_client.deleteSession(1), 0);
  EXPECT_EQ(m_client.readFrame(1, &frame, length, false, false), -5);
  EXPECT_EQ(m_client.deleteSession(1), -1);
  EXPECT_EQ(m_client.addSession(13, m_t0, m_t0 + 9, true), 4);
  for (int id : {2, 3, 4}) EXPECT_EQ(m_client.deleteSession(id), 0);
}

// ---- Recording and playback on every store backend ----
// The CephFS runs are skipped unless a test cluster is configured
// (scripts/ceph-cluster-start.sh writes ZARN_TEST_CEPH_ADDRESS to DIR/zarn-test.env).
class StreamReaderStoreTest : public StreamReaderTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    if (std::string(GetParam()) == "Ceph") {
#ifndef ZARN_WITH_CEPH
      GTEST_SKIP() << "this build has no Ceph backend";
#endif
      if ((m_root = ZarnTest::clusterRoot("reader")).empty()) GTEST_SKIP() << ZarnTest::kNoCluster;
    }
    StreamReaderTest::SetUp();
  }
};

INSTANTIATE_TEST_SUITE_P(Stores, StreamReaderStoreTest, testing::Values("Local", "Ceph"),
                         [](const testing::TestParamInfo<const char*>& p) { return std::string(p.param); });

TEST_P(StreamReaderStoreTest, EveryOrderPlaysEveryFrameByteForByteAcrossFileCutsAndWithinTheBounds) {
  const Frames recorded = record(1);
  ASSERT_GE(files(1).size(), 3u);
  // A range across two file cuts whose ends fall inside groups of pictures.
  const uint32_t b = m_t0 + 51, e = m_t0 + 130;
  const Frames inRange = groupsOverlapping(recorded, b, e);
  ASSERT_GT(inRange.front().time, m_t0);
  ASSERT_LE(inRange.front().time, b);
  for (Order o : kOrders) {
    expectPlayback(1, m_t0, m_t0 + 199, true, o, inOrder(recorded, o));
    expectPlayback(1, b, e, false, o, inOrder(inRange, o));
  }
  // A seek into the middle plays from the group of pictures holding that time.
  const int session = m_client.addSession(1, m_t0, m_t0 + 199, false);
  ASSERT_EQ(m_client.seek(session, m_t0 + 101), 0);
  expectSameFrames(readAll(session, false, false), groupsOverlapping(recorded, m_t0 + 101, m_t0 + 199));
  m_client.deleteSession(session);
}

// A file still being written: sessions over it hand out what is there, then
// answer "not ready" (a blocking read after a second), neither the end nor a
// fault, past the padding a flush leaves too; later frames follow across a
// file cut, and the sessions end once the stream closes.
TEST_P(StreamReaderStoreTest, AFileStillBeingWrittenIsFollowedPastItsPaddingUntilTheStreamCloses) {
  const uint32_t sid = 8;
  ASSERT_EQ(m_client.addStream(sid, 1, true), 0);
  Frames recorded;
  recordFrames(sid, m_t0, 5, recorded);
  ASSERT_EQ(m_client.flushFrame(sid), 0);  // a padding frame up to the next stripe
  const int async = m_client.addSession(sid, m_t0, m_t0 + 3000, false);
  const int blocking = m_client.addSession(sid, m_t0, m_t0 + 3000, true);
  for (int session : {async, blocking}) expectSameFrames(readAll(session, false, false, recorded.size()), recorded);

  VeltoFrame frame;
  unsigned long long length = 0;
  EXPECT_EQ(m_client.readFrame(async, &frame, length, false, false), -2);
  const uint64_t start = Velto::Kandu::monotonicMs();
  EXPECT_EQ(m_client.readFrame(blocking, &frame, length, false, false), -2);
  EXPECT_GE(Velto::Kandu::monotonicMs() - start, 990u);
  EXPECT_EQ(m_client.readFrame(async, &frame, length, false, false), -2);  // its worker had that second too

  const size_t before = recorded.size();
  recordFrames(sid, m_t0 + 5, 60, recorded);  // crosses a file cut
  closeStream(sid);
  for (int session : {async, blocking}) {
    expectSameFrames(readAll(session, false, false), Frames(recorded.begin() + static_cast<long>(before), recorded.end()));
    EXPECT_TRUE(m_ended) << m_last;
    m_client.deleteSession(session);
  }
}

}  // namespace
