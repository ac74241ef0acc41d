// The contract every store backend keeps, run through the store client against
// each backend. A new backend joins by adding a case to kBackends.
//
// Checks that need a second client run zarn_store_peer (store_peer.cpp): a
// process of its own that connects by address, so a distributed store sees two
// independent mounts, as it does in production.
//
// The Ceph case runs against the cluster scripts/ceph-cluster-start.sh describes
// in its zarn-test.env:
//   ZARN_TEST_CEPH_ADDRESS  ceph://host:port/root; each test gets root/t<pid>-<n>
//   ZARN_CEPH_CONF          read by the backend itself (peers inherit it)
//   ZARN_TEST_CEPH_DIR      the cluster directory, for evicting a killed peer
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <numeric>
#include <set>
#include <thread>

#include "FaultInjectingBackend.h"
#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "TestSupport.h"
#include "ZarnClient.h"

extern char** environ;

using namespace Velto::Zarn;

namespace {

// The peer's gate descriptor (see store_peer.cpp).
constexpr int kPeerGateFd = 3;
// How long a peer may take to answer one command (a Ceph mount included).
constexpr unsigned kAnswerMs = 15000;

struct BackendCase {
  std::string name;
  // The address of a fresh, empty store for one test. Sets `skip` (and returns
  // "") when the case cannot run here.
  std::function<std::string(const ZarnTest::TempDir& scratch, std::string& skip)> freshAddress;
  // The backend this process uses for the address; peers always connect by the
  // address itself.
  std::function<int(const std::string& address, std::shared_ptr<IStoreBackend>& out, std::string* reason)> make;
  std::string userName;
  // The store is a directory of this machine that a test may look into.
  bool localDirectory = true;
  // A killed client keeps its claims until its session times out or is evicted.
  bool evictKilledClients = false;
  // How long bucket usage may lag the writes (0: it never lags), in ms.
  unsigned usageLagMs = 0;
  // Create+remove cycles of the level-pruning race.
  int pruneCycles = 300;
  // The marker test runs every n-th (after, upTo, max) combination.
  size_t listingStride = 1;
};

void PrintTo(const BackendCase& c, std::ostream* os) { *os << c.name; }

std::string localAddress(const ZarnTest::TempDir& scratch, std::string&) { return scratch.sub("store"); }

std::string cephAddress(const ZarnTest::TempDir&, std::string& skip) {
  const char* root = std::getenv("ZARN_TEST_CEPH_ADDRESS");
  if (root == nullptr || *root == '\0') {
    skip = "no Ceph cluster configured: start one with scripts/ceph-cluster-start.sh and source its zarn-test.env";
    return "";
  }
  static std::atomic<int> tests{0};
  std::string address = root;
  while (!address.empty() && address.back() == '/') address.pop_back();
  return address + "/t" + std::to_string(::getpid()) + "-" + std::to_string(tests++);
}

const BackendCase kBackends[] = {
    {.name = "Local",
     .freshAddress = localAddress,
     .make = [](const std::string& address, std::shared_ptr<IStoreBackend>& out,
                std::string*) { out = makeLocalStoreBackend(address); return 0; },
     .userName = "root"},
    {.name = "FaultInjectingPassThrough",
     .freshAddress = localAddress,
     .make =
         [](const std::string& address, std::shared_ptr<IStoreBackend>& out, std::string*) {
           out = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(address), 7);
           return 0;
         },
     .userName = "root"},
    // Metadata calls take milliseconds here (a few hundred create-to-unlink
    // cycles a second), so the long loops run shorter.
    {.name = "Ceph",
     .freshAddress = cephAddress,
     .make = [](const std::string& address, std::shared_ptr<IStoreBackend>& out,
                std::string* reason) { return makeStoreBackend(address, out, reason); },
     .userName = "",
     .localDirectory = false,
     .evictKilledClients = true,
     .usageLagMs = 90000,
     .pruneCycles = 100,
     .listingStride = 23},
};

std::string err(int32_t code) { return "err " + std::to_string(code); }

