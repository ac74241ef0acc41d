// The metrics file: its exposition format, its values, and how the statistics
// tick writes it beside (or without) the status file.
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "KanduTime.h"
#include "MediaConfig.h"
#include "MediaSdkStat.h"
#include "MediaValues.h"
#include "PromMetrics.h"
#include "TestSupport.h"

using namespace Velto::Zarn;
namespace fs = std::filesystem;

namespace {

// A parsed exposition: sample "name{labels}" -> value, family -> type. Every
// format rule the collector relies on is checked while parsing.
struct Exposition {
  std::map<std::string, double> samples;
  std::map<std::string, std::string> types;
};

Exposition parse(const std::string& text) {
  Exposition out;
  std::istringstream lines(text);
  std::string line, family, helpOf;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string first, second, third;
    words >> first >> second >> third;
    if (first == "#" && second == "HELP") {
      EXPECT_EQ(out.types.count(third), 0u) << "family declared twice: " << third;
      EXPECT_EQ(third.rfind("zarn_media_", 0), 0u) << third;
      helpOf = third;
    } else if (first == "#" && second == "TYPE") {
      EXPECT_EQ(helpOf, third) << "TYPE without HELP just before it: " << line;
      std::string type;
      words >> type;
      EXPECT_TRUE(type == "counter" || type == "gauge") << line;
      // Counters and only counters are named "_total".
      const bool total = third.size() > 6 && third.compare(third.size() - 6, 6, "_total") == 0;
      EXPECT_EQ(total, type == "counter") << third << " is a " << type;
      out.types[third] = type;
      family = third;
    } else {
      const std::string name = first.substr(0, first.find('{'));
      EXPECT_EQ(name, family) << "sample outside its family: " << line;
      EXPECT_EQ(out.samples.count(first), 0u) << "sample repeated: " << line;
      out.samples[first] = std::stod(second);
    }
  }
  EXPECT_TRUE(text.empty() || text.back() == '\n');
  return out;
}

MediaMetrics distinctValues() {
  MediaMetrics m;
  m.fileSplits = 1;
  m.fileCloses = 2;
  m.fileCloseFailures = 3;
  m.streamBytes = 5000000000ull;  // above 32 bits
  m.indexRebuilds = 5;
  m.indexRebuildFailures = 6;
  m.recycledFiles = 7;
  m.recycleFailures = 8;
  m.recycledBytes = 9;
  m.storeState = 3;
  m.streamWriters = 10;
  m.store = StoreGauges{true, 1ull << 40, 1ull << 30, 2500, 11};
  return m;
}

TEST(PromMetrics, EveryValueLandsInItsOwnSeries) {
  const Exposition e = parse(renderPromMetrics(distinctValues()));
  const std::map<std::string, double> expected = {
      {"zarn_media_file_splits_total", 1},
      {"zarn_media_file_closes_total", 2},
      {"zarn_media_file_close_failures_total", 3},
      {"zarn_media_stream_bytes_total", 5e9},
      {"zarn_media_index_rebuilds_total", 5},
      {"zarn_media_index_rebuild_failures_total", 6},
      {"zarn_media_recycled_files_total", 7},
      {"zarn_media_recycle_failures_total", 8},
      {"zarn_media_recycled_bytes_total", 9},
      {"zarn_media_store_state{state=\"uninitialized\"}", 0},
      {"zarn_media_store_state{state=\"normal\"}", 0},
      {"zarn_media_store_state{state=\"failed\"}", 0},
      {"zarn_media_store_state{state=\"degraded\"}", 1},
      {"zarn_media_store_capacity_bytes", 1099511627776.0},
      {"zarn_media_store_free_bytes", 1073741824.0},
      {"zarn_media_store_locked_ratio", 0.25},
      {"zarn_media_stream_writers", 10},
      {"zarn_media_playback_sessions", 11},
  };
  EXPECT_EQ(e.samples, expected);
}

TEST(PromMetrics, UnknownGaugesAreLeftOut) {
  MediaMetrics m = distinctValues();
  m.store = StoreGauges();  // nothing known of the store
  const Exposition e = parse(renderPromMetrics(m));
  for (const char* absent : {"zarn_media_store_capacity_bytes", "zarn_media_store_free_bytes",
                             "zarn_media_store_locked_ratio", "zarn_media_playback_sessions"}) {
    EXPECT_EQ(e.types.count(absent), 0u) << absent;
  }
  EXPECT_EQ(e.samples.at("zarn_media_stream_writers"), 10);
}

