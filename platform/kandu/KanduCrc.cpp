#include "KanduCrc.h"

#include <zlib.h>

#include <limits>

namespace Velto::Kandu {

uint32_t crc32(const void* data, size_t length, uint32_t previous) {
  // zlib takes lengths as uInt; feed larger buffers in pieces.
  const auto* bytes = static_cast<const Bytef*>(data);
  uLong crc = previous;
  constexpr size_t kChunk = std::numeric_limits<uInt>::max();
  while (length > 0) {
    size_t piece = length < kChunk ? length : kChunk;
    crc = ::crc32(crc, bytes, static_cast<uInt>(piece));
    bytes += piece;
    length -= piece;
  }
  return static_cast<uint32_t>(crc);
}

}  // namespace Velto::Kandu
