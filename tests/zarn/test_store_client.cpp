// The store client itself: addresses, options, the per-thread last error, the
// state monitor, fault rules, and what the local backend adds to the contract.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "FaultInjectingBackend.h"
#include "LocalStoreBackend.h"
#include "StoreTestKit.h"
#include "TestSupport.h"

using namespace Velto::Zarn;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Fault rules are written with designated initializers; the fields left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

Config configFor(const std::string& address) { return Config{address.c_str(), 0, "root", ""}; }

// A client with bucket "media_1" on a fault-injecting backend over a fresh local
// store; `file` is "media_1/f", created and open for writing.
struct FaultyStore {
  explicit FaultyStore(uint64_t seed = 1)
      : fault(std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(dir.sub("store")), seed)) {
    EXPECT_TRUE(client.initializeWithBackend(configFor(dir.sub("store")), fault)) << getErrorMsg();
    EXPECT_TRUE(client.createBucket("media_1"));
    file = client.createFile("media_1/f", 4, 1);
    EXPECT_NE(file, nullptr) << getErrorMsg();
  }
  ZarnTest::TempDir dir;
  std::shared_ptr<CFaultInjectingBackend> fault;
  CZarnFileSystem client;
  std::unique_ptr<CFile> file;
};

TEST(StoreClient, LastErrorIsKeptPerThread) {
  FaultyStore store;
  std::string otherMessage;
  int32_t otherCode = 0;
  std::thread other([&] {
    EXPECT_FALSE(store.client.createBucket("media_1"));
    otherCode = getLastError();
    otherMessage = getErrorMsg();
  });
  EXPECT_FALSE(store.client.getBucket("media_404").isValid());
  other.join();
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);
  EXPECT_NE(std::string(getErrorMsg()).find("media_404"), std::string::npos) << getErrorMsg();
  EXPECT_EQ(otherCode, ZARN_E_BUCKET_EXISTS);
  EXPECT_NE(otherMessage, getErrorMsg());
  // A success leaves the last error alone.
  EXPECT_TRUE(store.client.getBucket("media_1").isValid());
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);
  EXPECT_STREQ(zarnErrorText(-12345), "unknown store error");
}

TEST(StoreClient, OptionsAreCheckedAndApplied) {
  ZarnTest::TempDir dir;
  CZarnFileSystem client;
  int32_t mode = 3, timeout = 7000, level = 4, badLevel = 6;
  uint64_t cap = 5 << 20;
  const std::string logPath = "./log/zarn";
  const std::tuple<int32_t, const void*, uint32_t> accepted[] = {
      {ZARN_OPT_CLIENT_MODE, &mode, 4}, {ZARN_OPT_TIMEOUT_MS, &timeout, 4}, {ZARN_OPT_LOG_LEVEL, &level, 4},
      {ZARN_OPT_LOG_PATH, logPath.data(), static_cast<uint32_t>(logPath.size())}, {ZARN_OPT_CAPACITY_LIMIT, &cap, 8}};
  for (const auto& [option, value, size] : accepted) ASSERT_TRUE(client.setOption(option, value, size)) << option;
  // Refusals: unknown option, wrong width, out of range.
  const std::tuple<int, const void*, uint32_t> refused[] = {
      {1, &mode, 4}, {99, &mode, 4}, {ZARN_OPT_TIMEOUT_MS, &cap, 8}, {ZARN_OPT_LOG_LEVEL, &badLevel, 4},
      {ZARN_OPT_CAPACITY_LIMIT, &mode, 4}};
  for (const auto& [option, value, size] : refused) {
    EXPECT_REFUSED(client.setOption(option, value, size), ZARN_E_INVALID_ARGUMENT) << option;
  }
  // The capacity limit set before initialize reaches the backend.
  ASSERT_TRUE(client.initialize(configFor(dir.sub("store"))));
  SystemInfo info{};
  ASSERT_TRUE(client.getSystemInfo(info));
  EXPECT_EQ(info.totalCapacity, cap);
  EXPECT_EQ(info.freeCapacity, cap);
}

