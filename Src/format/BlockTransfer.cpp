#include "BlockTransfer.h"

#include "MediaLog.h"

namespace Velto::Zarn {

bool blockWrite(CFile& file, const void* buffer, uint32_t length, uint32_t limitMs) {
  const uint8_t* p = static_cast<const uint8_t*>(buffer);
  uint32_t done = 0;
  const TransferResult result =
      transferBytes(length, done, true, limitMs, [&](uint32_t at) { return file.write(p + at, length - at); });
  if (result == TransferResult::TimedOut) {
    ZLOG(ERROR, "GENERAL", 0, "block write timeout, return false. writed: %u. timeout: %u.\n", done, limitMs);
  }
  return result == TransferResult::Done;
}

bool blockRead(CFile& file, void* buffer, uint32_t length, uint32_t limitMs) {
  uint8_t* p = static_cast<uint8_t*>(buffer);
  uint32_t done = 0;
  const TransferResult result =
      transferBytes(length, done, true, limitMs, [&](uint32_t at) { return file.read(p + at, length - at); });
  if (result == TransferResult::TimedOut) {
    ZLOG(ERROR, "GENERAL", 0, "block read timeout, return false. readed: %u. timeout: %u.\n", done, limitMs);
  }
  return result == TransferResult::Done;
}

}  // namespace Velto::Zarn
