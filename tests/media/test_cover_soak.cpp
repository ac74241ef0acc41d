// Two months of a small site on a manual clock: four cameras record into a
// store capped at 40 MiB, under a time policy, a space policy, a long time
// policy the store cannot hold (so urgent recycling must step in), a locked
// incident and a camera discarded after ten days. Throughout, no frame is
// refused and the store never fills; the time policy holds within two cover
// periods and the space policy within one file; at the end the incident is
// whole, the ledger matches the locked names, and the discarded camera has
// left nothing behind. Deleting a stream's records then takes the locked
// incident too, and the ledger goes back to 0.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "DiscardStreams.h"
#include "KanduTime.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
using Velto::Kandu::CManualClock;

namespace {

const bool kConfigured = ZarnTest::useConfigFileForProcess(
    R"({"enable_cfg": 1, "cyclic_cover_delay": 60000, "cyclic_cover_period": 1800000, "recycle_hours": 24,
        "max_file_duration": 3600, "media_sdk_stat_file": "mediasdk.stat"})");

const uint32_t T0 = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 1, 1, 0, 0, 0));
constexpr uint32_t kStep = 600, kHour = 3600, kDay = 86400, kPeriod = 1800;
constexpr uint32_t kTimed = 1, kSpaced = 2, kLong = 3, kDiscarded = 4;
const uint32_t kIncidentBegin = T0 + 2 * kDay, kIncidentEnd = kIncidentBegin + 12 * kHour;

TEST(CoverSoakTest, SixtyDaysInACappedStoreKeepEveryPromise) {
  // tmpfs when there is one: thousands of file closes, each synced.
  const std::string base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : ZarnTest::TempDir().path();
  const std::string root = base + "/zarn-cover-soak-" + std::to_string(::getpid());
  const std::string address = root + "?capacity=40M";
  struct Cleanup {
    std::string path;
    ~Cleanup() { std::filesystem::remove_all(path); }
  } cleanup{root};

  CManualClock clock(int64_t{T0} * 1000);
  CMediaClientInternal client(clock);
  ASSERT_EQ(client.initialize(Config{address.c_str(), 0, "root", ""}, nullptr), 0);
  CZarnFileSystem& fs = *client.storeForTest();
  ASSERT_EQ(client.setUrgentRecycleRatio(80), 0);  // urgent below 20 % free
  client.setRecyclePolicy(kTimed, 24, 0);
  client.setRecyclePolicy(kSpaced, 0, 1);
  client.setRecyclePolicy(kLong, 480, 0);  // 20 days: more than the store holds
  for (uint32_t sid : {kTimed, kSpaced, kLong, kDiscarded}) ASSERT_EQ(client.addStream(sid, 1, true), 0);

  uint32_t sequence = 0;
  for (uint32_t now = T0; now < T0 + 60 * kDay; now += kStep) {
    for (uint32_t sid : {kTimed, kSpaced, kLong, kDiscarded}) {
      if (sid == kDiscarded && now >= T0 + 10 * kDay) continue;
      const bool incident = sid == kLong && now >= kIncidentBegin && now < kIncidentEnd;
      std::vector<uint8_t> bytes = ZarnTest::makeFrame(FRAME_TYPE_I, 0, sequence++, now, incident ? 190000 : 11000);
      VeltoFrame frame;
      frame.attach(bytes.data());
      unsigned long long position = 0;
      ASSERT_EQ(client.writeFrame(sid, &frame, 0, position), 0) << "stream " << sid << " at day " << (now - T0) / kDay;
    }
    if (now == T0 + 5 * kDay) {
      ASSERT_EQ(client.lockStream(kLong, kIncidentBegin, kIncidentEnd), 0);
    }
    if (now == T0 + 10 * kDay) {
      ASSERT_EQ(client.deleteStream(kDiscarded), 0);
      ASSERT_TRUE(client.discardStream(kDiscarded, 48, 0));
    }
    clock.advance(kStep * 1000);

    if ((now - T0) % kHour != 0) continue;
    // A connection of its own: a capped store's usage is cached per
    // connection for two seconds of real time, which this test never lets pass.
    CZarnFileSystem probe;
    SystemInfo info{};
    ASSERT_TRUE(probe.initialize(Config{address.c_str(), 0, "root", ""}) && probe.getSystemInfo(info));
    ASSERT_GT(info.freeCapacity, 4u << 20) << "day " << (now - T0) / kDay;
    const std::vector<RecordFileName> timed = ZarnTest::listRecords(fs, kTimed);
    if (now > T0 + kDay && !timed.empty()) {
      ASSERT_GE(timed.front().beginTime + 24 * kHour + 2 * kPeriod, now) << "day " << (now - T0) / kDay;
    }
    uint64_t spaced = 0, largest = 0;
    for (const RecordFileName& f : ZarnTest::listRecords(fs, kSpaced)) spaced += f.size, largest = std::max(largest, f.size);
    ASSERT_LE(spaced, (1u << 20) + largest) << "day " << (now - T0) / kDay;
  }

  uint32_t lockedFiles = 0;
  uint64_t lockedMiB = 0;
  uint32_t oldestUnlocked = 0;
  for (const RecordFileName& f : ZarnTest::listRecords(fs, kLong)) {
    if (f.lockCount > 0) {
      EXPECT_TRUE(f.beginTime >= kIncidentBegin && f.beginTime < kIncidentEnd);
      ++lockedFiles;
      lockedMiB += f.size >> 20;
    } else if (oldestUnlocked == 0) {
      oldestUnlocked = f.beginTime;
    }
  }
  EXPECT_EQ(lockedFiles, 12u);  // the whole incident, hour by hour
  uint64_t ledger = 0;
  ASSERT_TRUE(getLockSize(fs, ledger));
  EXPECT_EQ(ledger, lockedMiB);
  // Urgent recycling, not the 20-day policy, bounded the long stream.
  EXPECT_GT(oldestUnlocked, T0 + 60 * kDay - 480 * kHour + kDay);
  EXPECT_FALSE(fs.getBucket(bucketName(kDiscarded, BUCKET_KIND_MEDIA)).isValid());
  DiscardList discarded;
  ASSERT_TRUE(queryDiscardStream(fs, discarded));
  EXPECT_TRUE(discarded.empty());
  // Deleting the long stream's records takes its locked files too, and the
  // ledger with them, on the next cover run.
  for (uint32_t sid : {kTimed, kSpaced, kLong}) client.deleteStream(sid);
  std::list<unsigned> deleted{kLong};
  ASSERT_EQ(client.deleteRecord("camera-3", deleted), 0);
  clock.advance(2 * kPeriod * 1000);
  EXPECT_FALSE(fs.getBucket(bucketName(kLong, BUCKET_KIND_MEDIA)).isValid());
  ASSERT_TRUE(getLockSize(fs, ledger));
  EXPECT_EQ(ledger, 0u);
  EXPECT_TRUE(client.coverForTest().deleteSet().empty());
}

}  // namespace
