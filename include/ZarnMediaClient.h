// Zarn-MediaSDK public interface.
//
// This is the only header a host needs: it declares the exported class
// Velto::Zarn::CMediaClient and every record that crosses the library boundary.
// Field order, widths and alignment of the records are part of the ABI and are
// pinned by static_asserts at the end of this file; change them only together
// with a new library major version.
//
// Conventions at this boundary:
//   * Results are integers: 0 (or a non-negative value) on success, -1 general
//     failure, -4 unknown stream, -5 unknown session; engines add their own
//     negative codes. Nothing throws across the boundary.
//   * Times are 32-bit unsigned seconds in the store's time scale (local time as
//     shifted by setTimeZoneDiff); 0 means "not set".
//   * Sizes are bytes (64-bit); capacities and space policies are MiB.
//
// The internal layers (runtime, store client) use the records below as their
// shared vocabulary, so this header depends on nothing but the C++ library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__GNUC__)
#define ZARN_MEDIA_API __attribute__((visibility("default")))
#else
#define ZARN_MEDIA_API
#endif

namespace Velto {
namespace Kandu {

// A bound callable taking one argument: a free function, a lambda, or an object
// with one of its methods. Empty until assigned; calling an empty one aborts.
template <typename R, typename A>
class TFunction1 {
 public:
  TFunction1() = default;
  TFunction1(std::nullptr_t) {}  // NOLINT: an empty callable, as a host writes it

  template <typename F,
            typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, TFunction1> &&
                                        std::is_invocable_r_v<R, F&, A>>>
  TFunction1(F f) : m_fn(std::move(f)) {}  // NOLINT: implicit by design

  template <typename T>
  TFunction1(T* object, R (T::*method)(A))
      : m_fn([object, method](A a) -> R { return (object->*method)(std::forward<A>(a)); }) {}

  bool empty() const { return !m_fn; }
  explicit operator bool() const { return static_cast<bool>(m_fn); }
  void clear() { m_fn = nullptr; }

  R operator()(A a) const {
    if (!m_fn) std::abort();
    return m_fn(std::forward<A>(a));
  }

 private:
  std::function<R(A)> m_fn;
};

}  // namespace Kandu

namespace Zarn {

// Store connection, given to CMediaClient::initialize and passed on unchanged to
// the store client. `address` selects the store: a directory path or a
// "file://" URL for the embedded local-directory store. The strings must stay
// valid for the duration of the call only.
struct Config {
  const char* address;   // store access address
  int32_t port;          // store port (unused by the local store)
  const char* userName;  // store user; "root" gives bucket names without prefix
  const char* password;  // never logged
};

// Store capacity record. The library reads totalCapacity and freeCapacity (the
// fourth and fifth 64-bit words); the rest is informational.
struct SystemInfo {
  uint64_t bucketCount;     // buckets in the store, 0 when unknown
  uint64_t fileCount;       // files in the store, 0 when unknown
  uint64_t usedCapacity;    // bytes held by the store's files, 0 when unknown
  uint64_t totalCapacity;   // bytes
  uint64_t freeCapacity;    // bytes
  uint64_t reserved[3];
};

// State of the store as reported to the host's callback.
enum ZarnState : int32_t {
  ZARN_STATE_NORMAL = 1,    // store usable
  ZARN_STATE_FAILED = 2,    // store failed
  ZARN_STATE_DEGRADED = 3,  // usable with reduced service; the local store is not told
};

// One clip of a clip list.
struct RecordClip {
  uint32_t beginTime;
  uint32_t endTime;
  uint8_t locked;     // the clip's record file has a lock count above 0
  uint8_t forgotten;  // the record file lies in the stream's forgotten bucket
  int16_t type;       // the record type given to addStream
  uint8_t missing;    // the record file has no usable index
  uint64_t size;      // bytes
};

// One record file of a file list: the clip fields and the file's full name.
struct RecordClipEx {
  uint32_t beginTime;
  uint32_t endTime;
  uint8_t locked;
  uint8_t forgotten;
  int16_t type;
  uint8_t missing;
  uint64_t size;
  char fileName[256];  // NUL-terminated, at most 255 characters
};

// The 24-byte head of a frame, as it lies at the frame's first byte
// (little-endian). See doc/frame_format.md for the whole container.
struct VeltoFrameHead {
  uint32_t magic;       // "QRAV"
  uint8_t type;         // 0xFD I, 0xFC P, 0xFE other video, 0xFB image, 0xAA padding
  uint8_t subType;      // non-zero marks a smart frame
  uint8_t reserved6;    // carried unchanged
  uint8_t reserved7;    // carried unchanged
  uint32_t sequence;    // +1 per frame of a stream
  uint32_t length;      // whole frame: head + extension + payload + tail
  uint32_t packedTime;  // second:6 minute:6 hour:5 day:5 month:4 (year-2000):6
  uint16_t msStamp;     // free-running millisecond counter of the source
  uint8_t extLength;    // extension area length E
  uint8_t checksum;     // sum of head bytes 0..22 modulo 256
};

// A frame container in memory: a copy of the head and pointers into the frame's
// bytes. Either owns its bytes (ownsBuffer 1) or refers to a buffer somebody else
// owns. The inner pointers are always derived from `frame` and the head; a record
// whose `frame` is null has all four pointers null.
struct VeltoFrame {
  VeltoFrameHead head;
  uint8_t* frame;      // first byte of the frame
  uint8_t* extension;  // frame + 24
  uint8_t* payload;    // frame + 24 + E
  uint8_t* tail;       // frame + L - 8
  uint8_t ownsBuffer;
  // Bytes of the owned buffer; 0 when the buffer is not owned (its size is then
  // the caller's business) or there is none. Lives in what was tail padding, so
  // size and offsets are unchanged.
  uint32_t bufferSize;

