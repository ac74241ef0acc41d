// A recording process killed at random must cost no frame it acknowledged
// (sync writers) or at most the async writer's cache per kill, and repair must
// leave every record file closed and indexed to match its frames.
//
// zarn_crash_recorder writes one stream as fast as the store takes it, with
// record files cut every 4 s of frame time or 1 MiB; the driver kills it with
// SIGKILL after 10..400 ms (inside writes, cuts, closes, renames and the
// background repair a restarted writer starts), restarts it after the last
// sequence it acknowledged, and after the last kill repairs the stream at once
// and plays it back in the four read orders. On the local store and, with
// ZARN_TEST_CEPH_ADDRESS set, on the loopback Ceph cluster.
//
// ZARN_CRASH_ROUNDS sets the kills per test (default 20 local, 4 Ceph);
// ZARN_CRASH_SEED replays a run (the seed is printed on every run).
#include <gtest/gtest.h>

#include <filesystem>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KanduLog.h"
#include "KanduTime.h"
#include "MediaClientInternal.h"
#include "MediaValues.h"
#include "StreamRepair.h"
#include "StreamWriter.h"
#include "CrashFrames.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

namespace {

[[maybe_unused]] const bool g_config = ZarnTest::useConfigFileForProcess(
    R"({"enable_cfg": 1, "max_file_length": 1048576, "max_file_duration": 4, "min_cut_file_time": 1,
        "recycle_hours": 87600})");

using CrashTest::crashFrame;
using CrashTest::kFps;
using CrashTest::kGop;

constexpr uint32_t kStream = 7;

struct Store {
  const char* name;
  bool cluster;
  bool sync;
};
void PrintTo(const Store& s, std::ostream* os) { *os << s.name; }

// One run of the recorder: the first sequence it was given and the last it
// acknowledged (none: last < first).
struct Round {
  uint32_t first = 0;
  int64_t last = -1;
};

using Frames = std::vector<std::vector<uint8_t>>;

uint32_t seqOf(const std::vector<uint8_t>& frame) {
  return reinterpret_cast<const VeltoFrameHead*>(frame.data())->sequence;
}
bool keyOf(const std::vector<uint8_t>& frame) {
  return isKeyFrame(*reinterpret_cast<const VeltoFrameHead*>(frame.data()));
}

