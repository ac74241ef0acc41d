#include "Frames.h"

#include <algorithm>
#include <cstring>
#include <ctime>

namespace ZarnMedia {

uint32_t packTime(int64_t epochSeconds) {
  if (epochSeconds < kFirstPackableTime || epochSeconds > kLastPackableTime) return 0;
  const time_t t = static_cast<time_t>(epochSeconds);
  struct tm tm {};
  if (gmtime_r(&t, &tm) == nullptr) return 0;
  return static_cast<uint32_t>(tm.tm_sec) | static_cast<uint32_t>(tm.tm_min) << 6 |
         static_cast<uint32_t>(tm.tm_hour) << 12 | static_cast<uint32_t>(tm.tm_mday) << 17 |
         static_cast<uint32_t>(tm.tm_mon + 1) << 22 | static_cast<uint32_t>(tm.tm_year - 100) << 26;
}

int64_t unpackTime(uint32_t packed) {
  struct tm tm {};
  tm.tm_sec = static_cast<int>(packed & 0x3F);
  tm.tm_min = static_cast<int>(packed >> 6 & 0x3F);
  tm.tm_hour = static_cast<int>(packed >> 12 & 0x1F);
  tm.tm_mday = static_cast<int>(packed >> 17 & 0x1F);
  tm.tm_mon = static_cast<int>(packed >> 22 & 0x0F) - 1;
  tm.tm_year = static_cast<int>(packed >> 26) + 100;
  return static_cast<int64_t>(timegm(&tm));
}

bool buildFrame(const FrameFields& fields, const uint8_t* payload, size_t size, std::vector<uint8_t>& out) {
  const uint32_t packed = packTime(fields.epochSeconds);
  if (packed == 0) return false;
  const uint32_t length = static_cast<uint32_t>(size) + kFrameOverhead;
  out.assign(length, 0);
  Velto::Zarn::VeltoFrameHead head{};
  std::memcpy(&head.magic, "QRAV", 4);
  head.type = fields.key ? kFrameTypeI : kFrameTypeP;
  head.subType = 0;
  const uint16_t offset = std::min(fields.ptsOffsetMs, kMaxPtsOffsetMs);
  const bool demotedKey = fields.keyPicture && !fields.key;
  head.reserved6 = static_cast<uint8_t>(offset & 0xFF);
  head.reserved7 = static_cast<uint8_t>(offset >> 8 | (demotedKey ? 0x80 : 0));
  head.sequence = fields.sequence;
  head.length = length;
  head.packedTime = packed;
  head.msStamp = fields.msStamp;
  head.extLength = 0;
  std::memcpy(out.data(), &head, sizeof(head));
  unsigned sum = 0;
  for (size_t i = 0; i < 23; ++i) sum += out[i];
  out[23] = static_cast<uint8_t>(sum);
  if (size != 0) std::memcpy(out.data() + sizeof(head), payload, size);
  std::memcpy(out.data() + length - 8, "qrav", 4);
  std::memcpy(out.data() + length - 4, &length, 4);
  return true;
}

FrameFields readFrameFields(const Velto::Zarn::VeltoFrameHead& head) {
  FrameFields f;
  f.key = head.type == kFrameTypeI || head.type == 0xFB || (head.type == kFrameTypeP && head.subType != 0);
  f.sequence = head.sequence;
  f.epochSeconds = unpackTime(head.packedTime);
  f.msStamp = head.msStamp;
  f.ptsOffsetMs = static_cast<uint16_t>(head.reserved6 | (head.reserved7 & 0x7F) << 8);
  f.keyPicture = f.key || (head.reserved7 & 0x80) != 0;
  return f;
}

std::vector<NalUnit> splitAnnexB(const uint8_t* data, size_t size) {
  std::vector<NalUnit> units;
  size_t i = 0;
  size_t start = size;  // first byte of the unit being collected; size = none yet
  while (i + 3 <= size) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
      if (start < size) {
        size_t end = i;
        // The zero of a 4-byte start code belongs to the start code, not to the unit.
        if (end > start && data[end - 1] == 0) --end;
        units.push_back({data + start, end - start});
      }
      i += 3;
      start = i;
    } else {
      ++i;
    }
  }
  if (start < size) units.push_back({data + start, size - start});
  return units;
}

int nalType(Codec codec, const NalUnit& nal) {
  if (nal.size == 0) return -1;
  return codec == Codec::H264 ? (nal.data[0] & 0x1F) : (nal.data[0] >> 1 & 0x3F);
}

bool isDecoderConfigNal(Codec codec, const NalUnit& nal) {
  const int t = nalType(codec, nal);
  if (codec == Codec::H264) return t == 7 || t == 8;
  return t == 32 || t == 33 || t == 34 || t == 39;
}

bool isPictureNal(Codec codec, const NalUnit& nal) {
  const int t = nalType(codec, nal);
  return codec == Codec::H264 ? (t >= 1 && t <= 5) : (t >= 0 && t <= 31);
}

}  // namespace ZarnMedia