  VeltoFrame()
      : head(), frame(nullptr), extension(nullptr), payload(nullptr), tail(nullptr), ownsBuffer(1), bufferSize(0) {}
  ~VeltoFrame() { clear(); }

  // Deep copy: exactly L bytes, owned.
  VeltoFrame(const VeltoFrame& other) : VeltoFrame() { copyFrom(other); }
  VeltoFrame& operator=(const VeltoFrame& other) {
    if (this != &other) {
      clear();
      copyFrom(other);
    }
    return *this;
  }

  // Refers to `bytes` without owning them (null leaves an empty record).
  void attach(const void* bytes) {
    clear();
    if (bytes == nullptr) return;
    std::memcpy(&head, bytes, sizeof(head));
    frame = static_cast<uint8_t*>(const_cast<void*>(bytes));
    ownsBuffer = 0;
    derivePointers();
  }

  // Copies `src` into a buffer this record keeps for later copies: allocated once
  // with `capacity` bytes (the maximum frame size) and zeroed. An attached
  // buffer is written in place (the caller vouches for `capacity`); an owned
  // buffer too small for src (an exact-size deep copy) is replaced first. Fails,
  // leaving the record unchanged, when src is empty or longer than `capacity`.
  bool copyToBuffer(const VeltoFrame& src, uint32_t capacity) {
    if (src.frame == nullptr || src.head.length > capacity) return false;
    if (frame != nullptr && ownsBuffer && bufferSize < src.head.length && &src != this) {
      uint8_t* bigger = new (std::nothrow) uint8_t[capacity]();
      if (bigger == nullptr) {
        std::printf("new VeltoFrame error\n");
        return false;
      }
      delete[] frame;
      frame = bigger;
      bufferSize = capacity;
    }
    if (frame == nullptr) {
      frame = new (std::nothrow) uint8_t[capacity]();
      if (frame == nullptr) {
        std::printf("new VeltoFrame error\n");
        return false;
      }
      ownsBuffer = 1;
      bufferSize = capacity;
    }
    std::memmove(frame, src.frame, src.head.length);
    head = src.head;  // not re-read from the bytes: a bogus L below 24 must not over-read
    derivePointers();
    return true;
  }

  void clear() {
    head = VeltoFrameHead();
    if (ownsBuffer && frame != nullptr) delete[] frame;
    frame = extension = payload = tail = nullptr;
    bufferSize = 0;
  }

 private:
  void copyFrom(const VeltoFrame& src) {
    ownsBuffer = 1;
    if (src.frame == nullptr) return;
    frame = new (std::nothrow) uint8_t[src.head.length];
    if (frame == nullptr) {
      std::printf("new VeltoFrame error\n");
      return;
    }
    std::memcpy(frame, src.frame, src.head.length);
    head = src.head;  // not re-read from the copy: a bogus L below 24 must not over-read
    bufferSize = src.head.length;
    derivePointers();
  }
  void derivePointers() {
    extension = frame + sizeof(VeltoFrameHead);
    payload = extension + head.extLength;
    tail = frame + head.length - 8;
  }
};

class CMediaClientInternal;

// The library's one exported class. One object per store connection; every
// method may be called from any thread. Set process-wide values
// (setTimeZoneDiff, setMaxFrameSize, setDefaultECType) before initialize.
class ZARN_MEDIA_API CMediaClient {
 public:
  CMediaClient();
  ~CMediaClient();
  CMediaClient(const CMediaClient&) = delete;
  CMediaClient& operator=(const CMediaClient&) = delete;

  // Store client log level and path; "zarn_log_level"/"zarn_log_path" in
  // MediaConfig.cfg win over these arguments.
  void enableZarnClientLog(int logLevel, const char* logPath);
  // Prints the version banner; the path is ignored.
  void setMediaSDKLogFile(const char* path);
  // Erasure-coding data and parity counts of new record files (default 4 + 1).
  void setDefaultECType(unsigned short dataNum, unsigned short ecNum);
  // Hours added to the local clock wherever the library compares with "now".
  void setTimeZoneDiff(int hours);

  // Opens the store and starts maintenance. 0 / -1. `callback` is told store
  // state changes after a 60 s anti-shake delay; it must not call initialize.
  int initialize(const Config& config, Velto::Kandu::TFunction1<void, ZarnState> callback);

