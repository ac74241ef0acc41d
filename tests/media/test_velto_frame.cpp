// Frame container: head/tail checks, classes, packed time, extension walk, fake
// frames, resynchronisation, and the VeltoFrame record of the public header.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "MediaContext.h"
#include "MediaValues.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kMax = 4194304;

void put32(Bytes& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// A complete frame laid out by hand (checksum summed here, not by the library).
Bytes makeFrame(uint8_t type, uint8_t subType, uint32_t sequence, const Bytes& ext, size_t payload,
                uint32_t packedTime = 0) {
  const uint32_t length = static_cast<uint32_t>(24 + ext.size() + payload + 8);
  Bytes b(length, 0x5A);
  std::memcpy(b.data(), "QRAV", 4);
  b[4] = type;
  b[5] = subType;
  b[6] = b[7] = 0x11;
  put32(b, 8, sequence);
  put32(b, 12, length);
  put32(b, 16, packedTime);
  b[20] = 0x34;
  b[21] = 0x12;
  b[22] = static_cast<uint8_t>(ext.size());
  unsigned sum = 0;
  for (int i = 0; i < 23; ++i) sum += b[i];
  b[23] = static_cast<uint8_t>(sum);
  std::copy(ext.begin(), ext.end(), b.begin() + 24);
  std::memcpy(&b[length - 8], "qrav", 4);
  put32(b, length - 4, length);
  return b;
}

VeltoFrame attached(Bytes& b) {
  VeltoFrame rec;
  rec.attach(b.data());
  return rec;
}

Bytes bytesOf(const VeltoFrame& rec) { return Bytes(rec.frame, rec.frame + rec.head.length); }

class MaxFrameSizeGuard {
 public:
  ~MaxFrameSizeGuard() { CMediaValues::instance().maxFrameSize.store(m_saved); }

 private:
  int32_t m_saved = CMediaValues::instance().maxFrameSize.load();
};

}  // namespace

TEST(FrameHead, ChecksumMagicAndLength) {
  // "QRAV" 314 + type 0xFD 253 + sequence 1 + length 100 = 668: checksum 0x9C.
  Bytes head(24, 0);
  std::memcpy(head.data(), "QRAV", 4);
  head[4] = 0xFD;
  head[8] = 1;
  head[12] = 100;
  struct Case {
    uint8_t checksum;
    uint32_t maxSize;
    bool valid;
  };
  const Case cases[] = {
      {0x9C, 101, true}, {0x9C, 100, false},  // the length must stay strictly below the maximum
      {0x9D, kMax, false}, {0x9B, kMax, false},
      {0x38, kMax, false},  // 0x9C + 0x9C: summed over 24 bytes, checksum included
  };
  for (const Case& c : cases) {
    head[23] = c.checksum;
    EXPECT_EQ(checkFrameHead(head.data(), c.maxSize), c.valid) << int(c.checksum) << " " << c.maxSize;
  }
  EXPECT_EQ(frameHeadChecksum(head.data()), 0x9C);
  sealFrameHead(head.data());
  EXPECT_EQ(head[23], 0x9C);
  std::memcpy(head.data(), "VARQ", 4);  // the magic in the wrong byte order
  sealFrameHead(head.data());
  EXPECT_FALSE(checkFrameHead(head.data(), kMax));

  // Without an explicit size the current process value decides.
  Bytes f = makeFrame(0xFC, 0, 9, {}, 68);  // L = 100
  MaxFrameSizeGuard guard;
  CMediaValues::instance().maxFrameSize.store(100);
  EXPECT_FALSE(checkFrameHead(f.data()));
  CMediaValues::instance().maxFrameSize.store(101);
  EXPECT_TRUE(checkFrameHead(f.data()));
}

TEST(FrameTail, MagicOnlyAndRecordsTooShortForATail) {
  Bytes f = makeFrame(0xFD, 0, 1, {0x80, 1, 2, 3}, 20);
  put32(f, f.size() - 4, 12345);  // the repeated length is not compared
  EXPECT_TRUE(checkFrameTail(attached(f)));
  f[f.size() - 5] = 'V';
  EXPECT_FALSE(checkFrameTail(f.data() + f.size() - 8));
  EXPECT_FALSE(checkFrameTail(VeltoFrame()));
  Bytes shortFrame = makeFrame(0xFD, 0, 1, {}, 0);
  put32(shortFrame, 12, 4);  // a tail pointer before the frame
  EXPECT_FALSE(checkFrameTail(attached(shortFrame)));
}