// Waits up to `timeoutMs` for a child; its exit code, or -1 when it did not
// exit normally (it is killed when it overstays).
int reap(pid_t pid, unsigned timeoutMs) {
  int status = 0;
  pid_t got = 0;
  ZarnTest::waitFor([&] { return (got = ::waitpid(pid, &status, WNOHANG)) != 0; }, timeoutMs);
  if (got == 0) {
    ::kill(pid, SIGKILL);
    got = ::waitpid(pid, &status, 0);
    return -1;
  }
  if (got != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Starts a program with this process's environment; `stdio` (if >= 0) becomes
// its stdin and stdout, `gate` (if >= 0) its descriptor kPeerGateFd. Every
// other descriptor this suite opens is close-on-exec. -1 when it cannot start.
pid_t spawn(const std::vector<std::string>& args, int stdio, int gate) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (stdio >= 0) {
    posix_spawn_file_actions_adddup2(&actions, stdio, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, stdio, STDOUT_FILENO);
  }
  // The gate descriptor is never kPeerGateFd itself (see CGate), so dup2
  // really runs and the copy loses close-on-exec.
  if (gate >= 0) posix_spawn_file_actions_adddup2(&actions, gate, kPeerGateFd);
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

// Parks peers and releases them at one moment: each peer blocked in "wait"
// takes one byte of this pipe, and one write hands out a byte to every one of
// them. This process keeps the read end too, so writing never raises SIGPIPE.
class CGate {
 public:
  CGate() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;
    m_read = ::fcntl(fds[0], F_DUPFD_CLOEXEC, kPeerGateFd + 1);
    ::close(fds[0]);
    m_write = fds[1];
  }
  ~CGate() {
    if (m_read >= 0) ::close(m_read);
    if (m_write >= 0) ::close(m_write);
  }
  CGate(const CGate&) = delete;
  CGate& operator=(const CGate&) = delete;
  int readEnd() const { return m_read; }
  bool release(size_t peers) {
    std::string bytes(peers, 'g');
    return m_write >= 0 && ::write(m_write, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }

 private:
  int m_read = -1;
  int m_write = -1;
};

// One zarn_store_peer process and the socket it reads commands from and
// answers on.
class CPeerProcess {
 public:
  CPeerProcess() = default;
  ~CPeerProcess() { stop(); }
  CPeerProcess(const CPeerProcess&) = delete;
  CPeerProcess& operator=(const CPeerProcess&) = delete;

  // Starts the peer on `address`; it answers "ok" once connected. false when
  // it cannot start.
  bool launch(const std::string& address, const std::string& user, int gateFd) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return false;
    m_pid = spawn({ZARN_STORE_PEER, address, user}, fds[1], gateFd);
    ::close(fds[1]);
    m_socket = fds[0];
    return m_pid >= 0;
  }

  void send(const std::string& line) {
    std::string text = line + "\n";
    size_t done = 0;
    while (done < text.size()) {
      ssize_t n = ::send(m_socket, text.data() + done, text.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return;  // the peer is gone; answer() reports it
      done += static_cast<size_t>(n);
    }
  }

  // The next answer line; "<no answer>" when the peer is gone or silent for kAnswerMs.
  std::string answer() {
    const uint64_t deadline = Velto::Kandu::monotonicMs() + kAnswerMs;
    while (true) {
      size_t eol = m_buffer.find('\n');
      if (eol != std::string::npos) {
        std::string line = m_buffer.substr(0, eol);
        m_buffer.erase(0, eol + 1);
        return line;
      }
      uint64_t now = Velto::Kandu::monotonicMs();
      if (m_socket < 0 || now >= deadline) return "<no answer>";
      pollfd p{m_socket, POLLIN, 0};
      int ready = ::poll(&p, 1, static_cast<int>(deadline - now));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) return "<no answer>";
      char buf[4096];
      ssize_t n = ::recv(m_socket, buf, sizeof buf, 0);
      if (n <= 0) return "<no answer>";
      m_buffer.append(buf, static_cast<size_t>(n));
    }
  }

  std::string ask(const std::string& line) {
    send(line);
    return answer();
  }

  // SIGKILL: the peer gets no chance to close anything.
  void kill() {
    if (m_pid < 0) return;
    ::kill(m_pid, SIGKILL);
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
  }

  bool running() const { return m_pid >= 0; }

  // Ends the peer's input and waits for it to close its file and connection:
  // its exit code, -1 when it did not exit normally.
  int stop() {
    if (m_socket >= 0) ::shutdown(m_socket, SHUT_WR);
    // A peer unmounts before it exits, which may take a store time-out.
    int rc = m_pid >= 0 ? reap(m_pid, 3 * kAnswerMs) : -1;
    m_pid = -1;
    if (m_socket >= 0) ::close(m_socket);
    m_socket = -1;
    return rc;
  }

 private:
  pid_t m_pid = -1;
  int m_socket = -1;
  std::string m_buffer;  // received, not yet answered
};

class StoreConformance : public ::testing::TestWithParam<BackendCase> {
 protected:
  void SetUp() override {
    const BackendCase& c = GetParam();
    std::string skip;
    m_address = c.freshAddress(m_dir, skip);
    if (!skip.empty()) GTEST_SKIP() << skip;
    std::string reason;
    int rc = c.make(m_address, m_backend, &reason);
    if (rc == ZARN_E_UNSUPPORTED) GTEST_SKIP() << "this build has no " << c.name << " backend (" << reason << ")";
    ASSERT_EQ(rc, 0) << reason;
    Config config{m_address.c_str(), 0, c.userName.c_str(), ""};
    ASSERT_TRUE(m_fs.initializeWithBackend(config, m_backend)) << getErrorMsg();
    ASSERT_TRUE(m_fs.createBucket("media_1")) << getErrorMsg();
  }

  void TearDown() override {
    for (auto& peer : m_peers) {
      if (peer->running()) {
        EXPECT_EQ(peer->stop(), 0) << "a peer did not end cleanly";
      }
    }
    // A local store goes with its temporary directory; a cluster keeps what a
    // test leaves, so empty it (the empty store root stays).
    if (!GetParam().localDirectory && m_fs.isInitialized()) wipeStore();
  }

  void wipeStore() {
    CNameList buckets;
    if (!m_fs.listBuckets(buckets)) return;
    for (const std::string& bucket : buckets) {
      CBucket b = m_fs.getBucket(bucket);
      CNameList names;
      while (b.isValid() && b.list(names, "", "", 1000) && !names.empty()) {
        size_t removed = 0;
        for (const std::string& n : names) removed += m_fs.removeFile(bucket + "/" + n);
        if (removed == 0) break;
        names.clear();
      }
      // Best effort: what cannot be removed stays in the test's own store root.
      (void)m_fs.removeBucket(bucket);
    }
  }

  // Starts `count` more peers on this test's store, all sharing the gate, and
  // waits until each is connected (they connect in parallel).
  bool startPeers(size_t count) {
    const size_t first = m_peers.size();
    for (size_t i = 0; i < count; ++i) {
      m_peers.push_back(std::make_unique<CPeerProcess>());
      if (!m_peers.back()->launch(m_address, GetParam().userName, m_gate.readEnd())) {
        ADD_FAILURE() << "cannot start " ZARN_STORE_PEER;
        return false;
      }
    }
    bool connected = true;
    for (size_t i = first; i < m_peers.size(); ++i) {
      std::string hello = m_peers[i]->answer();
      if (hello != "ok") {
        ADD_FAILURE() << "peer " << i << " on '" << m_address << "' answered: " << hello;
        connected = false;
      }
    }
    return connected;
  }

  // Runs commands[i] on peer i all at once: every peer is parked at the gate
  // with its command already sent, then one write releases them together. The
  // answers in peer order.
  std::vector<std::string> race(const std::vector<std::string>& commands) {
    for (size_t i = 0; i < commands.size(); ++i) m_peers[i]->send("wait\n" + commands[i]);
    for (size_t i = 0; i < commands.size(); ++i) EXPECT_EQ(m_peers[i]->answer(), "ok") << "peer " << i << " at the gate";
    EXPECT_TRUE(m_gate.release(commands.size()));
    std::vector<std::string> answers;
    for (size_t i = 0; i < commands.size(); ++i) answers.push_back(m_peers[i]->answer());
    return answers;
  }

  // `condition` now, or within the backend's lag for bucket usage.
  bool settles(const std::function<bool()>& condition) {
    unsigned lag = GetParam().usageLagMs;
    return lag == 0 ? condition() : ZarnTest::waitFor(condition, lag);
  }

  bool put(const std::string& path, const std::string& content) {
    auto file = m_fs.createFile(path, 4, 1);
    if (!file) return false;
    size_t done = 0;
    while (done < content.size()) {
      int64_t n = file->write(content.data() + done, static_cast<uint32_t>(content.size() - done));
      if (n < 0) return false;
      done += static_cast<size_t>(n);
    }
    return file->close();
  }

  std::string get(const std::string& path) {
    auto file = m_fs.openFile(path, StoreOpenMode::Read);
    if (!file) return "<open failed " + std::to_string(getLastError()) + ">";
    std::string out;
    char buf[4096];
    while (true) {
      int64_t n = file->read(buf, sizeof buf);
      if (n > 0) {
        out.append(buf, static_cast<size_t>(n));
        continue;
      }
      if (n < 0 && getLastError() != ZARN_E_EOF) return "<read failed " + std::to_string(getLastError()) + ">";
      break;
    }
    return out;
  }

  CNameList listAll(const std::string& bucket, const std::string& after = "", const std::string& upTo = "",
                    uint32_t max = 100000) {
    CBucket b = m_fs.getBucket(bucket);
    CNameList names;
    EXPECT_TRUE(b.isValid()) << getErrorMsg();
    EXPECT_TRUE(b.list(names, after, upTo, max)) << getErrorMsg();
    return names;
  }

  ZarnTest::TempDir m_dir;
  std::string m_address;
  std::shared_ptr<IStoreBackend> m_backend;
  CZarnFileSystem m_fs;
  CGate m_gate;
  std::vector<std::unique_ptr<CPeerProcess>> m_peers;
};

TEST_P(StoreConformance, ExclusiveCreateAdmitsExactlyOneCreator) {
  ASSERT_TRUE(put("media_1/2016/05/01/120000_1.qrv", "first"));
  EXPECT_EQ(m_fs.createFile("media_1/2016/05/01/120000_1.qrv", 4, 1), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_FILE_EXISTS);
  EXPECT_EQ(get("media_1/2016/05/01/120000_1.qrv"), "first");

  EXPECT_EQ(m_fs.createFile("media_9/x.qrv", 4, 1), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);

  for (int round = 0; round < 10; ++round) {
    const std::string path = "media_1/race/" + std::to_string(round) + "/target";
    std::atomic<int> winners{0}, exists{0}, other{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        auto f = m_fs.createFile(path, 4, 1);
        if (f) {
          ++winners;
          std::string mark = "by " + std::to_string(t);
          f->write(mark.data(), static_cast<uint32_t>(mark.size()));
          f->close();
        } else if (getLastError() == ZARN_E_FILE_EXISTS) {
          ++exists;
        } else {
          ++other;
        }
      });
    }
    go = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(exists.load(), 5);
    EXPECT_EQ(other.load(), 0);
    EXPECT_EQ(get(path).rfind("by ", 0), 0u);
  }
}

