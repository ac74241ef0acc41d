// Logging (levels, sink, destinations, environment) and CRC-32. Local files are
// checked through the configuration and the status file that use them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include "KanduCrc.h"
#include "KanduLog.h"
#include "KanduThread.h"
#include "TestSupport.h"

using namespace Velto::Kandu;
using testing::ElementsAre;

namespace {

std::string readAll(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path).rdbuf();
  return ss.str();
}

// The prefix of a line to stderr or the file, "YYYY-MM-DD HH:MM:SS.mmm LEVEL [tid] ",
// as a regular expression (POSIX extended, as death tests take it).
std::string linePrefix(const std::string& level = "(TRACE|DEBUG|INFO |WARN |ERROR)") {
  return "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} " + level + " [[][0-9]+[]] ";
}

// The file destination's lines as "LEVEL|message"; a line of another shape comes
// back whole, prefixed "BAD|".
std::vector<std::string> readLogFile(const std::string& path) {
  static const std::regex prefix("^" + linePrefix(), std::regex::extended);
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    // Only the head goes through the regex engine, which recurses per character.
    const std::string head = line.substr(0, 64);
    std::smatch m;
    lines.push_back(std::regex_search(head, m, prefix) ? m.str(1) + "|" + line.substr(m.length(0)) : "BAD|" + line);
  }
  return lines;
}

// Sends the log to a file in a fresh directory for the object's lifetime.
struct LogToFile {
  explicit LogToFile(LogLevel level) : previous(getLogLevel()) {
    setLogLevel(level);
    EXPECT_TRUE(setLogFile(path));
  }
  ~LogToFile() {
    setLogFile("");
    setLogLevel(previous);
  }
  ZarnTest::TempDir dir;
  const std::string path = dir.sub("kandu.log");
  LogLevel previous;
};

// ---------------------------------------------------------------- levels and sink

TEST(LogTest, LinesBelowTheLevelAreNeitherEmittedNorFormatted) {
  ZarnTest::LogCapture log(LOG_WARN);
  int evaluated = 0;
  KLOG_DEBUG("debug %d", ++evaluated);
  KLOG_INFO("info %d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  KLOG_WARN("warn %d", ++evaluated);
  KLOG_ERROR("error %d", ++evaluated);
  setLogLevel(LOG_OFF);
  KLOG_ERROR("silenced %d", ++evaluated);
  EXPECT_EQ(evaluated, 2);
  EXPECT_EQ(getLogLevel(), LOG_OFF);
  setLogLevel(LOG_ERROR);  // calling the function directly still honours the level
  logPrint(LOG_INFO, "direct %s", "info");
  logPrint(LOG_ERROR, "direct %s", "error");
  EXPECT_THAT(log.lines(), ElementsAre("warn 1", "error 2", "direct error"));
}

TEST(LogTest, SinkGetsWholeMessagesWithoutPrefixOrTrailingLineBreaks) {
  std::vector<std::pair<LogLevel, std::string>> got;
  LogLevel previous = getLogLevel();
  setLogLevel(LOG_TRACE);
  setLogSink([&](LogLevel level, const std::string& line) { got.emplace_back(level, line); });
  KLOG_ERROR("#%d,GENERAL::%s %d, stream(%u) not find. Pls addStream first!\n", 0, "writeFrame", 120, 7u);
  KLOG_TRACE("two lines\nkept inside\r\n\n\n");
  KLOG_DEBUG("\n");
  // Messages longer than any fixed buffer arrive complete.
  std::vector<std::string> payloads;
  for (size_t length : {1023u, 1024u, 100000u}) {
    payloads.push_back(std::string(length, 'x') + "E");
    KLOG_INFO("[%s]\n", payloads.back().c_str());
  }
  setLogSink(nullptr);
  setLogLevel(previous);
  ASSERT_EQ(got.size(), 6u);
  EXPECT_EQ(got[0], std::make_pair(LOG_ERROR, std::string("#0,GENERAL::writeFrame 120, stream(7) not find. Pls "
                                                          "addStream first!")));
  EXPECT_EQ(got[1], std::make_pair(LOG_TRACE, std::string("two lines\nkept inside")));
  EXPECT_EQ(got[2].second, "");
  for (size_t i = 0; i < payloads.size(); ++i) EXPECT_EQ(got[3 + i].second, "[" + payloads[i] + "]") << i;
}

TEST(LogTest, ParseLogLevelAcceptsNamesAndDigitsOnly) {
  const std::pair<const char*, LogLevel> good[] = {{"trace", LOG_TRACE}, {"DEBUG", LOG_DEBUG}, {"Info", LOG_INFO},
                                                   {"warning", LOG_WARN}, {"error", LOG_ERROR},  {"off", LOG_OFF},
                                                   {"0", LOG_TRACE},      {"3", LOG_WARN},       {"5", LOG_OFF}};
  for (const auto& [text, level] : good) {
    LogLevel out = LOG_INFO;
    EXPECT_TRUE(parseLogLevel(text, out)) << text;
    EXPECT_EQ(out, level) << text;
  }
  for (const char* bad : {"6", "-1", "12", "", "verbose", "info ", static_cast<const char*>(nullptr)}) {
    LogLevel out = LOG_DEBUG;
    EXPECT_FALSE(parseLogLevel(bad, out)) << (bad ? bad : "null");
    EXPECT_EQ(out, LOG_DEBUG);
  }
}

// ---------------------------------------------------------------- file destination

TEST(LogTest, FileDestinationGetsPrefixedLinesWithOneLineBreakEach) {
  const std::string longText(3000, 'y');
  LogToFile file(LOG_INFO);
  EXPECT_FALSE(setLogFile(file.dir.sub("no/such/dir/x.log")));  // the open file stays
  KLOG_WARN("hello %s\n\n\n", "world");
  KLOG_DEBUG("below the level");
  KLOG_ERROR("no break at all");
  KLOG_INFO("%s", longText.c_str());
  ASSERT_TRUE(setLogFile(""));  // back to stderr; the file is closed
  KLOG_INFO("goes to stderr, not the file");
  const std::string content = readAll(file.path);
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 3) << content;
  EXPECT_THAT(readLogFile(file.path), ElementsAre("WARN |hello world", "ERROR|no break at all", "INFO |" + longText));
}

