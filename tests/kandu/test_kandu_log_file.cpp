// Logging (levels, sink, destinations, environment), local files, directory
// search and CRC-32.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "KanduCrc.h"
#include "KanduFile.h"
#include "KanduLog.h"
#include "KanduThread.h"
#include "TestSupport.h"

using namespace Velto::Kandu;

namespace {

std::vector<std::string> readLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Splits "YYYY-MM-DD HH:MM:SS.mmm LEVEL [tid] message" into level and message;
// false when the prefix is not of that shape.
bool parseLogLine(const std::string& line, std::string& level, std::string& message) {
  int f[7];
  char name[6] = {};
  unsigned long tid = 0;
  int end = 0;
  if (std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d %5c [%lu]%n", &f[0], &f[1], &f[2], &f[3], &f[4], &f[5],
                  &f[6], name, &tid, &end) != 9 ||
      line.compare(4, 1, "-") != 0 || line.compare(19, 1, ".") != 0 || line.compare(23, 1, " ") != 0 ||
      line.compare(static_cast<size_t>(end), 1, " ") != 0)
    return false;
  level = name;
  message = line.substr(static_cast<size_t>(end) + 1);
  return level == "TRACE" || level == "DEBUG" || level == "INFO " || level == "WARN " || level == "ERROR";
}

// ---------------------------------------------------------------- levels and sink

TEST(LogTest, LinesBelowTheLevelAreNeitherEmittedNorFormatted) {
  ZarnTest::LogCapture log(LOG_WARN);
  int evaluated = 0;
  KLOG_DEBUG("debug %d", ++evaluated);
  KLOG_INFO("info %d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  KLOG_WARN("warn %d", ++evaluated);
  KLOG_ERROR("error %d", ++evaluated);
  EXPECT_EQ(evaluated, 2);
  EXPECT_THAT(log.lines(), testing::ElementsAre("warn 1", "error 2"));

  setLogLevel(LOG_OFF);
  KLOG_ERROR("silenced %d", ++evaluated);
  EXPECT_EQ(evaluated, 2);
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(getLogLevel(), LOG_OFF);

  // Calling the function directly still honours the level.
  setLogLevel(LOG_ERROR);
  logPrint(LOG_INFO, "direct %s", "info");
  logPrint(LOG_ERROR, "direct %s", "error");
  EXPECT_THAT(log.lines(), testing::ElementsAre("warn 1", "error 2", "direct error"));
}

TEST(LogTest, SinkGetsTheMessageWithoutPrefixOrTrailingLineBreaks) {
  std::vector<std::pair<LogLevel, std::string>> got;
  LogLevel previous = getLogLevel();
  setLogLevel(LOG_TRACE);
  setLogSink([&](LogLevel level, const std::string& line) { got.emplace_back(level, line); });
  KLOG_ERROR("#%d,GENERAL::%s %d, stream(%u) not find. Pls addStream first!\n", 0, "writeFrame", 120, 7u);
  KLOG_TRACE("two lines\nkept inside\r\n\n\n");
  KLOG_INFO("no break");
  KLOG_DEBUG("\n");
  setLogSink(nullptr);
  setLogLevel(previous);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0].first, LOG_ERROR);
  EXPECT_EQ(got[0].second, "#0,GENERAL::writeFrame 120, stream(7) not find. Pls addStream first!");
  EXPECT_EQ(got[1].first, LOG_TRACE);
  EXPECT_EQ(got[1].second, "two lines\nkept inside");
  EXPECT_EQ(got[2].second, "no break");
  EXPECT_EQ(got[3].second, "");
}

TEST(LogTest, MessagesLongerThanAnyFixedBufferArriveWhole) {
  ZarnTest::LogCapture log(LOG_INFO);
  for (size_t length : {900u, 1000u, 1023u, 1024u, 5000u, 100000u}) {
    std::string payload(length, 'x');
    payload.back() = 'E';
    KLOG_INFO("[%s]\n", payload.c_str());
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines().back(), "[" + payload + "]") << length;
  }
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
  ZarnTest::TempDir dir;
  const std::string path = dir.sub("kandu.log");
  LogLevel previous = getLogLevel();
  setLogLevel(LOG_INFO);
  EXPECT_FALSE(setLogFile(dir.sub("no/such/dir/x.log")));
  ASSERT_TRUE(setLogFile(path));
  KLOG_WARN("hello %s\n\n\n", "world");
  KLOG_DEBUG("below the level");
  KLOG_ERROR("no break at all");
  std::string longText(3000, 'y');
  KLOG_INFO("%s", longText.c_str());
  ASSERT_TRUE(setLogFile(""));  // back to stderr; the file is closed
  KLOG_INFO("goes to stderr, not the file");
  setLogLevel(previous);

  std::string content = readAll(path);
  std::vector<std::string> lines = readLines(path);
  ASSERT_EQ(lines.size(), 3u) << content;
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 3);
  std::string level, message;
  ASSERT_TRUE(parseLogLine(lines[0], level, message)) << lines[0];
  EXPECT_EQ(level, "WARN ");
  EXPECT_EQ(message, "hello world");
  ASSERT_TRUE(parseLogLine(lines[1], level, message)) << lines[1];
  EXPECT_EQ(level, "ERROR");
  EXPECT_EQ(message, "no break at all");
  ASSERT_TRUE(parseLogLine(lines[2], level, message));
  EXPECT_EQ(level, "INFO ");
  EXPECT_EQ(message, longText);
}

