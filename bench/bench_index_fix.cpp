// Index rebuild of a crashed record file beside a plain read(2) of the same
// file, and the time from a client's addStream to that file being playable.
//
//   bench_index_fix [--mib N] [--dir DIR] [--rounds R]
//
// Writes N MiB (default 1024) of 25 fps video, a key frame every 50 frames,
// frames of 20-60 KiB, through a record file that is never closed (the writer
// "crashed"), to a local store in DIR (default a fresh temporary directory,
// removed at the end). Then, R rounds (default 3), alternating which goes
// first: CIndexFixer::doFixIndex on the file (renamed back to its open name
// and its index file removed after each round), and a sequential read(2) of
// the file with a 128 KiB buffer. Nothing is dropped from the page cache: both
// read a warm file, so the figures compare CPU and call overhead, not the disk.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "IndexFixer.h"
#include "KanduClock.h"
#include "KanduLog.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "MediaClientInternal.h"
#include "MediaValues.h"
#include "RecordFile.h"
#include "RecordFileName.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kSid = 7;
constexpr uint32_t kFps = 25;
constexpr uint32_t kGop = 50;
constexpr uint32_t kReadBuffer = 128 * 1024;

double seconds(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// Writes frames of `mib` MiB through a record file and drops it without its
// close: the file stays under its open name with data only. Returns bytes.
uint64_t writeCrashed(CZarnFileSystem& store, const RecordFileName& name, uint64_t mib) {
  CRecordFile file(store, name);
  if (!file.openForWrite(1, 0)) {
    std::fprintf(stderr, "cannot create the record file\n");
    std::exit(1);
  }
  std::mt19937 rng(42);
  std::vector<uint8_t> frame(60 * 1024 + kMinFrameSize);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 131 + 7);
  const uint64_t target = mib << 20;
  for (uint32_t i = 0; file.length() < target; ++i) {
    const uint32_t payload = 20 * 1024 + rng() % (40 * 1024 + 1);
    const uint32_t length = kMinFrameSize + payload;
    const uint32_t time = name.beginTime + i / kFps;
    VeltoFrameHead head{};
    head.magic = kFrameHeadMagic;
    head.type = i % kGop == 0 ? FRAME_TYPE_I : FRAME_TYPE_P;
    head.sequence = i;
    head.length = length;
    Velto::Kandu::CTime t(time);
    head.packedTime = packFrameTime(t.getYear(), t.getMonth(), t.getDay(), t.getHour(), t.getMinute(), t.getSecond());
    head.msStamp = static_cast<uint16_t>(i * (1000 / kFps));
    std::memcpy(frame.data(), &head, sizeof(head));
    sealFrameHead(frame.data());
    std::memcpy(frame.data() + length - 8, &kFrameTailMagic, 4);
    std::memcpy(frame.data() + length - 4, &length, 4);
    if (file.write(frame.data(), length) != static_cast<int64_t>(length)) {
      std::fprintf(stderr, "write failed at frame %u\n", i);
      std::exit(1);
    }
    file.setLastTime(time);
    if (head.type == FRAME_TYPE_I) file.addIndex(head.type, 0, time, length);
  }
  return file.length();  // the destructor lets go of the file without the close protocol
}

// Bytes read by a sequential read(2) of `path`.
uint64_t plainRead(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return 0;
  std::vector<uint8_t> buffer(kReadBuffer);
  uint64_t total = 0;
  for (;;) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n <= 0) break;
    total += static_cast<uint64_t>(n);
  }
  ::close(fd);
  return total;
}

