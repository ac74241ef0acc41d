#include "TestSupport.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <cstring>
#include <thread>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "MediaClientInternal.h"
#ifdef ZARN_WITH_CEPH
#include "CephStoreBackend.h"
#endif
#include "MediaContext.h"
#include "VeltoFrame.h"

extern char** environ;

namespace ZarnTest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/zarn-test-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) std::abort();
  m_path = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(m_path, ec);
}

LogCapture::LogCapture(Velto::Kandu::LogLevel level) : m_previousLevel(Velto::Kandu::getLogLevel()) {
  Velto::Kandu::setLogLevel(level);
  Velto::Kandu::setLogSink([this](Velto::Kandu::LogLevel, const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(line);
  });
}

LogCapture::~LogCapture() {
  Velto::Kandu::setLogSink(nullptr);
  Velto::Kandu::setLogLevel(m_previousLevel);
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

size_t LogCapture::count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  size_t n = 0;
  for (const auto& l : m_lines)
    if (l.find(text) != std::string::npos) ++n;
  return n;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

std::vector<uint8_t> makeFrame(uint8_t type, uint8_t subType, uint32_t sequence, uint32_t utcTime,
                               uint32_t payload, uint16_t msStamp) {
  const uint32_t length = Velto::Zarn::kMinFrameSize + payload;
  std::vector<uint8_t> f(length);
  Velto::Zarn::VeltoFrameHead head{};
  head.magic = Velto::Zarn::kFrameHeadMagic;
  head.type = type;
  head.subType = subType;
  head.sequence = sequence;
  head.length = length;
  Velto::Kandu::CTime t(utcTime);
  head.packedTime = Velto::Zarn::packFrameTime(t.getYear(), t.getMonth(), t.getDay(), t.getHour(), t.getMinute(),
                                               t.getSecond());
  head.msStamp = msStamp;
  std::memcpy(f.data(), &head, sizeof(head));
  Velto::Zarn::sealFrameHead(f.data());
  for (uint32_t i = 0; i < payload; ++i) f[24 + i] = static_cast<uint8_t>(sequence * 31 + i);
  const uint32_t tailMagic = Velto::Zarn::kFrameTailMagic;
  std::memcpy(f.data() + length - 8, &tailMagic, 4);
  std::memcpy(f.data() + length - 4, &length, 4);
  return f;
}

namespace {

class ConfigDirEnvironment : public ::testing::Environment {
 public:
  explicit ConfigDirEnvironment(std::string json) : m_json(std::move(json)) {}
  void SetUp() override {
    m_dir = std::make_unique<TempDir>();
    std::ofstream(m_dir->sub("MediaConfig.cfg")) << m_json;
    ASSERT_EQ(chdir(m_dir->path().c_str()), 0);
  }
  void TearDown() override {
    if (chdir("/") != 0) std::abort();
    m_dir.reset();
  }

 private:
  std::string m_json;
  std::unique_ptr<TempDir> m_dir;
};

}  // namespace

bool useConfigFileForProcess(const std::string& json) {
  ::testing::AddGlobalTestEnvironment(new ConfigDirEnvironment(json));
  return true;
}

std::shared_ptr<Velto::Zarn::CZarnFileSystem> openStore(const std::string& root,
                                                       std::shared_ptr<Velto::Zarn::IStoreBackend> backend) {
  auto fs = std::make_shared<Velto::Zarn::CZarnFileSystem>();
  EXPECT_TRUE(fs->initializeWithBackend(Velto::Zarn::Config{root.c_str(), 0, "root", ""}, std::move(backend)))
      << Velto::Zarn::getErrorMsg();
  return fs;
}

Velto::Zarn::FaultRule faultOn(Velto::Zarn::StoreOp op, uint32_t times, bool zeroBytes) {
  Velto::Zarn::FaultRule rule;
  rule.op = op;
  rule.times = times;
  rule.zeroBytes = zeroBytes;
  return rule;
}

FaultyLocalStore::FaultyLocalStore()
    : backend(std::make_shared<Velto::Zarn::CFaultInjectingBackend>(Velto::Zarn::makeLocalStoreBackend(root))),
      fs(openStore(root, backend)) {}

std::string recordPath(const Velto::Zarn::RecordFileName& name) {
  std::string path;
  EXPECT_TRUE(Velto::Zarn::generateRecordFileName(name, path));
  return path;
}

std::vector<Velto::Zarn::RecordFileName> listRecords(Velto::Zarn::CZarnFileSystem& fs, uint32_t sid) {
  using namespace Velto::Zarn;
  std::vector<RecordFileName> out;
  const std::string bucket = bucketName(sid, BUCKET_KIND_MEDIA);
  const CBucket handle = fs.getBucket(bucket);
  CFileList list;
  if (!handle.isValid() || !handle.list(list, "", "", 100000)) return out;
  for (const StoreEntry& e : list) {
    RecordFileName n;
    EXPECT_TRUE(parseRecordFileName(bucket + "/" + e.name, n)) << e.name;
    n.size = e.size;
    out.push_back(n);
  }
  return out;
}

std::string clusterRoot(const std::string& tag) {
  static std::atomic<int> tests{0};
  std::string root = env("ZARN_TEST_CEPH_ADDRESS");
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (root.empty()) return root;
  return root + "/" + tag + "-" + std::to_string(::getpid()) + "-" + std::to_string(Velto::Kandu::monotonicUs()) + "-" +
         std::to_string(tests++);
}

bool waitFor(const std::function<bool()>& condition, unsigned timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

Velto::Zarn::EngineEnv writerEnv(const Velto::Kandu::IClock& clock) {
  return Velto::Zarn::CMediaContext::instance().writerEnv(clock);
}

Velto::Zarn::EngineEnv readerEnv(const Velto::Kandu::IClock& clock) {
  return Velto::Zarn::CMediaContext::instance().readerEnv(clock);
}

SessionFrames readSession(Velto::Zarn::CMediaClientInternal& client, int session, bool keyOnly, bool reverse,
                          size_t limit, bool hostBuffer) {
  SessionFrames out;
  Velto::Zarn::VeltoFrame frame;
  if (hostBuffer) {
    const std::vector<uint8_t> seed = makeFrame(Velto::Zarn::FRAME_TYPE_I, 0, 0, 1767225600, 0);
    Velto::Zarn::VeltoFrame source;
    source.attach(seed.data());
    EXPECT_TRUE(frame.copyToBuffer(source, 1u << 20));
  }
  for (out.last = 1; out.frames.size() < limit;) {
    unsigned long long length = 0;
    int r = -2;
    waitFor([&] { return (r = client.readFrame(session, &frame, length, keyOnly, reverse)) != -2; }, 10000);
    if (r != 0 || length == 0) {
      out.last = r;
      break;
    }
    EXPECT_EQ(length, frame.head.length);
    out.frames.emplace_back(frame.frame, frame.frame + length);
  }
  return out;
}

std::vector<uint32_t> playSequences(Velto::Zarn::CMediaClientInternal& client, uint32_t sid, uint32_t b, uint32_t e,
                                    bool keyOnly, bool reverse) {
  const int session = client.addSession(sid, b, e, true);
  const SessionFrames read = readSession(client, session, keyOnly, reverse, 10000, true);
  EXPECT_EQ(read.last, 0) << "the session did not end: " << read.frames.size() << " frames";
  client.deleteSession(session);
  std::vector<uint32_t> seqs;
  for (const auto& f : read.frames) {
    seqs.push_back(reinterpret_cast<const Velto::Zarn::VeltoFrameHead*>(f.data())->sequence);
  }
  return seqs;
}

CChildProcess::CChildProcess(const std::vector<std::string>& argv, int fd3, unsigned answerMs) : m_answerMs(answerMs) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
  std::vector<char*> args;  // built before the spawn: the child of a threaded process only execs
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  // fd3 is not 3 itself, so dup2 really runs and the copy loses close-on-exec.
  if (fd3 >= 0) posix_spawn_file_actions_adddup2(&actions, fd3, 3);
  if (::posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), environ) != 0) m_pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  m_socket = fds[0];
  const timeval silence{static_cast<time_t>(answerMs / 1000), static_cast<suseconds_t>(answerMs % 1000 * 1000)};
  ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
}

