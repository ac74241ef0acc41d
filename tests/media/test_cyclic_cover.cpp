// Recycling: the passes over a store of made-up files (what goes, what must
// stay), discard markers, the engine's timer and its mutex hold on a manual
// clock, and two months of recording into a capped store.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "CyclicCover.h"
#include "DiscardStreams.h"
#include "KanduTime.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "MediaContext.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
using Velto::Kandu::CManualClock;

namespace {

const bool kConfigured = ZarnTest::useConfigFileForProcess(
    R"({"enable_cfg": 1, "cyclic_cover_delay": 60000, "cyclic_cover_period": 1800000, "recycle_hours": 24,
        "max_file_duration": 3600, "media_sdk_stat_file": "mediasdk.stat"})");

const uint32_t T0 = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 1, 0, 0, 0));
constexpr uint32_t kHalfHour = 1800, kHour = 3600, kDay = 86400;

class CyclicCoverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_fs.initialize(Config{m_root.c_str(), 0, "root", ""}));
    ASSERT_TRUE(checkSysFile(m_fs));
  }

  // A closed record file of `bytes` bytes (and its index file for state 3).
  RecordFileName put(uint32_t sid, uint32_t begin, uint32_t seconds, uint64_t bytes, uint16_t locks = 0,
                     uint32_t indexState = RECORD_INDEX_INTERNAL, uint16_t kind = BUCKET_KIND_MEDIA) {
    RecordFileName n{.streamId = sid, .beginTime = begin, .endTime = begin + seconds - 1, .type = 1,
                     .lockCount = locks, .indexState = indexState, .bucketKind = kind};
    const std::string bucket = bucketName(sid, kind);
    if (!m_fs.getBucket(bucket).isValid()) {
      EXPECT_TRUE(m_fs.createBucket(bucket));
    }
    std::vector<RecordFileName> files{n};
    if (indexState == RECORD_INDEX_SEPARATE) {
      files.push_back(n);
      files.back().isIndex = 1;
    }
    for (const RecordFileName& f : files) {
      std::string name;
      EXPECT_TRUE(generateRecordFileName(f, name));
      std::unique_ptr<CFile> file = m_fs.createFile(name, 1, 0);
      const std::vector<uint8_t> data(f.isIndex ? 64 : bytes, 0x5a);
      EXPECT_TRUE(file && file->write(data.data(), static_cast<uint32_t>(data.size())) ==
                              static_cast<int64_t>(data.size()));
      EXPECT_TRUE(file->close());
    }
    n.size = bytes;
    return n;
  }
  // Half-hour files of `sid` from `begin` for `count` files.
  void series(uint32_t sid, uint32_t begin, uint32_t count, uint64_t bytes = 1024) {
    for (uint32_t i = 0; i < count; ++i) put(sid, begin + i * kHalfHour, kHalfHour, bytes);
  }
  std::vector<RecordFileName> left(uint32_t sid) { return ZarnTest::listRecords(m_fs, sid); }
  CoverRun run(uint32_t now) {
    CoverRun r{m_fs};
    r.localNow = now;
    r.periodSeconds = kHalfHour;
    return r;
  }

  ZarnTest::TempDir m_dir;
  std::string m_root = m_dir.sub("store");
  CZarnFileSystem m_fs;
};

// A 24-hour policy over 10 days: one run removes only what began within two
// periods of the oldest file; runs repeated reach the policy and stop there.
// Locked files, and the index file of a locked file, stay through all of it.
TEST_F(CyclicCoverTest, TimePolicyRemovesTwoPeriodsARunAndNeverALockedFile) {
  series(1, T0, 3);
  put(1, T0 + 3 * kHalfHour, kHalfHour, 1024, /*locks*/ 2, RECORD_INDEX_SEPARATE);
  series(1, T0 + 4 * kHalfHour, 10 * 48 - 4);
  const uint32_t now = T0 + 10 * kDay;
  CoverRun r = run(now);
  EXPECT_EQ(coverByTime(r, 1, BUCKET_KIND_MEDIA, 24), 2u * 1024);  // the files at T0 and T0 + 30 min
  EXPECT_EQ(left(1).front().beginTime, T0 + 2 * kHalfHour);

  int runs = 0;
  while (runs < 2000 && coverByTime(r, 1, BUCKET_KIND_MEDIA, 24) != 0) ++runs;
  EXPECT_GT(runs, 200);  // about two files a run
  const std::vector<RecordFileName> rest = left(1);
  ASSERT_EQ(rest.size(), 2u + 48);
  EXPECT_EQ(rest[0].isIndex, 1u);  // the locked file keeps its index file
  EXPECT_EQ(rest[1].lockCount, 2u);
  EXPECT_EQ(rest[2].beginTime, now - 24 * kHour);
}

TEST_F(CyclicCoverTest, SpacePolicyRemovesTheOldestUnlockedUntilTheBucketFits) {
  put(2, T0, kHalfHour, 1 << 20, /*locks*/ 1);
  for (uint32_t i = 1; i <= 20; ++i) put(2, T0 + i * kHalfHour, kHalfHour, 1 << 20);
  CoverRun r = run(T0 + kDay);
  EXPECT_EQ(coverBySpace(r, 2, BUCKET_KIND_MEDIA, 10), 11u << 20);
  const std::vector<RecordFileName> rest = left(2);
  ASSERT_EQ(rest.size(), 10u);
  EXPECT_EQ(rest[0].lockCount, 1u);
  EXPECT_EQ(rest[1].beginTime, T0 + 12 * kHalfHour);
  EXPECT_EQ(coverBySpace(r, 2, BUCKET_KIND_MEDIA, 10), 0u);
}

