// Index repair of record files whose writer died: what CIndexFixer leaves in a
// local store (names, index file, what a reader then finds), what a whole
// stream's repair does twice and dry, and how the client's repair manager
// takes names.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>

#include "DamagedStore.h"
#include "IndexFixer.h"
#include "IndexFixerMgr.h"
#include "KanduTime.h"
#include "MediaClientInternal.h"
#include "MediaValues.h"
#include "RecordFile.h"
#include "StreamRepair.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
using ZarnTest::putFile;
using ZarnTest::recordPath;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kSid = 7;
const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 6, 2, 8, 0, 0));
constexpr uint8_t I = FRAME_TYPE_I, P = FRAME_TYPE_P, IMG = FRAME_TYPE_IMAGE;

RecordFileName openName(uint32_t begin = T) { return RecordFileName{.streamId = kSid, .beginTime = begin, .type = 1}; }
RecordFileName closedName(uint32_t end, uint32_t state, uint32_t begin = T) {
  RecordFileName n = openName(begin);
  n.endTime = end;
  n.realEndTime = end;
  n.indexState = state;
  return n;
}
RecordFileName indexOf(RecordFileName n) {
  n.isIndex = 1;
  return n;
}

struct Frame {
  uint8_t type;
  uint8_t subType;
  uint16_t msStamp;
  Bytes ext;  // extension area
};

// A frame of `payload` bytes after its extension area, head resealed.
Bytes frameBytes(const Frame& f, uint32_t sequence, uint32_t payload = 300) {
  Bytes b = ZarnTest::makeFrame(f.type, f.subType, sequence, T, payload + static_cast<uint32_t>(f.ext.size()),
                                f.msStamp);
  b[22] = static_cast<uint8_t>(f.ext.size());
  std::copy(f.ext.begin(), f.ext.end(), b.begin() + kFrameHeadSize);
  sealFrameHead(b.data());
  return b;
}

// File bytes with where each frame starts and ends.
struct Built {
  Bytes bytes;
  std::vector<uint64_t> start, end;
  void add(const Frame& f) {
    Bytes b = frameBytes(f, static_cast<uint32_t>(start.size()));
    start.push_back(bytes.size());
    bytes.insert(bytes.end(), b.begin(), b.end());
    end.push_back(bytes.size());
  }
  void raw(const Bytes& b) { bytes.insert(bytes.end(), b.begin(), b.end()); }
};

// `n` video frames one second apart by their millisecond stamps, an I frame
// every `gop` (frame 0 first), P frames between.
Built gop(uint32_t n, uint32_t gop = 5) {
  Built b;
  for (uint32_t i = 0; i < n; ++i) b.add({i % gop == 0 ? I : P, 0, static_cast<uint16_t>(i * 1000), {}});
  return b;
}

// Bytes that hold no head magic (no 'Q' at all), the same on every run.
Bytes noise(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (uint8_t& c : b) {
    c = static_cast<uint8_t>(rng());
    if (c == 'Q') c = 'x';
  }
  return b;
}

class IndexFixerTest : public ::testing::Test {
 protected:
  CZarnFileSystem& fs() { return *m_store.fs; }
  bool exists(const RecordFileName& n) {
    ZarnFileStat st;
    return fs().getFileStat(recordPath(n), st);
  }
  std::vector<std::string> names() {
    std::vector<std::string> out;
    CNameList list;
    if (fs().getBucket("media_7").list(list, "", "", 1000)) out = list;
    return out;
  }

  ZarnTest::FaultyLocalStore m_store;
};

// One file of built bytes, put under an open or a state-0 name and repaired once.
struct Case {
  const char* what;
  std::function<Built()> make;
  uint32_t nameEnd;  // 0: open name; else a state-0 name ending at T + nameEnd
  bool svc;
  IndexFixReport::Outcome outcome;
  uint32_t finalState;              // of the name the file ends under
  std::vector<uint32_t> indexed;    // frames with an index entry; each one's time is T + its number
  size_t kept;                      // whole frames the index vouches for
  uint32_t endTime;                 // T + this in the final name
  std::vector<uint32_t> entryTimes = {};  // when times are not T + frame number
};

