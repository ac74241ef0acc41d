// The contract every store backend keeps, run through the store client against
// each backend. A new backend joins by adding a case to kBackends.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "FaultInjectingBackend.h"
#include "LocalStoreBackend.h"
#include "TestSupport.h"
#include "ZarnClient.h"

using namespace Velto::Zarn;

namespace {

struct BackendCase {
  std::string name;
  std::function<std::shared_ptr<IStoreBackend>(const std::string& root)> make;
};

void PrintTo(const BackendCase& c, std::ostream* os) { *os << c.name; }

const BackendCase kBackends[] = {
    {"Local", [](const std::string& root) { return makeLocalStoreBackend(root); }},
    {"FaultInjectingPassThrough",
     [](const std::string& root) -> std::shared_ptr<IStoreBackend> {
       return std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(root), 7);
     }},
};

class StoreConformance : public ::testing::TestWithParam<BackendCase> {
 protected:
  void SetUp() override {
    m_root = m_dir.sub("store");
    m_backend = GetParam().make(m_root);
    // No health probes during these tests: forked children must not inherit a
    // probe in progress.
    int32_t period = 3600 * 1000;
    ASSERT_TRUE(m_fs.setOption(ZARN_OPT_HEALTH_PERIOD_MS, &period, sizeof period));
    Config config{m_root.c_str(), 0, "root", ""};
    ASSERT_TRUE(m_fs.initializeWithBackend(config, m_backend)) << getErrorMsg();
    ASSERT_TRUE(m_fs.createBucket("media_1")) << getErrorMsg();
  }

  bool put(const std::string& path, const std::string& content) {
    auto file = m_fs.createFile(path, 4, 1);
    if (!file) return false;
    size_t done = 0;
    while (done < content.size()) {
      int64_t n = file->write(content.data() + done, static_cast<uint32_t>(content.size() - done));
      if (n < 0) return false;
      done += static_cast<size_t>(n);
    }
    return file->close();
  }

  std::string get(const std::string& path) {
    auto file = m_fs.openFile(path, StoreOpenMode::Read);
    if (!file) return "<open failed " + std::to_string(getLastError()) + ">";
    std::string out;
    char buf[4096];
    while (true) {
      int64_t n = file->read(buf, sizeof buf);
      if (n > 0) {
        out.append(buf, static_cast<size_t>(n));
        continue;
      }
      if (n < 0 && getLastError() != ZARN_E_EOF) return "<read failed " + std::to_string(getLastError()) + ">";
      break;
    }
    return out;
  }

  CNameList listAll(const std::string& bucket, const std::string& after = "", const std::string& upTo = "",
                    uint32_t max = 100000) {
    CBucket b = m_fs.getBucket(bucket);
    CNameList names;
    EXPECT_TRUE(b.isValid()) << getErrorMsg();
    EXPECT_TRUE(b.list(names, after, upTo, max)) << getErrorMsg();
    return names;
  }

  ZarnTest::TempDir m_dir;
  std::string m_root;
  std::shared_ptr<IStoreBackend> m_backend;
  CZarnFileSystem m_fs;
};

TEST_P(StoreConformance, ExclusiveCreateAdmitsExactlyOneCreator) {
  ASSERT_TRUE(put("media_1/2016/05/01/120000_1.qrv", "first"));
  EXPECT_EQ(m_fs.createFile("media_1/2016/05/01/120000_1.qrv", 4, 1), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_FILE_EXISTS);
  EXPECT_EQ(get("media_1/2016/05/01/120000_1.qrv"), "first");

  EXPECT_EQ(m_fs.createFile("media_9/x.qrv", 4, 1), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);

  for (int round = 0; round < 10; ++round) {
    const std::string path = "media_1/race/" + std::to_string(round) + "/target";
    std::atomic<int> winners{0}, exists{0}, other{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        auto f = m_fs.createFile(path, 4, 1);
        if (f) {
          ++winners;
          std::string mark = "by " + std::to_string(t);
          f->write(mark.data(), static_cast<uint32_t>(mark.size()));
          f->close();
        } else if (getLastError() == ZARN_E_FILE_EXISTS) {
          ++exists;
        } else {
          ++other;
        }
      });
    }
    go = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(exists.load(), 5);
    EXPECT_EQ(other.load(), 0);
    EXPECT_EQ(get(path).rfind("by ", 0), 0u);
  }
}