TEST(StoreClient, AddressesChooseTheBackend) {
  ZarnTest::TempDir dir;
  CZarnFileSystem client;
  const std::string address = "file://" + dir.sub("a/b/store");
  ASSERT_TRUE(client.initialize(configFor(address))) << getErrorMsg();
  ASSERT_TRUE(client.createBucket("media_1"));
  EXPECT_TRUE(fs::is_directory(dir.sub("a/b/store/media_1")));
  EXPECT_REFUSED(client.initialize(configFor(address)), ZARN_E_INVALID_ARGUMENT);  // already connected
  client.close();

  ASSERT_TRUE(client.initialize(configFor(dir.sub("capped") + "?capacity=2M"))) << getErrorMsg();
  SystemInfo info{};
  ASSERT_TRUE(client.getSystemInfo(info));
  EXPECT_EQ(info.totalCapacity, 2u << 20);
  client.close();

#ifdef ZARN_WITH_CEPH
  // Built in: monitors whose names do not resolve are refused before any connection.
  constexpr int32_t kCephCode = ZARN_E_INVALID_ARGUMENT;
#else
  constexpr int32_t kCephCode = ZARN_E_UNSUPPORTED;
#endif
  for (const auto& [bad, code] : {std::pair{std::string("ceph://no-such-monitor.invalid,mon2.invalid/zarn"), kCephCode},
                                  {"nosuch://x", ZARN_E_UNSUPPORTED},
                                  {dir.sub("x") + "?capacity=12Q", ZARN_E_INVALID_ARGUMENT}}) {
    EXPECT_REFUSED(client.initialize(configFor(bad)), code) << bad;
    EXPECT_FALSE(client.isInitialized());
  }
  EXPECT_FALSE(fs::exists(dir.sub("x")));
  EXPECT_FALSE(client.initialize(configFor("")));
  EXPECT_TRUE(client.initialize(configFor(dir.sub("late"))));  // a failed initialize leaves the handle usable
  client.close();

  std::shared_ptr<CFaultInjectingBackend> made;
  registerStoreBackend("fault", [&](const std::string& rest, std::shared_ptr<IStoreBackend>& out) {
    out = made = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(rest));
    return 0;
  });
  ASSERT_TRUE(client.initialize(configFor("fault://" + dir.sub("faulty"))));
  ASSERT_NE(made, nullptr);
  made->addRule({.op = StoreOp::CreateBucket, .code = ZARN_E_NO_SPACE});
  EXPECT_REFUSED(client.createBucket("media_1"), ZARN_E_NO_SPACE);
  client.close();
  registerStoreBackend("fault", nullptr);
  EXPECT_REFUSED(client.initialize(configFor("fault://" + dir.sub("faulty"))), ZARN_E_UNSUPPORTED);
}

TEST(StoreClient, HandlesFailAfterCloseAndANewConnectionStartsClean) {
  FaultyStore store;
  CBucket bucket = store.client.getBucket("media_1");
  ASSERT_EQ(store.file->write("abc", 3), 3);
  store.client.close();
  EXPECT_EQ(store.client.getState(), ZARN_STATE_FAILED);
  CNameList names;
  SystemInfo info{};
  EXPECT_REFUSED(bucket.list(names, "", "", 10), ZARN_E_NOT_INITIALIZED);
  EXPECT_REFUSED(store.file->write("d", 1) != -1, ZARN_E_NOT_INITIALIZED);
  EXPECT_REFUSED(store.client.createBucket("media_2"), ZARN_E_NOT_INITIALIZED);
  EXPECT_REFUSED(store.client.getSystemInfo(info), ZARN_E_NOT_INITIALIZED);
  EXPECT_REFUSED(store.file->close(), ZARN_E_NOT_INITIALIZED);  // released, but the connection is gone

  ASSERT_TRUE(store.client.initializeWithBackend(configFor(store.dir.sub("store")), store.fault));
  EXPECT_FALSE(bucket.list(names, "", "", 10));  // an old handle stays with its old connection
  ZarnFileStat st;
  ASSERT_TRUE(store.client.getFileStat("media_1/f", st));
  EXPECT_FALSE(st.openForWrite);
  EXPECT_EQ(st.size, 3u);
}

