// The lock counts in file names and the lock-size ledger are the only things
// recording processes share about locks. Real processes (zarn_lock_peer, each
// with its own client and store connection) lock and unlock overlapping ranges
// of two streams at once; afterwards the store must hold one ledger whose total
// is the size of the files whose names carry a lock. On the local store and,
// with ZARN_TEST_CEPH_ADDRESS set, on the loopback Ceph cluster.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "CoverMutex.h"
#include "DamagedStore.h"
#include "KanduTime.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

namespace {

const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 10, 0, 0, 0));
constexpr uint32_t kFiles = 6;                   // per stream, 30 minutes each
// More contenders on CephFS 16.2 slow each ledger update to seconds and risk
// a client that never answers a cap recall (doc/ceph_store.md).
constexpr uint32_t kPeers = 3;
const std::vector<uint32_t> kStreams = {1, 2};

// A peer process locking and unlocking files of kStreams for `seconds`.
std::unique_ptr<ZarnTest::CChildProcess> peer(const std::string& address, uint32_t seed, uint32_t seconds) {
  std::vector<std::string> args = {ZARN_LOCK_PEER, address, std::to_string(seed), std::to_string(seconds),
                                   std::to_string(T), std::to_string(kFiles)};
  for (uint32_t s : kStreams) args.push_back(std::to_string(s));
  return std::make_unique<ZarnTest::CChildProcess>(args, -1, 120000);
}

struct Store {
  const char* name;
  bool cluster;
};
void PrintTo(const Store& s, std::ostream* os) { *os << s.name; }

class LockProcessesTest : public ::testing::TestWithParam<Store> {
 protected:
  void SetUp() override {
    m_address = GetParam().cluster ? ZarnTest::clusterRoot("locks") : m_dir.sub("store");
    if (m_address.empty()) GTEST_SKIP() << ZarnTest::kNoCluster;
    ASSERT_EQ(m_client.initialize(Config{m_address.c_str(), 0, "root", ""}, nullptr), 0);
    const int32_t timeoutMs = ZarnTest::kPeerCallTimeoutMs;  // as its peers: see initializePeerClient
    m_client.storeForTest()->setOption(ZARN_OPT_TIMEOUT_MS, &timeoutMs, sizeof(timeoutMs));
    // Files of 1, 2 and 3 MiB (plus a few bytes), the index inside.
    for (uint32_t stream : kStreams) {
      for (uint32_t i = 0; i < kFiles; ++i) {
        RecordFileName n{.streamId = stream, .beginTime = T + i * 1800, .endTime = T + i * 1800 + 1799, .type = 1,
                         .indexState = 1};
        const std::vector<uint8_t> bytes(((1u + (i + stream) % 3) << 20) + 64, 0x33);
        ZarnTest::putFile(fs(), ZarnTest::recordPath(n), bytes);
      }
    }
  }

  CZarnFileSystem& fs() { return *m_client.storeForTest(); }

  // The cluster keeps a killed client's session (and what it holds, its file
  // locks too) until the session times out; evicting it is what an operator
  // does instead.
  void evictOnCluster(const std::string& clientId) {
    if (!GetParam().cluster) return;
    const std::string evict = "bash '" ZARN_SCRIPTS_DIR "/ceph-cluster-daemon.sh' '" +
                              ZarnTest::env("ZARN_TEST_CEPH_DIR") + "' evict " + clientId + " >/dev/null";
    ASSERT_EQ(std::system(evict.c_str()), 0) << evict;
  }

  // The ledger's files, and the MiB of the files whose names carry a lock.
  void account(size_t& ledgers, uint64_t& ledgerMiB, uint64_t& lockedMiB, uint64_t& largestMiB) {
    CNameList names;
    ASSERT_TRUE(fs().getBucket(kSystemBucket).list(names, "lockSize_", "lockSize_z", 10));
    ledgers = names.size();
    ASSERT_TRUE(getLockSize(fs(), ledgerMiB));
    lockedMiB = largestMiB = 0;
    // A kill inside a record's two-step rename (CephFS) leaves the file under
    // its old and new lock count: one file, counted once.
    std::set<std::pair<uint32_t, uint32_t>> counted;
    for (uint32_t stream : kStreams) {
      for (const RecordFileName& f : ZarnTest::listRecords(fs(), stream)) {
        if (f.lockCount > 0 && counted.insert({stream, f.beginTime}).second) lockedMiB += f.size >> 20;
        largestMiB = std::max<uint64_t>(largestMiB, f.size >> 20);
      }
    }
  }

  ZarnTest::TempDir m_dir;
  std::string m_address;
  CMediaClientInternal m_client;
};

