// Migration of local-disk files into a store beside a plain copy of the same
// files into that store, in one run.
//
//   bench_migration [--store ADDRESS] [--disk DIR] [--files N] [--mib M] [--rounds R]
//
// Writes N closed record files of M MiB each (default 16 x 16 MiB, 25 fps
// frames of 20-60 KiB) onto a local disk DIR (default a fresh directory under
// /dev/shm), then, R rounds (default 3), alternating which goes first:
//   migration  one CMigration pass: copy under a temporary name, close,
//              verify size and record info, rename into place, remove the local
//              file (the files are put back on the disk before each measure);
//   plain      each file read with read(2) and written to the store in 1 MiB
//              calls of the store's own backend, then closed.
// ADDRESS is any store address (default a directory under /dev/shm; a ceph://
// address with the loopback cluster's environment for CephFS). Prints MiB/s
// and CPU seconds per GiB of both, and their ratio.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "CombinedStoreBackend.h"
#include "KanduClock.h"
#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "Migration.h"
#include "RecordFile.h"
#include "RecordFileName.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kFps = 25;
constexpr uint32_t kGop = 50;

// A closed record file of about `mib` MiB on the disk; its full name.
std::string writeRecord(CZarnFileSystem& disk, uint32_t sid, uint32_t begin, uint64_t mib) {
  RecordFileName name;
  name.streamId = sid;
  name.beginTime = begin;
  name.type = 1;
  disk.createBucket(bucketName("", sid, BUCKET_KIND_MEDIA));
  CRecordFile file(disk, name);
  if (!file.openForWrite(1, 0)) {
    std::fprintf(stderr, "cannot create a record file on the disk\n");
    std::exit(1);
  }
  std::mt19937 rng(sid);
  std::vector<uint8_t> frame;
  for (uint32_t i = 0; file.length() < (mib << 20); ++i) {
    const uint32_t time = begin + i / kFps;
    frame = ZarnBench::makeFrame(i % kGop == 0 ? FRAME_TYPE_I : FRAME_TYPE_P, i, time,
                                 20 * 1024 + rng() % (40 * 1024 + 1));
    file.write(frame.data(), static_cast<uint32_t>(frame.size()));
    file.setLastTime(time);
    if (i % kGop == 0) file.addIndex(FRAME_TYPE_I, 0, time, static_cast<uint32_t>(frame.size()));
  }
  file.close();
  return file.fullName();
}

struct Figures {
  double wall = 0;
  double cpu = 0;
};

}  // namespace

