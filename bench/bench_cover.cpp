// One recycling pass over many streams: wall time and store calls, and how
// they grow with the streams and with the days of recordings each one keeps.
//
//   bench_cover [--stores ADDR[,ADDR...]] [--grid SxD[,SxD...]] [--shortened]
//
// For every store (default: a fresh local directory on tmpfs, removed at the end) and
// every grid cell (default 10x1,10x30,100x1,100x30: S streams with D days of
// 30-minute files each, empty files, since a pass reads names, not bytes), a
// fresh sub-store is filled, then one cover pass runs with every stream's time
// policy set to D days at half an hour past the last file's begin: the steady
// state of a recorder, where each pass removes the one file per stream that
// aged out. --shortened sets the policies to 24 hours instead: the pass after
// an operator shortened them, which the two-period guard bounds to two files
// per stream. Prints one line per cell: files kept, files removed, pass time,
// store calls by kind. A CephFS address ("ceph://...") gets a sub-path per
// cell; keep its grid small (filling is one create per file).
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "CyclicCover.h"
#include "KanduLog.h"
#include "KanduTime.h"
#include "LockSizeLedger.h"
#include "MediaConfig.h"
#include "MediaSdkStat.h"
#include "RecordFileName.h"
#include "StoreBackend.h"

using namespace Velto::Zarn;

namespace {

const uint32_t T0 = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 1, 1, 0, 0, 0));
constexpr uint32_t kFileSeconds = 1800;

// Counts the calls a pass makes, by kind.
class CCountingBackend final : public CStoreBackendWrapper {
 public:
  using CStoreBackendWrapper::CStoreBackendWrapper;
  std::atomic<uint64_t> lists{0}, removes{0}, stats{0}, other{0};

  int list(const std::string& b, const std::string& after, const std::string& upTo, uint32_t maxCount,
           std::vector<StoreEntry>& out) override {
    ++lists;
    return CStoreBackendWrapper::list(b, after, upTo, maxCount, out);
  }
  int removeFile(const std::string& b, const std::string& n) override {
    ++removes;
    return CStoreBackendWrapper::removeFile(b, n);
  }
  int statFile(const std::string& b, const std::string& n, StoreFileStat& out) override {
    ++stats;
    return CStoreBackendWrapper::statFile(b, n, out);
  }
  int capacity(StoreCapacity& out) override { return ++other, CStoreBackendWrapper::capacity(out); }
  int listBuckets(std::vector<std::string>& out) override { return ++other, CStoreBackendWrapper::listBuckets(out); }
  int bucketExists(const std::string& b) override { return ++other, CStoreBackendWrapper::bucketExists(b); }
  int bucketUsedBytes(const std::string& b, uint64_t& out) override {
    return ++other, CStoreBackendWrapper::bucketUsedBytes(b, out);
  }
  int removeBucket(const std::string& b) override { return ++other, CStoreBackendWrapper::removeBucket(b); }
  int renameFile(const std::string& fb, const std::string& fn, const std::string& tb, const std::string& tn) override {
    return ++other, CStoreBackendWrapper::renameFile(fb, fn, tb, tn);
  }
  uint64_t total() const { return lists + removes + stats + other; }
};

void fill(CZarnFileSystem& fs, uint32_t streams, uint32_t days) {
  for (uint32_t sid = 1; sid <= streams; ++sid) {
    if (!fs.createBucket(bucketName(sid, BUCKET_KIND_MEDIA))) {
      std::fprintf(stderr, "cannot create a bucket: %s\n", getErrorMsg());
      std::exit(1);
    }
    for (uint32_t i = 0; i < days * 86400 / kFileSeconds; ++i) {
      RecordFileName n{.streamId = sid, .beginTime = T0 + i * kFileSeconds,
                       .endTime = T0 + (i + 1) * kFileSeconds - 1, .type = 1, .indexState = RECORD_INDEX_INTERNAL};
      std::string name;
      generateRecordFileName(n, name);
      std::unique_ptr<CFile> file = fs.createFile(name, 1, 0);
      if (!file || !file->close()) {
        std::fprintf(stderr, "cannot create %s: %s\n", name.c_str(), getErrorMsg());
        std::exit(1);
      }
    }
  }
}

double secondsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

}  // namespace

