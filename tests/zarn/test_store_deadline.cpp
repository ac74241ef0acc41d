// The call time-out over a store that stops answering: a local store behind the
// fault-injecting backend's hang rules, behind the deadline wrapper the CephFS
// store uses. A hung call that reached the caller would block the test for good.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "DeadlineBackend.h"
#include "FaultInjectingBackend.h"
#include "LocalStoreBackend.h"
#include "StoreTestKit.h"

using namespace Velto::Zarn;

namespace {

constexpr int32_t kTimeoutMs = 100;
constexpr uint32_t kPoolThreads = 3;

class StoreDeadline : public ::testing::Test {
 protected:
  void SetUp() override {
    m_faults = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(m_dir.path()));
    int32_t timeout = kTimeoutMs;
    ASSERT_TRUE(m_fs.setOption(ZARN_OPT_TIMEOUT_MS, &timeout, sizeof timeout));
    ASSERT_TRUE(m_fs.initializeWithBackend(Config{m_dir.path().c_str(), 0, "", ""},
                                           std::make_shared<CDeadlineBackend>(m_faults, m_pool)));
    ASSERT_TRUE(m_fs.createBucket("b")) << getErrorMsg();
    ASSERT_TRUE(put("b/old", "0123456789"));
  }

  void TearDown() override {
    releaseAndSettle();
    m_fs.close();
  }

  bool put(const std::string& path, const std::string& bytes) {
    auto f = m_fs.createFile(path, 1, 0);
    return f && f->write(bytes.data(), static_cast<uint32_t>(bytes.size())) == static_cast<int64_t>(bytes.size()) &&
           f->close();
  }

  void hang(StoreOp op) {
    FaultRule rule;
    rule.op = op;
    rule.hang = true;
    m_faults->addRule(rule);
  }

  // Ends the hangs and waits until every abandoned call has returned.
  void releaseAndSettle() {
    m_faults->releaseHangs();
    ASSERT_TRUE(ZarnTest::waitFor([&] { return m_pool.abandonedCount() == 0; }, 10000));
  }

