// The client facade without a configuration file: store start-up, state
// debouncing, timers, setters and the answers of operations not built yet.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "FaultInjectingBackend.h"
#include "KanduThread.h"
#include "LocalStoreBackend.h"
#include "MediaClientInternal.h"
#include "MediaContext.h"
#include "RecordLock.h"
#include "TestSupport.h"
#include "ZarnClient.h"

using namespace Velto::Zarn;
using ZarnTest::LogCapture;
using ZarnTest::TempDir;
using ZarnTest::waitFor;

namespace {

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
  void SetUp() override {
    MediaClientTimings t;
    t.antiShakeDelay = 150;
    t.fixIndexDelay = 50;
    t.fixIndexPeriod = 3600000;
    t.exceptionDelay = 3600000;
    CMediaClientInternal::setTimingsForTest(t);
    CMediaContext::values().sdkState.store(0);
  }
  void TearDown() override { CMediaClientInternal::setTimingsForTest(MediaClientTimings()); }

  Config config(const std::string& address) {
    m_address = address;
    return Config{m_address.c_str(), 0, "root", "secret"};
  }

  TempDir m_dir;
  std::string m_address;
};

TEST_F(MediaClientTest, FailedStoreInitialisationLeavesAFreshHandleForARetry) {
  CMediaClientInternal client;
  LogCapture log;
  EXPECT_EQ(client.initialize(config("ceph://mon1"), nullptr), -1);
  EXPECT_TRUE(log.contains("Zarn init error"));
  EXPECT_EQ(CMediaContext::values().sdkState.load(), 0u);
  EXPECT_EQ(client.initialize(Config{nullptr, 0, "root", ""}, nullptr), -1);

  EXPECT_EQ(client.initialize(config(m_dir.sub("store")), nullptr), 0);
  EXPECT_EQ(CMediaContext::values().sdkState.load(), 1u);
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
  std::string store = m_dir.sub("store");
  Config c = config(store);
  ASSERT_TRUE(other.initialize(c));
  ASSERT_TRUE(other.createBucket(kSystemBucket));
  std::unique_ptr<CFile> guard = other.createFile("media_system/sys.lock", 1, 1);
  ASSERT_TRUE(guard);

  CMediaClientInternal client;
  LogCapture log;
  EXPECT_EQ(client.initialize(c, nullptr), -1);
  EXPECT_EQ(CMediaContext::values().sdkState.load(), 2u);
  EXPECT_TRUE(log.contains("media_system Locked by other SS."));
  EXPECT_TRUE(log.contains("MediaClient check system file error."));

  // Once the creator is gone its guard is a leftover and the next start succeeds.
  guard->close();
  EXPECT_EQ(client.initialize(c, nullptr), 0);
  EXPECT_EQ(CMediaContext::values().sdkState.load(), 1u);
  uint64_t locked = 1;
  EXPECT_TRUE(getLockSize(other, locked));
  EXPECT_EQ(locked, 0u);
}

TEST_F(MediaClientTest, StateChangesAreDebouncedBeforeTheHostHearsOfThem) {
  CMediaClientInternal client;
  StateRecorder host;
  ASSERT_EQ(client.initialize(config(m_dir.sub("store")), host.callback()), 0);
  CZarnFileSystem* fs = client.storeForTest();

  client.onZarnStateChanged(fs, ZARN_STATE_FAILED);
  ASSERT_TRUE(waitFor([&] { return host.seen().size() == 1; }));
  EXPECT_EQ(host.seen()[0], ZARN_STATE_FAILED);
  EXPECT_TRUE(client.exceptionTimerRunningForTest());

  client.onZarnStateChanged(fs, ZARN_STATE_NORMAL);
  ASSERT_TRUE(waitFor([&] { return host.seen().size() == 2; }));
  EXPECT_EQ(host.seen()[1], ZARN_STATE_NORMAL);
  EXPECT_FALSE(client.exceptionTimerRunningForTest());

  // 1 -> 2 -> 1 within the delay: one timer run that sees where it began.
  // The host hears of a change from inside the timer's run: a change made
  // before that run has returned finds the timer pending and starts none.
  ASSERT_TRUE(waitFor([&] { return !client.antiShakeTimerRunningForTest(); }));
  LogCapture log;
  client.onZarnStateChanged(fs, ZARN_STATE_FAILED);
  client.onZarnStateChanged(fs, ZARN_STATE_NORMAL);
  ASSERT_TRUE(waitFor([&] { return log.contains("onZarnStateChanged: timer start"); }));
  Velto::Kandu::sleepMs(600);
  EXPECT_EQ(host.seen().size(), 2u);
  EXPECT_EQ(log.count("onZarnStateChanged: timer start"), 1u);
  EXPECT_EQ(client.lastReportedStateForTest(), 1u);

  // A repeat of the current state is not a change.
  client.onZarnStateChanged(fs, ZARN_STATE_NORMAL);
  EXPECT_EQ(log.count("zarnStateChanged: 1 -> 1"), 0u);
}

