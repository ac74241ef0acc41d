// CMediaConfig: loading, the enable switch, strict JSON types, per-call keys
// with presence, and the operator rendering.
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MediaConfig.h"
#include "TestSupport.h"

using Velto::Zarn::CMediaConfig;

namespace {

class MediaConfigTest : public ::testing::Test {
 protected:
  std::string writeConfig(const std::string& text, const std::string& name = "MediaConfig.cfg") {
    std::string path = m_dir.sub(name);
    std::ofstream out(path, std::ios::binary);
    out << text;
    return path;
  }

  static void expectAllDefaults(const CMediaConfig& cfg) {
    EXPECT_FALSE(cfg.getCfgEnabled());
    EXPECT_EQ(cfg.getMaxFileLength(), 1073741824);
    EXPECT_EQ(cfg.getMaxFileDuration(), 1800);
    EXPECT_EQ(cfg.getMinCutFileTime(), 30);
    EXPECT_EQ(cfg.getZarnTimeout(), 5000);
    EXPECT_EQ(cfg.getEyclicCoverDelay(), 300000);
    EXPECT_EQ(cfg.getCyclicCoverPeriod(), 1800000);
    EXPECT_DOUBLE_EQ(cfg.getCyclicCoverRateAfterDel(), 5.5);
    EXPECT_TRUE(cfg.getSVCEnabled());
    EXPECT_EQ(cfg.getForgottenManagerPort(), 38010);
    EXPECT_EQ(cfg.getMediaSdkStatPath(), "/dev/shm/mediasdk.stat");
    EXPECT_EQ(cfg.getMediaSdkFlushTimer(), 60);
    EXPECT_EQ(cfg.getRecycleHours(), 0u);

    bool present = true;
    EXPECT_EQ(cfg.getZarnLogLevel(present), 4);
    EXPECT_FALSE(present);
    present = true;
    EXPECT_EQ(cfg.getZarnLogPath(present), "./log/zarn");
    EXPECT_FALSE(present);
    present = true;
    EXPECT_EQ(cfg.getMaxLockRate(present), 57);
    EXPECT_FALSE(present);
    present = true;
    EXPECT_DOUBLE_EQ(cfg.getCyclicCoverThresholdRate(present), 5.0);
    EXPECT_FALSE(present);
    std::string name = "stale";
    EXPECT_FALSE(cfg.getStdFileConfigFileName(name));
    EXPECT_EQ(name, "");
  }

