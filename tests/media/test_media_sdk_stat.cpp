// CMediaSdkStat: counters, the status document and the status file's life.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "KanduTime.h"
#include "MediaSdkStat.h"
#include "TestSupport.h"

using Velto::Zarn::CMediaSdkStat;
namespace fs = std::filesystem;

namespace {

Json::Value parse(const std::string& text) {
  Json::Value doc;
  Json::Reader reader;
  EXPECT_TRUE(reader.parse(text, doc, false) && doc.isObject()) << text;
  return doc;
}

Json::Value readStatFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return parse(text.str());
}

// The document of a tick with nothing counted, stream counter unset, "ctime" left out.
const char* const kQuietMinute = R"({ "name": "media-sdk", "ip": "", "stream.count": 0, "file.split.count": 0,
  "write.success.count": 0, "write.failed.count": 0, "stream.avg": 0, "index.rebuild.success.count": 0,
  "index.rebuild.failed.count": 0, "loop.overwrite.success.count": 0, "loop.overwrite.failed.count": 0,
  "loop.overwrite.delete.capacity": 0 })";

class MediaSdkStatTest : public ::testing::Test {
 protected:
  // Starts the timer and moves the clock to its first tick (due after 1 s),
  // which writes the file; the next timer tick is a minute away, so the test
  // owns the counters from here on and drives ticks with tickNow.
  void startAndAwaitFirstTick() {
    m_stat.startTimer(m_path, 60);
    m_clock.advance(CMediaSdkStat::kFirstTickDelayMs);
    ASSERT_TRUE(fs::exists(m_path));
  }

  Json::Value tickAndRead() {
    m_stat.tickNow();
    return readStatFile(m_path);
  }

  ZarnTest::TempDir m_dir;
  std::string m_path = m_dir.sub("mediasdk.stat");
  Velto::Kandu::CManualClock m_clock{Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0) * 1000};
  CMediaSdkStat m_stat{m_clock};
};

TEST_F(MediaSdkStatTest, UnstartedStatisticsOnlyCount) {
  m_stat.addFileSplitCount();
  m_stat.addStreamBytes(1u << 30);
  m_stat.tickNow();
  EXPECT_TRUE(fs::is_empty(m_dir.path()));

  // The counts survive until the first real tick.
  startAndAwaitFirstTick();
  EXPECT_FALSE(fs::exists(m_path + ".tmp"));
  Json::Value doc = readStatFile(m_path);
  EXPECT_EQ(doc["file.split.count"].asUInt(), 1u);
  EXPECT_EQ(doc["stream.avg"].asUInt(), 17u);  // 1024 MiB / 60 s
}

TEST_F(MediaSdkStatTest, DocumentHoldsTheMinutesCountsAndTheNextMinuteStartsFromZero) {
  startAndAwaitFirstTick();
  m_stat.addFileSplitCount();
  m_stat.addFileSplitCount();
  m_stat.addWriteFailedCount();
  for (int i = 0; i < 3; ++i) m_stat.addWriteSuccessCount();
  for (int i = 0; i < 6; ++i) m_stat.addStreamBytes(100u << 20);  // 600 MiB
  m_stat.addIndexRebuildSuccessCount();
  m_stat.addIndexRebuildFailedCount();
  m_stat.addIndexRebuildFailedCount();
  m_stat.addLoopOverwriteSuccessCount(40);
  m_stat.addLoopOverwriteFailedCount(2);
  m_stat.addLoopOverwriteDeleteBytes(5ull << 30);  // beyond 32 bits
  m_stat.addLoopOverwriteDeleteBytes(3ull << 20);

  Json::Value doc = tickAndRead();
  ASSERT_TRUE(doc["ctime"].isString());
  EXPECT_EQ(doc["ctime"].asString(), std::to_string(m_clock.wallClockSeconds()));  // the clock's seconds
  doc.removeMember("ctime");
  EXPECT_EQ(doc.toStyledString(), parse(R"({ "name": "media-sdk", "ip": "", "stream.count": 0,
    "file.split.count": 2, "write.success.count": 3, "write.failed.count": 1, "stream.avg": 10,
    "index.rebuild.success.count": 1, "index.rebuild.failed.count": 2, "loop.overwrite.success.count": 40,
    "loop.overwrite.failed.count": 2, "loop.overwrite.delete.capacity": 5123 })").toStyledString());

  doc = tickAndRead();
  doc.removeMember("ctime");
  EXPECT_EQ(doc.toStyledString(), parse(kQuietMinute).toStyledString());

  // The stream count comes from the counter function, read at each tick.
  std::atomic<int32_t> writers{7};
  m_stat.setStreamCounter([&writers] { return writers.load(); });
  EXPECT_EQ(tickAndRead()["stream.count"].asInt(), 7);
  writers = 3;
  EXPECT_EQ(tickAndRead()["stream.count"].asInt(), 3);
}

