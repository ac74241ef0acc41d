// bench_playback: records a stream through CMediaClient into a local store
// (record files cut every --file-seconds), then plays it back and prints, side
// by side with a plain read(2) of the same record files:
//   * forward playback MB/s and frames/s, one session and --sessions at once
//     (ratio to the plain read, one reader thread per session in both). The
//     machine may be shared and noisy, so each figure is measured in --rounds
//     rounds, the plain read and the library next to each other in every round
//     (which goes first alternates), and the ratio is the median of the rounds'
//     ratios;
//   * key-frame-only and reverse playback frames/s;
//   * seek-to-first-frame latency p50/p99, seeking inside the open file and
//     across files, on a second stream holding 30 days of 30-minute files of a
//     few frames each (written directly as record files).
// It asserts nothing.
//
//   bench_playback [--kbps N] [--fps N] [--gop N] [--seconds N] [--file-seconds N]
//                  [--sessions N] [--rounds N] [--seeks N] [--dir DIR]
#include <fcntl.h>
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
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "KanduLog.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "MediaContext.h"
#include "RecordFile.h"
#include "RecordFileName.h"
#include "VeltoFrame.h"
#include "ZarnMediaClient.h"

namespace {

using Velto::Zarn::CMediaClient;
using Velto::Zarn::VeltoFrame;
using Velto::Zarn::VeltoFrameHead;
using Clock = std::chrono::steady_clock;

struct Options {
  unsigned kbps = 4000;
  unsigned fps = 25;
  unsigned gop = 2;            // seconds between key frames
  unsigned seconds = 600;      // video recorded
  unsigned fileSeconds = 60;   // record file duration
  unsigned sessions = 50;
  unsigned rounds = 3;
  unsigned seeks = 200;
  std::string dir = "/tmp/bench_playback";
};

double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

std::vector<uint8_t> makeFrame(uint8_t type, uint32_t sequence, uint32_t time, uint32_t length) {
  return ZarnBench::makeFrame(type, sequence, time, length);
}

struct ReadResult {
  uint64_t frames = 0;
  uint64_t bytes = 0;
  double seconds = 0;
  double cpu = 0;  // process CPU seconds (every thread), where measured

