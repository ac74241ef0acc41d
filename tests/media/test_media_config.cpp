// CMediaConfig: loading, the enable switch, strict JSON types, per-call keys
// with presence, and the operator rendering.
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MediaConfig.h"
#include "TestSupport.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using Velto::Zarn::CMediaConfig;

namespace {

// display() after its first line, for a configuration answering every default.
// The rendering goes through the getters, so it checks all of them and their order.
const std::string kDefaultRendering =
    "getCfgEnabled : 0\ngetMaxFileLength : 1073741824\ngetMaxFileDuration : 1800\ngetZarnLogLevel : 4\n"
    "getZarnLogPath : ./log/zarn\ngetZarnTimeout : 5000\ngetMaxLockRate : 57\ngetEyclicCoverDelay : 300000\n"
    "getCyclicCoverPeriod : 1800000\ngetCyclicCoverThresholdRate : 5\ngetCyclicCoverRateAfterDel : 5.5\n"
    "getSVCEnabled : 1\ngetForgottenManagerPort : 38010\ngetMediaSdkStatPath : /dev/shm/mediasdk.stat\n"
    "getMediaSdkFlushTimer : 60\ngetRecycleHours : 0\n";

std::string rendering(const CMediaConfig& cfg) {
  std::string shown = "stale";
  cfg.display(shown);
  return shown;
}

class MediaConfigTest : public ::testing::Test {
 protected:
  // Loads `text` as the configuration file; m_log then holds what the load
  // logged at WARN and above.
  void load(CMediaConfig& cfg, const std::string& text) {
    std::ofstream(m_path, std::ios::binary) << text;
    m_log.clear();
    cfg.initWithFile(m_path);
  }

  static void expectAllDefaults(const CMediaConfig& cfg) {
    std::string shown = rendering(cfg);
    EXPECT_EQ(shown.substr(shown.find('\n') + 1), kDefaultRendering);
    bool present[4] = {true, true, true, true};
    (void)cfg.getZarnLogLevel(present[0]);
    (void)cfg.getZarnLogPath(present[1]);
    (void)cfg.getMaxLockRate(present[2]);
    (void)cfg.getCyclicCoverThresholdRate(present[3]);
    for (bool p : present) EXPECT_FALSE(p);
  }

  ZarnTest::TempDir m_dir;
  std::string m_path = m_dir.sub("MediaConfig.cfg");
  ZarnTest::LogCapture m_log{Velto::Kandu::LOG_WARN};
};

// --- Files that leave every default in force --------------------------------

TEST_F(MediaConfigTest, NothingLoadedOrNoFileAnswersDefaults) {
  CMediaConfig nothing;
  EXPECT_EQ(nothing.getInt("max_file_length", 9), 9);
  EXPECT_EQ(nothing.getString("zarn_log_path", "x"), "x");
  EXPECT_TRUE(m_log.lines().empty());
  EXPECT_EQ(rendering(nothing), "no config file or parse failed, load defualts\n" + kDefaultRendering);

  CMediaConfig cfg;
  const std::string path = m_dir.sub("absent.cfg");
  cfg.initWithFile(path);
  expectAllDefaults(cfg);
  ASSERT_EQ(m_log.lines().size(), 1u);
  // The log destination adds the line break.
  EXPECT_THAT(m_log.lines()[0], StartsWith("#0,CMediaConfig::initWithFile "));
  EXPECT_THAT(m_log.lines()[0], EndsWith(", load config file failed, maybe it doesn't exist (" + path + ")."));
}

TEST_F(MediaConfigTest, EnableSwitchMissingZeroOrNotAnInteger) {
  const std::pair<const char*, const char*> cases[] = {  // file, the only line logged (or none)
      {R"({ "max_file_length": 100, "max_lock_rate": 80 })", "key (enable_cfg) does not exist"},
      // The switch hides the per-call keys too.
      {R"({ "enable_cfg": 0, "max_file_length": 100, "zarn_log_level": 1, "max_lock_rate": 80,
            "stdfile_config_file_name": "std.cfg" })", nullptr},
      {R"({ "enable_cfg": true, "max_file_length": 100, "max_lock_rate": 80 })",
       "the value of (enable_cfg) is not Int, the real type is 5"},
  };
  for (const auto& [json, warning] : cases) {
    SCOPED_TRACE(json);
    CMediaConfig cfg;
    load(cfg, json);
    expectAllDefaults(cfg);
    ASSERT_EQ(m_log.lines().size(), warning ? 1u : 0u);
    if (warning) {
      EXPECT_THAT(m_log.lines()[0], HasSubstr(warning));
    }
    EXPECT_EQ(cfg.getInt("max_lock_rate", 57), 80);  // raw lookups ignore the switch
  }
}