  std::string contents(const std::string& path) {
    auto f = m_fs.openFile(path, StoreOpenMode::Read);
    if (!f) return "(cannot open)";
    std::string out;
    char buf[64];
    for (int64_t n; (n = f->read(buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    return out;
  }

  ZarnTest::TempDir m_dir;
  CStoreCallPool m_pool{kPoolThreads};  // outlives the client: its calls end before it goes
  std::shared_ptr<CFaultInjectingBackend> m_faults;
  CZarnFileSystem m_fs;
};

TEST_F(StoreDeadline, EveryKindOfCallTimesOutOnAHungStoreAndWorksOnceItAnswers) {
  struct Case {
    StoreOp op;
    std::function<bool(CZarnFileSystem&)> call;
  };
  const std::vector<Case> cases = {
      {StoreOp::CreateFile, [](CZarnFileSystem& fs) { return fs.createFile("b/new", 1, 0) != nullptr; }},
      {StoreOp::OpenFile, [](CZarnFileSystem& fs) { return fs.openFile("b/old", StoreOpenMode::Read) != nullptr; }},
      {StoreOp::StatFile, [](CZarnFileSystem& fs) { ZarnFileStat st; return fs.getFileStat("b/old", st); }},
      {StoreOp::RenameFile, [](CZarnFileSystem& fs) { return fs.renameFile("b/old", "b/moved"); }},
      {StoreOp::RemoveFile, [](CZarnFileSystem& fs) { return fs.removeFile("b/old"); }},
      {StoreOp::CreateBucket, [](CZarnFileSystem& fs) { return fs.createBucket("c"); }},
      {StoreOp::BucketExists, [](CZarnFileSystem& fs) { return fs.getBucket("b").isValid(); }},
      {StoreOp::ListBuckets, [](CZarnFileSystem& fs) { CNameList n; return fs.listBuckets(n); }},
      {StoreOp::List, [](CZarnFileSystem& fs) { CNameList n; return fs.getBucket("b").list(n, "", "", 10); }},
      {StoreOp::Capacity, [](CZarnFileSystem& fs) { SystemInfo i; return fs.getSystemInfo(i); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.op));
    hang(c.op);
    EXPECT_REFUSED(c.call(m_fs), ZARN_E_TIMEOUT);
    releaseAndSettle();
    m_faults->clearRules();
    // The store answers again; the late call did its work, or the retry does it now.
    if (c.op == StoreOp::CreateFile) {
      EXPECT_REFUSED(m_fs.createFile("b/new", 1, 0), ZARN_E_FILE_EXISTS);
      ZarnFileStat st;
      ASSERT_TRUE(m_fs.getFileStat("b/new", st));
      EXPECT_FALSE(st.openForWrite) << "the late create's handle was never closed";
    } else if (c.op == StoreOp::RenameFile) {
      EXPECT_TRUE(m_fs.renameFile("b/moved", "b/old")) << getErrorMsg();
    } else if (c.op == StoreOp::RemoveFile) {
      EXPECT_TRUE(put("b/old", "0123456789"));
    } else if (c.op == StoreOp::CreateBucket) {
      EXPECT_TRUE(m_fs.removeBucket("c")) << getErrorMsg();
    } else {
      EXPECT_TRUE(c.call(m_fs)) << getErrorMsg();
    }
  }
}

TEST_F(StoreDeadline, AFileWhoseCallTimedOutFailsFastKeepsTheCallersBytesOutAndIsClosedLate) {
  struct Case {
    StoreOp op;
    StoreOpenMode mode;
    std::function<bool(CFile&)> call;
  };
  const std::vector<Case> cases = {
      {StoreOp::FileWrite, StoreOpenMode::Write, [](CFile& f) { return f.write("abc", 3) >= 0; }},
      {StoreOp::FileRead, StoreOpenMode::Read, [](CFile& f) { char b[4]; return f.read(b, 4) >= 0; }},
      {StoreOp::FileSeek, StoreOpenMode::Read, [](CFile& f) { return f.seek(2, 0) >= 0; }},
      {StoreOp::FileTell, StoreOpenMode::Read, [](CFile& f) { return f.tell() >= 0; }},
      {StoreOp::FileStat, StoreOpenMode::Read, [](CFile& f) { ZarnFileStat st; return f.stat(st); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.op));
    auto file = m_fs.openFile("b/old", c.mode);
    ASSERT_NE(file, nullptr) << getErrorMsg();
    hang(c.op);
    EXPECT_REFUSED(c.call(*file), ZARN_E_TIMEOUT);
    // Stuck: later calls do not reach the store while the hung one runs.
    const uint64_t reached = m_faults->callCount(c.op);
    EXPECT_REFUSED(c.call(*file), ZARN_E_TIMEOUT);
    EXPECT_EQ(m_faults->callCount(c.op), reached);
    const uint64_t closes = m_faults->callCount(StoreOp::FileClose);
    EXPECT_REFUSED(file->close(), ZARN_E_TIMEOUT);
    EXPECT_EQ(m_faults->callCount(StoreOp::FileClose), closes) << "the close waited behind the hung call";
    releaseAndSettle();
    m_faults->clearRules();
    EXPECT_EQ(m_faults->callCount(StoreOp::FileClose), closes + 1) << "the handle was not closed after the hang";
    ZarnFileStat st;
    ASSERT_TRUE(m_fs.getFileStat("b/old", st));
    EXPECT_FALSE(st.openForWrite);
  }
  // The hung write sent a copy: the caller overwrote and freed its buffer at once.
  auto file = m_fs.createFile("b/w", 1, 0);
  ASSERT_NE(file, nullptr);
  hang(StoreOp::FileWrite);
  auto bytes = std::make_unique<char[]>(8);
  std::memcpy(bytes.get(), "original", 8);
  EXPECT_REFUSED(file->write(bytes.get(), 8) >= 0, ZARN_E_TIMEOUT);
  std::memset(bytes.get(), 'X', 8);
  bytes.reset();
  // And a hung read lands in a buffer of its own: the caller's is freed before the read ends.
  auto reader = m_fs.openFile("b/old", StoreOpenMode::Read);
  ASSERT_NE(reader, nullptr);
  hang(StoreOp::FileRead);
  std::vector<char> target(10, '.');
  EXPECT_REFUSED(reader->read(target.data(), 10) >= 0, ZARN_E_TIMEOUT);
  EXPECT_EQ(std::string(target.begin(), target.end()), "..........");
  target = std::vector<char>();
  releaseAndSettle();
  m_faults->clearRules();
  EXPECT_REFUSED(file->write("more", 4) >= 0, ZARN_E_IO);  // what reached the file is unknown
  file.reset();
  reader.reset();
  EXPECT_EQ(contents("b/w"), "original");
}

TEST_F(StoreDeadline, CallsFailFastOnceEveryWorkerIsHeldAndTheProbeReportsTheStoreLost) {
  hang(StoreOp::StatFile);
  ZarnFileStat st;
  for (uint32_t i = 0; i < kPoolThreads; ++i) EXPECT_REFUSED(m_fs.getFileStat("b/old", st), ZARN_E_TIMEOUT);
  EXPECT_EQ(m_pool.abandonedCount(), kPoolThreads);
  // No worker left: refused without a try, and no thread beyond the bound.
  EXPECT_REFUSED(m_fs.getFileStat("b/old", st), ZARN_E_UNAVAILABLE);
  EXPECT_EQ(m_faults->callCount(StoreOp::StatFile), kPoolThreads);
  EXPECT_EQ(m_pool.threadCount(), kPoolThreads);
  releaseAndSettle();
  m_faults->clearRules();
  EXPECT_TRUE(m_fs.getFileStat("b/old", st)) << getErrorMsg();

  // The state monitor's probe hangs as well: reported lost, then usable again.
  ZarnTest::CStateRecorder states;
  m_fs.setListener(&states);
  int32_t period = 20;
  ASSERT_TRUE(m_fs.setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof period));
  hang(StoreOp::ProbeHealth);
  EXPECT_TRUE(ZarnTest::waitFor([&] { return m_fs.getState() == ZARN_STATE_FAILED; }, 10000));
  EXPECT_EQ(m_faults->hangingCalls(), 1u) << "a probe per period was left hanging";
  releaseAndSettle();
  EXPECT_TRUE(ZarnTest::waitFor([&] { return m_fs.getState() == ZARN_STATE_NORMAL; }, 10000));
  m_fs.setListener(nullptr);
  EXPECT_EQ(states.states(), (std::vector<int>{ZARN_STATE_FAILED, ZARN_STATE_NORMAL}));
}

}  // namespace