TEST_F(MediaClientTest, StateChangesBeforeInitializeAreNeitherRecordedNorReported) {
  CMediaClientInternal client;
  LogCapture log;
  client.onZarnStateChanged(client.storeForTest(), ZARN_STATE_FAILED);
  EXPECT_EQ(CMediaContext::values().sdkState.load(), 0u);
  EXPECT_FALSE(log.contains("timer start"));
}

TEST_F(MediaClientTest, StoreMonitorReachesTheHostThroughTheListener) {
  std::shared_ptr<CFaultInjectingBackend> backend;
  std::string root = m_dir.sub("store");
  registerStoreBackend("faulty", [&backend, root](const std::string&, std::shared_ptr<IStoreBackend>& out) {
    backend = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(root));
    out = backend;
    return 0;
  });
  CMediaClientInternal client;
  int32_t period = 20;
  ASSERT_TRUE(client.storeForTest()->setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof(period)));
  StateRecorder host;
  ASSERT_EQ(client.initialize(config("faulty://store"), host.callback()), 0);
  ASSERT_TRUE(backend);

  backend->setHealthy(false);
  ASSERT_TRUE(waitFor([&] { return !host.seen().empty(); }));
  EXPECT_EQ(host.seen()[0], ZARN_STATE_FAILED);
  backend->setHealthy(true);
  ASSERT_TRUE(waitFor([&] { return host.seen().size() == 2; }));
  EXPECT_EQ(host.seen()[1], ZARN_STATE_NORMAL);
  registerStoreBackend("faulty", nullptr);
}

TEST_F(MediaClientTest, IndexFixTimerRunsAfterInitialize) {
  LogCapture log;
  CMediaClientInternal client;
  EXPECT_FALSE(client.fixIndexTimerRunningForTest());
  ASSERT_EQ(client.initialize(config(m_dir.sub("store")), nullptr), 0);
  EXPECT_TRUE(client.fixIndexTimerRunningForTest());
  EXPECT_TRUE(waitFor([&] { return log.contains("check 0 files"); }));
  EXPECT_TRUE(log.contains("stream totalNum = 0"));
}

TEST_F(MediaClientTest, SettersValidateWhatTheyMust) {
  CMediaClientInternal client;
  LogCapture log;
  EXPECT_EQ(client.maxLockRatioForTest(), 57);
  client.setMaxLockRatio(101);
  client.setMaxLockRatio(-1);
  EXPECT_EQ(log.count("setMaxLockRatio failed, ratio must be in 0-100"), 2u);
  EXPECT_EQ(client.maxLockRatioForTest(), 57);
  client.setMaxLockRatio(100);
  EXPECT_EQ(client.maxLockRatioForTest(), 100);
  client.setMaxLockRatio(0);
  EXPECT_EQ(client.maxLockRatioForTest(), 0);

  CMediaValues& v = CMediaContext::values();
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
  ASSERT_EQ(client.initialize(config(m_dir.sub("store")), nullptr), 0);
  LogCapture log;
  VeltoFrame frame;
  unsigned long long n = 0;
  EXPECT_EQ(client.writeFrame(5, &frame, 0, n), -4);
  EXPECT_TRUE(log.contains("stream(5) not find. Pls addStream first!"));
  EXPECT_EQ(client.flushFrame(5), -4);
  EXPECT_EQ(client.deleteStream(5), -1);
  EXPECT_EQ(client.readFrame(3, &frame, n, false, false), -5);
  EXPECT_EQ(client.seek(3, 100), -5);
  EXPECT_EQ(client.deleteSession(3), -1);
  EXPECT_EQ(client.addStream(5, 1, true), -1);  // no recycling policy and no configured default
  EXPECT_TRUE(log.contains("addStream(5) failed because of no cover policy!"));
  // A session needs no engine before it: it is registered at once (its reads
  // then report the missing record).
  const int session = client.addSession(5, 1, 2, true);
  EXPECT_GT(session, 0);
  EXPECT_EQ(client.deleteSession(static_cast<unsigned>(session)), 0);
  EXPECT_EQ(client.lockStream(5, 0, 100), -3);
  EXPECT_TRUE(log.contains("lockStream is not available in this build yet."));
  EXPECT_FALSE(client.discardStream(5, 1, 0));
  EXPECT_TRUE(log.contains("discardStream is not available in this build yet."));

  SystemInfo info{};
  EXPECT_TRUE(client.getSystemInfo(info));
  EXPECT_GT(info.totalCapacity, 0u);
  EXPECT_FALSE(client.isSupportLocalStore());
}

TEST_F(MediaClientTest, WatchdogEndsAProcessWhoseStoreStaysFailedWithNothingRecording) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        MediaClientTimings t;
        t.antiShakeDelay = 10;
        t.exceptionDelay = 10;
        t.exceptionPeriod = 10;
        CMediaClientInternal::setTimingsForTest(t);
        CMediaClientInternal client;
        Velto::Kandu::setLogLevel(Velto::Kandu::LOG_INFO);
        if (client.initialize(config(m_dir.sub("store")), nullptr) != 0) std::_Exit(3);
        client.onZarnStateChanged(client.storeForTest(), ZARN_STATE_FAILED);
        Velto::Kandu::sleepMs(5000);
        std::_Exit(4);
      },
      "stream writer count is 0, exit.");
}

}  // namespace
