// Helpers shared by the test suites.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

#include "EngineEnv.h"
#include "KanduClock.h"
#include "FaultInjectingBackend.h"
#include "KanduLog.h"
#include "RecordFileName.h"

namespace Velto::Zarn {
class CMediaClientInternal;
}

namespace ZarnTest {

// A fresh directory under $TMPDIR (or /tmp), removed with its content when the
// object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return m_path; }
  std::string sub(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Captures log lines while alive (and restores the previous destination after).
class LogCapture {
 public:
  explicit LogCapture(Velto::Kandu::LogLevel level = Velto::Kandu::LOG_TRACE);
  ~LogCapture();
  std::vector<std::string> lines() const;
  // Number of captured lines containing `text`.
  size_t count(const std::string& text) const;
  bool contains(const std::string& text) const { return count(text) > 0; }
  void clear();

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;
  Velto::Kandu::LogLevel m_previousLevel;
};

// A valid frame: head with magic, type, sub-type, sequence, length, packed UTC
// time and checksum; `payload` bytes of a pattern derived from the sequence;
// the tail. Total length 32 + payload.
std::vector<uint8_t> makeFrame(uint8_t type, uint8_t subType, uint32_t sequence, uint32_t utcTime,
                               uint32_t payload, uint16_t msStamp = 0);

// Before any test of the process runs, moves the process into a fresh
// temporary directory holding "MediaConfig.cfg" with `json` (the process
// context reads that file once, from the working directory). Call it from a
// namespace-scope initialiser; returns true.
bool useConfigFileForProcess(const std::string& json);

// What the process-wide context gives the writers and readers of a client on
// `clock`, for tests that build engines themselves.
Velto::Zarn::EngineEnv writerEnv(const Velto::Kandu::IClock& clock = Velto::Kandu::systemClock());
Velto::Zarn::EngineEnv readerEnv(const Velto::Kandu::IClock& clock = Velto::Kandu::systemClock());

// A store client on `backend`, connected as the local store at `root`.
std::shared_ptr<Velto::Zarn::CZarnFileSystem> openStore(const std::string& root,
                                                       std::shared_ptr<Velto::Zarn::IStoreBackend> backend);

// A rule failing `times` calls of `op` with an I/O error, or, with
// `zeroBytes`, making them move no bytes.
Velto::Zarn::FaultRule faultOn(Velto::Zarn::StoreOp op, uint32_t times = 0xFFFFFFFFu, bool zeroBytes = false);

// A local store in a fresh directory behind a fault-injecting backend.
struct FaultyLocalStore {
  FaultyLocalStore();
  TempDir dir;
  std::string root = dir.sub("store");
  std::shared_ptr<Velto::Zarn::CFaultInjectingBackend> backend;
  std::shared_ptr<Velto::Zarn::CZarnFileSystem> fs;
};

// The full name of a record or index file (a test failure when it has none).
std::string recordPath(const Velto::Zarn::RecordFileName& name);

// The record files in stream `sid`'s media bucket, in listing order, sizes
// filled in; empty without the bucket.
std::vector<Velto::Zarn::RecordFileName> listRecords(Velto::Zarn::CZarnFileSystem& fs, uint32_t sid);

// The environment variable `name`, "" when it is not set.
inline std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? v : "";
}

// Why a test that needs the Ceph test cluster skips.
inline const char* const kNoCluster =
    "no Ceph cluster configured: start one with scripts/ceph-cluster-start.sh DIR and source DIR/zarn-test.env";

// A store root of one test's own below ZARN_TEST_CEPH_ADDRESS ("ADDRESS/TAG-PID-US-N");
// "" when no cluster is configured (the caller then skips with kNoCluster).
std::string clusterRoot(const std::string& tag);

// Polls `condition` every 2 ms until it holds or timeoutMs passes.
bool waitFor(const std::function<bool()>& condition, unsigned timeoutMs = 5000);

// What a host's reads of one playback session gave: the frames, and the result
// that ended the reads (0: the session's end; -2: "not ready" for 10 s; 1: the
// limit of frames reached; else the failing result).
struct SessionFrames {
  std::vector<std::vector<uint8_t>> frames;
  int last = 0;
};

// Reads `session` through `client` until its end (result 0 with length 0),
// another result, or `limit` frames; a read answered "not ready" (-2) is tried
// again for up to 10 s. The frames go into one record, as a host keeps it; with
// `hostBuffer` the record first gets a buffer of 1 MiB of the host's own.
SessionFrames readSession(Velto::Zarn::CMediaClientInternal& client, int session, bool keyOnly, bool reverse,
                          size_t limit = 100000, bool hostBuffer = false);

// Plays [b, e] of stream `sid` in one order into a host buffer: the sequence
// numbers read. The session must end within 10000 frames, no read waiting more
// than 10 s: a reader that loops or stalls fails here.
std::vector<uint32_t> playSequences(Velto::Zarn::CMediaClientInternal& client, uint32_t sid, uint32_t b, uint32_t e,
                                    bool keyOnly, bool reverse);

// A child process (argv[0] with `argv`) whose standard input and output are one
// socket: lines go to it and come back. With `fd3` >= 0 that descriptor becomes
// its descriptor 3 (every other descriptor a suite opens is close-on-exec). It
// is ended, killed when it overstays, when the object goes.
class CChildProcess {
 public:
  explicit CChildProcess(const std::vector<std::string>& argv, int fd3 = -1, unsigned answerMs = 15000);
  ~CChildProcess() { stop(); }
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;

  bool running() const { return m_pid >= 0; }
  // A line is short: the socket takes it whole. A child that is gone shows in answer().
  void send(const std::string& line);
  // The next line it wrote, without the break; "<no answer>" when it is gone or silent for answerMs.
  std::string answer();
  std::string ask(const std::string& line) {
    send(line);
    return answer();
  }
  // SIGKILL: it gets no chance to close anything. Its wait status.
  int kill();
  // Ends its input and waits for it to exit (it is killed after 3 * answerMs):
  // its exit code, -1 when it did not exit normally.
  int stop();

 private:
  pid_t m_pid = -1;
  int m_socket = -1;
  int m_status = -1;
  unsigned m_answerMs;
};

// For a child process of a test: initialises `client` on the store at
// `address` through a backend made here, so that the store's id of this
// client (CephFS; 0 elsewhere) can be told to the test that may kill the
// process and must then evict it. false when the store cannot be opened.
// Its store calls wait up to kPeerCallTimeoutMs.
inline constexpr int32_t kPeerCallTimeoutMs = 120000;
bool initializePeerClient(Velto::Zarn::CMediaClientInternal& client, const std::string& address, uint64_t& clientId);

}  // namespace ZarnTest
