// Recording through a real outage of the loopback cluster: its metadata
// server, or every object store, stopped for 30 s. Its own executable: it stops
// daemons every other cluster test needs, so ctest runs it alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "KanduClock.h"
#include "KanduThread.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "MediaValues.h"
#include "RecordFileName.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

namespace {

const bool kConfigured = ZarnTest::useConfigFileForProcess(R"({
  "enable_cfg": 1,
  "stdfile_disk": ["disk1", "disk2"],
  "stdfile_reserve_mb": 0,
  "stdfile_migrate_mbps": 0,
  "max_file_duration": 15,
  "recycle_hours": 24
})");

// The loopback cluster loses its metadata server, or every object store, for
// 30 s while four streams record in real time (two sync, two async): the
// recording goes on to the local disks, the host hears nothing, and after the
// cluster returns every frame plays from the store alone.
class CephOutageTest : public ::testing::TestWithParam<const char*> {
 protected:
  static void daemons(const std::string& action, const std::string& which) {
    const std::string dir = ZarnTest::env("ZARN_TEST_CEPH_DIR");
    std::string names = which;
    if (which == "osds") names = "osd.0 osd.1 osd.2";
    for (size_t at = 0; at < names.size();) {
      const size_t end = std::min(names.find(' ', at), names.size());
      const std::string command = "bash '" ZARN_SCRIPTS_DIR "/ceph-cluster-daemon.sh' '" + dir + "' " + action + " " +
                                  names.substr(at, end - at) + " >/dev/null 2>&1";
      EXPECT_EQ(std::system(command.c_str()), 0) << command;
      at = end + 1;
    }
  }
};