  ZarnTest::TempDir m_dir;
};

// --- Files that leave every default in force --------------------------------

TEST_F(MediaConfigTest, NothingLoadedAnswersDefaultsWithoutLogging) {
  ZarnTest::LogCapture log(Velto::Kandu::LOG_TRACE);
  CMediaConfig cfg;
  expectAllDefaults(cfg);
  EXPECT_EQ(cfg.getInt("max_file_length", 9), 9);
  EXPECT_EQ(cfg.getString("zarn_log_path", "x"), "x");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(MediaConfigTest, MissingFileWarnsOnceAndKeepsDefaults) {
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  std::string path = m_dir.sub("absent.cfg");
  cfg.initWithFile(path);
  expectAllDefaults(cfg);

  ASSERT_EQ(log.lines().size(), 1u);
  const std::string line = log.lines()[0];
  // (The log destination supplies the line break.)
  const std::string tail = ", load config file failed, maybe it doesn't exist (" + path + ").";
  EXPECT_EQ(line.rfind("#0,CMediaConfig::initWithFile ", 0), 0u) << line;
  ASSERT_GE(line.size(), tail.size());
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
  EXPECT_EQ(log.count("does not exist"), 0u);
}

TEST_F(MediaConfigTest, FileWithoutEnableSwitchWarnsForItOnly) {
  std::string path = writeConfig(R"({ "max_file_length": 100, "max_lock_rate": 80 })");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);
  expectAllDefaults(cfg);
  EXPECT_EQ(log.count("key (enable_cfg) does not exist"), 1u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(MediaConfigTest, EnableSwitchZeroDisablesSilently) {
  std::string path = writeConfig(R"({ "enable_cfg": 0, "max_file_length": 100, "zarn_log_level": 1,
                                      "max_lock_rate": 80, "stdfile_config_file_name": "std.cfg" })");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);
  expectAllDefaults(cfg);  // per-call keys included: the switch hides them too
  EXPECT_TRUE(log.lines().empty());
  // The raw lookups do not look at the switch.
  EXPECT_EQ(cfg.getInt("max_lock_rate", 57), 80);
}

TEST_F(MediaConfigTest, BooleanEnableSwitchIsRefused) {
  std::string path = writeConfig(R"({ "enable_cfg": true, "max_file_length": 100 })");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);
  expectAllDefaults(cfg);
  EXPECT_EQ(log.count("the value of (enable_cfg) is not Int, the real type is 5"), 1u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(MediaConfigTest, UnparsableFileLogsTwoErrorsAndKeepsDefaults) {
  std::string text = R"({ "enable_cfg": 1, "max_file_length": 100, )";
  std::string path = writeConfig(text);
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);
  expectAllDefaults(cfg);

  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_NE(log.lines()[0].find(", parse config file failed (" + path + "):\n" + text), std::string::npos);
  EXPECT_NE(log.lines()[1].find(", err msg: "), std::string::npos);
  EXPECT_NE(log.lines()[1].find("Line 1"), std::string::npos);  // jsoncpp's formatted message

  std::string shown;
  cfg.display(shown);
  EXPECT_EQ(shown.substr(0, shown.find('\n')), "no config file or parse failed, load defualts");
}

TEST_F(MediaConfigTest, DocumentThatIsNotAnObjectIsUnusable) {
  for (const char* text : {"[1, 2, 3]", "5", "\"enable_cfg\"", ""}) {
    SCOPED_TRACE(text);
    std::string path = writeConfig(text);
    ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
    CMediaConfig cfg;
    cfg.initWithFile(path);
    expectAllDefaults(cfg);
    EXPECT_EQ(log.count("parse config file failed"), 1u);
    EXPECT_EQ(log.count("does not exist"), 0u);
  }
}

// --- Enabled files ------------------------------------------------------------

TEST_F(MediaConfigTest, EnabledFileOverridesEveryValueAndDisplayShowsThem) {
  std::string path = writeConfig(R"({ "enable_cfg": 7, "max_file_length": 536870912, "max_file_duration": 600,
    "min_cut_file_time": 12, "zarn_timeout": 9000, "cyclic_cover_delay": 1000, "cyclic_cover_period": 2000,
    "cyclic_cover_rate_after_del": 12.25, "enable_svc": 0, "forgotten_manager_port": 40000,
    "media_sdk_stat_file": "/tmp/x.stat", "status_flush_timer": 30, "recycle_hours": 72,
    "zarn_log_level": 2, "zarn_log_path": "/l", "max_lock_rate": 90, "cyclic_cover_threshold_rate": 3.25 })");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_TRACE);
  CMediaConfig cfg;
  cfg.initWithFile(path);

  EXPECT_TRUE(cfg.getCfgEnabled());
  EXPECT_EQ(cfg.getMaxFileLength(), 536870912);
  EXPECT_EQ(cfg.getMaxFileDuration(), 600);
  EXPECT_EQ(cfg.getMinCutFileTime(), 12);
  EXPECT_EQ(cfg.getZarnTimeout(), 9000);
  EXPECT_EQ(cfg.getEyclicCoverDelay(), 1000);
  EXPECT_EQ(cfg.getCyclicCoverPeriod(), 2000);
  EXPECT_DOUBLE_EQ(cfg.getCyclicCoverRateAfterDel(), 12.25);
  EXPECT_FALSE(cfg.getSVCEnabled());
  EXPECT_EQ(cfg.getForgottenManagerPort(), 40000);
  EXPECT_EQ(cfg.getMediaSdkStatPath(), "/tmp/x.stat");
  EXPECT_EQ(cfg.getMediaSdkFlushTimer(), 30);
  EXPECT_EQ(cfg.getRecycleHours(), 72u);
  EXPECT_EQ(log.count(", load & parse config file successfully (" + path + "):\n"), 1u);
  ASSERT_EQ(log.lines().size(), 1u);  // no warnings, no type errors

  log.clear();
  std::string shown = "stale";
  cfg.display(shown);
  EXPECT_EQ(shown,
            "load from config file\n"
            "getCfgEnabled : 1\n"
            "getMaxFileLength : 536870912\n"
            "getMaxFileDuration : 600\n"
            "getZarnLogLevel : 2\n"
            "getZarnLogPath : /l\n"
            "getZarnTimeout : 9000\n"
            "getMaxLockRate : 90\n"
            "getEyclicCoverDelay : 1000\n"
            "getCyclicCoverPeriod : 2000\n"
            "getCyclicCoverThresholdRate : 3.25\n"
            "getCyclicCoverRateAfterDel : 12.25\n"
            "getSVCEnabled : 0\n"
            "getForgottenManagerPort : 40000\n"
            "getMediaSdkStatPath : /tmp/x.stat\n"
            "getMediaSdkFlushTimer : 30\n"
            "getRecycleHours : 72\n");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("#0,CMediaConfig::display ", 0), 0u);
  EXPECT_NE(log.lines()[0].find(", MediaConfig: " + shown.substr(0, shown.size() - 1)), std::string::npos);
}