int main(int argc, char** argv) {
  std::string store = "/dev/shm/zarn-bench-migration/store";
  std::string diskDir = "/dev/shm/zarn-bench-migration/disk";
  uint32_t files = 16;
  uint64_t mib = 16;
  int rounds = 3;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string a = argv[i];
    if (a == "--store") store = argv[i + 1];
    else if (a == "--disk") diskDir = argv[i + 1];
    else if (a == "--files") files = static_cast<uint32_t>(std::atoi(argv[i + 1]));
    else if (a == "--mib") mib = std::strtoull(argv[i + 1], nullptr, 10);
    else if (a == "--rounds") rounds = std::atoi(argv[i + 1]);
  }
  fs::remove_all(diskDir);
  if (store.find("://") == std::string::npos) fs::remove_all(store);

  // The files, written once and kept aside as the bytes each round puts back.
  std::vector<std::pair<std::string, std::vector<uint8_t>>> originals;
  {
    CZarnFileSystem disk;
    if (!disk.initialize(Config{diskDir.c_str(), 0, "root", ""})) return 1;
    const uint32_t begin = static_cast<uint32_t>(Velto::Kandu::systemClock().wallClockMs() / 1000) - 86400;
    for (uint32_t f = 0; f < files; ++f) {
      const std::string path = writeRecord(disk, 900 + f % 4, begin + f * 600, mib);
      std::unique_ptr<CFile> in = disk.openFile(path, StoreOpenMode::Read);
      std::vector<uint8_t> bytes(mib << 21);
      size_t got = 0;
      for (int64_t n; (n = in->read(bytes.data() + got, static_cast<uint32_t>(bytes.size() - got))) > 0;) got += n;
      bytes.resize(got);
      originals.emplace_back(path, std::move(bytes));
    }
  }
  uint64_t totalBytes = 0;
  for (const auto& o : originals) totalBytes += o.second.size();

  auto disks = std::make_shared<CLocalDiskSet>(std::vector<std::string>{diskDir}, 0);
  if (disks->open() != 1) {
    std::fprintf(stderr, "cannot use %s as a local disk\n", diskDir.c_str());
    return 1;
  }
  std::shared_ptr<IStoreBackend> raw;
  if (makeStoreBackend(store, raw) != 0 || raw->connect(Config{store.c_str(), 0, "root", ""}) != 0) {
    std::fprintf(stderr, "cannot reach the store %s\n", store.c_str());
    return 1;
  }
  auto combined = std::make_shared<CCombinedStoreBackend>(raw, disks);
  CMigration migration(Velto::Kandu::systemClock(), combined, 0);

  const auto putBack = [&] {
    for (const auto& [path, bytes] : originals) {
      const size_t slash = path.find('/');
      const std::string bucket = path.substr(0, slash), name = path.substr(slash + 1);
      raw->removeFile(bucket, name);
      disks->disk(0).removeFile(bucket, name);
      disks->disk(0).createBucket(bucket);
      std::unique_ptr<IStoreFile> out;
      if (disks->disk(0).createFile(bucket, name, StoreLayout{}, out) != 0) {
        std::fprintf(stderr, "cannot put %s back on the disk\n", path.c_str());
        std::exit(1);
      }
      for (size_t at = 0; at < bytes.size();) at += out->write(bytes.data() + at, static_cast<uint32_t>(bytes.size() - at));
      out->close();
    }
  };
  const auto plain = [&](int round) {
    std::vector<uint8_t> chunk(1u << 20);
    for (const auto& [path, bytes] : originals) {
      const size_t slash = path.find('/');
      const std::string bucket = "plain_" + std::to_string(round);
      raw->createBucket(bucket);
      const std::string name = path.substr(slash + 1);
      raw->removeFile(bucket, name);
      const int fd = ::open((diskDir + "/" + path).c_str(), O_RDONLY);
      std::unique_ptr<IStoreFile> out;
      if (fd < 0 || raw->createFile(bucket, name, StoreLayout{}, out) != 0) {
        std::fprintf(stderr, "cannot copy %s\n", path.c_str());
        std::exit(1);
      }
      for (ssize_t n; (n = ::read(fd, chunk.data(), chunk.size())) > 0;) {
        for (ssize_t at = 0; at < n;) at += out->write(chunk.data() + at, static_cast<uint32_t>(n - at));
      }
      out->close();
      ::close(fd);
    }
  };
  Figures mig, pla;
  for (int r = 0; r < rounds; ++r) {
    for (int k = 0; k < 2; ++k) {
      putBack();
      const bool doMigration = (k == 0) == (r % 2 == 0);
      const double cpu0 = ZarnBench::cpuSeconds();
      const auto t0 = std::chrono::steady_clock::now();
      if (doMigration) {
        const CMigration::PassResult p = migration.runPass();
        if (p.files != originals.size()) std::fprintf(stderr, "round %d: migrated %llu of %zu files\n", r,
                                                      static_cast<unsigned long long>(p.files), originals.size());
      } else {
        plain(r);
      }
      const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      Figures& f = doMigration ? mig : pla;
      f.wall += wall;
      f.cpu += ZarnBench::cpuSeconds() - cpu0;
    }
  }
  const double gib = static_cast<double>(totalBytes) * rounds / (1u << 30);
  std::printf("store %s, %u files, %.1f MiB a round, %d rounds\n", store.c_str(), files,
              static_cast<double>(totalBytes) / (1u << 20), rounds);
  std::printf("%-10s %10s %14s\n", "", "MiB/s", "CPU s/GiB");
  std::printf("%-10s %10.1f %14.3f\n", "migration", gib * 1024 / mig.wall, mig.cpu / gib);
  std::printf("%-10s %10.1f %14.3f\n", "plain", gib * 1024 / pla.wall, pla.cpu / gib);
  std::printf("throughput ratio migration/plain %.2f, CPU ratio %.2f\n", pla.wall / mig.wall, mig.cpu / pla.cpu);
  return 0;
}
