// Logging (levels, sink, destinations, environment), local files, directory
// search and CRC-32.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include "KanduCrc.h"
#include "KanduFile.h"
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

// ---------------------------------------------------------------- CFile

TEST(FileTest, WriteReadSeekTellAndSize) {
  ZarnTest::TempDir dir;
  CFile file;
  EXPECT_EQ(file.read(nullptr, 1), -1);  // not open
  ASSERT_TRUE(file.open(dir.sub("data.bin"), "w+"));
  EXPECT_EQ(file.write("0123456789", 10), 10);
  EXPECT_EQ(file.tell(), 10);
  EXPECT_EQ(file.size(), 10);  // counts buffered bytes
  EXPECT_EQ(file.seek(2, 0), 2);
  char buf[16] = {};
  EXPECT_EQ(file.read(buf, 3), 3);
  EXPECT_STREQ(buf, "234");
  EXPECT_EQ(file.write("xy", 2), 2);  // a write right after a read, on the same update stream
  EXPECT_EQ(file.seek(-1, 2), 9);
  EXPECT_EQ(file.read(buf, 16), 1);
  EXPECT_EQ(buf[0], '9');
  EXPECT_EQ(file.read(buf, 16), 0);  // end of file
  EXPECT_EQ(file.seek(-3, 1), 7);
  EXPECT_EQ(file.seek(0, 7), -1);  // unknown origin
  EXPECT_TRUE(file.flush());
  EXPECT_TRUE(file.close());
  EXPECT_FALSE(file.close());
  EXPECT_EQ(readAll(dir.sub("data.bin")), "01234xy789");
  EXPECT_FALSE(file.open(dir.sub("missing/file"), "r"));
  EXPECT_FALSE(file.isOpen());

  ASSERT_TRUE(file.open(dir.sub("config.txt"), "w"));
  ASSERT_EQ(file.write("first\nsecond line\nlast-without-break", 36), 36);
  ASSERT_TRUE(file.close());
  ASSERT_TRUE(file.open(dir.sub("config.txt"), "r"));
  char line[8];
  std::vector<std::string> pieces;
  while (file.readLine(line, sizeof(line))) pieces.push_back(line);
  // At most capacity-1 characters per call, line break kept; the rest of a long line follows.
  EXPECT_THAT(pieces, ElementsAre("first\n", "second ", "line\n", "last-wi", "thout-b", "reak"));
  EXPECT_FALSE(file.readLine(line, 1));
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
  for (const char* name : {"235930_001205_1_2_1.qrv", "000000_000100_1_2_1.qrv", "120000_000200_1_2_1.idx"})
    std::ofstream(dir.sub(name)) << "sixbyt";
  ASSERT_EQ(::mkdir(dir.sub("05.qrv").c_str(), 0755), 0);

  CFileFind find;
  ASSERT_TRUE(find.findFiles(dir.path(), "*.qrv"));
  std::vector<std::string> names;
  CFileFind::Entry e;
  while (find.findNext(e)) {
    names.push_back(e.name);
    EXPECT_EQ(e.isDirectory, e.name == "05.qrv");
    EXPECT_EQ(e.size, e.isDirectory ? 0u : 6u);
  }
  EXPECT_THAT(names, ElementsAre("000000_000100_1_2_1.qrv", "05.qrv", "235930_001205_1_2_1.qrv"));
  EXPECT_FALSE(find.findNext(e));
  ASSERT_TRUE(find.findFiles(dir.path()));
  EXPECT_EQ(find.entries().size(), 4u);  // no "." or ".."
  EXPECT_FALSE(find.findFiles(dir.sub("absent")));
  EXPECT_TRUE(find.entries().empty());
}

// ---------------------------------------------------------------- CRC-32

TEST(CrcTest, StandardCheckValueAndContinuation) {
  const char* check = "123456789";
  EXPECT_EQ(crc32(check, 9), 0xCBF43926u);
  EXPECT_EQ(crc32(check + 4, 5, crc32(check, 4)), 0xCBF43926u);
  EXPECT_EQ(crc32(check, 0, 0x12345678u), 0x12345678u);
}

}  // namespace