void checkRepair(const Case& c) {
  SCOPED_TRACE(c.what);
  ZarnTest::FaultyLocalStore store;
  CZarnFileSystem& fs = *store.fs;
  const Built b = c.make();
  const RecordFileName work = c.nameEnd == 0 ? openName() : closedName(T + c.nameEnd, RECORD_INDEX_MISSING);
  putFile(fs, recordPath(work), b.bytes);
  IndexFixOptions options;
  options.svcEnabled = c.svc;
  const IndexFixReport r = CIndexFixer(fs, work, options).doFixIndex();
  EXPECT_EQ(indexFixOutcomeName(r.outcome), std::string(indexFixOutcomeName(c.outcome)));

  const RecordFileName final =
      c.outcome == IndexFixReport::kNoFrames ? work : closedName(T + c.endTime, c.finalState);
  EXPECT_EQ(r.name, recordPath(final));
  ZarnFileStat st;
  EXPECT_TRUE(fs.getFileStat(recordPath(final), st));
  EXPECT_EQ(st.size, b.bytes.size());  // the data is never cut or rewritten
  if (final.indexState != work.indexState || final.endTime != work.endTime) {
    EXPECT_FALSE(fs.getFileStat(recordPath(work), st)) << "the submitted name is still there";
  }
  EXPECT_FALSE(fs.getFileStat(recordPath(closedName(work.endTime != 0 ? work.endTime : T, RECORD_INDEX_REBUILDING)), st));
  const bool rebuilt = c.outcome == IndexFixReport::kRebuilt;
  EXPECT_EQ(fs.getFileStat(recordPath(indexOf(final)), st), rebuilt);
  if (!rebuilt) return;
  EXPECT_EQ(r.keyFrames, c.indexed.size());
  EXPECT_EQ(r.endTime, T + c.endTime);
  const uint64_t dataEnd = b.end[c.kept - 1];
  EXPECT_EQ(r.dataLength, dataEnd);

  // A reader takes the file with the rebuilt index.
  CRecordFile reader(fs, final);
  ASSERT_TRUE(reader.openForRead());
  if (c.indexed.empty()) {
    // No entry is no index: the file plays forward as data.
    EXPECT_EQ(reader.state(), CRecordFile::STATE_MISS_INDEX);
    return;
  }
  ASSERT_EQ(reader.state(), CRecordFile::STATE_INDEXED);
  EXPECT_EQ(reader.length(), dataEnd);
  std::vector<uint64_t> offsets, wantOffsets;
  std::vector<uint32_t> times, wantTimes;
  for (const IndexEntry& e : reader.recordIndex()->entries()) {
    offsets.push_back(e.offset());
    times.push_back(e.time);
  }
  for (size_t i = 0; i < c.indexed.size(); ++i) {
    wantOffsets.push_back(b.start[c.indexed[i]]);
    wantTimes.push_back(T + (c.entryTimes.empty() ? c.indexed[i] : c.entryTimes[i]));
  }
  EXPECT_EQ(offsets, wantOffsets);
  EXPECT_EQ(times, wantTimes);
}

