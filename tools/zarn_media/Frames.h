// Frame carriage of zarn-media: how one compressed video packet becomes one
// frame of a stream and back.
//
// A recorded frame is the container of doc/frame_format.md with no extension
// area: head (24 bytes), the packet as Annex-B (start-code prefixed NAL units,
// parameter sets in band before every key picture), tail (8 bytes).
//
//   type        0xFD for a key packet, 0xFC (sub-type 0) for every other one;
//               but at most one I frame per second (below)
//   sequence    0, 1, 2, ... per recording
//   packedTime  UTC calendar time of the packet's decode time, whole seconds
//   msStamp     decode time in milliseconds since the first packet, mod 65536
//   bytes 6-7   little-endian: bits 0-14 presentation offset (pts - dts) in
//               milliseconds, 0 without B-frames; bit 15 set on a key packet
//               recorded as a P frame. The library carries these bytes unchanged.
//
// The store indexes I frames by whole seconds and starts playback at the last
// I frame of a second, so a second key packet within one second (short or
// open groups of pictures) is recorded as a P frame: playback from that
// second then starts at its first key packet and loses nothing. Exports still
// mark such packets as key pictures.
//
// The codec is not in the frames but in the stream type given to addStream:
// kStreamTypeH264 (264) or kStreamTypeH265 (265). Frame rate and duration
// follow from the stamps, so a stream can be remuxed without its source file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ZarnMediaClient.h"

namespace ZarnMedia {

inline constexpr short kStreamTypeH264 = 264;
inline constexpr short kStreamTypeH265 = 265;

enum class Codec { H264, H265 };

inline constexpr uint8_t kFrameTypeI = 0xFD;
inline constexpr uint8_t kFrameTypeP = 0xFC;
inline constexpr uint32_t kFrameOverhead = 24 + 8;  // head + tail, no extension

// The packed date and time of a frame head: second:6 minute:6 hour:5 day:5
// month:4 (year-2000):6, from and to seconds since the epoch (UTC). Times
// before 2000 or after 2063 do not fit; packTime returns 0 for them.
uint32_t packTime(int64_t epochSeconds);
int64_t unpackTime(uint32_t packed);
inline constexpr int64_t kFirstPackableTime = 946684800;   // 2000-01-01 00:00:00
inline constexpr int64_t kLastPackableTime = 2966371199;   // 2063-12-31 23:59:59

struct FrameFields {
  bool key = false;          // recorded as an I frame
  bool keyPicture = false;   // the packet is a key picture (also when recorded as P)
  uint32_t sequence = 0;
  int64_t epochSeconds = 0;  // UTC
  uint16_t msStamp = 0;
  uint16_t ptsOffsetMs = 0;  // below 32768
};
inline constexpr uint16_t kMaxPtsOffsetMs = 0x7FFF;

// Replaces `out` with a whole frame carrying `payload`. false when the time
// does not pack.
bool buildFrame(const FrameFields& fields, const uint8_t* payload, size_t size, std::vector<uint8_t>& out);

// The fields of a frame read back from a stream (its head bytes).
FrameFields readFrameFields(const Velto::Zarn::VeltoFrameHead& head);

// One NAL unit inside an Annex-B buffer: where its header byte starts and how
// long it is (start code excluded).
struct NalUnit {
  const uint8_t* data;
  size_t size;
};

// Splits an Annex-B buffer at its 3- and 4-byte start codes. Bytes before the
// first start code are ignored.
std::vector<NalUnit> splitAnnexB(const uint8_t* data, size_t size);

// NAL unit type of a unit's header byte(s) for the codec.
int nalType(Codec codec, const NalUnit& nal);
// What a container keeps as its decoder configuration: SPS and PPS for H.264;
// VPS, SPS, PPS and prefix SEI for H.265 (an hvcC box carries SEI too).
bool isDecoderConfigNal(Codec codec, const NalUnit& nal);
// A unit carrying (part of) a picture.
bool isPictureNal(Codec codec, const NalUnit& nal);

}  // namespace ZarnMedia