TEST(LogTest, ConcurrentWritersNeverInterleaveLines) {
  ZarnTest::TempDir dir;
  const std::string path = dir.sub("concurrent.log");
  LogLevel previous = getLogLevel();
  setLogLevel(LOG_INFO);
  ASSERT_TRUE(setLogFile(path));
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  {
    std::vector<std::unique_ptr<CThreadLite>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<CThreadLite>("logger", [t](CThreadLite&) {
        std::string filler(200 + 700 * t, static_cast<char>('a' + t));  // some above the stack buffer
        for (int i = 0; i < kLines; ++i) KLOG_INFO("t%d i%d %s", t, i, filler.c_str());
      }));
      ASSERT_TRUE(threads.back()->create());
    }
  }
  ASSERT_TRUE(setLogFile(""));
  setLogLevel(previous);

  std::vector<std::string> lines = readLines(path);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::vector<int> perThread(kThreads, 0);
  for (const std::string& line : lines) {
    std::string level, message;
    ASSERT_TRUE(parseLogLine(line, level, message)) << line.substr(0, 80);
    int t = -1, i = -1;
    ASSERT_EQ(std::sscanf(message.c_str(), "t%d i%d", &t, &i), 2);
    ASSERT_TRUE(t >= 0 && t < kThreads);
    EXPECT_EQ(i, perThread[t]++);  // each thread's lines complete and in order
    EXPECT_EQ(message, "t" + std::to_string(t) + " i" + std::to_string(i) + " " +
                              std::string(200 + 700 * t, static_cast<char>('a' + t)));
  }
}

// The environment is read once, at first use, so each case needs a fresh process.
class LogEnvironmentDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(LogEnvironmentDeathTest, LevelFromEnvironmentFiltersStderr) {
  EXPECT_EXIT(
      {
        ::setenv("ZARN_LOG_LEVEL", "warn", 1);
        ::unsetenv("ZARN_LOG_FILE");
        KLOG_INFO("dropped line");
        KLOG_WARN("kept line %d\n", 7);
        std::_Exit(getLogLevel() == LOG_WARN ? 0 : 1);
      },
      testing::ExitedWithCode(0),
      R"(^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} WARN  \[[0-9]+\] kept line 7
$)");
}

TEST_F(LogEnvironmentDeathTest, NumericLevelAndFileFromEnvironment) {
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
      testing::ExitedWithCode(0), R"(^FILE<[0-9-]+ [0-9:.]+ TRACE \[[0-9]+\] trace to file ok
>$)");
}

TEST_F(LogEnvironmentDeathTest, HostSettingsWinOverEnvironmentAndBadValuesFallBackToInfo) {
  // The host's call comes before the first use and must stick.
  EXPECT_EXIT((::setenv("ZARN_LOG_LEVEL", "error", 1), setLogLevel(LOG_DEBUG),
               std::_Exit(getLogLevel() == LOG_DEBUG ? 0 : 1)),
              testing::ExitedWithCode(0), "");
  EXPECT_EXIT((::setenv("ZARN_LOG_LEVEL", "loud", 1), std::_Exit(getLogLevel() == LOG_INFO ? 0 : 1)),
              testing::ExitedWithCode(0), "ZARN_LOG_LEVEL");
}

// ---------------------------------------------------------------- CFile

TEST(FileTest, WriteReadSeekTellAndSize) {
  ZarnTest::TempDir dir;
  const std::string path = dir.sub("data.bin");
  CFile file;
  EXPECT_FALSE(file.isOpen());
  EXPECT_EQ(file.read(nullptr, 1), -1);
  ASSERT_TRUE(file.open(path, "w+"));
  EXPECT_EQ(file.write("0123456789", 10), 10);
  EXPECT_EQ(file.tell(), 10);
  EXPECT_EQ(file.size(), 10);  // counts buffered bytes
  EXPECT_EQ(file.seek(2, 0), 2);
  char buf[16] = {};
  EXPECT_EQ(file.read(buf, 3), 3);
  EXPECT_STREQ(buf, "234");
  // A write right after a read, on the same update stream.
  EXPECT_EQ(file.write("xy", 2), 2);
  EXPECT_EQ(file.seek(-1, 2), 9);
  EXPECT_EQ(file.read(buf, 16), 1);
  EXPECT_EQ(buf[0], '9');
  EXPECT_EQ(file.read(buf, 16), 0);  // end of file
  EXPECT_EQ(file.seek(-3, 1), 7);
  EXPECT_EQ(file.seek(0, 7), -1);    // unknown origin
  EXPECT_TRUE(file.flush());
  EXPECT_TRUE(file.close());
  EXPECT_FALSE(file.close());
  EXPECT_EQ(readAll(path), "01234xy789");

  EXPECT_FALSE(file.open(dir.sub("missing/file"), "r"));
  EXPECT_FALSE(file.isOpen());
}