TEST_F(IndexFixerTest, RepairsOneFileByWhatItsBytesHold) {
  // SVC descriptor: tag, levels, layer flag, unused. Layer flag 0 marks a
  // base-layer P frame that a key-frame walk needs.
  const auto svcFrames = [] {
    Built b;
    for (uint32_t i = 0; i < 8; ++i)
      b.add({i == 0 ? I : P, 0, static_cast<uint16_t>(i * 1000), {kExtTagSvc, 3, static_cast<uint8_t>(i == 3 ? 0 : 1), 0}});
    return b;
  };
  const std::vector<Case> cases = {
      {"31 bytes, short of one frame", [] { Built b; b.raw(frameBytes({I, 0, 0, {}}, 0)); b.bytes.resize(31); return b; },
       0, true, IndexFixReport::kTooSmall, RECORD_INDEX_TOO_SMALL, {}, 0, 0},
      // The last frame is whole: it stays in the data but, as the last frame of
      // a live file would, gets no entry although it is an I frame.
      {"crashed under its open name", [] { return gop(21); }, 0, true, IndexFixReport::kRebuilt,
       RECORD_INDEX_SEPARATE, {0, 5, 10, 15}, 21, 20},
      {"crashed under a state-0 name", [] { return gop(21); }, 40, true, IndexFixReport::kRebuilt,
       RECORD_INDEX_SEPARATE, {0, 5, 10, 15}, 21, 20},
      {"the last frame cut short", [] { Built b = gop(21); b.bytes.resize(b.bytes.size() - 10); return b; }, 0, true,
       IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0, 5, 10, 15}, 20, 19},
      {"a head announcing 0xFFFFFFF0 bytes, checksum right",
       [] {
         Built b = gop(21);
         const uint32_t huge = 0xFFFFFFF0;
         std::memcpy(&b.bytes[b.start[12] + 12], &huge, 4);
         sealFrameHead(&b.bytes[b.start[12]]);
         return b;
       },
       0, true, IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0, 5, 10}, 12, 11},
      {"noise after twelve frames", [] { Built b = gop(12); b.raw(noise(3000, 1)); return b; }, 0, true,
       IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0, 5, 10}, 12, 11},
      {"noise only", [] { Built b; b.raw(noise(4000, 2)); return b; }, 0, true, IndexFixReport::kNoFrames, 0, {}, 0, 0},
      // End T+5: frames are believed up to T+65; the one at T+66 stops the scan.
      {"frames running past the end by more than 60 s", [] { return gop(80); }, 5, true, IndexFixReport::kRebuilt,
       RECORD_INDEX_SEPARATE, {0, 5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60, 65}, 66, 65},
      // Frame 10's stamp leaps 60 s, past end + 60: it counts one second, and
      // the frames after it go on from there.
      {"a stamp leap past the end counts one second",
       [] {
         Built b;
         for (uint32_t i = 0; i < 15; ++i)
           b.add({i % 5 == 0 ? I : P, 0, static_cast<uint16_t>(i * 1000 + (i >= 10 ? 60000 : 0)), {}});
         return b;
       },
       5, true, IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0, 5, 10}, 15, 14},
      {"an image stream with noise between frames",
       [] {
         Built b;
         for (uint32_t i = 0; i < 12; ++i) {
           b.add({IMG, 0, static_cast<uint16_t>(i * 1000), {}});
           if (i == 3 || i == 7) b.raw(noise(500 + i, i));
         }
         return b;
       },
       0, true, IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 12, 11},
      {"SVC base-layer P frames, SVC on", svcFrames, 0, true, IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0, 3}, 8, 7},
      {"SVC base-layer P frames, SVC off", svcFrames, 0, false, IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0}, 8,
       7},
      // A rebuild whose final end time equals the end time of the name it works
      // under (the begin time for an open name, the name's own end for a state-0
      // name) names the index file the same before and after; a rename of it onto
      // its own name would be refused and leave the file in state 2 for good.
      // A stamp that does not move keeps the time: both key frames get T. The
      // name still ends a second later: a name ending at its begin would be a
      // clip that no query or session from that second reaches.
      {"frames within the open name's first second",
       [] { Built b; for (uint32_t i = 0; i < 7; ++i) b.add({i % 5 == 0 ? I : P, 0, 500, {}}); return b; },
       0, true, IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {0, 5}, 7, 1, {0, 0}},
      // One whole frame is a recording: the last frame of a file keeps no
      // index entry, but its bytes stay in the data and the name is final.
      {"a single whole frame", [] { return gop(1); }, 0, true, IndexFixReport::kRebuilt, RECORD_INDEX_SEPARATE, {}, 1, 1},
      {"a state-0 name ending at its last frame", [] { return gop(21); }, 20, true, IndexFixReport::kRebuilt,
       RECORD_INDEX_SEPARATE, {0, 5, 10, 15}, 21, 20},
  };
  for (const Case& c : cases) checkRepair(c);
}

// A fixer killed between its two final renames left the record file in state
// 2 and its index file already under the final name: the next repair writes
// the index anew and replaces that one.
TEST_F(IndexFixerTest, ARebuildInterruptedBeforeItsLastRenameIsFinished) {
  ZarnTest::FaultyLocalStore store;
  CZarnFileSystem& fs = *store.fs;
  const RecordFileName work = closedName(T, RECORD_INDEX_REBUILDING);
  const RecordFileName final = closedName(T + 11, RECORD_INDEX_SEPARATE);
  putFile(fs, recordPath(work), gop(12).bytes);
  putFile(fs, recordPath(indexOf(final)), Bytes(80, 0x5A));
  const IndexFixReport r = CIndexFixer(fs, work).doFixIndex();
  EXPECT_EQ(r.outcome, IndexFixReport::kRebuilt);
  EXPECT_EQ(r.name, recordPath(final));
  CRecordFile reader(fs, final);
  ASSERT_TRUE(reader.openForRead());
  ASSERT_EQ(reader.state(), CRecordFile::STATE_INDEXED);
  EXPECT_EQ(reader.recordIndex()->entries().size(), 3u);  // frames 0, 5, 10
}

