// bench_record: records S streams of synthetic frames through CMediaClient into
// a local store and, side by side in the same run, writes the same frames with
// a plain write(2) loop into one file per stream (made durable with fdatasync
// at the end, as the store does when it closes a record file). Prints CPU seconds per GiB for
// both and their ratio, MB/s, refused frames (-2), sync writeFrame latency
// p50/p99, heap allocations per frame on the sync path, the cost of idle
// writers, and peak memory.
//
//   bench_record [--streams N] [--kbps N] [--fps N] [--gop N] [--seconds N]
//                [--realtime] [--async] [--store DIR] [--idle-writers N] [--repeat N]
//                [--phase both|plain|library]
//
// --gop is the key-frame interval in seconds; --seconds the length of video
// recorded per stream. Without --realtime frames go as fast as possible.
// --phase runs only one side (for a profiler; no ratio is printed then).
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "KanduLog.h"
#include "KanduTime.h"
#include "MediaContext.h"
#include "VeltoFrame.h"
#include "WritingFiles.h"
#include "ZarnMediaClient.h"

namespace {

std::atomic<uint64_t> g_allocations{0};

}  // namespace

// Counts every heap allocation of the process (the sync path must make none per frame).
void* operator new(size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

using Velto::Zarn::CMediaClient;
using Velto::Zarn::VeltoFrame;
using ZarnBench::contextSwitches;
using ZarnBench::cpuSeconds;
using ZarnBench::peakRssKb;
using ZarnBench::restamp;

struct Options {
  unsigned streams = 16;
  unsigned kbps = 4000;
  unsigned fps = 25;
  unsigned gop = 2;
  unsigned seconds = 20;
  bool realtime = false;
  bool async = false;
  unsigned idleWriters = 1000;
  unsigned repeat = 1;
  bool plainPhase = true, libraryPhase = true;
  std::string store = "./bench-record-store";
};






struct Stream {
  std::vector<uint8_t> key, delta;  // one key frame and one delta frame, re-stamped per frame
};

uint32_t frameLength(const Options& o, bool key) {
  uint32_t average = std::max<uint32_t>(64, o.kbps * 1000 / 8 / o.fps);
  // Key frames are five times the size of delta frames at the same average rate.
  uint32_t perGop = average * o.fps * o.gop;
  uint32_t framesPerGop = o.fps * o.gop;
  uint32_t delta = std::max<uint32_t>(64, perGop / (framesPerGop + 4));
  return key ? delta * 5 : delta;
}


// Issues every stream's frames in frame order, calling `emit(stream, frame)`;
// with realtime, frame k of every stream is issued at k / fps seconds.
template <typename Emit>
void drive(const Options& o, std::vector<Stream>& streams, uint32_t base, Emit emit) {
  const uint64_t frames = static_cast<uint64_t>(o.fps) * o.seconds;
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t k = 0; k < frames; ++k) {
    if (o.realtime) std::this_thread::sleep_until(start + std::chrono::microseconds(k * 1000000 / o.fps));
    const bool key = k % (static_cast<uint64_t>(o.fps) * o.gop) == 0;
    const uint32_t utc = base + static_cast<uint32_t>(k / o.fps);
    for (unsigned s = 0; s < streams.size(); ++s) {
      std::vector<uint8_t>& f = key ? streams[s].key : streams[s].delta;
      restamp(f, static_cast<uint32_t>(k), utc);
      emit(s, f);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  ZarnBench::ArgReader args(argc, argv);
  for (std::string a; args.next(a);) {
    if (a == "--streams") o.streams = args.number();
    else if (a == "--kbps") o.kbps = args.number();
    else if (a == "--fps") o.fps = args.number();
    else if (a == "--gop") o.gop = args.number();
    else if (a == "--seconds") o.seconds = args.number();
    else if (a == "--realtime") o.realtime = true;
    else if (a == "--async") o.async = true;
    else if (a == "--idle-writers") o.idleWriters = args.number();
    else if (a == "--store") o.store = args.value();
    else if (a == "--repeat") o.repeat = args.number();
    else if (a == "--phase") {
      const std::string phase = args.value();
      o.plainPhase = phase != "library";
      o.libraryPhase = phase != "plain";
    }
    else {
      std::fprintf(stderr, "unknown argument %s (see the header of bench_record.cpp)\n", a.c_str());
      return 2;
    }
  }
  if (o.streams == 0 || o.fps == 0 || o.gop == 0 || o.seconds == 0 || o.repeat == 0) {
    std::fprintf(stderr, "streams, fps, gop, seconds and repeat must be positive\n");
    return 2;
  }
  if (!std::getenv("ZARN_LOG_LEVEL")) Velto::Kandu::setLogLevel(Velto::Kandu::LOG_ERROR);
  std::filesystem::remove_all(o.store);
  std::filesystem::create_directories(o.store + "/plain");

  std::vector<Stream> streams(o.streams);
  const uint32_t base = static_cast<uint32_t>(Velto::Kandu::systemClock().wallClockSeconds());
  for (Stream& s : streams) {
    s.key = ZarnBench::makeFrame(Velto::Zarn::FRAME_TYPE_I, 0, base, frameLength(o, true));
    s.delta = ZarnBench::makeFrame(Velto::Zarn::FRAME_TYPE_P, 0, base, frameLength(o, false));
  }
  std::printf("streams %u, %u kbit/s, %u fps, key frame every %u s, %u s of video each, %s, %s writers\n",
              o.streams, o.kbps, o.fps, o.gop, o.seconds, o.realtime ? "paced in real time" : "as fast as possible",
              o.async ? "async" : "sync");

  struct Phase {
    uint64_t bytes = 0;
    double cpu = 0, wall = 0;
    long switches = 0;
  };
  const double gib = 1024.0 * 1024.0 * 1024.0;
  auto perGiB = [gib](const Phase& p) { return p.bytes ? p.cpu / (static_cast<double>(p.bytes) / gib) : 0.0; };

  // Plain write(2): one file per stream.
  auto runPlain = [&]() {
    Phase phase;
    std::vector<int> fds(o.streams);
    for (unsigned s = 0; s < o.streams; ++s)
      fds[s] =
          ::open((o.store + "/plain/" + std::to_string(s)).c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_APPEND, 0644);
    double cpu0 = cpuSeconds();
    auto wall0 = std::chrono::steady_clock::now();
    drive(o, streams, base, [&](unsigned s, const std::vector<uint8_t>& f) {
      size_t off = 0;
      while (off < f.size()) {
        ssize_t n = ::write(fds[s], f.data() + off, f.size() - off);
        if (n <= 0) std::abort();
        off += static_cast<size_t>(n);
      }
      phase.bytes += f.size();
    });
    // The store makes a record file durable before it takes its closed name;
    // the plain loop does the same for a like-for-like comparison.
    for (int fd : fds) {
      ::fdatasync(fd);
      ::close(fd);
    }
    phase.cpu = cpuSeconds() - cpu0;
    phase.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    return phase;
  };

  // The library: a client of its own per round, and stream ids of their own, so
  // that rounds never meet each other's files.
  uint64_t refused = 0, failed = 0;
  std::vector<uint32_t> latencyNs;
  latencyNs.reserve(static_cast<size_t>(o.streams) * o.fps * o.seconds * o.repeat);
  uint64_t steadyAllocs = 0, steadyFrames = 0;
  std::string address = o.store + "/store";
  Velto::Zarn::Config config{address.c_str(), 0, "root", ""};
  auto runLibrary = [&](unsigned round) {
    Phase phase;
    // The plain loop truncates its files of the last round as it opens them,
    // and so writes into page cache just freed; the library's last round goes
    // too, so that neither side meets colder memory than the other (on a VM
    // with free-page reporting, memory long free is slow to touch again).
    if (round > 0)
      for (unsigned s = 0; s < o.streams; ++s)
        std::filesystem::remove_all(address + "/media_" + std::to_string(1 + (round - 1) * 10000 + s));
    CMediaClient client;
    if (client.initialize(config, nullptr) != 0) {
      std::fprintf(stderr, "cannot open the store at %s\n", address.c_str());
      std::exit(1);
    }
    const unsigned firstId = 1 + round * 10000;
    for (unsigned s = 0; s < o.streams; ++s) {
      client.setRecyclePolicy(firstId + s, 24, 0);
      if (client.addStream(firstId + s, 1, !o.async) != 0) std::exit(1);
    }
    VeltoFrame frame;
    const long switches0 = contextSwitches();
    const double cpu0 = cpuSeconds();
    const auto wall0 = std::chrono::steady_clock::now();
    const uint64_t keyEvery = static_cast<uint64_t>(o.fps) * o.gop;
    uint64_t issued = 0;
    drive(o, streams, base, [&](unsigned s, const std::vector<uint8_t>& f) {
      frame.attach(f.data());
      unsigned long long taken = 0;
      // Steady state for the allocation count: after the first GOP, no key
      // frame (cuts and file creations allocate, by design, once per file).
      const bool steady = !o.async && issued / o.streams >= keyEvery && (issued / o.streams) % keyEvery != 0;
      const uint64_t before = g_allocations.load(std::memory_order_relaxed);
      const auto t0 = std::chrono::steady_clock::now();
      int r = client.writeFrame(firstId + s, &frame, 0, taken);
      // Unpaced, a full cache is back-pressure: count it and offer the frame again.
      while (r == -2 && !o.realtime) {
        ++refused;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        r = client.writeFrame(firstId + s, &frame, 0, taken);
      }
      const auto t1 = std::chrono::steady_clock::now();
      if (steady) {
        steadyAllocs += g_allocations.load(std::memory_order_relaxed) - before;
        ++steadyFrames;
      }
      if (!o.async) latencyNs.push_back(static_cast<uint32_t>(std::chrono::nanoseconds(t1 - t0).count()));
      if (r == -2) ++refused;
      else if (r != 0) ++failed;
      else phase.bytes += taken;
      ++issued;
    });
    for (unsigned s = 0; s < o.streams; ++s) client.deleteStream(firstId + s);
    // Closing is asynchronous: wait until every last file is closed and renamed.
    Velto::Zarn::CWritingFileTable& writing = Velto::Zarn::CMediaContext::instance().writingFiles();
    Velto::Zarn::CWritingFileTable::Entry entry;
    for (unsigned s = 0; s < o.streams; ++s)
      while (writing.get(firstId + s, entry)) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    phase.cpu = cpuSeconds() - cpu0;
    phase.switches = contextSwitches() - switches0;
    phase.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    return phase;
  };

  // Rounds alternate the two phases, so a burst of load elsewhere on the
  // machine hits both; the median ratio is the figure to read.
  std::vector<double> ratios;
  Phase plain, lib;
  for (unsigned round = 0; round < o.repeat; ++round) {
    if (o.plainPhase) plain = runPlain();
    if (o.libraryPhase) lib = runLibrary(round);
    if (!o.plainPhase || !o.libraryPhase) continue;
    ratios.push_back(perGiB(plain) > 0 ? perGiB(lib) / perGiB(plain) : 0.0);
    if (o.repeat > 1) std::printf("round %u: CPU per GiB ratio %.2f\n", round + 1, ratios.back());
  }
  std::sort(ratios.begin(), ratios.end());

  {
    // Idle writers: what a registered stream that records nothing costs.
    CMediaClient client;
    if (client.initialize(config, nullptr) != 0) return 1;
    long rss0 = ZarnBench::procStatus("VmRSS:");
    long threads0 = ZarnBench::procStatus("Threads:");
    for (unsigned s = 0; s < o.idleWriters; ++s) {
      client.setRecyclePolicy(900000 + s, 24, 0);
      client.addStream(900000 + s, 1, true);
    }
    long rss1 = ZarnBench::procStatus("VmRSS:");
    long threads1 = ZarnBench::procStatus("Threads:");
    std::printf("idle writers: %u cost %.1f KiB each and %ld threads in all\n", o.idleWriters,
                o.idleWriters ? static_cast<double>(rss1 - rss0) / o.idleWriters : 0.0, threads1 - threads0);
    for (unsigned s = 0; s < o.idleWriters; ++s) client.deleteStream(900000 + s);
  }

  if (o.plainPhase)
    std::printf("plain write(2): %8.1f MB/s  %6.3f CPU s/GiB  (%" PRIu64 " bytes in %.2f s, last round)\n",
                static_cast<double>(plain.bytes) / 1e6 / plain.wall, perGiB(plain), plain.bytes, plain.wall);
  if (o.libraryPhase)
    std::printf("CMediaClient  : %8.1f MB/s  %6.3f CPU s/GiB  (%" PRIu64 " bytes in %.2f s, last round)\n",
                static_cast<double>(lib.bytes) / 1e6 / lib.wall, perGiB(lib), lib.bytes, lib.wall);
  if (!ratios.empty())
    std::printf("CPU per GiB ratio (library / plain): median %.2f of %zu rounds, min %.2f, max %.2f  (target <= %s)\n",
                ratios[ratios.size() / 2], ratios.size(), ratios.front(), ratios.back(), o.async ? "1.2" : "1.3");
  std::printf("refused frames (-2): %" PRIu64 ", failed writes: %" PRIu64 "\n", refused, failed);
  const uint64_t framesIssued = static_cast<uint64_t>(o.streams) * o.fps * o.seconds;
  std::printf("context switches per frame (library phase, last round): %.2f\n",
              framesIssued ? static_cast<double>(lib.switches) / static_cast<double>(framesIssued) : 0.0);
  if (!latencyNs.empty()) {
    std::sort(latencyNs.begin(), latencyNs.end());
    std::printf("sync writeFrame latency: p50 %.1f us, p99 %.1f us\n", latencyNs[latencyNs.size() / 2] / 1000.0,
                latencyNs[latencyNs.size() * 99 / 100] / 1000.0);
    std::printf("heap allocations per frame on the sync path (steady state): %.3f over %" PRIu64 " frames\n",
                steadyFrames ? static_cast<double>(steadyAllocs) / static_cast<double>(steadyFrames) : 0.0,
                steadyFrames);
  }
  std::printf("peak memory: %.1f MiB\n", static_cast<double>(peakRssKb()) / 1024.0);
  std::filesystem::remove_all(o.store);
  return failed == 0 ? 0 : 1;
}