class CrashRecoveryTest : public ::testing::TestWithParam<Store> {
 protected:
  void SetUp() override {
    Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);
    const char* seed = std::getenv("ZARN_CRASH_SEED");
    m_seed = seed ? static_cast<uint32_t>(std::strtoul(seed, nullptr, 10)) : std::random_device{}();
    const char* rounds = std::getenv("ZARN_CRASH_ROUNDS");
    m_rounds = rounds ? static_cast<uint32_t>(std::strtoul(rounds, nullptr, 10)) : (GetParam().cluster ? 4 : 20);
    m_address = GetParam().cluster ? ZarnTest::clusterRoot("crash") : m_dir.sub("store");
    if (m_address.empty()) GTEST_SKIP() << ZarnTest::kNoCluster;
    ASSERT_EQ(m_client.initialize(Config{m_address.c_str(), 0, "root", ""}, nullptr), 0);
    if (GetParam().cluster) {
      // libcephfs keeps written bytes in the writing process until it flushes
      // them; a writer killed before that loses them. Recorders that must lose
      // nothing they acknowledged run without that cache (client_oc = false in
      // their ceph.conf), as these do.
      m_cephConf = ZarnTest::env("ZARN_CEPH_CONF");
      std::ifstream in(m_cephConf);
      std::ofstream out(m_dir.sub("ceph-no-cache.conf"));
      out << in.rdbuf() << "\n[client]\n\tclient_oc = false\n";
      ASSERT_TRUE(out.good());
      ::setenv("ZARN_CEPH_CONF", m_dir.sub("ceph-no-cache.conf").c_str(), 1);  // for the recorders only
    }
    m_base = (CMediaValues::instance().localNow(Velto::Kandu::systemClock()) - 4 * 3600) / 60 * 60;
    std::printf("[crash] %s seed %u rounds %u (replay: ZARN_CRASH_SEED=%u ZARN_CRASH_ROUNDS=%u)\n", GetParam().name,
                m_seed, m_rounds, m_seed, m_rounds);
  }
  void TearDown() override {
    CMediaValues::instance().sdkState.store(0);
    if (!m_cephConf.empty()) ::setenv("ZARN_CEPH_CONF", m_cephConf.c_str(), 1);
    // ZARN_CRASH_KEEP=DIR: a failed local run's store is copied there for a look.
    const char* keep = std::getenv("ZARN_CRASH_KEEP");
    if (keep != nullptr && HasFailure() && !GetParam().cluster) {
      std::filesystem::copy(m_address, keep, std::filesystem::copy_options::recursive);
    }
  }

  CZarnFileSystem& fs() { return *m_client.storeForTest(); }

  // Runs the recorder from `first` until a random kill; the sequences it
  // acknowledged must run on from `first` without a gap.
  Round runAndKill(uint32_t first, std::mt19937& random) {
    Round round{first, static_cast<int64_t>(first) - 1};
    const std::string state = m_dir.sub("state-" + std::to_string(first));
    ZarnTest::CChildProcess recorder({ZARN_CRASH_RECORDER, m_address, std::to_string(kStream),
                                      GetParam().sync ? "sync" : "async", state, std::to_string(m_seed),
                                      std::to_string(first), std::to_string(m_base)},
                                     -1, 60000);
    const std::string line = recorder.answer();
    const bool ready = line.rfind("ready ", 0) == 0;
    if (ready) std::this_thread::sleep_for(std::chrono::milliseconds(10 + random() % 391));
    const int status = recorder.kill();
    EXPECT_TRUE(ready) << "recorder did not start: " << line;
    // Anything but our SIGKILL (a write fault, a crash) is a failure itself.
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "recorder status " << status;
    if (ready && GetParam().cluster) {
      // The cluster keeps a vanished client's session, and the caps on the
      // file it was writing, until the session times out; an operator evicts.
      const std::string evict = "bash '" ZARN_SCRIPTS_DIR "/ceph-cluster-daemon.sh' '" +
                                ZarnTest::env("ZARN_TEST_CEPH_DIR") + "' evict " + line.substr(6) +
                                " >/dev/null";
      EXPECT_EQ(std::system(evict.c_str()), 0) << evict;
    }
    std::ifstream acks(state);
    for (uint32_t seq; acks >> seq;) {
      EXPECT_EQ(seq, round.last + 1) << "acknowledgements out of step";
      round.last = seq;
    }
    return round;
  }

  // Frames of a whole session in one order, until its end. A reverse session
  // ends in a fault (-3) at a file without a usable index; `faulted` tells,
  // where the caller allows it.
  std::vector<std::vector<uint8_t>> play(uint32_t end, bool keyOnly, bool reverse, bool* faulted = nullptr) {
    const int session = m_client.addSession(kStream, m_base, end, true);
    EXPECT_GT(session, 0);
    if (reverse) {
      EXPECT_EQ(m_client.seek(session, end), 0);
    }
    ZarnTest::SessionFrames read = ZarnTest::readSession(m_client, session, keyOnly, reverse);
    if (faulted != nullptr && read.last == -3) {
      *faulted = true;
    } else {
      EXPECT_EQ(read.last, 0) << "readFrame after " << read.frames.size() << " frames";
    }
    EXPECT_EQ(m_client.deleteSession(session), 0);
    return read.frames;
  }

  void checkReverse(uint32_t end, const Frames& keyOnly, const Frames& forward, const std::set<uint32_t>& indexed);
  void report(uint64_t acknowledged, uint64_t lost, uint64_t worst, size_t played, uint32_t files, size_t repaired);

  ZarnTest::TempDir m_dir;
  std::string m_address;
  std::string m_cephConf;  // the cluster's, restored after the test
  CMediaClientInternal m_client;
  uint32_t m_seed = 0;
  uint32_t m_rounds = 0;
  uint32_t m_base = 0;
};