// Files a CRecordFile wrote: closed ones get their closed name back, crashed
// ones an index that playback through a client uses.
TEST_F(IndexFixerTest, FilesTheWriterLeftBehind) {
  // Ten frames at 5 fps (stamps 200 ms apart), an I frame every five.
  auto write = [&](CRecordFile& file) {
    for (uint32_t i = 0; i < 10; ++i) {
      const uint8_t type = i % 5 == 0 ? I : P;
      const Bytes f = ZarnTest::makeFrame(type, 0, i, T + i / 5, 200, static_cast<uint16_t>(i * 200));
      ASSERT_EQ(file.write(f.data(), static_cast<uint32_t>(f.size())), static_cast<int64_t>(f.size()));
      file.setLastTime(T + i / 5);
      if (type == I) file.addIndex(type, 0, T + i / 5, static_cast<uint32_t>(f.size()));
    }
  };
  // Closed by the writer, then found under its open name or a state-0 name.
  for (const RecordFileName& found : {openName(), closedName(T + 30, RECORD_INDEX_MISSING)}) {
    SCOPED_TRACE(found.endTime);
    ZarnTest::FaultyLocalStore store;
    CZarnFileSystem& fs = *store.fs;
    ASSERT_TRUE(fs.createBucket("media_7"));
    {
      CRecordFile file(fs, openName());
      ASSERT_TRUE(file.openForWrite(4, 1));
      write(file);
      ASSERT_TRUE(file.close());
    }
    const RecordFileName closed = closedName(T + 1, RECORD_INDEX_INTERNAL);
    ASSERT_TRUE(fs.renameFile(recordPath(closed), recordPath(found)));
    const IndexFixReport r = CIndexFixer(fs, found).doFixIndex();
    EXPECT_EQ(r.outcome, IndexFixReport::kComplete);
    EXPECT_EQ(r.name, recordPath(closed));
    EXPECT_EQ(r.endTime, T + 1);
    ZarnFileStat st;
    EXPECT_TRUE(fs.getFileStat(recordPath(closed), st));
    EXPECT_FALSE(fs.getFileStat(recordPath(found), st));
    EXPECT_FALSE(fs.getFileStat(recordPath(indexOf(closed)), st));
  }
  // Crashed: no close. The repaired file plays back through a client.
  ZarnTest::TempDir dir;
  CMediaClientInternal client;
  ASSERT_EQ(client.initialize(Config{dir.sub("store").c_str(), 0, "root", ""}, nullptr), 0);
  CZarnFileSystem& fs = *client.storeForTest();
  ASSERT_TRUE(fs.createBucket("media_7"));
  {
    CRecordFile file(fs, openName());
    ASSERT_TRUE(file.openForWrite(4, 1));
    write(file);
  }
  const IndexFixReport r = CIndexFixer(fs, openName()).doFixIndex();
  ASSERT_EQ(r.outcome, IndexFixReport::kRebuilt);
  EXPECT_EQ(r.name, recordPath(closedName(T + 1, RECORD_INDEX_SEPARATE)));
  EXPECT_EQ(r.keyFrames, 2u);
  EXPECT_EQ(ZarnTest::playSequences(client, kSid, T, T + 1, true, false), (std::vector<uint32_t>{0, 5}));
}

// A file someone has open for writing is not touched, whichever name it has.
TEST_F(IndexFixerTest, AFileOpenForWritingIsLeftAlone) {
  putFile(fs(), recordPath(openName()), gop(12).bytes);
  const std::vector<std::string> before = names();
  std::unique_ptr<CFile> writer = fs().openFile(recordPath(openName()), StoreOpenMode::Write);
  ASSERT_TRUE(writer);
  for (bool dry : {false, true}) {
    IndexFixOptions options;
    options.dryRun = dry;
    const IndexFixReport r = CIndexFixer(fs(), openName(), options).doFixIndex();
    EXPECT_EQ(r.outcome, IndexFixReport::kInUse) << dry;
    EXPECT_EQ(r.name, recordPath(openName()));
    EXPECT_EQ(names(), before);
  }
  // Its writer gone, the same file is repaired.
  ASSERT_TRUE(writer->close());
  EXPECT_EQ(CIndexFixer(fs(), openName()).doFixIndex().outcome, IndexFixReport::kRebuilt);
}