TEST(FrameClass, VideoKeyAndSmart) {
  struct Case {
    uint8_t type, subType;
    bool video, key, smart;
  };
  const Case cases[] = {
      {0xFD, 0, true, true, false}, {0xFD, 1, true, true, true},     {0xFC, 0, true, false, false},
      {0xFC, 1, true, true, true},  {0xFE, 1, true, false, false},   {0xFB, 1, true, true, false},
      {0xAA, 0, false, false, false}, {0x01, 1, false, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << int(c.type) << "/" << int(c.subType));
    Bytes f = makeFrame(c.type, c.subType, 1, {}, 0);
    const VeltoFrame rec = attached(f);
    EXPECT_EQ(isVideoFrame(rec.head), c.video);
    EXPECT_EQ(isKeyFrame(rec.head), c.key);
    EXPECT_EQ(isSmartFrame(rec.head), c.smart);
  }
}

TEST(FrameTime, PackedFieldsAreUtcCalendarTime) {
  const uint32_t last = (63u << 26) | (12u << 22) | (31u << 17) | (23u << 12) | (59u << 6) | 59u;
  EXPECT_EQ(unpackFrameTime(last), 2966371199u);  // 2063-12-31 23:59:59
  EXPECT_EQ(packFrameTime(2063, 12, 31, 23, 59, 59), last);
  Bytes f = makeFrame(0xFD, 0, 1, {}, 4, packFrameTime(2016, 5, 1, 23, 59, 30));
  EXPECT_EQ(frameTime(f.data()), 1462147170u);
  // Month bits 0 are not validated: December of the year before.
  EXPECT_EQ(unpackFrameTime((19u << 26) | (1u << 17)), 1543622400u);  // 2018-12-01
}

TEST(FrameExtension, WalkFindsTheLastSvcDescriptor) {
  const Bytes two = {0x80, 1, 2, 3, 0x94, 3, 1, 0, 0x82, 0, 0, 0, 0, 0, 0, 0, 0x94, 4, 0, 0};
  EXPECT_EQ(findSvcItem(two.data(), 20), two.data() + 16);  // the second wins
  EXPECT_EQ(findSvcItem(two.data(), 16), two.data() + 4);
  // 0x94 bytes inside 4- and 8-byte items are data; unknown tags skip one byte.
  const Bytes hidden = {0x81, 0x94, 0x94, 0x94, 0x96, 0x94, 0x94, 0x94, 0x94, 0x94, 0x94, 0x94, 0x7F, 0x94, 2, 1};
  EXPECT_EQ(findSvcItem(hidden.data(), 12), nullptr);
  EXPECT_EQ(findSvcItem(hidden.data(), 16), hidden.data() + 13);
  EXPECT_EQ(findSvcItem(hidden.data() + 12, 2), hidden.data() + 13);  // in the last byte: fit is not checked
  // An 8-byte tag with 2 bytes left ends the walk; the 0x94 past the end is not seen.
  const Bytes truncated = {0x80, 1, 2, 3, 0x88, 0x94, 0x94, 2, 1, 0};
  EXPECT_EQ(findSvcItem(truncated.data(), 6), nullptr);
}

TEST(FakeFrame, SizesBelowAndFromThirtyTwo) {
  Bytes b(40, 0xEE);
  buildFakeFrame(b.data(), 31);  // too short for a frame: zeroed only
  Bytes expected(31, 0);
  expected.resize(40, 0xEE);
  EXPECT_EQ(b, expected);

  b.assign(32, 0xEE);
  buildFakeFrame(b.data(), 32);
  expected.assign(32, 0);
  std::memcpy(expected.data(), "QRAV", 4);
  expected[4] = 0xAA;
  expected[12] = expected[28] = 32;
  expected[23] = static_cast<uint8_t>(314 + 0xAA + 32);
  std::memcpy(&expected[24], "qrav", 4);
  EXPECT_EQ(b, expected);

  b.assign(1000, 0xEE);
  buildFakeFrame(b.data(), 1000);
  EXPECT_TRUE(checkFrameHead(b.data(), kMax));
  EXPECT_TRUE(checkFrameTail(attached(b)));
  EXPECT_EQ(Bytes(b.begin() + 24, b.begin() + 992), Bytes(968, 0));
}