TEST_F(MediaConfigTest, EnabledFileWarnsOnceAtLoadForEachAbsentCachedKey) {
  std::string path = writeConfig(R"({ "enable_cfg": 1 })");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);

  const std::vector<std::string> cachedKeys = {
      "max_file_length",    "max_file_duration",     "min_cut_file_time",     "zarn_timeout",
      "cyclic_cover_delay", "cyclic_cover_period",   "cyclic_cover_rate_after_del", "enable_svc",
      "forgotten_manager_port", "media_sdk_stat_file", "status_flush_timer",  "recycle_hours"};
  ASSERT_EQ(log.lines().size(), cachedKeys.size());
  for (size_t i = 0; i < cachedKeys.size(); ++i) {
    // In the order the values are filled.
    EXPECT_NE(log.lines()[i].find("key (" + cachedKeys[i] + ") does not exist"), std::string::npos) << i;
  }

  log.clear();
  EXPECT_EQ(cfg.getMaxFileLength(), 1073741824);
  EXPECT_EQ(cfg.getRecycleHours(), 0u);
  EXPECT_TRUE(cfg.getSVCEnabled());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(MediaConfigTest, IntegerWhereRealIsExpectedIsRefused) {
  std::string path = writeConfig(R"({ "enable_cfg": 1, "cyclic_cover_rate_after_del": 5,
                                      "cyclic_cover_threshold_rate": 7 })");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);
  EXPECT_DOUBLE_EQ(cfg.getCyclicCoverRateAfterDel(), 5.5);
  EXPECT_EQ(log.count("#0,CMediaConfig::getDouble "), 1u);
  EXPECT_EQ(log.count("the value of (cyclic_cover_rate_after_del) is not Double, the real type is 1"), 1u);

  // The key is present, so it counts as configured even though its value is refused.
  bool present = false;
  EXPECT_DOUBLE_EQ(cfg.getCyclicCoverThresholdRate(present), 5.0);
  EXPECT_TRUE(present);
  EXPECT_EQ(log.count("the value of (cyclic_cover_threshold_rate) is not Double, the real type is 1"), 1u);
}

