// Store client error codes.
//
// Every failing store call sets the calling thread's last error (getLastError /
// getErrorMsg) to one of these codes. The codes say what a caller needs to
// decide its next step: retry later, give up, free space, or treat data as lost.
#pragma once

#include <cstdint>

namespace Velto::Zarn {

enum ZarnError : int32_t {
  ZARN_OK = 0,
  ZARN_E_OUT_OF_SYNC = -40008,      // metadata and data disagree; removing the path is the cure
  ZARN_E_NO_SUCH_FILE = -80001,
  ZARN_E_INVALID_NAME = -80002,     // empty component, "..", absolute path, NUL, too long
  ZARN_E_FILE_EXISTS = -80003,
  ZARN_E_NO_SUCH_BUCKET = -80004,
  ZARN_E_BUCKET_EXISTS = -80005,
  ZARN_E_BUCKET_NOT_EMPTY = -80006,
  ZARN_E_NOT_INITIALIZED = -80007,  // no store connection
  ZARN_E_IO = -80008,               // the backend failed to move data; retry may help
  ZARN_E_NO_SPACE = -80009,
  ZARN_E_EOF = -80010,              // read at the end of a file nobody writes
  ZARN_E_PERMISSION = -80011,
  ZARN_E_BAD_MODE = -80012,         // the call does not fit the file's open mode
  ZARN_E_UNAVAILABLE = -80013,      // the store cannot be reached; retry later
  ZARN_E_UNSUPPORTED = -80014,      // address scheme or feature not available
  ZARN_E_INVALID_ARGUMENT = -80015,
  ZARN_E_TIMEOUT = -80016,
  ZARN_E_BUSY = -80017,             // the file is open for writing elsewhere
  ZARN_E_IS_DIRECTORY = -80018,     // the path names a directory level, not a file
};

// Human-readable text of a code; never null. Unknown codes give a generic text.
const char* zarnErrorText(int32_t code);

// True for failures that may pass when the same call is repeated later.
bool isRetryableError(int32_t code);

// Failures that say the store itself cannot be used, as opposed to a refusal
// about one name: a time-out, an unreachable store, a failed data transfer.
inline bool isStoreFault(int32_t code) {
  return code == ZARN_E_TIMEOUT || code == ZARN_E_UNAVAILABLE || code == ZARN_E_IO;
}

}  // namespace Velto::Zarn