std::string readFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

class PromFileTest : public ::testing::Test {
 protected:
  ZarnTest::TempDir m_dir;
  std::string m_prom = m_dir.sub("zarn.prom");
  Velto::Kandu::CManualClock m_clock{Velto::Kandu::CTime::makeTime(2026, 3, 10, 10, 0, 0) * 1000};
  CMediaSdkStat m_stat{m_clock};
};

TEST_F(PromFileTest, CountersAddUpAcrossTicksWithoutAStatusFile) {
  m_stat.setPromFile(m_prom);
  m_stat.setStreamCounter([] { return 4; });
  m_stat.addFileSplitCount();
  m_stat.addLoopOverwriteSuccessCount(3);
  m_stat.startTimer("", 60);  // metrics alone
  m_clock.advance(CMediaSdkStat::kFirstTickDelayMs);
  Exposition e = parse(readFile(m_prom));
  EXPECT_EQ(e.samples["zarn_media_file_splits_total"], 1);
  EXPECT_EQ(e.samples["zarn_media_recycled_files_total"], 3);
  EXPECT_EQ(e.samples["zarn_media_stream_writers"], 4);

  // The status file's counts start afresh each minute; the counters go on.
  m_stat.addFileSplitCount();
  m_stat.addLoopOverwriteDeleteBytes(1u << 20);
  m_stat.tickNow();
  e = parse(readFile(m_prom));
  EXPECT_EQ(e.samples["zarn_media_file_splits_total"], 2);
  EXPECT_EQ(e.samples["zarn_media_recycled_files_total"], 3);
  EXPECT_EQ(e.samples["zarn_media_recycled_bytes_total"], 1u << 20);
  // Only the metrics file: no status file, no temporary left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(m_dir.path()), fs::directory_iterator()), 1);
}

TEST_F(PromFileTest, GaugesComeFromTheProviderUntilItsOwnerClearsIt) {
  CMediaValues::instance().sdkState.store(1);
  int owner = 0, other = 0;
  m_stat.setPromFile(m_prom);
  m_stat.setGaugeProvider(&owner, [](StoreGauges& g) { g = StoreGauges{true, 1000, 400, 125, 2}; });
  m_stat.startTimer(m_dir.sub("mediasdk.stat"), 60);
  m_clock.advance(CMediaSdkStat::kFirstTickDelayMs);
  ASSERT_TRUE(fs::exists(m_dir.sub("mediasdk.stat")));
  Exposition e = parse(readFile(m_prom));
  EXPECT_EQ(e.samples["zarn_media_store_state{state=\"normal\"}"], 1);
  EXPECT_EQ(e.samples["zarn_media_store_free_bytes"], 400);
  EXPECT_EQ(e.samples["zarn_media_store_locked_ratio"], 0.0125);
  EXPECT_EQ(e.samples["zarn_media_playback_sessions"], 2);

  m_stat.clearGaugeProvider(&other);  // not its provider: kept
  m_stat.tickNow();
  EXPECT_EQ(parse(readFile(m_prom)).types.count("zarn_media_store_free_bytes"), 1u);
  m_stat.clearGaugeProvider(&owner);
  m_stat.tickNow();
  EXPECT_EQ(parse(readFile(m_prom)).types.count("zarn_media_store_free_bytes"), 0u);
  CMediaValues::instance().sdkState.store(0);
}

TEST(MetricsConfig, TheMetricsFileIsOffUnlessAnEnabledFileNamesIt) {
  ZarnTest::TempDir dir;
  const std::string path = dir.sub("MediaConfig.cfg");
  const struct {
    const char* json;
    const char* promFile;
    bool statFile;
  } cases[] = {
      {R"({"enable_cfg": 1, "metrics_prom_file": "/run/zarn.prom"})", "/run/zarn.prom", false},
      {R"({"enable_cfg": 0, "metrics_prom_file": "/run/zarn.prom", "media_sdk_stat_file": "/x"})", "", false},
      {R"({"enable_cfg": 1, "media_sdk_stat_file": "/x"})", "", true},
      {R"({"enable_cfg": 1, "metrics_prom_file": 5})", "", false},
  };
  for (const auto& c : cases) {
    std::ofstream(path) << c.json;
    CMediaConfig config;
    config.initWithFile(path);
    EXPECT_EQ(config.getMetricsPromFile(), c.promFile) << c.json;
    EXPECT_EQ(config.getStatFileConfigured(), c.statFile) << c.json;
  }
}

}  // namespace
