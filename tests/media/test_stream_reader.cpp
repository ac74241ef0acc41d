// Playback end to end: streams recorded through the client facade on a local
// store, played back through addSession / readFrame / seek / deleteSession.
// A configuration file in the working directory cuts record files every 60 s
// (at the next key frame), so every recording spans several files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <thread>

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
using ZarnTest::LogCapture;
using ZarnTest::waitFor;

namespace {

class ReaderConfigEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    m_dir = std::make_unique<ZarnTest::TempDir>();
    std::ofstream(m_dir->sub("MediaConfig.cfg")) << R"({"enable_cfg": 1, "max_file_length": 100000000,
        "max_file_duration": 60, "min_cut_file_time": 1, "recycle_hours": 87600})";
    ASSERT_EQ(chdir(m_dir->path().c_str()), 0);
  }
  void TearDown() override {
    if (chdir("/") != 0) std::abort();
    m_dir.reset();
  }

 private:
  std::unique_ptr<ZarnTest::TempDir> m_dir;
};

[[maybe_unused]] ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new ReaderConfigEnvironment());

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
  for (const Frame& f : frames)
    if (f.key) out.push_back(f);
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
      Frame f;
      f.bytes = ZarnTest::makeFrame(key ? I : P, 0, seq, from + i / fps, payload ? payload(seq) : 100 + (seq * 37) % 700);
      f.time = frameTime(f.bytes.data());
      f.key = key;
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

  std::vector<RecordFileName> files(uint32_t sid) {
    std::vector<RecordFileName> out;
    CBucket bucket = store().getBucket(bucketName(sid, BUCKET_KIND_MEDIA));
    CFileList list;
    if (!bucket.isValid() || !bucket.list(list, "", "", 1000)) return out;
    for (const StoreEntry& e : list) {
      RecordFileName n;
      if (parseRecordFileName(bucketName(sid, BUCKET_KIND_MEDIA) + "/" + e.name, n)) out.push_back(n);
    }
    return out;
  }

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
  // are left in m_last.
  Frames readAll(int session, bool keyOnly, bool reverse, size_t limit = 100000) {
    Frames out;
    m_last = 0;
    VeltoFrame frame;  // one buffer for the whole read, as a host keeps it
    for (;;) {
      if (out.size() >= limit) return out;
      unsigned long long length = 0;
      int r = -2;
      const bool ready = waitFor(
          [&] {
            r = m_client.readFrame(session, &frame, length, keyOnly, reverse);
            return r != -2;
          },
          10000);
      if (!ready || r != 0 || length == 0) {
        m_last = ready ? r : -2;
        m_ended = ready && r == 0 && length == 0;
        return out;
      }
      EXPECT_EQ(length, frame.head.length);
      Frame f;
      f.bytes.assign(frame.frame, frame.frame + length);
      f.time = frameTime(frame.frame);
      f.key = isKeyFrame(frame.head);
      out.push_back(std::move(f));
    }
  }

  void expectSameFrames(const Frames& got, const Frames& want) {
    ASSERT_EQ(seqs(got), seqs(want));
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i].bytes, want[i].bytes) << "frame " << i;
  }

  // The open name of a record file of stream `sid` beginning at m_t0, its
  // bucket made: for tests that write a file's bytes themselves.
  RecordFileName openNameAtT0(uint32_t sid) {
    EXPECT_TRUE(store().createBucket(bucketName(sid, BUCKET_KIND_MEDIA))) << getErrorMsg();
    RecordFileName name;
    name.streamId = sid;
    name.beginTime = m_t0;
    name.type = 1;
    return name;
  }

  // A whole session of [begin, end] in one order (the reverse orders from
  // `end`): exactly `want`, then the end of the session.
  void expectPlayback(uint32_t sid, uint32_t begin, uint32_t end, bool sync, bool keyOnly, bool reverse,
                      const Frames& want) {
    const int session = m_client.addSession(sid, begin, end, sync);
    ASSERT_GT(session, 0);
    if (reverse) {
      ASSERT_EQ(m_client.seek(session, end), 0);
    }
    expectSameFrames(readAll(session, keyOnly, reverse), want);
    EXPECT_TRUE(m_ended) << m_last;
    m_client.deleteSession(session);
  }

  ZarnTest::TempDir m_dir;
  std::string m_root = m_dir.sub("store");
  CMediaClientInternal m_client;
  uint32_t m_t0 = 0;
  std::map<uint32_t, uint32_t> m_seq;
  int m_last = 0;
  bool m_ended = false;
};