// Urgent recycling takes the oldest files of all streams first, and nothing of
// a stream whose oldest file is under 12 hours old, whatever the need.
TEST_F(CyclicCoverTest, LowSpaceTakesTheOldestFirstAndSparesTheLastTwelveHours) {
  const uint32_t now = T0 + 3 * kDay;
  series(3, now - 11 * kHour, 20, 1 << 20);      // 11 hours old at most
  series(4, now - 48 * kHour, 96, 1 << 20);      // two days
  series(5, now - 30 * kHour, 10, 1 << 20);      // began 30 h ago
  CoverRun r = run(now);
  const std::vector<RecordFileName> four = left(4), five = left(5);
  // 36 MiB: stream 4's files older than 30 h (36 of them), then the oldest of
  // both streams alternately.
  EXPECT_EQ(lowSpace(r, 40ull << 20), 40ull << 20);
  EXPECT_EQ(left(3).size(), 20u);
  EXPECT_EQ(left(4).front().beginTime, four[38].beginTime);
  EXPECT_EQ(left(5).front().beginTime, five[2].beginTime);
  // A need beyond what is 12 hours old stops at the 12-hour line.
  lowSpace(r, 1000ull << 20);
  EXPECT_EQ(left(3).size(), 20u);
  EXPECT_EQ(left(4).front().beginTime, now - 23 * kHalfHour);
}

TEST_F(CyclicCoverTest, DiscardedStreamsAgeOutThenLoseTheirBucketsAndMarkers) {
  EXPECT_FALSE(discardStream(m_fs, 7, 0, 0));
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(discardStream(m_fs, 7, 24, 0));
  EXPECT_TRUE(discardStream(m_fs, 7, 12, 5));
  EXPECT_TRUE(discardStream(m_fs, 8, 0, 2));
  DiscardList list;
  ASSERT_TRUE(queryDiscardStream(m_fs, list));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[7].durationHours, 24u);
  EXPECT_EQ(list[7].space, 5u);
  const uint32_t now = T0 + 10 * kDay;
  series(7, now - 30 * kHour, 2);  // older than 24 h, within two periods of each other
  put(8, now - kDay, kHalfHour, 1 << 20, /*locks*/ 1);
  series(8, now - kDay + kHalfHour, 3, 1 << 20);

  CoverRun r = run(now);
  coverDiscardStreams(r, list);
  EXPECT_FALSE(m_fs.getBucket(bucketName(7, BUCKET_KIND_MEDIA)).isValid());
  ASSERT_EQ(left(8).size(), 2u);  // the locked file and the newest, within 2 MiB
  list.clear();
  ASSERT_TRUE(queryDiscardStream(m_fs, list));
  EXPECT_EQ(list.count(7), 0u);
  EXPECT_EQ(list.count(8), 1u);
  // Short of space, discarded streams are emptied first, their locks kept.
  EXPECT_EQ(freeDiscardStream(r, list, 100u << 20), 1u << 20);
  EXPECT_EQ(left(8).size(), 1u);
}

TEST_F(CyclicCoverTest, UrgentRatioSetsThresholdAndTargetAndRefusesAHundred) {
  CManualClock clock(int64_t{T0} * 1000);
  CZarnCyclicCover cover(clock, CMediaContext::instance().config(), CMediaContext::instance().stats());
  struct Row { uint32_t ratio; int32_t result; double threshold, target; };
  for (const Row& row : {Row{20, 0, 80.0, 80.5}, Row{100, -1, 80.0, 80.5}, Row{99, 0, 1.0, 1.5}, Row{250, -1, 1.0, 1.5}}) {
    EXPECT_EQ(cover.setUrgentRecycleRatio(row.ratio), row.result) << row.ratio;
    EXPECT_EQ(cover.spaceThresholdRatio(), row.threshold) << row.ratio;
    EXPECT_EQ(cover.ratioAfterDelete(), row.target) << row.ratio;
  }
}

// The engine on a manual clock: the first run after the delay, the next a full
// period after the end of the last; an urgent run keeps the mutex file for 30
// minutes from its start and the run after that lets it go.
TEST_F(CyclicCoverTest, TimerRunsAfterTheDelayAndHoldsTheMutexThirtyMinutes) {
  CManualClock clock(int64_t{T0 + 2 * kDay} * 1000);
  series(1, T0, 96);
  CZarnCyclicCover cover(clock, CMediaContext::instance().config(), CMediaContext::instance().stats());
  cover.setCoverPolicy(1, 24, 0);
  cover.setUrgentRecycleRatio(0);  // below 100 % free is short of space: every run recycles urgently
  cover.start(&m_fs, Config{m_root.c_str(), 0, "root", ""}, nullptr);
  clock.advance(59999);
  EXPECT_EQ(left(1).front().beginTime, T0);
  clock.advance(1);
  EXPECT_GT(left(1).front().beginTime, T0);
  CCoverMutex other;
  EXPECT_FALSE(other.tryEnter(m_fs));
  clock.advance(kCoverMutexHoldMs + 1800000 - 1);
  EXPECT_FALSE(other.tryEnter(m_fs));
  clock.advance(1);  // the next run releases the hold, takes the mutex again
  EXPECT_FALSE(other.tryEnter(m_fs));
  cover.stop();
  EXPECT_TRUE(other.tryEnter(m_fs));
}

}  // namespace