TEST(FileTest, ReadLineKeepsBreaksAndSplitsLongLines) {
  ZarnTest::TempDir dir;
  const std::string path = dir.sub("config.txt");
  {
    CFile out;
    ASSERT_TRUE(out.open(path, "w"));
    const char text[] = "first\nsecond line\nlast-without-break";
    ASSERT_EQ(out.write(text, sizeof(text) - 1), static_cast<int64_t>(sizeof(text) - 1));
  }
  CFile in;
  ASSERT_TRUE(in.open(path, "r"));
  char line[8];
  std::vector<std::string> pieces;
  while (in.readLine(line, sizeof(line))) pieces.push_back(line);
  // At most capacity-1 characters per call; the rest of a long line follows.
  EXPECT_THAT(pieces, testing::ElementsAre("first\n", "second ", "line\n", "last-wi", "thout-b", "reak"));
  EXPECT_FALSE(in.readLine(line, 1));
}

// ---------------------------------------------------------------- CFileFind

TEST(FileFindTest, PatternMatching) {
  const std::pair<const char*, const char*> matching[] = {
      {"*", ""}, {"", ""}, {"*.qrv", "235930_001205_1_2_1.qrv"}, {"??????_*", "235930_001205.qrv"}, {"a?c", "abc"},
      {"a*b*c", "aXXbYYc"}, {"*ab*cd", "xabyabzcd"} /* backtracks past the first "ab" */, {"**x", "x"}};
  const std::pair<const char*, const char*> different[] = {
      {"", "a"}, {"*.qrv", "x.qrv.idx"}, {"*.qrv", "qrv"}, {"??????_*", "23593_001205.qrv"}, {"a?c", "ac"},
      {"?", ""}, {"a*b*c", "aXXbYY"}, {"*a", "bbab"}, {"Media*", "media_7"} /* case matters */};
  for (const auto& [pattern, name] : matching) EXPECT_TRUE(CFileFind::matches(pattern, name)) << pattern << " " << name;
  for (const auto& [pattern, name] : different) EXPECT_FALSE(CFileFind::matches(pattern, name)) << pattern << " " << name;
}

TEST(FileFindTest, ListsMatchingEntriesSortedWithKindAndSize) {
  ZarnTest::TempDir dir;
  for (const char* name : {"235930_001205_1_2_1.qrv", "000000_000100_1_2_1.qrv", "120000_000200_1_2_1.idx"}) {
    CFile f;
    ASSERT_TRUE(f.open(dir.sub(name), "w"));
    ASSERT_EQ(f.write(name, 6), 6);
  }
  std::string sub = dir.sub("05.qrv");
  ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);

  CFileFind find;
  ASSERT_TRUE(find.findFiles(dir.path(), "*.qrv"));
  std::vector<std::string> names;
  CFileFind::Entry e;
  while (find.findNext(e)) {
    names.push_back(e.name);
    EXPECT_EQ(e.isDirectory, e.name == "05.qrv");
    EXPECT_EQ(e.size, e.isDirectory ? 0u : 6u);
  }
  EXPECT_THAT(names, testing::ElementsAre("000000_000100_1_2_1.qrv", "05.qrv", "235930_001205_1_2_1.qrv"));
  EXPECT_FALSE(find.findNext(e));

  ASSERT_TRUE(find.findFiles(dir.path()));
  ASSERT_EQ(find.entries().size(), 4u);  // no "." or ".."
  EXPECT_EQ(find.entries().front().name, "000000_000100_1_2_1.qrv");

  EXPECT_FALSE(find.findFiles(dir.sub("absent")));
  EXPECT_TRUE(find.entries().empty());
}

// ---------------------------------------------------------------- CRC-32

TEST(CrcTest, StandardCheckValueAndContinuation) {
  const char* check = "123456789";
  EXPECT_EQ(crc32(check, 9), 0xCBF43926u);
  EXPECT_EQ(crc32(check + 4, 5, crc32(check, 4)), 0xCBF43926u);
  EXPECT_EQ(crc32(check, 0), 0u);
  EXPECT_EQ(crc32(check, 0, 0x12345678u), 0x12345678u);

  std::vector<uint8_t> block(64, 0);
  uint32_t zeros = crc32(block.data(), 60);
  block[17] = 1;
  EXPECT_NE(crc32(block.data(), 60), zeros);  // a single flipped bit shows
}

}  // namespace
