// zarn-store-demo: opens (or creates) a local store, starts a media client on
// it, and round-trips a file through the store client: create, append, rename,
// list, read back and compare. Prints what it did; exits non-zero on any
// mismatch. The zarn-media tool replaces it as the main job once recording and
// playback land.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "KanduLog.h"
#include "ZarnClient.h"
#include "ZarnMediaClient.h"

using namespace Velto::Zarn;

namespace {

int fail(const char* what) {
  std::fprintf(stderr, "zarn-store-demo: %s failed: %d %s\n", what, getLastError(), getErrorMsg());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 || (argc == 2 && (!std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help")))) {
    std::printf("usage: zarn-store-demo [STORE]   (default STORE: ./zarn-store)\n");
    return argc > 2 ? 2 : 0;
  }
  std::string address = argc == 2 ? argv[1] : "./zarn-store";
  if (!getenv("ZARN_LOG_LEVEL")) Velto::Kandu::setLogLevel(Velto::Kandu::LOG_WARN);
  Config config{address.c_str(), 0, "root", ""};

  // The media client brings the store to life: system bucket and lock ledger.
  {
    CMediaClient client;
    if (client.initialize(config, nullptr) != 0) {
      std::fprintf(stderr, "zarn-store-demo: cannot open the store at %s\n", address.c_str());
      return 1;
    }
    SystemInfo info{};
    if (client.getSystemInfo(info))
      std::printf("store %s: %" PRIu64 " MiB total, %" PRIu64 " MiB free, lock ratio %d/10000\n", address.c_str(),
                  info.totalCapacity >> 20, info.freeCapacity >> 20, client.getLockRatio());
  }

  CZarnFileSystem fs;
  if (!fs.initialize(config)) return fail("initialize");
  if (!fs.getBucket("demo").isValid() && !fs.createBucket("demo")) return fail("createBucket");

  std::vector<uint8_t> payload(1 << 20);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
  const std::string open = "demo/2026/11/21/120000_1.qrv";
  const std::string closed = "demo/2026/11/21/120000_123000_1_0_0.qrv";
  fs.removeFile(open);
  fs.removeFile(closed);

  std::unique_ptr<CFile> out = fs.createFile(open, 4, 1);
  if (!out) return fail("createFile");
  for (size_t off = 0; off < payload.size();) {
    int64_t n = out->write(payload.data() + off, static_cast<uint32_t>(payload.size() - off));
    if (n < 0) return fail("write");
    off += static_cast<size_t>(n);
  }
  if (!out->close()) return fail("close");
  if (!fs.renameFile(open, closed)) return fail("renameFile");

  CFileList listing;
  if (!fs.getBucket("demo").list(listing, "2026/11/21/", "2026/11/21/z", 100)) return fail("list");
  for (const StoreEntry& e : listing) std::printf("listed demo/%s (%" PRIu64 " bytes)\n", e.name.c_str(), e.size);

  std::unique_ptr<CFile> in = fs.openFile(closed, StoreOpenMode::Read);
  if (!in) return fail("openFile");
  std::vector<uint8_t> back(payload.size());
  for (size_t off = 0; off < back.size();) {
    int64_t n = in->read(back.data() + off, static_cast<uint32_t>(back.size() - off));
    if (n <= 0) return fail("read");
    off += static_cast<size_t>(n);
  }
  in->close();
  if (back != payload) {
    std::fprintf(stderr, "zarn-store-demo: read back differs from what was written\n");
    return 1;
  }
  std::printf("round trip ok: %zu bytes written, renamed, listed and read back identically\n", payload.size());
  return 0;
}
