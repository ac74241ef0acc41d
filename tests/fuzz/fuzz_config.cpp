// A configuration file of any content: loaded, every cached value read, every
// kind of lookup made, and the whole rendered for display.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "KanduLog.h"
#include "MediaConfig.h"

using namespace Velto::Zarn;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = [] {
    Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);
    const char* tmp = std::getenv("TMPDIR");
    return std::string(tmp ? tmp : "/tmp") + "/zarn-fuzz-config." + std::to_string(::getpid()) + ".cfg";
  }();
  FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  CMediaConfig config;
  config.initWithFile(path);
  std::string text;
  config.display(text);
  (void)config.getInt("max_file_length", 1);
  (void)config.getDouble("cyclic_cover_rate_after_del", 1.0);
  (void)config.getString("mediasdk_stat_path", "x");
  std::vector<std::string> disks;
  (void)config.getArray("other_disks", disks);
  bool present = false;
  (void)config.getMaxLockRate(present);
  (void)config.getZarnLogPath(present);
  std::remove(path.c_str());
  return 0;
}
