// Validation of store names. The one gate between names chosen by callers and
// paths inside a backend: a name that passes can never leave its bucket.
//
// Bucket name: one component of 1..255 bytes, none of '/', NUL, and not starting
// with '.' (names starting with '.' are reserved for the backends).
// File name: 1..1023 bytes of components separated by single '/'; each
// component as a bucket name (so no "", ".", "..", no leading '/').
#pragma once

#include <string>

namespace Velto::Zarn {

int validateBucketName(const std::string& bucket);  // 0 or ZARN_E_INVALID_NAME
int validateFileName(const std::string& name);      // 0 or ZARN_E_INVALID_NAME
// Splits "bucket/name" at the first '/' and validates both parts.
int splitStorePath(const std::string& path, std::string& bucket, std::string& name);

}  // namespace Velto::Zarn