std::string pathOf(const RecordFileName& name) {
  std::string s;
  generateRecordFileName(name, s);
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t mib = 1024;
  int rounds = 3;
  std::string dir;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--mib" && i + 1 < argc) {
      mib = std::strtoull(argv[++i], nullptr, 10);
    } else if (a == "--dir" && i + 1 < argc) {
      dir = argv[++i];
    } else if (a == "--rounds" && i + 1 < argc) {
      rounds = std::max(1, std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr, "usage: %s [--mib N] [--dir DIR] [--rounds R]\n", argv[0]);
      return 2;
    }
  }
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_WARN);
  bool ownDir = false;
  if (dir.empty()) {
    std::string pattern = (fs::temp_directory_path() / "bench-index-fix.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return 1;
    dir = pattern;
    ownDir = true;
  }
  const std::string root = dir + "/store";
  fs::create_directories(root);

  // Today's folder, so that a client's look for its stream's open files finds it.
  const uint32_t now = CMediaValues::instance().localNow(Velto::Kandu::systemClock());
  const uint32_t dayStart = now - now % 86400;
  RecordFileName open{.streamId = kSid, .beginTime = std::max(dayStart + 1, now - 1800), .type = 1};
  const std::string openPath = pathOf(open);

  IndexFixReport last;
  {
    CZarnFileSystem store;
    if (!store.initialize(Config{root.c_str(), 0, "root", ""})) return 1;
    store.createBucket(bucketName(kSid, BUCKET_KIND_MEDIA));
    const auto w0 = std::chrono::steady_clock::now();
    const uint64_t bytes = writeCrashed(store, open, mib);
    std::printf("wrote %.1f MiB of crashed recording in %.2f s: %s\n", bytes / 1048576.0,
                seconds(w0, std::chrono::steady_clock::now()), openPath.c_str());
    const std::string file = root + "/" + openPath;
    if (fs::file_size(file) != bytes) {
      std::fprintf(stderr, "the store file is not at %s\n", file.c_str());
      return 1;
    }
    plainRead(file);  // warm both contenders alike
    std::printf("page cache: kept warm, nothing dropped; both contenders read a cached file\n");
    std::printf("%-6s %-10s %10s %10s\n", "round", "what", "seconds", "MB/s");
    double fixTotal = 0, readTotal = 0;
    for (int r = 0; r < rounds; ++r) {
      for (int k = 0; k < 2; ++k) {
        const bool fixNow = (k == 0) == (r % 2 == 0);
        const auto t0 = std::chrono::steady_clock::now();
        uint64_t done = 0;
        if (fixNow) {
          last = CIndexFixer(store, open).doFixIndex();
          if (last.outcome != IndexFixReport::kRebuilt) {
            std::fprintf(stderr, "rebuild ended %s\n", indexFixOutcomeName(last.outcome));
            return 1;
          }
          done = bytes;
        } else {
          done = plainRead(file);
        }
        const double s = seconds(t0, std::chrono::steady_clock::now());
        (fixNow ? fixTotal : readTotal) += s;
        std::printf("%-6d %-10s %10.3f %10.1f\n", r + 1, fixNow ? "rebuild" : "read(2)", s, done / s / 1e6);
        if (fixNow) {
          // Back to the crashed state for the next round.
          RecordFileName final;
          parseRecordFileName(last.name, final);
          RecordFileName index = final;
          index.isIndex = 1;
          if (!store.removeFile(pathOf(index)) || !store.renameFile(last.name, openPath)) {
            std::fprintf(stderr, "cannot restore the crashed file\n");
            return 1;
          }
        }
      }
    }
    const double fixRate = bytes * rounds / fixTotal / 1e6, readRate = bytes * rounds / readTotal / 1e6;
    std::printf("rebuild %.1f MB/s (%u key frames of %u frames), read(2) %.1f MB/s, ratio %.2f (target >= 0.80)\n",
                fixRate, last.keyFrames, last.frames, readRate, fixRate / readRate);
  }

  // A client starting a writer on the stream finds the crashed file and
  // repairs it: the time until its state-3 name is there.
  {
    CMediaClientInternal client;
    if (client.initialize(Config{root.c_str(), 0, "root", ""}, nullptr) != 0) return 1;
    client.setRecyclePolicy(kSid, 24, 0);
    CZarnFileSystem& store = *client.storeForTest();
    ZarnFileStat st;
    const auto t0 = std::chrono::steady_clock::now();
    if (client.addStream(kSid, 1, true) != 0) {
      std::fprintf(stderr, "addStream failed\n");
      return 1;
    }
    bool playable = false;
    while (!(playable = store.getFileStat(last.name, st)) && seconds(t0, std::chrono::steady_clock::now()) < 120) {
      Velto::Kandu::sleepMs(1);
    }
    const double s = seconds(t0, std::chrono::steady_clock::now());
    if (playable) {
      std::printf("addStream to playable (state-3 name present): %.3f s\n", s);
    } else {
      std::printf("addStream to playable: not within %.0f s\n", s);
    }
    client.deleteStream(kSid);
  }
  if (ownDir) fs::remove_all(dir);
  return 0;
}