TEST_F(MediaConfigTest, WrongTypesYieldDefaultsWithTheirTypeCodes) {
  std::string path = writeConfig(R"({ "enable_cfg": 1,
    "max_file_duration": 900.0,
    "media_sdk_stat_file": 12,
    "zarn_timeout": "fast",
    "status_flush_timer": [1],
    "forgotten_manager_port": { "port": 1 },
    "min_cut_file_time": null,
    "max_file_length": 5000000000,
    "cyclic_cover_delay": -5000000000,
    "recycle_hours": -1 })");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);
  EXPECT_TRUE(cfg.getCfgEnabled());
  EXPECT_EQ(cfg.getMaxFileDuration(), 1800);
  EXPECT_EQ(cfg.getMediaSdkStatPath(), "/dev/shm/mediasdk.stat");
  EXPECT_EQ(cfg.getZarnTimeout(), 5000);
  EXPECT_EQ(cfg.getMediaSdkFlushTimer(), 60);
  EXPECT_EQ(cfg.getForgottenManagerPort(), 38010);
  EXPECT_EQ(cfg.getMinCutFileTime(), 30);
  EXPECT_EQ(cfg.getMaxFileLength(), 1073741824);  // beyond 32 bits
  EXPECT_EQ(cfg.getEyclicCoverDelay(), 300000);
  EXPECT_EQ(cfg.getRecycleHours(), 0xFFFFFFFFu);   // an integer, taken as unsigned

  EXPECT_EQ(log.count("(max_file_duration) is not Int, the real type is 3"), 1u);
  EXPECT_EQ(log.count("(media_sdk_stat_file) is not String, the real type is 1"), 1u);
  EXPECT_EQ(log.count("(zarn_timeout) is not Int, the real type is 4"), 1u);
  EXPECT_EQ(log.count("(status_flush_timer) is not Int, the real type is 6"), 1u);
  EXPECT_EQ(log.count("(forgotten_manager_port) is not Int, the real type is 7"), 1u);
  EXPECT_EQ(log.count("(min_cut_file_time) is not Int, the real type is 0"), 1u);
  EXPECT_EQ(log.count("(max_file_length) is not Int, the real type is 2"), 1u);  // jsoncpp: unsigned
  EXPECT_EQ(log.count("(cyclic_cover_delay) is out of the Int range"), 1u);
}

TEST_F(MediaConfigTest, PerCallKeysReportPresenceAndWarnOnEveryCallWhenAbsent) {
  std::string path = writeConfig(R"({ "enable_cfg": 1, "max_lock_rate": 80, "zarn_log_path": "/var/log/z" })");
  CMediaConfig cfg;
  cfg.initWithFile(path);
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);

  bool present = false;
  EXPECT_EQ(cfg.getMaxLockRate(present), 80);
  EXPECT_TRUE(present);
  EXPECT_EQ(cfg.getZarnLogPath(present), "/var/log/z");
  EXPECT_TRUE(present);
  EXPECT_TRUE(log.lines().empty());

  for (int call = 1; call <= 3; ++call) {
    present = true;
    EXPECT_EQ(cfg.getZarnLogLevel(present), 4);
    EXPECT_FALSE(present);
    present = true;
    EXPECT_DOUBLE_EQ(cfg.getCyclicCoverThresholdRate(present), 5.0);
    EXPECT_FALSE(present);
    EXPECT_EQ(log.count("key (zarn_log_level) does not exist"), static_cast<size_t>(call));
    EXPECT_EQ(log.count("key (cyclic_cover_threshold_rate) does not exist"), static_cast<size_t>(call));
  }
}