TEST(FrameResync, DiscardCountsIncludingTheOneLateCase) {
  struct Case {
    const char* in;
    uint32_t skipped;
    const char* kept;
  };
  const Case cases[] = {
      {"QRAVrest", 0, "QRAVrest"}, {"xyzQRAVab", 3, "QRAVab"}, {"QRxQRAVab", 3, "QRAVab"},
      {"QQRAVQRAVz", 5, "QRAVz"},  // the head at 1 is passed over: no retest of the 2nd 'Q'
      {"QRAQRAVQRAV", 7, "QRAV"},  {"QQRAV", 5, ""},  {"abcQR", 3, "QR"},  // partial magic kept
      {"Q", 0, "Q"},               {"QRAx", 4, ""},   {"", 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    std::string buffer = c.in;
    const uint32_t skipped =
        skipToFrameHead(reinterpret_cast<uint8_t*>(buffer.data()), static_cast<uint32_t>(buffer.size()));
    EXPECT_EQ(skipped, c.skipped);
    EXPECT_EQ(buffer.substr(0, buffer.size() - skipped), c.kept);
  }
}

TEST(VeltoFrameRecord, AttachCopyAndAssign) {
  Bytes f = makeFrame(0xFD, 1, 42, {0x80, 1, 2, 3}, 20);
  VeltoFrame rec = attached(f);
  EXPECT_EQ(rec.ownsBuffer, 0);
  EXPECT_EQ(rec.frame, f.data());
  EXPECT_EQ(rec.payload, f.data() + 28);
  EXPECT_EQ(rec.tail, f.data() + f.size() - 8);
  EXPECT_EQ(rec.head.sequence, 42u);
  EXPECT_EQ(rec.head.msStamp, 0x1234);

  VeltoFrame copy(rec);  // deep: owns its own bytes, pointers into them
  EXPECT_EQ(copy.ownsBuffer, 1);
  EXPECT_EQ(bytesOf(copy), f);
  EXPECT_EQ(copy.extension, copy.frame + 24);
  EXPECT_EQ(copy.tail, copy.frame + f.size() - 8);
  f[30] ^= 0xFF;
  EXPECT_NE(copy.frame[30], f[30]);

  Bytes g = makeFrame(0xFC, 0, 6, {}, 100);
  copy = attached(g);  // frees the old copy (checked by the sanitizer build)
  EXPECT_EQ(bytesOf(copy), g);
  uint8_t* before = copy.frame;
  copy = *&copy;
  EXPECT_EQ(copy.frame, before);

  rec.attach(nullptr);
  EXPECT_EQ(rec.tail, nullptr);
  copy = rec;
  EXPECT_EQ(copy.frame, nullptr);
  EXPECT_EQ(copy.ownsBuffer, 1);
  EXPECT_EQ(copy.head.length, 0u);
}

TEST(VeltoFrameRecord, CopyToBufferKeepsOneBuffer) {
  Bytes a = makeFrame(0xFD, 0, 1, {}, 8), b = makeFrame(0xFC, 0, 2, {0x80, 0, 0, 0}, 800);
  const VeltoFrame srcA = attached(a), srcB = attached(b);
  VeltoFrame dst;
  ASSERT_TRUE(dst.copyToBuffer(srcA, 4096));
  uint8_t* buffer = dst.frame;
  ASSERT_TRUE(dst.copyToBuffer(srcB, 4096));
  EXPECT_EQ(dst.frame, buffer);
  EXPECT_EQ(dst.payload, buffer + 28);
  EXPECT_EQ(bytesOf(dst), b);
  EXPECT_FALSE(dst.copyToBuffer(srcA, 39));  // longer than the buffer: unchanged
  EXPECT_EQ(dst.head.sequence, 2u);

  VeltoFrame exact(srcA);  // owns exactly 40 bytes: grown, not overrun
  ASSERT_TRUE(exact.copyToBuffer(srcB, 4096));
  EXPECT_EQ(bytesOf(exact), b);

  Bytes host(1024, 0);  // an attached host buffer is filled in place
  VeltoFrame out = attached(host);
  ASSERT_TRUE(out.copyToBuffer(srcB, 1024));
  EXPECT_EQ(out.frame, host.data());
  EXPECT_EQ(Bytes(host.begin(), host.begin() + b.size()), b);
}
