// Record queries over a real local store: which files a range finds, how files
// become clips, how files without an end are completed, and the status bitmap.
// Files are empty (or hold a few bytes where sizes matter): queries read names
// and listing sizes only.
#include <gtest/gtest.h>

#include <memory>

#include "KanduTime.h"
#include "RecordFileIndex.h"
#include "RecordFileName.h"
#include "RecordQuery.h"
#include "TestSupport.h"
#include "WritingFiles.h"

using namespace Velto::Zarn;
using ZarnTest::recordPath;

namespace {

// 10:00:00 UTC, a multiple of an hour; months before the machine's clock, so
// real modification times never bound a computed end.
const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0));
constexpr uint32_t kDay = 86400;
constexpr uint32_t kSid = 7;

RecordFileName closedFile(uint32_t begin, uint32_t end, uint16_t type = 1, uint16_t locks = 0, uint32_t state = 1,
                          uint16_t kind = BUCKET_KIND_MEDIA) {
  return RecordFileName{.streamId = kSid, .beginTime = begin, .endTime = end, .type = type, .lockCount = locks,
                        .indexState = state, .realEndTime = end, .bucketKind = kind};
}

RecordFileName openFile(uint32_t begin) { return closedFile(begin, 0, 1, 0, 0); }

// [begin, end] of clips or files, from T.
using Spans = std::vector<std::pair<int64_t, int64_t>>;
template <typename Clip>
Spans spans(const std::vector<Clip>& clips) {
  Spans out;
  for (const Clip& c : clips) out.emplace_back(int64_t{c.beginTime} - T, int64_t{c.endTime} - T);
  return out;
}

// Remembers what the queries hand to index repair.
struct RecordingIndexFixSink : IIndexFixSink {
  std::vector<RecordFileName> submitted;
  void submitIndexFixWork(CZarnFileSystem&, const RecordFileName& record) override { submitted.push_back(record); }
};

TEST(ClipRules, MergeNeedsAdjacencySameLockAndType) {
  RecordClip clip = toRecordClip(closedFile(T, T + 600));
  const std::pair<RecordFileName, bool> next[] = {
      {closedFile(T + 600, T + 700), true},         // gap 0
      {closedFile(T + 701, T + 800), true},         // gap 1
      {closedFile(T + 802, T + 900), false},        // gap 2
      {closedFile(T + 799, T + 900), false},        // overlap
      {closedFile(T + 800, T + 900, 1, 1), false},  // locked
      {closedFile(T + 800, T + 900, 2), false},     // type
      {closedFile(T + 800, T + 900, 1, 0, 0, BUCKET_KIND_FORGOTTEN), true},
  };
  for (const auto& [file, merges] : next) EXPECT_EQ(mergeIntoClip(file, clip), merges) << file.beginTime - T;
  EXPECT_EQ(spans(std::vector{clip}), (Spans{{0, 900}}));
  EXPECT_EQ(clip.missing, 0);  // flags of the first file stay
  EXPECT_EQ(clip.forgotten, 0);
}

TEST(ClipRules, SplitKeepsTailUntilFlushAndClampsOneSide) {
  std::vector<RecordClip> out;
  RecordClip clip = toRecordClip(closedFile(T, T + 5000));
  clip.size = 5000;
  splitClip(clip, T, T + kDay, out, 3600, true, false);
  EXPECT_EQ(spans(out), (Spans{{0, 3600}}));
  EXPECT_EQ(out[0].size, 3600u);
  EXPECT_EQ(spans(std::vector{clip}), (Spans{{3600, 5000}}));  // the rest waits for a merge
  EXPECT_EQ(clip.size, 1400u);

  // Range [T+3700, T+3800) lies inside one piece: cut at its begin only; the
  // first piece ends before the range: dropped.
  out.clear();
  clip = toRecordClip(closedFile(T, T + 7200));
  clip.size = 7200;
  splitClip(clip, T + 3700, T + 3800, out, 3600, true, true);
  EXPECT_EQ(spans(out), (Spans{{3700, 7200}}));
  EXPECT_EQ(out[0].size, 3500u);

  // A piece starting at the range's end is dropped; one crossing it is cut.
  out.clear();
  clip = toRecordClip(closedFile(T, T + 7200));
  splitClip(clip, T - 10, T + 3500, out, 3600, false, true);
  EXPECT_EQ(spans(out), (Spans{{0, 3500}}));

  // All ones means thirty days.
  out.clear();
  clip = toRecordClip(closedFile(T, T + 40 * kDay));
  splitClip(clip, T, T + 50 * kDay, out, 4294967295u, false, true);
  EXPECT_EQ(spans(out), (Spans{{0, 30 * kDay}, {30 * kDay, 40 * kDay}}));
}

class RecordQueryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_fs.initialize(Config{m_dir.path().c_str(), 0, "root", ""}));
    ASSERT_TRUE(m_fs.createBucket("media_7"));
    setNow(T + 10 * kDay);
  }

  void setNow(uint32_t seconds) { m_clock.setWallClockMs(static_cast<int64_t>(seconds) * 1000); }

  // Creates the file with `bytes` bytes; returns it still open for writing
  // when `keepOpen`.
  std::unique_ptr<CFile> add(const RecordFileName& n, uint32_t bytes = 0, bool keepOpen = false) {
    std::unique_ptr<CFile> f = m_fs.createFile(recordPath(n), 4, 1);
    EXPECT_TRUE(f);
    const std::vector<uint8_t> data(bytes, 0x5A);
    if (f && bytes) {
      EXPECT_EQ(f->write(data.data(), bytes), static_cast<int64_t>(bytes));
    }
    if (!f || keepOpen) return f;
    EXPECT_TRUE(f->close());
    return nullptr;
  }

  bool exists(const RecordFileName& n) {
    ZarnFileStat st;
    return m_fs.getFileStat(recordPath(n), st);
  }

  std::vector<RecordClip> clips(uint32_t b, uint32_t e, uint32_t d, bool aligned = false, uint32_t sid = kSid) {
    std::vector<RecordClip> out;
    EXPECT_EQ((aligned ? queryAlignedClipList : queryRecordClipList)(m_env, m_fs, sid, b, e, out, d), 0);
    return out;
  }

  std::vector<RecordClipEx> files(uint32_t b, uint32_t e, uint32_t sid = kSid) {
    std::vector<RecordClipEx> out;
    EXPECT_EQ(queryRecordFileList(m_env, m_fs, sid, b, e, out), 0);
    return out;
  }

  std::vector<bool> status(uint32_t b, uint32_t e, uint32_t sid = kSid) {
    std::vector<bool> out;
    EXPECT_EQ(queryRecordStatus(m_env, m_fs, sid, b, e, out, 600), 0);
    return out;
  }

  ZarnTest::TempDir m_dir;
  CZarnFileSystem m_fs;
  Velto::Kandu::CManualClock m_clock{0};
  CWritingFileTable m_writing;
  RecordingIndexFixSink m_sink;
  QueryEnv m_env{m_clock, m_writing, &m_sink};
};

TEST_F(RecordQueryTest, ClipsMergeAcrossSmallGapsAndSplitOnChanges) {
  add(closedFile(T, T + 600));
  add(closedFile(T + 601, T + 1200));            // gap 1: merges
  add(closedFile(T + 1202, T + 1800));           // gap 2: new clip
  add(closedFile(T + 1700, T + 2400));           // overlap: new clip
  add(closedFile(T + 2400, T + 3000, 1, 1));     // locked: new clip
  add(closedFile(T + 3000, T + 3600, 2, 1));     // type 2: new clip
  add(closedFile(T + 3600, T + 4200, 2, 1, 0));  // index missing: still merges
  std::vector<RecordClip> c = clips(T, T + kDay, kDay);
  EXPECT_EQ(spans(c), (Spans{{0, 1200}, {1202, 1800}, {1700, 2400}, {2400, 3000}, {3000, 4200}}));
  ASSERT_EQ(c.size(), 5u);
  EXPECT_EQ(c[3].locked, 1);
  EXPECT_EQ(c[4].type, 2);
  EXPECT_EQ(c[4].missing, 0);
  // The file without an index is handed to index repair by the query that met it.
  ASSERT_EQ(m_sink.submitted.size(), 1u);
  EXPECT_EQ(m_sink.submitted[0].beginTime, T + 3600);

  std::vector<RecordClip> none;
  EXPECT_EQ(queryRecordClipList(m_env, m_fs, kSid, T, T + kDay, none, 0), -1);
  EXPECT_EQ(queryAlignedClipList(m_env, m_fs, kSid, T, T + kDay, none, 0), -1);
  EXPECT_TRUE(none.empty());
}

TEST_F(RecordQueryTest, PiecesShareSizeInProportionAndMeetTheRange) {
  add(closedFile(T + 1200, T + 6000), 4800);  // 10:20 - 11:40
  struct Case {
    uint32_t b, e, duration;
    bool aligned;
    Spans pieces;
    std::vector<uint32_t> sizes;
  };
  const Case cases[] = {
      {0, kDay, 3600, true, {{1200, 3600}, {3600, 6000}}, {2400, 2400}},
      {0, kDay, 1800, false, {{1200, 3000}, {3000, 4800}, {4800, 6000}}, {1800, 1800, 1200}},
      {1800, 4200, 3600, true, {{1800, 3600}, {3600, 4200}}, {1800, 600}},  // 10:30 - 11:10
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.duration);
    std::vector<RecordClip> c = clips(T + k.b, T + k.e, k.duration, k.aligned);
    EXPECT_EQ(spans(c), k.pieces);
    std::vector<uint32_t> sizes;
    for (const RecordClip& piece : c) sizes.push_back(static_cast<uint32_t>(piece.size));
    EXPECT_EQ(sizes, k.sizes);
  }
}