TEST_F(MediaSdkStatTest, CountersFedFromSeveralThreadsAddUp) {
  startAndAwaitFirstTick();
  constexpr uint64_t kThreads = 4, kRounds = 5000;
  std::vector<std::thread> feeders;
  for (uint64_t t = 0; t < kThreads; ++t) {
    feeders.emplace_back([this] {
      for (uint64_t i = 0; i < kRounds; ++i) {
        m_stat.addFileSplitCount();
        m_stat.addLoopOverwriteSuccessCount(2);
        m_stat.addLoopOverwriteDeleteBytes(1u << 20);  // whole MiB, so nothing is lost to per-tick rounding
      }
    });
  }
  // Ticks racing the feeders split the counts between documents but lose none.
  uint64_t splits = 0, overwrites = 0, deletedMiB = 0;
  for (int i = 0; i < 6; ++i) {
    if (i == 5)  // the last tick comes after every feeder is done
      for (auto& f : feeders) f.join();
    Json::Value doc = tickAndRead();
    splits += doc["file.split.count"].asUInt();
    overwrites += doc["loop.overwrite.success.count"].asUInt();
    deletedMiB += doc["loop.overwrite.delete.capacity"].asUInt64();
  }
  EXPECT_EQ(splits, kThreads * kRounds);
  EXPECT_EQ(overwrites, kThreads * kRounds * 2);
  EXPECT_EQ(deletedMiB, kThreads * kRounds);
}

TEST_F(MediaSdkStatTest, MissingDirectoryLogsTheOpenFailureAndWritesNothing) {
  std::string path = m_dir.sub("no/such/dir/mediasdk.stat");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_INFO);
  m_stat.addFileSplitCount();
  m_stat.startTimer(path, 60);
  const std::string failure = ", failed to open status file(" + path + ".tmp).";
  m_clock.advance(CMediaSdkStat::kFirstTickDelayMs);
  ASSERT_EQ(log.count(failure), 1u);
  m_stat.tickNow();
  EXPECT_EQ(log.count(failure), 2u);
  EXPECT_TRUE(fs::is_empty(m_dir.path()));
}

TEST_F(MediaSdkStatTest, RenameFailureIsRetriedThenLogged) {
  fs::create_directories(m_path + "/busy");  // a non-empty directory cannot be replaced by a file
  ZarnTest::LogCapture log(Velto::Kandu::LOG_INFO);
  m_stat.setRenameRetryDelay(1);
  m_stat.addWriteFailedCount();
  m_stat.startTimer(m_path, 60);
  m_clock.advance(CMediaSdkStat::kFirstTickDelayMs);
  ASSERT_EQ(log.count(", Rename stat file failed"), 1u);
  // The document itself was written completely beside the status path.
  Json::Value doc = readStatFile(m_path + ".tmp");
  EXPECT_EQ(doc.size(), 13u);
  EXPECT_EQ(doc["write.failed.count"].asUInt(), 1u);

  // Once the obstacle is gone the next tick replaces the status file.
  fs::remove_all(m_path);
  m_stat.addWriteFailedCount();
  EXPECT_EQ(tickAndRead()["write.failed.count"].asUInt(), 1u);
  EXPECT_FALSE(fs::exists(m_path + ".tmp"));
}

TEST_F(MediaSdkStatTest, DestroyingStopsAPendingTick) {
  {
    CMediaSdkStat stat(m_clock);
    stat.startTimer(m_path, 60);
  }
  m_clock.advance(CMediaSdkStat::kFirstTickDelayMs + CMediaSdkStat::kTickPeriodMs);
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_FALSE(fs::exists(m_path + ".tmp"));
}

}  // namespace
