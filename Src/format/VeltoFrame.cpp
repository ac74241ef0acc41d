#include "VeltoFrame.h"

#include <cstdio>
#include <cstring>

#include "KanduTime.h"
#include "MediaValues.h"

namespace Velto::Zarn {

namespace {

// Head field offsets (see doc/frame_format.md).
constexpr uint32_t kOffType = 4;
constexpr uint32_t kOffLength = 12;
constexpr uint32_t kOffPackedTime = 16;
constexpr uint32_t kOffExtLength = 22;
constexpr uint32_t kOffChecksum = 23;

// The head magic byte by byte, in stream order.
constexpr uint8_t kHeadMagicBytes[4] = {'Q', 'R', 'A', 'V'};

uint32_t loadLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

void storeLe32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

// Item length, tag included, of an extension item by its tag byte; unknown tags
// are skipped one byte at a time.
uint32_t extItemSize(uint8_t tag) {
  switch (tag) {
    case 0x80:
    case 0x81:
    case 0x83:
    case 0x84:
    case 0x85:
    case 0x89:
    case kExtTagSvc:
      return 4;
    case 0x82:
    case 0x88:
    case 0x92:
    case 0x93:
    case 0x95:
    case 0x96:
      return 8;
    default:
      return 1;
  }
}

}  // namespace

uint8_t frameHeadChecksum(const uint8_t* head) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < kFrameChecksumSpan; ++i) sum += head[i];
  return static_cast<uint8_t>(sum);
}

void sealFrameHead(uint8_t* head) { head[kOffChecksum] = frameHeadChecksum(head); }

uint32_t currentMaxFrameSize() {
  // setMaxFrameSize stores the host's int unchecked; the comparison is unsigned.
  return static_cast<uint32_t>(CMediaValues::instance().maxFrameSize.load(std::memory_order_relaxed));
}

bool checkFrameHead(const uint8_t* head, uint32_t maxFrameSize) {
  return loadLe32(head) == kFrameHeadMagic && head[kOffChecksum] == frameHeadChecksum(head) &&
         loadLe32(head + kOffLength) < maxFrameSize;
}

bool checkFrameHead(const uint8_t* head) { return checkFrameHead(head, currentMaxFrameSize()); }

bool checkFrameHeadLoud(const uint8_t* head, uint32_t maxFrameSize) {
  if (checkFrameHead(head, maxFrameSize)) return true;
  // Deliberately on stdout rather than the log, with the checksums printed as
  // characters: this exact console line is part of the behaviour hosts see.
  std::printf("Invalid frame head, check sum: %c == %c && frame len %d < %d", head[kOffChecksum],
              frameHeadChecksum(head), static_cast<int>(loadLe32(head + kOffLength)), static_cast<int>(maxFrameSize));
  return false;
}

bool checkFrameHeadLoud(const uint8_t* head) { return checkFrameHeadLoud(head, currentMaxFrameSize()); }

bool frameLayoutFits(const uint8_t* head) {
  const uint32_t length = loadLe32(head + kOffLength);
  return length >= kMinFrameSize && kFrameHeadSize + head[kOffExtLength] + kFrameTailSize <= length;
}

bool checkFrameTail(const uint8_t* tail) { return loadLe32(tail) == kFrameTailMagic; }

bool checkFrameTail(const VeltoFrame& frame) {
  if (frame.frame == nullptr || frame.tail == nullptr || frame.head.length < kMinFrameSize) return false;
  return checkFrameTail(frame.tail);
}

bool isVideoFrame(uint8_t type) {
  return type == FRAME_TYPE_I || type == FRAME_TYPE_P || type == FRAME_TYPE_VIDEO_OTHER || type == FRAME_TYPE_IMAGE;
}

bool isKeyFrame(uint8_t type, uint8_t subType) {
  return type == FRAME_TYPE_I || type == FRAME_TYPE_IMAGE || (type == FRAME_TYPE_P && subType != 0);
}

bool isSmartFrame(uint8_t type, uint8_t subType) {
  return subType != 0 && (type == FRAME_TYPE_I || type == FRAME_TYPE_P);
}

uint32_t unpackFrameTime(uint32_t packed) {
  const int second = static_cast<int>(packed & 0x3F);
  const int minute = static_cast<int>((packed >> 6) & 0x3F);
  const int hour = static_cast<int>((packed >> 12) & 0x1F);
  const int day = static_cast<int>((packed >> 17) & 0x1F);
  const int month = static_cast<int>((packed >> 22) & 0x0F);
  const int year = static_cast<int>((packed >> 26) & 0x3F) + 2000;
  return static_cast<uint32_t>(Kandu::CTime::makeTime(year, month, day, hour, minute, second));
}

uint32_t frameTime(const uint8_t* head) { return unpackFrameTime(loadLe32(head + kOffPackedTime)); }

uint32_t packFrameTime(int year, int month, int day, int hour, int minute, int second) {
  const auto field = [](int v, uint32_t mask, int shift) { return (static_cast<uint32_t>(v) & mask) << shift; };
  return field(second, 0x3F, 0) | field(minute, 0x3F, 6) | field(hour, 0x1F, 12) | field(day, 0x1F, 17) |
         field(month, 0x0F, 22) | field(year - 2000, 0x3F, 26);
}

const uint8_t* findSvcItem(const uint8_t* extension, uint32_t extLength) {
  const uint8_t* found = nullptr;
  for (uint32_t pos = 0; pos < extLength; pos += extItemSize(extension[pos])) {
    if (extension[pos] == kExtTagSvc) found = extension + pos;
  }
  return found;
}

void buildFakeFrame(uint8_t* buffer, uint32_t size) {
  std::memset(buffer, 0, size);
  if (size < kMinFrameSize) return;
  storeLe32(buffer, kFrameHeadMagic);
  buffer[kOffType] = FRAME_TYPE_FAKE;
  storeLe32(buffer + kOffLength, size);
  sealFrameHead(buffer);
  storeLe32(buffer + size - kFrameTailSize, kFrameTailMagic);
  storeLe32(buffer + size - 4, size);
}

uint32_t skipToFrameHead(uint8_t* buffer, uint32_t length) {
  uint32_t matched = 0;
  uint32_t start = 0;
  for (uint32_t i = 0; i < length; ++i) {
    if (buffer[i] == kHeadMagicBytes[matched]) {
      if (matched == 0) start = i;
      if (++matched == sizeof(kHeadMagicBytes)) break;
    } else {
      // The mismatching byte is not retried as a first magic byte.
      matched = 0;
      start = i + 1;
    }
  }
  if (start > 0 && start < length) std::memmove(buffer, buffer + start, length - start);
  return start;
}

bool copyFrameToBuffer(VeltoFrame& dst, const VeltoFrame& src) { return dst.copyToBuffer(src, currentMaxFrameSize()); }

}  // namespace Velto::Zarn
