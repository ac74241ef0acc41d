// A backend wrapper for tests that makes chosen store calls fail, accept zero
// bytes, or stall, the way real stores misbehave: a call failing one in N with
// a seed, writes that take nothing, a store that goes away mid-write.
//
// A hang rule blocks the matching calls until releaseHangs(), whatever thread
// they run on, as a store whose daemons stopped answering does.
//
// Rules are matched in the order added; the first rule whose operation and name
// filter match and whose budget is not spent decides the call: it lets the call
// through while it is still skipping or when its one-in-N draw says so, and
// acts otherwise. A call no rule decides is forwarded. Thread-safe.
//
// Subjects for the name filter: "bucket" for bucket calls, "bucket/name" for
// file calls and file handles, "from -> to" for renames, the address for connect.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "StoreBackend.h"
#include "ZarnError.h"

namespace Velto::Zarn {

enum class StoreOp : int {
  Connect, ProbeHealth, Capacity, CreateBucket, RemoveBucket, BucketExists, ListBuckets, BucketUsedBytes, List,
  CreateFile, OpenFile, RemoveFile, RenameFile, StatFile,
  FileRead, FileWrite, FileSeek, FileTell, FileStat, FileClose,
  Count
};

struct FaultRule {
  StoreOp op = StoreOp::FileWrite;
  int32_t code = ZARN_E_IO;     // the error returned (ignored with zeroBytes)
  bool zeroBytes = false;       // FileRead/FileWrite: return 0 bytes instead of an error
  uint32_t stallMs = 0;         // sleep this long before deciding (then fail or pass)
  bool failAfterStall = true;   // with stallMs: fail after the stall, or forward the call
  bool hang = false;            // block until releaseHangs(), then forward the call (a store that stops answering)
  uint32_t skip = 0;            // let this many matching calls pass first
  uint32_t times = 0xFFFFFFFFu; // then act on this many calls (then the rule is spent)
  uint32_t oneInN = 0;          // act only on a random one in N matching calls (0: every call)
  std::string nameContains;     // act only when the bucket/name contains this text
};

class CFaultInjectingBackend : public CStoreBackendWrapper {
 public:
  explicit CFaultInjectingBackend(std::shared_ptr<IStoreBackend> target, uint64_t seed = 1);

  void addRule(const FaultRule& rule);
  void clearRules();
  // Matching calls that reached the backend or were failed, by operation.
  uint64_t callCount(StoreOp op) const;
  // While false, probeHealth fails with ZARN_E_UNAVAILABLE.
  void setHealthy(bool healthy);
  // Lets every call blocked by a hang rule go on (forwarded), and spends the
  // hang rules, so that later calls pass.
  void releaseHangs();
  // Calls blocked by a hang rule right now.
  uint32_t hangingCalls() const;

  int connect(const Config& config) override;
  int probeHealth() override;
  int capacity(StoreCapacity& out) override;
  int createBucket(const std::string& b) override;
  int removeBucket(const std::string& b) override;
  int bucketExists(const std::string& b) override;
  int listBuckets(std::vector<std::string>& out) override;
  int bucketUsedBytes(const std::string& b, uint64_t& out) override;
  int list(const std::string& b, const std::string& after, const std::string& upTo, uint32_t maxCount,
           std::vector<StoreEntry>& out) override;
  int createFile(const std::string& b, const std::string& n, const StoreLayout& layout,
                 std::unique_ptr<IStoreFile>& out) override;
  int openFile(const std::string& b, const std::string& n, StoreOpenMode mode,
               std::unique_ptr<IStoreFile>& out) override;
  int removeFile(const std::string& b, const std::string& n) override;
  int renameFile(const std::string& fb, const std::string& fn, const std::string& tb,
                 const std::string& tn) override;
  int statFile(const std::string& b, const std::string& n, StoreFileStat& out) override;

  // Decides one call: 0 to forward it, 1 to return zero bytes, or a negative
  // code to fail it. Used by the wrapped file handles too; stalls (outside any
  // lock) before returning when the deciding rule says so.
  int decide(StoreOp op, const std::string& subject);

  struct State;  // rules, counters and health, shared with wrapped file handles

 private:
  std::shared_ptr<State> m_state;
};

}  // namespace Velto::Zarn
