// A process that migrates a local store's disks into a store, for the tests
// that kill it mid-copy. Arguments: the store address and a bandwidth limit in
// MiB/s (0: none). It says "ready" once connected and "done <moved> <failed>"
// after one pass. Its timers run on a clock nobody moves, so the client's own
// migration never starts beside the pass.
#include <cstdio>
#include <cstdlib>

#include "KanduClock.h"
#include "MediaClientInternal.h"

int main(int argc, char** argv) {
  using namespace Velto::Zarn;
  if (argc != 3) return 2;
  Velto::Kandu::CManualClock clock(Velto::Kandu::systemClock().wallClockMs());
  CMediaClientInternal client(clock);
  if (client.initialize(Config{argv[1], 0, "root", ""}, nullptr) != 0 || !client.isSupportLocalStore()) {
    std::printf("init failed\n");
    return 1;
  }
  CMigration migration(clock, client.localStoreForTest().primary(), std::strtoull(argv[2], nullptr, 10) << 20);
  std::printf("ready\n");
  std::fflush(stdout);
  const CMigration::PassResult r = migration.runPass();
  std::printf("done %llu %llu\n", static_cast<unsigned long long>(r.files), static_cast<unsigned long long>(r.failed));
  std::fflush(stdout);
  return 0;
}
