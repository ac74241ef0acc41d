#include "FuzzStore.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "KanduLog.h"

namespace ZarnFuzz {

using namespace Velto::Zarn;

namespace {

struct Store {
  std::string dir;
  CZarnFileSystem fs;
  Store() {
    Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);  // damaged input logs on every run
    // In memory when the machine has /dev/shm: the store syncs every file it
    // closes, and a disk would hold each run for milliseconds.
    const char* tmp = std::getenv("ZARN_FUZZ_STORE_DIR");
    std::error_code ignored;
    std::string base = tmp ? tmp : (std::filesystem::is_directory("/dev/shm", ignored) ? "/dev/shm" : "/tmp");
    std::string pattern = base + "/zarn-fuzz.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    dir = pattern;
    Config config{dir.c_str(), 0, "root", ""};
    if (!fs.initialize(config) || !fs.createBucket("media_7")) std::abort();
  }
  ~Store() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }
};

Store& theStore() {
  static Store s;
  return s;
}

}  // namespace

CZarnFileSystem& store() { return theStore().fs; }

RecordFileName nextRecordName(uint32_t indexState) {
  // A new second for every input, walking forward from 2026-01-01.
  static uint32_t next = 1767225600;
  RecordFileName n;
  n.streamId = 7;
  n.beginTime = next;
  n.endTime = next + 3599;
  n.realEndTime = n.endTime;
  n.type = 1;
  n.indexState = indexState;
  next += 3600;
  return n;
}

bool putFile(const std::string& path, const uint8_t* data, size_t size) {
  CZarnFileSystem& fs = store();
  fs.removeFile(path);
  std::unique_ptr<CFile> file = fs.createFile(path, 1, 0);
  if (!file) return false;
  bool ok = size == 0 || file->write(data, static_cast<uint32_t>(size)) == static_cast<int64_t>(size);
  return file->close() && ok;
}

}  // namespace ZarnFuzz
