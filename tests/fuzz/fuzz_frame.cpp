// Frame bytes as they come from a host or a damaged file: the head check, the
// layout check, the extension walk (only over frames whose layout fits, as the
// writer walks it), the time unpacking, resynchronisation, and the copy into a
// host's reusable buffer.
#include <cstdint>
#include <cstring>
#include <vector>

#include "VeltoFrame.h"

using namespace Velto::Zarn;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kFrameHeadSize) return 0;
  std::vector<uint8_t> bytes(data, data + size);
  const uint8_t* head = bytes.data();
  uint32_t length;
  std::memcpy(&length, head + 12, sizeof(length));
  // The maximum frame size as a host may set it: the input's own length, so
  // that the head check passes as often as it can.
  const bool headOk = checkFrameHead(head, length + 1);
  (void)frameTime(head);
  (void)isKeyFrame(head[4], head[5]);
  if (headOk && frameLayoutFits(head) && length <= size) {
    const uint8_t* svc = findSvcItem(head + kFrameHeadSize, head[22]);
    if (svc != nullptr) {
      // The descriptor lies inside the frame (at worst in its payload or tail).
      if (svc + 3 >= head + length) __builtin_trap();
    }
    (void)checkFrameTail(head + length - kFrameTailSize);
    VeltoFrame source;
    source.attach(head);
    VeltoFrame copy;
    if (copy.copyToBuffer(source, length) && std::memcmp(copy.frame, head, length) != 0) __builtin_trap();
  }
  const uint32_t skipped = skipToFrameHead(bytes.data(), static_cast<uint32_t>(size));
  if (skipped > size) __builtin_trap();
  std::vector<uint8_t> fake(size);
  buildFakeFrame(fake.data(), static_cast<uint32_t>(size));
  return 0;
}
