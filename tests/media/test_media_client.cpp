// The client facade without a configuration file: store start-up, state
// debouncing, timers (on a manual clock), setters and the answers of
// operations not built yet.
#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>
#include <vector>

#include "FaultInjectingBackend.h"
#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "MediaValues.h"
#include "TestSupport.h"
#include "ZarnClient.h"

using namespace Velto::Zarn;
using ZarnTest::LogCapture;
using ZarnTest::waitFor;
using Velto::Kandu::CManualClock;

namespace {

// 2026-03-10 10:00:00 UTC.
const int64_t kStartMs = Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0) * 1000;
constexpr uint32_t kDebounceMs = CMediaClientInternal::kAntiShakeDelayMs;

struct StateRecorder {
  std::mutex mutex;
  std::vector<ZarnState> states;
  Velto::Kandu::TFunction1<void, ZarnState> callback() {
    return [this](ZarnState s) {
      std::lock_guard<std::mutex> lock(mutex);
      states.push_back(s);
    };
  }
  std::vector<ZarnState> seen() {
    std::lock_guard<std::mutex> lock(mutex);
    return states;
  }
};

class MediaClientTest : public ::testing::Test {
 protected:
  void SetUp() override { CMediaValues::instance().sdkState.store(0); }

  Config config(const std::string& address) {
    m_address = address;
    return Config{m_address.c_str(), 0, "root", "secret"};
  }
  Config localStore() { return config(m_dir.sub("store")); }

  ZarnTest::TempDir m_dir;
  std::string m_address;
  CManualClock m_clock{kStartMs};
};

TEST_F(MediaClientTest, FailedStoreInitialisationLeavesAFreshHandleForARetry) {
  CMediaClientInternal client;
  LogCapture log;
  EXPECT_EQ(client.initialize(config("ceph://mon1"), nullptr), -1);
  EXPECT_TRUE(log.contains("Zarn init error"));
  EXPECT_EQ(CMediaValues::instance().sdkState.load(), 0u);
  EXPECT_EQ(client.initialize(Config{nullptr, 0, "root", ""}, nullptr), -1);

  EXPECT_EQ(client.initialize(localStore(), nullptr), 0);
  EXPECT_EQ(CMediaValues::instance().sdkState.load(), 1u);
  EXPECT_TRUE(log.contains("MediaClient initialize success."));
  // The system-file check made the ledger: nothing locked yet.
  EXPECT_EQ(client.getLockRatio(), 0);
  uint64_t locked = 99;
  EXPECT_TRUE(getLockSize(*client.storeForTest(), locked));
  EXPECT_EQ(locked, 0u);
}

TEST_F(MediaClientTest, SystemFileCheckFailureReportsStateTwo) {
  // A guard held open for writing by a "live" creator and no ledger: the check
  // must not create a second ledger behind the creator's back.
  CZarnFileSystem other;
  const Config c = localStore();
  ASSERT_TRUE(other.initialize(c));
  ASSERT_TRUE(other.createBucket(kSystemBucket));
  std::unique_ptr<CFile> guard = other.createFile("media_system/sys.lock", 1, 1);
  ASSERT_TRUE(guard);

  CMediaClientInternal client;
  LogCapture log;
  EXPECT_EQ(client.initialize(c, nullptr), -1);
  EXPECT_EQ(CMediaValues::instance().sdkState.load(), 2u);
  EXPECT_TRUE(log.contains("media_system Locked by other SS."));
  EXPECT_TRUE(log.contains("MediaClient check system file error."));

  // Once the creator is gone its guard is a leftover and the next start succeeds.
  guard->close();
  EXPECT_EQ(client.initialize(c, nullptr), 0);
  EXPECT_EQ(CMediaValues::instance().sdkState.load(), 1u);
  uint64_t locked = 1;
  EXPECT_TRUE(getLockSize(other, locked));
  EXPECT_EQ(locked, 0u);
}