TEST_F(RecordQueryTest, FilesAreFilteredByRangeKindAndState) {
  ASSERT_TRUE(m_fs.createBucket("forgotten_7"));
  const RecordFileName forgotten = closedFile(T + 900, T + 950, 1, 0, 1, BUCKET_KIND_FORGOTTEN);
  RecordFileName index = closedFile(T + 400, T + 500);
  index.isIndex = 1;
  for (const RecordFileName& f : {closedFile(T - 7100, T + 100),                          // began < 2 h before: found
                                  closedFile(T - 7300, T + 50),                           // began > 2 h before: not listed
                                  closedFile(T + 200, T + 300, 1, 0, RECORD_INDEX_TOO_SMALL),  // withdrawn
                                  index, closedFile(T + 600, T + 700),
                                  closedFile(T + 1000, T + 1100),                         // begins at the range's end
                                  closedFile(T - 3600, T - 10, 1, 0, 1, BUCKET_KIND_FORGOTTEN),  // ends before the range
                                  forgotten})
    add(f);
  std::vector<RecordClipEx> f = files(T, T + 1000);
  EXPECT_EQ(spans(f), (Spans{{900, 950}, {-7100, 100}, {600, 700}}));  // forgotten bucket first, though later
  ASSERT_EQ(f.size(), 3u);
  EXPECT_EQ(f[0].forgotten, 1);
  EXPECT_EQ(std::string(f[0].fileName), recordPath(forgotten));
  EXPECT_EQ(f[2].forgotten, 0);
}

TEST_F(RecordQueryTest, EmptyOrMissingBucketIsAnEmptySuccess) {
  for (uint32_t sid : {kSid, 8u}) {  // media_7 exists empty; media_8 does not exist
    SCOPED_TRACE(sid);
    EXPECT_TRUE(clips(T, T + kDay, 600, false, sid).empty());
    EXPECT_TRUE(clips(T, T + kDay, 600, true, sid).empty());
    EXPECT_TRUE(files(T, T + kDay, sid).empty());
    EXPECT_EQ(status(T, T + 3600, sid), std::vector<bool>(6, false));
  }
  std::vector<RecordFileName> all;
  EXPECT_FALSE(listRecordFiles(m_fs, 8, 100, all));
}

TEST_F(RecordQueryTest, StatusBitmapMarksIntervalByBeginPlusOne) {
  add(closedFile(T, T + 10));
  add(closedFile(T + 1800, T + 1810));
  EXPECT_EQ(status(T, T + 3600), (std::vector<bool>{true, false, false, true, false, false}));

  // A clip beginning one second before a boundary marks the next interval;
  // one beginning in the range's last second would mark a bit past the end.
  ASSERT_TRUE(m_fs.createBucket("media_9"));
  for (uint32_t begin : {T + 599, T + 3599}) {
    RecordFileName late = closedFile(begin, begin + 6);
    late.streamId = 9;
    add(late);
  }
  EXPECT_EQ(status(T, T + 3600, 9), (std::vector<bool>{false, true, false, false, false, false}));
  std::vector<bool> bits;
  EXPECT_EQ(queryRecordStatus(m_env, m_fs, 9, T, T + 3600, bits, 0), -1);
  EXPECT_EQ(queryRecordStatus(m_env, m_fs, 9, T + 3600, T, bits, 600), -1);  // a range that ends before it begins
}

TEST_F(RecordQueryTest, LiveFileEndsAtTheWriterOrTheEstimate) {
  add(closedFile(T, T + 3600));
  const RecordFileName live = openFile(T + 3600);
  std::unique_ptr<CFile> handle = add(live, 100, true);
  ASSERT_TRUE(handle);

  auto index = std::make_shared<CRecordFileIndex>();
  index->updateEndTime(T + 4100);
  m_writing.set(kSid, {recordPath(live), T + 3600, index});
  setNow(T + 4120);
  std::vector<RecordClipEx> f = files(T, T + kDay);
  EXPECT_EQ(spans(f), (Spans{{0, 3600}, {3600, 4100}}));
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[1].size, 100u);
  EXPECT_EQ(spans(clips(T, T + kDay, kDay)), (Spans{{0, 4100}}));

  // Without a writer: now, but never more than an hour after the begin.
  m_writing.erase(kSid);
  for (auto [now, end] : {std::pair{T + 3800, T + 3800}, {T + 5 * 3600, T + 7200}}) {
    setNow(now);
    f = files(T, T + kDay);
    ASSERT_EQ(f.size(), 2u);
    EXPECT_EQ(f[1].endTime, end);
  }
  EXPECT_TRUE(exists(live));  // a live file is never renamed
}