TEST_F(MediaConfigTest, UnparsableOrNonObjectFileLogsTwoErrorsAndKeepsDefaults) {
  const std::string text = R"({ "enable_cfg": 1, "max_file_length": 100, )";
  CMediaConfig cfg;
  load(cfg, text);
  expectAllDefaults(cfg);
  ASSERT_EQ(m_log.lines().size(), 2u);
  EXPECT_THAT(m_log.lines()[0], HasSubstr(", parse config file failed (" + m_path + "):\n" + text));
  EXPECT_THAT(m_log.lines()[1], HasSubstr(", err msg: "));
  EXPECT_THAT(m_log.lines()[1], HasSubstr("Line 1"));  // jsoncpp's formatted message
  EXPECT_THAT(rendering(cfg), StartsWith("no config file or parse failed, load defualts\n"));

  for (const char* other : {"[1, 2, 3]", "5", "\"enable_cfg\"", ""}) {
    SCOPED_TRACE(other);
    CMediaConfig unusable;
    load(unusable, other);
    expectAllDefaults(unusable);
    EXPECT_EQ(m_log.count("parse config file failed"), 1u);
    EXPECT_EQ(m_log.count("does not exist"), 0u);
  }
}

// --- Enabled files ------------------------------------------------------------

TEST_F(MediaConfigTest, EnabledFileOverridesEveryValueAndDisplayShowsThem) {
  CMediaConfig cfg;
  load(cfg, R"({ "enable_cfg": 7, "max_file_length": 536870912, "max_file_duration": 600,
    "min_cut_file_time": 12, "zarn_timeout": 9000, "cyclic_cover_delay": 1000, "cyclic_cover_period": 2000,
    "cyclic_cover_rate_after_del": 12.25, "enable_svc": 0, "forgotten_manager_port": 40000,
    "media_sdk_stat_file": "/tmp/x.stat", "status_flush_timer": 30, "recycle_hours": 72,
    "zarn_log_level": 2, "zarn_log_path": "/l", "max_lock_rate": 90, "cyclic_cover_threshold_rate": 3.25 })");
  EXPECT_TRUE(m_log.lines().empty());       // no warnings, no type errors
  EXPECT_EQ(cfg.getMinCutFileTime(), 12);  // the one value display() leaves out

  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_INFO);
  const std::string shown = rendering(cfg);
  EXPECT_EQ(shown,
            "load from config file\ngetCfgEnabled : 1\ngetMaxFileLength : 536870912\ngetMaxFileDuration : 600\n"
            "getZarnLogLevel : 2\ngetZarnLogPath : /l\ngetZarnTimeout : 9000\ngetMaxLockRate : 90\n"
            "getEyclicCoverDelay : 1000\ngetCyclicCoverPeriod : 2000\ngetCyclicCoverThresholdRate : 3.25\n"
            "getCyclicCoverRateAfterDel : 12.25\ngetSVCEnabled : 0\ngetForgottenManagerPort : 40000\n"
            "getMediaSdkStatPath : /tmp/x.stat\ngetMediaSdkFlushTimer : 30\ngetRecycleHours : 72\n");
  ASSERT_EQ(m_log.lines().size(), 1u);
  EXPECT_THAT(m_log.lines()[0], StartsWith("#0,CMediaConfig::display "));
  EXPECT_THAT(m_log.lines()[0], HasSubstr(", MediaConfig: " + shown.substr(0, shown.size() - 1)));
}

TEST_F(MediaConfigTest, AbsentKeysWarnOnceAtLoadForCachedValuesAndOnEveryCallForPerCallValues) {
  CMediaConfig cfg;
  load(cfg, R"({ "enable_cfg": 1, "max_lock_rate": 80, "zarn_log_path": "/var/log/z" })");
  const std::vector<std::string> cachedKeys = {
      "max_file_length",    "max_file_duration",   "min_cut_file_time",           "zarn_timeout",
      "cyclic_cover_delay", "cyclic_cover_period", "cyclic_cover_rate_after_del", "enable_svc",
      "forgotten_manager_port", "media_sdk_stat_file", "status_flush_timer",      "recycle_hours"};
  ASSERT_EQ(m_log.lines().size(), cachedKeys.size());
  for (size_t i = 0; i < cachedKeys.size(); ++i)  // in the order the values are filled
    EXPECT_THAT(m_log.lines()[i], HasSubstr("key (" + cachedKeys[i] + ") does not exist"));

  m_log.clear();
  EXPECT_EQ(cfg.getMaxFileLength(), 1073741824);
  EXPECT_EQ(cfg.getRecycleHours(), 0u);
  bool present = false;
  EXPECT_EQ(cfg.getMaxLockRate(present), 80);
  EXPECT_TRUE(present);
  EXPECT_EQ(cfg.getZarnLogPath(present), "/var/log/z");
  EXPECT_TRUE(present);
  EXPECT_TRUE(m_log.lines().empty());

  for (size_t call = 1; call <= 3; ++call) {
    bool level = true, rate = true;
    EXPECT_EQ(cfg.getZarnLogLevel(level), 4);
    EXPECT_DOUBLE_EQ(cfg.getCyclicCoverThresholdRate(rate), 5.0);
    EXPECT_FALSE(level || rate);
    EXPECT_EQ(m_log.count("key (zarn_log_level) does not exist"), call);
    EXPECT_EQ(m_log.count("key (cyclic_cover_threshold_rate) does not exist"), call);
  }
  // Rendering fetches the per-call values through their getters, so it warns again.
  m_log.clear();
  (void)rendering(cfg);
  EXPECT_EQ(m_log.lines().size(), 2u);
}