void CChildProcess::send(const std::string& line) {
  (void)::send(m_socket, (line + "\n").data(), line.size() + 1, MSG_NOSIGNAL);
}

std::string CChildProcess::answer() {
  std::string line;
  for (char c = 0; ::recv(m_socket, &c, 1, 0) == 1; line += c) {
    if (c == '\n') return line;
  }
  return "<no answer>";
}

int CChildProcess::kill() {
  if (m_pid >= 0) ::kill(m_pid, SIGKILL);
  stop();
  return m_status;
}

int CChildProcess::stop() {
  if (m_socket >= 0) ::shutdown(m_socket, SHUT_WR);
  if (m_pid >= 0 && !waitFor([&] { return ::waitpid(m_pid, &m_status, WNOHANG) != 0; }, 3 * m_answerMs)) {
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, &m_status, 0);
    m_status = -1;
  }
  if (m_socket >= 0) ::close(m_socket);
  m_pid = m_socket = -1;
  return m_status != -1 && WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
}

bool initializePeerClient(Velto::Zarn::CMediaClientInternal& client, const std::string& address, uint64_t& clientId) {
  // Weak: the registry lives for the process, and a backend it kept would never
  // unmount, leaving a stale session that makes other clients wait for it.
  auto made = std::make_shared<std::weak_ptr<Velto::Zarn::IStoreBackend>>();
  Velto::Zarn::registerStoreBackend("testpeer", [address, made](const std::string&,
                                                                std::shared_ptr<Velto::Zarn::IStoreBackend>& out) {
    const int rc = Velto::Zarn::makeStoreBackend(address, out, nullptr);
    *made = out;
    return rc;
  });
  if (client.initialize(Velto::Zarn::Config{"testpeer://store", 0, "root", ""}, nullptr) != 0) return false;
  // Peers contend for one ledger file: on the loopback cluster a rename may
  // wait on another client's capabilities for longer than the default call
  // time-out, and a rename abandoned then may still happen later.
  const int32_t timeoutMs = kPeerCallTimeoutMs;
  client.storeForTest()->setOption(Velto::Zarn::ZARN_OPT_TIMEOUT_MS, &timeoutMs, sizeof(timeoutMs));
  clientId = 0;
#ifdef ZARN_WITH_CEPH
  if (auto* ceph = dynamic_cast<Velto::Zarn::CCephStoreBackend*>(made->lock().get())) clientId = ceph->clientId();
#endif
  return true;
}

}  // namespace ZarnTest

namespace {

// A store call abandoned at its time-out may still be inside the CephFS client
// library when a test program ends; that library's static destruction then
// pulls its state from under the call. A test program therefore ends right
// after its results are printed, without static destruction (a host that ends
// while calls hang has the same race; the library does not hide it).
class CQuickExit : public ::testing::EmptyTestEventListener {
  void OnTestProgramEnd(const ::testing::UnitTest& test) override {
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(test.Passed() ? 0 : 1);
  }
};

// End events reach listeners in reverse order: placed before the printer, the
// exit comes after the summary.
const bool kQuickExitInstalled = [] {
  ::testing::TestEventListeners& listeners = ::testing::UnitTest::GetInstance()->listeners();
  ::testing::TestEventListener* printer = listeners.Release(listeners.default_result_printer());
  listeners.Append(new CQuickExit);
  if (printer != nullptr) listeners.Append(printer);
  return true;
}();

}  // namespace
