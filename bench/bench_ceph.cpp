// bench_ceph: the CephFS store against plain libcephfs, and listing latency on
// CephFS.
//
// Ingest: records S streams of synthetic frames through CMediaClient into a
// fresh root of the CephFS store and, side by side in the same run, writes the
// same frames from a plain libcephfs loop of its own mount into one file per
// stream, cut where the library cuts (at the first key frame once a file holds
// --cut-seconds of video or the library's maximum length) and made durable
// with ceph_fsync(datasync) before ceph_close, as the store does before a
// record file takes its closed name. Prints MB/s and CPU seconds per GiB for
// both and the ratios library / plain; rounds alternate which side goes first,
// and with --repeat the medians are the figures to read. With sync writers each
// round also shows the wall time spent on the frames that open or cut a file
// (where the store's create and rename protocols run) and on the last closes.
//
// Listing: a stream's bucket holding --days days of 30-minute record files and
// a bucket holding only one of those days answer the same one-day
// queryRecordClipList, --queries times each, interleaved: p50 and p99 in
// microseconds and the ratio.
//
//   bench_ceph [--address ceph://mon[:port][/path]] [--streams N] [--kbps N] [--fps N] [--gop N]
//              [--seconds N] [--cut-seconds N] [--async] [--repeat N] [--settle-ms N] [--days N]
//              [--queries N] [--no-ingest] [--no-listing] [--no-calls] [--call-writes N] [--call-stats N]
//
// --address defaults to $ZARN_TEST_CEPH_ADDRESS; $ZARN_CEPH_CONF names the
// cluster's ceph.conf for both mounts. --gop is the key-frame interval in
// seconds; --seconds the video recorded per stream per side and round. Frames
// go as fast as possible. Both sides first run an untimed warm-up of 10 s of
// video; each timed phase starts after a pause of --settle-ms. Everything is
// written under <path>/bench-ceph-<pid>-<time> and removed at the end. CPU is
// this process's (both mounts' client threads included); the cluster's
// daemons are not counted.
//
// Calls: what the store call time-out costs per call (BenchCephCalls.h),
// --repeat rounds (at least 3) of --call-writes writes and --call-stats stats.
//
// The cut length reaches the library through MediaConfig.cfg, which it reads
// from the working directory: the program runs in a private temporary working
// directory holding that file (with the library's statistics file and log
// beside it), removed at the end.
#include <cephfs/libcephfs.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchCephCalls.h"
#include "BenchSupport.h"
#include "KanduLog.h"
#include "KanduTime.h"
#include "MediaConfig.h"
#include "MediaContext.h"
#include "RecordFileName.h"
#include "VeltoFrame.h"
#include "WritingFiles.h"
#include "ZarnMediaClient.h"

