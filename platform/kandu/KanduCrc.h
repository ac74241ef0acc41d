// The standard CRC-32 (zlib's, polynomial 0xEDB88320), used wherever the
// library checksums an on-disk structure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Velto::Kandu {

// crc32(previous, data): continue a CRC over more bytes; previous 0 starts one.
uint32_t crc32(const void* data, size_t length, uint32_t previous = 0);

}  // namespace Velto::Kandu
