// Moving an exact byte count through a store file that may take or give less
// than asked.
//
// A store call may move fewer bytes than asked, or none at all for a while (a
// store that is busy, or a file still being written): the loop calls again
// from where the last call stopped. A call that moves nothing counts
// kZeroWaitMs of waiting; a blocking transfer sleeps that long before the next
// call, a non-blocking one returns Stalled at once so that its caller can come
// back later (a writer's worker gives its queue thread up meanwhile).
#pragma once

#include <cstdint>

#include "KanduThread.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

inline constexpr uint32_t kZeroWaitMs = 5;

enum class TransferResult {
  Done,      // all `length` bytes moved
  Stalled,   // non-blocking: the store moved nothing this time; `done` says how far it got
  Failed,    // a store call failed (its error is the thread's last error)
  TimedOut,  // the counted waiting reached the limit
};

// Moves bytes [done, length) by calling `move(done)`, which makes one store
// call for bytes from `done` on and returns the bytes moved, 0 when none could
// be moved now, or a negative value on failure. `done` advances with every
// call. With a non-zero limitMs the transfer gives up once the counted
// waiting reaches it (time spent inside store calls is not counted).
// `zeroRun`, when given, counts the calls in a row that moved nothing: reset
// by a call that moves bytes, kept across transfers.
template <typename Move>
TransferResult transferBytes(uint32_t length, uint32_t& done, bool blocking, uint32_t limitMs, Move move,
                             uint32_t* zeroRun = nullptr) {
  uint32_t waited = 0;
  while (done < length) {
    const int64_t n = move(done);
    if (n < 0) return TransferResult::Failed;
    if (n > 0) {
      done += static_cast<uint32_t>(n);
      if (zeroRun != nullptr) *zeroRun = 0;
      continue;
    }
    if (zeroRun != nullptr) ++*zeroRun;
    if (!blocking) return TransferResult::Stalled;
    waited += kZeroWaitMs;
    if (limitMs != 0 && waited >= limitMs) return TransferResult::TimedOut;
    Velto::Kandu::sleepMs(kZeroWaitMs);
  }
  return TransferResult::Done;
}

// Moves exactly `length` bytes through a store file, blocking. A negative
// store result fails at once; with a non-zero limitMs the transfer fails (with
// an error line) once the counted waiting reaches it. 0 bytes succeed at once.
bool blockWrite(CFile& file, const void* buffer, uint32_t length, uint32_t limitMs = 0);
bool blockRead(CFile& file, void* buffer, uint32_t length, uint32_t limitMs = 0);

}  // namespace Velto::Zarn
