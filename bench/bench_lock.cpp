// bench_lock: what locks cost.
//   * lock and unlock of a one-day range (48 files of 30 minutes, 1 MiB each)
//     through CMediaClient: latency p50/p99 over --rounds rounds;
//   * ledger contention: --processes processes, each with its own store
//     connection, adding and then subtracting 1 MiB --updates times: updates
//     per second over all of them, and the final total (it must be exact).
// On a local store in --dir (default: a temporary directory) or, with
// --store ADDRESS, on any store (ceph://...). It asserts nothing but the
// final total, whose mismatch it reports. On CephFS keep --processes at 2 or
// 3: more contenders on the ledger's directory slow every update to seconds
// (doc/ceph_store.md).
//
//   bench_lock [--store ADDRESS] [--dir DIR] [--rounds N] [--processes N] [--updates N]
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "KanduLog.h"
#include "KanduTime.h"
#include "LockSizeLedger.h"
#include "MediaClientInternal.h"
#include "RecordFileName.h"

using namespace Velto::Zarn;

namespace {

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

}  // namespace

// One contending process: `updates` times +1 MiB and -1 MiB on the ledger.
int ledgerWorker(const char* address, int updates) {
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_ERROR);
  CZarnFileSystem fs;
  if (!fs.initialize(Config{address, 0, "root", ""})) return 1;
  for (int i = 0; i < updates; ++i) {
    if (plusLockSize(fs, 1) != 0 || minusLockSize(fs, 1) != 0) return 1;
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--ledger-worker") return ledgerWorker(argv[2], std::atoi(argv[3]));
  std::string dir = (std::filesystem::temp_directory_path() / ("bench-lock-" + std::to_string(::getpid()))).string();
  std::string address;
  int rounds = 50, processes = 8, updates = 1000;
  ZarnBench::ArgReader args(argc, argv);
  for (std::string name; args.next(name);) {
    if (name == "--dir") dir = args.value();
    else if (name == "--store") address = args.value();
    else if (name == "--rounds") rounds = static_cast<int>(args.number());
    else if (name == "--processes") processes = static_cast<int>(args.number());
    else if (name == "--updates") updates = static_cast<int>(args.number());
    else {
      std::fprintf(stderr, "unknown option %s (see the header of bench_lock.cpp)\n", name.c_str());
      return 2;
    }
  }
  if (address.empty()) address = dir;
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_ERROR);

  // A day of 48 files of 30 minutes, 1 MiB each: a first lock and a last
  // unlock of each file move the ledger too.
  const uint32_t day = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 3, 10, 0, 0, 0));
  {
    CMediaClientInternal client;
    if (client.initialize(Config{address.c_str(), 0, "root", ""}, nullptr) != 0) {
      std::fprintf(stderr, "cannot open the store %s\n", address.c_str());
      return 1;
    }
    client.setMaxLockRatio(100);
    CZarnFileSystem& fs = *client.storeForTest();
    fs.createBucket("media_3");
    for (uint32_t i = 0; i < 48; ++i) {
      RecordFileName n{.streamId = 3, .beginTime = day + i * 1800, .endTime = day + i * 1800 + 1799, .type = 1,
                       .indexState = 1};
      std::string name;
      generateRecordFileName(n, name);
      static const std::vector<uint8_t> bytes(1u << 20, 0x44);
      if (auto file = fs.createFile(name, 1, 0)) {
        file->write(bytes.data(), static_cast<uint32_t>(bytes.size()));
        file->close();
      }
    }
    // Every file of the day is locked by one call, and unlocked by the other.
    std::vector<RecordClipEx> files;
    client.lockStream(3, day, day + 86400);
    client.queryRecordFileList(3, day, day + 86400, files);
    const long lockedFiles = std::count_if(files.begin(), files.end(), [](const RecordClipEx& f) { return f.locked; });
    unsigned char lockNum = 0;
    client.unlockStream(3, day, day + 86400, lockNum, false);
    if (files.size() != 48 || lockedFiles != 48) {
      std::fprintf(stderr, "a day's lock reached %ld of %zu files\n", lockedFiles, files.size());
      return 1;
    }
    std::vector<double> lockMs, unlockMs;
    for (int r = 0; r < rounds; ++r) {
      uint64_t t0 = Velto::Kandu::monotonicUs();
      const int locked = client.lockStream(3, day, day + 86400);
      uint64_t t1 = Velto::Kandu::monotonicUs();
      unsigned char left = 0;
      const int unlocked = client.unlockStream(3, day, day + 86400, left, false);
      uint64_t t2 = Velto::Kandu::monotonicUs();
      if (locked != 0 || unlocked != 0) {
        std::fprintf(stderr, "round %d: lock %d, unlock %d\n", r, locked, unlocked);
        return 1;
      }
      lockMs.push_back(static_cast<double>(t1 - t0) / 1000.0);
      unlockMs.push_back(static_cast<double>(t2 - t1) / 1000.0);
    }
    std::printf("store %s\n", address.c_str());
    std::printf("lock one day (48 files):   p50 %7.2f ms  p99 %7.2f ms  (%d rounds)\n", percentile(lockMs, 0.5),
                percentile(lockMs, 0.99), rounds);
    std::printf("unlock one day (48 files): p50 %7.2f ms  p99 %7.2f ms\n", percentile(unlockMs, 0.5),
                percentile(unlockMs, 0.99));
  }

  // Ledger contention, one store connection per process. The workers are fresh
  // processes (this program again): a store client does not survive a fork.
  std::fflush(stdout);
  CZarnFileSystem probe;
  if (!probe.initialize(Config{address.c_str(), 0, "root", ""})) return 1;
  uint64_t before = 0;
  getLockSize(probe, before);
  const uint64_t start = Velto::Kandu::monotonicUs();
  std::vector<pid_t> children;
  for (int p = 0; p < processes; ++p) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      const std::string count = std::to_string(updates);
      ::execl("/proc/self/exe", argv[0], "--ledger-worker", address.c_str(), count.c_str(), nullptr);
      ::_exit(127);
    }
    children.push_back(pid);
  }
  int failed = 0;
  for (pid_t pid : children) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    failed += !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const double seconds = static_cast<double>(Velto::Kandu::monotonicUs() - start) / 1e6;
  uint64_t after = 0;
  getLockSize(probe, after);
  const double total = 2.0 * processes * updates;
  std::printf("ledger: %d processes x %d (+1 MiB, -1 MiB): %.0f updates in %.2f s, %.0f updates/s; total %" PRIu64
              " before, %" PRIu64 " after (%s)%s\n",
              processes, updates, total, seconds, total / seconds, before, after, before == after ? "exact" : "DRIFT",
              failed ? ", some processes failed" : "");
  if (address == dir) std::filesystem::remove_all(dir);
  return before == after && failed == 0 ? 0 : 1;
}