// A whole stream: a dry run reports and leaves every name; a run repairs each
// file; a second run finds only the file that holds no frame.
TEST_F(IndexFixerTest, RepairingAStreamTwiceFindsNothingTheSecondTime) {
  putFile(fs(), recordPath(openName(T)), gop(12).bytes);
  putFile(fs(), recordPath(closedName(T + 200, RECORD_INDEX_MISSING, T + 100)), gop(7).bytes);
  putFile(fs(), recordPath(closedName(T + 300, RECORD_INDEX_REBUILDING, T + 250)), gop(6).bytes);
  putFile(fs(), recordPath(openName(T + 400)), Bytes(20, 0));
  putFile(fs(), recordPath(openName(T + 500)), noise(1000, 3));
  putFile(fs(), recordPath(closedName(T + 700, RECORD_INDEX_INTERNAL, T + 600)), noise(1000, 4));  // not a candidate
  const std::vector<std::string> before = names();

  IndexFixOptions dry;
  dry.dryRun = true;
  std::vector<StreamRepairEntry> dryRun;
  ASSERT_TRUE(repairStream(fs(), kSid, dry, dryRun));
  EXPECT_EQ(names(), before);
  std::vector<std::string> outcomes;
  for (const StreamRepairEntry& e : dryRun) outcomes.push_back(indexFixOutcomeName(e.report.outcome));
  EXPECT_EQ(outcomes, (std::vector<std::string>{"would rebuild", "would rebuild", "would rebuild", "too small",
                                                "no frames"}));
  ASSERT_EQ(dryRun.size(), 5u);
  EXPECT_EQ(dryRun[0].report.keyFrames, 3u);
  EXPECT_EQ(dryRun[0].report.endTime, T + 11);

  std::vector<StreamRepairEntry> first;
  ASSERT_TRUE(repairStream(fs(), kSid, {}, first));
  outcomes.clear();
  for (const StreamRepairEntry& e : first) outcomes.push_back(indexFixOutcomeName(e.report.outcome));
  EXPECT_EQ(outcomes, (std::vector<std::string>{"rebuilt", "rebuilt", "rebuilt", "too small", "no frames"}));
  ASSERT_EQ(first.size(), 5u);
  EXPECT_EQ(first[0].report.name, recordPath(closedName(T + 11, RECORD_INDEX_SEPARATE)));
  EXPECT_EQ(first[1].report.name, recordPath(closedName(T + 106, RECORD_INDEX_SEPARATE, T + 100)));
  EXPECT_EQ(first[2].report.name, recordPath(closedName(T + 255, RECORD_INDEX_SEPARATE, T + 250)));
  EXPECT_EQ(first[3].report.name, recordPath(closedName(T + 400, RECORD_INDEX_TOO_SMALL, T + 400)));

  const std::vector<std::string> after = names();
  std::vector<StreamRepairEntry> second;
  ASSERT_TRUE(repairStream(fs(), kSid, {}, second));
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].name, recordPath(openName(T + 500)));
  EXPECT_EQ(second[0].report.outcome, IndexFixReport::kNoFrames);
  EXPECT_EQ(names(), after);
}

// The manager repairs a name once however often it is submitted, and a
// client's addStream finds the file its stream's dead writer left open.
TEST(IndexFixerMgr, RepairsEachNameOnceAndWhatAWriterLeftOnAddStream) {
  ZarnTest::TempDir dir;
  CMediaClientInternal client;
  ASSERT_EQ(client.initialize(Config{dir.sub("store").c_str(), 0, "root", ""}, nullptr), 0);
  CZarnFileSystem& fs = *client.storeForTest();
  CIndexFixerMgr& mgr = client.indexFixerForTest();
  putFile(fs, recordPath(openName(T)), gop(12).bytes);
  putFile(fs, recordPath(openName(T + 100)), gop(7).bytes);
  const uint64_t before = mgr.repairedCount();
  for (int i = 0; i < 50; ++i) {
    mgr.submitFixWork(fs, recordPath(openName(T)));
    mgr.submitFixWork(fs, recordPath(openName(T + 100)));
    EXPECT_LE(mgr.pendingCount(), 2u);
  }
  ZarnFileStat st;
  EXPECT_TRUE(ZarnTest::waitFor([&] {
    return mgr.pendingCount() == 0 && mgr.repairedCount() - before == 2 &&
           fs.getFileStat(recordPath(closedName(T + 11, RECORD_INDEX_SEPARATE)), st) &&
           fs.getFileStat(recordPath(closedName(T + 106, RECORD_INDEX_SEPARATE, T + 100)), st);
  }));

  // A crashed file of today, found when a writer starts on its stream.
  const uint32_t now = CMediaValues::instance().localNow(Velto::Kandu::systemClock());
  const RecordFileName crashed = openName(now - 600);
  putFile(fs, recordPath(crashed), gop(12).bytes);
  client.setRecyclePolicy(kSid, 24, 0);
  ASSERT_EQ(client.addStream(kSid, 1, true), 0);
  EXPECT_TRUE(ZarnTest::waitFor(
      [&] { return fs.getFileStat(recordPath(closedName(now - 589, RECORD_INDEX_SEPARATE, now - 600)), st); }, 10000));
  EXPECT_FALSE(fs.getFileStat(recordPath(crashed), st));
  client.deleteStream(kSid);
}

}  // namespace