TEST_F(MediaConfigTest, LocalStoreKeys) {
  std::string path = writeConfig(R"({ "enable_cfg": 1, "stdfile_config_file_name": "stdfile.cfg",
                                      "stdfile_disk": ["/mnt/a", "/mnt/b", 3] })");
  CMediaConfig cfg;
  cfg.initWithFile(path);
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);

  std::string name;
  EXPECT_TRUE(cfg.getStdFileConfigFileName(name));
  EXPECT_EQ(name, "stdfile.cfg");

  Json::Value disks;
  ASSERT_TRUE(cfg.getArray("stdfile_disk", disks));
  EXPECT_EQ(disks.size(), 3u);
  std::vector<std::string> diskNames;
  EXPECT_TRUE(cfg.getArray("stdfile_disk", diskNames));
  EXPECT_EQ(diskNames, (std::vector<std::string>{"/mnt/a", "/mnt/b"}));
  EXPECT_EQ(log.count("(stdfile_disk) is not String, the real type is 1"), 1u);

  log.clear();
  EXPECT_FALSE(cfg.getArray("other_disks", disks));
  EXPECT_FALSE(cfg.getArray("stdfile_config_file_name", diskNames));  // not an array
  EXPECT_TRUE(diskNames.empty());
  EXPECT_EQ(log.count("key (other_disks) does not exist"), 1u);
  EXPECT_EQ(log.count("key (stdfile_config_file_name) does not exist"), 1u);
}

// --- Text handling -------------------------------------------------------------

TEST_F(MediaConfigTest, CommentsAreAllowed) {
  std::string path = writeConfig(
      "// tuning for the recorder\n"
      "{\n"
      "  \"enable_cfg\": 1, /* master switch */\n"
      "  // \"max_file_duration\": 10,\n"
      "  \"max_file_duration\": 900 // seconds\n"
      "}\n");
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  CMediaConfig cfg;
  cfg.initWithFile(path);
  EXPECT_TRUE(cfg.getCfgEnabled());
  EXPECT_EQ(cfg.getMaxFileDuration(), 900);
  EXPECT_EQ(log.count("parse config file failed"), 0u);
}

TEST_F(MediaConfigTest, LinesLongerThanTheReadPieceJoinUp) {
  // The path straddles several 2047-character pieces, and the key after it sits
  // on the same physical line.
  std::string longPath = "/";
  for (int i = 0; i < 5000; ++i) longPath += static_cast<char>('a' + i % 26);
  std::string path = writeConfig("{ \"enable_cfg\": 1, \"zarn_log_path\": \"" + longPath +
                                 "\", \"max_file_duration\": 901 }");
  CMediaConfig cfg;
  cfg.initWithFile(path);
  bool present = false;
  EXPECT_EQ(cfg.getZarnLogPath(present), longPath);
  EXPECT_TRUE(present);
  EXPECT_EQ(cfg.getMaxFileDuration(), 901);
}

// --- Rendering -----------------------------------------------------------------

TEST_F(MediaConfigTest, DisplayFetchesPerCallValuesThroughTheirGetters) {
  CMediaConfig defaults;
  std::string shown;
  defaults.display(shown);
  EXPECT_EQ(shown.substr(0, shown.find("getZarnTimeout")),
            "no config file or parse failed, load defualts\n"
            "getCfgEnabled : 0\n"
            "getMaxFileLength : 1073741824\n"
            "getMaxFileDuration : 1800\n"
            "getZarnLogLevel : 4\n"
            "getZarnLogPath : ./log/zarn\n");
  EXPECT_NE(shown.find("\ngetCyclicCoverThresholdRate : 5\ngetCyclicCoverRateAfterDel : 5.5\n"), std::string::npos);

  // Enabled without the per-call keys: rendering warns for each of them.
  CMediaConfig cfg;
  cfg.initWithFile(writeConfig(R"({ "enable_cfg": 1 })"));
  ZarnTest::LogCapture log(Velto::Kandu::LOG_WARN);
  cfg.display(shown);
  EXPECT_EQ(shown.substr(0, shown.find('\n')), "load from config file");
  EXPECT_EQ(log.lines().size(), 4u);
  EXPECT_EQ(log.count("key (zarn_log_level) does not exist"), 1u);
  EXPECT_EQ(log.count("key (zarn_log_path) does not exist"), 1u);
  EXPECT_EQ(log.count("key (max_lock_rate) does not exist"), 1u);
  EXPECT_EQ(log.count("key (cyclic_cover_threshold_rate) does not exist"), 1u);
}

}  // namespace