TEST(StoreClient, FailedWritesDegradeAFileOnceAndASuccessRestoresIt) {
  struct Listener : IFileListener {
    void onFileStateChanged(CFile*, int state) override { states.push_back(state); }
    std::vector<int> states;
  } listener;
  FaultyStore store;
  store.file->setListener(&listener);
  store.fault->addRule({.op = StoreOp::FileWrite, .code = ZARN_E_IO, .times = 2});
  EXPECT_REFUSED(store.file->write("abc", 3) != -1, ZARN_E_IO);
  EXPECT_REFUSED(store.file->write("abc", 3) != -1, ZARN_E_IO);
  EXPECT_EQ(listener.states, std::vector<int>{ZARN_FILE_STATE_DEGRADED});
  EXPECT_EQ(store.file->write("abc", 3), 3);
  EXPECT_EQ(listener.states, (std::vector<int>{ZARN_FILE_STATE_DEGRADED, ZARN_FILE_STATE_NORMAL}));

  // A failure that a retry cannot cure does not degrade the file.
  store.fault->addRule({.op = StoreOp::FileWrite, .code = ZARN_E_NO_SPACE, .times = 1});
  EXPECT_REFUSED(store.file->write("abc", 3) != -1, ZARN_E_NO_SPACE);
  EXPECT_EQ(listener.states.size(), 2u);
  EXPECT_EQ(store.fault->callCount(StoreOp::FileWrite), 4u);

  // A close that fails still releases the file.
  store.fault->addRule({.op = StoreOp::FileClose});
  EXPECT_REFUSED(store.file->close(), ZARN_E_IO);
  ZarnFileStat st;
  ASSERT_TRUE(store.client.getFileStat("media_1/f", st));
  EXPECT_FALSE(st.openForWrite);
  EXPECT_EQ(st.size, 3u);
}

TEST(StoreClient, FaultRulesTakeZeroBytesStallAndFollowSkipTimesAndName) {
  FaultyStore store;
  store.fault->addRule({.op = StoreOp::FileWrite, .zeroBytes = true, .skip = 1, .times = 2});
  std::vector<int64_t> written;
  for (const char* text : {"aaaaa", "bbbbb", "ccccc", "ddddd"}) written.push_back(store.file->write(text, 5));
  EXPECT_EQ(written, (std::vector<int64_t>{5, 0, 0, 5}));
  ASSERT_TRUE(store.file->close());
  store.fault->addRule({.op = StoreOp::FileRead, .code = ZARN_E_PERMISSION, .nameContains = "/other"});
  store.fault->addRule({.op = StoreOp::FileRead, .zeroBytes = true, .nameContains = "/f"});
  auto r = store.client.openFile("media_1/f", StoreOpenMode::Read);
  ASSERT_NE(r, nullptr);
  char buf[16];
  EXPECT_EQ(r->read(buf, sizeof buf), 0);
  store.fault->clearRules();
  ASSERT_EQ(r->read(buf, sizeof buf), 10);
  EXPECT_EQ(std::string(buf, 10), "aaaaaddddd");

  // A stall that then passes, and one that then fails; each acts once.
  store.fault->addRule({.op = StoreOp::CreateFile, .stallMs = 150, .failAfterStall = false, .times = 1});
  store.fault->addRule({.op = StoreOp::StatFile, .code = ZARN_E_TIMEOUT, .stallMs = 150, .times = 1});
  auto start = Clock::now();
  auto slow = store.client.createFile("media_1/slow", 4, 1);
  EXPECT_NE(slow, nullptr);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150));
  start = Clock::now();
  ZarnFileStat st;
  EXPECT_REFUSED(store.client.getFileStat("media_1/slow", st), ZARN_E_TIMEOUT);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150));
  EXPECT_TRUE(store.client.getFileStat("media_1/slow", st));
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(store.fault->callCount(StoreOp::StatFile), 2u);
}

