// Operations on raw frame bytes of the VeltoFrame container.
//
// A frame is a self-delimiting byte record: a 24-byte head starting with "QRAV",
// an extension area of E tagged bytes, the payload and an 8-byte tail starting
// with "qrav". The byte layout (head fields, packed time, extension tags, tail,
// fake padding frames) is written down in doc/frame_format.md; the in-memory
// record VeltoFrame and its head VeltoFrameHead live in the public header.
//
// Every function here takes a pointer to the head's first byte (or to the
// extension area / tail where named so) and reads the frame as little-endian
// bytes; none of them keeps state. The only shared value they read is the
// process-wide maximum frame size (CMediaValues::instance().maxFrameSize), taken
// anew at each call by the overloads without an explicit size.
//
// Callers own the bytes and guarantee that at least the 24 head bytes are
// readable. The head check does not check that E fits inside L or that L
// covers a head and a tail; frameLayoutFits does.
#pragma once

#include <cstdint>

#include "ZarnMediaClient.h"

namespace Velto::Zarn {

// Head magic "QRAV" as a little-endian 32-bit word, and the tail magic "qrav".
inline constexpr uint32_t kFrameHeadMagic = 0x56415251;
inline constexpr uint32_t kFrameTailMagic = 0x76617271;
inline constexpr uint32_t kFrameHeadSize = 24;  // bytes
inline constexpr uint32_t kFrameTailSize = 8;   // magic + repeated length
// The smallest buffer that can hold a frame (a head and a tail, nothing between);
// a fake frame below this size is plain zero bytes.
inline constexpr uint32_t kMinFrameSize = kFrameHeadSize + kFrameTailSize;
// Head bytes covered by the checksum: 0..22; byte 23 holds the checksum itself.
inline constexpr uint32_t kFrameChecksumSpan = 23;

// Frame types (head byte 4).
enum VeltoFrameType : uint8_t {
  FRAME_TYPE_IMAGE = 0xFB,        // still picture; video, key
  FRAME_TYPE_P = 0xFC,            // video; key only when smart (sub-type non-zero)
  FRAME_TYPE_I = 0xFD,            // video, key
  FRAME_TYPE_VIDEO_OTHER = 0xFE,  // video, never key
  FRAME_TYPE_FAKE = 0xAA,         // padding written at flush points; not video
};

// Extension item tags. The SVC descriptor carries the stream's SVC level count
// in its byte 1 and a non-zero layer flag in its byte 2 (byte 3 unused).
inline constexpr uint8_t kExtTagSvc = 0x94;
inline constexpr uint32_t kExtSvcItemSize = 4;

// Sum of head bytes 0..22 modulo 256.
uint8_t frameHeadChecksum(const uint8_t* head);
// Writes frameHeadChecksum into head byte 23 (after a head field was changed).
void sealFrameHead(uint8_t* head);

// Head check: magic "QRAV", byte 23 equal to the checksum, and L strictly below
// maxFrameSize. The overloads without a size use the current process value.
bool checkFrameHead(const uint8_t* head, uint32_t maxFrameSize);
bool checkFrameHead(const uint8_t* head);
// The same rule; a failing head is also reported on standard output (not the
// log), with the checksums printed as characters.
bool checkFrameHeadLoud(const uint8_t* head, uint32_t maxFrameSize);
bool checkFrameHeadLoud(const uint8_t* head);
// The process-wide maximum frame size, bytes (as set, unchecked, by the host).
uint32_t currentMaxFrameSize();

// Whether a frame can hold what its head announces: L covers a head and a
// tail, and the E extension bytes fit between them. The head check does not
// look at this; whoever walks the extension area must, or the walk reads past
// the frame.
bool frameLayoutFits(const uint8_t* head);

// Tail check: the four bytes at `tail` are "qrav". The repeated length that
// follows is never compared.
bool checkFrameTail(const uint8_t* tail);
// The same on a record's tail pointer; false for an empty record or one whose
// length cannot hold a head and a tail (its tail pointer lies inside the head
// or before the buffer).
bool checkFrameTail(const VeltoFrame& frame);

// Frame classes by type and sub-type byte.
bool isVideoFrame(uint8_t type);
bool isKeyFrame(uint8_t type, uint8_t subType);
bool isSmartFrame(uint8_t type, uint8_t subType);
inline bool isVideoFrame(const VeltoFrameHead& head) { return isVideoFrame(head.type); }
inline bool isKeyFrame(const VeltoFrameHead& head) { return isKeyFrame(head.type, head.subType); }
inline bool isSmartFrame(const VeltoFrameHead& head) { return isSmartFrame(head.type, head.subType); }

// Frame time: the packed date and time at head offset 16, taken as UTC calendar
// fields and converted with the runtime's makeTime. Fields are not validated
// (month 0 becomes December of the year before, as the calendar normalises it).
uint32_t unpackFrameTime(uint32_t packed);
uint32_t frameTime(const uint8_t* head);
// The inverse packing, for building frames; fields are masked to their widths.
uint32_t packFrameTime(int year, int month, int day, int hour, int minute, int second);

// Walks the extension area (E = extLength bytes at `extension`) and returns the
// last SVC descriptor item, or null when there is none. The walk stops once the
// position reaches or passes E without checking that the last item fits, so a
// descriptor starting in the last three bytes is returned as well and its
// bytes 1..3 then lie past the area (inside the payload or tail of a frame).
const uint8_t* findSvcItem(const uint8_t* extension, uint32_t extLength);

// Fills `size` bytes with a fake (padding) frame: all zeros, and for a size of
// kMinFrameSize or more a head of type 0xAA with length `size`, its checksum,
// and the tail "qrav" + size at the end. Below kMinFrameSize the bytes stay zero
// and are no frame at all.
void buildFakeFrame(uint8_t* buffer, uint32_t size);

// Resynchronisation of a damaged byte stream: scans buffer[0, length) for the
// head magic, discards the bytes before the candidate head by moving the rest
// to the front, and returns how many were discarded (0 when the buffer already
// begins with a head or a partial head). A partial magic at the very end is
// kept for the next read.
//
// The matcher deliberately does not retest a mismatching byte as the start of a
// new match: after a stray 'Q', "QQRAV" resumes one byte late and the head that
// follows is passed over. Readers depend on this exact discard count.
uint32_t skipToFrameHead(uint8_t* buffer, uint32_t length);

// Copies `src` into dst's reusable buffer, allocating the current maximum
// frame size on first use (see VeltoFrame::copyToBuffer).
bool copyFrameToBuffer(VeltoFrame& dst, const VeltoFrame& src);

}  // namespace Velto::Zarn
