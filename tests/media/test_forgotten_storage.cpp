// The forgotten-storage worker on a local store and a manual clock: what a walk
// removes, hands to index repair and leaves alone, which policies walk, and
// its schedule.
#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <vector>

#include "ForgottenStorage.h"
#include "KanduTime.h"
#include "MediaConfig.h"
#include "TestSupport.h"

using namespace Velto::Zarn;
using ZarnTest::recordPath;

namespace {

// 2026-03-10 10:00:00 UTC; "now" is two days later, so with a policy of 24 h
// files beginning before T + 1 day are old.
const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0));
constexpr uint32_t kDay = 86400;
constexpr uint32_t kOpen = 0xFFFFFFFFu;  // as an end offset: a file under its open name

RecordFileName rec(uint32_t sid, uint32_t b, uint32_t e, uint32_t state = 1, uint16_t locks = 0, uint32_t isIndex = 0) {
  return RecordFileName{.streamId = sid, .beginTime = T + b, .endTime = e == kOpen ? 0 : T + e, .type = 1,
                        .lockCount = locks, .indexState = e == kOpen ? 0 : state, .isIndex = isIndex};
}
RecordFileName indexOf(uint32_t sid, uint32_t b, uint32_t e) { return rec(sid, b, e, 0, 0, 1); }

// (stream, begin offset) of every submission. Walks on the timer's thread end
// before CManualClock::advance returns, so the test reads without a lock.
using Seen = std::vector<std::pair<uint32_t, uint32_t>>;
struct RecordingSink : IIndexFixSink {
  void submitIndexFixWork(CZarnFileSystem&, const RecordFileName& r) override { seen.emplace_back(r.streamId, r.beginTime - T); }
  Seen seen;
};

class ForgottenStorageTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_fs.initialize(m_config)); }

  void add(const RecordFileName& n) {
    m_fs.createBucket(bucketName(n.streamId, BUCKET_KIND_MEDIA));
    ASSERT_TRUE(m_fs.createFile(recordPath(n), 1, 0)->close());
  }
  bool exists(const RecordFileName& n) {
    ZarnFileStat st;
    return m_fs.getFileStat(recordPath(n), st);
  }

  ZarnTest::TempDir m_dir;
  Config m_config{m_dir.path().c_str(), 0, "root", ""};
  CZarnFileSystem m_fs;
  Velto::Kandu::CManualClock m_clock{int64_t{T + 2 * kDay} * 1000};
  CMediaConfig m_mediaConfig;  // defaults: a period of 30 minutes
  RecordingSink m_sink;
  CForgottenStorage m_worker{m_clock, m_mediaConfig};  // last: its timer goes before the clock
};

TEST_F(ForgottenStorageTest, AWalkRemovesOrphanIndexesSubmitsOldUnindexedFilesAndStopsAtTheThreshold) {
  const std::vector<std::pair<RecordFileName, bool>> files = {  // file, kept by a walk
      {indexOf(7, 0, 600), false},                              // orphan: followed by another file's index
      {indexOf(7, 600, 1200), true},
      {rec(7, 600, 1200, 3), true},
      {rec(7, 1200, 1800, 0), true},  // no index: submitted
      {rec(7, 1800, 2400, 1), true},  // old, indexed: left in place
      {rec(7, 2400, 3000, 0, 1), true},  // locked
      {rec(7, 3000, 3600, 2), true},     // being rebuilt
      {rec(7, 3600, kOpen), true},       // under its open name
      {rec(7, kDay + 600, kDay + 1200, 0), true},  // recent
      {indexOf(7, kDay + 1200, kDay + 1800), true},  // recent orphan: the walk stopped before it
      {rec(8, 0, 600), true},
      {indexOf(8, 1000, 1600), false},  // orphan, last in its bucket
      {rec(9, 0, 600, 0), true},        // space policy: never walked
      {rec(10, 0, 600, 0), true},       // policy erased
  };
  for (const auto& [file, kept] : files) add(file);
  for (auto [sid, hours, space] : {std::tuple{7, 24, 0}, {8, 24, 0}, {9, 0, 500}, {10, 24, 0}, {10, 0, 0}})
    m_worker.setForgottenStorage(sid, hours, space);
  ASSERT_TRUE(m_worker.init(&m_fs, m_config, &m_sink));
  m_clock.advance(0);  // the first walk is due at once; this waits for it
  for (const auto& [file, kept] : files) EXPECT_EQ(exists(file), kept) << recordPath(file);
  EXPECT_EQ(m_sink.seen, (Seen{{7, 1200}}));

  m_worker.doForgotten();  // submitted again on every walk until its name changes
  EXPECT_EQ(m_sink.seen, (Seen{{7, 1200}, {7, 1200}}));
  EXPECT_EQ(m_worker.forgottenStorage(7, 24), 0);
  EXPECT_EQ(m_sink.seen.size(), 3u);
}

TEST_F(ForgottenStorageTest, TheTimerWalksAtOnceThenEveryPeriodUntilUninit) {
  const uint32_t period = static_cast<uint32_t>(m_mediaConfig.getCyclicCoverPeriod());
  EXPECT_FALSE(m_worker.init(nullptr, m_config, &m_sink));
  EXPECT_EQ(m_clock.nextDueInMs(), -1);  // nothing scheduled
  add(rec(7, 0, 600, 0));
  m_worker.setForgottenStorage(7, 24, 0);

  ASSERT_TRUE(m_worker.init(&m_fs, m_config, &m_sink));
  m_clock.advance(0);
  EXPECT_EQ(m_sink.seen.size(), 1u);
  m_clock.advance(period - 1);
  EXPECT_EQ(m_sink.seen.size(), 1u);
  m_clock.advance(1);
  EXPECT_EQ(m_sink.seen.size(), 2u);

  m_worker.uninit();
  m_clock.advance(2 * period);
  EXPECT_EQ(m_sink.seen.size(), 2u);
  EXPECT_EQ(m_clock.nextDueInMs(), -1);
  // Without a sink, files without an index are only counted.
  ASSERT_TRUE(m_worker.init(&m_fs, m_config, nullptr));
  m_clock.advance(0);
  EXPECT_EQ(m_worker.unindexedCount(), 3u);
}

}  // namespace
