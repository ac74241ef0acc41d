#include "ZarnNames.h"

#include "ZarnError.h"

namespace Velto::Zarn {

namespace {

constexpr size_t kMaxComponent = 255;
constexpr size_t kMaxFileName = 1023;

// One path component: 1..255 bytes, no '/', no NUL, no leading '.' (which also
// rules out "." and ".."; names starting with '.' belong to the backends).
bool validComponent(const std::string& text, size_t begin, size_t end) {
  if (end <= begin || end - begin > kMaxComponent) return false;
  if (text[begin] == '.') return false;
  for (size_t i = begin; i < end; ++i) {
    if (text[i] == '/' || text[i] == '\0') return false;
  }
  return true;
}

}  // namespace

int validateBucketName(const std::string& bucket) {
  return validComponent(bucket, 0, bucket.size()) ? 0 : ZARN_E_INVALID_NAME;
}

int validateFileName(const std::string& name) {
  if (name.empty() || name.size() > kMaxFileName) return ZARN_E_INVALID_NAME;
  size_t begin = 0;
  while (true) {
    size_t slash = name.find('/', begin);
    size_t end = slash == std::string::npos ? name.size() : slash;
    if (!validComponent(name, begin, end)) return ZARN_E_INVALID_NAME;
    if (slash == std::string::npos) return 0;
    begin = slash + 1;
  }
}

int splitStorePath(const std::string& path, std::string& bucket, std::string& name) {
  size_t slash = path.find('/');
  if (slash == std::string::npos) return ZARN_E_INVALID_NAME;
  std::string b = path.substr(0, slash);
  std::string n = path.substr(slash + 1);
  if (validateBucketName(b) != 0 || validateFileName(n) != 0) return ZARN_E_INVALID_NAME;
  bucket = std::move(b);
  name = std::move(n);
  return 0;
}

}  // namespace Velto::Zarn
