// Writes the fuzz targets' seed corpora from real files: a recording made by
// the library (its record files, their names) and the frames in them, plus
// configuration files of the shapes hosts use.
//
//   zarn_fuzz_seeds DIR    fills DIR/frame, DIR/record_file, DIR/record_name, DIR/config, DIR/index_fixer
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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

void write(const fs::path& path, const void* data, size_t size) {
  std::ofstream(path, std::ios::binary).write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

std::vector<uint8_t> frame(uint8_t type, uint32_t sequence, uint32_t time, uint32_t payload, uint8_t extension) {
  const uint32_t length = kMinFrameSize + extension + payload;
  std::vector<uint8_t> f(length, 0);
  VeltoFrameHead head{};
  head.magic = kFrameHeadMagic;
  head.type = type;
  head.sequence = sequence;
  head.length = length;
  Velto::Kandu::CTime t(time);
  head.packedTime = packFrameTime(t.getYear(), t.getMonth(), t.getDay(), t.getHour(), t.getMinute(), t.getSecond());
  head.extLength = extension;
  std::memcpy(f.data(), &head, sizeof(head));
  if (extension >= kExtSvcItemSize) {
    f[24] = kExtTagSvc;
    f[25] = 3;  // three SVC levels, not layered: every frame is kept
    f[26] = 0;
  }
  for (uint32_t i = 0; i < payload; ++i) f[24 + extension + i] = static_cast<uint8_t>(i * 7 + sequence);
  sealFrameHead(f.data());
  std::memcpy(f.data() + length - 8, &kFrameTailMagic, 4);
  std::memcpy(f.data() + length - 4, &length, 4);
  return f;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);  // a new store and SVC screening log as they go
  const fs::path out = argv[1];
  for (const char* target : {"frame", "record_file", "record_name", "config", "index_fixer"}) fs::create_directories(out / target);
  const fs::path storeDir = out / "store.tmp";
  fs::remove_all(storeDir);

  // A real recording: 40 s of one stream, cut into files of 10 s, through the client.
  const uint32_t t0 = 1767225600;  // 2026-01-01
  std::vector<std::vector<uint8_t>> frames;
  {
    CMediaClientInternal client;
    const std::string root = storeDir.string();
    if (client.initialize(Config{root.c_str(), 0, "root", ""}, nullptr) != 0) return 1;
    client.setRecyclePolicy(7, 24, 0);
    if (client.addStream(7, 1, true) != 0) return 1;
    for (uint32_t i = 0; i < 40 * 5; ++i) {
      frames.push_back(frame(i % 10 == 0 ? FRAME_TYPE_I : FRAME_TYPE_P, i, t0 + i / 5, 100 + i % 50, i % 3 == 0 ? 4 : 0));
      VeltoFrame f;
      f.attach(frames.back().data());
      unsigned long long written = 0;
      client.writeFrame(7, &f, 0, written);
      if (i % 50 == 49) client.flushFrame(7);
    }
    client.deleteStream(7);
    // The close runs on a timer thread: wait until every file has its closed name.
    for (int i = 0; i < 1000; ++i) {
      bool open = false;
      for (const auto& e : fs::recursive_directory_iterator(storeDir / "media_7")) {
        const std::string name = e.path().filename().string();
        if (e.is_regular_file() && std::count(name.begin(), name.end(), '_') < 4) open = true;
      }
      if (!open) break;
      Velto::Kandu::sleepMs(10);
    }
  }
  int files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(storeDir / "media_7")) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Mode byte 0 (as written, CRC intact), then two split bytes the mode ignores.
    std::vector<char> seed = {0, 0, 0};
    seed.insert(seed.end(), bytes.begin(), bytes.end());
    write(out / "record_file" / ("file" + std::to_string(files)), seed.data(), seed.size());
    // For the index fixer: the file as its writer left it had it died before
    // the close (the data alone, under an open name: mode byte 0), and whole
    // (under a state-0 name: mode byte 1).
    if (bytes.size() >= RecordInfo::kSize) {
      RecordInfo info;
      std::memcpy(&info, bytes.data() + bytes.size() - RecordInfo::kSize, sizeof(info));
      if (info.isValid() && info.dataLength <= bytes.size()) {
        std::vector<char> crashed = {0};
        crashed.insert(crashed.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(info.dataLength));
        write(out / "index_fixer" / ("crashed" + std::to_string(files)), crashed.data(), crashed.size());
      }
    }
    std::vector<char> whole = {1};
    whole.insert(whole.end(), bytes.begin(), bytes.end());
    write(out / "index_fixer" / ("whole" + std::to_string(files)), whole.data(), whole.size());
    const std::string name = fs::relative(entry.path(), storeDir).string();
    write(out / "record_name" / ("name" + std::to_string(files)), name.data(), name.size());
    ++files;
  }
  for (size_t i = 0; i < frames.size(); i += 25) {
    write(out / "frame" / ("frame" + std::to_string(i)), frames[i].data(), frames[i].size());
  }
  const std::vector<std::string> configs = {
      R"({"enable_cfg": 1, "max_file_length": 100000000, "max_file_duration": 60, "recycle_hours": 24})",
      R"({"enable_cfg": 1, "max_lock_rate": 40, "zarn_log_path": "/var/log/zarn", "other_disks": ["/a", "/b"],
          "cyclic_cover_rate_after_del": 5.5, "cyclic_cover_threshold_rate": 3.0})",
      "// comment\n{\"enable_cfg\": 0}\n",
  };
  for (size_t i = 0; i < configs.size(); ++i) write(out / "config" / ("cfg" + std::to_string(i)), configs[i].data(), configs[i].size());
  fs::remove_all(storeDir);
  std::printf("seeds: %d record files and names, %zu frames, %zu configurations\n", files, (frames.size() + 24) / 25,
              configs.size());
  return files > 0 ? 0 : 1;
}
