// A host program that sees only the public header and links only the shared
// library: proves the header is self-contained and the exported surface is
// enough to open a store and talk to it.
#include <cstdio>
#include <string>

#include "ZarnMediaClient.h"

using Velto::Zarn::CMediaClient;

#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      std::fprintf(stderr, "host check failed: %s\n", #cond);   \
      return 1;                                                  \
    }                                                            \
  } while (0)

int main(int argc, char** argv) {
  CHECK(argc == 2);
  int callbacks = 0;
  {
    CMediaClient client;
    client.setTimeZoneDiff(0);
    Velto::Zarn::Config config{argv[1], 0, "root", ""};
    CHECK(client.initialize(config, [&callbacks](Velto::Zarn::ZarnState) { ++callbacks; }) == 0);

    Velto::Zarn::SystemInfo info{};
    CHECK(client.getSystemInfo(info));
    CHECK(info.totalCapacity > 0 && info.freeCapacity <= info.totalCapacity);
    CHECK(client.getLockRatio() == 0);

    unsigned long long position = 0;
    Velto::Zarn::VeltoFrame frame;
    CHECK(client.writeFrame(12345, &frame, 0, position) == -4);
    unsigned long long length = 0;
    CHECK(client.readFrame(777, &frame, length, false, false) == -5);
    CHECK(!client.isSupportLocalStore());
  }
  std::printf("host ok\n");
  return 0;
}