TEST_P(CephOutageTest, FourStreamsRecordThroughAThirtySecondOutageAndPlayBackWholeFromTheStore) {
  ASSERT_TRUE(kConfigured);
  const std::string address = ZarnTest::clusterRoot("outage");
  if (address.empty() || ZarnTest::env("ZARN_TEST_CEPH_DIR").empty()) GTEST_SKIP() << ZarnTest::kNoCluster;
  const std::string which = GetParam();
  int hostCalls = 0;
  CMediaClientInternal client;
  int32_t option = 500;
  ASSERT_TRUE(client.storeForTest()->setOption(ZARN_OPT_HEALTH_PERIOD_MS, &option, sizeof(option)));
  ASSERT_EQ(client.initialize(Config{address.c_str(), 0, "root", ""}, [&hostCalls](ZarnState) { ++hostCalls; }), 0);
  option = 2000;  // the store call time-out
  ASSERT_TRUE(client.storeForTest()->setOption(ZARN_OPT_TIMEOUT_MS, &option, sizeof(option)));
  ASSERT_TRUE(client.isSupportLocalStore());
  CLocalDiskSet& disks = *client.localStoreForTest().disks();
  const uint32_t sids[4] = {51, 52, 53, 54};  // 51, 52 sync; 53, 54 async
  for (uint32_t sid : sids) ASSERT_EQ(client.addStream(sid, 1, sid < 53), 0);

  // 25 frames a second, a key frame a second, about 1 Mbit/s each, pushed on
  // time: a late push is pushed at once, never skipped.
  constexpr uint32_t kFps = 25;
  const uint32_t t0 = CMediaValues::instance().localNow(Velto::Kandu::systemClock());
  std::atomic<bool> stop{false};
  struct Tally {
    std::vector<std::vector<uint8_t>> written;
    int refused = 0;
    uint64_t worstLateMs = 0;
  } tally[4];
  std::vector<std::thread> feeders;
  for (int s = 0; s < 4; ++s) {
    feeders.emplace_back([&, s] {
      const uint64_t startMs = Velto::Kandu::systemClock().monotonicMs();
      for (uint32_t seq = 0; !stop.load(); ++seq) {
        const uint64_t dueMs = startMs + uint64_t{seq} * 1000 / kFps;
        for (uint64_t now; (now = Velto::Kandu::systemClock().monotonicMs()) < dueMs;) {
          Velto::Kandu::sleepMs(static_cast<uint32_t>(dueMs - now));
        }
        std::vector<uint8_t> frame = ZarnTest::makeFrame(seq % kFps == 0 ? FRAME_TYPE_I : FRAME_TYPE_P, 0, seq,
                                                         t0 + seq / kFps, 5000 + seq % 997,
                                                         static_cast<uint16_t>(seq * (1000 / kFps)));
        VeltoFrame vf;
        vf.attach(frame.data());
        unsigned long long done = 0;
        const int rc = client.writeFrame(sids[s], &vf, 0, done);
        const uint64_t late = Velto::Kandu::systemClock().monotonicMs() - dueMs;
        tally[s].worstLateMs = std::max(tally[s].worstLateMs, late);
        if (rc == 0 && done != 0) {
          tally[s].written.push_back(std::move(frame));
        } else {
          ++tally[s].refused;
        }
      }
    });
  }
  Velto::Kandu::sleepMs(8000);
  daemons("stop", which);
  const bool switched = ZarnTest::waitFor([&] { return !disks.storeUsable(); }, 30000);
  Velto::Kandu::sleepMs(30000);
  daemons("start", which);
  const bool back = ZarnTest::waitFor([&] { return disks.storeUsable(); }, 120000);
  Velto::Kandu::sleepMs(8000);
  stop.store(true);
  for (std::thread& t : feeders) t.join();
  ASSERT_TRUE(switched);
  ASSERT_TRUE(back);
  for (uint32_t sid : sids) ASSERT_EQ(client.deleteStream(sid), 0);

  // A lock taken while part of the range is still on the disks follows the
  // files into the store: the ledger ends equal to the locked files.
  uint64_t ledgerBefore = 0;
  ASSERT_TRUE(getLockSize(*client.storeForTest(), ledgerBefore));
  ASSERT_EQ(client.lockStream(sids[0], t0, t0 + 3600), 0);
  CMigration& migration = *client.localStoreForTest().migration();
  ASSERT_TRUE(ZarnTest::waitFor([&] {
    migration.runPass();
    return migration.awaiting().empty();
  }, 120000));
  uint64_t ledger = 0, lockedMiB = 0;
  ASSERT_TRUE(getLockSize(*client.storeForTest(), ledger));
  for (const RecordFileName& f : ZarnTest::listRecords(*client.storeForTest(), sids[0])) {
    if (f.lockCount > 0) lockedMiB += f.size >> 20;
  }
  EXPECT_EQ(ledger - ledgerBefore, lockedMiB);
  for (int s = 0; s < 4; ++s) {
    // Every frame acknowledged plays back, byte for byte, from the store.
    const int session = client.addSession(sids[s], t0, t0 + 3600, true);
    const ZarnTest::SessionFrames read = ZarnTest::readSession(client, session, false, false);
    client.deleteSession(session);
    EXPECT_EQ(read.frames.size(), tally[s].written.size()) << "stream " << sids[s];
    EXPECT_TRUE(read.frames == tally[s].written) << "stream " << sids[s];  // byte for byte
    std::printf("[ outage %s ] stream %u (%s): %zu frames, %d refused, worst push %.2f s late\n", which.c_str(),
                sids[s], s < 2 ? "sync" : "async", tally[s].written.size(), tally[s].refused,
                tally[s].worstLateMs / 1000.0);
    EXPECT_EQ(tally[s].refused, 0) << "stream " << sids[s];
  }
  EXPECT_EQ(hostCalls, 0);
}

INSTANTIATE_TEST_SUITE_P(Daemons, CephOutageTest, ::testing::Values("mds.a", "osds"),
                         [](const ::testing::TestParamInfo<const char*>& p) {
                           return std::string(p.param) == "osds" ? "AllOsds" : "Mds";
                         });

}  // namespace
