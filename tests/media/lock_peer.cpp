// zarn_lock_peer: a recording host of its own process that locks and unlocks
// ranges of shared streams at random, for the tests that prove the lock-size
// ledger across processes.
//
//   zarn_lock_peer ADDRESS SEED SECONDS BEGIN FILES STREAM...
//
// Connects a client to ADDRESS, prints "ready ID" (ID: the store's id of this
// client where the store has one, for evicting it when it is killed; else 0),
// then for SECONDS, and for at least 10 calls, locks, unlocks or unlocks
// entirely a random range of whole 30-minute files [BEGIN + a * 1800,
// BEGIN + b * 1800), 0 <= a < b <= FILES, of a random STREAM, and prints
// "done N OK": the calls made and how many of them succeeded.
//
//   zarn_lock_peer --cover-mutex ADDRESS
//
// Connects to ADDRESS, prints "ready ID", and on each line "go" read from stdin
// tries to take the urgent-recycling mutex file and prints "mutex 1" or
// "mutex 0"; it holds what it took until stdin ends.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "KanduLog.h"
#include "KanduTime.h"
#include "CoverMutex.h"
#include "MediaClientInternal.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

// Connects `client` and says "ready ID"; false after "err initialize".
static bool connect(CMediaClientInternal& client, const std::string& address) {
  uint64_t id = 0;
  if (!ZarnTest::initializePeerClient(client, address, id)) {
    std::printf("err initialize\n");
    return false;
  }
  std::printf("ready %llu\n", static_cast<unsigned long long>(id));
  std::fflush(stdout);
  return true;
}

static int coverMutexPeer(const char* address) {
  CMediaClientInternal client;
  if (!connect(client, address)) return 1;
  CCoverMutex mutex;
  char line[64];
  while (std::fgets(line, sizeof line, stdin)) {
    std::printf("mutex %d\n", mutex.tryEnter(*client.storeForTest()) ? 1 : 0);
    std::fflush(stdout);
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--cover-mutex") {
    Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);
    return coverMutexPeer(argv[2]);
  }
  if (argc < 7) {
    std::fprintf(stderr, "usage: %s ADDRESS SEED SECONDS BEGIN FILES STREAM...\n", argv[0]);
    return 2;
  }
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);
  const std::string address = argv[1];
  std::mt19937 random(static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)));
  const uint64_t seconds = std::strtoull(argv[3], nullptr, 10);
  const uint32_t begin = static_cast<uint32_t>(std::strtoul(argv[4], nullptr, 10));
  const uint32_t files = static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10));
  std::vector<uint32_t> streams;
  for (int i = 6; i < argc; ++i) streams.push_back(static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10)));

  CMediaClientInternal client;
  client.setMaxLockRatio(100);
  if (!connect(client, address)) return 1;

  uint64_t calls = 0, succeeded = 0;
  const uint64_t end = Velto::Kandu::monotonicMs() + seconds * 1000;
  while (calls < 10 || Velto::Kandu::monotonicMs() < end) {
    const uint32_t stream = streams[random() % streams.size()];
    uint32_t a = random() % files;
    uint32_t b = a + 1 + random() % (files - a);
    const uint32_t from = begin + a * 1800;
    const uint32_t to = begin + b * 1800;
    const uint32_t op = random() % 10;
    unsigned char left = 0;
    const int rc = op < 6 ? client.lockStream(stream, from, to) : client.unlockStream(stream, from, to, left, op == 9);
    ++calls;
    if (rc == 0) ++succeeded;
  }
  std::printf("done %llu %llu\n", static_cast<unsigned long long>(calls), static_cast<unsigned long long>(succeeded));
  return 0;
}