  void setMaxLockRatio(int ratio);   // percent 0..100
  void setMaxFrameSize(int bytes);   // default 4194304
  int getLockRatio() const;          // locked share of the store, 1/10000 units; -1

  int queryRecordClipList(unsigned streamId, unsigned beginTime, unsigned endTime,
                          std::vector<RecordClip>& clips, unsigned durationPerClip);
  int queryRecordFileList(unsigned streamId, unsigned beginTime, unsigned endTime,
                          std::vector<RecordClipEx>& files);
  int queryAlignedClipList(unsigned streamId, unsigned beginTime, unsigned endTime,
                           std::vector<RecordClip>& clips, unsigned durationPerClip);
  int queryRecordStatus(unsigned streamId, unsigned beginTime, unsigned endTime,
                        std::vector<bool>& status, unsigned step) const;
  int deleteRecordClip(unsigned streamId, unsigned beginTime, unsigned endTime);

  // Recording. writeFrame's frameTime 0 records the frame under its own time;
  // `position` receives the bytes taken.
  int addStream(unsigned streamId, short type, bool sync);
  int writeFrame(unsigned streamId, const VeltoFrame* frame, unsigned frameTime,
                 unsigned long long& position);
  int flushFrame(unsigned streamId);
  int deleteStream(unsigned streamId);

  // Playback. addSession returns the new session id. readFrame copies the next
  // frame into `frame`'s buffer and its length into `length` (0 at the end of
  // the session); keyFramesOnly and reverse choose the read order.
  int addSession(unsigned streamId, unsigned beginTime, unsigned endTime, bool sync);
  int readFrame(unsigned sessionId, VeltoFrame* frame, unsigned long long& length,
                bool keyFramesOnly, bool reverse);
  int seek(unsigned sessionId, unsigned seekTime);
  int deleteSession(unsigned sessionId);

  // Locks against recycling: 0, -1 (a file at its lock limit), -2 (lock ratio
  // limit), -3 (failure; nothing of the call stays locked).
  int lockStream(unsigned streamId, std::vector<RecordClip>& clips);
  int lockStream(unsigned streamId, unsigned beginTime, unsigned endTime);
  int unlockStream(unsigned streamId, unsigned beginTime, unsigned endTime,
                   unsigned char& lockNum, bool all);

  // Recycling policies: keep at most durationHours of video, else (hours 0) at
  // most `space` MiB.
  int setRecyclePolicy(unsigned streamId, unsigned durationHours, unsigned space);
  int setRecyclePolicy(std::string cameraId, std::list<unsigned>& streamIds,
                       unsigned durationHours, unsigned space);
  int setUrgentRecycleRatio(unsigned ratio);
  bool getSystemInfo(SystemInfo& info);
  int setForgottenStorage(unsigned streamId, unsigned durationHours, unsigned space);
  bool isSupportLocalStore();
  bool discardStream(unsigned streamId, unsigned durationHours, unsigned space);
  int deleteRecord(std::string cameraId, std::list<unsigned>& streamIds);

 private:
  CMediaClientInternal* m_internal;
};

// ABI pins.
static_assert(sizeof(Config) == 32 && offsetof(Config, port) == 8 && offsetof(Config, userName) == 16 &&
              offsetof(Config, password) == 24);
static_assert(sizeof(SystemInfo) == 64 && offsetof(SystemInfo, totalCapacity) == 24 &&
              offsetof(SystemInfo, freeCapacity) == 32);
static_assert(sizeof(ZarnState) == 4);
static_assert(sizeof(RecordClip) == 24 && offsetof(RecordClip, endTime) == 4 && offsetof(RecordClip, locked) == 8 &&
              offsetof(RecordClip, forgotten) == 9 && offsetof(RecordClip, type) == 10 &&
              offsetof(RecordClip, missing) == 12 && offsetof(RecordClip, size) == 16);
static_assert(sizeof(RecordClipEx) == 280 && offsetof(RecordClipEx, size) == 16 &&
              offsetof(RecordClipEx, fileName) == 24);
static_assert(sizeof(VeltoFrameHead) == 24 && offsetof(VeltoFrameHead, sequence) == 8 &&
              offsetof(VeltoFrameHead, length) == 12 && offsetof(VeltoFrameHead, packedTime) == 16 &&
              offsetof(VeltoFrameHead, msStamp) == 20 && offsetof(VeltoFrameHead, extLength) == 22 &&
              offsetof(VeltoFrameHead, checksum) == 23);
static_assert(offsetof(VeltoFrame, frame) == 24 && offsetof(VeltoFrame, tail) == 48 &&
              offsetof(VeltoFrame, ownsBuffer) == 56 && offsetof(VeltoFrame, bufferSize) == 60 &&
              sizeof(VeltoFrame) == 64);
static_assert(sizeof(CMediaClient) == sizeof(void*));

}  // namespace Zarn
}  // namespace Velto