TEST(LogTest, ConcurrentWritersNeverInterleaveLines) {
  constexpr int kThreads = 4, kLines = 300;
  auto filler = [](int t) { return std::string(200 + 700 * t, static_cast<char>('a' + t)); };  // some > 1 KiB
  LogToFile file(LOG_INFO);
  {
    std::vector<std::unique_ptr<CThreadLite>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<CThreadLite>("logger", [t, &filler](CThreadLite&) {
        for (int i = 0; i < kLines; ++i) KLOG_INFO("t%d i%d %s", t, i, filler(t).c_str());
      }));
      ASSERT_TRUE(threads.back()->create());
    }
  }
  ASSERT_TRUE(setLogFile(""));
  std::vector<std::string> lines = readLogFile(file.path);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    int t = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "INFO |t%d", &t), 1) << line.substr(0, 80);
    ASSERT_TRUE(t >= 0 && t < kThreads);
    // Each thread's lines complete and in order.
    EXPECT_EQ(line, "INFO |t" + std::to_string(t) + " i" + std::to_string(next[t]++) + " " + filler(t));
  }
}

// The environment is read once, at first use, so each case needs a fresh process.
TEST(LogEnvironmentDeathTest, LevelAndFileFromEnvironmentUnlessTheHostSetsThem) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ::setenv("ZARN_LOG_LEVEL", "warn", 1);
        ::unsetenv("ZARN_LOG_FILE");
        KLOG_INFO("dropped line");
        KLOG_WARN("kept line %d\n", 7);
        std::_Exit(getLogLevel() == LOG_WARN ? 0 : 1);
      },
      testing::ExitedWithCode(0), "^" + linePrefix("WARN ") + "kept line 7\n$");
  EXPECT_EXIT(
      {
        std::string content;
        {
          ZarnTest::TempDir dir;
          ::setenv("ZARN_LOG_LEVEL", "0", 1);
          ::setenv("ZARN_LOG_FILE", dir.sub("env.log").c_str(), 1);
          KLOG_TRACE("trace to file %s", "ok");
          content = readAll(dir.sub("env.log"));
        }
        std::fprintf(stderr, "FILE<%s>", content.c_str());
        std::_Exit(getLogLevel() == LOG_TRACE ? 0 : 1);
      },
      testing::ExitedWithCode(0), "^FILE<" + linePrefix("TRACE") + "trace to file ok\n>$");
  // The host's call comes before the first use and must stick; a bad value falls back to INFO.
  EXPECT_EXIT((::setenv("ZARN_LOG_LEVEL", "error", 1), setLogLevel(LOG_DEBUG),
               std::_Exit(getLogLevel() == LOG_DEBUG ? 0 : 1)),
              testing::ExitedWithCode(0), "");
  EXPECT_EXIT((::setenv("ZARN_LOG_LEVEL", "loud", 1), std::_Exit(getLogLevel() == LOG_INFO ? 0 : 1)),
              testing::ExitedWithCode(0), "ZARN_LOG_LEVEL");
}

// ---------------------------------------------------------------- CRC-32

TEST(CrcTest, StandardCheckValueAndContinuation) {
  const char* check = "123456789";
  EXPECT_EQ(crc32(check, 9), 0xCBF43926u);
  EXPECT_EQ(crc32(check + 4, 5, crc32(check, 4)), 0xCBF43926u);
  EXPECT_EQ(crc32(check, 0, 0x12345678u), 0x12345678u);
}

}  // namespace