TEST_P(StoreConformance, ACreatedFileIsNeverSeenWithoutItsWriter) {
  constexpr int kFiles = 60;
  std::vector<std::unique_ptr<CFile>> handles;
  std::atomic<bool> creating{true};
  std::atomic<int> seenClosed{0}, looked{0};
  std::thread observer([&] {
    CBucket b = m_fs.getBucket("media_1");
    while (creating.load()) {
      CNameList names;
      if (!b.list(names, "", "", 1000)) continue;
      for (const std::string& n : names) {
        ZarnFileStat st;
        if (!m_fs.getFileStat("media_1/" + n, st)) continue;
        ++looked;
        if (!st.openForWrite) ++seenClosed;
      }
    }
  });
  for (int i = 0; i < kFiles; ++i) {
    auto f = m_fs.createFile("media_1/live/" + std::to_string(i), 4, 1);
    ASSERT_NE(f, nullptr) << getErrorMsg();
    handles.push_back(std::move(f));  // every handle stays open until the observer stops
  }
  ZarnTest::waitFor([&] { return looked.load() >= kFiles; }, 10000);
  creating = false;
  observer.join();
  EXPECT_GT(looked.load(), 0);
  EXPECT_EQ(seenClosed.load(), 0);
  for (auto& h : handles) EXPECT_TRUE(h->close());
}