TEST_F(StreamReaderTest, ForwardPlaybackReturnsEveryFrameByteForByteAcrossFileCuts) {
  const Frames recorded = record(1);
  ASSERT_GE(files(1).size(), 3u);
  const int session = m_client.addSession(1, m_t0, m_t0 + 199, false);
  ASSERT_GT(session, 0);
  const Frames got = readAll(session, false, false);
  EXPECT_TRUE(m_ended) << m_last;
  expectSameFrames(got, recorded);
  // The end of the session stays the end.
  VeltoFrame frame;
  unsigned long long length = 99;
  EXPECT_EQ(m_client.readFrame(session, &frame, length, false, false), 0);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(m_client.deleteSession(session), 0);
}

TEST_F(StreamReaderTest, KeyFrameOrdersAndReverseOrdersAcrossFiles) {
  const Frames recorded = record(2);
  const uint32_t end = m_t0 + 199;
  {
    const int session = m_client.addSession(2, m_t0, end, true);
    const Frames got = readAll(session, true, false);
    EXPECT_TRUE(m_ended) << m_last;
    expectSameFrames(got, keysOf(recorded));
    m_client.deleteSession(session);
  }
  {
    // Reverse needs a position: a seek gives one.
    const int session = m_client.addSession(2, m_t0, end, true);
    ASSERT_EQ(m_client.seek(session, end), 0);
    const Frames got = readAll(session, false, true);
    EXPECT_TRUE(m_ended) << m_last;
    expectSameFrames(got, reverseGroups(recorded));
    m_client.deleteSession(session);
  }
  {
    const int session = m_client.addSession(2, m_t0, end, true);
    ASSERT_EQ(m_client.seek(session, end), 0);
    const Frames got = readAll(session, true, true);
    EXPECT_TRUE(m_ended) << m_last;
    Frames keys = keysOf(recorded);
    std::reverse(keys.begin(), keys.end());
    expectSameFrames(got, keys);
    m_client.deleteSession(session);
  }
}

TEST_F(StreamReaderTest, SessionBoundsAreHonouredInEveryOrder) {
  const Frames recorded = record(3);
  // A range across two file cuts whose ends fall inside groups of pictures.
  const uint32_t b = m_t0 + 51;
  const uint32_t e = m_t0 + 130;
  const Frames inRange = groupsOverlapping(recorded, b, e);
  ASSERT_GT(inRange.front().time, m_t0);
  ASSERT_LE(inRange.front().time, b);
  {
    const int session = m_client.addSession(3, b, e, false);
    expectSameFrames(readAll(session, false, false), inRange);
    EXPECT_TRUE(m_ended);
    m_client.deleteSession(session);
  }
  {
    const int session = m_client.addSession(3, b, e, false);
    expectSameFrames(readAll(session, true, false), keysOf(inRange));
    EXPECT_TRUE(m_ended);
    m_client.deleteSession(session);
  }
  {
    const int session = m_client.addSession(3, b, e, false);
    ASSERT_EQ(m_client.seek(session, e), 0);
    expectSameFrames(readAll(session, false, true), reverseGroups(inRange));
    EXPECT_TRUE(m_ended);
    m_client.deleteSession(session);
  }
  {
    const int session = m_client.addSession(3, b, e, false);
    ASSERT_EQ(m_client.seek(session, e), 0);
    Frames keys = keysOf(inRange);
    std::reverse(keys.begin(), keys.end());
    expectSameFrames(readAll(session, true, true), keys);
    EXPECT_TRUE(m_ended);
    m_client.deleteSession(session);
  }
}

