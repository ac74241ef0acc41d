// zarn_crash_recorder: a recording host that is killed at random by the crash
// recovery test.
//
//   zarn_crash_recorder ADDRESS STREAM MODE STATEFILE SEED START_SEQ BASE_TIME
//
// Connects a client to ADDRESS, adds STREAM (MODE: sync or async), prints
// "ready ID" (ID: the store's id of this client where the store has one, so
// that the driver can evict it after the kill; else 0), then writes frames
// START_SEQ, START_SEQ + 1, ... until it is killed. Every frame is a function
// of (SEED, sequence, BASE_TIME) alone (CrashFrames.h, which the driver
// shares to check what comes back byte for byte). After each writeFrame that
// returned 0 the sequence number is appended to STATEFILE with one write(2);
// the page cache keeps it across SIGKILL, so no fsync.
//
// Record files are cut often by the MediaConfig.cfg of the working directory
// (the driver's).
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "KanduLog.h"
#include "MediaClientInternal.h"
#include "CrashFrames.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

using CrashTest::crashFrame;

int main(int argc, char** argv) {
  if (argc < 8) {
    std::fprintf(stderr, "usage: %s ADDRESS STREAM sync|async STATEFILE SEED START_SEQ BASE_TIME\n", argv[0]);
    return 2;
  }
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_OFF);
  const std::string address = argv[1];
  const uint32_t stream = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
  const bool sync = std::strcmp(argv[3], "sync") == 0;
  const uint32_t seed = static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10));
  const uint32_t start = static_cast<uint32_t>(std::strtoul(argv[6], nullptr, 10));
  const uint32_t baseTime = static_cast<uint32_t>(std::strtoul(argv[7], nullptr, 10));
  const int state = ::open(argv[4], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (state < 0) {
    std::perror("open state file");
    return 1;
  }

  static CMediaClientInternal client;  // never destroyed: the process ends by SIGKILL
  uint64_t id = 0;
  if (!ZarnTest::initializePeerClient(client, address, id) || client.addStream(stream, 1, sync) != 0) {
    std::printf("err start\n");
    return 1;
  }
  std::printf("ready %llu\n", static_cast<unsigned long long>(id));
  std::fflush(stdout);

  for (uint32_t seq = start;; ++seq) {
    std::vector<uint8_t> bytes = crashFrame(seed, seq, baseTime);
    VeltoFrame frame;
    frame.attach(bytes.data());
    int rc;
    unsigned long long written = 0;
    // -2: the async cache is full; the writer empties it.
    while ((rc = client.writeFrame(stream, &frame, 0, written)) == -2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (rc != 0) {
      std::fprintf(stderr, "writeFrame %u: %d\n", seq, rc);
      return 3;
    }
    char line[16];
    const int n = std::snprintf(line, sizeof(line), "%u\n", seq);
    if (::write(state, line, static_cast<size_t>(n)) != n) return 4;
    // Some 400 frames a second: a run of 10..400 ms crosses a few cuts
    // without filling the disk over hundreds of runs.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}
