// Recycling: the passes over a store of made-up files (what goes, what must
// stay), discard markers, the engine's timer and its mutex hold on a manual
// clock, and two months of recording into a capped store.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <list>
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

TEST_F(CyclicCoverTest, UrgentRatioAndCameraPoliciesReachWhatTheyName) {
  CManualClock clock(int64_t{T0} * 1000);
  CZarnCyclicCover cover(clock, CMediaContext::instance().config(), CMediaContext::instance().stats());
  struct Row { uint32_t ratio; int32_t result; double threshold, target; };
  for (const Row& row : {Row{20, 0, 80.0, 80.5}, Row{100, -1, 80.0, 80.5}, Row{99, 0, 1.0, 1.5}, Row{250, -1, 1.0, 1.5}}) {
    EXPECT_EQ(cover.setUrgentRecycleRatio(row.ratio), row.result) << row.ratio;
    EXPECT_EQ(cover.spaceThresholdRatio(), row.threshold) << row.ratio;
    EXPECT_EQ(cover.ratioAfterDelete(), row.target) << row.ratio;
  }
  // A camera's policy reaches its streams; its reset reaches them too, even
  // unnamed, and returns them to the configured 24 hours.
  cover.setCameraCoverPolicy("cam", {4, 5}, 0, 300);
  cover.setCameraCoverPolicy("cam", {}, 0, 0);
  const std::map<uint32_t, CoverPolicy> policies = cover.coverPolicies();
  ASSERT_EQ(policies.size(), 2u);
  for (const auto& [id, policy] : policies) EXPECT_TRUE(policy.durationHours == 24 && policy.space == 0) << id;
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

// Two months of a small site on a manual clock: four cameras record into a
// store capped at 40 MiB, under a time policy, a space policy, a long time
// policy the store cannot hold (so urgent recycling must step in), a locked
// incident and a camera discarded after ten days. Throughout, no frame is
// refused and the store never fills; the time policy holds within two cover
// periods and the space policy within one file; at the end the incident is
// whole, the ledger matches the locked names, and the discarded camera has
// left nothing behind. Deleting a stream's records then takes the locked
// incident too, and the ledger goes back to 0.
const uint32_t S0 = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 1, 1, 0, 0, 0));
constexpr uint32_t kStep = 600, kPeriod = 1800;
constexpr uint32_t kTimed = 1, kSpaced = 2, kLong = 3, kDiscarded = 4;
const uint32_t kIncidentBegin = S0 + 2 * kDay, kIncidentEnd = kIncidentBegin + 12 * kHour;