TEST_F(StreamReaderTest, SeekWithinTheSessionBoundsAndNotOutside) {
  const Frames recorded = record(4);
  const uint32_t b = m_t0 + 20;
  const uint32_t e = m_t0 + 150;
  const int session = m_client.addSession(4, b, e, true);
  EXPECT_EQ(m_client.seek(session, b - 1), -1);
  EXPECT_EQ(m_client.seek(session, e + 1), -1);

  EXPECT_EQ(m_client.seek(session, e), 0);
  Frames got = readAll(session, false, false);
  expectSameFrames(got, groupsOverlapping(recorded, e, e));
  EXPECT_TRUE(m_ended);

  // Back from the end of the session to its begin, in another file.
  EXPECT_EQ(m_client.seek(session, b), 0);
  got = readAll(session, false, false, 5);
  const Frames fromBegin = groupsOverlapping(recorded, b, e);
  expectSameFrames(got, Frames(fromBegin.begin(), fromBegin.begin() + 5));

  // Forward again inside the open file, then across a cut.
  for (uint32_t t : {b + 3, m_t0 + 100}) {
    EXPECT_EQ(m_client.seek(session, t), 0);
    got = readAll(session, false, false, 3);
    const Frames want = groupsOverlapping(recorded, t, e);
    expectSameFrames(got, Frames(want.begin(), want.begin() + 3));
  }
  m_client.deleteSession(session);
}

TEST_F(StreamReaderTest, OrderChangesMidSession) {
  const Frames recorded = record(5);
  const int session = m_client.addSession(5, m_t0, m_t0 + 199, true);
  // Forward into the third group of pictures.
  Frames got = readAll(session, false, false, 20);
  expectSameFrames(got, Frames(recorded.begin(), recorded.begin() + 20));
  // Reverse on the index starts at the last key frame handed out (frame 16).
  got = readAll(session, true, true, 3);
  expectSameFrames(got, Frames{recorded[16], recorded[8], recorded[0]});
  got = readAll(session, true, true);
  EXPECT_TRUE(got.empty());
  EXPECT_TRUE(m_ended) << "the first key frame holds the session begin";
  // Forward from the last key frame handed out: the first group again.
  got = readAll(session, false, false, 10);
  expectSameFrames(got, Frames(recorded.begin(), recorded.begin() + 10));
  // Key frames forward from there.
  got = readAll(session, true, false, 2);
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
  std::string oldName;
  ASSERT_TRUE(generateRecordFileName(f[1], oldName));
  noIndex.indexState = RECORD_INDEX_MISSING;
  ASSERT_TRUE(recordFileRename(store(), oldName, noIndex));

  LogCapture log;
  {
    // No key frame handed out yet: no reverse order at all.
    const int session = m_client.addSession(6, m_t0, m_t0 + 199, false);
    VeltoFrame frame;
    unsigned long long length = 0;
    EXPECT_EQ(m_client.readFrame(session, &frame, length, false, true), -3);
    EXPECT_TRUE(log.contains("Miss index, can't change read order to ReverseOnIndex."));
    EXPECT_TRUE(log.contains("read order change failed. return fault"));
    m_client.deleteSession(session);
  }
  // Forward from the middle of the file without index: positioned by time,
  // then resynchronised on the next frame head.
  const uint32_t mid = noIndex.beginTime + (noIndex.endTime - noIndex.beginTime) / 2;
  const int session = m_client.addSession(6, mid, m_t0 + 199, true);
  Frames got = readAll(session, false, false);
  EXPECT_TRUE(m_ended) << m_last;
  ASSERT_FALSE(got.empty());
  size_t first = 0;
  while (first < recorded.size() && recorded[first].bytes != got[0].bytes) ++first;
  ASSERT_LT(first, recorded.size());
  EXPECT_GE(recorded[first].time, noIndex.beginTime);
  EXPECT_LE(recorded[first].time, noIndex.endTime);
  expectSameFrames(got, Frames(recorded.begin() + first, recorded.end()));

  // A key frame of that file handed out, then reverse: the file is refused.
  ASSERT_EQ(m_client.seek(session, mid), 0);
  got = readAll(session, true, false, 1);
  ASSERT_EQ(got.size(), 1u);
  ASSERT_LE(got[0].time, noIndex.endTime);
  VeltoFrame frame;
  unsigned long long length = 0;
  int r = 0;
  EXPECT_TRUE(waitFor([&] { return (r = m_client.readFrame(session, &frame, length, false, true)) == -3; }));
  EXPECT_TRUE(log.contains("Miss Index can't play reverse on index."));
  EXPECT_TRUE(log.contains("Session was fault. return fault."));
  m_client.deleteSession(session);
}