TEST_P(CrashRecoveryTest, KilledRecorderLosesNothingAcknowledgedBeyondItsCache) {
  std::mt19937 random(m_seed);
  std::vector<Round> rounds;
  // One key frame a second, as cameras send them: a session that starts at a
  // second starts at the last key frame of that second.
  uint32_t next = kFps / kGop * kGop;
  for (uint32_t i = 0; i < m_rounds; ++i) {
    rounds.push_back(runAndKill(next, random));
    if (HasFailure()) return;
    // On a key frame (a writer drops what comes before its first key frame),
    // past the one frame that may be on the store unacknowledged.
    next = static_cast<uint32_t>(rounds.back().last + 2 + kGop - 1) / kGop * kGop;
  }

  std::vector<StreamRepairEntry> repaired;
  ASSERT_TRUE(repairStream(fs(), kStream, IndexFixOptions{}, repaired));
  for (const StreamRepairEntry& e : repaired)
    EXPECT_TRUE(e.report.repaired() || e.report.outcome == IndexFixReport::kNoFrames)
        << e.name << ": " << indexFixOutcomeName(e.report.outcome);
  std::vector<StreamRepairEntry> again;
  ASSERT_TRUE(repairStream(fs(), kStream, IndexFixOptions{}, again));
  for (const StreamRepairEntry& e : again) EXPECT_EQ(e.report.outcome, IndexFixReport::kNoFrames) << e.name;
  uint32_t files = 0;
  for (const RecordFileName& f : ZarnTest::listRecords(fs(), kStream)) {
    EXPECT_NE(f.endTime, 0u) << "left under an open name: " << ZarnTest::recordPath(f);
    EXPECT_NE(f.indexState, 2u) << "left in rebuild: " << ZarnTest::recordPath(f);
    files += f.isIndex == 0;
  }

  // Forward: increasing, byte-exact, nothing but acknowledged frames and the
  // one after each round's last acknowledged.
  const auto forward = play(m_base + (next + kGop) / kFps + 2, false, false);
  ASSERT_FALSE(forward.empty());
  // The other orders end where the last file's name ends: a reverse read
  // starts in the file that holds its end time, and at a second two files
  // share (one ends, the next begins) that is the earlier one.
  uint32_t end = 0;
  for (const RecordFileName& f : ZarnTest::listRecords(fs(), kStream)) end = std::max(end, f.endTime);
  std::map<uint32_t, size_t> roundOf;  // first sequence -> round
  for (size_t r = 0; r < rounds.size(); ++r) roundOf[rounds[r].first] = r;
  std::vector<uint32_t> played(rounds.size(), 0);     // acknowledged frames played per round
  std::vector<int64_t> lastPlayed(rounds.size(), -1);  // the round's last acknowledged frame played
  int64_t previous = -1;
  for (const auto& f : forward) {
    const uint32_t seq = seqOf(f);
    ASSERT_GT(static_cast<int64_t>(seq), previous) << "out of order or twice";
    previous = seq;
    ASSERT_EQ(f, crashFrame(m_seed, seq, m_base)) << "frame " << seq << " corrupted";
    auto at = roundOf.upper_bound(seq);
    ASSERT_NE(at, roundOf.begin()) << seq;
    const size_t r = std::prev(at)->second;
    ASSERT_LE(static_cast<int64_t>(seq), rounds[r].last + 1) << "frame " << seq << " was never written";
    if (static_cast<int64_t>(seq) <= rounds[r].last) {
      ++played[r];
      lastPlayed[r] = seq;
    }
  }
  // Lost: what a round acknowledged and does not play; only its tail may go.
  uint64_t acknowledged = 0, lost = 0, worst = 0;
  for (size_t r = 0; r < rounds.size(); ++r) {
    const uint64_t acks = static_cast<uint64_t>(rounds[r].last + 1 - rounds[r].first);
    acknowledged += acks;
    lost += acks - played[r];
    worst = std::max<uint64_t>(worst, acks - played[r]);
    // Acknowledged frames up to the last one played; none when an async round
    // lost all it acknowledged (its whole tail was still in the cache).
    const int64_t before = played[r] == 0 ? 0 : lastPlayed[r] + 1 - rounds[r].first;
    EXPECT_EQ(before, played[r]) << "round " << r << " lost frames before its last one played";
    if (GetParam().sync) {
      EXPECT_EQ(played[r], acks) << "round " << r << " lost acknowledged frames";
    }
  }
  // The cache, plus the pass a writer thread has taken over and the frame it is in.
  EXPECT_LE(worst, CStreamWriter::kCacheFrames + CStreamWriter::kFramesPerPass + 1);

  // Key frames only: exactly the played key frames, less any key frame that
  // ended its file (a group of one: the next frame played is a key frame or
  // there is none), which a rebuilt index leaves out.
  std::vector<std::vector<uint8_t>> keys;
  for (size_t i = 0; i < forward.size(); ++i) {
    const bool alone = i + 1 == forward.size() || keyOf(forward[i + 1]);
    if (keyOf(forward[i]) && !alone) keys.push_back(forward[i]);
  }
  const auto keyOnly = play(end, true, false);
  std::set<uint32_t> indexed;
  for (const auto& f : keyOnly) indexed.insert(seqOf(f));
  for (const auto& f : keyOnly) {
    ASSERT_TRUE(keyOf(f)) << seqOf(f);
    ASSERT_EQ(f, crashFrame(m_seed, seqOf(f), m_base)) << "key frame " << seqOf(f) << " corrupted";
  }
  for (const auto& k : keys) EXPECT_TRUE(indexed.count(seqOf(k))) << "key frame " << seqOf(k) << " not indexed";
  std::vector<uint32_t> keySeqs;
  for (const auto& f : keyOnly) keySeqs.push_back(seqOf(f));
  EXPECT_TRUE(std::is_sorted(keySeqs.begin(), keySeqs.end()) &&
              std::adjacent_find(keySeqs.begin(), keySeqs.end()) == keySeqs.end());
  checkReverse(end, keyOnly, forward, indexed);
  report(acknowledged, lost, worst, forward.size(), files, repaired.size());
}