TEST_P(LockProcessesTest, ConcurrentProcessesLeaveOneExactLedger) {
  std::vector<std::unique_ptr<ZarnTest::CChildProcess>> peers;
  for (uint32_t i = 0; i < kPeers; ++i) peers.push_back(peer(m_address, 11 + i, 3));
  for (auto& p : peers) ASSERT_EQ(p->answer().rfind("ready ", 0), 0u);
  for (auto& p : peers) {
    const std::string done = p->answer();
    ASSERT_EQ(done.rfind("done ", 0), 0u) << done;
    // Every peer got locks and unlocks through while the others contended.
    EXPECT_GT(std::stoull(done.substr(done.rfind(' ') + 1)), 0u) << done;
    EXPECT_EQ(p->stop(), 0);
  }
  size_t ledgers = 0;
  uint64_t ledgerMiB = 0, lockedMiB = 0, largestMiB = 0;
  account(ledgers, ledgerMiB, lockedMiB, largestMiB);
  EXPECT_EQ(ledgers, 1u);
  EXPECT_EQ(ledgerMiB, lockedMiB);
}

// A process killed at any point of its loop leaves the ledger high by at most
// the one file it was locking or unlocking (its size is counted before a lock
// and taken off after an unlock), never low.
TEST_P(LockProcessesTest, AKilledProcessLeavesTheLedgerHighByAtMostOneFile) {
  std::vector<std::unique_ptr<ZarnTest::CChildProcess>> peers;
  for (uint32_t i = 0; i < kPeers; ++i) peers.push_back(peer(m_address, 21 + i, 3));
  std::vector<std::string> ids;
  for (auto& p : peers) {
    const std::string ready = p->answer();
    ASSERT_EQ(ready.rfind("ready ", 0), 0u) << ready;
    ids.push_back(ready.substr(6));
  }
  ::usleep(1200 * 1000);
  peers[0]->kill();
  evictOnCluster(ids[0]);
  for (size_t i = 1; i < peers.size(); ++i) {
    EXPECT_EQ(peers[i]->answer().rfind("done ", 0), 0u);
    EXPECT_EQ(peers[i]->stop(), 0);
  }
  size_t ledgers = 0;
  uint64_t ledgerMiB = 0, lockedMiB = 0, largestMiB = 0;
  account(ledgers, ledgerMiB, lockedMiB, largestMiB);
  // On CephFS a kill between a rename's link and unlink leaves the ledger's
  // old name beside its new one; the newer counts.
  EXPECT_LE(ledgers, GetParam().cluster ? 2u : 1u);
  EXPECT_GE(ledgerMiB, lockedMiB);
  EXPECT_LE(ledgerMiB - lockedMiB, largestMiB);
}

// Processes short of space at the same moment: exactly one recycles. One
// killed while holding the mutex leaves a file nobody has open, which the next
// taker removes; a holder that is alive is never taken from.
TEST_P(LockProcessesTest, ExactlyOneProcessTakesTheRecyclingMutex) {
  std::vector<std::unique_ptr<ZarnTest::CChildProcess>> peers;
  std::vector<std::string> ids;
  for (uint32_t i = 0; i < kPeers; ++i) {
    peers.push_back(std::make_unique<ZarnTest::CChildProcess>(
        std::vector<std::string>{ZARN_LOCK_PEER, "--cover-mutex", m_address}, -1, 120000));
    const std::string ready = peers.back()->answer();
    ASSERT_EQ(ready.rfind("ready ", 0), 0u) << ready;
    ids.push_back(ready.substr(6));
  }
  for (auto& p : peers) p->send("go");
  size_t holder = kPeers, taken = 0;
  for (size_t i = 0; i < peers.size(); ++i) {
    const std::string answer = peers[i]->answer();
    ASSERT_TRUE(answer == "mutex 1" || answer == "mutex 0") << answer;
    if (answer == "mutex 1") holder = i, ++taken;
  }
  ASSERT_EQ(taken, 1u);
  CCoverMutex mine;
  EXPECT_FALSE(mine.tryEnter(fs()));  // the holder is alive
  peers[holder]->kill();
  evictOnCluster(ids[holder]);
  const size_t next = (holder + 1) % peers.size();
  EXPECT_EQ(peers[next]->ask("go"), "mutex 1");  // the dead holder's file was a leftover
  EXPECT_FALSE(mine.tryEnter(fs()));
  // Peers that end by themselves leave no session behind for the cluster to
  // time out (which would stall the next test's mount for a minute).
  for (size_t i = 0; i < peers.size(); ++i) {
    if (i != holder) {
      EXPECT_EQ(peers[i]->stop(), 0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, LockProcessesTest,
                         ::testing::Values(Store{"Local", false}, Store{"Ceph", true}),
                         [](const ::testing::TestParamInfo<Store>& p) { return p.param.name; });

}  // namespace
