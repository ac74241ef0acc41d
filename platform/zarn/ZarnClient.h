// The Zarn store client: the library's only way to the store.
//
//   CZarnFileSystem  one connection to a store: buckets, files, capacity, state
//   CBucket          a handle on one bucket: validity, used bytes, listings
//   CFile            one open store file: read, append, seek, stat
//
// Paths are "bucket/name"; a name may contain '/' (year/month/day levels).
// Failing calls return false / null / -1 and set the calling thread's last error
// (getLastError, getErrorMsg); codes are in ZarnError.h. Successful calls leave
// the last error as it was.
//
// Time-outs: no call blocks its caller much longer than ZARN_OPT_TIMEOUT_MS (a
// CFile's own where set), changeable at any time. A call the store did not
// answer in time fails with ZARN_E_TIMEOUT (with ZARN_E_UNAVAILABLE when so
// many calls hang that no more are tried); its work may still complete later,
// never touching the caller's buffers. A file whose call timed out fails every
// later call at once (ZARN_E_TIMEOUT, then ZARN_E_IO once the hung call ended)
// and must be reopened; its close returns at once. The state monitor's probe
// has the same time-out, so a store that stops answering is reported failed
// (2) within about the time-out plus ZARN_OPT_HEALTH_PERIOD_MS, and usable (1)
// again once a probe succeeds on the same connection. The local store
// completes every call inline; initialize() is bounded by the backend's own
// connect time-out (CephFS: 10 s), not by this one.
//
// Threading: CZarnFileSystem and CBucket may be used from any thread at once. A
// CFile is used by one thread at a time. Store state callbacks (IZarnListener)
// arrive on the state monitor's timer thread; file state callbacks
// (IFileListener) arrive on the thread whose call changed the state, before
// that call returns. Neither is made while the client holds a lock of its own,
// so a listener may call back into the client, except initialize(), close()
// and setOption(ZARN_OPT_HEALTH_PERIOD_MS) of the same CZarnFileSystem (these
// stop the monitor and wait for its run in progress).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "StoreBackend.h"
#include "ZarnError.h"
#include "ZarnMediaClient.h"  // Config, SystemInfo, ZarnState

namespace Velto::Zarn {

class CZarnFileSystem;
class CFile;

// Connection options (setOption / getOption). Integer options take 4 bytes,
// except ZARN_OPT_CAPACITY_LIMIT (8 bytes); text options take their bytes
// without a terminator.
enum ZarnOption : int32_t {
  ZARN_OPT_CLIENT_MODE = 0,       // int32, informational (the media client sets 3)
  ZARN_OPT_TIMEOUT_MS = 2,        // int32, time-out of one store call in ms (default 5000); see below
  ZARN_OPT_LOG_PATH = 3,          // text, directory of the store client's log ("" = with the library's)
  ZARN_OPT_LOG_LEVEL = 4,         // int32, 0 trace .. 5 off
  ZARN_OPT_CAPACITY_LIMIT = 5,    // uint64 bytes: report at most this total (0 = the file system's)
  ZARN_OPT_HEALTH_PERIOD_MS = 6,  // int32, how often the state monitor probes the store (default 5000)
};

// File states reported to IFileListener.
enum ZarnFileState : int32_t {
  ZARN_FILE_STATE_NORMAL = 1,
  ZARN_FILE_STATE_DEGRADED = 2,  // a call failed with a retryable error; reopening is advised
};

class IZarnListener {
 public:
  virtual ~IZarnListener() = default;
  virtual void onZarnStateChanged(CZarnFileSystem* fs, ZarnState state) = 0;
};

class IFileListener {
 public:
  virtual ~IFileListener() = default;
  virtual void onFileStateChanged(CFile* file, int state) = 0;
};

using CNameList = std::vector<std::string>;
using CFileList = std::vector<StoreEntry>;
using ZarnFileStat = StoreFileStat;

// Last error of the calling thread, and its text (the code's text, plus what
// the failing call knew: a path, an address). The text stays valid until the
// thread's next failing call.
int32_t getLastError();
const char* getErrorMsg();
// Sets the calling thread's last error (used by the client and by tests).
void setLastError(int32_t code);
void setLastError(int32_t code, const std::string& detail);

namespace detail {
struct ClientCore;
struct FileSystemImpl;
}

class CBucket {
 public:
  CBucket() = default;  // invalid
  bool isValid() const { return m_core != nullptr; }
  const std::string& name() const { return m_name; }

  // Bytes held by the bucket's files.
  bool getUsedCapacity(uint64_t& bytes) const;
  // Names strictly after beginMarker (empty: from the start) and at most
  // endMarker (empty: to the end), ascending byte order of the whole name
  // (directory levels included), at most maxCount (0 lists nothing). Page by
  // passing the last name of a full page as the next beginMarker.
  bool list(CNameList& out, const std::string& beginMarker, const std::string& endMarker, uint32_t maxCount) const;
  bool list(CFileList& out, const std::string& beginMarker, const std::string& endMarker, uint32_t maxCount) const;

 private:
  friend class CZarnFileSystem;
  CBucket(std::shared_ptr<detail::ClientCore> core, std::string name)
      : m_core(std::move(core)), m_name(std::move(name)) {}
  std::shared_ptr<detail::ClientCore> m_core;
  std::string m_name;
};

class CFile {
 public:
  ~CFile();  // closes an open file (the result is lost: call close() to see it)
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;

