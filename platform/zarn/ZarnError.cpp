#include "ZarnError.h"

namespace Velto::Zarn {

const char* zarnErrorText(int32_t code) {
  switch (code) {
    case ZARN_OK: return "success";
    case ZARN_E_OUT_OF_SYNC: return "data out of sync: metadata and data disagree";
    case ZARN_E_NO_SUCH_FILE: return "no such file";
    case ZARN_E_INVALID_NAME: return "invalid name";
    case ZARN_E_FILE_EXISTS: return "file exists";
    case ZARN_E_NO_SUCH_BUCKET: return "no such bucket";
    case ZARN_E_BUCKET_EXISTS: return "bucket exists";
    case ZARN_E_BUCKET_NOT_EMPTY: return "bucket not empty";
    case ZARN_E_NOT_INITIALIZED: return "store not initialized";
    case ZARN_E_IO: return "input/output error";
    case ZARN_E_NO_SPACE: return "no space left in the store";
    case ZARN_E_EOF: return "end of file";
    case ZARN_E_PERMISSION: return "permission denied";
    case ZARN_E_BAD_MODE: return "operation does not fit the file's open mode";
    case ZARN_E_UNAVAILABLE: return "store unavailable";
    case ZARN_E_UNSUPPORTED: return "not supported";
    case ZARN_E_INVALID_ARGUMENT: return "invalid argument";
    case ZARN_E_TIMEOUT: return "timed out";
    case ZARN_E_BUSY: return "file is open for writing elsewhere";
    case ZARN_E_IS_DIRECTORY: return "path names a directory level, not a file";
    default: return "unknown store error";
  }
}

bool isRetryableError(int32_t code) {
  switch (code) {
    case ZARN_E_IO:
    case ZARN_E_UNAVAILABLE:
    case ZARN_E_TIMEOUT:
    case ZARN_E_BUSY:
      return true;
    default:
      return false;
  }
}

}  // namespace Velto::Zarn
