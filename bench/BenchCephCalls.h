// bench_ceph's call section: what the call time-out costs per store call on
// CephFS. Side by side in each round, in alternating order: plain libcephfs
// calls on the plain side's own mount, the CephFS backend's calls without the
// deadline wrapper (CCephStoreBackend::target()), and the same calls through
// it (each call handed to a worker and waited for). Small writes (4 KiB
// appends to one open file) and metadata calls (a stat of an existing file by
// name: ceph_statx for the plain side; the backend's stat also opens the file
// and probes its write lock). Prints microseconds per call, medians of the
// rounds, and the ratios.
#pragma once

#include <cephfs/libcephfs.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CephStoreBackend.h"
#include "KanduTime.h"

namespace ZarnBench {

struct CallBenchResult {
  double rawUs = 0, directUs = 0, guardedUs = 0;
};

inline double medianOf(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// `root` is a fresh directory of the plain mount that the store address
// `address` also reaches ("ceph://mon/<root>").
inline bool benchCephCalls(ceph_mount_info* pm, const std::string& address, const std::string& root,
                           unsigned rounds, unsigned writes, unsigned stats) {
  using namespace Velto::Zarn;
  std::shared_ptr<IStoreBackend> made;
  if (makeStoreBackend(address, made, nullptr) != 0) return false;
  auto guarded = std::dynamic_pointer_cast<CCephStoreBackend>(made);
  if (!guarded || guarded->connect(Config{address.c_str(), 0, "", ""}) != 0) return false;
  IStoreBackend& direct = *guarded->target();
  if (guarded->createBucket("calls") != 0) return false;
  std::unique_ptr<IStoreFile> statTarget;
  if (guarded->createFile("calls", "stat-me", StoreLayout{1, 0}, statTarget) != 0 || statTarget->close() != 0) {
    return false;
  }
  const std::string statPath = root + "/calls/stat-me";
  const std::vector<char> block(4096, 'w');
  auto timeUs = [](const std::function<bool()>& run, unsigned count) {
    const uint64_t t0 = Velto::Kandu::monotonicUs();
    if (!run()) return -1.0;
    return static_cast<double>(Velto::Kandu::monotonicUs() - t0) / count;
  };
  auto storeWrites = [&](IStoreBackend& b, const std::string& name) {
    std::unique_ptr<IStoreFile> f;
    if (b.createFile("calls", name, StoreLayout{1, 0}, f) != 0) return -1.0;
    double us = timeUs([&] {
      for (unsigned i = 0; i < writes; ++i) {
        if (f->write(block.data(), static_cast<uint32_t>(block.size())) != static_cast<int64_t>(block.size())) return false;
      }
      return true;
    }, writes);
    return f->close() == 0 ? us : -1.0;
  };
  auto rawWrites = [&](const std::string& name) {
    int fd = ceph_open(pm, (root + "/calls/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND, 0644);
    if (fd < 0) return -1.0;
    double us = timeUs([&] {
      for (unsigned i = 0; i < writes; ++i) {
        if (ceph_write(pm, fd, block.data(), block.size(), -1) != static_cast<int>(block.size())) return false;
      }
      return true;
    }, writes);
    bool ok = ceph_fsync(pm, fd, 0) == 0;
    return ceph_close(pm, fd) == 0 && ok ? us : -1.0;
  };
  auto storeStats = [&](IStoreBackend& b) {
    return timeUs([&] {
      StoreFileStat st;
      for (unsigned i = 0; i < stats; ++i) {
        if (b.statFile("calls", "stat-me", st) != 0) return false;
      }
      return true;
    }, stats);
  };
  auto rawStats = [&] {
    return timeUs([&] {
      struct ceph_statx stx;
      for (unsigned i = 0; i < stats; ++i) {
        if (ceph_statx(pm, statPath.c_str(), &stx, CEPH_STATX_SIZE | CEPH_STATX_MTIME, 0) != 0) return false;
      }
      return true;
    }, stats);
  };

  std::vector<double> w[3], s[3];
  for (unsigned r = 0; r < rounds; ++r) {
    const std::string tag = std::to_string(r);
    // Each round starts with a different side.
    for (unsigned k = 0; k < 3; ++k) {
      switch ((r + k) % 3) {
        case 0: w[0].push_back(rawWrites("raw-" + tag)); s[0].push_back(rawStats()); break;
        case 1: w[1].push_back(storeWrites(direct, "direct-" + tag)); s[1].push_back(storeStats(direct)); break;
        default: w[2].push_back(storeWrites(*guarded, "guarded-" + tag)); s[2].push_back(storeStats(*guarded)); break;
      }
    }
  }
  for (auto* v : {&w[0], &w[1], &w[2], &s[0], &s[1], &s[2]}) {
    if (std::find(v->begin(), v->end(), -1.0) != v->end()) return false;
  }
  const double wr = medianOf(w[0]), wd = medianOf(w[1]), wg = medianOf(w[2]);
  const double sr = medianOf(s[0]), sd = medianOf(s[1]), sg = medianOf(s[2]);
  std::printf("calls: %u rounds of %u writes of 4 KiB and %u stats, us per call (median of rounds)\n", rounds, writes,
              stats);
  std::printf("  write  libcephfs %8.2f  backend %8.2f  guarded %8.2f  guarded/backend %.2f  guarded/libcephfs %.2f\n",
              wr, wd, wg, wg / wd, wg / wr);
  std::printf("  stat   libcephfs %8.2f  backend %8.2f  guarded %8.2f  guarded/backend %.2f  guarded/libcephfs %.2f\n",
              sr, sd, sg, sg / sd, sg / sr);
  guarded->disconnect();
  return true;
}

}  // namespace ZarnBench
