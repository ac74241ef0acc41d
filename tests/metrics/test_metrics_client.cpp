// A client and the metrics file named by the configuration file: the client
// whose store is initialised hands its store's gauges down to the statistics,
// and takes them back when it goes; its writers count streams and bytes.
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MediaClientInternal.h"
#include "MediaContext.h"
#include "MediaSdkStat.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

namespace {

[[maybe_unused]] const bool g_config =
    ZarnTest::useConfigFileForProcess(R"({"enable_cfg": 1, "metrics_prom_file": "zarn.prom"})");

// The metrics file after a tick, run here rather than waited for.
std::string tickAndRead() {
  CMediaContext::instance().stats().tickNow();
  std::stringstream text;
  text << std::ifstream("zarn.prom").rdbuf();
  return text.str();
}

bool hasLine(const std::string& text, const std::string& line) {
  return text.find("\n" + line + "\n") != std::string::npos;
}

TEST(MetricsOfAClient, TheInitialisedClientsStoreFillsTheGaugesUntilItGoes) {
  ZarnTest::TempDir dir;
  const std::string store = dir.sub("store");
  {
    CMediaClientInternal client;
    EXPECT_EQ(tickAndRead(), "") << "written before any store was initialised";
    ASSERT_EQ(client.initialize(Config{store.c_str(), 0, "root", ""}, nullptr), 0);
    const std::string text = tickAndRead();
    EXPECT_TRUE(hasLine(text, "zarn_media_store_state{state=\"normal\"} 1")) << text;
    EXPECT_TRUE(hasLine(text, "zarn_media_store_locked_ratio 0")) << text;
    EXPECT_TRUE(hasLine(text, "zarn_media_playback_sessions 0")) << text;
    SystemInfo info{};
    ASSERT_TRUE(client.getSystemInfo(info));
    EXPECT_TRUE(hasLine(text, "zarn_media_store_capacity_bytes " + std::to_string(info.totalCapacity))) << text;

    // A recording stream and the bytes of its frames.
    ASSERT_EQ(client.setRecyclePolicy(5, 24, 0), 0);
    ASSERT_EQ(client.addStream(5, 1, true), 0);
    const std::vector<uint8_t> bytes =
        ZarnTest::makeFrame(0xFD, 0, 1, static_cast<uint32_t>(std::time(nullptr)), 1000);
    VeltoFrame frame;
    frame.attach(bytes.data());
    unsigned long long written = 0;
    ASSERT_EQ(client.writeFrame(5, &frame, 0, written), 0);
    const std::string recording = tickAndRead();
    EXPECT_TRUE(hasLine(recording, "zarn_media_stream_writers 1")) << recording;
    EXPECT_TRUE(hasLine(recording, "zarn_media_stream_bytes_total " + std::to_string(bytes.size()))) << recording;
    EXPECT_EQ(client.deleteStream(5), 0);
  }
  const std::string text = tickAndRead();
  EXPECT_TRUE(hasLine(text, "zarn_media_store_state{state=\"uninitialized\"} 1")) << text;
  EXPECT_EQ(text.find("zarn_media_store_capacity_bytes"), std::string::npos) << text;
}

}  // namespace
