// Names as a listing meets them: the loose parse, the listing's parse (which
// must round-trip), bucket names and the time strings.
#include <cstdint>
#include <string>

#include "RecordFileName.h"

using namespace Velto::Zarn;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  RecordFileName record;
  if (parseRecordFileName(text, record) && isValidRecordFileName(record)) {
    std::string name;
    if (!generateRecordFileName(record, name)) __builtin_trap();  // a valid record can always be named
  }
  if (parseListedRecordFileName(text, record)) {
    std::string name;
    if (!generateRecordFileName(record, name) || name != text) __builtin_trap();  // listed names round-trip
  }
  uint32_t streamId = 0;
  uint16_t kind = 0;
  (void)parseBucketName(text, streamId, kind);
  const uint32_t begin = parseDate(text);
  if (begin != 0) (void)parseTime(begin, text.size() > 17 ? text.substr(17) : text);
  return 0;
}