TEST_P(StoreConformance, ACreatedFileIsNeverSeenWithoutItsWriter) {
  constexpr int kFiles = 60;
  std::vector<std::unique_ptr<CFile>> handles;
  std::atomic<bool> creating{true};
  std::atomic<int> seenClosed{0}, looked{0};
  std::thread observer([&] {
    CBucket b = m_fs.getBucket("media_1");
    while (creating.load()) {
      CNameList names;
      if (!b.list(names, "", "", 1000)) continue;
      for (const std::string& n : names) {
        ZarnFileStat st;
        if (!m_fs.getFileStat("media_1/" + n, st)) continue;
        ++looked;
        if (!st.openForWrite) ++seenClosed;
      }
    }
  });
  for (int i = 0; i < kFiles; ++i) {
    auto f = m_fs.createFile("media_1/live/" + std::to_string(i), 4, 1);
    ASSERT_NE(f, nullptr) << getErrorMsg();
    handles.push_back(std::move(f));  // every handle stays open until the observer stops
  }
  ZarnTest::waitFor([&] { return looked.load() >= kFiles; }, 10000);
  creating = false;
  observer.join();
  EXPECT_GT(looked.load(), 0);
  EXPECT_EQ(seenClosed.load(), 0);
  for (auto& h : handles) EXPECT_TRUE(h->close());
}