TEST_P(StoreConformance, RenameNeverReplacesAndNeedsItsSource) {
  ASSERT_TRUE(put("media_1/a", "A"));
  ASSERT_TRUE(put("media_1/b", "B"));
  EXPECT_FALSE(m_fs.renameFile("media_1/a", "media_1/b"));
  EXPECT_EQ(getLastError(), ZARN_E_FILE_EXISTS);
  EXPECT_EQ(get("media_1/a"), "A");
  EXPECT_EQ(get("media_1/b"), "B");
  EXPECT_FALSE(m_fs.renameFile("media_1/a", "media_1/a"));
  EXPECT_EQ(getLastError(), ZARN_E_FILE_EXISTS);

  EXPECT_FALSE(m_fs.renameFile("media_1/missing", "media_1/c"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_FILE);
  EXPECT_FALSE(m_fs.renameFile("media_1/a", "media_7/a"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);

  // Across buckets and into levels that do not exist yet; the source's levels go.
  ASSERT_TRUE(put("media_1/2016/05/01/235930_1.qrv", "rec"));
  ASSERT_TRUE(m_fs.createBucket("forgotten_1"));
  ASSERT_TRUE(m_fs.renameFile("media_1/2016/05/01/235930_1.qrv", "forgotten_1/2016/05/01/235930_001205_1_0_1.qrv"))
      << getErrorMsg();
  EXPECT_EQ(get("forgotten_1/2016/05/01/235930_001205_1_0_1.qrv"), "rec");
  EXPECT_EQ(listAll("media_1"), (CNameList{"a", "b"}));
  EXPECT_EQ(listAll("forgotten_1"), (CNameList{"2016/05/01/235930_001205_1_0_1.qrv"}));
  EXPECT_FALSE(m_fs.renameFile("media_1/2016/05/01/235930_1.qrv", "media_1/z"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_FILE);
}

TEST_P(StoreConformance, OneOfManyConcurrentRenamesWins) {
  for (int round = 0; round < 20; ++round) {
    const std::string src = "media_1/ledger_" + std::to_string(round);
    ASSERT_TRUE(put(src, "L"));
    std::atomic<int> wins{0}, lost{0}, other{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        if (m_fs.renameFile(src, "media_1/next/" + std::to_string(round) + "_" + std::to_string(t))) {
          ++wins;
        } else if (getLastError() == ZARN_E_NO_SUCH_FILE) {
          ++lost;
        } else {
          ++other;
        }
      });
    }
    go = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(wins.load(), 1) << "round " << round;
    EXPECT_EQ(lost.load(), 5) << "round " << round;
    EXPECT_EQ(other.load(), 0) << "round " << round;
  }
  EXPECT_EQ(listAll("media_1", "next/", "next/\xff").size(), 20u);
  EXPECT_TRUE(listAll("media_1", "", "ledger_\xff").empty());
}

TEST_P(StoreConformance, ListingIsInByteOrderOfTheWholeName) {
  // '-' < '.' < '/' < '0': a walk that lists a directory's subtree where the
  // directory's own name sorts would put "a/..." before "a-c" and "a.d".
  const std::vector<std::string> names = {"a0", "a/c/d0", "b", "a-c", "a/b", "A", "a/c-e", "a.d", "a/c/d", "z/z/z"};
  for (const std::string& n : names) ASSERT_TRUE(put("media_1/" + n, n)) << n;
  CNameList expected(names.begin(), names.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listAll("media_1"), expected);

  CFileList withSizes;
  ASSERT_TRUE(m_fs.getBucket("media_1").list(withSizes, "", "", 1000));
  ASSERT_EQ(withSizes.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(withSizes[i].name, expected[i]);
    EXPECT_EQ(withSizes[i].size, expected[i].size());
  }
}

TEST_P(StoreConformance, MarkersAndCountsMatchAReferenceModel) {
  std::set<std::string> model;
  for (int month : {1, 2, 12}) {
    for (int day : {1, 9, 10, 31}) {
      for (const char* t : {"000000_1.qrv", "120000_001500_1_0_1.qrv", "120000_001500_1_0_0.index", "235959_1.qrv"}) {
        char name[64];
        std::snprintf(name, sizeof name, "2016/%02d/%02d/%s", month, day, t);
        model.insert(name);
      }
    }
  }
  model.insert("2016/01/01-x");
  model.insert("2017");
  model.insert("lockSize_12_1463000000123456.temp");
  for (const std::string& n : model) ASSERT_TRUE(put("media_1/" + n, "")) << n;
  const std::vector<std::string> sorted(model.begin(), model.end());

  std::vector<std::string> markers = {"", "2016", "2016/", "2016/01", "2016/01/", "2016/01/01", "2016/01/01/",
                                      "2016/02/09/1", "2016/12/31/\xff", "2017", "2017/", "lockSize_", "lockSize_z",
                                      "\xff"};
  for (size_t i = 0; i < sorted.size(); i += 5) {
    markers.push_back(sorted[i]);
    markers.push_back(sorted[i].substr(0, sorted[i].size() - 1));
    markers.push_back(sorted[i] + "\x01");
  }
  for (const std::string& after : markers) {
    for (const std::string& upTo : markers) {
      for (uint32_t max : {1u, 3u, 1000u}) {
        CNameList want;
        for (const std::string& n : sorted) {
          if (!after.empty() && n <= after) continue;
          if (!upTo.empty() && n > upTo) continue;
          if (want.size() < max) want.push_back(n);
        }
        ASSERT_EQ(listAll("media_1", after, upTo, max), want)
            << "after '" << after << "' upTo '" << upTo << "' max " << max;
      }
    }
  }

  // Paging by the last name of each full page walks everything exactly once.
  CNameList paged;
  std::string marker;
  while (true) {
    CNameList page = listAll("media_1", marker, "", 7);
    paged.insert(paged.end(), page.begin(), page.end());
    if (page.size() < 7) break;
    marker = page.back();
  }
  EXPECT_EQ(paged, CNameList(sorted.begin(), sorted.end()));
  EXPECT_TRUE(listAll("media_1", "", "", 0).empty());
}

TEST_P(StoreConformance, BucketsAreMadeListedAndRemovedOnlyWhenEmpty) {
  EXPECT_FALSE(m_fs.createBucket("media_1"));
  EXPECT_EQ(getLastError(), ZARN_E_BUCKET_EXISTS);
  CBucket missing = m_fs.getBucket("media_2");
  EXPECT_FALSE(missing.isValid());
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);
  EXPECT_FALSE(m_fs.removeBucket("media_2"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_BUCKET);

  ASSERT_TRUE(m_fs.createBucket("media_system"));
  ASSERT_TRUE(m_fs.createBucket("forgotten_1"));
  CNameList buckets;
  ASSERT_TRUE(m_fs.listBuckets(buckets));
  EXPECT_EQ(buckets, (CNameList{"forgotten_1", "media_1", "media_system"}));

  ASSERT_TRUE(put("media_1/2016/05/01/000000_1.qrv", std::string(1000, 'x')));
  ASSERT_TRUE(put("media_1/2016/05/02/000000_1.qrv", std::string(234, 'y')));
  uint64_t used = 0;
  ASSERT_TRUE(m_fs.getBucket("media_1").getUsedCapacity(used));
  EXPECT_EQ(used, 1234u);

  EXPECT_FALSE(m_fs.removeBucket("media_1"));
  EXPECT_EQ(getLastError(), ZARN_E_BUCKET_NOT_EMPTY);
  ASSERT_TRUE(m_fs.removeFile("media_1/2016/05/01/000000_1.qrv"));
  EXPECT_FALSE(m_fs.removeBucket("media_1"));
  EXPECT_EQ(getLastError(), ZARN_E_BUCKET_NOT_EMPTY);
  ASSERT_TRUE(m_fs.removeFile("media_1/2016/05/02/000000_1.qrv"));
  EXPECT_FALSE(m_fs.removeFile("media_1/2016/05/02/000000_1.qrv"));
  EXPECT_EQ(getLastError(), ZARN_E_NO_SUCH_FILE);
  ASSERT_TRUE(m_fs.removeBucket("media_1")) << getErrorMsg();
  EXPECT_FALSE(m_fs.getBucket("media_1").isValid());

  // A bucket left with empty levels (files renamed away) is empty.
  ASSERT_TRUE(put("forgotten_1/2016/05/01/000000_1.qrv", "f"));
  ASSERT_TRUE(m_fs.renameFile("forgotten_1/2016/05/01/000000_1.qrv", "media_system/moved"));
  EXPECT_TRUE(m_fs.removeBucket("forgotten_1")) << getErrorMsg();
}

TEST_P(StoreConformance, OpenForWriteIsVisibleUntilTheWriterCloses) {
  const std::string path = "media_1/2016/05/01/100000_1.qrv";
  auto writer = m_fs.createFile(path, 4, 1);
  ASSERT_NE(writer, nullptr);
  ASSERT_EQ(writer->write("0123456789", 10), 10);

  ZarnFileStat st;
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(st.size, 10u);
  EXPECT_NEAR(static_cast<double>(st.modifyTime), static_cast<double>(time(nullptr)), 120.0);

  EXPECT_EQ(m_fs.openFile(path, StoreOpenMode::Write), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_BUSY);

  auto reader = m_fs.openFile(path, StoreOpenMode::Read);
  ASSERT_NE(reader, nullptr);
  char buf[64];
  ASSERT_EQ(reader->read(buf, sizeof buf), 10);
  EXPECT_EQ(reader->read(buf, sizeof buf), 0);  // at the end, but more may come
  ASSERT_TRUE(reader->stat(st));
  EXPECT_TRUE(st.openForWrite);

  ASSERT_EQ(writer->write("abc", 3), 3);
  ASSERT_EQ(reader->read(buf, sizeof buf), 3);
  EXPECT_EQ(std::string(buf, 3), "abc");
  ASSERT_TRUE(writer->close());

  setLastError(ZARN_OK);
  EXPECT_EQ(reader->read(buf, sizeof buf), -1);
  EXPECT_EQ(getLastError(), ZARN_E_EOF);
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_FALSE(st.openForWrite);
  EXPECT_EQ(st.size, 13u);

  // Reopened for writing, the file appends and is claimed again.
  auto again = m_fs.openFile(path, StoreOpenMode::Write);
  ASSERT_NE(again, nullptr) << getErrorMsg();
  ASSERT_EQ(again->write("!", 1), 1);
  EXPECT_EQ(again->tell(), 14);
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(reader->read(buf, sizeof buf), 1);
  EXPECT_EQ(reader->read(buf, sizeof buf), 0);
  ASSERT_TRUE(again->close());
  EXPECT_EQ(get(path), "0123456789abc!");

  EXPECT_EQ(reader->write("x", 1), -1);
  EXPECT_EQ(getLastError(), ZARN_E_BAD_MODE);
  EXPECT_TRUE(reader->close());
  EXPECT_FALSE(reader->close());
  EXPECT_EQ(getLastError(), ZARN_E_BAD_MODE);
}

TEST_P(StoreConformance, SeekAndTellMoveWithinTheFile) {
  ASSERT_TRUE(put("media_1/seek", "0123456789"));
  auto f = m_fs.openFile("media_1/seek", StoreOpenMode::Read);
  ASSERT_NE(f, nullptr);
  char buf[4];
  EXPECT_EQ(f->seek(3, 0), 3);
  ASSERT_EQ(f->read(buf, 4), 4);
  EXPECT_EQ(std::string(buf, 4), "3456");
  EXPECT_EQ(f->tell(), 7);
  EXPECT_EQ(f->seek(-2, 2), 8);
  EXPECT_EQ(f->seek(1, 1), 9);
  ASSERT_EQ(f->read(buf, 4), 1);
  EXPECT_EQ(buf[0], '9');
  EXPECT_EQ(f->seek(-100, 0), -1);
  EXPECT_EQ(getLastError(), ZARN_E_INVALID_ARGUMENT);
  EXPECT_EQ(f->seek(0, 3), -1);
  EXPECT_EQ(getLastError(), ZARN_E_INVALID_ARGUMENT);
}

TEST_P(StoreConformance, NamesThatCouldLeaveTheBucketAreRefused) {
  ASSERT_TRUE(put("media_1/ok", "x"));
  std::string overlong;  // short components, too long a name
  while (overlong.size() < 1100) overlong += "abcdefghi/";
  overlong += "z";
  const std::string bad[] = {"",
                             "media_1",
                             "media_1/",
                             "/media_1/x",
                             "media_1//x",
                             "media_1/../x",
                             "media_1/a/../../x",
                             "media_1/./x",
                             "media_1/.hidden",
                             "media_1/x/",
                             "../media_1/x",
                             ".media_1/x",
                             std::string("media_1/a\0b", 11),
                             "media_1/" + std::string(256, 'n'),
                             "media_1/" + overlong};
  for (const std::string& p : bad) {
    EXPECT_EQ(m_fs.createFile(p, 4, 1), nullptr) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    EXPECT_EQ(m_fs.openFile(p, StoreOpenMode::Read), nullptr) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    ZarnFileStat st;
    EXPECT_FALSE(m_fs.getFileStat(p, st)) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    EXPECT_FALSE(m_fs.removeFile(p)) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
    EXPECT_FALSE(m_fs.renameFile("media_1/ok", p)) << p;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << p;
  }
  for (const std::string& b : {std::string(""), std::string(".."), std::string("a/b"), std::string(".x")}) {
    EXPECT_FALSE(m_fs.createBucket(b)) << b;
    EXPECT_EQ(getLastError(), ZARN_E_INVALID_NAME) << b;
    EXPECT_FALSE(m_fs.getBucket(b).isValid()) << b;
  }
  // Nothing appeared beside the store root.
  std::vector<std::string> beside;
  for (const auto& e : std::filesystem::directory_iterator(m_dir.path())) beside.push_back(e.path().filename());
  EXPECT_EQ(beside, std::vector<std::string>{"store"});
  EXPECT_EQ(get("media_1/ok"), "x");
}

TEST_P(StoreConformance, CapacityCapBoundsTotalAndFree) {
  SystemInfo raw{};
  ASSERT_TRUE(m_fs.getSystemInfo(raw)) << getErrorMsg();
  EXPECT_GT(raw.totalCapacity, 0u);
  EXPECT_LE(raw.freeCapacity, raw.totalCapacity);

  uint64_t cap = 1 << 20;
  ASSERT_TRUE(m_fs.setOption(ZARN_OPT_CAPACITY_LIMIT, &cap, sizeof cap));
  SystemInfo before{};
  ASSERT_TRUE(m_fs.getSystemInfo(before));
  EXPECT_EQ(before.totalCapacity, cap);
  EXPECT_EQ(before.freeCapacity, cap);
  ASSERT_TRUE(put("media_1/big", std::string(300000, 'b')));
  ASSERT_TRUE(put("media_1/2016/small", std::string(1000, 's')));
  SystemInfo after{};
  ASSERT_TRUE(m_fs.getSystemInfo(after));
  EXPECT_EQ(after.totalCapacity, cap);
  EXPECT_EQ(after.freeCapacity, cap - 301000);
  EXPECT_EQ(after.bucketCount, 1u);

  ASSERT_TRUE(m_fs.removeFile("media_1/big"));
  ASSERT_TRUE(m_fs.getSystemInfo(after));
  EXPECT_EQ(after.freeCapacity, cap - 1000);

  // A cap above what is stored never reports more free space than is there.
  uint64_t huge = UINT64_MAX / 2;
  ASSERT_TRUE(m_fs.setOption(ZARN_OPT_CAPACITY_LIMIT, &huge, sizeof huge));
  ASSERT_TRUE(m_fs.getSystemInfo(after));
  EXPECT_EQ(after.totalCapacity, huge);
  EXPECT_LE(after.freeCapacity, raw.totalCapacity);
}

TEST_P(StoreConformance, CreatesSurviveLevelsBeingPrunedUnderThem) {
  // One thread keeps emptying (and so pruning) a level that another keeps
  // creating files in: no create may fail because its level vanished.
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::thread churn([&] {
    for (int i = 0; !stop.load(); ++i) {
      std::string p = "media_1/2016/05/01/churn_" + std::to_string(i);
      auto f = m_fs.createFile(p, 4, 1);
      if (!f) {
        ++failures;
        continue;
      }
      f->close();
      if (!m_fs.removeFile(p)) ++failures;
    }
  });
  for (int i = 0; i < 300; ++i) {
    std::string p = "media_1/2016/05/01/keep_" + std::to_string(i);
    auto f = m_fs.createFile(p, 4, 1);
    if (!f) {
      ADD_FAILURE() << p << ": " << getErrorMsg();
      continue;
    }
    EXPECT_TRUE(f->close());
    EXPECT_TRUE(m_fs.removeFile(p)) << getErrorMsg();
  }
  stop = true;
  churn.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_TRUE(m_fs.removeBucket("media_1")) << getErrorMsg();
}

// ---- Several processes on one store ----

// Waits for a child and returns its exit code (-1 when it did not exit normally).
int reap(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST_P(StoreConformance, ProcessesRacingToRenameOneFileHaveOneWinner) {
  for (int round = 0; round < 5; ++round) {
    const std::string src = "media_1/lockSize_" + std::to_string(round) + "_1.temp";
    ASSERT_TRUE(put(src, ""));
    int gate[2];
    ASSERT_EQ(::pipe(gate), 0);
    std::vector<pid_t> children;
    for (int c = 0; c < 4; ++c) {
      pid_t pid = ::fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        ::close(gate[1]);
        char byte;
        (void)!::read(gate[0], &byte, 1);  // returns when the parent closes the gate
        std::string to = "media_1/lockSize_" + std::to_string(round) + "_" + std::to_string(c + 2) + ".temp";
        if (m_fs.renameFile(src, to)) ::_exit(0);
        ::_exit(getLastError() == ZARN_E_NO_SUCH_FILE ? 1 : 2);
      }
      children.push_back(pid);
    }
    ::close(gate[0]);
    ::close(gate[1]);
    int wins = 0, losses = 0;
    for (pid_t pid : children) {
      int rc = reap(pid);
      wins += rc == 0;
      losses += rc == 1;
    }
    EXPECT_EQ(wins, 1) << "round " << round;
    EXPECT_EQ(losses, 3) << "round " << round;
    std::string prefix = "lockSize_" + std::to_string(round) + "_";
    EXPECT_EQ(listAll("media_1", prefix, prefix + "z").size(), 1u);
  }
}

TEST_P(StoreConformance, AnotherProcessSeesAWriterAndItsAppends) {
  const std::string path = "media_1/2016/05/01/080000_1.qrv";
  int toParent[2], toChild[2];
  ASSERT_EQ(::pipe(toParent), 0);
  ASSERT_EQ(::pipe(toChild), 0);
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::close(toParent[0]);
    ::close(toChild[1]);
    auto f = m_fs.createFile(path, 4, 1);
    if (!f || f->write("hello", 5) != 5) ::_exit(2);
    char byte = 'r';
    (void)!::write(toParent[1], &byte, 1);  // ready: the file is open for writing
    (void)!::read(toChild[0], &byte, 1);    // wait until the parent has looked
    if (f->write(" world", 6) != 6 || !f->close()) ::_exit(3);
    ::_exit(0);
  }
  ::close(toParent[1]);
  ::close(toChild[0]);
  char byte;
  ASSERT_EQ(::read(toParent[0], &byte, 1), 1);

  ZarnFileStat st;
  ASSERT_TRUE(m_fs.getFileStat(path, st)) << getErrorMsg();
  EXPECT_TRUE(st.openForWrite);
  EXPECT_EQ(st.size, 5u);
  EXPECT_EQ(m_fs.openFile(path, StoreOpenMode::Write), nullptr);
  EXPECT_EQ(getLastError(), ZARN_E_BUSY);
  auto reader = m_fs.openFile(path, StoreOpenMode::Read);
  ASSERT_NE(reader, nullptr);
  char buf[32];
  ASSERT_EQ(reader->read(buf, sizeof buf), 5);
  EXPECT_EQ(reader->read(buf, sizeof buf), 0);

  ASSERT_EQ(::write(toChild[1], "g", 1), 1);
  EXPECT_EQ(reap(pid), 0);
  ASSERT_EQ(reader->read(buf, sizeof buf), 6);
  EXPECT_EQ(std::string(buf, 6), " world");
  EXPECT_EQ(reader->read(buf, sizeof buf), -1);
  EXPECT_EQ(getLastError(), ZARN_E_EOF);
  ASSERT_TRUE(m_fs.getFileStat(path, st));
  EXPECT_FALSE(st.openForWrite);
  ::close(toParent[0]);
  ::close(toChild[1]);
}

INSTANTIATE_TEST_SUITE_P(Backends, StoreConformance, ::testing::ValuesIn(kBackends),
                         [](const ::testing::TestParamInfo<BackendCase>& p) { return p.param.name; });

}  // namespace
