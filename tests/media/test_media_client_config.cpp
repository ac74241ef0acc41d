// The client facade with a configuration file that overrides its setters. The
// file must be in the working directory when the process context is created,
// so this binary moves into a temporary directory before any test runs.
#include <gtest/gtest.h>
#include "MediaClientInternal.h"
#include "MediaConfig.h"
#include "MediaContext.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

namespace {

[[maybe_unused]] const bool g_config = ZarnTest::useConfigFileForProcess(R"({
  // the client's setters must lose to these
  "enable_cfg": 1,
  "max_lock_rate": 80,
  "cyclic_cover_threshold_rate": 7.5,
  "zarn_log_level": 1
})");

TEST(MediaClientWithConfig, ConfiguredValuesBeatTheSetters) {
  CMediaClientInternal client;
  ZarnTest::LogCapture log;
  EXPECT_EQ(client.maxLockRatioForTest(), 80);
  client.setMaxLockRatio(20);
  client.setMaxLockRatio(101);  // ignored without the range error
  EXPECT_EQ(client.maxLockRatioForTest(), 80);
  EXPECT_FALSE(log.contains("ratio must be in 0-100"));

  // A configured threshold makes the urgent ratio a no-op.
  EXPECT_EQ(client.setUrgentRecycleRatio(30), 0);
  EXPECT_FALSE(log.contains("not available"));

  // The configured store log level reaches the store handle, and stays.
  for (bool again : {false, true}) {
    if (again) client.enableZarnClientLog(4, "/tmp/elsewhere");
    int32_t level = -1;
    uint32_t length = sizeof(level);
    ASSERT_TRUE(client.storeForTest()->getOption(ZARN_OPT_LOG_LEVEL, &level, length));
    EXPECT_EQ(level, 1);
  }
}

}  // namespace