TEST(StoreClient, OneInNFaultsRepeatForTheSameSeed) {
  auto pattern = [](uint64_t seed) {
    FaultyStore store(seed);
    store.fault->addRule({.op = StoreOp::StatFile, .oneInN = 2});
    std::string bits;
    ZarnFileStat st;
    for (int i = 0; i < 64; ++i) bits += store.client.getFileStat("media_1/f", st) ? '.' : 'X';
    return bits;
  };
  std::string a = pattern(42);
  EXPECT_EQ(pattern(42), a);
  EXPECT_NE(pattern(43), a);
  auto failures = std::count(a.begin(), a.end(), 'X');
  EXPECT_GT(failures, 10) << a;
  EXPECT_LT(failures, 54) << a;
}

TEST(StoreClient, StateMonitorReportsOnlyChangesOfAProbeOrOfTheLocalRoot) {
  FaultyStore store;
  ZarnTest::CStateRecorder listener;
  store.client.setListener(&listener);
  int32_t period = 10;
  ASSERT_TRUE(store.client.setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof period));
  auto probes = [&] { return store.fault->callCount(StoreOp::ProbeHealth); };
  auto reports = [&](size_t n) { return ZarnTest::waitFor([&] { return listener.states().size() >= n; }, 10000); };
  // A period set on a running connection applies at once (the default is 5 s).
  ASSERT_TRUE(ZarnTest::waitFor([&] { return probes() >= 3; }, 4000));
  EXPECT_TRUE(listener.states().empty());

  store.fault->setHealthy(false);
  ASSERT_TRUE(reports(1));
  EXPECT_EQ(store.client.getState(), ZARN_STATE_FAILED);
  uint64_t seen = probes();
  ASSERT_TRUE(ZarnTest::waitFor([&] { return probes() >= seen + 5; }, 10000));
  EXPECT_EQ(listener.states(), std::vector<int>{ZARN_STATE_FAILED});
  store.fault->setHealthy(true);
  ASSERT_TRUE(reports(2));
  EXPECT_EQ(store.client.getState(), ZARN_STATE_NORMAL);
  // The local store is unusable while its root is away.
  fs::rename(store.dir.sub("store"), store.dir.sub("away"));
  ASSERT_TRUE(reports(3));
  fs::rename(store.dir.sub("away"), store.dir.sub("store"));
  ASSERT_TRUE(reports(4));

  // After close no probe runs and nothing is reported.
  store.client.close();
  seen = probes();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(probes(), seen);
  EXPECT_EQ(listener.states(),
            (std::vector<int>{ZARN_STATE_FAILED, ZARN_STATE_NORMAL, ZARN_STATE_FAILED, ZARN_STATE_NORMAL}));
}

// ---- Local backend specifics ----