TEST_F(MediaClientTest, StateChangesAreDebouncedBeforeTheHostHearsOfThem) {
  CMediaClientInternal client(m_clock);
  // Before initialize a change is neither recorded nor reported.
  client.onZarnStateChanged(client.storeForTest(), ZARN_STATE_FAILED);
  EXPECT_EQ(CMediaValues::instance().sdkState.load(), 0u);
  EXPECT_FALSE(client.antiShakeTimerRunningForTest());

  StateRecorder host;
  ASSERT_EQ(client.initialize(localStore(), host.callback()), 0);
  CZarnFileSystem* fs = client.storeForTest();
  client.onZarnStateChanged(fs, ZARN_STATE_FAILED);
  m_clock.advance(kDebounceMs - 1);
  EXPECT_TRUE(host.seen().empty());
  m_clock.advance(1);
  ASSERT_EQ(host.seen(), std::vector<ZarnState>{ZARN_STATE_FAILED});
  EXPECT_TRUE(client.exceptionTimerRunningForTest());

  client.onZarnStateChanged(fs, ZARN_STATE_NORMAL);
  m_clock.advance(kDebounceMs);
  EXPECT_EQ(host.seen(), (std::vector<ZarnState>{ZARN_STATE_FAILED, ZARN_STATE_NORMAL}));
  EXPECT_FALSE(client.exceptionTimerRunningForTest());

  // 1 -> 2 -> 1 within the delay: one timer run, which sees where it began.
  client.onZarnStateChanged(fs, ZARN_STATE_FAILED);
  m_clock.advance(kDebounceMs / 2);
  client.onZarnStateChanged(fs, ZARN_STATE_NORMAL);
  EXPECT_EQ(m_clock.nextDueInMs(), kDebounceMs / 2);  // not restarted by the second change
  m_clock.advance(kDebounceMs);
  EXPECT_EQ(host.seen().size(), 2u);
  EXPECT_EQ(client.lastReportedStateForTest(), 1u);
  EXPECT_FALSE(client.antiShakeTimerRunningForTest());

  // A repeat of the current state is not a change.
  client.onZarnStateChanged(fs, ZARN_STATE_NORMAL);
  EXPECT_FALSE(client.antiShakeTimerRunningForTest());
}

TEST_F(MediaClientTest, StoreMonitorReachesTheHostThroughTheListener) {
  std::shared_ptr<CFaultInjectingBackend> backend;
  std::string root = m_dir.sub("store");
  registerStoreBackend("faulty", [&backend, root](const std::string&, std::shared_ptr<IStoreBackend>& out) {
    backend = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(root));
    out = backend;
    return 0;
  });
  CMediaClientInternal client(m_clock);
  int32_t period = 20;
  ASSERT_TRUE(client.storeForTest()->setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof(period)));
  StateRecorder host;
  ASSERT_EQ(client.initialize(config("faulty://store"), host.callback()), 0);
  ASSERT_TRUE(backend);

  // The monitor runs on real time; the debounce on the client's clock.
  for (bool healthy : {false, true}) {
    backend->setHealthy(healthy);
    ASSERT_TRUE(waitFor([&] { return client.antiShakeTimerRunningForTest(); }));
    m_clock.advance(kDebounceMs);
  }
  EXPECT_EQ(host.seen(), (std::vector<ZarnState>{ZARN_STATE_FAILED, ZARN_STATE_NORMAL}));
  registerStoreBackend("faulty", nullptr);
}