int main(int argc, char** argv) {
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);
  std::string storesArg, gridArg = "10x1,10x30,100x1,100x30";
  bool shortened = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--stores" && i + 1 < argc) {
      storesArg = argv[++i];
    } else if (a == "--grid" && i + 1 < argc) {
      gridArg = argv[++i];
    } else if (a == "--shortened") {
      shortened = true;
    } else {
      std::fprintf(stderr, "usage: %s [--stores ADDR[,ADDR...]] [--grid SxD[,SxD...]] [--shortened]\n", argv[0]);
      return 2;
    }
  }
  std::string tempDir;
  if (storesArg.empty()) {
    // tmpfs when there is one: filling is 144,000 creates and closes, each synced.
    const std::filesystem::path base =
        std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
    tempDir = (base / ("bench-cover-" + std::to_string(::getpid()))).string();
    std::filesystem::create_directories(tempDir);
    storesArg = tempDir;
  }
  std::vector<std::string> stores;
  std::vector<std::pair<uint32_t, uint32_t>> grid;
  std::stringstream ss(storesArg), gs(gridArg);
  for (std::string item; std::getline(ss, item, ',');) stores.push_back(item);
  for (std::string item; std::getline(gs, item, ',');) {
    unsigned s = 0, d = 0;
    if (std::sscanf(item.c_str(), "%ux%u", &s, &d) != 2 || s == 0 || d == 0) {
      std::fprintf(stderr, "bad grid cell '%s'\n", item.c_str());
      return 2;
    }
    grid.emplace_back(s, d);
  }

  CMediaConfig config;  // defaults: a 30-minute period, urgent below 5 % free
  CMediaSdkStat stats;
  std::printf("%-8s %7s %5s %8s %8s %9s %8s %8s %7s %7s\n", "store", "streams", "days", "files", "removed",
              "pass_ms", "lists", "removes", "stats", "other");
  int cell = 0;
  for (const std::string& store : stores) {
    for (auto [streams, days] : grid) {
      const std::string address = store + "/cell-" + std::to_string(::getpid()) + "-" + std::to_string(cell++);
      if (address.rfind("ceph://", 0) != 0) std::filesystem::create_directories(address);
      std::shared_ptr<IStoreBackend> target;
      if (makeStoreBackend(address, target, nullptr) != 0) {
        std::fprintf(stderr, "cannot reach %s\n", address.c_str());
        return 1;
      }
      auto counting = std::make_shared<CCountingBackend>(target);
      CZarnFileSystem fs;
      if (!fs.initializeWithBackend(Config{address.c_str(), 0, "root", ""}, counting) || !checkSysFile(fs)) {
        std::fprintf(stderr, "cannot open %s: %s\n", address.c_str(), getErrorMsg());
        return 1;
      }
      fill(fs, streams, days);
      Velto::Kandu::CManualClock clock(int64_t{T0 + days * 86400 + kFileSeconds} * 1000);
      CZarnCyclicCover cover(clock, config, stats);
      for (uint32_t sid = 1; sid <= streams; ++sid) cover.setCoverPolicy(sid, shortened ? 24 : days * 24, 0);
      counting->lists = counting->removes = counting->stats = counting->other = 0;
      uint64_t removed = 0;
      CoverPassOptions options;
      options.onRemoved = [&removed](const RecordFileName&, const char*) { ++removed; };
      const auto start = std::chrono::steady_clock::now();
      cover.runPass(fs, options);
      const double ms = secondsSince(start) * 1000;
      std::printf("%-8s %7u %5u %8u %8llu %9.1f %8llu %8llu %7llu %7llu\n",
                  address.rfind("ceph://", 0) == 0 ? "ceph" : "local", streams, days,
                  streams * days * 86400 / kFileSeconds, static_cast<unsigned long long>(removed), ms,
                  static_cast<unsigned long long>(counting->lists.load()),
                  static_cast<unsigned long long>(counting->removes.load()),
                  static_cast<unsigned long long>(counting->stats.load()),
                  static_cast<unsigned long long>(counting->other.load()));
      std::fflush(stdout);
      if (address.rfind("ceph://", 0) == 0) {
        for (uint32_t sid = 1; sid <= streams; ++sid) {
          // Leave the cluster as it was: the cell's files and buckets go.
          CBucket bucket = fs.getBucket(bucketName(sid, BUCKET_KIND_MEDIA));
          for (CFileList page; bucket.list(page, "", "", 1000) && !page.empty(); page.clear()) {
            for (const StoreEntry& e : page) fs.removeFile(bucket.name() + "/" + e.name);
          }
          fs.removeBucket(bucket.name());
        }
      } else {
        std::filesystem::remove_all(address);
      }
    }
  }
  if (!tempDir.empty()) std::filesystem::remove_all(tempDir);
  return 0;
}