TEST_F(StreamReaderTest, DamagedBytesBetweenFramesAreSkipped) {
  const uint32_t sid = 7;
  CRecordFile file(store(), openNameAtT0(sid));
  ASSERT_TRUE(file.openForWrite(4, 1));
  Frames written;
  const std::vector<std::vector<uint8_t>> junk = {
      {'x', 'y', 'Q', 'R', 'A', 'z'},                          // a broken magic
      {'Q', 'Q', 'R', 'A', 'V', 0, 0, 0},                      // a magic that is no head
      std::vector<uint8_t>(3000, 0x51),                       // a run of 'Q'
  };
  for (uint32_t i = 0; i < 24; ++i) {
    const bool key = i % 6 == 0;
    std::vector<uint8_t> bytes = ZarnTest::makeFrame(key ? I : P, 0, i, m_t0 + i / 3, 200 + i);
    ASSERT_EQ(file.write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
    if (key) file.addIndex(I, 0, m_t0 + i / 3, static_cast<uint32_t>(bytes.size()));
    file.setLastTime(m_t0 + i / 3);
    if (i % 4 == 1) {
      const auto& j = junk[i % 3];
      ASSERT_EQ(file.write(j.data(), static_cast<uint32_t>(j.size())), static_cast<int64_t>(j.size()));
    }
    written.push_back(Frame{bytes, m_t0 + i / 3, key});
  }
  ASSERT_TRUE(file.close());

  const int session = m_client.addSession(sid, m_t0, m_t0 + 20, true);
  const Frames got = readAll(session, false, false);
  EXPECT_TRUE(m_ended) << m_last;
  expectSameFrames(got, written);
  m_client.deleteSession(session);
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
  const uint32_t end = m_t0 + 69;
  expectPlayback(sid, m_t0, end, false, false, false, recorded);
  expectPlayback(sid, m_t0, end, true, true, false, keysOf(recorded));
  expectPlayback(sid, m_t0, end, true, false, true, reverseGroups(recorded));
}

// A head that passes its check but claims a length running over the frames
// after it (its tail is no tail): the reader resynchronises over those bytes
// and finds the frames inside them, smaller than what it holds, whole and at
// their true offsets (reverse playback jumps by those offsets).
TEST_F(StreamReaderTest, FramesInsideTheBytesOfAFalseHeadAreRecovered) {
  const uint32_t sid = 15;
  CRecordFile file(store(), openNameAtT0(sid));
  ASSERT_TRUE(file.openForWrite(4, 1));
  Frames written;
  std::vector<uint8_t> all;  // the file's data, to check what the false head covers
  std::vector<size_t> offsets;
  size_t falseHeadAt = 0;
  const uint32_t falseLength = 1500;
  for (uint32_t i = 0; i < 24; ++i) {
    const bool key = i % 6 == 0;
    std::vector<uint8_t> bytes = ZarnTest::makeFrame(key ? I : P, 0, i, m_t0 + i / 3, 200 + i);
    ASSERT_EQ(file.write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
    if (key) file.addIndex(I, 0, m_t0 + i / 3, static_cast<uint32_t>(bytes.size()));
    file.setLastTime(m_t0 + i / 3);
    offsets.push_back(all.size());
    all.insert(all.end(), bytes.begin(), bytes.end());
    written.push_back(Frame{bytes, m_t0 + i / 3, key});
    if (i == 2) {
      std::vector<uint8_t> head = ZarnTest::makeFrame(P, 0, 1000, m_t0, 0);
      head.resize(kFrameHeadSize);
      reinterpret_cast<VeltoFrameHead*>(head.data())->length = falseLength;
      sealFrameHead(head.data());
      ASSERT_EQ(file.write(head.data(), kFrameHeadSize), static_cast<int64_t>(kFrameHeadSize));
      falseHeadAt = all.size();
      all.insert(all.end(), head.begin(), head.end());
    }
  }
  ASSERT_TRUE(file.close());
  // The false frame covers several real frames, a key frame among them, and
  // has no tail where its length says.
  ASSERT_TRUE(checkFrameHead(&all[falseHeadAt]));
  ASSERT_FALSE(checkFrameTail(&all[falseHeadAt + falseLength - kFrameTailSize]));
  ASSERT_GT(falseHeadAt + falseLength, offsets[6] + written[6].bytes.size());

  const uint32_t end = m_t0 + 7;
  expectPlayback(sid, m_t0, end, true, false, false, written);
  expectPlayback(sid, m_t0, end, true, false, true, reverseGroups(written));
}

TEST_F(StreamReaderTest, AFileStillBeingWrittenMakesTheReaderWaitPastItsPadding) {
  const uint32_t sid = 8;
  ASSERT_EQ(m_client.addStream(sid, 1, true), 0);
  Frames recorded;
  recordFrames(sid, m_t0, 5, recorded);
  ASSERT_EQ(m_client.flushFrame(sid), 0);  // a padding frame up to the next stripe

  const int session = m_client.addSession(sid, m_t0, m_t0 + 3000, false);
  Frames got;
  VeltoFrame frame;
  ASSERT_TRUE(waitFor([&] {
    unsigned long long length = 0;
    int r = m_client.readFrame(session, &frame, length, false, false);
    EXPECT_TRUE(r == 0 || r == -2) << r;
    if (r == 0 && length > 0) got.push_back(Frame{std::vector<uint8_t>(frame.frame, frame.frame + length)});
    return got.size() == recorded.size();
  }));
  expectSameFrames(got, recorded);
  // Nothing more yet: not ready, neither the end nor a fault.
  for (int i = 0; i < 50; ++i) {
    unsigned long long length = 0;
    ASSERT_EQ(m_client.readFrame(session, &frame, length, false, false), -2);
    Velto::Kandu::sleepMs(4);
  }

  // More frames arrive; then the stream closes and the session ends.
  const size_t before = recorded.size();
  recordFrames(sid, m_t0 + 5, 3, recorded);
  closeStream(sid);
  Frames rest = readAll(session, false, false);
  EXPECT_TRUE(m_ended) << m_last;
  expectSameFrames(rest, Frames(recorded.begin() + static_cast<long>(before), recorded.end()));
  m_client.deleteSession(session);
}

TEST_F(StreamReaderTest, BlockingReadGivesUpAfterASecondOnALiveStream) {
  const uint32_t sid = 9;
  ASSERT_EQ(m_client.addStream(sid, 1, true), 0);
  Frames recorded;
  recordFrames(sid, m_t0, 2, recorded);
  const int session = m_client.addSession(sid, m_t0, m_t0 + 3000, true);
  ASSERT_EQ(readAll(session, false, false, recorded.size()).size(), recorded.size());
  LogCapture log;
  VeltoFrame frame;
  unsigned long long length = 0;
  const uint64_t start = Velto::Kandu::monotonicMs();
  EXPECT_EQ(m_client.readFrame(session, &frame, length, false, false), -2);
  EXPECT_GE(Velto::Kandu::monotonicMs() - start, 990u);
  EXPECT_TRUE(log.contains("Block Read Timeout, return not ready."));
  m_client.deleteSession(session);
  closeStream(sid);
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
  auto readsAheadTo = [&](size_t limit) {
    size_t most = 0;
    EXPECT_TRUE(waitFor([&] {
      most = std::max(most, reader->bufferedFramesForTest());
      return reader->isIdleForTest() && reader->bufferedFramesForTest() + 1 >= limit;
    }));
    most = std::max(most, reader->bufferedFramesForTest());
    EXPECT_LE(most, limit);
    EXPECT_GE(reader->bufferedFramesForTest() + 1, limit);
  };
  ASSERT_TRUE(waitFor([&] { return reader->readFrame(&frame, length, false, false) == 0; }));
  readsAheadTo(CStreamReader::kForwardBufferFrames);
  ASSERT_TRUE(waitFor([&] { return reader->readFrame(&frame, length, false, true) == 0; }));
  readsAheadTo(CStreamReader::kOtherBufferFrames);

  std::weak_ptr<CStreamReader> weak = reader;
  reader->deleteSession(reader);
  reader.reset();
  EXPECT_TRUE(waitFor([&] { return weak.expired(); }, 10000));
}

TEST_F(StreamReaderTest, SessionsDeletedWhileTheirWorkersRunAreReleased) {
  record(12);
  std::shared_ptr<CZarnFileSystem> fs(m_client.storeForTest(), [](CZarnFileSystem*) {});
  LogCapture log(Velto::Kandu::LOG_INFO);
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
  EXPECT_EQ(log.count("Deleted. StreamID:12"), 20u);
}

TEST_F(StreamReaderTest, RegistryOperationsOnSessions) {
  CMediaContext::instance().streams().setLastSessionIdForTest(0);  // as in a fresh process
  record(13, 10);
  EXPECT_EQ(m_client.addSession(13, m_t0, m_t0 + 9, true), 1);
  EXPECT_EQ(m_client.addSession(99, m_t0, m_t0 + 9, true), 2);
  EXPECT_EQ(m_client.addSession(13, m_t0, m_t0 + 9, false), 3);

  LogCapture log;
  VeltoFrame frame;
  unsigned long long length = 0;
  EXPECT_EQ(m_client.readFrame(77, &frame, length, false, false), -5);
  EXPECT_TRUE(log.contains("session(77) not find. Pls addSession first!"));
  EXPECT_EQ(m_client.seek(77, m_t0), -5);
  EXPECT_EQ(m_client.deleteSession(77), -1);
  EXPECT_TRUE(log.contains("session(77) not find"));

  // A session over a stream that has no record: a fault, not a hang.
  EXPECT_TRUE(waitFor([&] { return m_client.readFrame(2, &frame, length, false, false) == -3; }));
  EXPECT_EQ(m_client.seek(2, m_t0), -1);

  EXPECT_EQ(m_client.deleteSession(1), 0);
  EXPECT_EQ(m_client.readFrame(1, &frame, length, false, false), -5);
  EXPECT_EQ(m_client.deleteSession(1), -1);
  EXPECT_EQ(m_client.addSession(13, m_t0, m_t0 + 9, true), 4);
  for (int id : {2, 3, 4}) EXPECT_EQ(m_client.deleteSession(id), 0);
}

// ---- The same recordings stored in CephFS ----
// Skipped unless a test cluster is configured (scripts/ceph-cluster-start.sh
// writes ZARN_TEST_CEPH_ADDRESS to DIR/zarn-test.env).
class CephStreamReaderTest : public StreamReaderTest {
 protected:
  void SetUp() override {
#ifndef ZARN_WITH_CEPH
    GTEST_SKIP() << "this build has no Ceph backend";
#endif
    const char* base = std::getenv("ZARN_TEST_CEPH_ADDRESS");
    if (base == nullptr || *base == '\0') {
      GTEST_SKIP() << "no Ceph cluster configured: start one with scripts/ceph-cluster-start.sh DIR and source "
                      "DIR/zarn-test.env";
    }
    m_root = std::string(base) + "/reader-" + std::to_string(::getpid()) + "-" +
             std::to_string(Velto::Kandu::monotonicUs());
    StreamReaderTest::SetUp();
  }
};

TEST_F(CephStreamReaderTest, RecordedIntoCephFSPlaysBackByteForByteInEveryOrder) {
  const uint32_t sid = 21;
  const Frames recorded = record(sid);
  ASSERT_GE(files(sid).size(), 3u);
  const uint32_t end = m_t0 + 199;
  expectPlayback(sid, m_t0, end, false, false, false, recorded);
  expectPlayback(sid, m_t0, end, true, false, true, reverseGroups(recorded));
  {
    const int session = m_client.addSession(sid, m_t0, end, true);
    ASSERT_EQ(m_client.seek(session, end), 0);
    Frames keys = keysOf(recorded);
    std::reverse(keys.begin(), keys.end());
    expectSameFrames(readAll(session, true, true), keys);
    m_client.deleteSession(session);
  }
  {
    // A seek into the middle plays from the group of pictures holding that time.
    const int session = m_client.addSession(sid, m_t0, end, false);
    ASSERT_EQ(m_client.seek(session, m_t0 + 101), 0);
    expectSameFrames(readAll(session, false, false), groupsOverlapping(recorded, m_t0 + 101, end));
    m_client.deleteSession(session);
  }
}

TEST_F(CephStreamReaderTest, AReaderFollowsAFileStillBeingWrittenInCephFS) {
  const uint32_t sid = 22;
  ASSERT_EQ(m_client.addStream(sid, 1, true), 0);
  Frames recorded;
  recordFrames(sid, m_t0, 5, recorded);
  ASSERT_EQ(m_client.flushFrame(sid), 0);  // a padding frame up to the next stripe
  const int session = m_client.addSession(sid, m_t0, m_t0 + 3000, false);
  ASSERT_GT(session, 0);
  Frames got = readAll(session, false, false, recorded.size());
  expectSameFrames(got, recorded);

  const size_t before = recorded.size();
  recordFrames(sid, m_t0 + 5, 60, recorded);  // crosses a file cut
  closeStream(sid);
  Frames rest = readAll(session, false, false);
  EXPECT_TRUE(m_ended) << m_last;
  expectSameFrames(rest, Frames(recorded.begin() + static_cast<long>(before), recorded.end()));
  m_client.deleteSession(session);
}

}  // namespace