// The scan lists the files of the last hour of every registered stream, first
// twenty minutes after initialize and then every hour.
TEST_F(MediaClientTest, IndexFixScanRunsTwentyMinutesAfterInitializeThenHourlyOverRegisteredStreams) {
  CMediaClientInternal client(m_clock);
  LogCapture log(Velto::Kandu::LOG_INFO);
  ASSERT_EQ(client.setRecyclePolicy(14, 24, 0), 0);
  ASSERT_EQ(client.addStream(14, 1, true), 0);
  // A closed file of the hour before the scan without an index, and one from the day before.
  CZarnFileSystem other;
  ASSERT_TRUE(other.initialize(localStore()));
  ASSERT_TRUE(other.createBucket("media_14"));
  const uint32_t scanAt = CMediaValues::instance().localNow(m_clock) + CMediaClientInternal::kFixIndexDelayMs / 1000;
  for (uint32_t age : {600u, 86400u}) {
    const RecordFileName n{.streamId = 14, .beginTime = scanAt - age, .endTime = scanAt - age + 300, .type = 1};
    ASSERT_TRUE(other.createFile(ZarnTest::recordPath(n), 1, 1)->close());
  }
  EXPECT_FALSE(client.fixIndexTimerRunningForTest());
  ASSERT_EQ(client.initialize(localStore(), nullptr), 0);
  EXPECT_TRUE(client.fixIndexTimerRunningForTest());
  m_clock.advance(CMediaClientInternal::kFixIndexDelayMs - 1);
  EXPECT_EQ(log.count("check 1 files"), 0u);
  m_clock.advance(1);
  EXPECT_EQ(log.count("check 1 files"), 1u);
  EXPECT_EQ(log.count("stream totalNum = 1"), 1u);
  m_clock.advance(2 * CMediaClientInternal::kFixIndexPeriodMs);
  EXPECT_EQ(log.count("check 0 files"), 2u);
  EXPECT_EQ(client.deleteStream(14), 0);
}

TEST_F(MediaClientTest, SettersValidateWhatTheyMust) {
  CMediaClientInternal client;
  LogCapture log;
  EXPECT_EQ(client.maxLockRatioForTest(), 57);
  for (auto [ratio, kept] : {std::pair{101, 57}, {-1, 57}, {100, 100}, {0, 0}}) {
    client.setMaxLockRatio(ratio);
    EXPECT_EQ(client.maxLockRatioForTest(), kept) << ratio;
  }
  EXPECT_EQ(log.count("setMaxLockRatio failed, ratio must be in 0-100"), 2u);

  CMediaValues& v = CMediaValues::instance();
  client.setDefaultECType(6, 2);
  EXPECT_EQ(v.ecDataNum.load(), 6);
  EXPECT_EQ(v.ecParityNum.load(), 2);
  EXPECT_EQ(v.ecStripeSize.load(), 6u * 32768u);
  client.setDefaultECType(4, 1);
  client.setTimeZoneDiff(-5);
  EXPECT_EQ(v.timeZoneDiff.load(), -5);
  client.setTimeZoneDiff(0);
  client.setMaxFrameSize(1000);
  EXPECT_EQ(v.maxFrameSize.load(), 1000);
  client.setMaxFrameSize(4194304);

  log.clear();
  client.setMediaSDKLogFile("/nonexistent/dir/file.log");
  EXPECT_TRUE(log.contains("Zarn-MediaSDK V0.000.0000000.0000"));
}

TEST_F(MediaClientTest, OperationsWithoutEnginesAnswerWithTheirFailureCodes) {
  CMediaClientInternal client;
  ASSERT_EQ(client.initialize(localStore(), nullptr), 0);
  LogCapture log;
  VeltoFrame frame;
  unsigned long long n = 0;
  EXPECT_EQ(client.writeFrame(5, &frame, 0, n), -4);
  EXPECT_TRUE(log.contains("stream(5) not find. Pls addStream first!"));
  EXPECT_EQ(client.flushFrame(5), -4);
  EXPECT_EQ(client.deleteStream(5), -1);

  SystemInfo info{};
  EXPECT_TRUE(client.getSystemInfo(info));
  EXPECT_GT(info.totalCapacity, 0u);
  EXPECT_FALSE(client.isSupportLocalStore());
}

TEST_F(MediaClientTest, WatchdogEndsAProcessWhoseStoreStaysFailedWithNothingRecording) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        CMediaClientInternal client(m_clock);
        Velto::Kandu::setLogLevel(Velto::Kandu::LOG_INFO);
        if (client.initialize(localStore(), nullptr) != 0) std::_Exit(3);
        client.onZarnStateChanged(client.storeForTest(), ZARN_STATE_FAILED);
        // The debounce, then an hour of a failed store with nothing recording.
        m_clock.advance(kDebounceMs + CMediaClientInternal::kExceptionDelayMs - 1);
        std::fprintf(stderr, "still alive\n");
        m_clock.advance(1);
        std::_Exit(4);
      },
      "still alive.*stream writer count is 0, exit.");
}

}  // namespace