TEST(CyclicCoverSoakTest, SixtyDaysInACappedStoreKeepEveryPromise) {
  // tmpfs when there is one: thousands of file closes, each synced.
  const std::string base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : ZarnTest::TempDir().path();
  const std::string root = base + "/zarn-cover-soak-" + std::to_string(::getpid());
  const std::string address = root + "?capacity=40M";
  struct Cleanup {
    std::string path;
    ~Cleanup() { std::filesystem::remove_all(path); }
  } cleanup{root};

  CManualClock clock(int64_t{S0} * 1000);
  CMediaClientInternal client(clock);
  ASSERT_EQ(client.initialize(Config{address.c_str(), 0, "root", ""}, nullptr), 0);
  CZarnFileSystem& fs = *client.storeForTest();
  ASSERT_EQ(client.setUrgentRecycleRatio(80), 0);  // urgent below 20 % free
  client.setRecyclePolicy(kTimed, 24, 0);
  client.setRecyclePolicy(kSpaced, 0, 1);
  client.setRecyclePolicy(kLong, 480, 0);  // 20 days: more than the store holds
  for (uint32_t sid : {kTimed, kSpaced, kLong, kDiscarded}) ASSERT_EQ(client.addStream(sid, 1, true), 0);

  uint32_t sequence = 0;
  for (uint32_t now = S0; now < S0 + 60 * kDay; now += kStep) {
    for (uint32_t sid : {kTimed, kSpaced, kLong, kDiscarded}) {
      if (sid == kDiscarded && now >= S0 + 10 * kDay) continue;
      const bool incident = sid == kLong && now >= kIncidentBegin && now < kIncidentEnd;
      std::vector<uint8_t> bytes = ZarnTest::makeFrame(FRAME_TYPE_I, 0, sequence++, now, incident ? 190000 : 11000);
      VeltoFrame frame;
      frame.attach(bytes.data());
      unsigned long long position = 0;
      ASSERT_EQ(client.writeFrame(sid, &frame, 0, position), 0) << "stream " << sid << " at day " << (now - S0) / kDay;
    }
    if (now == S0 + 5 * kDay) {
      ASSERT_EQ(client.lockStream(kLong, kIncidentBegin, kIncidentEnd), 0);
    }
    if (now == S0 + 10 * kDay) {
      ASSERT_EQ(client.deleteStream(kDiscarded), 0);
      ASSERT_TRUE(client.discardStream(kDiscarded, 48, 0));
    }
    clock.advance(kStep * 1000);

    if ((now - S0) % kHour != 0) continue;
    // A connection of its own: a capped store's usage is cached per
    // connection for two seconds of real time, which this test never lets pass.
    CZarnFileSystem probe;
    SystemInfo info{};
    ASSERT_TRUE(probe.initialize(Config{address.c_str(), 0, "root", ""}) && probe.getSystemInfo(info));
    ASSERT_GT(info.freeCapacity, 4u << 20) << "day " << (now - S0) / kDay;
    const std::vector<RecordFileName> timed = ZarnTest::listRecords(fs, kTimed);
    if (now > S0 + kDay && !timed.empty()) {
      ASSERT_GE(timed.front().beginTime + 24 * kHour + 2 * kPeriod, now) << "day " << (now - S0) / kDay;
    }
    uint64_t spaced = 0, largest = 0;
    for (const RecordFileName& f : ZarnTest::listRecords(fs, kSpaced)) spaced += f.size, largest = std::max(largest, f.size);
    ASSERT_LE(spaced, (1u << 20) + largest) << "day " << (now - S0) / kDay;
  }

  uint32_t lockedFiles = 0;
  uint64_t lockedMiB = 0;
  uint32_t oldestUnlocked = 0;
  for (const RecordFileName& f : ZarnTest::listRecords(fs, kLong)) {
    if (f.lockCount > 0) {
      EXPECT_TRUE(f.beginTime >= kIncidentBegin && f.beginTime < kIncidentEnd);
      ++lockedFiles;
      lockedMiB += f.size >> 20;
    } else if (oldestUnlocked == 0) {
      oldestUnlocked = f.beginTime;
    }
  }
  EXPECT_EQ(lockedFiles, 12u);  // the whole incident, hour by hour
  uint64_t ledger = 0;
  ASSERT_TRUE(getLockSize(fs, ledger));
  EXPECT_EQ(ledger, lockedMiB);
  // Urgent recycling, not the 20-day policy, bounded the long stream.
  EXPECT_GT(oldestUnlocked, S0 + 60 * kDay - 480 * kHour + kDay);
  EXPECT_FALSE(fs.getBucket(bucketName(kDiscarded, BUCKET_KIND_MEDIA)).isValid());
  DiscardList discarded;
  ASSERT_TRUE(queryDiscardStream(fs, discarded));
  EXPECT_TRUE(discarded.empty());
  // Deleting the long stream's records takes its locked files too, and the
  // ledger with them, on the next cover run.
  for (uint32_t sid : {kTimed, kSpaced, kLong}) client.deleteStream(sid);
  std::list<unsigned> deleted{kLong};
  ASSERT_EQ(client.deleteRecord("camera-3", deleted), 0);
  clock.advance(2 * kPeriod * 1000);
  EXPECT_FALSE(fs.getBucket(bucketName(kLong, BUCKET_KIND_MEDIA)).isValid());
  ASSERT_TRUE(getLockSize(fs, ledger));
  EXPECT_EQ(ledger, 0u);
  EXPECT_TRUE(client.coverForTest().deleteSet().empty());
}

}  // namespace