TEST_P(StoreConformance, RenameNeverReplacesAndNeedsItsSource) {
  ASSERT_TRUE(put("media_1/a", "A"));
  ASSERT_TRUE(put("media_1/b", "B"));
  EXPECT_FALSE(m_fs.renameFile("media_1/a", "media_1/b"));
  EXPECT_EQ(getLastError(), ZARN_E_FILE_EXISTS);
  EXPECT_EQ(get("media_1/a"), "A");
  EXPECT_EQ(get("media_1/b"), "B");
  EXPECT_FALSE(m_fs.renameFile("media_1/a", "media_1/a"));
  EXPECT_EQ(getLastError(), ZARN_E_FILE_EXISTS);

  EXPECT_FALSE(m_fs.renameFile("media_1/missing", "media_1/c"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_FILE);
  EXPECT_FALSE(m_fs.renameFile("media_1/a", "media_7/a"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);

  // Across buckets and into levels that do not exist yet; the source's levels go.
  ASSERT_TRUE(put("media_1/2016/05/01/235930_1.qrv", "rec"));
  ASSERT_TRUE(m_fs.createBucket("forgotten_1"));
  ASSERT_TRUE(m_fs.renameFile("media_1/2016/05/01/235930_1.qrv", "forgotten_1/2016/05/01/235930_001205_1_0_1.qrv"))
      << getErrorMsg();
  EXPECT_EQ(get("forgotten_1/2016/05/01/235930_001205_1_0_1.qrv"), "rec");
  EXPECT_EQ(listAll("media_1"), (CNameList{"a", "b"}));
  EXPECT_EQ(listAll("forgotten_1"), (CNameList{"2016/05/01/235930_001205_1_0_1.qrv"}));
  EXPECT_FALSE(m_fs.renameFile("media_1/2016/05/01/235930_1.qrv", "media_1/z"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_FILE);
}

TEST_P(StoreConformance, OneOfManyConcurrentRenamesWins) {
  for (int round = 0; round < 20; ++round) {
    const std::string src = "media_1/ledger_" + std::to_string(round);
    ASSERT_TRUE(put(src, "L"));
    std::atomic<int> wins{0}, lost{0}, other{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        if (m_fs.renameFile(src, "media_1/next/" + std::to_string(round) + "_" + std::to_string(t))) {
          ++wins;
        } else if (getLastError() == ZARN_E_NO_SUCH_FILE) {
          ++lost;
        } else {
          ++other;
        }
      });
    }
    go = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(wins.load(), 1) << "round " << round;
    EXPECT_EQ(lost.load(), 5) << "round " << round;
    EXPECT_EQ(other.load(), 0) << "round " << round;
  }
  EXPECT_EQ(listAll("media_1", "next/", "next/\xff").size(), 20u);
  EXPECT_TRUE(listAll("media_1", "", "ledger_\xff").empty());
}

TEST_P(StoreConformance, ListingIsInByteOrderOfTheWholeName) {
  // '-' < '.' < '/' < '0': a walk that lists a directory's subtree where the
  // directory's own name sorts would put "a/..." before "a-c" and "a.d".
  const std::vector<std::string> names = {"a0", "a/c/d0", "b", "a-c", "a/b", "A", "a/c-e", "a.d", "a/c/d", "z/z/z"};
  for (const std::string& n : names) ASSERT_TRUE(put("media_1/" + n, n)) << n;
  CNameList expected(names.begin(), names.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listAll("media_1"), expected);

  CFileList withSizes;
  ASSERT_TRUE(m_fs.getBucket("media_1").list(withSizes, "", "", 1000));
  ASSERT_EQ(withSizes.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(withSizes[i].name, expected[i]);
    EXPECT_EQ(withSizes[i].size, expected[i].size());
  }
}

TEST_P(StoreConformance, MarkersAndCountsMatchAReferenceModel) {
  std::set<std::string> model;
  for (int month : {1, 2, 12}) {
    for (int day : {1, 9, 10, 31}) {
      for (const char* t : {"000000_1.qrv", "120000_001500_1_0_1.qrv", "120000_001500_1_0_0.index", "235959_1.qrv"}) {
        char name[64];
        std::snprintf(name, sizeof name, "2016/%02d/%02d/%s", month, day, t);
        model.insert(name);
      }
    }
  }
  model.insert("2016/01/01-x");
  model.insert("2017");
  model.insert("lockSize_12_1463000000123456.temp");
  for (const std::string& n : model) ASSERT_TRUE(put("media_1/" + n, "")) << n;
  const std::vector<std::string> sorted(model.begin(), model.end());

  std::vector<std::string> markers = {"", "2016", "2016/", "2016/01", "2016/01/", "2016/01/01", "2016/01/01/",
                                      "2016/02/09/1", "2016/12/31/\xff", "2017", "2017/", "lockSize_", "lockSize_z",
                                      "\xff"};
  for (size_t i = 0; i < sorted.size(); i += 5) {
    markers.push_back(sorted[i]);
    markers.push_back(sorted[i].substr(0, sorted[i].size() - 1));
    markers.push_back(sorted[i] + "\x01");
  }
  // A slow store runs an evenly spread share of the combinations: the stride is
  // prime to the inner loops' sizes, so every marker still appears as `after`
  // and as `upTo`, and with every count.
  const size_t stride = GetParam().listingStride;
  ASSERT_EQ(std::gcd(markers.size() * 3, stride), 1u) << "choose a stride prime to " << markers.size() * 3;
  size_t combination = 0;
  for (const std::string& after : markers) {
    for (const std::string& upTo : markers) {
      for (uint32_t max : {1u, 3u, 1000u}) {
        if (combination++ % stride != 0) continue;
        CNameList want;
        for (const std::string& n : sorted) {
          if (!after.empty() && n <= after) continue;
          if (!upTo.empty() && n > upTo) continue;
          if (want.size() < max) want.push_back(n);
        }
        ASSERT_EQ(listAll("media_1", after, upTo, max), want)
            << "after '" << after << "' upTo '" << upTo << "' max " << max;
      }
    }
  }

  // Paging by the last name of each full page walks everything exactly once.
  CNameList paged;
  std::string marker;
  while (true) {
    CNameList page = listAll("media_1", marker, "", 7);
    paged.insert(paged.end(), page.begin(), page.end());
    if (page.size() < 7) break;
    marker = page.back();
  }
  EXPECT_EQ(paged, CNameList(sorted.begin(), sorted.end()));
  EXPECT_TRUE(listAll("media_1", "", "", 0).empty());
}

TEST_P(StoreConformance, BucketsAreMadeListedAndRemovedOnlyWhenEmpty) {
  EXPECT_FALSE(m_fs.createBucket("media_1"));
  EXPECT_EQ(getLastError(), ZARN_E_BUCKET_EXISTS);
  CBucket missing = m_fs.getBucket("media_2");
  EXPECT_FALSE(missing.isValid());
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);
  EXPECT_FALSE(m_fs.removeBucket("media_2"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);

  ASSERT_TRUE(m_fs.createBucket("media_system"));
  ASSERT_TRUE(m_fs.createBucket("forgotten_1"));
  CNameList buckets;
  ASSERT_TRUE(m_fs.listBuckets(buckets));
  EXPECT_EQ(buckets, (CNameList{"forgotten_1", "media_1", "media_system"}));

  ASSERT_TRUE(put("media_1/2016/05/01/000000_1.qrv", std::string(1000, 'x')));
  ASSERT_TRUE(put("media_1/2016/05/02/000000_1.qrv", std::string(234, 'y')));
  uint64_t used = 0;
  EXPECT_TRUE(settles([&] { return m_fs.getBucket("media_1").getUsedCapacity(used) && used == 1234u; }))
      << getErrorMsg();
  EXPECT_EQ(used, 1234u);

  EXPECT_FALSE(m_fs.removeBucket("media_1"));
  EXPECT_EQ(getLastError(), ZARN_E_BUCKET_NOT_EMPTY);
  ASSERT_TRUE(m_fs.removeFile("media_1/2016/05/01/000000_1.qrv"));
  EXPECT_FALSE(m_fs.removeBucket("media_1"));
  EXPECT_EQ(getLastError(), ZARN_E_BUCKET_NOT_EMPTY);
  ASSERT_TRUE(m_fs.removeFile("media_1/2016/05/02/000000_1.qrv"));
  EXPECT_FALSE(m_fs.removeFile("media_1/2016/05/02/000000_1.qrv"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_FILE);
  ASSERT_TRUE(m_fs.removeBucket("media_1")) << getErrorMsg();
  EXPECT_FALSE(m_fs.getBucket("media_1").isValid());

  // A bucket left with empty levels (files renamed away) is empty.
  ASSERT_TRUE(put("forgotten_1/2016/05/01/000000_1.qrv", "f"));
  ASSERT_TRUE(m_fs.renameFile("forgotten_1/2016/05/01/000000_1.qrv", "media_system/moved"));
  EXPECT_TRUE(m_fs.removeBucket("forgotten_1")) << getErrorMsg();
}

TEST_P(StoreConformance, OpenForWriteIsVisibleUntilTheWriterCloses) {
  const std::string path = "media_1/2016/05/01/100000_1.qrv";
  auto writer = m_fs.createFile(path, 4, 1);
  ASSERT_NE(writer, nullptr);
  ASSERT_EQ(writer->write("0123456789", 10), 10);

  ZarnFileStat st;
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(st.size, 10u);
  EXPECT_NEAR(static_cast<double>(st.modifyTime), static_cast<double>(time(nullptr)), 120.0);

  EXPECT_EQ(m_fs.openFile(path, StoreOpenMode::Write), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_BUSY);

  auto reader = m_fs.openFile(path, StoreOpenMode::Read);
  ASSERT_NE(reader, nullptr);
  char buf[64];
  ASSERT_EQ(reader->read(buf, sizeof buf), 10);
  EXPECT_EQ(reader->read(buf, sizeof buf), 0);  // at the end, but more may come
  ASSERT_TRUE(reader->stat(st));
  EXPECT_TRUE(st.openForWrite);

  ASSERT_EQ(writer->write("abc", 3), 3);
  ASSERT_EQ(reader->read(buf, sizeof buf), 3);
  EXPECT_EQ(std::string(buf, 3), "abc");
  ASSERT_TRUE(writer->close());

  setLastError(ZARN_OK);
  EXPECT_EQ(reader->read(buf, sizeof buf), -1);
  EXPECT_EQ(getLastError(), ZARN_E_EOF);
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_FALSE(st.openForWrite);
  EXPECT_EQ(st.size, 13u);

  // Reopened for writing, the file appends and is claimed again.
  auto again = m_fs.openFile(path, StoreOpenMode::Write);
  ASSERT_NE(again, nullptr) << getErrorMsg();
  ASSERT_EQ(again->write("!", 1), 1);
  EXPECT_EQ(again->tell(), 14);
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(reader->read(buf, sizeof buf), 1);
  EXPECT_EQ(reader->read(buf, sizeof buf), 0);
  ASSERT_TRUE(again->close());
  EXPECT_EQ(get(path), "0123456789abc!");

  EXPECT_EQ(reader->write("x", 1), -1);
  EXPECT_EQ(getLastError(), ZARN_E_BAD_MODE);
  EXPECT_TRUE(reader->close());
  EXPECT_FALSE(reader->close());
  EXPECT_EQ(getLastError(), ZARN_E_BAD_MODE);
}

TEST_P(StoreConformance, SeekAndTellMoveWithinTheFile) {
  ASSERT_TRUE(put("media_1/seek", "0123456789"));
  auto f = m_fs.openFile("media_1/seek", StoreOpenMode::Read);
  ASSERT_NE(f, nullptr);
  char buf[4];
  EXPECT_EQ(f->seek(3, 0), 3);
  ASSERT_EQ(f->read(buf, 4), 4);
  EXPECT_EQ(std::string(buf, 4), "3456");
  EXPECT_EQ(f->tell(), 7);
  EXPECT_EQ(f->seek(-2, 2), 8);
  EXPECT_EQ(f->seek(1, 1), 9);
  ASSERT_EQ(f->read(buf, 4), 1);
  EXPECT_EQ(buf[0], '9');
  EXPECT_EQ(f->seek(-100, 0), -1);
  EXPECT_EQ(getLastError(), ZARN_E_INVALID_ARGUMENT);
  EXPECT_EQ(f->seek(0, 3), -1);
  EXPECT_EQ(getLastError(), ZARN_E_INVALID_ARGUMENT);
}

TEST_P(StoreConformance, NamesThatCouldLeaveTheBucketAreRefused) {
  ASSERT_TRUE(put("media_1/ok", "x"));
  std::string overlong;  // short components, too long a name
  while (overlong.size() < 1100) overlong += "abcdefghi/";
  overlong += "z";
  const std::string bad[] = {"",
                             "media_1",
                             "media_1/",
                             "/media_1/x",
                             "media_1//x",
                             "media_1/../x",
                             "media_1/a/../../x",
                             "media_1/./x",
                             "media_1/.hidden",
                             "media_1/x/",
                             "../media_1/x",
                             ".media_1/x",
                             std::string("media_1/a\0b", 11),
                             "media_1/" + std::string(256, 'n'),
                             "media_1/" + overlong};
  for (const std::string& p : bad) {
    EXPECT_EQ(m_fs.createFile(p, 4, 1), nullptr) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    EXPECT_EQ(m_fs.openFile(p, StoreOpenMode::Read), nullptr) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    ZarnFileStat st;
    EXPECT_FALSE(m_fs.getFileStat(p, st)) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    EXPECT_FALSE(m_fs.removeFile(p)) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    EXPECT_FALSE(m_fs.renameFile("media_1/ok", p)) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
  }
  for (const std::string& b : {std::string(""), std::string(".."), std::string("a/b"), std::string(".x")}) {
    EXPECT_FALSE(m_fs.createBucket(b)) << b;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << b;
    EXPECT_FALSE(m_fs.getBucket(b).isValid()) << b;
  }
  // Nothing appeared in the store...
  CNameList buckets;
  ASSERT_TRUE(m_fs.listBuckets(buckets));
  EXPECT_EQ(buckets, CNameList{"media_1"});
  EXPECT_EQ(listAll("media_1"), CNameList{"ok"});
  EXPECT_EQ(get("media_1/ok"), "x");
  // ...nor beside its root, where only a local store can be looked at.
  if (GetParam().localDirectory) {
    std::vector<std::string> beside;
    for (const auto& e : std::filesystem::directory_iterator(m_dir.path())) beside.push_back(e.path().filename());
    EXPECT_EQ(beside, std::vector<std::string>{"store"});
  }
}

TEST_P(StoreConformance, CapacityCapBoundsTotalAndFree) {
  SystemInfo raw{};
  ASSERT_TRUE(m_fs.getSystemInfo(raw)) << getErrorMsg();
  EXPECT_GT(raw.totalCapacity, 0u);
  EXPECT_LE(raw.freeCapacity, raw.totalCapacity);

  uint64_t cap = 1 << 20;
  ASSERT_TRUE(m_fs.setOption(ZARN_OPT_CAPACITY_LIMIT, &cap, sizeof cap));
  SystemInfo before{};
  ASSERT_TRUE(m_fs.getSystemInfo(before));
  EXPECT_EQ(before.totalCapacity, cap);
  EXPECT_EQ(before.freeCapacity, cap);
  ASSERT_TRUE(put("media_1/big", std::string(300000, 'b')));
  ASSERT_TRUE(put("media_1/2016/small", std::string(1000, 's')));
  SystemInfo after{};
  ASSERT_TRUE(m_fs.getSystemInfo(after));
  EXPECT_EQ(after.totalCapacity, cap);
  EXPECT_EQ(after.freeCapacity, cap - 301000);
  EXPECT_EQ(after.bucketCount, 1u);

  ASSERT_TRUE(m_fs.removeFile("media_1/big"));
  ASSERT_TRUE(m_fs.getSystemInfo(after));
  EXPECT_EQ(after.freeCapacity, cap - 1000);

  // A cap above what is stored never reports more free space than is there.
  uint64_t huge = UINT64_MAX / 2;
  ASSERT_TRUE(m_fs.setOption(ZARN_OPT_CAPACITY_LIMIT, &huge, sizeof huge));
  ASSERT_TRUE(m_fs.getSystemInfo(after));
  EXPECT_EQ(after.totalCapacity, huge);
  EXPECT_LE(after.freeCapacity, raw.totalCapacity);
}

TEST_P(StoreConformance, CreatesSurviveLevelsBeingPrunedUnderThem) {
  // One thread keeps emptying (and so pruning) a level that another keeps
  // creating files in: no create may fail because its level vanished.
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::atomic<int32_t> lastFailure{0};
  std::thread churn([&] {
    for (int i = 0; !stop.load(); ++i) {
      std::string p = "media_1/2016/05/01/churn_" + std::to_string(i);
      auto f = m_fs.createFile(p, 4, 1);
      if (!f) {
        ++failures;
        lastFailure = getLastError();
        continue;
      }
      f->close();
      if (!m_fs.removeFile(p)) {
        ++failures;
        lastFailure = getLastError() - 1000000;  // told apart from a create's failure
      }
    }
  });
  for (int i = 0; i < GetParam().pruneCycles; ++i) {
    std::string p = "media_1/2016/05/01/keep_" + std::to_string(i);
    auto f = m_fs.createFile(p, 4, 1);
    if (!f) {
      ADD_FAILURE() << p << ": " << getErrorMsg();
      continue;
    }
    EXPECT_TRUE(f->close());
    EXPECT_TRUE(m_fs.removeFile(p)) << getErrorMsg();
  }
  stop = true;
  churn.join();
  EXPECT_EQ(failures.load(), 0) << "last failure " << lastFailure.load() << " (below -1000000: a removal)";
  EXPECT_TRUE(m_fs.removeBucket("media_1")) << getErrorMsg();
}

// ---- Several clients, each in a process of its own ----

TEST_P(StoreConformance, ProcessesRacingToCreateOneFileHaveOneCreator) {
  constexpr size_t kPeers = 4;
  ASSERT_TRUE(startPeers(kPeers));
  for (int round = 0; round < 5; ++round) {
    const std::string path = "media_1/2016/05/0" + std::to_string(round + 1) + "/120000_1.qrv";
    std::vector<std::string> answers = race(std::vector<std::string>(kPeers, "create " + path));
    size_t winner = kPeers, wins = 0, exists = 0;
    for (size_t p = 0; p < kPeers; ++p) {
      if (answers[p] == "ok") {
        ++wins;
        winner = p;
      } else if (answers[p] == err(ZARN_E_FILE_EXISTS)) {
        ++exists;
      } else {
        ADD_FAILURE() << "round " << round << " peer " << p << ": " << answers[p];
      }
    }
    EXPECT_EQ(wins, 1u) << "round " << round;
    EXPECT_EQ(exists, kPeers - 1) << "round " << round;
    ASSERT_LT(winner, kPeers) << "round " << round;
    const std::string mark = "by peer " + std::to_string(winner);
    EXPECT_EQ(m_peers[winner]->ask("write " + mark), "ok " + std::to_string(mark.size()));
    EXPECT_EQ(m_peers[winner]->ask("close"), "ok");
    EXPECT_EQ(get(path), mark);
  }
}

TEST_P(StoreConformance, ProcessesRacingToRenameOneFileHaveOneWinner) {
  constexpr size_t kPeers = 4;
  ASSERT_TRUE(startPeers(kPeers));
  // Checks one race: one winner, every loser failing with one of `losing`, and
  // the listings of this process and of another peer showing only `survivor`
  // (a function of the winner), with the source's content.
  auto judge = [&](int round, const std::vector<std::string>& answers, const std::set<std::string>& losing,
                   const std::string& prefix, const std::function<std::string(size_t)>& survivor,
                   const std::string& content) {
    size_t winner = kPeers, wins = 0, losses = 0;
    for (size_t p = 0; p < kPeers; ++p) {
      if (answers[p] == "ok") {
        ++wins;
        winner = p;
      } else if (losing.count(answers[p]) != 0) {
        ++losses;
      } else {
        ADD_FAILURE() << prefix << " round " << round << " peer " << p << ": " << answers[p];
      }
    }
    EXPECT_EQ(wins, 1u) << prefix << " round " << round;
    EXPECT_EQ(losses, kPeers - 1) << prefix << " round " << round;
    if (winner == kPeers) return;
    const std::string name = survivor(winner);
    EXPECT_EQ(listAll("media_1", prefix, prefix + "\xff"), CNameList{name}) << "round " << round;
    EXPECT_EQ(m_peers[(winner + 1) % kPeers]->ask("list media_1 " + prefix), "ok " + name) << "round " << round;
    EXPECT_EQ(get("media_1/" + name), content);
  };

  for (int round = 0; round < 5; ++round) {
    // Each to a target of its own: the losers find the source gone.
    const std::string prefix = "lockSize_" + std::to_string(round) + "_";
    const std::string content = "ledger " + std::to_string(round);
    ASSERT_TRUE(put("media_1/" + prefix + "1.temp", content));
    auto target = [&](size_t p) { return prefix + std::to_string(p + 2) + ".temp"; };
    std::vector<std::string> commands;
    for (size_t p = 0; p < kPeers; ++p) commands.push_back("rename media_1/" + prefix + "1.temp media_1/" + target(p));
    judge(round, race(commands), {err(ZARN_E_NO_SUCH_FILE)}, prefix, target, content);
  }
  for (int round = 0; round < 5; ++round) {
    // All to one target: a loser finds the target taken or the source gone.
    const std::string prefix = "moved_" + std::to_string(round) + "_";
    const std::string content = "record " + std::to_string(round);
    ASSERT_TRUE(put("media_1/" + prefix + "from", content));
    const std::string command = "rename media_1/" + prefix + "from media_1/" + prefix + "to";
    judge(round, race(std::vector<std::string>(kPeers, command)), {err(ZARN_E_FILE_EXISTS), err(ZARN_E_NO_SUCH_FILE)},
          prefix, [&](size_t) { return prefix + "to"; }, content);
  }
}

// Reads a file that another client is appending to until `want` bytes came, a
// read failed or kAnswerMs passed. Meanwhile reads may answer 0 (more may come).
std::string readAppended(CFile& file, size_t want) {
  std::string got;
  bool failed = false;
  ZarnTest::waitFor(
      [&] {
        char buf[4096];
        int64_t n = file.read(buf, sizeof buf);
        if (n > 0) got.append(buf, static_cast<size_t>(n));
        if (n < 0) {
          got += "<read failed " + std::to_string(getLastError()) + ">";
          failed = true;
        }
        return failed || got.size() >= want;
      },
      kAnswerMs);
  return got;
}

TEST_P(StoreConformance, AnotherProcessSeesAWriterAndItsAppends) {
  const std::string path = "media_1/2016/05/01/080000_1.qrv";
  ASSERT_TRUE(startPeers(1));
  CPeerProcess& writer = *m_peers[0];
  ASSERT_EQ(writer.ask("create " + path), "ok");
  ASSERT_EQ(writer.ask("write hello"), "ok 5");

  ZarnFileStat st;
  ASSERT_TRUE(m_fs.getFileStat(path, st)) << getErrorMsg();
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(st.size, 5u);
  EXPECT_EQ(m_fs.openFile(path, StoreOpenMode::Write), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_BUSY);
  auto reader = m_fs.openFile(path, StoreOpenMode::Read);
  ASSERT_NE(reader, nullptr);
  char buf[32];
  ASSERT_EQ(reader->read(buf, sizeof buf), 5);
  EXPECT_EQ(std::string(buf, 5), "hello");
  EXPECT_EQ(reader->read(buf, sizeof buf), 0);

  // An append while the writer keeps the file reaches the reader, who never
  // sees the end in between.
  ASSERT_EQ(writer.ask("write  more"), "ok 5");
  EXPECT_EQ(readAppended(*reader, 5), " more");
  EXPECT_EQ(reader->read(buf, sizeof buf), 0);
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(st.size, 10u);

  ASSERT_EQ(writer.ask("write  world"), "ok 6");
  ASSERT_EQ(writer.ask("close"), "ok");
  ASSERT_EQ(reader->read(buf, sizeof buf), 6);
  EXPECT_EQ(std::string(buf, 6), " world");
  setLastError(ZARN_OK);
  EXPECT_EQ(reader->read(buf, sizeof buf), -1);
  EXPECT_EQ(getLastError(), ZARN_E_EOF);
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_FALSE(st.openForWrite);
  EXPECT_EQ(st.size, 16u);
  auto again = m_fs.openFile(path, StoreOpenMode::Write);
  ASSERT_NE(again, nullptr) << getErrorMsg();
  EXPECT_TRUE(again->close());
}

TEST_P(StoreConformance, AnotherProcessSeesThisProcessWriting) {
  const std::string path = "media_1/2016/05/01/081500_1.qrv";
  auto writer = m_fs.createFile(path, 4, 1);
  ASSERT_NE(writer, nullptr) << getErrorMsg();
  ASSERT_EQ(writer->write("hello", 5), 5);
  // Started while the file is open here: a claim that leaked into the child
  // would outlive this process's close below.
  ASSERT_TRUE(startPeers(1));
  CPeerProcess& reader = *m_peers[0];
  EXPECT_EQ(reader.ask("stat " + path), "ok 5 1");
  EXPECT_EQ(reader.ask("open " + path + " w"), err(ZARN_E_BUSY));
  ASSERT_EQ(reader.ask("open " + path + " r"), "ok");
  EXPECT_EQ(reader.ask("read"), "ok 5 hello");
  EXPECT_EQ(reader.ask("read"), "ok 0");

  ASSERT_EQ(writer->write(" world", 6), 6);
  std::string seen;
  ZarnTest::waitFor([&] { return (seen = reader.ask("read")) != "ok 0"; }, kAnswerMs);
  EXPECT_EQ(seen, "ok 6  world");
  EXPECT_EQ(reader.ask("read"), "ok 0");
  EXPECT_EQ(reader.ask("stat " + path), "ok 11 1");

  ASSERT_TRUE(writer->close());
  EXPECT_EQ(reader.ask("read"), err(ZARN_E_EOF));
  EXPECT_EQ(reader.ask("stat " + path), "ok 11 0");
  // The claim is free for the other process, and then held by it.
  ASSERT_EQ(reader.ask("open " + path + " w"), "ok");
  EXPECT_EQ(reader.ask("write !"), "ok 1");
  ZarnFileStat st;
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(m_fs.openFile(path, StoreOpenMode::Write), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_BUSY);
  EXPECT_EQ(reader.ask("close"), "ok");
  EXPECT_EQ(get(path), "hello world!");
}

TEST_P(StoreConformance, AKilledWritersClaimGoesWithIt) {
  const std::string path = "media_1/2016/05/01/090000_1.qrv";
  ASSERT_TRUE(startPeers(1));
  CPeerProcess& writer = *m_peers[0];
  std::string clientId;
  if (GetParam().evictKilledClients) {
    std::string id = writer.ask("id");
    if (id.rfind("ok ", 0) != 0) {
      GTEST_SKIP() << "the peer cannot tell its client id (" << id << "), so a killed peer cannot be evicted";
    }
    clientId = id.substr(3);
  }
  ASSERT_EQ(writer.ask("create " + path), "ok");
  ASSERT_EQ(writer.ask("write partial"), "ok 7");
  ZarnFileStat st;
  ASSERT_TRUE(m_fs.getFileStat(path, st)) << getErrorMsg();
  ASSERT_TRUE(st.openForWrite);

  writer.kill();
  if (GetParam().evictKilledClients) {
    // The cluster holds a vanished client's session, and its locks, until the
    // session times out; evicting it is what an operator does instead.
    const char* cluster = std::getenv("ZARN_TEST_CEPH_DIR");
    ASSERT_TRUE(cluster != nullptr && *cluster != '\0') << "ZARN_TEST_CEPH_DIR is not set";
    pid_t evict = spawn({"/bin/bash", ZARN_SCRIPTS_DIR "/ceph-cluster-daemon.sh", cluster, "evict", clientId}, -1, -1);
    ASSERT_GE(evict, 0) << "cannot run " ZARN_SCRIPTS_DIR "/ceph-cluster-daemon.sh";
    ASSERT_EQ(reap(evict, kAnswerMs), 0) << "evicting client " << clientId;
    EXPECT_TRUE(ZarnTest::waitFor([&] { return m_fs.getFileStat(path, st) && !st.openForWrite; }, kAnswerMs));
  } else {
    // The descriptors, and the claim with them, went with the process.
    ASSERT_TRUE(m_fs.getFileStat(path, st)) << getErrorMsg();
    EXPECT_FALSE(st.openForWrite);
  }
  auto again = m_fs.openFile(path, StoreOpenMode::Write);
  ASSERT_NE(again, nullptr) << getErrorMsg();
  ASSERT_EQ(again->write("+more", 5), 5);
  ASSERT_TRUE(again->close());
  const std::string content = get(path);
  if (GetParam().localDirectory) {
    EXPECT_EQ(content, "partial+more");  // written to the kernel before the kill
  } else {
    // A client cache may lose what the killed writer had not flushed, never more.
    ASSERT_GE(content.size(), 5u) << content;
    EXPECT_EQ(content.substr(content.size() - 5), "+more");
    EXPECT_EQ(std::string("partial").rfind(content.substr(0, content.size() - 5), 0), 0u) << content;
  }
}

INSTANTIATE_TEST_SUITE_P(Backends, StoreConformance, ::testing::ValuesIn(kBackends),
                         [](const ::testing::TestParamInfo<BackendCase>& p) { return p.param.name; });

}  // namespace