namespace {

using Velto::Zarn::CMediaClient;
using Velto::Zarn::VeltoFrame;
using ZarnBench::cpuSeconds;
using ZarnBench::restamp;

struct Options {
  std::string address;
  unsigned streams = 8;
  unsigned kbps = 4000;
  unsigned fps = 25;
  unsigned gop = 2;
  unsigned seconds = 120;
  unsigned cutSeconds = 60;
  bool async = false;
  unsigned repeat = 1;
  unsigned days = 30;
  unsigned queries = 200;
  unsigned settleMs = 1000;
  bool ingest = true;
  bool listing = true;
  bool calls = true;
  unsigned callWrites = 20000;
  unsigned callStats = 2000;
};

constexpr uint32_t kRecordFileSeconds = 1800;  // listing fill: 30-minute files
constexpr uint32_t kDaySeconds = 86400;
constexpr uint32_t kListFullStream = 500001;  // the bucket of --days days
constexpr uint32_t kListDayStream = 500002;   // the bucket of the queried day only
constexpr unsigned kWarmupQueries = 5;
constexpr unsigned kWarmupSeconds = 10;  // video per stream in the untimed ingest warm-up

// The 1, 5 and 15 minute load averages: how busy the shared machine was.
std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

// "ceph://mon[,mon...][/path]" split into the monitor list and the path
// ("" for the file system's root, never with a trailing '/').
bool splitAddress(const std::string& address, std::string& monitors, std::string& path) {
  const std::string scheme = "ceph://";
  if (address.compare(0, scheme.size(), scheme) != 0) return false;
  std::string rest = address.substr(scheme.size());
  size_t slash = rest.find('/');
  monitors = rest.substr(0, slash);
  path = slash == std::string::npos ? std::string() : rest.substr(slash);
  while (!path.empty() && path.back() == '/') path.pop_back();
  return !monitors.empty();
}

// The plain side's own mount, set up as the store sets up its own: quiet
// client defaults, then $ZARN_CEPH_CONF, then the address's monitors.
class PlainMount {
 public:
  ~PlainMount() {
    if (m_mount == nullptr) return;
    ceph_unmount(m_mount);
    ceph_release(m_mount);
  }
  bool open(const std::string& monitors) {
    int rc = ceph_create(&m_mount, nullptr);
    if (rc != 0) return fail("ceph_create", rc);
    const char* quiet[][2] = {{"client_mount_timeout", "10"},
                              {"admin_socket", ""},
                              {"log_to_stderr", "false"},
                              {"err_to_stderr", "false"}};
    for (const auto& option : quiet) {
      if ((rc = ceph_conf_set(m_mount, option[0], option[1])) != 0) return fail(option[0], rc);
    }
    if (const char* conf = std::getenv("ZARN_CEPH_CONF"); conf != nullptr && conf[0] != '\0') {
      if ((rc = ceph_conf_read_file(m_mount, conf)) != 0) return fail(conf, rc);
    }
    if ((rc = ceph_conf_set(m_mount, "mon_host", monitors.c_str())) != 0) return fail("mon_host", rc);
    if ((rc = ceph_mount(m_mount, "/")) != 0) return fail("ceph_mount", rc);
    return true;
  }
  ceph_mount_info* get() const { return m_mount; }