  // Bytes read (> 0); 0 when at the end of a file still open for writing
  // somewhere (more may come); -1 on failure, with ZARN_E_EOF at the end of a
  // file nobody writes. Read mode only (ZARN_E_BAD_MODE otherwise).
  int64_t read(void* buffer, uint32_t length);
  // Appends; bytes taken (may be fewer than asked, even 0), -1 on failure.
  // Write mode only.
  int64_t write(const void* buffer, uint32_t length);
  // Appends the slices in order, in one store call where the backend can; bytes
  // taken (may end inside any slice, even 0), -1 on failure. Write mode only.
  int64_t writeGather(const StoreSlice* slices, uint32_t count);
  // origin 0 begin, 1 current, 2 end. The new position, -1 on failure.
  int64_t seek(int64_t offset, int origin);
  int64_t tell();
  bool stat(ZarnFileStat& out);
  // File options: ZARN_OPT_TIMEOUT_MS (int32, this file's call time-out; until
  // set, the connection's, followed as it changes; the local store completes
  // every call and only records it). Others are refused with
  // ZARN_E_INVALID_ARGUMENT.
  bool setOption(int32_t option, const void* value, uint32_t length);
  bool getOption(int32_t option, void* value, uint32_t& length) const;
  void setListener(IFileListener* listener) { m_listener.store(listener); }
  // Releases the handle; false when the backend failed to close cleanly (data
  // written may be lost). Further calls fail with ZARN_E_BAD_MODE. After the
  // connection was closed the handle is still released, and the call reports
  // ZARN_E_NOT_INITIALIZED.
  bool close();

  bool isOpen() const { return m_file != nullptr; }
  StoreOpenMode mode() const { return m_mode; }
  const std::string& path() const { return m_path; }

 private:
  friend class CZarnFileSystem;
  CFile(std::shared_ptr<detail::ClientCore> core, std::unique_ptr<IStoreFile> file, std::string path,
        StoreOpenMode mode);
  int64_t fail(int32_t code);
  // Reports DEGRADED to the listener once when a call fails with a retryable
  // code, and NORMAL again after the next success.
  void noteResult(int32_t code);
  bool usable(bool forRead, bool forWrite);

  std::shared_ptr<detail::ClientCore> m_core;
  std::unique_ptr<IStoreFile> m_file;
  std::string m_path;
  StoreOpenMode m_mode;
  std::atomic<IFileListener*> m_listener{nullptr};
  int32_t m_state = ZARN_FILE_STATE_NORMAL;
  int32_t m_timeoutMs = 0;  // this file's own call time-out; 0: the connection's
};

class CZarnFileSystem {
 public:
  CZarnFileSystem();
  ~CZarnFileSystem();  // close()
  CZarnFileSystem(const CZarnFileSystem&) = delete;
  CZarnFileSystem& operator=(const CZarnFileSystem&) = delete;

  // Connects to the store named by config.address and starts the state monitor.
  // false with the last error set when the address is refused or the store
  // cannot be reached (ZARN_E_UNSUPPORTED for an address scheme not built in,
  // with the reason in getErrorMsg). A second initialize on a connected handle
  // fails with ZARN_E_INVALID_ARGUMENT; after close() it connects anew.
  bool initialize(const Config& config);
  // Stops the state monitor and disconnects. Buckets and files handed out
  // stay safe to call afterwards and fail with ZARN_E_NOT_INITIALIZED.
  void close();
  bool isInitialized() const;

  // Options may be set before initialize (they apply to the connection made
  // then) and after it. Unknown options, wrong lengths and out-of-range values
  // are refused with ZARN_E_INVALID_ARGUMENT. getOption: `length` holds the
  // buffer size on entry and the bytes written on return.
  bool setOption(int32_t option, const void* value, uint32_t length);
  bool getOption(int32_t option, void* value, uint32_t& length) const;

  // The listener is told every change of the store's state (1 usable, 2 failed)
  // seen by the state monitor. null removes it. The listener must outlive the
  // connection or be removed first; a change of listener waits for a
  // notification under way, so a removed listener is not called afterwards.
  void setListener(IZarnListener* listener);
  // The state last seen by the monitor; ZARN_STATE_FAILED while not connected.
  ZarnState getState() const;

  // Fills bucket and file counts (0 when unknown), used, total (word 4) and
  // free (word 5) bytes; the reserved words are zeroed.
  bool getSystemInfo(SystemInfo& info);

  // An invalid bucket (and ZARN_E_NO_SUCH_BUCKET) when it does not exist.
  CBucket getBucket(const std::string& name);
  bool createBucket(const std::string& name);   // ZARN_E_BUCKET_EXISTS when present
  bool removeBucket(const std::string& name);   // ZARN_E_BUCKET_NOT_EMPTY while it holds files
  bool listBuckets(CNameList& out);

  // Exclusive create of "bucket/name", open for writing (appending). The bucket
  // must exist; directory levels of the name are made as needed.
  std::unique_ptr<CFile> createFile(const std::string& path, uint16_t dataShards, uint16_t parityShards);
  std::unique_ptr<CFile> openFile(const std::string& path, StoreOpenMode mode);
  bool removeFile(const std::string& path);
  // Never replaces an existing target (ZARN_E_FILE_EXISTS).
  bool renameFile(const std::string& from, const std::string& to);
  bool getFileStat(const std::string& path, ZarnFileStat& out);

  // Test seam: connects to a given backend instead of one chosen by address.
  bool initializeWithBackend(const Config& config, std::shared_ptr<IStoreBackend> backend);

 private:
  std::unique_ptr<detail::FileSystemImpl> m_impl;
};

}  // namespace Velto::Zarn