TEST_F(MediaConfigTest, WrongTypesYieldDefaultsWithTheirTypeCodes) {
  CMediaConfig cfg;
  load(cfg, R"({ "enable_cfg": 1, "max_file_duration": 900.0, "media_sdk_stat_file": 12,
    "zarn_timeout": "fast", "status_flush_timer": [1], "forgotten_manager_port": { "port": 1 },
    "min_cut_file_time": null, "max_file_length": 5000000000, "cyclic_cover_delay": -5000000000,
    "recycle_hours": -1, "cyclic_cover_rate_after_del": 5, "cyclic_cover_threshold_rate": 7 })");
  EXPECT_TRUE(cfg.getCfgEnabled());
  EXPECT_EQ(cfg.getMediaSdkStatPath(), "/dev/shm/mediasdk.stat");
  const std::pair<int64_t, int64_t> numbers[] = {  // value, default
      {cfg.getMaxFileDuration(), 1800},      {cfg.getZarnTimeout(), 5000},        {cfg.getMediaSdkFlushTimer(), 60},
      {cfg.getForgottenManagerPort(), 38010}, {cfg.getMinCutFileTime(), 30},
      {cfg.getMaxFileLength(), 1073741824},  // beyond 32 bits
      {cfg.getEyclicCoverDelay(), 300000},
      {cfg.getRecycleHours(), 0xFFFFFFFFu},  // an integer, taken as unsigned
  };
  for (size_t i = 0; i < std::size(numbers); ++i) EXPECT_EQ(numbers[i].first, numbers[i].second) << i;
  EXPECT_DOUBLE_EQ(cfg.getCyclicCoverRateAfterDel(), 5.5);
  // The key is present, so it counts as configured even though its value is refused.
  bool present = false;
  EXPECT_DOUBLE_EQ(cfg.getCyclicCoverThresholdRate(present), 5.0);
  EXPECT_TRUE(present);

  for (const char* error : {"(max_file_duration) is not Int, the real type is 3",
                            "(media_sdk_stat_file) is not String, the real type is 1",
                            "(zarn_timeout) is not Int, the real type is 4",
                            "(status_flush_timer) is not Int, the real type is 6",
                            "(forgotten_manager_port) is not Int, the real type is 7",
                            "(min_cut_file_time) is not Int, the real type is 0",
                            "(max_file_length) is not Int, the real type is 2",  // jsoncpp: unsigned
                            "(cyclic_cover_delay) is out of the Int range",
                            "the value of (cyclic_cover_rate_after_del) is not Double, the real type is 1",
                            "the value of (cyclic_cover_threshold_rate) is not Double, the real type is 1"})
    EXPECT_EQ(m_log.count(error), 1u) << error;
  EXPECT_EQ(m_log.count("#0,CMediaConfig::getDouble "), 2u);
}

// --- Text handling -------------------------------------------------------------

TEST_F(MediaConfigTest, CommentsAndLinesLongerThanTheReadPiece) {
  CMediaConfig commented;
  load(commented,
       "// tuning for the recorder\n{\n  \"enable_cfg\": 1, /* master switch */\n"
       "  // \"max_file_duration\": 10,\n  \"max_file_duration\": 900 // seconds\n}\n");
  EXPECT_TRUE(commented.getCfgEnabled());
  EXPECT_EQ(commented.getMaxFileDuration(), 900);
  EXPECT_EQ(m_log.count("parse config file failed"), 0u);

  // The path straddles several 2047-character pieces, and the key after it sits
  // on the same physical line.
  std::string longPath = "/";
  for (int i = 0; i < 5000; ++i) longPath += static_cast<char>('a' + i % 26);
  CMediaConfig cfg;
  load(cfg, "{ \"enable_cfg\": 1, \"zarn_log_path\": \"" + longPath + "\", \"max_file_duration\": 901 }");
  bool present = false;
  EXPECT_EQ(cfg.getZarnLogPath(present), longPath);
  EXPECT_TRUE(present);
  EXPECT_EQ(cfg.getMaxFileDuration(), 901);
}

}  // namespace