 private:
  bool fail(const char* what, int rc) {
    std::fprintf(stderr, "plain libcephfs mount: %s: %s\n", what, std::strerror(-rc));
    if (m_mount != nullptr) ceph_release(m_mount);
    m_mount = nullptr;
    return false;
  }
  ceph_mount_info* m_mount = nullptr;
};

// Names in one directory, with whether each is a directory ("." and ".." left out).
std::vector<std::pair<std::string, bool>> readDir(ceph_mount_info* m, const std::string& path) {
  std::vector<std::pair<std::string, bool>> out;
  ceph_dir_result* dir = nullptr;
  if (ceph_opendir(m, path.c_str(), &dir) != 0) return out;
  struct dirent de;
  struct ceph_statx stx;
  while (ceph_readdirplus_r(m, dir, &de, &stx, CEPH_STATX_MODE, AT_STATX_DONT_SYNC, nullptr) > 0) {
    if (std::strcmp(de.d_name, ".") == 0 || std::strcmp(de.d_name, "..") == 0) continue;
    out.emplace_back(de.d_name, S_ISDIR(stx.stx_mode));
  }
  ceph_closedir(m, dir);
  return out;
}

uint64_t countFiles(ceph_mount_info* m, const std::string& path) {
  uint64_t n = 0;
  for (const auto& [name, isDir] : readDir(m, path)) n += isDir ? countFiles(m, path + "/" + name) : 1;
  return n;
}

void removeTree(ceph_mount_info* m, const std::string& path) {
  for (const auto& [name, isDir] : readDir(m, path)) {
    if (isDir) removeTree(m, path + "/" + name);
    else ceph_unlink(m, (path + "/" + name).c_str());
  }
  ceph_rmdir(m, path.c_str());
}

// OSDs in the cluster's OSD map, as this client sees it (-1 when it has no map).
int osdCount(ceph_mount_info* m) {
  int n = 0;
  for (int id = 0; id < 1024; ++id) {
    struct sockaddr_storage addr;
    if (ceph_get_osd_addr(m, id, &addr) == 0) ++n;
  }
  return n > 0 ? n : -1;
}

// Replica count of a new file in the data pool, found through a probe file
// (negative errno when it cannot be told).
int fileReplication(ceph_mount_info* m, const std::string& path) {
  int fd = ceph_open(m, path.c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd < 0) return fd;
  int replication = ceph_get_file_replication(m, fd);
  ceph_close(m, fd);
  ceph_unlink(m, path.c_str());
  return replication;
}

// Frame sizes as bench_record makes them: `kbps` on average, key frames five
// times the size of delta frames.
uint32_t frameLength(const Options& o, bool key) {
  uint32_t average = std::max<uint32_t>(64, o.kbps * 1000 / 8 / o.fps);
  uint32_t perGop = average * o.fps * o.gop;
  uint32_t framesPerGop = o.fps * o.gop;
  uint32_t delta = std::max<uint32_t>(64, perGop / (framesPerGop + 4));
  return key ? delta * 5 : delta;
}

struct Stream {
  std::vector<uint8_t> key, delta;  // one key frame and one delta frame, re-stamped per frame
};

// Issues every stream's frames in frame order, as fast as possible, calling
// `emit(stream, frame, key, utc)`.
template <typename Emit>
void drive(const Options& o, unsigned seconds, std::vector<Stream>& streams, uint32_t base, Emit emit) {
  const uint64_t frames = static_cast<uint64_t>(o.fps) * seconds;
  const uint64_t keyEvery = static_cast<uint64_t>(o.fps) * o.gop;
  for (uint64_t k = 0; k < frames; ++k) {
    const bool key = k % keyEvery == 0;
    const uint32_t utc = base + static_cast<uint32_t>(k / o.fps);
    for (unsigned s = 0; s < streams.size(); ++s) {
      std::vector<uint8_t>& f = key ? streams[s].key : streams[s].delta;
      restamp(f, static_cast<uint32_t>(k), utc);
      emit(s, f, key, utc);
    }
  }
}

struct Phase {
  uint64_t bytes = 0;
  uint64_t files = 0;
  double cpu = 0, wall = 0;
  // Wall seconds spent on the frames that open or cut a file (sync writers:
  // the cut runs inside that writeFrame), and on the last closes.
  double turnWall = 0, endWall = 0;
  double mbps() const { return wall > 0 ? static_cast<double>(bytes) / 1e6 / wall : 0.0; }
  double cpuPerGiB() const {
    return bytes ? cpu / (static_cast<double>(bytes) / (1024.0 * 1024.0 * 1024.0)) : 0.0;
  }
};

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

double percentileUs(std::vector<double>& us, unsigned percent) {
  if (us.empty()) return 0.0;
  std::sort(us.begin(), us.end());
  return us[std::min(us.size() - 1, us.size() * percent / 100)];
}

// Where the library cuts, as the plain loop must cut too.
struct CutRule {
  uint32_t maxSeconds;
  uint32_t minSeconds;
  uint64_t maxBytes;
  bool cutAt(bool key, uint32_t utc, uint32_t fileStart, uint64_t fileBytes) const {
    if (!key || utc - fileStart < minSeconds) return false;
    return fileBytes >= maxBytes || utc - fileStart >= maxSeconds;
  }
};

// A private working directory holding the MediaConfig.cfg that sets the cut
// length; the library reads it when its context is first created.
bool enterWorkingDirectory(const Options& o, const CutRule& cut, std::string& dir) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/bench-ceph-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) return false;
  dir = buffer.data();
  std::ofstream cfg(dir + "/MediaConfig.cfg");
  cfg << "{\"enable_cfg\": 1, \"max_file_duration\": " << o.cutSeconds << ", \"min_cut_file_time\": "
      << cut.minSeconds << ", \"max_file_length\": " << cut.maxBytes
      << ", \"media_sdk_stat_file\": \"./mediasdk.stat\", \"zarn_log_path\": \"./log\"}\n";
  cfg.close();
  return cfg.good() && ::chdir(dir.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (const char* a = std::getenv("ZARN_TEST_CEPH_ADDRESS")) o.address = a;
  ZarnBench::ArgReader args(argc, argv);
  for (std::string a; args.next(a);) {
    if (a == "--address") o.address = args.value();
    else if (a == "--streams") o.streams = args.number();
    else if (a == "--kbps") o.kbps = args.number();
    else if (a == "--fps") o.fps = args.number();
    else if (a == "--gop") o.gop = args.number();
    else if (a == "--seconds") o.seconds = args.number();
    else if (a == "--cut-seconds") o.cutSeconds = args.number();
    else if (a == "--async") o.async = true;
    else if (a == "--repeat") o.repeat = args.number();
    else if (a == "--days") o.days = args.number();
    else if (a == "--queries") o.queries = args.number();
    else if (a == "--settle-ms") o.settleMs = args.number();
    else if (a == "--no-ingest") o.ingest = false;
    else if (a == "--no-listing") o.listing = false;
    else if (a == "--no-calls") o.calls = false;
    else if (a == "--call-writes") o.callWrites = args.number();
    else if (a == "--call-stats") o.callStats = args.number();
    else {
      std::fprintf(stderr, "unknown argument %s (see the header of bench_ceph.cpp)\n", a.c_str());
      return 2;
    }
  }
  std::string monitors, basePath;
  if (o.address.empty() || !splitAddress(o.address, monitors, basePath)) {
    std::fprintf(stderr, "need --address ceph://mon[:port][/path] or ZARN_TEST_CEPH_ADDRESS (got '%s')\n",
                 o.address.c_str());
    return 2;
  }
  if (o.streams == 0 || o.fps == 0 || o.gop == 0 || o.seconds == 0 || o.cutSeconds == 0 || o.repeat == 0 ||
      o.days == 0 || o.queries == 0) {
    std::fprintf(stderr, "streams, fps, gop, seconds, cut-seconds, repeat, days and queries must be positive\n");
    return 2;
  }
  if (!std::getenv("ZARN_LOG_LEVEL")) Velto::Kandu::setLogLevel(Velto::Kandu::LOG_ERROR);

  std::string command;
  for (int i = 0; i < argc; ++i) {
    if (i > 0) command += ' ';
    command += argv[i];
  }
  std::printf("command: %s\n", command.c_str());
  std::printf("load average at start: %s (2 cores shared with others: rounds vary)\n", loadAverage().c_str());

  const CutRule cut{o.cutSeconds, std::min<uint32_t>(o.cutSeconds, Velto::Zarn::CMediaConfig::kDefaultMinCutFileTime),
                    static_cast<uint64_t>(Velto::Zarn::CMediaConfig::kDefaultMaxFileLength)};
  // Leaves the working directory and removes it on every return.
  struct WorkDir {
    std::filesystem::path start = std::filesystem::current_path();
    std::string dir;
    ~WorkDir() {
      std::error_code ec;
      std::filesystem::current_path(start, ec);
      if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
  } workDir;
  if (!enterWorkingDirectory(o, cut, workDir.dir)) {
    std::fprintf(stderr, "cannot make a working directory with MediaConfig.cfg\n");
    return 1;
  }

  PlainMount plainMount;
  if (!plainMount.open(monitors)) return 1;
  ceph_mount_info* pm = plainMount.get();
  const uint32_t startedAt = static_cast<uint32_t>(Velto::Kandu::systemClock().wallClockSeconds());
  const std::string benchRoot = basePath + "/bench-ceph-" + std::to_string(::getpid()) + "-" + std::to_string(startedAt);
  if (int rc = ceph_mkdirs(pm, benchRoot.c_str(), 0755); rc != 0) {
    std::fprintf(stderr, "cannot make %s in CephFS: %s\n", benchRoot.c_str(), std::strerror(-rc));
    return 1;
  }
  std::printf("store: ceph://%s%s (created for this run, removed at the end)\n", monitors.c_str(), benchRoot.c_str());

  if (o.calls) {
    const std::string callRoot = benchRoot + "/calls";
    if (ceph_mkdirs(pm, callRoot.c_str(), 0755) != 0 ||
        !ZarnBench::benchCephCalls(pm, "ceph://" + monitors + callRoot, callRoot, std::max(3u, o.repeat),
                                   std::max(1u, o.callWrites), std::max(1u, o.callStats))) {
      std::fprintf(stderr, "the call section failed\n");
      removeTree(pm, benchRoot);
      return 1;
    }
  }

  uint64_t refused = 0, failed = 0, queryFailures = 0;
  std::vector<double> latencyUs;
  if (o.ingest) {
    std::vector<Stream> streams(o.streams);
    const uint32_t base = startedAt;
    for (Stream& s : streams) {
      s.key = ZarnBench::makeFrame(Velto::Zarn::FRAME_TYPE_I, 0, base, frameLength(o, true));
      s.delta = ZarnBench::makeFrame(Velto::Zarn::FRAME_TYPE_P, 0, base, frameLength(o, false));
    }
    std::printf("ingest: %u streams, %u kbit/s, %u fps, key frame every %u s, %u s of video each per side, "
                "files cut every %u s of video, as fast as possible, %s writers; untimed warm-up first, "
                "%u ms pause before each phase\n",
                o.streams, o.kbps, o.fps, o.gop, o.seconds, o.cutSeconds, o.async ? "async" : "sync", o.settleMs);

    // Plain libcephfs: one file per stream at a time, cut by the library's
    // rule, each made durable then closed before the next is created (as a
    // sync writer does at a cut).
    auto runPlain = [&](unsigned round, unsigned seconds) {
      Phase phase;
      const std::string dir = benchRoot + "/plain/r" + std::to_string(round);
      if (ceph_mkdirs(pm, dir.c_str(), 0755) != 0) std::abort();
      struct File {
        int fd = -1;
        uint32_t start = 0;
        uint64_t bytes = 0;
      };
      std::vector<File> files(o.streams);
      auto closeFile = [&](File& f) {
        if (ceph_fsync(pm, f.fd, 1) != 0 || ceph_close(pm, f.fd) != 0) std::abort();
        f.fd = -1;
      };
      const double cpu0 = cpuSeconds();
      const auto wall0 = std::chrono::steady_clock::now();
      drive(o, seconds, streams, base, [&](unsigned s, const std::vector<uint8_t>& frame, bool key, uint32_t utc) {
        File& f = files[s];
        if (f.fd < 0 || cut.cutAt(key, utc, f.start, f.bytes)) {
          const auto t0 = std::chrono::steady_clock::now();
          if (f.fd >= 0) closeFile(f);
          const std::string path = dir + "/" + std::to_string(s) + "_" + std::to_string(phase.files++);
          f.fd = ceph_open(pm, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND, 0644);
          if (f.fd < 0) std::abort();
          f.start = utc;
          f.bytes = 0;
          phase.turnWall += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        }
        size_t off = 0;
        while (off < frame.size()) {
          int n = ceph_write(pm, f.fd, reinterpret_cast<const char*>(frame.data()) + off,
                             static_cast<int64_t>(frame.size() - off), -1);
          if (n <= 0) std::abort();
          off += static_cast<size_t>(n);
        }
        f.bytes += frame.size();
        phase.bytes += frame.size();
      });
      const auto end0 = std::chrono::steady_clock::now();
      for (File& f : files) {
        if (f.fd >= 0) closeFile(f);
      }
      phase.cpu = cpuSeconds() - cpu0;
      const auto end1 = std::chrono::steady_clock::now();
      phase.wall = std::chrono::duration<double>(end1 - wall0).count();
      phase.endWall = std::chrono::duration<double>(end1 - end0).count();
      return phase;
    };

    // The library: a client of its own per round (connected before the clock
    // starts, as the plain mount is), and stream ids of its own per round.
    const std::string libRoot = benchRoot + "/lib";
    const std::string libAddress = "ceph://" + monitors + libRoot;
    const Velto::Zarn::Config config{libAddress.c_str(), 0, "", ""};
    latencyUs.reserve(static_cast<size_t>(o.streams) * o.fps * o.seconds * o.repeat);
    auto runLibrary = [&](unsigned round, unsigned seconds, bool timed) {
      Phase phase;
      CMediaClient client;
      if (client.initialize(config, nullptr) != 0) {
        std::fprintf(stderr, "cannot open the store at %s\n", libAddress.c_str());
        std::exit(1);
      }
      const unsigned firstId = 1 + round * 10000;
      for (unsigned s = 0; s < o.streams; ++s) {
        client.setRecyclePolicy(firstId + s, 24, 0);
        if (client.addStream(firstId + s, 1, !o.async) != 0) std::exit(1);
      }
      VeltoFrame frame;
      // Where the writers open and cut files, by the same rule as the plain side.
      struct Turns {
        bool open = false;
        uint32_t start = 0;
        uint64_t bytes = 0;
      };
      std::vector<Turns> turns(o.streams);
      const double cpu0 = cpuSeconds();
      const auto wall0 = std::chrono::steady_clock::now();
      drive(o, seconds, streams, base, [&](unsigned s, const std::vector<uint8_t>& f, bool key, uint32_t utc) {
        frame.attach(f.data());
        unsigned long long taken = 0;
        Turns& t = turns[s];
        const bool turn = !t.open || cut.cutAt(key, utc, t.start, t.bytes);
        if (turn) {
          t.open = true;
          t.start = utc;
          t.bytes = 0;
        }
        t.bytes += f.size();
        const auto t0 = std::chrono::steady_clock::now();
        int r = client.writeFrame(firstId + s, &frame, 0, taken);
        // A full cache is back-pressure: count it and offer the frame again.
        while (r == -2) {
          if (timed) ++refused;
          std::this_thread::sleep_for(std::chrono::microseconds(200));
          r = client.writeFrame(firstId + s, &frame, 0, taken);
        }
        const double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
        if (!o.async && timed) latencyUs.push_back(us);
        if (turn) phase.turnWall += us / 1e6;
        if (r != 0) ++failed;
        else phase.bytes += taken;
      });
      const auto end0 = std::chrono::steady_clock::now();
      for (unsigned s = 0; s < o.streams; ++s) client.deleteStream(firstId + s);
      // Closing is asynchronous: wait until every last file is durable and renamed.
      Velto::Zarn::CWritingFileTable& writing = Velto::Zarn::CMediaContext::instance().writingFiles();
      Velto::Zarn::CWritingFileTable::Entry entry;
      for (unsigned s = 0; s < o.streams; ++s) {
        while (writing.get(firstId + s, entry)) std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      phase.cpu = cpuSeconds() - cpu0;
      const auto end1 = std::chrono::steady_clock::now();
      phase.wall = std::chrono::duration<double>(end1 - wall0).count();
      phase.endWall = std::chrono::duration<double>(end1 - end0).count();
      for (unsigned s = 0; s < o.streams; ++s) {
        phase.files += countFiles(pm, libRoot + "/" + Velto::Zarn::bucketName("", firstId + s, 0));
      }
      return phase;
    };

    // Untimed warm-up of both sides, so that no round pays for the library's
    // first use (its process-wide threads and queues) or the first objects of
    // a mount.
    runPlain(o.repeat, std::min(o.seconds, kWarmupSeconds));
    runLibrary(o.repeat, std::min(o.seconds, kWarmupSeconds), false);

    // Each timed phase starts after a pause, so that it does not inherit the
    // cluster's write-back of the phase before.
    auto settle = [&]() { std::this_thread::sleep_for(std::chrono::milliseconds(o.settleMs)); };
    std::vector<double> plainMbps, libMbps, plainCpu, libCpu, throughputRatios, cpuRatios;
    for (unsigned round = 0; round < o.repeat; ++round) {
      // Rounds alternate the order, so that load elsewhere on the machine hits
      // both sides alike.
      Phase plain, lib;
      const bool plainFirst = round % 2 == 0;
      if (plainFirst) {
        settle();
        plain = runPlain(round, o.seconds);
        settle();
        lib = runLibrary(round, o.seconds, true);
      } else {
        settle();
        lib = runLibrary(round, o.seconds, true);
        settle();
        plain = runPlain(round, o.seconds);
      }
      plainMbps.push_back(plain.mbps());
      libMbps.push_back(lib.mbps());
      plainCpu.push_back(plain.cpuPerGiB());
      libCpu.push_back(lib.cpuPerGiB());
      throughputRatios.push_back(plain.mbps() > 0 ? lib.mbps() / plain.mbps() : 0.0);
      cpuRatios.push_back(plain.cpuPerGiB() > 0 ? lib.cpuPerGiB() / plain.cpuPerGiB() : 0.0);
      std::printf("round %u (%s first): plain %7.1f MB/s %6.3f CPU s/GiB (%" PRIu64 " files, %.2f s) | "
                  "library %7.1f MB/s %6.3f CPU s/GiB (%" PRIu64 " files, %.2f s) | throughput ratio %.2f, "
                  "CPU per GiB ratio %.2f\n",
                  round + 1, plainFirst ? "plain" : "library", plain.mbps(), plain.cpuPerGiB(), plain.files,
                  plain.wall, lib.mbps(), lib.cpuPerGiB(), lib.files, lib.wall, throughputRatios.back(),
                  cpuRatios.back());
      if (!o.async) {
        std::printf("  wall s at file opens and cuts: plain %.3f, library %.3f; last closes: plain %.3f, "
                    "library %.3f\n",
                    plain.turnWall, lib.turnWall, plain.endWall, lib.endWall);
      }
      std::fflush(stdout);
    }
    auto range = [](std::vector<double> v) {
      std::sort(v.begin(), v.end());
      return std::make_pair(v.front(), v.back());
    };
    std::printf("plain libcephfs: %8.1f MB/s  %6.3f CPU s/GiB  (medians of %u rounds)\n", median(plainMbps),
                median(plainCpu), o.repeat);
    std::printf("CMediaClient   : %8.1f MB/s  %6.3f CPU s/GiB  (medians of %u rounds)\n", median(libMbps),
                median(libCpu), o.repeat);
    std::printf("throughput ratio (library / plain): median %.2f, min %.2f, max %.2f  (target >= 0.9)\n",
                median(throughputRatios), range(throughputRatios).first, range(throughputRatios).second);
    std::printf("CPU per GiB ratio (library / plain): median %.2f, min %.2f, max %.2f\n", median(cpuRatios),
                range(cpuRatios).first, range(cpuRatios).second);
    std::printf("refused frames (-2): %" PRIu64 ", failed writes: %" PRIu64 "; load average now %s\n", refused,
                failed, loadAverage().c_str());
    if (!latencyUs.empty()) {
      const double p50 = percentileUs(latencyUs, 50), p99 = percentileUs(latencyUs, 99);
      std::printf("sync writeFrame latency (all rounds): p50 %.1f us, p99 %.1f us, max %.1f us\n", p50, p99,
                  latencyUs.back());
    }
    std::fflush(stdout);
  }

  if (o.listing) {
    // Closed files with an internal index, back to back, made empty through
    // the plain mount (queries read names and listing sizes only).
    const std::string listRoot = benchRoot + "/list";
    const uint32_t firstDay = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2025, 3, 1, 0, 0, 0));
    const uint32_t queryDay = firstDay + o.days / 2 * kDaySeconds;
    auto fill = [&](uint32_t streamId, uint32_t first, uint32_t count) {
      for (uint16_t kind : {Velto::Zarn::BUCKET_KIND_MEDIA, Velto::Zarn::BUCKET_KIND_FORGOTTEN}) {
        if (ceph_mkdirs(pm, (listRoot + "/" + Velto::Zarn::bucketName("", streamId, kind)).c_str(), 0755) != 0) {
          std::abort();
        }
      }
      for (uint32_t i = 0; i < count; ++i) {
        Velto::Zarn::RecordFileName record;
        record.streamId = streamId;
        record.beginTime = first + i * kRecordFileSeconds;
        record.endTime = record.beginTime + kRecordFileSeconds;
        record.type = 1;
        record.indexState = Velto::Zarn::RECORD_INDEX_INTERNAL;
        std::string name;
        if (!Velto::Zarn::generateRecordFileName("", record, name)) std::abort();
        const std::string path = listRoot + "/" + name;
        int fd = ceph_open(pm, path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (fd == -ENOENT) {
          if (ceph_mkdirs(pm, path.substr(0, path.rfind('/')).c_str(), 0755) != 0) std::abort();
          fd = ceph_open(pm, path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        }
        if (fd < 0 || ceph_close(pm, fd) != 0) std::abort();
      }
    };
    const uint32_t filesPerDay = kDaySeconds / kRecordFileSeconds;
    const auto fill0 = std::chrono::steady_clock::now();
    fill(kListFullStream, firstDay, o.days * filesPerDay);
    fill(kListDayStream, queryDay, filesPerDay);
    const double fillSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - fill0).count();

    const std::string listAddress = "ceph://" + monitors + listRoot;
    const Velto::Zarn::Config config{listAddress.c_str(), 0, "", ""};
    CMediaClient client;
    if (client.initialize(config, nullptr) != 0) {
      std::fprintf(stderr, "cannot open the store at %s\n", listAddress.c_str());
      return 1;
    }
    std::vector<double> fullUs, dayUs;
    size_t fullClips = 0, dayClips = 0;
    auto query = [&](uint32_t streamId, std::vector<double>* samples, size_t& clipCount) {
      std::vector<Velto::Zarn::RecordClip> clips;
      const auto t0 = std::chrono::steady_clock::now();
      const int rc = client.queryRecordClipList(streamId, queryDay, queryDay + kDaySeconds, clips, 3600);
      const double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
      if (rc != 0) ++queryFailures;
      if (samples) samples->push_back(us);
      clipCount = clips.size();
    };
    for (unsigned i = 0; i < kWarmupQueries; ++i) {
      query(kListFullStream, nullptr, fullClips);
      query(kListDayStream, nullptr, dayClips);
    }
    // Interleaved, so that a burst of load elsewhere hits both buckets alike.
    for (unsigned i = 0; i < o.queries; ++i) {
      query(kListFullStream, &fullUs, fullClips);
      query(kListDayStream, &dayUs, dayClips);
    }
    const double fullP50 = percentileUs(fullUs, 50), fullP99 = percentileUs(fullUs, 99);
    const double dayP50 = percentileUs(dayUs, 50), dayP99 = percentileUs(dayUs, 99);
    std::printf("listing: one-day queryRecordClipList (clips of 3600 s), %u queries per bucket after %u warm-up; "
                "buckets filled with 30-minute files in %.1f s\n",
                o.queries, kWarmupQueries, fillSeconds);
    std::printf("  %3u-day bucket (%u files): p50 %8.1f us  p99 %8.1f us  (%zu clips)\n", o.days,
                o.days * filesPerDay, fullP50, fullP99, fullClips);
    std::printf("    1-day bucket (%u files): p50 %8.1f us  p99 %8.1f us  (%zu clips)\n", filesPerDay, dayP50, dayP99,
                dayClips);
    std::printf("  ratio %u-day / 1-day: p50 %.2f, p99 %.2f\n", o.days, dayP50 > 0 ? fullP50 / dayP50 : 0.0,
                dayP99 > 0 ? fullP99 / dayP99 : 0.0);
    if (queryFailures > 0) std::printf("failed queries: %" PRIu64 "\n", queryFailures);
  }

  const int osds = osdCount(pm);
  const int replication = fileReplication(pm, benchRoot + "/replication-probe");
  if (osds > 0) std::printf("cluster: %d OSD%s in the OSD map, data pool replication %d\n", osds,
                            osds == 1 ? "" : "s", replication);
  else std::printf("cluster: OSD count unknown, data pool replication %d\n", replication);
  std::printf("peak memory: %.1f MiB\n", static_cast<double>(ZarnBench::peakRssKb()) / 1024.0);

  removeTree(pm, benchRoot);
  return failed == 0 && queryFailures == 0 ? 0 : 1;
}