  double mbs() const { return static_cast<double>(bytes) / 1e6 / seconds; }
  double cpuPerGB() const { return cpu / (static_cast<double>(bytes) / 1e9); }
};

// Reads a session to its end (blocking reads).
ReadResult playSession(CMediaClient& client, unsigned session, bool keyOnly, bool reverse) {
  ReadResult r;
  VeltoFrame frame;
  auto t0 = Clock::now();
  for (;;) {
    unsigned long long length = 0;
    int rc = client.readFrame(session, &frame, length, keyOnly, reverse);
    if (rc == -2) continue;
    if (rc != 0 || length == 0) break;
    ++r.frames;
    r.bytes += length;
  }
  r.seconds = since(t0);
  return r;
}

std::vector<std::string> recordFiles(const std::string& bucketDir) {
  std::vector<std::string> out;
  for (auto& e : std::filesystem::recursive_directory_iterator(bucketDir))
    if (e.is_regular_file() && e.path().extension() == ".qrv") out.push_back(e.path().string());
  std::sort(out.begin(), out.end());
  return out;
}

uint64_t plainRead(const std::vector<std::string>& files, std::vector<char>& buffer) {
  uint64_t total = 0;
  for (const std::string& name : files) {
    int fd = ::open(name.c_str(), O_RDONLY);
    if (fd < 0) std::abort();
    ssize_t n;
    while ((n = ::read(fd, buffer.data(), buffer.size())) > 0) total += static_cast<uint64_t>(n);
    ::close(fd);
  }
  return total;
}

// `readers` threads each reading every file once, in 1 MiB chunks as a player
// reading a file in large pieces would.
ReadResult plainMany(const std::vector<std::string>& files, unsigned readers) {
  std::atomic<uint64_t> bytes{0};
  const double cpu0 = ZarnBench::cpuSeconds();
  auto t0 = Clock::now();
  std::vector<std::thread> threads;
  for (unsigned r = 0; r < readers; ++r)
    threads.emplace_back([&] {
      std::vector<char> b(1 << 20);
      bytes += plainRead(files, b);
    });
  for (auto& t : threads) t.join();
  ReadResult all;
  all.seconds = since(t0);
  all.cpu = ZarnBench::cpuSeconds() - cpu0;
  all.bytes = bytes.load();
  return all;
}

// `sessions` sessions over [begin, end] played forward to their end at once,
// each drained by its own thread as a host would; frames, bytes and the wall
// time of the whole.
ReadResult playMany(CMediaClient& client, uint32_t sid, uint32_t begin, uint32_t end, unsigned sessions) {
  std::atomic<uint64_t> bytes{0}, frames{0};
  const double cpu0 = ZarnBench::cpuSeconds();
  auto t0 = Clock::now();
  std::vector<std::thread> threads;
  for (unsigned s = 0; s < sessions; ++s)
    threads.emplace_back([&] {
      int id = client.addSession(sid, begin, end, true);
      if (id < 0) std::abort();
      ReadResult r = playSession(client, static_cast<unsigned>(id), false, false);
      client.deleteSession(static_cast<unsigned>(id));
      bytes += r.bytes;
      frames += r.frames;
    });
  for (auto& t : threads) t.join();
  ReadResult all;
  all.seconds = since(t0);
  all.cpu = ZarnBench::cpuSeconds() - cpu0;
  all.bytes = bytes.load();
  all.frames = frames.load();
  return all;
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

// 30 days of 30-minute files, each with a key frame at its start and half-way
// and a P frame after each, written as closed record files with their index.
uint32_t writeMonth(Velto::Zarn::CZarnFileSystem& fs, uint32_t sid, uint32_t begin, unsigned& files) {
  using namespace Velto::Zarn;
  fs.createBucket(bucketName(sid, BUCKET_KIND_MEDIA));
  uint32_t seq = 0;
  files = 0;
  const uint32_t fileSeconds = 1800;
  const uint32_t count = 30 * 48;
  for (uint32_t i = 0; i < count; ++i) {
    RecordFileName name;
    name.streamId = sid;
    name.beginTime = begin + i * fileSeconds;
    name.type = 1;
    CRecordFile file(fs, name);
    if (!file.openForWrite(4, 1)) std::abort();
    const uint32_t offsets[] = {0, 1, 900, 901, fileSeconds - 1};
    for (uint32_t k = 0; k < 5; ++k) {
      const bool key = k == 0 || k == 2;
      const uint32_t t = name.beginTime + offsets[k];
      std::vector<uint8_t> f = makeFrame(key ? FRAME_TYPE_I : FRAME_TYPE_P, seq++, t, key ? 20000 : 4000);
      if (file.write(f.data(), static_cast<uint32_t>(f.size())) != static_cast<int64_t>(f.size())) std::abort();
      if (key) file.addIndex(FRAME_TYPE_I, 0, t, static_cast<uint32_t>(f.size()));
      file.setLastTime(t);
    }
    file.close();
    ++files;
  }
  return begin + count * fileSeconds - 1;
}

// Seek-to-first-frame latency in milliseconds.
double timedSeek(CMediaClient& client, unsigned session, uint32_t t) {
  VeltoFrame frame;
  auto t0 = Clock::now();
  if (client.seek(session, t) != 0) return -1;
  for (;;) {
    unsigned long long length = 0;
    int rc = client.readFrame(session, &frame, length, false, false);
    if (rc == 0 && length > 0) break;
    if (rc != -2) return -1;
  }
  return since(t0) * 1000.0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  ZarnBench::ArgReader args(argc, argv);
  for (std::string a; args.next(a);) {
    if (a == "--kbps") o.kbps = args.number();
    else if (a == "--fps") o.fps = args.number();
    else if (a == "--gop") o.gop = args.number();
    else if (a == "--seconds") o.seconds = args.number();
    else if (a == "--file-seconds") o.fileSeconds = args.number();
    else if (a == "--sessions") o.sessions = args.number();
    else if (a == "--rounds") o.rounds = args.number();
    else if (a == "--seeks") o.seeks = args.number();
    else if (a == "--dir") o.dir = args.value();
    else {
      std::fprintf(stderr, "unknown option %s\n", a.c_str());
      return 2;
    }
  }

  if (o.kbps == 0 || o.fps == 0 || o.gop == 0 || o.seconds == 0 || o.fileSeconds == 0 || o.sessions == 0 ||
      o.rounds == 0) {
    std::fprintf(stderr, "all values must be positive\n");
    return 2;
  }
  if (!std::getenv("ZARN_LOG_LEVEL")) Velto::Kandu::setLogLevel(Velto::Kandu::LOG_ERROR);
  std::filesystem::remove_all(o.dir);
  std::filesystem::create_directories(o.dir);
  // The configuration is read from the working directory when the library's
  // context is first created.
  std::ofstream(o.dir + "/MediaConfig.cfg") << "{\"enable_cfg\": 1, \"max_file_length\": 2000000000, "
                                            << "\"max_file_duration\": " << o.fileSeconds
                                            << ", \"min_cut_file_time\": 1, \"recycle_hours\": 87600}";
  if (::chdir(o.dir.c_str()) != 0) return 1;

  CMediaClient client;
  const std::string address = o.dir + "/store";
  Velto::Zarn::Config config{address.c_str(), 0, "root", ""};
  if (client.initialize(config, nullptr) != 0) {
    std::fprintf(stderr, "cannot open the store at %s\n", address.c_str());
    return 1;
  }

  // Record stream 1.
  const uint32_t sid = 1;
  const uint32_t frameBytes = std::max<uint32_t>(64, o.kbps * 1000 / 8 / o.fps);
  const uint32_t keyBytes = frameBytes * 4;
  const uint32_t begin = static_cast<uint32_t>(Velto::Kandu::systemClock().wallClockSeconds()) - o.seconds - 3600;
  const uint32_t end = begin + o.seconds - 1;
  if (client.addStream(sid, 1, true) != 0) return 1;
  uint64_t recordedFrames = 0;
  {
    VeltoFrame frame;
    unsigned long long written = 0;
    const uint32_t total = o.seconds * o.fps;
    for (uint32_t i = 0; i < total; ++i) {
      const bool key = i % (o.gop * o.fps) == 0;
      std::vector<uint8_t> f = makeFrame(key ? Velto::Zarn::FRAME_TYPE_I : Velto::Zarn::FRAME_TYPE_P, i,
                                         begin + i / o.fps, key ? keyBytes : frameBytes);
      frame.attach(f.data());
      if (client.writeFrame(sid, &frame, 0, written) != 0) return 1;
      ++recordedFrames;
    }
  }
  client.deleteStream(sid);
  Velto::Kandu::sleepMs(500);  // the asynchronous close renames the last file

  const std::vector<std::string> files = recordFiles(address + "/media_1");
  std::printf("stream: %u kbit/s, %u fps, key frame every %u s, %u s of video in %zu files of %u s, %" PRIu64
              " frames\n",
              o.kbps, o.fps, o.gop, o.seconds, files.size(), o.fileSeconds, recordedFrames);

  // Plain read(2) of the record files against forward playback, one reader and
  // N readers at once, in rounds. The page cache is warm for both sides: the
  // files were just written, and one plain pass runs before the first round.
  std::vector<char> buffer(1 << 20);
  plainRead(files, buffer);
  // Besides MB/s, CPU seconds per GB of every thread of the process: less
  // sensitive to other load on the machine than the wall time.
  std::vector<double> plainOne, plainN, libOne, libN, ratioOne, ratioN, cpuRatioN;
  ReadResult fwd, many;
  for (unsigned round = 0; round < o.rounds; ++round) {
    // Each pair runs back to back, the side that goes first alternating.
    const bool plainFirst = round % 2 == 0;
    ReadResult p1, pn;
    for (int side = 0; side < 2; ++side) {
      if ((side == 0) == plainFirst) {
        p1 = plainMany(files, 1);
      } else {
        fwd = playMany(client, sid, begin, end, 1);
      }
    }
    for (int side = 0; side < 2; ++side) {
      if ((side == 0) == plainFirst) {
        pn = plainMany(files, o.sessions);
      } else {
        many = playMany(client, sid, begin, end, o.sessions);
      }
    }
    plainOne.push_back(p1.mbs());
    plainN.push_back(pn.mbs());
    libOne.push_back(fwd.mbs());
    libN.push_back(many.mbs());
    ratioOne.push_back(fwd.mbs() / p1.mbs());
    ratioN.push_back(many.mbs() / pn.mbs());
    cpuRatioN.push_back(pn.cpuPerGB() / many.cpuPerGB());
    std::printf("round %u: 1 reader: plain %7.1f MB/s, forward %7.1f MB/s, ratio %.2f; %u readers: plain %7.1f MB/s "
                "%.3f CPU s/GB, forward %7.1f MB/s %.3f CPU s/GB, ratio %.2f (by CPU %.2f)\n",
                round + 1, p1.mbs(), fwd.mbs(), ratioOne.back(), o.sessions, pn.mbs(), pn.cpuPerGB(), many.mbs(),
                many.cpuPerGB(), ratioN.back(), cpuRatioN.back());
  }

  // Key frames only, and reverse.
  int session = client.addSession(sid, begin, end, true);
  ReadResult keys = playSession(client, static_cast<unsigned>(session), true, false);
  client.deleteSession(static_cast<unsigned>(session));
  session = client.addSession(sid, begin, end, true);
  client.seek(static_cast<unsigned>(session), end);
  ReadResult rev = playSession(client, static_cast<unsigned>(session), false, true);
  client.deleteSession(static_cast<unsigned>(session));

  // Medians over the rounds; a ratio is the median of the rounds' ratios.
  std::printf("plain read(2):        %8.1f MB/s (1 reader), %8.1f MB/s (%u readers)\n", percentile(plainOne, 0.5),
              percentile(plainN, 0.5), o.sessions);
  std::printf("forward, 1 session:   %8.1f MB/s %10.0f frames/s  ratio to plain %.2f  (%" PRIu64 " frames)\n",
              percentile(libOne, 0.5), static_cast<double>(fwd.frames) / fwd.seconds, percentile(ratioOne, 0.5),
              fwd.frames);
  std::printf("forward, %u sessions: %8.1f MB/s %10.0f frames/s  ratio to plain %.2f, by CPU per GB %.2f  (%" PRIu64
              " frames)\n",
              o.sessions, percentile(libN, 0.5), static_cast<double>(many.frames) / many.seconds,
              percentile(ratioN, 0.5), percentile(cpuRatioN, 0.5), many.frames);
  std::printf("key frames only:      %10.0f frames/s  (%" PRIu64 " frames)\n",
              static_cast<double>(keys.frames) / keys.seconds, keys.frames);
  std::printf("reverse:              %10.0f frames/s  (%" PRIu64 " frames)\n",
              static_cast<double>(rev.frames) / rev.seconds, rev.frames);

  // Seeks on 30 days of 30-minute files.
  const uint32_t monthSid = 2;
  const uint32_t monthBegin = (static_cast<uint32_t>(Velto::Kandu::systemClock().wallClockSeconds()) - 31 * 86400) / 1800 * 1800;
  unsigned monthFiles = 0;
  // A second connection to the same local store writes the files.
  Velto::Zarn::CZarnFileSystem writerFs;
  if (!writerFs.initialize(config)) return 1;
  const uint32_t monthEnd = writeMonth(writerFs, monthSid, monthBegin, monthFiles);
  session = client.addSession(monthSid, monthBegin, monthEnd, true);
  std::mt19937 rng(7);
  std::vector<double> inside, across;
  uint32_t fileStart = monthBegin + 1800 * (rng() % (30 * 48));
  timedSeek(client, static_cast<unsigned>(session), fileStart);
  for (unsigned i = 0; i < o.seeks; ++i) {
    // Inside the open file, then to another file.
    double ms = timedSeek(client, static_cast<unsigned>(session), fileStart + rng() % 1800);
    if (ms >= 0) inside.push_back(ms);
    fileStart = monthBegin + 1800 * (rng() % (30 * 48));
    ms = timedSeek(client, static_cast<unsigned>(session), fileStart + rng() % 1800);
    if (ms >= 0) across.push_back(ms);
  }
  client.deleteSession(static_cast<unsigned>(session));
  std::printf("seek to first frame, %u files over 30 days: inside the open file p50 %.2f ms p99 %.2f ms (%zu); "
              "across files p50 %.2f ms p99 %.2f ms (%zu)\n",
              monthFiles, percentile(inside, 0.5), percentile(inside, 0.99), inside.size(), percentile(across, 0.5),
              percentile(across, 0.99), across.size());
  return 0;
}