void CrashRecoveryTest::checkReverse(uint32_t end, const Frames& keyOnly, const Frames& forward,
                                     const std::set<uint32_t>& indexed) {
  // Reverse key frames: the same, last first.
  // A file holding a single whole frame has no index entry (a file's last
  // frame never gets one): a reverse session faults when it reaches it.
  bool indexless = false;
  for (const RecordFileName& f : ZarnTest::listRecords(fs(), kStream)) {
    if (f.isIndex != 0) continue;
    CRecordFile file(fs(), f);
    indexless |= file.openForRead() && file.state() != CRecordFile::STATE_INDEXED;
  }
  bool faulted = false;
  const auto reverseKey = play(end, true, true, &faulted);
  EXPECT_TRUE(!faulted || indexless) << "a reverse session faulted with every file indexed";
  std::vector<uint32_t> gotKeys, wantKeys;
  for (const auto& f : reverseKey) gotKeys.push_back(seqOf(f));
  for (auto f = keyOnly.rbegin(); f != keyOnly.rend(); ++f) wantKeys.push_back(seqOf(*f));
  ASSERT_LE(gotKeys.size(), wantKeys.size());
  if (faulted) wantKeys.resize(gotKeys.size());
  EXPECT_EQ(gotKeys, wantKeys);
  for (size_t i = 0; i < reverseKey.size() && !HasFailure(); ++i)
    EXPECT_EQ(reverseKey[i], keyOnly[keyOnly.size() - 1 - i]);
  // Reverse: the groups of pictures of the key frames reached, last group first.
  const std::set<uint32_t> reached(gotKeys.begin(), gotKeys.end());
  std::vector<std::vector<std::vector<uint8_t>>> groups;
  for (const auto& f : forward) {
    if (keyOf(f)) groups.emplace_back();
    if (!groups.empty()) groups.back().push_back(f);
  }
  std::vector<uint32_t> wantReverse, gotReverse;
  for (auto g = groups.rbegin(); g != groups.rend(); ++g)
    if (indexed.count(seqOf(g->front())) && reached.count(seqOf(g->front())))
      for (const auto& f : *g) wantReverse.push_back(seqOf(f));
  bool reverseFaulted = false;
  for (const auto& f : play(end, false, true, &reverseFaulted)) gotReverse.push_back(seqOf(f));
  EXPECT_TRUE(!reverseFaulted || indexless) << "a reverse session faulted with every file indexed";
  if (reverseFaulted) wantReverse.resize(std::min(wantReverse.size(), gotReverse.size()));
  EXPECT_EQ(gotReverse, wantReverse);
}

void CrashRecoveryTest::report(uint64_t acknowledged, uint64_t lost, uint64_t worst, size_t played, uint32_t files,
                               size_t repaired) {
  std::printf("[crash] %s: %u kills survived, %llu frames acknowledged, %llu lost (at most %llu per kill), "
              "%zu played, %u record files, %zu repaired at the end\n",
              GetParam().name, m_rounds, static_cast<unsigned long long>(acknowledged),
              static_cast<unsigned long long>(lost), static_cast<unsigned long long>(worst), played, files,
              repaired);
  RecordProperty("kills", static_cast<int>(m_rounds));
  RecordProperty("acknowledged", static_cast<int>(acknowledged));
  RecordProperty("lost", static_cast<int>(lost));
  RecordProperty("worstLossPerKill", static_cast<int>(worst));
}

INSTANTIATE_TEST_SUITE_P(Stores, CrashRecoveryTest,
                         ::testing::Values(Store{"LocalSync", false, true}, Store{"LocalAsync", false, false},
                                           Store{"CephSync", true, true}, Store{"CephAsync", true, false}),
                         [](const ::testing::TestParamInfo<Store>& p) { return p.param.name; });

}  // namespace