TEST_F(RecordQueryTest, AbandonedFileIsRenamedOnlyThirtySecondsAfterItsEnd) {
  const RecordFileName stale = openFile(T);
  add(stale);
  add(closedFile(T + 1800, T + 2400));
  const RecordFileName renamed = closedFile(T, T + 1800, 1, 0, RECORD_INDEX_MISSING);

  setNow(T + 1829);
  EXPECT_EQ(spans(files(T, T + kDay)), (Spans{{0, 1800}, {1800, 2400}}));  // bounded by the next file's begin
  EXPECT_TRUE(exists(stale));
  EXPECT_FALSE(exists(renamed));

  setNow(T + 1830);
  std::vector<RecordClipEx> f = files(T, T + kDay);
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(std::string(f[0].fileName), recordPath(renamed));
  EXPECT_FALSE(exists(stale));
  EXPECT_TRUE(exists(renamed));
}

TEST_F(RecordQueryTest, OpenFileBeforeAnotherIsNotRenamedWhileWritten) {
  const RecordFileName writing = openFile(T);
  std::unique_ptr<CFile> handle = add(writing, 0, true);
  add(closedFile(T + 1800, T + 2400));
  EXPECT_EQ(spans(files(T, T + kDay)), (Spans{{0, 1800}, {1800, 2400}}));
  EXPECT_TRUE(exists(writing));
}

TEST_F(RecordQueryTest, LastFileWithoutEndAndNotWrittenIsLeftOut) {
  add(closedFile(T, T + 600));
  const RecordFileName orphan = openFile(T + 600);
  add(orphan);
  EXPECT_EQ(spans(files(T, T + kDay)), (Spans{{0, 600}}));
  EXPECT_EQ(spans(clips(T, T + kDay, kDay)), (Spans{{0, 600}}));
  EXPECT_EQ(status(T + 600, T + 1800), std::vector<bool>(2, false));
  EXPECT_TRUE(exists(orphan));
}

TEST_F(RecordQueryTest, PagesAreWalkedAcrossTheirBoundaries) {
  // Files of 10 s, back to back, a few more than a page. The file at position
  // 1999 (the last of the first page) has no end: its successor is found on
  // the next page.
  constexpr uint32_t kFiles = 2010;
  Spans want;
  for (uint32_t i = 0; i < kFiles; ++i) {
    add(i == 1999 ? openFile(T + 10 * i) : closedFile(T + 10 * i, T + 10 * i + 10));
    want.emplace_back(10 * i, 10 * i + 10);
  }
  EXPECT_EQ(spans(files(T, T + 10 * kFiles)), want);
  EXPECT_EQ(spans(clips(T, T + 10 * kFiles, kDay)), (Spans{{0, 10 * kFiles}}));

  std::vector<RecordFileName> all;
  ASSERT_TRUE(listRecordFiles(m_fs, kSid, 1000, all));
  EXPECT_EQ(all.size(), 1000u);
  all.clear();
  ASSERT_TRUE(listRecordFiles(m_fs, kSid, 100000, all));
  ASSERT_EQ(all.size(), kFiles);
  EXPECT_EQ(all.back().beginTime, T + 10 * (kFiles - 1));
}

TEST_F(RecordQueryTest, ReaderLookupsFindFilesAroundATime) {
  for (uint32_t b : {T, T + 600, T + 1200}) add(closedFile(b, b + 600));
  RecordFileName found;
  ASSERT_TRUE(findFirstFileEndingAfter(m_env, m_fs, kSid, T, T + kDay, T + 600, found));
  EXPECT_EQ(found.beginTime, T + 600);
  for (auto [before, begin] : {std::pair{T + 1300, T + 600}, {T + 1800, T + 1200}}) {
    ASSERT_TRUE(findLastFileBeginningBefore(m_env, m_fs, kSid, T, T + kDay, before, found));
    EXPECT_EQ(found.beginTime, begin);
  }

  // No match (or no bucket): success, and the output is left alone.
  const RecordFileName sentinel = closedFile(T + 5, T + 6);
  for (uint32_t sid : {kSid, 8u}) {
    found = sentinel;
    ASSERT_TRUE(findFirstFileEndingAfter(m_env, m_fs, sid, T, T + kDay, T + 1800, found));
    ASSERT_TRUE(findLastFileBeginningBefore(m_env, m_fs, sid, T + 700, T + kDay, T + 1000, found));
    EXPECT_EQ(found.beginTime, sentinel.beginTime);
  }
}

}  // namespace
