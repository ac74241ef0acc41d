// CMediaSdkStat: counters, the status document and the status file's life.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "KanduTime.h"
#include "MediaSdkStat.h"
#include "TestSupport.h"

using Velto::Zarn::CMediaSdkStat;
namespace fs = std::filesystem;

namespace {

bool readStatFile(const std::string& path, Json::Value& doc) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  Json::Reader reader;
  return reader.parse(text.str(), doc, false) && doc.isObject();
}

class MediaSdkStatTest : public ::testing::Test {
 protected:
  // Starts the timer and waits for its first tick (due after 1 s) to have
  // written the file; the next timer tick is a minute away, so the test owns
  // the counters from here on and drives ticks with tickNow.
  void startAndAwaitFirstTick(CMediaSdkStat& stat) {
    stat.startTimer(m_path, 60);
    ASSERT_TRUE(ZarnTest::waitFor([&] { return fs::exists(m_path); }, 15000));
  }

  Json::Value tickAndRead(CMediaSdkStat& stat) {
    stat.tickNow();
    Json::Value doc;
    EXPECT_TRUE(readStatFile(m_path, doc));
    return doc;
  }

  ZarnTest::TempDir m_dir;
  std::string m_path = m_dir.sub("mediasdk.stat");
};

TEST_F(MediaSdkStatTest, UnstartedStatisticsOnlyCount) {
  ZarnTest::LogCapture log(Velto::Kandu::LOG_INFO);
  CMediaSdkStat stat;
  stat.addFileSplitCount();
  stat.addWriteFailedCount();
  stat.addStreamBytes(1u << 30);
  stat.tickNow();
  EXPECT_TRUE(fs::is_empty(m_dir.path()));

  // The counts survive until the first real tick.
  startAndAwaitFirstTick(stat);
  EXPECT_EQ(log.count("#0,CMediaSdkStat::startTimer "), 1u);
  EXPECT_EQ(log.count(", Start MediaSdk Timer to record status info."), 1u);
  EXPECT_EQ(log.count("failed"), 0u);
  EXPECT_FALSE(fs::exists(m_path + ".tmp"));
  Json::Value doc;
  ASSERT_TRUE(readStatFile(m_path, doc));
  EXPECT_EQ(doc["file.split.count"].asUInt(), 1u);
  EXPECT_EQ(doc["write.failed.count"].asUInt(), 1u);
  EXPECT_EQ(doc["stream.avg"].asUInt(), 17u);  // 1024 MiB / 60 s
}

TEST_F(MediaSdkStatTest, DocumentHoldsEveryMemberWithTheMinutesCounts) {
  CMediaSdkStat stat;
  startAndAwaitFirstTick(stat);

  stat.addFileSplitCount();
  stat.addFileSplitCount();
  stat.addWriteFailedCount();
  for (int i = 0; i < 3; ++i) stat.addWriteSuccessCount();
  for (int i = 0; i < 6; ++i) stat.addStreamBytes(100u << 20);  // 600 MiB
  stat.addIndexRebuildSuccessCount();
  stat.addIndexRebuildFailedCount();
  stat.addIndexRebuildFailedCount();
  stat.addLoopOverwriteSuccessCount(40);
  stat.addLoopOverwriteFailedCount(2);
  stat.addLoopOverwriteDeleteBytes(5ull << 30);  // beyond 32 bits
  stat.addLoopOverwriteDeleteBytes(3ull << 20);

  int64_t before = Velto::Kandu::CTime::now().getTime();
  Json::Value doc = tickAndRead(stat);
  int64_t after = Velto::Kandu::CTime::now().getTime();

  EXPECT_EQ(doc.size(), 13u);
  EXPECT_EQ(doc["name"].asString(), "media-sdk");
  EXPECT_TRUE(doc["ip"].isString());
  EXPECT_EQ(doc["ip"].asString(), "");
  EXPECT_EQ(doc["stream.count"].asInt(), 0);  // no counter function set
  EXPECT_EQ(doc["file.split.count"].asUInt(), 2u);
  EXPECT_EQ(doc["write.success.count"].asUInt(), 3u);
  EXPECT_EQ(doc["write.failed.count"].asUInt(), 1u);
  EXPECT_EQ(doc["stream.avg"].asUInt(), 10u);
  EXPECT_EQ(doc["index.rebuild.success.count"].asUInt(), 1u);
  EXPECT_EQ(doc["index.rebuild.failed.count"].asUInt(), 2u);
  EXPECT_EQ(doc["loop.overwrite.success.count"].asUInt(), 40u);
  EXPECT_EQ(doc["loop.overwrite.failed.count"].asUInt(), 2u);
  EXPECT_EQ(doc["loop.overwrite.delete.capacity"].asUInt64(), 5123u);
  ASSERT_TRUE(doc["ctime"].isString());
  int64_t ctime = std::stoll(doc["ctime"].asString());
  EXPECT_GE(ctime, before);
  EXPECT_LE(ctime, after);

  // The next minute starts from zero.
  stat.addWriteSuccessCount();
  doc = tickAndRead(stat);
  EXPECT_EQ(doc.size(), 13u);
  EXPECT_EQ(doc["file.split.count"].asUInt(), 0u);
  EXPECT_EQ(doc["write.failed.count"].asUInt(), 0u);
  EXPECT_EQ(doc["write.success.count"].asUInt(), 1u);
  EXPECT_EQ(doc["stream.avg"].asUInt(), 0u);
  EXPECT_EQ(doc["loop.overwrite.delete.capacity"].asUInt64(), 0u);
  EXPECT_EQ(doc["name"].asString(), "media-sdk");
}