TEST(LocalStore, MarkerBoundedListingOpensOnlyTheLevelsItNeeds) {
  ZarnTest::TempDir dir;
  auto local = std::make_shared<CLocalStoreBackend>(dir.sub("store"));
  CZarnFileSystem client;
  ASSERT_TRUE(client.initializeWithBackend(configFor(dir.sub("store")), local));
  ASSERT_TRUE(client.createBucket("media_7"));
  // A year of files, four a day, under year/month/day levels. Laid down on disk
  // directly (the layout is the local store's documented one) to keep it quick.
  int days = 0;
  for (std::time_t t = 1451606400; t < 1483228800; t += 86400, ++days) {  // 2016 in UTC
    char level[32];
    std::strftime(level, sizeof level, "store/media_7/%Y/%m/%d/", std::gmtime(&t));
    fs::create_directories(dir.sub(level));
    for (const char* t6 : {"000000_055959", "060000_115959", "120000_175959", "180000_235959"})
      std::ofstream(dir.sub(level) + t6 + "_1_0_1.qrv") << "x";
  }
  CBucket bucket = client.getBucket("media_7");
  ASSERT_TRUE(bucket.isValid());
  // Lists and returns the directories it opened.
  auto opened = [&](CNameList& names, const std::string& after, const std::string& upTo, uint32_t max) {
    const uint64_t before = local->directoriesOpened();
    EXPECT_TRUE(bucket.list(names, after, upTo, max)) << getErrorMsg();
    return local->directoriesOpened() - before;
  };
  // Two hours around midnight of 1 May, widened as a time query widens it:
  // bucket, year, two months, two days.
  CNameList names;
  const uint64_t query = opened(names, "2016/04/30/220000", "2016/05/01/021000", 2000);
  EXPECT_EQ(names, (CNameList{"2016/05/01/000000_055959_1_0_1.qrv"}));
  EXPECT_GE(query, 4u);
  EXPECT_LE(query, 6u);
  EXPECT_LE(opened(names, "", "", 3), 4u);  // the count bounds the walk as well
  EXPECT_EQ(names.size(), 3u);
  // An unbounded listing reads every level: the counter does see them.
  EXPECT_GE(opened(names, "", "", 100000), uint64_t{1 + 1 + 12 + 366});
  EXPECT_EQ(names.size(), 366u * 4);
  EXPECT_EQ(days, 366);
}

TEST(LocalStore, CrashLeftoversAreHiddenAndEmptyLevelsArePruned) {
  ZarnTest::TempDir dir;
  CZarnFileSystem client;
  ASSERT_TRUE(client.initialize(configFor(dir.sub("store"))));
  ASSERT_TRUE(client.createBucket("media_1"));
  fs::create_directories(dir.sub("store/media_1/2016/05"));
  std::ofstream(dir.sub("store/media_1/2016/05/.zarn-tmp.999.1.1")) << "partial";
  CNameList names;
  ASSERT_TRUE(client.getBucket("media_1").list(names, "", "", 100));
  EXPECT_TRUE(names.empty());
  uint64_t used = 1;
  ASSERT_TRUE(client.getBucket("media_1").getUsedCapacity(used));
  EXPECT_EQ(used, 0u);
  std::ofstream(dir.sub("store/media_1/2016/05/stray")) << "s";  // a foreign file does pin the bucket
  EXPECT_REFUSED(client.removeBucket("media_1"), ZARN_E_BUCKET_NOT_EMPTY);
  fs::remove(dir.sub("store/media_1/2016/05/stray"));
  EXPECT_TRUE(client.removeBucket("media_1")) << getErrorMsg();

  ASSERT_TRUE(client.createBucket("media_1"));
  ASSERT_NE(client.createFile("media_1/2016/05/01/a", 4, 1), nullptr);
  ASSERT_NE(client.createFile("media_1/2016/06/01/b", 4, 1), nullptr);
  ASSERT_TRUE(client.removeFile("media_1/2016/05/01/a"));
  EXPECT_FALSE(fs::exists(dir.sub("store/media_1/2016/05")));
  EXPECT_TRUE(fs::exists(dir.sub("store/media_1/2016/06/01")));
  ASSERT_TRUE(client.renameFile("media_1/2016/06/01/b", "media_1/b"));
  EXPECT_FALSE(fs::exists(dir.sub("store/media_1/2016")));
  EXPECT_TRUE(fs::is_directory(dir.sub("store/media_1")));
  ZarnFileStat st;  // a level is not a file
  ASSERT_TRUE(fs::create_directories(dir.sub("store/media_1/level")));
  EXPECT_REFUSED(client.getFileStat("media_1/level", st), ZARN_E_IS_DIRECTORY);
}

}  // namespace