TEST_F(MediaSdkStatTest, StreamCountComesFromTheCounterFunction) {
  CMediaSdkStat stat;
  std::atomic<int32_t> writers{7};
  stat.setStreamCounter([&writers] { return writers.load(); });
  startAndAwaitFirstTick(stat);
  EXPECT_EQ(tickAndRead(stat)["stream.count"].asInt(), 7);
  writers = 3;
  EXPECT_EQ(tickAndRead(stat)["stream.count"].asInt(), 3);
  stat.setStreamCounter(nullptr);
  EXPECT_EQ(tickAndRead(stat)["stream.count"].asInt(), 0);
}

TEST_F(MediaSdkStatTest, CountersFedFromSeveralThreadsAddUp) {
  CMediaSdkStat stat;
  startAndAwaitFirstTick(stat);

  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  std::vector<std::thread> feeders;
  for (int t = 0; t < kThreads; ++t) {
    feeders.emplace_back([&stat] {
      for (int i = 0; i < kRounds; ++i) {
        stat.addFileSplitCount();
        stat.addWriteSuccessCount();
        stat.addLoopOverwriteSuccessCount(2);
        stat.addLoopOverwriteDeleteBytes(1u << 20);
      }
    });
  }
  // Ticks racing the feeders split the counts between documents but lose none.
  uint64_t splits = 0, successes = 0, overwrites = 0, deletedMiB = 0;
  auto collect = [&](const Json::Value& doc) {
    splits += doc["file.split.count"].asUInt();
    successes += doc["write.success.count"].asUInt();
    overwrites += doc["loop.overwrite.success.count"].asUInt();
    deletedMiB += doc["loop.overwrite.delete.capacity"].asUInt64();
  };
  for (int i = 0; i < 5; ++i) collect(tickAndRead(stat));
  for (auto& f : feeders) f.join();
  collect(tickAndRead(stat));

  EXPECT_EQ(splits, uint64_t{kThreads} * kRounds);
  EXPECT_EQ(successes, uint64_t{kThreads} * kRounds);
  EXPECT_EQ(overwrites, uint64_t{kThreads} * kRounds * 2);
  // Bytes are shifted down per tick, so only whole MiB fed between ticks count:
  // each feed here is exactly 1 MiB, so nothing is lost to rounding.
  EXPECT_EQ(deletedMiB, uint64_t{kThreads} * kRounds);
}

TEST_F(MediaSdkStatTest, MissingDirectoryLogsTheOpenFailureAndWritesNothing) {
  std::string path = m_dir.sub("no/such/dir/mediasdk.stat");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_TRACE);
  CMediaSdkStat stat;
  stat.addFileSplitCount();
  stat.startTimer(path, 60);
  const std::string failure = ", failed to open status file(" + path + ".tmp).";
  ASSERT_TRUE(ZarnTest::waitFor([&] { return log.count(failure) == 1; }, 15000));
  stat.tickNow();
  EXPECT_EQ(log.count(failure), 2u);
  EXPECT_EQ(log.count("#0,CMediaSdkStat::dumpToStatFile "), 2u);

  size_t statLines = 0;
  for (const auto& line : log.lines())
    if (line.find("CMediaSdkStat::") != std::string::npos) ++statLines;
  EXPECT_EQ(statLines, 3u);  // the start line and the two failures
  EXPECT_TRUE(fs::is_empty(m_dir.path()));
}

TEST_F(MediaSdkStatTest, RenameFailureIsRetriedThenLogged) {
  // A non-empty directory cannot be replaced by a file.
  fs::create_directories(m_path + "/busy");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_TRACE);
  CMediaSdkStat stat;
  stat.setRenameRetryDelay(1);
  stat.addWriteFailedCount();
  stat.startTimer(m_path, 60);
  ASSERT_TRUE(ZarnTest::waitFor([&] { return log.count(", Rename stat file failed") == 1; }, 15000));
  EXPECT_TRUE(fs::is_directory(m_path));

  // The document itself was written completely beside the status path.
  Json::Value doc;
  ASSERT_TRUE(readStatFile(m_path + ".tmp", doc));
  EXPECT_EQ(doc.size(), 13u);
  EXPECT_EQ(doc["write.failed.count"].asUInt(), 1u);

  // Once the obstacle is gone the next tick replaces the status file.
  fs::remove_all(m_path);
  stat.addWriteFailedCount();
  stat.addWriteFailedCount();
  Json::Value next = tickAndRead(stat);
  EXPECT_EQ(next["write.failed.count"].asUInt(), 2u);
  EXPECT_FALSE(fs::exists(m_path + ".tmp"));
}

TEST_F(MediaSdkStatTest, DestroyingStopsAPendingTick) {
  {
    CMediaSdkStat stat;
    stat.startTimer(m_path, 60);
  }
  // The first tick would have been due 1 s after the start.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_FALSE(fs::exists(m_path + ".tmp"));
}

}  // namespace
